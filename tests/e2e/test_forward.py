"""yulotify-forward, end to end: the real daemon writes a queue file, the
installed forwarder moves its lines to a real nats-server with JetStream,
and the stream is read back with yulotify-forward-dump."""

import fcntl
import json
import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from harness import LINE_TIMEOUT, monitor, wait_until

QUEUE_LIMIT = 104857600
SUBJECT = "yulotifyd.test.q"
STREAM = "YULOTEST"


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class NatsServer:
    """One nats-server -js on 127.0.0.1, its store in the test's directory;
    stop() and start() again keep port and store."""

    def __init__(self, root: Path):
        self.port = free_port()
        self.store = root / "nats-store"
        self.log = root / "nats-server.log"
        self.proc = None

    @property
    def url(self) -> str:
        return "nats://127.0.0.1:%d" % self.port

    def start(self):
        binary = shutil.which("nats-server")
        if binary is None:
            pytest.fail("nats-server is not installed (scripts/deps.sh)")
        with open(self.log, "ab") as log:
            self.proc = subprocess.Popen(
                [binary, "-js", "-a", "127.0.0.1", "-p", str(self.port),
                 "-sd", str(self.store)],
                stdout=log, stderr=subprocess.STDOUT)

        def listening():
            try:
                with socket.create_connection(("127.0.0.1", self.port), 0.2):
                    return True
            except OSError:
                return False
        assert wait_until(listening, 10), self.log.read_text()

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None


