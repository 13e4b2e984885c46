#!/usr/bin/env bats
# What an entry costs, in system calls. What does not depend on the number of entries is taken out by
# counting twice.

load helpers

# files COUNT: so many small files in a new directory `many`.
files() {
  rm -rf many
  mkdir many
  (cd many && seq "$1" | xargs -I{} sh -c 'echo {} >file-{}')
}

# calls COUNT COMMAND…: how many system calls the command makes, with so many files in `many`. The
# command is given to a shell.
calls() {
  files "$1"
  strace -f -qq -o "$scratch/calls" bash -c "exec $2" >/dev/null
  wc -l <"$scratch/calls"
}

# costs_at_most CALLS COMMAND: a file more costs the command no more calls than that.
costs_at_most() {
  local few many
  [[ ! ${TAVRO_SANITIZE-} ]] || skip 'a command under sanitizers makes calls of its own'
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
  calls 1 "$2" >"$scratch/first" # the first command creates the history
  few=$(calls 100 "$2")
  many=$(calls 600 "$2")
  awk -v few="$few" -v many="$many" -v most="$1" -v what="$2" 'BEGIN {
    each = (many - few) / 500
    printf "# %.2f calls a file (at most %s): %s\n", each, most, what
    exit each > most || each < 0.9
  }' >&3
}

@test "trashing a file costs five calls, and its share of the history" {
  costs_at_most 5.9 "'$TAVRO' trash -q many/*"
}

@test "a file that nobody touched comes back from the trash by four calls, after the six of trashing it" {
  costs_at_most 10.5 "bash -c \"'$TAVRO' trash -q many/* && '$TAVRO' undo -q\""
}

@test "copying a small file costs at most twelve calls, two for its plan, and its share of the history" {
  costs_at_most 14.5 "'$TAVRO' copy -q many/* \"\$(mktemp -d -p ..)/\""
}

@test "copying a small file in a tree costs at most twelve calls" {
  costs_at_most 12 "'$TAVRO' copy -q many \"\$(mktemp -d -p ..)/\""
}

@test "deleting a file in a tree costs one call, and its share of the listing" {
  costs_at_most 1.1 "'$TAVRO' delete -f many"
}

@test "measuring a file costs one call, and its share of the listing" {
  costs_at_most 1.1 "'$TAVRO' size many"
}
