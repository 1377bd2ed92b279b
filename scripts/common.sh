# SPDX-License-Identifier: Apache-2.0
# The scripts source this file. It holds the places of files and the installation of packages.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
grid=/usr/share/vendor/data/ww15mgh.grd
jobs=$(nproc)
python=/usr/bin/python3  # sees the modules of Debian's packages, whatever other interpreters a machine has

say() { printf '== %s\n' "$*"; }
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Installs the packages of packaging/debian-packages.txt that the machine lacks.
install_packages() {
  # shellcheck disable=SC2046
  install_missing $(grep -v '^#' "$root/packaging/debian-packages.txt")
}

# install_missing PACKAGE... installs the packages that the machine lacks.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  say "Installing ${#missing[@]} packages: ${missing[*]}"
  [ "$(id -u)" -eq 0 ] || die "run as root, or install these packages first"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# sources FOLDER prints the C and C++ files below the folder, sorted. It does not use git, because a tree from an archive
# has no .git and a bare machine has no git: generated files are in build/ and out/, and all other files are sources.
sources() {
  find "$1" \( -name '.?*' -o -path ./build -o -path ./out \) -prune -o \
    -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sed 's|^\./||' | sort
}

# build PRESET [TARGET...] configures and builds into build/PRESET, and prints the log only if it fails.
configure_options=()
build() {
  local preset=$1 log
  shift
  mkdir -p "$root/build"
  log=$root/build/$preset.log
  say "Building $preset"
  (
    cd "$root"
    cmake --preset "$preset" "${configure_options[@]}"
    cmake --build --preset "$preset" -j "$jobs" ${1+--target "$@"}
  ) >"$log" 2>&1 || {
    tail -n 60 "$log" >&2
    die "the $preset build failed; the whole log is build/$preset.log"
  }
}

# Makes the EGM96 grid file from Debian's proj-data with make_geoid_grid.
install_grid() {
  [ -s "$grid" ] && return 0
  "$root/build/$1/tools/make_geoid_grid" --output "$grid"
}
