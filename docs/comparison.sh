#!/usr/bin/env bash
# Tries tavro, gio and trash-cli on the same tasks and prints what came of it as the table of
# docs/comparison.md. Each cell is tried in a home directory of its own, gio's on a session bus of
# their own. Another volume needs root.
# Usage: comparison.sh TAVRO [PAGE [PAGE…]]    fails unless the first page has all rows as they came
#                                              out, and the others have no row that came out otherwise
#
# shellcheck disable=SC2317 # the rows are called by their names
set -euo pipefail

rows=(
  'undo|Undoes the last trashing, and trashes again, with one command each'
  'undo_all|Undoes copies, moves, renames and new directories'
  'all_or_nothing|Of several entries, trashes all or none'
  'restore_name|Restores by name, without a session bus'
  'restore_original|Restores by the original path'
  'no_overwrite|A restore does not overwrite'
  'same_name|Two entries of one name: both are kept, and the older can be restored'
  'newline|A name with a line feed comes back'
  'undecodable|A name that is not UTF-8 comes back'
  'long_name|A name of 245 bytes comes back'
  'link|A relative link comes back as that link'
  'sizes|The list shows sizes'
  'json|The list as JSON'
  'ask_empty|Asks before it empties the trash'
  'empty_older|Empties only what is older than some days'
  'remove_one|Deletes single items from the trash'
  'orphan|Finds an item without a record'
  'private|Creates a trash that only the user can read'
  'own_volume|Trashes on the volume of the entry, without copying'
  'list_volume|Lists the trash of other volumes'
  'xdg|Respects XDG_DATA_HOME'
  'completion|Completes its options in bash'
)

yes() { echo yes"${1:+, $1}"; }
no() { echo no"${1:+: $1}"; }
answer() { if "$@" >/dev/null 2>&1; then yes; else no; fi; }

# What each program has for one task. They return its status.
trash() {
  case $tool in
  tavro) "$tavro" trash -q -- "$@" ;;
  gio) GIO_USE_VFS=local gio trash -- "$@" ;;
  trash-cli) trash-put -- "$@" ;;
  esac
}
list() {
  case $tool in
  tavro) "$tavro" list ;;
  gio) gio trash --list ;;
  trash-cli) trash-list ;;
  esac
}
empty() {
  case $tool in
  tavro) "$tavro" empty -f ;;
  gio) gio trash --empty ;;
  trash-cli) trash-empty </dev/null ;;
  esac
}
# restore NAME: what was trashed from the current directory under that name.
restore() {
  case $tool in
  tavro) "$tavro" restore -q -- "$1" ;;
  gio) gio trash --restore "trash:///$(encode "$1")" ;;
  trash-cli) # asks for the number of a line; there is only one
    echo 0 | trash-restore ;;
  esac
}
encode() {
  local LC_ALL=C i
  for ((i = 0; i < ${#1}; ++i)); do
    case ${1:i:1} in
    [a-zA-Z0-9._~-]) printf '%s' "${1:i:1}" ;;
    *) printf '%%%02X' $(($(printf '%d' "'${1:i:1}") & 255)) ;;
    esac
  done
}
has_command() { # of gio, an option of `gio trash`; of trash-cli, a program
  case $tool in
  tavro) "$tavro" "$1" --help ;;
  gio) gio help trash 2>&1 | grep -q -- "--$1" ;;
  trash-cli) command -v "trash-$1" ;;
  esac
}
contains() { cmp -s -- "$1" <(printf '%s\n' "$2"); }
comes_back() { # NAME: the bytes of this file, under this name and no other
  printf "%s\n" "$1" >"$1"
  trash "$1" && [[ ! -e $1 ]] && restore "$1" && contains "$1" "$1" && [[ $(find . -type f -printf x) == x ]]
}

