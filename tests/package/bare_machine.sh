#!/usr/bin/env bash
# Installs the Debian packages in a directory on a machine that has nothing else, uses them and removes
# them; then builds an application there. The machine is a directory with a Debian of its own, made by
# debootstrap from where this machine gets its packages.
# Usage: bare_machine.sh DIRECTORY
#
# Exits with 77 when this cannot be tried here. Takes some minutes and one gigabyte below TMPDIR.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
packages=$(cd "$1" && pwd -P)
nobody=65534

skip() {
  echo "skipped: $1"
  exit 77
}

fail() {
  echo "FAILED: $1" >&2
  exit 1
}

quietly() {
  local output
  output=$("$@" 2>&1) || {
    printf '%s\n' "$output" >&2
    fail "$*"
  }
}

((EUID == 0)) || skip 'only root can make a bare machine'
command -v debootstrap >/dev/null || skip 'debootstrap is not installed'
unshare --mount true 2>/dev/null || skip 'mounting is not permitted here'

# The work is done in a mount namespace of its own: nothing stays mounted when the scratch directory is
# removed, however that work ended.
if [[ -z ${2-} ]]; then
  scratch=$(cd "$(mktemp -d)" && pwd -P)
  trap 'rm -rf --one-file-system "$scratch"' EXIT
  unshare --mount --propagation private bash "${BASH_SOURCE[0]}" "$packages" "$scratch"
  exit
fi
root=$2/root

on_machine() { # COMMAND…
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"
}

as_user() { # COMMAND LINE
  chroot --userspec="$nobody:$nobody" "$root" /usr/bin/env -i PATH=/usr/bin:/bin LC_ALL=C.UTF-8 \
    HOME=/home/user bash -euc "cd /home/user; $1"
}

install() { # WHAT…
  quietly on_machine apt-get -qq install -y --no-install-recommends "$@"
}

make_machine() {
  local suite mirror
  # shellcheck source=/dev/null
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME-}")
  # shellcheck disable=SC2016 # the names of the fields are for apt
  mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $suite" 'Created-By: Packages' |
    head -n 1)
  [[ -n $suite && -n $mirror ]] || skip 'this machine does not tell where its packages come from'
  quietly debootstrap --variant=minbase "$suite" "$root" "$mirror"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  cp -r /etc/apt/apt.conf.d "$root/etc/apt/" # a proxy may be in there
  mount -t proc proc "$root/proc"
  mkdir -p "$root/packages" "$root/home/user"
  chown "$nobody:$nobody" "$root/home/user"
  cp "$packages"/tavro_*.deb "$root/packages/tavro.deb"
  cp "$packages"/libtavroops-dev_*.deb "$root/packages/libtavroops-dev.deb"
  quietly on_machine apt-get -qq update
}

# Every path but those that the package manager keeps for itself.
list_files() {
  (cd "$root" && find . -xdev \( -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./var/cache \
    -o -path ./var/log -o -path ./proc -o -path ./home/user \) -prune -o -print | LC_ALL=C sort)
}

expect_no_trace() { # LIST
  diff "$1" <(list_files) || fail 'what is there after the removal is not what was there before'
}

use_command() {
  [[ $(as_user 'tavro --version') == tavro\ [1-9]* ]] || fail 'the version'
  as_user 'echo "Dear reader" >letter; mkdir Letters; tavro move -q letter Letters/; tavro trash -q Letters
    tavro list' | grep -q Letters || fail 'the trash has no letters'
  as_user 'tavro undo; cat Letters/letter' | grep -q 'Dear reader' || fail 'the undo'
  as_user '. /usr/share/bash-completion/completions/tavro; complete -p tavro' >/dev/null
}

use_library() {
  cp -r "$here/../consumer/consumer.cpp" "$here/../consumer/from_prefix" "$root/home/user/"
  chown -R "$nobody:$nobody" "$root/home/user"
  local content='The consumer is content.'
  as_user "g++ -std=c++17 consumer.cpp \$(pkg-config --cflags --libs 'tavroops >= 1.0') -o consumer
    ./consumer" | grep -qx "$content" || fail 'the consumer by pkg-config'
  as_user 'cd from_prefix
    cmake -S . -B build -D WANTED=1.0 >/dev/null; cmake --build build >/dev/null
    ./build/consumer' | grep -qx "$content" || fail 'the consumer by find_package'
}

make_machine
list_files >"$root/../before"
install /packages/tavro.deb /packages/libtavroops-dev.deb
quietly on_machine dpkg --verify tavro libtavroops-dev
use_command
quietly on_machine apt-get -qq remove -y tavro libtavroops-dev
expect_no_trace "$root/../before"
echo 'ok: both packages install, tavro works, and nothing of them stays'

install g++ cmake make pkg-config
list_files >"$root/../before"
install /packages/libtavroops-dev.deb
use_library
quietly on_machine apt-get -qq purge -y libtavroops-dev
expect_no_trace "$root/../before"
echo 'ok: an application builds against libtavroops-dev, and nothing of it stays'
