# A real cluster on this one machine: Corosync 3 and Pacemaker 2.1 nodes, each in its own network,
# mount, PID, UTS and IPC namespaces, for the failover scenario and the cluster demo.
#
# Network: a bridge inside a network namespace of its own; each node's network namespace is joined to it
# by a veth pair whose ends exist only in those two namespaces (10.231.0.1X/24 for node X). The machine's
# own network never sees any of it. Several corosyncs in one network namespace would collide on their
# local sockets, hence one per node.
#
# Each node's first process is a small reaper (pacemakerd's children are re-parented to it when their
# parent dies) and holds the node's namespaces. Its mount namespace is a private copy of the machine's,
# with its own /run, /dev/shm, corosync and pacemaker state and log directories (tmpfs), the tree's OCF
# agents bound in at /usr/lib/ocf/resource.d/zor, and its own log, run and registry directories of the
# shared zor node tree (its status table lives in its own /dev/shm).
#
# The shared disk is one image that each node sees as a loop device of its own, as servers each see one LUN
# through a device of their own: read-only flags, caches and mounts are per node, and a second mount is a
# second file system instance over the same blocks, as on real shared storage. Each node finds its device
# under one name that is the same on every node (Cluster.disk, a link in the node's private /run to its loop
# device), as servers find theirs under /dev/disk/by-id, so one configuration serves every node.
#
# Everything is ended by PID: a node dies whole when every process of its PID namespace is killed (its
# daemons first, then its first process), and its mounts go with the last of them, as a server's do when
# it loses power. Then the network namespaces go.
#
# Used by tests/e2e/test_cluster.py and demo/cluster_demo.py (./run demo cluster).

import contextlib
import fcntl
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ET
from pathlib import Path

from conftest import LoopDevices, Namespace, Node, _mkdtemp, alive, install, wait_for

FIFREEZE, FITHAW = 0xC0045877, 0xC0045878

# The first process of a node: reaps every child it inherits and exits with the node.
REAPER = r"""
import os, time
while True:
    try:
        os.wait()
    except ChildProcessError:
        time.sleep(0.05)
"""

COROSYNC_CONF = """totem {{
    version: 2
    cluster_name: zortest
    token: 1000
}}
nodelist {{
{nodes}
}}
quorum {{
    provider: corosync_votequorum
{two_node}}}
logging {{
    to_syslog: no
}}
"""

# Seeded configuration: no fencing (the nodes of this test have none: stonith-enabled=false), a short
# dc-deadtime so that the nodes elect a coordinator in seconds instead of about 20 s, and some
# stickiness so that a resource stays where it was moved to.
CIB_XML = """<cib validate-with="pacemaker-3.9" epoch="1" num_updates="0" admin_epoch="0"><configuration>
  <crm_config><cluster_property_set id="cib-bootstrap-options">
    <nvpair id="opt-stonith" name="stonith-enabled" value="false"/>
    <nvpair id="opt-deadtime" name="dc-deadtime" value="2s"/>
    <nvpair id="opt-recheck" name="cluster-recheck-interval" value="30s"/>
  </cluster_property_set></crm_config>
  <nodes/><resources/><constraints/>
  <rsc_defaults><meta_attributes id="rsc-options">
    <nvpair id="rsc-options-stickiness" name="resource-stickiness" value="100"/>
  </meta_attributes></rsc_defaults>
</configuration><status/></cib>
"""

# Private directories of a node's mount namespace; pacemaker's run as hacluster.
PRIVATE_DIRS = ["/run", "/dev/shm", "/etc/corosync", "/var/lib/corosync", "/var/lib/pacemaker", "/var/log/pacemaker"]


def _run(cmd):
    return subprocess.run(cmd, capture_output=True, text=True, check=True)


class Network:
    """Network namespaces, each recorded the moment it exists and deleted by close(), joined by veth pairs
    whose ends exist only inside them: the machine's own network never sees any of it."""

    def __init__(self, made=()):
        self.made = list(made)

    def add(self, name, bridge=False):
        _run(["ip", "netns", "add", name])
        self.made.append(name)
        if bridge:
            _run(["ip", "-n", name, "link", "add", "br0", "type", "bridge"])
            _run(["ip", "-n", name, "link", "set", "br0", "up"])
        return name

    def join(self, bridge, peer, netns, addr, dev="eth0"):
        self.add(netns)
        _run(["ip", "-n", bridge, "link", "add", peer, "type", "veth", "peer", "name", dev, "netns", netns])
        _run(["ip", "-n", bridge, "link", "set", peer, "master", "br0", "up"])
        _run(["ip", "-n", netns, "addr", "add", f"{addr}/24", "dev", dev])
        _run(["ip", "-n", netns, "link", "set", "lo", "up"])
        _run(["ip", "-n", netns, "link", "set", dev, "up"])

    def close(self):
        for name in reversed(self.made):
            subprocess.run(["ip", "netns", "delete", name], capture_output=True)
        self.made = []


