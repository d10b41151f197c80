"""yulotify-forward over TLS and with credentials, against real nats-server
processes: a throw-away CA made here with openssl, servers that verify
client certificates or want a user's password. A refused connection is
logged with its reason, once per back-off, while the lines wait in the
spool; a secret file others can read is refused at start."""

import re
import subprocess
from pathlib import Path

import pytest

from forward_harness import (  # noqa: F401 (fixture: forwarders)
    Forwarder, NatsServer, append_lines, create_line, forwarders,
    stream_count, wait_stream)
from harness import wait_until

EXIT_SECRET_FILE = 4
PASSWORD = "correct-horse-battery"


def openssl(*args: str):
    subprocess.run(["openssl", *args], check=True, capture_output=True)


class Pki:
    """Two CAs, and certificates signed by the first: the server's (for
    127.0.0.1) and a client's. Keys are EC, quick to make; all mode 600."""

    def __init__(self, root: Path):
        self.dir = root / "pki"
        self.dir.mkdir()
        for ca in ("ca", "otherca"):
            openssl("req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                    "-subj", "/CN=%s" % ca, "-keyout", self.key(ca),
                    "-out", self.pem(ca))
        self.sign("server", "subjectAltName=IP:127.0.0.1,DNS:localhost")
        self.sign("client", "subjectAltName=DNS:appliance")
        for key in self.dir.glob("*.key"):
            key.chmod(0o600)

    def pem(self, name: str) -> str:
        return str(self.dir / (name + ".pem"))

    def key(self, name: str) -> str:
        return str(self.dir / (name + ".key"))

    def sign(self, name: str, extension: str):
        csr = self.dir / (name + ".csr")
        ext = self.dir / (name + ".ext")
        ext.write_text(extension + "\n")
        openssl("req", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
                "/CN=%s" % name, "-keyout", self.key(name), "-out", str(csr))
        openssl("x509", "-req", "-in", str(csr), "-CA", self.pem("ca"),
                "-CAkey", self.key("ca"), "-CAcreateserial", "-days", "1",
                "-extfile", str(ext), "-out", self.pem(name))


@pytest.fixture
def pki(tmp_path):
    return Pki(tmp_path)


@pytest.fixture
def servers():
    started = []
    yield started
    for s in started:
        s.stop()


def tls_server(tmp_path, pki, verify_clients: bool) -> NatsServer:
    config = "tls { cert_file: \"%s\", key_file: \"%s\"" % (
        pki.pem("server"), pki.key("server"))
    if verify_clients:
        config += ", ca_file: \"%s\", verify: true" % pki.pem("ca")
    config += " }"
    # The dump reads the stream back as a trusted client.
    client = ["--tls-ca", pki.pem("ca")]
    if verify_clients:
        client += ["--tls-cert", pki.pem("client"),
                   "--tls-key", pki.key("client")]
    return NatsServer(tmp_path, "tls", config, scheme="tls",
                      client_args=client)


def backoffs(log: str) -> list:
    """The delays of the "cannot connect" lines, in order."""
    return [int(ms) for ms in re.findall(
        r"cannot connect: .*; trying again in (\d+) ms", log)]


def serve_lines(servers, server: NatsServer, tmp_path: Path, stem: str,
                count: int):
    """Starts `server` and writes `count` lines to a queue file; returns the
    queue file and the lines."""
    servers.append(server)
    server.start()
    q = tmp_path / "q.queue"
    lines = [create_line("%s%04d" % (stem, i)) for i in range(count)]
    append_lines(q, lines)
    return q, lines


def forwarder_with(prefix, tmp_path, server, queue, args) -> Forwarder:
    """A forwarder reaching `server` with `args` in place of the ones a
    trusted client uses."""
    return Forwarder(prefix, tmp_path, server, queue, argv=[
        str(prefix / "bin" / "yulotify-forward"), "--server", server.url,
        "--subject", "yulotifyd.test.q", "--stream", "YULOTEST",
        "--spool", str(tmp_path / "spool"), "--interval", "50", *args,
        str(queue)])


