#!/usr/bin/env bash
# shapes.sh PROGRAM HORN CALLER
# What PROGRAM, `tarn` or `ubus`, prints and with which status it ends, on the bus that the programs
# find, which is to be empty. HORN publishes an object, CALLER calls it. Ids and names of users are
# masked, error texts left out, and the monitor, which is for root, comes last. What the two programs
# print is the same.
set -euo pipefail

program=$1 horn=$2 caller=$3
work=$(mktemp -d)
running=()
clean_up() {
    [[ ${#running[@]} -eq 0 ]] || kill "${running[@]}" 2>/dev/null || true
    wait
    rm -rf "$work"
}

# until_seen FILE TEXT COMMAND...: runs COMMAND until FILE has TEXT.
until_seen() {
    local file=$1 text=$2
    while ! grep -qF -e "$text" "$file"; do
        "${@:3}" >"$work/ignored" 2>&1 || true
        read -rt 0.05 <>"$work/never" || true
    done
}

# shown WORD...: runs PROGRAM, and shows what it prints and its status.
shown() {
    local status=0
    echo "\$ $*"
    "$program" "$@" 2>"$work/ignored" </dev/null || status=$?
    echo "[status $status]"
}

# begin WORD...: runs PROGRAM in the background, with its output in $output.
begin() {
    echo "\$ $*"
    output=$work/output
    : >"$output"
    "$program" "$@" >"$output" 2>"$work/ignored" </dev/null &
    running+=($!)
    stream=$!
}

# end_stream [PATTERN]: ends it as a user does, and shows its lines that match.
end_stream() {
    local status=0
    kill -TERM "$stream"
    wait "$stream" || status=$?
    unset 'running[-1]'
    grep -E -e "${1:-.}" "$output" || true
    echo "[status $status]"
}

# ubus itself separates the fields of an empty table; ids are random, the protocol's numbers of requests
# those of the library.
mask() {
    sed -E -e 's/\{,\}/{}/g' -e "s/@[0-9a-f]{8}$/@ID/" -e 's/^(<-|->) [0-9a-f]{8} #[0-9a-f]{8}/\1 ID #ID/' \
        -e 's/"(objid|objtype|id)":-?[0-9]+/"\1":N/g' -e 's/"(user|group)":"[^"]*"/"\1":"NAME"/g'
}

show_all() {
    shown list
    shown -v list
    shown list absent
    : >"$work/horn"
    "$horn" >>"$work/horn" &
    running+=($!)
    until_seen "$work/horn" "horn: ready" true
    shown list
    shown list 'ho*'
    shown list -v horn
    shown -S list -v horn
    shown list absent
    shown wait_for horn
    shown -t 1 wait_for horn absent
    shown send quiet.event
    shown send quiet.event '{"n":1}'
    shown send quiet.event '{'
    shown send ubus.event
    shown send
    shown send quiet.event '{}' more
    shown list horn more
    shown wait_for
    shown -t 1 listen

    begin listen 'wind.*' wind.north calm
    until_seen "$output" '"wind.ready"' "$program" send wind.ready
    "$program" send storm
    "$program" send wind.north '{"a":1,"b":[true,{"c":null}],"d":"e\n","e":{},"f":[]}'
    "$program" send calm
    until_seen "$output" '"calm"' true
    end_stream 'north|storm|calm'

    begin subscribe horn
    until_seen "$work/horn" "horn: subscribed" true
    "$caller" horn sound 5000 loud:1 text=hi >"$work/ignored"
    "$caller" horn ask 5000 why:1 >"$work/ignored"
    "$caller" horn sound 5000 >"$work/ignored"
    until_seen "$output" '"sounded": {}' true
    end_stream

    [[ $(id -u) -eq 0 ]] || return 0
    begin monitor
    until_seen "$output" '"method":"send"' "$program" send probe
    "$caller" horn sound 5000 loud:1 text=hi >"$work/ignored"
    until_seen "$output" '"method":"sounded"' true
    until_seen "$output" '"last"' "$program" send last
    end_stream '"method":"sound|"objpath":"horn"\}'

    begin -m notify -m lookup -M r monitor
    until_seen "$output" '"objpath"' "$caller" horn quiet 5000
    "$caller" horn sound 5000 >"$work/ignored"
    until_seen "$output" 'sounded' true
    end_stream 'notify'
}

mkfifo "$work/never"
# A trap is that of one shell, and each end of a pipe is one.
{
    trap clean_up EXIT
    show_all
} | mask
