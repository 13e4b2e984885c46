#!/usr/bin/env bats
# What `./dev` does before it works, and its demonstration. A copy of it runs with tools of this file's
# own, so nothing is installed and nothing is built. Set from outside:
#   TAVRO           the command
#   MODULE_AT_WORK  the example that the demonstration ends with
#   TAVRO_SOURCE    the sources of this project

bats_require_minimum_version 1.5.0

setup() {
  scratch=$(cd "$(mktemp -d)" && pwd -P)
  chmod 755 "$scratch"
  cp "$TAVRO_SOURCE/dev" "$scratch/dev"
  cd "$scratch" || return 1
  mkdir bin docs
  local name
  for name in bash cat dirname env id ls mkdir mktemp rm sort; do
    ln -s "$(type -P "$name")" "bin/$name"
  done
  tool dpkg-query 'exit 1' # no package is known
  echo 'echo the reference >&2' >docs/reference.sh
}

teardown() {
  cd /
  rm -rf "$scratch"
}

# A tool that only this test has.
tool() { # NAME COMMAND
  printf '#!%s\n%s\n' "$BASH" "$2" >"bin/$1"
  chmod 755 "bin/$1"
}

dev() { # ARGUMENT…
  env PATH="$scratch/bin" "$BASH" ./dev "$@"
}

# The same without rights.
dev_as_user() {
  if ((EUID == 0)); then
    setpriv --reuid=65534 --regid=65534 --clear-groups env PATH="$scratch/bin" "$BASH" ./dev "$@"
  else
    dev "$@"
  fi
}

@test "without apt the missing packages are listed, and nothing is done" {
  tool g++ ''
  tool sudo 'echo sudo was called'
  run -1 dev docs
  [[ $output == 'Install these packages first (their names on Debian 12):
  doxygen' ]]
  run -1 dev run
  [[ $output == *'  cmake'*'  ninja-build'* && $output != *g++* ]]
}

@test "without rights and without sudo the missing packages are listed, and apt is not called" {
  tool apt-get 'echo apt-get was called'
  run -1 dev_as_user docs
  [[ $output == 'Install these packages first (their names on Debian 12):
  doxygen' ]]
}

@test "where apt fails the missing packages are listed" {
  tool apt-get 'exit 100'
  tool sudo 'exec "$@"'
  run -1 dev docs
  [[ $output == 'Installing: doxygen
Install these packages first (their names on Debian 12):
  doxygen' ]]
}

@test "apt is asked for what is missing, through sudo by an ordinary user" {
  tool apt-get 'echo "apt-get $*" >&2'
  tool sudo 'echo sudo >&2; exec "$@"'
  run -0 dev_as_user docs
  [[ $output == 'Installing: doxygen
sudo
apt-get -qq update
sudo
apt-get -qq install -y --no-install-recommends doxygen
the reference
build/docs/html/index.html' ]]
}

@test "a tool that is here is not asked of apt, whoever put it here" {
  tool apt-get 'echo apt-get was called'
  tool doxygen ''
  run -0 dev docs
  [[ $output == 'the reference
build/docs/html/index.html' ]]
}

@test "a build is announced before it is silent" {
  tool g++ ''
  tool ninja ''
  # shellcheck disable=SC2016 # the tool's own arguments
  tool cmake 'echo "cmake $1" >>log; [[ $1 == --preset ]]'
  PATH=$scratch/bin "$BASH" ./dev run 2>>log >>log && return 1
  [[ $(cat log) == $'Building…\ncmake --preset\ncmake --build' ]]
}

# What the demonstration prints, without what differs from one run to the next.
demonstration() {
  tr -d '\r' | grep -v '^Building…$' |
    sed -E -e 's|/[^ ]*/tmp\.[A-Za-z0-9]+|SCRATCH|g' -e 's/[0-9-]{10}[ T][0-9:]{8}/TIME/g'
}

@test "the demonstration is the same on a terminal and in a pipe" {
  mkdir -p build/release/{cli,examples} tmp
  ln -s "$TAVRO" build/release/cli/tavro
  ln -s "$MODULE_AT_WORK" build/release/examples/module_at_work
  tool g++ ''
  tool cmake ''
  tool ninja ''
  export TMPDIR=$scratch/tmp XDG_STATE_HOME=$scratch/elsewhere
  dev run 2>&1 </dev/null | demonstration >in-a-pipe
  timeout 60 script --quiet --return --command "env PATH='$scratch/bin' '$BASH' ./dev run" /dev/null \
    </dev/null | demonstration >on-a-terminal
  diff in-a-pipe on-a-terminal
  grep -q 'Refusing to delete for good' in-a-pipe
  grep -q '^TIME' in-a-pipe
  [[ $(grep -c '^\$ ' in-a-pipe) -eq 17 && ! -e elsewhere ]]
}

@test "a release is built by any compiler, and each configuration has its build and its name" {
  python3 - "$TAVRO_SOURCE/CMakePresets.json" <<'PYTHON'
import json
import sys
presets = json.load(open(sys.argv[1]))
configured = {p["name"]: p for p in presets["configurePresets"] if not p.get("hidden")}
assert "TAVRO_WARNINGS_AS_ERRORS" not in configured["release"]["cacheVariables"]
assert configured["dev"]["cacheVariables"]["TAVRO_WARNINGS_AS_ERRORS"] == "ON"
assert {p["configurePreset"] for p in presets["buildPresets"]} == set(configured)
assert all(p["name"] == p["configurePreset"] for p in presets["buildPresets"])
PYTHON
  (cd "$TAVRO_SOURCE" && cmake --list-presets=build) | grep -q '"release"'
}
