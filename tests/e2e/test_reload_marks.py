"""A reload changes what the kernel reports on a volume in place: a
subscription that comes to want more than the volume was watched for gets
it at once, and no reload opens a moment in which a wanted change goes
unseen.

No control command is sent: reloads come from smb.conf and the monitor-queue
configuration files, and the tests learn that a reload is done from the
service manager notifications ("STATUS=reloading", then "STATUS=watching
...").
"""

import os

from harness import monitor, wait_line, wait_lines, wait_until
# The appliance of these tests: /vol1 with share Public, no queue yet.
from test_outbox import app  # noqa: F401
from test_pipeline import line

RELOAD_TIMEOUT = 15.0


def statuses(app):
    return [n.split("=", 1)[1] for n in app.notifications
            if n.startswith("STATUS=")]


def wait_reloads(app, count):
    """Waits until `count` reloads have been carried out in this run."""
    def done():
        seen = statuses(app)
        return (sum(s == "reloading" for s in seen) >= count
                and seen[-1].startswith("watching"))
    assert wait_until(done, RELOAD_TIMEOUT), \
        "reload %d not done: %r%s" % (count, statuses(app), app.diagnostics())


def test_share_appearing_later_gets_the_events_its_queue_wants(app):
    q = app.queue_path("q.queue")
    # Nothing on the volume wants creations at start: "Media" is not a share
    # yet, and the other monitor wants deletions only.
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["delete"]),
                   monitor("Media", events=["create"])])
    app.start()
    app.wait_ready()
    app.add_share("Media", "/vol1/Media")
    wait_reloads(app, 1)
    app.ns_path("/vol1/Media/m1").write_text("x")
    wait_line(app, q, line(64, "/vol1/Media/m1"))


def test_subscription_edited_to_want_deletions_gets_them(app):
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    app.ns_path("/vol1/Public/f1").write_text("x")
    wait_line(app, q, line(64, "/vol1/Public/f1"))
    app.replace_file(app.conf_dir("system") / "q.json",
                     {"queue": str(q),
                      "monitors": [monitor("Public",
                                           events=["create", "delete"])]})
    wait_reloads(app, 1)
    app.ns_path("/vol1/Public/f1").unlink()
    wait_line(app, q, line(128, "/vol1/Public/f1"))


def test_second_subscription_wanting_close_write_gets_it(app):
    qa = app.queue_path("a.queue")
    qb = app.queue_path("b.queue")
    app.add_queue("system", "a.json", qa, [monitor("Public", events=["create"])])
    app.start()
    app.wait_ready()
    app.replace_file(app.conf_dir("app") / "b.json",
                     {"queue": str(qb),
                      "monitors": [monitor("Public", events=["close_write"])]})
    wait_reloads(app, 1)
    app.ns_path("/vol1/Public/w1").write_text("x")
    wait_line(app, qb, line(8, "/vol1/Public/w1"))
    wait_line(app, qa, line(64, "/vol1/Public/w1"))


def test_no_creation_is_lost_while_reloads_change_the_mask(app):
    """30,000 creations while 30 reloads switch another subscription between
    two event types: every creation reaches the first queue."""
    qa = app.queue_path("a.queue")
    qb = app.queue_path("b.queue")
    app.add_queue("system", "a.json", qa, [monitor("Public", events=["create"])])
    other = app.conf_dir("app") / "b.json"
    wants = [["delete"], ["modify", "attrib"]]
    app.replace_file(other, {"queue": str(qb),
                             "monitors": [monitor("Public", events=wants[0])]})
    app.start()
    app.wait_ready()
    share = app.ns_path("/vol1/Public")
    names = ["c%05d" % i for i in range(30000)]
    chunk = len(names) // 30
    for reload in range(1, 31):
        # Each reload is asked for, then a share of the burst is made while
        # the daemon carries it out.
        app.replace_file(other, {"queue": str(qb),
                                 "monitors": [monitor(
                                     "Public", events=wants[reload % 2])]})
        for name in names[(reload - 1) * chunk:reload * chunk]:
            os.close(os.open(share / name, os.O_CREAT | os.O_WRONLY, 0o644))
        wait_reloads(app, reload)
    expected = [line(64, "/vol1/Public/" + n) for n in names]
    lines = wait_lines(app, qa, lambda ls: len(ls) >= len(expected),
                       timeout=60)
    assert lines == expected
