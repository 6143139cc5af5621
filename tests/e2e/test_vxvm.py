# Volume-manager volumes (disk type "vxvm") end to end.
#
# No volume manager exists here: the volume's block device is a loop device
# carrying ext4, and its raw device is a character device node made for the
# test, only ever handed to the checker. For "vxfs" the checker is a script
# that records its arguments (the proof that the check ran on the raw device),
# and the mount goes through a wrapper that mounts the volume's ext4 where
# "-t vxfs" was asked for. For ext4 the real fsck and mount run on the block
# device.

import os

import pytest

from conftest import getro

VXFS_MOUNT = ('if [ "$1" = "-t" ] && [ "$2" = "vxfs" ]; then shift 2; exec /bin/mount -t ext4 "$@"; fi\n'
              'exec /bin/mount "$@"')


@pytest.fixture
def vol(disk):
    disk.raw = disk.node.home / "rawvol"
    os.mknod(disk.raw, 0o600 | 0o020000, os.makedev(1, 3))
    disk.set({"disktype": "vxvm", "rawdevice": disk.raw, "fsck/timing": 1})
    return disk


@pytest.mark.parametrize("fs", ["vxfs", "ext4"])
def test_round_trip(vol, fs):
    if fs == "vxfs":
        vol.set({"fs": "vxfs", "fsck/path": vol.script("fsck_vxfs", "exit 0"),
                 "mount/path": vol.script("mount_vxfs", VXFS_MOUNT)})
    assert vol.act("--active") == (0, "Success."), vol.new
    assert [(m.split()[0], m.split()[2]) for m in vol.ns.mounts(vol.point)] == [(vol.dev, "ext4")]
    if fs == "vxfs":
        # Checked on the raw device, mounted from the block device.
        assert (vol.calls("fsck_vxfs"), vol.args("fsck_vxfs")) == (1, ["-t", "vxfs", "-y", str(vol.raw)])
        assert vol.said(f'(exec "{vol.scripts / "mount_vxfs"}" -t vxfs "{vol.dev}" "{vol.point}" 2>&1)')
    else:
        assert vol.said(f'(exec "/sbin/fsck" -t ext4 -y "{vol.dev}" 2>&1)')
        assert vol.said("clean file system. (ret=0)")
    # The volume manager owns the access mode: no switch either way.
    assert (vol.act("--deactive"), vol.mounts(), vol.said("<<< roset >>>"), getro(vol.dev)) == (
        (0, "Success."), 0, False, "0"), vol.new
