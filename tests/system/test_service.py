"""The installed packages under a real systemd: one container, booted once,
takes the packages as an administrator installs them, then the service is
driven as users and the service manager drive it. The tests run in file
order and build on each other (the volume, the users, the subscriptions);
the last one powers the container off.
"""

import json
import pwd
import shutil

import pytest

from conftest import install
from container import wait_for
from harness import CONF_ROOT, RUN_STATUS_PATH, SOCKET_PATH, monitor

VOLUME = "/srv/vol1"
SHARE = VOLUME + "/Public"
QUEUES = "/var/lib/yulotest"
INDEXER_QUEUE = QUEUES + "/indexer.queue"
# systemd's restart delay of the unit is 10 s; a start takes well under one.
RESTART_TIMEOUT = 20.0
LINE_TIMEOUT = 15.0
BURST = 20000

# The volume as an appliance mounts its data volumes: a mount unit ordered
# before local-fs.target (what fstab gives), so that at shutdown it is
# unmounted only after yulotifyd (After=local-fs.target) has stopped.
VOLUME_MOUNT_UNIT = """\
[Unit]
Description=test data volume
Before=local-fs.target

[Mount]
What=tmpfs
Where=%s
Type=tmpfs
Options=mode=0755,size=256m
""" % VOLUME

# A stand-in for Samba: at stop it writes to the share, as a file server
# flushing its clients' last writes does.
SMBD_UNIT = """\
[Unit]
Description=stand-in file server
RequiresMountsFor=%s

[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/true
ExecStop=/bin/sh -c 'sleep 0.5; for i in 1 2 3; do echo x > %s/at-stop-$i; done'
""" % (VOLUME, SHARE)

# (The container's / is the host's: the host's nats-server.)
NATS_UNIT = """\
[Unit]
Description=test NATS server with JetStream

[Service]
ExecStart=%s -js -a 127.0.0.1 -p 4222 -sd /var/lib/test-nats
""" % shutil.which("nats-server")


def show(box, prop, unit="yulotifyd.service"):
    return box.run(["systemctl", "show", "-P", prop, unit]).stdout.strip()


def write(box, path, text, user=None):
    """Writes a file inside in one open/write/close (a subscription file
    written so reloads the daemon)."""
    box.run(["sh", "-c", 'cat > "$1"', "sh", path], input=text, user=user)


def queue_lines(box, path):
    text = box.run(["cat", path], check=False).stdout
    return [json.loads(line) for line in text.splitlines()]


def wait_path(box, queue, event, path, timeout=LINE_TIMEOUT):
    return wait_for(
        lambda: any(line["event"] == event and line["path"] == path
                    for line in queue_lines(box, queue)),
        timeout, "event %d for %s in %s" % (event, path, queue))


def subscription(queue, **kwargs):
    return json.dumps({"queue": queue, "monitors": [monitor("Public",
                                                            **kwargs)]})


@pytest.fixture(scope="module")
def box(make_container, debs):
    box = make_container("yulotest")
    install(box, debs)
    return box


def test_fresh_install_waits_for_a_subscription(box):
    # The configuration directories, as the documentation gives them.
    modes = box.run(["stat", "-c", "%n %a %U %G"] +
                    ["%s/%s" % (CONF_ROOT, d) for d in
                     ("system.d", "app.d", "user.d")]).stdout.splitlines()
    assert modes == ["%s/system.d 755 root root" % CONF_ROOT,
                     "%s/app.d 755 root root" % CONF_ROOT,
                     "%s/user.d 1733 root root" % CONF_ROOT]
    assert box.run(["getent", "group", "yulotifyd"]).returncode == 0

    # Enabled by the package, and not running: nothing to watch yet. Not
    # "activating" either: no restart is pending, nothing loops.
    for unit in ("yulotifyd.service", "yulotifyd.path"):
        assert box.run(["systemctl", "is-enabled", unit]).stdout.strip() == \
            "enabled"
    assert show(box, "ActiveState", "yulotifyd.path") == "active"
    # The metrics timer is shipped, and left to the administrator.
    assert box.run(["systemctl", "is-enabled", "yulotifyd-metrics.timer"],
                   check=False).stdout.strip() == "disabled"
    assert show(box, "ActiveState", "yulotifyd-metrics.timer") == "inactive"
    box.run(["systemctl", "start", "yulotifyd"])
    assert show(box, "ActiveState") == "inactive"
    assert show(box, "ConditionResult") == "no"
    assert show(box, "NRestarts") == "0"
    status = box.run(["systemctl", "status", "yulotifyd"], check=False)
    assert status.returncode == 3, status.stdout
    assert "start condition failed" in status.stdout, status.stdout
    # The daemon never ran: it would have written its run-status file.
    assert box.run(["test", "-e", RUN_STATUS_PATH],
                   check=False).returncode != 0


