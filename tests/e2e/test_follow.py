"""The daemon follows mounts, the volume table, smb.conf and its own
configuration by itself, as on a stock machine where no service reports
them, and never keeps a volume busy.

No control command drives what is tested here: commands are only sent to
raise the log level (so that the daemon says what it does), and where a
command is the point of the test ("mount_volume" with another spelling of a
mount point, "umount_volume" of a volume still mounted).
"""

import signal
import time

import pytest

from control_util import send
from harness import (LINE_TIMEOUT, monitor, wait_line, wait_lines,
                     wait_until)

# Lines are written by each volume's processor every 3 seconds.
# Longer than one processor pass: for what must NOT happen.
QUIET_PERIOD = 4.5

FOLLOW = r"^follow:\d+ "
ADD_WATCH = r"^event_receiver:\d+ Add watch, path="
REMOVE_WATCH = r"^event_receiver:\d+ Remove watch, path="


def line(event, path, is_dir=False):
    return {"event": event, "is_dir": is_dir, "path": path}


def rescan(mount_point):
    return line(512, mount_point, True)






def write_files(app, *paths):
    for path in paths:
        app.ns_path(path).write_text("x")


def info(app):
    """Raises the log level so that the daemon reports what it follows."""
    assert send(app, "set_log_level", {"log_level": "info"}) == 0


@pytest.fixture
def app(appliance):
    """An unstarted appliance; once started, its daemon must still run at
    the end, stop cleanly and have written nothing to stderr."""
    yield appliance
    if appliance.proc is None:
        return
    appliance.assert_running()
    appliance.signal(signal.SIGTERM)
    assert appliance.wait_exit() == 0, appliance.diagnostics()
    stderr = appliance.stderr_path.read_bytes()
    assert stderr == b"", stderr[:4000].decode(errors="replace")


def two_volumes(app):
    """/vol1 with share Public, /vol2 with share Backup, and one queue
    taking creations in both."""
    app.add_volume(1, "/vol1")
    app.add_volume(2, "/vol2")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Backup", "/vol2/Backup")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Backup", events=["create"])])
    return q


# ----------------------------------------------------------------------
# Volumes.


def test_umount_of_a_watched_volume_succeeds(app):
    q = two_volumes(app)
    app.start()
    app.wait_ready()
    info(app)
    # Events below a subdirectory make the daemon look directories up on
    # the volume.
    app.ns_path("/vol2/Backup/d").mkdir()
    write_files(app, "/vol2/Backup/d/b1")
    wait_line(app, q, line(64, "/vol2/Backup/d/b1"))

    result = app.umount_volume("/vol2", check=False)
    assert result.returncode == 0, \
        result.stderr.decode(errors="replace") + app.diagnostics()
    # Noticed without any command; the other volume goes on.
    app.wait_log(FOLLOW + r"Volume gone, dropping its manager, id=2, "
                 r"mount point=/vol2$")
    write_files(app, "/vol1/Public/p1")
    wait_line(app, q, line(64, "/vol1/Public/p1"))
    assert app.find_logs(r"kernel refused|Failed to|failed") == []


def test_volume_unmounted_and_mounted_again_is_rescanned_then_watched(app):
    q = two_volumes(app)
    app.start()
    app.wait_ready()
    info(app)
    write_files(app, "/vol2/Backup/b1")
    wait_line(app, q, line(64, "/vol2/Backup/b1"))

    app.umount_volume("/vol2")
    app.wait_log(FOLLOW + r"Volume gone, dropping its manager, id=2")
    app.mount_volume("/vol2", dirs=["/vol2/Backup"])
    app.wait_log(FOLLOW + r"Volume back, watching it with a rescan, id=2, "
                 r"mount point=/vol2$")
    app.wait_log(ADD_WATCH + r"/vol2/Backup$")
    write_files(app, "/vol2/Backup/b2")
    lines = wait_line(app, q, line(64, "/vol2/Backup/b2"))
    # What changed while it was away is unknown: one rescan line, then the
    # new events.
    assert lines == [line(64, "/vol2/Backup/b1"), rescan("/vol2"),
                     line(64, "/vol2/Backup/b2")], app.diagnostics()


