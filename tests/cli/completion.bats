#!/usr/bin/env bats
# Completion in shells that a person could sit at: TAB and ENTER are pressed on a terminal, and what
# counts is what the command is given then.

load helpers

completions=$BATS_TEST_DIRNAME/../../cli/completions

# A command of this name that completes from a file of names in the trash, and writes down what else
# it is given. Then the next of the names that are waiting is all that is in the trash, and in the
# directory.
setup_shells() {
  mkdir -p "$scratch/bin" "$scratch/state"
  export STATE=$scratch/state
  cat >"$scratch/bin/tavro" <<'STUB'
#!/bin/bash
shopt -s dotglob nullglob
if [[ $* == 'list -0' ]]; then
  cat "$STATE/trash"
  exit
fi
printf '%q ' "$@" >>"$STATE/typed"
echo >>"$STATE/typed"
if [[ -e $STATE/names ]]; then
  [[ ! -e pwned ]] || mv pwned "$STATE"
  rm -f -- ./*
  mapfile -d '' -t names <"$STATE/names"
  printf '%s\0' "${names[0]}" >"$STATE/trash"
  : >"./${names[0]:-none}"
  printf '%s\0' "${names[@]:1}" >"$STATE/names"
fi
echo It was run.
STUB
  chmod +x "$scratch/bin/tavro"
  printf '%s\n' "PATH=$scratch/bin:\$PATH PS1='> ' IFS=\$' \\t\\n'" "source '$completions/tavro.bash'" \
    'bind "set enable-bracketed-paste off"' 'echo It was run.' >"$scratch/bashrc"
  printf '%s\n' "PATH=$scratch/bin:\$PATH PS1='> '" "fpath=('$completions' \$fpath)" \
    'autoload -U compinit' 'compinit -u -D' 'bindkey "^I" complete-word' 'echo It was run.' >"$scratch/.zshrc"
  printf '%s\n' "set PATH $scratch/bin \$PATH" 'set fish_greeting' "source '$completions/tavro.fish'" \
    'echo It was run.' >"$scratch/init.fish"
}

# Types lines into a shell, each followed by ENTER when the one before has been run.
type_into() {
  local shell=$1 command line keys=''
  shift
  command -v "$shell" >/dev/null || skip "$shell is not installed"
  case $shell in
  bash) command=(bash --noprofile --rcfile "$scratch/bashrc" -i) ;;
  zsh) command=(env "ZDOTDIR=$scratch" zsh -d -i) ;;
  fish) command=(fish --no-config --init-command "source $scratch/init.fish" -i) ;;
  esac
  for line; do
    keys+="$line\\r\\f"
  done
  TERM=dumb timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" 'It was run.' "${keys}exit\\r" \
    "${command[@]}" >"$scratch/shown"
}

# Completes each name, the only one in the trash and in the directory, after the text given: the
# command gets it as it is, and nothing else happens.
completes() {
  local shell=$1 line=$2 command name lines=()
  shift 2
  printf '%s\0' "$@" >"$STATE/names"
  "$scratch/bin/tavro" first
  for name; do
    lines+=("$line\\t")
  done
  type_into "$shell" "${lines[@]}" || cat "$scratch/shown"
  read -r _ command _ <<<"$line"
  {
    echo 'first '
    for name; do
      printf '%s %q \n' "$command" "$name"
    done
  } >"$scratch/expected"
  diff "$scratch/expected" "$STATE/typed"
  rm "$STATE/typed"
  [ ! -e "$STATE/pwned" ]
}

# What the command was given, without the slash that some shells leave behind a directory.
typed() {
  sed 's|/\{0,1\} $||' "$STATE/typed"
}

# Names that some shell or its completion could take for more than a name. One that begins with a dash
# is not among them.
# shellcheck disable=SC1003,SC2016 # backslashes, and nothing is to be expanded
names=(plain 'a b' ' lead' 'trail ' "it's \"so\"" '"' "''" '$(touch pwned)' '$HOME' '${x'
  '`touch pwned`' ';touch pwned;' '|touch pwned' '&touch pwned' $'\'\n;touch pwned;\'' $'"\n;touch pwned;"'
  $'x\ntouch pwned\n' $'line\nfeed' $'esc\e[31m' $'\x03' $'\x7f' $'\r' '!x' '{a,b}' '*' '?' '[x]' '#x' '=ls'
  'a:b=c@d' '%1' '^x' 'a>b' '<x' '\' 'a\nb' 'a\' 'é 世')
undecodable=$'\xff\xfez'

@test "bash completes every name as it is, and runs nothing" {
  setup_shells
  completes bash 'tavro restore ' "${names[@]}" "$undecodable" $'tab\there' '~nobody at home' "'"
  completes bash 'tavro restore "' "${names[@]}" "$undecodable" $'tab\there' "'"
  completes bash "tavro restore '" "${names[@]}" "$undecodable" $'tab\there'
  completes bash 'tavro delete ' "${names[@]}" "$undecodable" $'tab\there' "'"
  completes bash 'tavro delete "' "${names[@]}" "$undecodable" $'tab\there' "'"
  completes bash "tavro delete '" "${names[@]}" "$undecodable" $'tab\there'
}

@test "zsh completes every name as it is, and runs nothing" {
  setup_shells
  completes zsh 'tavro restore ' "${names[@]}" "$undecodable" $'tab\there' '~nobody at home' "'"
  completes zsh 'tavro restore "' "${names[@]}" $'tab\there' '~nobody at home' "'"
  completes zsh "tavro restore '" "${names[@]}" $'tab\there' '~nobody at home' "'"
  completes zsh 'tavro delete ' "${names[@]}" "$undecodable" $'tab\there' '~nobody at home' "'"
  completes zsh 'tavro delete "' "${names[@]}" $'tab\there' '~nobody at home' "'"
}

@test "fish completes every name as it is, and runs nothing" {
  setup_shells
  completes fish 'tavro restore ' "${names[@]}" "$undecodable" "'"
  completes fish 'tavro restore "' "${names[@]}" "$undecodable" "'"
  completes fish "tavro restore '" "${names[@]}" "$undecodable" "'"
  completes fish 'tavro delete ' "${names[@]}" "$undecodable" "'"
  completes fish 'tavro delete "' "${names[@]}" "$undecodable" "'"
}

# What each shell gives for lines that are typed the same way in all of them.
completes_lines() {
  local shell=$1
  setup_shells
  printf '%s\0' a:b=c@d 'x y z' -dash 'q$r s' >"$STATE/trash"
  mkdir dir 'e f'
  touch file 'fi le' 'g$(x)' list
  type_into "$shell" 'tavro mk\t' 'tavro undo --q\t' 'tavro copy --no-k\t' 'tavro plan m\t' \
    'tavro copy --on-conflict k\t' 'tavro copy --on-conflict=k\t' 'tavro copy --in di\t' \
    'tavro copy --in=di\t' 'tavro restore a:\t' 'tavro restore a:b=\t' 'tavro restore "a:b\t' \
    'tavro restore x\\ \t' "tavro restore 'x 'y\\t" 'tavro restore "q\\$\t' 'tavro restore -- -d\t' \
    'tavro trash g\t' 'tavro size dir/../g\t' 'tavro copy list e\t' 'true; tavro delete g\t' \
    'tavro help resu\t' 'tavro list a:b=\t' 'tavro empty --here x\\ \t' 'tavro restore --to di\t' \
    'tavro empty --ke\t' 'tavro trash -d --recu\t' 'tavro trash -d g\t'
  expect "$(typed)" "mkdir
undo --quiet
copy --no-keep
plan move
copy --on-conflict keep-both
copy --on-conflict=keep-both
copy --in dir
copy --in=dir
restore a:b=c@d
restore a:b=c@d
restore a:b=c@d
restore x\\ y\\ z
restore x\\ y\\ z
restore q\\\$r\\ s
restore -- -dash
trash g\\\$\\(x\\)
size dir/../g\\\$\\(x\\)
copy list e\\ f
delete g\\\$\\(x\\)
help resume
list a:b=c@d
empty --here x\\ y\\ z
restore --to dir
empty --keep
trash -d --recursive
trash -d g\\\$\\(x\\)"
}

@test "bash completes commands, options, their values, files and what is in the trash" {
  completes_lines bash
}

@test "zsh completes commands, options, their values, files and what is in the trash" {
  completes_lines zsh
}

@test "fish completes commands, options, their values, files and what is in the trash" {
  completes_lines fish
}

# A shell may offer such a name behind a point and a slash, or not at all.
takes_no_name_for_an_option() {
  local line
  setup_shells
  printf '%s\0' --keep-both >"$STATE/trash"
  touch -- --force
  type_into "$1" 'tavro restore \t' 'tavro delete \t' 'tavro trash \t'
  while read -r line; do
    [[ $line == @(restore|delete|trash)?( ./--force) ]] || expect "$line" 'no option'
  done < <(typed)
  expect "$(typed | wc -l)" 3
}

@test "bash offers no name that would be taken for an option" {
  takes_no_name_for_an_option bash
}

@test "zsh offers no name that would be taken for an option" {
  takes_no_name_for_an_option zsh
}

@test "fish offers no name that would be taken for an option" {
  takes_no_name_for_an_option fish
}

# Each command is completed, after the command itself and after a dash, without a word of complaint.
says_nothing() {
  local command lines=()
  setup_shells
  : >"$STATE/trash"
  mapfile -t commands < <(commands_of_help)
  for command in "${commands[@]}"; do
    lines+=("tavro $command no-such-\\t" "tavro $command --he\\t")
  done
  type_into "$1" "${lines[@]}"
  [ "${#commands[@]}" -ge 15 ]
  run -1 grep -iE 'argument|error|not found|invalid|_tavro' "$scratch/shown"
  expect "$(typed | wc -l)" $((2 * ${#commands[@]}))
}

commands_of_help() {
  tavro --help | awk '/^Subcommands:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }'
}

@test "bash completes each command without a complaint" {
  says_nothing bash
}

@test "zsh completes each command without a complaint" {
  says_nothing zsh
}

@test "fish completes each command without a complaint" {
  says_nothing fish
}

@test "every command and option of the help is completed in each shell" {
  mapfile -t commands < <(commands_of_help)
  [ "${#commands[@]}" -ge 15 ]
  for command in "${commands[@]}"; do
    for file in tavro.bash _tavro tavro.fish; do
      grep -qw -- "$command" "$completions/$file" || expect "$file" "a file that names $command"
    done
    run -0 tavro "$command" --help
    while read -r option; do
      for file in tavro.bash _tavro tavro.fish; do
        grep -qw -- "${option#--}" "$completions/$file" || expect "$file" "a file that names $option"
      done
    done < <(printf '%s\n' "$output" | grep -oE -- '--[a-z-]+' | sort -u)
  done
}
