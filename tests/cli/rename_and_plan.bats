#!/usr/bin/env bats

load helpers

@test "rename keeps a bare name beside the entry" {
  mkdir sub
  echo content >sub/a.txt
  run -0 tavro rename sub/a.txt b.txt
  expect "$output" "$PWD/sub/b.txt"
  expect "$(cat sub/b.txt)" content
}

@test "rename takes a path, relative to the entry, with missing parents" {
  touch a
  run -0 tavro rename a new/deep/b
  expect "$output" "$PWD/new/deep/b"
  [ -f new/deep/b ]
}

@test "rename never replaces: not a file, not a directory, not a dangling link" {
  echo mine >a
  echo other >b
  mkdir d
  ln -s nowhere dangling
  run -1 --separate-stderr tavro rename a b
  expect "$stderr" "tavro: '$PWD/b' already exists"
  run -1 --separate-stderr tavro rename a d
  expect "$stderr" "tavro: '$PWD/d' already exists, as a directory"
  run -1 --separate-stderr tavro rename a dangling
  expect "$stderr" "tavro: '$PWD/dangling' already exists, as a link to nothing"
  expect "$(cat a b)" $'mine\nother'
  [ -L dangling ]
}

@test "rename of a link renames the link and names it" {
  mkdir target
  ln -s target link
  run -0 tavro rename link other
  expect "$output" "$PWD/other"
  expect "$(readlink other)" target
}

@test "a target that cannot be examined is a clear message" {
  touch a
  name=$(printf 'x%.0s' {1..300})
  run -1 --separate-stderr tavro rename a "$name"
  expect "$stderr" "tavro: Cannot look at '$PWD/$name': File name too long"
  [ -f a ]
}

@test "rename of something that is not there names it" {
  run -1 --separate-stderr tavro rename nothing b
  expect "$stderr" "tavro: No such entry: 'nothing'"
}

@test "rename renames names of odd bytes" {
  name=$'a\nb\xff[1]'
  touch "$name"
  run -0 tavro rename "$name" "$name 2"
  [ -f "$name 2" ]
}

@test "plan prints each source and destination and touches nothing" {
  touch a 'b c'
  mkdir d
  run -0 tavro plan copy a 'b c' d
  expect "$output" "$PWD/a -> $PWD/d/a
$PWD/b c -> $PWD/d/b c"
  run -0 tavro plan move a renamed
  expect "$output" "$PWD/a -> $PWD/renamed"
  [ -z "$(ls -A d)" ]
  [ ! -e renamed ]
}

@test "plan and a dry run mark what is there already" {
  touch a b
  mkdir d
  touch d/a
  ln -s nowhere d/b
  for command in 'plan copy' 'copy -n' 'move -n'; do
    # shellcheck disable=SC2086 # several words
    run -0 tavro $command a b d
    expect "$output" "$PWD/a -> $PWD/d/a (exists)
$PWD/b -> $PWD/d/b (exists)"
  done
  run -0 tavro copy -n a new
  expect "$output" "$PWD/a -> $PWD/new"
}

@test "plan as JSON has each path to read and exact to the byte" {
  command -v python3 >/dev/null || skip 'python3 is not installed'
  touch $'\xff z'
  run -0 tavro plan move $'\xff z' new --json
  expect "$(jq_like '.move')" True
  expect "$(jq_like '.items[0].sourceUri')" "file://$PWD/%FF%20z"
  expect "$(jq_like '.items[0].destinationPath')" "$PWD/new"
}

# A value of the JSON in $output.
jq_like() {
  python3 -c '
import json, re, sys
value = json.loads(sys.argv[1])
for key, index in re.findall(r"\.(\w+)|\[(\d+)\]", sys.argv[2]):
    value = value[key] if key else value[int(index)]
print(value)' "$output" "$1"
}

@test "what cannot be planned is said with the path" {
  touch a b file
  mkdir d
  run -1 --separate-stderr tavro plan copy a b file
  expect "$stderr" "tavro: 'file' is not a directory, and several entries are to go there"
  run -1 --separate-stderr tavro plan move a .
  expect "$stderr" "tavro: The source and the target are the same: 'a'"
  run -1 --separate-stderr tavro plan move d d/sub
  expect "$stderr" "tavro: Cannot move the directory 'd' into itself"
  run -1 --separate-stderr tavro plan move cdda:/1.cdda d
  expect "$stderr" 'tavro: Audio CD tracks can be copied, but not moved'
  long=$(printf %0300d 0)
  run -1 --separate-stderr tavro plan copy a "$long/x"
  expect "$stderr" "tavro: Cannot look at '$PWD/$long/x': File name too long"
  run -1 --separate-stderr tavro plan copy a ' '
  expect "$stderr" 'tavro: No target was given'
  run -1 --separate-stderr tavro plan copy missing d
  expect "$stderr" "tavro: No such entry: 'missing'"
}

@test "plan takes names that look like lists or commands" {
  touch '[a,b]' '{}' undo '%%'
  mkdir d
  run -0 tavro plan copy '[a,b]' '{}' undo '%%' d
  expect "${#lines[@]}" 4
  expect "${lines[0]}" "$PWD/[a,b] -> $PWD/d/[a,b]"
  expect "${lines[2]}" "$PWD/undo -> $PWD/d/undo"
}

@test "plan needs a verb and two names" {
  touch a
  run -2 tavro plan
  run -2 tavro plan copy a
  run -2 tavro plan shuffle a b
}
