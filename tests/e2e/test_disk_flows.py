# Disk resources end to end: zordisk brings a real ext4 or xfs file system on a loop device in and out
# of service in a private namespace; asserted are mount table, read-only flag, exit status, status text and
# key trace lines. Scripts stand in for mount, umount or the checker only for failures the real command
# cannot give on demand.

import os
import struct
import subprocess
import time
from pathlib import Path

import pytest

from conftest import Disk, Namespace, getro, wait_for

FSCK_BANNER = "<<< fsck >>>"
MOUNT_BANNER = "<<< mount >>>"
UMOUNT_BANNER = "<<< umount >>>"


# xfs (ext4's round trips: test_failover_safety.py, and without a check at timing 0: the unit flow matrix).
def test_round_trip_keeps_data_and_device_state(node, ns, loopdev):
    d = Disk(node, ns, loopdev, "xfs")
    for data in ("kept", None):
        # No check at timing 0.
        assert (d.act("--active"), d.mounts(), getro(d.dev), d.said(FSCK_BANNER)) == ((0, "Success."), 1, "0", False)
        if data:
            d.ns.sh(f'echo {data} > "{d.point}/data"', check=True)
        else:  # the device came back read-write with the data on it
            assert d.ns.run(["cat", d.point + "/data"]).stdout == "kept\n"
        assert (d.act("--deactive"), d.mounts(), getro(d.dev)) == ((0, "Success."), 0, "1"), d.new


def _mmp(d):
    # Multi-mount protection at its shortest interval (without checksums, so that a test may write the
    # block), and the sample's recovery check and retries.
    subprocess.run(["mkfs.ext4", "-q", "-F", "-O", "mmp,^metadata_csum", "-E", "mmp_update_interval=1", d.dev],
                   check=True, capture_output=True)
    d.set({"mount/retry": 2, "mount/action": 1, "mount/timeout": 60})


def test_activation_refused_on_an_fsck_mark(disk):
    # The mark of an e2fsck killed while it ran (the block names this server, as mkfs.ext4 wrote it) is
    # certain at a look: refused before anything is touched, the device left as it was. (Refusals that need
    # no real device: the flow matrix of the unit tests.)
    _mmp(disk)
    sb = dict(line.split(":", 1) for line in subprocess.check_output(
        ["dumpe2fs", "-h", disk.dev], text=True, stderr=subprocess.DEVNULL).splitlines() if ":" in line)
    seq = int(sb["MMP block number"]) * int(sb["Block size"]) + 4  # the block's sequence number
    with open(disk.dev, "r+b", buffering=0) as dev:
        os.pwrite(dev.fileno(), struct.pack("<I", 0xE24D4D50), seq)
        os.fsync(dev.fileno())
    assert disk.act("--active") == (1, f"File system was marked in use by fsck. ({disk.dev}, {os.uname().nodename})")
    assert (getro(disk.dev), disk.mounts()) == ("0", 0)


@pytest.mark.parametrize("timing", [0, 1], ids=["mount", "check"])
def test_refused_by_a_holder_on_another_server(disk, loopdev, timing):
    # Another server keeps the file system mounted: the kernel refuses the mount, or e2fsck the check, after
    # one look at the MMP block (11 s here); the activation says so, with the block's node name (the
    # kernel's), and spends no recovery check or retry on it.
    _mmp(disk)
    disk.set({"fsck/timing": timing})
    holder = Namespace()
    try:
        image = Path(f"/sys/block/{Path(disk.dev).name}/loop/backing_file").read_text().strip()
        (point := disk.node.home / "holder").mkdir()
        holder.run(["mount", loopdev.attach(image), str(point)], check=True)
        start = time.monotonic()
        assert disk.act("--active") == (1, f"File system was active on another server. ({disk.dev}, "
                                           f"{os.uname().nodename})")
        assert time.monotonic() - start < 20
        # One check or one mount, nothing after it.
        assert ([m for m in disk.new if m in (FSCK_BANNER, MOUNT_BANNER)], getro(disk.dev), disk.mounts()) == (
            [FSCK_BANNER if timing else MOUNT_BANNER], "1", 0)
    finally:
        holder.close()


def test_busy_point_released_by_kill(disk):
    assert disk.run("--active").returncode == 0
    disk.set({"umount/action": "kill", "umount/retry": 2})
    # A process with its working directory on the mounted point.
    holder = disk.ns.popen(["bash", "-c", f'cd "{disk.point}" && touch .held && exec sleep 300'])
    wait_for(lambda: disk.ns.run(["test", "-e", disk.point + "/.held"]).returncode == 0)
    assert disk.act("--deactive") == (0, "Success.")
    assert (disk.mounts(), getro(disk.dev), holder.wait(timeout=10) is not None) == (0, "1", True)
    assert sum(UMOUNT_BANNER in m for m in disk.new) == 2 and disk.said("break umount retry. (count="), disk.new


def test_unmount_refused_while_another_runs(disk):
    assert disk.run("--active").returncode == 0
    # A process of the namespace whose command line reads exactly "umount <point>" (tee keeps it alive).
    disk.ns.popen(["bash", "-c", f'exec -a umount tee "{disk.point}" < <(exec sleep 60)'])
    wait_for(lambda: disk.ns.run(["pgrep", "-xf", f"umount {disk.point}"]).returncode == 0)
    assert disk.act("--deactive") == (1, f"Umount is running. ({disk.point})")
    assert (disk.mounts(), getro(disk.dev), disk.said(UMOUNT_BANNER)) == (1, "0", False)
