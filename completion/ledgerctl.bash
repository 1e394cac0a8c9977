# Completion of ledgerctl for bash. Sections and keys are those of the daemon; the bus may start it for that.
# shellcheck shell=bash

# _ledgerctl_names [SECTION]: adds the names that begin with the word in hand.
_ledgerctl_names() {
  local name quoted
  while IFS= read -r -d '' name; do
    printf -v quoted %q "$name"
    # What is typed may be quoted already.
    if [[ $name == "$cur"* || $quoted == "$cur"* ]]; then
      COMPREPLY+=("$quoted")
    fi
  done < <(ledgerctl -q -0 --timeout 2 list -- "$@" 2>/dev/null)
}

_ledgerctl_words() {
  local word
  for word in "$@"; do
    [[ $word != "$cur"* ]] || COMPREPLY+=("$word")
  done
}

_ledgerctl() {
  # Names may hold what bash breaks words at.
  # shellcheck disable=SC2034
  local cur prev words cword split
  _init_completion -n =: || return

  local verb='' word i skip=0 literal=0
  local -a names=()
  for ((i = 1; i < cword; i++)); do
    word=${words[i]}
    if ((skip)); then
      skip=0
    elif ((!literal)) && [[ $word == -- ]]; then
      literal=1
    elif ((!literal)) && [[ $word == -?* ]]; then
      [[ $word != @(--timeout|--default|--fail-above|--exec|-i) ]] || skip=1
    elif [ -z "$verb" ]; then
      verb=$word
    else
      # As the shell would understand the word.
      names+=("$(_ledgerctl_unquoted "$word")")
      [ "$verb" != set ] || literal=1
    fi
  done
  ((!skip)) || return

  local verbs=(get set exists list show unset clear flush dump load edit diff watch usage help)
  local -A options=(
    [none]="-0 --null --json --version" [get]="-0 --null --json --default" [set]="--flush --force" [exists]="--json"
    [list]="-0 --null --json" [show]="--json" [unset]="-r" [clear]="--yes" [flush]="--sync"
    [load]="--text --force --replace --missing-only --dry-run" [edit]="--force" [watch]="-i --json --exec"
    [usage]="--json --fail-above"
  )
  if ((!literal)) && [[ $cur == -* ]]; then
    # Not quoted: each option is a word.
    # shellcheck disable=SC2086
    _ledgerctl_words -q --quiet -h --help --timeout ${options[${verb:-none}]-}
    return
  fi
  case $verb:${#names[@]} in
    :* | help:0) _ledgerctl_words "${verbs[@]}" ;;
    get:0 | set:0 | exists:0 | list:0 | show:0 | unset:0 | edit:0 | watch:0) _ledgerctl_names ;;
    get:1 | set:*[13579] | exists:1 | unset:1 | watch:1) _ledgerctl_names "${names[0]}" ;;
    dump:0 | load:0 | diff:0)
      _filedir
      return
      ;;
  esac
  # Readline replaces only what follows the last of these.
  local kept=${cur%"${cur##*[=:]}"}
  COMPREPLY=("${COMPREPLY[@]#"$kept"}")
}

# Removes backslashes and quotes, without running their contents.
_ledgerctl_unquoted() {
  local dequoted
  if [[ $1 != *[\$\`]* ]] && dequoted=$(xargs -n 1 printf '%s' <<<"$1" 2>/dev/null); then
    printf '%s' "$dequoted"
  else
    printf '%s' "$1"
  fi
}

complete -F _ledgerctl ledgerctl
