# Completes the words of qfu-emu, qfu-job, qfu-qemu, qfu-serprog and spilist from what their own --help prints.

# The words that start a line of the section $1 of the help on standard input.
_qfu_section() {
    awk -v section="$1:" '
        /^[^ ]/ { inside = $0 == section; next }
        inside && /^  [^ ]/ { gsub(",", " ", $1); print $1 }'
}

_qfu_tool() {
    local tool=$1 word=$2 before=$3 command="" help i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        # What follows belongs to another program.
        [ "${COMP_WORDS[i]}" = -- ] && return
    done
    help=$("$tool" --help 2>/dev/null) || return
    for ((i = 1; i < COMP_CWORD; i++)); do
        if _qfu_section Subcommands <<<"$help" | grep -qxF -e "${COMP_WORDS[i]}"; then
            command=${COMP_WORDS[i]}
            help=$("$tool" "$command" --help 2>/dev/null) || return
            break
        fi
    done
    if [[ $before == --dir ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_qfu_section Options <<<"$help") --" -- "$word")
    elif [[ -z $command && $before != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_qfu_section Subcommands <<<"$help")" -- "$word")
    fi
}

# Where nothing is found, file names.
complete -o default -F _qfu_tool qfu-emu qfu-job qfu-qemu qfu-serprog spilist
