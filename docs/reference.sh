#!/usr/bin/env bash
# Makes the reference of the module below a directory, and fails on any warning of Doxygen. Exits with 77,
# which CTest shows as skipped, when Doxygen is not installed.
# Usage: reference.sh DIRECTORY
set -euo pipefail
output=$(realpath -m "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
command -v doxygen >/dev/null || {
  echo 'doxygen is not installed; ./dev docs installs it'
  exit 77
}
mkdir -p "$output"
{ cat docs/Doxyfile && printf 'OUTPUT_DIRECTORY = "%s"\n' "$output"; } | doxygen -
[[ -s $output/html/index.html && -s $output/html/tavroops_8h.html ]] || {
  echo "there is no reference in $output/html" >&2
  exit 1
}
[[ -s $output/html/search/search.js ]] || {
  echo 'the reference cannot be searched' >&2
  exit 1
}
grep -q 'class="comment">/// Renames unless something is at' "$output/html/index.html" || {
  echo 'the code of the guide has lost its comments' >&2
  exit 1
}
