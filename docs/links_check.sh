#!/usr/bin/env bash
# links_check.sh SITE
# Every link of the site to itself leads to a file of it and, after a '#', to a place in that file.
# Doxygen checks only the references that it makes.
set -euo pipefail
cd -- "$1"

mapfile -t pages < <(find . -name '*.html' -printf '%P\n')

# shellcheck disable=SC2016 # awk's own dollars
awk '
    function decoded(text) { gsub(/&amp;/, "\\&", text); gsub(/%20/, " ", text); return text }
    {
        rest = $0
        while (match(rest, /[ <](id|name|href|src|data)="[^"]*"/)) {
            attribute = substr(rest, RSTART + 1, RLENGTH - 2)
            rest = substr(rest, RSTART + RLENGTH)
            value = attribute
            sub(/^[a-z]*="/, "", value)
            if (attribute ~ /^(id|name)=/) {
                place[FILENAME "#" value] = 1
            } else if (value !~ /^([a-z]+:|\/\/)/ && value != "#nested-classes") {
                # (Doxygen offers a list of nested classes also where all of them are private.)
                link[FILENAME "\t" decoded(value)] = 1
            }
        }
    }
    END {
        for (entry in link) {
            split(entry, part, "\t")
            file = part[1]
            target = part[2]
            fragment = ""
            if (match(target, /#/)) {
                fragment = substr(target, RSTART + 1)
                target = substr(target, 1, RSTART - 1)
            }
            if (target != "") {
                if (file ~ /\//) {
                    sub(/[^\/]*$/, "", file)
                    target = file target
                }
                file = target
            }
            if (!(file in there)) {
                quoted = file
                gsub(/\047/, "\047\\\047\047", quoted)
                there[file] = system("test -f \047" quoted "\047 -o -f \047" quoted "/index.html\047") == 0
            }
            ++count
            if (!there[file]) {
                print part[1] ": no such file: " part[2]
                failed = 1
            } else if (fragment != "" && file ~ /\.html$/ && !((file "#" fragment) in place)) {
                print part[1] ": no such place: " part[2]
                failed = 1
            }
        }
        print count + 0 " links checked"
        exit failed || !count
    }' "${pages[@]}" | sort
