"""Kernel events reach the consumers' queue files, end to end: real
fanotify on tmpfs volumes, the installed daemon, real queue files."""

import json
import os
import signal
import stat
import time

import pytest

from harness import (LINE_TIMEOUT, kernel_queue_limit, monitor, wait_count,
                     wait_lines, wait_until)

# Lines are written by each volume's processor every 3 seconds.
QUIET_PERIOD = 4.0  # longer than one processor pass






def line(event, path, is_dir=False, path_old=None):
    d = {"event": event, "is_dir": is_dir, "path": path}
    if path_old is not None:
        d["path_old"] = path_old
    return d


def two_volume_appliance(app):
    app.add_volume(1, "/vol1")
    app.add_volume(2, "/vol2")
    app.add_share("Public", "/vol1/Public")
    app.add_share("Media", "/vol1/Media")
    app.add_share("Quiet", "/vol1/Quiet")
    app.add_share("Backup", "/vol2/Backup")
    app.dirs.append("/vol1/unshared")
    return app


def stop_cleanly(appliance):
    """Every run must end cleanly: exit 0 and nothing on stderr (a sanitizer
    build reports there and exits with another status)."""
    if appliance.proc is not None:
        if appliance.running:
            appliance.signal(signal.SIGTERM)
        code = appliance.wait_exit(15)
        stderr = appliance.stderr_path.read_bytes()
        assert code == 0 and stderr == b"", \
            "exit status %r, stderr %r" % (code, stderr[:3000])


@pytest.fixture
def app(appliance):
    yield two_volume_appliance(appliance)
    stop_cleanly(appliance)


def test_create_delete_mkdir_rmdir(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create", "delete"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "d").mkdir()
    (share / "d" / "f.txt").write_text("x")
    wait_count(app, q, 2)
    (share / "d" / "f.txt").unlink()
    (share / "d").rmdir()
    lines = wait_count(app, q, 4)
    assert lines == [
        line(64, "/vol1/Public/d", True),
        line(64, "/vol1/Public/d/f.txt"),
        line(128, "/vol1/Public/d/f.txt"),
        line(128, "/vol1/Public/d", True),
    ]
    assert stat.S_IMODE(os.stat(q).st_mode) == 0o600


def test_renames(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create", "delete", "move"]),
                   monitor("Media", events=["create", "delete", "move"])])
    app.start()
    app.wait_ready()
    v = app.ns_path("/vol1")
    for name in ("a", "y", "z"):
        (v / "Public" / name).write_text(name)
    (v / "unshared" / "x").write_text("x")
    wait_count(app, q, 3)
    before = len(app.read_queue(q))
    os.rename(v / "Public" / "a", v / "Public" / "b")
    os.rename(v / "unshared" / "x", v / "Public" / "x")
    os.rename(v / "Public" / "y", v / "unshared" / "y")
    os.rename(v / "Public" / "z", v / "Media" / "z")
    lines = wait_count(app, q, before + 4)[before:]
    assert lines == [
        line(256, "/vol1/Public/b", path_old="/vol1/Public/a"),
        line(64, "/vol1/Public/x"),
        line(128, "/vol1/Public/y"),
        line(256, "/vol1/Media/z", path_old="/vol1/Public/z"),
    ]


