#!/usr/bin/env bash
# readme_check.sh [--write] SOURCE
# The programs shown in README.md and docs/tutorial.md are the files that the line above each names
# ("<!-- examples/hello.cpp -->"), byte for byte, and short enough to be taken in at a glance. With
# --write, puts them there.
set -euo pipefail

write=
if [[ $1 == --write ]]; then
    write=1
    shift
fi
cd -- "$1"

# shown_in PAGE: the files that a page names above its code.
shown_in() { sed -n 's/^<!-- \(examples\/.*\) -->$/\1/p' "$1"; }

# put PROGRAM PAGE: replaces the code under the program's mark.
put() {
    local with_program
    with_program=$(mktemp)
    awk -v program="$1" '
        $0 == "<!-- " program " -->"   { marked = 1 }
        marked && /^```$/              { marked = skip = 0 }
        !skip
        marked && /^```[a-z]+$/        { skip = 1
                                         while ((getline line < program) > 0) print line }
    ' "$2" >"$with_program"
    cat "$with_program" >"$2"
    rm -f "$with_program"
}

# check PROGRAM PAGE LINES: the page shows the program, which has at most so many lines.
check() {
    local lines
    diff -u --label "$2" --label "$1" \
        <(awk -v program="$1" '
            $0 == "<!-- " program " -->"   { marked = 1; next }
            marked && /^```[a-z]+$/        { shown = 1; next }
            shown && /^```$/               { exit }
            shown' "$2") "$1"
    lines=$(wc -l <"$1")
    [[ $lines -gt 0 && $lines -le $3 ]] || {
        echo "$1 has $lines lines; at most $3 are meant" >&2
        exit 1
    }
}

for page in README.md:12:1 docs/tutorial.md:40:7; do
    IFS=: read -r page most count <<<"$page"
    mapfile -t programs < <(shown_in "$page")
    [[ ${#programs[@]} -eq $count ]] || {
        echo "$page shows ${#programs[@]} programs; $count are meant" >&2
        exit 1
    }
    for program in "${programs[@]}"; do
        [[ -z $write ]] || put "$program" "$page"
        check "$program" "$page" "$most"
    done
done
