#!/usr/bin/env bash
# The demonstration, on a bus daemon with a socket of its own, in two parts: the calling example,
# for which the bus is taken away and brought back when it asks, and the service example, which is
# called with the command-line client.
# Usage: demo.sh DAEMON EXAMPLES_DIRECTORY TOOL [SOCKET]
# SOCKET is needed only where libubus listens to no environment variable.
# Exit status 0 only if everything went as announced.
set -euo pipefail

daemon=$1
examples=$2
tool=$3
work=$(mktemp -d)
export UBUS_SOCKET=${4:-$work/ubus.sock}
daemon_pid=""
service_pid=""
example_service_pid=""

clean_up() {
    for pid in $service_pid $example_service_pid $daemon_pid; do
        kill -9 "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

headline() { printf '\n=== %s\n\n' "$*"; }

fail() {
    echo "demo: FAILED: $*" >&2
    exit 1
}

# start_and_wait LINE COMMAND...: starts the command in the background, waits until it has printed
# LINE, and leaves its process number in $started.
start_and_wait() {
    local line=$1 output
    shift
    exec {output}< <(exec "$@")
    started=$!
    while IFS= read -r -t 20 -u "$output" text; do
        if [[ $text == "$line"* ]]; then
            return 0
        fi
    done
    fail "'$1' did not get ready"
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

# call STATUS ANSWER WORD...: calls the object "example" and shows both what is asked and what comes
# back, error text and exit status included. ANSWER is a pattern of the whole answer.
call() {
    local expected_status=$1 expected=$2 answer status=0 word
    shift 2
    printf '$ tarn call example'
    for word in "$@"; do
        [[ $word == *[^[:alnum:]-]* ]] && word="'$word'"
        printf ' %s' "$word"
    done
    printf '\n'
    answer=$("$tool" call example "$@" 2>&1) || status=$?
    printf '%s\n' "$answer"
    if [[ $status -ne 0 ]]; then
        echo "(exit status $status)"
    fi
    # shellcheck disable=SC2053 # a pattern is meant
    [[ $status -eq $expected_status && $answer == $expected ]] ||
        fail "expected the answer $expected with exit status $expected_status"
    echo
}

headline "Calling: libtarn calls a service written on plain libubus"
start_bus
exec {example}< <("$examples/call" && echo "demo: ok")
called=no
while IFS= read -r -t 60 -u "$example" text; do
    case $text in
    "demo: ok")
        called=yes
        break
        ;;
    esac
    echo "$text"
    case $text in
    "now take the bus away"*) lose_bus ;;
    "    back-off: attempt 2"*) start_bus ;;
    esac
done
[[ $called == yes ]] || fail "the calling example"

headline "Serving: libtarn publishes an object, the tool 'tarn' calls it"
start_and_wait "service: ready" "$examples/service"
example_service_pid=$started
echo "--- the service \"example\" is up"
echo
echo "# an answer at once; the policy lets the two fields through that it names"
call 0 '*"greeting": "Hello, router!"*' greet '{"name": "router", "loud": true}'
echo "# an answer from a worker thread, while the loop goes on"
call 0 '*"sum": 42*' sum '{"numbers": [1, 2, 39]}'
echo "# one call, several replies, one a line"
call 0 $'{"n":1}\n{"n":2}\n{"n":3}' count '{"to": 3}' -s
echo "# a method that nobody serves"
call 13 'tarn: example.fly: Method not found' fly

kill -TERM "$example_service_pid"
ended=0
wait "$example_service_pid" || ended=$?
example_service_pid=""
[[ $ended -eq 0 ]] || fail "the service ended with status $ended"
echo "--- the service \"example\" has ended in good order"
echo
echo "demo: ok"
