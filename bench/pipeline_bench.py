#!/usr/bin/python3
"""End-to-end pipeline benchmark: yulotifyd against a minimal fanotify reader
and `inotifywait -m -r`.

Creates N files spread over D directories in one watched tree and measures,
for each watcher:

  events/s       created files delivered, divided by the time from the first
                 creation to the moment the last delivered line was seen in
                 the output file
  cpu s/1000 ev  the watcher's user+system CPU seconds (all threads) spent
                 from the first creation to the end, per 1,000 creations
  peak RSS       VmHWM of the watcher process at the end
  complete       whether every creation has its line; when the kernel queue
                 overflowed, whether the daemon wrote a rescan line for the
                 volume instead (inotifywait reports an overflow nowhere)

yulotifyd runs installed, through the end-to-end harness (tests/e2e): a 2 GiB
tmpfs volume /vol1, a share "Public" at /vol1/Public, one system monitor
queue watching "create" in that share, its queue file on the host. The D
directories are made before the daemon starts, so the queue file gets only
the file lines. The daemon writes lines once per processor pass (every 3
seconds), so its figure includes up to one pass of latency.

The peers are bench/min_fanotify_reader (a file-system mark, a cache of
directory handles, one JSON line and one write() per event: about the least
a fanotify watcher can do) and `inotifywait -m -r -e create --format '%w%f'
-o FILE DIR`, each on a tmpfs of the same size, mounted in this script's own private mount
namespace (the script re-executes itself under `unshare --mount`), so
nothing is left mounted on the host whatever happens.

Files are created by this script (open(O_CREAT)/close in a tight loop
relative to one directory descriptor per directory); the creation rate is
printed too, to show the creator is not what limits the figures.

Run as root on Debian 12, after building and installing a Release daemon:

    /usr/bin/python3 bench/pipeline_bench.py --prefix /tmp/yulo-bench
    /usr/bin/python3 bench/pipeline_bench.py --count 20000 --dirs 10

This is a benchmark, not a test: it always exits 0 once both sides ran,
whatever the figures (2 when it cannot run at all).
"""

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
REPO = HERE.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

import harness  # noqa: E402

NS_ENV = "YULO_PIPELINE_BENCH_NS"
CLK_TCK = os.sysconf("SC_CLK_TCK")
VOLUME = "/vol1"
SHARE = "/vol1/Public"
VOLUME_SIZE = "2g"
PASS_SECONDS = 3.0          # the daemon's processor pass interval
POLL_SECONDS = 0.01
EVENT_CREATE = 64
EVENT_RESCAN = 512
READER_NAME = "min fanotify reader"
READER = None                # set from --reader


class BenchError(Exception):
    pass


# ---------------------------------------------------------------------------
# /proc figures.

def cpu_seconds(pid):
    """utime + stime of the whole process (every thread), in seconds."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / CLK_TCK


def thread_cpu(pid):
    """{thread id: (comm, cpu seconds)} for every thread of the process."""
    out = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/stat" % (pid, tid)) as f:
                text = f.read()
        except OSError:
            continue
        comm = text[text.index("(") + 1:text.rindex(")")]
        fields = text.rsplit(")", 1)[1].split()
        out[int(tid)] = (comm, (int(fields[11]) + int(fields[12])) / CLK_TCK)
    return out


def status_kib(pid, key):
    """A kB figure of /proc/PID/status, e.g. "VmRSS" or "VmHWM"."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def rss_kib(pid):
    return status_kib(pid, "VmRSS")


def peak_rss_kib(pid):
    return status_kib(pid, "VmHWM")


# ---------------------------------------------------------------------------
# Workload.

def plan(count, dirs):
    """[(directory index, file name)]: files go round-robin over the dirs."""
    return [(i % dirs, "f%07d" % i) for i in range(count)]


def dir_name(index):
    return "d%03d" % index


def make_dirs(base, dirs):
    for d in range(dirs):
        os.mkdir(os.path.join(base, dir_name(d)))


def open_dirs(base, dirs):
    return [os.open(os.path.join(base, dir_name(d)), os.O_RDONLY | os.O_DIRECTORY)
            for d in range(dirs)]


