#!/usr/bin/env bats
# What can be undone: any operation, whatever came after it, and never a dead end.

load helpers

# Undo on a terminal, answered with KEYS.
undo_answered() {
  timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" 'instead? [y/N] ' "$1" "$TAVRO" undo
}

# What the newest three operations have become in the history, without numbers and times.
history_lines() {
  tavro history | sed -E 's/^([0-9]+)  [^ ]+ [^ ]+  ([a-z]+)  /\1 \2 /'
}

@test "undo takes back any operation by its number, whatever came after it" {
  touch a b c
  tavro rename a a2
  tavro rename b b2
  tavro rename c c2
  run -0 tavro undo 2
  expect "$output" "Undone: rename
  $PWD/b -> $PWD/b2"
  expect "$(ls)" $'a2\nb\nc2'
  run -0 tavro undo 1
  expect "$(ls)" $'a\nb\nc2'
  expect "$(history_lines)" "2 rename $PWD/b -> $PWD/b2  (undone)
1 rename $PWD/a -> $PWD/a2  (undone)
3 rename $PWD/c -> $PWD/c2"
  run -0 tavro redo
  expect "$(ls)" $'a2\nb\nc2' # what was undone last
  run -0 tavro redo
  expect "$(ls)" $'a2\nb2\nc2'
}

@test "undo of a number that is not there, or is undone, is refused" {
  touch a
  tavro rename a b
  tavro undo
  for id in 1 2; do
    run -1 tavro undo "$id"
    expect "$output" "tavro: The history has no operation $id that can be undone"
  done
  run -2 tavro undo --skip 1
  run -2 tavro undo 0
}

@test "undo of a number refuses what cannot be undone, and says what is there instead" {
  echo one >a
  tavro rename a b
  echo two >b2
  mv b2 b
  run -1 tavro undo 1
  expect "$output" "tavro: '$PWD/b' is not what it was: another file is there now"
  expect "$(cat b)" two
}

@test "a file that got the number of the one that an operation left is not taken for it" {
  touch a
  tavro rename a b
  was=$(stat -c %i b)
  rm b
  echo two >b
  [[ $(stat -c %i b) == "$was" ]] || skip 'this file system gives no number again at once'
  run -1 tavro undo
  [[ $output == *"'$PWD/b' is not what it was: another file is there now"* ]]
  expect "$(cat b)" two
  tavro history --drop
  tavro copy b c
  was=$(stat -c %i c)
  rm c
  echo three >c
  [[ $(stat -c %i c) == "$was" ]] || skip 'this file system gives no number again at once'
  run -1 tavro undo
  expect "$(cat c)" three
  echo more >>b # what is only changed can be undone
  tavro history --drop
  tavro rename b d
  echo more >>d
  run -0 tavro undo
  [ -e b ]
}

@test "what is back already, or gone, does not stand in the way of an undo" {
  touch a b c
  tavro mkdir older
  tavro trash a
  tavro restore a
  tavro copy b b2
  rm b2
  expect "$(history_lines)" "4 copy $PWD/b -> $PWD/b2  (nothing is left to undo)
2 trash $PWD/a  (nothing is left to undo)
1 mkdir $PWD/older"
  run -0 --separate-stderr tavro undo
  expect "$output" "Undone: mkdir
  $PWD/older"
  expect "$stderr" "tavro: Cannot be undone: 4 copy $PWD/b -> $PWD/b2: '$PWD/b2' is missing
tavro: Cannot be undone: 2 trash $PWD/a: '$HOME/.local/share/Trash/files/a' is no longer in the trash"
  run -1 tavro undo
  [[ $output == *'tavro: Nothing else can be undone' ]]
}

@test "what was deleted is in the history, and no undo goes past it without being told to" {
  touch a b c
  tavro mkdir older
  tavro delete -f a b
  tavro trash c
  tavro empty -f
  run -0 tavro history
  [[ ${lines[0]} == *"  empty  "*"  (cannot be undone: A deletion is final)" ]]
  [[ ${lines[1]} == *"  trash  $PWD/c  (nothing is left to undo)" ]]
  [[ ${lines[2]} == *"  delete  $PWD/a and 1 more  (cannot be undone: A deletion is final)" ]]
  run -1 tavro undo
  [[ $output == *"tavro: With --skip this is undone instead: 1 mkdir $PWD/older" ]]
  [ -d older ]
  run -1 undo_answered 'n\n'
  [[ $output == *"Undo 1 mkdir older instead? [y/N] n"*'Nothing was undone'* ]]
  [ -d older ]
  run -0 undo_answered 'y\n'
  [[ $output == *'Undone: mkdir'* ]]
  [ ! -e older ]
  run -0 tavro redo
  run -0 tavro undo --skip
  [ ! -e older ]
}

