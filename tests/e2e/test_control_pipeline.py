"""Control commands whose effect shows in the per-volume event pipeline,
end to end: injected events ("notify"), volumes and shares mounted and
unmounted while the daemon runs, and the processor's log lines after
"set_log_level".

Effects are judged from the outside: the lines that reach real queue files
(each volume's processor writes them every 3 seconds) and the daemon's
syslog lines. Commands go through the installed yulotifyctl where the
client is worth exercising too, through raw socket bytes elsewhere.
"""

import signal
import time

import pytest

from control_util import LINE, new_logs, run_ctl, send
from control_util import ctl_binary  # noqa: F401  (a pytest fixture)
from harness import (LINE_TIMEOUT, monitor, wait_count, wait_line,
                     wait_lines, wait_until)

# Lines are written by each volume's processor every 3 seconds.
# How long to watch for something that must NOT happen: longer than one
# processor pass.
QUIET_PERIOD = 4.5
# Lets syslog datagrams already sent reach the harness.
SETTLE = 0.5

GOT_EVENT = r"^event_processor:\d+ Got event, "


# ----------------------------------------------------------------------
# Helpers.


def line(event, path, is_dir=False, path_old=None):
    """A queue line as the daemon writes it, parsed."""
    d = {"event": event, "is_dir": is_dir, "path": path}
    if path_old is not None:
        d["path_old"] = path_old
    return d


def key(d):
    return tuple(sorted(d.items()))


def same_lines(a, b):
    """The same lines regardless of order (each processor writes in its
    own order; kernel and injected events may interleave)."""
    return sorted(map(key, a)) == sorted(map(key, b))








def quiet(app):
    """Lets one whole processor pass (and its syslog lines) go by."""
    time.sleep(QUIET_PERIOD)
    app.assert_running()


def ctl(ctl_binary, app, *args):
    """yulotifyctl against this appliance; it must report the answer 0."""
    r = run_ctl(ctl_binary, *args, socket_path=app.socket_path, check=0)
    assert r.out == "" and r.err == "", (args, r.out, r.err)
    return r


def notify(app, event, path, path_old=None):
    """Injects an event over the raw socket; "notify" always answers 0."""
    data = {"event": event, "path": path}
    if path_old is not None:
        data["path_old"] = path_old
    assert send(app, "notify", data) == 0


def write_files(app, *paths):
    """Creates files on the volumes, through the daemon's namespace."""
    for path in paths:
        app.ns_path(path).write_text("x")


@pytest.fixture
def appliance_checked(appliance):
    """An unstarted appliance; once started, its daemon must still run at
    the end, stop cleanly on SIGTERM and have written nothing to stderr
    (where sanitizer builds report)."""
    yield appliance
    if appliance.proc is None:
        return
    appliance.assert_running()
    appliance.signal(signal.SIGTERM)
    assert appliance.wait_exit() == 0, appliance.diagnostics()
    stderr = appliance.stderr_path.read_bytes()
    assert stderr == b"", stderr[:4000].decode(errors="replace")


# ----------------------------------------------------------------------
# "notify": injected events turned into queue lines.
#
# The daemon lstat()s an injected path inside its own namespace, so the
# files exist there. They are made before the daemon starts: then no kernel
# event exists for them, and every line comes from an injection.

# Made before the daemon starts.
EXISTING_FILES = ("/vol1/Public/a.txt", "/vol1/Public/b.txt",
                  "/vol1/Media/m.txt", "/vol1/unshared/u.txt",
                  "/vol2/Backup/k.txt")
EXISTING_DIRS = ("/vol1/Public/dir", "/vol1/Media/album")


def make_existing(app):
    for d in EXISTING_DIRS:
        app.ns_path(d).mkdir()
    write_files(app, *EXISTING_FILES)


