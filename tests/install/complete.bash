# complete.bash PREFIX LINE: prints what bash offers for the end of LINE, with what is installed at PREFIX.
source "$1/share/bash-completion/completions/kesactl"
COMP_LINE=$2
COMP_POINT=${#2}
_kesactl kesactl "${2##*[ =:\'\"]}"
printf '%s\n' "${COMPREPLY[@]}"
