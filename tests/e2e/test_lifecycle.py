"""Daemon lifecycle: start-up gates, readiness, signals, teardown, run
status and the live reload of the monitor-queue configuration.

The daemon logs at level 3 (error) here, so only the always-written lines
can be asserted; progress and tracing lines are not.
"""

import fcntl
import json
import os
import re
import signal
import socket
import stat
import time

import pytest

from control_util import send
from harness import (LOG_DEBUG, LOG_ERR, LOG_INFO, LOG_NOTICE, LOG_USER,
                     LOG_WARNING, monitor)

# An idle daemon can take up to one select() period to notice a stop, and a
# start-up failure ends it at once: either way well within this.
EXIT_TIMEOUT = 35.0
# How long to watch for something that must NOT happen (a reload, a line).
QUIET_PERIOD = 1.0

KILL_LINE = r"^\w+:\d+ In kill handler\(%d\)$"
BAD_FILE = "zz-bad.json"
# The loader names a skipped file by its path inside the appliance.
BAD_FILE_LINE = r"monitor queue file /usr/yulo/etc/yulotifyd/user\.d/zz-bad\.json\b"


def configure(app, queue=True):
    """A minimal working appliance: volume 1 at /vol1 with share Public and,
    unless told otherwise, one system queue watching it."""
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    if queue:
        app.add_queue("system", "10-indexer.json",
                      monitors=[monitor("Public")])
    return app


def assert_clean_exit(app, timeout=EXIT_TIMEOUT):
    code = app.wait_exit(timeout)
    assert code == 0, "exit status %r%s" % (code, app.diagnostics())
    stderr = app.stderr_path.read_bytes()
    assert stderr == b"", "the daemon logs through syslog only, yet wrote " \
        "to stderr: %r" % stderr[:2000]


def assert_log_format(app):
    """Every line: the user facility, a priority the default level writes
    (err, warning or notice), the program's name as tag, and "<source
    stem>:<line> " in front of the message."""
    for record in app.log_records:
        assert record.pri in (LOG_USER | LOG_ERR, LOG_USER | LOG_WARNING,
                              LOG_USER | LOG_NOTICE), record.raw
        assert record.tag == "yulotifyd", record.raw
        assert record.pid is None, record.raw
        assert record.message and record.message.split(" ", 1)[0].count(":") == 1, \
            record.raw
        stem, line = record.message.split(" ", 1)[0].split(":")
        assert stem and stem.replace("_", "").isalnum(), record.raw
        assert line.isdigit() and int(line) > 0, record.raw


def assert_stopped_and_tidy(app):
    assert not app.socket_path.exists() and not app.socket_path.is_symlink(), \
        "control socket file left behind"
    assert app.read_run_status() == {"status": "stop"}, app.read_run_status()


# ----------------------------------------------------------------------
# Start-up gates.


def test_no_monitor_queue_stops_quietly(appliance):
    configure(appliance, queue=False)
    appliance.start()
    assert_clean_exit(appliance)
    assert not appliance.ready_seen, appliance.notifications
    # Only the reason, for "systemctl status"; no readiness.
    assert appliance.notifications == ["STATUS=no monitor queue configured"]
    assert_stopped_and_tidy(appliance)
    # A quiet stop: nothing went wrong, so nothing is logged as an error,
    # only why it stopped, at notice, for the default journal.
    assert [(r.pri, r.message) for r in appliance.log_records] == [
        (LOG_USER | LOG_NOTICE,
         [m for m in appliance.logs if m.endswith(
             " Stopping: no monitor queue configured")][0])], \
        appliance.diagnostics()


def test_no_monitor_queue_removes_stale_socket_file(appliance):
    configure(appliance, queue=False)
    # A socket file left by an earlier, killed run.
    stale = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    stale.bind(str(appliance.socket_path))
    stale.close()
    assert appliance.socket_path.exists()
    appliance.start()
    assert_clean_exit(appliance)
    assert not appliance.ready_seen
    assert_stopped_and_tidy(appliance)


def test_only_malformed_queue_files_count_as_no_queue(appliance):
    configure(appliance, queue=False)
    appliance.write_queue_file("user", BAD_FILE, "not json")
    appliance.start()
    assert_clean_exit(appliance)
    assert not appliance.ready_seen
    assert appliance.count_logs(BAD_FILE_LINE) == 1, appliance.diagnostics()
    assert_stopped_and_tidy(appliance)