def run_refused(prefix, tmp_path, server, queue, args, why: str,
                forwarders) -> str:
    """Runs a forwarder that the server must refuse; waits for the reason
    in its log and for the lines to be in its spool, stops it, and returns
    its log."""
    fwd = forwarder_with(prefix, tmp_path, server, queue, args)
    forwarders.append(fwd)
    before = len(fwd.log())
    fwd.start()
    assert wait_until(lambda: why in fwd.log()[before:], 15), fwd.log()
    # Taken from the queue file all the same: they wait in the spool.
    assert wait_until(lambda: queue.stat().st_size == 0, 10), fwd.log()
    assert fwd.stop() == 0
    return fwd.log()[before:]


def delivers(prefix, tmp_path, server, queue, lines, forwarders) -> str:
    """Runs a forwarder as a trusted client: every line arrives, in order.
    Returns its log."""
    fwd = Forwarder(prefix, tmp_path, server, queue)
    forwarders.append(fwd)
    fwd.start()
    messages = wait_stream(prefix, server, len(lines), fwd)
    assert [m["line"] for m in messages] == lines
    assert fwd.stop() == 0
    return fwd.log()


def refused_at_start(prefix, server, queue, args, path: Path):
    """A secret file open to others: exit status 4 at start, naming it."""
    r = subprocess.run(
        [str(prefix / "bin" / "yulotify-forward"), "--server", server.url,
         *args, "--subject", "s", str(queue)],
        capture_output=True, text=True, timeout=30)
    assert r.returncode == EXIT_SECRET_FILE, r.stderr
    assert "%s is readable or writable by others (mode 0644)" % path \
        in r.stderr
    return r.stderr


def test_tls_delivers_with_the_ca_and_refuses_without_it_or_with_another(
        pki, servers, forwarders, yulotifyd_prefix, tmp_path):
    server = tls_server(tmp_path, pki, verify_clients=False)
    q, lines = serve_lines(servers, server, tmp_path, "t", 500)
    for args in (["--tls-ca", pki.pem("otherca")], []):
        log = run_refused(yulotifyd_prefix, tmp_path, server, q, args,
                          "cannot connect", forwarders)
        # Says why: the server's certificate is not from a CA it trusts.
        assert "SSL handshake error" in log, log
        assert "unable to get local issuer certificate" in log, log
        assert "connected to" not in log, log
    assert stream_count(yulotifyd_prefix, server) == -1  # never reached
    delivers(yulotifyd_prefix, tmp_path, server, q, lines, forwarders)


def test_a_server_verifying_clients_takes_the_forwarders_certificate_only(
        pki, servers, forwarders, yulotifyd_prefix, tmp_path):
    server = tls_server(tmp_path, pki, verify_clients=True)
    q, lines = serve_lines(servers, server, tmp_path, "c", 300)
    log = run_refused(yulotifyd_prefix, tmp_path, server, q,
                      ["--tls-ca", pki.pem("ca")], "cannot connect",
                      forwarders)
    assert "connected to" not in log, log
    assert "does it want a client certificate? see --tls-cert" in log, log
    # The key open to others is refused at start.
    open_key = tmp_path / "open.key"
    open_key.write_bytes(Path(pki.key("client")).read_bytes())
    open_key.chmod(0o644)
    refused_at_start(yulotifyd_prefix, server, q, [
        "--tls-ca", pki.pem("ca"), "--tls-cert", pki.pem("client"),
        "--tls-key", str(open_key)], open_key)
    delivers(yulotifyd_prefix, tmp_path, server, q, lines, forwarders)


def password_file(tmp_path: Path, name: str, text: str, mode=0o600) -> Path:
    path = tmp_path / name
    path.write_text(text + "\n")
    path.chmod(mode)
    return path