def create_files(dir_fds, files):
    """Creates the files; returns (start, end) monotonic times."""
    flags = os.O_CREAT | os.O_WRONLY | os.O_CLOEXEC
    opn, cls = os.open, os.close
    fds = dir_fds
    start = time.monotonic()
    for d, name in files:
        cls(opn(name, flags, 0o644, dir_fd=fds[d]))
    return start, time.monotonic()


class Tail:
    """Reads the complete lines appended to a file since the last call."""

    def __init__(self, path, offset=0):
        self.path = path
        self.offset = offset
        self.rest = b""
        self.f = None

    def lines(self):
        if self.f is None:
            try:
                self.f = open(self.path, "rb")
            except FileNotFoundError:
                return []
            self.f.seek(self.offset)
        data = self.f.read()
        if not data:
            return []
        self.offset += len(data)
        data = self.rest + data
        cut = data.rfind(b"\n") + 1
        self.rest = data[cut:]
        return data[:cut].splitlines()

    def close(self):
        if self.f is not None:
            self.f.close()


class Result:
    def __init__(self, name, count):
        self.name = name
        self.count = count
        self.create_start = self.create_end = self.last_line = None
        self.delivered = 0          # distinct expected paths seen
        self.duplicates = 0
        self.other_lines = 0        # lines for anything else
        self.rescans = []           # rescan paths (daemon only)
        self.overflow_logged = False   # daemon only: it logged an overflow
        self.cpu = 0.0
        self.threads = []           # [(thread id, cpu seconds)]
        self.peak_rss = 0
        self.idle_rss = 0
        self.timed_out = False

    @property
    def elapsed(self):
        if self.last_line is None:
            return None
        return self.last_line - self.create_start

    @property
    def rate(self):
        e = self.elapsed
        return self.delivered / e if e else 0.0

    @property
    def create_rate(self):
        return self.count / max(self.create_end - self.create_start, 1e-9)

    @property
    def complete(self):
        return self.delivered == self.count

    def complete_text(self, rescan_path=None):
        if self.complete:
            return "yes"
        if rescan_path is not None and rescan_path in self.rescans:
            return "no, rescan"
        return "no"


def follow(tail, result, expected, parse, quiet, timeout, pid=None):
    """Reads the output until every expected path is in, or nothing new came
    for `quiet` seconds after the creation ended, or `timeout` passed."""
    seen = set()
    last_growth = time.monotonic()
    deadline = result.create_start + timeout
    while True:
        lines = tail.lines()
        now = time.monotonic()
        if lines:
            last_growth = now
            for raw in lines:
                path, rescan = parse(raw)
                if rescan is not None:
                    result.rescans.append(rescan)
                    result.last_line = now
                elif path in expected:
                    if path in seen:
                        result.duplicates += 1
                    else:
                        seen.add(path)
                        result.last_line = now
                else:
                    result.other_lines += 1
            if len(seen) == len(expected):
                break
        elif now - last_growth > quiet:
            break
        if now > deadline:
            result.timed_out = True
            break
        if pid is not None and not os.path.exists("/proc/%d" % pid):
            raise BenchError("%s ended during the run" % result.name)
        time.sleep(POLL_SECONDS)
    result.delivered = len(seen)


# ---------------------------------------------------------------------------
# yulotifyd.

CREATE_PREFIX = b'{"event":64,"is_dir":false,"path":"'


def parse_queue_line(raw):
    """(path of a create line, None) or (None, rescan path)."""
    # The benchmark's own names need no escaping: slicing them out keeps the
    # measuring process from competing with the watchers for the CPU.
    if raw.startswith(CREATE_PREFIX) and raw.endswith(b'"}') and b"\\" not in raw:
        return raw[len(CREATE_PREFIX):-2].decode(), None
    try:
        obj = json.loads(raw)
    except ValueError:
        return None, None
    event = obj.get("event")
    if event == EVENT_CREATE:
        return obj.get("path"), None
    if event == EVENT_RESCAN:
        return None, obj.get("path", "")
    return None, None


