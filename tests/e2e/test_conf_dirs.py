"""Configuration directories that come and go while the daemon runs: one
made after the start is watched from then on and its subscriptions load at
once; one removed takes its subscriptions with it; made again, it is
watched again."""

import shutil

from control_util import send
from harness import monitor, wait_lines

LOADED = r"^monitor_queue:\d+ loaded %d monitor queues"


def created(path):
    return lambda lines: any(l.get("event") == 64 and l.get("path") == path
                             for l in lines)


def test_directory_made_after_start_is_watched(appliance):
    app = appliance
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    root_q = app.queue_path("root.queue")
    app.add_queue("system", "10-root.json", root_q,
                  [monitor("Public", events=["create"])])
    shutil.rmtree(app.conf_dir("app"))
    app.start()
    app.wait_ready()
    assert send(app, "set_log_level", {"log_level": "info"}) == 0
    share = app.ns_path("/vol1/Public")

    # Made, then filled: the file loads.
    late_q = app.queue_path("late.queue")
    app.conf_dir("app").mkdir()
    app.add_queue("app", "20-late.json", late_q,
                  [monitor("Public", events=["create"])])
    app.wait_log(LOADED % 2)
    (share / "a").write_text("a")
    wait_lines(app, late_q, created("/vol1/Public/a"))

    # Removed with its file: the subscription goes.
    shutil.rmtree(app.conf_dir("app"))
    app.wait_log(LOADED % 1)
    (share / "b").write_text("b")
    wait_lines(app, root_q, created("/vol1/Public/b"))
    assert not created("/vol1/Public/b")(app.read_queue(late_q))

    # Made again, filled again: watched again.
    app.conf_dir("app").mkdir()
    app.add_queue("app", "20-late.json", late_q,
                  [monitor("Public", events=["create"])])
    app.wait_log(LOADED % 2, count=2)
    (share / "c").write_text("c")
    wait_lines(app, late_q, created("/vol1/Public/c"))
