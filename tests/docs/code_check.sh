#!/usr/bin/env bash
# code_check.sh COMPILER SOURCE
# Every block of C++ or C in the pages is what it claims to be: the text of an example, or code that
# compiles. CONTRIBUTING.md says how a page marks its blocks. What other libraries the code needs is
# in CPLUS_INCLUDE_PATH.
set -euo pipefail

compiler=$1
cd -- "$2"
command -v "$compiler" >/dev/null || {
    echo "$compiler is not installed" >&2
    exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# For each block: a line "NUMBER example PATH PAGE:LINE", with its text in NUMBER.txt, or a line
# "NUMBER code STANDARD PAGE:LINE", with a whole translation unit in NUMBER.cpp. Coroutines need
# C++20; the rest is meant for C++17. C is for plain libubus.
# shellcheck disable=SC2016 # awk's own dollars
awk -v work="$work" '
    function refuse(reason) { print FILENAME ":" FNR ": " reason >"/dev/stderr"; bad = 1 }
    function forget_marks() { example = before = after = part = ""; wrapped = 0 }
    function located(line) { return "#line " line " \"" FILENAME "\"\n" }

    FNR == 1 {
        if (shown || part) refuse("the page before this one ends inside a block")
        shown = 0
        forget_marks()
    }
    shown && /^```$/ {
        shown = 0
        if (example) {
            printf "%s", text >(work "/" number ".txt")
            print number, "example", example, place
        } else {
            unit = includes before located(first) text after
            printf "%s", unit >(work "/" number ".cpp")
            standard = text ~ /co_(await|return|yield)/ ? "c++20" : "c++17"
            print number, "code", (is_c ? "gnu11" : standard), place
        }
        forget_marks()
        next
    }
    shown {
        # In a function there can be no #include; the line number of the others stays.
        if (wrapped && /^#include/) {
            includes = includes located(FNR) $0 "\n"
            text = text "\n"
        } else {
            text = text $0 "\n"
        }
        next
    }
    part && /^-->$/                  { part = ""; next }
    part == "before" && /^\.\.\.$/   { part = "after"; next }
    part == "before"                 { before = before located(FNR) $0 "\n"; next }
    part == "after"                  { after = after located(FNR) $0 "\n"; next }
    /^<!-- code$/                    { forget_marks(); wrapped = 1; part = "before"; next }
    /^<!-- examples\/[^ ]* -->$/     { forget_marks(); example = $2; next }
    /^```(c|cpp)$/ {
        shown = 1
        is_c = /c$/
        ++number
        place = FILENAME ":" FNR
        first = FNR + 1
        text = includes = ""
        next
    }
    /^ *(```|~~~) *(c|cc|cpp|cxx|c\+\+|C|C\+\+)$/ { refuse("the language of a block is c or cpp") }
    NF                               { forget_marks() }
    END {
        if (shown || part) refuse("the page ends inside a block")
        exit bad
    }' README.md docs/*.md loops/README.md >"$work/blocks"

# -Wno-unused-*: what a page shows is often used by the reader alone.
options=(-fsyntax-only -Wall -Wextra -Werror -Wno-unused-variable
    -Wno-unused-but-set-variable -Wno-unused-function
    -Iinclude -Iloops/include -Iloops/asio/include -Iloops/glib/include -Iloops/qt/include
    -Iloops/sd_event/include -Iloops/uv/include -Iloops/conformance -Itesting/include -I.)

checked=0 bad=0
while read -r number kind what place; do
    if [[ $kind == example ]]; then
        diff -u --label "$place" --label "$what" "$work/$number.txt" "$what" ||
            bad=$((bad + 1))
    elif [[ $what == gnu11 ]]; then
        # The headers of the bundled bus declare what the real ones do.
        cc -x c "-std=$what" -fsyntax-only -Wall -Werror -isystem bus/include \
            "$work/$number.cpp" || {
            echo "$place: does not compile" >&2
            bad=$((bad + 1))
        }
    elif ! "$compiler" "-std=$what" "${options[@]}" "$work/$number.cpp"; then
        echo "$place: does not compile" >&2
        bad=$((bad + 1))
    fi
    checked=$((checked + 1))
done <"$work/blocks"

echo "$checked blocks of C++ and C, $bad bad"
[[ $checked -gt 0 && $bad -eq 0 ]]
