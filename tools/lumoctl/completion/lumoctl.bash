# Completion of lumoctl for bash. Names of nodes are those of the running agent.

# command|names|what is expected|words: written by the build, from the program's option parser.
mapfile -t _lumoctl_table <<'TABLE'
@TABLE@
TABLE

# What the table has of a command, or "-", into the variables of _lumoctl.
_lumoctl_read() {
  local entry of names expected name
  for entry in "${_lumoctl_table[@]}"; do
    IFS='|' read -r of names expected _ <<<"$entry"
    if [[ $of != "$1" ]]; then
      [[ -n $names ]] || commands+=("$of")
    elif [[ $names == -* ]]; then
      options+=(${names//,/ })
      for name in ${names//,/ }; do values[$name]=$expected; done
    elif [[ -n $names ]]; then
      arguments+=("$expected")
    fi
  done
}

# Names are compared here and not by compgen -W, which would expand what stands in them.
_lumoctl_nodes() {
  local name
  while IFS= read -r name; do
    [[ $name == "${1^^}"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
  done < <("${COMP_WORDS[0]}" "${agent[@]}" --timeout 1 list --names 2>/dev/null)
}

_lumoctl_words() { mapfile -t COMPREPLY < <(compgen -W "$2" -- "$1"); }

_lumoctl_expected() {
  case $2 in
    PATH | FILE)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$1") ;;
    NODE)
      _lumoctl_nodes "$1"
      [[ default == "$1"* ]] && COMPREPLY+=(default) ;;
    NAME) _lumoctl_nodes "$1" ;;
    LEVEL) _lumoctl_words "$1" "$(printf '%s ' {0..15})" ;;
    '{'*) _lumoctl_words "$1" "${2//[\{,\}]/ }" ;;
  esac
}

_lumoctl() {
  local current=${COMP_WORDS[COMP_CWORD]} command= value= word i given=0
  local -a commands=() options=() arguments=() agent=()
  local -A values=()
  COMPREPLY=()
  _lumoctl_read -
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]} value=
    if [[ $word == -* ]]; then
      value=${values[$word]-}
      [[ $word == -M || $word == --exchange || $word == --socket ]] && agent=("$word" "${COMP_WORDS[i + 1]}")
      [[ -z $value ]] || ((++i))
    elif [[ -z $command ]]; then
      command=$word
      _lumoctl_read "$command"
    else
      ((++given))
    fi
  done
  if ((i > COMP_CWORD)); then
    _lumoctl_expected "$current" "$value"
  elif [[ $current == -* ]]; then
    _lumoctl_words "$current" "${options[*]}"
  elif [[ -z $command ]]; then
    _lumoctl_words "$current" "${commands[*]}"
  elif ((given < ${#arguments[@]})); then
    _lumoctl_expected "$current" "${arguments[given]}"
  fi
}

complete -F _lumoctl lumoctl