@pytest.fixture
def notify_app(appliance_checked):
    """Volume 1 with shares Public and Media and an unshared directory;
    volume 2 with share Backup. Queues: "public" (every event in Public),
    "media" (every event in Media), "both" (Public and Media), "backup"
    (Backup). All of them ask for every event, so any stray line shows."""
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_volume(2, "/vol2")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Media", "/vol1/Media")
    app.add_share("Backup", "/vol2/Backup")
    app.dirs.append("/vol1/unshared")
    app.q = {}
    for type_, name, monitors in (
            ("system", "public", [monitor("Public")]),
            ("system", "media", [monitor("Media")]),
            ("app", "both", [monitor("Public"), monitor("Media")]),
            ("user", "backup", [monitor("Backup")])):
        app.q[name] = app.queue_path(name + ".queue")
        app.add_queue(type_, name + ".json", app.q[name], monitors)
    app.start(before_exec=make_existing)
    app.wait_ready()
    return app


def assert_queues(app, expected):
    """After a quiet period, every queue holds exactly its expected lines
    (in order); queues not named hold none."""
    quiet(app)
    actual = {name: app.read_queue(q) for name, q in app.q.items()}
    wanted = {name: expected.get(name, []) for name in app.q}
    assert actual == wanted, app.diagnostics()


def test_notify_create_gives_one_create_line(notify_app, ctl_binary):
    app = notify_app
    ctl(ctl_binary, app, "notify", "create", "/vol1/Public/a.txt")
    expected = line(64, "/vol1/Public/a.txt")
    wait_line(app, app.q["public"], expected)
    assert_queues(app, {"public": [expected], "both": [expected]})


def test_notify_event_numbers_map_to_their_queue_codes(notify_app, ctl_binary):
    app = notify_app
    # By number through the client, and the other codes a consumer knows.
    ctl(ctl_binary, app, "notify", "64", "/vol1/Media/m.txt")
    notify(app, 128, "/vol1/Media/m.txt")
    notify(app, 2, "/vol1/Media/m.txt")
    notify(app, 8, "/vol1/Media/m.txt")
    expected = [line(64, "/vol1/Media/m.txt"), line(128, "/vol1/Media/m.txt"),
                line(2, "/vol1/Media/m.txt"), line(8, "/vol1/Media/m.txt")]
    wait_count(app, app.q["media"], 4)
    assert_queues(app, {"media": expected, "both": expected})


def test_notify_for_a_directory_is_dir(notify_app):
    app = notify_app
    notify(app, 64, "/vol1/Public/dir")
    expected = line(64, "/vol1/Public/dir", is_dir=True)
    wait_line(app, app.q["public"], expected)
    assert_queues(app, {"public": [expected], "both": [expected]})


def test_notify_rename_within_a_share_is_one_move_line(notify_app, ctl_binary):
    app = notify_app
    # The new path exists; the old one, as after a real rename, does not.
    ctl(ctl_binary, app, "notify", "move", "/vol1/Public/a.txt",
        "/vol1/Public/old-a.txt")
    expected = line(256, "/vol1/Public/a.txt",
                    path_old="/vol1/Public/old-a.txt")
    wait_line(app, app.q["public"], expected)
    assert_queues(app, {"public": [expected], "both": [expected]})


def test_notify_rename_of_a_directory_within_a_share(notify_app):
    app = notify_app
    notify(app, 256, "/vol1/Media/album", "/vol1/Media/old-album")
    expected = line(256, "/vol1/Media/album", is_dir=True,
                    path_old="/vol1/Media/old-album")
    wait_line(app, app.q["media"], expected)
    assert_queues(app, {"media": [expected], "both": [expected]})


def test_notify_rename_across_shares_is_create_and_delete(notify_app,
                                                         ctl_binary):
    app = notify_app
    # From Public to Media, both on volume 1.
    ctl(ctl_binary, app, "notify", "move", "/vol1/Media/m.txt",
        "/vol1/Public/m.txt")
    create = line(64, "/vol1/Media/m.txt")
    delete = line(128, "/vol1/Public/m.txt")
    wait_line(app, app.q["media"], create)
    wait_line(app, app.q["public"], delete)
    wait_count(app, app.q["both"], 2)
    # A queue that watches both shares sees the creation, then the deletion:
    # never a move line.
    assert_queues(app, {"media": [create], "public": [delete],
                        "both": [create, delete]})