row_undo() {
  if ! has_command undo >/dev/null 2>&1; then no; return; fi
  touch a b && trash a b && "$tavro" undo -q && [[ -e a && -e b ]] && "$tavro" redo -q
  answer test ! -e a -a ! -e b
}
row_undo_all() {
  if [[ $tool != tavro ]]; then
    if has_command undo >/dev/null 2>&1; then yes; else no; fi
    return
  fi
  echo x >a
  {
    "$tavro" mkdir d && "$tavro" copy a d/ && "$tavro" rename a b && "$tavro" move b d/
    [[ -e d/a && -e d/b ]]
    for _ in 1 2 3 4; do "$tavro" undo; done
  } >/dev/null
  answer test -e a -a ! -e b -a ! -e d
}
row_all_or_nothing() {
  touch a b
  trash a missing b 2>/dev/null || :
  answer test -e a -a -e b
}
row_restore_name() {
  touch a
  trash a
  unset DBUS_SESSION_BUS_ADDRESS
  if ! restore a >/dev/null 2>&1 || [[ ! -e a ]]; then
    no "$([[ $tool == gio ]] && echo needs a session bus)"
  elif [[ $tool == trash-cli ]]; then
    no 'asks for a number'
  else
    yes
  fi
}
row_restore_original() {
  touch a
  trash a
  case $tool in
  tavro) "$tavro" restore -q "$PWD/a" ;;
  gio) gio trash --restore "$PWD/a" 2>/dev/null || : ;;
  trash-cli) echo 0 | trash-restore "$PWD/a" >/dev/null 2>&1 || : ;;
  esac
  if [[ ! -e a ]]; then no; elif [[ $tool == trash-cli ]]; then yes 'then asks for a number'; else yes; fi
}
row_no_overwrite() {
  echo old >a
  trash a
  echo new >a
  restore a >/dev/null 2>&1 || :
  answer contains a new
}
row_same_name() {
  mkdir one two
  echo 1 >one/a && echo 2 >two/a
  trash one/a && trash two/a
  case $tool in
  tavro) "$tavro" restore -q "$PWD/one/a" ;;
  gio) restore a ;;
  trash-cli) (cd one && echo 0 | trash-restore >/dev/null) ;;
  esac
  answer contains one/a 1
}
row_newline() { answer comes_back $'line\nfeed'; }
row_undecodable() { answer comes_back $'bad\xff\xfebytes'; }
row_long_name() { answer comes_back "$(printf 'n%.0s' {1..245})"; }
row_link() {
  echo x >target && ln -s target link
  trash link
  restore link >/dev/null 2>&1 || :
  answer test "$(readlink link)" = target -a -e target
}
row_sizes() {
  head -c 12345 /dev/zero >a
  trash a
  case $tool in
  tavro) answer grep -q 12345 <(list) ;;
  gio) answer grep -q 12345 <(list && gio list --long trash:///) ;;
  trash-cli) answer grep -q 12345 <(list && trash-list --size) ;;
  esac
}
row_json() {
  touch a && trash a
  case $tool in
  tavro) answer python3 -m json.tool <("$tavro" list --json) ;;
  gio) answer python3 -m json.tool <(gio trash --list --json) ;;
  trash-cli) answer python3 -m json.tool <(trash-list --json) ;;
  esac
}
row_ask_empty() { # with nobody to answer: what is emptied was not asked about
  touch a && trash a
  case $tool in
  tavro) "$tavro" empty </dev/null >/dev/null 2>&1 || : ;;
  *) empty >/dev/null ;;
  esac
  answer test -e "$trash/files/a"
}
row_empty_older() {
  touch old new && trash old new
  sed -i 's/^DeletionDate=....-/DeletionDate=2001-/' "$trash/info/old.trashinfo"
  case $tool in
  tavro) "$tavro" empty -q -f --older-than 30 ;;
  gio) gio trash --empty --older-than 30 2>/dev/null || : ;;
  trash-cli) trash-empty 30 ;;
  esac
  answer test ! -e "$trash/files/old" -a -e "$trash/files/new"
}
row_remove_one() {
  touch a b && trash a b
  case $tool in
  tavro) "$tavro" empty -q -f a >/dev/null 2>&1 || : ;;
  gio) gio remove trash:///a ;;
  trash-cli) trash-rm a ;;
  esac
  answer test ! -e "$trash/files/a" -a -e "$trash/files/b"
}
row_orphan() {
  touch a && trash a
  rm "$trash/info/a.trashinfo"
  case $tool in
  tavro) answer grep -q "$trash/files/a" <("$tavro" doctor 2>&1) ;;
  *) answer grep -q 'files/a$\|/a\b' <(list) ;;
  esac
}
row_private() {
  umask 022
  touch a && trash a
  answer test "$(stat -c %a "$trash")" = 700
}
on_volume() {
  ((EUID == 0)) || {
    echo 'not tried: only root can mount a volume'
    return 1
  }
  truncate -s 8M "$sandbox/image" && mkfs.ext4 -q "$sandbox/image" && mkdir "$sandbox/volume"
  mount -o loop "$sandbox/image" "$sandbox/volume"
  cd "$sandbox/volume"
  touch a
}
row_own_volume() {
  on_volume || return 0
  trash a 2>/dev/null
  answer test ! -e a -a "$(find . -path './.Trash*/files/a')"
}
row_list_volume() {
  on_volume || return 0
  mkdir -p ".Trash-$EUID/files" ".Trash-$EUID/info" && chmod -R 700 ".Trash-$EUID"
  mv a ".Trash-$EUID/files/a"
  printf '[Trash Info]\nPath=a\nDeletionDate=2024-03-05T14:07:09\n' >".Trash-$EUID/info/a.trashinfo"
  answer grep -q 'volume/a\|volume.*a$' <(list)
}
row_xdg() {
  export XDG_DATA_HOME=$sandbox/data
  touch a && trash a
  answer test -e "$XDG_DATA_HOME/Trash/files/a"
}
row_completion() {
  local file
  case $tool in
  tavro) file=$(dirname "$0")/../cli/completions/tavro.bash ;;
  gio) file=/usr/share/bash-completion/completions/gio ;;
  trash-cli) file=/usr/share/bash-completion/completions/trash-put ;;
  esac
  answer test -s "$file"
}

