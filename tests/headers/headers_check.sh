#!/usr/bin/env bash
# headers_check.sh COMPILER STANDARD INCLUDE_DIR...
# Compiles every header below each INCLUDE_DIR as an application would include it: alone, with all
# our warnings as errors, and without reaching a header of libubox or libubus, nor of nlohmann-json
# but from the one that is about JSON. What else they include is in CPLUS_INCLUDE_PATH.
set -euo pipefail

compiler=$1 standard=$2 folders=("${@:3}")

command -v "$compiler" >/dev/null || {
    echo "$compiler is not installed (TARN_HEADER_COMPILERS lists what is tried)" >&2
    exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

checked=0 bad=0
while IFS= read -r header; do
    # Twice, to see that the header guards itself.
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" >"$work/alone.cpp"
    if ! "$compiler" "-std=$standard" -fsyntax-only -fPIC "${folders[@]/#/-I}" -MD -MF "$work/used" \
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror "$work/alone.cpp"; then
        echo "$header: does not compile alone" >&2
        bad=$((bad + 1))
    elif grep -E '(^|[ /])(libubox/|libubus)' "$work/used" >&2; then
        echo "$header: includes a header of libubox or libubus" >&2
        bad=$((bad + 1))
    elif [[ $header != tarn/ext/json.h ]] && grep -E '/nlohmann/' "$work/used" >&2; then
        echo "$header: includes nlohmann-json, which only tarn/ext/json.h may need" >&2
        bad=$((bad + 1))
    fi
    checked=$((checked + 1))
done < <(for folder in "${folders[@]}"; do (cd "$folder" && find tarn -name '*.h'); done | sort)

echo "$checked headers with $compiler -std=$standard, $bad bad"
[[ $checked -gt 0 && $bad -eq 0 ]]
