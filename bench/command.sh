#!/usr/bin/env bash
# Measures the command next to the programs that people use instead, all in one run, on a file system in
# memory (where our own cost shows) and on the disk, and prints each figure as a ratio with the bound
# that it should keep.
#
#   bench/command.sh TAVRO [--quick] [COMPARISON…]
#
# Without names all comparisons run. --quick takes smaller counts and fewer rounds, to see that
# everything works; its figures say little, because starting a process outweighs the work. The exit code
# is 1 when a ratio is over its bound.
# shellcheck disable=SC2317 # the comparisons and contestants are called through variables
set -euo pipefail

# Every comparison is a function of this name. To add one, write it below and name it here.
comparisons=(trash one_file copy_files copy_tree copy_large move_across delete size start_up synced linear)

usage() {
  echo "usage: bench/command.sh TAVRO [--quick] [COMPARISON…]" >&2
  echo "Comparisons: ${comparisons[*]}" >&2
  exit 2
}

[[ -x ${1:-} ]] || usage
tavro=$(realpath "$1")
bare_loop=${tavro%/cli/tavro}/bench/tavro_bare_loop # of the same build, where there is one
shift
rounds=5 batch=10000 large_tree=200000 large_file=1G counts=(2000 20000)
if [[ ${1:-} == --quick ]]; then
  shift
  rounds=2 batch=1000 large_tree=20000 large_file=20M counts=(1000)
fi
for name in "$@"; do
  [[ " ${comparisons[*]} " == *" $name "* ]] || usage
