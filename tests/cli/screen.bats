#!/usr/bin/env bats
# What a person sees: the screen of a terminal after a command, in windows of several widths.

load helpers

widths='20 40 80 200'

# The lines on a screen of so many columns, when the command has ended; see screen.py.
screen() { # COLUMNS [TEXT KEYS]… -- COMMAND…
  local python
  for python in python3 /usr/bin/python3; do
    if "$python" -c 'import pyte' 2>/dev/null; then
      timeout 60 "$python" -B "$BATS_TEST_DIRNAME/screen.py" "$@"
      return
    fi
  done
  skip 'python3-pyte is not installed'
}

# What a window of so many columns makes of a text.
wrapped() { # COLUMNS TEXT
  fold -w "$1" <<<"$2" | sed 's/ *$//'
}

# Expects the same text in a window of each width.
shows() { # TEXT COMMAND…
  local columns
  for columns in $widths; do
    run screen "$columns" -- "${@:2}"
    expect "$output" "$(wrapped "$columns" "$1")"
  done
}

@test "paths are short below the current directory and below home, and absolute in a pipe" {
  mkdir "$HOME/music" sub
  touch a "$HOME/music/song" -- ./-x ./~y
  shows 'a -> sub/a' "$TAVRO" plan copy a sub
  shows '~/music/song -> a copy (exists)' bash -c 'touch "a copy"; "$TAVRO" plan copy ~/music/song "a copy"'
  shows './-x -> ~/music/-x
./~y -> ~/music/~y' "$TAVRO" plan copy ./-x ./~y ~/music
  shows '/dev/null -> null' "$TAVRO" plan copy /dev/null null
  run -1 screen 80 -- "$TAVRO" size "$HOME/none"
  expect "$output" "tavro: No such entry: '~/none'"
  run -0 tavro plan copy a "$HOME/music"
  expect "$output" "$PWD/a -> $HOME/music/a"
  run -0 screen 80 -- "$TAVRO" mkdir "$HOME/new" made
  expect "$output" $'~/new\nmade'
}
