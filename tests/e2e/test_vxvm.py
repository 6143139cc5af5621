# Volume-manager volumes (disk type "vxvm") end to end.
#
# No volume manager exists here: the volume's block device is a loop device
# carrying ext4, and its raw device is a character device node made for the
# test, only ever handed to the checker. For "vxfs" the checker is a script
# that records its arguments (the proof that the check ran on the raw device),
# and the mount goes through a wrapper that mounts the volume's ext4 where
# "-t vxfs" was asked for. For ext4 the real fsck and mount run on the block
# device.

import copy
import os
import subprocess

import pytest

from conftest import require_root

VOL = "/root/resource/disk@vol1/parameters"

VXFS_MOUNT = """#!/bin/sh
if [ "$1" = "-t" ] && [ "$2" = "vxfs" ]; then shift 2; exec /bin/mount -t ext4 "$@"; fi
exec /bin/mount "$@"
"""


class Volume:
    def __init__(self, node, ns, dev):
        self.node, self.ns, self.dev = node, ns, dev
        self.raw = node.home / "rawvol"
        os.mknod(self.raw, 0o600 | 0o020000, os.makedev(1, 3))
        self.point = node.home / "mnt" / "vol1"
        self.record = node.home / "checked"
        # A resource of its own in group grp3, with every key of fs1 and a raw device.
        params = node.conf.element("/root/resource/disk@fs1/parameters")
        node.conf.element("/root/resource/disk@vol1", create=True).append(copy.deepcopy(params))
        node.conf.element("/root/group@grp3/resource@disk@vol1", create=True)
        self.set(disktype="vxvm", device=dev, rawdevice=self.raw, fs="ext4", mount__point=self.point,
                 fsck__timing=1)

    def set(self, **values):
        for key, value in values.items():
            self.node.conf.set(VOL + "/" + key.replace("__", "/"), value)
        self.node.write_conf()

    def script(self, name, text):
        path = self.node.home / name
        path.write_text(text)
        path.chmod(0o755)
        return path

    def vxfs(self, check_rc=0):
        """fs vxfs: the recording checker, and the mount wrapper."""
        checker = f'#!/bin/sh\necho "$@" >> {self.record}\nexit {check_rc}\n'
        self.set(fs="vxfs", fsck__path=self.script("fsck_vxfs", checker),
                 mount__path=self.script("mount_vxfs", VXFS_MOUNT))

    def checks(self):
        return self.record.read_text().splitlines() if self.record.exists() else []

    def mounts(self):
        out = self.ns.run(["cat", "/proc/self/mounts"], check=True).stdout
        return [line.split() for line in out.splitlines() if line.split(" ")[1:2] == [str(self.point)]]

    def run(self, action):
        return self.node.run([action, "-r", "vol1", "-g", "grp3"], ns=self.ns)

    def status(self):
        return self.node.status("grp3", "vol1")


@pytest.fixture
def vol(node, ns, loopdev):
    require_root()
    return Volume(node, ns, loopdev(size_mb=16, fs="ext4"))


@pytest.mark.parametrize("fs", ["vxfs", "ext4"])
def test_round_trip(node, vol, fs):
    if fs == "vxfs":
        vol.vxfs()
    r = vol.run("--active")
    assert r.returncode == 0, r.stdout + r.stderr
    assert vol.status() == "Success."
    assert [(m[0], m[2]) for m in vol.mounts()] == [(vol.dev, "ext4")]
    msgs = node.messages()
    if fs == "vxfs":
        # Checked on the raw device, mounted from the block device.
        assert vol.checks() == [f"-t vxfs -y {vol.raw}"]
        assert f'(exec "{node.home / "mount_vxfs"}" -t vxfs "{vol.dev}" "{vol.point}" 2>&1)' in msgs
    else:
        assert f'(exec "/sbin/fsck" -t ext4 -y "{vol.dev}" 2>&1)' in msgs
        assert any(m.endswith("clean file system. (ret=0)") for m in msgs)

    r = vol.run("--deactive")
    assert r.returncode == 0, r.stdout + r.stderr
    assert vol.status() == "Success."
    assert vol.mounts() == []
    # The volume manager owns the access mode: no switch either way.
    assert "<<< roset >>>" not in node.messages()
    ro = subprocess.run(["blockdev", "--getro", vol.dev], capture_output=True, text=True, check=True)
    assert ro.stdout.strip() == "0"


def _relative(vol):
    vol.point = "mnt/vol1"
    vol.set(mount__point=vol.point)


def _mount_fails(timing):
    return lambda vol: vol.set(mount__path="/bin/false", mount__retry=2, mount__action=1, fsck__timing=timing)


# (name, set-up, checker's exit code, status text, trace line expected,
#  check runs on the raw device, mount commands run, mount-table lines left on the point)
REFUSALS = [
    ("relative point", _relative, 0, "Mount point was invalid. (mnt/vol1)",
     "mntpoint=mnt/vol1 is invalid.", 1, 0, 0),
    # The failing check is reported, not the relative point it never reached.
    ("relative point, check fails", _relative, 8, "Command failed. (fsck_vxfs, ret=8)",
     "fsck_vxfs : failed. (ret=8)", 1, 0, 0),
    # Without one, the recovery check runs once, on the raw device too.
    ("mount fails, recovery check", _mount_fails(0), 0, "Max recover retry over. (mount, retry=2)",
     "mount retry start.(count=2)", 1, 3, 0),
]


@pytest.mark.parametrize("name,setup,check_rc,text,line,checks,mounts_run,left", REFUSALS,
                         ids=[row[0] for row in REFUSALS])
def test_activation_refused(node, vol, name, setup, check_rc, text, line, checks, mounts_run, left):
    vol.vxfs(check_rc)
    setup(vol)
    assert vol.run("--active").returncode == 1
    assert vol.status() == text.format(point=vol.point)
    msgs = node.messages()
    assert line.format(point=vol.point) in msgs
    assert vol.checks() == [f"-t vxfs -y {vol.raw}"] * checks
    assert msgs.count("mount start.") == mounts_run
    assert len(vol.mounts()) == left
    assert "<<< mounts(pre-mount) >>>" in msgs

