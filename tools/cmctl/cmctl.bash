# bash completion for cmctl, the command-line client of config-manager.
# Keys are completed by asking the service (cmctl keys), on the bus the command line names.

_cmctl_commands="get set unset dump keys watch own subscribe unsubscribe export import help"
_cmctl_global_options="--address --timeout --help --version"

_cmctl_command_options() {
    case $1 in
        get) echo "--ts --raw" ;;
        set) echo "--ts --ts=" ;;
        dump) echo "--json" ;;
        watch) echo "--name" ;;
        own) echo "--accept --reject --ask --name" ;;
        import) echo "--dry-run" ;;
    esac
}

# Keys of the service that begin with $2, using the --address and --timeout of the command line ($1 words).
_cmctl_keys() {
    local program=$1 cur=$2
    shift 2
    local key
    while IFS= read -r key; do
        [[ $key == "$cur"* ]] && COMPREPLY+=("$key")
    done < <("$program" "$@" --timeout 2000 keys 2>/dev/null)
}

_cmctl() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD-1]}
    local program=${COMP_WORDS[0]}
    local command="" position=0 bus_options=() i word
    COMPREPLY=()

    # Find the command and the number of arguments before the word being completed.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --address | --timeout)
                bus_options+=("$word" "${COMP_WORDS[i+1]}")
                ((i++))
                ;;
            --address=* | --timeout=*) bus_options+=("$word") ;;
            --reject | --name) ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=$word
                else
                    ((position++))
                fi
                ;;
        esac
    done

    case $prev in
        --address | --timeout | --reject | --name) return 0 ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$_cmctl_global_options $(_cmctl_command_options "$command")" -- "$cur"))
        return 0
    fi
    if [[ -z $command ]]; then
        COMPREPLY=($(compgen -W "$_cmctl_commands" -- "$cur"))
        return 0
    fi

    case $command in
        get | set | unset | watch | own)
            [[ $command == watch || $position -eq 0 ]] && _cmctl_keys "$program" "$cur" "${bus_options[@]}"
            ;;
        subscribe)
            case $position in
                1) _cmctl_keys "$program" "$cur" "${bus_options[@]}" ;;
                2) COMPREPLY=($(compgen -W "owner observer" -- "$cur")) ;;
            esac
            ;;
        unsubscribe)
            [[ $position -eq 1 ]] && _cmctl_keys "$program" "$cur" "${bus_options[@]}"
            ;;
        import)
            COMPREPLY=($(compgen -f -- "$cur"))
            ;;
        help)
            [[ $position -eq 0 ]] && COMPREPLY=($(compgen -W "$_cmctl_commands" -- "$cur"))
            ;;
    esac
    return 0
}

complete -F _cmctl cmctl
