#!/usr/bin/env bats
# The man pages against what they describe. Set from outside:
#   TAVRO          the command
#   TAVRO_SOURCE   the sources of this project
#   TAVRO_LIBRARY  the static library
#   TAVRO_VERSION  their version
#   CXX, CXXFLAGS  the compiler that built them, and what it needs to link them

bats_require_minimum_version 1.5.0

setup() {
  man=$TAVRO_SOURCE/man
  cd "$BATS_TEST_TMPDIR" || return 1
}

check() { # PAGE ARGUMENT…
  local page=$1
  shift
  python3 "$BATS_TEST_DIRNAME/man_pages.py" "${page%.*}" "$TAVRO_VERSION" "$man/$page" "$@"
}

@test "tavro(1) has each command with exactly the options of its help" {
  check tavro.1 "$TAVRO"
}

# The commands of the examples of tavro(1), one a line.
examples() {
  sed -e '1,/^\.SH EXAMPLES/d' -e '/^\.SH/,$d' "$man/tavro.1" |
    awk '/^\.EE/ { inside = 0 } inside; /^\.EX/ { inside = 1 }' |
    sed -e 's/\\(ti/~/g' -e 's/\\-/-/g' -e "s/\\\\\[aq]/'/g"
}

@test "the examples of tavro(1) work, the same with an empty trash" {
  # shellcheck disable=SC2030 # for this test alone
  export HOME=$PWD/home PATH=${TAVRO%/*}:$PATH
  unset XDG_STATE_HOME
  mkdir home photos stick
  touch a.log b.log ./-x.txt
  local line count=0
  while IFS= read -r line; do
    line=${line//\/media\/stick/$PWD/stick}
    if [[ $line == 'tavro restore'* ]]; then
      mkdir -p home/Logs
      touch c.log
      tavro trash -q c.log
    fi
    run -0 script --quiet --return --command "$line" /dev/null <<<y
    count=$((count + 1))
  done < <(examples)
  ((count >= 7))
  [[ -d stick/photos && -e a.log && ! -e home/Logs/a.log && ! -e -x.txt ]]
  line=$(examples | grep xargs)
  run -0 bash -c "$line"
  [[ -e -x.txt ]]
  run -0 bash -c "$line"
  [[ -z $output ]]
}

@test "tavroops(3) declares what the headers declare" {
  check tavroops.3 "$TAVRO_SOURCE"/include/*.h
}

@test "the example of tavroops(3) compiles and does what it says" {
  # shellcheck disable=SC1003 # a backslash
  awk '/^\.EE/ { inside = 0 } inside; /^\.EX/ { inside = 1 }' "$man/tavroops.3" |
    sed -e "s/\\\\(aq/'/g" -e 's/\\e/\\/g' >example.cpp
  # shellcheck disable=SC2086 # several flags
  $CXX -std=c++17 -Wall -Wextra -Wpedantic -Werror $CXXFLAGS -I "$TAVRO_SOURCE/include" \
    example.cpp "$TAVRO_LIBRARY" -o example
  mkdir home directory
  touch file
  # shellcheck disable=SC2031 # for this test alone
  export HOME=$PWD/home
  run -0 ./example file directory
  [[ $output == "$(pwd -P)/file was in the trash"$'\n'"$(pwd -P)/directory was in the trash" ]]
  [[ -f file && -d directory && -d home/.local/share/Trash/files ]]
  run -1 ./example missing
  [[ $output == "Failed to move '"*"/missing': No such file or directory" ]]
}

@test "both pages are formatted without a complaint" {
  command -v mandoc groff >/dev/null || skip 'neither mandoc nor groff is installed'
  local page
  for page in "$man"/*; do
    if command -v mandoc >/dev/null; then
      mandoc -Tlint -W warning "$page"
    fi
    if command -v groff >/dev/null; then
      run -0 groff -man -ww -Tutf8 -z "$page"
      [[ -z $output ]]
    fi
  done
}
