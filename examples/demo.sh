#!/usr/bin/env bash
# The demonstration: starts a bus daemon on a private socket and the service "demo", runs the
# calling example against them, and takes the bus away and brings it back when the example asks.
# Usage: demo.sh DAEMON EXAMPLES_DIRECTORY
# Exit status 0 only if everything that the example announces has happened.
set -euo pipefail

daemon=$1
examples=$2
work=$(mktemp -d)
export UBUS_SOCKET=$work/ubus.sock
daemon_pid=""
service_pid=""

clean_up() {
    for pid in $service_pid $daemon_pid; do
        kill -9 "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

# start_and_wait LINE COMMAND...: starts the command in the background, waits until it has printed
# LINE, and leaves its process number in $started.
start_and_wait() {
    local line=$1 output
    shift
    exec {output}< <(exec "$@")
    started=$!
    while IFS= read -r -t 10 -u "$output" text; do
        if [[ $text == "$line"* ]]; then
            return 0
        fi
    done
    echo "demo: '$1' did not get ready" >&2
    return 1
}

start_bus() {
    start_and_wait "tarn-busd: listening" "$daemon" -s "$UBUS_SOCKET"
    daemon_pid=$started
    start_and_wait "demo_service: ready" "$examples/demo_service"
    service_pid=$started
    echo "--- the bus daemon and the service \"demo\" are up"
}

lose_bus() {
    kill -9 "$daemon_pid"
    daemon_pid=""
    service_pid="" # ends by itself when its bus is gone
    echo "--- the bus daemon is gone"
}

start_bus
exec {example}< <("$examples/call" && echo "demo: ok")
status=1
while IFS= read -r -t 60 -u "$example" text; do
    echo "$text"
    case $text in
    "now take the bus away"*) lose_bus ;;
    "    back-off: attempt 2"*) start_bus ;;
    "demo: ok") status=0 ;;
    esac
done
exit "$status"
