"""Stops and crashes lose nothing: a clean stop writes everything the daemon
has read, any other end leaves "running" in the run-status file and the next
start rescans. SIGKILL, SIGTERM, a consumer holding the lock across the stop,
"umount_volume"."""

import fcntl
import signal
import time

import pytest

from control_util import send
from harness import monitor, wait_until
from test_pipeline import LINE_TIMEOUT, line, stop_cleanly, wait_count, wait_lines

RESCAN_VOL1 = line(512, "/vol1", True)


@pytest.fixture
def app(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Public", "/vol1/Public")
    q = appliance.queue_path("q.queue")
    appliance.add_queue("system", "q.json", q,
                        [monitor("Public", events=["create", "delete", "move"])])
    appliance.q = q
    yield appliance
    stop_cleanly(appliance)


def created(names):
    return [line(64, "/vol1/Public/%s" % n) for n in names]


def test_running_is_marked_before_ready(app):
    app.write_run_status({"status": "stop"})
    app.start()
    app.wait_ready()
    assert app.read_run_status() == {"status": "running"}
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0
    assert app.read_run_status() == {"status": "stop"}


def crash_with_changes_pending(app):
    app.start()
    app.wait_ready()
    (app.ns_path("/vol1/Public") / "before-kill").write_text("x")
    app.signal(signal.SIGKILL)
    app.wait_exit(15)
    assert app.read_run_status() == {"status": "running"}


def test_sigkill_leaves_running_and_the_next_start_rescans(app):
    crash_with_changes_pending(app)
    app.start()
    app.wait_ready()
    app.wait_log(r"Send Rescan because of recovery vol: /vol1$")
    lines = wait_lines(app, app.q, lambda ls: RESCAN_VOL1 in ls)
    # The rescan of the volume covers the file made before the kill (and
    # anything done while the daemon was down).
    assert lines[-1] == RESCAN_VOL1


def assert_quiet_stop_keeps_recovery(app):
    assert app.wait_exit(35) == 0, app.diagnostics()
    assert not app.ready_seen
    assert app.read_run_status() == {"status": "running"}


def test_recovery_survives_a_start_without_the_volume(app):
    crash_with_changes_pending(app)
    # The data volume mounts late: this start finds nothing to watch.
    app.volumes[0]["mounted"] = False
    app.start()
    assert_quiet_stop_keeps_recovery(app)
    app.volumes[0]["mounted"] = True
    app.start()
    app.wait_ready()
    wait_lines(app, app.q, lambda ls: RESCAN_VOL1 in ls)


def test_recovery_survives_a_start_without_a_monitor_queue(app):
    crash_with_changes_pending(app)
    conf = app.conf_dir("system") / "q.json"
    saved = conf.read_text()
    conf.unlink()
    app.start()
    assert_quiet_stop_keeps_recovery(app)
    app.write_queue_file("system", "q.json", saved)
    app.start()
    app.wait_ready()
    wait_lines(app, app.q, lambda ls: RESCAN_VOL1 in ls)


def test_sigterm_soon_after_a_burst_writes_every_line(app):
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    names = ["f%03d" % i for i in range(200)]
    for name in names:
        (share / name).write_bytes(b"")
    time.sleep(0.5)
    start = time.monotonic()
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0
    assert time.monotonic() - start < 5
    assert app.read_queue(app.q) == created(names)
    assert app.read_run_status() == {"status": "stop"}
    assert app.count_logs(r"Stop before all events were written") == 0


def test_sigterm_right_after_a_large_burst(app):
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    names = ["g%05d" % i for i in range(20000)]
    for name in names:
        (share / name).write_bytes(b"")
    app.signal(signal.SIGTERM)
    assert app.wait_exit(30) == 0
    lines = app.read_queue(app.q)
    status = app.read_run_status()
    if status == {"status": "stop"}:
        assert lines == created(names)
    else:
        # Not all written in time: the next start must rescan.
        assert status == {"status": "running"}
        app.start()
        app.wait_ready()
        wait_lines(app, app.q, lambda ls: RESCAN_VOL1 in ls)


def test_a_lock_held_across_the_stop_leaves_running(app):
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "first").write_bytes(b"")
    wait_count(app, app.q, 1)
    with open(app.q, "r+") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        (share / "held").write_bytes(b"")
        start = time.monotonic()
        app.signal(signal.SIGTERM)
        assert app.wait_exit(30) == 0
        took = time.monotonic() - start
        assert 9 < took < 20, "gave up after %.1f s" % took
    assert app.read_run_status() == {"status": "running"}
    assert app.count_logs(r"^\w+:\d+ Stop before all events were written, "
                          r"vol: /vol1$") == 1
    assert app.read_queue(app.q) == created(["first"])
    app.start()
    app.wait_ready()
    lines = wait_lines(app, app.q, lambda ls: RESCAN_VOL1 in ls)
    assert lines == created(["first"]) + [RESCAN_VOL1]


def test_umount_volume_writes_what_was_read(app):
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    names = ["u%02d" % i for i in range(30)]
    for name in names:
        (share / name).write_bytes(b"")
    assert send(app, "umount_volume", {"mount_point": "/vol1"}) == 0
    # Written by the time the command returned.
    assert app.read_queue(app.q) == created(names)
    (share / "after").write_bytes(b"")
    time.sleep(4)
    assert app.read_queue(app.q) == created(names)


def test_kernel_and_injected_renames_in_one_pass(app):
    app.dirs.append("/vol1/unshared")
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "k1").write_bytes(b"")
    (share / "i2").write_bytes(b"")
    wait_count(app, app.q, 2)
    before = len(app.read_queue(app.q))
    # Within one pass, the first kernel rename and the first injected one:
    # a kernel rename out of the share leaves a lone move-from half, which
    # must not pair with the injected rename's halves.
    (share / "k1").rename(app.ns_path("/vol1/unshared/k1"))
    assert send(app, "notify", {"event": 256, "path": "/vol1/Public/i2",
                                "path_old": "/vol1/Public/i1"}) == 0
    (share / "i2").rename(share / "k3")
    lines = wait_count(app, app.q, before + 3)[before:]
    assert sorted(lines, key=lambda l: (l["path"], l["event"])) == [
        line(256, "/vol1/Public/i2", path_old="/vol1/Public/i1"),
        line(128, "/vol1/Public/k1"),
        line(256, "/vol1/Public/k3", path_old="/vol1/Public/i2"),
    ]
    time.sleep(4)
    assert len(app.read_queue(app.q)) == before + 3
