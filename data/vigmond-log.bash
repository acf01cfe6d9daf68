# bash completion for vigmond-log                          -*- shell-script -*-

_vigmond_log() {
    local current=$2 previous=$3
    if [[ $previous == '=' ]]; then # bash splits words at it
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $previous in
    --format) COMPREPLY=($(compgen -W 'csv jsonl openmetrics' -- "$current")) ;;
    --state) COMPREPLY=($(compgen -W 'OK WARN FAIL INV' -- "$current")) ;;
    --issue) COMPREPLY=($(compgen -W "$(printf 'CB%02d ' {0..32}) CBnn" -- "$current")) ;;
    --since | --until) COMPREPLY=($(compgen -W 'today yesterday now' -- "$current")) ;;
    --timezone) COMPREPLY=($(cd /usr/share/zoneinfo 2>/dev/null && compgen -f -- "$current")) ;;
    *)
        COMPREPLY=()
        if [[ $current == -* ]]; then
            COMPREPLY=($(compgen -W '--json --since= --until= --issue= --state= --timezone= --format= --textfile= --bus
                -o --output= -h --help -v --version' -- "$current"))
            [[ ${COMPREPLY[0]-} != *= ]] || compopt -o nospace
            return
        fi
        [[ $COMP_CWORD -ne 1 ]] || COMPREPLY=($(compgen -W 'show changes summary plot export' -- "$current"))
        COMPREPLY+=($(compgen -f -- "${current#*=}"))
        compopt -o filenames
        ;;
    esac
}
complete -F _vigmond_log vigmond-log
