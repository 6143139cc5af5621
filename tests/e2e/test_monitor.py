# The disk monitor end to end: `zordisk --monitor` on real devices, in every state a cluster engine can
# meet, half-way states made by hand included, and what the OCF agent makes of each at a probe and a stop
# (the share's monitor: test_nas.py). The round trip of a point however spelt, brought into service, looked
# at and taken out again, serves test_failover_safety.py and test_nas.py.
#
# Answers: 0 in service, 7 out of service and clean, 2 clean but read-write (stdout names the device), 5 the
# node lacks the resource, 1 failed or half-way. Only 0 and 7 leave the status text the last action stored.

from unittest.mock import ANY

import pytest

from conftest import getro

# Shell steps of a preparation: {d} the device, {p} the point, {o} another device, {e} a directory elsewhere.
# A new device is read-write.
RO, MKDIR, OTHER = "blockdev --setro {d}", 'mkdir -p "{p}"', 'mount "{o}" "{p}"'
BIND = 'mkdir -p "{e}" && mount --bind "{p}" "{e}"'
UNMOUNT, LAZY = 'umount "{p}"', 'cd "{p}" && (sleep 600 >/dev/null 2>&1 &) && cd / && umount -l "{p}"'
NO_DEVICE = "/dev/zor-no-such-device"

FAILED, NOT_RUNNING = 1, 7  # the OCF agent's answers
# What zorstat shows of each answer; and, to a user other than root, who cannot open the device, where that
# differs from "unknown".
STATE = {0: "in service", 7: "out of service", 1: "failed", 2: "failed", 5: "out of service"}
SEEN = {"running": "in service", "read_only_while_mounted": "in service", "device_missing": "out of service"}

# (name, activated first, then these steps, settings ({h}: the node's tree), answer, status text (None: no
#  record), the OCF agent's probe; its stop, and the mounts of the device on the node and its read-only flag
#  after the stop)
DISK_STATES = [
    ("stopped", False, [RO, MKDIR], {}, 7, None, NOT_RUNNING, (0, 0, "1")),
    ("running", True, [], {}, 0, "Success.", 0, (0, 0, "1")),
    ("point_missing", False, [RO], {}, 7, None, NOT_RUNNING, (0, 0, "1")),  # the activation makes it
    # Another's file system on the point is nothing of this resource's: left alone by the stop.
    ("another_device_on_the_point", False, [RO, MKDIR, OTHER], {}, 7, None, NOT_RUNNING, (0, 0, "1")),
    ("another_device_stacked_on_top", True, [OTHER], {}, 1, "Mount point was mounted from another device. ({p}, {o})",
     FAILED, (0, 0, "1")),
    ("read_write_not_mounted", False, [MKDIR], {}, 2, "Device was read-write but not mounted. ({d})", NOT_RUNNING,
     (0, 0, "1")),
    ("read_only_while_mounted", True, [RO], {}, 1, "Device was read-only while mounted. ({d})", FAILED, (0, 0, "1")),
    ("device_missing", False, [RO, MKDIR], {"device": NO_DEVICE}, 5, f"Device was not found. ({NO_DEVICE})",
     NOT_RUNNING, (0, 0, "1")),
    # An lvm volume has no read-only switch: its flag says nothing.
    ("lvm_not_mounted", False, [MKDIR], {"disktype": "lvm"}, 7, None, NOT_RUNNING, (0, 0, "0")),
    # Mounted or held, but not on its point: never out of service, and no stop succeeds while it lasts; the
    # device stays writable for whoever uses it.
    ("bound_elsewhere", True, [BIND, UNMOUNT], {}, 1, "Device was mounted elsewhere. ({d}, {e})", FAILED,
     (FAILED, 1, "0")),
    ("point_changed_in_service", True, [], {"mount/point": "{h}/moved"}, 1,
     "Device was mounted elsewhere. ({d}, {p})", FAILED, (FAILED, 1, "0")),
    ("lazily_detached_in_use", True, [LAZY], {"disktype": "lvm"}, 1, "Device was in use. ({d})", FAILED,
     (FAILED, 0, "0")),
]


