# Completion of lumoctl for bash. Names of nodes are those of the running agent.

_lumoctl_commands="list show path status wait query default add set del lock unlock ping report
  export refresh apply lint stats clients top drain log trace"
_lumoctl_general="--exchange --socket --timeout --json --color --help"

# The options of a command, beside the general ones.
_lumoctl_options() {
  case $1 in
    list) echo "--names" ;;
    query) echo "--node" ;;
    lock | unlock | status) echo "--owner" ;;
    default | del) echo "--owner --no-lock" ;;
    add | set) echo "--strict --owner --no-lock" ;;
    ping) echo "--file --program" ;;
    report) echo "--mask --file --program --log --lines --output" ;;
    export) echo "--output --listen --no-ping --program" ;;
    top) echo "--delay --count" ;;
    drain) echo "--stop" ;;
    trace) echo "--live --tag --pid --node --slowest" ;;
    refresh) echo "--all --strict --file --owner --no-lock" ;;
    apply) echo "--dry-run --keep --all --strict --owner --no-lock" ;;
    lint) echo "--no-resolve --strict" ;;
  esac
}

# Names are compared here and not by compgen -W, which would expand what stands in them.
_lumoctl_nodes() {
  local name
  while IFS= read -r name; do
    [[ $name == "${1^^}"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
  done < <("${COMP_WORDS[0]}" "${agent[@]}" --timeout 1 list --names 2>/dev/null)
  [[ default == "$1"* && -n $2 ]] && COMPREPLY+=(default)
}

_lumoctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_lumoctl_words() { mapfile -t COMPREPLY < <(compgen -W "$2" -- "$1"); }

_lumoctl() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local command= arguments=0 agent=() i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -M | --exchange | --socket)
        agent=("${COMP_WORDS[i]}" "${COMP_WORDS[++i]}") ;;
      --timeout | --color | --owner | --file | --program | --log | --lines | -o | --output | -n | --node | --listen | \
        -d | --delay | --count | --tag | --pid | --slowest)
        # apply has -n as well, without a value
        [[ $command == apply && ${COMP_WORDS[i]} == -n ]] || ((i++)) ;;
      -*) ;;
      *) if [[ -z $command ]]; then command=${COMP_WORDS[i]}; else ((arguments++)); fi ;;
    esac
  done
  case $before in
    --socket | --file | --program | --log | -o | --output) _lumoctl_files "$current"; return ;;
    --color) _lumoctl_words "$current" "auto always never"; return ;;
    -M | --exchange | --timeout | --owner | --lines | --listen | -d | --delay | --count | --tag | --pid | --slowest)
      return ;;
    --node) _lumoctl_nodes "$current"; return ;;
    -n) [[ $command == query ]] && { _lumoctl_nodes "$current"; return; } ;;
  esac
  if [[ $current == -* ]]; then
    _lumoctl_words "$current" "$_lumoctl_general $(_lumoctl_options "$command")"
  elif [[ -z $command ]]; then
    _lumoctl_words "$current" "$_lumoctl_commands"
  elif ((arguments == 0)); then
    case $command in
      show | set | del | default | refresh | ping | stats) _lumoctl_nodes "$current" or-default ;;
      apply | lint | trace) _lumoctl_files "$current" ;;
    esac
  fi
}

complete -F _lumoctl lumoctl
