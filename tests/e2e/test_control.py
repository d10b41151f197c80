"""The control socket, yulotifyctl and the queue consumer, end to end.

Commands go to the daemon over its real socket (raw bytes from Python where
the bytes themselves are the point, yulotifyctl elsewhere); the daemon's
answers, its syslog lines and its health afterwards are checked.

Nothing here depends on a volume manager existing: shares and volumes are
chosen so that every answer is the same whether or not the per-volume
pipeline runs (a share on a listed but unmounted volume, unknown mount
points, a USB volume mounted after start).
"""

import fcntl
import json
import os
import re
import signal
import socket
import stat
import struct
import subprocess
import threading
import time
from pathlib import Path

import pytest

from control_util import (LINE, command, connect, exchange, frame, new_logs,
                          read_to_eof, reply_of, run_ctl, send)
from control_util import ctl_binary  # noqa: F401  (a pytest fixture)
from harness import monitor, wait_until

# The longest body the daemon reads.
MAX_BODY = 1024 * 1024
# How long the daemon waits for a whole request.
CLIENT_TIMEOUT = 1.0
# How many clients it serves at once.
MAX_CLIENTS = 16
# How long to watch for something that must NOT happen.
QUIET_PERIOD = 0.5

FAILED_READ = LINE + r"Failed to read from domain socket, reason=.+$"
BODY_FAILED = LINE + r"Receive command body failed$"
LENGTH_FAILED = LINE + r"Receive command length failed$"


# ----------------------------------------------------------------------
# Helpers.


def send_text(app, text, **kwargs):
    return reply_of(exchange(app, frame(text, **kwargs)))


def settle(app):
    """Lets syslog datagrams already sent reach the harness."""
    time.sleep(QUIET_PERIOD)


def assert_healthy(app):
    """The daemon still runs and answers."""
    app.assert_running()
    assert send(app, "umount_volume", {"mount_point": "/health-check"}) == 0


def open_sockets(app):
    """How many sockets the daemon has open (a connection it forgot to
    close would be one more)."""
    fd_dir = "/proc/%d/fd" % app.pid
    count = 0
    for name in os.listdir(fd_dir):
        try:
            if os.readlink(os.path.join(fd_dir, name)).startswith("socket:"):
                count += 1
        except FileNotFoundError:
            pass
    return count


def configure(app):
    """Volume 1 at /vol1 with share Public, a queue on it; volume 2 listed
    but not mounted, with share Offline; a USB volume 5 not mounted yet."""
    app.add_volume(1, "/vol1")
    app.add_volume(2, "/vol2", mounted=False)
    app.add_volume(5, "/usb1", kind=4, mounted=False)
    app.add_share("Public", "/vol1/Public")
    app.add_share("Offline", "/vol2/Offline", create=False)
    app.add_queue("system", "10-indexer.json", monitors=[monitor("Public")])
    return app


@pytest.fixture
def app(appliance):
    """A running appliance (see configure). Afterwards the daemon must stop
    cleanly and must have written nothing to stderr (where sanitizer builds
    report)."""
    configure(appliance)
    appliance.start()
    appliance.wait_ready()
    yield appliance
    if appliance.running:
        appliance.signal(signal.SIGTERM)
        assert appliance.wait_exit() == 0, appliance.diagnostics()
    stderr = appliance.stderr_path.read_bytes()
    assert stderr == b"", stderr[:4000].decode(errors="replace")


def one_line(text):
    """The text is exactly one line ending in a line feed."""
    assert text.endswith("\n") and text.count("\n") == 1, repr(text)
    return text.rstrip("\n")


# ----------------------------------------------------------------------
# The socket and the wire format.


def test_socket_is_for_root_alone_without_its_group(app):
    # The namespace has no socket group (see test_access.py for one that
    # does).
    st = os.stat(app.socket_path)
    assert stat.S_ISSOCK(st.st_mode)
    assert stat.S_IMODE(st.st_mode) == 0o600, oct(st.st_mode)
    assert (st.st_uid, st.st_gid) == (0, 0)


def test_reply_is_four_bytes_then_the_connection_closes(app):
    data = exchange(app, frame(command("set_log_level", {"log_level": "error"})))
    assert data == struct.pack("=i", 0)
    data = exchange(app, frame(command("no_such_type", {})))
    assert data == struct.pack("=i", -1)


def test_one_command_per_connection(app):
    two = frame(command("set_log_level", {"log_level": "info"})) + \
        frame(command("set_log_level", {"log_level": "debug"}))
    assert reply_of(exchange(app, two)) == 0
    # Only the first was carried out: at info, the next command is logged
    # but its reply is not (that line is debug only).
    before = len(app.logs)
    assert send(app, "umount_volume", {"mount_point": "/x"}) == 0
    app.wait_log(r"Got command: .*umount_volume")
    settle(app)
    assert new_logs(app, before, r"Replying socket") == []


def test_text_ends_at_the_first_zero_byte(app):
    text = command("set_log_level", {"log_level": "error"})
    assert reply_of(exchange(app, frame(text.encode() + b"\0garbage"))) == 0