def test_volume_remounted_before_the_daemon_looks_is_rescanned(app):
    q = two_volumes(app)
    app.start()
    app.wait_ready()
    info(app)
    write_files(app, "/vol2/Backup/b1")
    wait_line(app, q, line(64, "/vol2/Backup/b1"))

    # Gone and back within one settling period: the mount is another one,
    # and the kernel dropped the old one's watch with it.
    app.remount_volume("/vol2", dirs=["/vol2/Backup"])
    app.wait_log(FOLLOW + r"Volume mounted again, dropping its manager, "
                 r"id=2, mount point=/vol2$")
    app.wait_log(FOLLOW + r"Volume back, watching it with a rescan, id=2")
    app.wait_log(ADD_WATCH + r"/vol2/Backup$")
    write_files(app, "/vol2/Backup/b2")
    lines = wait_line(app, q, line(64, "/vol2/Backup/b2"))
    assert lines == [line(64, "/vol2/Backup/b1"), rescan("/vol2"),
                     line(64, "/vol2/Backup/b2")], app.diagnostics()


def test_volume_added_to_the_table_and_mounted_is_watched(app):
    q = two_volumes(app)
    app.add_share("New", "/vol3/New", create=False)
    app.add_share("Late", "/vol4/Late", create=False)
    q2 = app.queue_path("new.queue")
    app.add_queue("system", "new.json", q2,
                  [monitor("New", events=["create"]),
                   monitor("Late", events=["create"])])
    app.start()
    app.wait_ready()
    info(app)

    # In the table first, mounted then.
    app.add_volume(3, "/vol3", mounted=False)
    app.mount_volume("/vol3", dirs=["/vol3/New"])
    app.wait_log(FOLLOW + r"Volume mounted, watching it, id=3, "
                 r"mount point=/vol3$")
    # Mounted first, in the table then (the table replaced by rename).
    app.mount_volume("/vol4", dirs=["/vol4/Late"])
    app.volumes.append({"id": 4, "kind": 0, "mount_point": "/vol4",
                        "mounted": False, "size": "64m"})
    app.replace_file(app.volume_table_path, {"volumes": [
        {"id": v["id"], "kind": v["kind"], "mount_point": v["mount_point"]}
        for v in app.volumes]})
    app.wait_log(FOLLOW + r"Volume mounted, watching it, id=4, "
                 r"mount point=/vol4$")
    app.wait_log(ADD_WATCH + r"/vol3/New$")
    app.wait_log(ADD_WATCH + r"/vol4/Late$")

    write_files(app, "/vol3/New/n1", "/vol4/Late/l1")
    lines = wait_lines(app, q2, lambda ls: len(ls) >= 2)
    time.sleep(QUIET_PERIOD)
    # New volumes get no rescan: they were never watched before.
    assert sorted(app.read_queue(q2), key=lambda d: d["path"]) == [
        line(64, "/vol3/New/n1"), line(64, "/vol4/Late/l1")], lines
    assert app.read_queue(q) == []


def test_volume_removed_from_the_table_is_dropped(app):
    q = two_volumes(app)
    app.start()
    app.wait_ready()
    info(app)
    app.volumes = [v for v in app.volumes if v["id"] != 2]
    app.write_volume_table()
    app.wait_log(FOLLOW + r"Volume gone, dropping its manager, id=2, "
                 r"mount point=/vol2$")
    # The manager first writes what it read; the main thread answers the
    # next command only once it is gone.
    info(app)
    write_files(app, "/vol2/Backup/b1", "/vol1/Public/p1")
    wait_line(app, q, line(64, "/vol1/Public/p1"))
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(q) == [line(64, "/vol1/Public/p1")]