# One cell, in the home directory and with the session bus that the caller below has made for it.
if [[ ${1:-} == --cell ]]; then
  row=$2 tool=$3 tavro=$4 sandbox=$5 trash=$5/home/.local/share/Trash
  [[ $HOME == "$sandbox/home" ]] # a bus that knows another home would use another trash
  mkdir -p "$HOME/work"
  cd "$HOME/work"
  "row_$row"
  exit
fi

tavro=$(realpath "${1:?names tavro}")
script=$(realpath "$0")
for program in gio dbus-run-session trash-put python3; do
  command -v "$program" >/dev/null || {
    echo "$program is not installed; ./dev interop installs it"
    exit 77
  }
done
scratch=$(realpath "$(mktemp -d)")
trap 'rm -rf "$scratch"' EXIT
unset XDG_DATA_HOME XDG_CACHE_HOME XDG_CONFIG_HOME XDG_STATE_HOME XDG_RUNTIME_DIR
unset DBUS_SESSION_BUS_ADDRESS DISPLAY WAYLAND_DISPLAY
export LC_ALL=C.UTF-8 GVFS_DISABLE_FUSE=1

# cell ROW TOOL: tries it where only this cell sees what is mounted.
cell() {
  local around=() sandbox
  sandbox=$(mktemp -d -p "$scratch")
  mkdir "$sandbox/home"
  ((EUID != 0)) || around=(unshare --mount)
  [[ $2 != gio ]] || around+=(dbus-run-session --)
  HOME=$sandbox/home timeout 60 "${around[@]}" \
    bash "$script" --cell "$1" "$2" "$tavro" "$sandbox" 2>"${TAVRO_COMPARISON_LOG:-/dev/null}"
}
table() {
  printf '| | tavro | gio trash | trash-cli |\n|---|---|---|---|\n'
  local row tool
  for row in "${rows[@]}"; do
    printf '| %s |' "${row#*|}"
    for tool in tavro gio trash-cli; do
      printf ' %s |' "$(cell "${row%%|*}" "$tool" || echo 'could not be tried')"
    done
    echo
  done
}
table | tee "$scratch/table"
if grep -q 'could not be tried' "$scratch/table"; then exit 1; fi

# The rows of a page, but for those that could not be tried without root.
rows_of() {
  grep -Ff <(printf '| %s |\n' "${rows[@]#*|}") "$1" |
    grep -vFf <(grep 'not tried' "$scratch/table" | cut -d '|' -f 2 | grep . || echo 'none')
}
(($# == 1)) || diff <(rows_of "$scratch/table") <(rows_of "$2")
for page in "${@:3}"; do
  rows_of "$page" >"$scratch/rows"
  if grep -vxFf "$scratch/table" "$scratch/rows"; then
    echo "$page: the rows above came out otherwise" >&2
    exit 1
  fi
done
