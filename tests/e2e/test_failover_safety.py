# Failover safety end to end: the mount table is never misread, configuration text never runs as a
# command, and a device mounted elsewhere is neither mounted again nor switched read-only under its mount.
#
# One loop device, one node and one namespace serve a whole table; each case is checked against the
# kernel's mount table (read as data, escapes undone) and the device's read-only flag. Failures are
# collected and reported together with the number of cases tried.

import string
import subprocess

import pytest

from conftest import Disk, Resource, getro, wait_for
from test_monitor import SPELLINGS, round_trips, spellings


@pytest.fixture
def rig(node, ns, loopdev):
    """disk@fs1 on one loop device, read-only as a deactivated resource's device is, and nas@share1 mounted
    by a stand-in (a tmpfs named as the share, on the last argument); each with the plain values of the
    fields the cases spoil. The mount commands record their arguments."""
    disk, nas = Disk(node, ns, loopdev), Resource(node, ns, "nas")
    subprocess.run(["blockdev", "--setro", disk.dev], check=True)
    disk.plain = {"mount/point": disk.point, "device": disk.dev, "fs": "ext4", "mount/option": "rw",
                  "fsck/option": "-n", "umount/option": "-v",
                  "mount/path": disk.script("mount", 'exec /bin/mount "$@"')}
    disk.set(dict(disk.plain, **{"umount/path": "/bin/umount", "umount/retry": 0}))
    nas.plain = {"mount/point": nas.point, "share": "/srv/share1", "svname": "filer1", "fs": "fuse.sshfs",
                 "mount/option": "ro"}
    stand_in = nas.script("nasmount", 'exec /bin/mount -t tmpfs "${@: -2:1}" "${@: -1}"')
    nas.set(dict(nas.plain, **{"mount/path": stand_in, "ping/path": "scripts/ping", "ping/timeout": 1,
                               "mount/retry": 0, "umount/retry": 0, "umount/interval": 0, "umount/chkprcmnts": 0}))
    nas.script("ping", "exit 0")
    return disk, nas


# Every ASCII punctuation character in the middle and at the end of a name (one name for both), blanks,
# and texts that look like the kernel's escapes. A trailing blank is written before a "/", which
# activation cuts.
NAMES = ([f"m{c}x{c}" for c in string.punctuation] +
         ["m x", "m /", " m", "m  x", "m\tx", "m\t/", "m\\040x", "m\\134", "m\\x", "m\\", "$(m)", "*"])


def test_mount_point_names(rig):
    disk, _ = rig
    mnt = disk.node.home / "mnt"
    # As written (a Path would drop the trailing "/"), and as the kernel shows it after activation cut it.
    failures = round_trips(disk, {name: (f"{mnt}/{name}", f"{mnt}/{name}".rstrip("/")) for name in NAMES})
    # The resource's own point however spelt, by both disk types that mount a device.
    for settings in ({}, {"disktype": "lvm", "mount/option": ""}):
        disk.set(settings)
        failures += [(settings, *f) for f in round_trips(disk, spellings(disk))]
    assert failures == [], f"{len(failures)} of {len(NAMES) + 2 * len(SPELLINGS)} mount points failed"


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
    for record in [*res.scripts.glob("*.calls"), *res.scripts.glob("*.args")]:  # the last case's calls
        record.unlink()
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


