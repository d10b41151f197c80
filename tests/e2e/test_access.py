"""Who may drive the daemon, and where a subscription may make it write,
end to end.

The control socket serves root and the members of its group only; anybody
else cannot connect, or, if the socket's mode lets them, gets -1 without
the daemon reading a byte of the request. A monitor-queue file writes only
where its owner could, and files that others could change are refused.

Other users are played with setpriv inside the daemon's namespace
(Appliance.run_as). The socket group exists only in the namespace's own
/etc/group (Appliance(socket_gid=...)), so the host is never changed.
"""

import json
import os
import signal
import stat
import struct
import time

import pytest

from control_util import LINE, command, ctl_as, frame, new_logs, send, send_as
from harness import LINE_TIMEOUT, monitor, wait_lines, wait_until

NOBODY = 65534
NOGROUP = 65534
# Lines are written by each volume's processor every 3 seconds.
# Lets syslog datagrams already sent reach the harness.
SETTLE = 0.5
# The daemon waits this long for a request that does not come.
CLIENT_TIMEOUT = 5.0

REFUSED = LINE + r"Refused command from uid=65534, pid=(\d+)$"
UNSAFE = LINE + r"Unsafe monitor queue file: %s$"
MINUS_ONE = struct.pack("=i", -1)

# A file there before the daemon watches: no kernel event names it, so a
# line for it comes only from an injected "notify".
INJECTED = "/vol1/Public/injected"

# One of each command, each of which would change something if carried out.
COMMANDS = [
    ("set_log_level", {"log_level": "debug"}),
    ("notify", {"event": 64, "path": INJECTED}),
    ("mount_share", {"share_name": "Public"}),
    ("umount_share", {"share_name": "Public"}),
    ("mount_volume", {"mount_point": "/vol2"}),
    ("umount_volume", {"mount_point": "/vol1"}),
    ("no_such_command", {}),
]


def free_gid():
    """A group id the host does not use."""
    used = set()
    with open("/etc/group") as f:
        for line in f:
            fields = line.split(":")
            if len(fields) > 2 and fields[2].isdigit():
                used.add(int(fields[2]))
    gid = 47100
    while gid in used:
        gid += 1
    return gid


SOCKET_GID = free_gid()


def configure(app):
    """Volume 1 at /vol1 with share Public and a root-owned queue on it;
    /vol1/users (root, 0755) holds users' directories, off every share."""
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    app.dirs.append("/vol1/users")
    q = app.queue_path("root.queue")
    app.add_queue("system", "10-root.json", q,
                  [monitor("Public", events=["create"])])
    return q




def create_and_wait(app, queue, name):
    """Creates /vol1/Public/<name> and waits for its line in `queue`: the
    volume is watched and its processor has run a pass."""
    (app.ns_path("/vol1/Public") / name).write_text(name)
    path = "/vol1/Public/" + name
    wait_lines(app, queue, lambda ls: any(l.get("path") == path for l in ls))


def assert_clean_exit(app):
    if app.running:
        app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0, app.diagnostics()
    stderr = app.stderr_path.read_bytes()
    assert stderr == b"", stderr[:3000].decode(errors="replace")


@pytest.fixture
def grouped(make_appliance):
    """A running appliance whose socket group exists (id SOCKET_GID)."""
    app = make_appliance(socket_gid=SOCKET_GID)
    app.root_queue = configure(app)
    app.start(before_exec=lambda a: a.ns_path(INJECTED).write_text("x"))
    app.wait_ready()
    yield app
    assert_clean_exit(app)


def open_socket_to_everybody(app):
    """As if somebody had loosened the socket's mode: every user may
    connect, and only the daemon's own check stands in the way."""
    os.chmod(app.socket_path, 0o666)


# ----------------------------------------------------------------------
# The control socket.


def test_socket_belongs_to_its_group(grouped):
    st = os.stat(grouped.socket_path)
    assert stat.S_ISSOCK(st.st_mode)
    assert stat.S_IMODE(st.st_mode) == 0o660, oct(st.st_mode)
    assert (st.st_uid, st.st_gid) == (0, SOCKET_GID)