done
(($# == 0)) || comparisons=("$@")

# No comparison sees the real home directory or wakes a desktop service.
disk=$(mktemp -d -p "${TMPDIR:-/var/tmp}")
memory=$(mktemp -d -p /dev/shm)
trap 'rm -rf "$disk" "$memory"' EXIT
scratch=$memory
export HOME=$memory/home
mkdir "$HOME"
# shellcheck source=bench/measuring.bash
source "$(dirname "${BASH_SOURCE[0]}")/measuring.bash"

# forget CONTESTANT…: what was measured elsewhere does not count here.
forget() {
  local name
  for name in "$@"; do unset "best_cpu[$name]" "best_elapsed[$name]"; done
}

# duel LABEL BOUND OURS THEIRS: two contestants take turns, and their row is printed.
duel() {
  forget "$3" "$4"
  in_turn "$3" "$4"
  compare "$1" "$3" "$4" "$2"
}

# --- The trash ------------------------------------------------------------------------------------

# A round of one trashes, lists, undoes, trashes again and empties; its peers do the same work.
trash_tavro() {
  fresh_batch "$where"
  timed trash_tavro "$tavro" trash -q "${files[@]}"
  expect_trashed "$batch"
  timed list_tavro "$tavro" list
  timed list_peer trash-list
  timed undo_tavro "$tavro" undo -q
  expect_trashed 0
  "$tavro" trash -q "$HOME"/batch/*
  expect_trashed "$batch"
  local kept
  kept=$(mktemp -d -p "$where")
  cp -a "$HOME/.local/share/Trash" "$kept/"
  timed empty_peer rm -rf "$HOME/.local/share/Trash/files" "$HOME/.local/share/Trash/info"
  rm -rf "$HOME/.local/share/Trash"
  if [[ -x $bare_loop ]]; then
    cp -a "$kept/Trash" "$HOME/.local/share/"
    timed undo_bare "$bare_loop" undo "${files[@]}"
    expect_trashed 0
    rm -rf "$HOME/batch" "$HOME/.local/share/Trash"
  fi
  mv "$kept/Trash" "$HOME/.local/share/"
  timed empty_tavro "$tavro" empty -fq
  expect_trashed 0
  unset "batch_folder[$where]"
  rm -rf "$where/batch"
}
trash_gio() {
  fresh_batch "$where"
  timed trash_gio gio trash "${files[@]}"
  expect_trashed "$batch"
}

trash() {
  heading "Trashing $batch files, $on" tavro peer
  have gio && have trash-list || return 0
  forget trash_tavro trash_gio list_tavro list_peer undo_tavro undo_bare empty_tavro empty_peer
  in_turn trash_tavro trash_gio
  compare 'tavro trash : gio trash' trash_tavro trash_gio 0.5
  compare 'tavro undo : trash-list' undo_tavro list_peer 0.5
  ! have "$bare_loop" || compare 'its calls alone : trash-list' undo_bare list_peer -
  compare 'tavro list : trash-list' list_tavro list_peer 0.4
  compare 'tavro empty : rm -rf files info' empty_tavro empty_peer 1.3
}

# One file is too little to be timed; a hundred times one file is not.
one_by_one() {
  local name=$1 file
  shift
  fresh_home "$where"
  make_files "$HOME/hundred" 100
  one_each() {
    for file in "$HOME"/hundred/*; do "$@" "$file" || return; done
  }
  timed "$name" one_each "$@"
  expect_trashed 100
}
one_tavro() { one_by_one one_tavro "$tavro" trash -q; }
one_gio() { one_by_one one_gio gio trash; }

one_file() {
  heading "Trashing one file, a hundred times, $on" tavro gio
  have gio || return 0
  duel 'tavro trash : gio trash' 0.9 one_tavro one_gio
}

# --- Copying, moving, deleting --------------------------------------------------------------------

# A new directory for each copy; the old ones stay until the end, see fresh_home.
copy_tavro() { timed copy_tavro "$tavro" copy -q "${source[@]}" "$(mktemp -d -p "$where")/"; }
copy_cp() { timed copy_cp cp -a "${source[@]}" "$(mktemp -d -p "$where")/"; }
copy_bare() { timed copy_bare "$bare_loop" copy "${source[@]}" "$(mktemp -d -p "$where")/"; }

copy_files() {
  heading "Copying $batch single files of 700 bytes, $on" tavro 'cp -a'
  make_files "$where/single" "$batch" 700
  source=("$where"/single/*)
  local bare=()
  ! have "$bare_loop" || bare=(copy_bare)
  forget copy_tavro copy_cp copy_bare
  in_turn copy_tavro copy_cp "${bare[@]}"
  compare 'tavro copy : cp -a' copy_tavro copy_cp 1
  ((${#bare[@]} == 0)) || compare 'its calls alone : cp -a' copy_bare copy_cp -
}

copy_tree() {
  heading "Copying a tree of $batch files of 700 bytes, $on" tavro 'cp -a'
  make_tree "$where/tree" "$batch" 100 700
  source=("$where/tree")
  duel 'tavro copy : cp -a' 1 copy_tavro copy_cp
}

copy_large() {
  heading "Copying one file of $large_file, $on" tavro 'cp -a'
  head -c "$large_file" /dev/urandom >"$where/large-file"
  source=("$where/large-file")
  forget copy_tavro copy_cp
  in_turn_large copy_tavro copy_cp
  compare 'tavro copy : cp -a' copy_tavro copy_cp 1.02
  rm -rf "$where/large-file"
}

# in_turn_large CONTESTANT…: as in_turn, for what would fill the disk: each round makes room again. A
# large copy takes longer or shorter by what memory the kernel finds for it, so there are more rounds.
in_turn_large() {
  local round contestant
  for ((round = 0; round < rounds + 2; ++round)); do
    for contestant in "$@"; do
      "$contestant"
      rm -rf "$where"/tmp.*
    done
  done
}

# What a person waits for until a copy is on the disk. The peer does not wait by itself.
and_sync() {
  "$@" && sync -f "${@: -1}"
}
synced_tavro() { timed synced_tavro "$tavro" copy -q "${source[@]}" "$(fresh_synced)/"; }
synced_cp() { timed synced_cp and_sync cp -a "${source[@]}" "$(fresh_synced)/"; }
synced_bare() { timed synced_bare "$bare_loop" copy "${source[@]}" "$(fresh_synced)/"; }

# A new directory, when nothing is left to be written that neither of the two has written.
fresh_synced() {
  local folder
  folder=$(mktemp -d -p "$where")
  sync -f "$where"
  echo "$folder"
}

synced() {
  heading "Copying, elapsed until it is on the disk, $on" tavro 'cp, sync'
  make_files "$where/single" "$batch" 700
  source=("$where"/single/*)
  wait_for_both in_turn "$batch single files of 700 bytes"
  if have "$bare_loop"; then
    forget synced_bare
    in_turn synced_bare
    line '  its calls alone' "$(milliseconds "${best_elapsed[synced_bare]}")" \
      "$(milliseconds "${best_elapsed[synced_cp]}")" - ms
  fi
  make_tree "$where/tree" "$batch" 100 700
  source=("$where/tree")
  wait_for_both in_turn "a tree of $batch files of 700 bytes"
  head -c "$large_file" /dev/urandom >"$where/large-file"
  source=("$where/large-file")
  wait_for_both in_turn_large "one file of $large_file"
  rm -rf "$where/large-file"
}

# wait_for_both TURNS LABEL: the row of elapsed times.
wait_for_both() {
  forget synced_tavro synced_cp
  "$1" synced_tavro synced_cp
  line "$2" "$(milliseconds "${best_elapsed[synced_tavro]}")" \
    "$(milliseconds "${best_elapsed[synced_cp]}")" 1.1 ms
}

move_with() {
  local from
  from=$(mktemp -d -p "$other")
  make_tree "$from/tree" "$batch" 100 700
  timed "${@:1:1}" "${@:2}" "$from/tree" "$(mktemp -d -p "$where")/"
  [[ ! -e $from/tree ]] || fail 'The tree was not moved'
}
move_tavro() { move_with move_tavro "$tavro" move -q; }
move_mv() { move_with move_mv mv; }

move_across() {
  heading "Moving a tree of $batch files from one file system to another, $on" tavro mv
  local rounds=$(((rounds + 1) / 2))
  duel 'tavro move : mv' 1 move_tavro move_mv
}

delete_with() {
  make_tree "$where/doomed" "$batch" 100
  timed "$@" "$where/doomed"
  [[ ! -e $where/doomed ]] || fail 'The tree was not deleted'
}
delete_tavro() { delete_with delete_tavro "$tavro" delete -f; }
delete_rm() { delete_with delete_rm rm -rf; }

delete() {
  heading "Deleting a tree of $batch files, $on" tavro 'rm -rf'
  duel 'tavro delete -f : rm -rf' 1.05 delete_tavro delete_rm
}

# --- Measuring, starting --------------------------------------------------------------------------

size_tavro() { timed size_tavro "$tavro" size "$where/many"; }
size_du() { timed size_du du -sb --apparent-size "$where/many"; }

size() {
  heading "Size of $large_tree files in 400 folders, $on" tavro du
  make_tree "$where/many" "$large_tree" 400 10
  duel 'tavro size : du -sb --apparent-size' 1 size_tavro size_du
  rm -rf "$where/many"
}

# Starting a process is too short for one; a hundred are.
hundred() {
  local i
  for ((i = 0; i < 100; ++i)); do "$@"; done
}
start_tavro() { timed start_tavro hundred "$tavro" --version; }
gio_help() { gio help || :; } # it prints its help and exits with 1
start_gio() { timed start_gio hundred gio_help; }

start_up() {
  heading "Starting up, a hundred times" tavro gio
  have gio || return 0
  duel 'tavro --version : gio help' 0.9 start_tavro start_gio
}

# --- Many at once ---------------------------------------------------------------------------------

# What an entry costs must not grow with their number. Each work is a function that gets the number.
same_names() {
  fresh_home "$where"
  make_namesakes "$1"
  timed "same_names $1" "$tavro" trash -q ./*/x.txt
}
restore_names() {
  fresh_home "$where"
  make_files "$HOME/batch" "$1"
  cd "$HOME/batch"
  local names=(*)
  "$tavro" trash -q "${names[@]}"
  timed "restore_names $1" "$tavro" restore -q "${names[@]}"
}
keep_both() {
  fresh_home "$where"
  make_namesakes "$1"
  mkdir "$HOME/target"
  timed "keep_both $1" "$tavro" copy -q --on-conflict keep-both ./*/x.txt ../target/
}

# make_namesakes COUNT: files of one name, each in a directory of its own, below the current one.
make_namesakes() {
  mkdir "$HOME/same"
  cd "$HOME/same"
  seq "$1" | xargs mkdir
  seq -f '%.0f/x.txt' "$1" | xargs touch
}

# an_entry WORK COUNT: microseconds; what one entry alone costs is taken off, as it is the process.
an_entry() {
  awk -v all="${best_cpu[$1 $2]}" -v one="${best_cpu[$1 1]}" -v n="$2" \
    'BEGIN { printf "%.1f", (all - one) / (n - 1) }'
}

linear() {
  heading "Cost of an entry, $on" 'of many' 'of 500'
  local work count rounds=$(((rounds + 1) / 2))
  for work in same_names restore_names keep_both; do
    for count in 1 500 "${counts[@]}"; do
      forget "$work $count"
      in_turn_counts
    done
    for count in "${counts[@]}"; do
      line "$count: ${work/_/ }" "$(an_entry "$work" "$count")" "$(an_entry "$work" 500)" 1.3 us
    done
  done
  cd /
}

# As in_turn, of one work and number. What is few takes little time, and is tried more often.
in_turn_counts() {
  local round
  for ((round = 0; round < (count > 500 ? rounds : 4 * rounds); ++round)); do
    "$work" "$count"
    cd "$where"
    rm -rf "$HOME"
  done
}

# --------------------------------------------------------------------------------------------------

echo "Processor times, but where it says elapsed, the best of $rounds rounds; a ratio is the first figure through the second."
on='in memory' where=$memory other=$disk
for name in "${comparisons[@]}"; do [[ $name == synced ]] || "$name"; done # which needs a disk
on='on the disk' where=$disk other=$memory
for name in "${comparisons[@]}"; do [[ $name == start_up || $name == linear ]] || "$name"; done
conclude
