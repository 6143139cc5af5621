# Disk resources end to end: zordisk brings a real ext4 or xfs file system on a loop device in and out
# of service in a private namespace; asserted are mount table, read-only flag, exit status, status text and
# key trace lines. Scripts stand in for mount, umount or the checker only for failures the real command
# cannot give on demand.

import os
import re
import struct
import subprocess
import time
from pathlib import Path

import pytest

from conftest import Disk, LoopDevices, Namespace, getro, wait_for

FSCK_BANNER = "<<< fsck >>>"
MOUNT_BANNER = "<<< mount >>>"
UMOUNT_BANNER = "<<< umount >>>"
# The counter written after a mount (the check's own reset names the device).
COUNTER = re.compile(r"set fsckinterval->(\d+)\.$")


@pytest.mark.parametrize("fs", ["ext4", "xfs"])
def test_round_trip_keeps_data_and_device_state(node, ns, loopdev, fs):
    d = Disk(node, ns, loopdev, fs)
    # A trailing "/" in the configuration is cut once and for all at activation.
    d.set({"mount/point": d.point + "//"})
    for data in ("kept", None):
        # No check at timing 0.
        assert (d.act("--active"), d.mounts(), getro(d.dev), d.said(FSCK_BANNER)) == ((0, "Success."), 1, "0", False)
        if data:
            d.ns.sh(f'echo {data} > "{d.point}/data"', check=True)
        else:  # the device came back read-write with the data on it
            assert d.ns.run(["cat", d.point + "/data"]).stdout == "kept\n"
        assert (d.act("--deactive"), d.mounts(), getro(d.dev)) == ((0, "Success."), 0, "1"), d.new


def _parent_is_file(d):
    (d.node.home / "plain").write_text("not a directory\n")
    d.set({"mount/point": str(d.node.home / "plain" / "fs1")})


def _corrupted(d):
    # Wipe the primary superblock; the checker finds errors that "-n" leaves in place.
    subprocess.run(["dd", "if=/dev/zero", "of=" + d.dev, "bs=1024", "seek=1", "count=1", "conv=notrunc"],
                   check=True, capture_output=True)
    d.set({"fsck/timing": 1, "fsck/option": "-n", "mount/retry": 2, "mount/action": 1})


def _mmp(d):
    # Multi-mount protection at its shortest interval (without checksums, so that a test may write the
    # block), and the sample's recovery check and retries.
    subprocess.run(["mkfs.ext4", "-q", "-F", "-O", "mmp,^metadata_csum", "-E", "mmp_update_interval=1", d.dev],
                   check=True, capture_output=True)
    d.set({"mount/retry": 2, "mount/action": 1, "mount/timeout": 60})


def _fsck_mark(d):
    # The mark of an e2fsck killed while it ran; the block names this server, as mkfs.ext4 wrote it.
    _mmp(d)
    sb = dict(line.split(":", 1) for line in subprocess.check_output(
        ["dumpe2fs", "-h", d.dev], text=True, stderr=subprocess.DEVNULL).splitlines() if ":" in line)
    fd = os.open(d.dev, os.O_WRONLY)
    try:
        os.pwrite(fd, struct.pack("<I", 0xE24D4D50), int(sb["MMP block number"]) * int(sb["Block size"]) + 4)
        os.fsync(fd)
    finally:
        os.close(fd)


# (name, preparation, status text or prefix, device read-only after); nothing is mounted after any.
REFUSALS = [
    ("relative_point", lambda d: d.set({"mount/point": "rel/fs1"}), "Mount point was invalid. (rel/fs1)", "1"),
    ("uncreatable_point", _parent_is_file, "Creating of mount point was failed. ({home}/plain/fs1)", "1"),
    # Both switches fail on a missing device; the mount's text must survive the clean-up.
    ("missing_device", lambda d: d.set({"device": "/dev/zor-no-such-device"}), "Command failed. (mount, ret=",
     None),
    ("lvm_with_zfs", lambda d: d.set({"disktype": "lvm", "fs": "zfs"}), "Internal error. (status=21)", "0"),
    ("failing_check", _corrupted, "Command failed. (/sbin/fsck, ret=4)", "1"),
    # Certain at a look: refused before anything is touched, the device left as it was.
    ("mmp_fsck_mark", _fsck_mark, "File system was marked in use by fsck. ({dev}, {host})", "0"),
]


@pytest.mark.parametrize("name,prepare,text,ro", REFUSALS, ids=[r[0] for r in REFUSALS])
def test_activation_refused(disk, name, prepare, text, ro):
    prepare(disk)
    assert disk.run("--active").returncode == 1
    assert disk.status().startswith(text.format(home=disk.node.home, dev=disk.dev, host=os.uname().nodename)), \
        disk.status()
    assert (getro(disk.dev) if ro else None, disk.mounts(), (Path.cwd() / "rel").exists()) == (ro, 0, False)