@pytest.mark.parametrize("name,active,steps,settings,answer,text,probe,stop", DISK_STATES,
                         ids=[s[0] for s in DISK_STATES])
def test_disk_states(disk, loopdev, name, active, steps, settings, answer, text, probe, stop):
    disk.set({k: v for k, v in settings.items() if k == "disktype"})
    if active:
        assert disk.run("--active").returncode == 0, disk.new
    other = loopdev(16, "ext4") if OTHER in steps else ""
    where = f"{disk.node.home}/elsewhere"
    for step in steps:
        disk.ns.sh(step.format(d=disk.dev, p=disk.point, o=other, e=where), check=True)
    disk.set({k: v.format(h=disk.node.home) for k, v in settings.items()})
    text = text and text.format(p=disk.point, d=disk.dev, o=other, e=where)
    before = (getro(disk.dev), disk.mounts())
    # The deeper levels run a read, then a write, of the mount: only of a resource in service.
    for depth, checks in (([], 0), (["--level", "0"], 0), (["--level", "10"], 1), (["--level", "20"], 2)):
        r = disk.run("--monitor", *depth)
        assert (r.returncode, r.stdout) == (answer, f"device={disk.dev}\n" if answer == 2 else ""), (depth, disk.new)
        assert disk.status() == text, depth
        assert len([m for m in disk.new if m.startswith(("(exec", "(write check"))]) == (checks if answer == 0 else 0), disk.new
        # The monitor only looks: device flag and mount table are as it found them.
        assert (getro(disk.dev), disk.mounts()) == before
    # zorstat runs the same check beside each record (a refused command line makes one where none is).
    if text is None:
        disk.node.run(["-r", "fs1", "-g", "grp1", "--bogus"])
    shown = [(r["state"], r["reason"]) for user in (None, "nobody") for r in disk.node.records(ns=disk.ns, user=user)]
    reason = text if answer in (1, 2, 5) else ""
    assert (shown, getro(disk.dev), disk.mounts()) == ([(STATE[answer], reason), (SEEN.get(name, "unknown"), ANY)],
                                                      *before)
    assert disk.ocf("monitor", probe=True) == (probe, [text] if probe == FAILED else [])
    stopped = disk.ocf("stop")[0]
    mounts = disk.ns.run(["grep", "-c", f"^{disk.dev} ", "/proc/mounts"]).stdout.strip()
    assert (stopped, int(mounts), getro(disk.dev)) == stop


# A point as an operator may write it; {m} is the directory the points are made in, {h} the node's tree, {n}
# the resource's name.
SPELLINGS = {
    "double slash": "{m}//{n}",
    "dot": "{m}/./{n}",
    "trailing slash": "{m}/{n}//",
    "dot-dot": "{m}/x/../{n}",
    "link to the point": "{h}/to-point",
    "link to a parent": "{h}/to-mnt/{n}",
}


def round_trips(res, points):
    """Each point, {name: (as configured, where the kernel shows it)}, through activation, monitor,
    deactivation and monitor: the one resource is found where activation put it. Returns the failures."""
    failures = []
    for name, (spelt, where) in points.items():
        res.set({"mount/point": spelt})
        got = [res.act("--active"), res.run("--monitor").returncode, len(res.ns.mounts(where))]
        got += [res.act("--deactive"), res.run("--monitor").returncode, len(res.ns.mounts(where))]
        if got != [(0, "Success."), 0, 1, (0, "Success."), 7, 0]:
            failures.append((name, got))
            res.ns.run(["umount", "-l", where])  # leave nothing mounted for the next one
    return failures


def spellings(res):
    """The spellings of the resource's point, with the links they go through."""
    home, mnt = res.node.home, res.node.home / "mnt"
    res.ns.sh(f'mkdir -p "{res.point}" "{mnt}/x" && ln -sfn "{res.point}" "{home}/to-point" && '
              f'ln -sfn mnt "{home}/to-mnt"', check=True)
    return {name: (spelt.format(m=mnt, h=home, n=res.rsc), res.point) for name, spelt in SPELLINGS.items()}