class Forwarder:
    def __init__(self, prefix: Path, root: Path, server: NatsServer,
                 queue: Path, *extra: str):
        self.argv = [str(prefix / "bin" / "yulotify-forward"),
                     "--server", server.url, "--subject", SUBJECT,
                     "--stream", STREAM, "--spool", str(root / "spool"),
                     "--interval", "50", *extra, str(queue)]
        self.stderr = root / "forward.stderr"
        self.proc = None

    def start(self):
        with open(self.stderr, "ab") as err:
            self.proc = subprocess.Popen(self.argv, stdout=subprocess.DEVNULL,
                                         stderr=err)

    def stop(self) -> int:
        self.proc.send_signal(signal.SIGTERM)
        return self.proc.wait(15)

    def kill(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()

    def log(self) -> str:
        return self.stderr.read_text() if self.stderr.exists() else ""

    def wait_log(self, text: str, timeout: float = LINE_TIMEOUT):
        assert wait_until(lambda: text in self.log(), timeout), self.log()


@pytest.fixture
def nats(tmp_path):
    server = NatsServer(tmp_path)
    yield server
    server.stop()


@pytest.fixture
def forwarders():
    started = []
    yield started
    for f in started:
        f.kill()


def stream_count(prefix: Path, server: NatsServer) -> int:
    r = subprocess.run([str(prefix / "bin" / "yulotify-forward-dump"),
                        "--server", server.url, "--stream", STREAM, "--count"],
                       capture_output=True, text=True, timeout=30)
    return int(r.stdout) if r.returncode == 0 else -1


def stream_messages(prefix: Path, server: NatsServer) -> list:
    r = subprocess.run([str(prefix / "bin" / "yulotify-forward-dump"),
                        "--server", server.url, "--stream", STREAM],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    out = []
    for text in r.stdout.splitlines():
        seq, msg_id, host, event, payload = text.split("\t", 4)
        out.append({"seq": int(seq), "id": msg_id, "host": host,
                    "event": event, "line": json.loads(payload)})
    return out


def wait_stream(prefix, server, n, forwarder, timeout=60.0) -> list:
    ok = wait_until(lambda: stream_count(prefix, server) >= n, timeout)
    assert ok, "stream holds %d of %d; forwarder log:\n%s" % (
        stream_count(prefix, server), n, forwarder.log())
    time.sleep(0.5)  # anything more would be a duplicate: let it show
    return stream_messages(prefix, server)


def setup_appliance(make_appliance):
    app = make_appliance()
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    return app, q


def create(app, names):
    share = app.ns_path("/vol1/Public")
    for name in names:
        with open(share / name, "w"):
            pass


def paths(messages):
    return [m["line"]["path"] for m in messages]


def assert_exactly_once(messages, expected_paths):
    got = paths(messages)
    assert len(set(m["id"] for m in messages)) == len(messages)
    assert len(got) == len(set(got)), "a line arrived twice"
    assert set(got) == set(expected_paths)


def test_ten_thousand_creations_arrive_in_order_exactly_once(
        make_appliance, nats, forwarders, yulotifyd_prefix, tmp_path):
    app, q = setup_appliance(make_appliance)
    nats.start()
    fwd = Forwarder(yulotifyd_prefix, tmp_path, nats, q)
    forwarders.append(fwd)
    fwd.start()
    names = ["f%05d" % i for i in range(10000)]
    create(app, names)
    messages = wait_stream(yulotifyd_prefix, nats, len(names), fwd)
    assert paths(messages) == ["/vol1/Public/" + n for n in names]
    assert len(set(m["id"] for m in messages)) == len(messages)
    host = socket.gethostname()
    for i, m in enumerate(messages):
        assert m["host"] == host and m["event"] == "64"
        assert m["id"].startswith("%s:%s:" % (host, q))
        assert m["id"].endswith(":%d" % i)
    assert fwd.stop() == 0
    # Once acknowledged, nothing is left: the spool is compacted.
    spools = list((tmp_path / "spool").glob("*.spool"))
    assert len(spools) == 1 and spools[0].stat().st_size == 0
    assert q.stat().st_size == 0
    # State changes are logged, not lines.
    assert len(fwd.log().splitlines()) < 10, fwd.log()


def test_server_stopped_in_a_burst_loses_nothing_doubles_nothing(
        make_appliance, nats, forwarders, yulotifyd_prefix, tmp_path):
    app, q = setup_appliance(make_appliance)
    nats.start()
    fwd = Forwarder(yulotifyd_prefix, tmp_path, nats, q)
    forwarders.append(fwd)
    fwd.start()
    first = ["a%04d" % i for i in range(3000)]
    create(app, first)
    assert wait_until(lambda: stream_count(yulotifyd_prefix, nats) > 0, 30), fwd.log()
    nats.stop()
    second = ["b%04d" % i for i in range(2000)]
    create(app, second)
    fwd.wait_log("disconnected from the server")
    # The queue file keeps being emptied into the spool meanwhile.
    spool = next((tmp_path / "spool").glob("*.spool"))
    assert wait_until(lambda: spool.stat().st_size > 0 and q.stat().st_size == 0
                      and b"b1999" in spool.read_bytes(), 30), fwd.log()
    nats.start()
    messages = wait_stream(yulotifyd_prefix, nats, 5000, fwd)
    assert_exactly_once(messages, ["/vol1/Public/" + n for n in first + second])
    assert fwd.stop() == 0
    assert fwd.log().count("disconnected from the server") == 1, fwd.log()


def test_forwarder_killed_mid_stream_sends_again_stored_once(
        make_appliance, nats, forwarders, yulotifyd_prefix, tmp_path):
    app, q = setup_appliance(make_appliance)
    nats.start()
    fwd = Forwarder(yulotifyd_prefix, tmp_path, nats, q)
    forwarders.append(fwd)
    fwd.start()
    names = ["k%04d" % i for i in range(6000)]
    create(app, names)
    assert wait_until(lambda: stream_count(yulotifyd_prefix, nats) > 0, 30), fwd.log()
    fwd.kill()
    fwd.start()
    messages = wait_stream(yulotifyd_prefix, nats, len(names), fwd)
    assert_exactly_once(messages, ["/vol1/Public/" + n for n in names])
    assert fwd.stop() == 0


def test_spool_bound_stops_taking_and_the_reset_lines_arrive(
        make_appliance, nats, forwarders, yulotifyd_prefix, tmp_path):
    app, q = setup_appliance(make_appliance)
    # The server is not running yet.
    fwd = Forwarder(yulotifyd_prefix, tmp_path, nats, q, "--spool-max", "4K")
    forwarders.append(fwd)
    fwd.start()
    create(app, ["s%03d" % i for i in range(200)])
    fwd.wait_log("spool full")
    spool = next((tmp_path / "spool").glob("*.spool"))
    spooled = [json.loads(t) for t in spool.read_text().splitlines()]
    assert len(spooled) >= 50
    # Past the bound nothing is taken: the queue file keeps what comes.
    create(app, ["late"])
    assert wait_until(lambda: q.exists() and b"late" in q.read_bytes(),
                      LINE_TIMEOUT), fwd.log()
    assert [json.loads(t) for t in spool.read_text().splitlines()] == spooled
    # The daemon's own bound then applies: past 100 MiB it resets the file.
    with open(q, "r+b") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        f.truncate(QUEUE_LIMIT + 1)
        fcntl.flock(f, fcntl.LOCK_UN)
    create(app, ["resets"])
    assert wait_until(lambda: q.stat().st_size < 1000, LINE_TIMEOUT), fwd.log()
    nats.start()
    messages = wait_stream(yulotifyd_prefix, nats, len(spooled) + 2, fwd)
    assert [m["line"] for m in messages] == spooled + [
        {"event": 1024, "is_dir": False, "path": ""},
        {"event": 512, "is_dir": True, "path": "/vol1/Public"},
    ]
    assert fwd.stop() == 0
    assert fwd.log().count("spool full") == 1, fwd.log()
