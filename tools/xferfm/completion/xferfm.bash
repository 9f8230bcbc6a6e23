# bash completion for xferfm: commands, each command's options, and files
# or directories where a path goes. Installed as
# share/bash-completion/completions/xferfm.

_xferfm()
{
    local cur prev command word
    COMPREPLY=()
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"

    command=""
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case "$word" in
            copy|serve|send|demo) command="$word"; break ;;
        esac
    done

    if [[ -z "$command" ]]; then
        COMPREPLY=($(compgen -W "copy serve send demo --help --version" -- "$cur"))
        return 0
    fi

    # Options that take a value.
    case "$prev" in
        --bandwidth|--window|--listen|--exclude|--progress-timeout)
            return 0 ;;
        -e|--rsh)
            COMPREPLY=($(compgen -c -- "$cur"))
            return 0 ;;
        --xferfm-path)
            COMPREPLY=($(compgen -f -- "$cur"))
            return 0 ;;
        --log-level)
            COMPREPLY=($(compgen -W "0 1 2 3 4 5 6" -- "$cur"))
            return 0 ;;
        --names)
            COMPREPLY=($(compgen -W "posix windows portable" -- "$cur"))
            return 0 ;;
        --name-action)
            COMPREPLY=($(compgen -W "map refuse map-back" -- "$cur"))
            return 0 ;;
        --port-file)
            COMPREPLY=($(compgen -f -- "$cur"))
            return 0 ;;
    esac

    local options
    case "$command" in
        copy)
            options="--help --bandwidth --window --verify --log-level --no-progress -p --preserve-perms
                     --resume -n --dry-run --exclude -q --quiet -v --verbose --json --strict
                     -e --rsh --xferfm-path --names --name-action" ;;
        send)
            options="--help --bandwidth --window --verify --log-level --no-progress --progress-timeout --stdio
                     --resume -n --dry-run --exclude -q --quiet -v --verbose --json --strict" ;;
        serve)
            options="--help --listen --once --port-file --stdio --log-level -p --preserve-perms -q --quiet -v
                     --verbose --json --names --name-action" ;;
        demo)
            options="--help --log-level --no-progress" ;;
    esac

    if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [[ "$command" == serve ]]; then
        COMPREPLY=($(compgen -d -- "$cur"))
    elif [[ "$command" != demo ]]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
    return 0
}
complete -o filenames -F _xferfm xferfm