# ----------------------------------------------------------------------
# set_log_level.


def test_log_level_debug_info_error(app):
    # Start: level 3, nothing but failures.
    before = len(app.logs)
    assert send(app, "set_log_level", {"log_level": "debug"}) == 0
    # The reply line already follows the new level.
    app.wait_log(LINE + r"Replying socket: 0$")
    assert new_logs(app, before, r"Got command") == []

    before = len(app.logs)
    assert send(app, "umount_volume", {"mount_point": "/nowhere"}) == 0
    app.wait_log(LINE + r"Replying socket: 0$", count=2)
    settle(app)
    lines = new_logs(app, before)
    assert any(l.endswith(" HandleDomainSocket") for l in lines), lines
    got = new_logs(app, before, LINE + r"Got command: ")
    assert len(got) == 1, lines
    assert json.loads(got[0].split("Got command: ", 1)[1]) == {
        "type": "umount_volume", "data": {"mount_point": "/nowhere"}}

    assert send(app, "set_log_level", {"log_level": "info"}) == 0
    # That command's own debug line was written before the level changed;
    # let it arrive before counting.
    settle(app)
    before = len(app.logs)
    assert send(app, "mount_share", {"share_name": "Nope"}) == -1
    app.wait_log(r"Got command: .*\"share_name\":\"Nope\"")
    app.wait_log(LINE + r"Cannot get volume manager, share: Nope$")
    settle(app)
    assert new_logs(app, before, r"Replying socket|HandleDomainSocket") == []

    assert send(app, "set_log_level", {"log_level": "error"}) == 0
    settle(app)
    before = len(app.logs)
    assert send(app, "umount_volume", {"mount_point": "/nowhere"}) == 0
    settle(app)
    assert new_logs(app, before) == []


def test_set_log_level_info_then_got_command_lines(app, ctl_binary):
    run_ctl(ctl_binary, "set-log-level", "info",
            socket_path=app.socket_path, check=0)
    run_ctl(ctl_binary, "notify", "create", "/vol1/Public/a",
            socket_path=app.socket_path, check=0)
    run_ctl(ctl_binary, "notify", "move", "/vol1/Public/b", "/vol1/Public/a",
            socket_path=app.socket_path, check=0)
    lines = [app.wait_log(LINE + r"Got command: (.*)$", count=n).group(1)
             for n in (1, 2)]
    assert [json.loads(l) for l in lines] == [
        {"type": "notify",
         "data": {"event": 64, "path": "/vol1/Public/a"}},
        {"type": "notify",
         "data": {"event": 256, "path": "/vol1/Public/b",
                  "path_old": "/vol1/Public/a"}},
    ]
    # Single-line JSON as the daemon re-serialises it.
    assert all(" " not in l for l in lines), lines


@pytest.mark.parametrize("data,shown", [
    ({"log_level": "loud"}, "loud"),
    ({"log_level": "DEBUG"}, "DEBUG"),
    ({}, ""),
    ({"log_level": None}, ""),
    ({"log_level": 7}, "7"),
])
def test_unknown_log_level(app, data, shown):
    assert send(app, "set_log_level", data) == -1
    app.wait_log(LINE + r"Unknown log level: %s$" % shown)
    # Nothing changed: still at error level.
    before = len(app.logs)
    assert send(app, "umount_volume", {"mount_point": "/nowhere"}) == 0
    settle(app)
    assert new_logs(app, before) == []


# ----------------------------------------------------------------------
# Malformed commands and unknown types.


@pytest.mark.parametrize("text", [
    '{"type": "set_log_level", "data": []}',
    '{"type": "set_log_level"}',
    '{"data": {"log_level": "info"}}',
    '{"type": "set_log_level", "data": "info"}',
    '{"type": "set_log_level", "data": null}',
    '["set_log_level", {}]',
    'not json at all',
    '{"type": "set_log_level", "data": {}} trailing',
    '',
])
def test_malformed_command(app, text):
    assert send_text(app, text) == -1
    line = app.wait_log(LINE + r"Malformed command: (.*)$")
    assert line.group(1) == text
    assert_healthy(app)


@pytest.mark.parametrize("type_", ["frobnicate", "Set_Log_Level", ""])
def test_unknown_command_type(app, type_):
    assert send(app, type_, {}) == -1
    app.wait_log(LINE + r"Unknown command type: %s$" % type_)


def test_type_converted_like_a_string(app):
    assert send_text(app, '{"type": 5, "data": {}}') == -1
    app.wait_log(LINE + r"Unknown command type: 5$")
    assert send_text(app, '{"type": null, "data": {}}') == -1
    app.wait_log(LINE + r"Unknown command type: $")


