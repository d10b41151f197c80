"""What a local user controls cannot widen what they see, keep the daemon
busy, or forge log lines and drive the admin's terminal, end to end.

A user's subscription in user.d sees only what its owner could: a monitor
on a directory the owner cannot list is dropped, access/open/close_nowrite
are left out. Writing user.d in a loop costs about one reload a second.
Names with control characters are escaped in syslog and in `yulotifyctl
queues`. The user is played with setpriv inside the daemon's namespace
(Appliance.run_as), writing into a user.d open to everybody (mode 1777).
"""

import json
import os
import re
import time

from control_util import LINE, ctl_binary, send  # noqa: F401 (fixture)
from harness import monitor, wait_lines, wait_until
from test_access import configure as access_configure, prepare_users

NOBODY = 65534
NOGROUP = 65534
USER_D = "/usr/yulo/etc/yulotifyd/user.d"
LOADED = LINE + r"loaded \d+ monitor queues from "


# nobody's own directory, off every share (made by prepare_users).
NOBODYS = "/vol1/users/nobody"


def configure(app):
    """test_access's volume, share Public, /vol1/users and root queue for
    creations in Public; user.d open to all, as /tmp is."""
    root_q = access_configure(app)
    app.conf_dir("user").mkdir(parents=True, exist_ok=True)
    os.chmod(app.conf_dir("user"), 0o1777)
    return root_q


def prepare(app):
    """In the namespace: nobody's directory (test_access's users), and
    /vol1/Public/private, root's, mode 0700."""
    prepare_users(app)
    private = app.ns_path("/vol1/Public/private")
    private.mkdir(mode=0o700)
    os.chmod(private, 0o700)
    (private / "secret.txt").write_text("root's\n")


def write_as_nobody(app, path, text):
    """Writes `text` into `path` (a path in the namespace) as nobody."""
    app.run_as(["sh", "-c", 'cat > "$1"', "sh", path], uid=NOBODY,
               gid=NOGROUP, check=True, input=text.encode())


def test_user_subscription_sees_only_what_its_owner_could(appliance,
                                                          ctl_binary):
    app = appliance
    root_q = configure(app)
    app.start(before_exec=prepare)
    app.wait_ready()
    user_q = NOBODYS + "/nobody.queue"
    conf = USER_D + "/nobody.json"
    write_as_nobody(app, conf, json.dumps({"queue": user_q, "monitors": [
        monitor("Public", dir="private", events=["create"]),
        monitor("Public", events=["access", "open", "close_nowrite",
                                  "create"]),
    ]}))
    app.wait_log(re.escape(conf) + r": monitors\[0\] skipped: its owner, "
                 r"uid 65534, cannot list /vol1/Public/private: "
                 r"Permission denied$")
    app.wait_log(re.escape(conf) + r": monitors\[1\]: access, open and "
                 r"close_nowrite left out: subscriptions in user\.d do not "
                 r"get them$")

    # Reads in Public and in private, then a creation in each.
    private = app.ns_path("/vol1/Public/private")
    assert (private / "secret.txt").read_text() == "root's\n"
    (app.ns_path("/vol1/Public") / "seen.txt").write_text("x")
    assert (app.ns_path("/vol1/Public") / "seen.txt").read_text() == "x"
    (private / "hidden.txt").write_text("y")
    (app.ns_path("/vol1/Public") / "last").write_text("z")
    wait_lines(app, root_q, lambda ls: any(l["path"] == "/vol1/Public/last"
                                           for l in ls))
    queue = app.ns_path(user_q)
    lines = wait_lines(app, queue, lambda ls: any(
        l["path"] == "/vol1/Public/last" for l in ls))
    # Creations only: none of the reads.
    assert {l["event"] for l in lines} == {64}, lines
    assert os.stat(queue).st_uid == NOBODY

    r = app.run_in_ns([str(ctl_binary), "queues"])
    out = r.stdout.decode()
    assert (conf + "\n  queue %s, written as uid 65534 gid 65534\n"
            % user_q) in out, out
    assert ("  monitors[0] skipped: its owner, uid 65534, cannot list "
            "/vol1/Public/private: Permission denied\n") in out, out
    assert ("events 64 (create): watches /vol1/Public (access, open and "
            "close_nowrite left out: subscriptions in user.d do not get "
            "them)\n") in out, out


def test_writes_in_a_loop_reload_about_once_a_second(appliance):
    app = appliance
    root_q = configure(app)
    app.start(before_exec=prepare)
    app.wait_ready()
    # Reloads are counted by their line at info level.
    assert send(app, "set_log_level", {"log_level": "info"}) == 0
    before = app.count_logs(LOADED)
    conf = USER_D + "/loop.json"
    text = json.dumps({"queue": NOBODYS + "/loop.queue",
                       "monitors": [monitor("Public", events=["create"])]})
    started = time.monotonic()
    # 1000 rewrites, spread over a few seconds.
    app.run_as(["sh", "-c",
                'i=0; while [ $i -lt 1000 ]; do printf "%s" "$1" > "$2"; '
                'i=$((i + 1)); [ $((i % 100)) -eq 0 ] && sleep 0.3; done',
                "sh", text, conf], uid=NOBODY, gid=NOGROUP, check=True,
               timeout=60)
    # Lines to other queues keep flowing meanwhile.
    (app.ns_path("/vol1/Public") / "during").write_text("x")
    wait_lines(app, root_q, lambda ls: any(l["path"] == "/vol1/Public/during"
                                           for l in ls))
    elapsed = time.monotonic() - started
    # The last change is loaded within a second or so.
    wait_until(lambda: app.count_logs(LOADED) > before, 5)
    time.sleep(1.5)
    reloads = app.count_logs(LOADED) - before
    assert 1 <= reloads <= elapsed + 2, (reloads, elapsed)
    app.assert_running()


def test_names_with_control_characters_are_escaped(appliance, ctl_binary):
    app = appliance
    configure(app)
    name = "bad\nmonitor_queue:1 forged line\x1b[31m.json"
    app.write_queue_file("user", name, "not json")
    app.start()
    app.wait_ready()
    escaped = "bad\\x0amonitor_queue:1 forged line\\x1b[31m.json"
    app.wait_log(r"skipped monitor queue file " + re.escape(USER_D + "/" +
                                                            escaped) +
                 r": not valid JSON$")
    # One line, and nothing a terminal would act on, in any line.
    assert app.find_logs(r"^monitor_queue:1 forged") == []
    for record in app.log_records:
        assert "\n" not in record.message and "\x1b" not in record.message, \
            record.raw

    r = app.run_in_ns([str(ctl_binary), "queues"])
    out = r.stdout.decode()
    assert USER_D + "/" + escaped + "\n  skipped: not valid JSON\n" in out, out
    assert "\x1b" not in out and "\nmonitor_queue:1" not in out
    # --json keeps the raw name, escaped as JSON.
    r = app.run_in_ns([str(ctl_binary), "queues", "--json"])
    files = [f["file"] for f in json.loads(r.stdout.decode())["files"]]
    assert USER_D + "/" + name in files
    assert b"\x1b" not in r.stdout