def _pid_ns(pid):
    try:
        return os.stat(f"/proc/{pid}/ns/pid").st_ino
    except OSError:
        return None


class ClusterNode:
    def __init__(self, cluster, index):
        self.cluster, self.index = cluster, index
        self.name = f"node{index}"
        self.addr = f"10.231.0.{10 + index}"
        self.netns = f"zc-{cluster.tag}-n{index}"
        self.dir = cluster.dir / self.name
        self.space, self.init_pid, self.daemons = None, None, []
        self.dev, self.devno = None, None  # this node's device of the shared disk, and its major:minor

    # -- namespaces -------------------------------------------------------------------------------
    def run(self, cmd, env=None, check=False):
        return self.space.run(cmd, env=env, check=check, timeout=60)

    def setup(self):
        c, rd = self.cluster, self.cluster.dir / "resource.d"
        c.net.join(c.bridge_ns, f"zv{self.index}", self.netns, self.addr)
        self.space = Namespace(["ip", "netns", "exec", self.netns], ("uts", "ipc"), (sys.executable, "-c", REAPER))
        self.init_pid, self.pidns = self.space.init_pid, _pid_ns(self.space.init_pid)
        self.dir.mkdir(parents=True)
        (self.dir / "corosync.conf").write_text(c.corosync_conf())
        (self.dir / "cib.xml").write_text(CIB_XML)
        script = [f"hostname {self.name}"]
        # /dev/shm holds the IPC buffers of every client, hacluster's included.
        script += [f"mount -t tmpfs -o mode={'1777' if d == '/dev/shm' else '0755'} zor-{self.name} {d}"
                   for d in PRIVATE_DIRS]
        script += [
            "mkdir -p /run/resource-agents /run/crm /run/lock /var/lib/pacemaker/cib /var/lib/pacemaker/pengine"
            " /var/lib/pacemaker/blackbox /var/lib/pacemaker/cores",
            "chown -R hacluster:haclient /var/lib/pacemaker /var/log/pacemaker /run/crm",
            "chmod 750 /var/lib/pacemaker/cib /var/lib/pacemaker/pengine",
            f"cp {self.dir}/corosync.conf /etc/corosync/corosync.conf",
            f"install -o hacluster -g haclient -m 600 {self.dir}/cib.xml /var/lib/pacemaker/cib/cib.xml",
            # Agents: the machine's providers and the tree's own, under the only path the engine searches.
            f"mount --bind /usr/lib/ocf/resource.d/heartbeat {rd}/heartbeat",
            f"mount --bind /usr/lib/ocf/resource.d/pacemaker {rd}/pacemaker",
            f"mount --bind {c.install}/lib/ocf/resource.d/zor {rd}/zor",
            f"mount --rbind {rd} /usr/lib/ocf/resource.d",
        ]
        # /run is the node's own: the name is the same on every node, the device its own.
        script.append(f"mkdir -p {Path(c.disk).parent} && ln -s {self.dev} {c.disk}")
        # The node's own log, run and registry directories of the shared node tree.
        for sub in ("log", "run", "var/registry"):
            (self.dir / sub).mkdir(parents=True)
            script.append(f"mount --bind {self.dir}/{sub} {c.home}/{sub}")
        self.space.sh(" && ".join(script), check=True)

    def start_stack(self):
        env = dict(os.environ, PCMK_logfile="/var/log/pacemaker/pacemaker.log", PCMK_logfacility="none")
        self.daemons.append(self.space.popen(["corosync", "-f"], env=env, start_new_session=True))
        # pacemakerd gives up at once when corosync is not yet answering.
        wait_for(lambda: self.run(["corosync-cfgtool", "-s"]).returncode == 0, 10, self.name + ": corosync")
        self.daemons.append(self.space.popen(["pacemakerd"], env=env, start_new_session=True))

    # -- what is going on in the node -------------------------------------------------------------
    def alive(self):
        return self.init_pid is not None and alive(self.init_pid)

    def mounts(self, point):
        """Mount-table entries on `point` as (major:minor, source, fstype); [] for a dead node."""
        text = ""
        with contextlib.suppress(OSError):
            text = Path(f"/proc/{self.init_pid}/mountinfo").read_text() if self.alive() else ""
        entries = [(line.split(" "), line.split(" - ", 1)[1].split(" ")) for line in text.splitlines()]
        return [(head[2], tail[1], tail[0]) for head, tail in entries if head[4] == str(point)]

    def kill(self):
        """The node dies whole: every process of it by PID, cluster daemons first, then its first process."""
        if self.init_pid is None:
            return []
        killed = [int(e) for e in os.listdir("/proc")
                  if e.isdigit() and int(e) != self.init_pid and _pid_ns(e) == self.pidns]
        for pid in killed:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.space.close()
        # Once gone, the node's PID and its namespace's number may be another's: never scan for them again.
        self.daemons, self.init_pid = [], None
        return killed

    @contextlib.contextmanager
    def crash(self, point):
        """The node dies with the file system on `point` still mounted, as after a loss of power: a node killed
        whole unmounts it with its last process, cleanly, so the file system is frozen first through a
        descriptor held from outside, which keeps it alive after the node and stops every write of it to the
        disk (multi-mount protection's updates included). Thawed and released on leaving the block."""
        with contextlib.ExitStack() as undo:
            fd = os.open(f"/proc/{self.init_pid}/root{point}", os.O_RDONLY | os.O_DIRECTORY)
            undo.callback(os.close, fd)
            fcntl.ioctl(fd, FIFREEZE, 0)
            undo.callback(fcntl.ioctl, fd, FITHAW, 0)
            self.kill()
            yield