# Members of a type their command cannot use: answered -1 as malformed,
# never the end of the process.
@pytest.mark.parametrize("text", [
    '{"type": {}, "data": {}}',
    '{"type": ["notify"], "data": {}}',
    '{"type": "set_log_level", "data": {"log_level": {}}}',
    '{"type": "set_log_level", "data": {"log_level": ["info"]}}',
    '{"type": "notify", "data": {"event": "64", "path": "/vol1/Public/a"}}',
    '{"type": "notify", "data": {"event": -1, "path": "/vol1/Public/a"}}',
    '{"type": "notify", "data": {"event": 4294967296, "path": "/x"}}',
    '{"type": "notify", "data": {"event": 1e20, "path": "/x"}}',
    '{"type": "notify", "data": {"event": -0.5, "path": "/x"}}',
    '{"type": "notify", "data": {"event": {}, "path": "/x"}}',
    '{"type": "notify", "data": {"event": 64, "path": {}}}',
    '{"type": "notify", "data": {"event": 64, "path": "/x", "path_old": []}}',
    '{"type": "mount_share", "data": {"share_name": {}}}',
    '{"type": "umount_share", "data": {"share_name": [1]}}',
    '{"type": "mount_volume", "data": {"mount_point": {}}}',
    '{"type": "umount_volume", "data": {"mount_point": []}}',
])
def test_member_of_unusable_type_is_malformed(app, text):
    assert send_text(app, text) == -1
    line = app.wait_log(LINE + r"Malformed command: (.*)$")
    assert line.group(1) == text
    assert_healthy(app)


# What JsonCpp converts without complaint is taken as converted.
@pytest.mark.parametrize("text", [
    '{"type": "notify", "data": {"event": 64.0, "path": "/vol1/Public/a"}}',
    '{"type": "notify", "data": {"event": 64.7, "path": "/vol1/Public/a"}}',
    '{"type": "notify", "data": {"event": null, "path": "/vol1/Public/a"}}',
    '{"type": "notify", "data": {"event": true, "path": 5}}',
    '{"type": "notify", "data": {"event": 4294967295, "path": "/x"}}',
    '{"type": "notify", "data": {}}',
])
def test_member_conversions_the_json_library_accepts(app, text):
    assert send_text(app, text) == 0
    settle(app)
    assert app.find_logs(r"Malformed command") == []


def test_deeply_nested_json_is_malformed_not_fatal(app):
    # JsonCpp's reader throws beyond 1000 levels.
    text = "[" * 5000 + "]" * 5000
    assert send_text(app, text) == -1
    app.wait_log(LINE + r"Malformed command: \[\[\[")
    text = '{"type": "x", "data": ' + '{"a":' * 5000 + "1" + "}" * 5000 + "}"
    assert send_text(app, text) == -1
    assert_healthy(app)


# ----------------------------------------------------------------------
# notify, shares and volumes (answers that need no volume manager).


def test_notify_answers_zero(app):
    assert send(app, "notify", {"event": 64, "path": "/vol1/Public/a"}) == 0
    assert send(app, "notify", {"event": 256, "path": "/vol1/Public/b",
                                "path_old": "/vol1/Public/a"}) == 0
    assert send(app, "notify", {"event": 128, "path": "/elsewhere"}) == 0


@pytest.mark.parametrize("type_", ["mount_share", "umount_share"])
@pytest.mark.parametrize("share", ["Nope", "Offline", ""])
def test_share_without_volume_manager(app, type_, share):
    # "Nope" does not exist; "Offline" lies on volume 2, listed but not
    # mounted, which has no manager.
    assert send(app, type_, {"share_name": share}) == -1
    app.wait_log(LINE + r"Cannot get volume manager, share: %s$" % share)


def test_share_name_missing_is_empty(app):
    assert send(app, "mount_share", {}) == -1
    app.wait_log(LINE + r"Cannot get volume manager, share: $")


def test_mount_volume_of_unknown_mount_point(app):
    assert send(app, "mount_volume", {"mount_point": "/nowhere"}) == 0
    app.wait_log(LINE + r"YULOMountVolInfoGet failed, mount_point=/nowhere$")
    # Listed in the table but not mounted: just as unknown.
    assert send(app, "mount_volume", {"mount_point": "/vol2"}) == 0
    app.wait_log(LINE + r"YULOMountVolInfoGet failed, mount_point=/vol2$")
    assert send(app, "mount_volume", {}) == 0
    app.wait_log(LINE + r"YULOMountVolInfoGet failed, mount_point=$")


def test_umount_volume_of_unknown_mount_point_is_silent(app):
    before = len(app.logs)
    for mount_point in ("/nowhere", "/vol2", "/usb1", ""):
        assert send(app, "umount_volume", {"mount_point": mount_point}) == 0
    assert send(app, "umount_volume", {}) == 0
    settle(app)
    assert new_logs(app, before) == []
    app.assert_running()


def test_mount_volume_of_usb_volume_is_skipped(app):
    app.mount_volume("/usb1")
    assert send(app, "mount_volume", {"mount_point": "/usb1"}) == 0
    app.wait_log(LINE + r"skipped mounting usb volume \[/usb1\]$")
    # Still not watched: a second report says the same.
    assert send(app, "mount_volume", {"mount_point": "/usb1"}) == 0
    app.wait_log(LINE + r"skipped mounting usb volume \[/usb1\]$", count=2)


