#!/usr/bin/env python3
"""Live demo: a throwaway appliance with one tmpfs data volume, a Samba share
on it and one monitor queue, the installed yulotifyd running inside a private
mount namespace, a few file changes, and everything the daemon says and
writes shown as it happens.

    demo.py --prefix INSTALL_PREFIX
"""

import argparse
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "e2e"))
from harness import Appliance, monitor  # noqa: E402


def say(text):
    print("\n\033[1m== %s\033[0m" % text, flush=True)


class Tail(threading.Thread):
    """Prints new syslog lines as they arrive."""

    def __init__(self, appliance):
        super().__init__(daemon=True)
        self.appliance = appliance
        self.stop = threading.Event()
        self.seen_logs = 0

    def poll(self):
        logs = self.appliance.logs
        for line in logs[self.seen_logs:]:
            print("  %-12s| %s" % ("syslog", line), flush=True)
        self.seen_logs = len(logs)

    def run(self):
        while not self.stop.is_set():
            self.poll()
            time.sleep(0.1)
        self.poll()


class Consumer:
    """A consumer of one queue file: `yulotifyctl consume --follow --wait`
    (the daemon creates the file with its first line), which
    takes the lines under the file's lock and empties the file; each line
    it prints is shown here as it comes."""

    def __init__(self, ctl, queue_path):
        self.name = Path(queue_path).stem
        self.lines = 0
        self.proc = subprocess.Popen(
            [str(ctl), "consume", str(queue_path), "--follow", "--wait",
             "--interval", "200"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.thread = threading.Thread(target=self._pump, daemon=True)
        self.thread.start()

    def _pump(self):
        for line in self.proc.stdout:
            self.lines += 1
            print("  %-12s| %s" % (self.name, line.rstrip("\n")), flush=True)

    def close(self):
        time.sleep(0.5)  # a last round for lines written just now
        self.proc.send_signal(signal.SIGINT)
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
        self.thread.join(timeout=5)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--prefix", required=True)
    args = parser.parse_args()

    root = tempfile.mkdtemp(prefix="yulotifyd-demo-")
    appliance = Appliance(root, prefix=args.prefix)
    appliance.add_volume(1, "/vol1")
    appliance.add_share("Multimedia", "/vol1/Multimedia")
    queue = appliance.queue_path("indexer.queue")
    appliance.add_queue("system", "indexer.json", queue,
                        [monitor("Multimedia", events=["create", "delete", "move",
                                                       "close_write", "rescan"])])

    say("The appliance (files in %s)" % root)
    print("  volume table  : %s" % appliance.volume_table_path.read_text().strip())
    print("  smb.conf      :\n%s" % "".join(
        "    " + l + "\n" for l in appliance.smb_conf_path.read_text().splitlines()))
    print("  monitor queue : %s" % (appliance.conf_dir("system") / "indexer.json").read_text().strip())

    queue2 = appliance.queue_path("thumbnailer.queue")
    ctl = Path(args.prefix) / "bin" / "yulotifyctl"
    tail = Tail(appliance)
    consumers = []
    try:
        say("Starting yulotifyd in a private mount namespace")
        appliance.start()
        appliance.wait_ready()
        print("  service manager got: READY=1 (pid %d)" % appliance.pid, flush=True)
        tail.start()
        say("Consumers take the queue files' lines with: yulotifyctl consume QUEUE --follow")
        consumers = [Consumer(ctl, queue), Consumer(ctl, queue2)]

        say("Raising the log level through the control socket")
        command = [str(ctl), "--socket", str(appliance.socket_path),
                   "set-log-level", "debug"]
        result = subprocess.run(command)
        print("  yulotifyctl set-log-level debug -> exit status %d" % result.returncode,
              flush=True)
        time.sleep(0.5)

        say("Making file changes in the share /vol1/Multimedia")
        share = appliance.ns_path("/vol1/Multimedia")
        steps = [
            ("mkdir  photos", lambda: (share / "photos").mkdir()),
            ("create photos/beach.jpg", lambda: (share / "photos" / "beach.jpg").write_bytes(b"\xff\xd8 jpeg")),
            ("rename photos/beach.jpg -> photos/sunset.jpg",
             lambda: os.rename(share / "photos" / "beach.jpg", share / "photos" / "sunset.jpg")),
            ("create notes.txt", lambda: (share / "notes.txt").write_text("hello\n")),
            ("delete notes.txt", lambda: (share / "notes.txt").unlink()),
        ]
        for label, action in steps:
            action()
            print("  did: %s" % label, flush=True)
            time.sleep(0.3)

        say("Waiting up to 6 seconds for queue lines (the processor writes every 3 s)")
        deadline = time.time() + 6
        while time.time() < deadline:
            time.sleep(0.2)
        tail.poll()
        if consumers[0].lines == 0:
            print("  no queue lines arrived: see the syslog lines above for why.",
                  flush=True)

        say("Adding a second monitor queue while running (the daemon reloads)")
        appliance.add_queue("app", "thumbnailer.json", queue2,
                            [monitor("Multimedia", dir="/photos", events=["create"])])
        time.sleep(1.5)
        (share / "photos" / "harbour.jpg").write_bytes(b"\xff\xd8 jpeg")
        print("  did: create photos/harbour.jpg (wanted by both queues)", flush=True)
        time.sleep(4)

        say("Stopping with SIGTERM")
        appliance.signal(signal.SIGTERM)
        code = appliance.wait_exit()
        time.sleep(0.3)
        for consumer in consumers:
            consumer.close()
        consumers = []
        tail.stop.set()
        tail.join()
        print("  exit status: %d" % code)
        print("  run-status file now: %s" % json.dumps(appliance.read_run_status()))
        print("  control socket removed: %s" % (not appliance.socket_path.exists()))
    finally:
        for consumer in consumers:
            consumer.close()
        tail.stop.set()
        appliance.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
