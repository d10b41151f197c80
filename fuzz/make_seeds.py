#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/.

The seeds are small hand-made inputs after the examples in docs/: the
control exchange of control.md, the monitor-queue files of
monitor-queues.md, the volume table and smb.conf of platform.md, the queue
lines of queue-files.md and the record layout of kernel-notification.md,
each in the input layout its target's source describes. Several targets
take binary inputs, hence a script rather than files typed by hand.

Run it from anywhere after changing a layout or adding a seed; it rewrites
the seed-* files and leaves every other file of the corpora (inputs of
fixed findings) alone:

    python3 fuzz/make_seeds.py
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
SEP = b"\n--8<--\n"  # fuzz/common/fuzz_support.h: kPartSeparator


def u8(v):
    return struct.pack("<B", v)


def u16(v):
    return struct.pack("<H", v)


def u32(v):
    return struct.pack("<I", v)


def short(b):
    return u8(len(b)) + b


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "seed-" + name), "wb") as f:
        f.write(data)


def clear(target):
    folder = os.path.join(HERE, "corpus", target)
    if os.path.isdir(folder):
        for name in os.listdir(folder):
            if name.startswith("seed-"):
                os.remove(os.path.join(folder, name))


# ---------------------------------------------------------------- control
# First byte even: the raw client stream; odd: the body, length put in front.

def control_seeds():
    def body(name, text, zero=True):
        write("control", name, b"\x01" + text + (b"\x00" if zero else b""))

    def raw(name, stream):
        write("control", name, b"\x00" + stream)

    doc = b'{"type":"set_log_level","data":{"log_level":"info"}}'
    raw("doc-exchange", u32(len(doc) + 1) + u32(0) + doc + b"\x00")
    raw("length-zero", struct.pack("<Q", 0))
    raw("length-too-big", struct.pack("<Q", 1024 * 1024 + 1) + b"{}")
    raw("short-length", b"\x35\x00\x00")
    raw("short-body", struct.pack("<Q", 53) + doc[:20])
    for level in (b"debug", b"info", b"error", b"loud"):
        body("log-" + level.decode(),
             b'{"type":"set_log_level","data":{"log_level":"' + level + b'"}}')
    body("notify-create", b'{"type":"notify","data":{"event":64,'
         b'"path":"/vol1/Public/report.pdf"}}')
    body("notify-move", b'{"type":"notify","data":{"event":256,'
         b'"path":"/vol1/Public/new.pdf","path_old":"/vol1/Public/report.pdf"}}')
    body("notify-fraction", b'{"type":"notify","data":{"event":64.7,'
         b'"path":5,"path_old":null}}')
    body("notify-negative", b'{"type":"notify","data":{"event":-1}}')
    body("notify-too-big", b'{"type":"notify","data":{"event":4294967296}}')
    body("mount-share", b'{"type":"mount_share","data":{"share_name":"Public"}}')
    body("umount-share", b'{"type":"umount_share","data":{"share_name":"Media"}}')
    body("mount-volume", b'{"type":"mount_volume","data":{"mount_point":"/vol1"}}')
    body("umount-volume",
         b'{"type":"umount_volume","data":{"mount_point":"/vol1"}}')
    body("unknown-type", b'{"type":"reboot","data":{}}')
    body("type-object", b'{"type":{},"data":{}}')
    body("data-list", b'{"type":"notify","data":[]}')
    body("share-list", b'{"type":"mount_share","data":{"share_name":[1]}}')
    body("not-json", b'{"type":"set_log_level",')
    body("no-zero", b'{"type":"set_log_level","data":{}}', zero=False)
    body("after-zero", b'{"type":"unknown","data":{}}\x00trailing bytes')
    body("deep", b'{"type":"x","data":' + b"[" * 1100 + b"]" * 1100 + b"}")


# --------------------------------------------------------------- fanotify
# u32 appliance event mask, u16 output room, then fanotify events.

