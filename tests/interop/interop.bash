# What the tests with other trash programs share. Loaded by the .bats files here.
#
# TAVRO_TRASH_DRIVER names the driver of the module's trash.
#
# shellcheck shell=bash
# shellcheck disable=SC2034 # the tests use the variables

# Skips a file of tests whose programs the machine lacks.
need_programs() {
  local program
  for program in "$@"; do
    command -v "$program" >/dev/null || skip "$program is not installed; ./dev interop installs it"
  done
}

# A home directory of the test's own, and nothing of the caller's session.
set_up_home() {
  sandbox=$(realpath "$(mktemp -d)")
  export HOME=$sandbox/home LC_ALL=C.UTF-8 TZ=XXX-5:45
  unset XDG_DATA_HOME XDG_CACHE_HOME XDG_CONFIG_HOME XDG_RUNTIME_DIR
  unset DBUS_SESSION_BUS_ADDRESS DISPLAY WAYLAND_DISPLAY
  export TAVRO_TRASH=home
  mkdir "$HOME"
  trash=$HOME/.local/share/Trash
  folder=$HOME/folder
}

tear_down_home() {
  [[ ${sandbox:-} ]] || return 0 # the test was skipped
  chmod -R u+rwX "$sandbox"
  rm -rf "$sandbox"
}

driver() {
  "${TAVRO_TRASH_DRIVER:?names the driver}" "$@"
}

# Names that have gone wrong somewhere before. With the ending of its record, the long one has the
# greatest length that a name can have.
long_name=$(printf 'n%.0s' {1..245})
plain_names=('two words' "quo'te" '-dash' '.hidden' 'plus+a&b=c;d#e?f' 'star*[x]' ' led and trailed '
  'five $' 'same.tar.gz')
odd_names=("${plain_names[@]}" '100% sure' '%41' 'dou"ble' 'back\slash' $'tab\there' $'line\nfeed'
  $'caf\xc3\xa9 \xe2\x98\x83' "$long_name")
undecodable_name=$'bad\xff\xfebytes'

# make_entries NAME…: files of these names with bytes of their own, in the directory, and besides a
# tree, links and an empty file.
make_entries() {
  local name
  mkdir "$folder" "$sandbox/elsewhere"
  for name in "$@"; do printf 'bytes of\0%s\xff' "$name" >"$folder/$name"; done
  printf 'target' >"$sandbox/elsewhere/target"
  mkdir -p "$folder/tree/below/empty" "$folder/tree/"$'\xe2\x98\x83 %20'
  printf '#!/bin/sh\n' >"$folder/tree/below/script"
  chmod 750 "$folder/tree/below/script"
  ln -s below/script "$folder/tree/link"
  ln -s /nowhere/at/all "$folder/tree/dangling"
  ln -s "$sandbox/elsewhere" "$folder/link to folder"
  ln -s "$sandbox/elsewhere/target" "$folder/link to file"
  : >"$folder/empty"
}

# Everything in the directory, as full paths in `entries`.
select_entries() {
  local options
  options=$(shopt -p nullglob dotglob || :)
  shopt -s nullglob dotglob
  entries=("$folder"/*)
  eval "$options"
}

# snapshot PATH: type, mode, link target and content of everything there, as text.
snapshot() {
  (
    cd "$1" || exit
    export LC_ALL=C
    find . -printf '%P\t%y\t%m\t%l\0' | sort -z | tr '\0' '\n'
    find . -type f -print0 | sort -z | xargs -0r sha256sum -z | tr '\0' '\n'
  )
}

# Remembers the directory as it is, and compares it with that later.
remember_folder() {
  snapshot "$folder" >"$sandbox/before"
}
expect_folder_as_before() {
  snapshot "$folder" >"$sandbox/after"
  diff -u "$sandbox/before" "$sandbox/after"
}

expect_folder_empty() {
  diff -u /dev/null <(cd "$folder" && find . -mindepth 1)
}

# Neither items nor records are left.
expect_trash_empty() {
  diff -u /dev/null <(cd "$trash" && find files info -mindepth 1)
}

# same_lines FILE FILE: the same lines in whatever order.
same_lines() {
  diff -u <(LC_ALL=C sort "$1") <(LC_ALL=C sort "$2")
}

# trash_dated ENTRY…: lets the module trash them, and remembers between which times it did.
trash_dated() {
  earliest=$(date +%Y-%m-%dT%H:%M:%S)
  driver trash "$@"
  latest=$(date +%Y-%m-%dT%H:%M:%S)
}

# expect_dated DATE: the local time that another program shows is that of the trashing.
expect_dated() {
  echo "$1 is not from $earliest to $latest"
  [[ $1 == ????-??-??T??:??:?? && ! $1 < $earliest && ! $1 > $latest ]]
}
