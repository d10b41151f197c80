#!/usr/bin/python3
"""`tar -x` over an existing tree: yulotifyd against the minimal fanotify
reader.

A tree of N files over D directories is archived and then extracted over
itself, twice, on a watched tmpfs. GNU tar unlinks each existing file and
creates it again, so every file gives a deletion and a creation that the
kernel merges while they wait unread: the case where the daemon looks at
the file system to put the two back in order. For each watcher it prints

  lines          lines the watcher wrote for one extraction
  cpu us/line    the watcher's CPU time (all threads, nanoseconds on the CPU
                 from /proc/PID/task/*/schedstat) from the start of the
                 extraction until its output was quiet, per line; first
                 extraction
  syscalls/line  system calls the watcher made (perf stat, tracepoint
                 raw_syscalls:sys_enter, all threads) per line; second
                 extraction, so that counting does not touch the CPU figure

and the daemon's ratios to the reader, measured in the same run.

yulotifyd runs installed, through the end-to-end harness: a tmpfs volume
/vol1, a share "Public", one queue wanting create, delete, move and rescan
in it. The reader (bench/min_fanotify_reader --tree) marks creations,
deletions and both halves of moves and writes one unpaired line per kind
reported, on a tmpfs of its own in this script's private mount namespace.
The daemon writes lines once per processor pass (every 3 seconds): its
output counts as quiet after --quiet seconds without growth.

    /usr/bin/python3 bench/tarx_bench.py --prefix /tmp/yulo-bench \\
        --reader build-bench/bench/min_fanotify_reader

A benchmark, not a test: it exits 0 once both sides ran, whatever the
figures (2 when it cannot run at all).
"""

import argparse
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import pipeline_bench as pb  # noqa: E402
from pipeline_bench import BenchError, Tail  # noqa: E402

harness = pb.harness
VOLUME = "/vol1"
SHARE = "/vol1/Public"
EXTRACTIONS = 2


class Side:
    def __init__(self, name):
        self.name = name
        self.lines = []        # per extraction
        self.cpu = 0.0         # seconds, first extraction
        self.syscalls = None   # second extraction
        self.seconds = []      # extraction start to quiet output

    @property
    def cpu_per_line(self):
        return self.cpu / max(self.lines[0], 1)

    @property
    def syscalls_per_line(self):
        if self.syscalls is None:
            return None
        return self.syscalls / max(self.lines[-1], 1)


def cpu_seconds(pid: int) -> float:
    """Time the process's threads have spent on a CPU, in seconds, to the
    nanosecond (/proc/PID/stat counts 10 ms ticks, too coarse here)."""
    total = 0
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/schedstat" % (pid, tid)) as f:
                total += int(f.read().split()[0])
        except OSError:  # a thread that just ended
            continue
    return total / 1e9


def make_tree(base: Path, files: int, dirs: int):
    for i in range(files):
        d = base / ("d%03d" % (i % dirs))
        if i < dirs:
            d.mkdir(parents=True)
        (d / ("f%06d" % i)).write_bytes(b"%d\n" % i)


def wait_quiet(tail: Tail, quiet: float, timeout: float, pid: int) -> int:
    """Counts the lines the watcher writes until none came for `quiet`
    seconds."""
    count = 0
    last = time.monotonic()
    deadline = last + timeout
    while True:
        got = len(tail.lines())
        now = time.monotonic()
        if got:
            count += got
            last = now
        elif now - last >= quiet:
            return count
        if now > deadline:
            raise BenchError("output still growing after %.0f s" % timeout)
        if not os.path.exists("/proc/%d" % pid):
            raise BenchError("watcher %d ended during the run" % pid)
        time.sleep(pb.POLL_SECONDS)


def count_syscalls(pid: int):
    """Starts perf counting the system calls of process `pid` (all its
    threads); returns a function that stops it and gives the count."""
    out = tempfile.NamedTemporaryFile(prefix="tarx-perf-", delete=False)
    out.close()
    proc = subprocess.Popen(
        ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "-p", str(pid),
         "-o", out.name], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL)
    time.sleep(0.5)  # let perf attach before the work starts

    def stop() -> int:
        proc.send_signal(signal.SIGINT)
        proc.wait(timeout=30)
        try:
            for line in Path(out.name).read_text().splitlines():
                fields = line.split(",")
                if len(fields) > 2 and fields[2] == "raw_syscalls:sys_enter":
                    return int(fields[0])
        finally:
            os.unlink(out.name)
        raise BenchError("perf stat gave no count")
    return stop


def measure(side: Side, pid: int, tail: Tail, extract, args):
    """Runs the extractions: CPU over the first, system calls over the
    second."""
    for run in range(EXTRACTIONS):
        stop = count_syscalls(pid) if run == EXTRACTIONS - 1 else None
        cpu0 = cpu_seconds(pid)
        start = time.monotonic()
        extract()
        side.lines.append(wait_quiet(tail, args.quiet, args.timeout, pid))
        side.seconds.append(time.monotonic() - start - args.quiet)
        if run == 0:
            side.cpu = cpu_seconds(pid) - cpu0
        if stop is not None:
            side.syscalls = stop()