def test_usb_volume_mounted_while_running_is_not_watched(app):
    q = two_volumes(app)
    app.add_volume(7, "/usb1", kind=4, mounted=False)
    app.add_share("Stick", "/usb1/Stick", create=False)
    app.add_queue("system", "usb.json", app.queue_path("usb.queue"),
                  [monitor("Stick", events=["create"])])
    app.start()
    app.wait_ready()
    send(app, "set_log_level", {"log_level": "debug"})
    app.mount_volume("/usb1", dirs=["/usb1/Stick"])
    app.wait_log(FOLLOW + r"Usb volume mounted while running, not watched, "
                 r"id=7, mount point=/usb1$")
    write_files(app, "/usb1/Stick/s1")
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(app.queue_path("usb.queue")) == []
    # Only the command itself says so, always.
    assert app.find_logs(r"skipped mounting usb volume") == []


def test_umount_volume_command_for_a_mounted_volume_holds(app):
    q = two_volumes(app)
    app.add_volume(3, "/vol3", mounted=False)
    app.start()
    app.wait_ready()
    info(app)
    assert send(app, "umount_volume", {"mount_point": "/vol2"}) == 0
    # Another mount change makes the daemon compare: /vol2 stays unwatched.
    app.mount_volume("/vol3")
    app.wait_log(FOLLOW + r"Volume mounted, watching it, id=3")
    write_files(app, "/vol2/Backup/b1", "/vol1/Public/p1")
    wait_line(app, q, line(64, "/vol1/Public/p1"))
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(q) == [line(64, "/vol1/Public/p1")]
    # Once really unmounted and mounted again it is watched, with a rescan.
    app.umount_volume("/vol2")
    app.mount_volume("/vol2", dirs=["/vol2/Backup"])
    app.wait_log(FOLLOW + r"Volume back, watching it with a rescan, id=2")
    app.wait_log(ADD_WATCH + r"/vol2/Backup$")
    write_files(app, "/vol2/Backup/b2")
    lines = wait_line(app, q, line(64, "/vol2/Backup/b2"))
    assert lines[1:] == [rescan("/vol2"), line(64, "/vol2/Backup/b2")]


def test_mount_volume_with_another_spelling_gives_one_line_per_event(app):
    q = two_volumes(app)
    app.start()
    app.wait_ready()
    for spelling in ("/vol1/", "//vol1", "/vol1/./", "/./vol1"):
        assert send(app, "mount_volume", {"mount_point": spelling}) == 0
    write_files(app, "/vol1/Public/p1")
    wait_line(app, q, line(64, "/vol1/Public/p1"))
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(q) == [line(64, "/vol1/Public/p1")]
    assert app.find_logs(r"CreateVolumeMgr failed|exists already") == []
    # The same goes for "umount_volume".
    assert send(app, "umount_volume", {"mount_point": "/vol1/."}) == 0
    write_files(app, "/vol1/Public/p2", "/vol2/Backup/b1")
    wait_line(app, q, line(64, "/vol2/Backup/b1"))
    time.sleep(QUIET_PERIOD)
    assert line(64, "/vol1/Public/p2") not in app.read_queue(q)


def test_volume_at_root_is_watched(app):
    app.add_volume(1, "/")
    app.add_volume(2, "/vol2")
    app.add_share("Public", "/Public")
    app.add_share("Backup", "/vol2/Backup")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Backup", events=["create"])])
    app.start()
    app.wait_ready()
    write_files(app, "/Public/a", "/vol2/Backup/b")
    app.ns_path("/Public/d").mkdir()
    write_files(app, "/Public/d/c")
    wait_lines(app, q, lambda ls: len(ls) >= 4)
    time.sleep(QUIET_PERIOD)
    # Each once: the volume at "/" leaves /vol2's share to /vol2.
    assert sorted(app.read_queue(q), key=lambda d: d["path"]) == [
        line(64, "/Public/a"), line(64, "/Public/d", True),
        line(64, "/Public/d/c"), line(64, "/vol2/Backup/b")]


