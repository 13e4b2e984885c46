#!/usr/bin/env bash
# Builds the C++ example of the README as a stranger would, and runs it.
# Usage: consumer_example.sh README INCLUDE_DIRECTORY LIBRARY COMPILER [FLAG…]
set -euo pipefail
readme=$1 include=$2 library=$3 compiler=$4
shift 4

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$readme" >"$scratch/example.cpp"
[[ -s $scratch/example.cpp ]] || {
  echo "no C++ example in $readme" >&2
  exit 1
}
"$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$@" -I "$include" \
  "$scratch/example.cpp" "$library" -o "$scratch/example"
cd "$scratch"
output=$(./example)
[[ $output == "Created $(pwd -P)/Letters/2026" && -d Letters/2026 ]] || {
  echo "the example printed: $output" >&2
  exit 1
}