class Cluster:
    def __init__(self, install, home, nodes=2):
        self.tag = f"{os.getpid() % 100000}{secrets.token_hex(2)}"
        self.install, self.home = Path(install), Path(home)
        self.dir = _mkdtemp("zor-cluster.")
        self.bridge_ns = f"zc-{self.tag}-br"
        self.disk = f"/run/zc-{self.tag}/disk/shared1"
        self.net = Network()
        self.nodes = [ClusterNode(self, i + 1) for i in range(nodes)]

    def corosync_conf(self):
        nodes = "".join(f"    node {{\n        ring0_addr: {n.addr}\n        name: {n.name}\n"
                        f"        nodeid: {n.index}\n    }}\n" for n in self.nodes)
        return COROSYNC_CONF.format(nodes=nodes, two_node="    two_node: 1\n" if len(self.nodes) == 2 else "")

    def start(self, timeout=30):
        # Returns when all nodes are online.
        for sub in ("heartbeat", "pacemaker", "zor"):
            (self.dir / "resource.d" / sub).mkdir(parents=True)
        self.net.add(self.bridge_ns, bridge=True)
        for n in self.nodes:
            n.setup()
        for n in self.nodes:
            n.start_stack()
        self.wait(lambda: self.online() == {n.name for n in self.nodes}, timeout, "all nodes online")

    def live(self):
        return [n for n in self.nodes if n.alive() and n.daemons]

    def tool(self, cmd, check=True):
        return self.live()[0].run(cmd, check=check)

    def online(self):
        r = self.tool(["crm_mon", "-1", "--output-as=xml"], check=False)
        return set(re.findall(r'<node name="(\w+)" id="\d+" online="true"', r.stdout))

    def where(self, rsc):
        r = self.tool(["crm_resource", "--locate", "-r", rsc], check=False)
        return set(re.findall(r"is running on: (\w+)", r.stdout))

    def pending(self, rsc):
        """Nodes on which an action of `rsc` is under way. The engine records a start as it begins, and
        --locate already names the node then: the agent may still be between its mount and its check."""
        r = self.tool(["cibadmin", "--query", "--scope", "status"], check=False)
        try:
            root = ET.fromstring(r.stdout)
        except ET.ParseError:
            return {"?"}  # no answer: nothing can be said to be settled
        # A dead node's last record is left out: nothing is under way there.
        under_way = f".//lrm_resource[@id='{rsc}']/lrm_rsc_op[@op-status='-1']"
        return {s.get("uname") for s in root.iter("node_state")
                if s.get("crmd") != "offline" and s.get("in_ccm") != "false" and s.find(under_way) is not None}

    def failures(self, seen_by=None, **want):
        """The failed actions whose attributes include `want`, in crm_mon's view (that of the partition of node
        `seen_by`, or of the first live node): the attributes of each."""
        r = (seen_by or self.live()[0]).run(["crm_mon", "-1", "--output-as=xml"])
        try:
            return [f.attrib for f in ET.fromstring(r.stdout).iter("failure") if want.items() <= f.attrib.items()]
        except ET.ParseError:
            return []

    def wait(self, cond, timeout, what):
        wait_for(cond, timeout, lambda: f"{what}\n{self.report()}")

    def report(self):
        # For a failure message: the engine's view, its nodes' last log lines, and the agents' trace logs of
        # every node, dead or alive, but the configuration loader's detail lines, which would bury the rest.
        out = [time.strftime("-- report at %H:%M:%S", time.gmtime())]
        if self.live():
            out.append(self.tool(["crm_mon", "-1", "--show-detail"], check=False).stdout)
        for n in self.live():
            out += [f"-- {n.name}:"] + n.run(["grep", "-E", "error|warning|notice.*(Result|Initiating)",
                                             "/var/log/pacemaker/pacemaker.log"]).stdout.splitlines()[-40:]
        for n in self.nodes:
            for log in sorted((n.dir / "log").glob("*.log")):
                lines = [ln for ln in log.read_text(errors="replace").splitlines() if " DETAIL " not in ln]
                out += [f"-- {n.name}: {log.name} (last 80 lines but DETAIL):"] + lines[-80:]
        return "\n".join(out)

    def node(self, name):
        return next(n for n in self.nodes if n.name == name)

    def stop(self):
        for n in self.nodes:
            n.kill()
        self.net.close()
        shutil.rmtree(self.dir, ignore_errors=True)