def test_nobody_cannot_connect_and_the_volume_stays_watched(grouped):
    app = grouped
    error, data = send_as(app, frame(command("umount_volume",
                                             {"mount_point": "/vol1"})))
    assert error == 13, (error, data)  # EACCES
    create_and_wait(app, app.root_queue, "after")


def test_nobody_gets_minus_one_for_every_command_unread(grouped):
    app = grouped
    open_socket_to_everybody(app)
    # From now on every command that is read is logged ("Got command").
    assert send(app, "set_log_level", {"log_level": "info"}) == 0
    before = len(app.logs)
    for type_, data in COMMANDS:
        error, reply = send_as(app, frame(command(type_, data)))
        assert error is None
        assert reply == MINUS_ONE, (type_, reply)
    app.wait_log(REFUSED, count=len(COMMANDS))
    time.sleep(SETTLE)
    lines = new_logs(app, before)
    assert len(new_logs(app, before, REFUSED)) == len(COMMANDS), lines
    # Nothing of any request was read or carried out.
    assert new_logs(app, before, r"Got command|Unknown command|Malformed|"
                                 r"Receive command") == [], lines
    # The level is still info: a debug-only line does not appear.
    before = len(app.logs)
    assert send(app, "umount_volume", {"mount_point": "/nowhere"}) == 0
    app.wait_log(LINE + r"Got command: .*/nowhere")
    time.sleep(SETTLE)
    assert new_logs(app, before, r"Replying socket") == []
    # Volume and share are still watched, and the injected event never
    # came.
    create_and_wait(app, app.root_queue, "after")
    assert all(l["path"] != INJECTED for l in app.read_queue(app.root_queue))


def test_refused_peer_cannot_stall_the_daemon(grouped):
    app = grouped
    open_socket_to_everybody(app)
    # A caller that connects and sends nothing is answered at once, not
    # after the time the daemon grants a request to arrive.
    started = time.monotonic()
    error, reply = send_as(app, b"")
    elapsed = time.monotonic() - started
    assert error is None and reply == MINUS_ONE
    assert elapsed < CLIENT_TIMEOUT - 2, elapsed
    # Likewise a caller that announces a big request and stops there.
    started = time.monotonic()
    error, reply = send_as(app, struct.pack("=Q", 1000))
    assert reply == MINUS_ONE
    assert time.monotonic() - started < CLIENT_TIMEOUT - 2
    app.wait_log(REFUSED, count=2)
    assert send(app, "umount_volume", {"mount_point": "/nowhere"}) == 0


def test_members_of_the_group_are_served(grouped):
    app = grouped
    # As a supplementary group...
    error, reply = send_as(app, frame(command("set_log_level",
                                              {"log_level": "info"})),
                           groups=[SOCKET_GID])
    assert (error, reply) == (None, struct.pack("=i", 0))
    # ...and as the primary group.
    error, reply = send_as(app, frame(command(
        "notify", {"event": 64, "path": INJECTED})), gid=SOCKET_GID)
    assert (error, reply) == (None, struct.pack("=i", 0))
    # The level the first one set is in force, and the event was injected.
    app.wait_log(LINE + r"Got command: .*notify")
    wait_lines(app, app.root_queue,
               lambda ls: any(l["path"] == INJECTED for l in ls))
    assert app.count_logs(REFUSED) == 0


def test_yulotifyctl_tells_nobody_why(grouped):
    app = grouped
    message = ("yulotifyctl: permission denied: run as root or as a member "
               "of group %s\n" % app.socket_group)
    # The socket's mode keeps nobody out...
    result = ctl_as(app, "umount-volume", "/vol1")
    assert (result.returncode, result.err) == (3, message), result.err
    # ...and where it does not, the daemon does.
    open_socket_to_everybody(app)
    result = ctl_as(app, "umount-volume", "/vol1")
    assert (result.returncode, result.err) == (3, message), result.err
    app.wait_log(REFUSED)
    # A member is served.
    result = ctl_as(app, "set-log-level", "info", groups=[SOCKET_GID])
    assert (result.returncode, result.err) == (0, ""), result.err
    create_and_wait(app, app.root_queue, "after")