@pytest.mark.parametrize("table", ["empty", "not-mounted", "missing"])
def test_no_mounted_volume_stops_without_ready(appliance, table):
    appliance.add_share("Public", "/vol1/Public")
    appliance.add_queue("system", "10-indexer.json",
                        monitors=[monitor("Public")])
    if table == "not-mounted":
        appliance.add_volume(1, "/vol1", mounted=False)
        appliance.add_volume(2, "/vol2", mounted=False)
    elif table == "missing":
        appliance.volume_table_path.unlink()
    appliance.start()
    assert_clean_exit(appliance)
    assert not appliance.ready_seen, appliance.notifications
    enum_failed = appliance.find_logs(r"^\w+:\d+ YULOMountVolAllEnum failed$")
    setup_failed = appliance.find_logs(r"^\w+:\d+ SetupVolumeMgr failed$")
    assert len(enum_failed) == 1 and len(setup_failed) == 1, \
        appliance.diagnostics()
    logs = appliance.logs
    assert logs.index(enum_failed[0]) < logs.index(setup_failed[0])
    # The socket was set up before the volumes and is gone again.
    assert_stopped_and_tidy(appliance)
    assert_log_format(appliance)


# ----------------------------------------------------------------------
# Readiness and stop signals.


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT],
                         ids=["SIGTERM", "SIGINT"])
def test_signal_stops_cleanly(appliance, sig):
    configure(appliance)
    appliance.start()
    appliance.wait_ready()
    appliance.assert_running()
    assert appliance.notifications.count("READY=1") == 1, appliance.notifications
    mode = os.stat(appliance.socket_path).st_mode
    assert stat.S_ISSOCK(mode), "control socket missing while running"
    # The run is marked as running until it ends cleanly.
    assert appliance.read_run_status() == {"status": "running"}
    assert appliance.find_logs(r"In kill handler") == []

    appliance.signal(sig)
    appliance.wait_log(KILL_LINE % sig)
    assert_clean_exit(appliance)
    assert appliance.count_logs(r"In kill handler") == 1, appliance.diagnostics()
    assert [n for n in appliance.notifications
            if not n.startswith("STATUS=")] == ["READY=1"], \
        appliance.notifications
    assert_stopped_and_tidy(appliance)
    assert_log_format(appliance)


def test_restart_after_clean_stop(appliance):
    """The "stop" left by one run is read by the next without complaint."""
    configure(appliance)
    appliance.start()
    appliance.wait_ready()
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)
    assert appliance.read_run_status() == {"status": "stop"}

    appliance.start()
    appliance.wait_ready()
    assert appliance.find_logs(r"run config") == []
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)
    assert_stopped_and_tidy(appliance)


# ----------------------------------------------------------------------
# Run status.

RUN_STATUS_CASES = {
    # name: (file content or None for no file, expected line or None)
    "absent": (None, None),
    "init": ({"status": "init"}, None),
    "stop": ({"status": "stop"}, None),
    "crashed": ({"status": "crashed"}, None),
    "other-case": ({"status": "STOP"}, None),
    "array": (["stop"], r'^\w+:\d+ run config error, json=\[\s*"stop"\s*\]$'),
    "no-status": ({"state": "stop"},
                  r'^\w+:\d+ run config error, json=\{\s*"state"\s*:\s*"stop"\s*\}$'),
    "not-json": ("not json", r"^\w+:\d+ run config read fail$"),
    "empty": ("", r"^\w+:\d+ run config read fail$"),
}


@pytest.mark.parametrize("case", list(RUN_STATUS_CASES))
def test_run_status(appliance, case):
    content, line = RUN_STATUS_CASES[case]
    configure(appliance)
    if content is not None:
        appliance.write_run_status(content)
    before = appliance.read_run_status()
    appliance.start()
    # Whatever the file says, the daemon starts.
    appliance.wait_ready()
    run_config_lines = appliance.find_logs(r"run config")
    if line is None:
        assert run_config_lines == [], appliance.diagnostics()
    else:
        appliance.wait_log(line)
        assert len(run_config_lines) == 1, appliance.diagnostics()
    # Read at start, then marked as running until a clean stop...
    assert before != {"status": "running"}
    assert appliance.read_run_status() == {"status": "running"}
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)
    # ...and "stop" written back at teardown.
    assert_stopped_and_tidy(appliance)
    assert_log_format(appliance)


