#!/usr/bin/env bash
# exports_check.sh LIBRARY
# Fails when LIBRARY exports something that is not on the list beside this script, lacks something
# that is, or lets out a symbol of the C libraries it wraps.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
library=$1

# Weak ones included: no C symbol at all, since libtarn has no C interface, and in C++ none outside
# tarn but instantiations of the standard library's templates.
foreign=$(nm -D --defined-only -- "$library" | awk '{ print $3 }' | c++filt |
    grep -vE '(^|[ *&(<])(tarn|std|__gnu_cxx)::' || true)
if [[ -n $foreign ]]; then
    printf 'exported, but neither of tarn nor of the standard library:\n%s\n' "$foreign" >&2
    exit 1
fi
if ! diff -u --label "the list (tests/exports/exported.txt)" --label "the library" \
    "$here/exported.txt" <("$here/exported.sh" "$library"); then
    echo "An intended change of the interface is recorded with: ./dev exports" >&2
    exit 1
fi
echo "$(wc -l <"$here/exported.txt") exported symbols, all on the list"
