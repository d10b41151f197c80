#!/usr/bin/python3
"""yulotify-forward throughput: lines per second and CPU per line forwarded
to a local nats-server with JetStream (file storage).

A writer appends N queue lines of the daemon's shape
({"event":64,"is_dir":false,"path":"/vol1/Public/dNN/fNNNNNNN"}) to a queue
file, in chunks under the exclusive lock as the daemon does, while the
installed forwarder takes them; the run ends when the stream holds all N.
Prints lines/s (first line written to last line stored), the forwarder's
CPU (user+system, all threads) in microseconds per line.
Needs no daemon and no root; the queue file, spool and server store live in
a temporary directory (put it on the disk you want measured with --dir).

    /usr/bin/python3 bench/forward_bench.py --prefix /tmp/yulo-bench
    /usr/bin/python3 bench/forward_bench.py --prefix /tmp/yulo-bench --count 1000000
"""

import argparse
import fcntl
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    tick = os.sysconf("SC_CLK_TCK")
    return (int(fields[11]) + int(fields[12])) / tick  # utime + stime


def stream_count(dump, url, stream):
    r = subprocess.run([dump, "--server", url, "--stream", stream, "--count"],
                       capture_output=True, text=True)
    return int(r.stdout) if r.returncode == 0 else -1


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--count", type=int, default=200000)
    ap.add_argument("--chunk", type=int, default=1000,
                    help="lines per locked append (the daemon writes a "
                         "processor pass's lines like this)")
    ap.add_argument("--dir", default=None, help="where the files go")
    args = ap.parse_args()

    work = tempfile.mkdtemp(prefix="forward-bench.", dir=args.dir)
    port = free_port()
    url = "nats://127.0.0.1:%d" % port
    stream = "BENCH"
    server = subprocess.Popen(
        [shutil.which("nats-server") or "nats-server", "-js", "-a", "127.0.0.1",
         "-p", str(port), "-sd", os.path.join(work, "js")],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    queue = os.path.join(work, "q.queue")
    fwd = None
    try:
        time.sleep(1)
        fwd = subprocess.Popen(
            [os.path.join(args.prefix, "bin", "yulotify-forward"),
             "--server", url, "--subject", "yulotifyd.bench.q",
             "--stream", stream, "--spool", os.path.join(work, "spool"),
             "--interval", "20", queue],
            stderr=open(os.path.join(work, "forward.log"), "wb"))
        dump = os.path.join(args.prefix, "bin", "yulotify-forward-dump")
        while stream_count(dump, url, stream) < 0:
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
        while stream_count(dump, url, stream) < args.count:
            time.sleep(0.05)
        elapsed = time.monotonic() - start
        cpu = cpu_seconds(fwd.pid) - cpu0
        print("lines            %d" % args.count)
        print("writer done in   %.2f s" % wrote)
        print("all stored after %.2f s" % elapsed)
        print("lines/s          %.0f" % (args.count / elapsed))
        print("forwarder CPU    %.2f s = %.1f us/line" %
              (cpu, cpu * 1e6 / args.count))
        fwd.terminate()
        rc = fwd.wait(15)
        print("forwarder exit   %d" % rc)
    finally:
        if fwd is not None and fwd.poll() is None:
            fwd.kill()
        server.terminate()
        server.wait()
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
