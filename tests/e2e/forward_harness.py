"""What the forwarder's end-to-end tests (and bench/forward_bench.py) share:
real nats-server processes on 127.0.0.1 (one server, or a JetStream
cluster of several), the installed forwarder, and the stream read back
with yulotify-forward-dump.

A server is reached with `client_args()`: "--server URL" and whatever else
a client needs (a CA, credentials), the same for the forwarder and the
dump."""

import fcntl
import json
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from harness import LINE_TIMEOUT, monitor, wait_until

SUBJECT = "yulotifyd.test.q"
STREAM = "YULOTEST"


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def listening(port: int) -> bool:
    try:
        with socket.create_connection(("127.0.0.1", port), 0.2):
            return True
    except OSError:
        return False


class NatsServer:
    """One nats-server with JetStream on 127.0.0.1, its store in `root`;
    stop() and start() again keep port and store. With `config` (the text
    of a nats-server configuration file: tls, authorization, cluster
    blocks), it runs from a file holding that text, its listen address,
    name and store; `scheme` and `client_args` are then how clients reach
    it (tls, a CA file, credentials)."""

    def __init__(self, root: Path, name: str = "nats", config: str = None,
                 scheme: str = "nats", client_args=(), port: int = None):
        self.name = name
        self.port = port or free_port()
        self.store = root / (name + "-store")
        self.log = root / (name + "-server.log")
        self.conf = root / (name + ".conf") if config is not None else None
        self.config = config
        self.scheme = scheme
        self.extra_args = list(client_args)
        self.proc = None

    @property
    def url(self) -> str:
        return "%s://127.0.0.1:%d" % (self.scheme, self.port)

    def client_args(self) -> list:
        return ["--server", self.url] + self.extra_args

    def argv(self) -> list:
        binary = shutil.which("nats-server")
        if binary is None:
            pytest.fail("nats-server is not installed (scripts/deps.sh)")
        if self.conf is None:
            return [binary, "-js", "-a", "127.0.0.1", "-p", str(self.port),
                    "-sd", str(self.store)]
        self.conf.write_text(
            "server_name: %s\nlisten: 127.0.0.1:%d\n"
            "jetstream { store_dir: \"%s\" }\n%s\n"
            % (self.name, self.port, self.store, self.config))
        return [binary, "-c", str(self.conf)]

    def start(self, wait: bool = True):
        with open(self.log, "ab") as log:
            self.proc = subprocess.Popen(self.argv(), stdout=log,
                                         stderr=subprocess.STDOUT)
        if wait:
            assert wait_until(lambda: listening(self.port), 10), \
                self.log.read_text()

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None

    def kill(self):
        """SIGKILL: no goodbye to clients or to the other nodes."""
        if self.proc is not None and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGKILL)
            self.proc.wait()
        self.proc = None


class NatsCluster:
    """`size` nats-servers with JetStream, routes between all of them and
    distinct names (n1, n2, ...): a JetStream cluster on 127.0.0.1."""

    def __init__(self, root: Path, size: int = 3):
        ports = [free_port() for _ in range(size)]
        routes = [free_port() for _ in range(size)]
        self.nodes = []
        for i in range(size):
            others = ", ".join("nats-route://127.0.0.1:%d" % routes[j]
                               for j in range(size) if j != i)
            config = ("cluster { name: yulo, listen: 127.0.0.1:%d, "
                      "routes: [%s] }" % (routes[i], others))
            self.nodes.append(NatsServer(root, "n%d" % (i + 1), config,
                                         port=ports[i]))

    def client_args(self) -> list:
        return ["--server", ",".join(n.url for n in self.nodes)]

    def node(self, name: str) -> NatsServer:
        return next(n for n in self.nodes if n.name == name)

    def start(self):
        for n in self.nodes:
            n.start(wait=False)
        for n in self.nodes:
            assert wait_until(lambda: listening(n.port), 10), \
                n.log.read_text()
        # JetStream answers once the nodes have chosen a meta leader.
        assert wait_until(self.ready, 30), [
            n.log.read_text()[-2000:] for n in self.nodes]

    def ready(self) -> bool:
        for n in self.nodes:
            if n.proc is None:
                continue
            answer = jetstream_api(n, "$JS.API.INFO", {})
            return answer is not None and "error" not in answer
        return False

    def stop(self):
        for n in self.nodes:
            n.stop()

    def stream_info(self, stream: str = STREAM) -> dict:
        """The stream's info as a running node tells it, or None."""
        for n in self.nodes:
            if n.proc is None:
                continue
            answer = jetstream_api(n, "$JS.API.STREAM.INFO." + stream, {})
            if answer is not None and "error" not in answer:
                return answer
        return None

    def leader(self, stream: str = STREAM) -> str:
        info = self.stream_info(stream)
        return (info or {}).get("cluster", {}).get("leader")