def test_notify_rename_into_and_out_of_shares(notify_app):
    app = notify_app
    # From a directory that is no share into Public: a creation.
    notify(app, 256, "/vol1/Public/b.txt", "/vol1/unshared/b.txt")
    # From Media to a directory that is no share: a deletion.
    notify(app, 256, "/vol1/unshared/u.txt", "/vol1/Media/u.txt")
    create = line(64, "/vol1/Public/b.txt")
    delete = line(128, "/vol1/Media/u.txt")
    wait_line(app, app.q["public"], create)
    wait_line(app, app.q["media"], delete)
    quiet(app)
    assert app.read_queue(app.q["public"]) == [create]
    assert app.read_queue(app.q["media"]) == [delete]
    assert same_lines(app.read_queue(app.q["both"]), [create, delete])
    assert app.read_queue(app.q["backup"]) == []


def test_notify_reaches_the_volume_of_the_path(notify_app):
    app = notify_app
    notify(app, 64, "/vol2/Backup/k.txt")
    expected = line(64, "/vol2/Backup/k.txt")
    wait_line(app, app.q["backup"], expected)
    assert_queues(app, {"backup": [expected]})


def test_notify_for_a_missing_path_or_a_path_on_no_share_gives_nothing(
        notify_app, ctl_binary):
    app = notify_app
    # At info level the processor logs every event it takes, wanted by a
    # queue or not: so nothing logged means nothing was queued at all.
    ctl(ctl_binary, app, "set-log-level", "info")
    before = len(app.logs)
    # Paths that do not exist (in a share, on a volume, anywhere).
    ctl(ctl_binary, app, "notify", "create", "/vol1/Public/missing.txt")
    notify(app, 64, "/vol1/Public/dir/missing")
    notify(app, 128, "/vol2/Backup/missing")
    notify(app, 64, "/nowhere/at/all")
    notify(app, 256, "/vol1/Public/missing.txt", "/vol1/Public/a.txt")
    notify(app, 256, "/vol1/Media/missing.txt", "/vol1/Public/a.txt")
    # Paths that exist but lie on no share.
    ctl(ctl_binary, app, "notify", "create", "/vol1/unshared/u.txt")
    notify(app, 64, "/vol1/unshared")
    notify(app, 64, "/vol1")
    notify(app, 64, "/usr/yulo/etc/volumes.json")
    notify(app, 256, "/vol1/unshared/u.txt", "/vol1/unshared/old-u.txt")
    assert_queues(app, {})  # after a quiet period
    assert new_logs(app, before, GOT_EVENT) == []
    # The same pipeline does take an injection for an existing shared file.
    notify(app, 64, "/vol1/Public/a.txt")
    app.wait_log(GOT_EVENT + r".*watch: /vol1/Public, path: /a\.txt$",
                 timeout=LINE_TIMEOUT)
    expected = line(64, "/vol1/Public/a.txt")
    wait_line(app, app.q["public"], expected)
    assert new_logs(app, before, GOT_EVENT + r".*(missing|unshared|old-u|"
                    r"volumes\.json)") == []


# ----------------------------------------------------------------------
# "mount_volume" of a volume mounted while the daemon runs. The daemon
# follows the mount table by itself; the command for a volume it already
# watches changes nothing.


