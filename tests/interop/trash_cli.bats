#!/usr/bin/env bats
# The home trash shared with trash-cli.
#
# Its own faults, as of version 0.17.1: it decodes names as UTF-8 and puts U+FFFD in the place of
# bytes that are none, so it lists and restores such a name changed; and trash-put cannot write
# their record. The tests of such names say what it does with them instead of the right thing, and
# also pass when it does the right thing.

# shellcheck disable=SC2154 # interop.bash assigns the variables
load interop

setup() {
  need_programs trash-list trash-restore trash-put
  set_up_home
}

teardown() {
  tear_down_home
}

# Restores the entry of this original path. Asked for exactly that path, it offers nothing else.
trash_restore() {
  (cd / && trash-restore "$1" <<<0)
}

# The replacement of bytes that are no UTF-8.
replaced_name=$'bad\xef\xbf\xbd\xef\xbf\xbdbytes'

@test "trash-list lists what the module trashed with its original path" {
  make_entries "${odd_names[@]}"
  select_entries
  driver trash "${entries[@]}"
  expect_folder_empty
  printf '%s\n' "${entries[@]}" >"$sandbox/expected"
  # Trash directories of other volumes, which it also lists, are not this test's.
  trash-list >"$sandbox/all"
  sed -E 's/^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} //' "$sandbox/all" |
    grep -v '^/' >"$sandbox/listed" || :
  grep -F " $folder/" "$sandbox/all" | cut -d ' ' -f 3- >>"$sandbox/listed"
  same_lines "$sandbox/expected" "$sandbox/listed"
}

@test "trash-list shows the local time at which the module trashed" {
  make_entries file
  trash_dated "$folder/file"
  local date time
  read -r date time _ < <(trash-list | grep -F " $folder/file")
  expect_dated "${date}T$time"
}

@test "trash-restore puts back what the module trashed" {
  make_entries "${odd_names[@]}"
  remember_folder
  select_entries
  driver trash "${entries[@]}"
  expect_folder_empty
  local entry
  for entry in "${entries[@]}"; do trash_restore "$entry"; done
  expect_folder_as_before
  expect_trash_empty
}

@test "trash-restore puts entries of one name back into their own folders" {
  mkdir -p "$folder"/{a,b,c}
  for place in a b c; do echo "from $place" >"$folder/$place/x.txt"; done
  remember_folder
  driver trash "$folder"/{a,b,c}/x.txt
  [[ $(cd "$trash/files" && echo *) == 'x copy 1.txt x copy 2.txt x.txt' ]]
  for place in b c a; do trash_restore "$folder/$place/x.txt"; done
  expect_folder_as_before
  expect_trash_empty
}

@test "the bytes of a file whose name is no UTF-8 come back through trash-restore" {
  make_entries "$undecodable_name"
  cp "$folder/$undecodable_name" "$sandbox/original"
  driver trash "$folder/$undecodable_name"
  grep -Fx "Path=$folder/bad%FF%FEbytes" "$trash/info/$undecodable_name.trashinfo"
  local name=$undecodable_name
  if trash-list | grep -Fq "$folder/$replaced_name"; then
    echo '# trash-list and trash-restore replace bytes that are no UTF-8: the name changes' >&3
    name=$replaced_name
  fi
  trash-list | LC_ALL=C grep -aF "$folder/$name"
  trash_restore "$folder/$name"
  cmp "$sandbox/original" "$folder/$name"
  expect_trash_empty
}

@test "the module puts back what trash-put trashed" {
  make_entries "${odd_names[@]}"
  remember_folder
  select_entries
  trash-put -- "${entries[@]}"
  expect_folder_empty
  driver restore
  expect_folder_as_before
  expect_trash_empty
}

@test "the module puts back what trash-put and it trashed under one name" {
  mkdir -p "$folder"/{a,b,c}
  for place in a b c; do echo "from $place" >"$folder/$place/x.txt"; done
  remember_folder
  driver trash "$folder/a/x.txt"
  trash-put "$folder/b/x.txt"
  driver trash "$folder/c/x.txt"
  driver restore
  expect_folder_as_before
  expect_trash_empty
}

@test "a name that is no UTF-8 is put back by the module, or was refused by trash-put" {
  make_entries "$undecodable_name"
  remember_folder
  if trash-put "$folder/$undecodable_name" 2>"$sandbox/error"; then
    driver restore
  else
    echo '# trash-put cannot encode bytes that are no UTF-8: nothing was trashed' >&3
    grep -F UnicodeEncodeError "$sandbox/error"
  fi
  expect_folder_as_before
}
