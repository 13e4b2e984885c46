#!/usr/bin/env bats

load helpers

trash=.local/share/Trash

@test "trash says where each entry went, undo brings them back, redo takes them again" {
  echo one >a
  mkdir d
  echo two >d/b
  run -0 tavro trash a d
  expect "$output" "$PWD/a -> $HOME/$trash/files/a
$PWD/d -> $HOME/$trash/files/d"
  [ -z "$(ls)" ]
  [ -f "$HOME/$trash/info/d.trashinfo" ]
  run -0 tavro undo
  expect "${lines[0]}" 'Undone: trash'
  expect "$(cat a d/b)" $'one\ntwo'
  run -0 tavro redo
  expect "${lines[0]}" 'Redone: trash'
  [ -z "$(ls)" ]
  run -0 tavro undo
  expect "$(cat a d/b)" $'one\ntwo'
  [ -z "$(ls "$HOME/$trash/info")" ]
}

@test "the trash of a first use is private" {
  umask 000
  touch a
  run -0 tavro trash a
  expect "$(stat -c %a "$HOME/$trash" "$HOME/$trash/files" "$HOME/$trash/info")" $'700\n700\n700'
}

@test "trash is all or nothing" {
  touch a b
  run -1 --separate-stderr tavro trash a missing b
  expect "$stderr" "tavro: No such entry: 'missing'"
  expect "$(ls)" $'a\nb'
  [ ! -e "$HOME/$trash/files/a" ]
}

@test "trash refuses the home directory, the trash and the root" {
  touch a
  tavro trash a
  for path in "$HOME" "$HOME/.local" "$HOME/$trash" "$HOME/$trash/files" "$HOME/$trash/info"; do
    run -1 --separate-stderr tavro trash "$path"
    [[ $stderr == "tavro: "*"'$path'"* ]] || expect "$stderr" "a sentence about $path"
  done
  # The empty trash of a scratch home stands in for /: a broken check must have nothing to lose.
  run -1 tavro trash "$scratch"
  [ -f "$HOME/$trash/files/a" ]
}

@test "links are trashed and restored as links" {
  mkdir d
  touch d/kept
  ln -s d link
  ln -s nowhere dangling
  run -0 tavro trash link dangling
  expect "$(readlink "$HOME/$trash/files/link")" d
  run -0 tavro undo
  expect "$(readlink link) $(readlink dangling)" 'd nowhere'
  [ -f d/kept ]
}

@test "every odd name goes to the trash and comes back" {
  names=('[a,b]' '{}' $'new\nline' $'\xff\xfe' 'a b' '%41' undo ' ' "$(printf 'é%.0s' {1..127})")
  touch -- "${names[@]}"
  before=$(find . -print0 | sort -z | od -c)
  run -0 tavro trash -- "${names[@]}"
  [ -z "$(ls -A)" ]
  run -0 tavro undo
  expect "$(find . -print0 | sort -z | od -c)" "$before"
}

@test "list shows name, origin, date and size, newest first" {
  printf '12345' >old
  touch new
  tavro trash old
  printf '[Trash Info]\nPath=%s\nDeletionDate=2001-02-03T04:05:06\n' "$PWD/old" \
    >"$HOME/$trash/info/old.trashinfo"
  tavro trash new
  run -0 tavro list
  [[ ${lines[0]} == *$'\t0\tnew\t'"$PWD/new" ]]
  expect "${lines[1]}" $'2001-02-03T04:05:06\t5\told\t'"$PWD/old"
  run -0 bash -c '"$TAVRO" list -0 | tr "\0" "\n"'
  expect "$output" $'new\nold'
  run -0 tavro list --json
  [[ $output == *"\"originalUri\": \"file://$PWD/old\""* ]]
  run -0 on_terminal "$TAVRO list"
  expect "${lines[1]}" "2001-02-03  5 bytes  old  from old"
}

@test "list of a trash that was never used is empty" {
  run -0 tavro list
  expect "$output" ''
  run -0 tavro list --json
  expect "$output" '[]'
}

@test "restore takes a name in the trash or an original path" {
  echo one >a
  echo two >b
  tavro trash a b
  run -0 tavro restore a
  expect "$output" "$HOME/$trash/files/a -> $PWD/a"
  run -0 tavro restore "$PWD/b"
  expect "$(cat a b)" $'one\ntwo'
  run -1 --separate-stderr tavro restore a
  [[ $stderr == "tavro: "*"'a'"* ]]
}

@test "restore takes a name or a path with the slash that a shell adds to a directory" {
  mkdir d e other
  "$TAVRO" trash d e
  cd other
  run -0 tavro restore d/ "$scratch/here/e//"
  [[ -d ../d && -d ../e ]]
  run -1 tavro restore ''
  run -1 tavro restore /
}

