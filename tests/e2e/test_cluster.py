# The disk agent under a real cluster engine: two Corosync 3 + Pacemaker 2.1 nodes on this machine
# (cluster.py), sharing one loop-backed ext4 disk.
#
# Scenario: the disk resource fs1 starts on node 1; it is unmounted behind the engine's back, the monitor
# reports it and the engine recovers it; fs1 is moved to node 2 and back; node 1 dies (every process of it
# killed by PID, its cluster daemons first) and fs1 fails over to node 2; it stops. A sampler looks at every
# node's mount table all along: the disk is never mounted on more than one node. When stopped it is mounted
# nowhere and its device is read-only. (The share agent is the same OCF script: test_ocf.py runs it.)
# No fencing is configured (stonith-enabled=false): a node here dies whole, its mounts with it.
# A wait that times out reports the engine's view and the agents' trace logs.

import re
import shutil
import threading
import time

import pytest

from cluster import Cluster, disk_node, primitive_xml, _run
from conftest import BUILD_DIR, getro, require, require_root


class Sampler(threading.Thread):
    """Records, every 50 ms, the nodes that have `dev` mounted on `point` whenever they are more than one."""

    def __init__(self, cluster, point, dev):
        super().__init__(daemon=True)
        self.cluster, self.point, self.dev = cluster, point, dev
        self.samples, self.violations, self.done = 0, [], threading.Event()

    def run(self):
        while not self.done.wait(0.05):
            on = [n.name for n in self.cluster.nodes if any(e[1] == self.dev for e in n.mounts(self.point))]
            if len(on) > 1:
                self.violations.append((time.time(), on))
            self.samples += 1


@pytest.fixture
def engine():
    require_root()
    require(all(shutil.which(p) for p in ("corosync", "pacemakerd", "crm_resource", "cibadmin")),
            "needs corosync and pacemaker")
    with disk_node(str(BUILD_DIR), "zor-cluster-install.") as (install, node, dev, point):
        c = Cluster(install, node.home)
        try:
            yield c, node, dev, point
        finally:
            c.stop()
            # Nothing of the cluster is left on the machine.
            assert [n for n in _run(["ip", "netns", "list"]).stdout.split() if n.startswith(f"zc-{c.tag}")] == []


def test_failover(engine):
    c, node, dev, point = engine
    # From before the start: a node not yet up has nothing mounted.
    sampler = Sampler(c, point, dev)
    sampler.start()
    try:
        c.start()
        params = {"resource": "fs1", "group": "grp1", "zor_home": node.home}
        ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text",
                primitive_xml("fs1", "ocf:zor:zordisk", params, ops)])
        # Overwritten by a move, outweighed by stickiness once the move is cleared. Made before the
        # resource is started, or the engine may place it before it knows the preference.
        c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
                '<rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'])
        c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Started"])
        n1, n2 = c.node("node1"), c.node("node2")

        # Started means the start is over: while it is under way the engine already names the node,
        # and whatever is done to the mount then is seen by the start's own check, not by the monitor.
        def disk_on(name):
            return c.where("fs1") == {name} and any(e[1] == dev for e in c.node(name).mounts(point)) \
                and not c.pending("fs1")

        c.wait(lambda: disk_on("node1"), 30, "start on node1")
        assert getro(dev) == "0"

        # Unmounted behind the engine's back: reported by the monitor with the agent's text, recovered.
        n1.space.sh(f'umount "{point}"', check=True)
        failure = re.compile(r'<failure op_key="fs1_monitor_1000" node="node1" exitstatus="[^"]*" '
                             rf'exitreason="Device was read-write but not mounted\. \({re.escape(dev)}\)"')
        c.wait(lambda: failure.search(c.tool(["crm_mon", "-1", "--output-as=xml"]).stdout), 20, "monitor failure")
        c.wait(lambda: disk_on("node1"), 30, "recovery on node1")
        c.tool(["crm_resource", "--cleanup", "-r", "fs1"])

        for target in ("node2", "node1"):
            c.tool(["crm_resource", "--move", "-r", "fs1", "--node", target])
            c.wait(lambda: disk_on(target), 30, f"move to {target}")
            c.tool(["crm_resource", "--clear", "-r", "fs1"])
        assert n2.mounts(point) == []

        assert n1.kill()
        c.wait(lambda: disk_on("node2"), 40, "fail-over to node2")

        c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Stopped"])
        c.wait(lambda: not (c.where("fs1") | c.pending("fs1")), 30, "stop")
        assert [n.mounts(point) for n in c.nodes] == [[], []]
        assert getro(dev) == "1"
    finally:
        sampler.done.set()
        sampler.join()
    assert sampler.violations == []
    assert sampler.samples > 50
