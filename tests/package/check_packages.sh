#!/usr/bin/env bash
# Looks into the Debian packages in a directory: lintian, and what lintian does not ask.
# Usage: check_packages.sh DIRECTORY
# shellcheck disable=SC2317 # the functions are called by check
set -euo pipefail
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
cd "$1"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

# Says what was looked at, and whether it is as it should be.
check() { # SENTENCE COMMAND…
  local sentence=$1
  shift
  if "$@"; then
    echo "ok: $sentence"
  else
    echo "FAILED: $sentence"
    failed=1
  fi
}

architecture=$(dpkg --print-architecture)
command_package=$(echo tavro_*_"$architecture".deb)
development_package=$(echo libtavroops-dev_*_"$architecture".deb)
for package in "$command_package" "$development_package"; do
  [[ -e $package ]] || {
    echo "not exactly one such package in $PWD: $package" >&2
    exit 1
  }
done

# Lintian's warnings are failures too. One that is answered stands in packaging/lintian-overrides.
lint() {
  local output
  output=$(lintian --fail-on error,warning "$1" 2>&1) || {
    printf '%s\n' "$output"
    return 1
  }
}

# The files of a package, with the directory of the architecture as ARCH.
files_of() {
  dpkg-deb --fsys-tarfile "$1" | tar -t | grep -v '/$' |
    sed "s|/$(gcc -print-multiarch)/|/ARCH/|" | LC_ALL=C sort
}

same_files() { diff <(files_of "$1") "$here/$2"; }

owned_by_root() {
  ! dpkg-deb --fsys-tarfile "$1" | tar -tv --numeric-owner |
    grep -vE '^(d|-)rwxr-xr-x 0/0 |^-rw-r--r-- 0/0 '
}

sums_are_right() {
  dpkg-deb -x "$1" "$scratch/$1" && dpkg-deb -e "$1" "$scratch/$1/DEBIAN" &&
    (cd "$scratch/$1" && md5sum --quiet -c DEBIAN/md5sums)
}

depends_on_what_it_links() {
  local depends
  depends=$(dpkg-deb -f "$command_package" Depends | sed 's/ ([^)]*)//g')
  [[ $depends == libc6 ]] || {
    echo "it depends on: $depends"
    return 1
  }
}

# Position independent, no writable relocations, all bound at the start, checked string functions.
is_hardened() {
  local command=$scratch/$command_package/usr/bin/tavro headers symbols word
  headers=$(readelf -hldW "$command")
  symbols=$(readelf -sW --dyn-syms "$command")
  for word in 'DYN (Position-Independent' GNU_RELRO BIND_NOW; do
    [[ $headers == *"$word"* ]] || {
      echo "not in the headers: $word"
      return 1
    }
  done
  [[ $symbols == *__stack_chk_fail* && $symbols == *_chk@GLIBC* ]] && [[ $symbols != *.symtab* ]]
}

names_no_directory_of_the_builder() {
  ! grep -rlF -e "$PWD" -e "$(realpath "$here/../..")" "$scratch"
}

# Addresses that lead nowhere.
has_no_placeholder() {
  ! { dpkg-deb -f "$1" && dpkg-deb --fsys-tarfile "$1" | tar -xO --wildcards '*/changelog.Debian.gz' |
    gunzip; } | grep -E '@|example[.]|localhost|[.]invalid'
}

for package in "$command_package" "$development_package"; do
  check "$package: no placeholder in what it says of itself" has_no_placeholder "$package"
  check "$package: lintian" lint "$package"
  check "$package: its files" same_files "$package" "${package%%_*}.files"
  check "$package: owned by root, changed by nobody else" owned_by_root "$package"
  check "$package: its md5 sums" sums_are_right "$package"
done
check 'tavro depends on what it links' depends_on_what_it_links
check 'tavro is hardened and stripped' is_hardened
check 'no directory of the builder is named' names_no_directory_of_the_builder
exit "$failed"
