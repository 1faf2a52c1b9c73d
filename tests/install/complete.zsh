# complete.zsh PREFIX LINE: prints what zsh offers for the last word of LINE, with what is installed at PREFIX.
zmodload zsh/zpty
zpty shell zsh -f -i
# After the last of these nothing is inserted, and all that is offered is listed.
zpty -w shell "PS1=; fpath=($1/share/zsh/site-functions \$fpath); autoload -Uz compinit; compinit -D -u
comppostfuncs=(offer); offer() { compstate[list]='list force' compstate[insert]= }; echo RE''ADY"
zpty -r shell ignored $'*READY*\e\\[?2004h*' # the editor reads
zpty -w -n shell "$2"$'\t\x15'"echo DO''NE"$'\n'
zpty -r shell offered '*DONE*'
offered=${${offered#*$'\n'}%$'\n'*} # between the echoes of the two lines
print -r -- $offered | sed -E -e 's/\x1b\[[0-9;?]*[A-Za-z]/\n/g' -e 's/\r//g'
