# Failover safety end to end: the mount table is never misread, configuration text never runs as a
# command, and a device mounted elsewhere is neither mounted again nor switched read-only under its mount.
#
# One loop device, one node and one namespace serve a whole table; each case is checked against the
# kernel's mount table (read as data, escapes undone) and the device's read-only flag. Failures are
# collected and reported together with the number of cases tried.

import re
import string
import subprocess

import pytest

from conftest import getro, require_root

PARAMS = "/root/resource/disk@fs1/parameters"
NAS = "/root/resource/nas@share1/parameters"
_OCTAL = re.compile(r"\\([0-3][0-7][0-7])")


def kernel_points(ns):
    """Mount points of the namespace's mount table, unescaped: (point, major:minor) pairs."""
    out = ns.run(["cat", "/proc/self/mountinfo"], check=True).stdout
    return [(_OCTAL.sub(lambda m: chr(int(m.group(1), 8)), f[4]), f[2])
            for f in (line.split(" ") for line in out.splitlines())]


def mounted_at(ns, point):
    return sum(p == point for p, _ in kernel_points(ns))


class Rig:
    """disk@fs1 of grp1 on one loop device; nas@share1 of grp2 mounted by a stand-in (tmpfs)."""

    def __init__(self, node, ns, loopdev):
        require_root()
        self.node, self.ns, self.dev = node, ns, loopdev(64, "ext4")
        # As a deactivated resource's device is.
        subprocess.run(["blockdev", "--setro", self.dev], check=True)
        self.base = node.home / "mnt"
        self.scripts = node.home / "scripts"
        self.scripts.mkdir()
        self.marker = node.home / "pwned"
        self.args = node.home / "args"
        # Records its arguments NUL-separated, then does the real work.
        self.mount = self.script("mount", 'exec /bin/mount "$@"')
        self.disk = {"device": self.dev, "fs": "ext4", "mount/path": self.mount, "mount/point": "",
                     "mount/option": "", "mount/retry": 0, "mount/action": 0, "mount/timeout": 20,
                     "umount/path": "/bin/umount", "umount/option": "", "umount/retry": 0,
                     "umount/action": "none", "umount/interval": 0, "umount/timeout": 20,
                     "fsck/timing": 0, "fsck/option": "-n", "fsck/timeout": 60}
        # The share is mounted as a tmpfs on the last argument, the mount point.
        self.nas = {"svname": "filer1", "share": "/srv/share1", "fs": "fuse.sshfs", "mount/option": "ro",
                    "mount/path": self.script("nasmount", 'exec /bin/mount -t tmpfs zor-nas "${@: -1}"'),
                    "mount/point": "", "mount/retry": 0, "ping/path": "scripts/ping", "ping/timeout": 1,
                    "umount/retry": 0, "umount/interval": 0, "umount/chkprcmnts": 0}
        self.script("ping", "exit 0")

    def script(self, name, body):
        path = self.scripts / name
        path.write_text(f'#!/bin/bash\nprintf "%s\\0" "$@" > "{self.args}.{name}"\n{body}\n')
        path.chmod(0o755)
        return str(path)

    def recorded(self, name):
        path = self.node.home / f"args.{name}"
        return path.read_text().split("\0")[:-1] if path.exists() else None

    def configure(self, params, values):
        for key, value in values.items():
            self.node.conf.set(params + "/" + key, value)
        self.node.write_conf()
        for f in self.node.home.glob("args.*"):
            f.unlink()

    def disk_run(self, option):
        res = self.node.run([option, "-r", "fs1", "-g", "grp1"], ns=self.ns)
        return res.returncode, self.node.status("grp1", "fs1")

    def nas_run(self, option):
        res = self.node.run([option, "-r", "share1", "-g", "grp2"], prog="zornas", ns=self.ns)
        return res.returncode, self.node.status("grp2", "share1", rtype="nas")


@pytest.fixture
def rig(node, ns, loopdev):
    return Rig(node, ns, loopdev)


# Every ASCII punctuation character in the middle and at the end of a name, blanks, and texts that look
# like the kernel's escapes. A trailing blank is written before a "/", which activation cuts.
NAMES = ([f"m{c}x" for c in string.punctuation] + [f"m{c}" for c in string.punctuation] +
         ["m x", "m /", " m", "m  x", "m\tx", "m\t/", "m\\040x", "m\\134", "m\\x", "m\\", "$(m)", "*"])


