# The disk monitor end to end: `zordisk --monitor` on real devices, in every state a cluster engine can
# meet, half-way states made by hand included (the share's monitor: test_nas.py).
#
# Answers: 0 in service, 7 cleanly out of service, 1 failed or half-way. Only an answer of 1 may store a
# status text; 0 and 7 leave the one the last action stored (here: none, or "Success.").

import json
from unittest.mock import ANY

import pytest

from conftest import getro

# Shell steps of a preparation: {d} the device, {p} the point, {o} another device. A new device is read-write.
RO, MKDIR, OTHER = "blockdev --setro {d}", 'mkdir -p "{p}"', 'mount "{o}" "{p}"'
NO_DEVICE = "/dev/zor-no-such-device"

# (name, activated first, then these steps, settings, answer, status text (None: no record), the state zorstat
# shows a user other than root, who cannot read the device's read-only flag)
DISK_STATES = [
    ("stopped", False, [RO, MKDIR], {}, 7, None, "unknown"),
    ("running", True, [], {}, 0, "Success.", "in service"),
    ("mounted_from_another_device", False, [RO, MKDIR, OTHER], {}, 1,
     "Mount point was mounted from another device. ({p}, {o})", "unknown"),
    ("another_device_stacked_on_top", True, [OTHER], {}, 1, "Mount point was mounted from another device. ({p}, {o})",
     "unknown"),
    ("read_write_not_mounted", False, [MKDIR], {}, 1, "Device was read-write but not mounted. ({d})", "unknown"),
    ("point_missing", False, [RO], {}, 1, "Mount point was not found. ({p})", "unknown"),
    ("read_only_while_mounted", True, [RO], {}, 1, "Device was read-only while mounted. ({d})", "in service"),
    ("device_missing", False, [RO, MKDIR], {"device": NO_DEVICE}, 1, f"Device was not found. ({NO_DEVICE})", "unknown"),
    # An lvm volume has no read-only switch: its flag says nothing.
    ("lvm_not_mounted", False, [MKDIR], {"disktype": "lvm"}, 7, None, "out of service"),
]
STATE = {0: "in service", 7: "out of service", 1: "failed"}


@pytest.mark.parametrize("name,active,steps,settings,answer,text,seen", DISK_STATES, ids=[s[0] for s in DISK_STATES])
def test_disk_states(disk, loopdev, name, active, steps, settings, answer, text, seen):
    if active:
        assert disk.run("--active").returncode == 0, disk.new
    other = loopdev(16, "ext4") if OTHER in steps else ""
    for step in steps:
        disk.ns.sh(step.format(d=disk.dev, p=disk.point, o=other), check=True)
    disk.set(settings)
    before = (getro(disk.dev), disk.mounts())
    # The deeper levels run a read, then a write, of the mount: only of a resource in service.
    for depth, checks in (([], 0), (["--level", "0"], 0), (["--level", "10"], 1), (["--level", "20"], 2)):
        assert disk.run("--monitor", *depth).returncode == answer, (depth, disk.new)
        assert disk.status() == (text and text.format(p=disk.point, d=disk.dev, o=other)), depth
        assert len([m for m in disk.new if m.startswith("(exec")]) == (checks if answer == 0 else 0), disk.new
        # The monitor only looks: device flag and mount table are as it found them.
        assert (getro(disk.dev), disk.mounts()) == before
    # zorstat runs the same check beside each record (a refused command line makes one where none is).
    if text is None:
        disk.node.run(["-r", "fs1", "-g", "grp1", "--bogus"])
    shown = []
    for user in ([], ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"]):
        out = disk.ns.run(user + [str(disk.node.home / "bin" / "zorstat"), "--json"], env=disk.node.env()).stdout
        shown += [(r["state"], r["reason"]) for r in json.loads(out)]
    reason = text.format(p=disk.point, d=disk.dev, o=other) if answer == 1 else ""
    assert (shown, getro(disk.dev), disk.mounts()) == ([(STATE[answer], reason), (seen, ANY)], *before)