def test_mount_volume_for_a_volume_mounted_while_running(
        appliance_checked, ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    # Listed in the volume table, mounted only later.
    app.add_volume(3, "/vol3", mounted=False)
    app.add_share("Public", "/vol1/Public")
    app.add_share("New", "/vol3/New", create=False)
    q = app.queue_path("new.queue")
    # The new manager asks the kernel for what the queues want when it is
    # made: creations.
    app.add_queue("system", "new.json", q, [monitor("New", events=["create"])])
    app.start()
    app.wait_ready()

    ctl(ctl_binary, app, "set-log-level", "info")
    before = len(app.logs)
    app.mount_volume("/vol3", dirs=["/vol3/New"])
    # The daemon sees the mount; the new receiver adds its watch.
    app.wait_log(LINE + r"Volume mounted, watching it, id=3, "
                 r"mount point=/vol3$")
    app.wait_log(LINE + r"Add watch, path=/vol3/New$")
    write_files(app, "/vol3/New/f.txt")
    wait_line(app, q, line(64, "/vol3/New/f.txt"))
    # Injections reach the new manager too (it listed the volume's shares).
    notify(app, 64, "/vol3/New/f.txt")
    wait_count(app, q, 2)
    assert new_logs(app, before, r"YULOMountVolInfoGet failed|"
                    r"CreateVolumeMgr failed|Failed to initiate mgr") == []

    # Reported by command: nothing changes and nothing is logged.
    ctl(ctl_binary, app, "set-log-level", "error")
    time.sleep(SETTLE)
    before = len(app.logs)
    assert send(app, "mount_volume", {"mount_point": "/vol3"}) == 0
    ctl(ctl_binary, app, "mount-volume", "/vol3")
    write_files(app, "/vol3/New/g.txt")
    wait_line(app, q, line(64, "/vol3/New/g.txt"))
    quiet(app)
    assert new_logs(app, before) == []
    # One line per event: no second pipeline runs for the volume.
    assert app.read_queue(q) == [line(64, "/vol3/New/f.txt"),
                                 line(64, "/vol3/New/f.txt"),
                                 line(64, "/vol3/New/g.txt")]


def test_mount_volume_again_at_info_level_logs_only_the_command(
        appliance_checked, ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    app.add_queue("system", "q.json", monitors=[monitor("Public")])
    app.start()
    app.wait_ready()
    # The level is changed after its own command was (not) logged.
    ctl(ctl_binary, app, "set-log-level", "info")
    time.sleep(SETTLE)
    before = len(app.logs)
    # /vol1 has had its manager since the start.
    ctl(ctl_binary, app, "mount-volume", "/vol1")
    app.wait_log(r"Got command: .*mount_volume")
    quiet(app)
    lines = new_logs(app, before)
    assert len(lines) == 1 and "Got command" in lines[0], lines


# ----------------------------------------------------------------------
# "umount_volume".


def test_umount_volume_then_its_events_reach_nobody(appliance_checked,
                                                    ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_volume(2, "/vol2")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Backup", "/vol2/Backup")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Backup", events=["create"])])
    app.start()
    app.wait_ready()

    # Both volumes deliver.
    write_files(app, "/vol1/Public/p1", "/vol2/Backup/b1")
    wait_lines(app, q, lambda ls: same_lines(
        ls, [line(64, "/vol1/Public/p1"), line(64, "/vol2/Backup/b1")]))

    ctl(ctl_binary, app, "umount-volume", "/vol2")
    # Kernel events and injections on /vol2 now reach nobody; /vol1 still
    # delivers.
    write_files(app, "/vol2/Backup/b2")
    notify(app, 64, "/vol2/Backup/b1")
    write_files(app, "/vol1/Public/p2")
    wait_line(app, q, line(64, "/vol1/Public/p2"))
    quiet(app)
    lines = app.read_queue(q)
    assert same_lines(lines[:2], [line(64, "/vol1/Public/p1"),
                                  line(64, "/vol2/Backup/b1")])
    assert lines[2:] == [line(64, "/vol1/Public/p2")], app.diagnostics()

    # A second report for the same mount point is silent and harmless.
    before = len(app.logs)
    ctl(ctl_binary, app, "umount-volume", "/vol2")
    time.sleep(SETTLE)
    assert new_logs(app, before) == []

    # Reported mounted again: a new pipeline, events flow again.
    ctl(ctl_binary, app, "set-log-level", "info")
    before = len(app.logs)
    ctl(ctl_binary, app, "mount-volume", "/vol2")
    app.wait_log(LINE + r"Add watch, path=/vol2/Backup$")
    write_files(app, "/vol2/Backup/b3")
    wait_line(app, q, line(64, "/vol2/Backup/b3"))
    quiet(app)
    assert app.read_queue(q)[3:] == [line(64, "/vol2/Backup/b3")]
    assert new_logs(app, before, r"YULOMountVolInfoGet failed|"
                    r"CreateVolumeMgr failed|Failed to initiate mgr") == []


# ----------------------------------------------------------------------
# "mount_share" / "umount_share".


