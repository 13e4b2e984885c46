#!/usr/bin/env bats
# What a person sees: the screen of a terminal after a command, in windows of several widths.

load helpers

widths='20 40 80 200'

# The lines on a screen of so many columns, when the command has ended; see screen.py.
screen() { # COLUMNS [TEXT KEYS]… -- COMMAND…
  local python
  for python in python3 /usr/bin/python3; do
    if "$python" -c 'import pyte' 2>/dev/null; then
      TERM=xterm timeout 60 "$python" -B "$BATS_TEST_DIRNAME/screen.py" "$@"
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

@test "many entries are summed up, a few are named, and -v names all" {
  mkdir from to
  for i in {1..60}; do
    head -c 3000000 /dev/zero >"from/$i"
  done
  for columns in $widths; do
    rm -r to && mkdir to
    run -0 screen "$columns" -- "$TAVRO" copy --no-sync from/* to
    expect "$(tr -d '\n' <<<"${output% in * s}")" "$(wrapped "$columns" 'Copied 60 files (180 MB)' | tr -d '\n')"
  done
  run -0 screen 80 -- "$TAVRO" copy --on-conflict skip from/* to
  expect "$output" "tavro: Skipped 60 entries whose destinations exist: 'from/1' and 59 more"
  run -0 tavro copy --on-conflict overwrite from/* to
  expect "${#lines[@]}" 60
  tavro empty -fq
  mkdir from/sub
  run -0 screen 80 -- "$TAVRO" trash from/*
  expect "$output" 'Moved 61 entries to the trash'
  run -0 screen 80 -- "$TAVRO" undo
  expect "$output" 'Undone: trash
  from/1 and 60 more'
  mkdir few
  touch few/{1..15}
  tavro trash -q few/*
  run -0 screen 80 -- "$TAVRO" undo -v
  expect "${lines[0]} ${#lines[@]}" 'Undone: trash 16'
  run -0 screen 80 -- "$TAVRO" redo -v
  expect "${lines[0]} ${#lines[@]}" 'Redone: trash 16'
  tavro undo -q
  run -0 screen 80 -- "$TAVRO" trash from/{1..10}
  expect "${lines[9]}" 'from/10 -> ~/.local/share/Trash/files/10'
  run -0 screen 80 -- "$TAVRO" trash -v from/{11..25}
  expect "${lines[14]}" 'from/25 -> ~/.local/share/Trash/files/25'
  run -0 screen 80 -- bash -c '"$TAVRO" list -0 | xargs -0 "$TAVRO" restore --'
  expect "$output" 'Restored 25 entries'
  run -0 screen 80 -- "$TAVRO" move from/* to/new/
  expect "$output" 'Moved 61 entries'
}

# Makes a record say that its item was trashed at that time.
trashed_at() { # NAME DATE
  printf '[Trash Info]\nPath=%s\nDeletionDate=%s\n' "$PWD/$1" "$(date -d "$2" +%Y-%m-%dT%H:%M:%S)" \
    >"$HOME/.local/share/Trash/info/$1.trashinfo"
}

@test "the trash and the history are columns with the time that has passed" {
  head -c 1234567 /dev/zero >'世界 tour'
  mkdir d
  touch small
  tavro trash -q d small '世界 tour'
  trashed_at small '2 minutes ago'
  trashed_at d '75 hours ago'
  trashed_at '世界 tour' '2001-02-03 04:05:06'
  list='2 min ago   0 bytes  small      from small
3 days ago  0 bytes  d          from d
2001-02-03   1.2 MB  世界 tour  from 世界 tour
3 items (1.2 MB)'
  for columns in 80 200; do
    run -0 screen "$columns" -- "$TAVRO" list
    expect "$output" "$list"
  done
  run -0 screen 20 -- "$TAVRO" list
  expect "${lines[0]}" '2 min ago   0 bytes'
  run -0 screen 40 -- "$TAVRO" list
  expect "${lines[0]}" '2 min ago   0 bytes  small      from sma'
  touch a
  tavro rename -- a b
  tavro copy b c
  tavro undo -q
  shows '3  just now  copy    b -> c  (undone)
2  just now  rename  a -> b
1  just now  trash   d and 2 more' "$TAVRO" history
}

@test "colours are for terminals that have some, and as --color says" {
  mkdir d
  tavro trash -q d
  has() { # COMMAND… : with escapes or without
    run -0 on_terminal "$*"
    [[ $output == *$'\e['* ]] && echo colour || echo none
  }
  for command in list history; do
    expect "$(TERM=xterm has "$TAVRO $command")" colour
    expect "$(TERM=xterm NO_COLOR=1 has "$TAVRO $command")" none
    expect "$(TERM=dumb has "$TAVRO $command")" none
    expect "$(TERM=xterm has "$TAVRO $command --color=never")" none
    expect "$(TERM=dumb has "$TAVRO $command --color always")" colour
    run -0 tavro "$command"
    [[ $output != *$'\e['* ]]
    run -0 tavro "$command" --color=always
    [[ $output == *$'\e[2m'*$'\e[0m'* ]]
    run -2 --separate-stderr tavro "$command" --color=perhaps
    expect "${stderr_lines[0]}" "tavro: --color takes auto, always or never, not 'perhaps'"
  done
}

@test "an empty trash and an empty history say so in a window of any width" {
  shows 'The trash is empty' "$TAVRO" list
  shows 'The history is empty: there is nothing to undo' "$TAVRO" history
}

# Copies a file of this name so slowly that progress is shown, and looks at the screen then.
slow_copy() { # COLUMNS NAME [TEXT KEYS]…
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
  [ -e "$2" ] || head -c 200000000 /dev/zero | tr "\0" x >"$2"
  run screen "$1" "${@:3}" ' left' '' $'\e[K' look -- env --default-signal=INT \
    ASAN_OPTIONS=detect_leaks=0 strace -qq -o "$scratch/calls" -e trace=copy_file_range,pwrite64 \
    -e inject=copy_file_range,pwrite64:delay_enter=40000 "$TAVRO" copy "$2" copied
  [ "$status" -eq 130 ]
}

@test "progress is one line that the window holds, with name, rate and time left" {
  local number='[0-9]+(\.[0-9])?' shown='é世界界界界界界界界界界界界界界界界界界 in the evening.mkv'
  local name=${shown/é/$'e\u0301'} # a combining accent, which the screen joins
  local left='[0-9]+:[0-9]{2} left' rate="$number [kM]B/s"
  local middle="^[0-9]+ %  $rate  $left  é世界+…$"
  matches() {
    [[ $output =~ $1 ]] || expect "$output" "$1"
  }
  slow_copy 20 "$name"
  matches "^[0-9]+ %  $left$"
  slow_copy 40 "$name"
  matches "$middle"
  slow_copy 80 "$name"
  matches "^\[#*-*\]  [0-9]+ %  $number [kM]B of 200 MB  $rate  $left  é世界+…$"
  slow_copy 200 "$name"
  [[ $output == *" left  $shown" ]] || expect "$output" 'the whole name'
  slow_copy 200 "$name" ' left' 40
  matches "$middle"
}

# Lets a file be in the way of another, which is three days newer.
conflict() {
  mkdir -p d
  head -c 1234567 /dev/zero >d/a
  echo new >a
  touch -d '2001-02-03' d/a
  touch -d '75 hours ago' a
}

question="'d/a' already exists; 'a' cannot go there
  there  1.2 MB     2001-02-03
  new    4 bytes    3 days ago  newer
[o]verwrite, overwrite if [n]ewer, [s]kip, keep [b]oth as 'a copy 1', [r]ename, [q]uit; a capital letter answers for all"

@test "a question about a conflict shows both sides, and the name that a copy would get" {
  conflict
  for columns in $widths; do
    run -1 screen "$columns" 'all ' 'q\n' -- "$TAVRO" copy a d
    expect "$(tr -d ' \n' <<<"$output")" "$(tr -d ' \n' <<<"$question q
tavro: Stopped: nothing was done")"
    [ "$columns" -lt 200 ] || expect "${output%%$' q\n'*}" "$question"
  done
}

@test "each answer to a conflict does what it says" {
  conflict
  run -0 screen 200 'all ' 'b\n' -- "$TAVRO" copy a d
  expect "${lines[-1]}" 'Copied a -> d/a copy 1'
  run -0 screen 200 'all ' 'x\n' 'all ' 'R\n' 'all ' 's\n' -- "$TAVRO" copy a d
  expect "${lines[4]}" "tavro: Type one of the letters in brackets, not 'x'"
  expect "${lines[6]}" "tavro: Type one of the letters in brackets, not 'R'"
  expect "${lines[-1]}" "tavro: Skipped, because its destination exists: 'a'"
  run -0 screen 200 'all ' 'r\n' 'name: ' 'x/y\n' 'name: ' '\n' 'all ' 'r\n' 'name: ' 'a copy 1\n' \
    'all ' 'r\n' 'name: ' 'fresh\n' -- "$TAVRO" copy a d
  expect "${lines[5]}" "tavro: Type a name, not a path: 'x/y'"
  [[ $output == *"'d/a copy 1' already exists; 'a' cannot go there"* ]]
  expect "${lines[-1]}" 'Copied a -> d/fresh'
  expect "$(cat d/fresh)" new
  run -0 screen 200 'all ' 'n\n' -- "$TAVRO" move a d
  expect "$(cat d/a)" new
  tavro undo -q
  touch -d '1999-01-01' a
  run -0 screen 200 'all ' 'n\n' -- "$TAVRO" move a d
  expect "${lines[-1]}" "tavro: Skipped, because its destination exists: 'a'"
  run -0 screen 200 'all ' 'o\n' -- "$TAVRO" move a d
  expect "$(cat d/a)" new
}

@test "conflicts can be left to the end, where they are asked about; it is one operation" {
  conflict
  mkdir tree d/tree
  echo 1 | tee b >tree/x
  echo 2 >d/tree/x
  later="[r]ename, ask [l]ater, [q]uit; a capital letter answers for all"
  run -0 screen 200 'all ' 'l\n' 'all ' 'l\n' 'all ' 'l\n' 'all ' 'o\n' 'all ' 's\n' -- "$TAVRO" copy a tree b d
  expect "$(grep -c 'cannot go there' <<<"$output")" 4
  [[ ${lines[3]} == *", $later l" && ${lines[7]} == *", $later l" ]]
  [[ ${lines[11]} == *", [r]ename, [q]uit; a capital letter answers for all l" ]]
  expect "${lines[12]}" "tavro: Type one of the letters in brackets, not 'l'"
  expect "${output##*for all s$'\n'}" "tavro: Skipped, because its destination exists: 'tree/x'
Copied b -> d/b
Copied a -> d/a"
  expect "$(cat d/a d/tree/x)" $'new\n2'
  tavro undo -q
  expect "$(ls d) $(stat -c %s d/a)" $'a\ntree 1234567'
  run -0 screen 200 'all ' 'L\n' 'all ' 'O\n' -- "$TAVRO" move a tree b d
  expect "$(grep -c 'cannot go there' <<<"$output")" 2
  expect "$(cat d/a d/tree/x; ls)" $'new\n1\nd'
  tavro undo -q
  run -130 screen 200 'all ' 'L\n' 'all ' '\x03' -- env --default-signal=INT "$TAVRO" move a tree b d
  expect "${lines[-1]}" 'tavro: Interrupted: everything is as it was'
  expect "$(ls; ls d)" $'a\nb\nd\ntree\na\ntree'
}

@test "a capital letter answers for all" {
  mkdir d
  for name in a b c; do
    echo new >$name
    echo old >d/$name
  done
  touch -d '2001-02-03' b
  touch -d '2002-02-03' d/{a,b,c}
  run -0 screen 200 'all ' 'N\n' -- "$TAVRO" copy a b c d
  expect "$(cat d/a d/b d/c)" $'new\nold\nnew'
  for name in a b c; do
    mkdir "of $name"
    echo "$name" >"of $name/a"
  done
  run -0 screen 200 'all ' 'b\n' 'all ' 'b\n' 'all ' 'b\n' -- "$TAVRO" copy 'of a/a' 'of b/a' 'of c/a' d
  [[ $output == *"keep [b]oth as 'a copy 3'"*'Copied of c/a -> d/a copy 3' ]]
  run -0 screen 200 'all ' 'B\n' -- "$TAVRO" copy 'of a/a' 'of b/a' d
  [[ $output == *'Copied of b/a -> d/a copy 5' ]]
}

@test "--on-conflict newer overwrites what is older, and leaves the rest" {
  conflict
  echo old >b
  echo newer >d/b
  touch -d '2001-02-03' b
  mkdir -p c d/c2 c2
  touch c/in d/c c2/in
  run -0 tavro copy --on-conflict newer a b d
  expect "$output" "tavro: Skipped, because its destination exists: '$PWD/b'
Copied $PWD/a -> $PWD/d/a"
  expect "$(cat d/a d/b)" $'new\nnewer'
  run -1 tavro copy --on-conflict newer c c2 d
  expect "$output" "tavro: Skipped, because its destination exists: '$PWD/c'
Copied $PWD/c2/in -> $PWD/d/c2/in"
}

# Expects a question, which wraps as any text, and what follows when it is answered by no.
asks() { # TEXT COMMAND…
  local columns
  for columns in $widths; do
    run -1 screen "$columns" '[y/N] ' 'n\n' -- "${@:2}"
    expect "$(tr -d ' \n' <<<"$output")" "$(tr -d ' \n' <<<"$1")"
  done
}

@test "questions name what they are about, and a no says that nothing was done" {
  mkdir -p d/e
  echo one >d/a
  echo two >"$HOME/b"
  asks 'd
~/b
Delete 2 files and 2 directories (8 bytes) for good? [y/N] n
tavro: Nothing was deleted' "$TAVRO" delete d "$HOME/b"
  tavro trash -q d/a
  asks 'Delete 1 item (4 bytes) in the trash for good? [y/N] n
tavro: Nothing was deleted' "$TAVRO" empty
  echo new >d/a
  asks "Something is at 'd/a'. Restore as 'd/a copy 1'? [y/N] n
tavro: Nothing was restored to 'd/a'" "$TAVRO" restore a
}

@test "what was done is shown in a window of any width" {
  shows 'a' "$TAVRO" mkdir a
  shows 'a -> ~/.local/share/Trash/files/a
~/.local/share/Trash/files/a -> a' bash -c '"$TAVRO" trash a && "$TAVRO" restore a'
  shows 'b
Undone: rename
  a -> b' bash -c '"$TAVRO" rename a b && "$TAVRO" undo'
  echo 1 >c
  shows 'Copied c -> a/c
Undid copy: moved a/c to the trash (2 bytes)' bash -c '"$TAVRO" copy c a && "$TAVRO" undo'
  shows 'Moved c -> a/c
Undone: move
  c -> a/c' bash -c '"$TAVRO" move c a && "$TAVRO" undo'
  mkdir -p tree/below
  echo 12345 | tee tree/f >tree/below/g
  shows 'Copied tree -> a/tree, 3 entries (12 bytes)
Undid copy: moved a/tree to the trash (12 bytes)' bash -c '"$TAVRO" copy tree a && "$TAVRO" undo'
  shows 'Moved tree -> a/tree, 3 entries (12 bytes)
Undone: move
  tree -> a/tree' bash -c '"$TAVRO" move tree a && "$TAVRO" undo'
  shows '2 bytes  c' "$TAVRO" size "$PWD/c"
  shows "tavro: No such entry: 'none'" bash -c '! "$TAVRO" trash none'
  tavro trash -q c
  rm "$HOME/.local/share/Trash/info/c.trashinfo"
  run -1 screen 200 -- "$TAVRO" doctor
  expect "${lines[0]}" "'~/.local/share/Trash/files/c' has no record of where it came from; --mend takes 'c'"
}
