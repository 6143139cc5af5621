# The disk monitor end to end: `zordisk --monitor` on real devices, in every state a cluster engine can
# meet, half-way states made by hand included (the share's monitor: test_nas.py); and points however spelt,
# brought into service, looked at and taken out again.
#
# Answers: 0 in service, 7 out of service and clean, 2 clean but read-write (stdout names the device), 5 the
# node lacks the resource, 1 failed or half-way. Only 0 and 7 leave the status text the last action stored.

import pytest

from conftest import getro

# Shell steps of a preparation: {d} the device, {p} the point, {o} another device, {e} a directory elsewhere.
# A new device is read-write.
RO, MKDIR, OTHER, TMPFS = "blockdev --setro {d}", 'mkdir -p "{p}"', 'mount "{o}" "{p}"', 'mount -t tmpfs zor "{p}"'
BIND = 'mkdir -p "{e}" && mount --bind "{p}" "{e}"'
UNMOUNT, LAZY = 'umount "{p}"', 'cd "{p}" && (sleep 600 >/dev/null 2>&1 &) && cd / && umount -l "{p}"'
NO_DEVICE = "/dev/zor-no-such-device"
MOVED = "moved point"

# (name, activated first, then these steps, settings, answer, status text (None: no record))
DISK_STATES = [
    ("stopped", False, [RO, MKDIR], {}, 7, None),
    ("running", True, [], {}, 0, "Success."),
    ("point_missing", False, [RO], {}, 7, None),  # the activation makes it
    # Another's file system on the point is nothing of this resource's.
    ("another_device_on_the_point", False, [RO, MKDIR, OTHER], {}, 7, None),
    ("another_device_stacked_on_top", True, [OTHER], {}, 1, "Mount point was mounted from another device. ({p}, {o})"),
    ("read_write_not_mounted", False, [MKDIR], {}, 2, "Device was read-write but not mounted. ({d})"),
    ("read_write_under_a_tmpfs", False, [MKDIR, TMPFS], {}, 2, "Device was read-write but not mounted. ({d})"),
    ("read_only_while_mounted", True, [RO], {}, 1, "Device was read-only while mounted. ({d})"),
    ("device_missing", False, [RO, MKDIR], {"device": NO_DEVICE}, 5, f"Device was not found. ({NO_DEVICE})"),
    # An lvm volume has no read-only switch: its flag says nothing.
    ("lvm_not_mounted", False, [MKDIR], {"disktype": "lvm"}, 7, None),
    # Mounted, but not on its point: never out of service.
    ("bound_elsewhere", True, [BIND, UNMOUNT], {}, 1, "Device was mounted elsewhere. ({d}, {e})"),
    ("lvm_bound_elsewhere", True, [BIND, UNMOUNT], {"disktype": "lvm"}, 1, "Device was mounted elsewhere. ({d}, {e})"),
    ("point_changed_in_service", True, [], {"mount/point": MOVED}, 1, "Device was mounted elsewhere. ({d}, {p})"),
    ("lazily_detached_in_use", True, [LAZY], {}, 1, "Device was in use. ({d})"),
    ("lvm_lazily_detached_in_use", True, [LAZY], {"disktype": "lvm"}, 1, "Device was in use. ({d})"),
]


@pytest.mark.parametrize("name,active,steps,settings,answer,text", DISK_STATES, ids=[s[0] for s in DISK_STATES])
def test_disk_states(disk, loopdev, name, active, steps, settings, answer, text):
    disk.set({k: v for k, v in settings.items() if k == "disktype"})
    if active:
        assert disk.run("--active").returncode == 0, disk.new
    other = loopdev(16, "ext4") if OTHER in steps else ""
    where = f"{disk.node.home}/elsewhere"
    for step in steps:
        disk.ns.sh(step.format(d=disk.dev, p=disk.point, o=other, e=where), check=True)
    disk.set({k: f"{disk.node.home}/moved" if v == MOVED else v for k, v in settings.items()})
    before = (getro(disk.dev), disk.mounts())
    # The deeper levels run a read, then a write, of the mount: only of a resource in service.
    for depth, checks in (([], 0), (["--level", "0"], 0), (["--level", "10"], 1), (["--level", "20"], 2)):
        r = disk.run("--monitor", *depth)
        assert (r.returncode, r.stdout) == (answer, f"device={disk.dev}\n" if answer == 2 else ""), (depth, disk.new)
        assert disk.status() == (text and text.format(p=disk.point, d=disk.dev, o=other, e=where)), depth
        assert len([m for m in disk.new if m.startswith("(exec")]) == (checks if answer == 0 else 0), disk.new
        # The monitor only looks: device flag and mount table are as it found them.
        assert (getro(disk.dev), disk.mounts()) == before


# A point as an operator may write it; {m} is the directory the points are made in, {h} the node's tree.
SPELLINGS = {
    "double slash": "{m}//fs1",
    "dot": "{m}/./fs1",
    "trailing slash": "{m}/fs1//",
    "dot-dot": "{m}/x/../fs1",
    "link to the point": "{h}/to-point",
    "link to a parent": "{h}/to-mnt/fs1",
}


def test_spelt_points(disk):
    """However the point is spelt, the one resource is found where activation put it: in service, out of
    service, taken down, for both disk types that mount a device."""
    home, mnt = disk.node.home, disk.node.home / "mnt"
    disk.ns.sh(f'mkdir -p "{mnt}/fs1" "{mnt}/x" && ln -s "{mnt}/fs1" "{home}/to-point" && ln -s mnt "{home}/to-mnt"',
               check=True)
    failures, tried = [], 0
    for disktype in ("disk", "lvm"):
        for name, spelt in SPELLINGS.items():
            tried += 1
            disk.set({"disktype": disktype, "mount/point": spelt.format(m=mnt, h=home)})
            got = [disk.act("--active"), disk.run("--monitor").returncode, disk.mounts()]
            got += [disk.act("--deactive"), disk.run("--monitor").returncode, disk.mounts()]
            if got != [(0, "Success."), 0, 1, (0, "Success."), 7, 0]:
                failures.append((disktype, name, got))
                disk.ns.run(["umount", "-l", disk.point])  # leave nothing mounted for the next one
    assert failures == [], f"{len(failures)} of {tried} spellings failed"
