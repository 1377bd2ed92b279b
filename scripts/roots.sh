# SPDX-License-Identifier: Apache-2.0
# Bare Debian roots, shared by the scripts that need one. Sourced after common.sh.
suite=bookworm

# The mirror this machine takes its own packages from.
mirror() {
  local found
  found=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' "Codename: $suite" | head -n 1)
  echo "${found:-http://deb.debian.org/debian/}"
}

# make_bare_root FOLDER PACKAGES: Debian's base and nothing else. What is loaded is kept in PACKAGES.
make_bare_root() {
  say "Making a bare root"
  rm -rf "${1:?}"
  mkdir -p "$2"
  debootstrap --variant=minbase --cache-dir="$2" "$suite" "$1" "$(mirror)" >"$1.debootstrap.log" 2>&1 ||
    die "debootstrap failed; see $1.debootstrap.log"
  cp --dereference /etc/resolv.conf "$1/etc/resolv.conf"
  # Every installed machine and every container has it, and Selenium finds the browser by this name.
  printf '127.0.0.1 localhost\n::1 localhost ip6-localhost ip6-loopback\n' >"$1/etc/hosts"
  apt-config dump | grep -E '^Acquire::(http|https|ftp)::' >"$1/etc/apt/apt.conf.d/90machine" || true
}

# run_in_root FOLDER PACKAGES COMMAND...: in the root, with processes and mounts of its own that end with it. Packages
# that apt loads come from and go to PACKAGES.
run_in_root() {
  setpriv --pdeathsig KILL unshare --mount --pid --fork --kill-child bash -euc '
    # The root of a machine is a mount; what makes namespaces for mounts needs one.
    mount --bind "$1" "$1"
    cd "$1"; shift
    mount -t proc proc proc
    mount -t sysfs sysfs sys
    mount --rbind /dev dev
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
    mount -t tmpfs tmpfs dev/shm
    mount --bind "$1" var/cache/apt/archives; shift
    # Not exec: the first process of a namespace does not die of signals, and the tests are no such process.
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root chroot . "$@" || exit $?
  ' bash "$@"
}
