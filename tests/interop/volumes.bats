#!/usr/bin/env bats
# The trashes of two volumes, one with a shared trash directory and one without, shared with gio and
# trash-cli.

# shellcheck disable=SC2016 # a shell in another root directory expands them
load interop
load ../cli/own_root

# The names that all of them write the same.
names=('two words' "quo'te" '-dash' '.hidden' 'plus+a&b=c;d#e?f' 'star*[x]' 'five $' 'same.tar.gz'
  '100% sure' '%41' 'dou"ble' 'back\slash' $'caf\xc3\xa9 \xe2\x98\x83')

# on_volumes SCRIPT: as in_own_root, with two ext4 volumes, as gio takes no trash to a file system in
# memory, and `names`. make: the same files on each. trashes PROGRAM…: each is trashed, and listed with
# the paths of its record in /tmp/PROGRAM.
on_volumes() {
  command -v mkfs.ext4 >/dev/null || skip 'mkfs.ext4 is not installed'
  in_own_root "$(declare -p names)
    $(declare -f make records whole)
    umount /one /two
    for volume in one two; do
      truncate -s 16M /tmp/\$volume
      mkfs.ext4 -q -F -m 0 /tmp/\$volume
      mount -o loop /tmp/\$volume /\$volume
    done
    mkdir -m 1777 /two/.Trash
    export XDG_RUNTIME_DIR=/run GVFS_DISABLE_FUSE=1
    entries=()
    for name in \"\${names[@]}\"; do entries+=(\"/one/d/\$name\" \"/two/d/\$name\"); done
    $1
    umount /one /two"
}

# The same files on both volumes.
make() {
  local name
  mkdir -p /one/d /two/d
  for name in "${names[@]}"; do
    printf 'bytes of\0%s\xff' "$name" | tee "/one/d/$name" >"/two/d/$name"
  done
}

# What the records tell, but for the dates.
records() {
  (cd / && for record in one/.Trash-0/info/* two/.Trash/0/info/* one/.Trash-0/info/.h* two/.Trash/0/info/.h*; do
    [[ ! -e $record ]] || printf '%s %s\n' "$record" "$(grep -v '^DeletionDate=[-0-9]*T[:0-9]*$' "$record")"
  done)
}

# All entries are back, with their bytes, and no record is left.
whole() {
  local name volume
  for name in "${names[@]}"; do
    for volume in one two; do
      printf 'bytes of\0%s\xff' "$name" | cmp - "/$volume/d/$name"
    done
  done
  expect "$(find /one/.Trash-0/info /two/.Trash/0/info /one/.Trash-0/files /two/.Trash/0/files -mindepth 1)" ''
}

@test "gio, trash-put and tavro write the same records on volumes" {
  need_programs gio trash-put
  on_volumes '
    for how in "tavro trash -q --" "trash-put --" "gio trash --"; do
      make
      GIO_USE_VFS=local $how "${entries[@]}"
      expect "$(ls -A /one/d /two/d)" "/one/d:

/two/d:"
      records >"/tmp/${how%% *}.records"
      expect "$(wc -l <"/tmp/${how%% *}.records")" $((${#names[@]} * 2 * 2)) # two lines each
      tavro empty -q -f
    done
    cmp /tmp/tavro.records /tmp/gio.records
    cmp /tmp/tavro.records /tmp/trash-put.records'
}

@test "what gio and trash-put trash on volumes is listed and restored" {
  need_programs gio trash-put
  on_volumes '
    for how in "trash-put --" "gio trash --"; do
      make
      GIO_USE_VFS=local $how "${entries[@]}"
      tavro list | cut -f 4 | sort >/tmp/listed
      printf "%s\n" "${entries[@]}" | sort | cmp - /tmp/listed
      tavro restore -q -- "${entries[@]}"
      whole
    done'
}

@test "trash-list lists what is trashed on volumes, and trash-restore puts it back" {
  need_programs trash-list trash-restore
  on_volumes '
    make
    tavro trash -q -- "${entries[@]}"
    trash-list | cut -d " " -f 3- | sort >/tmp/listed
    printf "%s\n" "${entries[@]}" | sort | cmp - /tmp/listed
    for entry in "${entries[@]}"; do (cd / && trash-restore "$entry" <<<0 >/dev/null); done
    whole'
}

@test "gio lists what is trashed on volumes, and moves it back" {
  need_programs gio dbus-run-session
  [[ -e /usr/share/gvfs/mounts/trash.mount ]] ||
    skip 'the trash of gvfs is not installed; ./dev interop installs it'
  on_volumes '
    make
    tavro trash -q -- "${entries[@]}"
    on_bus() {
      gio trash --list >/tmp/list
      while IFS=$'"'\\t'"' read -r uri path; do
        printf "%b\n" "$path"
        gio move "$uri" "$(printf "%b" "$path")"
      done </tmp/list
    }
    dbus-run-session -- bash -euo pipefail -c "$(declare -f on_bus); on_bus" | sort >/tmp/listed
    printf "%s\n" "${entries[@]}" | sort | diff - /tmp/listed
    whole'
}

@test "sizes of directories are kept beside what gio and trash-cli do with them" {
  need_programs gio trash-put trash-restore
  on_volumes '
    mkdir /one/a /one/b
    head -c 20000 /dev/zero | tee /one/a/f >/one/b/f
    cache=/one/.Trash-0/directorysizes
    line() { echo "$(du -s -B1 /one/.Trash-0/files/$1 | cut -f 1) $(stat -c %Y /one/.Trash-0/info/$1.trashinfo) $1"; }
    GIO_USE_VFS=local gio trash /one/a
    trash-put /one/b
    tavro list >/dev/null
    expect "$(<$cache)" "$(line a)
$(line b)"
    (cd / && trash-restore /one/a <<<0 >/dev/null)
    tavro list >/dev/null
    expect "$(<$cache)" "$(line b)"
    GIO_USE_VFS=local gio trash /one/a
    tavro empty -f -q --older-than 1
    expect "$(<$cache)" "$(line b)"
    tavro empty -f -q
    [[ ! -e $cache ]]'
}
