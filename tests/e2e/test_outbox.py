"""Lines that a queue file cannot take right away are kept and written later,
in order and whole: a consumer holding the lock, a full file system, a
removed directory. Real mechanisms only: a process holding the flock, small
tmpfs mounts, rmdir."""

import fcntl
import json
import os
import time

import pytest

from harness import monitor, wait_until
from test_pipeline import (LINE_TIMEOUT, QUIET_PERIOD, line, stop_cleanly,
                           wait_count, wait_lines)


@pytest.fixture
def app(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Public", "/vol1/Public")
    yield appliance
    stop_cleanly(appliance)


def raw_lines(path):
    """The file's lines; every one must be a whole JSON object with its line
    feed: no fragment, nothing glued."""
    data = open(path, "rb").read()
    assert data == b"" or data.endswith(b"\n"), "last line cut: %r" % data[-200:]
    out = []
    for raw in data.split(b"\n")[:-1]:
        out.append(json.loads(raw))
    return out


def created(names, share="/vol1/Public"):
    return [line(64, "%s/%s" % (share, n)) for n in names]


def vm_hwm_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for text in f:
            if text.startswith("VmHWM:"):
                return int(text.split()[1])
    raise AssertionError("no VmHWM")


def test_lines_wait_for_a_consumer_holding_the_lock(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "first").write_text("1")
    wait_count(app, q, 1)
    names = ["held%d" % i for i in range(5)]
    with open(q, "r+") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        for name in names:
            (share / name).write_text("x")
        app.wait_log(r"try lock too many times, path=%s, reason=Resource "
                     r"temporarily unavailable$" % q)
        time.sleep(QUIET_PERIOD)  # at least one more pass with the lock held
        assert raw_lines(q) == created(["first"])
    wait_count(app, q, 6)
    assert raw_lines(q) == created(["first"] + names)
    assert app.count_logs(r"try lock too many times") == 1
    app.wait_log(r"Queue writable again, path=%s, kept=5$" % q)


def test_full_file_system_then_freed(app):
    qdir = app.queue_path("small")
    q = qdir / "q.queue"
    qdir.mkdir()
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])

    def small_tmpfs(a):
        a.run_in_ns(["mount", "-t", "tmpfs", "-o", "size=64k,mode=0755",
                     "tmpfs", str(qdir)])
        a.ns_path(str(q)).write_bytes(b"")

    app.start(before_exec=small_tmpfs)
    app.wait_ready()
    nq = app.ns_path(str(q))
    filler = app.ns_path(str(qdir / "filler"))
    fd = os.open(filler, os.O_WRONLY | os.O_CREAT, 0o600)
    try:
        with pytest.raises(OSError):
            for _ in range(64):
                os.write(fd, b"f" * 4096)
    finally:
        os.close(fd)
    share = app.ns_path("/vol1/Public")
    names = ["gap%d" % i for i in range(20)]
    for name in names:
        (share / name).write_text("x")
    app.wait_log(r"Failed to write, reason=No space left on device$")
    time.sleep(QUIET_PERIOD)
    assert nq.read_bytes() == b"", "nothing half-written"
    filler.unlink()
    (share / "after").write_text("x")
    lines = wait_lines(app, nq, lambda ls: len(ls) >= 21)
    assert raw_lines(nq) == created(names + ["after"])
    assert app.count_logs(r"Failed to write") == 1
    app.wait_log(r"Queue writable again, path=%s, kept=20$" % q)


