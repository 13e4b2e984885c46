#!/usr/bin/env bats
# What is said about a command line that is not understood, and questions that are answered by no.

load helpers

# Expects that a command line is refused with a sentence, and a hint at the help of a command.
refused() { # SENTENCE COMMAND ARGUMENT…
  run -2 --separate-stderr tavro "${@:3}"
  expect "$output" ''
  expect "$stderr" "tavro: $1
Try '$2 --help'"
}

@test "what is missing is said in words" {
  refused "'tavro copy' needs at least one entry and a target" 'tavro copy' copy
  refused "'tavro copy' needs at least one entry and a target" 'tavro copy' copy a
  refused "'tavro plan move' needs at least one entry and a target" 'tavro plan move' plan move a
  refused "'tavro rename' needs an entry to rename" 'tavro rename' rename
  refused "'tavro rename' needs a new name" 'tavro rename' rename a
  refused "'tavro mkdir' needs a name for the new directory" 'tavro mkdir' mkdir
  refused "'tavro trash' needs an entry to trash" 'tavro trash' trash -q
  refused "'tavro delete' needs an entry to delete" 'tavro delete' delete -f
  refused "'tavro restore' needs a name, a pattern or a limit" 'tavro restore' restore
  refused "'tavro restore' needs a name, a pattern or a limit" 'tavro restore' restore --volume / -q
  refused "'tavro size' needs something to measure" 'tavro size' size
  refused '--older-than needs a value' 'tavro empty' empty --older-than
  refused '--mend needs a value' 'tavro doctor' doctor --mend
  refused "ID takes the number of an operation from 1 to 2147483647, not 'x'" 'tavro undo' undo x
}

@test "what is too much, or does not go together, is named" {
  refused "Unexpected argument 'c'" 'tavro rename' rename a b c
  refused "Unexpected argument '-c'" 'tavro rename' rename -- a b -c
  refused "Unexpected argument 'x'" 'tavro redo' redo x
  refused "Unexpected argument '2'" 'tavro undo' undo 1 2
  refused '--in was given more than once' 'tavro copy' copy --in a --in b c d
  refused '--json cannot be given together with --null' 'tavro list' list --json -0
  refused "Option '--quiet' goes after 'tavro trash'" 'tavro trash' --quiet trash a
}

@test "a value that is not taken is told with those that are" {
  refused "--on-conflict takes ask, overwrite, newer, skip or keep-both, not 'never'" 'tavro move' \
    move --on-conflict never a b
  refused "--in takes a directory, not ''" 'tavro mkdir' mkdir --in '' a
  for days in 0 36501 x 3x -1; do
    refused "--older-than takes a number of days from 1 to 36500, not '$days'" 'tavro empty' \
      empty "--older-than=$days"
  done
}

@test "an unknown command or option brings up the nearest" {
  refused "Unknown command 'mkdri'; did you mean 'mkdir'?" tavro mkdri a
  refused "Unknown command 'hist'; did you mean 'history'?" tavro hist
  refused "Unknown command 'mvoe'; did you mean 'move'?" 'tavro plan' plan mvoe a b
  refused "Unknown command 'make'" tavro make
  refused "Unknown command ''" tavro ''
  refused "Unknown option '--on-conflcit=skip'; did you mean '--on-conflict'?" 'tavro copy' \
    copy --on-conflcit=skip a b
  refused "Unknown option '--jsno'; did you mean '--json'?" 'tavro list' list --jsno
  refused "Unknown option '--verson'; did you mean '--version'?" tavro --verson
  refused "Unknown option '-x'" 'tavro history' history -x
  refused "Unknown command '++'" tavro ++
}

@test "a name that begins with a dash is shown the way behind two dashes" {
  local hint='; a name that begins with a dash goes after --'
  touch -- --quite
  refused "Unknown option '-x.txt'$hint" 'tavro trash' trash -x.txt
  refused "Unknown option '-rf'$hint" 'tavro delete' delete -rf a
  refused "Unknown option '--quite'$hint" 'tavro trash' trash --quite
  rm -- --quite
  refused "Unknown option '--quite'; did you mean '--quiet'?" 'tavro trash' trash --quite
}

@test "a command alone prints its help where it needs another" {
  tavro --help >help
  run -2 --separate-stderr tavro
  expect "$stderr" "$(cat help)"
  tavro plan --help >help
  run -2 --separate-stderr tavro plan
  expect "$stderr" "$(cat help)"
}

@test "help and the name of a command print the command's help" {
  expect "$(tavro help)" "$(tavro --help)"
  expect "$(tavro help mkdir)" "$(tavro mkdir --help)"
  expect "$(tavro help plan copy)" "$(tavro plan copy --help)"
  [[ $(tavro help mkdir) == *'Usage: tavro mkdir '* ]]
  refused "Unknown command 'mkdri'; did you mean 'mkdir'?" tavro help mkdri
}

@test "no sentence about usage has words of the parser or a full stop" {
  local arguments
  for arguments in 'copy a' 'mkdri' 'list -x' 'list --json -0' 'rename a b c' 'empty --older-than x'; do
    # shellcheck disable=SC2086 # several
    run -2 --separate-stderr tavro $arguments
    [[ ! $stderr =~ (required|excludes|TEXT|argument\ was|not\ in|\.$) ]] || expect "$stderr" 'plain words'
  done
}

@test "an answer that is no yes says that nothing was done" {
  touch a b
  run -1 on_terminal "$TAVRO delete a" n
  [[ $output == *'Nothing was deleted' ]]
  "$TAVRO" trash a
  run -1 on_terminal "$TAVRO empty" ''
  [[ $output == *'Nothing was deleted' ]]
  echo new >a
  run -1 on_terminal "$TAVRO restore a" n
  [[ $output == *"Nothing was restored to 'a'" ]]
  run -1 on_terminal "$TAVRO copy b a" q
  [[ $output == *'Stopped: nothing was done' ]]
  expect "$(cat a)" new
}

@test "without HOME a tilde is refused, and taken for no name" {
  touch a
  for command in 'mkdir ~/x' 'mkdir ~' 'rename a ~/x' 'copy a ~/x' 'move -n a ~/'; do
    # shellcheck disable=SC2086 # several
    run -1 --separate-stderr env -u HOME "$TAVRO" $command
    expect "$stderr" "tavro: Cannot tell what '${command##* }' means: HOME is not set"
  done
  expect "$(ls -A)" a
  run -0 env -u HOME XDG_STATE_HOME="$scratch/state" "$TAVRO" mkdir '~x'
  [ -d '~x' ]
}
