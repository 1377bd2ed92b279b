#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# try.sh VERSION: run by scripts/packages in a bare root with the packages of releases 1 and 2 in /srv.
set -eu
version=$1
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
grid=/usr/share/vendor/data/ww15mgh.grd

fail() {
  echo "$*" >&2
  exit 1
}
install_release() {
  set -- "$@" libmetadata-lib1 metadata-tools
  release=$1
  shift
  files=
  for package; do files="$files $(ls /srv/"${package}"_"$version-$release"_*.deb)"; done
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $files >/srv/apt.log 2>&1 || { tail -n 30 /srv/apt.log; fail "apt-get failed"; }
  for package; do
    [ "$(dpkg-query -W -f '${Version}' "$package")" = "$version-$release" ] || fail "$package is not of release $release"
  done
}
everything() {
  find / -xdev \( -path /proc -o -path /sys -o -path /srv -o -path /tmp -o -path /var/cache -o -path /var/log \
    -o -path /var/lib/apt -o -path /var/lib/dpkg \) -prune -o -print | sort
}
run_encoder() {
  printf '[klv]\ninput = udp\nport = 15673\n[cot]\ninput = udp\nport = 15674\ndata = cot\n' >/tmp/try.ini
  mdfeed klv --simulate --udp 127.0.0.1:15673 --duration 60 &
  first=$!
  mdfeed cot --simulate --udp 127.0.0.1:15674 --duration 60 &
  second=$!
  TZ=UTC mdencoder /tmp/try.ini --format json --messages-each 5 --duration 30 >/tmp/try.json 2>/tmp/try.log
  kill $first $second
  wait $first $second || true
  [ "$(grep -c '"type":"message"' /tmp/try.json)" -ge 10 ] || fail "mdencoder delivered too little"
  # Without the grid every height of an event is a line of the log.
  ! grep -q undulation /tmp/try.log || fail "the grid was not loaded"
}

apt-get update -qq
# What the packages depend on comes first, so that what is left at the end is theirs.
apt-get install -y -qq --no-install-recommends proj-data libavformat59 libavcodec59 libavfilter8 libavutil57 libspdlog1.10 libinih1 \
  libpcap0.8 libpugixml1v5 libssl3 libcpp-httplib0.11 zlib1g libstdc++6 >/srv/apt.log 2>&1
everything >/srv/before

echo "-- installed"
install_release 1
[ "$(mdencoder --version)" = "mdencoder $version" ] || fail "mdencoder tells another version"
[ -s "$grid" ] || fail "no grid was made"
ldconfig -p | grep -q libmetadata_lib.so.1 || fail "the loader does not know the library"
run_encoder

for unit in mdencoder.service mdencoder@.service; do
  [ -s "/usr/lib/systemd/system/$unit" ] || fail "there is no unit $unit"
done
[ -s /usr/share/doc/metadata_lib/60-mdencoder.rules ] || fail "there is no rule for udev"

echo "-- upgraded"
touch -d 2001-01-01 "$grid"
install_release 2
[ "$(date -r "$grid" +%Y)" = 2001 ] || fail "the upgrade replaced the grid"
run_encoder

echo "-- removed and purged"
apt-get remove -y -qq metadata-tools libmetadata-lib1 >/dev/null
[ ! -e /usr/bin/mdencoder ] || fail "mdencoder is still there"
[ ! -e "$grid" ] || fail "the grid is still there"
apt-get purge -y -qq metadata-tools libmetadata-lib1 >/dev/null
everything >/srv/after
diff /srv/before /srv/after || fail "something is left after the purge"

echo "-- with a grid of one's own"
mkdir -p "${grid%/*}"
echo own >"$grid"
install_release 1
apt-get purge -y -qq metadata-tools libmetadata-lib1 >/dev/null
[ "$(cat "$grid")" = own ] || fail "somebody's own grid was replaced or removed"
rm "$grid"

echo "-- built against"
install_release 1 libmetadata-lib-dev metadata-lib-doc
apt-get install -y -qq --no-install-recommends gcc libc6-dev libstdc++-12-dev make pkg-config >/srv/apt.log 2>&1
cp -r /usr/share/doc/metadata_lib/example /tmp/example
make -C /tmp/example
timeout -s INT 3 /tmp/example/encoder >/tmp/try.out &
sleep 1
mdfeed klv --simulate --udp 127.0.0.1:15000 --count 5
wait
grep -q '^camera #0: [0-9]* bytes$' /tmp/try.out || fail "the example printed nothing"
for page in mdencoder.1 mdfeed.1 make_geoid_grid.1 metadata_lib.3 mdencoder.ini.5; do
  [ -s "/usr/share/man/man${page##*.}/$page.gz" ] || fail "there is no page $page"
done
for page in index metadata__lib_8h page_integration; do
  [ -s "/usr/share/doc/metadata_lib/html/$page.html" ] || fail "the reference has no $page.html"
done
apt-get purge -y -qq libmetadata-lib-dev metadata-lib-doc metadata-tools libmetadata-lib1 >/dev/null
