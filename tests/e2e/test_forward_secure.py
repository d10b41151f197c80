"""yulotify-forward over TLS and with credentials, against real nats-server
processes: a throw-away CA made here with openssl, servers that verify
client certificates or want a user's password. A refused connection is
logged with its reason, once per back-off, while the lines wait in the
spool; a secret file others can read is refused at start."""

import base64
import datetime
import hashlib
import ipaddress
import json
import re
import subprocess
import time
from pathlib import Path

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.ed25519 import Ed25519PrivateKey
from cryptography.x509.oid import NameOID

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

    def sign_expired(self, name: str):
        """A certificate for 127.0.0.1 from the first CA whose time ran out
        yesterday (openssl's x509 cannot date one in the past)."""
        ca_key = serialization.load_pem_private_key(
            Path(self.key("ca")).read_bytes(), password=None)
        ca = x509.load_pem_x509_certificate(Path(self.pem("ca")).read_bytes())
        key = ec.generate_private_key(ec.SECP256R1())
        now = datetime.datetime.now(datetime.timezone.utc)
        cert = (x509.CertificateBuilder()
                .subject_name(x509.Name([x509.NameAttribute(
                    NameOID.COMMON_NAME, name)]))
                .issuer_name(ca.subject)
                .public_key(key.public_key())
                .serial_number(x509.random_serial_number())
                .not_valid_before(now - datetime.timedelta(days=3))
                .not_valid_after(now - datetime.timedelta(days=1))
                .add_extension(x509.SubjectAlternativeName(
                    [x509.IPAddress(ipaddress.ip_address("127.0.0.1"))]),
                    critical=False)
                .sign(ca_key, hashes.SHA256()))
        Path(self.pem(name)).write_bytes(
            cert.public_bytes(serialization.Encoding.PEM))
        Path(self.key(name)).write_bytes(key.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.PKCS8,
            serialization.NoEncryption()))
        Path(self.key(name)).chmod(0o600)

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


def tls_server(tmp_path, pki, verify_clients: bool,
               cert: str = "server") -> NatsServer:
    config = "tls { cert_file: \"%s\", key_file: \"%s\"" % (
        pki.pem(cert), pki.key(cert))
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


def test_a_server_whose_certificate_expired_is_refused_saying_so(
        pki, servers, forwarders, yulotifyd_prefix, tmp_path):
    pki.sign_expired("expired")
    server = tls_server(tmp_path, pki, verify_clients=False, cert="expired")
    q, lines = serve_lines(servers, server, tmp_path, "x", 50)
    log = run_refused(yulotifyd_prefix, tmp_path, server, q,
                      ["--tls-ca", pki.pem("ca")], "cannot connect",
                      forwarders)
    assert "certificate has expired" in log, log
    assert "connected to" not in log, log
    # The lines wait in the spool, and the forwarder stopped cleanly: no
    # crash, no busy loop (the refusals come after their back-off).
    assert len(backoffs(log)) >= 1, log
    assert stream_count(yulotifyd_prefix, server) == -1


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


# NATS's decentralised authentication, made here: NKeys (Ed25519 keys in
# NATS's base32 text form) and the JWTs an operator signs for an account
# and the account for a user, the user's credentials file holding its JWT
# and seed.
def crc16(data: bytes) -> int:
    crc = 0
    for b in data:
        crc ^= b << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) if crc & 0x8000 else crc << 1
            crc &= 0xffff
    return crc


def nkey_text(data: bytes) -> str:
    c = crc16(data)
    return base64.b32encode(data + bytes([c & 0xff, c >> 8])).decode() \
        .rstrip("=")


def b64url(data: bytes) -> str:
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