@pytest.mark.parametrize("timing", [0, 1], ids=["mount", "check"])
def test_refused_by_a_holder_on_another_server(disk, timing):
    # Another server keeps the file system mounted: the kernel refuses the mount, or e2fsck the check, after
    # one look at the MMP block (11 s here); the activation says so, with the block's node name (the
    # kernel's), and spends no recovery check or retry on it.
    _mmp(disk)
    disk.set({"fsck/timing": timing})
    holder, loops = Namespace(), LoopDevices()
    try:
        image = Path(f"/sys/block/{Path(disk.dev).name}/loop/backing_file").read_text().strip()
        (point := disk.node.home / "holder").mkdir()
        holder.run(["mount", loops.attach(image), str(point)], check=True)
        start = time.monotonic()
        assert disk.act("--active") == (1, f"File system was active on another server. ({disk.dev}, "
                                           f"{os.uname().nodename})")
        assert time.monotonic() - start < 20
        # One check or one mount, nothing after it.
        assert ([m for m in disk.new if m in (FSCK_BANNER, MOUNT_BANNER)], getro(disk.dev), disk.mounts()) == (
            [FSCK_BANNER if timing else MOUNT_BANNER], "1", 0)
    finally:
        holder.close()
        loops.close()


def test_mount_lock_after_a_timeout_and_a_killed_agent(disk):
    # A hung mount command is ended at its time-out and leaves the lock free; the command of an agent
    # killed while it runs holds the lock until it ends, and nothing of the agent is left after that.
    disk.node.conf.set("/root/cluster/exclusion/mount", 1)
    disk.set({"mount/path": disk.script("slow-mount", "sleep 30"), "mount/timeout": 1})
    start = time.time()
    assert disk.act("--active") == (1, "Command timeout. (mount, timeout=1)")
    # The hung command is not waited for.
    assert (time.time() - start < 10, getro(disk.dev), disk.mounts()) == (True, "1", 0)
    marks = disk.scripts
    disk.set({"mount/timeout": 20, "mount/path": disk.script(
        "slow-mount", f'echo $PPID > "{marks}/agent"; sleep 4; touch "{marks}/ended"; exit 1')})
    agent = disk.ns.popen([str(disk.node.home / "bin" / "zordisk"), "--active", "-r", "fs1", "-g", "grp1"],
                          env=disk.node.env())
    wait_for(lambda: (marks / "agent").exists() and (marks / "agent").read_text().strip())
    disk.ns.run(["kill", "-KILL", (marks / "agent").read_text().strip()], check=True)
    agent.wait(timeout=10)

    def second_locker():
        return subprocess.run(["flock", "-n", str(disk.node.home / "run" / "mount.lock"), "true"]).returncode == 0

    assert not second_locker() and not (marks / "ended").exists()
    wait_for(lambda: (marks / "ended").exists())
    wait_for(second_locker, timeout=3)
    # The namespace's init does not reap: the orphans' zombies stay, dead all the same.
    live = [line.split()[1] for line in disk.ns.run(["ps", "-eo", "stat=,comm="]).stdout.splitlines()
            if not line.startswith("Z")]
    assert "zordisk" not in live and "slow-mount" not in live, live
    # The next activation under the lock gets it.
    disk.set({"mount/path": "/bin/mount"})
    assert (disk.run("--active", timeout=15).returncode, disk.mounts()) == (0, 1)


def test_xfs_repair_then_retry(node, ns, loopdev):
    """The first mount is refused; xfs_repair runs for real as the recovery check and the retry mounts.
    The rest of the retry and recovery matrix is a unit table with scripted outcomes."""
    d = Disk(node, ns, loopdev, "xfs")
    body = 'if [ $n -le 1 ]; then echo "refused call $n"; exit 32; fi\nexec /bin/mount "$@"'
    d.set({"mount/path": d.script("mount", body), "mount/retry": 1, "mount/action": 1, "mount/xfsaction": 1})
    assert (d.act("--active"), d.mounts(), getro(d.dev)) == ((0, "Success."), 1, "0"), d.new
    assert (d.calls("mount"), sum(FSCK_BANNER in m for m in d.new), d.said("break mount retry. (count=1)")) == (
        2, 1, True), d.new


# (timing, interval, checks run at each activation in turn, counters written, key trace line). Timings 0
# and 1 show in the round trip and in a failing check; the counting itself is a unit table.
TIMINGS = [
    # The first activation registers the device and runs no check.
    (2, 2, [0, 0, 1, 0, 1], [1, 2, 1, 2, 1], "execute fsck! fsckinterval over 2."),
    (7, 0, [0, 0], [], "fsck timing=7 invalid."),
]


@pytest.mark.parametrize("timing,interval,checks,counters,line", TIMINGS,
                         ids=[f"timing{t[0]}_interval{t[1]}" for t in TIMINGS])
def test_check_timing_over_activations(disk, timing, interval, checks, counters, line):
    disk.set({"fsck/timing": timing, "fsck/interval": interval})
    seen_checks, lines = [], []
    for _ in checks:
        assert (disk.run("--active").returncode, disk.mounts()) == (0, 1), disk.new
        lines += disk.new
        seen_checks.append(sum(FSCK_BANNER in m for m in disk.new))
        assert disk.run("--deactive").returncode == 0
    assert seen_checks == checks
    assert [int(c) for m in lines for c in COUNTER.findall(m)] == counters
    assert (disk.node.home / "var/registry/disk/fs1/fsckinterval").exists() == bool(counters)
    assert any(line in m for m in lines), lines


def test_busy_point_released_by_kill(disk):
    assert disk.run("--active").returncode == 0
    disk.set({"umount/action": "kill", "umount/retry": 2})
    holder = disk.hold()
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
