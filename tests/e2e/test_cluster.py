# The agents under a real cluster engine: two Corosync 3 + Pacemaker 2.1 nodes on this machine (cluster.py),
# sharing one ext4 disk that each node sees as a loop device of its own, with the NAS resource against the
# test file server on the nodes' bridge.
#
# Scenario: the disk resource fs1 and the share share1 start on node 1; the disk is unmounted behind the
# engine's back, the monitor reports it and the engine recovers it; fs1 is moved to node 2 and back; node 1
# dies (every process of it killed by PID, its cluster daemons first) and both resources fail over to node 2;
# both stop. A sampler looks at every node's mount table all along: the disk and the share are never
# mounted on more than one node. When stopped they are mounted nowhere and node 2's device is read-only.
# No fencing is configured (stonith-enabled=false): a node here dies whole, its mounts with it.
#
# Split: the link between the nodes is cut while fs1 runs on node 1, on a disk with multi-mount protection.
# Each node keeps quorum (two_node) and, with no fencing, takes the other for dead, so node 2 starts fs1 too:
# the kernel refuses its mount, the agent says why, and fs1 is mounted on node 1 alone throughout. Then node 1
# dies without unmounting, and node 2 takes fs1 over after the kernel's wait for a dead holder.
# A wait that times out reports the engine's view and the agents' trace logs.

import re
import shutil
import threading
import time

import pytest

from cluster import DISK_PARAMS, disk_cluster, primitive_xml, _run
from conftest import BUILD_DIR, getro, require, require_root, wait_for
from nasserver import NasServer, SERVER_ADDR


class Sampler(threading.Thread):
    """Records, every 50 ms, each watched point that is mounted from its source on more than one node."""

    def __init__(self, cluster, watched):
        super().__init__(daemon=True)
        self.cluster, self.watched = cluster, watched  # {name: (point, match(node, entry) -> bool)}
        self.samples, self.violations, self.done = 0, [], threading.Event()

    def run(self):
        while not self.done.wait(0.05):
            for name, (point, match) in self.watched.items():
                on = [n.name for n in self.cluster.nodes if any(match(n, e) for e in n.mounts(point))]
                if len(on) > 1:
                    self.violations.append((time.time(), name, on))
            self.samples += 1


@pytest.fixture
def engine(request):
    # request.param, when given: further mkfs.ext4 options and resource parameters.
    mkfs, params = getattr(request, "param", ((), {}))
    require_root()
    require(all(shutil.which(p) for p in ("corosync", "pacemakerd", "crm_resource", "cibadmin")),
            "needs corosync and pacemaker")
    with disk_cluster(str(BUILD_DIR), "zor-cluster-install.", params={**DISK_PARAMS, **params},
                      mkfs=mkfs) as (c, node, point):
        yield c, node, point
    # Nothing of the cluster is left on the machine.
    assert [n for n in _run(["ip", "netns", "list"]).stdout.split() if n.startswith(f"zc-{c.tag}")] == []


# A node's mount of the shared disk: from its own device.
def disk_mount(n, entry):
    return entry[0] == n.devno


# Started on node `n` alone, in the view of its partition, and mounted there as `match` says. Started means the
# start is over: while it is under way the engine already names the node, and whatever is done to the mount
# then is seen by the start's own check, not by the monitor.
def started(c, n, rsc, point, match):
    return c.where(rsc) == {n.name} and any(match(n, e) for e in n.mounts(point)) and not c.pending(rsc)


