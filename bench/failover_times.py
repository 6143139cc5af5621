#!/usr/bin/python3
"""What ext4's multi-mount protection adds to a failover: the disk resource ocf:zor:zordisk runs on node1 of a
two-node Corosync + Pacemaker cluster (tests/e2e/cluster.py), node1 dies, and the time from its death to fs1
started and mounted on node2 is taken, for a disk without MMP and with MMP at update intervals of 1 s and 5 s
(the default), and for two deaths:

- killed: every process of node1 killed; its file system is unmounted with its last process, cleanly, so MMP
  finds the disk released;
- crashed: node1's file system frozen first, so that none of its writes (MMP's clean mark included) reach the
  disk, as after a loss of power; MMP must then wait out a holder that no longer updates.

Usage (root): bench/failover_times.py BUILD_DIR
Each run lives in namespaces of its own; daemons, namespaces and loop devices are removed after it.
"""

import os
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from cluster import DISK_PARAMS, disk_cluster, primitive_xml  # noqa: E402

DISKS = {"no MMP": (), "MMP 1 s": ("-O", "mmp", "-E", "mmp_update_interval=1"), "MMP 5 s": ("-O", "mmp")}


def failover(build, mkfs, crash):
    # The mount's limit must outlast the kernel's wait for a dead holder: 45 s at the default interval.
    with disk_cluster(build, "zor-bench-fo.", params={**DISK_PARAMS, "mount/timeout": 120}, mkfs=mkfs) as (
            c, node, point):
        c.start()
        ops = [("start", "0", "180s"), ("stop", "0", "60s"), ("monitor", "2s", "20s")]
        c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text",
                primitive_xml("fs1", "ocf:zor:zordisk", {"resource": "fs1", "group": "grp1", "zor_home": node.home},
                              ops, target_role="Started")])
        c.tool(["cibadmin", "--create", "-o", "constraints", "--xml-text",
                '<rsc_location id="fs1-on-node1" rsc="fs1" node="node1" score="50"/>'])
        n1, n2 = c.node("node1"), c.node("node2")

        def on(n):
            return c.where("fs1") == {n.name} and any(e[0] == n.devno for e in n.mounts(point)) and not c.pending("fs1")

        c.wait(lambda: on(n1), 60, "start on node1")
        time.sleep(3)  # MMP's holder has written its first updates
        if crash:
            with n1.crash(point):
                t = time.monotonic()
                c.wait(lambda: on(n2), 150, "fail-over")
                took = time.monotonic() - t
                c.tool(["crm_resource", "--meta", "-r", "fs1", "-p", "target-role", "-v", "Stopped"])
                c.wait(lambda: not n2.mounts(point), 60, "stop")
            return took
        n1.kill()
        t = time.monotonic()
        c.wait(lambda: on(n2), 150, "fail-over")
        return time.monotonic() - t


def main(build):
    if os.geteuid() != 0:
        sys.exit("failover_times.py starts cluster daemons and mounts file systems: run it as root")
    rows = {name: [failover(build, mkfs, crash) for crash in (False, True)] for name, mkfs in DISKS.items()}
    print("== fail-over of ocf:zor:zordisk to node2 after the death of node1 (s, from death to started)")
    print(f"{'disk':10} {'killed':>8} {'crashed':>8}")
    for name, (killed, crashed) in rows.items():
        print(f"{name:10} {killed:8.1f} {crashed:8.1f}")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: failover_times.py BUILD_DIR")
    main(sys.argv[1])