def run_daemon(args, work):
    result = Result("yulotifyd", args.count)
    files = plan(args.count, args.dirs)
    expected = {"%s/%s/%s" % (SHARE, dir_name(d), n) for d, n in files}
    app = harness.Appliance(work / "appliance", prefix=args.prefix)
    dir_fds = []
    tail = None
    try:
        app.add_volume(1, VOLUME, size=VOLUME_SIZE)
        app.add_share("Public", SHARE)
        queue = app.queue_path("bench.queue")
        app.add_queue("system", "bench.json", queue,
                      [harness.monitor("Public", events=["create"])])
        # Other consumers' subscriptions, on shares of their own: they must
        # cost the watched share's events nothing.
        for i in range(1, args.queues):
            name = "Other%03d" % i
            app.add_share(name, "%s/%s" % (VOLUME, name))
            app.add_queue("system", "other%03d.json" % i,
                          app.queue_path("other%03d.queue" % i),
                          [harness.monitor(name, events=["create"])])
        app.start(before_exec=lambda a: make_dirs(a.ns_path(SHARE), args.dirs))
        app.wait_ready()
        # Let one processor pass go by, so that whatever the daemon writes
        # at start is behind the offset the measurement reads from.
        time.sleep(PASS_SECONDS + 0.5)
        app.assert_running()
        offset = queue.stat().st_size if queue.exists() else 0
        tail = Tail(queue, offset)
        dir_fds = open_dirs(app.ns_path(SHARE), args.dirs)
        pid = app.pid
        result.idle_rss = rss_kib(pid)
        cpu0 = cpu_seconds(pid)
        threads0 = thread_cpu(pid)
        result.create_start, result.create_end = create_files(dir_fds, files)
        follow(tail, result, expected, parse_queue_line,
               quiet=args.quiet, timeout=args.timeout, pid=pid)
        result.cpu = cpu_seconds(pid) - cpu0
        threads1 = thread_cpu(pid)
        result.threads = [(tid, cpu - threads0.get(tid, (comm, 0.0))[1])
                          for tid, (comm, cpu) in sorted(threads1.items())]
        result.peak_rss = peak_rss_kib(pid)
        result.overflow_logged = app.count_logs(r"overflow") > 0
    finally:
        for fd in dir_fds:
            os.close(fd)
        if tail is not None:
            tail.close()
        app.stop()
    return result


# ---------------------------------------------------------------------------
# Peers: inotifywait and the minimal fanotify reader, each on a tmpfs of its
# own in this script's private mount namespace.

def inotifywait_argv(base, out):
    return ["inotifywait", "-m", "-r", "-e", "create", "--format", "%w%f",
            "-o", str(out), str(base)]


def reader_argv(base, out):
    return [str(READER), str(base), str(out)]


def parse_peer_line(raw):
    """inotifywait writes bare paths, the reader JSON lines."""
    if raw.startswith(b"{"):
        path, rescan = parse_queue_line(raw)
        return (path.encode() if path is not None else None), rescan
    return raw, None


def run_peer(args, work, name, make_argv):
    result = Result(name, args.count)
    mnt = work / ("peer-vol-%d" % len(os.listdir(work)))
    mount_peer_volume(mnt)
    proc = None
    dir_fds = []
    tail = None
    try:
        base = mnt / "Public"
        base.mkdir()
        make_dirs(base, args.dirs)
        files = plan(args.count, args.dirs)
        expected = {("%s/%s/%s" % (base, dir_name(d), n)).encode()
                    for d, n in files}
        out = work / ("%s.out" % name.split()[0])
        err = work / ("%s.err" % name.split()[0])
        with open(err, "wb") as errf:
            proc = subprocess.Popen(
                make_argv(base, out), stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=errf)
        if make_argv is reader_argv:
            ok = proc.stdout.readline() == b"ready\n"
        else:
            ok = harness.wait_until(
                lambda: b"Watches established." in err.read_bytes()
                or proc.poll() is not None, 30)
        if proc.poll() is not None or not ok:
            raise BenchError("%s did not set up its watches: %s"
                             % (name, err.read_text(errors="replace")))
        tail = Tail(out)
        dir_fds = open_dirs(base, args.dirs)
        result.idle_rss = rss_kib(proc.pid)
        cpu0 = cpu_seconds(proc.pid)
        result.create_start, result.create_end = create_files(dir_fds, files)
        follow(tail, result, expected, parse_peer_line,
               quiet=args.quiet, timeout=args.timeout, pid=proc.pid)
        result.cpu = cpu_seconds(proc.pid) - cpu0
        result.peak_rss = peak_rss_kib(proc.pid)
    finally:
        for fd in dir_fds:
            os.close(fd)
        if tail is not None:
            tail.close()
        end_peer(proc, mnt)
    return result