def run_daemon(args, work: Path) -> Side:
    side = Side("yulotifyd")
    archive = work / "daemon-tree.tar"
    app = harness.Appliance(work / "appliance", prefix=args.prefix)
    tail = None
    try:
        app.add_volume(1, VOLUME, size=pb.VOLUME_SIZE)
        app.add_share("Public", SHARE)
        queue = app.queue_path("bench.queue")
        app.add_queue("system", "bench.json", queue, [harness.monitor(
            "Public", events=["create", "delete", "move", "rescan"])])

        def prepare(a):
            make_tree(a.ns_path(SHARE) / "tree", args.files, args.dirs)
            subprocess.run(["tar", "-cf", str(archive), "-C",
                            str(a.ns_path(SHARE)), "tree"], check=True)
        app.start(before_exec=prepare)
        app.wait_ready()
        time.sleep(pb.PASS_SECONDS + 0.5)  # whatever comes at start, first
        tail = Tail(queue, queue.stat().st_size if queue.exists() else 0)
        measure(side, app.pid, tail,
                lambda: app.run_in_ns(["tar", "-xf", str(archive), "-C",
                                       SHARE], timeout=600), args)
        app.assert_running()
    finally:
        if tail is not None:
            tail.close()
        app.stop()
    return side


def run_reader(args, work: Path) -> Side:
    side = Side(pb.READER_NAME)
    mnt = work / "reader-vol"
    pb.mount_peer_volume(mnt)
    proc = None
    tail = None
    try:
        base = mnt / "Public"
        make_tree(base / "tree", args.files, args.dirs)
        archive = work / "reader-tree.tar"
        subprocess.run(["tar", "-cf", str(archive), "-C", str(base), "tree"],
                       check=True)
        out = work / "reader.out"
        proc = subprocess.Popen([str(args.reader), str(base), str(out),
                                 "--tree"], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE)
        if proc.stdout.readline() != b"ready\n":
            raise BenchError("%s did not start" % args.reader)
        tail = Tail(out)
        measure(side, proc.pid, tail,
                lambda: subprocess.run(["tar", "-xf", str(archive), "-C",
                                        str(base)], check=True), args)
    finally:
        if tail is not None:
            tail.close()
        pb.end_peer(proc, mnt)
    return side


def report(sides, args):
    print()
    print("tar -x of %d files over %d directories over the same tree; "
          "yulotifyd from %s" % (args.files, args.dirs, args.prefix))
    print()
    base = sides[-1]
    print("  %-20s %14s %12s %8s %14s %8s"
          % ("watcher", "lines", "cpu us/line", "ratio", "syscalls/line",
             "ratio"))
    for s in sides:
        spl = s.syscalls_per_line
        print("  %-20s %14s %12.2f %8.2f %14.2f %8.2f"
              % (s.name, "/".join(str(n) for n in s.lines),
                 s.cpu_per_line * 1e6, s.cpu_per_line / base.cpu_per_line,
                 spl, spl / base.syscalls_per_line))
    print()
    print("  lines: first/second extraction; cpu from the first, system "
          "calls from the second;")
    print("  ratio: against %s; extraction to quiet output: %s"
          % (base.name, "; ".join(
              "%s %s s" % (s.name, "/".join("%.1f" % x for x in s.seconds))
              for s in sides)))
    print()


def main():
    parser = argparse.ArgumentParser(
        description="tar -x over an existing tree: yulotifyd against the "
                    "minimal fanotify reader")
    parser.add_argument("--prefix", default=None,
                        help="install prefix of yulotifyd "
                             "(default: $YULOTIFYD_PREFIX)")
    parser.add_argument("--reader", default=None,
                        help="the min_fanotify_reader binary (default: "
                             "$YULOTIFYD_BENCH_READER)")
    parser.add_argument("--files", type=int, default=20000,
                        help="files in the tree (default 20000)")
    parser.add_argument("--dirs", type=int, default=100,
                        help="directories they are spread over (default 100)")
    parser.add_argument("--quiet", type=float, default=pb.PASS_SECONDS + 1.5,
                        help="seconds without a new line after which the "
                             "output counts as quiet (default 4.5)")
    parser.add_argument("--timeout", type=float, default=300,
                        help="longest wait for one extraction, in seconds")
    args = parser.parse_args()
    if args.files < args.dirs or args.dirs < 1:
        parser.error("--dirs must be positive and at most --files")
    try:
        pb.check_root_and_tools(("unshare", "nsenter", "mount", "umount",
                                 "tar", "perf"))
        args.reader = pb.find_reader(args.reader)
        args.prefix = harness.find_prefix(args.prefix)
        harness.daemon_binary(args.prefix)
        pb.enter_private_namespace(__file__)
    except (BenchError, harness.HarnessError) as e:
        print("tarx_bench: %s" % e, file=sys.stderr)
        return 2
    work = Path(tempfile.mkdtemp(prefix="yulo-tarx-bench-"))
    try:
        print("yulotifyd: tar -x of %d files, twice ..." % args.files,
              flush=True)
        sides = [run_daemon(args, work)]
        print("%s: the same ..." % pb.READER_NAME, flush=True)
        sides.append(run_reader(args, work))
    except (BenchError, harness.HarnessError, AssertionError,
            subprocess.CalledProcessError) as e:
        print("tarx_bench: %s" % e, file=sys.stderr)
        return 2
    finally:
        shutil.rmtree(work, ignore_errors=True)
    report(sides, args)
    return 0


if __name__ == "__main__":
    sys.exit(main())
