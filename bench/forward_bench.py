#!/usr/bin/python3
"""yulotify-forward throughput: lines per second and CPU per line forwarded
to nats-server with JetStream (file storage): a single server, and a
three-node cluster whose stream keeps three replicas, one after the other
in the same run.

A writer appends N queue lines of the daemon's shape
({"event":64,"is_dir":false,"path":"/vol1/Public/dNN/fNNNNNNN"}) to a queue
file, in chunks under the exclusive lock as the daemon does, while the
installed forwarder takes them; a run ends when the stream holds all N.
Prints, for each, lines/s (first line written to last line stored) and the
forwarder's CPU (user+system, all threads) in microseconds per line.
Needs no daemon and no root; the queue file, spool and server stores live
in a temporary directory (put it on the disk you want measured with --dir).
The servers are those of the end-to-end tests (tests/e2e/forward_harness.py).

    /usr/bin/python3 bench/forward_bench.py --prefix /tmp/yulo-bench
    /usr/bin/python3 bench/forward_bench.py --prefix /tmp/yulo-bench \\
        --count 1000000 --servers cluster
"""

import argparse
import fcntl
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

from forward_harness import (  # noqa: E402
    STREAM, SUBJECT, NatsCluster, NatsServer, stream_count)


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    tick = os.sysconf("SC_CLK_TCK")
    return (int(fields[11]) + int(fields[12])) / tick  # utime + stime


def run(args, prefix: Path, work: Path, servers, replicas: int) -> dict:
    """One forwarder moving args.count lines to `servers`; its figures."""
    queue = work / "q.queue"
    fwd = subprocess.Popen(
        [str(prefix / "bin" / "yulotify-forward"), *servers.client_args(),
         "--subject", SUBJECT, "--stream", STREAM,
         "--replicas", str(replicas), "--spool", str(work / "spool"),
         "--interval", "20", str(queue)],
        stderr=open(work / "forward.log", "wb"))
    try:
        while stream_count(prefix, servers) < 0:
            time.sleep(0.1)
        time.sleep(0.5)
        cpu0 = cpu_seconds(fwd.pid)
        start = time.monotonic()
        written = 0
        with open(queue, "ab") as f:
            while written < args.count:
                n = min(args.chunk, args.count - written)
                text = "".join(
                    '{"event":64,"is_dir":false,"path":"/vol1/Public/d%02d/f%07d"}\n'
                    % (i % 100, i) for i in range(written, written + n))
                fcntl.flock(f, fcntl.LOCK_EX)
                f.write(text.encode())
                f.flush()
                fcntl.flock(f, fcntl.LOCK_UN)
                written += n
        wrote = time.monotonic() - start
        while stream_count(prefix, servers) < args.count:
            time.sleep(0.05)
        elapsed = time.monotonic() - start
        cpu = cpu_seconds(fwd.pid) - cpu0
        fwd.terminate()
        return {"wrote": wrote, "elapsed": elapsed, "cpu": cpu,
                "exit": fwd.wait(15)}
    finally:
        if fwd.poll() is None:
            fwd.kill()
            fwd.wait()


def add_arguments(ap):
    """The options both forwarding benchmarks take."""
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--count", type=int, default=200000)
    ap.add_argument("--chunk", type=int, default=1000,
                    help="lines per locked append (the daemon writes a "
                         "processor pass's lines like this)")
    ap.add_argument("--servers", default="single,cluster",
                    help="single, cluster or both (comma-separated)")
    ap.add_argument("--dir", default=None, help="where the files go")


def server_sets(ap, args, stem):
    """Yields (label, work, servers, replicas) for each of --servers, the
    servers started in a fresh directory, and stops and removes them after
    the caller's round."""
    for kind in args.servers.split(","):
        if kind not in ("single", "cluster"):
            ap.error("--servers takes single and cluster")
        work = Path(tempfile.mkdtemp(prefix=stem + ".", dir=args.dir))
        if kind == "single":
            servers, replicas = NatsServer(work), 1
        else:
            servers, replicas = NatsCluster(work, 3), 3
        label = "1 server" if kind == "single" else "3-node cluster, R3"
        try:
            servers.start()
            yield label, work, servers, replicas
        finally:
            servers.stop()
            shutil.rmtree(work, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser()
    add_arguments(ap)
    args = ap.parse_args()
    prefix = Path(args.prefix)

    results = []
    for label, work, servers, replicas in server_sets(ap, args,
                                                      "forward-bench"):
        results.append((label, run(args, prefix, work, servers, replicas)))

    print("lines %d, %d a chunk" % (args.count, args.chunk))
    print("%-24s %12s %12s %10s %12s %5s" % (
        "servers", "writer (s)", "stored (s)", "lines/s", "CPU us/line",
        "exit"))
    for label, r in results:
        print("%-24s %12.2f %12.2f %10.0f %12.1f %5d" % (
            label, r["wrote"], r["elapsed"], args.count / r["elapsed"],
            r["cpu"] * 1e6 / args.count, r["exit"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
