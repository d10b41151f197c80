"""yulotify-forward against a three-node JetStream cluster (three
nats-server processes with routes and distinct names) and a stream it
creates with three replicas: a node lost mid-burst, the one the forwarder
is connected to or the stream's leader, costs no line and doubles none,
and the node, started again, catches up."""

import re
import threading

import pytest

from forward_harness import (  # noqa: F401 (fixture: forwarders)
    STREAM, Forwarder, NatsCluster, create, forwarders, jetstream_api, paths,
    setup_appliance, stream_count, wait_stream)
from harness import wait_until

BURST = 10000
DAY_NS = 24 * 3600 * 10**9


@pytest.fixture
def cluster(tmp_path):
    c = NatsCluster(tmp_path, 3)
    c.start()
    yield c
    c.stop()


def connected_node(cluster: NatsCluster, fwd: Forwarder) -> str:
    """The node the forwarder last said it is connected to."""
    ports = re.findall(r"connected to nats://127\.0\.0\.1:(\d+)", fwd.log())
    assert ports, fwd.log()
    return next(n.name for n in cluster.nodes if n.port == int(ports[-1]))


def move_leader_off(cluster: NatsCluster, name: str):
    """Asks the stream's leader to step down until it is not `name`."""
    for _ in range(10):
        leader = cluster.leader()
        if leader is not None and leader != name:
            return leader
        if leader is not None:
            jetstream_api(cluster.node(leader),
                          "$JS.API.STREAM.LEADER.STEPDOWN." + STREAM, {})
        wait_until(lambda: cluster.leader() not in (None, leader), 10)
    pytest.fail("the stream's leader stays on %s" % name)


def replica_caught_up(cluster: NatsCluster, name: str) -> bool:
    info = cluster.stream_info()
    if info is None:
        return False
    nodes = [info["cluster"].get("leader")] + [
        r["name"] for r in info["cluster"].get("replicas", [])
        if r.get("current") and r.get("lag", 0) == 0]
    return name in nodes


@pytest.mark.parametrize("victim", ["connected", "leader"])
def test_a_node_killed_mid_burst_loses_no_line_and_doubles_none(
        make_appliance, cluster, forwarders, yulotifyd_prefix, tmp_path,
        victim):
    app, q = setup_appliance(make_appliance)
    fwd = Forwarder(yulotifyd_prefix, tmp_path, cluster, q, "--replicas",
                    "3")
    forwarders.append(fwd)
    fwd.start()
    fwd.wait_log("created stream")
    info = cluster.stream_info()
    assert info["config"]["num_replicas"] == 3, info
    assert info["config"]["duplicate_window"] == DAY_NS, info

    names = ["f%05d" % i for i in range(BURST)]
    connected = None
    name = None
    if victim == "leader":
        # Not the node the forwarder talks to: the leader alone goes.
        connected = connected_node(cluster, fwd)
        name = move_leader_off(cluster, connected)
    # Mid-burst: the node goes once the first lines are stored, while the
    # first half is still being created and sent; the second half comes
    # after.
    creator = threading.Thread(target=create, args=(app, names[:BURST // 2]))
    creator.start()
    try:
        assert wait_until(
            lambda: stream_count(yulotifyd_prefix, cluster) > 1000, 60), \
            fwd.log()
        if victim == "connected":
            connected = name = connected_node(cluster, fwd)
        cluster.node(name).kill()
    finally:
        creator.join()
    create(app, names[BURST // 2:])
    messages = wait_stream(yulotifyd_prefix, cluster, BURST, fwd,
                           timeout=120)
    # Once each, in the order of the queue file.
    assert paths(messages) == ["/vol1/Public/" + n for n in names]
    assert len(set(m["id"] for m in messages)) == BURST
    if victim == "connected":
        assert connected_node(cluster, fwd) != name, fwd.log()
    assert fwd.stop() == 0

    # Started again, the node catches up: it holds every message.
    cluster.node(name).start()
    assert wait_until(lambda: replica_caught_up(cluster, name), 60), \
        cluster.stream_info()
    assert cluster.stream_info()["state"]["messages"] == BURST
