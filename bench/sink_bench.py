#!/usr/bin/python3
"""yulotify-sink throughput beside yulotify-forward's, in one run: lines per
second and CPU per line, against one local nats-server with JetStream (file
storage) or, with --cluster 3, a JetStream cluster of three on 127.0.0.1
(stream with 3 replicas).

First the installed forwarder moves N queue lines of the daemon's shape
from a queue file into the stream (as bench/forward_bench.py does); then the
installed sink takes the N messages from the stream into a central queue
file. For each: lines/s (first line in to last line out) and CPU
(user+system, all threads) in microseconds per line. Needs no daemon and
no root; everything lives in a temporary directory (--dir picks the disk).

    /usr/bin/python3 bench/sink_bench.py --prefix /tmp/yulo-bench
    /usr/bin/python3 bench/sink_bench.py --prefix /tmp/yulo-bench --cluster 3
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

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "e2e"))
sys.path.insert(0, str(HERE))

from forward_bench import cpu_seconds  # noqa: E402
from forward_harness import NatsCluster, NatsServer  # noqa: E402

STREAM = "BENCH"


def stream_count(prefix, server_args):
    r = subprocess.run([os.path.join(prefix, "bin", "yulotify-forward-dump"),
                        *server_args, "--stream", STREAM, "--count"],
                       capture_output=True, text=True)
    return int(r.stdout) if r.returncode == 0 else -1


def line_count(path):
    try:
        with open(path, "rb") as f:
            return f.read().count(b"\n")
    except FileNotFoundError:
        return 0


def write_queue(queue, count, chunk):
    written = 0
    with open(queue, "ab") as f:
        while written < count:
            n = min(chunk, count - written)
            text = "".join(
                '{"event":64,"is_dir":false,'
                '"path":"/vol1/Public/d%02d/f%07d"}\n'
                % (i % 100, i) for i in range(written, written + n))
            fcntl.flock(f, fcntl.LOCK_EX)
            f.write(text.encode())
            f.flush()
            fcntl.flock(f, fcntl.LOCK_UN)
            written += n


def report(name, count, elapsed, cpu):
    print("%-9s %d lines in %.2f s: %.0f lines/s, CPU %.2f s = %.1f us/line"
          % (name, count, elapsed, count / elapsed, cpu, cpu * 1e6 / count))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--count", type=int, default=200000)
    ap.add_argument("--chunk", type=int, default=1000)
    ap.add_argument("--batch", type=int, default=1000,
                    help="the sink's --batch")
    ap.add_argument("--cluster", type=int, default=0,
                    help="nodes of a JetStream cluster (0: one server)")
    ap.add_argument("--dir", default=None, help="where the files go")
    args = ap.parse_args()

    work = Path(tempfile.mkdtemp(prefix="sink-bench.", dir=args.dir))
    if args.cluster:
        servers = NatsCluster(work, args.cluster)
        replicas = ["--replicas", str(args.cluster)]
    else:
        servers = NatsServer(work)
        replicas = []
    server_args = servers.client_args()
    queue = work / "appliance.queue"
    central = work / "central" / "all.queue"
    central.parent.mkdir()
    procs = []
    try:
        servers.start()
        fwd = subprocess.Popen(
            [os.path.join(args.prefix, "bin", "yulotify-forward"),
             *server_args, "--subject", "yulotifyd.bench.q",
             "--stream", STREAM, *replicas, "--spool", str(work / "spool"),
             "--interval", "20", str(queue)],
            stderr=open(work / "forward.log", "wb"))
        procs.append(fwd)
        # The stream is made at the forwarder's first connection.
        while stream_count(args.prefix, server_args) < 0:
            time.sleep(0.1)
        cpu0 = cpu_seconds(fwd.pid)
        start = time.monotonic()
        write_queue(queue, args.count, args.chunk)
        while stream_count(args.prefix, server_args) < args.count:
            time.sleep(0.05)
        report("forwarder", args.count, time.monotonic() - start,
               cpu_seconds(fwd.pid) - cpu0)
        fwd.terminate()
        fwd.wait(15)

        sink = subprocess.Popen(
            [os.path.join(args.prefix, "bin", "yulotify-sink"),
             *server_args, "--stream", STREAM, "--batch", str(args.batch),
             "--interval", "100", "--host-member", "yes", str(central)],
            stderr=open(work / "sink.log", "wb"))
        procs.append(sink)
        start = time.monotonic()
        cpu0 = cpu_seconds(sink.pid)
        while line_count(central) < args.count:
            time.sleep(0.05)
        report("sink", args.count, time.monotonic() - start,
               cpu_seconds(sink.pid) - cpu0)
        sink.terminate()
        print("sink exit %d" % sink.wait(15))
    finally:
        for p in procs:
            if p.poll() is None:
                p.kill()
                p.wait()
        servers.stop()
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