# ----------------------------------------------------------------------
# Broken clients.


def test_length_then_close(app):
    with connect(app) as s:
        s.sendall(struct.pack("=Q", 100))
        s.shutdown(socket.SHUT_WR)
        data = read_to_eof(s)
    # No usable reply: the daemon's -1, at most.
    assert data in (b"", struct.pack("=i", -1))
    app.wait_log(FAILED_READ)
    app.wait_log(BODY_FAILED)
    assert_healthy(app)


def test_part_of_the_length_then_close(app):
    with connect(app) as s:
        s.sendall(b"\x10\x00\x00")
        s.shutdown(socket.SHUT_WR)
        data = read_to_eof(s)
    assert data in (b"", struct.pack("=i", -1))
    app.wait_log(FAILED_READ)
    app.wait_log(LENGTH_FAILED)
    assert_healthy(app)


def test_connect_and_close_at_once(app):
    for _ in range(5):
        connect(app).close()
    app.wait_log(LENGTH_FAILED, count=5)
    assert_healthy(app)


def test_zero_length(app):
    assert reply_of(exchange(app, struct.pack("=Q", 0))) == -1
    app.wait_log(BODY_FAILED)
    assert app.find_logs(r"Failed to read from domain socket") == []


def test_body_without_zero_byte_is_read_as_its_length(app):
    text = command("set_log_level", {"log_level": "info"})
    assert send_text(app, text, nul=False) == 0
    before = len(app.logs)
    # Now at info: the next command shows up.
    assert send_text(app, command("umount_volume", {"mount_point": "/a"}),
                     nul=False) == 0
    app.wait_log(r"Got command: .*umount_volume")
    # A text cut short is not read past its length.
    assert send_text(app, '{"type": "set_log_level", "data"',
                     nul=False) == -1
    app.wait_log(LINE + r'Malformed command: \{"type": "set_log_level", '
                 r'"data"$')
    assert_healthy(app)
    assert new_logs(app, before, r"Failed to read") == []


def test_longest_body_is_accepted(app):
    text = command("set_log_level", {"log_level": "error"})
    body = text.encode() + b"\0" + b" " * (MAX_BODY - len(text) - 1)
    assert len(body) == MAX_BODY
    assert reply_of(exchange(app, frame(body, nul=False))) == 0


@pytest.mark.parametrize("length", [MAX_BODY + 1, 1 << 40, (1 << 64) - 1])
def test_body_longer_than_one_mib_is_refused_unread(app, length):
    with connect(app) as s:
        s.sendall(struct.pack("=Q", length) + b'{"type": "set_log_level"')
        data = read_to_eof(s)
    assert reply_of(data) == -1
    app.wait_log(BODY_FAILED)
    # Refused before reading: no read failed.
    assert app.find_logs(r"Failed to read from domain socket") == []
    assert_healthy(app)


def test_disconnect_before_the_reply(app):
    for i in range(20):
        with connect(app) as s:
            s.sendall(frame(command("umount_volume", {"mount_point": "/x"})))
        # and gone without reading the reply
    for i in range(5):
        s = connect(app)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                     struct.pack("ii", 1, 0))
        s.sendall(frame(command("set_log_level", {"log_level": "error"})))
        s.close()
    assert_healthy(app)


def test_stalled_client_is_dropped_and_the_next_one_served(app):
    stalled = connect(app, timeout=30)
    stalled.sendall(struct.pack("=Q", 100) + b'{"type": ')
    time.sleep(0.2)  # the daemon is now waiting for the rest
    results = {}

    def second_client():
        start = time.monotonic()
        results["reply"] = send(app, "set_log_level", {"log_level": "error"},
                                timeout=30)
        results["waited"] = time.monotonic() - start

    t = threading.Thread(target=second_client)
    t.start()
    start = time.monotonic()
    data = read_to_eof(stalled)
    dropped_after = time.monotonic() - start
    stalled.close()
    t.join(30)
    assert reply_of(data) == -1
    assert CLIENT_TIMEOUT - 1 <= dropped_after + 0.2 <= CLIENT_TIMEOUT + 2, \
        dropped_after
    app.wait_log(FAILED_READ)
    app.wait_log(BODY_FAILED)
    assert results.get("reply") == 0, results
    # The second client did not wait for the first to be dropped.
    assert results["waited"] < CLIENT_TIMEOUT / 2, results
    assert_healthy(app)


def test_trickling_client_gets_no_longer_than_a_stalled_one(app):
    """A byte now and then does not keep the daemon: the whole request has
    to arrive within the time-out."""
    payload = frame(command("set_log_level", {"log_level": "error"}))
    with connect(app, timeout=30) as s:
        start = time.monotonic()
        data = b""
        try:
            for byte in payload:
                s.sendall(bytes([byte]))
                time.sleep(0.5)
                if time.monotonic() - start > CLIENT_TIMEOUT + 5:
                    break
        except (BrokenPipeError, ConnectionResetError):
            pass
        data = read_to_eof(s)
        elapsed = time.monotonic() - start
    assert reply_of(data) == -1
    assert elapsed <= CLIENT_TIMEOUT + 2, elapsed
    app.wait_log(FAILED_READ)
    assert_healthy(app)


