"""The agents under a real cluster engine: two Corosync 3 + Pacemaker 2.1 nodes on this machine (cluster.py),
sharing one loop-backed ext4 disk, with the NAS resource against the test file server on the nodes' bridge.

Scenario: the disk resource fs1 and the share share1 start on node 1; the disk is unmounted behind the
engine's back, the monitor reports it and the engine recovers it; fs1 is moved to node 2 and back; node 1
dies (every process of it killed by PID, its cluster daemons first) and both resources fail over to node 2;
both stop. A sampler looks at every node's mount table all along: the disk and the share are never
mounted on more than one node. When stopped they are mounted nowhere and the disk's device is read-only.
No fencing is configured (stonith-enabled=false): a node here dies whole, its mounts with it.

The second test sets ocf:zor:zordisk beside ocf:heartbeat:Filesystem on the same disk and prints the
engine's own record of their start, stop and monitor times."""

import os
import re
import shutil
import statistics
import subprocess
import threading
import time

import pytest

from cluster import Cluster, primitive_xml, _run
from conftest import require_root
from nasserver import NasServer, NetSpace, SERVER_ADDR

DISK = "/root/resource/disk@fs1/parameters"
NAS = "/root/resource/nas@share1/parameters"


def need_engine():
    missing = [p for p in ("corosync", "pacemakerd", "crm_resource", "cibadmin") if shutil.which(p) is None]
    if missing:
        if os.environ.get("CI") == "true":
            pytest.fail("missing under CI: " + " ".join(missing))
        pytest.skip("needs corosync and pacemaker: " + " ".join(missing))


class BridgedNasServer(NasServer):
    """The test file server with its network namespace on the cluster's bridge instead of a client's."""

    def __init__(self, cluster, key):
        super().__init__(key=key)
        self.cluster = cluster

    def start(self):
        try:
            self._keys_and_config()
            _run(["ip", "netns", "add", self.server_ns])
            self.netns_made.append(self.server_ns)
            br = self.cluster.bridge_ns
            _run(["ip", "-n", br, "link", "add", "zvs", "type", "veth", "peer", "name", "eth0", "netns",
                  self.server_ns])
            _run(["ip", "-n", br, "link", "set", "zvs", "master", "br0", "up"])
            _run(["ip", "-n", self.server_ns, "addr", "add", f"{SERVER_ADDR}/24", "dev", "eth0"])
            _run(["ip", "-n", self.server_ns, "link", "set", "lo", "up"])
            _run(["ip", "-n", self.server_ns, "link", "set", "eth0", "up"])
            self.server = NetSpace(self.server_ns)
            self._sshd()
        except BaseException:
            self.stop()
            raise
        return self


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


def getro(dev):
    return subprocess.check_output(["blockdev", "--getro", dev], text=True).strip()


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
    srv = BridgedNasServer(c, node.home / "etc" / "nas_key")
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


def op_times(cluster, rsc):
    """The engine's record of each operation of rsc: {(operation, interval): [exec-time ms, ...]}."""
    xml = cluster.tool(["cibadmin", "-Q", "-o", "status"]).stdout
    out = {}
    for m in re.finditer(rf'<lrm_rsc_op id="{rsc}_[^"]*"[^>]*>', xml):
        tag = m.group(0)
        op = re.search(r'operation="([^"]+)"', tag).group(1)
        iv = re.search(r'interval="(\d+)"', tag).group(1)
        ms = re.search(r'exec-time="(\d+)"', tag)
        if ms:
            out.setdefault((op, iv), []).append(int(ms.group(1)))
    return out


def test_engine_times_beside_filesystem(engine, node, loopdev):
    """start, stop and monitor of ocf:zor:zordisk and ocf:heartbeat:Filesystem on one disk, as the engine
    timed them (exec-time of its operation records), on a one-node cluster."""
    c, step = engine, engine.step
    c.nodes = c.nodes[:1]
    dev = loopdev(64, "ext4")
    point = configure_disk(node, dev)
    c.start()
    step("one-node cluster online")
    # The peer first, on a read-write device (it never switches it), then the zor agent.
    subprocess.run(["blockdev", "--setrw", dev], check=True)
    agents = {
        "hfs1": ("ocf:heartbeat:Filesystem", {"device": dev, "directory": point, "fstype": "ext4"}),
        "zfs1": ("ocf:zor:zordisk", {"resource": "fs1", "group": "grp1", "zor_home": node.home}),
    }
    rounds = 5
    figures = {}
    for rid, (agent, params) in agents.items():
        ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", primitive_xml(rid, agent, params, ops)])
        starts, stops, monitors = [], [], []
        for _ in range(rounds):
            c.tool(["crm_resource", "--meta", "-r", rid, "-p", "target-role", "-v", "Started"])
            c.wait(lambda: c.where(rid) == {"node1"} and c.nodes[0].mounts(point) and not c.pending(rid), 30,
                   f"{rid} start")
            time.sleep(1.2)  # one recurring monitor
            t = op_times(c, rid)
            starts += t.get(("start", "0"), [])
            monitors += t.get(("monitor", "1000"), [])
            c.tool(["crm_resource", "--meta", "-r", rid, "-p", "target-role", "-v", "Stopped"])
            c.wait(lambda: not c.where(rid) and not c.nodes[0].mounts(point) and not c.pending(rid), 30,
                   f"{rid} stop")
            stops += op_times(c, rid).get(("stop", "0"), [])
        c.tool(["cibadmin", "--delete", "-o", "resources", "--xml-text", f'<primitive id="{rid}"/>'])
        assert starts and stops and monitors, (starts, stops, monitors)
        figures[agent] = (starts, stops, monitors)
        step(f"{agent}: start median {statistics.median(starts)} ms {starts}, stop median "
             f"{statistics.median(stops)} ms {stops}, monitor median {statistics.median(monitors)} ms")
    # Out of service the zor agent leaves the device read-only, the peer does not touch it.
    assert getro(dev) == "1"
