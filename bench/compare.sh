#!/usr/bin/env bash
# Measures the module next to other programs and to bare loops of system calls, all in one run, and
# prints each figure as a ratio with the bound that it should keep.
#
#   bench/compare.sh BUILD_DIRECTORY [--quick] [COMPARISON…]
#
# Without names all comparisons run. --quick takes smaller counts and fewer rounds, to see that
# everything works; its figures say little, because starting a process outweighs the work. The exit
# code is 1 when a ratio is over its bound.
#
# The contestants of a line take turns for several rounds, and the best round of each counts. The
# ratio is taken of the processor time (user and system), which other work on the machine hardly
# changes; the best elapsed times stand beside it.
# shellcheck disable=SC2317 # the comparisons and contestants are called through variables
set -euo pipefail

# Every comparison is a function of this name. To add one, write it below and name it here.
comparisons=(size_in_process size_memory plan plan_queries paths trash undo_redo same_names prepare
  devices)

usage() {
  echo "usage: bench/compare.sh BUILD_DIRECTORY [--quick] [COMPARISON…]" >&2
  echo "Comparisons: ${comparisons[*]}" >&2
  exit 2
}

[[ -d ${1:-}/bench ]] || usage
build=$(realpath "$1")
shift
quick=
if [[ ${1:-} == --quick ]]; then
  quick=1
  shift
fi
for name in "$@"; do
  [[ " ${comparisons[*]} " == *" $name "* ]] || usage
