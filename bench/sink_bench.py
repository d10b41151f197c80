#!/usr/bin/python3
"""yulotify-sink throughput beside yulotify-forward's, in one run: lines per
second and CPU per line, against one nats-server with JetStream (file
storage) and against a three-node cluster whose stream keeps three
replicas.

For each: the installed forwarder moves N queue lines of the daemon's shape
from a queue file into the stream (bench/forward_bench.py's run); then the
installed sink (--host-member yes) takes the N messages from the stream
into a central queue file. Prints, for each program, lines/s (first line
in to last line out) and CPU (user+system, all threads) in microseconds per
line. Needs no daemon and no root; everything lives in a temporary
directory (--dir picks the disk). The servers are those of the end-to-end
tests (tests/e2e/forward_harness.py).

    /usr/bin/python3 bench/sink_bench.py --prefix /tmp/yulo-bench --dir /var/tmp
    /usr/bin/python3 bench/sink_bench.py --prefix /tmp/yulo-bench \\
        --servers cluster --batch 5000
"""

import argparse
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))
sys.path.insert(0, str(REPO / "bench"))

from forward_bench import (  # noqa: E402
    add_arguments, cpu_seconds, run, server_sets)
from forward_harness import STREAM  # noqa: E402


def line_count(path: Path) -> int:
    try:
        return path.read_bytes().count(b"\n")
    except FileNotFoundError:
        return 0


def run_sink(args, prefix: Path, work: Path, servers) -> dict:
    """One sink taking the stream's args.count messages; its figures."""
    central = work / "central" / "all.queue"
    central.parent.mkdir()
    sink = subprocess.Popen(
        [str(prefix / "bin" / "yulotify-sink"), *servers.client_args(),
         "--stream", STREAM, "--batch", str(args.batch), "--interval", "100",
         "--host-member", "yes", str(central)],
        stderr=open(work / "sink.log", "wb"))
    try:
        start = time.monotonic()
        cpu0 = cpu_seconds(sink.pid)
        while line_count(central) < args.count:
            time.sleep(0.05)
        elapsed = time.monotonic() - start
        cpu = cpu_seconds(sink.pid) - cpu0
        sink.terminate()
        return {"elapsed": elapsed, "cpu": cpu, "exit": sink.wait(15)}
    finally:
        if sink.poll() is None:
            sink.kill()
            sink.wait()


def main():
    ap = argparse.ArgumentParser()
    add_arguments(ap)
    ap.add_argument("--batch", type=int, default=1000,
                    help="the sink's --batch")
    args = ap.parse_args()
    prefix = Path(args.prefix)

    rows = []
    for label, work, servers, replicas in server_sets(ap, args, "sink-bench"):
        fwd = run(args, prefix, work, servers, replicas)
        rows.append((label, "forwarder", fwd))
        rows.append((label, "sink", run_sink(args, prefix, work, servers)))

    print("lines %d, sink batch %d" % (args.count, args.batch))
    print("%-20s %-10s %10s %10s %12s %5s" % (
        "servers", "program", "time (s)", "lines/s", "CPU us/line", "exit"))
    for label, program, r in rows:
        print("%-20s %-10s %10.2f %10.0f %12.1f %5d" % (
            label, program, r["elapsed"], args.count / r["elapsed"],
            r["cpu"] * 1e6 / args.count, r["exit"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
