# fish completion for ksctl. "ksctl complete WORD..." knows what may stand in place of the last word.
function __ksctl_complete
    set -l before (commandline -opc)
    set -l current (commandline -ct)
    $before[1] complete $before[2..-1] (string replace -r "^['\"]" '' -- "$current") 2>/dev/null
end
complete -c ksctl -f -a '(__ksctl_complete)'
complete -c ksctl -l output -r -F
