#!/usr/bin/env python3
"""The disk resource under a real cluster engine: two Corosync + Pacemaker nodes on this machine, each in
namespaces of its own (tests/e2e/cluster.py), share an ext4 disk that each sees as a loop device of its own. The resource ocf:zor:zordisk
starts on node1, node1 dies, the engine starts it on node2, and it is stopped; the engine's own status
view (crm_mon -1) is shown at each step.

Usage: demo/cluster_demo.py BUILD_DIR   (./run demo cluster builds first and calls this)
Nothing of the machine's network, mounts or processes is touched; everything is removed at the end.
"""

import os
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from cluster import disk_cluster, primitive_xml  # noqa: E402


def bold(text):
    print(f"\n\033[1m{text}\033[0m", flush=True)


def crm_mon(c):
    out = c.tool(["crm_mon", "-1"]).stdout
    print("".join("   " + line + "\n" for line in out.splitlines() if line.strip()), end="")


def main(build):
    if os.geteuid() != 0:
        sys.exit("the cluster demo starts cluster daemons and mounts a file system: run it as root")
    with disk_cluster(build, "zor-cdemo.", params={"fsck/timing": 0, "mount/retry": 0}) as (c, node, point):
        show(c, node, point)
    bold("== Done; the nodes, their namespaces and bridge, and the loop devices are removed.")


def getro(n):
    return subprocess.check_output(["blockdev", "--getro", n.dev], text=True).strip()


def show(c, node, point):
    t0 = time.monotonic()

    def at():
        return f"[{time.monotonic() - t0:5.1f} s]"

    bold(f"== Two nodes of Corosync and Pacemaker sharing an ext4 disk (resource fs1 of group grp1), each node\n"
         f"   through a loop device of its own ({', '.join(f'{n.name}: {n.dev}' for n in c.nodes)}), named\n"
         f"   {c.disk} on every node")
    c.start()
    print(f"{at()} both nodes online (no fencing here: stonith-enabled=false)")
    ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "2s", "20s")]
    rsc = primitive_xml("fs1", "ocf:zor:zordisk", {"resource": "fs1", "group": "grp1",
                                                    "zor_home": node.home}, ops)
    bold("== cibadmin --create: primitive fs1 of ocf:zor:zordisk, preferring node1; target-role Started")
    c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", rsc])
    c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
            '<rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'])
    c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Started"])
    c.wait(lambda: c.where("fs1") == {"node1"} and c.node("node1").mounts(point) and not c.pending("fs1"), 30,
           "start")
    print(f"{at()} started; node1's device read-only: {getro(c.node('node1'))}")
    crm_mon(c)

    bold("== node1 dies: every process of it killed by PID, its cluster daemons first")
    killed = c.node("node1").kill()
    t_kill = time.monotonic()
    print(f"{at()} killed {len(killed)} processes of node1 and its first process")
    c.wait(lambda: c.where("fs1") == {"node2"} and c.node("node2").mounts(point) and not c.pending("fs1"), 40,
           "fail-over")
    print(f"{at()} fs1 runs on node2, {time.monotonic() - t_kill:.1f} s after the kill; mounted on node2: "
          f"{bool(c.node('node2').mounts(point))}")
    crm_mon(c)

    bold("== crm_resource --meta -r fs1 -p target-role -v Stopped")
    c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Stopped"])
    c.wait(lambda: not c.where("fs1") and not c.pending("fs1"), 30, "stop")
    print(f"{at()} stopped; mounted on node2: {bool(c.node('node2').mounts(point))}; node2's device read-only: "
          f"{getro(c.node('node2'))}")
    crm_mon(c)
    bold("== zorstat on node2: the agent's status text")
    print("   " + c.node("node2").run([str(node.home / "bin" / "zorstat")],
                                     env=dict(os.environ, ZOR_HOME=str(node.home))).stdout
          .replace("\n", "\n   ").rstrip())


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: cluster_demo.py BUILD_DIR")
    main(sys.argv[1])