def mount_peer_volume(mnt):
    """Mounts a tmpfs of the daemon's volume size at the directory `mnt`
    (this script's private namespace: it goes with the script)."""
    mnt.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o",
                    "mode=0755,size=%s" % VOLUME_SIZE, "tmpfs", str(mnt)],
                   check=True)


def end_peer(proc, mnt):
    """Stops a peer (SIGTERM, SIGKILL after 10 s) and unmounts its tmpfs."""
    if proc is not None and proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    subprocess.run(["umount", str(mnt)], check=False)


# ---------------------------------------------------------------------------
# Report.

def report(results, args):
    print()
    print("%d file creations over %d directories, one watched tree; "
          "yulotifyd from %s with %d monitor queue(s)"
          % (args.count, args.dirs, args.prefix, args.queues))
    print()
    base = next((r for r in results if r.name == READER_NAME), None)
    base_cost = (base.cpu / max(base.delivered, 1)) if base else None
    print("  %-20s %10s %12s %8s %10s %10s %8s   %s"
          % ("peer", "events/s", "cpu us/line", "ratio", "idle RSS",
             "peak RSS", "last+s", "complete"))
    for r in results:
        rescan = VOLUME if r.name == "yulotifyd" else None
        cost = r.cpu / max(r.delivered, 1)
        ratio = ("%8.2f" % (cost / base_cost)) if base_cost else "%8s" % "-"
        after = ("%8.2f" % (r.last_line - r.create_end)
                 if r.last_line is not None else "%8s" % "-")
        print("  %-20s %10.0f %12.2f %s %6.1f MiB %6.1f MiB %s   %s"
              % (r.name, r.rate, cost * 1e6, ratio, r.idle_rss / 1024.0,
                 r.peak_rss / 1024.0, after, r.complete_text(rescan)))
    print()
    print("  cpu us/line: the watcher's CPU time (all threads) per delivered "
          "line; ratio: against %s;" % READER_NAME)
    print("  last+s: seconds from the last creation to the last line")
    print()
    for r in results:
        print("%s:" % r.name)
        print("  creation: %.2f s (%.0f files/s)"
              % (r.create_end - r.create_start, r.create_rate))
        if r.elapsed is None:
            print("  no expected line arrived")
        else:
            print("  first creation -> last line: %.2f s" % r.elapsed)
        print("  creations delivered: %d of %d (%.1f%%), duplicates %d, "
              "other lines %d"
              % (r.delivered, r.count, 100.0 * r.delivered / r.count,
                 r.duplicates, r.other_lines))
        if r.name == "yulotifyd":
            print("  rescan lines: %s"
                  % (", ".join(r.rescans) if r.rescans else "none"))
            print("  kernel overflow logged: %s"
                  % ("yes" if r.overflow_logged else "no"))
        elif not r.complete:
            print("  (lines missing: the inotify queue overflowed; "
                  "inotifywait does not report it)")
        print("  cpu: %.2f s" % r.cpu
              + ("" if not r.threads else " (per thread id: " + ", ".join(
                  "%d %.2f" % t for t in r.threads) + ")"))
        if r.timed_out:
            print("  stopped waiting after %.0f s" % args.timeout)
    print()


# ---------------------------------------------------------------------------

def check_root_and_tools(tools=("unshare", "nsenter", "mount", "umount")):
    """Raises BenchError unless this runs as root with `tools` on PATH."""
    if os.geteuid() != 0:
        raise BenchError("must run as root (mount namespaces, tmpfs)")
    for tool in tools:
        if shutil.which(tool) is None:
            raise BenchError("%s is not installed" % tool)