FAN_ACCESS, FAN_MODIFY, FAN_ATTRIB, FAN_CLOSE_WRITE = 0x1, 0x2, 0x4, 0x8
FAN_OPEN, FAN_MOVED_FROM, FAN_MOVED_TO = 0x20, 0x40, 0x80
FAN_CREATE, FAN_DELETE, FAN_Q_OVERFLOW = 0x100, 0x200, 0x4000
FAN_RENAME, FAN_ONDIR = 0x10000000, 0x40000000
DFID_NAME, DFID, OLD_DFID_NAME, NEW_DFID_NAME = 2, 3, 10, 12


def fid_info(info_type, handle, name=b"", fsid=0x1122334455667788):
    body = struct.pack("<Q", fsid) + u32(len(handle)) + struct.pack("<i", 1)
    body += handle
    if info_type != DFID:
        body += name + b"\x00"
    out = u8(info_type) + u8(0) + u16(0) + body
    while len(out) % 4:
        out += b"\x00"
    return out[:2] + u16(len(out)) + out[4:]


def fan_event(mask, infos, vers=3):
    body = b"".join(infos)
    return struct.pack("<IBBHQii", 24 + len(body), vers, 0, 24, mask, -1,
                       1234) + body


def fanotify_seeds():
    every = 0x3FF

    def seed(name, events, mask=every, room=4096):
        write("fanotify", name, u32(mask) + u16(room) + events)

    public = b"Public"  # the handle bytes become the directory's path
    seed("create", fan_event(FAN_CREATE, [fid_info(DFID_NAME, public,
                                                   b"report.pdf")]))
    seed("merged", fan_event(FAN_CREATE | FAN_MODIFY | FAN_CLOSE_WRITE,
                             [fid_info(DFID_NAME, public, b"a.jpg")]))
    seed("mkdir", fan_event(FAN_CREATE | FAN_ONDIR,
                            [fid_info(DFID_NAME, public, b"album")]))
    seed("rename", fan_event(FAN_RENAME, [
        fid_info(OLD_DFID_NAME, public, b"old.pdf"),
        fid_info(NEW_DFID_NAME, b"Public/docs", b"new.pdf")]))
    seed("rename-dir-then-create", fan_event(FAN_RENAME | FAN_ONDIR, [
        fid_info(OLD_DFID_NAME, public, b"a"),
        fid_info(NEW_DFID_NAME, public, b"b")]) + fan_event(
            FAN_CREATE, [fid_info(DFID_NAME, b"Public/b", b"x")]))
    seed("moved-halves", fan_event(FAN_MOVED_FROM, [
        fid_info(DFID_NAME, public, b"a")]) + fan_event(
            FAN_MOVED_TO, [fid_info(DFID_NAME, public, b"b")]))
    seed("overflow", fan_event(FAN_Q_OVERFLOW, []))
    seed("self", fan_event(FAN_ATTRIB | FAN_ONDIR, [fid_info(DFID, public)]))
    seed("unresolvable", fan_event(FAN_DELETE, [
        fid_info(DFID_NAME, b"\xffgone", b"x")]))
    seed("latin1-name", fan_event(FAN_CREATE | FAN_OPEN | FAN_ACCESS, [
        fid_info(DFID_NAME, public, b"caf\xe9")]))
    seed("bad-version", fan_event(FAN_CREATE, [
        fid_info(DFID_NAME, public, b"a")], vers=2))
    seed("no-room", fan_event(FAN_CREATE | FAN_DELETE, [
        fid_info(DFID_NAME, public, b"a")]) * 3, room=40)
    seed("unwanted-bits", fan_event(FAN_MODIFY, [
        fid_info(DFID_NAME, public, b"a")]), mask=0x100)


# ------------------------------------------------------------- raw_record
# u8 flags, u8 watch count + paths, u8 read count + u16 sizes, records.

