#!/usr/bin/env bash
# compare_check.sh COMPARE
# Fails unless COMPARE, the script of ./dev size, tells growth that is allowed from what is not.
set -euo pipefail

compare=$1
figures=$(mktemp)
trap 'rm -f -- "$figures"' EXIT
printf '# a remark\nlibrary-bytes 200000\nforeign-symbols 0\nidle-KiB 200\n' >"$figures"

# expect STATUS MEASURED...: the status for lines of "NAME NUMBER".
expect() {
    local status=0 output
    output=$(printf '%s\n' "${@:2}" | "$compare" "$figures") || status=$?
    if [[ $status -ne $1 ]]; then
        printf 'status %s instead of %s for: %s\n%s\n' "$status" "$1" "${*:2}" "$output" >&2
        exit 1
    fi
}

expect 0 "library-bytes 200000" "foreign-symbols 0" "idle-KiB 200"
expect 0 "library-bytes 206000" "foreign-symbols 0" "idle-KiB 200"
expect 0 "library-bytes 100000" "foreign-symbols 0" "idle-KiB 200"
expect 1 "library-bytes 206001" "foreign-symbols 0" "idle-KiB 200"
expect 1 "library-bytes 200000" "foreign-symbols 1" "idle-KiB 200"
expect 1 "library-bytes 200000"
expect 1 "library-bytes 200000" "foreign-symbols 0" "idle-KiB 200" "unknown 1"
expect 0 "library-bytes 200000" "foreign-symbols 0" "idle-KiB 220"
expect 1 "library-bytes 200000" "foreign-symbols 0" "idle-KiB 221"
