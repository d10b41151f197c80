"""One daemon at a time, and the signals a running daemon takes: a second
yulotifyd refuses to start and leaves the running one alone; SIGHUP reloads
the monitor queues and never ends the daemon."""

import os
import signal

import pytest

from control_util import send
from harness import monitor, wait_line, wait_until
from test_pipeline import line, stop_cleanly

SECOND_REFUSED = (r"^daemon:\d+ Another yulotifyd is running \(pid \d+, lock "
                  r"/var/run/yulotifyd\.lock\), not starting$")


@pytest.fixture
def app(appliance):
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Public", "/vol1/Public")
    appliance.q = appliance.queue_path("10-indexer.queue")
    appliance.add_queue("system", "10-indexer.json", appliance.q,
                        [monitor("Public", events=["create"])])
    yield appliance
    stop_cleanly(appliance)


def test_a_second_daemon_refuses_and_the_first_keeps_working(app):
    app.start()
    app.wait_ready()
    socket_before = os.stat(app.socket_path)
    assert app.read_run_status() == {"status": "running"}

    second = app.run_in_ns([app.ns_prefix() + "/sbin/yulotifyd"], check=False)
    assert second.returncode != 0
    assert b"another yulotifyd is running" in second.stderr, second.stderr
    app.wait_log(SECOND_REFUSED)

    # The socket, the run status and the queue as the first daemon left
    # them, and the first daemon serves on.
    socket_after = os.stat(app.socket_path)
    assert (socket_after.st_ino, socket_after.st_mtime_ns) == \
        (socket_before.st_ino, socket_before.st_mtime_ns)
    assert app.read_run_status() == {"status": "running"}
    assert send(app, "set_log_level", {"log_level": "error"}) == 0
    app.ns_path("/vol1/Public/after").write_text("x")
    wait_line(app, app.q, line(64, "/vol1/Public/after"))
    assert app.read_queue(app.q) == [line(64, "/vol1/Public/after")]


def test_sighup_reloads_the_monitor_queues_and_the_daemon_runs_on(app):
    app.start()
    app.wait_ready()
    app.signal(signal.SIGHUP)
    app.wait_log(r"^daemon:\d+ SIGHUP: reloading monitor queues$")
    assert wait_until(
        lambda: "STATUS=reloading" in app.notifications and
        app.notifications[-1].startswith("STATUS=watching"), 10), \
        app.notifications
    app.assert_running()
    app.ns_path("/vol1/Public/after-hup").write_text("x")
    wait_line(app, app.q, line(64, "/vol1/Public/after-hup"))
    # Still the whole teardown at the end.
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0
    assert app.read_run_status() == {"status": "stop"}