def test_two_hundred_commands_back_to_back(app):
    # syslog opens its socket with the first line logged.
    assert send(app, "no_such_type", {}) == -1
    app.wait_log(LINE + r"Unknown command type: no_such_type$")
    sockets = open_sockets(app)
    expected = []
    replies = []
    for i in range(200):
        kind = i % 4
        if kind == 0:
            replies.append(send(app, "set_log_level", {"log_level": "error"}))
            expected.append(0)
        elif kind == 1:
            replies.append(send(app, "umount_volume", {"mount_point": "/x%d" % i}))
            expected.append(0)
        elif kind == 2:
            replies.append(send(app, "notify", {"event": 64,
                                                "path": "/elsewhere/f%d" % i}))
            expected.append(0)
        else:
            replies.append(send(app, "no_such_type", {}))
            expected.append(-1)
    assert replies == expected
    app.wait_log(LINE + r"Unknown command type: no_such_type$", count=51)
    assert_healthy(app)
    assert open_sockets(app) == sockets, "connections left open"
    assert app.count_logs(r"Unknown command type") == 51


# ----------------------------------------------------------------------
# yulotifyctl.


def test_ctl_exit_status_zero(app, ctl_binary):
    for args in (["set-log-level", "error"],
                 ["notify", "create", "/vol1/Public/a"],
                 ["notify", "64", "/vol1/Public/a"],
                 ["notify", "move", "/vol1/Public/b", "/vol1/Public/a"],
                 ["notify", "close_write", "/vol1/Public/b"],
                 ["mount-volume", "/nowhere"],
                 ["umount-volume", "/nowhere"],
                 ["send", command("set_log_level", {"log_level": "error"})]):
        r = run_ctl(ctl_binary, *args, socket_path=app.socket_path, check=0)
        assert r.out == "" and r.err == "", (args, r.out, r.err)
    app.wait_log(LINE + r"YULOMountVolInfoGet failed, mount_point=/nowhere$")


def test_ctl_socket_option_anywhere_and_with_equals(app, ctl_binary):
    run_ctl(ctl_binary, "set-log-level", "error", "--socket",
            app.socket_path, check=0)
    run_ctl(ctl_binary, "--socket=%s" % app.socket_path, "set-log-level",
            "error", check=0)


def test_ctl_exit_status_one(app, ctl_binary):
    r = run_ctl(ctl_binary, "mount-share", "Nope",
                socket_path=app.socket_path, check=1)
    line = one_line(r.err)
    assert line.startswith("yulotifyctl: mount_share failed: yulotifyd "
                           "answered -1"), line
    assert "share" in line
    app.wait_log(LINE + r"Cannot get volume manager, share: Nope$")
    r = run_ctl(ctl_binary, "umount-share", "Offline",
                socket_path=app.socket_path, check=1)
    one_line(r.err)
    r = run_ctl(ctl_binary, "send", '{"type": "x", "data": []}',
                socket_path=app.socket_path, check=1)
    assert "answered -1" in one_line(r.err)
    app.wait_log(LINE + r'Malformed command: \{"type": "x", "data": \[\]\}$')


@pytest.mark.parametrize("args,words", [
    ([], "no command"),
    (["frobnicate"], "unknown command"),
    (["set-log-level"], "LEVEL"),
    (["set-log-level", "loud"], "unknown level"),
    (["set-log-level", "info", "extra"], "LEVEL"),
    (["notify", "create"], "EVENT PATH"),
    (["notify", "explode", "/x"], "unknown event"),
    (["notify", "-5", "/x"], "unknown option"),
    (["notify", "4294967296", "/x"], "unknown event"),
    (["notify", "create", "relative"], "absolute"),
    (["notify", "move", "/x"], "OLD_PATH"),
    (["notify", "create", "/x", "/y"], "OLD_PATH"),
    (["mount-share"], "NAME"),
    (["umount-share", "a", "b"], "NAME"),
    (["mount-volume"], "MOUNT_POINT"),
    (["umount-volume"], "MOUNT_POINT"),
    (["send"], "JSON"),
    (["consume"], "QUEUE_FILE"),
    (["consume", "/tmp/q", "--interval", "0", "--follow"], "--interval"),
    (["consume", "/tmp/q", "--interval", "100"], "--follow"),
    (["queues", "extra"], "no arguments"),
    (["set-log-level", "info", "--bogus"], "unknown option"),
    (["--timeout", "soon", "set-log-level", "info"], "--timeout"),
])
def test_ctl_usage_errors(app, ctl_binary, args, words):
    r = run_ctl(ctl_binary, *args, socket_path=app.socket_path, check=2)
    line = one_line(r.err)
    assert line.startswith("yulotifyctl: "), line
    assert words in line, line
    assert "--help" in line, line
    assert r.out == ""


