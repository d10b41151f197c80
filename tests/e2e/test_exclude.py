"""Exclude patterns and monitors given by path, end to end: noise a
consumer does not want never reaches its queue file, renames across
excluded names keep their meaning, and a directory can be watched without
any Samba share."""

import os

from harness import monitor, wait_lines

NOISE = ["@eaDir", ".DS_Store", "Thumbs.db", "~$*", "*.part", "*.swp",
         ".~lock.*"]


def paths_of(lines):
    return [(l["event"], l["path"], l.get("path_old")) for l in lines]


def test_excluded_names_never_reach_the_queue(appliance):
    app = appliance
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    m = monitor("Public", events=["create", "delete", "move"])
    m["exclude"] = NOISE
    q = app.queue_path("indexer.queue")
    app.add_queue("system", "10-indexer.json", q, [m])
    app.start()
    app.wait_ready()

    share = app.ns_path("/vol1/Public")
    (share / "@eaDir").mkdir()
    (share / "@eaDir" / "thumb.jpg").write_text("x")
    (share / "photos").mkdir()
    (share / "photos" / ".DS_Store").write_text("x")
    (share / "photos" / "Thumbs.db").write_text("x")
    (share / "photos" / "a.jpg").write_text("x")
    (share / "~$report.docx").write_text("x")
    (share / "report.docx").write_text("x")
    # A download lands under an excluded name, then takes its real one: a
    # create of the real name. The reverse is a delete of the real name.
    (share / "film.mkv.part").write_text("x")
    os.rename(share / "film.mkv.part", share / "film.mkv")
    os.rename(share / "report.docx", share / ".report.docx.swp")
    (share / "done").write_text("x")

    lines = wait_lines(app, q, lambda ls: any(
        l.get("path") == "/vol1/Public/done" for l in ls))
    got = paths_of(lines)
    assert got == [
        (64, "/vol1/Public/photos", None),
        (64, "/vol1/Public/photos/a.jpg", None),
        (64, "/vol1/Public/report.docx", None),
        (64, "/vol1/Public/film.mkv", None),
        (128, "/vol1/Public/report.docx", None),
        (64, "/vol1/Public/done", None),
    ], got


def test_a_monitor_by_path_needs_no_share(appliance):
    app = appliance
    app.add_volume(1, "/vol1")
    app.dirs.append("/vol1/data/projects")
    app.dirs.append("/vol1/data/other")
    # No smb.conf share at all.
    q = app.queue_path("backup.queue")
    app.add_queue("system", "10-backup.json", q, [
        {"path": "/vol1/data/projects",
         "events": ["create", "delete", "move"],
         "exclude": ["build/*"]}])
    app.start()
    app.wait_ready()

    data = app.ns_path("/vol1/data")
    (data / "other" / "ignored").write_text("x")
    (data / "projects" / "build").mkdir()
    (data / "projects" / "build" / "x.o").write_text("x")
    (data / "projects" / "main.c").write_text("x")
    os.rename(data / "projects" / "main.c", data / "projects" / "app.c")

    lines = wait_lines(app, q, lambda ls: any(
        l.get("event") == 256 for l in ls))
    assert paths_of(lines) == [
        (64, "/vol1/data/projects/build", None),
        (64, "/vol1/data/projects/main.c", None),
        (256, "/vol1/data/projects/app.c", "/vol1/data/projects/main.c"),
    ], lines