def test_without_its_group_the_socket_is_for_root(make_appliance):
    app = make_appliance()
    q = configure(app)
    app.start()
    app.wait_ready()
    st = os.stat(app.socket_path)
    assert stat.S_IMODE(st.st_mode) == 0o600 and st.st_gid == 0
    result = ctl_as(app, "set-log-level", "info", groups=[SOCKET_GID])
    assert result.returncode == 3
    assert result.err == ("yulotifyctl: permission denied: run as root or as "
                          "a member of group %s\n" % app.socket_group)
    assert send(app, "set_log_level", {"log_level": "info"}) == 0
    create_and_wait(app, q, "after")
    assert_clean_exit(app)


# ----------------------------------------------------------------------
# Monitor-queue files others could change.


def write_with_mode(path, content, mode):
    """Writes a file that has `mode` already when it is closed (the close
    is what makes a running daemon reload)."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    try:
        os.fchmod(fd, mode)
        os.write(fd, json.dumps(content).encode())
    finally:
        os.close(fd)


def conf_path_in_ns(queue_type, name):
    return "/usr/yulo/etc/yulotifyd/%s.d/%s" % (queue_type, name)


def test_group_or_other_writable_files_are_refused(appliance):
    app = appliance
    root_q = configure(app)
    group_q = app.queue_path("group.queue")
    other_q = app.queue_path("other.queue")
    write_with_mode(app.conf_dir("user") / "group.json",
                    {"queue": str(group_q), "monitors": [monitor("Public")]},
                    0o664)
    write_with_mode(app.conf_dir("user") / "other.json",
                    {"queue": str(other_q), "monitors": [monitor("Public")]},
                    0o646)
    app.start()
    app.wait_ready()
    for name in ("group.json", "other.json"):
        app.wait_log(UNSAFE % conf_path_in_ns("user", name).replace(".", r"\."))
    create_and_wait(app, root_q, "a")
    assert not group_q.exists() and not other_q.exists()

    # Written while the daemon runs: refused at the reload just the same.
    late_q = app.queue_path("late.queue")
    write_with_mode(app.conf_dir("app") / "late.json",
                    {"queue": str(late_q), "monitors": [monitor("Public")]},
                    0o660)
    app.wait_log(UNSAFE % r"/usr/yulo/etc/yulotifyd/app\.d/late\.json")
    create_and_wait(app, root_q, "b")
    assert not late_q.exists()
    assert_clean_exit(app)


def test_directory_writable_by_others_needs_the_sticky_bit(appliance):
    app = appliance
    root_q = configure(app)
    user_q = app.queue_path("user.queue")
    app.add_queue("user", "u.json", user_q, [monitor("Public")])
    os.chmod(app.conf_dir("user"), 0o777)
    app.start()
    app.wait_ready()
    app.wait_log(UNSAFE % r"/usr/yulo/etc/yulotifyd/user\.d/u\.json")
    create_and_wait(app, root_q, "a")
    assert not user_q.exists()

    # Like /tmp: fine. Rewriting the file reloads.
    os.chmod(app.conf_dir("user"), 0o1777)
    app.add_queue("user", "u.json", user_q, [monitor("Public")])
    create_and_wait(app, root_q, "b")
    wait_lines(app, user_q, lambda ls: any(l["path"] == "/vol1/Public/b"
                                           for l in ls))
    assert app.count_logs(UNSAFE % ".*") == 1
    assert_clean_exit(app)


def test_user_d_made_as_a_crontab_spool_takes_a_users_own_file(appliance):
    # Mode 1733, as the package makes user.d: a user adds a file of their
    # own, cannot list the others', and the daemon loads the file and
    # writes its queue file with that user's rights.
    app = appliance
    root_q = configure(app)
    os.chmod(app.conf_dir("user"), 0o1733)
    app.start()
    app.wait_ready()
    prepare_users(app)
    user_d = "/usr/yulo/etc/yulotifyd/user.d"
    conf = {"queue": "/vol1/users/nobody/events.queue",
            "monitors": [monitor("Public")]}
    wrote = app.run_as(["sh", "-c", "umask 022 && cat > %s/nobody.json" %
                        user_d], input=json.dumps(conf).encode())
    assert wrote.returncode == 0, wrote.stderr
    assert app.run_as(["ls", user_d]).returncode != 0

    create_and_wait(app, root_q, "a")
    wait_nobodys_line(app, "/vol1/users/nobody/events.queue", "a")
    assert app.count_logs(UNSAFE % ".*") == 0
    assert_clean_exit(app)


# ----------------------------------------------------------------------
# Queue files written with their subscription owner's rights.


def give_to_nobody(path, mode=0o644):
    os.chown(path, NOBODY, NOGROUP)
    os.chmod(path, mode)


def wait_nobodys_line(app, queue, name):
    """Waits for the line of /vol1/Public/<name> in `queue` (a path in the
    namespace), which must be a file of nobody's."""
    path = app.ns_path(queue)
    wait_lines(app, path, lambda ls: any(l["path"] == "/vol1/Public/" + name
                                         for l in ls))
    st = os.stat(path)
    assert (st.st_uid, st.st_gid) == (NOBODY, NOGROUP)


