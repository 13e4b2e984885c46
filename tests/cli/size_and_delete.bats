#!/usr/bin/env bats

load helpers

@test "size prints bytes, a tab and the directory for a script" {
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

@test "size takes files, and what is missing keeps it from no other" {
  mkdir d
  printf 12345 >file
  ln -s file link
  mkfifo pipe
  run -1 --separate-stderr tavro size file missing file/below link pipe d ''
  expect "$output" $'5\tfile\n5\tlink\n0\tpipe\n0\td'
  expect "$stderr" "tavro: No such entry: 'missing'
tavro: No such entry: 'file/below'
tavro: No such entry: ''"
}

# Directories of 15,000, 40,000 and 1,000 bytes; the second has 35,000 of them one level below.
make_sizes() {
  mkdir -p small large/inner none
  head -c 15000 /dev/zero >small/a
  head -c 35000 /dev/zero >large/inner/b
  head -c 5000 /dev/zero >large/c
  head -c 1000 /dev/zero >none/d
}

@test "size -s prints the largest first" {
  make_sizes
  run -0 tavro size -s none small large
  expect "$output" $'40000\tlarge\n15000\tsmall\n1000\tnone'
}

@test "size -d lists what is below, largest first, and sums up to the same" {
  make_sizes
  ln -s inner large/door
  ln large/c large/inner/again
  ln -s c large/link
  run -0 tavro size large
  expect "$output" $'50000\tlarge'
  run -0 tavro size -d 1 large
  expect "$output" $'50000\tlarge\n40000\tlarge/inner\n5000\tlarge/c\n5000\tlarge/link\n0\tlarge/door'
  run -0 tavro size --depth 2 -s none large/
  expect "${lines[0]}" $'50000\tlarge/'
  expect "${lines[2]}" $'35000\tlarge/inner/b'
  expect "${lines[-1]}" $'1000\tnone/d'
  run -2 tavro size -d 0 large
}

@test "size of several has bars and a total on a terminal" {
  make_sizes
  run -0 on_terminal "$TAVRO size -s none small large"
  expect "$output" '   40.0 kB  ##########  large
   15.0 kB  ####        small
    1.0 kB              none
   56.0 kB              in all'
  run -0 on_terminal "$TAVRO size -d 1 large"
  expect "$output" '   40.0 kB  ##########  large
   35.0 kB  #########   large/inner
    5.0 kB  #           large/c'
  mkdir e1 e2
  run -0 on_terminal "$TAVRO size e1 e2"
  expect "${lines[0]}" '   0 bytes              e1'
}

@test "size that is interrupted prints what it has, and says so" {
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
  make_sizes
  run -130 env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 strace -qq -o "$scratch/calls" \
    -e trace=getdents64 -e inject=getdents64:signal=INT:when=1 "$TAVRO" size -d 1 large small
  expect "${lines[0]}" $'0 (partial)\tlarge'
  expect "${#lines[@]}" 1
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
  [[ $output == *$'d\n'*'Delete 1 file and 2 directories (5 bytes) for good? [y/N]'* ]]
  [ -f d/a ]
  run -0 on_terminal "$TAVRO delete d" y
  [[ $output == *'Deleted 1 file and 2 directories (5 bytes)' ]]
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

@test "delete refuses the trash and the directory that one stands in" {
  touch a
  tavro trash a
  for path in "$HOME/.local/share/Trash/files" "$HOME/.local/share/Trash" . ..; do
    run -1 --separate-stderr tavro delete -f "$path"
    [[ $stderr == 'tavro: Refusing to delete'* ]]
  done
  [ -f "$HOME/.local/share/Trash/files/a" ]
}

@test "size of a directory that cannot be read says so" {
  [ "$EUID" -ne 0 ] || skip 'root reads every directory'
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
