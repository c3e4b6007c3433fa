#!/usr/bin/env bash
# manual_check.sh PAGE...
# groff has no warning for these pages of the manual. Says so and leaves it at that where there is no
# groff.
set -euo pipefail

command -v groff >/dev/null || {
    echo "no groff: not checked"
    exit 0
}
for page in "$@"; do
    warnings=$(groff -man -ww -z "$page" 2>&1)
    if [[ -n $warnings ]]; then
        printf '%s\n' "$warnings" >&2
        exit 1
    fi
done