# ----------------------------------------------------------------------
# Shares.


def test_share_added_to_smb_conf_is_watched(app):
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    q = app.queue_path("q.queue")
    # "Media" is not a share yet: that monitor is left out at load.
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Media", events=["create"])])
    app.start()
    app.wait_ready()
    info(app)
    app.add_share("Media", "/vol1/Media")
    app.wait_log(FOLLOW + r"Shares changed, reloading monitor queues$")
    app.wait_log(ADD_WATCH + r"/vol1/Media$")
    write_files(app, "/vol1/Media/m1")
    wait_line(app, q, line(64, "/vol1/Media/m1"))


def test_share_removed_from_smb_conf_stops_its_lines(app):
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Media", "/vol1/Media")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Media", events=["create"])])
    app.start()
    app.wait_ready()
    info(app)
    write_files(app, "/vol1/Media/m1")
    wait_line(app, q, line(64, "/vol1/Media/m1"))
    # smb.conf replaced by rename, as careful writers do.
    app.shares = [s for s in app.shares if s[0] != "Media"]
    lines = ["[global]", ""] + ["[%s]\n   path = %s\n" % (n, p)
                                for n, p, _ in app.shares]
    app.replace_file(app.smb_conf_path, "\n".join(lines))
    app.wait_log(FOLLOW + r"Shares changed, reloading monitor queues$")
    # Public stays watched all along; Media goes.
    app.wait_log(REMOVE_WATCH + r"/vol1/Media$")
    write_files(app, "/vol1/Media/m2", "/vol1/Public/p1")
    wait_line(app, q, line(64, "/vol1/Public/p1"))
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(q) == [line(64, "/vol1/Media/m1"),
                                 line(64, "/vol1/Public/p1")]
    assert app.find_logs(ADD_WATCH + r"/vol1/Media$") == []


def test_smb_conf_rewritten_without_share_change_does_not_reload(app):
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public", comment="before")
    app.add_queue("system", "q.json", monitors=[monitor("Public")])
    app.start()
    app.wait_ready()
    send(app, "set_log_level", {"log_level": "debug"})
    app.shares = [("Public", "/vol1/Public", {"comment": "after"})]
    app.write_smb_conf()
    app.wait_log(FOLLOW + r"Shares unchanged$")
    assert app.find_logs(r"Shares changed|Add watch") == []


# ----------------------------------------------------------------------
# The daemon's own configuration.


def test_configuration_file_replaced_by_rename_or_removed_reloads(app):
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    qa = app.queue_path("a.queue")
    qb = app.queue_path("b.queue")
    app.add_queue("system", "10-a.json", qa, [monitor("Public",
                                                      events=["create"])])
    app.start()
    app.wait_ready()
    info(app)
    loads = r"^monitor_queue:\d+ loaded \d+ monitor queues"

    # A new file renamed into place.
    app.replace_file(app.conf_dir("app") / "20-b.json",
                     {"queue": str(qb),
                      "monitors": [monitor("Public", events=["create"])]})
    app.wait_log(loads, count=1)
    write_files(app, "/vol1/Public/f1")
    wait_line(app, qb, line(64, "/vol1/Public/f1"))

    # An existing file replaced by rename: "b" now wants deletions only.
    app.replace_file(app.conf_dir("app") / "20-b.json",
                     {"queue": str(qb),
                      "monitors": [monitor("Public", events=["delete"])]})
    app.wait_log(loads, count=2)
    write_files(app, "/vol1/Public/f2")
    wait_line(app, qa, line(64, "/vol1/Public/f2"))

    # The file removed: "b" gets nothing more.
    app.remove_queue_file("app", "20-b.json")
    app.wait_log(loads, count=3)
    app.ns_path("/vol1/Public/f1").unlink()
    write_files(app, "/vol1/Public/f3")
    wait_line(app, qa, line(64, "/vol1/Public/f3"))
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(qb) == [line(64, "/vol1/Public/f1")]
    assert app.count_logs(loads) == 3
