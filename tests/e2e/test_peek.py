"""yulotifyctl peek: prints a queue file's complete lines and leaves the file
exactly as it was; a consumer still gets every line afterwards."""

import fcntl
import os
import signal
import subprocess
import threading

import pytest

from control_util import run_ctl
from control_util import ctl_binary  # noqa: F401  (a pytest fixture)
from harness import monitor, wait_count, wait_until
# /vol1 with the share Public at /vol1/Public; each run must end cleanly.
from test_outbox import app  # noqa: F401  (a pytest fixture)


def one_line(text):
    lines = text.splitlines()
    assert len(lines) == 1, "expected one line, got %r" % text
    return lines[0]


def test_peek_shows_the_daemons_lines_and_leaves_the_file(app, ctl_binary):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    share = os.fsencode(app.ns_path("/vol1/Public"))
    for name in (b"a", b"caf\xe9"):
        with open(share + b"/" + name, "wb"):
            pass
    wait_count(app, q, 2)
    content = q.read_bytes()
    # An old mtime, so that any write would show.
    os.utime(q, ns=(1_000_000_000_000_000_000, 1_100_000_000_000_000_000))
    before = os.stat(q)

    for _ in range(2):
        r = run_ctl(ctl_binary, "peek", q, check=0)
        assert r.stdout == content
        assert r.out.splitlines() == [
            '{"event":64,"is_dir":false,"path":"/vol1/Public/a"}',
            '{"event":64,"is_dir":false,"path":"/vol1/Public/caf\\udce9"}']
        assert r.err == ""
        after = os.stat(q)
        assert q.read_bytes() == content
        assert (after.st_mtime_ns, after.st_ctime_ns, after.st_ino) == \
            (before.st_mtime_ns, before.st_ctime_ns, before.st_ino)

    # Nothing was taken: a consumer gets the same lines.
    r = run_ctl(ctl_binary, "consume", q, check=0)
    assert r.stdout == content
    assert q.read_bytes() == b""
    r = run_ctl(ctl_binary, "peek", q, check=0)
    assert r.out == "" and r.err == ""


