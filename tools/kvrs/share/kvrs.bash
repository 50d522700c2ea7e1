# bash completion for kvrs: commands, their options, and node paths from the
# tree of the namespace in use.
_kvrs_commands="get set rm ref type listen notify dump load tree serve stats check reap demo"

_kvrs()
{
    local cur prev words cword
    _init_completion 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD-1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    }
    local i cmd="" ns=()
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            -n|--namespace) ns=(-n "${words[i+1]}"); ((i++)) ;;
            -*) ;;
            *) [ -z "$cmd" ] && cmd=${words[i]} ;;
        esac
    done
    case $prev in
        -n|--namespace|--type|--notify|--count|--timeout|-F|--format|--repeat|--reap-ms|--depth|--seconds)
            return ;;
        --file)
            COMPREPLY=($(compgen -f -- "$cur")); return ;;
    esac
    if [ -z "$cmd" ]; then
        COMPREPLY=($(compgen -W "$_kvrs_commands - -n --namespace --version --help" -- "$cur"))
        return
    fi
    if [[ $cur == -* ]]; then
        local opts
        opts=$(kvrs "$cmd" --help 2>/dev/null | grep -oE '(^|[ ,])--?[a-zA-Z][-a-zA-Z]*' | tr -d ' ,' | sort -u)
        COMPREPLY=($(compgen -W "$opts" -- "$cur"))
        return
    fi
    case $cmd in
        load) COMPREPLY=($(compgen -f -- "$cur")) ;;
        get|set|rm|ref|type|listen|notify|dump|tree)
            # Paths of the tree: the children of what has been typed so far.
            local parent=${cur%.*} prefix=""
            [ "$parent" = "$cur" ] && parent="" || prefix="$parent."
            local names
            names=$(kvrs "${ns[@]}" tree "$parent" --depth 1 --json 2>/dev/null |
                grep -oE '"path":"[^"]*"' | sed -e 's/"path":"//' -e 's/"$//' | grep -v "^${parent}\$")
            COMPREPLY=($(compgen -W "$names" -- "$cur"))
            compopt -o nospace 2>/dev/null
            ;;
    esac
}
complete -F _kvrs kvrs
