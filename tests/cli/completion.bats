#!/usr/bin/env bats

load helpers

completions=$BATS_TEST_DIRNAME/../../cli/completions

# What bash offers for the words given, the last of which is being typed; one a line.
completed() {
  (
    PATH=${TAVRO%/*}:$PATH
    # shellcheck source=/dev/null
    source "$completions/tavro.bash"
    # shellcheck disable=SC2034 # read by the completion
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    # shellcheck disable=SC2317 # called by the completion
    compopt() { :; } # outside of a completion there is nothing to set
    _tavro
    printf '%s\n' "${COMPREPLY[@]}"
  )
}

@test "bash completes commands, options, choices and files" {
  touch report.txt
  expect "$(completed tavro mk)" mkdir
  expect "$(completed tavro copy --on)" --on-conflict
  expect "$(completed tavro copy --on-conflict k)" keep-both
  expect "$(completed tavro trash rep)" report.txt
  expect "$(completed tavro plan m)" move
}

@test "bash completes the names in the trash for restore" {
  touch 'odd name' plain
  "$TAVRO" trash 'odd name' plain
  expect "$(completed tavro restore o)" 'odd\ name'
}

@test "every command and option of the help is completed in each shell" {
  run -0 tavro --help
  commands=$(printf '%s\n' "$output" | awk '/^Subcommands:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }')
  [ "$(printf '%s\n' "$commands" | wc -l)" -ge 15 ]
  for command in $commands; do
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

@test "zsh reads its completion" {
  command -v zsh >/dev/null || skip 'zsh is not installed'
  run -0 zsh -n "$completions/_tavro"
}

@test "fish reads its completion" {
  command -v fish >/dev/null || skip 'fish is not installed'
  run -0 fish --no-execute "$completions/tavro.fish"
}