def test_umount_share_then_mount_share(appliance_checked, ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Media", "/vol1/Media")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create"]),
                   monitor("Media", events=["create"])])
    app.start()
    app.wait_ready()
    # At debug level the receiver says when it has carried a share command
    # out (the reply comes before that).
    ctl(ctl_binary, app, "set-log-level", "debug")

    write_files(app, "/vol1/Public/p1", "/vol1/Media/m1")
    wait_lines(app, q, lambda ls: same_lines(
        ls, [line(64, "/vol1/Public/p1"), line(64, "/vol1/Media/m1")]))

    ctl(ctl_binary, app, "umount-share", "Public")
    app.wait_log(LINE + r"EventReceiver Umount share, share=/vol1/Public$")
    # Changes in Public, and injections for it, reach nobody; Media still
    # delivers.
    write_files(app, "/vol1/Public/p2")
    notify(app, 64, "/vol1/Public/p1")
    write_files(app, "/vol1/Media/m2")
    wait_line(app, q, line(64, "/vol1/Media/m2"))
    quiet(app)
    assert app.read_queue(q)[2:] == [line(64, "/vol1/Media/m2")], \
        app.diagnostics()

    # Mounted again: changes flow again, injections too.
    assert send(app, "mount_share", {"share_name": "Public"}) == 0
    app.wait_log(LINE + r"EventReceiver Mount share, share=/vol1/Public$")
    write_files(app, "/vol1/Public/p3")
    notify(app, 64, "/vol1/Public/p1")
    write_files(app, "/vol1/Media/m3")
    expected = [line(64, "/vol1/Public/p3"), line(64, "/vol1/Public/p1"),
                line(64, "/vol1/Media/m3")]
    wait_lines(app, q, lambda ls: len(ls) >= 6)
    quiet(app)
    assert same_lines(app.read_queue(q)[3:], expected), app.diagnostics()
    assert app.find_logs(r"not watched: the kernel refused|Fail to find watch root") == []


def test_mount_share_answers_zero_for_a_share_with_a_manager(
        appliance_checked, ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    app.add_queue("system", "q.json", monitors=[monitor("Public")])
    app.start()
    app.wait_ready()
    # Whatever the manager makes of it: a share it already watches.
    ctl(ctl_binary, app, "mount-share", "Public")
    assert send(app, "umount_share", {"share_name": "Public"}) == 0
    assert send(app, "mount_share", {"share_name": "Public"}) == 0
    time.sleep(SETTLE)
    assert app.find_logs(r"Cannot get volume manager") == []


# ----------------------------------------------------------------------
# "set_log_level" and the processor's lines.


def test_set_log_level_info_then_got_event_lines(appliance_checked,
                                                 ctl_binary):
    app = appliance_checked
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()

    # At the start level (error) an event is handled without a word.
    write_files(app, "/vol1/Public/silent")
    wait_line(app, q, line(64, "/vol1/Public/silent"))
    # The line is written after the event was (or would have been) logged.
    time.sleep(SETTLE)
    assert app.find_logs(r"Got event") == []

    ctl(ctl_binary, app, "set-log-level", "info")
    write_files(app, "/vol1/Public/loud")
    got = app.wait_log(GOT_EVENT + r"(.*)$", timeout=LINE_TIMEOUT).group(1)
    assert "YULO_CREATE" in got and got.endswith(
        "watch: /vol1/Public, path: /loud"), got
    wait_line(app, q, line(64, "/vol1/Public/loud"))
    # An injected event is logged the same way.
    notify(app, 64, "/vol1/Public/silent")
    app.wait_log(GOT_EVENT + r".*YULO_CREATE .*watch: /vol1/Public, "
                 r"path: /silent$", timeout=LINE_TIMEOUT)
    wait_lines(app, q, lambda ls: len(ls) >= 3)
    # Info, not debug: the processor's tracing stays off.
    assert app.find_logs(r"EventProcessor alive|EventProcessor got") == []

    # Back to error: silent again.
    ctl(ctl_binary, app, "set-log-level", "error")
    time.sleep(SETTLE)
    before = len(app.logs)
    write_files(app, "/vol1/Public/hushed")
    wait_line(app, q, line(64, "/vol1/Public/hushed"))
    time.sleep(SETTLE)
    assert new_logs(app, before) == []
