#!/usr/bin/python3
"""Wall time of the OCF agent's start, monitor and stop of a disk resource on a loop-backed ext4 file system,
as the engine would run them, for one or more builds side by side: each build's tree installed apart, its
own node, loop device and private mount and PID namespace. Median and spread over ROUNDS rounds.

Usage (root): bench/agent_times.py ROUNDS LABEL=BUILD_DIR[+attrs] ...
  +attrs: the agent is also given the engine's description (device, directory, uuid) and the operation's
  time-out, as a primitive with those attributes would.
Example: bench/agent_times.py 30 before=/tmp/main/build after=build after+attrs=build+attrs
"""

import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from conftest import Disk, LoopDevices, Namespace, Node, install  # noqa: E402


def rounds_of(build, attrs, rounds):
    root = install("zor-bench.", build)
    node, loops = Node(root), LoopDevices()
    ns = Namespace()
    try:
        disk = Disk(node, ns, loops.make)
        params = {}
        if attrs:
            uuid = subprocess.run(["blkid", "-p", "-s", "UUID", "-o", "value", disk.dev], capture_output=True,
                                  text=True, check=True).stdout.strip()
            params = {"device": disk.dev, "directory": disk.point, "uuid": uuid}
        times = {"start": [], "monitor": [], "stop": []}
        for _ in range(rounds):
            for action in times:
                t0 = time.perf_counter()
                code, reasons = disk.ocf(action, params=params, timeout=60000 if attrs else None)
                times[action].append((time.perf_counter() - t0) * 1000)
                assert code == 0, (action, code, reasons, disk.err)
        return times
    finally:
        ns.close()
        loops.close()
        node.cleanup()
        subprocess.run(["rm", "-rf", str(root)], check=False)


def main():
    rounds = int(sys.argv[1])
    print(f"{'':16} {'start ms':>16} {'monitor ms':>16} {'stop ms':>16}   (median [min-max], {rounds} rounds)")
    for arg in sys.argv[2:]:
        label, _, given = arg.partition("=")
        build, _, attrs = given.partition("+")
        times = rounds_of(Path(build).resolve(), attrs == "attrs", rounds)
        cells = [f"{statistics.median(v):6.1f} [{min(v):.0f}-{max(v):.0f}]" for v in times.values()]
        print(f"{label:16} " + " ".join(f"{c:>16}" for c in cells))


if __name__ == "__main__":
    main()
