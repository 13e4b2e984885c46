#!/usr/bin/env bats
# The home trash shared with gio, which is GLib's, and with the gvfs daemon behind trash:///.
#
# Each test that looks into trash:/// has a session bus of its own, which ends with it. Faults of gio
# itself, as of GLib 2.74:
#
# - `gio trash --restore` takes the original path from a text in which every byte that is no
#   printable ASCII is escaped, and restores to a name that holds the escapes. `gio move` from
#   trash:/// shows that it reads the record itself right.
# - `gio trash` writes a record to a temporary file whose name is seven bytes longer. For a name of
#   more than 238 bytes that file cannot be made: it leaves an empty record and reports success.
#
# The tests of such names say what gio does with them instead of the right thing, and also pass when
# it does the right thing.

# shellcheck disable=SC2154 # interop.bash assigns the variables
load interop

setup() {
  need_programs gio dbus-run-session
  [[ -e /usr/share/gvfs/mounts/trash.mount ]] ||
    skip 'the trash of gvfs is not installed; ./dev interop installs it'
  set_up_home
  export GVFS_DISABLE_FUSE=1
}

teardown() {
  tear_down_home
}

# Runs a function of this file on a session bus.
on_bus() {
  export sandbox
  dbus-run-session -- bash -euo pipefail -c "$(declare -f "$1" uri_of)"$'\n''"$@"' on_bus "$@"
}

# gio_trash ENTRY…: without a bus, and without the volumes that a bus knows.
gio_trash() {
  GIO_USE_VFS=local gio trash "$@"
}

# The URI of an item in the trash.
uri_of() {
  local LC_ALL=C i byte
  printf 'trash:///'
  for ((i = 0; i < ${#1}; ++i)); do
    byte=${1:i:1}
    case $byte in
    [a-zA-Z0-9._~-]) printf '%s' "$byte" ;;
    *) printf '%%%02X' $(($(printf '%d' "'$byte") & 255)) ;;
    esac
  done
}

# Moves each item of the trash back to where its entry was.
move_out() {
  local entry
  for entry in "$@"; do gio move "$(uri_of "${entry##*/}")" "$entry"; done
}

restore_each() {
  local entry
  for entry in "$@"; do gio trash --restore "$(uri_of "${entry##*/}")"; done
}

list_trash() {
  gio trash --list >"$sandbox/list"
}

show_date() {
  gio info -a trash::deletion-date "$(uri_of "$1")" >"$sandbox/info"
}

@test "gio lists what the module trashed with its original path" {
  make_entries "${odd_names[@]}" "$undecodable_name"
  select_entries
  driver trash "${entries[@]}"
  expect_folder_empty
  on_bus list_trash
  # Each line is the item's URI, a tab, and the original path with some bytes as \xNN. What other
  # volumes have in their trash directories is not this test's.
  local uri path
  while IFS=$'\t' read -r uri path; do
    [[ $path == "$folder/"* ]] || continue
    uri=${uri//%/\\x}
    printf '%b\0' "${uri#trash:///}" >>"$sandbox/names"
    printf '%b\0' "$path" >>"$sandbox/listed"
  done <"$sandbox/list"
  printf '%s\0' "${entries[@]}" | LC_ALL=C sort -z | cmp - <(LC_ALL=C sort -z "$sandbox/listed")
  printf '%s\0' "${entries[@]##*/}" | LC_ALL=C sort -z | cmp - <(LC_ALL=C sort -z "$sandbox/names")
}

@test "gio shows the local time at which the module trashed" {
  make_entries file
  trash_dated "$folder/file"
  on_bus show_date file
  expect_dated "$(sed -n 's/^ *trash::deletion-date: //p' "$sandbox/info")"
}

@test "gio move puts back what the module trashed" {
  make_entries "${odd_names[@]}" "$undecodable_name"
  remember_folder
  select_entries
  driver trash "${entries[@]}"
  expect_folder_empty
  on_bus move_out "${entries[@]}"
  expect_folder_as_before
  expect_trash_empty
}

@test "gio trash --restore puts back names of plain ASCII" {
  make_entries "${plain_names[@]}"
  remember_folder
  select_entries
  driver trash "${entries[@]}"
  expect_folder_empty
  on_bus restore_each "${entries[@]}"
  expect_folder_as_before
  expect_trash_empty
}

@test "gio trash --restore brings back the bytes of a name that is not ASCII" {
  local name=$'caf\xc3\xa9' found
  make_entries "$name"
  cp "$folder/$name" "$sandbox/original"
  driver trash "$folder/$name"
  on_bus restore_each "$folder/$name"
  found=$folder/$name
  if [[ ! -e $found ]]; then
    echo '# gio trash --restore leaves its own escapes in the name' >&3
    found=$folder/'caf\xc3\xa9'
  fi
  cmp "$sandbox/original" "$found"
  expect_trash_empty
}

@test "the module puts back what gio trashed" {
  make_entries "${odd_names[@]}" "$undecodable_name"
  mv "$folder/$long_name" "$folder/${long_name:0:238}"
  remember_folder
  select_entries
  gio_trash "${entries[@]}"
  expect_folder_empty
  driver restore
  expect_folder_as_before
  expect_trash_empty
}

@test "the bytes of a very long name that gio trashed are there, though it may lose the place" {
  make_entries "$long_name"
  cp "$folder/$long_name" "$sandbox/original"
  gio_trash "$folder/$long_name"
  local found=$trash/files/$long_name
  if [[ -s $trash/info/$long_name.trashinfo ]]; then
    driver restore
    found=$folder/$long_name
  else
    echo '# gio trash left an empty record of a name of 245 bytes: its place is lost' >&3
  fi
  cmp "$sandbox/original" "$found"
}

@test "the module puts back what gio and it trashed under one name" {
  mkdir -p "$folder"/{a,b,c}
  for place in a b c; do echo "from $place" >"$folder/$place/x.txt"; done
  remember_folder
  driver trash "$folder/a/x.txt"
  gio_trash "$folder/b/x.txt"
  driver trash "$folder/c/x.txt"
  driver restore
  expect_folder_as_before
  expect_trash_empty
}

@test "gio trashes into the trash folders that the module made" {
  make_entries one two
  remember_folder
  driver trash "$folder/one"
  snapshot "$trash" >"$sandbox/first"
  gio_trash "$folder/two"
  driver restore
  expect_folder_as_before
  expect_trash_empty
}
