# What all test files of the command share. TAVRO is the command under test; CTest sets it.

bats_require_minimum_version 1.5.0

setup() {
  scratch=$(cd "$(mktemp -d)" && pwd -P)
  export HOME=$scratch/home
  mkdir "$HOME" "$scratch/here"
  unset XDG_STATE_HOME XDG_DATA_HOME
  unset NO_COLOR
  export TAVRO_TRASH=home # never the trash of whoever runs the tests, on his other volumes
  export LC_ALL=C.UTF-8 TERM=dumb SHELL=$BASH # the shell that a terminal gets
  cd "$scratch/here" || return 1
}

# Each error that the command has printed stands in docs/messages.md.
teardown() {
  cd /
  local unknown=''
  if grep -qs '^tavro: ' "$scratch/said"; then
    unknown=$(python3 -B "$BATS_TEST_DIRNAME/../../docs/check_messages.py" --match \
      "$BATS_TEST_DIRNAME/../../docs/messages.md" <"$scratch/said") || echo "not in docs/messages.md: $unknown"
  fi
  chmod -R u+rwx "$scratch"
  rm -rf "$scratch"
  [[ -z $unknown ]]
}

# As that of bats, and notes what was said. A screen that is narrow breaks lines.
eval "bats_own_$(declare -f run)"
run() {
  local result=0
  bats_own_run "$@" || result=$?
  [[ " $* " == *' screen '[1-9][0-9]' '* ]] || printf '%s\n' "$output" "${stderr-}" >>"$scratch/said"
  return "$result"
}

tavro() {
  "$TAVRO" "$@"
}

# Runs a command line on a terminal of its own, with an answer typed where one is given; the output
# comes without carriage returns.
on_terminal() {
  local answer=${2-}
  printf '%s\n' "$answer" | script --quiet --return --echo never --command "$1" /dev/null |
    tr -d '\r'
  return "${PIPESTATUS[1]}"
}

# The test's expectations, said so that a failure shows both sides.
expect() {
  [[ $1 == "$2" ]] || {
    printf 'expected: %q\n but got: %q\n' "$2" "$1"
    return 1
  }
}

needs_strace() {
  command -v strace >/dev/null || skip 'strace is not installed'
  export ASAN_OPTIONS=detect_leaks=0 # which is not for processes that are traced
  strace -qq -o "$scratch/probe" true || skip 'strace may not trace here'
}
