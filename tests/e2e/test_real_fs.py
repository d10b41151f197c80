"""The daemon on real file systems: ext4, xfs and btrfs.

Each test makes the images it needs in its temporary directory (mkfs on a
sparse file of the smallest size mkfs accepts), attaches them with
`losetup --find --show`, mounts them in the daemon's private namespace
only, and detaches exactly the devices it attached when it ends (a device
still in use then is freed by the kernel once its namespace is gone).

On each file system: the exact lines of everyday changes, and a replay of
an archive extraction, a mirror and a removal (test_replay.py's reference
consumer). On one: a kernel queue overflow. On btrfs: shares that are
subvolumes, a subvolume created while watched, a snapshot into a share and
a share rolled back (each announced by a rescan line of its path), and a
volume that is a subvolume mounted on its own (`-o subvol=`), renamed
while watched, with changes elsewhere on the file system that must not
reach the queue.
"""

import os
import subprocess
from pathlib import Path

import pytest

from harness import _sh, monitor, wait_lines, wait_until
from replay_model import Replay
from test_replay import (SHARE, VOLUME, Workload, overflow_workload, settle,
                         write_files)

FILE_SYSTEMS = ["ext4", "xfs", "btrfs"]
# The smallest sizes each mkfs accepts, in MiB; the images are sparse.
IMAGE_MIB = {"ext4": 8, "xfs": 300, "btrfs": 114}
MKFS = {"ext4": ["mkfs.ext4", "-q", "-F"],
        "xfs": ["mkfs.xfs", "-q", "-f"],
        "btrfs": ["mkfs.btrfs", "-q", "-f"]}
TREE_CODES = ["create", "delete", "move", "rescan"]


