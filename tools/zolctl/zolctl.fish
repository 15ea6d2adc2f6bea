# Completes the command line of zolctl in fish. What fits is asked of zolctl itself.
function __zolctl_complete
    set -l words (commandline -opc)
    set -l typed (commandline -ct)
    $words[1] __complete $words[2..-1] "$typed" 2>/dev/null
    or __fish_complete_path "$typed"
end
complete -c zolctl -f -a '(__zolctl_complete)'
