"""End-to-end harness: runs the installed yulotifyd in a throwaway appliance.

An `Appliance` owns one temporary directory and, once started, one daemon
running in a private mount namespace (see ns_launcher.py) where

    /run            is  <root>/run        (control socket /var/run/yulotifyd.sock)
    /usr/yulo/etc   is  <root>/etc        (run-status file, volume table,
                                           monitor-queue configuration)
    /etc/samba      is  <root>/samba      (smb.conf: the shares)
    /etc/group      is  <root>/group      (the host's, with or without the
                                           control socket's group)
    /dev            is a small tmpfs with null, zero, full, random, urandom,
                    tty and /dev/log = the test's syslog socket
    each volume     is a tmpfs mounted at its mount point

so a test writes the daemon's inputs and reads its outputs straight from the
temporary directory, receives every syslog line and the service-manager
notifications on sockets of its own, and reaches the volumes through
`ns_path()` or `run_in_ns()`.

Waiting is done by polling with deadlines. Failures raise AssertionError with
the daemon's recent log lines attached, so a failed wait explains itself.
Everything is released by `stop()` (also via `with` and the pytest fixtures),
including after a failed test.
"""

import json
import os
import re
import select
import shutil
import signal as _signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, List, Optional, Union

HERE = Path(__file__).resolve().parent
LAUNCHER = HERE / "ns_launcher.py"

# Paths the daemon uses inside the appliance (compiled into the binary).
SOCKET_PATH = "/var/run/yulotifyd.sock"
RUN_STATUS_PATH = "/usr/yulo/etc/yulotifyd.run"
CONF_ROOT = "/usr/yulo/etc/yulotifyd"
VOLUME_TABLE_PATH = "/usr/yulo/etc/volumes.json"
SMB_CONF_PATH = "/etc/samba/smb.conf"

# Host directories covered by bind mounts inside the namespace.
BIND_TARGETS = ("/run", "/usr/yulo/etc", "/etc/samba")

# Monitor-queue types and their configuration subdirectories.
QUEUE_TYPE_DIRS = {0: "system.d", 1: "app.d", 2: "user.d"}
QUEUE_TYPE_NAMES = {"system": 0, "app": 1, "user": 2}

# syslog priorities of the daemon's lines: facility LOG_USER (1 << 3) and
# the severity of what the line means.
LOG_USER = 8
LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG = 3, 4, 5, 6, 7
LOG_USER_ERR = LOG_USER | LOG_ERR

# Longest path bind(2) accepts for an AF_UNIX socket, with a little margin.
_MAX_SOCKET_PATH = 100

_SYSLOG_RE = re.compile(
    r"^<(?P<pri>\d{1,3})>"
    r"(?P<time>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d) "
    r"(?P<tag>[^:\[\s]+)(?:\[(?P<pid>\d+)\])?: "
    r"(?P<msg>.*)$",
    re.S,
)

DEFAULT_TIMEOUT = 10.0
# A stop may take up to one select() period of the main loop when the signal
# does not interrupt it.
STOP_TIMEOUT = 35.0


def find_prefix(option_value: Optional[str] = None) -> Path:
    """The install prefix under test: --prefix, else $YULOTIFYD_PREFIX."""
    value = option_value or os.environ.get("YULOTIFYD_PREFIX")
    if not value:
        raise HarnessError(
            "no install prefix: set YULOTIFYD_PREFIX or pass --prefix "
            "(the directory given to `cmake --install build --prefix`)")
    return Path(value).resolve()


def socket_group_name(prefix: Path) -> Optional[str]:
    """The control socket's group as the installation creates it (its
    sysusers.d file), None when the build has no socket group."""
    path = Path(prefix) / "lib" / "sysusers.d" / "yulotifyd.conf"
    try:
        text = path.read_text()
    except FileNotFoundError:
        return None
    for line in text.splitlines():
        fields = line.split()
        if len(fields) >= 2 and fields[0] == "g":
            return fields[1]
    return None


def unit_capabilities(prefix: Path) -> List[str]:
    """The capabilities the installed unit keeps (its
    CapabilityBoundingSet=), lower case without "cap_", as setpriv names
    them."""
    unit = Path(prefix) / "lib" / "systemd" / "system" / "yulotifyd.service"
    caps = None
    for line in unit.read_text().splitlines():
        if line.startswith("CapabilityBoundingSet="):
            caps = line.split("=", 1)[1].split()
    if not caps:
        raise HarnessError("%s has no CapabilityBoundingSet=" % unit)
    names = []
    for cap in caps:
        if not cap.upper().startswith("CAP_"):
            raise HarnessError("%s: unexpected capability %r" % (unit, cap))
        names.append(cap[4:].lower())
    return names