@test "restore refuses an occupied place and offers a free name" {
  echo old >a
  tavro trash a
  echo new >a
  run -1 --separate-stderr tavro restore a
  expect "$stderr" "tavro: Something is at '$PWD/a': with --keep-both it would be restored as '$PWD/a copy 1'"
  run -0 on_terminal "$TAVRO restore a" y
  expect "$(cat a 'a copy 1')" $'new\nold'
}

@test "restore --keep-both does not ask" {
  echo old >a
  tavro trash a
  ln -s nowhere a
  run -0 tavro restore --keep-both a
  expect "$(cat 'a copy 1')" old
  [ -L a ]
}

@test "empty asks, refuses without a terminal, and can be limited to what is old" {
  touch old new
  tavro trash old new
  printf '[Trash Info]\nPath=%s\nDeletionDate=2001-02-03T04:05:06\n' "$PWD/old" \
    >"$HOME/$trash/info/old.trashinfo"
  run -2 --separate-stderr tavro empty
  expect "$stderr" 'tavro: Refusing to empty the trash without asking: use -f, or a terminal'
  run -1 on_terminal "$TAVRO empty" n
  [ -f "$HOME/$trash/files/old" ]
  run -0 tavro empty --older-than 30 -f
  expect "$output" 'Deleted 1 item (0 bytes)'
  expect "$(ls "$HOME/$trash/files")" new
  run -0 on_terminal "$TAVRO empty" y
  [ -z "$(ls "$HOME/$trash/files")$(ls "$HOME/$trash/info")" ]
  run -2 tavro empty --older-than many
}

@test "empty of an empty trash says that there is nothing, and is done" {
  run -0 --separate-stderr tavro empty -f
  expect "$output$stderr" 'The trash is empty'
  run -0 tavro empty
  expect "$output" 'The trash is empty'
  run -0 tavro empty -f --older-than 30
  expect "$output" 'The trash is empty'
  run -0 tavro empty -fq
  expect "$output" ''
  touch a
  tavro trash a
  run -0 tavro empty -f --older-than 30
  expect "$output" 'Deleted 0 items (0 bytes)'
  rm "$HOME/$trash/info/a.trashinfo"
  run -0 tavro empty -f
  [[ $output != *empty* ]]
}

@test "an empty trash and an empty history say so to a person alone" {
  run -0 on_terminal "$TAVRO list"
  expect "$output" 'The trash is empty'
  run -0 on_terminal "$TAVRO history"
  expect "$output" 'The history is empty: there is nothing to undo'
  run -0 on_terminal "$TAVRO list -0"
  expect "$output" ''
  run -0 on_terminal "$TAVRO list --json"
  expect "$output" '[]'
  run -0 on_terminal "$TAVRO history --json"
  expect "$output" '[]'
  expect "$(tavro list)$(tavro history)" ''
  touch a
  tavro trash a
  rm "$HOME/$trash/info/a.trashinfo"
  run -0 on_terminal "$TAVRO list"
  [[ $output != *empty* ]]
}

@test "list and empty tell how much has no record" {
  touch a b c
  tavro trash a b c
  rm "$HOME/$trash/info/a.trashinfo"
  note="tavro: 1 item in the trash has no readable record; run 'tavro doctor'"
  run -0 --separate-stderr tavro list -0
  expect "$stderr" "$note"
  rm "$HOME/$trash/info/b.trashinfo"
  run -0 --separate-stderr tavro empty -f
  expect "$output" 'Deleted 1 item (0 bytes)'
  expect "$stderr" "${note/1 item in the trash has/2 items in the trash have}"
  [ -f "$HOME/$trash/files/a" ]
  run -0 --separate-stderr tavro empty -f -q
  expect "$output$stderr" ''
}

@test "doctor reports, and mends what it is told to" {
  touch a b
  tavro trash a b
  run -0 tavro doctor
  expect "$output" 'The trash is in order'
  rm "$HOME/$trash/info/a.trashinfo"
  rm "$HOME/$trash/files/b"
  run -1 tavro doctor
  expect "$output" "'$HOME/$trash/files/a' has no record of where it came from; --mend takes 'a'
'$HOME/$trash/info/b.trashinfo' is the record of an entry that is not in the trash; --mend takes 'b.trashinfo'"
  run -1 on_terminal "$TAVRO doctor"
  expect "${lines[2]}" "'tavro doctor --mend-all' mends all that was found"
  [ ! -e "$HOME/$trash/info/a.trashinfo" ]
  run -1 tavro doctor --mend a
  [ -f "$HOME/$trash/info/a.trashinfo" ]
  [ -f "$HOME/$trash/info/b.trashinfo" ]
  run -1 --separate-stderr tavro doctor --mend nobody
  expect "$stderr" "tavro: There is no finding named 'nobody'"
  run -0 tavro doctor --mend-all
  [ ! -e "$HOME/$trash/info/b.trashinfo" ]
  run -0 tavro doctor
}

