#!/usr/bin/env bats
# Saying which items in the trash are meant: list, restore and empty take the same words and limits.

load helpers

trash=.local/share/Trash

# Puts files into the trash, each from the current directory.
put() { # NAME…
  touch -- "$@"
  "$TAVRO" trash -q -- "$@"
}

# Makes an item one that was trashed so many days ago.
age() { # DAYS NAME…
  local name
  for name in "${@:2}"; do
    sed -i "s/^DeletionDate=.*/DeletionDate=$(date -d "-$1 days -1 minute" +%Y-%m-%dT%H:%M:%S)/" \
      "$HOME/$trash/info/$name.trashinfo"
  done
}

# The names of what a list has, in the order of names.
listed() {
  tavro list -0 "$@" | sort -z | tr '\0' ' '
}

@test "a pattern without a slash is held against names, as the shell does" {
  mkdir d
  put a.log b.txt .hidden.log d/c.log
  expect "$(listed '*.log')" 'a.log c.log '
  expect "$(listed '?.log')" 'a.log c.log '
  expect "$(listed '[!a].*')" 'b.txt c.log '
  expect "$(listed '.*.log')" '.hidden.log '
  expect "$(listed 'a.*' 'b.*')" 'a.log b.txt '
  expect "$(listed '*')" 'a.log b.txt c.log '
}

@test "a pattern with a slash is held against original paths" {
  mkdir -p 'd[1]/e' d2/.f
  put a.log 'd[1]/b.log' 'd[1]/e/c.log' d2/d.log d2/.f/e.log
  expect "$(listed "$PWD/*.log")" 'a.log '
  expect "$(listed './*.log')" 'a.log '
  expect "$(listed '*/*.log')" 'b.log d.log '
  expect "$(listed '*/*/*')" 'c.log '
  cd 'd[1]/e'
  expect "$(listed './*')" 'c.log '
  expect "$(listed '../*.log')" 'b.log '
  expect "$(listed '../../d?/*')" 'd.log '
}

@test "a character of the locale is one, and a byte that is none too" {
  put é.log $'\xff.log' ab.log
  expect "$(listed '?.log' | od -An -tx1)" "$(printf 'é.log \xff.log ' | od -An -tx1)"
}