def find_reader(value):
    """The min_fanotify_reader binary: `value`, else
    $YULOTIFYD_BENCH_READER; BenchError if it is not an executable file."""
    reader = Path(value or os.environ.get("YULOTIFYD_BENCH_READER", ""))
    if not (reader.is_file() and os.access(reader, os.X_OK)):
        raise BenchError("min_fanotify_reader not found: build it with "
                         "cmake --build BUILD --target min_fanotify_reader "
                         "and pass --reader BUILD/bench/min_fanotify_reader")
    return reader


def enter_private_namespace(script=__file__):
    """Re-executes `script` (this one by default) with the same arguments in
    a private mount namespace of its own."""
    if os.environ.get(NS_ENV) == "1":
        return
    if shutil.which("unshare") is None:
        raise BenchError("unshare (util-linux) is not installed")
    env = dict(os.environ, **{NS_ENV: "1"})
    argv = ["unshare", "--mount", "--propagation", "private", "--",
            sys.executable, str(Path(script).resolve())] + sys.argv[1:]
    sys.stdout.flush()
    os.execvpe("unshare", argv, env)


def main():
    parser = argparse.ArgumentParser(
        description="yulotifyd end-to-end pipeline benchmark against "
                    "inotifywait -m -r")
    parser.add_argument("--prefix", default=None,
                        help="install prefix of yulotifyd "
                             "(default: $YULOTIFYD_PREFIX)")
    parser.add_argument("--count", type=int, default=200000,
                        help="files to create (default 200000)")
    parser.add_argument("--dirs", type=int, default=100,
                        help="directories to spread them over (default 100)")
    parser.add_argument("--queues", type=int, default=1,
                        help="monitor queues of the daemon; all but one "
                             "watch other shares (default 1)")
    parser.add_argument("--only", choices=("daemon", "peers"),
                        help="run the daemon only, or the peers only")
    parser.add_argument("--reader", default=None,
                        help="the min_fanotify_reader binary (default: "
                             "PREFIX/../build/bench/min_fanotify_reader or "
                             "$YULOTIFYD_BENCH_READER)")
    parser.add_argument("--quiet", type=float, default=3 * PASS_SECONDS + 1,
                        help="seconds without a new line after which a side "
                             "counts as done (default 10)")
    parser.add_argument("--timeout", type=float, default=300,
                        help="longest wait for one side, in seconds")
    parser.add_argument("--keep", action="store_true",
                        help="keep the work directory (queue file, logs)")
    args = parser.parse_args()
    if args.count < 1 or args.dirs < 1:
        parser.error("--count and --dirs must be positive")

    try:
        check_root_and_tools()
        if args.only != "daemon" and shutil.which("inotifywait") is None:
            raise BenchError("inotifywait is missing: "
                             "apt-get install -y inotify-tools")
        global READER
        if args.only != "daemon":
            READER = find_reader(args.reader)
        args.prefix = harness.find_prefix(args.prefix)
        harness.daemon_binary(args.prefix)
        enter_private_namespace()
    except (BenchError, harness.HarnessError) as e:
        print("pipeline_bench: %s" % e, file=sys.stderr)
        return 2

    work = Path(tempfile.mkdtemp(prefix="yulo-pipeline-bench-"))
    results = []
    try:
        if args.only != "peers":
            print("yulotifyd: %d creations ..." % args.count, flush=True)
            results.append(run_daemon(args, work))
        if args.only in (None, "peers"):
            print("%s: %d creations ..." % (READER_NAME, args.count), flush=True)
            results.append(run_peer(args, work, READER_NAME, reader_argv))
            print("inotifywait: %d creations ..." % args.count, flush=True)
            results.append(run_peer(args, work, "inotifywait -m -r",
                                    inotifywait_argv))
    except (BenchError, harness.HarnessError, AssertionError) as e:
        print("pipeline_bench: %s" % e, file=sys.stderr)
        return 2
    finally:
        if args.keep:
            print("work directory kept: %s" % work)
        else:
            shutil.rmtree(work, ignore_errors=True)
    report(results, args)
    return 0


if __name__ == "__main__":
    sys.exit(main())
