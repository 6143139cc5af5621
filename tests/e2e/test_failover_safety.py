# Failover safety end to end: the mount table is never misread, configuration text never runs as a
# command, and a device mounted elsewhere is neither mounted again nor switched read-only under its mount.
#
# One loop device, one node and one namespace serve a whole table; each case is checked against the
# kernel's mount table (read as data, escapes undone) and the device's read-only flag. Failures are
# collected and reported together with the number of cases tried.

import string
import subprocess

import pytest

from conftest import Disk, Resource, getro


@pytest.fixture
def rig(node, ns, loopdev):
    """disk@fs1 on one loop device, read-only as a deactivated resource's device is, and nas@share1 mounted
    by a stand-in (a tmpfs on the last argument); each with the plain values of the fields the cases spoil.
    The mount commands record their arguments."""
    disk, nas = Disk(node, ns, loopdev), Resource(node, ns, "nas")
    subprocess.run(["blockdev", "--setro", disk.dev], check=True)
    disk.plain = {"mount/point": disk.point, "device": disk.dev, "fs": "ext4", "mount/option": "rw",
                  "fsck/option": "-n", "umount/option": "-v",
                  "mount/path": disk.script("mount", 'exec /bin/mount "$@"')}
    disk.set(dict(disk.plain, **{"umount/path": "/bin/umount", "umount/retry": 0}))
    nas.plain = {"mount/point": nas.point, "share": "/srv/share1", "svname": "filer1", "fs": "fuse.sshfs",
                 "mount/option": "ro"}
    stand_in = nas.script("nasmount", 'exec /bin/mount -t tmpfs zor-nas "${@: -1}"')
    nas.set(dict(nas.plain, **{"mount/path": stand_in, "ping/path": "scripts/ping", "ping/timeout": 1,
                               "mount/retry": 0, "umount/retry": 0, "umount/interval": 0, "umount/chkprcmnts": 0}))
    nas.script("ping", "exit 0")
    return disk, nas


# Every ASCII punctuation character in the middle and at the end of a name, blanks, and texts that look
# like the kernel's escapes. A trailing blank is written before a "/", which activation cuts.
NAMES = ([f"m{c}x" for c in string.punctuation] + [f"m{c}" for c in string.punctuation] +
         ["m x", "m /", " m", "m  x", "m\tx", "m\t/", "m\\040x", "m\\134", "m\\x", "m\\", "$(m)", "*"])


def test_mount_point_names(rig):
    disk, _ = rig
    failures = []
    for name in NAMES:
        point = f"{disk.node.home}/mnt/{name}"  # as written: a Path would drop the trailing "/"
        where = point.rstrip("/")  # the kernel's view after activation cut the trailing "/"
        disk.set({"mount/point": point})
        got = [disk.act("--active"), len(disk.ns.mounts(where)), getro(disk.dev)]
        got += [disk.act("--deactive"), len(disk.ns.mounts(where)), getro(disk.dev)]
        if got != [(0, "Success."), 1, "0", (0, "Success."), 0, "1"]:
            failures.append((name, got))
            disk.ns.run(["umount", "-l", where])  # leave nothing mounted for the next name
    assert failures == [], f"{len(failures)} of {len(NAMES)} mount-point names failed"


# Twelve ways to smuggle a command; {m} is the marker file that must never appear.
PAYLOADS = ["$(touch {m})", "`touch {m}`", ";touch {m}", "|touch {m}", "&touch {m}", "&&touch {m};",
            '";touch {m};"', "';touch {m};'", "\ntouch {m}", ">{m}", '\\";touch {m};\\"', "$(touch${{IFS}}{m})"]

# The fields spoiled, the payload appended to a plain value (a value of its own, so that the configuration's
# trimming of blanks does not turn a payload into a plain value): (resource, field, status text or its start
# after the activation ("Success.": mounted); what the mount command got as one argument ({v}: the spoiled
# value, {p}: the point; None: it did not run); status text after the deactivation ({p}: the point)).
FIELDS = [
    ("disk", "mount/point", "Success.", "{v}", "Success."),
    ("disk", "device", "Command failed. (mount, ret=", "{v}", "Success."),
    ("disk", "mount/path", "Command failed. (mount, ret=127)", None, "Success."),
    ("disk", "fs", "Parameter was invalid. (fs)", None, "Success."),
    ("disk", "mount/option", "Parameter was invalid. (mount/option)", None, "Success."),
    ("disk", "fsck/option", "Parameter was invalid. (fsck/option)", None, "Success."),
    ("disk", "umount/option", "Success.", "{p}", "Parameter was invalid. (umount/option)"),
    ("nas", "mount/point", "Success.", "{v}", "Success."),
    ("nas", "share", "Success.", "filer1:{v}", "Success."),
    ("nas", "svname", "Parameter was invalid. (svname)", None, "Parameter was invalid. (svname)"),
    ("nas", "fs", "Parameter was invalid. (fs)", None, "Mount point was not mounted. ({p})"),
    ("nas", "mount/option", "Parameter was invalid. (mount/option)", None, "Mount point was not mounted. ({p})"),
]


