#!/usr/bin/python3
"""Start, stop and monitor times of ocf:zor:zordisk beside ocf:heartbeat:Filesystem on the same
loop-backed ext4 disk, as a one-node Corosync + Pacemaker cluster (tests/e2e/cluster.py) records them:
the exec-time of the engine's own operation records, median over ROUNDS start/stop rounds.

Usage (root): bench/engine_times.py BUILD_DIR [ROUNDS]   (./run bench calls it after bench_disk.sh)
The node lives in namespaces of its own; its daemons, namespaces and the loop device are removed at the end.
"""

import os
import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from cluster import disk_cluster, primitive_xml  # noqa: E402



def op_times(c, rsc):
    """The engine's record of each operation of rsc: {(operation, interval): [exec-time ms, ...]}."""
    xml = c.tool(["cibadmin", "-Q", "-o", "status"]).stdout
    out = {}
    for m in re.finditer(rf'<lrm_rsc_op id="{rsc}_[^"]*"[^>]*>', xml):
        tag = m.group(0)
        ms = re.search(r'exec-time="(\d+)"', tag)
        if ms:
            key = (re.search(r'operation="([^"]+)"', tag).group(1), re.search(r'interval="(\d+)"', tag).group(1))
            out.setdefault(key, []).append(int(ms.group(1)))
    return out


def measure(c, rid, agent, params, point, rounds):
    ops = [("start", "0", "60s"), ("stop", "0", "60s"), ("monitor", "1s", "20s")]
    c.tool(["cibadmin", "--create", "-o", "resources", "--xml-text", primitive_xml(rid, agent, params, ops)])
    starts, stops, monitors = [], [], []
    for _ in range(rounds):
        # The engine keeps only the last record of each operation: read it after each one.
        c.tool(["crm_resource", "--meta", "-r", rid, "-p", "target-role", "-v", "Started"])
        c.wait(lambda: c.where(rid) == {"node1"} and c.nodes[0].mounts(point) and not c.pending(rid), 30,
               f"{rid} start")
        time.sleep(1.2)  # one recurring monitor
        t = op_times(c, rid)
        starts += t.get(("start", "0"), [])
        monitors += t.get(("monitor", "1000"), [])
        c.tool(["crm_resource", "--meta", "-r", rid, "-p", "target-role", "-v", "Stopped"])
        c.wait(lambda: not c.where(rid) and not c.nodes[0].mounts(point) and not c.pending(rid), 30, f"{rid} stop")
        stops += op_times(c, rid).get(("stop", "0"), [])
    c.tool(["cibadmin", "--delete", "-o", "resources", "--xml-text", f'<primitive id="{rid}"/>'])
    if not (starts and stops and monitors):
        raise RuntimeError(f"{agent}: no exec-time records: {starts} {stops} {monitors}")
    return [statistics.median(v) for v in (starts, stops, monitors)]


def main(build, rounds):
    if os.geteuid() != 0:
        sys.exit("engine_times.py starts cluster daemons and mounts a file system: run it as root")
    params = {"fs": "ext4", "mount/timeout": 20, "mount/retry": 0, "umount/timeout": 20, "umount/retry": 1,
              "umount/action": "kill", "umount/interval": 0, "fsck/timing": 0}
    with disk_cluster(build, "zor-bench-eng.", nodes=1, params=params) as (c, node, point):
        c.start()
        dev = c.nodes[0].dev
        # The peer first, on a read-write device (it never switches it); the zor agent leaves it read-only.
        subprocess.run(["blockdev", "--setrw", dev], check=True)
        peer = measure(c, "hfs1", "ocf:heartbeat:Filesystem",
                       {"device": dev, "directory": point, "fstype": "ext4"}, point, rounds)
        zor = measure(c, "zfs1", "ocf:zor:zordisk",
                      {"resource": "fs1", "group": "grp1", "zor_home": node.home}, point, rounds)
    print(f"== engine exec-time under Pacemaker, one node, median of {rounds} rounds (ms)")
    print(f"{'agent':26} {'start':>7} {'stop':>7} {'monitor':>8}")
    for name, row in (("ocf:zor:zordisk", zor), ("ocf:heartbeat:Filesystem", peer)):
        print(f"{name:26} {row[0]:7.0f} {row[1]:7.0f} {row[2]:8.0f}")
    ratios = [p / z if z else float("inf") for p, z in zip(peer, zor)]
    print(f"{'peer/agent':26} {ratios[0]:7.2f} {ratios[1]:7.2f} {ratios[2]:8.2f}")


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: engine_times.py BUILD_DIR [ROUNDS]")
    main(sys.argv[1], int(sys.argv[2]) if len(sys.argv) == 3 else 5)
