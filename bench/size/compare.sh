#!/usr/bin/env bash
# compare.sh FIGURES
# Reads lines "NAME NUMBER" from the standard input and prints each beside its figure of the file
# FIGURES. Fails when a number has grown by more than 3 %, or when one is missing on either side. KiB of
# memory may grow by 10 %: how many pages a process gets dirty depends on the kernel as well.
set -euo pipefail

awk '
    FNR == NR { if (NF == 2 && $1 !~ /^#/) { known[$1] = $2; left[$1] = 1 } next }
    NF == 2 {
        if (!($1 in known)) {
            printf "%-34s %10d  has no figure\n", $1, $2
            failed = 1
            next
        }
        delete left[$1]
        allowed = $1 ~ /-KiB$/ ? 10 : 3
        grown = $2 * 100 > known[$1] * (100 + allowed)
        failed = failed || grown
        share = known[$1] > 0 ? ($2 - known[$1]) * 100 / known[$1] : 0
        printf "%-34s %10d  %10d  %+6.1f %%%s\n", $1, $2, known[$1], share, grown ? "  TOO MUCH" : ""
    }
    END {
        for (name in left) {
            printf "%-34s was not measured\n", name
            failed = 1
        }
        exit failed
    }' "$1" -
