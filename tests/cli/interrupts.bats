#!/usr/bin/env bats
# Signals come at a chosen system call, so nothing here depends on time.

load helpers

# at CALLS SIGNAL WHEN COMMAND…: runs the command, to which the signal comes as it makes one of the
# calls for the WHENth time ("3+": and each time after that). How it ended is in $ending.
at() {
  local calls=$1 signal=$2 when=$3 status=0
  shift 3
  env --default-signal=INT,TERM,HUP ASAN_OPTIONS=detect_leaks=0 \
    strace -o "$scratch/calls" -e "trace=$calls" -e "inject=$calls:signal=$signal:when=$when" "$@" ||
    status=$?
  return "$status"
}

# How the command ended: "exited with 130", "killed by SIGINT".
ending() {
  sed -n '$ s/^+++ \(.*\) +++$/\1/p' "$scratch/calls"
}

needs_strace() {
  command -v strace >/dev/null || skip 'strace is not installed'
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
}

# For signals that come at the call of a number.
needs_own_calls_alone() {
  [[ ! ${TAVRO_SANITIZE-} ]] || skip 'a command under sanitizers makes calls of its own'
}

needs_python() {
  command -v python3 >/dev/null || skip 'python3 is not installed'
}

on_own_terminal() { # TEXT KEYS COMMAND…
  timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" "$@"
}

@test "an interrupted delete says what is left, and exits with 128 and the signal" {
  needs_strace
  for signal in INT:130 TERM:143 HUP:129; do
    mkdir d
    touch d/{1..5}
    run --separate-stderr at unlinkat "${signal%:*}" 3 "$TAVRO" delete -f d
    expect "$(ending)" "exited with ${signal#*:}"
    expect "$stderr" "tavro: Interrupted: what is left of '$PWD/d' was kept, and so was every entry after it"
    expect "$(find d -type f | wc -l)" 2
    rm -r d
  done
}

@test "a terminal that closes twice ends it no less cleanly, and a second Ctrl-C at once" {
  needs_own_calls_alone
  needs_strace
  mkdir d e
  touch {d,e}/{1..5}
  run --separate-stderr at unlinkat,write HUP 3+ "$TAVRO" delete -f d
  expect "$(ending)" 'exited with 129'
  [[ $stderr == *Interrupted* ]]
  run --separate-stderr at unlinkat,write INT 1+ "$TAVRO" delete -f e
  expect "$(ending)" 'killed by SIGINT'
}

@test "a signal that was ignored at the start stays ignored" {
  needs_strace
  for signal in INT TERM HUP; do
    mkdir d
    touch d/{1..5}
    run -0 env --default-signal=INT,TERM,HUP --ignore-signal="$signal" \
      ASAN_OPTIONS=detect_leaks=0 strace -o "$scratch/calls" -e trace=unlinkat \
      -e "inject=unlinkat:signal=$signal:when=3" "$TAVRO" delete -f d
    grep -q "^--- SIG$signal " "$scratch/calls"
    [ ! -e d ]
  done
}

@test "an interrupted trash puts back what it took" {
  needs_strace
  touch a b c
  run --separate-stderr at renameat2 INT 2 "$TAVRO" trash a b c
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Cancelled'
  expect "$(ls)" $'a\nb\nc'
  expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" ''
  run -1 tavro undo
}

@test "an interrupted undo changes nothing" {
  needs_strace
  touch a b c
  tavro trash a b c
  run --separate-stderr at renameat2 INT 2 "$TAVRO" undo
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Cancelled'
  expect "$(ls)" ''
  run -0 tavro undo
  expect "$(ls)" $'a\nb\nc'
}

@test "an interrupted restore leaves the rest in the trash" {
  needs_strace
  touch a b c
  tavro trash a b c
  run --separate-stderr at renameat2 INT 2 "$TAVRO" restore a b c
  expect "$(ending)" 'exited with 130'
  expect "$(ls; ls "$HOME/.local/share/Trash/files")" $'a\nb\nc'
}

@test "an interrupted empty leaves the rest, and says so" {
  needs_strace
  touch a b c
  tavro trash a b c
  run --separate-stderr at unlinkat INT 2 "$TAVRO" empty -f
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Cancelled'
  expect "$(ls "$HOME/.local/share/Trash/files" | wc -l)" 2
}

@test "an interrupted move puts back what it has moved" {
  needs_strace
  mkdir d
  touch a b c
  run --separate-stderr at renameat2 INT 2 "$TAVRO" move a b c d
  expect "$(ending)" 'exited with 130'
  expect "$output" ''
  expect "$stderr" 'tavro: Interrupted: everything is as it was'
  expect "$(ls)" $'a\nb\nc\nd'
  expect "$(ls d)" ''
}

@test "an interrupted move that has deleted what it replaced leaves what is done" {
  needs_strace
  mkdir d
  for name in a b; do
    echo new >$name
    echo old >d/$name
  done
  run --separate-stderr at renameat2 INT 1 "$TAVRO" move a b d --no-keep --on-conflict overwrite
  expect "$(ending)" 'exited with 130'
  expect "$output" "Moved $PWD/a -> $PWD/d/a
What was replaced is deleted; this cannot be undone"
  expect "$stderr" 'tavro: Interrupted: what is listed is done'
  expect "$(cat d/a b d/b)" $'new\nnew\nold'
  run -0 tavro undo
  expect "$(cat a)" new
  expect "$(ls -A d)" b
}

