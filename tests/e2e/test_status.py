"""The daemon tells what it does: the "status" command, yulotifyctl status
(table, JSON, Prometheus text) and the service manager's STATUS= lines."""

import json
import os
import re
import signal
import struct

import pytest

from control_util import exchange, frame, command, run_ctl, send, ctl_binary  # noqa: F401
from harness import monitor, wait_until
from test_pipeline import line, stop_cleanly, wait_count


@pytest.fixture
def app(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_volume(2, "/vol2")
    appliance.add_share("Public", "/vol1/Public")
    appliance.add_share("Backup", "/vol2/Backup")
    yield appliance
    stop_cleanly(appliance)


def status_of(app):
    """The raw exchange: 4-byte 0, 8-byte host-order length, the object."""
    data = exchange(app, frame(command("status", {})))
    assert len(data) >= 12, data
    reply, = struct.unpack("=i", data[:4])
    length, = struct.unpack("=Q", data[4:12])
    assert reply == 0
    assert len(data) == 12 + length, "nothing after the object"
    assert b"\0" not in data[12:]
    return json.loads(data[12:])


def touch(path):
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o644))


def test_status_counts_what_happened(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    for i in range(5):
        touch(share / ("f%d" % i))
    wait_count(app, q, 5)
    s = status_of(app)
    assert s["pid"] == app.pid
    assert isinstance(s["version"], str) and s["version"]
    assert s["uptime_seconds"] >= 0
    assert s["run_status_at_start"] == "init"
    assert s["log_level"] == "error"
    assert s["monitor_queues"] == 1
    assert s["backend"] == {"name": "fanotify", "paired_renames": True}
    vols = {v["mount_point"]: v for v in s["volumes"]}
    assert set(vols) == {"/vol1", "/vol2"}
    v1, v2 = vols["/vol1"], vols["/vol2"]
    assert v1["id"] == 1 and v1["watched_shares"] == ["/vol1/Public"]
    assert v1["events_read"] == 5
    assert v1["events_queued"] == 0
    assert v1["lines_written"] == 5
    assert v1["kernel_overflows"] == 0 and v1["rescan_lines"] == 0
    assert v2["watched_shares"] == [] and v2["events_read"] == 0
    [f] = s["queue_files"]
    backlog = {k: f.pop(k) for k in ("bytes", "limit_used", "oldest_line_age")}
    assert f == {
        "path": str(q), "lines_written": 5, "lines_kept": 0, "state": "ok",
        "last_error": "", "last_error_time": 0}
    # Nobody consumes: the five lines wait there.
    assert backlog["bytes"] == os.path.getsize(q) > 0
    assert backlog["limit_used"] == backlog["bytes"] / 104857600
    assert 0 <= backlog["oldest_line_age"] < 60


def test_a_failing_queue_file_shows_as_failing(app, ctl_binary):  # noqa: F811
    q = app.queue_path("gone/q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    touch(app.ns_path("/vol1/Public") / "a")
    app.wait_log(r"Failed to open queue path=%s" % re.escape(str(q)))
    s = status_of(app)
    assert s["queue_files"][0]["path"] == str(q)
    assert s["queue_files"][0]["state"] == "failing"
    assert s["queue_files"][0]["lines_kept"] == 1
    assert s["queue_files"][0]["last_error"] == "No such file or directory"
    assert s["queue_files"][0]["last_error_time"] > 0
    # A health check notices.
    r = run_ctl(ctl_binary, "status", socket_path=app.socket_path, check=1)
    assert "is failing: No such file or directory" in r.err, r.err


PROM_SAMPLE = re.compile(
    r'^(yulotifyd_[a-z_]+)(\{([a-z_]+="(?:[^"\\\n]|\\[\\"n])*",?)*\})? '
    r'(-?[0-9]+(\.[0-9]+)?([eE][-+]?[0-9]+)?)$')


def parse_prometheus(text):
    """Checks the text exposition format; returns {family: [(labels, value)]}."""
    families, typed = {}, {}
    current = None
    assert text.endswith("\n")
    for raw in text.splitlines():
        if raw.startswith("# HELP "):
            name = raw.split()[2]
            assert name not in families, "family %s twice" % name
            families[name] = []
            current = name
        elif raw.startswith("# TYPE "):
            _, _, name, kind = raw.split()
            assert name == current, raw
            assert kind in ("counter", "gauge"), raw
            if kind == "counter":
                assert name.endswith("_total"), name
            typed[name] = kind
        else:
            m = PROM_SAMPLE.match(raw)
            assert m, "not a sample line: %r" % raw
            assert m.group(1) == current and current in typed, raw
            families[current].append((m.group(2) or "", float(m.group(4))))
    return families


def test_yulotifyctl_status_in_three_forms(app, ctl_binary):  # noqa: F811
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    touch(app.ns_path("/vol1/Public") / "a")
    wait_count(app, q, 1)
    r = run_ctl(ctl_binary, "status", socket_path=app.socket_path, check=0)
    assert "/vol1/Public" in r.out and str(q) in r.out and "ok" in r.out
    r = run_ctl(ctl_binary, "status", "--json", socket_path=app.socket_path,
                check=0)
    assert json.loads(r.out)["volumes"][0]["lines_written"] == 1
    r = run_ctl(ctl_binary, "status", "--prometheus",
                socket_path=app.socket_path, check=0)
    families = parse_prometheus(r.out)
    assert ('{volume="1",mount_point="/vol1"}', 1.0) in \
        families["yulotifyd_lines_written_total"]
    assert ('{path="%s",state="ok"}' % q, 1.0) in \
        families["yulotifyd_queue_file_state"]
    assert ("", 1.0) in families["yulotifyd_up"]
    app.stop()
    r = run_ctl(ctl_binary, "status", socket_path=app.socket_path)
    assert r.returncode == 3, (r.out, r.err)
    r = run_ctl(ctl_binary, "status", "--prometheus",
                socket_path=app.socket_path)
    assert r.returncode == 3, (r.out, r.err)
    assert parse_prometheus(r.out) == {"yulotifyd_up": [("", 0.0)]}


def test_backlog_grows_while_the_consumer_is_away(app, ctl_binary):  # noqa: F811
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()

    def backlog():
        r = run_ctl(ctl_binary, "status", "--prometheus",
                    socket_path=app.socket_path, check=0)
        families = parse_prometheus(r.out)
        label = '{path="%s"}' % q
        return (dict(families["yulotifyd_queue_file_bytes"])[label],
                dict(families["yulotifyd_queue_file_oldest_line_age_seconds"])
                [label])

    touch(app.ns_path("/vol1/Public") / "a")
    wait_count(app, q, 1)
    size, age = backlog()
    assert size == os.path.getsize(q) > 0
    # The consumer stays away: the same line waits, older and older.
    wait_until(lambda: backlog()[1] >= age + 2, 10)
    touch(app.ns_path("/vol1/Public") / "b")
    wait_count(app, q, 2)
    size2, age2 = backlog()
    assert size2 > size and age2 >= age + 2, (size, age, size2, age2)
    # Consumed: nothing waits.
    run_ctl(ctl_binary, "consume", q, check=0)
    assert backlog() == (0.0, 0.0)


def test_old_commands_keep_their_four_byte_replies(app):
    app.add_queue("system", "q.json", app.queue_path("q.queue"),
                  [monitor("Public")])
    app.start()
    app.wait_ready()
    for type_, data in [("set_log_level", {"log_level": "error"}),
                        ("notify", {"event": 64, "path": "/vol1/Public"}),
                        ("mount_volume", {"mount_point": "/vol1"}),
                        ("no_such_command", {})]:
        reply = exchange(app, frame(command(type_, data)))
        assert len(reply) == 4, (type_, reply)


def status_lines(app):
    return [n for n in app.notifications if n.startswith("STATUS=")]


def test_status_lines_follow_the_daemon(app):
    app.add_queue("system", "q.json", app.queue_path("q.queue"),
                  [monitor("Public")])
    app.start()
    app.wait_ready()
    assert wait_until(lambda: "STATUS=watching 2 volumes, 1 monitor queues"
                      in status_lines(app), 10), app.notifications
    app.add_queue("app", "r.json", app.queue_path("r.queue"),
                  [monitor("Backup")])
    assert wait_until(lambda: "STATUS=watching 2 volumes, 2 monitor queues"
                      in status_lines(app), 10), app.notifications
    assert "STATUS=reloading" in status_lines(app)
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0
    assert status_lines(app)[-1] == "STATUS=stopping: writing what was read"


def test_quiet_stops_say_why(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Public", "/vol1/Public")
    appliance.start()
    assert appliance.wait_exit(15) == 0
    assert status_lines(appliance) == ["STATUS=no monitor queue configured"]
    assert not appliance.ready_seen

    appliance.add_queue("system", "q.json", appliance.queue_path("q.queue"),
                        [monitor("Public")])
    appliance.volumes[0]["mounted"] = False
    appliance.write_volume_table()
    appliance.start()
    assert appliance.wait_exit(15) == 0
    assert status_lines(appliance) == ["STATUS=no volume mounted"]