# ----------------------------------------------------------------------
# Monitor-queue configuration: malformed files and live reload.


def test_malformed_queue_files_are_logged_and_skipped(appliance):
    configure(appliance)
    bad = {
        ("user", BAD_FILE): "not json",
        ("app", "array.json"): "[1, 2]",
        ("app", "no-queue.json"): '{"monitors": []}',
        ("system", "relative.json"): '{"queue": "relative/path", "monitors": []}',
        ("system", "empty.json"): "",
    }
    for (queue_type, name), text in bad.items():
        appliance.write_queue_file(queue_type, name, text)
    # Not a .json file: not a queue at all, so not worth a line.
    appliance.write_queue_file("system", "README.txt", "not json either")
    appliance.start()
    appliance.wait_ready()
    for (queue_type, name), _ in bad.items():
        pattern = r"monitor queue file /usr/yulo/etc/yulotifyd/%s\.d/%s\b" % (
            queue_type, name.replace(".", r"\."))
        assert appliance.count_logs(pattern) == 1, \
            "%s/%s not logged once%s" % (queue_type, name, appliance.diagnostics())
    assert appliance.find_logs(r"README\.txt") == []
    assert appliance.find_logs(r"10-indexer\.json") == []
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)
    assert_log_format(appliance)


def test_unknown_share_is_logged_and_queue_still_loads(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Public", "/vol1/Public")
    appliance.add_queue("app", "photos.json", monitors=[monitor("NoSuchShare")])
    appliance.start()
    # The queue counts even with no usable monitor: the daemon gets ready.
    appliance.wait_ready()
    lines = appliance.find_logs(r"NoSuchShare")
    assert len(lines) == 1, appliance.diagnostics()
    assert "/usr/yulo/etc/yulotifyd/app.d/photos.json" in lines[0], lines
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)


def started_with_reload_probe(app):
    """Starts an appliance whose configuration holds a malformed file. Every
    load of the configuration logs that file once, so the number of such
    lines counts the loads: 1 at start, +1 per reload."""
    configure(app)
    app.write_queue_file("user", BAD_FILE, "not json")
    app.add_queue("app", "20-app.json", monitors=[monitor("Public")])
    app.add_queue("user", "30-user.json", monitors=[monitor("Public")])
    app.start()
    app.wait_ready()
    app.wait_log(BAD_FILE_LINE)
    assert app.count_logs(BAD_FILE_LINE) == 1, app.diagnostics()
    return app


def assert_loads(app, expected):
    """Waits for the expected number of loads, then checks that no further
    one follows."""
    app.wait_log(BAD_FILE_LINE, count=expected)
    time.sleep(QUIET_PERIOD)
    assert app.count_logs(BAD_FILE_LINE) == expected, app.diagnostics()
    app.assert_running()


def rewrite(path):
    """Rewrites a file in place: open for write, write, close."""
    text = path.read_text()
    with open(path, "w") as f:
        f.write(text)


def test_rewriting_a_queue_file_reloads_once(appliance):
    app = started_with_reload_probe(appliance)
    expected = 1
    # One rewrite in each of the three configuration directories.
    for queue_type, name in (("system", "10-indexer.json"),
                             ("app", "20-app.json"),
                             ("user", "30-user.json")):
        rewrite(app.conf_dir(queue_type) / name)
        expected += 1
        assert_loads(app, expected)
    # Writing a new file is a write too.
    app.add_queue("app", "40-new.json", monitors=[monitor("Public")])
    expected += 1
    assert_loads(app, expected)
    app.signal(signal.SIGTERM)
    assert_clean_exit(app)
    assert_log_format(app)


def _mkdir(app):
    (app.conf_dir("system") / "subdir.json").mkdir()


def _rmdir(app):
    (app.conf_dir("system") / "old-dir").rmdir()


def _remove(app):
    (app.conf_dir("app") / "old.json").unlink()


def _rename(app):
    d = app.conf_dir("system")
    (d / "50-rename.json").rename(d / "51-renamed.json")


def _move_in(app):
    (app.root / "outside.json").rename(app.conf_dir("user") / "60-moved.json")


def _hard_link(app):
    os.link(app.root / "outside.json", app.conf_dir("user") / "61-linked.json")


def _symlink(app):
    os.symlink(app.root / "outside.json", app.conf_dir("user") / "62-symlink.json")


