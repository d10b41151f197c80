"""yulotify-sink, end to end: two appliances' forwarders send their queue
files' lines to one real nats-server, and the installed sink writes them
into a central queue file while it is killed and started again; a central
queue file past its size limit is reset with rescan lines."""

import json
import re
import subprocess
from pathlib import Path

from forward_harness import (  # noqa: F401 (fixtures: forwarders, nats)
    STREAM, Forwarder, append_lines, create_line, forwarders, nats,
    setup_appliance, stream_count)
from harness import wait_until
from test_forward import QUEUE_LIMIT, put_stream, unit_argv, write_config

# Each appliance's forwarder runs in a UTS namespace of its own, so that
# its Yulotifyd-Host header names that appliance.
HOSTNAME_WRAPPER = ["unshare", "--uts", "sh", "-c",
                    'hostname "$0" && exec "$@"']


def forwarder(prefix, root: Path, server, queue: Path, subject: str):
    root.mkdir(parents=True, exist_ok=True)
    return Forwarder(prefix, root, server, queue, argv=[
        str(prefix / "bin" / "yulotify-forward"), *server.client_args(),
        "--subject", subject, "--spool", str(root / "spool"),
        "--interval", "50", str(queue)])


def sink(prefix, root: Path, server, queue: Path, *extra):
    root.mkdir(parents=True, exist_ok=True)
    return Forwarder(prefix, root, server, queue, argv=[
        str(prefix / "bin" / "yulotify-sink"), *server.client_args(),
        "--stream", STREAM, "--host-member", "yes", "--interval", "100",
        *extra, str(queue)])


def line_count(path: Path) -> int:
    try:
        return path.read_bytes().count(b"\n")
    except FileNotFoundError:
        return 0


def consume(prefix, queue: Path) -> list:
    r = subprocess.run([str(prefix / "bin" / "yulotifyctl"), "consume",
                        str(queue)], capture_output=True, text=True,
                       timeout=60)
    assert r.returncode == 0, r.stderr
    return [json.loads(t) for t in r.stdout.splitlines()]


def fleet(prefix, tmp_path, nats, forwarders, *sink_args):
    """A stream for every appliance, a sink writing it into
    central/all.queue, and the queue files of appliances nas-a and nas-b,
    each with its forwarder. Returns the sink, the central queue file and
    the appliances' queue files by host."""
    nats.start()
    put_stream(nats, ["yulotifyd.>"])
    central = tmp_path / "central" / "all.queue"
    central.parent.mkdir()
    snk = sink(prefix, tmp_path / "sink", nats, central, *sink_args)
    forwarders.append(snk)
    snk.start()
    queues = {}
    for host in ("nas-a", "nas-b"):
        queues[host] = tmp_path / host / "q.queue"
        queues[host].parent.mkdir()
        fwd = forwarder(prefix, tmp_path / host / "fwd", nats, queues[host],
                        "yulotifyd.%s.q" % host)
        forwarders.append(fwd)
        fwd.start(wrapper=HOSTNAME_WRAPPER + [host])
    return snk, central, queues


def test_two_appliances_ten_thousand_lines_once_each_in_order_through_two_kills(
        nats, forwarders, yulotifyd_prefix, tmp_path):
    snk, central, queues = fleet(yulotifyd_prefix, tmp_path, nats,
                                 forwarders, "--batch", "200")
    names = {"nas-a": ["a%05d" % i for i in range(5000)],
             "nas-b": ["b%05d" % i for i in range(5000)]}
    for i in range(0, 5000, 500):
        for host, files in names.items():
            append_lines(queues[host],
                         [create_line(n) for n in files[i:i + 500]])

    # Killed twice while lines are still coming, and started again.
    for threshold in (1500, 5000):
        assert wait_until(lambda: line_count(central) >= threshold, 60), \
            snk.log()
        snk.kill()
        assert line_count(central) < 10000
        snk.start()
    state_file = central.parent / "all.queue.sink-state"

    def settled():
        try:
            state = json.loads(state_file.read_text())
        except (OSError, ValueError):
            return False
        return state["committed"] == 10000 and "pending" not in state
    assert wait_until(settled, 90), snk.log()
    # Each start went on from where the one before stopped.
    starts = re.findall(r"from sequence (\d+) on", snk.log())
    assert len(starts) == 3 and starts[0] == "1", snk.log()
    assert 1 < int(starts[1]) < int(starts[2]) <= 10000, starts
    lines = consume(yulotifyd_prefix, central)
    assert len(lines) == 10000, lines[10000:10005]
    for host, files in names.items():
        mine = [l for l in lines if l.get("host") == host]
        assert [l["path"].rsplit("/", 1)[1] for l in mine] == files
        assert all(l["event"] == 64 for l in mine)
    assert central.stat().st_size == 0
    assert snk.stop() == 0
    state = json.loads(state_file.read_text())
    assert state["roots"] == {"nas-a": ["/vol1"], "nas-b": ["/vol1"]}


