"""What a local user can put in a queue file's place, end to end: a FIFO
must not stall the daemon, and a symbolic link or a huge file must not make
a consumer run by root read, cut or hold another file.

The user is played with setpriv inside the daemon's namespace
(Appliance.run_as), as user nobody, who owns /vol1/users/nobody.
"""

import json
import os
import signal
import subprocess

from control_util import ctl_binary, run_ctl  # noqa: F401 (fixture)
from harness import monitor, wait_lines
from test_access import configure as configure_root_queue

NOBODY = 65534
NOGROUP = 65534
FIFO = "/vol1/users/nobody/q"


def configure(app):
    """Volume 1 at /vol1 with share Public and a root-owned queue on it,
    and nobody's subscription naming FIFO; returns the root queue."""
    root_q = configure_root_queue(app)
    conf = app.add_queue("user", "nobody.json", FIFO,
                         [monitor("Public", events=["create"])])
    os.chown(conf, NOBODY, NOGROUP)
    os.chmod(conf, 0o644)
    return root_q


def prepare_users(app):
    users = app.ns_path("/vol1/users")
    (users / "nobody").mkdir(mode=0o755)
    os.chown(users / "nobody", NOBODY, NOGROUP)


def create_and_wait(app, queue, name):
    (app.ns_path("/vol1/Public") / name).write_text(name)
    path = "/vol1/Public/" + name
    wait_lines(app, queue, lambda ls: any(l.get("path") == path for l in ls))


def test_a_fifo_as_queue_file_stalls_nothing(appliance, ctl_binary):
    app = appliance
    root_q = configure(app)

    def prepare(app):
        prepare_users(app)
        # The user makes the FIFO, as any user can in their own directory.
        app.run_as(["mkfifo", FIFO], check=True)

    app.start(before_exec=prepare)
    app.wait_ready()
    # Both queues want these creations: the FIFO's turn comes in every pass
    # and the root queue still gets its lines, pass after pass.
    for name in ("a", "b", "c"):
        create_and_wait(app, root_q, name)
    app.wait_log(r"Queue path is not a regular file, path=%s$" % FIFO)
    assert app.count_logs(r"not a regular file") == 1, app.logs()

    # The main thread is not held up either: status answers, and shows why
    # the FIFO gets nothing. (The time-out only keeps a hang from hanging
    # the test run.)
    r = run_ctl(ctl_binary, "status", "--json", socket_path=app.socket_path,
                timeout=10)
    assert r.returncode in (0, 1), (r.returncode, r.err)
    files = {f["path"]: f for f in json.loads(r.out)["queue_files"]}
    assert files[FIFO]["state"] == "failing"
    assert files[FIFO]["last_error"] == "not a regular file"
    assert files[str(root_q)]["state"] == "ok"
    assert app.ns_path(FIFO).is_fifo()

    # A stop is prompt and clean.
    app.signal(signal.SIGTERM)
    assert app.wait_exit(15) == 0, app.diagnostics()


def start_with_users(app):
    """A running appliance with nobody's directory and a root queue."""
    configure_root_queue(app)
    app.dirs.append("/vol1/srv")
    app.start(before_exec=prepare_users)
    app.wait_ready()
    return app.ns_prefix() + "/bin/yulotifyctl"


def test_consume_as_root_refuses_a_planted_symbolic_link(appliance):
    app = appliance
    ctl = start_with_users(app)
    victim = app.ns_path("/vol1/srv/victim")
    victim.write_text("precious\n")
    # The owner of the directory puts a link in the queue file's place.
    app.run_as(["ln", "-s", "/vol1/srv/victim", FIFO], check=True)
    for cmd in ("consume", "peek"):
        r = app.run_in_ns([ctl, cmd, FIFO], check=False)
        assert r.returncode == 1, r
        assert b"symbolic link" in r.stderr, r.stderr
        assert r.stdout == b""
    assert victim.read_text() == "precious\n"


def test_consume_as_root_refuses_another_users_file(appliance):
    app = appliance
    ctl = start_with_users(app)
    other = app.ns_path(FIFO)
    other.write_text('{"event":64}\n')
    os.chown(other, 1234, 1234)  # neither nobody (the directory's) nor root
    r = app.run_in_ns([ctl, "consume", FIFO], check=False)
    assert r.returncode == 1 and b"owned by uid 1234" in r.stderr, r
    assert other.read_text() == '{"event":64}\n'
    # Named as the expected owner, it is taken.
    r = app.run_in_ns([ctl, "consume", FIFO, "--owner", "1234"], check=False)
    assert r.returncode == 0, r
    assert r.stdout == b'{"event":64}\n'
    assert other.read_text() == ""


# Runs a command and prints its exit status and peak memory (KiB).
_MEASURE = ("import resource, subprocess, sys\n"
            "r = subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL,"
            " stderr=subprocess.PIPE)\n"
            "sys.stderr.buffer.write(r.stderr)\n"
            "print(r.returncode,"
            " resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\n")


def test_a_huge_sparse_queue_file_costs_a_consumer_no_memory(tmp_path,
                                                             ctl_binary):
    q = tmp_path / "q"
    with open(q, "wb") as f:
        f.write(b'{"event":64}\n')
        f.truncate(2 << 30)  # 2 GiB, nearly all of it a hole
    for cmd in ("consume", "peek"):
        r = subprocess.run(["/usr/bin/python3", "-c", _MEASURE,
                            str(ctl_binary), cmd, str(q)],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           timeout=60)
        status, peak_kib = map(int, r.stdout.split())
        assert status == 1, r
        assert b"more than a queue file ever does" in r.stderr, r.stderr
        assert peak_kib < 32 * 1024, peak_kib
    assert os.path.getsize(q) == 2 << 30


def test_a_large_queue_file_is_taken_a_part_at_a_time(tmp_path, ctl_binary):
    q = tmp_path / "q"
    lines = [json.dumps({"event": 64, "path": "/vol1/Public/f%06d" % i,
                         "is_dir": False}) for i in range(40000)]
    q.write_text("".join(l + "\n" for l in lines) + '{"event":6')
    r = run_ctl(ctl_binary, "consume", q, "--max-read", "65536", check=0)
    assert r.out.splitlines() == lines
    assert q.read_text() == '{"event":6'
