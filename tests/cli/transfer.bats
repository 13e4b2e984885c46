#!/usr/bin/env bats

load helpers

@test "copy and move print what went where" {
  echo one >a
  mkdir d
  run -0 tavro copy a d
  expect "$output" "Copied $PWD/a -> $PWD/d/a"
  run -0 tavro move a b
  expect "$output" "Moved $PWD/a -> $PWD/b"
  expect "$(cat b d/a)" $'one\none'
  [ ! -e a ]
}

@test "a target directory that is missing is made" {
  touch a b
  run -0 tavro copy a b new/folder
  expect "$(ls new/folder)" $'a\nb'
}

@test "a copy is undone into the trash, and redone from it" {
  echo one >a
  tavro copy a b
  run -0 tavro undo
  [ ! -e b ]
  expect "$(ls "$HOME/.local/share/Trash/files")" b
  run -0 tavro redo
  expect "$(cat b)" one
}

@test "a move is undone and redone" {
  mkdir d
  echo one >d/a
  tavro move d e
  run -0 tavro undo
  expect "$(cat d/a)" one
  run -0 tavro redo
  expect "$(cat e/a)" one
}

@test "mkdir and rename are undone; a directory in use is not" {
  tavro mkdir x/y
  touch x/y/file
  run -1 --separate-stderr tavro undo
  [[ $stderr == *"'$PWD/x/y'"*'not empty'* ]]
  rm x/y/file
  run -0 tavro undo
  [ ! -e x ]
  touch a
  tavro rename a b
  run -0 tavro undo
  [ -f a ]
}

@test "history lists what was done, newest first" {
  touch a
  tavro mkdir d
  tavro copy a d
  run -0 tavro history
  [[ ${lines[0]} == *"  copy  $PWD/a -> $PWD/d/a" ]]
  [[ ${lines[1]} == *"  mkdir  $PWD/d  (cannot be undone: The directory '$PWD/d' is not empty)" ]]
  tavro undo
  run -0 tavro history
  [[ ${lines[0]} == *'(undone)' ]]
  run -0 tavro history --json
  [[ $output == *'"undone": true'* ]]
}

@test "what is in the way of an older undo can be dropped" {
  touch a
  tavro rename a b
  touch gone
  tavro trash gone
  touch gone
  run -1 tavro undo
  run -0 tavro history --drop
  expect "$output" "Removed from the history: trash
  $PWD/gone"
  run -0 tavro undo
  [ -f a ]
  run -1 --separate-stderr tavro history --drop
  expect "$stderr" 'tavro: Nothing to drop'
  run -2 tavro history --drop --json
}

@test "nothing to undo or redo is said" {
  run -1 --separate-stderr tavro undo
  expect "$stderr" 'tavro: Nothing to undo'
  run -1 --separate-stderr tavro redo
  expect "$stderr" 'tavro: Nothing to redo'
}

@test "without a terminal a conflict is skipped and said, and the exit code tells" {
  echo new >a
  mkdir d
  echo old >d/a
  touch b
  run -1 --separate-stderr tavro copy a b d
  expect "$stderr" "tavro: Skipped, because its destination exists: '$PWD/a'"
  expect "$(cat d/a)" old
  [ -f d/b ]
}

@test "conflicts are solved as the option says" {
  echo new >a
  echo old >b
  run -0 tavro copy a b --on-conflict skip
  expect "$(cat b)" old
  run -0 tavro copy a b --on-conflict keep-both
  expect "$output" "Copied $PWD/a -> $PWD/b copy 1"
  run -0 tavro copy a b --on-conflict overwrite
  expect "$(cat b 'b copy 1')" $'new\nnew'
  run -2 tavro copy a b --on-conflict perhaps
}

