#!/usr/bin/env bash
# Shows that the fault programme sees what it is there to see: each suite must call a deliberately
# broken module or engine wrong, and both as they are right.
#
# usage: broken_modules.sh MODULE-SOURCE INCLUDE-FOLDER COMPILER OBJECT-OR-FLAG…
#
# The programme is linked from the objects and flags that are given, with a patched copy of the
# module, or of one source of the engine, each time. Where no single allocation or moment leads to
# what is broken, the world of the scenario does (a blocked record, a size limit), and its run
# without faults is wrong already.
set -euo pipefail

module=$1 include=$2 compiler=$3
shift 3
programme=("$@")
engine=$(dirname "$module")/../engine
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
surprises=0

# A broken module may do anything, so it has no rights, little memory and little time.
confined=(prlimit --as=1000000000 timeout 300)
if ((EUID == 0)); then
  chmod 755 "$scratch"
  confined+=(setpriv --reuid=65534 --regid=65534 --clear-groups)
fi

# Full disks need root, which then can write nowhere but in the scratch directory.
# shellcheck disable=SC2016 # the inner shell expands them
caged=(prlimit --as=1000000000 timeout 300 unshare --mount bash -c '
  mount --make-rprivate / && mount --bind "$0" "$0" || exit 99
  while read -r _ folder _; do
    [[ $folder == "$0" ]] || mount -o remount,ro,bind "$folder" 2>/dev/null
  done </proc/self/mounts
  [[ ! -w / && ! -w /tmp ]] || exit 99
  TMPDIR=$0 exec "$@"' "$scratch")

cage=closed
((EUID != 0)) || "${caged[@]}" true || cage=open

# make NAME [ENGINE-SOURCE]: the module, or a source of the engine beside it, passed through the sed
# script on standard input, and the programme with it.
make() {
  local source=$module object rest=()
  if (($# > 1)); then
    source=$engine/$2
    rest+=("$module")
  fi
  sed -E -f /dev/stdin "$source" >"$scratch/$1.cpp"
  if [[ $1 != as-it-is ]] && cmp -s "$source" "$scratch/$1.cpp"; then
    echo "The patch '$1' no longer fits $source." >&2
    exit 2
  fi
  for object in "${programme[@]}"; do
    [[ $object == */tavro_engine.dir/* && ${object##*/} == "${2:-none}.o" ]] || rest+=("$object")
  done
  "$compiler" -std=c++17 -I"$include" -I"$engine" "$scratch/$1.cpp" "${rest[@]}" -o "$scratch/$1"
}

# verdict NAME SCENARIO: what the programme with this module says, in one word. Its words are in the
# log.
verdict() {
  local status=0 limits=("${confined[@]}")
  if [[ $2 == full-disks:* && $EUID -eq 0 ]]; then
    limits=("${caged[@]}")
    [[ $cage == closed ]] || {
      echo 'skipped: root cannot be kept from writing here' >"$scratch/log"
      echo skipped
      return
    }
  fi
  "${limits[@]}" "$scratch/$1" --only "$2:" --until-failure >"$scratch/log" 2>&1 || status=$?
  if grep -q '^skipped' "$scratch/log"; then
    echo skipped
  elif ((status == 0)); then
    echo right
  elif ((status == 1)) && grep -q '^WRONG' "$scratch/log"; then
    echo wrong
  else
    echo "exit-code-$status"
  fi
}

# expect VERDICT NAME SUITE:SCENARIO…: what the programme with this module must say.
expect() {
  local expected=$1 name=$2 scenario found
  for scenario in "${@:3}"; do
    found=$(verdict "$name" "$scenario")
    printf '%-19s%-40s%s\n' "$name" "$scenario" "$found"
    case $found in
    "$expected") ;;
    skipped) grep '^skipped' "$scratch/log" ;;
    *)
      echo '  That is a surprise:'
      grep -m 5 -A 3 WRONG "$scratch/log" || tail -n 5 "$scratch/log"
      surprises=$((surprises + 1))
      ;;
    esac
  done
}

make as-it-is </dev/null
expect right as-it-is {calls,system-calls,allocations,kills}:trash/file \
  {allocations,kills}:trash/{blocked-record,size-limit} \
  full-disks:ext4/trash/{file,batch,record-inodes} \
  races:{trash-namesakes,restore-to-one-place,rename-to-one-name,engine-take-back}/file \
  engine:{copy-same,trash-same}/file engine:{move-across,restore-same,delete-same}/free

