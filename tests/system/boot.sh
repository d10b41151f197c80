#!/bin/bash
# Boots the host's systemd as PID 1 of a throw-away container; container.py
# runs this as
#   unshare --pid --fork --mount --uts --ipc --net bash boot.sh NAME TARGET CGROUP
# so it starts as PID 1 of new PID, mount, UTS, IPC and network namespaces.
# It moves itself into CGROUP (a fresh cgroup v2 directory made by the
# caller) and takes a new cgroup namespace there, builds the container's
# root and execs systemd, which keeps PID 1.
#
# The root is an overlay of the host's / whose upper layer is a tmpfs:
# every file written inside lands on that tmpfs and goes with the last
# reference to the mount namespace. /proc is the new PID namespace's, /sys
# read-only (so is /proc/sys: a sysctl inside would change the host's
# kernel), /dev a small tmpfs with only the harmless devices, /run and /tmp
# fresh tmpfs. Units that touch hardware, the kernel's settings or the
# network are masked in the overlay's /etc/systemd/system.
set -euo pipefail
name=$1
target=$2
cgroup=$3

if [[ $$ != 1 ]]; then
  echo "boot.sh: not PID 1 of a new PID namespace" >&2
  exit 1
fi
echo 1 >"$cgroup/cgroup.procs"
exec unshare --cgroup bash -c '
set -euo pipefail
name=$1
target=$2
mount --make-rprivate /
# The layers: a tmpfs mounted over /tmp, which only this mount namespace
# sees; the overlay takes the host root file system itself as its lower
# layer, never the mounts above it.
mount -t tmpfs -o mode=0700,size=2g tmpfs /tmp
mkdir /tmp/upper /tmp/work /tmp/root
mount -t overlay overlay -o lowerdir=/,upperdir=/tmp/upper,workdir=/tmp/work /tmp/root
r=/tmp/root

mount -t proc -o nosuid,nodev,noexec proc "$r/proc"
mount --bind "$r/proc/sys" "$r/proc/sys"
mount -o remount,bind,ro "$r/proc/sys"
if [[ -e $r/proc/sysrq-trigger ]]; then
  mount --bind /dev/null "$r/proc/sysrq-trigger"
fi
mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$r/sys"
mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$r/sys/fs/cgroup"

mount -t tmpfs -o mode=0755,size=4m,nosuid tmpfs "$r/dev"
mknod -m 0666 "$r/dev/null" c 1 3
mknod -m 0666 "$r/dev/zero" c 1 5
mknod -m 0666 "$r/dev/full" c 1 7
mknod -m 0666 "$r/dev/random" c 1 8
mknod -m 0666 "$r/dev/urandom" c 1 9
mknod -m 0666 "$r/dev/tty" c 5 0
mkdir "$r/dev/pts" "$r/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=0620,gid=5,nosuid,noexec devpts "$r/dev/pts"
ln -s pts/ptmx "$r/dev/ptmx"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$r/dev/shm"
ln -s /proc/self/fd "$r/dev/fd"
ln -s /proc/self/fd/0 "$r/dev/stdin"
ln -s /proc/self/fd/1 "$r/dev/stdout"
ln -s /proc/self/fd/2 "$r/dev/stderr"

mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs "$r/run"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$r/tmp"

# No mounts from the host fstab, no machine-specific services.
: >"$r/etc/fstab"
etc=$r/etc/systemd/system
mkdir -p "$etc"
for unit in \
    systemd-udevd.service systemd-udevd-control.socket systemd-udevd-kernel.socket \
    systemd-udev-trigger.service systemd-udev-settle.service systemd-hwdb-update.service \
    systemd-networkd.service systemd-networkd.socket systemd-networkd-wait-online.service \
    systemd-resolved.service systemd-timesyncd.service systemd-logind.service \
    systemd-sysctl.service systemd-modules-load.service kmod-static-nodes.service \
    systemd-binfmt.service proc-sys-fs-binfmt_misc.automount proc-sys-fs-binfmt_misc.mount \
    systemd-random-seed.service systemd-pstore.service systemd-remount-fs.service \
    systemd-firstboot.service systemd-machine-id-commit.service systemd-repart.service \
    sys-kernel-config.mount sys-kernel-debug.mount sys-kernel-tracing.mount \
    sys-fs-fuse-connections.mount dev-hugepages.mount dev-mqueue.mount \
    getty.target console-getty.service getty@.service serial-getty@.service \
    networking.service ifupdown-pre.service ssh.service cron.service \
    apt-daily.timer apt-daily-upgrade.timer e2scrub_all.timer e2scrub_reap.service \
    fstrim.timer logrotate.timer man-db.timer dpkg-db-backup.timer \
    nats-server.service postgresql.service; do
  rm -rf "${etc:?}/$unit"
  ln -s /dev/null "$etc/$unit"
done
# A small target for the container: the basic system and nothing else.
cat >"$etc/$target" <<UNIT
[Unit]
Description=throw-away test container
Requires=basic.target
After=basic.target
AllowIsolate=yes
UNIT

hostname "$name"
cd "$r"
mkdir -p .oldroot
pivot_root . .oldroot
cd /
umount -l /.oldroot
rmdir /.oldroot
exec env -i container="$name" PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  /lib/systemd/systemd --system --unit="$target"
' boot "$name" "$target"