def record(mask, cookie, name, nul=True):
    data = name + (b"\x00" if nul else b"")
    return u32(mask) + u32(cookie) + u32(len(data)) + data


YULO_MODIFY, YULO_CLOSE_WRITE = 0x2, 0x8
YULO_MOVE_FROM, YULO_MOVE_TO, YULO_CREATE = 0x40, 0x80, 0x100
YULO_DELETE, YULO_RESCAN, YULO_Q_OVERFLOW, YULO_ISDIR = (
    0x200, 0x400, 0x4000, 0x40000000)


def stream_input(flags, watches, reads, records):
    out = u8(flags) + u8(len(watches))
    for w in watches:
        out += short(w)
    out += u8(len(reads)) + b"".join(u16(n) for n in reads)
    return out + records


def raw_record_seeds():
    shares = [b"/vol1/Public", b"/vol1/Media"]
    life = (record(YULO_CREATE, 0, b"/vol1/Public/a.txt") +
            record(YULO_MODIFY, 0, b"/vol1/Public/a.txt") +
            record(YULO_CLOSE_WRITE, 0, b"/vol1/Public/a.txt") +
            record(YULO_DELETE | YULO_ISDIR, 0, b"/vol1/Media/old-album"))
    write("raw_record", "life", stream_input(0, shares, [], life))
    write("raw_record", "split-reads", stream_input(0, shares, [7, 30], life))
    move = (record(YULO_MOVE_FROM, 0x80000001, b"/vol1/Public/old") +
            record(YULO_MOVE_TO, 0x80000001, b"/vol1/Media/new"))
    write("raw_record", "move", stream_input(1, shares, [25], move))
    write("raw_record", "overflow", stream_input(
        2, shares, [], record(YULO_Q_OVERFLOW, 0, b"") + life))
    write("raw_record", "nested", stream_input(0, [
        b"/vol1/Public", b"/vol1/Public/sub"], [], record(
            YULO_CREATE, 0, b"/vol1/Public/sub/x") + record(
                YULO_CREATE, 0, b"/vol1/Public/sub")))
    write("raw_record", "unwatched", stream_input(0, shares, [], record(
        YULO_CREATE, 0, b"/vol10/x") + record(YULO_CREATE, 0, b"/vol1/Publicx")))
    write("raw_record", "odd-names", stream_input(0, shares + [b"/"], [], record(
        YULO_CREATE, 0, b"/vol1/Public/caf\xe9") + record(
            YULO_CREATE, 0, b"/vol1/Public/a\nb") + record(
                YULO_CREATE, 0, b"/vol1/Public//") + record(
                    YULO_CREATE, 0, b"/vol1/Public/x", nul=False)))
    write("raw_record", "cut-record", stream_input(0, shares, [20], life) +
          u32(YULO_CREATE) + u32(0) + u32(5000) + b"/vol1/Public/a")


# ---------------------------------------------------------- monitor_queue
# Up to three configuration files, then query lines.