def _chmod(app):
    os.chmod(app.conf_dir("system") / "10-indexer.json", 0o600)


def _read(app):
    (app.conf_dir("system") / "10-indexer.json").read_text()


def _move_out(app):
    (app.conf_dir("app") / "old.json").rename(app.root / "moved-out.json")


def _replace(app):
    d = app.conf_dir("system")
    (d / "10-indexer.json.new").write_text(
        (d / "10-indexer.json").read_text())
    (d / "10-indexer.json.new").rename(d / "10-indexer.json")


NO_RELOAD_ACTIONS = {
    "mkdir": _mkdir,
    "rmdir": _rmdir,
    "hard-link": _hard_link,
    "symlink": _symlink,
    "chmod": _chmod,
    "read": _read,
}


# Each replaces, renames or removes a configuration file: one reload each.
RELOAD_ACTIONS = {
    "remove-file": _remove,
    "rename-file": _rename,
    "move-file-in": _move_in,
    "move-file-out": _move_out,
    "replace-by-rename": _replace,
}


def prepare_config_actions(appliance):
    """Everything the actions need, made before the daemon starts."""
    (appliance.conf_dir("system") / "old-dir").mkdir(parents=True)
    appliance.add_queue("app", "old.json", monitors=[monitor("Public")])
    appliance.add_queue("system", "50-rename.json", monitors=[monitor("Public")])
    (appliance.root / "outside.json").write_text(json.dumps(
        {"queue": str(appliance.queue_path("unused.queue")), "monitors": []}))


@pytest.mark.parametrize("action", list(RELOAD_ACTIONS))
def test_config_file_renamed_or_removed_reloads_once(appliance, action):
    prepare_config_actions(appliance)
    app = started_with_reload_probe(appliance)
    RELOAD_ACTIONS[action](app)
    assert_loads(app, 2)
    app.signal(signal.SIGTERM)
    assert_clean_exit(app)


@pytest.mark.parametrize("action", list(NO_RELOAD_ACTIONS))
def test_config_change_without_write_does_not_reload(appliance, action):
    prepare_config_actions(appliance)
    app = started_with_reload_probe(appliance)

    NO_RELOAD_ACTIONS[action](app)
    time.sleep(QUIET_PERIOD)
    assert app.count_logs(BAD_FILE_LINE) == 1, \
        "%s caused a reload%s" % (action, app.diagnostics())
    app.assert_running()

    # The watch is still alive: a real write reloads exactly once.
    rewrite(app.conf_dir("system") / "10-indexer.json")
    assert_loads(app, 2)
    app.signal(signal.SIGTERM)
    assert_clean_exit(app)


# ----------------------------------------------------------------------
# Log priorities: what `journalctl -p` filters on.


def test_each_line_has_the_priority_of_what_it_means(appliance):
    configure(appliance)
    q = appliance.queue_path("10-indexer.queue")
    # A monitor naming a share that does not exist: skipped, a warning.
    appliance.add_queue("app", "20-typo.json", appliance.queue_path("t.queue"),
                        [monitor("Pubic")])
    appliance.start()
    appliance.wait_ready()
    assert send(appliance, "set_log_level", {"log_level": "debug"}) == 0
    # A consumer keeps the lock through a pass: lines wait (a warning),
    # then go in (a notice).
    q.touch()
    with open(q, "rb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        (appliance.ns_path("/vol1/Public") / "a").write_text("a")
        appliance.wait_log(r"try lock too many times")
    appliance.wait_log(r"Queue writable again")

    def pri(pattern):
        rx = re.compile(pattern)
        return {r.pri for r in appliance.log_records if rx.search(r.message)}
    assert pri(r"monitors\[0\] skipped: unknown share") == \
        {LOG_USER | LOG_WARNING}
    assert pri(r"try lock too many times") == {LOG_USER | LOG_WARNING}
    assert pri(r"Queue writable again") == {LOG_USER | LOG_NOTICE}
    assert pri(r"^event_processor:\d+ Got event") == {LOG_USER | LOG_INFO}
    assert pri(r"^event_processor:\d+ write event to") == \
        {LOG_USER | LOG_DEBUG}
    appliance.signal(signal.SIGTERM)
    assert_clean_exit(appliance)
    assert pri(r"In kill handler") == {LOG_USER | LOG_ERR}
