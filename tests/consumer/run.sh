#!/usr/bin/env bash
# Runs consumer.bats, as the caller or as a user without rights.
# Usage: run.sh [--unprivileged] SOURCE_DIRECTORY BUILD_DIRECTORY COMPILER [FLAG…]
#
# Exits with 77, which CTest shows as skipped, when --unprivileged is given by somebody who has no
# rights to give up; the run as the caller is that test then.
set -euo pipefail
unprivileged=
if [[ $1 == --unprivileged ]]; then
  unprivileged=yes
  shift
fi
export TAVRO_SOURCE=$1 TAVRO_BUILD=$2 CXX=$3
shift 3
export CXXFLAGS=$*

if [[ -z $unprivileged ]]; then
  exec bats "$TAVRO_SOURCE/tests/consumer/consumer.bats"
fi
if ((EUID != 0)); then
  echo 'only root can run this as another user'
  exit 77
fi

# The other user gets copies: of the sources, and of what the installation reads in the build
# directory. Its scripts name both directories, and write a list of what they installed beside
# themselves.
nobody=65534
scratch=$(cd "$(mktemp -d)" && pwd -P)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/source" "$scratch/build" "$scratch/tmp"
(cd "$TAVRO_SOURCE" && tar -c --exclude=./build --exclude=./.git .) | tar -x -C "$scratch/source"
(cd "$TAVRO_BUILD" && find . -name cmake_install.cmake -o -path './CMakeFiles/Export/*' -type f \
  -o -name 'tavroops*.cmake' -o -name tavroops.pc -o -name libtavroops.a -o -path ./cli/tavro |
  tar -c -T -) | tar -x -C "$scratch/build"
find "$scratch/build" -name '*.cmake' -exec \
  sed -i -e "s|$TAVRO_BUILD|$scratch/build|g" -e "s|$TAVRO_SOURCE|$scratch/source|g" {} +
chown -R "$nobody:$nobody" "$scratch"
export TAVRO_SOURCE=$scratch/source TAVRO_BUILD=$scratch/build TMPDIR=$scratch/tmp
cd "$scratch"
setpriv --reuid="$nobody" --regid="$nobody" --clear-groups \
  bats "$TAVRO_SOURCE/tests/consumer/consumer.bats"
