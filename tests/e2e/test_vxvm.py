# Volume-manager volumes (disk type "vxvm") end to end.
#
# No volume manager exists here: the volume's block device is a loop device
# carrying ext4, and its raw device is a character device node made for the
# test, only ever handed to the checker: a script that records its arguments
# (the proof that the check ran on the raw device). The mount goes through a
# wrapper that mounts the volume's ext4 where "-t vxfs" was asked for. (Which
# device each check of a volume gets: the flow matrix of the unit tests.)

import os

from conftest import getro

VXFS_MOUNT = ('if [ "$1" = "-t" ] && [ "$2" = "vxfs" ]; then shift 2; exec /bin/mount -t ext4 "$@"; fi\n'
              'exec /bin/mount "$@"')


def test_vxfs_round_trip(disk):
    raw = disk.node.home / "rawvol"
    os.mknod(raw, 0o600 | 0o020000, os.makedev(1, 3))
    disk.set({"disktype": "vxvm", "rawdevice": raw, "fsck/timing": 1, "fs": "vxfs",
              "fsck/path": disk.script("fsck_vxfs", "exit 0"), "mount/path": disk.script("mount_vxfs", VXFS_MOUNT)})
    assert disk.act("--active") == (0, "Success."), disk.new
    assert [(m.split()[0], m.split()[2]) for m in disk.ns.mounts(disk.point)] == [(disk.dev, "ext4")]
    # Checked on the raw device, mounted from the block device.
    assert (disk.calls("fsck_vxfs"), disk.args("fsck_vxfs")) == (1, ["-t", "vxfs", "-y", str(raw)])
    assert disk.said(f'(exec "{disk.scripts / "mount_vxfs"}" -t vxfs "{disk.dev}" "{disk.point}" 2>&1)')
    # The volume manager owns the access mode: no switch either way.
    assert (disk.act("--deactive"), disk.mounts(), disk.said("<<< roset >>>"), getro(disk.dev)) == (
        (0, "Success."), 0, False, "0"), disk.new