@test "what is replaced goes to the trash, and undo brings it back" {
  for act in copy move; do
    echo new >a
    echo old >b
    run -0 tavro "$act" a b --on-conflict overwrite
    expect "${#lines[@]}" 1
    expect "$(cat "$HOME/.local/share/Trash/files/b")" old
    run -0 tavro undo
    expect "$(cat a b)" $'new\nold'
    rm -r "$HOME/.local/share/Trash"
  done
}

@test "--no-keep deletes what is replaced and says so; undo takes the new entry away alone" {
  trash=$HOME/.local/share/Trash
  mkdir before
  tavro rename before after
  for act in copy move; do
    echo new >a
    echo old >b
    run -0 --separate-stderr tavro "$act" a b --no-keep --on-conflict overwrite
    expect "${lines[-1]}" 'What was replaced is deleted; this cannot be undone'
    expect "$(cat b)" new
    expect "$(find "$trash" -type f 2>/dev/null)" ''
    run -0 tavro undo
    [[ $act == move ]] && undone='Undone: move' || undone="Undid copy: moved $PWD/b to the trash (4 bytes)"
    expect "${lines[0]}" "$undone"
    expect "$(cat a)" new
    [ ! -e b ]
    [ -d after ]
    expect "$(find "$trash" -type f -exec grep -l old {} +)" ''
    run -0 tavro redo
    expect "$(cat b)" new
    run -0 tavro undo
    rm -rf "$trash"
  done
  expect "$(ls -A)" $'a\nafter'
}

@test "--no-keep says nothing with -q, and nothing where nothing was replaced" {
  touch a b c
  run -0 tavro copy a b --no-keep --on-conflict overwrite -q
  expect "$output" ''
  run -0 tavro copy a d --no-keep
  expect "$output" "Copied $PWD/a -> $PWD/d"
  run -0 tavro copy a b --no-keep --on-conflict skip
  expect "$output" "tavro: Skipped, because its destination exists: '$PWD/a'"
}

@test "a conflict is asked about on a terminal" {
  echo new >a
  echo old >b
  run -1 on_terminal "$TAVRO copy a b" q
  [[ $output == *"'b' already exists; 'a' cannot go there"* ]]
  expect "$(cat b)" old
  run -0 on_terminal "$TAVRO copy a b" b
  expect "$(cat 'b copy 1')" new
  run -0 on_terminal "$TAVRO copy a b" o
  expect "$(cat b)" new
}

@test "a file never replaces a directory without being asked, not even to overwrite" {
  mkdir -p d/a/kept
  touch a
  run -1 tavro copy a d --on-conflict overwrite
  [ -d d/a/kept ]
}

@test "directories merge" {
  mkdir -p a/sub d/a/sub
  echo 1 >a/sub/one
  echo 2 >d/a/sub/two
  run -0 tavro move a d
  expect "$(ls d/a/sub)" $'one\ntwo'
  [ ! -e a ]
  run -0 tavro undo
  expect "$(cat a/sub/one)" 1
}

@test "undoing a merge gives a directory back as private as it was" {
  mkdir -p s d/s
  chmod 700 s
  touch s/f
  tavro move s d
  run -0 tavro undo
  expect "$(stat -c %a s)" 700
  [ -f s/f ]
}

@test "a transfer does not overwrite what it has just put there" {
  mkdir a b d
  echo A >a/x
  echo B >b/x
  run -1 --separate-stderr tavro move a/x b/x d/ --on-conflict overwrite
  expect "$stderr" "tavro: Cannot replace '$PWD/d/x': this command has just put it there"
  expect "$(cat d/x b/x)" $'A\nB'
  run -0 tavro undo
  expect "$(cat a/x)" A
}

@test "a reader that goes away costs neither the work nor its undo" {
  mkdir s d
  touch s/{1..3000}
  run -0 bash -c '"$TAVRO" move s/* d | head -n 1'
  [ -z "$(ls s)" ]
  run -0 tavro undo -q
  [ "$(ls s | wc -l)" -eq 3000 ]
}

