#!/usr/bin/env bats
# What was interrupted is listed, taken back or gone on with; what a command waits for.

load helpers

needs_python() {
  command -v python3 >/dev/null || skip 'python3 is not installed'
}

# killed_at CALL WHEN COMMAND…: the command is killed as it makes the call for the WHENth time.
killed_at() {
  local call=$1 when=$2 status=0
  shift 2
  strace -qq -o "$scratch/calls" -e "trace=$call" -e "inject=$call:signal=KILL:when=$when" "$@" \
    >/dev/null || status=$?
  expect "$status" 137
}

# syncs COMMAND…: how often the command waits for the disk.
syncs() {
  strace -f -qq -o "$scratch/syncs" -e trace=fsync,fdatasync,syncfs,sync,sync_file_range "$@" \
    >/dev/null
  wc -l <"$scratch/syncs"
}

# Begins to write to a database, and goes on with that until its input ends.
readonly holding='
import sqlite3, sys
connection = sqlite3.connect(sys.argv[1], isolation_level=None)
connection.execute("BEGIN IMMEDIATE")
print("held", flush=True)
sys.stdin.read()
'

@test "a killed trash is listed, and undo brings back what it took" {
  needs_strace
  touch a b c
  killed_at renameat2 2 "$TAVRO" trash a b c
  run -0 tavro history
  expect "${output#*  *  }" "trash  $PWD/a and 2 more  (interrupted, 1 of 3 done)"
  run -0 tavro history --json
  [[ $output == *'"interrupted": true'* ]]
  run -0 tavro undo
  expect "$output" "Undone: trash
  $PWD/a"
  expect "$(ls)" $'a\nb\nc'
  expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" ''
  run -1 tavro undo
  expect "$output" 'tavro: Nothing to undo'
}

