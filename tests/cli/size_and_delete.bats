#!/usr/bin/env bats

load helpers

@test "size prints bytes, a tab and the folder for a script" {
  mkdir -p d/e
  printf '12345' >d/a
  printf '1234567' >d/e/b
  ln -s a d/link
  run -0 tavro size d d/e
  expect "$output" $'17\td\n7\td/e'
}

@test "size is readable on a terminal" {
  mkdir d
  head -c 1234567 /dev/zero >d/a
  run -0 on_terminal "$TAVRO size d"
  expect "$output" '1.2 MB (1,234,567 bytes)  d'
}

@test "size of what is no folder fails and measures the others" {
  mkdir d
  touch file
  run -1 --separate-stderr tavro size file missing d
  expect "$output" $'0\td'
  expect "$stderr" "tavro: Not a directory: 'file'
tavro: Not a directory: 'missing': No such file or directory"
}

@test "a terminated size is marked as partial and exits with 143" {
  mkdir -p d/{1..40}
  for i in {1..40}; do touch "d/$i/"{1..250}; done
  # Whether the signal comes before the walk ends is up to the machine, so many walks in one command.
  # shellcheck disable=SC2046 # two thousand words are wanted
  "$TAVRO" size $(printf 'd%.0s ' {1..2000}) >out 2>err &
  pid=$!
  until [ -s out ] || ! kill -0 "$pid"; do :; done
  kill -TERM "$pid" # what runs in the background here ignores an interrupt
  status=0
  wait "$pid" || status=$?
  expect "$status" 143
  [[ $(tail -n 1 out) == *'(partial)'*d ]]
}

@test "delete refuses without a terminal unless it is forced" {
  touch a
  run -2 --separate-stderr tavro delete a
  expect "$stderr" 'tavro: Refusing to delete for good without asking: use -f, or a terminal'
  [ -f a ]
  run -0 tavro delete -f a
  expect "$output" 'Deleted 1 entry'
  [ ! -e a ]
}

@test "delete asks on a terminal, saying what goes" {
  mkdir -p d/e
  printf '12345' >d/a
  run -1 on_terminal "$TAVRO delete d" n
  [[ $output == *"$PWD/d"*'Delete 1 file and 2 folders (5 bytes) for good? [y/N]'* ]]
  [ -f d/a ]
  run -0 on_terminal "$TAVRO delete d" y
  [ ! -e d ]
}

@test "delete removes links and not what they point to" {
  mkdir d
  touch d/a
  ln -s d link
  ln -s nowhere dangling
  run -0 tavro delete -f link dangling
  [ ! -L link ]
  [ ! -L dangling ]
  [ -f d/a ]
}

@test "delete of something that is not there deletes nothing" {
  touch a
  run -1 --separate-stderr tavro delete -f a missing
  expect "$stderr" "tavro: No such entry: 'missing'"
  [ -f a ]
}

@test "delete refuses the root, the home directory and what holds it" {
  run -1 --separate-stderr tavro delete -f "$HOME"
  expect "$stderr" "tavro: Refusing to delete '$HOME': it is the home directory"
  run -1 tavro delete -f "$scratch"
  # Without -f, so that a broken check still asks first.
  run -1 --separate-stderr tavro delete /
  expect "$stderr" "tavro: Refusing to delete '/': it is the root directory"
  [ -d "$HOME" ]
}

@test "delete refuses the trash and the folder that one stands in" {
  touch a
  tavro trash a
  for path in "$HOME/.local/share/Trash/files" "$HOME/.local/share/Trash" . ..; do
    run -1 --separate-stderr tavro delete -f "$path"
    [[ $stderr == 'tavro: Refusing to delete'* ]]
  done
  [ -f "$HOME/.local/share/Trash/files/a" ]
}

@test "an interrupted delete says so and exits with 130" {
  mkdir -p d/{1..60}
  for i in {1..60}; do touch "d/$i/"{1..500}; done
  "$TAVRO" delete -f d >out 2>err &
  pid=$!
  until [ "$(ls d | wc -l)" -lt 60 ] || ! kill -0 "$pid" 2>/dev/null; do :; done
  kill -INT "$pid" 2>/dev/null || skip 'the delete was over before it could be interrupted'
  status=0
  wait "$pid" || status=$?
  [ -e d ] || skip 'the delete was over before it could be interrupted'
  expect "$status" 130
  [[ $(cat err) == "tavro: Interrupted: what is left of '$PWD/d'"* ]]
}

@test "size of a folder that cannot be read says so" {
  [ "$EUID" -ne 0 ] || skip 'root reads every folder'
  mkdir -m 0 d
  run -1 --separate-stderr tavro size d
  expect "$stderr" "tavro: Cannot read 'd': Permission denied"
}

@test "delete takes odd names as they are" {
  touch -- '[a,b]' a b '{}' -x $'n\nl'
  run -0 tavro delete -f -- '[a,b]' '{}' -x $'n\nl'
  expect "$(ls)" $'a\nb'
}
