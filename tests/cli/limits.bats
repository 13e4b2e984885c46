#!/usr/bin/env bats
# Trees of 3,000 levels and paths beyond 4,096 bytes, with 64 file descriptors and a stack of 256 KiB.

load helpers

levels=3000

# deep TOP: a tree of so many levels, with a file of seven bytes at the bottom.
deep() {
  python3 - "$1" "$levels" <<'PYTHON'
import os, sys
os.mkdir(sys.argv[1])
os.chdir(sys.argv[1])
for _ in range(int(sys.argv[2])):
    os.mkdir("d")
    os.chdir("d")
with open("bottom", "w") as file:
    file.write("content")
PYTHON
}

# Whether the tree is whole: all levels, and the file.
is_whole() {
  python3 - "$1" "$levels" <<'PYTHON'
import os, sys
os.chdir(sys.argv[1])
for _ in range(int(sys.argv[2])):
    assert os.listdir(".") == ["d"], os.listdir(".")
    os.chdir("d")
assert open("bottom").read() == "content"
PYTHON
}

# The command with little of everything.
limited() {
  (ulimit -n 64 && ulimit -s 256 && "$TAVRO" "$@")
}

teardown() {
  cd /
  [[ ! ${elsewhere:-} ]] || rm -rf "$elsewhere"
  rm -rf "$scratch"
}

@test "a deep tree is copied" {
  deep tree
  limited copy -q tree copied
  is_whole tree
  is_whole copied
}

@test "a deep tree is moved to another file system and back" {
  [[ -d /dev/shm && $(stat -c %d /dev/shm) != $(stat -c %d .) ]] ||
    skip '/dev/shm is no second file system'
  elsewhere=$(mktemp -d -p /dev/shm)
  deep tree
  limited move -q tree "$elsewhere/moved"
  [[ ! -e tree ]]
  is_whole "$elsewhere/moved"
  limited undo -q
  [[ ! -e $elsewhere/moved ]]
  is_whole tree
}

@test "a deep tree is merged into another one by a move" {
  deep tree
  mkdir into
  deep into/tree
  python3 -c 'import os; os.chdir("into/tree")
for _ in range(3000): os.chdir("d")
os.unlink("bottom")'
  limited move -q tree into/
  [[ ! -e tree ]]
  is_whole into/tree
}

@test "a deep tree is deleted" {
  deep tree
  limited delete -f tree
  [[ ! -e tree ]]
}

@test "a deep tree is trashed, listed, measured, restored and emptied" {
  deep tree
  limited trash -q tree
  [[ ! -e tree ]]
  [[ $(limited list) == *$'\t'7$'\ttree\t'"$PWD/tree" ]]
  limited restore -q tree
  is_whole tree
  limited trash -q tree
  limited empty -fq
  [[ -z $(ls -A "$HOME/.local/share/Trash/files") ]]
}

@test "a deep tree is measured" {
  deep tree
  expect "$(limited size tree)" $'7\ttree'
}

# A directory whose path is longer than 4,096 bytes, and its path.
make_long() {
  long=$(python3 -c 'import os
name = "x" * 200
for _ in range(25):
    os.mkdir(name)
    os.chdir(name)
open("file", "w").write("content")
os.mkdir("target")
print("/".join([name] * 25))')
}

@test "paths beyond 4,096 bytes: size, copy from there, trash, undo, delete" {
  make_long
  expect "$(tavro size "$long" | cut -f1)" 7
  tavro copy -q "$long/file" copied
  expect "$(cat copied)" content
  tavro trash -q "$long/file"
  [[ -z $(find . -name file) ]]
  expect "$(tavro list | cut -f2,3)" $'7\tfile'
  tavro undo -q
  expect "$(find . -name file | wc -l)" 1
  tavro delete -f "$long/file"
  [[ -z $(find . -name file) ]]
}