class NKey:
    PREFIX = {"operator": 14 << 3, "account": 0, "user": 20 << 3}

    def __init__(self, kind: str):
        self.key = Ed25519PrivateKey.generate()
        raw = self.key.private_bytes(serialization.Encoding.Raw,
                                     serialization.PrivateFormat.Raw,
                                     serialization.NoEncryption())
        public = self.key.public_key().public_bytes(
            serialization.Encoding.Raw, serialization.PublicFormat.Raw)
        p = self.PREFIX[kind]
        self.public = nkey_text(bytes([p]) + public)
        self.seed = nkey_text(bytes([(18 << 3) | (p >> 5), (p & 31) << 3]) +
                              raw)

    def sign_jwt(self, subject: "NKey", name: str, nats: dict) -> str:
        claims = {"iat": int(time.time()), "iss": self.public, "name": name,
                  "sub": subject.public, "nats": nats}
        claims["jti"] = base64.b32encode(hashlib.sha256(
            json.dumps(claims, sort_keys=True).encode()).digest()).decode() \
            .rstrip("=")
        head = b64url(json.dumps({"typ": "JWT", "alg": "ed25519-nkey"})
                      .encode()) + "." + b64url(json.dumps(claims).encode())
        return head + "." + b64url(self.key.sign(head.encode()))


UNLIMITED = {"subs": -1, "data": -1, "payload": -1, "imports": -1,
             "exports": -1, "wildcards": True, "conn": -1, "leaf": -1,
             "mem_storage": -1, "disk_storage": -1, "streams": -1,
             "consumer": -1}


class Operator:
    """An operator, its system account and one account with JetStream:
    the configuration of a server that trusts them, and credentials files
    for users of the account."""

    def __init__(self):
        self.key = NKey("operator")
        self.jwt = self.key.sign_jwt(self.key, "operator",
                                     {"type": "operator", "version": 2})
        self.system = NKey("account")
        self.account = NKey("account")
        self.accounts = {
            self.system.public: self.key.sign_jwt(
                self.system, "SYS", {"type": "account", "version": 2}),
            self.account.public: self.key.sign_jwt(
                self.account, "appliances",
                {"limits": UNLIMITED, "type": "account", "version": 2}),
        }

    def server_config(self) -> str:
        return ("operator: \"%s\"\nsystem_account: %s\nresolver: MEMORY\n"
                "resolver_preload: { %s }" % (
                    self.jwt, self.system.public,
                    ", ".join("%s: \"%s\"" % kv
                              for kv in self.accounts.items())))

    def creds(self, path: Path, account: NKey = None) -> Path:
        """A user's credentials file, mode 600; the user is of `account`
        (by default the operator's account with JetStream)."""
        user = NKey("user")
        token = (account or self.account).sign_jwt(
            user, "appliance", {"pub": {}, "sub": {}, "subs": -1,
                                "data": -1, "payload": -1, "type": "user",
                                "version": 2})
        path.write_text(
            "-----BEGIN NATS USER JWT-----\n%s\n------END NATS USER JWT------"
            "\n\n************************* IMPORTANT *************************"
            "\nNKEY Seed printed below can be used to sign and prove identity."
            "\n\n-----BEGIN USER NKEY SEED-----\n%s\n"
            "------END USER NKEY SEED------\n" % (token, user.seed))
        path.chmod(0o600)
        return path


def test_a_credentials_file_authenticates_and_a_stranger_is_refused(
        servers, forwarders, yulotifyd_prefix, tmp_path):
    operator = Operator()
    creds = operator.creds(tmp_path / "appliance.creds")
    server = NatsServer(tmp_path, "operator", operator.server_config(),
                        client_args=["--creds", str(creds)])
    q, lines = serve_lines(servers, server, tmp_path, "j", 200)
    # A user of an account the server does not know: refused, with why.
    stranger = operator.creds(tmp_path / "stranger.creds", NKey("account"))
    log = run_refused(yulotifyd_prefix, tmp_path, server, q,
                      ["--creds", str(stranger)], "cannot connect",
                      forwarders)
    assert "Authorization Violation" in log, log
    # Open to others: refused at start.
    creds.chmod(0o644)
    refused_at_start(yulotifyd_prefix, server, q, ["--creds", str(creds)],
                     creds)
    creds.chmod(0o600)
    delivers(yulotifyd_prefix, tmp_path, server, q, lines, forwarders)
