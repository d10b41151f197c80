"""A throw-away container that boots the host's systemd as its PID 1.

boot.sh builds it (new PID, mount, UTS, IPC, network and cgroup
namespaces; an overlay of / with a tmpfs upper layer; see there). Outside
the namespaces the only change is one cgroup directory, which close()
removes. Commands run inside through nsenter, in the container's cgroup;
every process is ended by its own id: the container's PID 1 (whose end
takes every process of its PID namespace along) and the unshare process
that waits for it.

The container's mount namespace is held open by a descriptor for as long
as the Container lives, so its files can still be read after a
`systemctl poweroff` has ended it (read_file).
"""

import os
import signal
import subprocess
from pathlib import Path

from harness import wait_until

HERE = Path(__file__).resolve().parent
TARGET = "container-test.target"


class ContainerError(Exception):
    pass


def cgroup2_mount():
    """Where the cgroup v2 hierarchy is mounted on the host."""
    with open("/proc/self/mountinfo") as f:
        for line in f:
            fields = line.split()
            sep = fields.index("-")
            if fields[sep + 1] == "cgroup2":
                return Path(fields[4])
    raise ContainerError("no cgroup2 file system is mounted")


def own_cgroup():
    with open("/proc/self/cgroup") as f:
        for line in f:
            if line.startswith("0::"):
                return line[3:].strip().lstrip("/")
    raise ContainerError("this process is in no cgroup v2 group")


def wait_for(predicate, timeout, what):
    """harness.wait_until, failing when time runs out."""
    value = wait_until(predicate, timeout)
    if not value:
        raise ContainerError("timed out after %gs waiting for %s" %
                             (timeout, what))
    return value


class Container:
    def __init__(self, name, log_path):
        self.name = name
        self.log_path = Path(log_path)
        root = cgroup2_mount()
        # Beside this process's own group: a group of the host's root cgroup
        # may not be writable where the host delegates only a subtree.
        self.cgroup = root / own_cgroup() / ("yulotifyd-system-%d-%s" %
                                            (os.getpid(), name))
        self.unshare = None
        self.pid = None
        self.mnt_fd = None

    # -- life -------------------------------------------------------------

    def boot(self, timeout=60):
        self.cgroup.mkdir()
        log = open(self.log_path, "wb")
        try:
            self.unshare = subprocess.Popen(
                ["unshare", "--pid", "--fork", "--mount", "--uts", "--ipc",
                 "--net", "bash", str(HERE / "boot.sh"), self.name, TARGET,
                 str(self.cgroup)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                start_new_session=True)
        finally:
            log.close()
        self.pid = wait_for(self._init_pid, 10, "the container's PID 1")
        wait_for(lambda: self._comm(self.pid) == "systemd" or
                 self.unshare.poll() is not None, 10, "systemd to start")
        if self.unshare.poll() is not None:
            raise ContainerError("the container did not boot:\n" +
                                 self.log_path.read_text(errors="replace"))
        self.mnt_fd = os.open("/proc/%d/ns/mnt" % self.pid, os.O_RDONLY |
                              os.O_CLOEXEC)
        wait_for(lambda: Path("/proc/%d/root/run/systemd/private" %
                              self.pid).exists(), timeout,
                 "systemd's private socket")
        state = self.run(["systemctl", "is-system-running", "--wait"],
                         check=False, timeout=timeout).stdout.strip()
        if state not in ("running", "degraded"):
            raise ContainerError("the container's system is %r" % state)
        return state

    def _init_pid(self):
        try:
            with open("/proc/%d/task/%d/children" %
                      (self.unshare.pid, self.unshare.pid)) as f:
                children = f.read().split()
        except OSError:
            return None
        return int(children[0]) if children else None

    @staticmethod
    def _comm(pid):
        try:
            with open("/proc/%d/comm" % pid) as f:
                return f.read().strip()
        except OSError:
            return None

    def alive(self):
        return self.unshare is not None and self.unshare.poll() is None

    def poweroff(self, timeout=90):
        """`systemctl poweroff` inside; returns once PID 1 has ended."""
        self.run(["systemctl", "poweroff"], check=False)
        try:
            self.unshare.wait(timeout)
        except subprocess.TimeoutExpired:
            raise ContainerError("the container did not power off within "
                                 "%gs" % timeout)

    def close(self):
        """Ends whatever is left and removes the cgroup directory."""
        if self.unshare is not None and self.unshare.poll() is None:
            if self.pid is not None:
                try:
                    os.kill(self.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            try:
                self.unshare.wait(10)
            except subprocess.TimeoutExpired:
                os.kill(self.unshare.pid, signal.SIGKILL)
                self.unshare.wait(10)
        if self.mnt_fd is not None:
            os.close(self.mnt_fd)
            self.mnt_fd = None
        if self.cgroup.exists():
            # Innermost groups first; they empty as the killed processes
            # are reaped.
            groups = sorted((p for p in self.cgroup.rglob("*")
                             if p.is_dir()), key=lambda p: len(p.parts),
                            reverse=True) + [self.cgroup]
            for group in groups:
                wait_for(lambda: self._rmdir(group), 10,
                         "cgroup %s to empty" % group)

    @staticmethod
    def _rmdir(path):
        try:
            path.rmdir()
        except FileNotFoundError:
            pass
        except OSError:
            return False
        return True

    # -- inside -----------------------------------------------------------

    def _enter(self):
        # In the child, before nsenter: join the container's cgroup, so the
        # command is one of the container's processes there too.
        with open(self.cgroup / "init.scope" / "cgroup.procs", "w") as f:
            f.write(str(os.getpid()))

    def run(self, argv, user=None, check=True, input=None, timeout=60,
            env=None):
        """Runs argv inside, as root or as `user` (no login session: ids and
        groups of the user, their HOME). Returns the CompletedProcess with
        text stdout and stderr."""
        if not self.alive():
            raise ContainerError("the container is not running")
        cmd = ["nsenter", "-t", str(self.pid), "-a", "--"]
        base_env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8",
                    "SYSTEMD_PAGER": "", "SYSTEMD_COLORS": "0"}
        if user is not None:
            gid = self.run(["id", "-g", user]).stdout.strip()
            cmd += ["setpriv", "--reuid=" + user, "--regid=" + gid,
                    "--init-groups", "--reset-env", "--"]
        cmd += ["env"] + ["%s=%s" % kv for kv in
                          sorted({**base_env, **(env or {})}.items())]
        cmd += list(argv)
        result = subprocess.run(cmd, input=input, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True,
                                timeout=timeout, preexec_fn=self._enter,
                                env=base_env)
        if check and result.returncode != 0:
            raise ContainerError(
                "%s exited with %d\nstdout: %s\nstderr: %s" %
                (" ".join(argv), result.returncode, result.stdout,
                 result.stderr))
        return result

    def sh(self, script, **kwargs):
        return self.run(["sh", "-ec", script], **kwargs)

    def read_file(self, path):
        """A file of the container, also after it has ended."""
        result = subprocess.run(
            ["nsenter", "--mount=/proc/%d/fd/%d" % (os.getpid(), self.mnt_fd),
             "--", "cat", "--", path],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            timeout=30, pass_fds=(self.mnt_fd,))
        if result.returncode != 0:
            raise ContainerError("cannot read %s: %s" % (path, result.stderr))
        return result.stdout
