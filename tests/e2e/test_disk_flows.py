"""Disk resources end to end: zordisk activates and deactivates a real ext4 or
xfs file system on a loop device, inside a private namespace.

Each scenario asserts on what the server shows afterwards (the namespace's
mount table, the device's read-only flag), the exit status, the status text
stored for the cluster and a few key trace lines. Scripts stand in for mount,
umount or the checker only where a scenario needs a failure the real command
cannot be made to give on demand.
"""

import re
import subprocess
import time
from pathlib import Path

import pytest

from conftest import require_root

PARAMS = "/root/resource/disk@fs1/parameters"
FSCK_BANNER = "<<< fsck >>>"
# The counter written after a mount (the check's own reset names the device).
COUNTER = re.compile(r"set fsckinterval->(\d+)\.$")


def getro(dev):
    return subprocess.run(["blockdev", "--getro", dev], capture_output=True, text=True,
                          check=True).stdout.strip()


def setrw(dev):
    subprocess.run(["blockdev", "--setrw", dev], check=True)


def mount_count(ns, point):
    table = ns.run(["cat", "/proc/mounts"], check=True).stdout
    return sum(1 for line in table.splitlines() if line.split(" ")[1:2] == [point])


class Disk:
    """The resource disk@fs1 of group grp1, set up on one loop device."""

    def __init__(self, node, ns, dev, fs="ext4"):
        self.node, self.ns, self.dev = node, ns, dev
        self.point = str(node.home / "mnt" / "fs1")
        self.scripts = node.home / "scripts"
        self.scripts.mkdir()
        self.new = []
        self.set(device=dev, fs=fs, **{
            "mount/point": self.point, "mount/timeout": 20, "mount/retry": 0, "mount/action": 0,
            "mount/xfsaction": 0, "umount/timeout": 20, "umount/retry": 1, "umount/action": "none",
            "umount/interval": 0, "fsck/timing": 0, "fsck/timeout": 120, "fsck/xfstimeout": 120,
            "fsck/xfstiming": 0})

    def set(self, **values):
        for key, value in values.items():
            self.node.conf.set(PARAMS + "/" + key, value)
        self.node.write_conf()

    def _run(self, option):
        mark = len(self.node.messages())
        res = self.node.run([option, "-r", "fs1", "-g", "grp1"], ns=self.ns)
        self.new = self.node.messages()[mark:]
        return res

    def act(self):
        return self._run("--active")

    def deact(self):
        return self._run("--deactive")

    def status(self):
        return self.node.status("grp1", "fs1")

    def mounts(self):
        return mount_count(self.ns, self.point)

    def said(self, text):
        return any(text in m for m in self.new)

    def script(self, name, body):
        path = self.scripts / name
        path.write_text("#!/bin/bash\n" + body)
        path.chmod(0o755)
        return str(path)

    def calls(self, name):
        tally = self.scripts / (name + ".calls")
        return int(tally.read_text()) if tally.exists() else 0

    def counted(self, name, then):
        """A wrapper that counts its calls in scripts/NAME.calls, then runs `then`."""
        tally = self.scripts / (name + ".calls")
        return self.script(name, f'n=$(( $(cat "{tally}" 2>/dev/null || echo 0) + 1 ))\n'
                                 f'echo $n > "{tally}"\n{then}\n')

    def flaky_mount(self, fails):
        """A mount that refuses its first `fails` calls, then is the real one."""
        return self.counted("mount", f'if [ $n -le {fails} ]; then echo "refused call $n"; exit 32; fi\n'
                                     'exec /bin/mount "$@"')

    def hold(self):
        """A process with its working directory on the mounted point."""
        proc = self.ns.popen(["bash", "-c", f'cd "{self.point}" && touch .held && exec sleep 300'])
        wait_for(lambda: self.ns.run(["test", "-e", self.point + "/.held"]).returncode == 0)
        return proc


def wait_for(cond, timeout=10):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if cond():
            return
        time.sleep(0.02)
    raise AssertionError("condition not met in time")


@pytest.fixture
def disk(node, ns, loopdev):
    require_root()
    return Disk(node, ns, loopdev(64, "ext4"))


# --- the happy round trip --------------------------------------------------------------

