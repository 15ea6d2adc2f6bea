#compdef zolctl
# Completes the command line of zolctl in zsh. What fits is asked of zolctl itself.
local found
if found=$("${(Q)words[1]}" __complete "${(@Q)words[2,CURRENT]}" 2>/dev/null); then
    [[ -z $found ]] || compadd -- "${(@f)found}"
else
    _files
fi