@test "without HOME the trash is unavailable, and nothing moves" {
  touch a
  run -1 --separate-stderr env -u HOME "$TAVRO" trash a
  [[ $stderr == *HOME* ]]
  [ -f a ]
}

@test "trash from another file system says so, with the size" {
  other=$(mktemp -d -p /dev/shm)
  if [ "$(stat -c %d "$other")" = "$(stat -c %d "$HOME")" ]; then
    rmdir "$other"
    skip '/dev/shm and the temporary directory are one file system'
  fi
  head -c 1500 /dev/zero >"$other/a"
  run -0 --separate-stderr tavro trash "$other/a"
  expect "$stderr" 'tavro: 1 entry on another file system will be copied to the trash (1.5 kB)'
  [ ! -e "$other/a" ]
  run -0 tavro undo
  expect "$(wc -c <"$other/a")" 1500
  rm -r "$other"
}

@test "quiet commands print nothing" {
  touch a
  run -0 tavro trash -q a
  expect "$output" ''
  run -0 tavro undo -q
  expect "$output" ''
}

@test "restore looks names up, and lists the trash once at most" {
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
  mkdir d
  (cd d && touch {1..40})
  tavro trash -q d/*
  ASAN_OPTIONS=detect_leaks=0 strace -qq -e trace=getdents64 -o "$scratch/calls" "$TAVRO" restore -q {1..20}
  expect "$(ls d | wc -l)" 20
  expect "$(grep -c getdents64 "$scratch/calls")" 0
  ASAN_OPTIONS=detect_leaks=0 strace -qq -y -e trace=getdents64 -o "$scratch/calls" "$TAVRO" restore -q "$PWD"/d/{21..40}
  expect "$(ls d | wc -l)" 40
  expect "$(grep -c 'Trash/info.* 0$\|Trash/info.*= 0' "$scratch/calls")" 1
}

@test "naming entries to trash asks for the current directory once, and looks at none" {
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
  touch {1..50}
  ASAN_OPTIONS=detect_leaks=0 strace -qq -e trace=getcwd -o "$scratch/calls" "$TAVRO" trash -q {1..50}
  [ "$(wc -l <"$scratch/calls")" -le 5 ]
}

@test "several items of one name are restored beside each other" {
  for i in {1..30}; do
    echo "$i" >a.txt
    tavro trash -q a.txt
  done
  tavro list -0 | xargs -0 "$TAVRO" restore -q --keep-both --
  expect "$(cat a.txt a\ copy\ *.txt | sort -n)" "$(seq 30)"
  [ -f 'a copy 29.txt' ]
}

@test "what trashed directories take on the disk is remembered when they are listed, and forgotten" {
  local cache=$HOME/.local/share/Trash/directorysizes line
  mkdir 'd e'
  head -c 30000 /dev/zero >'d e/f'
  touch a
  tavro trash -q 'd e' a
  [ ! -e "$cache" ]
  tavro list >"$scratch/listed"
  line="$(du -s -B1 "$HOME/.local/share/Trash/files/d e" | cut -f 1) $(stat -c %Y "$HOME/.local/share/Trash/info/d e.trashinfo") d%20e"
  expect "$(<"$cache")" "$line"
  tavro list | cmp - "$scratch/listed"
  tavro restore -q a
  expect "$(<"$cache")" "$line"
  tavro restore -q 'd e'
  [ ! -e "$cache" ]
}

@test "a trash that cannot be created takes nothing, and is named" {
  mkdir -p "$HOME/.local/share"
  touch a "$HOME/.local/share/Trash"
  run -1 --separate-stderr tavro trash a
  [[ $stderr == *"'$HOME/.local/share/Trash"* ]]
  [ -f a ]
  mkdir to && echo 1 >to/a
  run -1 --separate-stderr tavro copy --on-conflict overwrite a to
  [[ $stderr == *"'$HOME/.local/share/Trash"* ]]
  expect "$(<to/a)" 1
}

@test "a relative HOME is no home directory" {
  touch a
  HOME=home run -1 --separate-stderr tavro trash --no-history a
  expect "$stderr" 'tavro: There is no trash: HOME is not set to an absolute path'
  HOME=. XDG_DATA_HOME=. run -1 --separate-stderr tavro list
  expect "$stderr" 'tavro: There is no trash: HOME is not set to an absolute path'
  expect "$(ls -A)" a
}