def jetstream_api(server: NatsServer, subject: str, body: dict,
                  timeout: float = 5):
    """The JetStream API, spoken over a bare (plain, open) NATS connection:
    enough to look at a stream, or create or change one the way an operator
    would with their own tools. None when no answer came in time."""
    inbox = "_INBOX.e2e.%d" % time.monotonic_ns()
    payload = json.dumps(body).encode()
    try:
        with socket.create_connection(("127.0.0.1", server.port),
                                      timeout) as s:
            f = s.makefile("rb")
            assert f.readline().startswith(b"INFO")
            s.sendall(b'CONNECT {"verbose":false,"pedantic":false}\r\n'
                      b"SUB %s 1\r\nPUB %s %s %d\r\n%s\r\n"
                      % (inbox.encode(), subject.encode(), inbox.encode(),
                         len(payload), payload))
            while True:
                line = f.readline()
                if not line:
                    return None
                if line.startswith(b"PING"):
                    s.sendall(b"PONG\r\n")
                elif line.startswith(b"MSG"):
                    data = f.read(int(line.split()[-1]) + 2)[:-2]
                    return json.loads(data) if data else None
    except (OSError, socket.timeout):
        return None


class Forwarder:
    def __init__(self, prefix: Path, root: Path, server, queue: Path,
                 *extra: str, argv=None):
        self.argv = argv or [
            str(prefix / "bin" / "yulotify-forward"),
            *server.client_args(), "--subject", SUBJECT,
            "--stream", STREAM, "--spool", str(root / "spool"),
            "--interval", "50", *extra, str(queue)]
        self.stderr = root / "forward.stderr"
        self.proc = None

    def start(self, wrapper=()):
        """Starts the forwarder, under `wrapper` (strace, nsenter...) if
        given."""
        with open(self.stderr, "ab") as err:
            self.proc = subprocess.Popen(list(wrapper) + self.argv,
                                         stdout=subprocess.DEVNULL, stderr=err)

    def wait_exit(self, timeout: float = 15) -> int:
        return self.proc.wait(timeout)

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


def dump(prefix: Path, server, *args: str, timeout: float = 60):
    return subprocess.run(
        [str(prefix / "bin" / "yulotify-forward-dump"),
         *server.client_args(), "--stream", STREAM, *args],
        capture_output=True, text=True, timeout=timeout)


def stream_count(prefix: Path, server) -> int:
    r = dump(prefix, server, "--count", timeout=30)
    return int(r.stdout) if r.returncode == 0 else -1


def stream_messages(prefix: Path, server) -> list:
    r = dump(prefix, server)
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


def append_lines(queue: Path, lines):
    """Appends queue lines as the daemon does: whole lines, under the
    file's exclusive lock."""
    with open(queue, "ab") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        f.write(b"".join(json.dumps(l).encode() + b"\n" for l in lines))
        fcntl.flock(f, fcntl.LOCK_UN)


def create_line(name: str) -> dict:
    return {"event": 64, "is_dir": False, "path": "/vol1/Public/d/" + name}
