#!/usr/bin/python3
"""Wall time of the OCF agent's start, monitor and stop of a disk resource on a loop-backed ext4 file system,
as the engine would run them, for one or more builds side by side: each build's tree installed apart, its
own node, loop device and private mount and PID namespace, the builds taking turns round by round. Median
and spread over ROUNDS rounds.

Usage (root): bench/agent_times.py ROUNDS LABEL=BUILD_DIR[+attrs] ...
  +attrs: the agent is also given the engine's description (device, directory, uuid) and the operation's
  time-out, as a primitive with those attributes would.
Example: bench/agent_times.py 30 before=/tmp/main/build after=build after+attrs=build+attrs
"""

import contextlib
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from conftest import Disk, LoopDevices, Namespace, Node, install  # noqa: E402


class Setup:
    """One build's installed tree, node, loop device and namespace, and the agent's attributes."""

    def __init__(self, build, attrs, stack):
        self.root = install("zor-bench.", build)
        stack.callback(subprocess.run, ["rm", "-rf", str(self.root)], check=False)
        node, loops = Node(self.root), LoopDevices()
        stack.callback(node.cleanup)
        stack.callback(loops.close)
        ns = Namespace()
        stack.callback(ns.close)
        self.disk, self.params = Disk(node, ns, loops), {}
        if attrs:
            uuid = subprocess.run(["blkid", "-p", "-s", "UUID", "-o", "value", self.disk.dev], capture_output=True,
                                  text=True, check=True).stdout.strip()
            # Timed with the operation's time-out given, as the engine gives it.
            self.params = dict(device=self.disk.dev, directory=self.disk.point, uuid=uuid, CRM_meta_timeout="60000")
        self.times = {"start": [], "monitor": [], "stop": []}

    def round(self):
        for action, times in self.times.items():
            t0 = time.perf_counter()
            code, reasons = self.disk.ocf(action, params=self.params)
            times.append((time.perf_counter() - t0) * 1000)
            assert code == 0, (action, code, reasons, self.disk.err)


def main():
    rounds = int(sys.argv[1])
    with contextlib.ExitStack() as stack:
        setups = {}
        for arg in sys.argv[2:]:
            label, _, given = arg.partition("=")
            build, _, attrs = given.partition("+")
            setups[label] = Setup(Path(build).resolve(), attrs == "attrs", stack)
        # Round by round, each build in turn: a busy machine's drift falls on all alike.
        for _ in range(rounds):
            for setup in setups.values():
                setup.round()
    print(f"{'':16} {'start ms':>16} {'monitor ms':>16} {'stop ms':>16}   (median [min-max], {rounds} rounds)")
    for label, setup in setups.items():
        cells = [f"{statistics.median(v):6.1f} [{min(v):.0f}-{max(v):.0f}]" for v in setup.times.values()]
        print(f"{label:16} " + " ".join(f"{c:>16}" for c in cells))


if __name__ == "__main__":
    main()
