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
  [[ $output == *'Deleted 1 file and 2 folders (5 bytes)' ]]
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

@test "size is that of the module's sum: links to files count with their targets" {
  mkdir -p d/e
  printf '12345' >d/a
  ln d/a d/e/second
  ln -s ../a d/e/link
  ln -s nowhere d/dangling
  ln -s e d/door
  mkfifo d/pipe
  run -0 tavro size d d/door
  expect "$output" $'15\td\n10\td/door'
}