@test "a base directory that is relative is recorded all the same" {
  run -0 tavro mkdir --in rel/dir foo
  run -0 tavro undo
  [ ! -e rel ]
}

@test "an audio track is planned and then refused" {
  run -1 --separate-stderr tavro copy 'cdda:/Track 1.cdda' .
  expect "$stderr" "tavro: Cannot read audio CD track 'cdda:/Track 1.cdda': this build cannot read discs"
}

@test "one bad entry does not stop the others" {
  touch a c
  mkdir d
  command -v python3 >/dev/null || skip 'python3 is not installed'
  python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind("b")'
  run -1 --separate-stderr tavro copy a b c d
  [[ $stderr == *socket*"'$PWD/b'"* ]]
  expect "$(ls d)" $'a\nc'
}

@test "a dry run shows the plan and does nothing" {
  touch a
  run -0 tavro move a b -n
  expect "$output" "$PWD/a -> $PWD/b"
  [ -f a ]
  run -1 tavro undo
}

@test "progress is shown on a terminal only" {
  head -c 400000000 /dev/zero | tr '\0' x >big
  run -0 --separate-stderr tavro copy big copy
  expect "$stderr" ''
}


@test "a target that is made goes again with the undo, and a list tells of the entries alone" {
  touch a b
  tavro copy a b new/deep/
  run -0 tavro history
  [[ ${lines[0]} == *"  copy  $PWD/a -> $PWD/new/deep/a and 1 more" ]]
  run -0 tavro undo
  expect "$output" 'Undid copy: moved 2 entries to the trash (0 bytes)'
  [ ! -e new ]
  run -0 tavro history
  [[ ${lines[0]} == *"  copy  $PWD/a -> $PWD/new/deep/a and 1 more  (undone)" ]]
  run -0 tavro redo
  expect "$(ls new/deep)" $'a\nb'
}

# Gives an entry an extended attribute, or the access control list u::rw-,u:1:r--,g::r--,m::r--,o::---
give() { # attribute|list PATH
  python3 - "$1" "$2" <<'PYTHON'
import os, struct, sys
entries = [(1, 6, 0xFFFFFFFF), (2, 4, 1), (4, 4, 0xFFFFFFFF), (16, 4, 0xFFFFFFFF), (32, 0, 0xFFFFFFFF)]
acl = struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)
name, value = {"attribute": ("user.note", b"1"), "list": ("system.posix_acl_access", acl)}[sys.argv[1]]
os.setxattr(sys.argv[2], name, value)
PYTHON
}

@test "what a file system cannot hold is told once, with counts, and is no failure" {
  [ "$EUID" -eq 0 ] || skip 'only root can mount a file system without attributes'
  unshare -m true || skip 'no mount namespace may be made here'
  command -v python3 >/dev/null || skip 'python3 is not installed'
  mkdir d plain
  touch d/{1..3} a
  give list d/1 && give list d/2 && give list a && give attribute a ||
    skip 'the temporary directory holds no attributes'
  run -0 --separate-stderr unshare -m bash -c 'mount -t ramfs none plain && "$TAVRO" move -q d a plain/ &&
    ls -R plain && "$TAVRO" copy -q plain/d/3 plain/a . '
  expect "$stderr" 'tavro: Not copied: the access control lists of 3 entries, the extended attributes of 1 entry'
  expect "$output" $'plain:\na\nd\n\nplain/d:\n1\n2\n3'
  rm -r "$HOME/.local"
  touch b c
  give list b
  give attribute c
  run -0 --separate-stderr unshare -m bash -c 'mkdir -p "$HOME/.local" && mount -t ramfs none "$HOME/.local" &&
    "$TAVRO" trash b c'
  expect "${stderr_lines[-1]}" 'tavro: Not copied: the access control lists of 1 entry, the extended attributes of 1 entry'
}

