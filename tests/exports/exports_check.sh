#!/usr/bin/env bash
# exports_check.sh LIBRARY
# Fails when LIBRARY exports something that is not on the list beside this script, lacks something
# that is, or lets out any symbol that is not of tarn.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
library=$1

foreign=$("$here/foreign.sh" "$library")
if [[ -n $foreign ]]; then
    printf 'exported, but not of tarn:\n%s\n' "$foreign" >&2
    exit 1
fi
if ! diff -u --label "the list (tests/exports/exported.txt)" --label "the library" \
    "$here/exported.txt" <("$here/exported.sh" "$library"); then
    echo "An intended change of the interface is recorded with: ./dev exports" >&2
    exit 1
fi
echo "$(wc -l <"$here/exported.txt") exported symbols, all on the list"