def test_mount_point_names(rig, capsys):
    failures = []
    for name in NAMES:
        point = f"{rig.base}/{name}"  # as written: a Path would drop the trailing "/"
        where = point.rstrip("/")  # the kernel's view after activation cut the trailing "/"
        rig.configure(PARAMS, dict(rig.disk, **{"mount/point": point}))
        got = [rig.disk_run("--active"), mounted_at(rig.ns, where), getro(rig.dev)]
        got += [rig.disk_run("--deactive"), mounted_at(rig.ns, where), getro(rig.dev)]
        want = [(0, "Success."), 1, "0", (0, "Success."), 0, "1"]
        if got != want:
            failures.append((name, got))
            # Leave nothing mounted for the next name.
            rig.ns.run(["umount", "-l", where])
    with capsys.disabled():
        print(f"\nmount-point names tried: {len(NAMES)}, failures: {len(failures)}")
    assert failures == []


# Twelve ways to smuggle a command; {m} is the marker file that must never appear.
PAYLOADS = ["$(touch {m})", "`touch {m}`", ";touch {m}", "|touch {m}", "&touch {m}", "&&touch {m};",
            '";touch {m};"', "';touch {m};'", "\ntouch {m}", ">{m}", '\\";touch {m};\\"', "$(touch${{IFS}}{m})"]

# The fields spoiled, each with a plain value the payload is appended to (a value of its own, so that the
# configuration's trimming of blanks does not turn a payload into a plain value).
DISK_FIELDS = {"mount/point": None, "device": None, "mount/path": None, "fs": "ext4", "mount/option": "rw",
               "fsck/option": "-n", "umount/option": "-v"}
NAS_FIELDS = {"mount/point": None, "share": "/srv/share1", "svname": "filer1", "fs": "fuse.sshfs",
              "mount/option": "ro"}


def _disk_case(rig, key, payload):
    """Activation then deactivation of the disk with one spoiled value; returns what went wrong."""
    point = str(rig.base / "fs1")
    base = dict(rig.disk, **{"mount/point": point, "fsck/timing": 1 if key == "fsck/option" else 0})
    base[key] = DISK_FIELDS[key] or base[key]
    value = str(base[key]) + payload if key != "mount/point" else point + payload
    rig.configure(PARAMS, dict(base, **{key: value}))
    where = value if key == "mount/point" else point
    errors = []
    rc, text = rig.disk_run("--active")
    args = rig.recorded("mount")
    if key in ("fs", "mount/option", "fsck/option"):
        if (rc, text, args, getro(rig.dev)) != (1, f"Parameter was invalid. ({key})", None, "1"):
            errors.append(("active", rc, text, args))
    elif key == "device":
        if rc != 1 or args is None or args[2] != value or mounted_at(rig.ns, point):
            errors.append(("active", rc, text, args))
    elif key == "mount/path":
        if rc != 1 or not text.startswith("Command failed. (mount, ret=127)"):
            errors.append(("active", rc, text))
    elif (rc, text, mounted_at(rig.ns, where)) != (0, "Success.", 1) or args[-1] != where:
        errors.append(("active", rc, text, args))
    rc, text = rig.disk_run("--deactive")
    if key == "umount/option":
        if (rc, text, mounted_at(rig.ns, where)) != (1, "Parameter was invalid. (umount/option)", 1):
            errors.append(("deactive", rc, text))
        rig.configure(PARAMS, dict(base))
        rig.disk_run("--deactive")
    elif (rc, text, mounted_at(rig.ns, where)) != (0, "Success.", 0):
        errors.append(("deactive", rc, text))
    return errors


def _nas_case(rig, key, payload):
    point = str(rig.base / "share1")
    base = dict(rig.nas, **{"mount/point": point})
    base[key] = NAS_FIELDS[key] or base[key]
    value = str(base[key]) + payload if key != "mount/point" else point + payload
    rig.configure(NAS, dict(base, **{key: value}))
    where = value if key == "mount/point" else point
    errors = []
    rc, text = rig.nas_run("--active")
    args = rig.recorded("nasmount")
    if key in ("svname", "fs", "mount/option"):
        if (rc, text, args, rig.recorded("ping")) != (1, f"Parameter was invalid. ({key})", None, None):
            errors.append(("active", rc, text, args))
    else:
        want_arg = f"filer1:{value}" if key == "share" else where
        if (rc, text, mounted_at(rig.ns, where)) != (0, "Success.", 1) or want_arg not in args:
            errors.append(("active", rc, text, args))
    rc, text = rig.nas_run("--deactive")
    if key == "svname":
        ok = (rc, text) == (1, "Parameter was invalid. (svname)")
    elif key in ("fs", "mount/option"):
        ok = (rc, text) == (1, f"Mount point was not mounted. ({point})")
    else:
        ok = (rc, text, mounted_at(rig.ns, where)) == (0, "Success.", 0)
    if not ok:
        errors.append(("deactive", rc, text))
    return errors


