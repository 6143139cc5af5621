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
# shared zor node tree. The loop devices are the machine's, so every node sees the same shared disk.
#
# Everything is ended by PID: a node dies whole when every process of its PID namespace is killed (its
# daemons first, then its first process), and its mounts go with the last of them, as a server's do when
# it loses power. Then the network namespaces go.
#
# Used by tests/e2e/test_cluster.py and demo/cluster_demo.py (./run demo cluster).

import contextlib
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ET
from pathlib import Path

from conftest import LoopDevices, Namespace, Node, _mkdtemp

SUBNET = "10.231.0"
CLUSTER_NAME = "zortest"

# The first process of a node: reaps every child it inherits and exits with the node.
REAPER = r"""
import os, signal, time
signal.signal(signal.SIGTERM, signal.SIG_DFL)
while True:
    try:
        os.wait()
    except ChildProcessError:
        time.sleep(0.05)
"""

COROSYNC_CONF = """totem {{
    version: 2
    cluster_name: {name}
    transport: knet
    crypto_cipher: none
    crypto_hash: none
    token: 1000
    join: 50
    interface {{
        linknumber: 0
    }}
}}
nodelist {{
{nodes}
}}
quorum {{
    provider: corosync_votequorum
{two_node}}}
logging {{
    to_logfile: yes
    logfile: /var/log/pacemaker/corosync.log
    to_syslog: no
    to_stderr: no
    timestamp: on
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
PRIVATE_DIRS = ["/run", "/dev/shm", "/etc/corosync", "/var/lib/corosync",
                "/var/lib/pacemaker", "/var/log/pacemaker"]


def _run(cmd, **kw):
    kw.setdefault("check", True)
    return subprocess.run(cmd, capture_output=True, text=True, **kw)


def _pid_ns(pid):
    try:
        return os.stat(f"/proc/{pid}/ns/pid").st_ino
    except OSError:
        return None


def _alive(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


class ClusterNode:
    def __init__(self, cluster, index):
        self.cluster, self.index = cluster, index
        self.name = f"node{index}"
        self.addr = f"{SUBNET}.{10 + index}"
        self.netns = f"zc-{cluster.tag}-n{index}"
        self.dir = cluster.dir / self.name
        self.space = self.init_pid = None
        self.daemons = []

    # -- namespaces -------------------------------------------------------------------------------
    def start_namespaces(self):
        _run(["ip", "netns", "add", self.netns])
        self.cluster.netns_made.append(self.netns)
        peer = f"zv{self.index}"
        _run(["ip", "-n", self.cluster.bridge_ns, "link", "add", peer, "type", "veth",
              "peer", "name", "eth0", "netns", self.netns])
        _run(["ip", "-n", self.cluster.bridge_ns, "link", "set", peer, "master", "br0", "up"])
        _run(["ip", "-n", self.netns, "addr", "add", f"{self.addr}/24", "dev", "eth0"])
        _run(["ip", "-n", self.netns, "link", "set", "lo", "up"])
        _run(["ip", "-n", self.netns, "link", "set", "eth0", "up"])
        self.space = Namespace(["ip", "netns", "exec", self.netns], ("uts", "ipc"), (sys.executable, "-c", REAPER))
        self.init_pid, self.pidns = self.space.init_pid, _pid_ns(self.space.init_pid)

    def enter(self, cmd):
        return self.space._enter(cmd)

    def run(self, cmd, check=False, timeout=60, env=None):
        return subprocess.run(self.enter(cmd), capture_output=True, text=True, check=check, timeout=timeout,
                              env=env)

    def sh(self, script, check=True, timeout=60):
        r = self.run(["bash", "-c", script], timeout=timeout)
        if check and r.returncode != 0:
            raise RuntimeError(f"{self.name}: {script}: {r.stdout}{r.stderr}")
        return r

    def setup(self):
        """The node's private directories, host name, agents and corosync and pacemaker state."""
        c = self.cluster
        self.dir.mkdir(parents=True)
        for sub in ("zor-log", "zor-run", "zor-registry"):
            (self.dir / sub).mkdir()
        (self.dir / "corosync.conf").write_text(c.corosync_conf())
        (self.dir / "cib.xml").write_text(CIB_XML)
        rd = c.dir / "resource.d"
        home = c.home
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
            f"mount --bind {self.dir}/zor-log {home}/log",
            f"mount --bind {self.dir}/zor-run {home}/run",
            f"mount --bind {self.dir}/zor-registry {home}/var/registry",
        ]
        self.sh(" && ".join(script))

    def start_stack(self):
        env = dict(os.environ, PCMK_logfile="/var/log/pacemaker/pacemaker.log", PCMK_logfacility="none",
                   PCMK_debug="no")
        for cmd in (["corosync", "-f"], ["pacemakerd"]):
            self.daemons.append(subprocess.Popen(self.enter(cmd), env=env, stdin=subprocess.DEVNULL,
                                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                                 start_new_session=True))
            if cmd[0] == "corosync":
                # pacemakerd gives up at once when corosync is not yet answering.
                self.wait(lambda: self.run(["corosync-cfgtool", "-s"]).returncode == 0, 10, "corosync up")

    def wait(self, cond, timeout, what):
        deadline = time.time() + timeout
        while not cond():
            if time.time() > deadline:
                raise TimeoutError(f"{self.name}: {what}")
            time.sleep(0.05)

    # -- what is going on in the node -------------------------------------------------------------
    def alive(self):
        return self.init_pid is not None and _alive(self.init_pid)

    def mounts(self, point):
        """Mount-table entries on `point` as (major:minor, source, fstype); [] for a dead node."""
        if not self.alive():
            return []
        try:
            text = Path(f"/proc/{self.init_pid}/mountinfo").read_text()
        except OSError:
            return []
        out = []
        for line in text.splitlines():
            f = line.split(" ")
            if len(f) > 4 and f[4] == str(point):
                tail = line.split(" - ", 1)[1].split(" ")
                out.append((f[2], tail[1], tail[0]))
        return out

    def processes(self):
        """PIDs (as seen from here) of every process in the node's PID namespace but its first."""
        pids = []
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) != self.init_pid and _pid_ns(entry) == self.pidns:
                pids.append(int(entry))
        return pids

    def kill(self):
        """The node dies whole: every process of it by PID, cluster daemons first, then its first process."""
        if self.init_pid is None:
            return []
        killed = []
        for pid in self.processes():
            try:
                os.kill(pid, signal.SIGKILL)
                killed.append(pid)
            except ProcessLookupError:
                pass
        self.space.procs += self.daemons
        self.space.close()
        # Once gone, the node's PID and its namespace's number may be another's: never scan for them again.
        self.daemons, self.init_pid = [], None
        return killed