@test "to quit at a question leaves what came before it done, and nothing hidden" {
  command -v python3 >/dev/null || skip 'python3 is not installed'
  mkdir src dst
  touch src/{a,b,c}
  echo old >dst/b
  run -1 timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" 'for all ' 'q\n' \
    "$TAVRO" copy src/{a,b,c} dst
  [[ $output == *"Stopped: what is listed is done, and nothing else"* ]]
  [[ $output == *"Copied src/a -> dst/a"* ]]
  expect "$(ls -A dst)" $'a\nb'
  expect "$(cat dst/b)" old
}

# What a directory has: mode, owner, group, when it was changed, and its extended attributes.
dress() { # DIRECTORY…
  stat -c '%n %a %u %g %y' "$@"
  python3 -c 'import os, sys
for path in sys.argv[1:]:
    print({name: os.getxattr(path, name) for name in sorted(os.listxattr(path))})' "$@"
}

@test "undo brings back the directories that a merging move has removed, with all that they had" {
  command -v python3 >/dev/null || skip 'python3 is not installed'
  for parent in . /dev/shm; do
    there=$(mktemp -d -p "$parent")
    mkdir -p d/{e,empty} "$there"/d/{e,empty}
    touch d/{f,e/g}
    give list d/e || skip 'the temporary directory holds no attributes'
    give attribute d
    chmod 2750 d
    [ "$EUID" -ne 0 ] || chown 12:34 d/e
    touch -d '2001-02-03 04:05:06.789' d d/e d/empty
    before=$(dress d d/e d/empty)
    run -0 tavro move -q d "$there"
    [ ! -e d ]
    run -0 tavro undo -q
    expect "$(dress d d/e d/empty)" "$before"
    run -0 tavro redo -q
    run -0 tavro undo -q
    expect "$(dress d d/e d/empty)" "$before"
    rm -r d "$there"
  done
}

@test "a move that merges nothing but empty directories can be undone and redone" {
  mkdir -p a/x/y b/a/x/y
  chmod 750 a/x
  chmod 700 a/x/y
  tavro move a b/
  [ ! -e a ]
  run -0 tavro history
  expect "${output#*  *  }" "move  $PWD/a/x/y and 2 more"
  run -0 tavro undo
  expect "$output" "Undone: move
  $PWD/a/x/y
  $PWD/a/x
  $PWD/a"
  expect "$(stat -c %a a/x a/x/y)" $'750\n700'
  tavro redo
  [ ! -e a ]
  expect "$(find b)" $'b\nb/a\nb/a/x\nb/a/x/y'
}

@test "keep-both duplicates an entry in its own directory" {
  mkdir d e
  echo one >a
  echo two >d/b
  echo three >e/c
  for target in . "$PWD" a ./a; do
    run -0 tavro copy --on-conflict keep-both a "$target"
    expect "$output" "Copied $PWD/a -> $PWD/a copy 1"
    expect "$(cat 'a copy 1')" one
    run -0 tavro undo -q
    [ ! -e 'a copy 1' ]
  done
  run -0 tavro copy --on-conflict keep-both a d e/c .
  expect "$output" "Copied $PWD/e/c -> $PWD/c
Copied $PWD/a -> $PWD/a copy 1
Copied $PWD/d -> $PWD/d copy 1"
  expect "$(cat 'd copy 1/b' c)" $'two\nthree'
  run -0 tavro copy --on-conflict keep-both d d
  [ -f 'd copy 2/b' ]
  run -1 tavro copy --on-conflict keep-both d d/
  run -1 tavro move --on-conflict keep-both a .
  run -1 tavro copy a .
}

@test "directories that were created for what failed do not stay" {
  needs_strace
  echo text >f
  for act in copy:openat move:renameat2; do
    run -1 strace -qq -o "$scratch/calls" -e "trace=${act#*:}" -P f -e "inject=${act#*:}:error=EIO" \
      "$TAVRO" "${act%:*}" f new/deep/
    [[ $output == *"tavro: Cannot "*"'$PWD/f'"* ]]
    [ ! -e new ]
  done
}
