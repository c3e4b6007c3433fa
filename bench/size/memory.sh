#!/usr/bin/env bash
# memory.sh KIND PROGRAM
# Starts PROGRAM, waits until it says that it is ready, and prints its private memory in KiB; KIND is
# Private_Dirty, or Private for what is dirty and what is clean. The least of five runs: what the
# kernel has done meanwhile only adds.
set -euo pipefail

kind=$1
least=""
# Pages of a file that has just been written count as dirty.
sync
for _ in 1 2 3 4 5; do
    coproc idle { exec "$2"; }
    # shellcheck disable=SC2154 # set by coproc
    pid=$idle_PID
    answer=""
    read -r -t 10 answer <&"${idle[0]}" || true
    if [[ $answer != ready ]]; then
        echo "memory.sh: $2 does not get ready" >&2
        exit 1
    fi
    # Ready is said by a handler: the threads go to sleep after it.
    until [[ $(awk '/^State:/ { print $2 }' /proc/"$pid"/task/*/status | sort -u) == S ]]; do :; done
    now=$(awk -v kind="^$kind" '$1 ~ kind { sum += $2 } END { print sum }' "/proc/$pid/smaps_rollup")
    kill "$pid"
    wait "$pid" 2>/dev/null || true
    [[ -n $least && $least -le $now ]] || least=$now
done
echo "$least"