def primitive_xml(rid, agent, params, ops, target_role="Stopped"):
    """A primitive of `agent` ("ocf:zor:zordisk"); `ops`: (name, interval, timeout) of each operation."""
    cls, provider, kind = agent.split(":")
    nv = "".join(f'<nvpair id="{rid}-{k}" name="{k}" value="{v}"/>' for k, v in params.items())
    op = "".join(f'<op id="{rid}-{name}-{iv}" name="{name}" interval="{iv}" timeout="{to}"/>' for name, iv, to in ops)
    return (f'<primitive id="{rid}" class="{cls}" provider="{provider}" type="{kind}">'
            f'<instance_attributes id="{rid}-ia">{nv}</instance_attributes>'
            f'<meta_attributes id="{rid}-ma"><nvpair id="{rid}-role" name="target-role" value="{target_role}"/>'
            f'</meta_attributes><operations>{op}</operations></primitive>')


# Short limits, no retried mount, and a busy point released by killing its users.
DISK_PARAMS = {"fs": "ext4", "mount/timeout": 20, "mount/retry": 0, "umount/timeout": 20, "umount/retry": 1,
               "umount/action": "kill", "umount/interval": 0, "fsck/timing": 0}


@contextlib.contextmanager
def disk_cluster(build, prefix, nodes=2, params=DISK_PARAMS, mkfs=()):
    """Yields (cluster, node, point): a cluster of `nodes` nodes, not yet started, on the node tree `node`
    installed from BUILD, whose resource fs1 of group grp1 (mounted on `point`) is a new 64 MB ext4 disk
    (`mkfs`: further mkfs.ext4 options) that each node sees as a loop device of its own, read-only as a
    stopped resource's is, under the name Cluster.disk. Removed after: the cluster, then the devices."""
    root = install(prefix, build)
    node, loops, c = Node(root), LoopDevices(), None
    try:
        c = Cluster(root, node.home, nodes)
        img = loops.image(64, "ext4", mkfs)
        for n in c.nodes:
            n.dev = loops.attach(img)
            rdev = os.stat(n.dev).st_rdev
            n.devno = f"{os.major(rdev)}:{os.minor(rdev)}"
        subprocess.run(["blockdev", "--setro", *(n.dev for n in c.nodes)], check=True)
        point = node.home / "mnt" / "fs1"
        for key, value in {"device": c.disk, "mount/point": point, **params}.items():
            node.conf.set(f"/root/resource/disk@fs1/parameters/{key}", value)
        node.write_conf()
        yield c, node, point
    finally:
        if c is not None:
            c.stop()
        loops.close()
        node.cleanup()
        shutil.rmtree(root, ignore_errors=True)
