#!/usr/bin/env bash
# The demonstration, on a bus daemon with a socket of its own, in two parts: the calling example,
# for which the bus is taken away and brought back when it asks, and the service example, which is
# called with the command-line client.
# Usage: demo.sh DAEMON EXAMPLES_DIRECTORY TOOL [SOCKET]
# DAEMON is any ubus daemon that takes -s SOCKET. SOCKET is needed only where libubus listens to no
# environment variable. Nothing is waited for longer than TARN_DEMO_PATIENCE seconds (20).
# Exit status 0 only if everything went as announced, 1 if something failed.
set -euo pipefail

if [[ $# -lt 3 || $# -gt 4 ]]; then
    echo "usage: demo.sh DAEMON EXAMPLES_DIRECTORY TOOL [SOCKET]" >&2
    exit 1
fi
daemon=$1
examples=$2
tool=$3
patience=${TARN_DEMO_PATIENCE:-20}
work=$(mktemp -d)
export UBUS_SOCKET=${4:-$work/ubus.sock}
running=() # every process that was started and has not been seen to end
gone=()    # those that have

clean_up() {
    trap '' INT TERM HUP
    # A process is not listed yet if the signal came just when it was started.
    local newest=${!:-}
    if [[ -n $newest && " ${gone[*]} " != *" $newest "* ]]; then
        running+=("$newest")
    fi
    if [[ ${#running[@]} -gt 0 ]]; then
        kill -KILL "${running[@]}" 2>/dev/null || true
        wait "${running[@]}" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

headline() { printf '\n=== %s\n\n' "$*"; }

fail() {
    echo "demo: FAILED: $*" >&2
    exit 1
}

# started PID: has it killed at the end.
started() { running+=("$1"); }

# ended PID: waits until the process has ended, and leaves its exit status in $status. Fails when
# it does not end in time. (The loop, because nothing in bash waits for a process with a limit.)
ended() {
    local pid=$1 deadline=$((SECONDS + patience)) other others=()
    while kill -0 "$pid" 2>/dev/null; do
        [[ $SECONDS -lt $deadline ]] || return 1
        sleep 0.05
    done
    status=0
    wait "$pid" 2>/dev/null || status=$?
    gone+=("$pid")
    for other in "${running[@]}"; do
        [[ $other == "$pid" ]] || others+=("$other")
    done
    running=("${others[@]}")
}

# run_tool WORD...: runs the command-line client, and leaves what it prints in $answer and its exit
# status in $status.
run_tool() {
    "$tool" "$@" >"$work/answer" 2>&1 </dev/null &
    started $!
    ended $! || fail "'$tool $*' does not end"
    answer=$(<"$work/answer")
}

# next_line FD DEADLINE: reads the next line into $text. Returns 1 at the end of the output, and 2
# when it is too late. It looks up every second: a signal that comes just before read begins to
# wait is noticed only when read returns.
next_line() {
    local part result
    text=""
    while [[ $SECONDS -lt $2 ]]; do
        result=0
        IFS= read -r -t 1 -u "$1" part || result=$?
        text+=$part
        [[ $result -gt 128 ]] || return "$result"
    done
    return 2
}

# start_service LINE COMMAND: starts a program and waits until it has printed LINE. Leaves its
# process number in $service_pid.
start_service() {
    local line=$1 program=$2 output deadline=$((SECONDS + patience)) result=0
    exec {output}< <(exec "$program" </dev/null)
    service_pid=$!
    started "$service_pid"
    while next_line "$output" "$deadline" || { result=$? && false; }; do
        if [[ $text == "$line"* ]]; then
            return 0
        fi
    done
    [[ $result -eq 2 ]] && fail "'$program' did not get ready"
    fail "'$program' ended before it was ready"
}

# Any daemon shows that it is up in one way only: it answers. Nobody has the object that is called
# here, and a daemon that is up says so.
start_bus() {
    local nothing deadline=$((SECONDS + patience))
    # Not a job of the shell, which would announce its violent end.
    exec {nothing}< <(exec "$daemon" -s "$UBUS_SOCKET" >/dev/null </dev/null)
    daemon_pid=$!
    started "$daemon_pid"
    exec {nothing}<&-
    while true; do
        run_tool -t 1 call demo.nobody.has.this ping
        case $status in
        14) break ;;
        3 | 4) ;; # nobody listens there, or nobody answers
        *) fail "'$tool' ended with status $status: $answer" ;;
        esac
        kill -0 "$daemon_pid" 2>/dev/null || fail "the daemon '$daemon' ended"
        [[ $SECONDS -lt $deadline ]] || fail "the daemon '$daemon' does not answer"
        sleep 0.1
    done
    # Or was it another daemon on the same socket that answered?
    kill -0 "$daemon_pid" 2>/dev/null || fail "the daemon '$daemon' ended"
    start_service "demo_service: ready" "$examples/demo_service"
    demo_service_pid=$service_pid
    echo "--- the bus daemon and the service \"demo\" are up"
}

lose_bus() {
    kill -KILL "$daemon_pid"
    ended "$daemon_pid" || fail "the daemon cannot be killed"
    ended "$demo_service_pid" || fail "the service \"demo\" does not end with its bus"
    echo "--- the bus daemon is gone"
}

# call STATUS ANSWER WORD...: calls the object "example" and shows both what is asked and what comes
# back, error text and exit status included. ANSWER is a pattern of the whole answer.
call() {
    local expected_status=$1 expected=$2 word
    shift 2
    printf '$ tarn call example'
    for word in "$@"; do
        [[ $word == *[^[:alnum:]-]* ]] && word="'$word'"
        printf ' %s' "$word"
    done
    printf '\n'
    run_tool call example "$@"
    printf '%s\n' "$answer"
    if [[ $status -ne 0 ]]; then
        echo "(exit status $status)"
    fi
    # shellcheck disable=SC2053 # a pattern is meant
    [[ $status -eq $expected_status && $answer == $expected ]] ||
        fail "expected the answer $expected with exit status $expected_status"
    echo
}

# Shows what the calling example prints, and does to the bus what it asks for.
serve_the_calling_example() {
    local output example_pid deadline=$((SECONDS + 3 * patience)) result=0
    exec {output}< <(exec "$examples/call" </dev/null)
    example_pid=$!
    started "$example_pid"
    while next_line "$output" "$deadline" || { result=$? && false; }; do
        echo "$text"
        case $text in
        "now take the bus away"*) lose_bus ;;
        "    back-off: attempt 2"*) start_bus ;;
        esac
    done
    [[ $result -ne 2 ]] || fail "the calling example does not come to its end"
    ended "$example_pid" || fail "the calling example does not end"
    [[ $status -eq 0 ]] || fail "the calling example ended with status $status"
}

headline "Calling: libtarn calls a service written on plain libubus"
start_bus
serve_the_calling_example

headline "Serving: libtarn publishes an object, the tool 'tarn' calls it"
start_service "service: ready" "$examples/service"
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

kill -TERM "$service_pid"
ended "$service_pid" || fail "the service does not end"
[[ $status -eq 0 ]] || fail "the service ended with status $status"
echo "--- the service \"example\" has ended in good order"
echo
echo "demo: ok"
