#!/usr/bin/python3
"""Sets up a throwaway appliance inside a fresh mount namespace, then execs.

Run by the harness as

    unshare --mount --propagation private -- python3 ns_launcher.py CONFIG

so every mount made here is private to the namespace and vanishes with it.
CONFIG is a JSON file written by harness.Appliance:

    {"root_volume": {"stage": empty_dir, "size": "64m"},   optional, first:
                                                  a tmpfs becomes "/"
     "binds":   [[host_dir, target_dir], ...],   bind-mounted in this order
     "file_binds": [[host_file, target_file], ...],  files bound over files
     "dev":     {"stage": empty_dir, "log_socket": host_path},
                                                  tmpfs /dev, socket at /dev/log
     "volumes": [{"mount_point": "/vol1", "size": "64m"}, ...],   tmpfs each
     "dirs":    ["/vol1/Public", ...],            made after the volumes
     "env":     {...},                            the program's whole environment
     "argv":    [program, args...],
     "status_fd": N, "go_fd": M, "parent_pid": P}

Handshake with the harness: once the namespace is set up, "ok\n" is written
to status_fd (or "error: ...\n" and exit 100 when something failed), then one
line is read from go_fd: "go" execs argv, so the program keeps this process's
PID and owns the namespace; anything else (or EOF) exits 0 without running it.
The pause lets a test look into the namespace (nsenter, /proc/PID/root)
before the program starts. The program is killed if the test process dies
without stopping it, so a crashed test run leaves no daemon behind.
"""

import ctypes
import ctypes.util
import errno
import json
import os
import signal
import stat
import subprocess
import sys

MS_NOSUID = 0x2
MS_NOEXEC = 0x8
MS_BIND = 0x1000
MS_REC = 0x4000
MS_MOVE = 0x2000
MNT_DETACH = 0x2

EXIT_SETUP_FAILED = 100

_libc = ctypes.CDLL(ctypes.util.find_library("c") or "libc.so.6", use_errno=True)
_libc.mount.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p,
                        ctypes.c_ulong, ctypes.c_char_p]
_libc.umount2.argtypes = [ctypes.c_char_p, ctypes.c_int]


class SetupError(Exception):
    pass


def mount(source, target, fstype, flags, data=None):
    def enc(value):
        return None if value is None else os.fsencode(value)

    if _libc.mount(enc(source), enc(target), enc(fstype), flags, enc(data)) != 0:
        err = ctypes.get_errno()
        raise SetupError("mount(%s -> %s, %s): %s"
                         % (source, target, fstype, os.strerror(err)))


def bind(source, target):
    mount(source, target, None, MS_BIND | MS_REC)


# The device nodes a daemon expects in /dev: name -> (major, minor).
DEVICE_NODES = {
    "null": (1, 3),
    "zero": (1, 5),
    "full": (1, 7),
    "random": (1, 8),
    "urandom": (1, 9),
    "tty": (5, 0),
}


def setup_dev(stage, log_socket):
    """Replaces /dev by a tmpfs with the usual nodes and the test's log socket.

    The tmpfs is filled at `stage` (an empty directory) while the real /dev
    is still visible, so a node that cannot be made with mknod (no
    CAP_MKNOD, e.g. in a container) can be bind-mounted from the host's
    /dev instead; then the whole tree is moved onto /dev.
    """
    mount("tmpfs", stage, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755,size=1m")
    for name, (major, minor) in DEVICE_NODES.items():
        path = os.path.join(stage, name)
        try:
            os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(major, minor))
            os.chmod(path, 0o666)
        except OSError:
            with open(path, "w"):
                pass
            bind("/dev/" + name, path)
    os.symlink("/proc/self/fd", os.path.join(stage, "fd"))
    os.symlink("/proc/self/fd/0", os.path.join(stage, "stdin"))
    os.symlink("/proc/self/fd/1", os.path.join(stage, "stdout"))
    os.symlink("/proc/self/fd/2", os.path.join(stage, "stderr"))
    os.mkdir(os.path.join(stage, "shm"))
    os.chmod(os.path.join(stage, "shm"), 0o1777)
    os.mkdir(os.path.join(stage, "pts"), 0o755)
    # syslog(3) sends to /dev/log: an empty file with the test's datagram
    # socket bind-mounted over it, so the test receives every line.
    log = os.path.join(stage, "log")
    with open(log, "w"):
        pass
    bind(log_socket, log)
    mount(stage, "/dev", None, MS_MOVE)