def daemon_binary(prefix: Path) -> Path:
    binary = Path(prefix) / "sbin" / "yulotifyd"
    if not binary.is_file() or not os.access(binary, os.X_OK):
        raise HarnessError(
            "%s is missing or not executable: build and install first "
            "(cmake --install BUILD --prefix %s)" % (binary, prefix))
    return binary


class HarnessError(Exception):
    """The harness itself could not do what was asked (not a daemon fault)."""


@dataclass(frozen=True)
class LogRecord:
    """One syslog datagram as received on /dev/log."""
    raw: str
    pri: Optional[int]     # None when the header could not be parsed
    tag: Optional[str]     # the program name glibc puts in front
    pid: Optional[int]
    message: str           # the text after "<tag>: "
    time: float            # when the harness received it (time.monotonic())

    @classmethod
    def parse(cls, data: bytes, received: float) -> "LogRecord":
        raw = data.decode("utf-8", errors="replace")
        m = _SYSLOG_RE.match(raw)
        if m is None:
            return cls(raw, None, None, None, raw.rstrip("\n"), received)
        pid = m.group("pid")
        return cls(raw, int(m.group("pri")), m.group("tag"),
                   int(pid) if pid else None, m.group("msg").rstrip("\n"),
                   received)


class DatagramReceiver:
    """A bound AF_UNIX datagram socket drained by a background thread."""

    def __init__(self, path: Path):
        self.path = Path(path)
        self._datagrams: List[tuple] = []
        self._lock = threading.Lock()
        self._stopping = threading.Event()
        if self.path.exists() or self.path.is_symlink():
            self.path.unlink()
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sock.bind(str(self.path))
        os.chmod(self.path, 0o666)
        self._sock.settimeout(0.1)
        self._thread = threading.Thread(target=self._run, daemon=True,
                                        name="recv:" + self.path.name)
        self._thread.start()

    def _run(self):
        while not self._stopping.is_set():
            try:
                data = self._sock.recv(1 << 17)
            except socket.timeout:
                continue
            except OSError:
                return
            with self._lock:
                self._datagrams.append((data, time.monotonic()))

    def clear(self):
        with self._lock:
            self._datagrams.clear()

    def snapshot(self) -> List[tuple]:
        with self._lock:
            return list(self._datagrams)

    def close(self):
        if self._stopping.is_set():
            return
        self._stopping.set()
        self._thread.join(timeout=5)
        self._sock.close()
        try:
            self.path.unlink()
        except FileNotFoundError:
            pass


def wait_until(predicate: Callable[[], object], timeout: float,
               interval: float = 0.02):
    """Polls `predicate` until it returns something true or time runs out.

    Returns the last value of the predicate (true on success, false-ish on
    time-out); never raises on time-out itself.
    """
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