@pytest.mark.parametrize("fs,size", [("ext4", 64), ("xfs", 300)])
def test_round_trip_keeps_data_and_device_state(node, ns, loopdev, fs, size):
    require_root()
    d = Disk(node, ns, loopdev(size, fs), fs)
    # A trailing "/" in the configuration is cut once and for all at activation.
    d.set(**{"mount/point": d.point + "//"})

    res = d.act()
    assert res.returncode == 0, d.new
    assert d.status() == "Success."
    assert d.mounts() == 1
    assert getro(d.dev) == "0"
    assert not d.said(FSCK_BANNER)  # timing 0
    d.ns.sh(f'echo kept > "{d.point}/data"', check=True)

    res = d.deact()
    assert res.returncode == 0, d.new
    assert d.status() == "Success."
    assert d.mounts() == 0
    assert getro(d.dev) == "1"

    # The device comes back read-write with the data on it.
    assert d.act().returncode == 0
    assert d.ns.run(["cat", d.point + "/data"]).stdout == "kept\n"
    assert d.deact().returncode == 0
    assert getro(d.dev) == "1"


# --- activations refused before the mount ----------------------------------------------

def _premounted(d):
    d.ns.sh(f'mkdir -p "{d.point}" && mount -t tmpfs zor-other "{d.point}"', check=True)


def _relative(d):
    d.set(**{"mount/point": "relative/fs1"})


def _parent_is_file(d):
    (d.node.home / "plain").write_text("not a directory\n")
    d.set(**{"mount/point": str(d.node.home / "plain" / "fs1")})


def _no_device(d):
    d.set(device="/dev/zor-no-such-device")


def _lvm_zfs(d):
    d.set(disktype="lvm", fs="zfs")


# (name, preparation, status text or prefix (point as {p}), device read-only after, mounts after)
REFUSALS = [
    ("already_mounted", _premounted, "Mount point was already mounted. ({p})", "0", 1),
    ("relative_point", _relative, "Mount point was invalid. (relative/fs1)", "1", 0),
    ("uncreatable_point", _parent_is_file, "Creating of mount point was failed. ({home}/plain/fs1)", "1", 0),
    # Both switches fail on a missing device; the mount's text must survive the clean-up.
    ("missing_device", _no_device, "Command failed. (mount, ret=", None, 0),
    ("lvm_with_zfs", _lvm_zfs, "Internal error. (status=21)", "0", 0),
]


@pytest.mark.parametrize("name,prepare,text,ro,mounts", REFUSALS, ids=[r[0] for r in REFUSALS])
def test_activation_refused(disk, name, prepare, text, ro, mounts):
    prepare(disk)
    res = disk.act()
    assert res.returncode == 1
    expected = text.format(p=disk.point, home=disk.node.home)
    assert disk.status().startswith(expected), disk.status()
    if ro is not None:
        assert getro(disk.dev) == ro
    assert disk.mounts() == mounts
    assert not (Path.cwd() / "relative").exists()


def test_mount_timeout_releases_the_lock(disk):
    disk.node.conf.set("/root/cluster/exclusion/mount", 1)
    disk.set(**{"mount/path": disk.script("slow-mount", "sleep 30\n"), "mount/timeout": 1})
    start = time.time()
    res = disk.act()
    assert res.returncode == 1
    assert time.time() - start < 10  # the hung command is not waited for
    assert disk.status() == "Command timeout. (mount, timeout=1)"
    assert getro(disk.dev) == "1"
    assert disk.mounts() == 0

    # The next activation under the same lock gets it.
    disk.set(**{"mount/path": "/bin/mount", "mount/timeout": 20})
    res = disk.node.run(["--active", "-r", "fs1", "-g", "grp1"], ns=disk.ns, timeout=15)
    assert res.returncode == 0
    assert disk.mounts() == 1


# --- checks that fail before the mount -------------------------------------------------

def test_corrupted_file_system_is_not_mounted(disk):
    # Wipe the primary superblock; the checker finds errors that "-n" leaves in place.
    subprocess.run(["dd", "if=/dev/zero", "of=" + disk.dev, "bs=1024", "seek=1", "count=1",
                    "conv=notrunc"], check=True, capture_output=True)
    disk.set(**{"fsck/timing": 1, "fsck/option": "-n", "mount/retry": 2, "mount/action": 1})
    res = disk.act()
    assert res.returncode == 1
    assert disk.status() == "Command failed. (fsck, ret=4)"
    assert getro(disk.dev) == "1"
    assert disk.mounts() == 0


