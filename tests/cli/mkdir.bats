#!/usr/bin/env bats

load helpers

@test "mkdir creates what was typed, trimmed, with its parents, and prints its path" {
  run -0 tavro mkdir ' Letters/2026 '
  expect "$output" "$PWD/Letters/2026"
  [ -d Letters/2026 ]
}

@test "mkdir takes another directory as the pane's own" {
  mkdir other
  run -0 tavro mkdir new --in other
  expect "$output" "$PWD/other/new"
  [ -d other/new ]
}

@test "mkdir expands the tilde that the shell did not" {
  run -0 tavro mkdir '~/made'
  expect "$output" "$HOME/made"
}

@test "mkdir of a directory that exists succeeds" {
  mkdir there
  run -0 tavro mkdir there
  expect "$output" "$PWD/there"
}

@test "mkdir creates several, each to be undone by itself, and those beside one that fails" {
  touch file
  run -1 --separate-stderr tavro mkdir a file/x 'b/c' --in .
  expect "$output" "$PWD/a
$PWD/b/c"
  expect "$stderr" "tavro: Cannot create the directory '$PWD/file/x': Not a directory"
  [[ -d a && -d b/c ]]
  tavro undo
  [[ -d a && ! -e b ]]
}

@test "mkdir says the module's sentence and exits with 1" {
  run -1 --separate-stderr tavro mkdir '  '
  expect "$stderr" 'tavro: The name of the new directory is empty'
  expect "$output" ''
  touch file
  run -1 --separate-stderr tavro mkdir file
  expect "$stderr" "tavro: Cannot create the directory '$PWD/file': Not a directory"
}

@test "wrong usage exits with 2 and does nothing" {
  run -2 tavro
  run -2 tavro mkdir
  run -2 tavro mkdir --no-such-option a
  run -2 --separate-stderr tavro make a
  expect "${stderr_lines[0]}" "tavro: Unknown command 'make'"
  [ -z "$(ls -A)" ]
}

@test "a name that looks like a list is one name" {
  for name in '[a,b]' '{}' '%%' '[' ']' '[]' 'x]' '++'; do
    run -0 tavro mkdir "$name"
    expect "$output" "$PWD/$name"
    [ -d "$name" ]
  done
  [ "$(find . -mindepth 1 | wc -l)" -eq 8 ]
}

@test "a name that begins with a dash goes after --" {
  run -2 tavro mkdir -x
  run -0 tavro mkdir -- -x
  [ -d ./-x ]
}

@test "into a pipe names go raw, on a terminal no control byte goes out" {
  name=$'a\e[31mb\nc\x7f\xc2\x9b\xff'
  run -0 tavro mkdir "$name"
  expect "$output" "$PWD/$name"
  run -0 on_terminal "$TAVRO mkdir $(printf '%q' "$name")"
  expect "$output" "a\\x1B[31mb\\x0Ac\\x7F\\xC2\\x9B\\xFF"
}

@test "on a terminal names in any script stay readable" {
  run -0 on_terminal "$TAVRO mkdir 'Grüße 世界 😀'"
  expect "$output" "Grüße 世界 😀"
}

@test "on a terminal no name hides a character or turns the direction" {
  name=$'photo\u202egpj.exe'
  run -0 on_terminal "$TAVRO mkdir $name"
  expect "$output" "photo\\xE2\\x80\\xAEgpj.exe"
  expect "$(tavro mkdir "$name")" "$PWD/$name"
  run -1 on_terminal "$TAVRO delete $name" n
  [[ $output == *"photo\\xE2\\x80\\xAEgpj.exe"* && $output != *$'\u202e'* ]]
  tavro trash "$name"
  run -0 on_terminal "$TAVRO list"
  [[ $output == *'photo\xE2\x80\xAEgpj.exe  from '* && $output != *$'\u202e'* ]]
  expect "$(tavro list -0 | tr '\0' '\n')" "$name"
  run -0 on_terminal "$TAVRO list -0"
  [[ $output == "$name"* ]]
  run -0 tavro list --json
  [[ $output == *'photo\u202egpj.exe"'* ]]
  mkdir "$name"
  run -1 on_terminal "$TAVRO restore $name" n
  [[ $output == *"Restore as 'photo\\xE2\\x80\\xAEgpj copy 1.exe'? "* && $output != *$'\u202e'* ]]
  for character in $'\u00ad' $'\u034f' $'\u061c' $'\u115f' $'\u180e' $'\u200b' $'\u200c' $'\u200d' $'\u200e' \
    $'\u2028' $'\u202a' $'\u2060' $'\u2066' $'\u2069' $'\u3164' $'\ufe0f' $'\ufeff' $'\uffa0' $'\U1d173' \
    $'\Ue0041' $'\Ue0100'; do
    run -0 on_terminal "$TAVRO mkdir a${character}b"
    [[ $output =~ ^a(\\x[0-9A-F]{2})+b$ ]] || expect "$output" 'an escape'
  done
}

@test "on a terminal joiners stay where scripts and emoji need them" {
  for name in $'❤\ufe0f\u200d🔥' $'می\u200cخواهم' $'क्\u200dष' 'עברית' $'a\u0301'; do
    run -0 on_terminal "$TAVRO mkdir $name"
    expect "$output" "$name"
  done
}

@test "a sentence on a terminal carries no control byte either" {
  run -1 on_terminal "$TAVRO trash $'\\e[2J' 2>&1"
  expect "$output" "tavro: No such entry: '\\x1B[2J'"
}

@test "output that cannot be written is a failure" {
  run -1 --separate-stderr bash -c '"$TAVRO" mkdir a > /dev/full'
  expect "$stderr" 'tavro: Cannot write to standard output: No space left on device'
}

@test "help shows examples and version shows the version" {
  run -0 tavro --help
  [[ $output == *Examples:* ]]
  run -0 tavro mkdir --help
  [[ $output == *--in* ]]
  run -0 tavro --version
  [[ $output =~ ^tavro\ [0-9]+\.[0-9]+\.[0-9]+$ ]]
}