@test "an interrupted move takes back itself, and nothing that was done meanwhile" {
  needs_strace
  mkdir d
  touch a b c x
  mkfifo log
  env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 strace -f -qq -o log -e trace=renameat2 \
    -e inject=renameat2:signal=STOP:when=2 "$TAVRO" move a b c d >out 2>errors 3>&- &
  tracer=$!
  while read -r line; do
    if [[ $line == *'stopped by SIGSTOP'* ]]; then
      tavro trash -q x
      kill -INT "${line%% *}"
      kill -CONT "${line%% *}"
      cat >/dev/null # the tracer must not wait for its reader
    fi
  done <log
  status=0
  wait "$tracer" || status=$?
  expect "$status" 130
  expect "$(cat errors)" 'tavro: Interrupted: everything is as it was'
  expect "$(ls d)" ''
  expect "$(cat out)" ''
  expect "$(ls "$HOME/.local/share/Trash/files")" x
}

@test "an interrupted move that the history does not have takes nothing older back" {
  needs_strace
  mkdir d
  touch a b c x
  tavro trash -q x
  run --separate-stderr env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 \
    strace -o "$scratch/calls" -e trace=renameat2 -e inject=renameat2:signal=INT:when=2 \
    "$TAVRO" move --no-history a b c d
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Interrupted: what is listed is done'
  expect "$(ls "$HOME/.local/share/Trash/files")" x
  expect "$(ls d)" $'a\nb'
}

@test "an interrupted copy leaves nothing half done" {
  needs_strace
  mkdir src
  touch src/{1..4}
  run --separate-stderr at fchmod INT 2 "$TAVRO" copy src dst
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Interrupted: everything is as it was'
  expect "$(ls -A)" src
  run -1 tavro undo
}

@test "an interrupted size or list is told from a whole one" {
  needs_strace
  mkdir -p d/{1..5}
  run --separate-stderr at getdents64 INT 3 "$TAVRO" size d
  expect "$(ending)" 'exited with 130'
  expect "$output" $'0 (partial)\td'
  touch a b c
  tavro trash a b c
  run --separate-stderr at getdents64 INT 1 "$TAVRO" list
  expect "$(ending)" 'exited with 130'
  expect "$stderr" 'tavro: Cancelled'
}

@test "an interrupt that comes after everything was done is none" {
  needs_own_calls_alone
  needs_strace
  touch a
  for act in 'trash a' undo 'move a b' 'rename b a' 'copy a c' 'delete -f a' 'mkdir d'; do
    # shellcheck disable=SC2086 # words
    run --separate-stderr at write INT 1 "$TAVRO" $act
    expect "$(ending)" 'exited with 0'
    expect "$stderr" ''
    [ -n "$output" ]
  done
  touch a
  run at renameat2 INT 1 "$TAVRO" trash a
  expect "$(ending)" 'exited with 0'
  run at renameat2 INT 1 "$TAVRO" undo
  expect "$(ending)" 'exited with 0'
  run at unlinkat INT 1 "$TAVRO" delete -f a
  expect "$(ending)" 'exited with 0'
}

@test "Ctrl-C at a question ends the command at once" {
  needs_python
  touch a b
  run -130 on_own_terminal '[y/N]' '\x03' "$TAVRO" delete a
  [[ $output == *'Nothing was deleted'* ]]
  [ -e a ]
  run -130 on_own_terminal 'for all ' '\x03' "$TAVRO" copy a b
  [[ $output == *Interrupted* ]]
  tavro trash -q a
  run -130 on_own_terminal '[y/N]' '\x03' "$TAVRO" empty
  touch a
  run -130 on_own_terminal '[y/N]' '\x03' "$TAVRO" restore a
  expect "$(ls "$HOME/.local/share/Trash/files")" a
}

@test "a signal between a question and the wait for its answer ends it, too" {
  needs_own_calls_alone
  needs_python
  needs_strace
  touch a
  for call in write:1 write:2 rt_sigprocmask:1 ppoll:1; do
    run -130 on_own_terminal '' '' env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 \
      strace -o "$scratch/calls" -e "trace=${call%:*}" \
      -e "inject=${call%:*}:signal=INT:when=${call#*:}" "$TAVRO" delete a
    grep -q '^--- SIGINT' "$scratch/calls"
    [ -e a ]
  done
}

@test "output that waits for its reader is not cut by a signal" {
  needs_own_calls_alone
  needs_strace
  touch {1..400}
  tavro trash -q {1..400}
  mkfifo pipe log
  exec {both}<>pipe
  dd if=/dev/zero of=pipe bs=4096 oflag=nonblock 2>"$scratch/dd" || :
  exec {full}<pipe {both}>&-
  env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 strace -o log -e trace=write \
    -e inject=write:signal=INT:when=1 "$TAVRO" list -0 >pipe &
  pid=$!
  # Only when the signal has come while nothing can be written is room made.
  while read -r line; do
    if [[ $line == *SIGINT* ]]; then
      exec {rest}<&"$full" {full}<&-
      tr -d '\0\n' <&"$rest" >"$scratch/read" &
    fi
  done <log
  status=0
  wait "$pid" || status=$?
  wait
  expect "$status" 0
  expect "$(wc -c <"$scratch/read")" 1092
}

@test "a limit on the size of files is a clear failure" {
  head -c 100000 /dev/zero >big
  run -1 --separate-stderr bash -c 'ulimit -f 8; "$TAVRO" copy big copy'
  expect "$stderr" "tavro: Cannot copy '$PWD/big': File too large"
  expect "$(ls -A)" big
}
