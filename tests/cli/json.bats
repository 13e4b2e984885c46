#!/usr/bin/env bats
# The shapes of what --json prints, and its times.

load helpers

has_shape() { # KIND, of the JSON in $output
  command -v python3 >/dev/null || skip 'python3 is not installed'
  python3 -B "$BATS_TEST_DIRNAME/json_shape.py" "$1" <<<"$output"
}

@test "a plan as JSON has its shape, and says what exists" {
  touch a b $'odd\xff name'
  mkdir d
  touch d/a
  run -0 tavro plan copy --json a b $'odd\xff name' d
  has_shape plan
  expect "$(grep exists <<<"$output" | tr -d ' ,\n')" '"exists":true"exists":false"exists":false'
}

@test "the trash as JSON has its shape, with times in their zone" {
  export TZ=Asia/Kolkata
  touch a $'odd\xff name'
  mkdir d
  tavro trash -q a $'odd\xff name' d
  printf '[Trash Info]\nPath=%s\nDeletionDate=2001-02-03T04:05:06\n' "$PWD/a" \
    >"$HOME/.local/share/Trash/info/a.trashinfo"
  printf '[Trash Info]\nPath=%s\nDeletionDate=yesterday\n' "$PWD/d" \
    >"$HOME/.local/share/Trash/info/d.trashinfo"
  run -0 tavro list --json
  has_shape list
  [[ $output == *'"deletionDate": "2001-02-03T04:05:06+05:30"'*'"deletionDate": null'* ]]
}

@test "the history as JSON has its shape, with times in their zone" {
  export TZ=Asia/Kolkata
  touch a b c
  tavro rename a a2
  tavro mkdir d
  tavro copy a2 b d
  tavro undo -q
  tavro move a2 d
  tavro trash -q c
  run -0 tavro history --json
  has_shape history
  [[ $output =~ '"time": "'[0-9T:-]+'+05:30"' ]]
}