def test_first_subscription_starts_the_service(box):
    box.run(["mkdir", "-p", VOLUME, QUEUES, "/etc/samba"])
    unit = "/etc/systemd/system/srv-vol1.mount"
    write(box, unit, VOLUME_MOUNT_UNIT)
    box.run(["systemctl", "daemon-reload"])
    box.run(["systemctl", "start", "srv-vol1.mount"])
    box.run(["mkdir", "-p", SHARE])
    write(box, "/usr/yulo/etc/volumes.json", json.dumps(
        {"volumes": [{"id": 1, "kind": 0, "mount_point": VOLUME}]}))
    write(box, "/etc/samba/smb.conf",
          "[global]\n   workgroup = WORKGROUP\n\n[Public]\n   path = %s\n"
          % SHARE)

    write(box, CONF_ROOT + "/system.d/10-indexer.json",
          subscription(INDEXER_QUEUE))
    # yulotifyd.path starts it; Type=notify: "active" only once the daemon
    # has said it is ready, which it does after writing its run status.
    wait_for(lambda: show(box, "ActiveState") == "active", 10,
             "yulotifyd to start")
    assert show(box, "Type") == "notify"
    assert json.loads(box.run(["cat", RUN_STATUS_PATH]).stdout) == \
        {"status": "running"}
    assert show(box, "StatusText") == "watching 1 volumes, 1 monitor queues"
    status = box.run(["systemctl", "status", "yulotifyd"]).stdout
    assert 'Status: "watching 1 volumes, 1 monitor queues"' in status, status
    assert box.run(["test", "-S", SOCKET_PATH]).returncode == 0

    box.run(["touch", SHARE + "/a.txt", SHARE + "/b.txt"])
    for name in ("a.txt", "b.txt"):
        wait_path(box, INDEXER_QUEUE, 64, SHARE + "/" + name)


def test_group_member_uses_the_daemon_an_outsider_is_refused(box):
    box.run(["useradd", "-m", "-G", "yulotifyd", "alice"])
    box.run(["useradd", "-m", "bob"])
    member = box.run(["yulotifyctl", "status"], user="alice")
    assert VOLUME in member.stdout, member.stdout
    outsider = box.run(["yulotifyctl", "status"], user="bob", check=False)
    assert outsider.returncode == 3
    assert outsider.stderr.strip() == ("yulotifyctl: permission denied: run "
                                      "as root or as a member of group "
                                      "yulotifyd")
    assert outsider.stdout == ""
    # The users exist in the container only.
    for name in ("alice", "bob"):
        with pytest.raises(KeyError):
            pwd.getpwnam(name)


def test_user_subscription_writes_with_the_users_rights(box):
    user_d = CONF_ROOT + "/user.d"
    mine = "/home/alice/events.queue"
    write(box, user_d + "/alice.json", subscription(mine), user="alice")
    # Nobody but root lists the directory, and only its owner may remove
    # or replace a user's file.
    assert box.run(["ls", user_d], user="bob", check=False).returncode != 0
    assert box.run(["rm", "-f", user_d + "/alice.json"], user="bob",
                   check=False).returncode != 0
    assert box.run(["mv", "-f", "/dev/null", user_d + "/alice.json"],
                   user="bob", check=False).returncode != 0

    # Bob asks for lines in a directory he may not write.
    refused = QUEUES + "/bob.queue"
    write(box, user_d + "/bob.json", subscription(refused), user="bob")
    wait_for(lambda: "bob.json" in box.run(["yulotifyctl", "queues"]).stdout,
             10, "bob's subscription to load")

    box.run(["touch", SHARE + "/for-alice.txt"])
    wait_path(box, mine, 64, SHARE + "/for-alice.txt")
    wait_path(box, INDEXER_QUEUE, 64, SHARE + "/for-alice.txt")
    owner = box.run(["stat", "-c", "%U %G", mine]).stdout.split()
    assert owner == ["alice", "alice"]
    assert box.run(["test", "-e", refused], check=False).returncode != 0
    journal = box.run(["journalctl", "-u", "yulotifyd", "--no-pager",
                       "-o", "cat"]).stdout
    assert "Failed to open queue path=%s, reason=Permission denied" % \
        refused in journal, journal

    # Alice, in group yulotifyd, takes her lines.
    taken = box.run(["yulotifyctl", "consume", mine], user="alice")
    assert SHARE + "/for-alice.txt" in taken.stdout
    assert box.run(["stat", "-c", "%s", mine]).stdout.strip() == "0"
    box.run(["rm", user_d + "/bob.json"])


def test_killed_daemon_is_restarted_and_rescans(box):
    restarts = int(show(box, "NRestarts"))
    box.run(["systemctl", "kill", "-s", "KILL", "yulotifyd"])
    wait_for(lambda: show(box, "ActiveState") != "active", 5,
             "the killed daemon to be noticed")
    box.run(["touch", SHARE + "/while-down.txt"])
    wait_for(lambda: show(box, "ActiveState") == "active" and
             int(show(box, "NRestarts")) == restarts + 1, RESTART_TIMEOUT,
             "systemd to restart yulotifyd")
    # What changed while it was down is covered by a rescan of the volume.
    wait_path(box, INDEXER_QUEUE, 512, VOLUME)
    journal = box.run(["journalctl", "-u", "yulotifyd", "--no-pager",
                       "-o", "cat"]).stdout
    assert "Send Rescan because of recovery vol: %s" % VOLUME in journal