# --- a failed mount: recovery check, retries, the kernel's word -----------------------

# (name, fs, mount wrapper fails (or "lie"), retry, action, timing, checker,
#  result, status text, mounted, mount calls, check runs, key trace line ({p}: point))
RECOVERY = [
    ("retry_zero", "ext4", 1, 0, 1, 0, "real",
     1, "Command failed. (mount, ret=32)", 0, 1, 0, "return because of mount retry=0."),
    ("check_then_retry", "ext4", 1, 2, 1, 0, "real",
     0, "Success.", 1, 2, 1, "break mount retry. (count=1)"),
    ("no_check_without_action", "ext4", 2, 2, 0, 0, "real",
     0, "Success.", 1, 3, 0, "break mount retry. (count=2)"),
    ("checked_before_mount_not_again", "ext4", 1, 1, 1, 1, "real",
     0, "Success.", 1, 2, 1, "break mount retry. (count=1)"),
    ("retries_used_up", "ext4", 9, 2, 1, 0, "real",
     9, "Max recover retry over. (mount, retry=2)", 0, 3, 1, "mount max recover retry(2) over."),
    ("recovery_check_fails", "ext4", 1, 2, 1, 0, "exit4",
     4, "Command failed. (zor-fsck, ret=4)", 0, 1, 1, "zor-fsck : failed. (ret=4)"),
    ("failure_reported_but_mounted", "ext4", "lie", 2, 1, 0, "real",
     0, "Success.", 1, 1, 0, "actually, mntpoint={p} mounted."),
    ("xfs_repair_then_retry", "xfs", 1, 1, 1, 0, "real",
     0, "Success.", 1, 2, 1, "break mount retry. (count=1)"),
]


@pytest.mark.parametrize("name,fs,fails,retry,act,timing,checker,result,text,mounted,calls,checks,line",
                         RECOVERY, ids=[r[0] for r in RECOVERY])
def test_mount_recovery(node, ns, loopdev, name, fs, fails, retry, act, timing, checker, result, text,
                        mounted, calls, checks, line):
    require_root()
    d = Disk(node, ns, loopdev(300 if fs == "xfs" else 64, fs), fs)
    if fails == "lie":
        wrapper = d.counted("mount", '/bin/mount "$@" || exit 2\necho "pretending to fail"; exit 1')
    else:
        wrapper = d.flaky_mount(fails)
    d.set(**{"mount/path": wrapper, "mount/retry": retry, "mount/action": act, "mount/xfsaction": act,
             "fsck/timing": timing})
    if checker == "exit4":
        d.set(**{"fsck/path": d.script("zor-fsck", 'echo "errors left"; exit 4\n')})

    res = d.act()
    assert (res.returncode == 0) == (result == 0)
    assert d.status() == text
    assert d.mounts() == mounted
    assert getro(d.dev) == ("0" if mounted else "1")
    assert d.calls("mount") == calls
    assert sum(FSCK_BANNER in m for m in d.new) == checks
    assert d.said(line.format(p=d.point)), d.new


# --- the check timing over several activations, with the registry ----------------------

# (timing, interval, checks run at each activation in turn, counters written, extra line)
TIMINGS = [
    (0, 0, [0, 0, 0], None, None),
    (1, 0, [1, 1, 1], None, None),
    # The first activation registers the device and runs no check.
    (2, 0, [0, 1, 1], [1, 1, 1], "set fsckinterval->0. (device:{dev})"),
    (2, 2, [0, 0, 1, 0, 1], [1, 2, 1, 2, 1], "execute fsck! fsckinterval over 2."),
    (7, 0, [0, 0], None, "fsck timing=7 invalid."),
]


@pytest.mark.parametrize("timing,interval,checks,counters,line", TIMINGS,
                         ids=[f"timing{t[0]}_interval{t[1]}" for t in TIMINGS])