def test_central_queue_past_its_limit_is_reset_with_rescans_of_each_host(
        nats, forwarders, yulotifyd_prefix, tmp_path):
    snk, central, queues = fleet(yulotifyd_prefix, tmp_path, nats,
                                 forwarders)
    append_lines(queues["nas-a"], [create_line("first")])
    append_lines(queues["nas-b"], [
        {"event": 64, "is_dir": False, "path": "/vol2/Media/first"}])
    assert wait_until(lambda: line_count(central) == 2, 30), snk.log()

    # Nobody consumes: the central file grows to its limit.
    filler = b'{"event":2,"is_dir":false,"path":"/vol1/Public/d/f"}\n'
    with open(central, "ab") as f:
        f.write(filler * ((QUEUE_LIMIT - central.stat().st_size)
                          // len(filler)))
    assert central.stat().st_size <= QUEUE_LIMIT
    append_lines(queues["nas-a"], [create_line("s%03d" % i)
                                   for i in range(100)])
    assert wait_until(lambda: central.stat().st_size < 1000, 30), snk.log()
    snk.wait_log("would pass its size limit: reset")
    # Lines that come while the file waits for its consumer are dropped:
    # the marker already asks for the rescans.
    append_lines(queues["nas-b"], [
        {"event": 64, "is_dir": False, "path": "/vol2/Media/late"}])
    assert wait_until(lambda: stream_count(yulotifyd_prefix, nats) == 103,
                      30)
    state_file = central.parent / "all.queue.sink-state"
    assert wait_until(lambda: json.loads(state_file.read_text())["committed"]
                      == 103, 30), snk.log()
    assert consume(yulotifyd_prefix, central) == [
        {"event": 1024, "is_dir": False, "path": ""},
        {"event": 512, "is_dir": True, "path": "/vol1", "host": "nas-a"},
        {"event": 512, "is_dir": True, "path": "/vol2", "host": "nas-b"},
    ]
    # Emptied by its consumer, the file takes lines again.
    append_lines(queues["nas-a"], [create_line("after")])
    assert wait_until(lambda: line_count(central) == 1, 30), snk.log()
    assert consume(yulotifyd_prefix, central) == [
        dict(create_line("after"), host="nas-a")]
    assert snk.stop() == 0


def test_a_subject_filter_takes_only_its_appliances_lines(
        nats, forwarders, yulotifyd_prefix, tmp_path):
    snk, central, queues = fleet(yulotifyd_prefix, tmp_path, nats,
                                 forwarders, "--subject", "yulotifyd.nas-b.*",
                                 "--durable", "only-b")
    for host, queue in queues.items():
        append_lines(queue, [create_line("%s-%d" % (host, i))
                             for i in range(20)])
    assert wait_until(lambda: stream_count(yulotifyd_prefix, nats) == 40, 30)
    assert wait_until(lambda: line_count(central) == 20, 30), snk.log()
    assert snk.stop() == 0
    assert consume(yulotifyd_prefix, central) == [
        dict(create_line("nas-b-%d" % i), host="nas-b") for i in range(20)]


def test_help_version_and_a_second_sink_on_the_same_queue(
        nats, forwarders, yulotifyd_prefix, tmp_path):
    binary = str(yulotifyd_prefix / "bin" / "yulotify-sink")
    r = subprocess.run([binary, "--help"], capture_output=True, text=True)
    assert r.returncode == 0 and "usage: yulotify-sink" in r.stdout
    r = subprocess.run([binary, "--version"], capture_output=True, text=True)
    assert r.returncode == 0 and r.stdout.startswith("yulotify-sink ")
    r = subprocess.run([binary, "--server", "nats://127.0.0.1:1"],
                       capture_output=True, text=True)
    assert r.returncode == 2 and "--stream is required" in r.stderr
    nats.start()
    central = tmp_path / "central" / "all.queue"
    central.parent.mkdir()
    first = sink(yulotifyd_prefix, tmp_path / "s1", nats, central)
    forwarders.append(first)
    first.start()
    first.wait_log("no stream %s on the server yet" % STREAM)
    second = sink(yulotifyd_prefix, tmp_path / "s2", nats, central)
    forwarders.append(second)
    second.start()
    assert second.wait_exit() == 1
    assert "another yulotify-sink writes %s" % central in second.log()
    assert first.stop() == 0


def test_under_its_unit_the_sink_writes_as_the_queues_owner_and_a_planted_link_reaches_nothing(
        make_appliance, nats, forwarders, yulotifyd_prefix, tmp_path):
    """Started as its unit starts it (root, the unit's capabilities), for a
    central queue file in a directory of an unprivileged user's on a data
    volume: it writes as that user; when the user replaces the queue file
    with a link to a file of root's, the target keeps every byte."""
    # The appliance only lends its namespace and data volume /vol1.
    app, _ = setup_appliance(make_appliance)
    nats.start()
    put_stream(nats, ["yulotifyd.>"])
    app.run_in_ns(["mkdir", "-m", "0755", "/vol1/central"])
    app.run_in_ns(["chown", "65534:65534", "/vol1/central"])
    victim = app.ns_path("/vol1/victim")
    victim.write_text("root's own\n")
    victim.chmod(0o600)
    conf = write_config(
        tmp_path / "sink.conf",
        "server=%s\nstream=%s\nqueue=/vol1/central/all.queue\n"
        "host-member=yes\ninterval=100\n" % (nats.url, STREAM))
    snk = Forwarder(yulotifyd_prefix, tmp_path, nats, None,
                    argv=unit_argv(yulotifyd_prefix, conf, "yulotify-sink"))
    forwarders.append(snk)
    snk.start(wrapper=["nsenter", "--target", str(app.pid), "--mount", "--"])
    queue = tmp_path / "nas-a" / "q.queue"
    queue.parent.mkdir()
    fwd = forwarder(yulotifyd_prefix, tmp_path / "nas-a" / "fwd", nats, queue,
                    "yulotifyd.nas-a.q")
    forwarders.append(fwd)
    fwd.start(wrapper=HOSTNAME_WRAPPER + ["nas-a"])
    append_lines(queue, [create_line("u%d" % i) for i in range(5)])
    central = app.ns_path("/vol1/central/all.queue")
    assert wait_until(lambda: line_count(central) == 5, 30), snk.log()
    assert "running as nobody (owner of /vol1/central)" in snk.log()
    state = app.ns_path("/vol1/central/all.queue.sink-state")
    for path in (central, state):
        assert path.stat().st_uid == 65534
        assert path.stat().st_mode & 0o777 == 0o600
    # The user plants a link to root's file in place of the queue file.
    app.run_as(["sh", "-c", "rm /vol1/central/all.queue && "
                "ln -s /vol1/victim /vol1/central/all.queue"], check=True)
    append_lines(queue, [create_line("more")])
    snk.wait_log("cannot open /vol1/central/all.queue")
    assert victim.read_text() == "root's own\n"
    assert victim.stat().st_uid == 0 and victim.stat().st_mode & 0o777 == 0o600
    assert snk.proc.poll() is None
    assert snk.stop() == 0