def test_peek_leaves_out_an_unfinished_line(tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    q.write_bytes(b'{"event":64,"is_dir":false,"path":"/a"}\n{"event":12')
    r = run_ctl(ctl_binary, "peek", q, check=0)
    assert r.out == '{"event":64,"is_dir":false,"path":"/a"}\n'
    assert one_line(r.err) == ("yulotifyctl: note: %s ends in an unfinished "
                               "line, not shown" % q)
    assert q.read_bytes() == \
        b'{"event":64,"is_dir":false,"path":"/a"}\n{"event":12'


def test_peek_at_a_missing_file(tmp_path, ctl_binary):
    q = tmp_path / "missing.queue"
    r = run_ctl(ctl_binary, "peek", q, check=1)
    assert r.out == ""
    assert one_line(r.err) == ("yulotifyctl: cannot peek at %s: cannot open "
                               "%s: No such file or directory" % (q, q))
    assert not q.exists(), "peek must not create the file"


def test_peek_failures(tmp_path, ctl_binary):
    r = run_ctl(ctl_binary, "peek", tmp_path, check=1)
    assert one_line(r.err) == ("yulotifyctl: cannot peek at %s: %s is not a "
                               "regular file" % (tmp_path, tmp_path))
    q = tmp_path / "locked.queue"
    q.write_text("a\n")
    with open(q, "rb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        r = run_ctl(ctl_binary, "peek", q, "--lock-timeout", "300", check=1)
    assert r.out == ""
    assert one_line(r.err) == ("yulotifyctl: cannot peek at %s: %s stayed "
                               "locked by another process for 300 ms" % (q, q))
    assert q.read_text() == "a\n"


@pytest.mark.parametrize("args,words", [
    (["peek"], "expects exactly one QUEUE_FILE"),
    (["peek", "/a", "/b"], "expects exactly one QUEUE_FILE"),
    (["peek", "/a", "--lock-timeout", "0"], "--lock-timeout"),
    (["peek", "/a", "--interval", "100"], "--interval goes with --follow"),
    (["peek", "/a", "--follow", "--interval", "0"], "--interval"),
])
def test_peek_usage_errors(ctl_binary, args, words):
    r = run_ctl(ctl_binary, *args, check=2)
    line = one_line(r.err)
    assert line.startswith("yulotifyctl: peek: "), line
    assert words in line and "try 'yulotifyctl peek --help'" in line, line
    assert r.out == ""


def test_peek_help(ctl_binary):
    for args in (["peek", "--help"], ["peek", "-h"], ["help", "peek"]):
        r = run_ctl(ctl_binary, *args, check=0)
        assert r.out.startswith(
            "usage: yulotifyctl peek QUEUE_FILE [--follow] [--interval MS] "
            "[--wait]\n"), r.out
        assert r.err == ""
    r = run_ctl(ctl_binary, "--help", check=0)
    assert "  peek QUEUE_FILE [--follow] [--wait] [--owner USER] ...\n" \
        in r.out


class Follower:
    """yulotifyctl peek --follow (or consume --follow) running, its stdout
    and stderr gathered as they come."""

    def __init__(self, ctl_binary, *args):
        self.proc = subprocess.Popen(
            [str(ctl_binary)] + [str(a) for a in args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.out, self.err = [], []
        self.readers = [threading.Thread(target=self._read, args=(f, into))
                        for f, into in ((self.proc.stdout, self.out),
                                        (self.proc.stderr, self.err))]
        for r in self.readers:
            r.start()

    @staticmethod
    def _read(f, into):
        for chunk in iter(lambda: f.read1(65536), b""):
            into.append(chunk)

    def text(self):
        return b"".join(self.out).decode()

    def errors(self):
        return b"".join(self.err).decode()

    def wait_out(self, text, timeout=10):
        assert wait_until(lambda: self.text() == text, timeout), \
            (self.text(), self.errors())

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        try:
            self.proc.wait(timeout=10)
        finally:
            if self.proc.poll() is None:
                self.proc.kill()
                self.proc.wait()
            for r in self.readers:
                r.join(10)
        return self.proc.returncode


def append(path, text):
    """Appends as the daemon does: under an exclusive lock."""
    with open(path, "ab") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        f.write(text.encode())


def test_peek_follow_shows_new_lines_and_starts_over_after_a_cut(
        tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    q.write_text("a\nb\n")
    f = Follower(ctl_binary, "peek", q, "--follow", "--interval", "20")
    try:
        f.wait_out("a\nb\n")
        append(q, "c\n")
        f.wait_out("a\nb\nc\n")
        append(q, '{"event":12')  # unfinished: not shown yet
        append(q, '8}\n')
        f.wait_out('a\nb\nc\n{"event":128}\n')
        assert f.errors() == ""
        # A consumer takes everything; the daemon writes on.
        r = run_ctl(ctl_binary, "consume", q, check=0)
        assert r.out == 'a\nb\nc\n{"event":128}\n'
        append(q, "d\n")
        f.wait_out('a\nb\nc\n{"event":128}\nd\n')
        assert f.errors() == (
            "yulotifyctl: note: the lines shown from %s are gone (taken by a "
            "consumer, or the file was reset); showing it again from its "
            "start\n" % q)
    finally:
        status = f.stop()
    assert status == 0
    # Nothing was taken by peek.
    assert q.read_text() == "d\n"


def test_peek_follow_of_a_missing_file(tmp_path, ctl_binary):
    q = tmp_path / "later.queue"
    r = run_ctl(ctl_binary, "peek", q, "--follow", check=1)
    assert "No such file or directory" in one_line(r.err)
    f = Follower(ctl_binary, "peek", q, "--follow", "--wait", "--interval",
                 "20")
    try:
        append(q, "a\n")
        f.wait_out("a\n")
    finally:
        status = f.stop()
    assert status == 0
    assert f.errors() == ""
    assert q.read_text() == "a\n"