def test_directory_rename_and_events_below_it(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create", "delete", "move"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "old").mkdir()
    wait_count(app, q, 1)
    os.rename(share / "old", share / "new")
    (share / "new" / "inside").write_text("i")
    lines = wait_count(app, q, 3)
    assert lines[1:] == [
        line(256, "/vol1/Public/new", True, path_old="/vol1/Public/old"),
        line(64, "/vol1/Public/new/inside"),
    ]


def test_filters_per_queue(app):
    qm, qa, qc = (app.queue_path(n) for n in ("m.queue", "a.queue", "c.queue"))
    qn = app.queue_path("nonrec.queue")
    app.add_queue("system", "m.json", qm, [monitor("Public", events=["modify"])])
    app.add_queue("app", "a.json", qa, [monitor("Public", events=["attrib"])])
    app.add_queue("user", "c.json", qc, [monitor("Public", events=["close_write"])])
    app.add_queue("user", "n.json", qn,
                  [monitor("Public", recursive=False, events=["create"])])
    app.start()
    app.wait_ready()
    v = app.ns_path("/vol1")
    (v / "Public" / "sub").mkdir()
    with open(v / "Public" / "f", "w") as f:
        f.write("data")
    os.chmod(v / "Public" / "f", 0o640)
    (v / "Public" / "sub" / "deep").write_text("d")
    # Nobody watches these.
    (v / "unshared" / "u").write_text("u")
    (v / "Quiet" / "q").write_text("q")
    (app.ns_path("/vol2/Backup") / "b").write_text("b")
    wait_count(app, qn, 2)
    wait_lines(app, qa, lambda ls: len(ls) >= 1)
    wait_lines(app, qc, lambda ls: len(ls) >= 2)
    time.sleep(QUIET_PERIOD)
    assert app.read_queue(qn) == [line(64, "/vol1/Public/sub", True),
                                  line(64, "/vol1/Public/f")]
    assert {tuple(sorted(l.items())) for l in app.read_queue(qm)} == {
        tuple(sorted(line(2, "/vol1/Public/f").items())),
        tuple(sorted(line(2, "/vol1/Public/sub/deep").items()))}
    assert app.read_queue(qa) == [line(4, "/vol1/Public/f")]
    assert app.read_queue(qc) == [line(8, "/vol1/Public/f"),
                                  line(8, "/vol1/Public/sub/deep")]


def test_two_queues_one_file(app):
    q = app.queue_path("shared.queue")
    app.add_queue("system", "one.json", q, [monitor("Public", events=["create"])])
    app.add_queue("app", "two.json", q, [monitor("Media", events=["create"])])
    app.start()
    app.wait_ready()
    (app.ns_path("/vol1/Public") / "p").write_text("p")
    (app.ns_path("/vol1/Media") / "m").write_text("m")
    lines = wait_count(app, q, 2)
    assert sorted(l["path"] for l in lines) == ["/vol1/Media/m", "/vol1/Public/p"]


def test_recovery_rescans_first(app):
    q1, q2 = app.queue_path("one.queue"), app.queue_path("two.queue")
    app.add_queue("system", "one.json", q1, [monitor("Public")])
    app.add_queue("system", "two.json", q2, [monitor("Backup")])
    app.write_run_status({"status": "crashed"})
    app.start()
    app.wait_ready()
    app.wait_log(r"Send Rescan because of recovery vol: /vol1$")
    app.wait_log(r"Send Rescan because of recovery vol: /vol2$")
    (app.ns_path("/vol1/Public") / "after").write_text("a")
    lines = wait_count(app, q1, 2)
    assert lines[0] == line(512, "/vol1", True)
    assert line(64, "/vol1/Public/after") in lines[1:]
    assert wait_count(app, q2, 1)[0] == line(512, "/vol2", True)
    assert sum(1 for l in app.read_queue(q2) if l["event"] == 512) == 1


def test_reload_reaches_both_volumes(app):
    q1, q2 = app.queue_path("one.queue"), app.queue_path("two.queue")
    # Each volume's kernel event bits are chosen when its manager starts, so
    # the first configuration already asks for creations on both volumes.
    app.add_queue("system", "one.json", q1,
                  [monitor("Public", events=["create"]), monitor("Backup", events=["create"])])
    app.start()
    app.wait_ready()
    app.add_queue("app", "two.json", q2,
                  [monitor("Backup", events=["create"]), monitor("Media", events=["create"])])
    # Files made before the receivers have re-added their watches can be
    # missed; keep making them until the new queue has seen both volumes.
    deadline = time.time() + LINE_TIMEOUT
    n = 0
    while time.time() < deadline and len(app.read_queue(q2)) < 2:
        n += 1
        (app.ns_path("/vol2/Backup") / ("b%d" % n)).write_text("b")
        (app.ns_path("/vol1/Media") / ("m%d" % n)).write_text("m")
        time.sleep(1)
    paths = {l["path"] for l in wait_count(app, q2, 2)}
    assert any(p.startswith("/vol2/Backup/") for p in paths)
    assert any(p.startswith("/vol1/Media/") for p in paths)
    assert all(l["path"].startswith("/vol2/Backup/") for l in app.read_queue(q1))


def test_overflow_gives_one_rescan_per_queue(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create", "rescan"])])
    with kernel_queue_limit(64):
        app.start()
        app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "warmup").write_text("w")
    wait_count(app, q, 1)
    # Freeze the daemon so its kernel queue fills up and overflows.
    os.kill(app.pid, signal.SIGSTOP)
    try:
        for i in range(500):
            (share / ("f%d" % i)).write_text("")
    finally:
        os.kill(app.pid, signal.SIGCONT)
    app.wait_log(r"Recieve overflow event vol: /vol1$")
    lines = wait_lines(app, q, lambda ls: any(l["event"] == 512 for l in ls))
    rescans = [l for l in lines if l["event"] == 512]
    assert rescans == [line(512, "/vol1", True)]


def test_sigterm_with_events_pending(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public")])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    for i in range(50):
        (share / ("p%d" % i)).write_text("p")
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0
    assert app.read_run_status() == {"status": "stop"}


QUEUE_LIMIT = 104857600


def test_queue_file_size_limit_and_reset(app):
    q = app.queue_path("q.queue")
    q_other = app.queue_path("other.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.add_queue("app", "q2.json", q,
                  [monitor("Media", events=["create"]), monitor("Backup", events=["create"])])
    app.add_queue("user", "other.json", q_other, [monitor("Backup", events=["create"])])
    with open(q, "wb") as f:
        f.write(b"not json at all\n")
        f.truncate(QUEUE_LIMIT)
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "fits").write_text("a")
    assert wait_until(lambda: os.path.getsize(q) > QUEUE_LIMIT, LINE_TIMEOUT), \
        app.diagnostics()
    with open(q, "rb") as f:
        f.seek(QUEUE_LIMIT)
        tail = f.read()
    assert json.loads(tail) == line(64, "/vol1/Public/fits")
    # Now above the limit: the next event resets the file.
    (share / "resets").write_text("b")
    assert wait_until(lambda: os.path.getsize(q) < 1000, LINE_TIMEOUT), \
        app.diagnostics()
    lines = app.read_queue(q)
    assert lines[0] == {"event": 1024, "is_dir": False, "path": ""}
    assert lines[1:] == [line(512, "/vol1/Media", True), line(512, "/vol1/Public", True),
                         line(512, "/vol2/Backup", True)]
    app.wait_log(r"Queue oversized, path=%s$" % q)
    # A reset file takes nothing more until a consumer empties it.
    content = open(q, "rb").read()
    (share / "dropped").write_text("c")
    time.sleep(QUIET_PERIOD)
    assert open(q, "rb").read() == content