class LoopDevices:
    """Images made in `directory` and the loop devices this test attached
    to them (and only those)."""

    def __init__(self, directory: Path):
        self.directory = directory
        self.devices = []

    def make(self, fs_type: str) -> str:
        """A fresh file system of `fs_type` on a new loop device."""
        image = self.directory / ("%s-%d.img" % (fs_type, len(self.devices)))
        with open(image, "wb") as f:
            f.truncate(IMAGE_MIB[fs_type] << 20)
        subprocess.run(MKFS[fs_type] + [str(image)], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        device = subprocess.run(
            ["losetup", "--find", "--show", str(image)], check=True,
            stdout=subprocess.PIPE).stdout.decode().strip()
        self.devices.append(device)
        return device

    def detach_all(self):
        for device in self.devices:
            subprocess.run(["losetup", "-d", device], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)


@pytest.fixture
def loop_devices(tmp_path):
    """Requested before make_appliance, so that it is torn down after the
    daemons (and their namespaces) are gone."""
    devices = LoopDevices(tmp_path)
    yield devices
    devices.detach_all()


def mount_in_ns(app, device: str, mount_point: str, options: str = ""):
    """Mounts `device` at `mount_point` in the daemon's namespace. Its /dev
    is the harness's small tmpfs: the device node is made there first, as
    the system's /dev would have it."""
    rdev = os.stat(device).st_rdev
    script = ("[ -b {dev} ] || mknod {dev} b {major} {minor}; "
              "mkdir -p {mp} && mount {opts}{dev} {mp}").format(
                  dev=_sh(device), major=os.major(rdev), minor=os.minor(rdev),
                  mp=_sh(mount_point),
                  opts=("-o %s " % _sh(options)) if options else "")
    app.run_in_ns(["sh", "-c", script])


def line(event, path, is_dir=False, path_old=None):
    entry = {"event": event, "is_dir": is_dir, "path": path}
    if path_old is not None:
        entry["path_old"] = path_old
    return entry


def drop_kernel_caches():
    """Drops dentries and inodes, so that the daemon decodes the handles of
    directories the kernel no longer has in memory."""
    with open("/proc/sys/vm/drop_caches", "w") as f:
        f.write("2")


@pytest.mark.parametrize("fs_type", FILE_SYSTEMS)
def test_everyday_changes_give_exact_lines(loop_devices, make_appliance,
                                           fs_type):
    device = loop_devices.make(fs_type)
    app = make_appliance()
    app.add_volume(1, VOLUME, mounted=False)
    app.add_share("Share", SHARE, create=False)
    queue = app.queue_path("basic.queue")
    app.add_queue("system", "basic.json", queue, [monitor(
        "Share", events=["create", "delete", "move", "attrib",
                         "close_write"])])

    def mount(a):
        mount_in_ns(a, device, VOLUME)
        a.run_in_ns(["sh", "-c", "mkdir -p {0} && cd {0} && "
                     "mkdir -p deep/er e-dir f-dir && "
                     "touch b.txt d.txt deep/er/c.txt".format(_sh(SHARE))])

    app.start(before_exec=mount)
    app.wait_ready()
    # One change per name, and no directory removed or renamed that
    # another change lies in: the lines cannot depend on when the daemon
    # reads the kernel's reports.
    share = app.ns_path(SHARE)
    (share / "a.txt").write_text("one")
    os.chmod(share / "b.txt", 0o600)
    (share / "dir").mkdir()
    drop_kernel_caches()
    os.rename(share / "deep" / "er" / "c.txt", share / "dir" / "c.txt")
    os.unlink(share / "d.txt")
    os.rename(share / "e-dir", share / "e-dir2")
    os.rmdir(share / "f-dir")
    expected = [
        line(64, SHARE + "/a.txt"), line(8, SHARE + "/a.txt"),
        line(4, SHARE + "/b.txt"),
        line(64, SHARE + "/dir", True),
        line(256, SHARE + "/dir/c.txt", path_old=SHARE + "/deep/er/c.txt"),
        line(128, SHARE + "/d.txt"),
        line(256, SHARE + "/e-dir2", True, path_old=SHARE + "/e-dir"),
        line(128, SHARE + "/f-dir", True),
    ]
    lines = wait_lines(app, queue, lambda ls: len(ls) >= len(expected))
    assert lines == expected


def tree_workload(w, source: Path, archive: Path):
    """An archive extracted into the share, a mirror made with rsync and
    changed, and part of both removed: a few hundred files."""
    w.run(["tar", "-xf", str(archive), "-C", SHARE + "/restore"])
    w.run(["rsync", "-a", str(source) + "/", SHARE + "/mirror/"])
    for i in range(0, 10, 3):
        d = source / ("d%02d" % (i // 2)) / ("s%d" % (i % 2))
        (d / "f001.txt").unlink()
        (d / "f002.txt").write_text("changed, and longer\n")
    w.run(["rsync", "-a", "--delete", str(source) + "/", SHARE + "/mirror/"])
    w.run(["rm", "-rf", SHARE + "/restore/tree/d01", SHARE + "/mirror/d03",
           SHARE + "/restore/tree/d00/s0"])


@pytest.mark.parametrize("fs_type", FILE_SYSTEMS)
def test_replay_of_tar_rsync_and_rm(loop_devices, make_appliance, tmp_path,
                                    fs_type):
    device = loop_devices.make(fs_type)
    source = tmp_path / "source"
    write_files(source / "tree", 10, 20)
    archive = tmp_path / "tree.tar"
    subprocess.run(["tar", "-cf", str(archive), "-C", str(source), "tree"],
                   check=True)
    w = Workload(make_appliance(), "replay-" + fs_type,
                 mount=lambda a: mount_in_ns(a, device, VOLUME))
    w.start(lambda w: w.run(["mkdir", SHARE + "/restore"]))
    tree_workload(w, source / "tree", archive)
    w.check()


def test_kernel_queue_overflow_on_xfs(loop_devices, make_appliance):
    device = loop_devices.make("xfs")
    overflow_workload(Workload(make_appliance(), "overflow-xfs",
                               mount=lambda a: mount_in_ns(a, device, VOLUME)),
                      old=(4, 10), new=(6, 20))


BACKUP = VOLUME + "/Backup"


def rescan_follows_create(lines, path) -> bool:
    """The create line of directory `path`, then (later) a rescan of it."""
    created = [i for i, l in enumerate(lines)
               if l == line(64, path, True)]
    return bool(created) and any(
        l["event"] == 512 and l["path"] == path for l in lines[created[-1]:])


def test_btrfs_subvolume_shares_snapshots_and_roll_back(loop_devices,
                                                        make_appliance):
    device = loop_devices.make("btrfs")
    app = make_appliance()
    app.add_volume(1, VOLUME, mounted=False)
    app.add_share("Share", SHARE, create=False)
    app.add_share("Backup", BACKUP, create=False)
    share_queue = app.queue_path("share.queue")
    backup_queue = app.queue_path("backup.queue")
    app.add_queue("system", "share.json", share_queue,
                  [monitor("Share", events=TREE_CODES)])
    app.add_queue("system", "backup.json", backup_queue,
                  [monitor("Backup", events=TREE_CODES)])

    def prepare(a):
        mount_in_ns(a, device, VOLUME)
        for subvolume in (SHARE, BACKUP):
            a.run_in_ns(["btrfs", "-q", "subvolume", "create", subvolume])
        write_files(a.ns_path(SHARE + "/old"), 4, 20)

    app.start(before_exec=prepare)
    app.wait_ready()
    host = app.ns_path
    share_model = Replay(SHARE, to_host=lambda p: str(host(p)))
    backup_model = Replay(BACKUP, to_host=lambda p: str(host(p)))

    def btrfs(*args):
        app.run_in_ns(["btrfs", "-q"] + list(args))

    # Changes in a share that is a subvolume, and in a subvolume made in it
    # while watched.
    host(SHARE + "/new.txt").write_text("n")
    btrfs("subvolume", "create", SHARE + "/sv")
    write_files(host(SHARE + "/sv"), 2, 5)
    # A snapshot into the other share: its entries come without events.
    btrfs("subvolume", "snapshot", SHARE, BACKUP + "/snap-1")
    host(BACKUP + "/snap-1/after-snapshot.txt").write_text("a")
    # The share rolled back: its subvolume deleted, a snapshot of the
    # backup put in its place.
    btrfs("subvolume", "delete", SHARE + "/sv")
    btrfs("subvolume", "delete", SHARE)
    btrfs("subvolume", "snapshot", BACKUP + "/snap-1", SHARE)
    host(SHARE + "/after-roll-back.txt").write_text("r")

    share_lines = settle(app, share_queue, SHARE + "/.settled")
    backup_lines = settle(app, backup_queue, BACKUP + "/.settled")
    print("\nbtrfs share queue: %d lines, rescans %r; backup queue: %d lines, "
          "rescans %r" % (
              len(share_lines),
              [l["path"] for l in share_lines if l["event"] == 512],
              len(backup_lines),
              [l["path"] for l in backup_lines if l["event"] == 512]))
    assert line(64, SHARE + "/new.txt") in share_lines
    assert line(64, SHARE + "/sv", True) in share_lines
    assert line(64, SHARE + "/sv/d00/s0/f000.txt") in share_lines
    assert rescan_follows_create(backup_lines, BACKUP + "/snap-1")
    assert line(64, BACKUP + "/snap-1/after-snapshot.txt") in backup_lines
    assert rescan_follows_create(share_lines, SHARE)
    assert line(64, SHARE + "/after-roll-back.txt") in share_lines
    for model, lines in ((share_model, share_lines),
                         (backup_model, backup_lines)):
        model.apply_all(lines)
        diff = model.difference()
        assert not diff, "%s: %s" % (model.root, diff.summary())


TOP = "/btrfs-top"  # the whole file system, in the namespace only


def test_btrfs_volume_that_is_a_subvolume_mounted_alone(loop_devices,
                                                        make_appliance,
                                                        tmp_path):
    device = loop_devices.make("btrfs")
    source = tmp_path / "source"
    write_files(source / "tree", 10, 20)
    archive = tmp_path / "tree.tar"
    subprocess.run(["tar", "-cf", str(archive), "-C", str(source), "tree"],
                   check=True)

    def mount(a):
        mount_in_ns(a, device, TOP)
        for subvolume in (TOP + "/data", TOP + "/other"):
            a.run_in_ns(["btrfs", "-q", "subvolume", "create", subvolume])
        mount_in_ns(a, device, VOLUME, "subvol=data")

    w = Workload(make_appliance(), "subvol-mount", mount=mount)
    w.start(lambda w: w.run(["mkdir", SHARE + "/restore"]))
    tree_workload(w, source / "tree", archive)
    # Elsewhere on the file system: nothing of it reaches the queue.
    write_files(w.host(TOP + "/other/outside"), 2, 5)
    w.host(TOP + "/top-level.txt").write_text("t")
    # The subvolume renamed while watched: changes keep their paths.
    w.run(["mv", TOP + "/data", TOP + "/data-renamed"])
    write_files(w.host(SHARE + "/after-rename"), 2, 5)
    # A subvolume and a snapshot in the share.
    w.run(["btrfs", "-q", "subvolume", "create", SHARE + "/nested"])
    w.host(SHARE + "/nested/n.txt").write_text("n")
    w.run(["btrfs", "-q", "subvolume", "snapshot", TOP + "/other",
           SHARE + "/snap"])
    w.check(rescans_below=[SHARE + "/nested", SHARE + "/snap"])
    lines = w.app.read_queue(w.queue)
    assert all(l["path"].startswith(SHARE + "/") for l in lines), \
        [l for l in lines if not l["path"].startswith(SHARE + "/")][:5]
    assert line(64, SHARE + "/after-rename/d00/s0/f000.txt") in lines
    assert rescan_follows_create(lines, SHARE + "/snap")
    assert not w.app.find_logs(r"Add failed|add_watch")
    # The volume unmounts at once, although the daemon watches it, and the
    # file system goes (its device is free) once the daemon saw it go.
    uuid = subprocess.run(["blkid", "-s", "UUID", "-o", "value", device],
                          check=True, stdout=subprocess.PIPE
                          ).stdout.decode().strip()
    alive = Path("/sys/fs/btrfs") / uuid
    w.run(["umount", TOP])
    assert alive.exists()
    w.run(["umount", VOLUME])
    assert wait_until(lambda: not alive.exists(), 20), \
        "the file system stayed mounted" + w.app.diagnostics()
    w.app.assert_running()