done
(($# == 0)) || comparisons=("$@")

if [[ $quick ]]; then
  rounds=2 repetitions=2
  large_tree=20000 small_tree=2000 batch=1000 same_batch=200 device_tree=1000
else
  rounds=7 repetitions=7
  large_tree=200000 small_tree=20000 batch=10000 same_batch=2000 device_tree=10000
fi

tavro=$build/cli/tavro
in_process=$build/bench/tavro_bench
trash_driver=$build/bench/tavro_trash_driver
query_driver=$build/bench/tavro_query_driver
bare_loop=$build/bench/tavro_bare_loop

# No comparison sees the real home directory or wakes a desktop service.
scratch=$(mktemp -d)
other_device=
trap 'rm -rf "$scratch" ${other_device:+"$other_device"}' EXIT
# The directory in other_device is on another file system, where there is one.
if [[ -d /dev/shm && $(stat -c %d /dev/shm) != $(stat -c %d "$scratch") ]]; then
  other_device=$(mktemp -d -p /dev/shm)
fi
export HOME=$scratch/home
mkdir "$HOME"
# shellcheck source=bench/measuring.bash
source "$(dirname "${BASH_SOURCE[0]}")/measuring.bash"

# Makes the tree that the size comparisons share.
need_large_tree() {
  [[ -d $scratch/large ]] || make_tree "$scratch/large" "$large_tree" 400
}

# --- In one process -------------------------------------------------------------------------------

# google_benchmark FILTER: runs benchmarks in random order and keeps their best processor times, in
# nanoseconds, in `best_of`.
declare -A best_of
google_benchmark() {
  local name iterations cpu unit _
  "$in_process" --benchmark_filter="$1" --benchmark_repetitions="$repetitions" \
    --benchmark_enable_random_interleaving=true --benchmark_min_time=0.1 \
    --benchmark_out="$scratch/benchmarks" --benchmark_out_format=csv \
    >"$scratch/stdout" 2>"$scratch/stderr"
  while IFS=, read -r name iterations _ cpu unit _; do
    name=${name//\"/}
    [[ $iterations =~ ^[0-9]+$ && ! $name =~ _(mean|median|stddev|cv)$ ]] || continue
    cpu=$(awk -v t="$cpu" -v u="$unit" 'BEGIN { printf "%.1f", t * (u == "ms" ? 1e6 : 1) }')
    best_of[$name]=$(awk -v a="${best_of[$name]:-1e18}" -v b="$cpu" \
      'BEGIN { printf "%.1f", a < b ? a : b }')
  done < <(grep '^"' "$scratch/benchmarks")
  if ((${#best_of[@]} == 0)) || grep -q ERROR "$scratch/stdout"; then
    cat "$scratch/stdout" "$scratch/stderr" >&2
    exit 1
  fi
}

# per_entry BENCHMARK COUNT: microseconds.
per_entry() {
  awk -v t="${best_of[$1/$2]}" -v n="$2" 'BEGIN { printf "%.2f", t / n / 1000 }'
}

# best_milliseconds BENCHMARK
best_milliseconds() {
  awk -v t="${best_of[$1]}" 'BEGIN { printf "%.1f", t / 1e6 }'
}

size_in_process() {
  local loop
  need_large_tree
  TAVRO_BENCH_TREE=$scratch/large google_benchmark '^size'
  loop=$(best_milliseconds size_of_tree_bare_loop/iterations:1)
  heading "Size of $large_tree files in 400 folders, in one process" module 'bare loop'
  line 'without a hook' "$(best_milliseconds size_of_tree/iterations:1)" "$loop" 1.05 ms
  line 'with a hook' "$(best_milliseconds size_of_tree_with_hook/iterations:1)" "$loop" 1.05 ms
}

paths() {
  local name
  google_benchmark '^(trim|resolve|canonicalize|percent)'
  printf '\nText and paths, nanoseconds a call (paths five folders below a scratch folder)\n'
  for name in trim resolve_relative_text resolve_text_with_tilde canonicalize_existing_path \
    canonicalize_missing_path percent_encode_plain_path percent_encode_every_byte; do
    printf '  %-46s %11s\n' "$name" "${best_of[$name]}"
  done
}

plan() {
  google_benchmark '^plan'
  heading 'Plan: time of one entry' "of 10000" "of 100"
  line 'copy of files into a folder' "$(per_entry plan 10000)" "$(per_entry plan 100)" 1.2 us
}

prepare() {
  google_benchmark '^prepare'
  heading 'Prepare: time of one entry' many few
  line '10000 entries to 1000' "$(per_entry prepare 10000)" "$(per_entry prepare 1000)" 1.3 us
  line '100000 entries to 1000' "$(per_entry prepare 100000)" "$(per_entry prepare 1000)" 1.3 us
}

# --- Whole processes ------------------------------------------------------------------------------

# peak_memory COMMAND…: the largest resident set in kB, the least of a few runs.
peak_memory() {
  local i least=0 peak
  for ((i = 0; i < 5; ++i)); do
    /usr/bin/time -f %M -o "$scratch/peak" "$@" >/dev/null
    peak=$(<"$scratch/peak")
    if ((least == 0 || peak < least)); then least=$peak; fi
  done
  echo "$least"
}

size_memory() {
  heading 'Peak memory of tavro size' "$large_tree" "$small_tree"
  have /usr/bin/time || return 0
  need_large_tree
  [[ -d $scratch/small ]] || make_tree "$scratch/small" "$small_tree" 400
  line 'files in 400 folders' "$(peak_memory "$tavro" size "$scratch/large")" \
    "$(peak_memory "$tavro" size "$scratch/small")" 1.05 kB
}

# queries WHAT: file-system calls an entry. What does not depend on the number of entries is taken
# out by counting twice.
queries() {
  local few many
  few=$(count_calls "$1" 100)
  many=$(count_calls "$1" 600)
  awk -v few="$few" -v many="$many" 'BEGIN { printf "%.2f", (many - few) / 500 }'
}

count_calls() {
  strace -f -qq -e trace=%file -o "$scratch/calls" "$query_driver" "$1" "$2" "$scratch/queries"
  wc -l <"$scratch/calls"
}

plan_queries() {
  local equivalent inside
  heading 'Plan: file-system calls an entry' plan allowed
  have strace || return 0
  mkdir -p "$scratch"/queries/{source,target}
  (cd "$scratch/queries/source" && seq 0 599 | xargs touch)
  equivalent=$(queries equivalent)
  line 'files: two queries and the equivalence test' "$(queries plan-files)" \
    "$(awk -v e="$equivalent" 'BEGIN { print 2 + e }')" 1 ''
  rm -rf "$scratch/queries/source"
  mkdir -p "$scratch/queries/source"
  (cd "$scratch/queries/source" && seq 0 599 | xargs mkdir)
  inside=$(queries inside)
  line 'folders: the containment test besides' "$(queries plan-folders)" \
    "$(awk -v e="$equivalent" -v i="$inside" 'BEGIN { print 2 + e + i }')" 1 ''
  echo "  (equivalence test: $equivalent calls, containment test: $inside calls, for paths of" \
    "$(tr -cd / <<<"$scratch/queries/target/0" | wc -c) components;"
  echo "  making a path canonical looks at each of them)"
}

trash() {
  heading "Trashing $batch files in one batch, whole processes" module peer
  trash_module() {
    fresh_batch
    timed trash_module "$trash_driver" files "${files[@]}"
    expect_trashed "$batch"
  }
  trash_bare() {
    fresh_batch
    timed trash_bare "$bare_loop" files "${files[@]}"
    expect_trashed "$batch"
  }
  trash_gio() {
    fresh_batch
    timed trash_gio gio trash "${files[@]}"
    expect_trashed "$batch"
  }
  if have gio; then
    in_turn trash_module trash_bare trash_gio
    compare 'TavroTrashEntries : gio trash' trash_module trash_gio 0.75
  else
    in_turn trash_module trash_bare
  fi
  compare 'TavroTrashEntries : stat rename open write close' trash_module trash_bare 1.6
}

# The list lives in the process, so the process itself takes these times. They are taken in memory
# where that can be: a redo makes records right after the undo removed as many.
undo_redo() {
  cycle() {
    fresh_batch "$other_device"
    "$2" cycle "${files[@]}" >"$scratch/cycle"
    expect_trashed "$batch"
    local phase cpu elapsed
    while read -r phase cpu elapsed; do
      keep_best "$1_$phase" "$cpu" "$elapsed"
    done <"$scratch/cycle"
  }
  cycle_module() { cycle module "$trash_driver"; }
  cycle_bare() { cycle bare "$bare_loop"; }
  in_turn cycle_module cycle_bare
  heading "Undo and redo of $batch trashed files" module 'bare loop'
  compare 'restore : stat stat rename unlink' module_restore bare_restore -
  compare 'reapply : stat rename open write close' module_reapply bare_reapply -
}

# Files of one name are the worst case of choosing a free name.
same_names() {
  heading "Trashing $same_batch files that are all named x.txt" module gio
  have gio || return 0
  fresh_same() {
    local i
    fresh_home
    files=()
    for ((i = 0; i < same_batch; ++i)); do files+=("$HOME/same/$i/x.txt"); done
    mkdir -p "${files[@]%/*}"
    touch "${files[@]}"
  }
  same_module() {
    fresh_same
    timed same_module "$trash_driver" files "${files[@]}"
    expect_trashed "$same_batch"
  }
  same_gio() {
    fresh_same
    timed same_gio gio trash "${files[@]}"
    expect_trashed "$same_batch"
  }
  local rounds=$(((rounds + 2) / 3))
  in_turn same_module same_gio
  compare 'TavroTrashEntries : gio trash' same_module same_gio -
}

# across NAME FROM TO: moves a tree from the directory FROM into a trash in a home below TO.
across() {
  local name=$1 from=$2/tree to=$3
  across_fresh() {
    fresh_home "$to"
    make_tree "$from" "$device_tree" 100 1000
  }
  across_module() {
    across_fresh
    timed "module $name" "$trash_driver" folders "$from"
    expect_trashed 1
  }
  across_mv() {
    across_fresh
    timed "mv $name" mv "$from" "$HOME/.local/share/Trash/files/"
  }
  local rounds=$(((rounds + 2) / 3)) # making the trees takes longer than moving them
  in_turn across_module across_mv
  compare "$name" "module $name" "mv $name" 1.3
}

devices() {
  heading "Trashing a tree of $device_tree files across devices" module mv
  if [[ ! $other_device ]]; then
    echo '  skipped: /dev/shm is no second file system here'
    return
  fi
  across 'from /dev/shm' "$other_device" "$scratch"
  across 'to /dev/shm' "$scratch" "$other_device"
}

# --------------------------------------------------------------------------------------------------

echo "Processor times, the best of $rounds rounds or $repetitions repetitions; a ratio is the first" \
  "figure through the second."
for name in "${comparisons[@]}"; do "$name"; done
conclude
