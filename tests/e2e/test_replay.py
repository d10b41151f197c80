"""A consumer that replays the queue lines ends with the tree on disk.

Each test runs one everyday workload (an archiver, a version-control
checkout, a mirror, log rotation, atomic saves, directories moved across
the share's edge, a daemon that falls behind) on a watched share with a
fresh daemon, waits until the queue is quiet, replays every line with the
reference consumer of replay_model.py onto the listing taken at start, and
requires the model to equal the tree. Rescan lines must stay rare and
meaningful: none where the kernel's report leaves no doubt, and otherwise
only for directories below the share that the workload touched, never the
share or the volume unless the kernel queue overflowed.

Each test prints one summary line (run pytest with -s to see them):
    replay <workload>: lines=N rescans=N missing=N extra=N kind=N ...
and, with REPLAY_DUMP=1 in the environment, every line it replayed.
"""

import logging
import logging.handlers
import os
import signal
import subprocess
import time
from contextlib import contextmanager
from pathlib import Path

import pytest

from harness import kernel_queue_limit, monitor, wait_lines, wait_until
from replay_model import Replay

VOLUME = "/vol1"
SHARE = "/vol1/Share"
ELSEWHERE = "/vol1/elsewhere"  # same volume, not shared
# Longer than one pass of the volume's processor (every 3 seconds).
QUIET = 3.5
SETTLE_TIMEOUT = 90.0
MARKER = SHARE + "/.replay-settled"
GIT = ["git", "-c", "user.name=Replay", "-c", "user.email=replay@example.org",
       "-c", "init.defaultBranch=main", "-c", "advice.detachedHead=false"]


class Workload:
    """One fresh daemon watching SHARE recursively for the codes a tree
    consumer needs, and the replay of its queue.

    `mount(app)`, when given, mounts the volume in the daemon's namespace
    before it starts (a real file system) instead of the harness's tmpfs;
    SHARE and ELSEWHERE are then made on it."""

    def __init__(self, app, name: str, mount=None):
        self.app = app
        self.name = name
        self.queue = app.queue_path("replay.queue")
        self.mount = mount
        app.add_volume(1, VOLUME, mounted=mount is None)
        app.add_share("Share", SHARE)
        app.dirs.append(ELSEWHERE)
        app.add_queue("system", "replay.json", self.queue,
                      [monitor("Share",
                               events=["create", "delete", "move", "rescan"])])
        self.replay = None

    def start(self, prepare=None):
        """Starts the daemon; `prepare(workload)` fills the volume first,
        unseen by the daemon. The model starts as the listing of the share
        once the daemon is ready, as a consumer's first scan would."""
        def before_exec(_):
            if self.mount is not None:
                self.mount(self.app)
                self.run(["mkdir", "-p", SHARE, ELSEWHERE])
            if prepare is not None:
                prepare(self)

        self.app.start(before_exec=before_exec)
        self.app.wait_ready()
        self.replay = Replay(SHARE, to_host=lambda p: str(self.app.ns_path(p)))
        return self

    def host(self, path: str) -> Path:
        """A path as the daemon sees it, reachable from this process."""
        return self.app.ns_path(path)

    def run(self, argv, **kwargs):
        """Runs a command in the daemon's namespace; it must succeed."""
        return self.app.run_in_ns(argv, timeout=120, **kwargs)

    @contextmanager
    def stopped(self, seconds: float = 2.0):
        """Runs the body with the daemon stopped (SIGSTOP), as a busy
        machine would hold it back, for at least `seconds`."""
        os.kill(self.app.pid, signal.SIGSTOP)
        until = time.monotonic() + seconds
        try:
            yield
            time.sleep(max(0.0, until - time.monotonic()))
        finally:
            os.kill(self.app.pid, signal.SIGCONT)

    def settle(self) -> list:
        """Waits until every line of the workload is written (see settle
        below); returns the queue's lines."""
        return settle(self.app, self.queue, MARKER)

    def check(self, rescans_below=(), volume_rescan=False):
        """Replays the queue and asserts that the model equals the tree.

        rescans_below: directories (strictly below the share) whose paths,
        or paths below them, rescan lines may name; empty: no rescan line
        at all. volume_rescan: the kernel queue overflowed, so a rescan of
        the volume is right too.
        """
        self.app.assert_running()
        lines = self.settle()
        self.replay.apply_all(lines)
        if os.environ.get("REPLAY_DUMP") == "1":  # for looking into a failure
            print("\n".join(map(str, lines)))
        diff = self.replay.difference()
        rescans = self.replay.rescans
        print("\nreplay %s: lines=%d rescans=%d missing=%d extra=%d kind=%d "
              "inconsistencies=%d rescan paths=%r"
              % (self.name, len(lines), len(rescans), len(diff.missing),
                 len(diff.extra), len(diff.kind),
                 len(self.replay.inconsistencies), sorted(set(rescans))[:8]))
        assert not diff, "%s: model differs from the tree: %s; first " \
            "inconsistencies: %r" % (self.name, diff.summary(),
                                     self.replay.inconsistencies[:5])
        wrong = [p for p in rescans
                 if not (volume_rescan and p == VOLUME) and
                 not any(p == d or p.startswith(d + "/")
                         for d in rescans_below)]
        assert not wrong, "%s: rescans outside %r: %r" % (
            self.name, list(rescans_below) + ([VOLUME] if volume_rescan
                                              else []), wrong[:10])