def test_ctl_unreachable(tmp_path, ctl_binary):
    missing = tmp_path / "missing.sock"
    r = run_ctl(ctl_binary, "set-log-level", "info", socket_path=missing,
                check=3)
    line = one_line(r.err)
    assert line == ("yulotifyctl: cannot connect to %s: No such file or "
                    "directory (is yulotifyd running? --socket PATH names "
                    "another socket)" % missing), line
    # A socket file nobody listens on.
    stale = tmp_path / "stale.sock"
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.bind(str(stale))
    s.close()
    r = run_ctl(ctl_binary, "mount-volume", "/vol1", socket_path=stale,
                check=3)
    assert "Connection refused (is yulotifyd running?" in one_line(r.err)


def test_ctl_unreachable_after_the_daemon_stops(app, ctl_binary):
    app.signal(signal.SIGTERM)
    assert app.wait_exit() == 0
    r = run_ctl(ctl_binary, "set-log-level", "info",
                socket_path=app.socket_path, check=3)
    assert "is yulotifyd running?" in one_line(r.err)


def test_ctl_timeout_when_the_daemon_is_busy(app, ctl_binary):
    # The daemon serves 16 clients at once; the rest, and yulotifyctl
    # behind them, wait in the listen backlog until those are dropped.
    stalled = []
    try:
        for _ in range(MAX_CLIENTS + 4):
            s = connect(app, timeout=30)
            s.sendall(struct.pack("=Q", 100))
            stalled.append(s)
        r = run_ctl(ctl_binary, "--timeout", "300", "set-log-level", "error",
                    socket_path=app.socket_path, check=3)
        line = one_line(r.err)
        assert "no reply" in line and "busy or hung" in line, line
    finally:
        for s in stalled:
            s.close()
    assert_healthy(app)


@pytest.mark.parametrize("sub", [None, "set-log-level", "notify",
                                 "mount-share", "umount-share", "mount-volume",
                                 "umount-volume", "send", "consume", "peek",
                                 "queues", "check"])
def test_ctl_help(ctl_binary, sub):
    forms = [["--help"], ["-h"], ["help"]] if sub is None else \
        [[sub, "--help"], [sub, "-h"], ["help", sub]]
    for args in forms:
        r = run_ctl(ctl_binary, *args, check=0)
        assert r.out.startswith("usage: yulotifyctl"), (args, r.out)
        assert r.err == ""
        if sub is not None:
            assert sub in r.out.splitlines()[0]


# ----------------------------------------------------------------------
# yulotifyctl consume.


def append_locked(path, text):
    """Appends like the daemon: open, exclusive lock, write at the end."""
    fd = os.open(str(path), os.O_RDWR | os.O_CREAT, 0o600)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        os.lseek(fd, 0, os.SEEK_END)
        data = text.encode()
        assert os.write(fd, data) == len(data)
        fcntl.flock(fd, fcntl.LOCK_UN)
    finally:
        os.close(fd)


def queue_line(event, path, **extra):
    obj = {"event": event, "is_dir": False, "path": path}
    obj.update(extra)
    return json.dumps(obj, separators=(",", ":"), sort_keys=True)


