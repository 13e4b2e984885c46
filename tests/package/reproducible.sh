#!/usr/bin/env bash
# Builds the Debian packages twice, as differently as one machine can, and wants the same bytes:
# of the packages, of the library and of the command.
# Usage: reproducible.sh
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
scratch=$(cd "$(mktemp -d)" && pwd -P)
trap 'rm -rf "$scratch"' EXIT
export CCACHE_DISABLE=1 # the second build would be the first one's

copy_sources() { # DIRECTORY
  mkdir -p "$1"
  tar -C "$source" -c --exclude=./build --exclude=./.git . | tar -C "$1" -x --touch
}

build() { # DIRECTORY BUILD_DIRECTORY
  "${user[@]}" bash "$1/packaging/build_packages.sh" "$2" >"$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    return 1
  }
}

copy_sources "$scratch/a"
copy_sources "$scratch/another place/for the sources"
user=()
(umask 022 && LC_ALL=C TZ=UTC build "$scratch/a" "$scratch/a/build")
if ((EUID == 0)); then # by another user
  user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
  chown -R 65534:65534 "$scratch"
fi
(umask 077 && LC_ALL=C.UTF-8 TZ=Asia/Tokyo CMAKE_BUILD_PARALLEL_LEVEL=1 \
  build "$scratch/another place/for the sources" "$scratch/elsewhere")

failed=0
compared=0
for file in "$scratch"/a/build/*.deb "$scratch"/a/build/{libtavroops.a,cli/tavro}; do
  name=${file#"$scratch/a/build/"}
  if cmp "$file" "$scratch/elsewhere/$name"; then
    echo "the same: $name, $(sha256sum <"$file" | cut -c 1-16)"
  else
    failed=1
  fi
  compared=$((compared + 1))
done
[[ $compared -eq 4 ]] || {
  echo "compared $compared files instead of two packages, the library and the command" >&2
  failed=1
}
exit "$failed"
