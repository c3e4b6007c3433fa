#!/usr/bin/env bash
# headers_check.sh alone|together COMPILER STANDARD INCLUDE_DIR...
# Compiles every header below each INCLUDE_DIR as an application would include it: each alone, or all
# in one source, which takes a tenth of the time, with all our warnings as errors, and without reaching a header of libubox or libubus, nor of nlohmann-json
# but from the one that is about JSON. What else they include is in CPLUS_INCLUDE_PATH.
set -euo pipefail

way=$1 compiler=$2 standard=$3 folders=("${@:4}")

command -v "$compiler" >/dev/null || {
    echo "$compiler is not installed (TARN_HEADER_COMPILERS lists what is tried)" >&2
    exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

checked=0 bad=0
# compile HEADER...: in one source.
compile() {
    # Twice, to see that each guards itself.
    printf '#include "%s"\n' "$@" "$@" >"$work/source.cpp"
    if ! "$compiler" "-std=$standard" -fsyntax-only -fPIC "${folders[@]/#/-I}" -MD -MF "$work/used" \
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror "$work/source.cpp"; then
        echo "$*: does not compile $way" >&2
        bad=$((bad + 1))
    elif grep -E '(^|[ /])(libubox/|libubus)' "$work/used" >&2; then
        echo "$*: includes a header of libubox or libubus" >&2
        bad=$((bad + 1))
    elif [[ $* != *tarn/ext/json.h* ]] && grep -E '/nlohmann/' "$work/used" >&2; then
        echo "$*: includes nlohmann-json, which only tarn/ext/json.h may need" >&2
        bad=$((bad + 1))
    fi
    checked=$((checked + $#))
}

mapfile -t headers < <(
    for folder in "${folders[@]}"; do (cd "$folder" && find tarn -name '*.h'); done | sort
)
if [[ $way == together ]]; then
    compile "${headers[@]}"
else
    for header in "${headers[@]}"; do
        compile "$header"
    done
fi

echo "$checked headers $way with $compiler -std=$standard, $bad bad"
[[ $checked -gt 0 && $bad -eq 0 ]]
