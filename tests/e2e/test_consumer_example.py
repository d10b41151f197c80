"""The Python consumer of docs/examples, run as it is against the installed
daemon: it reports every event with the names' exact bytes (also names that
are not UTF-8), empties the queue file of what it took, leaves an unfinished
line where it was, waits for a busy lock, and follows the file."""

import fcntl
import os
import re
import signal
import subprocess
import sys
import threading
from pathlib import Path

import pytest

from harness import (LINE_TIMEOUT, monitor, wait_count, wait_line, wait_lines,
                     wait_until)
from test_pipeline import line
# /vol1 with the share Public at /vol1/Public; each run must end cleanly.
from test_outbox import app  # noqa: F401  (a pytest fixture)

EXAMPLE = (Path(__file__).resolve().parents[2] / "docs" / "examples" /
           "consume_queue.py")
SHARE = b"/vol1/Public"


def start(app, events=("create", "delete", "move")):
    """Starts the daemon with one queue on the share; returns its file."""
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=list(events))])
    app.start()
    app.wait_ready()
    return q


def on_share(app, name: bytes) -> bytes:
    """The host path of a name on the share, as bytes."""
    return os.fsencode(app.ns_path(SHARE.decode())) + b"/" + name


def queue_name(name: bytes) -> str:
    """How the daemon writes a name on the share: each byte that is not
    part of valid UTF-8 as U+DC00 + byte."""
    return (SHARE + b"/" + name).decode("utf-8", "surrogateescape")


def reported(kind, name: bytes, old: bytes = None, is_dir=False):
    """The example's line for an event on the share."""
    text = "%s %s %r" % (kind, "dir" if is_dir else "file", SHARE + b"/" + name)
    if old is not None:
        text += " from %r" % (SHARE + b"/" + old)
    return text


def run_example(q, *args):
    result = subprocess.run([sys.executable, str(EXAMPLE), str(q)] +
                            list(args), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, timeout=60)
    assert result.returncode == 0 and result.stderr == b"", \
        "exit %d, stderr %r" % (result.returncode, result.stderr)
    return result.stdout.decode("ascii").splitlines()


def test_every_event_with_the_names_exact_bytes(app):
    q = start(app)
    names = [b"plain", b"caf\xe9", "na\u00efve".encode(), b"line\nfeed"]
    for name in names:
        with open(on_share(app, name), "wb") as f:
            f.write(b"x")
    os.mkdir(on_share(app, b"\xff\xfe"))
    wait_count(app, q, 5)
    # A rename whose two names are not UTF-8. Its halves are paired into one
    # move line unless a 3-second batch ends between them.
    new = b"caf\xe9-\x80"
    os.rename(on_share(app, b"caf\xe9"), on_share(app, new))
    wait_lines(app, q, lambda ls: any(l["path"] == queue_name(new)
                                      for l in ls))
    queued = q.read_bytes()
    assert queued.isascii(), "the daemon writes plain ASCII lines"

    out = run_example(q)
    created = [reported("create", n) for n in names]
    created.append(reported("create", b"\xff\xfe", is_dir=True))
    assert out[:5] == created
    assert out[5:] in ([reported("move", new, old=b"caf\xe9")],
                       [reported("delete", b"caf\xe9"),
                        reported("create", new)])
    assert q.read_bytes() == b"", "what was taken must leave the file"
    assert run_example(q) == []


def test_an_unfinished_line_stays_in_the_file(app):
    q = start(app)
    with open(on_share(app, b"whole"), "wb"):
        pass
    wait_count(app, q, 1)
    # A fragment behind the daemon's line, as a failed write would leave it.
    fragment = b'{"event":64,"is_d'
    with open(q, "ab") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        f.write(fragment)
    assert run_example(q) == [reported("create", b"whole")]
    assert q.read_bytes() == fragment
    assert run_example(q) == []
    assert q.read_bytes() == fragment


def test_waits_for_a_busy_lock_and_loses_nothing(app):
    q = start(app)
    with open(on_share(app, b"first"), "wb"):
        pass
    wait_count(app, q, 1)
    with open(q, "rb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        with open(on_share(app, b"kept"), "wb"):
            pass
        # The daemon keeps its line for a later pass.
        app.wait_log(r"try lock too many times, path=%s, " % re.escape(str(q)))
        proc = subprocess.Popen([sys.executable, str(EXAMPLE), str(q)],
                                stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        try:
            fd_dir = Path("/proc/%d/fd" % proc.pid)
            # The example has the file open, so it is waiting for the lock.
            assert wait_until(lambda: any(
                os.path.realpath(p) == str(q) for p in _fds(fd_dir)), 30)
        except BaseException:
            proc.kill()
            proc.wait()
            raise
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == 0 and err == b"", err
    taken = out.decode("ascii").splitlines()
    assert taken[0] == reported("create", b"first")
    # The kept line arrives with the daemon's next pass: in this round, or
    # the next one.
    if len(taken) == 1:
        wait_line(app, q, line(64, queue_name(b"kept")))
        taken += run_example(q)
    assert taken == [reported("create", b"first"), reported("create", b"kept")]
    assert q.read_bytes() == b""


def _fds(fd_dir):
    try:
        return [str(p) for p in fd_dir.iterdir()]
    except OSError:
        return []


def follow(q, action):
    """Runs the example with --follow while action(out) makes changes and
    waits for them in `out`, the lines printed so far; then stops it with
    SIGTERM. Returns its exit status and its stderr."""
    proc = subprocess.Popen([sys.executable, str(EXAMPLE), str(q), "--follow",
                             "--interval", "0.05"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    out = []
    # Read as it comes: a full pipe would stop the consumer.
    reader = threading.Thread(target=lambda: out.extend(
        l.decode("ascii").rstrip("\n") for l in proc.stdout))
    reader.start()
    try:
        action(out)
        proc.send_signal(signal.SIGTERM)
        _, err = proc.communicate(timeout=30)
        return proc.returncode, err
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        reader.join(10)


def test_follow_takes_lines_as_the_daemon_appends_them(app):
    q = start(app)
    names = [b"f%d\xe9" % i for i in range(6)]
    printed = []

    def make_files(out):
        for i, name in enumerate(names):
            with open(on_share(app, name), "wb"):
                pass
            # Each one taken before the next is made.
            assert wait_until(lambda: len(out) > i, LINE_TIMEOUT), \
                (out, app.diagnostics())
        assert q.read_bytes() == b""
        printed.extend(out)

    status, err = follow(q, make_files)
    assert status == 0 and err == b"", err
    assert printed == [reported("create", n) for n in names]