def test_consume_takes_every_line(tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    lines = [queue_line(64, "/vol1/Public/a"),
             queue_line(256, "/vol1/Public/b", path_old="/vol1/Public/a"),
             queue_line(128, "/vol1/Public/b")]
    q.write_text("\n".join(lines) + "\n")
    r = run_ctl(ctl_binary, "consume", q, check=0)
    assert r.out.splitlines() == lines
    assert r.err == ""
    assert q.read_text() == ""
    r = run_ctl(ctl_binary, "consume", q, check=0)
    assert r.out == ""


def test_consume_keeps_an_unfinished_line(tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    q.write_text(queue_line(64, "/a") + "\n" + '{"event":12')
    r = run_ctl(ctl_binary, "consume", q, check=0)
    assert r.out.splitlines() == [queue_line(64, "/a")]
    assert q.read_text() == '{"event":12'
    with open(q, "a") as f:
        f.write('8,"is_dir":false,"path":"/b"}\n')
    r = run_ctl(ctl_binary, "consume", q, check=0)
    assert r.out.splitlines() == ['{"event":128,"is_dir":false,"path":"/b"}']
    assert q.read_text() == ""


def test_consume_of_a_missing_file_fails_unless_told_to_wait(
        tmp_path, ctl_binary):
    q = tmp_path / "not-yet.queue"
    for args in ([], ["--follow"]):
        r = run_ctl(ctl_binary, "consume", q, *args, check=1)
        assert r.out == ""
        assert one_line(r.err) == (
            "yulotifyctl: cannot consume %s: no such file (yulotifyd "
            "creates a queue file with its first line; --wait waits for "
            "it)" % q)
    r = run_ctl(ctl_binary, "consume", q, "--wait", check=0)
    assert r.out == "" and r.err == ""
    assert not q.exists(), "the consumer must not create the queue file"


def test_global_options_after_a_local_command(tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    q.write_text(queue_line(64, "/a") + "\n")
    r = run_ctl(ctl_binary, "peek", q, "--socket", tmp_path / "none.sock",
                "--timeout", "100", check=0)
    assert r.out == queue_line(64, "/a") + "\n"
    r = run_ctl(ctl_binary, "consume", "--socket=/nowhere", q, check=0)
    assert r.out == queue_line(64, "/a") + "\n"
    run_ctl(ctl_binary, "queues", "--conf-root", tmp_path, "--socket", "/x",
            check=0)
    run_ctl(ctl_binary, "check", "--conf-root", tmp_path, "--timeout=5",
            check=0)


def test_consume_failures(tmp_path, ctl_binary):
    r = run_ctl(ctl_binary, "consume", tmp_path, check=1)
    line = one_line(r.err)
    assert "Is a directory" in line and "nothing was taken" in line
    q = tmp_path / "locked.queue"
    q.write_text("a\n")
    fd = os.open(str(q), os.O_RDWR)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        r = run_ctl(ctl_binary, "consume", q, "--lock-timeout", "300",
                    check=1)
        assert "locked" in one_line(r.err)
    finally:
        os.close(fd)
    assert q.read_text() == "a\n"


def test_consume_follow_races_a_writer(tmp_path, ctl_binary):
    """A consumer following a file while a writer appends under the same
    lock: every line arrives once, whole and in order."""
    q = tmp_path / "events.queue"
    proc = subprocess.Popen([str(ctl_binary), "consume", str(q), "--follow",
                             "--wait", "--interval", "5"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    chunks = []
    # Read as it comes: a full pipe would stop the consumer.
    reader = threading.Thread(target=lambda: chunks.extend(iter(
        lambda: proc.stdout.read1(65536), b"")))
    reader.start()
    try:
        expected = [queue_line(64, "/vol1/Public/f%04d" % i,
                               pad="x" * (i * 37 % 3000))
                    for i in range(1000)]
        for line in expected:
            append_locked(q, line + "\n")
        assert wait_until(lambda: q.exists() and q.stat().st_size == 0, 20)
        time.sleep(0.2)  # one more round
        proc.send_signal(signal.SIGINT)
        proc.wait(timeout=20)
        reader.join(20)
        err = proc.stderr.read()
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        reader.join(5)
    assert proc.returncode == 0, err
    assert err == b""
    assert b"".join(chunks).decode().splitlines() == expected


def test_consume_follow_stops_on_sigterm(tmp_path, ctl_binary):
    q = tmp_path / "events.queue"
    proc = subprocess.Popen([str(ctl_binary), "consume", str(q), "--follow",
                             "--wait"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        append_locked(q, queue_line(64, "/a") + "\n")
        assert wait_until(lambda: q.exists() and q.stat().st_size == 0, 10)
        proc.send_signal(signal.SIGTERM)
        out, err = proc.communicate(timeout=10)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    assert proc.returncode == 0
    assert out.decode().splitlines() == [queue_line(64, "/a")]


# ----------------------------------------------------------------------
# yulotifyctl queues.


def queues_app(appliance):
    configure(appliance)
    appliance.add_share("Media", "/vol1/Media")
    appliance.add_queue("app", "20-thumbs.json", monitors=[
        monitor("Media", dir="photos", recursive=False, events=["create"]),
        monitor("NoSuchShare"),
        {"share": "Media", "recursive": "yes"},
    ])
    appliance.write_queue_file("user", "zz-bad.json", "not json")
    appliance.write_queue_file("user", "README.txt", "ignored")
    appliance.start()
    appliance.wait_ready()
    return appliance


def test_queues_lists_what_the_daemon_loads(appliance, ctl_binary):
    app = queues_app(appliance)
    r = app.run_in_ns([str(ctl_binary), "queues", "--json"])
    listing = json.loads(r.stdout.decode())
    conf = "/usr/yulo/etc/yulotifyd"
    assert listing["conf_root"] == conf
    assert listing["queues"] == 2
    assert [d["exists"] for d in listing["dirs"]] == [True, True, True]
    files = {f["file"]: f for f in listing["files"]}
    assert sorted(files) == [conf + "/app.d/20-thumbs.json",
                             conf + "/system.d/10-indexer.json",
                             conf + "/user.d/zz-bad.json"]
    # Listed in the order the daemon loads them.
    assert [f["type"] for f in listing["files"]] == ["system", "app", "user"]

    indexer = files[conf + "/system.d/10-indexer.json"]
    assert indexer["loaded"] is True
    assert indexer["queue"] == str(app.queue_path("10-indexer.queue"))
    assert indexer["monitors"] == [{
        "index": 0, "loaded": True, "share": "Public",
        "share_path": "/vol1/Public", "dir": "/", "directory": "/vol1/Public",
        "recursive": True, "events": 1023, "exclude": []}]

    thumbs = files[conf + "/app.d/20-thumbs.json"]
    assert thumbs["loaded"] is True
    m = thumbs["monitors"]
    assert [x["loaded"] for x in m] == [True, False, False]
    assert m[0]["share_path"] == "/vol1/Media"
    assert m[0]["directory"] == "/vol1/Media/photos"
    assert m[0]["recursive"] is False and m[0]["events"] == 64
    assert m[1]["reason"] == 'unknown share "NoSuchShare"'
    assert m[2]["reason"] == '"recursive" is not true or false'

    bad = files[conf + "/user.d/zz-bad.json"]
    assert bad["loaded"] is False and bad["reason"] == "not valid JSON"

    # The daemon skipped the same monitors and files.
    assert app.find_logs(r'monitors\[1\] skipped: unknown share "NoSuchShare"')
    assert app.find_logs(r"skipped monitor queue file .*zz-bad\.json: "
                         r"not valid JSON")


def test_queues_text_output(appliance, ctl_binary):
    app = queues_app(appliance)
    r = app.run_in_ns([str(ctl_binary), "queues"])
    out = r.stdout.decode()
    assert r.stderr == b""
    conf = "/usr/yulo/etc/yulotifyd"
    assert conf + "/system.d/10-indexer.json\n  queue %s\n" % \
        app.queue_path("10-indexer.queue") in out
    assert ('  monitors[0] share "Public" at /vol1/Public, dir "/", '
            'recursive, events 1023 (all): watches /vol1/Public\n') in out
    assert ('  monitors[0] share "Media" at /vol1/Media, dir "photos", '
            'not recursive, events 64 (create): watches '
            '/vol1/Media/photos\n') in out
    assert '  monitors[1] skipped: unknown share "NoSuchShare"\n' in out
    assert conf + "/user.d/zz-bad.json\n  skipped: not valid JSON\n" in out
    assert "README" not in out
    assert out.endswith("2 queues from 3 files under %s\n" % conf)


def test_queues_other_conf_root(tmp_path, ctl_binary):
    (tmp_path / "system.d").mkdir()
    (tmp_path / "system.d" / "a.json").write_text(
        json.dumps({"queue": "relative/path"}))
    r = run_ctl(ctl_binary, "queues", "--conf-root", tmp_path, check=0)
    assert "(%s/app.d does not exist)" % tmp_path in r.out
    assert "  skipped: \"queue\" is not an absolute path\n" in r.out
    assert r.out.endswith("0 queues from 1 file under %s\n" % tmp_path)


# ----------------------------------------------------------------------
# Bash completion.


def complete(prefix, *words):
    """What the installed completion offers for the last of `words`."""
    script = (Path(prefix) / "share" / "bash-completion" / "completions" /
              "yulotifyctl")
    assert script.is_file(), "the completion is not installed at %s" % script
    r = subprocess.run(
        ["bash", "-c", 'source "$0"; COMP_WORDS=("$@"); '
         'COMP_CWORD=$(($# - 1)); _yulotifyctl; '
         'printf "%s\\n" "${COMPREPLY[@]}"', str(script), "yulotifyctl"] +
        list(words), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        check=True, timeout=30)
    assert r.stderr == b""
    return set(r.stdout.decode().split())


def test_bash_completion_knows_every_command_and_option(yulotifyd_prefix,
                                                        ctl_binary):
    usage = run_ctl(ctl_binary, "--help", check=0).out
    commands = set(re.findall(r"^  ([a-z][a-z-]+) ", usage.split(
        "Options:")[0], re.M))
    assert {"consume", "peek", "check", "status", "help"} <= commands
    assert complete(yulotifyd_prefix, "") == commands
    assert complete(yulotifyd_prefix, "c") == {"consume", "check"}
    assert complete(yulotifyd_prefix, "--socket", "/x", "pe") == {"peek"}
    for cmd in commands - {"help"}:
        text = run_ctl(ctl_binary, cmd, "--help", check=0).out
        wanted = set(re.findall(r"--[a-z-]+", text.split("\n\n")[0]))
        wanted |= {"--socket", "--timeout", "--help"}
        assert complete(yulotifyd_prefix, cmd, "--") == wanted, cmd
    assert complete(yulotifyd_prefix, "set-log-level", "") == \
        {"debug", "info", "error"}
    assert complete(yulotifyd_prefix, "help", "qu") == {"queues"}


def test_bash_completion_of_file_names(yulotifyd_prefix, tmp_path):
    (tmp_path / "events.queue").write_text("")
    (tmp_path / "dir").mkdir()
    base = str(tmp_path) + "/"
    assert complete(yulotifyd_prefix, "consume", base + "ev") == \
        {base + "events.queue"}
    assert complete(yulotifyd_prefix, "peek", "--follow", base + "e") == \
        {base + "events.queue"}
    # One QUEUE_FILE only.
    assert complete(yulotifyd_prefix, "consume", base + "events.queue",
                    base + "ev") == set()
    assert complete(yulotifyd_prefix, "check", "--conf-root", base) == \
        {base + "dir"}