@test "an operation that another program has made senseless is not blamed on the one before it" {
  command -v python3 >/dev/null || skip 'python3 is not installed'
  touch a b
  tavro rename a a2
  tavro rename b b2
  local spoil='import sqlite3, sys
connection = sqlite3.connect(sys.argv[1])
connection.execute("UPDATE operation SET kind = 99 WHERE id > " + sys.argv[2])
connection.commit()'
  python3 -c "$spoil" "$HOME/.local/state/tavro/history.db" 1
  run -1 tavro undo
  expect "$output" "tavro: Cannot be undone: The history '$HOME/.local/state/tavro/history.db' contains an invalid operation
tavro: With --skip this is undone instead: 1 rename $PWD/a -> $PWD/a2"
  run -0 tavro undo --skip
  expect "$(ls)" $'a\nb2'
  python3 -c "$spoil" "$HOME/.local/state/tavro/history.db" 0
  run -1 tavro undo
  expect "$output" "tavro: Cannot be undone: The history '$HOME/.local/state/tavro/history.db' contains an invalid operation
tavro: Nothing else can be undone"
}

@test "the history as JSON tells the number, whether it can be undone, and why not" {
  touch a b
  tavro rename a c
  tavro delete -f b
  tavro history --json | python3 -c '
import json, sys
deleted, renamed = json.load(sys.stdin)
assert (deleted["id"], deleted["undoable"]) == (2, False), deleted
assert deleted["reason"] == "A deletion is final", deleted
assert deleted["entries"][0]["toPath"] is None, deleted
assert (renamed["id"], renamed["undoable"], "reason" in renamed) == (1, True, False), renamed'
}

@test "without a history that can be used nothing begins that could be undone" {
  mkdir -p "$HOME/.local/state"
  touch "$HOME/.local/state/tavro" a b
  for words in 'copy a c' 'move a c' 'rename a c' 'trash a' 'mkdir c'; do
    # shellcheck disable=SC2086
    run -1 --separate-stderr tavro $words
    expect "$output" ''
    [[ $stderr == *"tavro: Nothing was done, because it could not be undone; --no-history does it anyway"* ]]
    [[ $stderr == *"tavro: Cannot look at '$HOME/.local/state/tavro/history.db': Not a directory"* ]]
    expect "$(ls)" $'a\nb'
  done
  run -0 --separate-stderr tavro trash --no-history a
  expect "$stderr" ''
  run -0 --separate-stderr tavro restore a
  expect "$stderr" "tavro: This will not be in the history: \
Cannot look at '$HOME/.local/state/tavro/history.db': Not a directory"
  run -0 tavro rename --no-history a c
  run -0 tavro mkdir --no-history d
  run -0 tavro copy --no-history c d
  run -0 tavro move --no-history c e
  expect "$(ls)" $'b\nd\ne'
  run -0 --separate-stderr tavro delete -f b
  [[ $stderr == 'tavro: This will not be in the history: '* ]]
  run -0 --separate-stderr tavro empty -f
  [ ! -e b ]
}

@test "what is kept out of the history is not in it" {
  touch a b
  tavro rename --no-history a c
  tavro delete --no-history -f b
  expect "$(tavro history)" ''
}

@test "an end that the history cannot keep is said, and is a failure" {
  command -v strace >/dev/null || skip 'strace is not installed'
  export ASAN_OPTIONS=detect_leaks=0 # which is not for processes that are traced
  touch a
  tavro mkdir d
  # The last write to the log is that of the end.
  strace -qq -o "$scratch/calls" -e trace=pwrite64 -P "$HOME/.local/state/tavro/history.db-wal" "$TAVRO" rename a b
  last=$(grep -c '^pwrite64' "$scratch/calls")
  run -1 strace -qq -o "$scratch/calls" -e trace=pwrite64 -e inject=pwrite64:error=ENOSPC:when="$last" \
    -P "$HOME/.local/state/tavro/history.db-wal" "$TAVRO" rename b c
  [[ $output == *"tavro: It is done, but the history still shows it as interrupted: Cannot save the history"* ]]
  [ -e c ]
  run -0 tavro undo
  [ -e b ]
}

@test "a directory that cannot be opened now is not said to be in the way of an undo" {
  command -v strace >/dev/null || skip 'strace is not installed'
  export ASAN_OPTIONS=detect_leaks=0 # which is not for processes that are traced
  mkdir d e
  touch d/x
  tavro move -q d/x e/
  run -1 strace -qq -o "$scratch/calls" -e trace=openat -P "$PWD/d" -e inject=openat:error=EMFILE "$TAVRO" undo
  [[ $output == *"'$PWD/d'"*': Too many open files'* && $output != *'in the way'* ]]
  [ -e e/x ]
  tavro undo
  [ -e d/x ]
}

