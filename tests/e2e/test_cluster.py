# The agents under a real cluster engine: two Corosync 3 + Pacemaker 2.1 nodes on this machine (cluster.py),
# sharing one ext4 disk that each node sees as a loop device of its own, with the NAS resource against the
# test file server on the nodes' bridge.
#
# Scenario: the disk resource fs1 (its device and point also in the engine's configuration) and the share
# share1 start on node 1; the disk is unmounted behind the engine's back, the monitor reports it and the
# engine recovers it; fs1 is moved to node 2 and back; node 2 lacks the device: a move to node 2 leaves fs1
# running on node 1, never blocked, with the agent's reason for node 2's refusal (the other reasons a node is
# refused, which the agent answers the same way: test_ocf.py); node 1 dies (every process of it killed by
# PID, its cluster daemons first) and both resources fail over to node 2;
# both stop. A sampler looks at every node's mount table all along: the disk and the share are never
# mounted on more than one node. When stopped they are mounted nowhere and node 2's device is read-only.
# No fencing is configured (stonith-enabled=false): a node here dies whole, its mounts with it.
#
# Split: the link between the nodes is cut while fs1 runs on node 1, on a disk with multi-mount protection.
# Each node keeps quorum (two_node) and, with no fencing, takes the other for dead, so node 2 starts fs1 too:
# the kernel refuses its mount, the agent says why, and fs1 is mounted on node 1 alone throughout. Then node 1
# dies without unmounting, and node 2 takes fs1 over after the kernel's wait for a dead holder.
# A wait that times out reports the engine's view and the agents' trace logs.

import shutil
import threading
import time

import pytest

from cluster import DISK_PARAMS, disk_cluster, primitive_xml, _run
from conftest import BUILD_DIR, getro, require, require_root, wait_for
from nasserver import NasServer, SERVER_ADDR


class Sampler(threading.Thread):
    """Records, every 50 ms, each watched point that is mounted from its source on more than one node, from
    the start of the block it is entered with (before the cluster's: a node not yet up has nothing mounted)
    to its end."""

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

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.done.set()
        self.join()

    def on(self, name, *rscs):
        """Each of `rscs` started on node `name` alone, in the view of its partition, and mounted there as
        watched. Started means the start is over: while it is under way the engine already names the node,
        and whatever is done to the mount then is seen by the start's own check, not by the monitor."""
        c, n = self.cluster, self.cluster.node(name)
        return all(c.where(r) == {name} and any(self.watched[r][1](n, e) for e in n.mounts(self.watched[r][0]))
                   and not c.pending(r) for r in rscs)


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


def role(c, value, *rscs):
    for rsc in rscs:
        c.tool(["crm_resource", "--meta", "-r", rsc, "-p", "target-role", "-v", value])


def start_on_node1(sampler, primitives):
    """Creates the resources `primitives` ({id: primitive}), each preferring node 1, and starts them there.
    The preference is overwritten by a move, outweighed by stickiness once the move is cleared; it is made
    before the resources start, or the engine may place them before it knows it."""
    c, xml = sampler.cluster, "".join(primitives.values())
    c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", f"<resources>{xml}</resources>"])
    xml = "".join(f'<rsc_location id="{r}-on-node1" rsc="{r}" node="node1" score="50"/>' for r in primitives)
    c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text", f"<constraints>{xml}</constraints>"])
    role(c, "Started", *primitives)
    c.wait(lambda: sampler.on("node1", *primitives), 30, "start on node1")