@test "a killed copy of a link or a pipe is listed, and undo or resume leaves nothing hidden" {
  needs_strace
  mkdir d
  ln -s nowhere link
  mkfifo pipe
  for one in link pipe; do
    killed_at utimensat 1 "$TAVRO" copy "$one" d/
    [[ $(ls -A d) == .tavro-* ]]
    run -0 tavro history
    [[ ${lines[0]#*  *  } == "copy  $PWD/$one -> $PWD/d/$one  (interrupted, 0 of 1 done)" ]]
    tavro undo
    expect "$(ls -A d)" ''
    killed_at utimensat 1 "$TAVRO" copy "$one" d/
    tavro resume
    expect "$(ls -A d)" "$one"
    rm "d/$one"
  done
}

@test "what a killed --no-keep was about to delete is brought back by undo, and kept by resume" {
  needs_strace
  mkdir d
  for verb in copy move; do
    for next in undo resume; do
      echo new >a
      echo old >d/a
      killed_at unlinkat 1 "$TAVRO" "$verb" --no-keep --on-conflict overwrite a d/
      [[ $(ls -A d) == .tavro-*a ]]
      tavro "$next"
      expect "$(ls -A d)" a
      if [[ $next == undo ]]; then
        expect "$(cat a d/a)" $'new\nold'
      else
        expect "$(cat d/a)" new
        tavro undo
        expect "$(cat a d/a)" $'new\nold'
      fi
      expect "$(tavro doctor)" 'The trash is in order'
    done
  done
}

@test "a directory that a killed --no-keep was deleting goes to the trash, and does not come back" {
  needs_strace
  mkdir -p d/a/b
  touch d/a/b/c d/e
  echo new >a
  on_terminal "strace -qq -o /dev/null -e trace=unlinkat -e inject=unlinkat:signal=KILL:when=1 \
    '$TAVRO' copy --no-keep a d/" o || true
  [[ -f d/a ]]
  run -0 tavro undo
  expect "$(ls -A d)" e
  [[ -f $HOME/.local/share/Trash/files/a/b/c ]]
  expect "$(tavro doctor)" 'The trash is in order'
}

@test "a resumed copy does not replace what it has put there itself" {
  needs_strace
  mkdir -p a b d
  echo 1 >a/f
  echo 2 >b/f
  run -1 tavro copy --on-conflict overwrite a/f b/f d/
  expect "$output" "tavro: Cannot replace '$PWD/d/f': this command has just put it there
Copied $PWD/a/f -> $PWD/d/f"
  rm d/f
  echo old >d/f
  killed_at renameat2 2 "$TAVRO" copy --on-conflict overwrite a/f b/f d/
  expect "$(cat d/f)" 1
  run -1 tavro resume
  [[ $output == "tavro: Cannot replace '$PWD/d/f': this command has just put it there"* ]]
  expect "$(cat d/f)" 1
  tavro undo
  expect "$(cat d/f)" old
}

@test "a killed delete is listed, is not undone, and is finished by resume" {
  needs_strace
  mkdir -p tree/a tree/b
  touch kept
  tavro mkdir older
  killed_at unlinkat 2 "$TAVRO" delete -f tree
  [[ -d tree ]]
  run -0 tavro history
  [[ ${lines[0]#*  *  } == "delete  $PWD/tree  (interrupted, 0 of 1 done)" ]]
  run -1 tavro undo
  expect "$output" "tavro: Cannot be undone: 2 delete $PWD/tree: \
The deletion of '$PWD/tree' was interrupted and cannot be undone: \
'tavro resume' finishes it, 'tavro history --drop' keeps what is left
tavro: With --skip this is undone instead: 1 mkdir $PWD/older"
  run -0 tavro resume
  expect "$output" "Finished: delete
  $PWD/tree"
  expect "$(ls)" $'kept\nolder'
  run -0 --separate-stderr tavro undo --skip
  expect "$output" "Undone: mkdir
  $PWD/older"
}

@test "a record that a killed merge has claimed goes when that is settled, and no older one" {
  needs_strace
  needs_python
  mkdir -p t dst/t
  echo new >t/a
  echo old >dst/t/a
  touch b
  tavro trash -q b
  tavro restore -q b
  info=$HOME/.local/share/Trash/info
  killed_at syncfs 1 "$TAVRO" copy --on-conflict overwrite t dst/
  [ -e "$info/a.trashinfo" ]
  printf '[Trash Info]\nPath=%s\nDeletionDate=2024-03-05T14:07:09\n' "$PWD/dst/t/b" >"$info/b.trashinfo"
  touch -d '1 hour ago' "$info/b.trashinfo"
  touch -d '5 seconds ago' "$info/a.trashinfo"
  python3 -c 'import sqlite3, sys
connection = sqlite3.connect(sys.argv[1])
connection.execute("UPDATE operation SET time = time - 60")
connection.commit()' "$HOME/.local/state/tavro/history.db"
  run -0 tavro undo
  expect "$(ls "$info")" b.trashinfo
  expect "$(cat dst/t/a)" old
  expect "$(ls -A dst/t)" a
}

@test "what was restored and trashed again is not what a killed empty was to delete" {
  needs_strace
  mkdir a b
  touch a/x b/y
  tavro trash -q a b
  killed_at unlinkat 1 "$TAVRO" empty -f
  tavro restore -q b
  tavro trash -q b
  touch -d '2020-01-01' "$HOME/.local/share/Trash/info/b.trashinfo"
  run -0 tavro resume
  expect "$(tavro list -0 | tr '\0' ' ')" 'b '
}

@test "a file that was changed since is not deleted when a killed delete is gone on with" {
  needs_strace
  touch a b
  killed_at unlinkat 1 "$TAVRO" delete -f a b
  touch b
  run -1 tavro resume
  expect "$output" "tavro: '$PWD/b' may be another entry by now and was left alone"
  [ -e b ]
  tavro history --drop
}

@test "a killed empty is listed, and finished by resume" {
  needs_strace
  for options in -f -fq; do
    touch a b c
    tavro trash a b c
    tavro history --drop >/dev/null
    killed_at unlinkat 3 "$TAVRO" empty "$options"
    run -0 tavro history
    [[ $output == *'  empty  '*"  (interrupted, "?" of "?" done)" ]]
    run -1 tavro undo
    [[ $output == *"was interrupted and cannot be undone"* ]]
    touch "$HOME/.local/share/Trash/info/x.trashinfo"
    run -0 tavro resume
    [[ $output == 'Finished: empty'* ]]
    expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" "$HOME/.local/share/Trash/info/x.trashinfo"
    run -0 tavro history
    [[ $output == *'  empty  '*": A deletion is final)" ]]
    tavro history --drop
  done
}

@test "resume finishes a killed trash, which can be undone then" {
  needs_strace
  touch a b c
  killed_at renameat2 2 "$TAVRO" trash a b c
  run -0 tavro resume
  expect "$(ls)" ''
  expect "$(ls "$HOME/.local/share/Trash/files")" $'a\nb\nc'
  run -0 tavro history
  [[ $output != *interrupted* ]]
  run -1 tavro resume
  expect "$output" 'tavro: Nothing was interrupted'
  run -0 tavro undo
  expect "$(ls)" $'a\nb\nc'
}

@test "a killed undo is listed, and goes on either way" {
  needs_strace
  for next in undo resume; do
    touch a b c
    tavro trash -q a b c
    killed_at renameat2 2 "$TAVRO" undo
    run -0 tavro history
    [[ $output == *"(interrupted, 1 of 3 undone)" ]]
    run -0 tavro "$next"
    expect "$(ls)" $'a\nb\nc'
    run -0 tavro history
    [[ $output == *'(undone)' ]]
  done
}

@test "a killed restore goes on, or back to the trash" {
  needs_strace
  for next in undo resume; do
    mkdir d
    touch d/a
    tavro trash -q d/a
    rmdir d
    killed_at unlinkat 1 "$TAVRO" restore a
    [ -e d/a ]
    run -0 tavro history
    [[ $output == *restore*'(interrupted, 1 of 1 done)'* ]]
    run -0 tavro "$next"
    [[ $output == 'Undone: restore'* || $output == 'Finished: restore'* ]]
    if [[ $next == undo ]]; then
      [ ! -e d ]
      expect "$(ls "$HOME/.local/share/Trash/files")" a
      run -0 tavro restore a
    fi
    [ -e d/a ]
    expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" ''
    run -0 tavro history
    [[ $output != *restore* ]]
    rm -r d
  done
}

@test "nothing waits for the disk with --no-sync, or when the environment says so" {
  needs_strace
  touch a b c d
  mkdir e
  tavro mkdir -- warm >/dev/null
  for act in 'trash a' 'rename b b2' 'mkdir m/n' 'restore a' 'delete -f c' undo 'trash d' 'empty -f'; do
    # shellcheck disable=SC2086 # words
    expect "$act: $(syncs "$TAVRO" $act --no-sync)" "$act: 0"
  done
  touch a
  expect "$(TAVRO_SYNC=no syncs "$TAVRO" trash a)" 0
}

@test "one entry waits for the disk at most three times, and never in vain" {
  needs_strace
  case $(stat -f -c %T .) in
  ext2/ext3 | xfs) ;;
  *) skip "the temporary directory is on $(stat -f -c %T .), not on ext4 or XFS" ;;
  esac
  touch a b c d
  tavro mkdir warm >/dev/null
  local count
  for act in 'trash a' undo redo 'restore a' 'rename b b2' undo redo 'rename b2 new/b' undo 'mkdir m' \
    'mkdir n/o' undo 'delete -f c' 'trash d' 'empty -f'; do
    # shellcheck disable=SC2086 # words
    count=$(syncs "$TAVRO" $act)
    printf '# %s syncs: %s\n' "$count" "$act" >&3
    [[ $count -ge 1 && $count -le 3 ]]
  done
}

@test "a command says after a second that it waits for another process, and Ctrl-C ends that" {
  needs_python
  touch a b
  tavro trash -q b
  coproc holder { python3 -c "$holding" "$HOME/.local/state/tavro/history.db" 3>&-; }
  local id=$holder_PID end=${holder[1]} line status=0
  read -r line <&"${holder[0]}"
  expect "$line" held
  mkfifo "$scratch/errors"
  env --default-signal=INT ASAN_OPTIONS=detect_leaks=0 "$TAVRO" trash a 2>"$scratch/errors" 3>&- &
  pid=$!
  read -r line <"$scratch/errors"
  expect "$line" 'tavro: Waiting for another process that is writing to the history'
  kill -INT "$pid"
  wait "$pid" || status=$?
  expect "$status" 130
  expect "$(ls)" a
  expect "$(find "$HOME/.local/share/Trash" -name "a*")" ""
  run -0 tavro history # who reads does not wait
  exec {end}>&-
  wait "$id" || :
  run -0 tavro undo
  expect "$(ls)" $'a\nb'
}

@test "what another process is at is waited for, and not taken for interrupted" {
  needs_strace
  touch a b c
  mkfifo "$scratch/log"
  strace -f -qq -o "$scratch/log" -e trace=renameat2 -e inject=renameat2:signal=STOP:when=2 \
    "$TAVRO" trash a b c >/dev/null 3>&- &
  tracer=$!
  local line
  while read -r line; do
    if [[ $line == *'stopped by SIGSTOP'* ]]; then
      run -0 tavro history
      first=$output
      run -0 --separate-stderr tavro list
      run -1 tavro history --drop
      dropped=$output
      run env --default-signal=INT timeout --signal=INT 2 "$TAVRO" undo
      second=$output
      stopped=$status
      kill -CONT "${line%% *}"
      cat >/dev/null # the tracer must not wait for its reader
    fi
  done <"$scratch/log"
  wait "$tracer"
  [[ $first == *'(in progress, '[12]' of 3 done)' ]]
  expect "$dropped" 'tavro: Another process is still working on the newest operation'
  [[ $second == *'Waiting for another process to finish the newest operation'* ]]
  expect "$stopped" 124
  expect "$(ls)" ''
  run -0 tavro undo
  expect "$(ls)" $'a\nb\nc'
}

# late_at SIGNAL COMMAND…: the signal comes while the second file is copied, and more than a second
# has been spent on the first.
late_at() {
  local signal=$1
  shift
  env --default-signal=INT,TERM,HUP ASAN_OPTIONS=detect_leaks=0 \
    strace -qq -o "$scratch/calls" -e trace=utimensat,flistxattr \
    -e inject=utimensat:delay_enter=1100000:when=1 \
    -e "inject=flistxattr:signal=$signal:when=2" "$@"
}

@test "what a long copy has done is kept when it is told to end, and resume goes on" {
  needs_strace
  mkdir src dst
  for name in a b c d; do echo "$name" >"src/$name"; done
  for signal in TERM:143 HUP:129; do
    run --separate-stderr late_at "${signal%:*}" "$TAVRO" copy src/{a,b,c,d} dst
    expect "$status" "${signal#*:}"
    expect "$output" "Copied $PWD/src/a -> $PWD/dst/a
Copied $PWD/src/b -> $PWD/dst/b"
    expect "$stderr" "tavro: Interrupted: what is listed is done; 'tavro resume' continues, 'tavro undo' takes it back"
    expect "$(ls -A dst)" $'a\nb'
    run -0 tavro history
    [[ $output == *'(interrupted, 2 of 4 done)'* ]]
    inode=$(stat -c %i dst/a)
    run -0 tavro resume
    expect "$(ls -A dst)" $'a\nb\nc\nd'
    expect "$(cat dst/*)" $'a\nb\nc\nd'
    expect "$(stat -c %i dst/a)" "$inode"
    run -0 tavro undo
    expect "$(ls -A dst)" ''
  done
}

@test "an interrupted long copy is undone where nobody can be asked" {
  needs_strace
  mkdir src dst
  touch src/{a,b,c,d}
  run --separate-stderr late_at INT "$TAVRO" copy src/{a,b,c,d} dst
  expect "$status" 130
  expect "$stderr" 'tavro: Interrupted: everything is as it was'
  expect "$(ls -A dst)" ''
  run -1 tavro resume
}

@test "a person is asked whether an interrupted long copy is kept" {
  needs_strace
  needs_python
  mkdir src dst
  touch src/{a,b,c,d}
  asked() { # KEYS
    run timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" 'or [r]emove it? ' "$1" \
      bash -c "$(declare -f late_at); late_at INT \"\$TAVRO\" copy src/{a,b,c,d} dst"
  }
  export scratch TAVRO
  for keys in 'r\n' '\x03'; do
    asked "$keys"
    expect "$status" 130
    [[ $output == *"Interrupted: everything is as it was"* ]]
    expect "$(ls -A dst)" ''
  done
  asked 'x\n\fk\n'
  expect "$status" 130
  [[ $output == *"tavro: Type one of the letters in brackets, not 'x'"* ]]
  [[ $output == *"'tavro resume' continues"* ]]
  expect "$(ls -A dst)" $'a\nb'
  run -0 tavro undo
  expect "$(ls -A dst)" ''
  run -1 tavro resume
}

@test "doctor names what a dropped operation left under a hidden name, and mends it by trashing it" {
  needs_strace
  mkdir src dst
  touch src/{a,b}
  killed_at utimensat 2 "$TAVRO" copy src/{a,b} dst
  left=$(cd dst && echo .tavro-*)
  run -0 tavro doctor
  expect "$output" 'The trash is in order'
  tavro history --drop
  run -0 tavro doctor
  expect "$output" 'The trash is in order'
  touch -d '2 minutes ago' dst/.tavro-*
  tavro trash src/a
  tavro copy src/b dst
  run -1 tavro doctor
  [[ $output == *"Left over from an interrupted command: '$PWD/dst/${left%% *}'"* ]]
  run -0 tavro doctor --mend-all
  expect "$(ls -A dst)" b
  run -0 tavro doctor
  expect "$output" 'The trash is in order'
}

needs_two_file_systems() {
  there=$(mktemp -d -p /dev/shm) || skip 'there is no file system in memory'
  [ "$(stat -c %d "$there")" != "$(stat -c %d .)" ] || skip 'all is one file system here'
}

@test "what was replaced on another file system is never lost, whenever the command is killed" {
  needs_strace
  needs_two_file_systems
  for next in undo resume; do
    for act in copy move; do
      echo new >f
      echo old >"$there/f"
      killed_at linkat 2 "$TAVRO" "$act" --on-conflict overwrite f "$there/"
      run -0 tavro "$next"
      if [ "$next" = undo ]; then
        expect "$(cat "$there/f" f)" $'old\nnew'
      else
        expect "$(cat "$there/f")" new
        run -0 tavro undo
        expect "$(cat "$there/f" f)" $'old\nnew'
      fi
      expect "$(ls -A "$there")" f
    done
  done
  rm -r "$there"
}

@test "a move that could not remove all of its source is undone or finished, and the rest is kept" {
  needs_strace
  needs_two_file_systems
  for next in undo resume; do
    mkdir d
    echo a >d/a
    echo b >d/b
    echo e >e
    run -1 --separate-stderr strace -qq -o "$scratch/calls" -e trace=unlinkat \
      -e inject=unlinkat:error=EPERM:when=1 "$TAVRO" move d e "$there/"
    [[ $stderr == *"tavro: Not finished: 'tavro resume' continues, 'tavro undo' takes it back" ]]
    local left
    left=$(ls d)
    [[ $left == [ab] ]]
    expect "$(ls "$there")" $'d\ne'
    run -0 tavro history
    [[ ${lines[0]} == *'(interrupted, 1 of 2 done)' ]]
    run -0 --separate-stderr tavro "$next"
    expect "$stderr" "tavro: What was left at '$PWD/d' is in the trash"
    expect "$(ls "$HOME"/.local/share/Trash/files/d*)" "$left"
    if [ "$next" = resume ]; then
      expect "$(ls; ls "$there" "$there/d")" "$there:"$'\nd\ne\n\n'"$there/d:"$'\na\nb'
      run -0 tavro undo
    fi
    expect "$(cat d/a d/b e; ls "$there")" $'a\nb\ne'
    tavro empty -fq
    rm -r d e
  done
  rm -r "$there"
}

@test "a resumption that leaves nothing in the place of what was replaced can still be undone" {
  needs_strace
  needs_two_file_systems
  echo new >f
  echo old >"$there/f"
  command -v chattr >/dev/null && chattr +i f 2>/dev/null || skip 'no file can be made immutable here'
  run -1 tavro move --on-conflict overwrite f "$there/"
  run -1 --separate-stderr tavro resume
  chattr -i f
  [[ $stderr == *"tavro: Not finished: 'tavro resume' continues, 'tavro undo' takes it back" ]]
  run -0 tavro undo
  expect "$(cat f "$there/f")" $'new\nold'
  rm -r "$there"
}

@test "what was settled keeps its place among the steps" {
  needs_strace
  tavro mkdir a/b/c
  killed_at unlinkat 2 "$TAVRO" undo
  [ -d a/b ]
  run -0 tavro resume
  expect "$(ls)" ''
  run -0 tavro redo
  run -0 tavro history
  [[ $output == *"  mkdir  $PWD/a and 2 more" ]]
  run -0 tavro undo
  expect "$(ls)" ''
}

@test "an entry that a killed redo moves before its directory is still moved before it" {
  needs_strace
  needs_two_file_systems
  mkdir d
  echo x >d/x
  echo y >d/y
  tavro move -q d/x d "$there/"
  run -0 tavro undo
  killed_at linkat 1 "$TAVRO" redo
  run -0 tavro resume
  expect "$(ls; cat "$there"/x "$there"/d/*)" $'x\ny'
  run -0 tavro undo
  expect "$(cat d/*; ls "$there")" $'x\ny'
  rm -r "$there"
}

@test "an undo of a killed move that fails leaves it in the history as it was" {
  needs_strace
  needs_two_file_systems
  for i in {1..3}; do
    echo "$i" >"$i"
  done
  killed_at unlinkat 3 "$TAVRO" move 1 2 3 "$there/"
  run -1 strace -qq -o "$scratch/calls" -e trace=pread64 -P "$there/2" -e inject=pread64:error=EIO \
    "$TAVRO" undo
  [[ $output == *"tavro: Cannot copy '$there/2': Input/output error" ]]
  run -0 tavro history
  [[ $output == *"  move  $PWD/1 -> $there/1 and 2 more  (interrupted, 3 of 3 done)" ]]
  run -0 tavro undo
  expect "$(cat 1 2 3; ls "$there")" $'1\n2\n3'
  killed_at linkat 2 "$TAVRO" redo
  run -1 strace -qq -o "$scratch/calls" -e trace=pread64 -P "$there/1" -e inject=pread64:error=EIO \
    "$TAVRO" undo
  run -0 tavro history
  [[ $output == *"  move  $PWD/1 -> $there/1 and 2 more  (interrupted, 1 of 3 done)" ]]
  run -0 tavro undo
  expect "$(cat 1 2 3; ls "$there")" $'1\n2\n3'
  rm -r "$there"
}

@test "an undo that could not remove all of what it copied back can be finished" {
  needs_strace
  needs_two_file_systems
  for next in undo resume; do
    mkdir d
    echo text >d/f
    echo other >g
    tavro move -q d g "$there/"
    run -1 strace -qq -o "$scratch/calls" -e trace=unlinkat -P d -e inject=unlinkat:error=EPERM "$TAVRO" undo
    [[ $output == *"tavro: Cannot remove '$there/d' after copying: Operation not permitted"* ]]
    run -0 tavro history
    [[ ${lines[0]} == *'(interrupted, '* ]]
    run -0 tavro "$next"
    expect "$(cat d/f g; ls "$there")" $'text\nother'
    rm -r d g
  done
  rm -r "$there"
}

@test "an undo that could not take all of an item out of the trash can be finished" {
  needs_strace
  needs_two_file_systems
  for next in undo resume; do
    mkdir "$there/d"
    echo text >"$there/d/f"
    echo other >"$there/g"
    tavro trash -q "$there/d" "$there/g"
    run -1 strace -qq -o "$scratch/calls" -e trace=unlinkat -P d -e inject=unlinkat:error=EPERM "$TAVRO" undo
    [[ $output == *"tavro: Cannot remove '$HOME/.local/share/Trash/files/d' after copying: "* ]]
    run -0 tavro "$next"
    expect "$(cat "$there/d/f" "$there/g"; tavro list)" $'text\nother'
    rm -r "$there/d" "$there/g"
  done
  rm -r "$there"
}

@test "an undo that failed and could not be rolled back can be finished, or taken back" {
  needs_strace
  for next in undo resume; do
    mkdir t
    touch a b
    tavro move -q a b t/
    run -1 strace -qq -o "$scratch/calls" -e trace=renameat2 -e inject=renameat2:error=EIO:when=2+ \
      "$TAVRO" undo
    [[ $output == *'; moving back failed: '*"
tavro: Not finished: 'tavro resume' continues, 'tavro undo' takes it back" ]]
    run -0 tavro history
    [[ ${lines[0]} == *'(interrupted, 1 of 2 undone)' ]]
    run -0 tavro "$next"
    expect "$(ls . t)" $'.:\na\nb\nt\n\nt:'
    run -0 tavro redo
    expect "$(ls t)" $'a\nb'
    rm -r t
  done
}

@test "a redo that is done and does not reach the disk is not taken for undone" {
  needs_strace
  for when in 1 2 3 4; do
    touch a
    tavro rename a n/b
    tavro undo -q
    run strace -qq -o "$scratch/calls" -e trace=fsync -e "inject=fsync:error=EIO:when=$when" "$TAVRO" redo
    run -0 tavro history
    [[ ${lines[0]} == *'(undone)' ]] || run -0 tavro undo
    [ -e a ]
    run -0 tavro redo
    [ -e n/b ]
    rm -r n
  done
}

@test "what an undo has hidden and cannot bring back is brought back by the next one" {
  needs_strace
  mkdir d
  echo new >a
  echo old >d/a
  tavro move -q --on-conflict overwrite a d/
  run -1 strace -qq -o "$scratch/calls" -e trace=renameat2 -e inject=renameat2:error=EIO:when=2+ \
    "$TAVRO" undo
  [[ $output == *'; moving back failed: '* ]]
  run -0 tavro history
  [[ ${lines[0]} == *'(interrupted, '* ]]
  run -0 tavro undo
  expect "$(cat a d/a; ls -A d)" $'new\nold\na'
}

@test "of two names of one file each is known after a redo that was rolled back" {
  needs_strace
  needs_two_file_systems
  echo text >a
  ln a b
  tavro move -q a b "$there/"
  tavro undo -q
  run -1 strace -qq -o "$scratch/calls" -e trace=unlinkat -e inject=unlinkat:error=EPERM:when=2 "$TAVRO" redo
  expect "$(ls; ls "$there")" $'a\nb'
  run -0 tavro redo
  expect "$(ls; ls "$there")" $'a\nb'
  run -0 tavro undo
  expect "$(cat a b)" $'text\ntext'
  rm -r "$there"
}

@test "a merge that was killed as it removed what it had emptied leaves no directory when it is redone" {
  needs_strace
  for when in 1 2 3; do
    mkdir -p d/{a,e} t/d/{a,e}
    echo text | tee d/1 d/a/2 >/dev/null
    chmod 711 d/a
    killed_at unlinkat "$when" "$TAVRO" move d t/
    run -0 tavro undo
    expect "$(find d t -type f | sort)" $'d/1\nd/a/2'
    run -0 tavro redo
    expect "$(ls)" t
    run -0 tavro undo
    expect "$(find d t -type f | sort)$(stat -c ' %a' d/a)" $'d/1\nd/a/2 711'
    rm -r d t
  done
}

@test "a directory that a killed redo was to create gets the mode that it had" {
  needs_strace
  echo text >f
  (umask 022 && tavro copy -q f new/g)
  tavro undo -q
  killed_at fsync 1 "$TAVRO" redo
  run -0 tavro resume
  expect "$(stat -c %a new)$(cat new/g)" 755text
}

@test "the rests of a killed move are told in one line" {
  needs_strace
  needs_two_file_systems
  echo text | tee a b c >/dev/null
  killed_at unlinkat 2 "$TAVRO" move a b c "$there/"
  run -0 --separate-stderr tavro undo
  expect "$stderr" "tavro: What was left at '$PWD/b' and 1 more is in the trash"
  expect "$(ls)" $'a\nb\nc'
  rm -r "$there"
}

@test "what a move has replaced comes back when its source could not be removed" {
  needs_strace
  needs_two_file_systems
  echo new >f
  echo old >"$there/f"
  run -1 strace -qq -o "$scratch/calls" -e trace=unlinkat -e inject=unlinkat:error=EPERM:when=2 \
    "$TAVRO" move --on-conflict overwrite f "$there/"
  expect "$(cat f "$there/f")" $'new\nnew'
  run -0 tavro undo
  expect "$(cat f "$there/f")" $'new\nold'
  rm -r "$there"
}

@test "who settles an operation leaves what others have hidden in the same directory" {
  needs_strace
  mkdir d other
  echo old >d/f
  echo new >f
  touch b{1..3}
  killed_at renameat2 2 "$TAVRO" copy b{1..3} d
  HOME=$PWD/other killed_at renameat2 2 "$TAVRO" copy --on-conflict overwrite f d
  run -0 tavro undo
  expect "$(find d -name '.tavro-*' | wc -l)" 1
  HOME=$PWD/other run -0 tavro undo
  expect "$(ls -A d)" f
  expect "$(cat d/f)" old
}

@test "an undo that cannot bring back what was replaced changes nothing" {
  mkdir d
  echo old >d/f
  echo new >f
  tavro copy -q --on-conflict overwrite f d
  tavro empty -qf
  for _ in 1 2; do
    run -1 tavro undo
    [[ $output == *": '$HOME/.local/share/Trash/files/f' is no longer in the trash
tavro: Nothing else can be undone" ]]
    expect "$(cat d/f)" new
  done
}

@test "an interrupted operation is not undone while what it replaced is nowhere" {
  needs_strace
  mkdir d
  for name in a b; do echo old >"d/$name" && echo new >"$name"; done
  killed_at renameat2 4 "$TAVRO" copy --on-conflict overwrite a b d
  rm "$HOME"/.local/share/Trash/files/*
  run -1 tavro undo
  [[ $output == *' is no longer in the trash'* ]]
  expect "$(cat d/a)" new
  run -0 tavro history
  [[ $output == *interrupted* ]]
}

@test "a restore that was killed between file systems leaves no half of it in the trash" {
  needs_strace
  needs_two_file_systems
  mkdir "$there/d"
  touch "$there"/d/{1..4}
  tavro trash -q "$there/d"
  killed_at unlinkat 3 "$TAVRO" restore -q d
  run -0 tavro undo
  expect "$(ls "$there"; ls "$HOME"/.local/share/Trash/files/*)" $'1\n2\n3\n4'
  run -0 tavro restore -q d
  expect "$(ls "$there/d")" $'1\n2\n3\n4'
  expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" ''
  rm -r "$there"
}

@test "a file that somebody went on working with after its move was killed stays, or is moved again" {
  needs_strace
  needs_two_file_systems
  for next in undo resume; do
    echo text >a
    killed_at unlinkat 1 "$TAVRO" move a "$there/"
    echo more >>a
    run -0 tavro "$next"
    if [ "$next" = undo ]; then expect "$(cat a; ls "$there")" $'text\nmore'; fi
    [ "$next" = undo ] || expect "$(cat "$there/a")" $'text\nmore'
    rm -f a "$there/a"
  done
  rm -r "$there"
}

@test "what was copied whole before the kill is not copied again" {
  needs_strace
  mkdir src dst
  for name in a b c; do echo "$name" >"src/$name"; done
  killed_at renameat2 1 "$TAVRO" copy src/{a,b,c} dst
  hidden=$(stat -c %i dst/.tavro-* | sort)
  echo changed >>src/b
  run -0 tavro resume
  expect "$(ls -A dst)" $'a\nb\nc'
  expect "$(cat dst/b)" $'b\nchanged'
  expect "$(stat -c %i dst/{a,c} | sort | comm -12 - <(echo "$hidden") | wc -l)" 2
  run -0 tavro undo
  expect "$(ls -A dst)" ''
}

# Three files that are to replace others; the history is there already.
things_to_replace() {
  mkdir -p d
  tavro mkdir warm >/dev/null
  for name in f1 f2 f3; do
    echo "new $name" >"$name"
    echo "old $name" >"d/$name"
  done
}

# failing_at CALL WHEN COMMAND…: the call fails as it is made for the WHENth time.
failing_at() {
  local call=$1 when=$2
  shift 2
  strace -qq -o "$scratch/calls" -e "trace=$call" -e "inject=$call:error=EIO:when=$when" "$@"
}

# Copies or moves the tree src, and is killed as the third of its four files is to get its times. What is
# taken over of the hidden copy can be told from what is copied: each of its files begins with an x.
cut_off_tree() { # COMMAND
  local file
  mkdir -p src/deep
  for file in src/a src/b src/deep/c src/deep/d; do [[ -e $file ]] || echo "of $file" >"$file"; done
  killed_at utimensat 3 "$TAVRO" "$1" src dst/
  for file in dst/.tavro-*/{a,b,deep/c,deep/d}; do
    [[ -e $file ]] || continue
    touch -r "$file" times
    printf x 1<>"$file"
    touch -r times "$file"
  done
}

# How many of the tree's files were taken over, when it is whole and nothing else is there.
taken_over() {
  expect "$(cd dst/ && find . -type f | sort)" $'./src/a\n./src/b\n./src/deep/c\n./src/deep/d'
  expect "$(ls -A dst/)" src
  expect "$(cat dst/src/{a,b,deep/c,deep/d} | sed 's/^x/o/')" \
    $'of src/a\nof src/b\nof src/deep/c\nof src/deep/d'
  cat dst/src/{a,b,deep/c,deep/d} | grep -c ^x || :
}

@test "of a tree that was copied in part, the files that are whole are not copied again" {
  needs_strace
  mkdir dst
  cut_off_tree copy
  run -0 tavro history
  [[ $output == *'(interrupted, 0 of 1 done)' ]]
  run -0 tavro resume
  expect "$(taken_over)" 2
  run -0 tavro undo
  expect "$(ls -A dst)" ''
}

@test "of a tree that was moved in part between file systems, they are not, either" {
  needs_strace
  [[ -w /dev/shm && $(stat -c %d /dev/shm) != "$(stat -c %d .)" ]] || skip 'there is no other file system'
  ln -s "$(mktemp -d /dev/shm/tavro-test-XXXXXX)" dst
  cut_off_tree move
  run -0 tavro resume
  expect "$(taken_over)" 2
  [ ! -e src ]
  rm -r "$(readlink dst)"
}

@test "of a tree, what changed after it was copied is copied again" {
  needs_strace
  mkdir dst
  cut_off_tree copy
  for file in src/a src/b src/deep/c src/deep/d; do
    touch -r "$file" times
    printf o 1<>"$file"
    touch -r times "$file"
  done
  run -0 tavro resume
  expect "$(taken_over)" 0
}

@test "of another tree that has the name by now nothing is taken over" {
  needs_strace
  [[ -w /dev/shm && $(stat -c %d /dev/shm) != "$(stat -c %d .)" ]] || skip 'there is no other file system'
  ln -s "$(mktemp -d /dev/shm/tavro-test-XXXXXX)" dst
  mkdir -p src/deep src2/deep
  for file in a b deep/c deep/d; do
    echo "of src/$file" >"src2/$file"
    echo "of src/$file" >"src/$file"
    touch -d 2020-01-01 "src/$file" "src2/$file"
  done
  cut_off_tree move
  mv src old
  mv src2 src
  run -0 tavro resume
  expect "$(taken_over)" 0
  rm -r "$(readlink dst)"
}

@test "a link in what was copied in part leads nowhere, and another directory of its name stays" {
  needs_strace
  mkdir dst
  cut_off_tree copy
  hidden=$(echo dst/.tavro-*)
  mkdir -p dst/other/deep
  cp -p src/deep/* src/a src/b dst/other/deep/
  for file in dst/other/deep/*; do mv "$file" "$file.x" && mv "$file.x" "$file"; done
  rm -rf "$hidden/deep"
  ln -s ../other/deep "$hidden/deep"
  run -0 tavro resume
  expect "$(ls dst/other/deep)" $'a\nb\nc\nd'
  rm -r dst/src dst/other
  tavro history --drop
  cut_off_tree copy
  hidden=$(echo dst/.tavro-*)
  mv "$hidden" away
  mkdir "$hidden"
  touch "$hidden/mine"
  run -0 tavro resume
  [ -e "$hidden/mine" ]
  expect "$(diff -r src dst/src)" ''
}

@test "of a tree nothing is taken over when the system was started anew" {
  needs_strace
  needs_python
  mkdir dst
  cut_off_tree copy
  python3 -c 'import sqlite3, sys
connection = sqlite3.connect(sys.argv[1])
connection.execute("UPDATE operation SET staging = CAST(replace(staging, ?, ?) AS BLOB)",
                   ("@", "@-"))
connection.commit()' "$HOME/.local/state/tavro/history.db"
  run -0 tavro resume
  expect "$(taken_over)" 0
}

@test "what is left of a tree that was copied in part goes with its undo, and when it is resumed twice" {
  needs_strace
  mkdir dst
  cut_off_tree copy
  run -0 tavro undo
  expect "$(ls -A dst)" ''
  cut_off_tree copy
  killed_at utimensat 2 "$TAVRO" resume
  run -0 tavro resume
  expect "$(taken_over)" 2
}

@test "an operation that the history lost on its way to the disk does nothing, and is not listed" {
  needs_strace
  things_to_replace
  run strace -qq -o "$scratch/calls" -e trace=fsync -e inject=fsync:error=EIO:when=1 \
    "$TAVRO" move --on-conflict overwrite f1 f2 f3 d/
  expect "$status" 1
  run -0 tavro history
  [[ $output != *move* ]]
  run -0 tavro undo
  expect "$output" "Undone: mkdir
  $PWD/warm"
  expect "$(find . "$HOME/.local/share/Trash/files" -type f -exec cat {} + | sort)" \
    $'new f1\nnew f2\nnew f3\nold f1\nold f2\nold f3'
}

@test "nothing is replaced when the history cannot keep what is about to be" {
  needs_strace
  things_to_replace
  run -1 --separate-stderr failing_at fsync 2 "$TAVRO" copy --on-conflict overwrite f1 f2 f3 d/
  expect "$stderr" "tavro: Cannot save the history '$HOME/.local/state/tavro/history.db': Input/output error"
  expect "$(cat d/*)" $'old f1\nold f2\nold f3'
  expect "$(ls -A d)" $'f1\nf2\nf3'
  expect "$(find "$HOME/.local/share/Trash" -mindepth 2)" ''
  run -0 tavro history
  [[ $output != *copy* ]]
}

@test "resume keeps both where the interrupted copy was to" {
  needs_strace
  mkdir d
  for name in f1 f2 f3 f4 f5; do
    echo "new $name" >"$name"
    echo "old $name" >"d/$name"
  done
  killed_at renameat2 3 "$TAVRO" copy --on-conflict keep-both f1 f2 f3 f4 f5 d/
  run -0 tavro resume
  expect "$(cat d/*' copy 1')" "$(cat f?)"
  expect "$(cat d/f?)" $'old f1\nold f2\nold f3\nold f4\nold f5'
  run -0 tavro undo
  expect "$(ls -A d)" $'f1\nf2\nf3\nf4\nf5'
}

@test "resume overwrites what is older where the interrupted copy did" {
  needs_strace
  mkdir d
  for name in f1 f2 f3; do
    echo "new $name" >"$name"
    echo "old $name" >"d/$name"
    touch -d 2001-02-03 "d/$name"
  done
  touch -d 1999-01-01 f3
  killed_at renameat2 1 "$TAVRO" copy --on-conflict newer f1 f2 f3 d/
  run -0 tavro resume
  expect "$(cat d/*)" $'new f1\nnew f2\nold f3'
  run -0 tavro undo
  expect "$(cat d/*)" $'old f1\nold f2\nold f3'
}

@test "what nobody decided on is said by resume, and can still be resumed or undone" {
  needs_strace
  mkdir d
  echo new >f
  echo old >d/f
  killed_at renameat2 1 "$TAVRO" copy --no-keep --on-conflict overwrite f d/
  run -1 --separate-stderr tavro resume
  expect "$output" ''
  expect "$stderr" "tavro: Skipped, because its destination exists: '$PWD/f'
tavro: Not finished: 'tavro resume' continues, 'tavro undo' takes it back"
  expect "$(cat d/f)" old
  run -0 tavro history
  [[ $output == *'(interrupted, 0 of 1 done)'* ]]
  rm d/f
  run -0 tavro resume
  expect "$(cat d/f)" new
}

@test "resume asks a person about what nobody decided on" {
  needs_strace
  needs_python
  mkdir d
  echo new >f
  echo old >d/f
  killed_at renameat2 1 "$TAVRO" copy --no-keep --on-conflict overwrite f d/
  run -0 timeout 60 python3 "$BATS_TEST_DIRNAME/terminal.py" 'for all ' 'o\n' "$TAVRO" resume
  [[ $output == *"'d/f' already exists; 'f' cannot go there"* ]]
  expect "$(cat d/f)" new
  run -0 tavro undo
  expect "$(cat d/f)" old
}

@test "what a resumption replaces was decided upon before" {
  needs_strace
  mkdir d
  echo new >f
  echo old >d/f
  killed_at renameat2 1 "$TAVRO" copy --on-conflict overwrite f d/
  run -0 tavro resume
  expect "$(cat d/f)" new
}

@test "the undo of an interrupted move does not pass for done when its target was taken away" {
  needs_strace
  mkdir to && echo 1 >a && echo 2 >b
  strace -qq -o /dev/null -e inject=renameat2:signal=KILL:when=2 "$TAVRO" move a b to || true
  mv to elsewhere
  run -1 --separate-stderr tavro undo
  [[ $stderr == *"/to/a' is missing"* || $stderr == *"/to/a' does not exist"* ]]
  run tavro history
  [[ $output == *interrupted* ]]
  mv elsewhere to
  tavro undo -q
  expect "$(cat a b) $(ls to)" "1
2 "
}
