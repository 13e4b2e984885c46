#!/usr/bin/env bats
# `tavro trash` with the options of `rm`, as people and scripts type them.

load helpers

trash=.local/share/Trash

@test "rm's letters are taken, alone and together" {
  local options
  mkdir d
  for options in -r -R -d -rf -fr -Rf -rdf -rv -rfv --recursive --dir --force --verbose '-r -f' '-f -f' \
    --interactive=never; do
    mkdir -p d/e
    # shellcheck disable=SC2086 # several
    run -0 --separate-stderr tavro trash $options d/e
    [ ! -e d/e ]
    expect "$stderr" ''
  done
}

@test "with -f what does not exist is no error, and nothing is asked or listed" {
  touch a file
  run -0 --separate-stderr tavro trash -f missing a file/below missing/below ''
  expect "$output$stderr" ''
  expect "$(ls)" file
  run -0 --separate-stderr tavro trash -rf
  expect "$output$stderr" ''
  run -0 tavro trash -rf missing
  run -0 on_terminal "$TAVRO trash -rf missing file" n
  expect "$output" ''
  expect "$(ls)" ''
  tavro undo -q
  expect "$(ls)" file
}

@test "without -f what does not exist is an error, and -f hides no other one" {
  touch a
  run -1 --separate-stderr tavro trash -r a missing
  expect "$stderr" "tavro: No such entry: 'missing'"
  run -2 --separate-stderr tavro trash -r
  expect "${stderr_lines[0]}" "tavro: 'tavro trash' needs an entry to trash"
  run -1 --separate-stderr tavro trash -rf missing a "$HOME"
  [[ $stderr == "tavro: Cannot move '$HOME' to the trash: "* ]] || expect "$stderr" 'a refusal'
  expect "$(ls)" a
}

@test "what -f lists nothing of, -v lists, and so it does with -q" {
  local options
  for options in -fv -vf -qv -v; do
    touch a
    tavro empty -fq
    run -0 tavro trash "$options" a
    expect "$output" "$PWD/a -> $HOME/$trash/files/a"
  done
}

# Answers n, y, y … to whatever is asked.
answered() { # COMMAND
  printf 'n\ny\ny\ny\n' | script --quiet --return --echo never --command "$1" /dev/null | tr -d '\r'
}

@test "what ends in . or .. is refused before anything begins, also with -f" {
  local ending
  mkdir -p d/e
  touch a
  for ending in . .. ./ d/. d/.. d/e/../ d/e/..// "$PWD/d/."; do
    for options in -r -rf; do
      run -1 --separate-stderr tavro trash $options a "$ending"
      expect "$stderr$output" "tavro: Cannot move '$ending' to the trash: it ends in '.' or '..'"
    done
  done
  expect "$(find . | sort | xargs)" '. ./a ./d ./d/e'
  mkdir d/... d/..a
  run -0 tavro trash -rf d/.../ ./d/..a
}

@test "-i asks about each entry before any is moved" {
  touch a b
  mkdir d
  run -0 answered "$TAVRO trash -i a b d"
  expect "$output" "Move 'a' to the trash? [y/N] tavro: 'a' was not moved to the trash
Move 'b' to the trash? [y/N] Move 'd' to the trash? [y/N] b -> ~/$trash/files/b
d -> ~/$trash/files/d"
  expect "$(ls)" a
  run -0 on_terminal "$TAVRO trash -i a" n
  expect "$(ls)" a
  run -1 on_terminal "$TAVRO trash -i a missing" y
  expect "$output" "tavro: No such entry: 'missing'"
  run -2 --separate-stderr tavro trash -i a
  expect "$stderr" 'tavro: Refusing to move to the trash without asking: use -f, or a terminal'
  expect "$(ls)" a
}

@test "an interrupted question moves nothing" {
  touch a b
  run -130 python3 "$BATS_TEST_DIRNAME/terminal.py" '[y/N]' 'y\n\f\x03' "$TAVRO" trash -i a b
  [[ $output != *Cancelled* ]]
  [[ $output == *"tavro: 'b' was not moved to the trash" ]]
  expect "$(ls)" $'a\nb'
}

@test "-I asks once, about more than three entries or a directory" {
  touch a b c d
  mkdir e
  run -1 on_terminal "$TAVRO trash -I a b c d" n
  expect "$output" 'Move 4 entries to the trash? [y/N] tavro: Nothing was moved to the trash'
  run -1 on_terminal "$TAVRO trash -I e" n
  expect "$output" 'Move 1 entry to the trash? [y/N] tavro: Nothing was moved to the trash'
  expect "$(ls | wc -l)" 5
  run -2 --separate-stderr tavro trash -I e
  ln -s e link
  run -0 tavro trash -I a b link
  run -0 on_terminal "$TAVRO trash -I e c d" y
  expect "$(ls)" ''
}

@test "the last of -i, -I, -f and --interactive counts" {
  local options
  touch a
  for options in -fi '-f -i' '-I -f -i' '-f --interactive' '--interactive=never -i' \
    '--interactive=once --interactive=always' '-f --interactive=always'; do
    run -0 on_terminal "$TAVRO trash $options a" n
    [[ $output == "Move 'a'"* ]] || expect "$options: $output" 'a question'
  done
  for options in -if -If '-i --interactive=never' '--interactive -f' '-i -I' '-i --interactive=once'; do
    touch a
    # shellcheck disable=SC2086 # several
    run -0 --separate-stderr tavro trash $options a
    [ ! -e a ]
  done
  mkdir e
  run -1 on_terminal "$TAVRO trash -f --interactive=once missing e" n
  expect "$output" "tavro: No such entry: 'missing'"
  run -1 on_terminal "$TAVRO trash -f -i missing" n
  expect "$output" "tavro: No such entry: 'missing'"
  run -2 --separate-stderr tavro trash --interactive=some e
  expect "${stderr_lines[0]}" "tavro: --interactive takes never, once or always, not 'some'"
}

@test "what -f says of copies from another file system is no question" {
  other=$(mktemp -d -p /dev/shm)
  if [ "$(stat -c %d "$other")" = "$(stat -c %d "$HOME")" ]; then
    rmdir "$other"
    skip '/dev/shm and the temporary directory are one file system'
  fi
  touch "$other/a"
  run -0 on_terminal "$TAVRO trash -f $other/a" n
  rmdir "$other"
}

@test "an alias of it does what rm would" {
  mkdir -p d/e keep
  touch a -- -x
  cat >script <<'SCRIPT'
shopt -s expand_aliases
alias rm='"$TAVRO" trash'
rm -rf d missing
rm -f a
rm -f
rm -- -x
SCRIPT
  run -0 --separate-stderr bash -e script
  expect "$stderr" ''
  expect "$(ls)" $'keep\nscript'
  expect "$(tavro list -0 | sort -z | tr '\0' ' ')" '-x a d '
}