def test_failover(engine):
    c, node, point = engine
    share_point = node.home / "mnt" / "share1"
    node.conf.set("/root/resource/nas@share1/parameters/mount/point", share_point)
    node.write_conf()
    srv = NasServer(key=node.home / "etc" / "nas_key", bridge=c.bridge_ns)
    n1, n2 = c.node("node1"), c.node("node2")
    with Sampler(c, {"fs1": (point, disk_mount),
                     "share1": (share_point, lambda n, e: e[1] == f"{SERVER_ADDR}:/srv/share1")}) as s:
        try:
            c.start()
            srv.start()
            srv.share("share1")
            home = {"resource": "fs1", "group": "grp1", "zor_home": node.home}
            ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
            start_on_node1(s, {
                "fs1": primitive_xml("fs1", "ocf:zor:zordisk", dict(home, device=c.disk, directory=point), ops),
                "share1": primitive_xml("share1", "ocf:zor:zornas", dict(home, resource="share1", group="grp2"),
                                        ops)})
            assert [getro(n.dev) for n in (n1, n2)] == ["0", "1"]

            # Unmounted behind the engine's back: reported by the monitor with the agent's text, recovered.
            n1.space.sh(f'umount "{point}"', check=True)
            c.wait(lambda: c.failures(op_key="fs1_monitor_1000", node="node1",
                                      exitreason=f"Device was read-write but not mounted. ({c.disk})"),
                   20, "monitor failure")
            c.wait(lambda: s.on("node1", "fs1"), 30, "recovery on node1")
            c.tool(["crm_resource", "--cleanup", "-r", "fs1"])

            for target in ("node2", "node1"):
                c.tool(["crm_resource", "--move", "-r", "fs1", "--node", target])
                c.wait(lambda: s.on(target, "fs1"), 30, f"move to {target}")
                c.tool(["crm_resource", "--clear", "-r", "fs1"])
            assert n2.mounts(point) == []

            # node 2 lacks the device: the engine's start there is refused as "not installed".
            n2.space.sh(f"rm {c.disk}", check=True)
            c.tool(["crm_resource", "--move", "-r", "fs1", "--node", "node2"])
            refused = dict(node="node2", exitstatus="not installed",
                           exitreason=f"Device was not found. ({c.disk})")
            c.wait(lambda: s.on("node1", "fs1") and c.failures(**refused), 60, "node2 without the device")
            c.tool(["crm_resource", "--clear", "-r", "fs1"])
            assert n2.mounts(point) == []
            # node 2 as before, its refusal forgotten: it takes fs1 over below.
            n2.space.sh(f"ln -s {n2.dev} {c.disk}", check=True)
            c.tool(["crm_resource", "--cleanup", "-r", "fs1"])
            c.wait(lambda: s.on("node1", "fs1"), 30, "cleanup")

            assert n1.kill()
            c.wait(lambda: s.on("node2", "fs1", "share1"), 40, "fail-over to node2")

            role(c, "Stopped", "fs1", "share1")
            c.wait(lambda: not (c.where("fs1") | c.where("share1") | c.pending("fs1") | c.pending("share1")), 30,
                   "stop")
            assert [n.mounts(point) + n.mounts(share_point) for n in c.nodes] == [[], []]
            assert getro(n2.dev) == "1"
        finally:
            srv.stop()
    assert (s.violations, s.samples > 50) == ([], True)


# Multi-mount protection at its shortest update interval (1 s): a live holder's disk is refused after about
# 11 s, a dead holder's taken over after about 22 s, within the mount's time limit.
MMP = (("-O", "mmp", "-E", "mmp_update_interval=1"), {"mount/timeout": 60})


@pytest.mark.parametrize("engine", [MMP], indirect=True)
def test_split_without_fencing(engine):
    c, node, point = engine
    n1, n2 = c.node("node1"), c.node("node2")
    with Sampler(c, {"fs1": (point, disk_mount)}) as s:
        c.start()
        ops = [("start", "0", "90s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        start_on_node1(s, {"fs1": primitive_xml("fs1", "ocf:zor:zordisk",
                                                {"resource": "fs1", "group": "grp1", "zor_home": node.home}, ops)})

        _run(["ip", "-n", c.bridge_ns, "link", "set", "zv2", "down"])
        refused = f"File system was active on another server. ({c.disk}, "
        wait_for(lambda: any(f.get("exitreason", "").startswith(refused)
                             for f in c.failures(n2, op_key="fs1_start_0", node="node2")),
                 60, lambda: "node2's start refused\n" + n2.run(["crm_mon", "-1"]).stdout + c.report())
        # After its failed start the engine stops fs1 on node2: the device is read-only again.
        wait_for(lambda: getro(n2.dev) == "1", 30, "node2's device read-only")
        assert s.on("node1", "fs1") and n2.mounts(point) == []

        with n1.crash(point):
            # node2's refused start forgotten. A start the engine issues right after a cleanup can fail in its
            # own executor before our agent runs ("No such device"; nothing recorded but the fail count): the
            # cleanup is repeated only while the engine, settled, has neither started fs1 on node2 nor a
            # failure of our agent there, which fails the test.
            for _ in range(3):
                c.tool(["crm_resource", "--cleanup", "-r", "fs1"])
                c.tool(["crm_resource", "--wait", "--timeout", "90"], check=False)
                if s.on("node2", "fs1") or c.failures(op_key="fs1_start_0", node="node2", status="complete"):
                    break
            c.wait(lambda: s.on("node2", "fs1"), 30, "take-over by node2")
            role(c, "Stopped", "fs1")
            c.wait(lambda: not (c.where("fs1") | c.pending("fs1")) and n2.mounts(point) == [], 30, "stop")
        assert getro(n2.dev) == "1"
    assert (s.violations, s.samples > 50) == ([], True)
