# Completion of `tavro` for bash. Anybody may have chosen the names in a directory or in the trash:
# they are compared as text and given to readline as they are, which quotes them. None is evaluated.

# Takes the line apart up to the cursor: `words` gets what each word before the last means, `word`
# the last one as far as it is typed, `quote` the quote that is open in it, and `head` what of it
# stands before the part that readline replaces, which is $1.
_tavro_read_line() {
  local line=${COMP_LINE:0:COMP_POINT} char at=0 inside=''
  words=() word='' head='' quote=''
  while ((at < ${#line})); do
    ((at == ${#line} - ${#1})) && head=$word
    char=${line:at++:1}
    if [[ $char == \\ && $quote != \' ]]; then
      [[ $quote == \" && ${line:at:1} != [\$\`\"\\] ]] && word+=\\
      word+=${line:at++:1} inside=1
    elif [[ -n $quote ]]; then
      if [[ $char == "$quote" ]]; then quote=''; else word+=$char; fi
    elif [[ $char == [\'\"] ]]; then
      quote=$char inside=1
    elif [[ $char != [[:blank:]] ]]; then
      word+=$char inside=1
    elif [[ -n $inside ]]; then
      words+=("$word") word='' inside=''
    fi
  done
  [[ -z $1 ]] && head=$word
}

# Offers those of the words given that go on as what is typed; between quotes none that readline
# would take for a home directory, or quote wrongly.
_tavro_offer() {
  local offer
  for offer; do
    [[ -n $quote && $offer == \~* || $quote == \' && $offer == \' ]] && continue
    [[ $offer == "$word"* ]] && COMPREPLY+=("${offer#"$head"}")
  done
}

# Leaves files, or directories alone, to readline. Where nothing is typed, it would offer names that
# begin with a dash or a tilde, to be taken for an option or a home directory.
_tavro_files() {
  local offers
  if [[ -n $word ]]; then
    compopt -o filenames -o "$1"
    return
  fi
  mapfile -d '' -t offers < <(
    shopt -s nullglob dotglob
    if [[ $1 == dirnames ]]; then set -- */; else set -- *; fi
    for offer; do
      [[ $offer == [-~]* ]] && offer=./$offer
      printf '%s\0' "${offer%/}"
    done
  )
  compopt -o filenames
  _tavro_offer "${offers[@]}"
}

_tavro() {
  local words word head quote IFS=$' \t\n'
  COMPREPLY=()
  _tavro_read_line "$2"
  local command=${words[1]} previous=${words[-1]} value='' options=--help
  [[ $command == help ]] && words=("${words[@]:1}")
  if ((${#words[@]} == 1)); then
    _tavro_offer copy move plan rename mkdir delete trash undo redo resume history list restore \
      empty doctor size help --help --version
    return
  fi
  [[ $word == --*=* ]] && previous=${word%%=*} value=${word%%=*}=
  case $previous in
  --on-conflict)
    _tavro_offer "$value"{ask,overwrite,newer,skip,keep-both}
    return
    ;;
  --color)
    _tavro_offer "$value"{auto,always,never}
    return
    ;;
  --in | --to | --volume)
    compopt -o filenames -o dirnames
    return
    ;;
  --older-than | --since | --keep | --free | --mend | --depth) return ;;
  -d) [[ $command != size ]] || return ;;
  esac
  local dashes=''
  [[ " ${words[*]} " == *' -- '* ]] && dashes=1
  case $command in
  copy | move) options+=' --in --on-conflict --no-keep --dry-run --quiet --verbose --no-sync --no-history' ;;
  plan) options+=' --in --json' ;;
  rename) options+=' --no-sync --no-history' ;;
  mkdir) options+=' --in --no-sync --no-history' ;;
  delete) options+=' --force --no-sync --no-history' ;;
  trash) options+=' --home --no-copy --recursive --dir --force --interactive --verbose --quiet --no-sync --no-history' ;;
  undo) options+=' --skip --quiet --verbose --no-sync' ;;
  redo | resume) options+=' --quiet --verbose --no-sync' ;;
  history) options+=' --json --drop --color' ;;
  list) options+=' --volume --here --since --older-than --json --null --color' ;;
  restore) options+=' --volume --here --since --older-than --to --keep-both --quiet --verbose --no-sync --no-history' ;;
  empty) options+=' --volume --here --since --older-than --keep --free --force --quiet --no-sync --no-history' ;;
  doctor) options+=' --mend --mend-all --volume' ;;
  size) options+=' --sort --depth' ;;
  esac
  if [[ $word == -* && -z $dashes ]]; then
    # shellcheck disable=SC2086 # they are words
    _tavro_offer $options
    return
  fi
  case $command in
  plan) if ((${#words[@]} == 2)); then _tavro_offer copy move; else _tavro_files default; fi ;;
  copy | move | rename | delete | trash | size) _tavro_files default ;;
  mkdir) _tavro_files dirnames ;;
  list | restore | empty)
    compopt -o filenames
    local names
    mapfile -d '' -t names < <(tavro list -0 2>/dev/null)
    local name
    for name in "${names[@]}"; do
      [[ $name == -* && -z $dashes ]] || _tavro_offer "$name"
    done
    ;;
  esac
}

complete -F _tavro tavro
