"""Talking to the daemon's control socket from the end-to-end tests: the
request framing, one-command exchanges, and running the installed
yulotifyctl. Shared by test_control.py and test_control_pipeline.py."""

import json
import os
import re
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path

import pytest

from harness import SOCKET_PATH

# Every daemon log line starts with "<source file>:<line> ".
LINE = r"^\w+:\d+ "


def frame(text, nul=True, length=None):
    """A request: 8-byte host-order length, the text, its zero byte."""
    body = text.encode() if isinstance(text, str) else text
    if nul:
        body += b"\0"
    if length is None:
        length = len(body)
    return struct.pack("=Q", length) + body


def command(type_, data):
    return json.dumps({"type": type_, "data": data})


def connect(app, timeout=10.0):
    """A connection to the daemon. With a time-out set, Python's connect is
    non-blocking underneath: a full listen backlog (the daemon serves 16
    clients at a time) gives EAGAIN at once, so that is retried."""
    deadline = time.monotonic() + timeout
    while True:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        try:
            s.connect(str(app.socket_path))
            return s
        except BlockingIOError:
            s.close()
            if time.monotonic() >= deadline:
                raise
            time.sleep(0.01)


def read_to_eof(s):
    data = b""
    while True:
        try:
            chunk = s.recv(4096)
        except ConnectionResetError:
            break
        if not chunk:
            break
        data += chunk
    return data


def exchange(app, payload, timeout=10.0):
    """Sends `payload` on a fresh connection; returns every byte the daemon
    sent back before closing."""
    with connect(app, timeout) as s:
        s.sendall(payload)
        return read_to_eof(s)


def reply_of(data):
    assert len(data) == 4, "expected a 4-byte reply, got %r" % data
    return struct.unpack("=i", data)[0]


def send(app, type_, data, timeout=10.0):
    """One well-formed command; returns the daemon's reply."""
    return reply_of(exchange(app, frame(command(type_, data)), timeout))


def new_logs(app, before, pattern=None):
    """Log lines after the first `before` ones (matching `pattern`)."""
    lines = app.logs[before:]
    if pattern is None:
        return lines
    rx = re.compile(pattern)
    return [m for m in lines if rx.search(m)]


@pytest.fixture(scope="session")
def ctl_binary(yulotifyd_prefix):
    """The installed yulotifyctl of the prefix under test."""
    path = Path(yulotifyd_prefix) / "bin" / "yulotifyctl"
    if not (path.is_file() and os.access(path, os.X_OK)):
        pytest.fail("%s is missing: build and install the tools too "
                    "(cmake --install BUILD --prefix %s)"
                    % (path, yulotifyd_prefix), pytrace=False)
    return path


def run_ctl(ctl_binary, *args, socket_path=None, timeout=30, check=None):
    """Runs yulotifyctl; `check` is the exit status it must end with."""
    argv = [str(ctl_binary)]
    if socket_path is not None:
        argv += ["--socket", str(socket_path)]
    argv += [str(a) for a in args]
    result = subprocess.run(argv, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, timeout=timeout)
    result.out = result.stdout.decode()
    result.err = result.stderr.decode()
    if check is not None:
        assert result.returncode == check, \
            "%r exited %d (wanted %d)\nstdout: %s\nstderr: %s" % (
                argv, result.returncode, check, result.out, result.err)
    return result


# Run in the namespace by send_as: one exchange on the control socket,
# reported as JSON on stdout.
_CLIENT = r"""
import json, socket, sys
path, payload = sys.argv[1], bytes.fromhex(sys.argv[2])
out = {"connect_error": None, "data": ""}
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.settimeout(10)
try:
    s.connect(path)
except OSError as e:
    out["connect_error"] = e.errno
else:
    try:
        if payload:
            s.sendall(payload)
    except OSError:
        pass
    data = b""
    while True:
        try:
            chunk = s.recv(4096)
        except OSError:
            break
        if not chunk:
            break
        data += chunk
    out["data"] = data.hex()
print(json.dumps(out))
"""


def send_as(app, payload, uid=65534, gid=65534, groups=None):
    """Sends `payload` on a fresh connection as another user (in the
    daemon's namespace); returns (connect errno or None, bytes received
    before the daemon closed)."""
    result = app.run_as([sys.executable, "-c", _CLIENT, SOCKET_PATH,
                         payload.hex()], uid=uid, gid=gid,
                        groups=groups, check=True)
    out = json.loads(result.stdout.decode())
    return out["connect_error"], bytes.fromhex(out["data"])


def ctl_as(app, *args, uid=65534, gid=65534, groups=None):
    """Runs the installed yulotifyctl in the namespace as another user."""
    ctl = app.ns_prefix() + "/bin/yulotifyctl"
    result = app.run_as([ctl] + [str(a) for a in args], uid=uid, gid=gid,
                        groups=groups)
    result.out = result.stdout.decode()
    result.err = result.stderr.decode()
    return result
