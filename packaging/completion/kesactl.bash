# Completion of kesactl for bash. Commands, options and arguments are those of its help, paths those that the registry knows,
# resources those of which their service says that it has them.

# Prints the lines of the help $1 below "$2:".
_kesactl_section() {
  local line on=
  while IFS= read -r line; do
    if [[ $line == "$2:" ]]; then
      on=1
    elif [[ -z $line ]]; then
      on=
    elif [[ -n $on && $line != '   '* ]]; then # which would be the text of a long option
      printf '%s\n' "${line#  }"
    fi
  done <<<"$1"
}

# Prints what the help $1 calls the value of option $2; nothing when it takes none.
_kesactl_value() {
  local line
  while IFS= read -r line; do
    if [[ $line == "$2 "[!\ ]* || $line == -?,"$2 "[!\ ]* ]]; then
      line=${line#* }
      line=${line%%  *}
      [[ $line == Needs:* || $line == Excludes:* ]] || printf '%s\n' "$line"
    fi
  done < <(_kesactl_section "$1" Options)
}

# Splits the line $1 as the shell would, and expands nothing. Sets `words`, of which the last is the one at the cursor, `raw`, that
# one as it is typed, and `quote`, the quote that is open there.
_kesactl_split() {
  local line=$1 word='' c next i in_word=
  words=() raw='' quote=''
  for ((i = 0; i < ${#line}; i++)); do
    c=${line:i:1} next=${line:i+1:1}
    if [[ -z $quote && $c == [[:space:]] ]]; then
      [[ -z $in_word ]] || words+=("$word")
      word='' raw='' in_word=
      continue
    fi
    raw+=$c in_word=1
    if [[ -n $quote && $c == "$quote" ]]; then
      quote=''
    elif [[ -z $quote && $c == [\'\"] ]]; then
      quote=$c
    elif [[ $c == \\ && ( -z $quote || $quote == \" && $next == [\\\"\$\`] ) ]]; then
      word+=$next raw+=$next i=$((i + 1))
    else
      word+=$c
    fi
  done
  words+=("$word")
}

# Prints the text $1 as it is typed inside the quote $2.
_kesactl_typed() {
  local text=$1
  case $2 in
    \')
      printf '%s\n' "${text//\'/\'\\\'\'}"
      ;;
    \") # with what the history would expand outside of it
      text=${text//\\/\\\\} text=${text//\"/\\\"} text=${text//\$/\\\$} text=${text//\`/\\\`}
      printf '%s\n' "${text//!/\"\'!\'\"}"
      ;;
    *)
      [[ -z $text ]] || printf '%q\n' "$text"
      ;;
  esac
}

_kesactl() {
  local program=${1/#\~/$HOME} help command='' path='' value='' position=0 words=() raw quote i
  _kesactl_split "${COMP_LINE:0:COMP_POINT}"
  local typed=("${words[@]}") typed_raw=$raw
  local count=$((${#typed[@]} - 1)) word=${typed[-1]} option=''
  # The shell replaces $2 only, which begins behind an open quote, ":" or "=": what stands before that is kept.
  _kesactl_split "${typed_raw%"$2"}"
  local kept=${words[-1]} kept_quote=$quote
  words=()

  help=$("$program" --help 2>/dev/null)
  for ((i = 1; i < count; i++)); do
    if [[ -n $value ]]; then
      value=''
    elif [[ ${typed[i]} == -* ]]; then
      [[ ${typed[i]} == --*=* ]] || value=$(_kesactl_value "$help" "${typed[i]}")
    elif [[ -z $command ]]; then
      command=${typed[i]}
      help=$("$program" "$command" --help 2>/dev/null)
    else
      position=$((position + 1))
      [[ $position -ne 1 ]] || path=${typed[i]}
    fi
  done

  if [[ -z $value && $word == --*=* ]]; then
    option=${word%%=*}
    value=$(_kesactl_value "$help" "$option")
    option+='='
  elif [[ -z $value && $word == -* ]]; then
    mapfile -t words < <(_kesactl_section "$help" Options)
    words=("${words[@]%% *}")
    words=("${words[@]#-?,}")
  elif [[ -z $value && -z $command ]]; then
    mapfile -t words < <(_kesactl_section "$help" Subcommands)
    words=("${words[@]%% *}")
  elif [[ -z $value ]]; then
    mapfile -t words < <(_kesactl_section "$help" Positionals)
    value=${words[position]-}
    value=${value%% *}
    words=()
  fi
  case $value in
    *:{*}*)
      value=${value#*:\{}
      IFS=, read -r -a words <<<"${value%%\}*}"
      ;;
    *PATH* | *GLOB*)
      mapfile -t words < <("$program" list --json --timeout 1 2>/dev/null | sed -n 's/^{"path":"\([^"\\]*\)".*/\1/p')
      ;;
    RESOURCE*) # as far as a parameter, which is then typed
      mapfile -t words < <("$program" show "$path" --resources --json --timeout 1 2>/dev/null |
        sed -n 's/^{"resource":"\([^"\\{*]*\)["{*].*/\1/p' | sort -u)
      compopt -o nospace 2>/dev/null
      ;;
    *PROCESS*)
      mapfile -t words < <("$program" ps --timeout 1 2>/dev/null | sed -n '1d;s/ .*//p')
      ;;
    COMMAND=*)
      words=(retrieve insert update delete)
      ;;
    COMMAND*)
      mapfile -t words < <(_kesactl_section "$("$program" --help 2>/dev/null)" Subcommands)
      words=("${words[@]%% *}")
      ;;
    FILE*)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$2")
      return
      ;;
  esac
  # Not compgen -W, which would expand what stands in a path.
  COMPREPLY=()
  for value in "${words[@]}"; do
    value=$option$value
    if [[ $value == "$word"* && $value == "$kept"* ]]; then
      mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(_kesactl_typed "${value#"$kept"}" "$kept_quote")
    fi
  done
}

complete -F _kesactl kesactl