@test "what was not done is not said to be when the history cannot keep its end" {
  command -v strace >/dev/null || skip 'strace is not installed'
  export ASAN_OPTIONS=detect_leaks=0 # which is not for processes that are traced
  mkdir a d
  tavro mkdir e
  # The plan is kept, and nothing after that.
  log=$HOME/.local/state/tavro/history.db-wal
  strace -qq -o "$scratch/calls" -e trace=pwrite64,renameat2 -P "$log" -P "$PWD/d" "$TAVRO" copy a d/
  first=$(sed '/renameat2/,$d' "$scratch/calls" | grep -c '^pwrite64')
  rmdir d/a
  run -1 strace -qq -o "$scratch/calls" -e trace=pwrite64 -e inject=pwrite64:error=ENOSPC:when="$first+" \
    -P "$log" "$TAVRO" copy a d/
  [[ $output == *"tavro: The history still shows it as interrupted: Cannot save the history"* ]]
  [[ $output != *"It is done"* ]]
  expect "$(ls -A d)" ''
  tavro undo
}

@test "a deletion that deleted nothing is not in the history" {
  touch a b
  mkdir d
  touch d/c
  tavro rename a a2
  command -v chattr >/dev/null && chattr +i b 2>/dev/null || skip 'no file can be made immutable here'
  run -1 tavro delete -f b
  chattr -i b
  [ -e b ]
  expect "$(tavro history | wc -l)" 1
  run -0 tavro undo
}

@test "a redo takes no file that got the number of the one that was there" {
  touch a
  tavro rename a b
  tavro undo
  was=$(stat -c %i a)
  rm a
  echo other >a
  [[ $(stat -c %i a) == "$was" ]] || skip 'this file system gives no number again at once'
  run -1 tavro redo
  expect "$output" "tavro: '$PWD/a' is not what it was: another file is there now"
  expect "$(cat a)" other
}

@test "a redo trashes no file that got the number of the one that was there" {
  touch a
  tavro trash a
  tavro undo
  was=$(stat -c %i a)
  for _ in {1..50}; do # somebody else may get it first
    rm a
    echo other >a
    [[ $(stat -c %i a) != "$was" ]] || break
  done
  [[ $(stat -c %i a) == "$was" ]] || skip 'this file system gives no number again at once'
  run -1 tavro redo
  expect "$output" "tavro: '$PWD/a' is not what it was: another file is there now"
  expect "$(cat a)" other
}

@test "what was trashed twice from one path is known by when" {
  local trash=$HOME/.local/share/Trash
  touch a
  tavro trash -q a
  mv "$trash/files/a" .
  rm "$trash/info/a.trashinfo"
  tavro trash -q a
  sed -i 's/^DeletionDate=..../DeletionDate=2099/' "$trash/info/a.trashinfo"
  run -1 tavro undo 1
  expect "$output" "tavro: '$trash/files/a' is not what it was: what was at '$PWD/a' at another time is there now"
  mv "$trash/files/a" .
  rm "$trash/info/a.trashinfo"
  tavro trash -q a
  touch "$trash/info/a.trashinfo" # a copy of the trash has other times, but the same dates
  chmod 600 "$trash/files/a"
  sed -i 's/^DeletionDate=.*/DeletionDate=2020-01-01T00:00:00/' "$trash/info/a.trashinfo"
  run -0 tavro undo
  [ -e a ]
}

@test "the undo of a copy says where it went, and how much that is" {
  mkdir -p d/e to
  head -c 1500 /dev/zero | tee d/f >d/e/g
  touch a
  tavro copy -q d to
  run -0 tavro undo
  expect "$output" "Undid copy: moved $PWD/to/d to the trash (3.0 kB)"
  tavro copy -q d a to
  run -0 on_terminal "$TAVRO undo"
  expect "$output" 'Undid copy: moved 2 entries to the trash (3.0 kB)'
  tavro redo -q
  run -0 tavro undo -q
  expect "$output" ''
  tavro copy -q a to
  run -0 on_terminal "$TAVRO undo"
  expect "$output" 'Undid copy: moved to/a to the trash (0 bytes)'
}

@test "the directory of the history, and what holds it, stay" {
  local directory state=$HOME/.local/state
  touch a
  tavro trash -q a
  for directory in "$state/tavro" "$state"; do
    for act in trash 'delete -f'; do
      # shellcheck disable=SC2086 # words
      run -1 tavro $act "$directory"
      [[ $output == *"the history" || $output == *"the directory of the history" ]]
    done
    run -1 tavro move -q "$directory" .
    run -1 tavro rename "$directory" other
  done
  tavro undo -q
  [ -e a ]
  export XDG_STATE_HOME=$PWD/other
  tavro trash -q a
  run -1 tavro delete -f other
  expect "$output" "tavro: Refusing to delete '$PWD/other': it holds the history"
}