def _case(res, disk, key, payload, active, arg, deactive):
    """An activation then a deactivation with one spoiled value; returns what went wrong."""
    values = dict(res.plain, **({"fsck/timing": int(key == "fsck/option")} if res is disk else {}))
    value = values[key] = res.plain[key] + payload
    res.forget()
    res.set(values)
    where = value if key == "mount/point" else res.point
    errors = []
    for option, want in (("--active", active), ("--deactive", deactive)):
        want = want.format(p=res.point)
        rc, text = res.act(option)
        mounted = active == "Success." and (option == "--active" or deactive != "Success.")
        # The device is read-write exactly while the disk is mounted.
        if (rc, text[:len(want)], len(res.ns.mounts(where)), getro(disk.dev)) != (
                int(want != "Success."), want, int(mounted), "0" if mounted and res is disk else "1"):
            errors.append((option, rc, text))
    args = res.args("mount" if res is disk else "nasmount")
    if (args is None) != (arg is None) or arg and arg.format(v=value, p=res.point) not in args:
        errors.append(("mount arguments", args))
    if active.startswith("Parameter was invalid.") and res.calls("ping"):
        errors.append(("pinged",))
    if mounted:  # left by a refused deactivation: taken down with the plain values
        res.set(res.plain)
        res.run("--deactive")
    return errors


def test_configuration_values_never_run(rig):
    disk, nas = rig
    failures = []
    for payload in (p.format(m=disk.node.home / "pwned") for p in PAYLOADS):
        for rtype, key, *want in FIELDS:
            errors = _case(disk if rtype == "disk" else nas, disk, key, payload, *want)
            failures += [(rtype, key, payload, e) for e in errors]
        if (disk.node.home / "pwned").exists():
            failures.append(("executed", payload))
            (disk.node.home / "pwned").unlink()
    assert failures == [], f"{len(failures)} failures in {len(PAYLOADS) * len(FIELDS)} payload cases"


def test_device_mounted_elsewhere(rig):
    disk, _ = rig
    other = f"{disk.node.home}/mnt/other"
    disk.ns.run(["mkdir", "-p", other], check=True)
    # Another mount of the same device (as the peer's failed-over copy would be): activation refuses
    # before the device is touched.
    subprocess.run(["blockdev", "--setrw", disk.dev], check=True)
    disk.ns.run(["mount", disk.dev, other], check=True)
    subprocess.run(["blockdev", "--setro", disk.dev], check=True)
    assert (disk.act("--active"), disk.mounts(), len(disk.ns.mounts(other)), getro(disk.dev)) == (
        (1, f"Device was already mounted. ({disk.dev})"), 0, 1, "1")
    assert disk.said(f"device={disk.dev} already mounted on {other}."), disk.new
    # Mounted here and elsewhere: the deactivation unmounts its point but leaves the device writable.
    disk.ns.run(["umount", other], check=True)
    assert disk.act("--active") == (0, "Success.")
    disk.ns.run(["mount", disk.dev, other], check=True)
    assert (disk.act("--deactive"), disk.mounts(), len(disk.ns.mounts(other)), getro(disk.dev)) == (
        (0, "Success."), 0, 1, "0")
    assert disk.said(f"device={disk.dev} still mounted on {other}. skip roset."), disk.new
    disk.ns.run(["touch", other + "/still-writable"], check=True)


# A retry count beyond what the check accepts is refused before anything runs; 0 and -1 mean no retry.
@pytest.mark.parametrize("key,value,option,result", [
    ("mount/retry", 1000, "--active", (1, "Parameter was invalid. (mount/retry)")),
    ("mount/retry", 999, "--active", (0, "Success.")),
    ("umount/retry", 1000, "--deactive", (1, "Parameter was invalid. (umount/retry)")),
    ("umount/retry", -1, "--deactive", (0, "Success.")),
])
def test_retry_beyond_any_wait_refused(rig, key, value, option, result):
    disk, _ = rig
    if option == "--deactive":
        assert disk.act("--active") == (0, "Success.")
    disk.set({key: value})
    assert disk.act(option) == result
    # Mounted afterwards when the activation did its work or the deactivation did not.
    mounted = (option == "--active") == (result[0] == 0)
    assert (disk.mounts(), getro(disk.dev)) == (int(mounted), "0" if mounted else "1")
