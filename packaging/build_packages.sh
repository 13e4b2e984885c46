#!/usr/bin/env bash
# Builds the Debian packages tavro and libtavroops-dev into a directory of their own.
# Usage: build_packages.sh BUILD_DIRECTORY
#
# The same sources give the same bytes, wherever and whenever they are built: the only time in the
# packages is that of the newest entry of packaging/changelog.
set -euo pipefail
umask 022 # cpack puts the modes of its own files into a package
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
mkdir -p "$1"
build=$(cd "$1" && pwd -P)

SOURCE_DATE_EPOCH=$(dpkg-parsechangelog --file "$source/packaging/changelog" --show-field Timestamp)
export SOURCE_DATE_EPOCH

cmake -G Ninja -S "$source" -B "$build" \
  -D CMAKE_BUILD_TYPE=Release -D CMAKE_INSTALL_PREFIX=/usr -D BUILD_TESTING=OFF \
  -D TAVRO_DEBIAN_PACKAGES=ON
cmake --build "$build"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB)
ls "$build"/*.deb
