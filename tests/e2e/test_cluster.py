# The agents under a real cluster engine: two Corosync 3 + Pacemaker 2.1 nodes on this machine (cluster.py),
# sharing one loop-backed ext4 disk, with the NAS resource against the test file server on the nodes' bridge.
#
# Scenario: the disk resource fs1 and the share share1 start on node 1; the disk is unmounted behind the
# engine's back, the monitor reports it and the engine recovers it; fs1 is moved to node 2 and back; node 1
# dies (every process of it killed by PID, its cluster daemons first) and both resources fail over to node 2;
# both stop. A sampler looks at every node's mount table all along: the disk and the share are never
# mounted on more than one node. When stopped they are mounted nowhere and the disk's device is read-only.
# No fencing is configured (stonith-enabled=false): a node here dies whole, its mounts with it.

import os
import re
import shutil
import subprocess
import threading
import time

import pytest

from cluster import Cluster, primitive_xml, _run
from conftest import getro, require_root
from nasserver import NasServer, SERVER_ADDR

DISK = "/root/resource/disk@fs1/parameters"
NAS = "/root/resource/nas@share1/parameters"


def need_engine():
    missing = [p for p in ("corosync", "pacemakerd", "crm_resource", "cibadmin") if shutil.which(p) is None]
    if missing:
        if os.environ.get("CI") == "true":
            pytest.fail("missing under CI: " + " ".join(missing))
        pytest.skip("needs corosync and pacemaker: " + " ".join(missing))


class Sampler(threading.Thread):
    """Counts, every 50 ms, the nodes on which each watched point is mounted from its source."""

    def __init__(self, cluster, watched):
        super().__init__(daemon=True)
        self.cluster, self.watched = cluster, watched  # {name: (point, match(entry) -> bool)}
        self.samples, self.violations, self.running = 0, [], True

    def run(self):
        while self.running:
            for name, (point, match) in self.watched.items():
                on = [n.name for n in self.cluster.nodes if any(match(e) for e in n.mounts(point))]
                if len(on) > 1:
                    self.violations.append((time.time(), name, on))
            self.samples += 1
            time.sleep(0.05)

    def stop(self):
        self.running = False
        self.join()


def devno(dev):
    st = os.stat(dev)
    return f"{os.major(st.st_rdev)}:{os.minor(st.st_rdev)}"


@pytest.fixture
def engine(node, loopdev, capsys):
    require_root()
    need_engine()
    t0 = time.monotonic()
    steps = []

    def step(text):
        steps.append((time.monotonic() - t0, text))
        with capsys.disabled():
            print(f"\n  [{steps[-1][0]:6.2f} s] {text}", end="", flush=True)

    cluster = Cluster(node.install, node.home)
    cluster.step = step
    try:
        yield cluster
    finally:
        cluster.stop()
        # Nothing of the cluster is left on the machine.
        left = [n for n in _run(["ip", "netns", "list"]).stdout.split() if n.startswith(f"zc-{cluster.tag}")]
        assert left == []
        step("cleaned up")
        with capsys.disabled():
            print()


def configure_disk(node, dev):
    point = node.home / "mnt" / "fs1"
    for key, value in {"device": dev, "fs": "ext4", "mount/point": point, "mount/timeout": 20, "mount/retry": 0,
                       "umount/timeout": 20, "umount/retry": 1, "umount/action": "kill", "umount/interval": 0,
                       "fsck/timing": 0}.items():
        node.conf.set(f"{DISK}/{key}", value)
    node.write_conf()
    subprocess.run(["blockdev", "--setro", dev], check=True)
    return point


def failure_reasons(cluster):
    xml = cluster.tool(["crm_mon", "-1", "--output-as=xml"]).stdout
    return re.findall(r'<failure op_key="(\w+)" node="(\w+)" exitstatus="[^"]*" exitreason="([^"]*)"', xml)


