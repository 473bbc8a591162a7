# bash completion for ksctl. "ksctl complete WORD..." knows what may stand in place of the last word.
_ksctl() {
    local words=("${COMP_WORDS[@]:1:COMP_CWORD}") current candidate
    # A word in quotes comes with its opening quote, and is replaced behind it.
    local quote=
    current=${words[-1]}
    case $current in
    \'* | \"*) quote=${current:0:1} && words[-1]=${current:1} ;;
    esac
    COMPREPLY=()
    while IFS=$'\t' read -r candidate _; do
        if [[ $candidate == "{"* && -z $quote ]]; then
            candidate="'$candidate'"
        fi
        COMPREPLY+=("$candidate")
    done < <("${COMP_WORDS[0]}" complete "${words[@]}" 2>/dev/null)
}
complete -o default -F _ksctl ksctl