class Cluster:
    def __init__(self, install, home, nodes=2):
        self.tag = f"{os.getpid() % 100000}{secrets.token_hex(2)}"
        self.install, self.home = Path(install), Path(home)
        self.dir = Path(tempfile.mkdtemp(prefix="zor-cluster.", dir="/tmp"))
        self.dir.chmod(0o755)
        self.bridge_ns = f"zc-{self.tag}-br"
        self.netns_made = []
        self.nodes = [ClusterNode(self, i + 1) for i in range(nodes)]

    def corosync_conf(self):
        nodes = "".join(f"    node {{\n        ring0_addr: {n.addr}\n        name: {n.name}\n"
                        f"        nodeid: {n.index}\n    }}\n" for n in self.nodes)
        two = "    two_node: 1\n" if len(self.nodes) == 2 else ""
        return COROSYNC_CONF.format(name=CLUSTER_NAME, nodes=nodes, two_node=two)

    def start(self, timeout=30):
        """Namespaces, bridge and stacks of every node; returns when all nodes are online."""
        for sub in ("heartbeat", "pacemaker", "zor"):
            (self.dir / "resource.d" / sub).mkdir(parents=True)
        _run(["ip", "netns", "add", self.bridge_ns])
        self.netns_made.append(self.bridge_ns)
        _run(["ip", "-n", self.bridge_ns, "link", "add", "br0", "type", "bridge"])
        _run(["ip", "-n", self.bridge_ns, "link", "set", "br0", "up"])
        for n in self.nodes:
            n.start_namespaces()
            n.setup()
        for n in self.nodes:
            n.start_stack()
        self.wait(lambda: self.online() == {n.name for n in self.nodes}, timeout, "all nodes online")

    def live(self):
        return [n for n in self.nodes if n.alive() and n.daemons]

    def tool(self, cmd, check=True):
        """A command-line tool of the engine, run on a live node."""
        r = self.live()[0].run(cmd)
        if check and r.returncode != 0:
            raise RuntimeError(f"{' '.join(cmd)}: {r.stdout}{r.stderr}")
        return r

    def online(self):
        r = self.tool(["crm_mon", "-1", "--output-as=xml"], check=False)
        return set(re.findall(r'<node name="(\w+)" id="\d+" online="true"', r.stdout))

    def where(self, rsc):
        """Nodes on which the engine sees `rsc` running."""
        r = self.tool(["crm_resource", "--locate", "-r", rsc], check=False)
        return set(re.findall(r"is running on: (\w+)", r.stdout))

    def pending(self, rsc):
        """Nodes on which an action of `rsc` is under way. The engine records a start as soon as it
        begins (record-pending), and --locate already names the node then: the agent may still be
        between its mount and its own check of it."""
        r = self.tool(["cibadmin", "--query", "--scope", "status"], check=False)
        try:
            root = ET.fromstring(r.stdout)
        except ET.ParseError:
            return {"?"}  # no answer: nothing can be said to be settled
        out = set()
        for state in root.iter("node_state"):
            if state.get("crmd") == "offline" or state.get("in_ccm") == "false":
                continue  # a dead node's last record: nothing is under way there
            for res in state.iter("lrm_resource"):
                if res.get("id") == rsc and any(op.get("op-status") == "-1" for op in res.iter("lrm_rsc_op")):
                    out.add(state.get("uname"))
        return out

    def wait(self, cond, timeout, what):
        deadline = time.time() + timeout
        while not cond():
            if time.time() > deadline:
                raise TimeoutError(f"{what}\n{self.report()}")
            time.sleep(0.1)

    def report(self):
        """The engine's view, the nodes' last log lines and the agents' trace logs, for a failure
        message."""
        out = [f"-- report at {time.strftime('%H:%M:%S', time.gmtime())}.{int(time.time() * 1000) % 1000:03d}Z"]
        if self.live():
            out.append(self.tool(["crm_mon", "-1", "--show-detail"], check=False).stdout)
        for n in self.live():
            log = n.run(["grep", "-E", "error|warning|notice.*(Result|Initiating)",
                         "/var/log/pacemaker/pacemaker.log"]).stdout.splitlines()
            out += [f"-- {n.name}:"] + log[-40:]
        # The agents' trace logs: each node's own log directory of the shared tree (also of a node that
        # is dead), without the configuration loader's detail lines, which would bury the rest.
        for n in self.nodes:
            for log in sorted((n.dir / "zor-log").glob("*.log")):
                lines = [ln for ln in log.read_text(errors="replace").splitlines() if " DETAIL " not in ln]
                out += [f"-- {n.name}: {log.name} (last {min(len(lines), 80)} of {len(lines)} lines but DETAIL):"]
                out += lines[-80:]
        return "\n".join(out)

    def node(self, name):
        return next(n for n in self.nodes if n.name == name)

    def stop(self):
        for n in self.nodes:
            n.kill()
        for name in reversed(self.netns_made):
            subprocess.run(["ip", "netns", "delete", name], capture_output=True)
        self.netns_made = []
        shutil.rmtree(self.dir, ignore_errors=True)


