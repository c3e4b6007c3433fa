#!/usr/bin/env bash
# exported.sh LIBRARY
# Prints what LIBRARY offers to others by its own decision, one demangled name a line, sorted.
#
# Left out are weak symbols, which the compiler emits wherever an inline function or a template is
# used and which come and go with the optimisation level; with one exception: type information of
# the tarn namespace, without which exceptions and casts fail across the library's border.
set -euo pipefail

nm -D --defined-only -- "$1" | awk '
    $2 ~ /^[A-TX-Z]$/                   { print $3 }
    $2 ~ /^[VW]$/ && $3 ~ /^_ZTIN4tarn/ { print $3 }
' | c++filt | LC_ALL=C sort -u
