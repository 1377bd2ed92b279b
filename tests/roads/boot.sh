#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# boot.sh FOLDER PROGRAM LIBRARY UNITS: boots systemd as the first process of namespaces of its own, in which
# boot_test.py starts it, on a copy of this machine's root that keeps nothing. PROGRAM, LIBRARY and UNITS are where a
# package has them. Of the machine's own units only the journal and what every service waits for are there.
set -eu
folder=$1
program=$2
library=$3
units=$4

mount -t tmpfs tmpfs "$folder"
mkdir "$folder/upper" "$folder/work" "$folder/root" "$folder/units"
mount -t overlay -o "lowerdir=/,upperdir=$folder/upper,workdir=$folder/work" overlay "$folder/root"
cd "$folder/root"

mount -t proc proc proc
mount -t sysfs sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
mount -t tmpfs -o mode=755 tmpfs dev
for node in null zero full random urandom tty; do
  touch "dev/$node"
  mount --bind "/dev/$node" "dev/$node"
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd

services=usr/lib/systemd/system
for unit in basic.target sysinit.target local-fs.target local-fs-pre.target paths.target slices.target sockets.target \
  timers.target multi-user.target network.target shutdown.target umount.target systemd-journald.service \
  systemd-journald.socket systemd-journald-dev-log.socket; do
  cp -a "$services/$unit" "$folder/units/"
done
for path in "$services" etc/systemd/system etc/systemd/system.conf.d usr/lib/systemd/system-generators \
  etc/systemd/system-generators usr/local/lib/systemd var/log/journal var/lib/mdencoder etc/mdencoder; do
  [ ! -e "$path" ] || mount -t tmpfs tmpfs "$path"
done
cp -a "$folder/units/." "$services/"
mkdir "$services/sockets.target.wants" "$services/sysinit.target.wants"
ln -s ../systemd-journald.socket ../systemd-journald-dev-log.socket "$services/sockets.target.wants/"
ln -s ../systemd-journald.service "$services/sysinit.target.wants/"
cp "$units"/*.service "$services/"
cp "$program" usr/bin/mdencoder
cp "$library" usr/lib/libmetadata_lib.so.1
rm -f etc/machine-id
echo 6d64656e636f6465722d746573740000 >etc/machine-id

exec env -i container=namespace PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot . \
  /lib/systemd/systemd --system --unit=multi-user.target --log-target=null --show-status=no