def test_configuration_values_never_run(rig, capsys):
    failures, runs = [], 0
    for payload in (p.format(m=rig.marker) for p in PAYLOADS):
        for key in DISK_FIELDS:
            failures += [("disk", key, payload, e) for e in _disk_case(rig, key, payload)]
            runs += 2
        for key in NAS_FIELDS:
            failures += [("nas", key, payload, e) for e in _nas_case(rig, key, payload)]
            runs += 2
        if rig.marker.exists():
            failures.append(("executed", payload))
            rig.marker.unlink()
    with capsys.disabled():
        print(f"\npayload runs: {runs}, failures: {len(failures)}")
    assert failures == []


def test_device_mounted_elsewhere(rig):
    point, other = f"{rig.base}/fs1", f"{rig.base}/other"
    rig.configure(PARAMS, dict(rig.disk, **{"mount/point": point}))
    rig.ns.run(["mkdir", "-p", other], check=True)
    # Another mount of the same device (as the peer's failed-over copy would be): activation refuses
    # before the device is touched.
    subprocess.run(["blockdev", "--setrw", rig.dev], check=True)
    rig.ns.run(["mount", rig.dev, other], check=True)
    subprocess.run(["blockdev", "--setro", rig.dev], check=True)
    assert rig.disk_run("--active") == (1, f"Device was already mounted. ({rig.dev})")
    assert (mounted_at(rig.ns, point), mounted_at(rig.ns, other), getro(rig.dev)) == (0, 1, "1")
    assert f"device={rig.dev} already mounted on {other}." in rig.node.messages()
    # Mounted here and elsewhere: the deactivation unmounts its point but leaves the device writable.
    rig.ns.run(["umount", other], check=True)
    assert rig.disk_run("--active") == (0, "Success.")
    rig.ns.run(["mount", rig.dev, other], check=True)
    assert rig.disk_run("--deactive") == (0, "Success.")
    assert (mounted_at(rig.ns, point), mounted_at(rig.ns, other), getro(rig.dev)) == (0, 1, "0")
    assert f"device={rig.dev} still mounted on {other}. skip roset." in rig.node.messages()
    rig.ns.run(["touch", other + "/still-writable"], check=True)


# A retry count beyond what the check accepts is refused before anything runs; 0 and -1 mean no retry.
@pytest.mark.parametrize("key,value,option,result", [
    ("mount/retry", 1000, "--active", (1, "Parameter was invalid. (mount/retry)")),
    ("mount/retry", 999, "--active", (0, "Success.")),
    ("umount/retry", 1000, "--deactive", (1, "Parameter was invalid. (umount/retry)")),
    ("umount/retry", -1, "--deactive", (0, "Success.")),
])
def test_retry_beyond_any_wait_refused(rig, key, value, option, result):
    point = f"{rig.base}/fs1"
    rig.configure(PARAMS, dict(rig.disk, **{"mount/point": point}))
    if option == "--deactive":
        assert rig.disk_run("--active") == (0, "Success.")
    rig.configure(PARAMS, {key: value})
    assert rig.disk_run(option) == result
    # Mounted afterwards when the activation did its work or the deactivation did not.
    mounted = (option == "--active") == (result[0] == 0)
    assert (mounted_at(rig.ns, point), getro(rig.dev)) == (int(mounted), "0" if mounted else "1")


def test_undecided_probe_never_reports_success(rig):
    # A point whose escaped form cannot fit the probe's command line: the probe cannot tell.
    point = f"{rig.base}/a{' ' * 250}b"
    rig.configure(PARAMS, dict(rig.disk, **{"mount/point": point}))
    assert rig.disk_run("--active") == (0, "Success.")
    assert rig.disk_run("--deactive") == (1, f"Check of mount status has failed. ({point})"[:127])
    assert (mounted_at(rig.ns, point), getro(rig.dev)) == (1, "0")
    assert f"failed to mountsinfo({point})." in rig.node.messages()