def monitor_queue_seeds():
    indexer = b"""{
  "queue": "/var/lib/indexer/events.queue",
  "monitors": [
    {"share": "Multimedia", "dir": "/", "recursive": true, "events": 960},
    {"share": "Public", "dir": "/incoming", "recursive": false,
     "events": ["create", "close_write", "move"]}
  ]
}"""
    thumbs = b"""{"queue": "/var/lib/thumbs/events.queue", "comment": "photos",
 "monitors": [{"share": "Media", "dir": "photos", "recursive": false,
               "events": 64},
              {"share": "NoSuchShare"}]}"""
    queries = (b"/vol2/Multimedia/photos/2023/a.jpg\n/vol1/Public/incoming/a\n"
               b"/vol1/Public/incoming/x/y\n/vol2/Multimedia2/a.jpg\n/vol2\n"
               b"/vol1/Media/photos\n/\n")
    write("monitor_queue", "docs", indexer + SEP + thumbs + SEP + SEP + queries)
    bad_monitors = b"""{"queue": "/q", "monitors": [
  1, {"share": ""}, {"share": "A", "dir": "../x"},
  {"share": "A", "recursive": "true"}, {"share": "A", "events": -1},
  {"share": "A", "events": 1.5}, {"share": "A", "events": ["loud"]},
  {"share": "A", "events": 64.0, "dir": "//photos/./2023/"},
  {"share": "rel:relative/path"}, {"share": "rel:/vol1/../etc"},
  {"share": "rel:/"}, {"share": "A", "events": 4095}]}"""
    write("monitor_queue", "bad-monitors",
          bad_monitors + SEP + SEP + SEP + b"/vol2/A/photos/2023\n/vol2/A\n")
    for name, text in [(b"list", b"[]"), (b"no-queue", b'{"monitors": []}'),
                       (b"relative", b'{"queue": "q"}'),
                       (b"monitors-object", b'{"queue": "/q", "monitors": {}}'),
                       (b"trailing", b'{"queue": "/q"} x'),
                       (b"empty-monitors", b'{"queue": "/q", "monitors": []}')]:
        write("monitor_queue", "file-" + name.decode(),
              text + SEP + indexer + SEP + SEP + b"/vol1/Public/incoming/a\n")
    write("monitor_queue", "make-config",
          SEP + SEP + SEP + b"/vol1/share\nsub/./dir/\n//a//b/\n..\nrel\n/x/../y\n")


# ------------------------------------------------------------- share_conf
# smb.conf, then lookup lines (first byte: buffer size).

def share_conf_seeds():
    doc = b"""[global]
   workgroup = WORKGROUP

; not a share: [homes] is special
[homes]
   path = /vol1/homes

[Public]
   comment = Everyone's files
   path = /vol1/Public/
   read only = no

[Scratch]
   comment = no path, so not a share
"""
    write("share_conf", "docs", doc + SEP + b"\x40Public\n\x0dpublic\n\x05Homes\n"
          b"\x40Scratch\n\x00Public\n")
    tricky = (b"\xef\xbb\xbf[Data]\r\n   PATH = /vol1//data//\r\n"
              b"[data]\n directory = /vol2/data ;comment\n"
              b"[ Long Name ]\n  p ath = /vol1/" + b"x" * 300 + b"\n"
              b"[Cont]\n  path = /vol1/\\\n  cont\n"
              b"[Broken\n  path = /vol1/broken\n"
              b"[Rel]\n  path = relative\n"
              b"[Print$]\n  path = /var/spool\n"
              b"# comment\n  ; comment\n[Root]\npath=/\n")
    write("share_conf", "tricky", tricky + SEP + b"\x10data\n\x05root\n"
          b"\x40 long name \n\x00\n")


# ----------------------------------------------------------- volume_table
# Volume table, mount table, query lines.

