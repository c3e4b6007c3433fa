#!/usr/bin/env bash
# readme_check.sh [--write] SOURCE
# The program shown in README.md is examples/hello.cpp, byte for byte, and short enough to be taken
# in at a glance. With --write, puts it there.
set -euo pipefail

write=
if [[ $1 == --write ]]; then
    write=1
    shift
fi
cd -- "$1"
program=examples/hello.cpp

if [[ -n $write ]]; then
    with_program=$(mktemp)
    awk -v program="$program" '
        $0 == "<!-- " program " -->"   { marked = 1 }
        marked && /^```$/              { marked = skip = 0 }
        !skip
        marked && /^```cpp$/           { skip = 1
                                         while ((getline line < program) > 0) print line }
    ' README.md >"$with_program"
    cat "$with_program" >README.md
    rm -f "$with_program"
fi

diff -u --label README.md --label "$program" \
    <(awk -v program="$program" '
        $0 == "<!-- " program " -->"   { marked = 1; next }
        marked && /^```cpp$/           { shown = 1; next }
        shown && /^```$/               { exit }
        shown' README.md) "$program"

lines=$(wc -l <"$program")
[[ $lines -gt 0 && $lines -le 12 ]] || {
    echo "$program has $lines lines; at most 12 are meant" >&2
    exit 1
}
