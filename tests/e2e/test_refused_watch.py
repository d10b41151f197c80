"""A volume the kernel refuses to watch is never passed off as watched.

ramfs gives no file handles, so the kernel refuses a fanotify mark on it
("Operation not supported"). A share with a ramfs mounted on it makes its
volume's watch fail for real: the daemon says so in its log, its status,
yulotifyctl's exit status and the service manager's STATUS= line, tries again
when the mount table changes, and once the watch is placed rescans the
volume."""

import json
import re

from control_util import run_ctl, ctl_binary  # noqa: F401
from harness import wait_line, wait_until
from test_follow import two_volumes
from test_pipeline import line, stop_cleanly
from test_status import status_lines

REFUSED = (r"^event_receiver:\d+ Volume /vol1 not watched: the kernel "
           r"refused the watch of /vol1/Public: Operation not supported$")
RECOVERED = (r"^event_receiver:\d+ Volume /vol1 watched after the kernel "
             r"refused it, rescanning it, share=/vol1/Public$")
DEGRADED = ("STATUS=degraded: 1 of 2 volumes not watched (see yulotifyctl "
            "status), 1 monitor queues")
WATCHING = "STATUS=watching 2 volumes, 1 monitor queues"
LOG_ERR, LOG_WARNING = 3, 4


def volumes_of(app, ctl, exit_status):
    r = run_ctl(ctl, "status", "--json", socket_path=app.socket_path,
                check=exit_status)
    return {v["mount_point"]: v for v in json.loads(r.out)["volumes"]}


def severity_of(app, pattern):
    records = [r for r in app.log_records if re.search(pattern, r.message)]
    assert len(records) == 1, (pattern, app.logs)
    return records[0].pri & 7


def test_a_refused_watch_shows_everywhere_and_is_tried_again(
        appliance, ctl_binary):  # noqa: F811
    app = appliance
    q = two_volumes(app)
    app.start(before_exec=lambda a: a.run_in_ns(
        ["mount", "-t", "ramfs", "ramfs", "/vol1/Public"]))
    app.wait_ready()

    # The log: once, at error priority, with the volume and the reason.
    assert severity_of(app, REFUSED) == LOG_ERR
    # The service manager.
    assert wait_until(lambda: DEGRADED in status_lines(app), 10), \
        app.notifications
    # The status: the volume failed, its share not watched; the other one
    # watched as ever.
    vols = volumes_of(app, ctl_binary, 1)
    v1, v2 = vols["/vol1"], vols["/vol2"]
    assert v1["watch_state"] == "failed"
    assert v1["watch_error"] == "Operation not supported"
    assert v1["refused_shares"] == ["/vol1/Public"]
    assert v1["watched_shares"] == []
    assert v2["watch_state"] == "ok" and v2["watch_error"] == ""
    assert v2["refused_shares"] == [] and v2["watched_shares"] == ["/vol2/Backup"]
    # yulotifyctl status: a table that says so, a line on stderr, exit 1.
    r = run_ctl(ctl_binary, "status", socket_path=app.socket_path, check=1)
    assert ("not watched, refused by the kernel: Operation not supported: "
            "/vol1/Public") in r.out, r.out
    assert ("volume /vol1 is not watched: the kernel refused the watch of "
            "/vol1/Public: Operation not supported") in r.err, r.err

    # The ramfs goes: the mount table changes, the watch is placed on the
    # volume, and the queue gets a rescan line of the volume for what it
    # may have missed.
    app.run_in_ns(["umount", "/vol1/Public"])
    app.wait_log(RECOVERED)
    assert severity_of(app, RECOVERED) == LOG_WARNING
    wait_line(app, q, line(512, "/vol1", is_dir=True))
    assert wait_until(lambda: status_lines(app)[-1] == WATCHING, 10), \
        app.notifications
    vols = volumes_of(app, ctl_binary, 0)
    assert vols["/vol1"]["watch_state"] == "ok"
    assert vols["/vol1"]["refused_shares"] == []
    assert vols["/vol1"]["watched_shares"] == ["/vol1/Public"]
    # Watched from now on.
    app.run_in_ns(["touch", "/vol1/Public/after"])
    wait_line(app, q, line(64, "/vol1/Public/after"))
    assert app.count_logs(REFUSED) == 1
    stop_cleanly(app)