def test_failover(engine, node, loopdev):
    c, step = engine, engine.step
    dev = loopdev(64, "ext4")
    point = configure_disk(node, dev)
    share_point = node.home / "mnt" / "share1"
    node.conf.set(NAS + "/mount/point", share_point)
    node.write_conf()
    srv = NasServer(key=node.home / "etc" / "nas_key", bridge=c.bridge_ns)
    dev_no = devno(dev)
    sampler = None
    try:
        c.start()
        step("cluster of 2 nodes online")
        srv.start()
        srv.share("share1")
        step("file server on the bridge")
        sampler = Sampler(c, {"fs1": (point, lambda e: e[0] == dev_no),
                              "share1": (share_point, lambda e: e[1] == f"{SERVER_ADDR}:/srv/share1")})
        sampler.start()

        home = {"resource": "fs1", "group": "grp1", "zor_home": node.home}
        ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        nas_ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "2s", "20s"),
                   ("monitor", "5s", "30s", 10)]
        resources = (primitive_xml("fs1", "ocf:zor:zordisk", home, ops) +
                     primitive_xml("share1", "ocf:zor:zornas", dict(home, resource="share1", group="grp2"),
                                   nas_ops))
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", f"<resources>{resources}</resources>"])
        # Overwritten by a move, outweighed by stickiness once the move is cleared. Made before the
        # resources are started, or the engine may place them before it knows the preference.
        c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
                '<constraints><rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'
                '<rsc_location id="share1-on-node1" rsc="share1" node="node1" score="50"/></constraints>'])
        for rsc in ("fs1", "share1"):
            c.tool(["crm_resource", "--meta", "-r", rsc, "-p", "target-role", "-v", "Started"])
        n1, n2 = c.node("node1"), c.node("node2")

        # Started means the start is over: while it is under way the engine already names the node,
        # and whatever is done to the mount then is seen by the start's own check, not by the monitor.
        def running_on(rsc, name, mp, match):
            return (c.where(rsc) == {name} and any(match(e) for e in c.node(name).mounts(mp))
                    and not c.pending(rsc))

        def disk_on(name):
            return running_on("fs1", name, point, lambda e: e[0] == dev_no)

        def share_on(name):
            return running_on("share1", name, share_point, lambda e: e[2] == "fuse.sshfs")

        c.wait(lambda: disk_on("node1") and share_on("node1"), 30, "start on node1")
        step("fs1 and share1 started on node1")
        assert getro(dev) == "0"

        # Unmounted behind the engine's back: reported by the monitor with the agent's text, recovered.
        n1.sh(f'umount "{point}"')
        step("fs1 unmounted behind the engine's back on node1")
        c.wait(lambda: any(op == "fs1_monitor_1000" for op, _, _ in failure_reasons(c)), 20, "monitor failure")
        step("monitor reported: " + "; ".join(f"{op} on {nd}: {r}" for op, nd, r in failure_reasons(c)))
        assert ("fs1_monitor_1000", "node1", f"Device was read-write but not mounted. ({dev})") \
            in failure_reasons(c)
        c.wait(lambda: disk_on("node1"), 30, "recovery on node1")
        step("fs1 recovered on node1")
        c.tool(["crm_resource", "--cleanup", "-r", "fs1"])

        for target in ("node2", "node1"):
            c.tool(["crm_resource", "--move", "-r", "fs1", "--node", target])
            c.wait(lambda: disk_on(target), 30, f"move to {target}")
            c.tool(["crm_resource", "--clear", "-r", "fs1"])
            step(f"fs1 moved to {target}" + (" (and back, to fail over from node1)" if target == "node1" else ""))
        assert n2.mounts(point) == []

        pids = n1.kill()
        t_kill = time.monotonic()
        step(f"node1 killed ({len(pids)} processes and its first, by PID)")
        c.wait(lambda: disk_on("node2") and share_on("node2"), 40, "fail-over to node2")
        failover = time.monotonic() - t_kill
        step(f"fs1 and share1 running on node2, {failover:.2f} s after the kill")
        assert (srv.exports / "share1").is_dir()

        c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Stopped"])
        c.tool(["crm_resource", "--meta", "-r", "share1", "-p", "target-role", "-v", "Stopped"])
        c.wait(lambda: not (c.where("fs1") | c.where("share1") | c.pending("fs1") | c.pending("share1")), 30,
               "stop")
        step("fs1 and share1 stopped")
        assert [n.mounts(point) + n.mounts(share_point) for n in c.nodes] == [[], []]
        assert getro(dev) == "1"
        sampler.stop()
        step(f"{sampler.samples} samples of both nodes' mount tables, none with a resource on two nodes")
        assert sampler.violations == []
        assert sampler.samples > 50
    finally:
        if sampler is not None and sampler.running:
            sampler.stop()
        srv.stop()
