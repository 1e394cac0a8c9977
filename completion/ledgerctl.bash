# Completion of ledgerctl for bash. Sections and keys are asked of the daemon; the bus may start it for that.
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

  local verb='' word i skip=0
  local -a names=()
  for ((i = 1; i < cword; i++)); do
    word=${words[i]}
    if ((skip)); then
      skip=0
    elif [[ $word == --timeout || $word == --default || $word == -i ]]; then
      skip=1
    elif [[ $word == -?* ]]; then
      :
    elif [ -z "$verb" ]; then
      verb=$word
    else
      # As the shell would understand the word.
      names+=("$(_ledgerctl_unquoted "$word")")
    fi
  done
  ((!skip)) || return

  local verbs=(get set exists list show unset clear flush dump load edit diff watch usage help)
  local common=(-q --quiet -h --help --timeout)
  local -A options=(
    [get]="-0 --json --default" [set]="--flush" [exists]="--json" [list]="-0 --json" [show]="--json" [unset]="-r"
    [clear]="--yes" [flush]="--sync" [load]="--replace --missing-only --dry-run" [watch]="-i" [usage]="--json"
  )
  if [[ $cur == -* ]]; then
    # shellcheck disable=SC2086
    _ledgerctl_words "${common[@]}" ${options[${verb:-none}]-"-0 --json --version"}
    return
  fi
  case $verb:${#names[@]} in
    :*) _ledgerctl_words "${verbs[@]}" ;;
    help:0) _ledgerctl_words "${verbs[@]}" ;;
    get:0 | set:0 | exists:0 | list:0 | show:0 | unset:0 | edit:0 | watch:0) _ledgerctl_names ;;
    get:1 | set:1 | exists:1 | unset:1 | watch:1) _ledgerctl_names "${names[0]}" ;;
    dump:0 | load:0 | diff:0)
      _filedir
      return
      ;;
  esac
  # Readline replaces only what stands behind the last of these.
  local kept=${cur%"${cur##*[=:]}"}
  COMPREPLY=("${COMPREPLY[@]#"$kept"}")
}

# Takes away backslashes and quotes, without running what is in between.
_ledgerctl_unquoted() {
  local dequoted
  if [[ $1 != *[\$\`]* ]] && dequoted=$(xargs -n 1 printf '%s' <<<"$1" 2>/dev/null); then
    printf '%s' "$dequoted"
  else
    printf '%s' "$1"
  fi
}

complete -F _ledgerctl ledgerctl
