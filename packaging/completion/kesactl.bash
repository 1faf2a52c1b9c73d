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

_kesactl() {
  local program=${1/#\~/$HOME} word=$2 help command='' path='' value='' position=0 words=() i
  help=$("$program" --help 2>/dev/null)
  for ((i = 1; i < COMP_CWORD; i++)); do
    if [[ ${COMP_WORDS[i]} == = ]]; then
      continue
    elif [[ -n $value ]]; then
      value=''
    elif [[ ${COMP_WORDS[i]} == -* ]]; then
      value=$(_kesactl_value "$help" "${COMP_WORDS[i]}")
    elif [[ -z $command ]]; then
      command=${COMP_WORDS[i]}
      help=$("$program" "$command" --help 2>/dev/null)
    else
      position=$((position + 1))
      [[ $position -ne 1 ]] || path=${COMP_WORDS[i]}
    fi
  done

  if [[ -z $value && $word == -* ]]; then
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
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
  esac
  # Not compgen -W, which would expand what stands in a path.
  COMPREPLY=()
  for value in "${words[@]}"; do
    if [[ $value == "$word"* ]]; then
      printf -v value '%q' "$value"
      COMPREPLY+=("$value")
    fi
  done
}

complete -F _kesactl kesactl