@test "a name that looks like a pattern means itself" {
  local name
  put a '*' '[a]' '?' 'x*' xy $'line\n*'
  for name in '*' '[a]' '?' 'x*' $'line\n*' "$PWD/*"; do
    run -0 bash -c '"$TAVRO" list -0 "$1" | od -c' - "$name"
    expect "$output" "$(printf '%s\0' "${name##*/}" | od -c)"
  done
  tavro restore -q '*'
  expect "$(ls)" '*'
  tavro empty -fq '[a]' 'x*'
  expect "$(listed)" $'? a line\n* xy '
  tavro empty -fq '?' '?'
  expect "$(listed)" $'a line\n* xy '
  tavro empty -fq '?'
  expect "$(listed)" $'line\n* xy '
}

@test "a word that means nothing is named, and nothing is deleted" {
  put a
  run -1 --separate-stderr tavro list '*.log' b a
  expect "$stderr" "tavro: Nothing in the trash matches '*.log'
tavro: 'b' is not in the trash"
  [[ $output == *$'\ta\t'"$PWD/a" ]]
  run -1 --separate-stderr tavro empty -f a b
  expect "$stderr" "tavro: 'b' is not in the trash"
  run -1 --separate-stderr tavro empty -f --older-than 3 a
  expect "$stderr" "tavro: Nothing in the trash matches 'a' within these limits"
  expect "$(listed)" 'a '
  run -1 --separate-stderr tavro restore '*.log' a
  expect "$stderr" "tavro: Nothing in the trash matches '*.log'"
  [ -f a ]
}

@test "an original name from several places is refused, and its places are told" {
  mkdir d e
  put d/b
  put e/b
  mv "$HOME/$trash/files/b" "$HOME/$trash/files/x"
  mv "$HOME/$trash/info/b.trashinfo" "$HOME/$trash/info/x.trashinfo"
  run -1 --separate-stderr tavro empty -f b
  expect "$stderr" "tavro: Several entries named 'b' are in the trash, from '$PWD/d/b', '$PWD/e/b'"
  tavro empty -fq d/b
  run -0 tavro list -0
  [[ $output != *x* ]]
}

@test "of several from one path restore takes the newest, list and empty take all" {
  local i
  for i in 1 2 3; do
    echo "$i" >a.log
    tavro trash -q a.log
  done
  expect "$(listed "$PWD/a.log")" 'a copy 1.log a copy 2.log a.log '
  run -0 tavro restore '*.log'
  expect "$(cat ./*)" 3
  expect "$(listed)" 'a copy 1.log a.log '
  rm a.log
  tavro restore -q --here
  expect "$(cat ./*)" 2
  tavro empty -fq "$PWD/a.log"
  expect "$(listed)" ''
}

@test "--here is the current directory and below, by whatever link it was" {
  mkdir -p d/e de other
  ln -s d way
  put d/a d/e/b de/c way/f other/../x
  printf '[Trash Info]\nPath=%s\nDeletionDate=2001-02-03T04:05:06\n' "$PWD/way/f" \
    >"$HOME/$trash/info/f.trashinfo"
  (
    cd d
    expect "$(listed --here)" 'a b f '
    tavro restore -q --here
    expect "$(find . -type f | sort)" $'./a\n./e/b\n./f'
  )
  expect "$(listed)" 'c x '
  run -1 --separate-stderr bash -c 'cd other && rmdir ../other && "$TAVRO" empty -f --here'
  expect "$stderr" 'tavro: Cannot tell what the current directory is'
  expect "$(listed)" 'c x '
  mkdir other
  printf '[Trash Info]\nPath=%s\nDeletionDate=2001-02-03T04:05:06\n' "$PWD/other/../x" \
    >"$HOME/$trash/info/x.trashinfo"
  cd other
  expect "$(listed --here)" ''
}

@test "an item that is meant twice is restored once" {
  put a.log b.log
  run -0 --separate-stderr tavro restore -q a.log '*.log' '[ab].*'
  expect "$stderr" ''
  expect "$(ls)" $'a.log\nb.log'
}

@test "--since and --older-than count days, and go together with words" {
  put a b c d
  age 3 b
  age 10 c
  printf '[Trash Info]\nPath=%s\n' "$PWD/d" >"$HOME/$trash/info/d.trashinfo"
  expect "$(listed --since 1)" 'a '
  expect "$(listed --since 4)" 'a b '
  expect "$(listed --older-than 2)" 'b c '
  expect "$(listed --older-than 2 --since 4)" 'b '
  expect "$(listed --since 4 '[bc]')" 'b '
  tavro restore -q --older-than 9
  expect "$(ls)" c
  tavro empty -fq --since 1
  expect "$(listed)" 'b d '
  run -1 --separate-stderr tavro restore --older-than 9
  expect "$stderr" 'tavro: Nothing to restore'
}

@test "empty shows which are meant, and how much, and asks" {
  head -c 1500 /dev/zero >a.log
  tavro trash -q a.log
  put b.txt
  run -2 --separate-stderr tavro empty '*.log'
  expect "$stderr" 'tavro: Refusing to empty the trash without asking: use -f, or a terminal'
  run -1 on_terminal "$TAVRO empty '*.log'" n
  expect "$output" "a.log
Delete 1 item (1.5 kB) in the trash for good? [y/N] tavro: Nothing was deleted"
  run -0 on_terminal "$TAVRO empty '*.log'" y
  expect "${lines[-1]}" 'Delete 1 item (1.5 kB) in the trash for good? [y/N] Deleted 1 item (1.5 kB)'
  expect "$(listed)" 'b.txt '
  run -1 on_terminal "$TAVRO empty" n
  expect "$output" 'Delete 1 item (0 bytes) in the trash for good? [y/N] tavro: Nothing was deleted'
  put {1..22}
  run -1 on_terminal "$TAVRO empty '[0-9]*'" n
  expect "${lines[20]}" 'and 2 items more'
  expect "${#lines[@]}" 22
}

# a, b and c hold 1,000 bytes each, a being the oldest, and a directory 2,000.
put_sizes() {
  local name
  mkdir d
  head -c 2000 /dev/zero >d/x
  for name in a b c; do
    head -c 1000 /dev/zero >"$name"
  done
  tavro trash -q a b c d
  age 4 a
  age 3 b
  age 2 d
  age 1 c
}

@test "empty --keep deletes the oldest until the trash holds so much at most" {
  put_sizes
  run -0 tavro empty -f --keep 5k
  expect "$output" 'Deleted 0 items (0 bytes)'
  run -0 tavro empty -f --keep 4999
  expect "$output" 'Deleted 1 item (1.0 kB)'
  expect "$(listed)" 'b c d '
  run -1 on_terminal "$TAVRO empty --keep 1.5kB" n
  expect "$output" "b
d
Delete 2 items (3.0 kB) in the trash for good? [y/N] tavro: Nothing was deleted"
  run -0 tavro empty -fq --keep 3.99K
  expect "$(listed)" 'c d '
  run -0 tavro empty -fq --keep 1.5kB
  expect "$(listed)" 'c '
}

@test "empty --keep with a word counts the whole trash, and deletes only what is meant" {
  put_sizes
  tavro empty -fq --keep 3500 '[bc]'
  expect "$(listed)" 'a d '
  tavro empty -fq --keep 2500 a
  expect "$(listed)" 'd '
}

@test "empty --free deletes the oldest until they hold so much" {
  put_sizes
  printf '[Trash Info]\nPath=%s\n' "$PWD/b" >"$HOME/$trash/info/b.trashinfo"
  run -0 tavro empty -f --free 1001
  expect "$output" 'Deleted 2 items (3.0 kB)'
  expect "$(listed)" 'b c '
  run -0 tavro empty -fq --free 1G
  expect "$(listed)" ''
  mkdir d
  head -c 2000 /dev/zero >d/x
  touch e
  tavro trash -q d e
  age 2 d
  tavro empty -fq --free 1k
  expect "$(listed)" 'e '
}

@test "a size is a number with a unit of powers of 1,000" {
  local size
  for size in k x 1x 1kk 1..2 -1 1e3 0x10 inf '5 G' 1KiB 99999E; do
    run -2 --separate-stderr tavro empty -f "--keep=$size"
    expect "${stderr_lines[0]}" "tavro: --keep takes a size like 500M or 1.5G, not '$size'"
  done
  for size in 0 7 7b 1.5k 1KB 2M 2mb 3G 4T 5P 6E; do
    run -0 tavro empty -f "--keep=$size"
  done
  run -2 --separate-stderr tavro empty --keep 1 --free 1
  expect "${stderr_lines[0]}" 'tavro: --keep cannot be given together with --free'
}

@test "restore --to puts entries into a directory under their names" {
  mkdir -p d/e 'to here'
  echo one >a
  echo two >d/a
  echo three >d/e/b
  tavro trash -q a d/a
  tavro trash -q d
  run -0 tavro restore --to 'to here' "$PWD/a"
  expect "$output" "$HOME/$trash/files/a -> $PWD/to here/a"
  run -1 --separate-stderr tavro restore --to 'to here' d/a
  expect "$stderr" "tavro: Something is at '$PWD/to here/a': with --keep-both it would be restored as '$PWD/to here/a copy 1'"
  run -0 tavro restore -q --to 'to here' --keep-both --here
  expect "$(cat 'to here/a' 'to here/a copy 1' 'to here/d/e/b')" $'one\ntwo\nthree'
  expect "$(listed)" ''
}

@test "restore --to needs a directory" {
  put a
  touch file
  run -1 --separate-stderr tavro restore --to missing a
  expect "$stderr" "tavro: Cannot look at '$PWD/missing': No such file or directory"
  run -1 --separate-stderr tavro restore --to file a
  expect "$stderr" "tavro: Cannot look at '$PWD/file': Not a directory"
  run -2 --separate-stderr tavro restore --to '' a
  expect "${stderr_lines[0]}" "tavro: --to takes a directory, not ''"
  expect "$(listed)" 'a '
  expect "$(ls)" file
}

@test "restore --to takes what came from nowhere that can be a name" {
  put a
  printf '[Trash Info]\nPath=/\n' >"$HOME/$trash/info/a.trashinfo"
  mkdir to
  tavro restore -q --to to a
  expect "$(ls to)" a
}

@test "a list ends with a total, for people alone" {
  put_sizes
  run -0 on_terminal "$TAVRO list"
  expect "${lines[-1]}" '4 items (5.0 kB)'
  run -0 on_terminal "$TAVRO list '[ab]'"
  expect "${lines[-1]}" '2 items (2.0 kB)'
  run -0 on_terminal "$TAVRO list --older-than 9"
  expect "$output" '0 items (0 bytes)'
  expect "$(tavro list | wc -l)" 4
  run -0 on_terminal "$TAVRO list -0"
  [[ $output != *items* ]]
  run -0 on_terminal "$TAVRO list --json"
  [[ $output != *items* ]]
}

@test "restore --to leads into no trash" {
  mkdir dir
  put a
  tavro trash -q dir
  for to in "$HOME/$trash" "$HOME/$trash/info" "$HOME/$trash/files/dir"; do
    run -1 --separate-stderr tavro restore --to "$to" a
    expect "$stderr" "tavro: '$to' is in the trash"
  done
  expect "$(ls "$HOME/$trash/files")" $'a\ndir'
}

@test "a name in the trash that could mean what was here is not taken for granted" {
  mkdir p q
  put q/x
  put p/x
  cd p
  run -1 tavro empty -f x
  [[ $output == *"Several entries named 'x' are in the trash"* ]]
  expect "$(ls "$HOME/$trash/files" | wc -l)" 2
}

@test "thousands of names that look like patterns are restored at once" {
  mkdir d
  seq -f 'd/[%.0f]*' 3000 | tr '\n' '\0' | xargs -0 touch
  (cd d && find . -type f -print0 | xargs -0 -n 5000 "$TAVRO" trash -q --)
  seq -f '[%.0f]*' 3000 | tr '\n' '\0' | xargs -0 -n 5000 "$TAVRO" restore -q
  expect "$(find d -type f | wc -l)" 3000
}
