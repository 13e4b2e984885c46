#!/usr/bin/env bats
# How often a command on one entry waits for the disk, on file systems of its own.

load helpers

# In this order each of them has something to do. Before it, how often it may wait on a file system with
# an ordered log.
commands=(
  '3 mkdir d' '3 undo' '3 redo'
  '3 rename a b' '3 undo' '3 redo'
  '3 rename b new/a' '3 undo' '3 redo'
  '3 trash new/a' '3 undo' '3 redo'
  '3 restore a' '3 history --drop'
  '3 copy new/a c' '3 undo' '3 redo'
  '3 move c e' '3 undo' '3 redo'
  '3 copy new/a e --on-conflict overwrite' '3 undo' '3 redo'
  '3 move new/a e --on-conflict overwrite' '3 undo' '3 redo'
  '3 copy e d/'
  '3 copy d f' '3 undo' '3 redo'
  '3 copy d/e e --on-conflict overwrite --no-keep'
  '3 delete -f d/e'
  '3 trash e' '3 empty -f'
)

needs_own_disk() { # FILE-SYSTEM
  [ "$EUID" -eq 0 ] || skip 'only root can mount a file system'
  unshare -m true || skip 'no mount namespace may be made here'
  command -v "mkfs.$1" >/dev/null || skip "mkfs.$1 is not installed"
  command -v strace >/dev/null || skip 'strace is not installed'
  export ASAN_OPTIONS=detect_leaks=0 # which is not for processes that are traced
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
}

# Runs the commands below the current directory, where the home is, too. Prints how often each waited,
# how often for the log of the history to be emptied, which happens once in many commands, and what its
# limit is. The history and the trash are there already: they are created once.
run_all() {
  local act
  export HOME=$PWD/home
  mkdir home here
  cd here || return 1
  touch a
  "$TAVRO" trash -q a
  "$TAVRO" empty -qf
  "$TAVRO" history --drop >/dev/null
  echo text >a
  for act in "${commands[@]}"; do
    # shellcheck disable=SC2086 # words
    strace -f -y -qq -o "$scratch/waits" \
      -e trace=fsync,fdatasync,syncfs,sync,sync_file_range,msync "$TAVRO" ${act#* } \
      >"$scratch/output" 2>&1 || {
      echo "failed: $act: $(<"$scratch/output")"
      return 1
    }
    awk -v act="$act" '/fdatasync.*state\/tavro/ { log_waits++; next } { waits++ }
      END { print waits + 0, log_waits + 0, act }' "$scratch/waits"
  done
}

# The same on a new file system of this kind, in a namespace of its own.
on_disk() { # FILE-SYSTEM
  local kind=$1 status=0
  needs_own_disk "$kind"
  truncate -s 400M "$scratch/image"
  "mkfs.$kind" -q "$scratch/image" >&2
  mkdir "$scratch/disk"
  export scratch
  unshare -m bash -c "$(declare -p commands); $(declare -f run_all)"'
    mount -o loop "$scratch/image" "$scratch/disk" || { echo "cannot mount"; exit 77; }
    cd "$scratch/disk" && run_all' >"$scratch/counts" || status=$?
  [ "$status" -ne 77 ] || skip "no $kind can be mounted here"
  expect "$status $(grep failed "$scratch/counts")" '0 '
  expect "$(wc -l <"$scratch/counts")" "${#commands[@]}"
}

# waits_are LEAST MORE: each of the commands has waited at least so often, and at most that often more
# than it may on a file system with an ordered log; the log was emptied now and then.
waits_are() {
  local count log limit act wrong='' emptied=0
  while read -r count log limit act; do
    printf '# %s waits, %s for the log: %s\n' "$count" "$log" "$act" >&3
    ((emptied += log > 0)) || :
    [[ $count -ge $1 && $count -le $((limit + $2)) && $log -le 4 ]] || wrong+="$count waits: $act; "
  done <"$scratch/counts"
  ((emptied * 5 <= ${#commands[@]})) || wrong+="the log was emptied $emptied times"
  expect "$wrong" ''
}

@test "on ext4, one entry waits for the disk three times at most" {
  on_disk ext4
  waits_are 1 0
}

@test "on XFS, one entry waits for the disk three times at most" {
  on_disk xfs
  waits_are 1 0
}

@test "on btrfs, where an fsync is for its own file alone, there are up to three waits more" {
  on_disk btrfs
  waits_are 1 3
}

@test "nothing waits for the disk when the environment says so" {
  export TAVRO_SYNC=no
  on_disk ext4
  expect "$(awk '$1 + $2 > 0' "$scratch/counts")" ''
}