def test_stop_right_after_a_burst_writes_every_creation(box):
    box.run(["sh", "-c", ": > " + INDEXER_QUEUE])
    burst = SHARE + "/burst"
    box.sh("mkdir %s && cd %s && seq 1 %d | xargs touch && "
           "systemctl stop yulotifyd" % (burst, burst, BURST), timeout=120)
    lines = queue_lines(box, INDEXER_QUEUE)
    created = {line["path"] for line in lines if line["event"] == 64}
    missing = [n for n in range(1, BURST + 1)
               if "%s/%d" % (burst, n) not in created]
    assert not missing, "%d creations missing, first %s" % (len(missing),
                                                           missing[:5])
    assert not [line for line in lines if line["event"] == 512]
    assert json.loads(box.run(["cat", RUN_STATUS_PATH]).stdout) == \
        {"status": "stop"}
    # A stop sticks: neither Restart= nor the path unit start it again.
    box.run(["sleep", "1"])
    assert show(box, "ActiveState") == "inactive"
    box.run(["rm", "-rf", burst])
    box.run(["systemctl", "start", "yulotifyd"])
    assert show(box, "ActiveState") == "active"


def test_forwarder_unit_moves_lines_to_the_stream(box):
    write(box, "/etc/systemd/system/test-nats.service", NATS_UNIT)
    box.run(["systemctl", "daemon-reload"])
    box.run(["systemctl", "start", "test-nats"])
    forward_queue = QUEUES + "/forward.queue"
    write(box, CONF_ROOT + "/system.d/20-forward.json",
          subscription(forward_queue, events=["create"]))
    box.run(["mkdir", "-p", "/etc/yulotifyd/forward"])
    # A configuration others can read is refused (it may hold secrets).
    box.run(["sh", "-c", "umask 077 && : > /etc/yulotifyd/forward/fwd1.conf"])
    write(box, "/etc/yulotifyd/forward/fwd1.conf",
          "server=nats://127.0.0.1:4222\nsubject=yulotest.events\n"
          "stream=YULOTEST\nqueue=%s\n" % forward_queue)
    wait_for(lambda: "20-forward.json" in
             box.run(["yulotifyctl", "queues"]).stdout, 10,
             "the forwarder's subscription to load")
    box.run(["systemctl", "start", "yulotify-forward@fwd1.service"])
    names = ["fwd-%d.txt" % i for i in range(5)]
    box.run(["touch"] + [SHARE + "/" + n for n in names])

    def forwarded():
        dump = box.run(["yulotify-forward-dump", "--server",
                        "nats://127.0.0.1:4222", "--stream", "YULOTEST"],
                       check=False)
        payloads = [json.loads(text.split("\t", 4)[4])
                    for text in dump.stdout.splitlines()]
        return [p["path"] for p in payloads if p["event"] == 64]
    wait_for(lambda: forwarded() == [SHARE + "/" + n for n in names],
             LINE_TIMEOUT * 2, "the lines in the stream")
    assert show(box, "ActiveState", "yulotify-forward@fwd1.service") == \
        "active"


def test_configuration_directory_made_later_is_watched(box):
    # app.d removed, the daemon started without it, then app.d made again
    # by hand with a subscription in it: no restart needed.
    box.run(["rm", "-rf", CONF_ROOT + "/app.d"])
    box.run(["systemctl", "restart", "yulotifyd"])
    box.run(["mkdir", "-m", "0755", CONF_ROOT + "/app.d"])
    late = QUEUES + "/late.queue"
    write(box, CONF_ROOT + "/app.d/late.json",
          subscription(late, events=["create"]))
    wait_for(lambda: "late.json" in box.run(["yulotifyctl", "queues"]).stdout,
             10, "the subscription in the new directory to be listed")

    # A new file each round: the first made after the reload gets a line.
    tries = []

    def created():
        tries.append(SHARE + "/late-%d.txt" % len(tries))
        box.run(["touch", tries[-1]])
        return any(line["event"] == 64 and line["path"] in tries
                   for line in queue_lines(box, late))
    wait_for(created, LINE_TIMEOUT, "the new directory's queue to get a line")


def test_poweroff_stops_the_daemon_after_the_file_server(box):
    write(box, "/etc/systemd/system/smbd.service", SMBD_UNIT)
    box.run(["systemctl", "daemon-reload"])
    box.run(["systemctl", "start", "smbd"])
    box.run(["sh", "-c", ": > " + INDEXER_QUEUE])
    box.poweroff()
    # The container is gone; its files are still there to read.
    lines = [json.loads(t) for t in
             box.read_file(INDEXER_QUEUE).splitlines()]
    created = {line["path"] for line in lines if line["event"] == 64}
    for i in (1, 2, 3):
        assert "%s/at-stop-%d" % (SHARE, i) in created, lines
    assert json.loads(box.read_file(RUN_STATUS_PATH)) == {"status": "stop"}