def test_credentials_right_password_delivers_a_wrong_one_is_refused_per_backoff(
        servers, forwarders, yulotifyd_prefix, tmp_path):
    good = password_file(tmp_path, "good.pw", PASSWORD)
    server = NatsServer(
        tmp_path, "auth",
        "authorization { users = [ { user: appliance, password: \"%s\" } ] }"
        % PASSWORD,
        client_args=["--nats-user", "appliance", "--password-file",
                     str(good)])
    q, lines = serve_lines(servers, server, tmp_path, "p", 400)

    # A password file others can read: refused at start, nothing sent.
    readable = password_file(tmp_path, "readable.pw", PASSWORD, 0o644)
    stderr = refused_at_start(yulotifyd_prefix, server, q, [
        "--nats-user", "appliance", "--password-file", str(readable)],
        readable)
    assert PASSWORD not in stderr
    assert q.stat().st_size > 0  # not a line taken

    # A wrong password: refused, one line per back-off, each saying why.
    wrong = password_file(tmp_path, "wrong.pw", "not-" + PASSWORD)
    fwd = forwarder_with(yulotifyd_prefix, tmp_path, server, q, [
        "--nats-user", "appliance", "--password-file", str(wrong)])
    forwarders.append(fwd)
    fwd.start()
    assert wait_until(lambda: len(backoffs(fwd.log())) >= 3, 15), fwd.log()
    assert fwd.stop() == 0
    log = fwd.log()
    refusals = [line for line in log.splitlines() if "cannot connect" in line]
    assert all("Authorization Violation" in line for line in refusals), log
    # Each refusal waits twice as long as the one before: no busy loop.
    delays = backoffs(log)
    assert delays[:3] == [1000, 2000, 4000], log
    assert "not-" + PASSWORD not in log
    assert q.stat().st_size == 0  # the lines wait in the spool

    # The right one: every line arrives, in order; the password is in no
    # process's command line.
    fwd = Forwarder(yulotifyd_prefix, tmp_path, server, q)
    forwarders.append(fwd)
    fwd.start()
    proc_cmdline = Path("/proc/%d/cmdline" % fwd.proc.pid)
    # Once the program runs (not the forked test runner before exec).
    assert wait_until(lambda: str(good).encode() in proc_cmdline.read_bytes(),
                      10)
    cmdline = proc_cmdline.read_bytes()
    assert PASSWORD.encode() not in cmdline
    messages = wait_stream(yulotifyd_prefix, server, len(lines), fwd)
    assert [m["line"] for m in messages] == lines
    assert "cannot connect" not in fwd.log()[len(log):], fwd.log()
    assert fwd.stop() == 0


def test_a_token_file_authenticates(servers, forwarders, yulotifyd_prefix,
                                    tmp_path):
    token = password_file(tmp_path, "token", "t0ken-" + PASSWORD)
    server = NatsServer(
        tmp_path, "token",
        "authorization { token: \"t0ken-%s\" }" % PASSWORD,
        client_args=["--token-file", str(token)])
    q, lines = serve_lines(servers, server, tmp_path, "k", 50)
    delivers(yulotifyd_prefix, tmp_path, server, q, lines, forwarders)
    # The dump reads the stream with the forwarder's configuration file.
    config = tmp_path / "forward.conf"
    config.write_text("server=%s\ntoken-file=%s\nsubject=yulotifyd.test.q\n"
                      "stream=YULOTEST\nqueue=%s\n" % (server.url, token, q))
    config.chmod(0o600)
    r = subprocess.run([str(yulotifyd_prefix / "bin" /
                            "yulotify-forward-dump"), "--config", str(config),
                        "--count"], capture_output=True, text=True,
                       timeout=30)
    assert (r.returncode, r.stdout) == (0, "50\n"), r.stderr
    # Without the token the server says no, and the dump says why.
    r = subprocess.run([str(yulotifyd_prefix / "bin" /
                            "yulotify-forward-dump"), "--server", server.url,
                        "--stream", "YULOTEST", "--count"],
                       capture_output=True, text=True, timeout=30)
    assert r.returncode == 3, r.stderr
    assert "Authorization Violation" in r.stderr, r.stderr