def settle(app, queue, marker: str) -> list:
    """Waits until every line of a workload is written to `queue`: a
    `marker` file (a path in the daemon's namespace) created after it has
    its line (lines of one volume keep the kernel's order), then no new
    line for one processor pass. Returns the queue's lines."""
    app.ns_path(marker).write_text("")
    wait_lines(app, queue, lambda ls: any(l.get("path") == marker for l in ls),
               timeout=SETTLE_TIMEOUT)
    last = [queue.stat().st_size, time.monotonic()]

    def quiet():
        size = queue.stat().st_size
        now = time.monotonic()
        if size != last[0]:
            last[:] = [size, now]
        return now - last[1] >= QUIET

    assert wait_until(quiet, SETTLE_TIMEOUT, interval=0.1), \
        "queue never went quiet" + app.diagnostics()
    return app.read_queue(queue)


@pytest.fixture
def workload(make_appliance, request):
    return Workload(make_appliance(), request.node.name[len("test_"):])


def write_files(root: Path, dirs: int, per_dir: int, tag: str = ""):
    """A tree of `dirs` directories two levels deep (d00/s0, ...) with
    `per_dir` small files each."""
    for i in range(dirs):
        d = root / ("d%02d" % (i // 2)) / ("s%d" % (i % 2))
        d.mkdir(parents=True, exist_ok=True)
        for j in range(per_dir):
            (d / ("f%03d.txt" % j)).write_text("%s %d %d\n" % (tag, i, j))


# 40 directories of 50 files: 2,000 files.
TREE_DIRS, TREE_FILES = 40, 50


def archive_of_share_tree(w, archive: Path):
    """Writes a tree of 2,000 files at SHARE/tree and an archive of it."""
    write_files(w.host(SHARE + "/tree"), TREE_DIRS, TREE_FILES)
    w.run(["tar", "-cf", str(archive), "-C", SHARE, "tree"])


def test_tar_x_over_the_same_tree(workload, tmp_path):
    archive = tmp_path / "tree.tar"
    workload.start(lambda w: archive_of_share_tree(w, archive))
    # GNU tar unlinks each existing file and creates it again.
    workload.run(["tar", "-xf", str(archive), "-C", SHARE])
    workload.check(rescans_below=[SHARE + "/tree"])


def test_tar_x_over_the_same_tree_then_rm_half(workload, tmp_path):
    archive = tmp_path / "tree.tar"
    workload.start(lambda w: archive_of_share_tree(w, archive))
    workload.run(["tar", "-xf", str(archive), "-C", SHARE])
    workload.run(["rm", "-rf"] + ["%s/tree/d%02d" % (SHARE, i)
                                  for i in range(0, TREE_DIRS // 2, 2)] +
                 ["%s/tree/d%02d/s1" % (SHARE, i)
                  for i in range(1, TREE_DIRS // 2, 2)])
    workload.check(rescans_below=[SHARE + "/tree"])


def test_tar_x_into_an_empty_directory(workload, tmp_path):
    source = tmp_path / "source"
    write_files(source / "tree", TREE_DIRS, TREE_FILES)
    archive = tmp_path / "tree.tar"
    subprocess.run(["tar", "-cf", str(archive), "-C", str(source), "tree"],
                   check=True)
    workload.start()
    workload.host(SHARE + "/restore").mkdir()
    workload.run(["tar", "-xf", str(archive), "-C", SHARE + "/restore"])
    workload.check()


def test_bulk_creates(workload):
    workload.start()
    write_files(workload.host(SHARE + "/bulk"), 20, 100)
    workload.check()


def git(repo: Path, *args) -> str:
    return subprocess.run(GIT + ["-C", str(repo)] + list(args), check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE
                          ).stdout.decode().strip()


def make_repository(repo: Path) -> dict:
    """A repository of a few hundred files over several commits and a
    branch; returns the commits to check out by name."""
    repo.mkdir()
    git(repo, "init", "-q")
    write_files(repo / "src", 16, 15, "v1")
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "first")
    first = git(repo, "rev-parse", "HEAD")
    for i in range(0, 16, 3):  # change, delete and add files; move a dir
        d = repo / "src" / ("d%02d" % (i // 2)) / ("s%d" % (i % 2))
        for j in range(0, 15, 2):
            (d / ("f%03d.txt" % j)).write_text("v2 %d %d\n" % (i, j))
        (d / "f001.txt").unlink()
        (d / "new.txt").write_text("new %d\n" % i)
    os.rename(repo / "src" / "d07", repo / "src" / "moved")
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "second")
    second = git(repo, "rev-parse", "HEAD")
    write_files(repo / "docs", 4, 10, "v3")
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "third")
    git(repo, "checkout", "-qb", "topic", first)
    write_files(repo / "src", 6, 15, "topic")
    git(repo, "rm", "-rq", "src/d05")
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "topic")
    git(repo, "checkout", "-q", "main")
    return {"first": first, "second": second}


def test_git_clone_then_checkouts(workload, tmp_path):
    commits = make_repository(tmp_path / "repo")
    workload.start()
    clone = SHARE + "/clone"
    workload.run(GIT + ["clone", "-q", str(tmp_path / "repo"), clone])
    for target in (commits["first"], "topic", commits["second"]):
        workload.run(GIT + ["-C", clone, "checkout", "-q", target])
    workload.check(rescans_below=[clone])


def test_directories_moved_in_and_out(workload):
    def prepare(w):
        incoming = w.host(ELSEWHERE + "/incoming")
        incoming.mkdir()
        for j in range(40):
            (incoming / ("f%02d" % j)).write_text("i")
        (incoming / "sub").mkdir()
        for j in range(10):
            (incoming / "sub" / ("g%02d" % j)).write_text("g")
        write_files(w.host(SHARE + "/outgoing"), 2, 10)

    workload.start(prepare)
    os.rename(workload.host(ELSEWHERE + "/incoming"),
              workload.host(SHARE + "/incoming"))
    os.rename(workload.host(SHARE + "/outgoing"),
              workload.host(ELSEWHERE + "/outgoing"))
    workload.check(rescans_below=[SHARE + "/incoming"])


def test_directory_renamed_while_the_daemon_is_stopped(workload):
    def prepare(w):
        for n in range(3):
            job = w.host("%s/jobs/job%d" % (SHARE, n))
            job.mkdir(parents=True)
            for j in range(10):
                (job / ("in%02d" % j)).write_text("x")

    workload.start(prepare)
    with workload.stopped():
        for n in range(3):
            job = workload.host("%s/jobs/job%d" % (SHARE, n))
            for j in range(10):
                (job / ("in%02d" % j)).unlink()
            for j in range(3):
                (job / ("out%02d" % j)).write_text("y")
            os.rename(job, job.with_name("job%d-done" % n))
    workload.check(rescans_below=[SHARE + "/jobs"])


class CountingHandler(logging.handlers.RotatingFileHandler):
    rollovers = 0

    def doRollover(self):
        self.rollovers += 1
        super().doRollover()


def test_log_rotation_while_the_daemon_is_stopped(workload):
    workload.start(lambda w: w.host(SHARE + "/logs").mkdir())
    log = logging.Logger("replay-rotation")
    with workload.stopped():
        # An application starting up and logging fast, rotating its log.
        handler = CountingHandler(str(workload.host(SHARE + "/logs/app.log")),
                                  maxBytes=400, backupCount=3)
        log.addHandler(handler)
        try:
            while handler.rollovers < 90:
                log.error("a line of the application's log, long enough")
        finally:
            handler.close()
    workload.check(rescans_below=[SHARE + "/logs"])


def test_rsync_then_rsync_delete_after_changes(workload, tmp_path):
    source = tmp_path / "source"
    write_files(source, 20, 50)
    workload.start()
    workload.run(["rsync", "-a", str(source) + "/", SHARE + "/mirror/"])
    for i in range(0, 20, 4):
        d = source / ("d%02d" % (i // 2)) / ("s%d" % (i % 2))
        for j in range(0, 50, 5):
            (d / ("f%03d.txt" % j)).write_text("changed, and longer %d\n" % j)
        (d / "f001.txt").unlink()
        (d / "added.txt").write_text("added")
    subprocess.run(["rm", "-rf", str(source / "d09")], check=True)
    write_files(source / "d10", 2, 10)
    workload.run(["rsync", "-a", "--delete", str(source) + "/",
                  SHARE + "/mirror/"])
    workload.check()


def test_atomic_save_loop(workload):
    workload.start(lambda w: w.host(SHARE + "/docs").mkdir())
    docs = workload.host(SHARE + "/docs")
    for i in range(2000):
        target = docs / ("doc%d.txt" % (i % 4))
        temporary = docs / (".doc%d.txt.tmp" % (i % 4))
        temporary.write_text("version %d\n" % i)
        os.rename(temporary, target)
    workload.check()


def overflow_workload(w, old=(4, 20), new=(10, 30)):
    """A daemon whose kernel queue overflows while it is stopped, amid
    creations, a removal and a rename: the replay still gives the tree,
    with the volume's rescan. `old` and `new`: directories and files per
    directory (write_files) before and while it is stopped."""
    with kernel_queue_limit(64):  # taken when the daemon opens fanotify
        w.start(lambda w: write_files(w.host(SHARE + "/old"), *old))
    share = w.host(SHARE)
    with w.stopped(0):
        write_files(share / "new", *new)
        subprocess.run(["rm", "-rf", str(share / "old" / "d00")], check=True)
        os.rename(share / "old" / "d01", share / "renamed")
    w.app.wait_log(r"Recieve overflow event vol: /vol1$")
    w.check(rescans_below=[SHARE + "/old", SHARE + "/new", SHARE + "/renamed"],
            volume_rescan=True)
    assert VOLUME in w.replay.rescans


def test_kernel_queue_overflow(workload):
    overflow_workload(workload)
