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

# dump_of LIBRARY FILE: nothing in it depends on where the library was built.
dump_of() {
    abidw --suppressions "$own_names" --headers-dir "$source/include" --drop-private-types \
        --exported-interfaces-only --drop-undefined-syms --no-elf-needed --no-parameter-names \
        --no-show-locs --no-comp-dir-path --no-corpus-path --out-file "$2" "$1"
}

if [[ ${2:-} == --write ]]; then
    dump_of "$library" "$dump"
    echo "$dump: $(wc -c <"$dump") bytes"
    exit 0
fi

# Dump with dump: against the library itself abidiff takes the types of the dump, which has no names of
# files, for private ones, and passes over their changes.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dump_of "$library" "$work/now.abi"
status=0
abidiff "$dump" "$work/now.abi" >"$work/report.txt" || status=$?
cat "$work/report.txt"
# Of the bits of the status 1 and 2 are errors of use, 4 is a change, 8 one that surely breaks programs.
((status & 3)) && fail "abidiff ended with status $status"
if grep -qE 'summary: .*(^|[^0-9])[1-9][0-9]* (Removed|Changed)' "$work/report.txt" || ((status & 8)); then
    fail "Programs linked against the interface in the dump BREAK with this library, unless a virtual" \
        "function after the last one is all that changed. Take the change back, or raise the minor version" \
        "and with it the soname (docs/abi.md); then: ./dev abi --write"
elif ((status & 4)); then
    fail "The interface has more than the dump; earlier programs run on. If it is meant: ./dev abi --write"
fi
echo "The binary interface is that of the dump: $(grep -c '<elf-symbol ' "$dump") symbols."