def setup_root_volume(stage, size):
    """Makes a fresh tmpfs the namespace's "/", as a data volume mounted at
    "/" would be, while every other path stays where it was.

    Each top-level entry of the old root is carried over: directories are
    bind-mounted (recursively) into the tmpfs, symbolic links copied. Then
    the tmpfs becomes the root (pivot_root) and the old root is detached.
    What is created right in "/" afterwards lies on the tmpfs.
    """
    os.makedirs(stage, exist_ok=True)
    mount("tmpfs", stage, "tmpfs", 0, "mode=0755,size=%s" % size)
    for name in sorted(os.listdir("/")):
        source = "/" + name
        target = os.path.join(stage, name)
        if os.path.islink(source):
            os.symlink(os.readlink(source), target)
        elif os.path.isdir(source):
            os.mkdir(target)
            bind(source, target)
    put_old = os.path.join(stage, ".old-root")
    os.mkdir(put_old)
    result = subprocess.run(["pivot_root", stage, put_old],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if result.returncode != 0:
        raise SetupError("pivot_root %s: %s" % (
            stage, result.stdout.decode(errors="replace").strip()))
    os.chdir("/")
    if _libc.umount2(b"/.old-root", MNT_DETACH) != 0:
        raise SetupError("umount /.old-root: %s"
                         % os.strerror(ctypes.get_errno()))
    os.rmdir("/.old-root")


def setup(config):
    root_volume = config.get("root_volume")
    if root_volume is not None:
        setup_root_volume(root_volume["stage"], root_volume.get("size", "64m"))
    for source, target in config.get("binds", []):
        if not os.path.isdir(target):
            raise SetupError("bind target %s is not a directory" % target)
        bind(source, target)
    for source, target in config.get("file_binds", []):
        if not os.path.isfile(target):
            raise SetupError("bind target %s is not a file" % target)
        bind(source, target)
    dev = config.get("dev")
    if dev is not None:
        setup_dev(dev["stage"], dev["log_socket"])
    for volume in config.get("volumes", []):
        mount_point = volume["mount_point"]
        os.makedirs(mount_point, exist_ok=True)
        mount("tmpfs", mount_point, "tmpfs", 0,
              "mode=0755,size=%s" % volume.get("size", "64m"))
    for path in config.get("dirs", []):
        os.makedirs(path, exist_ok=True)


def main():
    if len(sys.argv) != 2:
        sys.stderr.write("usage: ns_launcher.py CONFIG\n")
        return 2
    with open(sys.argv[1]) as f:
        config = json.load(f)
    # Should the test process die without cleaning up, the program dies
    # with it instead of lingering (the setting survives exec).
    PR_SET_PDEATHSIG = 1
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    if os.getppid() != config.get("parent_pid", os.getppid()):
        return 0  # the test process is gone already
    status = os.fdopen(config["status_fd"], "w")
    go = os.fdopen(config["go_fd"], "r")
    try:
        setup(config)
    except (SetupError, OSError) as e:
        status.write("error: %s\n" % e)
        status.close()
        return EXIT_SETUP_FAILED
    status.write("ok\n")
    status.close()
    line = go.readline().strip()
    go.close()
    if line != "go":
        return 0
    argv = config["argv"]
    try:
        os.execve(argv[0], argv, config.get("env", {}))
    except OSError as e:
        sys.stderr.write("ns_launcher: exec %s: %s\n" % (argv[0], e))
        return 127 if e.errno == errno.ENOENT else 126


if __name__ == "__main__":
    sys.exit(main())
