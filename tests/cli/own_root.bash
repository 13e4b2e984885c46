# shellcheck shell=bash
# Volumes to mount and to empty, in a mount namespace with a root directory of its own, so that no
# file of the machine can be reached but to be read.

# in_own_root SCRIPT: runs a script of bash there, as root, in /here; the home directory is /home. There
# are `tavro`, `expect`, /one and /two, each a file system in memory, and /tmp. The script ends at
# the first command that fails, and at a `fails COMMAND…` that does not.
in_own_root() {
  ((EUID == 0)) || skip 'only root can mount file systems'
  unshare -m true 2>/dev/null || skip 'nothing can be mounted here'
  local root=$BATS_TEST_TMPDIR/root
  mkdir "$root"
  unshare -m --propagation private bash -euc "$(declare -f make_own_root enter_own_root)
    make_own_root '$root' '$(dirname "$TAVRO")'
    enter_own_root '$root'
    exec bash -c \"\$0\"" "set -euo pipefail
    tavro() { \$TAVRO \"\$@\"; }
    fails() { ! \"\$@\"; }
    $(declare -f expect_in_own_root)
    expect() { expect_in_own_root \"\$@\"; }
    $1"
}

expect_in_own_root() {
  [[ $1 == "$2" ]] || {
    printf 'expected: %q\n but got: %q\n' "$2" "$1"
    return 1
  }
}

make_own_root() { # ROOT DIRECTORY-OF-TAVRO
  local directory
  mount -t tmpfs -o mode=755 own "$1"
  mkdir -p "$1"/{proc,dev,tavro,tmp,run,home,here,one,two,old}
  chmod 1777 "$1/tmp"
  for directory in /bin /sbin /lib /lib32 /lib64 /libx32 /usr /etc /var; do
    if [[ -L $directory ]]; then
      cp -a "$directory" "$1/"
    elif [[ -d $directory ]]; then
      mkdir "$1$directory"
      mount --bind "$directory" "$1$directory"
      mount -o remount,bind,ro "$1$directory"
    fi
  done
  mount --bind "$2" "$1/tavro"
  mount -o remount,bind,ro "$1/tavro"
  mount --bind /dev "$1/dev"
  mount --bind /proc "$1/proc"
  mount -t tmpfs one "$1/one"
  mount -t tmpfs two "$1/two"
}

enter_own_root() { # ROOT
  cd "$1" || return 1
  pivot_root . old
  umount -l /old
  cd /here || return 1
  unset TAVRO_TRASH XDG_DATA_HOME XDG_STATE_HOME
  export HOME=/home TAVRO=/tavro/tavro LC_ALL=C.UTF-8
}