# What is not the resource's own is never unmounted or released, a point the system lives on is refused by
# every action, and a device mounted elsewhere (as the peer's failed-over copy would be), or lazily unmounted
# and still in use, is not mounted again. (case, resource, point ({p}: the resource's own, {h}: the node),
# preparation ({d} the device, {e} a directory elsewhere), option, status text): the mount
# table stays as it was, a process working in what stands on the point lives on, no mount or release command
# runs and the device stays read-only.
FOREIGN, ELSEWHERE = 'mkdir -p "{p}" && mount -t tmpfs zor-other "{p}"', 'mkdir -p "{e}" && mount {d} "{e}"'
REFUSED = [
    # Under another name: the kernel shows the name it was given, the device number tells.
    ("device mounted elsewhere", "disk", "{p}", 'ln -s {d} "{h}/alias" && mkdir -p "{e}" && mount --no-canonicalize '
     '"{h}/alias" "{e}"', "--active", "Device was already mounted. ({d})"),
    ("device lazily unmounted", "disk", "{p}", ELSEWHERE + ' && cd "{e}" && (sleep 600 >/dev/null 2>&1 &) && '
     'cd / && umount -l "{e}"', "--active", "Device was in use. ({d})"),
    ("tmpfs on the point", "disk", "{p}", FOREIGN, "--deactive",
     "Mount point was mounted from another device. ({p}, zor-other)"),
    ("tmpfs on the share's point", "nas", "{p}", FOREIGN, "--deactive",
     "Mount point was mounted from another share. ({p}, zor-other)"),
    ("/proc spelt", "disk", "//proc/./", "", "--deactive", "Mount point was a system directory. (//proc/./)"),
    ("a link to /run", "disk", "{h}/run-link/", 'ln -s /run "{h}/run-link"', "--active",
     "Mount point was a system directory. ({h}/run-link/)"),
    ("/tmp of a share", "nas", "/tmp", "", "--active", "Mount point was a system directory. (/tmp)"),
]


@pytest.mark.parametrize("name,rtype,point,prepare,option,text", REFUSED, ids=[r[0] for r in REFUSED])
def test_never_what_is_not_the_resources(rig, name, rtype, point, prepare, option, text):
    disk, nas = rig
    res = disk if rtype == "disk" else nas
    fmt = {"p": res.point, "h": res.node.home, "d": disk.dev, "e": f"{res.node.home}/elsewhere"}
    point = point.format(**fmt)
    res.set({"mount/point": point, "umount/action": "kill", "umount/retry": 1, "relpath/path": "scripts/relpath"})
    res.script("relpath", "exit 0")
    res.ns.sh(prepare.format(**fmt), check=True)

    # Id, parent, device, root and point of each (a file system's own options may change). Not the network
    # namespaces' files: the copies made with our namespace go when another test deletes its own.
    def mounts():
        return [f for f in (line.split()[:5] for line in res.ns.run(["cat", "/proc/self/mountinfo"]).stdout
                            .splitlines()) if not f[4].startswith("/run/netns/")]

    before = mounts()
    user = res.ns.popen(["bash", "-c", f'cd "{point}" 2>/dev/null; exec sleep 300'])
    wait_for(lambda: res.ns.run(["pgrep", "-x", "sleep"]).returncode == 0)
    assert res.act(option) == (1, text.format(**fmt)), res.new
    assert (mounts(), user.poll(), getro(disk.dev)) == (before, None, "1")
    assert (res.calls("relpath"), res.calls("mount" if rtype == "disk" else "nasmount")) == (0, 0), res.new


def test_the_device_checked_is_the_device_mounted(rig, loopdev):
    disk, _ = rig
    other = loopdev(16, "ext4")
    link = disk.node.home / "dev-link"
    link.symlink_to(disk.dev)
    # Between the checks and the mount, the read-write switch turns the device's link to another disk.
    disk.script("roset", f'ln -sfn {other} "{link}"; exec "{disk.node.home}/bin/zorroset" "$@"')
    disk.set({"device": link, "roset/path": "scripts/roset"})
    assert disk.act("--active") == (0, "Success.")
    assert ([m.split()[0] for m in disk.ns.mounts(disk.point)], getro(disk.dev), disk.args("roset")[-1]) == (
        [disk.dev], "0", disk.dev)
    disk.set({"device": disk.dev})
    assert (disk.act("--deactive"), disk.mounts(), getro(disk.dev)) == ((0, "Success."), 0, "1")
    # A mount that puts another disk on the point than it was given is undone.
    disk.set({"device": disk.dev, "mount/path": disk.script("mount", f'exec /bin/mount "{other}" "${{@: -1}}"')})
    assert disk.act("--active") == (1, f"Mount point was mounted from another device. ({disk.point}, {other})")
    assert (disk.mounts(), getro(disk.dev)) == (0, "1")