def test_check_timing_over_activations(disk, timing, interval, checks, counters, line):
    disk.set(**{"fsck/timing": timing, "fsck/interval": interval})
    seen_checks, seen_counters, lines = [], [], []
    for _ in checks:
        assert disk.act().returncode == 0, disk.new
        assert disk.mounts() == 1
        lines += disk.new
        seen_checks.append(sum(FSCK_BANNER in m for m in disk.new))
        seen_counters += [int(c) for m in disk.new for c in COUNTER.findall(m)]
        assert disk.deact().returncode == 0
    assert seen_checks == checks
    if counters is not None:
        assert seen_counters == counters
        assert (disk.node.home / "var" / "registry" / "disk" / "fs1" / "fsckinterval").exists()
    else:
        assert seen_counters == []
    if line is not None:
        assert any(line.format(dev=disk.dev) in m for m in lines)


# --- deactivation ----------------------------------------------------------------------

def test_deactivate_not_mounted_leaves_device_alone(disk):
    setrw(disk.dev)
    res = disk.deact()
    assert res.returncode == 0
    assert disk.status() == "Success."
    assert getro(disk.dev) == "0"
    assert disk.said(f"already unmounted. mntpoint={disk.point}")
    assert not disk.said("<<< umount >>>")


def test_deactivate_stacked_mounts(disk):
    assert disk.act().returncode == 0
    disk.ns.run(["mount", "-t", "tmpfs", "zor-over", disk.point], check=True)
    assert disk.mounts() == 2
    res = disk.deact()
    assert res.returncode == 0
    assert disk.mounts() == 0
    assert getro(disk.dev) == "1"
    assert sum("<<< umount >>>" in m for m in disk.new) == 2


# (name, umount action, retry, result, status text, mounts after, read-only after, holder alive, key line)
BUSY = [
    ("kill", "kill", 2, 0, "Success.", 0, "1", False, "break umount retry. (count="),
    ("none", "none", 1, 9, "Max recover retry over. (umount, retry=1)", 1, "0", True,
     "umount max recover retry(1) over."),
    # The release command runs only before a retried unmount, never before the first.
    ("kill_no_retry", "kill", 0, 9, "Max recover retry over. (umount, retry=0)", 1, "0", True,
     "umount max recover retry(0) over."),
    ("unknown_action", "stop", 1, 9, "Max recover retry over. (umount, retry=1)", 1, "0", True,
     "umntact=stop invalid."),
]


@pytest.mark.parametrize("name,action,retry,result,text,mounts,ro,alive,line", BUSY, ids=[b[0] for b in BUSY])
def test_deactivate_busy_point(disk, name, action, retry, result, text, mounts, ro, alive, line):
    assert disk.act().returncode == 0
    holder = disk.hold()
    disk.set(**{"umount/action": action, "umount/retry": retry})
    res = disk.deact()
    assert (res.returncode == 0) == (result == 0)
    assert disk.status() == text
    assert disk.mounts() == mounts
    assert getro(disk.dev) == ro
    if alive:
        assert holder.poll() is None
    else:
        holder.wait(timeout=10)
    assert disk.said(line), disk.new


def test_deactivate_refused_while_another_unmount_runs(disk):
    assert disk.act().returncode == 0
    # A process whose command line reads exactly "umount <point>" (tee keeps it alive).
    other = disk.ns.popen(["bash", "-c", f'exec -a umount tee "{disk.point}" < <(exec sleep 60)'])
    look = f"umount\0{disk.point}\0".encode()

    def running():
        for child in Path(f"/proc/{other.pid}/task/{other.pid}/children").read_text().split():
            try:
                if Path(f"/proc/{child}/cmdline").read_bytes() == look:
                    return True
            except OSError:
                pass
        return False

    wait_for(running)
    res = disk.deact()
    assert res.returncode == 1
    assert disk.status() == f"Umount is running. ({disk.point})"
    assert disk.mounts() == 1
    assert getro(disk.dev) == "0"
    assert not disk.said("<<< umount >>>")


def test_failed_unmount_that_did_unmount_ends_early(disk):
    assert disk.act().returncode == 0
    wrapper = disk.counted("umount", '/bin/umount "$@"\necho "pretending to fail"; exit 1')
    disk.set(**{"umount/path": wrapper, "umount/retry": 3, "umount/action": "kill"})
    res = disk.deact()
    assert res.returncode == 0
    assert disk.status() == "Success."
    assert disk.mounts() == 0
    assert getro(disk.dev) == "1"
    assert disk.calls("umount") == 1
    assert disk.said(f"unmounted, break umount retry. count=1 mntpoint={disk.point}")
