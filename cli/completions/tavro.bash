# Completion of `tavro` for bash.

_tavro_names() {
  local name
  while IFS= read -r -d '' name; do
    [[ $name == "$1"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
  done < <(tavro list -0 2>/dev/null)
}

_tavro() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local commands='copy move plan rename mkdir delete trash undo redo resume history list
    restore empty doctor size'
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$current")
    return
  fi
  case $previous in
  --on-conflict)
    mapfile -t COMPREPLY < <(compgen -W 'ask overwrite skip keep-both' -- "$current")
    return
    ;;
  --in)
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    return
    ;;
  esac
  local command=${COMP_WORDS[1]} options=--help
  case $command in
  copy | move) options+=' --in --on-conflict --no-keep --dry-run --quiet --no-sync' ;;
  plan) options+=' --in --json' ;;
  rename) options+=' --no-sync' ;;
  mkdir) options+=' --in --no-sync' ;;
  delete) options+=' --force --no-sync' ;;
  trash | undo | redo | resume) options+=' --quiet --no-sync' ;;
  history) options+=' --json --drop' ;;
  list) options+=' --json --null' ;;
  restore) options+=' --keep-both --quiet --no-sync' ;;
  empty) options+=' --older-than --force --quiet --no-sync' ;;
  doctor) options+=' --mend --mend-all' ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  case $command in
  plan)
    if ((COMP_CWORD == 2)); then
      mapfile -t COMPREPLY < <(compgen -W 'copy move' -- "$current")
      return
    fi
    ;;
  restore)
    _tavro_names "$current"
    return
    ;;
  undo | redo | resume | history | list | empty | doctor) return ;;
  esac
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$current")
}

complete -F _tavro tavro
