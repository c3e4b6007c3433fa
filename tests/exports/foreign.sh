#!/usr/bin/env bash
# foreign.sh LIBRARY
# Prints what LIBRARY exports, weak symbols included, that is not of the tarn namespace. libtarn has
# no C interface, and what the compiler makes of the standard library's templates is its own affair.
set -euo pipefail

nm -D --defined-only -- "$1" | awk '
    { sub(/@.*/, "", $3) }
    $3 !~ /^_Z(T[ISV])?NK?4tarn/ { print $3 }
' | c++filt