def primitive_xml(rid, agent, params, ops, target_role="Stopped"):
    """A primitive of `agent` ("ocf:zor:zordisk") with its parameters, target role and operations, each
    (name, interval, timeout) or (name, interval, timeout, OCF_CHECK_LEVEL)."""
    cls, provider, kind = agent.split(":")
    nv = "".join(f'<nvpair id="{rid}-{k}" name="{k}" value="{v}"/>' for k, v in params.items())
    op = ""
    for o in ops:
        name, iv, to = o[:3]
        oid = f"{rid}-{name}-{iv}"
        depth = (f'<instance_attributes id="{oid}-ia"><nvpair id="{oid}-depth" name="OCF_CHECK_LEVEL" '
                 f'value="{o[3]}"/></instance_attributes>') if len(o) > 3 else ""
        op += f'<op id="{oid}" name="{name}" interval="{iv}" timeout="{to}">{depth}</op>'
    return (f'<primitive id="{rid}" class="{cls}" provider="{provider}" type="{kind}">'
            f'<instance_attributes id="{rid}-ia">{nv}</instance_attributes>'
            f'<meta_attributes id="{rid}-ma"><nvpair id="{rid}-role" name="target-role" value="{target_role}"/>'
            f'</meta_attributes><operations>{op}</operations></primitive>')


@contextlib.contextmanager
def disk_node(build, prefix, params):
    """For the scripts that run a cluster outside pytest: a node tree installed from BUILD whose resource
    fs1 of group grp1 is a fresh 64 MB ext4 loop device, with the disk keys in PARAMS besides device and
    point. Yields (install, node, device, point); the loop device and both trees are removed after."""
    install = _mkdtemp(prefix)
    subprocess.run(["cmake", "--install", build, "--prefix", str(install)], check=True, stdout=subprocess.DEVNULL)
    node, loops = Node(install), LoopDevices()
    try:
        dev = loops.make(64, "ext4")
        point = node.home / "mnt" / "fs1"
        for key, value in {"device": dev, "mount/point": point, **params}.items():
            node.conf.set(f"/root/resource/disk@fs1/parameters/{key}", value)
        node.write_conf()
        yield install, node, dev, point
    finally:
        loops.close()
        node.cleanup()
        shutil.rmtree(install, ignore_errors=True)
