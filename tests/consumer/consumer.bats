#!/usr/bin/env bats
# Each way to the module and the command, as a stranger would go it. run.sh sets
#   TAVRO_SOURCE  the sources of this project
#   TAVRO_BUILD   where they are built
#   CXX           the compiler that built them
#   CXXFLAGS      what a program that links them has to be compiled with

bats_require_minimum_version 1.5.0

here=$BATS_TEST_DIRNAME

setup_file() {
  export PREFIX=$BATS_FILE_TMPDIR/prefix
  cmake --install "$TAVRO_BUILD" --prefix "$PREFIX" >/dev/null
}

setup() {
  export HOME=$BATS_TEST_TMPDIR/home TAVRO_TRASH=home
  mkdir "$HOME" "$BATS_TEST_TMPDIR/here"
  cd "$BATS_TEST_TMPDIR/here" || return 1
}

# Builds one of the projects beside this file.
build() { # PROJECT [-D VARIABLE=VALUE…]
  local project=$1
  shift
  cmake -G Ninja -S "$here/$project" -B build "$@" && cmake --build build
}

expect_content() { # CONSUMER
  run -0 "$1"
  [[ $output == 'The consumer is content.' ]]
}

# The lines of compile_commands.json that compile a source.
compilation_of() { # SOURCE
  grep -E "\"command\": .*/$1\"?,?\$" build/compile_commands.json
}

@test "an installed prefix serves find_package" {
  build from_prefix -D CMAKE_PREFIX_PATH="$PREFIX" -D WANTED=1.0
  expect_content build/consumer
}

@test "find_package refuses a version that is not there, and says so" {
  local wanted
  for wanted in 0.9 1.1 2.0; do
    run ! cmake -G Ninja -S "$here/from_prefix" -B "build-$wanted" \
      -D CMAKE_PREFIX_PATH="$PREFIX" -D WANTED="$wanted"
    [[ ${output//$'\n'/ } == *"compatible with requested version \"$wanted\""* ]]
    [[ $output == *'tavroopsConfig.cmake, version: 1.0.0'* ]]
  done
}

@test "an installed prefix serves pkg-config" {
  export PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig
  pkg-config --exists 'tavroops >= 1.0 tavroops < 1.1'
  run ! pkg-config --exists 'tavroops >= 1.1'
  # shellcheck disable=SC2046,SC2086 # several flags each
  $CXX -std=c++17 $CXXFLAGS "$here/consumer.cpp" $(pkg-config --cflags --libs tavroops) -o consumer
  expect_content ./consumer
}

@test "a prefix can be moved after it was installed" {
  cmake --install "$TAVRO_BUILD" --prefix "$PWD/first"
  mv first second
  build from_prefix -D CMAKE_PREFIX_PATH="$PWD/second" -D WANTED=1
  expect_content build/consumer
  run -0 env PKG_CONFIG_PATH=second/lib/pkgconfig pkg-config --variable=libdir tavroops
  [[ $(realpath "$output") == "$PWD/second/lib" ]]
}

@test "a staging root gets the same tree below itself, and nothing is anywhere else" {
  DESTDIR=$PWD/stage cmake --install "$TAVRO_BUILD" --prefix /opt/tavro
  [[ $(ls stage) == opt && $(ls stage/opt) == tavro ]]
  run -0 diff -r "$PREFIX" stage/opt/tavro
  build from_prefix -D CMAKE_PREFIX_PATH="$PWD/stage/opt/tavro" -D WANTED=1.0
  expect_content build/consumer
}

@test "the installed files are those that were promised" {
  [[ $(cd "$PREFIX" && find . -type f ! -name 'tavroopsConfig-*.cmake' | LC_ALL=C sort) == \
    "$(cat "$here/installed_files.txt")" ]]
  [[ -z $(find "$PREFIX" ! -type f ! -type d) ]]
  [[ -z $(find "$PREFIX" -type f -perm /111 ! -path '*/bin/*') ]]
  run -1 grep -rIl -e "$TAVRO_SOURCE" -e "$TAVRO_BUILD" "$PREFIX"
}

@test "each component can be installed alone" {
  cmake --install "$TAVRO_BUILD" --prefix "$PWD/command" --component command
  cmake --install "$TAVRO_BUILD" --prefix "$PWD/development" --component development
  [[ -x command/bin/tavro && ! -e command/include && ! -e command/lib ]]
  [[ -e development/lib/libtavroops.a && ! -e development/bin ]]
  cp -a command/. development/.
  run -0 diff -r "$PREFIX" development
}

@test "what was installed goes again by the command in the README" {
  local line
  line=$(sed -n 's/^\$ \(xargs [^#]*\)# uninstalls it$/\1/p' "$TAVRO_SOURCE/README.md")
  [[ -n $line ]]
  cmake --install "$TAVRO_BUILD" --prefix "$PWD/a prefix" --component command
  [[ -x 'a prefix/bin/tavro' ]]
  run -0 bash -c "${line/build\/release/"'$TAVRO_BUILD'"}"
  [[ -z $output && -z $(find 'a prefix' -type f) ]]
}

@test "the installed headers compile, each alone" {
  bash "$here/../operations/headers_alone.sh" "$PREFIX/include"
}

@test "the installed command runs, with the version of the package" {
  run -0 "$PREFIX/bin/tavro" --version
  [[ $output == "tavro $(PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig pkg-config --modversion tavroops)" ]]
  touch here.txt
  run -0 "$PREFIX/bin/tavro" trash here.txt
  run -0 "$PREFIX/bin/tavro" undo
  [[ -e here.txt ]]
}

@test "add_subdirectory gives the module alone, and needs no package for it" {
  build from_subdirectory -D TAVRO_SOURCE="$TAVRO_SOURCE" \
    -D CMAKE_DISABLE_FIND_PACKAGE_CLI11=ON -D CMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON \
    -D CMAKE_DISABLE_FIND_PACKAGE_GTest=ON
  expect_content build/consumer
  [[ ! -e build/tavroops/cli && ! -e build/tavroops/pane && ! -e build/tavroops/tests ]]
  run -0 ctest --test-dir build --show-only
  [[ $output == *'Total Tests: 1'* ]]
}

@test "add_subdirectory installs nothing of its own, unless asked" {
  build from_subdirectory -D TAVRO_SOURCE="$TAVRO_SOURCE"
  cmake --install build --prefix "$PWD/installed"
  [[ $(find installed -type f) == installed/bin/consumer ]]
  cmake -D TAVRO_INSTALL=ON build
  cmake --install build --prefix "$PWD/more"
  [[ -e more/lib/libtavroops.a && -e more/include/tavroops.h && ! -e more/bin/tavro ]]
}

@test "add_subdirectory leaves the application's flags and the cache alone" {
  build from_subdirectory -D TAVRO_SOURCE="$TAVRO_SOURCE" \
    -D CMAKE_BUILD_TYPE=Release
  run -0 compilation_of consumer.cpp
  [[ $output == *-std=gnu++20* && $output != *-Wshadow* && $output != *-D_FORTIFY* ]]
  run -0 compilation_of tavroops.cpp
  [[ $output == *-std=gnu++20* && $output != *-D_FORTIFY* ]]
  run -1 grep -i ccache build/CMakeCache.txt
}

@test "the four files of the module are enough to copy" {
  cp "$TAVRO_SOURCE"/include/{tavroops.h,tavropane.h,tavrotransfer.h} \
    "$TAVRO_SOURCE/src/tavroops.cpp" "$here/consumer.cpp" .
  "$CXX" -std=c++17 consumer.cpp tavroops.cpp -o consumer
  expect_content ./consumer
}