# An item whose record cannot be written stays where it is.
make no-item-rollback <<'SED'
/^    RemoveTrashInfo\(OutEntry\);/,/^    return false;/{/^    return false;/!d}
SED
expect wrong no-item-rollback {calls,system-calls}:trash/file \
  {allocations,kills}:trash/blocked-record full-disks:ext4/trash/record-inodes

# The items before the failing one stay where they are.
make no-batch-rollback <<'SED'
/^ +RestoreAfterFailure\(OutTrashEntries, ErrorMessage\);/d
SED
expect wrong no-batch-rollback {calls,system-calls}:trash/batch \
  {allocations,kills}:trash/blocked-record full-disks:ext4/trash/batch

# The record is written before the move.
make record-first <<'SED'
/^    if \(!MovePathPreservingType\(source, destination, Entry.bDirectory, ErrorMessage\)\)/i\
    OutEntry = TrashEntryAt(Entry, destination, folders);\
    if (!WriteTrashInfo(OutEntry, &ErrorMessage)) {\
        return false;\
    }
SED
expect wrong record-first {calls,system-calls,allocations,kills}:trash/file

# A copy counts without a look at its size.
make no-size-check <<'SED'
s/^    if \(!ec && !CopyIsWhole\(.*/    if (false) {/
SED
expect wrong no-size-check calls:trash/file-across \
  {system-calls,allocations,kills}:trash/size-limit full-disks:ext4/trash/{file,tree}

# Every name counts as free.
make every-name-free <<'SED'
s/^    return !fs::exists\(Path, ec\);/    return true;/
SED
expect wrong every-name-free races:{trash-namesakes/file,random/module}

# A restore does not look where it leads.
make blind-restore <<'SED'
s/^        if \(bExists \|\| ec\) \{/        if (ec) {/
SED
expect wrong blind-restore races:{restore-to-one-place/file,random/module}

# A rename does not look either.
make blind-rename <<'SED'
/^    if \(fs::exists\(targetPath, ec\)\) \{/,/^    \}/d
SED
expect wrong blind-rename races:{rename-to-one-name/file,random/module}

# The engine renames over what is there.
make blind-engine posix.cpp <<'SED'
s/renameat2\(.*RENAME_NOREPLACE\)/renameat(FromDirectory, From, ToDirectory, To)/
SED
expect wrong blind-engine races:{engine-restore-to-one-place/file,random/engine}

# It does not ask whether a copy has all its bytes.
make trusting-engine copy_file.cpp <<'SED'
s/^    if \(error != 0 \|\| now\.st_size < Size\) \{/    if (false) {/
s/^        if \(error != 0 \|\| count == 0\) \{/        if (false) {/
s/^    return now\.st_size == Size \?/    return true ?/
SED
expect wrong trusting-engine engine:{copy-same,move-across}/file

# No record is written before the move.
make no-record batch.cpp <<'SED'
s/^        failure = m_hooks\.Prepare\(\);/        failure = {};/
SED
expect wrong no-record engine:trash-same/free

# A record counts as written without its bytes.
make trusting-record trash_record.cpp <<'SED'
s/^    error = error != 0 \? error : TavroWriteAt\(/    TavroWriteAt(/
SED
expect wrong trusting-record engine:trash-same/free full-disks:ext4/engine-trash/record

# What was done before the failure stays done.
make no-engine-rollback batch.cpp <<'SED'
s/^        RollBack\(done\);/        RollBack(0);/
SED
expect wrong no-engine-rollback engine:{trash-same,restore-same}/free \
  full-disks:ext4/engine-trash/batch

# What was done is taken back by its name, whatever bears that by now.
make by-name batch.cpp <<'SED'
s/^    options\.Expected = Step\.Arrived\.Identity;//
SED
expect wrong by-name races:pinned/engine-take-back/file

# The records go whether the items are back or not.
make forgetful-restore trash.cpp <<'SED'
s/^        if \(step\.Arrived\.Identity\.Inode != 0 && !step\.bCopyStays &&/        if (/
SED
expect wrong forgetful-restore engine:restore-same/free

# A deletion says that all is gone.
make silent-removal remove.cpp <<'SED'
s/^    if \(!m_failure\) \{/    if (false) {/
SED
expect wrong silent-removal engine:{delete-same,empty-same}/free

if ((surprises > 0)); then
  echo "$surprises verdicts are not as they should be."
  exit 1
fi
