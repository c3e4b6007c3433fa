#!/usr/bin/env bash
# filter.sh FILE
# What Doxygen reads in place of FILE, line for line: headers and pages are written for a reader of
# the source, and leave to this what only Doxygen needs.
set -euo pipefail

case $1 in
*.h)
    # The opening comment describes the file. Lines of "Thread: ..." and the like begin a paragraph;
    # "msg::timeout    meaning" is an item of a list, except in a block of code, which has more
    # indent, and the list ends where the indent does. An enumeration made of a list X(number, name, message) is written out.
    awk '
        /^    X\([0-9]+, [a-z_]+, ".*"\)/ {
            split($0, part, /[(,]+ */)
            message = $0
            gsub(/^[^"]*"|"[^"]*$/, "", message)
            values = values part[3] " = " part[2] ", /**< \"" message "\" */ "
        }
        /^#define TARN_ERROR_.*_LIST/ { list = $2; sub(/\(.*/, "", list) }
        list && !/\\$/                { expansion[list] = values; list = values = "" }
        /^enum class .*_LIST\(/ {
            name = $0
            sub(/^[^{]*{ /, "", name)
            sub(/\(.*/, "", name)
            sub(/{.*/, "{ " expansion[name] "};")
        }
        { print }' "$1" | sed -E \
        -e 's|^#pragma once$|/// @file|' \
        -e 's#^( *)/// (Threads?|Delivery|Handlers?|Errors|Exceptions)[:.] #\1/// @label{\2} #' \
        -e 's#^( *)///   (  )?([^ /-]([^ ;]| [^ ;])*[^ .;])  +([^ /])#\1///   - <b>\3</b>: \5#' |
        awk '
            /^ *\/\/\/   - /                 { list = 1; print; next }
            list && /^ *\/\/\/ [^ ]/         { sub(/\/\/\/ /, "/// @gap ") }
            !/^ *\/\/\/   /                  { list = 0 }
            { print }'
    ;;
*.md)
    # README.md is the front page. Headings get the names by which a page refers to them. Files that
    # are no part of the site are copied into it under their path from the root.
    awk -v path="${1#"$PWD"/}" '
        function id(page) { gsub(/[^A-Za-z]+/, "-", page); return page }
        BEGIN {
            page = id(path)
            folder = path
            sub(/[^\/]*$/, "", folder)
        }
        /^ *```/ { code = !code }
        !code {
            gsub(/\]\(#/, "](#" page "-")
            gsub(/\]\(\.\.\/examples\//, "](examples/")
            while (match($0, /\]\([A-Za-z_.\/-]*\.md#/)) {
                other = substr($0, RSTART + 2, RLENGTH - 3)
                if (!sub(/^\.\.\//, "", other)) other = folder other
                $0 = substr($0, 1, RSTART) "(#" id(other) "-" substr($0, RSTART + RLENGTH)
            }
            gsub(/\]\(LICENSE\)/, "](./LICENSE)")
            while (match($0, /\]\(include\/[a-z_\/]*\.h\)/)) {
                header = substr($0, RSTART + 10, RLENGTH - 11)
                $0 = substr($0, 1, RSTART) "(@ref " header substr($0, RSTART + RLENGTH - 1)
            }
        }
        !code && /^##+ / {
            name = tolower($0)
            gsub(/[^a-z0-9 -]/, "", name)
            sub(/^ +/, "", name)
            gsub(/ /, "-", name)
            $0 = $0 " {#" page "-" name "}"
        }
        path == "README.md" && NR == 1 { $0 = $0 " {#mainpage}" }
        { print }' "$1"
    ;;
esac
