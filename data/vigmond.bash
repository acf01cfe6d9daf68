# bash completion for vigmond                              -*- shell-script -*-

_vigmond() {
    local current=$2 previous=$3
    if [[ $previous == '=' ]]; then # a separate word
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $previous in
    -L | --logfile) COMPREPLY=($(compgen -f -- "$current")) && compopt -o filenames ;;
    -l | --loglevel) COMPREPLY=($(compgen -W 'fail warning OK' -- "$current")) ;;
    -s | --severitylevel) COMPREPLY=($(compgen -W 'critical failed warning OK' -- "$current")) ;;
    -S | -C | --logfilesize | --logfilecount) ;;
    *)
        COMPREPLY=($(compgen -W '-h -d -D -v -L -S -C -l -s --help --dump --debug --version
            --logfile= --logfilesize= --logfilecount= --loglevel= --severitylevel=' -- "$current"))
        [[ ${COMPREPLY[0]-} != *= ]] || compopt -o nospace
        ;;
    esac
}
complete -F _vigmond vigmond