def prepare_users(app):
    """In the namespace: /vol1/users/nobody, nobody's own directory, and
    /vol1/users/root-file, a root-owned 0644 file."""
    users = app.ns_path("/vol1/users")
    (users / "nobody").mkdir(mode=0o755)
    os.chown(users / "nobody", NOBODY, NOGROUP)
    (users / "root-file").write_text("root's own\n")
    os.chmod(users / "root-file", 0o644)


def test_nobody_cannot_make_the_daemon_write_roots_file(appliance):
    app = appliance
    root_q = configure(app)
    conf = app.add_queue("user", "nobody.json", "/vol1/users/root-file",
                         [monitor("Public")])
    give_to_nobody(conf)
    app.start(before_exec=prepare_users)
    app.wait_ready()
    # Two passes of the processor with changes nobody's queue wants.
    create_and_wait(app, root_q, "a")
    create_and_wait(app, root_q, "b")
    time.sleep(SETTLE)
    assert (app.ns_path("/vol1/users/root-file").read_text()
            == "root's own\n")
    assert app.count_logs(r"/vol1/users/root-file") == 1, app.logs
    assert_clean_exit(app)


def test_nobodys_queue_in_nobodys_directory_belongs_to_nobody(appliance):
    app = appliance
    root_q = configure(app)
    conf = app.add_queue("user", "nobody.json", "/vol1/users/nobody/q.queue",
                         [monitor("Public", events=["create"])])
    give_to_nobody(conf)
    app.start(before_exec=prepare_users)
    app.wait_ready()
    create_and_wait(app, root_q, "a")
    wait_nobodys_line(app, "/vol1/users/nobody/q.queue", "a")
    assert_clean_exit(app)


def test_queue_path_that_is_a_symbolic_link_is_refused(appliance):
    app = appliance
    root_q = configure(app)
    # Root's own subscription: even root's queue file is never reached
    # through a symbolic link as its last component.
    app.add_queue("system", "20-link.json", "/vol1/users/link.queue",
                  [monitor("Public", events=["create"])])

    def prepare(app):
        prepare_users(app)
        os.symlink("/vol1/users/root-file",
                   app.ns_path("/vol1/users/link.queue"))

    app.start(before_exec=prepare)
    app.wait_ready()
    create_and_wait(app, root_q, "a")
    create_and_wait(app, root_q, "b")
    time.sleep(SETTLE)
    link = app.ns_path("/vol1/users/link.queue")
    assert os.path.islink(link)
    assert (app.ns_path("/vol1/users/root-file").read_text()
            == "root's own\n")
    assert app.count_logs(r"/vol1/users/link\.queue") >= 1, app.logs
    assert_clean_exit(app)