def volume_table_seeds():
    doc = b"""{
  "volumes": [
    {"id": 1, "kind": 0, "mount_point": "/vol1"},
    {"id": 2, "kind": 0, "mount_point": "/vol2"},
    {"id": 7, "kind": 4, "mount_point": "/media/usb1"}
  ]
}"""
    mounts = (b"/dev/sda1 /vol1 ext4 rw,relatime 0 0\n"
              b"/dev/sdb1 /media/usb1 vfat rw 0 0\n"
              b"proc /proc proc rw 0 0\n")
    queries = b"/vol1/Public/a.txt\n/vol10/x\n/vol1/\n/media/usb1\nrelative\n/\n"
    write("volume_table", "docs", doc + SEP + mounts + SEP + queries)
    nested = b"""{"volumes": [
  {"id": 1, "mount_point": "/vol1/"},
  {"id": 3, "kind": 4, "mount_point": "/vol1/usb"},
  {"id": 4, "mount_point": "/media/USB disk"},
  {"id": 5, "mount_point": "/"},
  {"id": 1, "mount_point": "/vol9"},
  {"id": 6, "mount_point": "/vol1"},
  {"id": 1.0, "mount_point": "/x"}, {"id": "8", "mount_point": "/y"},
  {"id": 9, "kind": "usb", "mount_point": "/z"},
  {"id": 10, "mount_point": "vol10"}, {"id": 11, "mount_point": ""},
  {"id": 12, "mount_point": "/media/a-mount-point-that-is-much-longer-than-fifty-nine-bytes"},
  {"id": 2147483648, "mount_point": "/big"}, 17, {"id": 13}
], "other": true}"""
    mounts2 = (b"/dev/sda1 /vol1 ext4 rw 0 0\n/dev/sdc1 /vol1/usb vfat rw 0 0\n"
               b"/dev/sdd1 /media/USB\\040disk vfat rw 0 0\n"
               b"rootfs / rootfs rw 0 0\n\tweird\t/tabbed\\011name x\n"
               b"bad /bad\\8escape x\nshort\n")
    write("volume_table", "nested", nested + SEP + mounts2 + SEP +
          b"/vol1/usb/photos\n/vol1/usbx\n/media/USB disk/a\n/tmp\n"
          b"/a b\\c\td\n//vol1///usb/\n")
    for name, table in [(b"not-json", b"{"), (b"no-volumes", b'{"v": []}'),
                        (b"list", b"[]"), (b"volumes-object", b'{"volumes": {}}')]:
        write("volume_table", "table-" + name.decode(),
              table + SEP + mounts + SEP + b"/vol1\n")


# ------------------------------------------------------------- queue_line
# u32 code, u8 flags (1 dir, 2 move, 4 failures), u32 hole, then parts:
# path, old path, consumer content, queue file head, failure script.

MARKER = b'{"event":1024,"is_dir":false,"path":""}'
MIB100 = 104857600


def queue_line_input(code, flags, hole, path, old=b"", content=b"", head=b"",
                     faults=b""):
    return (u32(code) + u8(flags) + u32(hole) + path + SEP + old + SEP +
            content + SEP + head + SEP + faults)


def queue_line_seeds():
    lines = (b'{"event":64,"is_dir":false,"path":"/vol1/Multimedia/a.jpg"}\n'
             b'{"event":128,"is_dir":true,"path":"/vol1/Multimedia/old-album"}\n')
    write("queue_line", "create", queue_line_input(
        64, 0, 0, b"/vol1/Multimedia/a.jpg", b"", lines, lines))
    write("queue_line", "move", queue_line_input(
        256, 2, 0, b"/vol1/Multimedia/new", b"/vol1/Multimedia/old",
        lines + b'{"event":512,', b""))
    write("queue_line", "latin1", queue_line_input(
        64, 1, 0, b"/vol1/caf\xe9", b"/vol1/\xed\xb2\x80", b"\n\n" + lines))
    write("queue_line", "unicode", queue_line_input(
        2, 0, 0, "/vol1/Фото/😀 \"q\" \\ \t".encode(), b"", b"partial"))
    write("queue_line", "reset-head", queue_line_input(
        64, 0, 0, b"/vol1/Multimedia/a.jpg", b"", b"",
        MARKER + b"\n" + lines))
    write("queue_line", "oversized", queue_line_input(
        256, 2, MIB100 - 40, b"/vol1/Multimedia/new", b"/vol1/Multimedia/old",
        b"", lines))
    write("queue_line", "far-oversized", queue_line_input(
        64, 1, MIB100 + 1, b"/vol1/Multimedia/a", b"", b"", b""))
    write("queue_line", "nul-head", queue_line_input(
        64, 0, 0, b"/vol1/a", b"", b"", b'{"event":10\x0024}\n'))
    write("queue_line", "long-head", queue_line_input(
        64, 0, 0, b"/vol1/a", b"", b"", b"x" * 3000 + b"\n"))
    write("queue_line", "failures", queue_line_input(
        64, 6, 0, b"/vol1/a", b"/vol1/b", b"", lines,
        b"\x20\x01\x20\x20\x20\x12\x00\x0a\x11\x02"))
    write("queue_line", "reset-failures", queue_line_input(
        64, 6, MIB100 + 1, b"/vol1/a", b"/vol1/b", b"", b"",
        b"\x20\x20\x20\x20\x13\x01\x20\x20"))


