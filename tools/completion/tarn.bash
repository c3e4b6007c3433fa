# bash completion for tarn: its commands and options, and the objects and methods that are on the bus
# at the moment. It needs nothing of the bash-completion package, and is quiet where there is no bus.
# shellcheck shell=bash

# _tarn_offer: adds the lines of standard input that begin with the word under the cursor.
_tarn_offer() {
    local line
    while IFS= read -r line; do
        [[ -n $line && $line == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
    done
}

# _tarn_objects: the paths on the bus. A bus that does not answer holds the shell up for a second.
_tarn_objects() { "$tarn" list -t 1 2>/dev/null </dev/null; }

# _tarn_methods PATH: the names of its methods.
_tarn_methods() {
    "$tarn" list -v -t 1 -- "$1" 2>/dev/null </dev/null | sed -n $'s/^\t"\\([^"\\\\]*\\)":.*/\\1/p'
}

# _tarn_options COMMAND: the options that mean something to it.
_tarn_options() {
    printf -- '%s\n' --help
    case $1 in
    "") printf -- '%s\n' --version ;;
    call) printf -- '%s\n' -s -S -t ;;
    list) printf -- '%s\n' -s -S -t -v ;;
    listen | subscribe) printf -- '%s\n' -s -S -t -T -v ;;
    monitor) printf -- '%s\n' -m -M -s -S -t -T -v ;;
    send | wait | wait_for) printf -- '%s\n' -t ;;
    esac
}

_tarn() {
    local tarn=$1 cur=${COMP_WORDS[COMP_CWORD]} word command="" words=() needs="" options_over="" n
    COMPREPLY=()
    for ((n = 1; n < COMP_CWORD; ++n)); do
        word=${COMP_WORDS[n]}
        if [[ -n $needs ]]; then
            needs=""
        elif [[ -z $options_over && $word == -- ]]; then
            options_over=1
        elif [[ -z $options_over && $word == -?* ]]; then
            # The last letter of a group may want the next word for its value.
            [[ $word =~ ^-[hsSvT]*([tmM])$ ]] && needs=${BASH_REMATCH[1]}
        elif [[ -z $command ]]; then
            command=$word
        else
            words+=("$word")
        fi
    done

    case $needs in
    t) return ;;
    m)
        _tarn_offer < <(printf '%s\n' hello status data ping lookup invoke add_object \
            remove_object subscribe unsubscribe notify monitor)
        return
        ;;
    M)
        _tarn_offer < <(printf '%s\n' r t)
        return
        ;;
    esac
    if [[ -z $options_over && $cur == -* ]]; then
        _tarn_offer < <(_tarn_options "$command")
        return
    fi
    case $command in
    "") _tarn_offer < <(printf '%s\n' call list listen monitor send subscribe wait) ;;
    call)
        case ${#words[@]} in
        0) _tarn_offer < <(_tarn_objects) ;;
        1) _tarn_offer < <(_tarn_methods "${words[0]}") ;;
        esac
        ;;
    list) [[ ${#words[@]} -gt 0 ]] || _tarn_offer < <(_tarn_objects) ;;
    listen) _tarn_offer < <(printf '%s\n' ubus.object.add ubus.object.remove) ;;
    subscribe | wait | wait_for) _tarn_offer < <(_tarn_objects) ;;
    esac
}

complete -F _tarn tarn
