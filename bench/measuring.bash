# What the benchmarks share: contestants that take turns, figures, trees and homes. Sourced by
# compare.sh and command.sh, which set `rounds`, `batch` and `scratch`.
#
# The ratio of a line is taken of the processor time (user and system), which other work on the machine
# hardly changes; the best elapsed times stand beside it.
# shellcheck shell=bash disable=SC2154 # the three are set by whoever sources this

export LC_ALL=C GIO_USE_VFS=local TAVRO_TRASH=home # what is across devices is copied
unset XDG_DATA_HOME XDG_STATE_HOME XDG_RUNTIME_DIR DBUS_SESSION_BUS_ADDRESS DISPLAY WAYLAND_DISPLAY

over=0
shopt -s nullglob

fail() {
  echo "$1" >&2
  exit 1
}

# --- Measuring ------------------------------------------------------------------------------------

# The best processor and elapsed times of each contestant, in microseconds.
declare -A best_cpu best_elapsed

# keep_best NAME CPU ELAPSED: keeps the times when they are the best so far.
keep_best() {
  (($2 >= ${best_cpu[$1]:-$2 + 1})) || best_cpu[$1]=$2
  (($3 >= ${best_elapsed[$1]:-$3 + 1})) || best_elapsed[$1]=$3
}

# timed NAME COMMAND…: runs the command as a process of its own. One that fails ends everything.
timed() {
  local name=$1 TIMEFORMAT='%R %U %S' status=0 elapsed user system
  shift
  { time "$@" >"$scratch/stdout" 2>"$scratch/stderr"; } 2>"$scratch/time" || status=$?
  if ((status)); then
    echo "Failed with $status: ${*:1:3} …" >&2
    cat "$scratch/stderr" >&2
    exit 1
  fi
  read -r elapsed user system <"$scratch/time"
  keep_best "$name" $((10#${user/./}000 + 10#${system/./}000)) $((10#${elapsed/./}000))
}

# in_turn CONTESTANT…: lets the functions take turns; each prepares its round and calls `timed`.
in_turn() {
  local round contestant
  for ((round = 0; round < rounds; ++round)); do
    for contestant in "$@"; do "$contestant"; done
  done
}

# --- Printing -------------------------------------------------------------------------------------

heading() {
  printf '\n%s\n' "$1"
  printf '  %-46s %11s %11s %7s %7s  %s\n' '' "$2" "$3" ratio bound "${4:-}"
}

# line LABEL FIGURE FIGURE BOUND UNIT [REMARK]: one row. A bound of - means that there is none.
line() {
  local ratio verdict=''
  ratio=$(awk -v a="$2" -v b="$3" 'BEGIN { printf "%.3f", (b == 0) ? 0 : a / b }')
  if [[ $4 != - ]]; then
    verdict=OK
    if awk -v r="$ratio" -v b="$4" 'BEGIN { exit !(r > b) }'; then
      verdict=over
      over=1
    fi
  fi
  printf '  %-46s %11s %11s %7s %7s  %-4s %s\n' "$1" "$2 $5" "$3 $5" "$ratio" "$4" "$verdict" \
    "${6:-}"
}

# compare LABEL CONTESTANT PEER BOUND: the row of two contestants that were timed.
compare() {
  local ours theirs elapsed
  ours=$(milliseconds "${best_cpu[$2]}")
  theirs=$(milliseconds "${best_cpu[$3]}")
  elapsed="elapsed $(milliseconds "${best_elapsed[$2]}") : $(milliseconds "${best_elapsed[$3]}")"
  line "$1" "$ours" "$theirs" "$4" ms "$elapsed"
}

milliseconds() {
  awk -v us="$1" 'BEGIN { printf "%.1f", us / 1000 }'
}

# Whether a peer is there. One that is not is said to be missing, not passed over.
have() {
  command -v "$1" >/dev/null && return
  echo "  skipped: $1 is not installed"
  return 1
}

# --- Trees and homes ------------------------------------------------------------------------------

# make_files FOLDER COUNT [BYTES]: COUNT small files in a new folder.
make_files() {
  mkdir -p "$1"
  head -c "$(($2 * ${3:-100}))" /dev/zero | split -b "${3:-100}" -a 4 - "$1/file-"
}

# make_tree FOLDER COUNT FOLDERS [BYTES]: COUNT small files, evenly in so many folders.
make_tree() {
  local i
  for ((i = 0; i < $3; ++i)); do make_files "$1/folder-$i" $(($2 / $3)) "${4:-100}"; done
}

# fresh_home [FOLDER]: a new home directory below the folder, with an empty trash. The old ones stay:
# ext4 makes files slowly where many were removed a moment ago, whoever makes them.
fresh_home() {
  HOME=$(mktemp -d -p "${1:-$scratch}" home-XXXXXX)
  mkdir -p "$HOME/.local/share/Trash/files" "$HOME/.local/share/Trash/info"
  chmod 700 "$HOME/.local/share/Trash"
}

# fresh_batch [FOLDER]: a new home below the folder, with files in it, which are in `files`. What the
# round before trashed there is the batch of this one.
declare -A batch_folder
fresh_batch() {
  local where=${1:-$scratch}
  local last=${batch_folder[$where]:-$where/batch}
  [[ -d $last ]] || make_files "$last" "$batch"
  fresh_home "$where"
  mv "$last" "$HOME/batch"
  batch_folder[$where]=$HOME/.local/share/Trash/files
  files=("$HOME"/batch/*)
  ((${#files[@]} == batch)) || fail "The batch holds ${#files[@]} files, not $batch"
}

# expect_trashed N: the trash holds N entries with N records.
expect_trashed() {
  local trash=$HOME/.local/share/Trash entries records
  entries=("$trash"/files/*)
  records=("$trash"/info/*.trashinfo)
  ((${#entries[@]} == $1 && ${#records[@]} == $1)) ||
    fail "The trash holds ${#entries[@]} entries and ${#records[@]} records, not $1"
}

# Prints the verdict and ends with its exit code.
conclude() {
  echo
  ((over == 0)) && echo 'All ratios keep their bounds.' && exit
  echo 'Some ratios are over their bounds.'
  exit 1
}
