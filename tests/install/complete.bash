# complete.bash PREFIX LINE: prints what bash offers for the last word of LINE, with what is installed at PREFIX.
source "$1/share/bash-completion/completions/kesactl"
read -r -a COMP_WORDS <<<"$2"
[[ $2 != *' ' ]] || COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_kesactl kesactl "${COMP_WORDS[-1]}"
printf '%s\n' "${COMPREPLY[@]}"
