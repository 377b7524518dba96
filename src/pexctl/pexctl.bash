# Completion of pexctl's command line in bash(1). Options come from the command's own help, script
# names from the directories that the command line names so far.

# bash takes "--option=value" for three words.

_pexctl_scripts()
{
    local i value options=()
    for ((i = 2; i < COMP_CWORD; i++)); do
        value=${COMP_WORDS[i + 1]}
        [[ $value == = ]] && value=${COMP_WORDS[i + 2]}
        case ${COMP_WORDS[i]} in
            --config | --search-dir) options+=("${COMP_WORDS[i]}" "${value/#\~/$HOME}") ;;
        esac
    done
    "${COMP_WORDS[0]/#\~/$HOME}" scripts "${options[@]}" 2>/dev/null
}

# The words after the command that are neither options nor their values.
_pexctl_operands()
{
    local i count=0
    for ((i = 2; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --keep | --detach | --trace | --force | --insecure | -r | --retain | --config-only | \
                --help) ;;
            -?*) [[ ${COMP_WORDS[i + 1]} == = ]] && ((i += 2)) || ((i++)) ;;
            *) ((count++)) ;;
        esac
    done
    echo "$count"
}

_pexctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]} words
    if [[ $word == = ]]; then
        word=
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(
            compgen -W "run submit attach withdraw list check --help --version" -- "$word")
        return
    fi
    case $previous in
        --as) words="auto text json hex raw" ;;
        -q | --qos) words="1 2" ;;
        -h | --host)
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$word")
            return
            ;;
        --search-dir | --staging-dir | --capath)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$word")
            return
            ;;
        --config | --msgpack | --cafile | --cert | --key)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        -[pPuW] | --port | --pw | --username | --timeout | --id) return ;;
    esac
    if [[ -z $words && $word == -* ]]; then
        words=$("${COMP_WORDS[0]/#\~/$HOME}" "$command" --help 2>/dev/null |
            grep -oE -- '(^ *|, |  )--?[a-zA-Z][a-z-]*' | tr -d ' ,')
    fi
    if [[ -n $words ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
        return
    fi
    case $command/$(_pexctl_operands) in
        run/0)
            compopt -o filenames
            mapfile -t COMPREPLY < <(
                compgen -W "$(_pexctl_scripts)" -- "$word"
                compgen -f -X '!*.lua' -- "$word"
                compgen -d -- "$word")
            ;;
        submit/0) mapfile -t COMPREPLY < <(compgen -W "$(_pexctl_scripts)" -- "$word") ;;
        run/1 | submit/1)
            [[ $word == @* ]] || return
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -P @ -- "${word#@}")
            ;;
        check/0)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            ;;
    esac
}

complete -F _pexctl pexctl
