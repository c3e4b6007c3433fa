#!/usr/bin/env bash
# abi_check.sh LIBRARY [--write]
# Compares the binary interface of LIBRARY, which has debug information, with the dump in packaging/abi, and
# says what programs linked against the earlier one would meet. With --write, makes the dump anew.
set -euo pipefail

source=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
library=$1
dump=$source/packaging/abi/libtarn-x86_64.abi
own_names=$source/packaging/abi/own_names.suppr

fail() {
    printf 'abi: %s\n' "$*" >&2
    exit 1
}

[[ $(uname -m) == x86_64 ]] || fail "the dump is of the binary interface on x86_64"
readelf -S "$library" | grep -q '\.debug_info' || fail "$library has no debug information"

if [[ ${2:-} == --write ]]; then
    # Nothing in it depends on where the library was built.
    abidw --suppressions "$own_names" --headers-dir "$source/include" --drop-private-types \
        --exported-interfaces-only --drop-undefined-syms --no-elf-needed --no-parameter-names \
        --no-show-locs --no-comp-dir-path --no-corpus-path --out-file "$dump" "$library"
    echo "$dump: $(wc -c <"$dump") bytes"
    exit 0
fi

status=0
abidiff --suppressions "$own_names" --headers-dir2 "$source/include" --drop-private-types \
    --exported-interfaces-only --no-show-locs --fail-no-debug-info "$dump" "$library" || status=$?
# Of the bits of the status 1 and 2 are errors of use, 4 is a change, 8 one that breaks programs.
((status & 3)) && fail "abidiff ended with status $status"
if ((status & 8)); then
    fail "Programs linked against the interface in the dump would BREAK with this library. Take the change" \
        "back, or raise the minor version and with it the soname (docs/abi.md); then: ./dev abi --write"
elif ((status & 4)); then
    fail "The interface differs from the dump, see above. What is only added serves earlier programs; a" \
        "changed size, layout or virtual table does not (docs/abi.md). Once it is meant: ./dev abi --write"
fi
echo "The binary interface is that of the dump: $(grep -c '<elf-symbol ' "$dump") symbols."
