#!/bin/sh
# emulated.sh PROGRAM EMULATOR [OPTION...]  Makes PROGRAM a script that runs it under the emulator;
# the program itself becomes PROGRAM.elf.
set -eu
program=$(realpath -- "$1")
shift
mv -- "$program" "$program.elf"
# In the same process, under the name that it was called by.
# shellcheck disable=SC2016 # expanded by the script that is written
printf '#!/bin/sh\nexec %s -0 "$0" "%s" "$@"\n' "$*" "$program.elf" >"$program"
chmod +x -- "$program"