# --------------------------------------------------------------- pipeline
# u8 flags (1 recovery, 2 failures, 4 info log), u16 Docs events, u8
# options (1 recursive), Docs dir, per file u16 head length + head + u32
# hole, u8 read count + u16 sizes, failure script, records.

def pipeline_input(flags, events, options, docs_dir, files, reads, faults,
                   records):
    out = u8(flags) + u16(events) + u8(options) + short(docs_dir)
    for head, hole in files:
        out += u16(len(head)) + head + u32(hole)
    out += u8(len(reads)) + b"".join(u16(n) for n in reads)
    return out + short(faults) + records


def pipeline_seeds():
    plain = [(b"", 0), (b"", 0)]
    life = (record(YULO_CREATE, 0, b"/vol1/Multimedia/a.jpg") +
            record(YULO_MODIFY, 0, b"/vol1/Multimedia/a.jpg") +
            record(YULO_CREATE | YULO_ISDIR, 0, b"/vol1/Docs/sub") +
            record(YULO_DELETE, 0, b"/vol1/Docs/sub/x.txt") +
            record(YULO_MODIFY, 0, b"/vol1/Docs/other/y"))
    write("pipeline", "life", pipeline_input(4, 0x3FF, 1, b"/", plain, [], b"",
                                             life))
    move = (record(YULO_MOVE_FROM, 0x80000005, b"/vol1/Docs/sub/a") +
            record(YULO_MOVE_TO, 0x80000005, b"/vol1/Multimedia/a") +
            record(YULO_MOVE_FROM, 0x80000006, b"/vol1/Multimedia/b") +
            record(YULO_MOVE_TO, 0x80000006, b"/vol1/Multimedia/c"))
    write("pipeline", "moves-split", pipeline_input(
        0, 0xC0, 0, b"sub", plain, [24], b"", move))
    write("pipeline", "overflow-recovery", pipeline_input(
        1, 0x3FF, 1, b"", plain, [], b"",
        life + record(YULO_Q_OVERFLOW, 0, b"") + life))
    write("pipeline", "reset-heads", pipeline_input(
        0, 0x3FF, 1, b"/", [(MARKER + b"\n", 0), (b"", MIB100 - 10)], [],
        b"", move + life))
    write("pipeline", "failures", pipeline_input(
        2, 0x3FF, 0, b"sub", [(b"{}\n", 0), (b"", 0)], [30, 30],
        b"\x20\x00\x20\x20\x20\x12\x05\x20\x20\x20\x20\x0c", life + move))
    write("pipeline", "rescan-names", pipeline_input(
        4, 0x200, 1, b"/", plain, [], b"",
        record(YULO_RESCAN | YULO_ISDIR, 0, b"/vol1/Docs") +
        record(YULO_CREATE, 0, b"/vol1/Docs/caf\xe9") +
        record(YULO_CREATE, 0, "/vol1/Docs/Фото".encode())))


def main():
    for target, make in [("control", control_seeds),
                         ("fanotify", fanotify_seeds),
                         ("raw_record", raw_record_seeds),
                         ("monitor_queue", monitor_queue_seeds),
                         ("share_conf", share_conf_seeds),
                         ("volume_table", volume_table_seeds),
                         ("queue_line", queue_line_seeds),
                         ("pipeline", pipeline_seeds)]:
        clear(target)
        make()


if __name__ == "__main__":
    main()
