"""yulotifyctl check: loads the monitor-queue configuration as the daemon
would, reports what it would skip or what would not work, and exits 0 only
when everything loads and nothing is warned about."""

import json
import os
import shutil
import tempfile
from pathlib import Path

import pytest

from control_util import run_ctl
from control_util import ctl_binary  # noqa: F401  (a pytest fixture)
from harness import monitor
# /vol1 with the share Public at /vol1/Public; each run must end cleanly.
from test_outbox import app  # noqa: F401  (a pytest fixture)

NOBODY = 65534


@pytest.fixture
def tree():
    """A configuration root and a data directory every user may reach
    (pytest's own temporary directories are root's alone): user.d's
    owners are judged with their own rights."""
    root = Path(tempfile.mkdtemp(prefix="yulo-check-"))
    os.chmod(root, 0o755)
    for sub in ("system.d", "app.d", "user.d", "data", "queues"):
        (root / sub).mkdir()
    yield root
    shutil.rmtree(root)


def write(path, content, mode=0o644, owner=None):
    path.write_text(content if isinstance(content, str)
                    else json.dumps(content))
    os.chmod(path, mode)
    if owner is not None:
        os.chown(path, owner, owner)
    return path


def check(ctl_binary, root, status, *extra):
    r = run_ctl(ctl_binary, "check", "--conf-root", root, *extra,
                check=status)
    assert r.err == ""
    return r


def test_a_good_tree_passes(tree, ctl_binary):
    data = tree / "data"
    write(tree / "system.d" / "10-indexer.json", {
        "queue": str(tree / "queues" / "indexer.queue"),
        "monitors": [{"path": str(data), "events": ["create", "delete",
                                                    "move"],
                      "exclude": ["*.part", "@eaDir"]},
                     {"path": str(data), "events": 2}]})
    # A user's subscription, with its queue file in a directory of its own.
    home = tree / "queues" / "nobody"
    home.mkdir()
    os.chown(home, NOBODY, NOBODY)
    write(tree / "user.d" / "nobody.json", {
        "queue": str(home / "q.queue"),
        "monitors": [{"path": str(data), "events": ["create"]}]},
        owner=NOBODY)

    r = check(ctl_binary, tree, 0)
    assert "%s/system.d/10-indexer.json: loaded, queue %s/queues/" \
        "indexer.queue\n" % (tree, tree) in r.out
    assert "  monitors[1]: loaded, watches %s\n" % data in r.out
    assert "warning:" not in r.out
    assert r.out.endswith("passed: 2 files under %s, 2 queues loaded, 0 "
                          "files and 0 monitors skipped, 0 warnings\n" % tree)

    r = check(ctl_binary, tree, 0, "--json")
    report = json.loads(r.out)
    assert report["passed"] is True
    assert report["totals"] == {"files": 2, "queues": 2, "files_skipped": 0,
                                "monitors_skipped": 0, "warnings": 0}
    user = report["files"][1]
    assert user["owner_uid"] == NOBODY and user["warnings"] == []


def test_an_empty_tree_passes_with_a_note(tree, ctl_binary):
    r = check(ctl_binary, tree, 0)
    assert "note: no monitor queue is configured" in r.out


def test_every_problem_fails_the_check(tree, ctl_binary):
    data = tree / "data"
    write(tree / "system.d" / "10-bad.json", "{not json")
    write(tree / "system.d" / "20-unsafe.json",
          {"queue": str(tree / "queues" / "u.queue")}, mode=0o666)
    write(tree / "app.d" / "30-monitors.json", {
        "queue": str(tree / "queues" / "m.queue"),
        "monitors": [
            {"path": str(data), "events": ["move"]},
            {"path": str(data), "events": ["create", "move"]},
            {"path": str(data), "events": []},
            {"path": str(data), "dir": "not-there"},
            {"share": "NoSuchShare"},
            {"path": str(data), "exclude": ["[oops"]},
            {"path": str(data), "events": ["create", "delete", "move"]},
        ]})
    write(tree / "app.d" / "40-nodir.json", {
        "queue": str(tree / "missing" / "q.queue"),
        "monitors": [{"path": str(data)}]})
    # Owned by nobody, writing where only root may.
    write(tree / "user.d" / "nobody.json", {
        "queue": str(tree / "queues" / "nobody.queue"),
        "monitors": [{"path": str(data), "events": ["create", "access"]}]},
        owner=NOBODY)
    link = tree / "queues" / "link.queue"
    link.symlink_to(tree / "queues" / "elsewhere")
    write(tree / "app.d" / "50-link.json", {
        "queue": str(link), "monitors": [{"path": str(data)}]})

    r = check(ctl_binary, tree, 1, "--json")
    report = json.loads(r.out)
    assert report["passed"] is False
    files = {Path(f["file"]).name: f for f in report["files"]}
    assert files["10-bad.json"]["loaded"] is False
    assert files["10-bad.json"]["reason"] == "not valid JSON"
    assert files["20-unsafe.json"]["reason"].startswith("unsafe: ")

    m = files["30-monitors.json"]["monitors"]
    assert files["30-monitors.json"]["warnings"] == []
    assert "move alone" in m[0]["warnings"][0]
    assert "without both create and delete" in m[1]["warnings"][0]
    assert "asks for no event" in m[2]["warnings"][0]
    assert m[3]["warnings"] == ["directory %s/not-there does not exist"
                                % data]
    assert m[4]["loaded"] is False
    assert m[4]["reason"] == 'unknown share "NoSuchShare"'
    assert m[5]["loaded"] is False and "[oops" in m[5]["reason"]
    assert m[6]["loaded"] is True and m[6]["warnings"] == []

    assert files["40-nodir.json"]["warnings"] == [
        "queue file: its directory %s/missing does not exist" % tree]
    nobody = files["nobody.json"]
    assert nobody["warnings"] == [
        "queue file: uid %d may not create it in %s/queues: Permission "
        "denied" % (NOBODY, tree)]
    assert "access, open and close_nowrite left out" in \
        nobody["monitors"][0]["warnings"][0]
    assert files["50-link.json"]["warnings"] == [
        "queue file: %s is a symbolic link, which the daemon never writes "
        "through" % link]
    assert report["totals"] == {"files": 6, "queues": 4, "files_skipped": 2,
                                "monitors_skipped": 2, "warnings": 8}

    r = check(ctl_binary, tree, 1)
    assert "  monitors[4]: skipped: unknown share \"NoSuchShare\"\n" in r.out
    assert "    warning: directory %s/not-there does not exist\n" % data \
        in r.out
    assert r.out.endswith("failed: 6 files under %s, 4 queues loaded, 2 "
                          "files and 2 monitors skipped, 8 warnings\n" % tree)


def test_check_resolves_shares_as_the_daemon_does(app, ctl_binary):
    q = app.queue_path("q.queue")
    app.add_queue("system", "10-good.json", q, [monitor("Public")])
    app.start()
    app.wait_ready()
    ctl = str(ctl_binary)
    r = app.run_in_ns([ctl, "check"])
    assert r.stdout.decode().startswith(
        "/usr/yulo/etc/yulotifyd/system.d/10-good.json: loaded")
    app.add_queue("app", "20-bad.json", q, [monitor("Gone")])
    r = app.run_in_ns([ctl, "check"], check=False)
    assert r.returncode == 1
    assert '  monitors[0]: skipped: unknown share "Gone"\n' in \
        r.stdout.decode()
    # The daemon drops the same monitor.
    app.wait_log(r'monitors\[0\] skipped: unknown share "Gone"')