def test_a_cut_line_leaves_no_fragment(app):
    # One page of tmpfs: the file's content plus a line no longer fits, so
    # the kernel writes part of it and then refuses the rest.
    qdir = app.queue_path("tiny")
    q = qdir / "q.queue"
    qdir.mkdir()
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    pad = {"event": 1, "is_dir": False, "path": ""}
    pad["path"] = "/vol1/Public/" + "p" * (4000 - len(json.dumps(pad)) - 14)
    head = (json.dumps(pad, separators=(",", ":")) + "\n").encode()
    assert 3900 < len(head) < 4096

    def tiny_tmpfs(a):
        a.run_in_ns(["mount", "-t", "tmpfs", "-o", "size=4k,mode=0755",
                     "tmpfs", str(qdir)])
        a.ns_path(str(q)).write_bytes(head)

    app.start(before_exec=tiny_tmpfs)
    app.wait_ready()
    nq = app.ns_path(str(q))
    share = app.ns_path("/vol1/Public")
    long_name = "after-space-" + "n" * 150
    (share / long_name).write_text("x")
    app.wait_log(r"Failed to write, reason=No space left on device$")
    time.sleep(QUIET_PERIOD)
    assert nq.read_bytes() == head, "the cut line was taken back"
    (share / "next").write_text("x")
    time.sleep(QUIET_PERIOD)
    # The consumer takes what is there, as docs/queue-files.md says.
    with open(nq, "r+b") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        assert f.read() == head
        f.truncate(0)
        fcntl.flock(f, fcntl.LOCK_UN)
    wait_lines(app, nq, lambda ls: len(ls) >= 2)
    assert raw_lines(nq) == created([long_name, "next"])


def test_queue_directory_removed_and_created_again(app):
    qdir = app.queue_path("sub")
    q = qdir / "q.queue"
    qdir.mkdir()
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "before").write_text("x")
    wait_count(app, q, 1)
    q.unlink()
    qdir.rmdir()
    names = ["gap%d" % i for i in range(10)]
    for name in names:
        (share / name).write_text("x")
    app.wait_log(r"Failed to open queue path=%s, reason=No such file or directory$" % q)
    time.sleep(QUIET_PERIOD)
    qdir.mkdir()
    wait_count(app, q, 10)
    assert raw_lines(q) == created(names)
    assert app.count_logs(r"Failed to open queue") == 1


def test_outbox_bound_turns_into_a_rescan(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "d").mkdir()
    wait_count(app, q, 1)
    with open(q, "r+") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        held.truncate(0)
        for i in range(12000):
            (share / "d" / ("f%05d" % i)).write_bytes(b"")
        app.wait_log(r"Queue outbox full, path=%s, rescan instead$" % q,
                     timeout=30)
        (share / "after").write_text("x")
        time.sleep(QUIET_PERIOD)
    lines = wait_lines(app, q, lambda ls: line(64, "/vol1/Public/after") in ls,
                       timeout=30)
    lines = raw_lines(q)
    assert lines[0] == line(512, "/vol1/Public", True)
    assert line(64, "/vol1/Public/after") in lines
    assert len(lines) < 5000, "the kept lines were summed up"
    assert app.count_logs(r"Queue outbox full") == 1


def test_huge_first_line_costs_no_memory(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    size = 90 * 1024 * 1024
    with open(q, "wb") as f:
        chunk = b"x" * (1 << 20)
        for _ in range(90):
            f.write(chunk)
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    (share / "warm").write_text("x")
    assert wait_until(lambda: os.path.getsize(q) > size, LINE_TIMEOUT), \
        app.diagnostics()
    before = vm_hwm_kib(app.pid)
    for i in range(3):
        (share / ("f%d" % i)).write_text("x")
        time.sleep(QUIET_PERIOD)
    expected = b"".join(json.dumps(l, separators=(",", ":")).encode() + b"\n"
                        for l in created(["warm", "f0", "f1", "f2"]))
    assert wait_until(lambda: os.path.getsize(q) == size + len(expected),
                      LINE_TIMEOUT), app.diagnostics()
    with open(q, "rb") as f:
        f.seek(size)
        assert f.read() == expected
    peak = vm_hwm_kib(app.pid)
    # Reading the whole head would take the file's size again and more.
    assert peak < 48 * 1024, "peak memory %d KiB" % peak
    assert peak - before < 4096, "peak memory grew by %d KiB" % (peak - before)