class Appliance:
    """A throwaway appliance around one yulotifyd process.

    Configure it (volumes, shares, monitor queues, run status) before or
    after `start()`; all inputs are plain files under `root`.
    """

    def __init__(self, root: Union[str, Path], prefix: Union[str, Path, None] = None,
                 program: Union[str, Path, None] = None,
                 args: Optional[List[str]] = None,
                 conf_dirs: bool = True,
                 socket_gid: Optional[int] = None,
                 unit_caps: bool = False):
        """root: an empty (or absent) directory owned by this appliance.
        prefix: install prefix whose sbin/yulotifyd runs; program: run this
        executable instead (used to check the harness itself); args: extra
        command-line arguments (the daemon takes none). conf_dirs: create the
        three monitor-queue configuration directories.
        socket_gid: the control socket's group exists in the namespace with
        this id (by default it does not, so only root may use the socket).
        unit_caps: run the daemon as the installed unit does, with only the
        unit's capabilities and no new privileges (setpriv).
        """
        self.root = Path(root).resolve()
        self.root.mkdir(parents=True, exist_ok=True)
        if program is not None:
            self.program = Path(program)
            self.prefix = None
        else:
            self.prefix = Path(prefix) if prefix is not None else find_prefix()
            self.program = daemon_binary(self.prefix)
        self.args = list(args or [])
        self.socket_gid = socket_gid
        self.socket_group = (socket_group_name(self.prefix)
                             if self.prefix is not None else None)
        if socket_gid is not None and self.socket_group is None:
            raise HarnessError("this build has no socket group")
        self.unit_caps = unit_caps
        self.capabilities: Optional[List[str]] = (
            unit_capabilities(self.prefix) if unit_caps else None)
        self._ns_prefix: Optional[str] = None

        self.run_dir = self.root / "run"
        self.etc_dir = self.root / "etc"
        self.samba_dir = self.root / "samba"
        self.conf_root = self.etc_dir / "yulotifyd"
        self.queue_dir = self.root / "queues"
        self.run_status_path = self.etc_dir / "yulotifyd.run"
        self.volume_table_path = self.etc_dir / "volumes.json"
        self.smb_conf_path = self.samba_dir / "smb.conf"
        self.socket_path = self.run_dir / "yulotifyd.sock"
        self.stdout_path = self.root / "daemon.stdout"
        self.stderr_path = self.root / "daemon.stderr"
        for d in (self.run_dir, self.etc_dir, self.samba_dir, self.conf_root,
                  self.queue_dir):
            d.mkdir(parents=True, exist_ok=True)
        if conf_dirs:
            for t in QUEUE_TYPE_DIRS:
                self.conf_dir(t).mkdir(exist_ok=True)

        self.volumes: List[dict] = []
        self.shares: List[tuple] = []
        self.dirs: List[str] = []  # made in the namespace after the volumes
        self.write_volume_table()
        self.write_smb_conf()

        self.proc: Optional[subprocess.Popen] = None
        self._log: Optional[DatagramReceiver] = None
        self._notify: Optional[DatagramReceiver] = None
        self._sock_dir: Optional[Path] = None
        self._own_sock_dir = False
        self._stdout = None
        self._stderr = None
        self._stopped = False

    # ------------------------------------------------------------------
    # Inputs: volume table, shares, monitor queues, run status.

    def add_volume(self, id: int, mount_point: str, kind: int = 0,
                   mounted: bool = True, size: str = "64m") -> dict:
        """Lists a volume in the volume table; `mounted` volumes get a tmpfs
        at `mount_point` in the namespace when the appliance starts. A
        volume at "/" makes a tmpfs the namespace's root, with every other
        path carried over (see ns_launcher.setup_root_volume)."""
        if not mount_point.startswith("/"):
            raise HarnessError("mount point must be absolute: %r" % mount_point)
        volume = {"id": id, "kind": kind, "mount_point": mount_point,
                  "mounted": mounted, "size": size}
        self.volumes.append(volume)
        self.write_volume_table()
        return volume

    def write_volume_table(self, content: Union[None, dict, list, str] = None):
        """Writes the volume table: from the added volumes when `content` is
        None, else the given object or raw text."""
        if content is None:
            content = {"volumes": [{"id": v["id"], "kind": v["kind"],
                                    "mount_point": v["mount_point"]}
                                   for v in self.volumes]}
        _write(self.volume_table_path, content)

    def add_share(self, name: str, path: str, create: bool = True,
                  **options: str):
        """Adds a Samba share [name] with `path = path` (plus any options,
        underscores in their names read as spaces). With `create` the share's
        directory is made in the namespace: at start when added before it,
        at once when the daemon runs already."""
        self.shares.append((name, path, options))
        self.write_smb_conf()
        if create:
            self.dirs.append(path)
            if self.running:
                self.run_in_ns(["mkdir", "-p", path])

    def remove_share(self, name: str):
        """Removes the share [name] from smb.conf (its directory stays)."""
        self.shares = [s for s in self.shares if s[0] != name]
        self.write_smb_conf()

    def write_smb_conf(self, text: Optional[str] = None):
        """Writes smb.conf: a [global] section and the added shares, or the
        given raw text."""
        if text is None:
            lines = ["[global]", "   workgroup = WORKGROUP", ""]
            for name, path, options in self.shares:
                lines.append("[%s]" % name)
                lines.append("   path = %s" % path)
                for key, value in options.items():
                    lines.append("   %s = %s" % (key.replace("_", " "), value))
                lines.append("")
            text = "\n".join(lines)
        _write(self.smb_conf_path, text)

    def conf_dir(self, queue_type: Union[int, str]) -> Path:
        """Host path of the configuration directory of a queue type
        (0/"system", 1/"app", 2/"user")."""
        if isinstance(queue_type, str):
            queue_type = QUEUE_TYPE_NAMES[queue_type]
        return self.conf_root / QUEUE_TYPE_DIRS[queue_type]

    def queue_path(self, name: str) -> Path:
        """A queue-file path in the temporary directory; the same absolute
        path is valid inside the namespace."""
        return self.queue_dir / name

    def add_queue(self, queue_type: Union[int, str], filename: str,
                  queue_path: Union[str, Path, None] = None,
                  monitors: Optional[List[dict]] = None) -> Path:
        """Writes one monitor-queue configuration file and returns its path.

        queue_path defaults to queues/<file stem>.queue in the temporary
        directory; monitors default to none. Each monitor is a dict as in
        the configuration format, e.g. monitor("Public").
        """
        if queue_path is None:
            queue_path = self.queue_path(Path(filename).stem + ".queue")
        content = {"queue": str(queue_path), "monitors": list(monitors or [])}
        return self.write_queue_file(queue_type, filename, content)

    def write_queue_file(self, queue_type: Union[int, str], filename: str,
                         content: Union[dict, list, str]) -> Path:
        """Writes a configuration file (object or raw text) in one
        open-for-write/write/close, i.e. exactly one IN_CLOSE_WRITE."""
        path = self.conf_dir(queue_type) / filename
        path.parent.mkdir(parents=True, exist_ok=True)
        _write(path, content)
        return path

    def remove_queue_file(self, queue_type: Union[int, str], filename: str):
        """Removes a configuration file."""
        (self.conf_dir(queue_type) / filename).unlink()

    def write_run_status(self, content: Union[dict, list, str]):
        """Writes the run-status file: an object/list as JSON, or raw text."""
        _write(self.run_status_path, content)

    def remove_run_status(self):
        try:
            self.run_status_path.unlink()
        except FileNotFoundError:
            pass

    def read_run_status(self):
        """The run-status file parsed as JSON, its raw text when that fails,
        or None when it does not exist."""
        try:
            text = self.run_status_path.read_text()
        except FileNotFoundError:
            return None
        try:
            return json.loads(text)
        except ValueError:
            return text

    def read_queue(self, queue_path: Union[str, Path]) -> List[dict]:
        """The lines of a queue file parsed as JSON ([] if absent)."""
        try:
            text = Path(queue_path).read_text()
        except FileNotFoundError:
            return []
        return [json.loads(line) for line in text.splitlines() if line.strip()]

    # ------------------------------------------------------------------
    # Process control.

    def start(self, before_exec: Optional[Callable[["Appliance"], None]] = None,
              timeout: float = DEFAULT_TIMEOUT):
        """Builds the namespace and starts the program in it.

        `before_exec(appliance)` runs once the namespace is set up and before
        the program starts; `pid`, `run_in_ns` and `ns_path` already work
        then (e.g. to put files on a volume).

        An appliance whose daemon has ended can be started again: the files
        stay as the last run left them (fresh volumes, though), and `logs`
        and `notifications` start empty.
        """
        if self._stopped:
            raise HarnessError("appliance already stopped for good")
        if self.proc is not None:
            if self.proc.poll() is None:
                raise HarnessError("appliance already running")
            # A new run in the same appliance (same files): observations
            # start afresh.
            self._log.clear()
            self._notify.clear()
            self._stdout.close()
            self._stderr.close()
            self.proc = None
        for target in BIND_TARGETS:
            os.makedirs(target, exist_ok=True)  # empty mount points only
        if self._log is None:
            self._open_sockets()
        dev_stage = self.root / "dev-stage"
        dev_stage.mkdir(exist_ok=True)
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
               "NOTIFY_SOCKET": str(self._notify.path)}
        # Sanitizer builds read their options from the environment.
        for key, value in os.environ.items():
            if key.split("_", 1)[0] in ("ASAN", "UBSAN", "TSAN", "LSAN", "MSAN"):
                env[key] = value
        status_r, status_w = os.pipe()
        go_r, go_w = os.pipe()
        group_file = self.root / "group"
        group_file.write_text(self._group_file_text())
        argv = [str(self.program)] + self.args
        if self.capabilities is not None:
            argv = [_setpriv(), "--no-new-privs",
                    "--bounding-set=-all," + ",".join(
                        "+" + c for c in self.capabilities),
                    "--inh-caps=-all", "--"] + argv
        self._ns_prefix = None
        root_volume = [v for v in self.volumes
                       if v["mounted"] and v["mount_point"].rstrip("/") == ""]
        config = {
            "root_volume": ({"stage": str(self.root / "root-stage"),
                             "size": root_volume[0]["size"]}
                            if root_volume else None),
            "binds": [[str(self.run_dir), "/run"],
                      [str(self.etc_dir), "/usr/yulo/etc"],
                      [str(self.samba_dir), "/etc/samba"]],
            "file_binds": [[str(group_file), "/etc/group"]],
            "dev": {"stage": str(dev_stage), "log_socket": str(self._log.path)},
            "volumes": [{"mount_point": v["mount_point"], "size": v["size"]}
                        for v in self.volumes
                        if v["mounted"] and v["mount_point"].rstrip("/")],
            "dirs": [d for d in self.dirs if self._on_mounted_volume(d)],
            "env": env,
            "argv": argv,
            "status_fd": status_w,
            "go_fd": go_r,
            "parent_pid": os.getpid(),
        }
        config_path = self.root / "launcher.json"
        config_path.write_text(json.dumps(config, indent=1))
        self._stdout = open(self.stdout_path, "wb")
        self._stderr = open(self.stderr_path, "wb")
        go = os.fdopen(go_w, "w")
        try:
            try:
                self.proc = subprocess.Popen(
                    ["unshare", "--mount", "--propagation", "private", "--",
                     sys.executable, str(LAUNCHER), str(config_path)],
                    stdin=subprocess.DEVNULL, stdout=self._stdout,
                    stderr=self._stderr, pass_fds=(status_w, go_r),
                    cwd="/", start_new_session=True)
            finally:
                os.close(status_w)
                os.close(go_r)
            status = self._read_status(status_r, timeout)
            if status != "ok":
                raise HarnessError("namespace set-up failed: %s%s"
                                   % (status or "no answer", self._stderr_tail()))
            if before_exec is not None:
                before_exec(self)
            go.write("go\n")
        except BaseException:
            go.close()  # EOF: a waiting launcher quits without exec
            self._reap_launcher()
            raise
        finally:
            os.close(status_r)
        go.close()
        return self

    def _group_file_text(self) -> str:
        """The namespace's /etc/group: the host's, with the socket group
        exactly as this appliance wants it (absent, or with socket_gid)."""
        lines = Path("/etc/group").read_text().splitlines()
        if self.socket_group is not None:
            lines = [l for l in lines
                     if l.split(":", 1)[0] != self.socket_group]
            if self.socket_gid is not None:
                lines.append("%s:x:%d:" % (self.socket_group, self.socket_gid))
        return "\n".join(lines) + "\n"

    def ns_prefix(self) -> str:
        """The install prefix as a path inside the namespace that every
        user may reach (the host path may lie below private directories);
        for running the installed tools as another user."""
        if self.prefix is None:
            raise HarnessError("appliance runs no installed prefix")
        if self._ns_prefix is None:
            target = "/run/e2e-prefix"
            self.run_in_ns(["mkdir", "-p", target])
            self.run_in_ns(["mount", "--bind", "-o", "ro", str(self.prefix),
                            target])
            self._ns_prefix = target
        return self._ns_prefix

    def run_as(self, argv: List[str], uid: int = 65534, gid: int = 65534,
               groups: Optional[List[int]] = None, check: bool = False,
               timeout: float = 30.0, input: Optional[bytes] = None
               ) -> subprocess.CompletedProcess:
        """Runs a command in the namespace as another user (setpriv): user
        `uid`, primary group `gid`, supplementary `groups` (none by
        default), no capabilities."""
        priv = [_setpriv(), "--reuid=%d" % uid, "--regid=%d" % gid]
        if groups:
            priv.append("--groups=" + ",".join(str(g) for g in groups))
        else:
            priv.append("--clear-groups")
        priv += ["--inh-caps=-all", "--"]
        return self.run_in_ns(priv + list(argv), check=check,
                              timeout=timeout, input=input)

    def _reap_launcher(self):
        """After a failed start: lets the launcher end, or kills it."""
        if self.proc is None:
            return
        try:
            self.proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait(timeout=10)

    def _on_mounted_volume(self, path: str) -> bool:
        """Whether `path` lies on a tmpfs volume of this appliance, where
        making it cannot touch the host's file system."""
        for v in self.volumes:
            mp = v["mount_point"].rstrip("/")  # "" for a volume at "/"
            if v["mounted"] and path.startswith(mp + "/"):
                return True
        return False

    @staticmethod
    def _read_status(fd: int, timeout: float) -> str:
        """The launcher's one-line answer ("ok" or "error: ..."), "" if it
        ended or did not answer in time."""
        deadline = time.monotonic() + timeout
        data = b""
        while b"\n" not in data and time.monotonic() < deadline:
            ready, _, _ = select.select([fd], [], [], 0.1)
            if ready:
                chunk = os.read(fd, 4096)
                if not chunk:
                    break
                data += chunk
        return data.decode(errors="replace").strip()

    def _open_sockets(self):
        sock_dir = self.root / "sock"
        if len(str(sock_dir / "notify.sock")) > _MAX_SOCKET_PATH:
            sock_dir = Path(tempfile.mkdtemp(prefix="yulo-e2e-"))
            self._own_sock_dir = True
        sock_dir.mkdir(exist_ok=True)
        self._sock_dir = sock_dir
        self._log = DatagramReceiver(sock_dir / "log.sock")
        self._notify = DatagramReceiver(sock_dir / "notify.sock")

    @property
    def pid(self) -> int:
        if self.proc is None:
            raise HarnessError("appliance not started")
        return self.proc.pid

    @property
    def running(self) -> bool:
        return self.proc is not None and self.proc.poll() is None

    @property
    def returncode(self) -> Optional[int]:
        return None if self.proc is None else self.proc.poll()

    def signal(self, sig: int = _signal.SIGTERM):
        """Sends `sig` to the daemon."""
        if not self.running:
            raise AssertionError("cannot send signal %d: daemon not running "
                                 "(exit %r)%s" % (sig, self.returncode,
                                                  self.diagnostics()))
        os.kill(self.pid, sig)

    def wait_exit(self, timeout: float = STOP_TIMEOUT) -> int:
        """Waits for the daemon to end; returns its exit status (negative:
        killed by that signal)."""
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("daemon still running after %.1fs%s"
                                 % (timeout, self.diagnostics())) from None

    def assert_running(self):
        if not self.running:
            raise AssertionError("daemon is not running (exit %r)%s"
                                 % (self.returncode, self.diagnostics()))

    def stop(self, timeout: float = STOP_TIMEOUT):
        """Ends everything this appliance started; safe to call repeatedly.

        A running daemon gets SIGTERM, then SIGKILL if it has not ended in
        `timeout` seconds. Its namespace, and every mount in it, ends with it.
        """
        if self._stopped:
            return
        self._stopped = True
        try:
            if self.proc is not None and self.proc.poll() is None:
                try:
                    os.kill(self.proc.pid, _signal.SIGTERM)
                    self.proc.wait(timeout=timeout)
                except (ProcessLookupError, subprocess.TimeoutExpired):
                    pass
                if self.proc.poll() is None:
                    self.proc.kill()
                    self.proc.wait(timeout=10)
        finally:
            for receiver in (self._log, self._notify):
                if receiver is not None:
                    receiver.close()
            for f in (self._stdout, self._stderr):
                if f is not None:
                    f.close()
            if self._own_sock_dir and self._sock_dir is not None:
                shutil.rmtree(self._sock_dir, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()
        return False

    # ------------------------------------------------------------------
    # Inside the namespace.

    def run_in_ns(self, argv: List[str], check: bool = True,
                  timeout: float = 30.0, input: Optional[bytes] = None
                  ) -> subprocess.CompletedProcess:
        """Runs a command in the daemon's mount namespace (nsenter)."""
        self.assert_running()
        result = subprocess.run(
            ["nsenter", "--target", str(self.pid), "--mount", "--"] + list(argv),
            input=input, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            timeout=timeout)
        if check and result.returncode != 0:
            raise AssertionError("in namespace: %r exited %d: %s"
                                 % (argv, result.returncode,
                                    result.stderr.decode(errors="replace")))
        return result

    def ns_path(self, path: str) -> Path:
        """Host path of `path` as seen inside the namespace (via
        /proc/PID/root); valid while the daemon runs."""
        if not path.startswith("/"):
            raise HarnessError("path must be absolute: %r" % path)
        return Path("/proc/%d/root%s" % (self.pid, path))

    def mount_volume(self, mount_point: str, size: str = "64m",
                     dirs: Optional[List[str]] = None):
        """Mounts a tmpfs at `mount_point` inside the running namespace.

        With `dirs` (absolute paths below the mount point, e.g. its shares)
        the tmpfs is filled first and then moved into place, so the volume
        appears at once with those directories, as a real data volume
        would.
        """
        self.run_in_ns(["mkdir", "-p", mount_point])
        self.run_in_ns(["sh", "-c", " && ".join(
            self._mount_commands(mount_point, size, dirs))])

    def _mount_commands(self, mount_point: str, size: str,
                        dirs: Optional[List[str]]) -> List[str]:
        """Shell commands mounting a tmpfs at `mount_point`, with `dirs`."""
        options = "mode=0755,size=%s" % size
        if not dirs:
            return ["mount -t tmpfs -o %s tmpfs %s" % (options,
                                                       _sh(mount_point))]
        stage = str(self.root / "mount-stage")
        base = mount_point.rstrip("/")
        commands = ["mkdir -p %s" % _sh(stage),
                    "mount -t tmpfs -o %s tmpfs %s" % (options, _sh(stage))]
        for d in dirs:
            if not d.startswith(base + "/"):
                raise HarnessError("%r is not below %r" % (d, mount_point))
            commands.append("mkdir -p %s" % _sh(stage + d[len(base):]))
        commands.append("mount --move %s %s" % (_sh(stage), _sh(mount_point)))
        return commands

    def umount_volume(self, mount_point: str, check: bool = True
                      ) -> subprocess.CompletedProcess:
        """Unmounts `mount_point` inside the running namespace (a plain
        umount: it fails while anything keeps the volume busy)."""
        return self.run_in_ns(["umount", mount_point], check=check)

    def remount_volume(self, mount_point: str, size: str = "64m",
                       dirs: Optional[List[str]] = None):
        """Unmounts `mount_point` and mounts a fresh tmpfs there (with
        `dirs`, as mount_volume) in one go, quicker than the daemon looks."""
        commands = (["umount %s" % _sh(mount_point)] +
                    self._mount_commands(mount_point, size, dirs))
        self.run_in_ns(["sh", "-c", " && ".join(commands)])

    def replace_file(self, path: Union[str, Path],
                     content: Union[dict, list, str]):
        """Replaces a file the way careful writers do: writes a temporary
        file beside it, then renames it over the file."""
        path = Path(path)
        temporary = path.with_name(".%s.tmp" % path.name)
        _write(temporary, content)
        os.rename(temporary, path)

    # ------------------------------------------------------------------
    # Observations: syslog lines and service-manager notifications.

    @property
    def log_records(self) -> List[LogRecord]:
        if self._log is None:
            return []
        return [LogRecord.parse(d, t) for d, t in self._log.snapshot()]

    @property
    def logs(self) -> List[str]:
        """Every syslog message so far, header stripped, in arrival order."""
        return [r.message for r in self.log_records]

    def find_logs(self, pattern: str) -> List[str]:
        """Messages in which the regular expression `pattern` is found."""
        rx = re.compile(pattern)
        return [m for m in self.logs if rx.search(m)]

    def count_logs(self, pattern: str) -> int:
        return len(self.find_logs(pattern))

    def wait_log(self, pattern: str, timeout: float = DEFAULT_TIMEOUT,
                 count: int = 1) -> "re.Match":
        """Waits until `count` messages match `pattern`; returns the match of
        the count-th. Raises AssertionError on time-out."""
        rx = re.compile(pattern)

        def nth():
            hits = [m for m in (rx.search(s) for s in self.logs) if m]
            return hits[count - 1] if len(hits) >= count else None

        match = wait_until(nth, timeout)
        if match is None:
            raise AssertionError(
                "no%s log line matching %r within %.1fs (seen %d)%s"
                % ("" if count == 1 else " %d" % count, pattern, timeout,
                   self.count_logs(pattern), self.diagnostics()))
        return match

    @property
    def notifications(self) -> List[str]:
        """Every datagram received on NOTIFY_SOCKET, as text."""
        if self._notify is None:
            return []
        return [d.decode("utf-8", errors="replace")
                for d, _ in self._notify.snapshot()]

    @property
    def ready_seen(self) -> bool:
        """Whether "READY=1" was announced."""
        return any("READY=1" in n.split("\n") for n in self.notifications)

    def wait_ready(self, timeout: float = DEFAULT_TIMEOUT):
        """Waits for "READY=1"; raises AssertionError if it does not come
        (or the daemon ends first)."""
        def ready_or_dead():
            return self.ready_seen or not self.running

        wait_until(ready_or_dead, timeout)
        if not self.ready_seen:
            raise AssertionError("no READY=1 within %.1fs (daemon %s)%s"
                                 % (timeout, "running" if self.running else
                                    "exited %r" % self.returncode,
                                    self.diagnostics()))

    def wait_path(self, path: Union[str, Path], exists: bool = True,
                  timeout: float = DEFAULT_TIMEOUT):
        """Waits for a host path to appear (or disappear)."""
        p = Path(path)
        if not wait_until(lambda: p.exists() == exists, timeout):
            raise AssertionError("%s still %s after %.1fs%s"
                                 % (p, "absent" if exists else "present",
                                    timeout, self.diagnostics()))

    def diagnostics(self, lines: int = 40) -> str:
        """Recent log lines, notifications and stderr, for failure messages."""
        out = ["", "--- last %d syslog lines ---" % lines]
        out += self.logs[-lines:] or ["(none)"]
        out += ["--- notifications ---"] + (self.notifications or ["(none)"])
        tail = self._stderr_tail()
        if tail:
            out.append(tail.strip("\n"))
        return "\n".join(out)

    def _stderr_tail(self, size: int = 4000) -> str:
        try:
            data = self.stderr_path.read_bytes()[-size:]
        except OSError:
            return ""
        if not data:
            return ""
        return "\n--- stderr ---\n" + data.decode(errors="replace")


def machine_problems(why_root: str, tools) -> List[str]:
    """What keeps this machine from running a suite: not root (`why_root`
    says why it must be), or util-linux `tools` missing."""
    problems = []
    if os.geteuid() != 0:
        problems.append("the tests must run as root (%s)" % why_root)
    for tool in tools:
        if shutil.which(tool) is None:
            problems.append("%s (util-linux) is not installed" % tool)
    return problems


def end_all(things, end: Callable[[object], None]):
    """Calls `end` on every one of `things`, even after one fails; then
    raises the first failure, if any (a fixture's teardown)."""
    errors = []
    for thing in things:
        try:
            end(thing)
        except Exception as e:  # keep ending the others
            errors.append(e)
    if errors:
        raise errors[0]


def _setpriv() -> str:
    path = shutil.which("setpriv")
    if path is None:
        raise HarnessError("setpriv (util-linux) is not installed")
    return path


# How long a test waits for a queue line: a few processor passes.
LINE_TIMEOUT = 10.0


def wait_lines(app: "Appliance", queue, predicate,
               timeout: float = LINE_TIMEOUT) -> list:
    """Waits until predicate(lines) holds for the queue's parsed lines;
    returns them, or raises AssertionError with the lines and the logs."""
    def check():
        lines = app.read_queue(queue)
        return lines if predicate(lines) else None

    lines = wait_until(check, timeout)
    if lines is None:
        raise AssertionError(
            "queue %s: condition not met within %.0fs; lines: %r%s"
            % (queue, timeout, app.read_queue(queue), app.diagnostics()))
    return lines


def wait_count(app: "Appliance", queue, n: int,
               timeout: float = LINE_TIMEOUT) -> list:
    """Waits until the queue holds at least `n` lines."""
    return wait_lines(app, queue, lambda ls: len(ls) >= n, timeout)


def wait_line(app: "Appliance", queue, expected,
              timeout: float = LINE_TIMEOUT) -> list:
    """Waits until `expected` is one of the queue's lines."""
    return wait_lines(app, queue, lambda ls: expected in ls, timeout)


MAX_QUEUED_EVENTS = "/proc/sys/fs/fanotify/max_queued_events"


@contextmanager
def kernel_queue_limit(events: int):
    """Lowers the kernel's fanotify queue limit to `events` for the body,
    so that a daemon started in it overflows easily (the limit is taken
    when the daemon opens fanotify); restores the old limit afterwards."""
    with open(MAX_QUEUED_EVENTS) as f:
        saved = f.read().strip()
    try:
        with open(MAX_QUEUED_EVENTS, "w") as f:
            f.write(str(events))
        yield
    finally:
        with open(MAX_QUEUED_EVENTS, "w") as f:
            f.write(saved)


def monitor(share: str, dir: str = "/", recursive: bool = True,
            events: Union[int, List[str], None] = 1023) -> dict:
    """One monitor entry of a monitor-queue configuration file."""
    entry = {"share": share, "dir": dir, "recursive": recursive}
    if events is not None:
        entry["events"] = events
    return entry


def _sh(word: str) -> str:
    """`word` quoted for sh."""
    return "'" + word.replace("'", "'\\''") + "'"


def _write(path: Path, content):
    """Writes a file in one open/write/close; objects are written as JSON."""
    if not isinstance(content, (str, bytes)):
        content = json.dumps(content)
    mode = "wb" if isinstance(content, bytes) else "w"
    with open(path, mode) as f:
        f.write(content)
