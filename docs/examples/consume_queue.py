#!/usr/bin/python3
"""A complete yulotifyd queue-file consumer, to copy as the start of yours.

usage: consume_queue.py QUEUE_FILE [--follow] [--interval SECONDS]

Takes every complete line from the queue file and prints one event per line:
the event's names and its path as a Python bytes literal, so that a name that
is not UTF-8 shows exactly. Replace handle_event() and rescan() with what
your service does. Python 3 standard library only.
"""

import argparse
import fcntl
import json
import os
import signal
import stat
import sys
import time

RESCAN = 512   # changes below "path" may be missing: look at it again
RESET = 1024   # the file was emptied at 100 MiB: earlier events are lost
NAMES = {1: "access", 2: "modify", 4: "attrib", 8: "close_write",
         16: "close_nowrite", 32: "open", 64: "create", 128: "delete",
         256: "move", RESCAN: "rescan"}
LOCK_TIMEOUT = 5.0  # seconds; then give up on this round
LOCK_PAUSE = 0.001  # between two lock attempts


def take_lines(path):
    """Takes the complete lines out of the queue file, as bytes without their
    line feeds. The daemon gives up on a busy lock after about 30 ms and
    tries again 3 s later, so the lock is held for one read and one
    truncation only. An unfinished last line stays in the file."""
    try:
        fd = os.open(path, os.O_RDWR | os.O_NONBLOCK)  # O_CLOEXEC is implied
    except FileNotFoundError:
        return []  # the daemon creates the file with its first line
    try:
        if not stat.S_ISREG(os.fstat(fd).st_mode):
            raise OSError("%s is not a regular file" % path)
        deadline = time.monotonic() + LOCK_TIMEOUT
        while True:  # never block in flock: a stuck holder must not hang us
            try:
                fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                if time.monotonic() >= deadline:
                    raise TimeoutError("%s stayed locked" % path) from None
                time.sleep(LOCK_PAUSE)
        with open(fd, "rb", buffering=0, closefd=False) as f:
            data = f.readall()
        end = data.rfind(b"\n") + 1  # what lies after it is unfinished
        if end > 0:
            os.ftruncate(fd, 0)  # in place: never rename or delete the file
            tail, done = data[end:], 0
            while done < len(tail):  # the unfinished line, back for later
                done += os.pwrite(fd, tail[done:], done)
    finally:
        os.close(fd)  # this also releases the lock
    return [line for line in data[:end].split(b"\n") if line]


def decode(line):
    """One queue line as a dict, with "path" and "path_old" turned back into
    the file names' bytes; ValueError if it is no queue line. The daemon
    writes each byte of a name that is not UTF-8 as the code point
    U+DC00 + byte, which is what surrogateescape undoes."""
    event = json.loads(line)
    if not isinstance(event, dict) or type(event.get("event")) is not int \
            or not isinstance(event.get("path"), str):
        raise ValueError("not a queue line")
    for key in ("path", "path_old"):
        if isinstance(event.get(key), str):
            event[key] = event[key].encode("utf-8", "surrogateescape")
    return event


def rescan(path):
    """List `path` again on disk (None: everything the queue watches) and
    replace what you know below it with what you find; a path that is gone
    is removed with everything below it. The daemon writes a rescan where
    the kernel's report leaves changes in doubt, for the smallest directory
    that covers them, and for a directory that arrived whole, right after
    its create line."""
    print("rescan %s" % ("everything" if path is None else repr(path)),
          flush=True)


def handle_event(event):
    """Applied in order, the events keep a picture of the tree equal to the
    tree on disk once the queue is quiet: 64 adds the path, 128 removes it
    (a directory with everything below it), 256 renames path_old to path
    (a directory with everything below it, replacing what was at path),
    512 lists the path again, 1024 means everything before it was lost;
    1 to 32 change content or metadata, not the tree."""
    code = event["event"]
    if code == RESET:  # its leftover "path_old", if any, means nothing
        print("reset: events before this were lost", flush=True)
    elif code == RESCAN:
        rescan(event["path"])
    else:
        names = "+".join(n for bit, n in sorted(NAMES.items()) if code & bit)
        kind = "dir" if event.get("is_dir") else "file"
        text = "%s %s %r" % (names or code, kind, event["path"])
        if "path_old" in event:
            text += " from %r" % event["path_old"]
        print(text, flush=True)


def consume(path):
    for line in take_lines(path):  # the lock is released by now
        try:
            event = decode(line)
        except ValueError:  # not the daemon's: look at everything again
            rescan(None)
            continue
        handle_event(event)


def main():
    parser = argparse.ArgumentParser(description="Consume a yulotifyd queue.")
    parser.add_argument("queue_file")
    parser.add_argument("--follow", action="store_true",
                        help="repeat until SIGINT or SIGTERM")
    parser.add_argument("--interval", type=float, default=1.0,
                        help="seconds between two rounds with --follow")
    args = parser.parse_args()
    stop = []
    # A signal ends the loop between two rounds, never between taking
    # lines and handling them.
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stop.append(True))
    while True:
        try:
            consume(args.queue_file)
        except OSError as e:  # nothing was taken
            print("cannot consume %s: %s" % (args.queue_file, e),
                  file=sys.stderr)
            if not (args.follow and isinstance(e, TimeoutError)):
                return 1
        if not args.follow or stop:
            return 0
        time.sleep(args.interval)
        if stop:
            return 0


if __name__ == "__main__":
    sys.exit(main())