def test_failover(engine):
    c, node, point = engine
    share_point = node.home / "mnt" / "share1"
    node.conf.set("/root/resource/nas@share1/parameters/mount/point", share_point)
    node.write_conf()
    srv = NasServer(key=node.home / "etc" / "nas_key", bridge=c.bridge_ns)
    # From before the start: a node not yet up has nothing mounted.
    watched = {"fs1": (point, disk_mount),
               "share1": (share_point, lambda n, e: e[1] == f"{SERVER_ADDR}:/srv/share1")}
    sampler = Sampler(c, watched)
    sampler.start()
    try:
        c.start()
        srv.start()
        srv.share("share1")

        home = {"resource": "fs1", "group": "grp1", "zor_home": node.home}
        ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        resources = (primitive_xml("fs1", "ocf:zor:zordisk", home, ops) +
                     primitive_xml("share1", "ocf:zor:zornas", dict(home, resource="share1", group="grp2"), ops))
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", f"<resources>{resources}</resources>"])
        n1, n2 = c.node("node1"), c.node("node2")
        # Overwritten by a move, outweighed by stickiness once the move is cleared. Made before the
        # resources are started, or the engine may place them before it knows the preference.
        c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
                '<constraints><rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'
                '<rsc_location id="share1-on-node1" rsc="share1" node="node1" score="50"/></constraints>'])
        for rsc in ("fs1", "share1"):
            c.tool(["crm_resource", "--meta", "-r", rsc, "-p", "target-role", "-v", "Started"])

        def on(name, *rscs):
            return all(started(c, c.node(name), r, *watched[r]) for r in rscs)

        c.wait(lambda: on("node1", "fs1", "share1"), 30, "start on node1")
        assert [getro(n.dev) for n in (n1, n2)] == ["0", "1"]

        # Unmounted behind the engine's back: reported by the monitor with the agent's text, recovered.
        n1.space.sh(f'umount "{point}"', check=True)
        failure = re.compile(r'<failure op_key="fs1_monitor_1000" node="node1" exitstatus="[^"]*" '
                             rf'exitreason="Device was read-write but not mounted\. \({re.escape(c.disk)}\)"')
        c.wait(lambda: failure.search(c.tool(["crm_mon", "-1", "--output-as=xml"]).stdout), 20, "monitor failure")
        c.wait(lambda: on("node1", "fs1"), 30, "recovery on node1")
        c.tool(["crm_resource", "--cleanup", "-r", "fs1"])

        for target in ("node2", "node1"):
            c.tool(["crm_resource", "--move", "-r", "fs1", "--node", target])
            c.wait(lambda: on(target, "fs1"), 30, f"move to {target}")
            c.tool(["crm_resource", "--clear", "-r", "fs1"])
        assert n2.mounts(point) == []

        assert n1.kill()
        t_kill = time.monotonic()
        c.wait(lambda: on("node2", "fs1", "share1"), 40, "fail-over to node2")
        print(f"\nfail-over after the death of node1: {time.monotonic() - t_kill:.1f} s")

        for rsc in ("fs1", "share1"):
            c.tool(["crm_resource", "--meta", "-r", rsc, "-p", "target-role", "-v", "Stopped"])
        c.wait(lambda: not (c.where("fs1") | c.where("share1") | c.pending("fs1") | c.pending("share1")), 30,
               "stop")
        assert [n.mounts(point) + n.mounts(share_point) for n in c.nodes] == [[], []]
        assert getro(n2.dev) == "1"
    finally:
        sampler.done.set()
        sampler.join()
        srv.stop()
    assert sampler.violations == []
    assert sampler.samples > 50


# Multi-mount protection at its shortest update interval (1 s): a live holder's disk is refused after about
# 11 s, a dead holder's taken over after about 22 s, within the mount's time limit.
MMP = (("-O", "mmp", "-E", "mmp_update_interval=1"), {"mount/timeout": 60})


@pytest.mark.parametrize("engine", [MMP], indirect=True)
def test_split_without_fencing(engine):
    c, node, point = engine
    sampler = Sampler(c, {"fs1": (point, disk_mount)})
    sampler.start()
    try:
        c.start()
        n1, n2 = c.node("node1"), c.node("node2")
        ops = [("start", "0", "90s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text",
                primitive_xml("fs1", "ocf:zor:zordisk", {"resource": "fs1", "group": "grp1", "zor_home": node.home},
                              ops)])
        c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
                '<rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'])
        c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Started"])

        def on(n):
            return started(c, n, "fs1", point, disk_mount)

        c.wait(lambda: on(n1), 30, "start on node1")

        _run(["ip", "-n", c.bridge_ns, "link", "set", "zv2", "down"])
        t_cut = time.monotonic()
        refused = re.compile(r'<failure op_key="fs1_start_0" node="node2" exitstatus="[^"]*" exitreason="'
                             rf'File system was active on another server\. \({re.escape(c.disk)}, ')
        wait_for(lambda: refused.search(n2.run(["crm_mon", "-1", "--output-as=xml"]).stdout), 60,
                 lambda: "node2's start refused\n" + n2.run(["crm_mon", "-1", "--output-as=xml"]).stdout + c.report())
        print(f"\nnode2's start refused {time.monotonic() - t_cut:.1f} s after the cut")
        # After its failed start the engine stops fs1 on node2: the device is read-only again.
        wait_for(lambda: getro(n2.dev) == "1", 30, "node2's device read-only")
        assert on(n1) and n2.mounts(point) == []

        with n1.crash(point):
            t_kill = time.monotonic()
            # node2's refused start forgotten. A start the engine issues right after a cleanup can fail in its
            # own executor before our agent runs (status "not connected", "No such device"): only such a
            # failure is cleaned up again; a failure our agent answered fails the test.
            not_run = re.compile(r'<failure op_key="fs1_start_0" node="node2" [^>]* status="(?!complete")')
            for _ in range(3):
                c.tool(["crm_resource", "--cleanup", "-r", "fs1"])
                c.wait(lambda: on(n2) or not_run.search(c.tool(["crm_mon", "-1", "--output-as=xml"]).stdout), 90,
                       "take-over by node2")
                if on(n2):
                    break
            assert on(n2), c.report()
            print(f"take-over after node1's death: {time.monotonic() - t_kill:.1f} s")
            c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Stopped"])
            c.wait(lambda: not (c.where("fs1") | c.pending("fs1")) and n2.mounts(point) == [], 30, "stop")
        assert getro(n2.dev) == "1"
    finally:
        sampler.done.set()
        sampler.join()
    assert sampler.violations == []
