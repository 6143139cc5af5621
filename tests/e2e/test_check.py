"""The configuration check end to end: `zordisk --test fs1` and `zornas --test
share1` validate the resource in the new configuration file and examine the
server, and their report is compared whole with tests/expected/check_*.txt.

Every run happens in a private namespace whose /etc/fstab is a test file
bind-mounted over the real one; devices are loop devices and nodes made with
mknod; the raw binding tool is a script. The running configuration points
fs1 at a device that does not exist, so a clean report also shows that the
check reads the new file, not the running one.

--dactive and --ddeactive are exercised at the end: they act on the new
configuration's values.
"""

import os
import socket
import stat
import time
from pathlib import Path

import pytest

from conftest import Conf, SOURCE_DIR, require_root

EXPECTED = SOURCE_DIR / "tests" / "expected"
P = "/root/resource/disk@fs1/parameters"
NP = "/root/resource/nas@share1/parameters"
RUNNING_DEV = "/dev/zor-running-missing"
RAWDEV = "/dev/raw/raw1"


class Check:
    def __init__(self, node, ns, loopdev):
        self.node, self.ns = node, ns
        self.home = node.home
        self.dev = loopdev(size_mb=8, fs=None)
        rdev = os.stat(self.dev).st_rdev
        self.devmaj, self.devmin = os.major(rdev), os.minor(rdev)
        self.result = self.home / "log" / "check_result.txt"
        self.fstab = self.home / "fstab"
        self.fstab.write_text("# test fstab\nproc /proc proc defaults 0 0\n")
        ns.run(["mount", "--bind", str(self.fstab), "/etc/fstab"], check=True)

        node.conf.set(P + "/device", RUNNING_DEV)
        node.write_conf()
        self.new = Conf(node.conf.xml())
        self.point = self.home / "mnt" / "fs1"
        self.point.mkdir(parents=True)
        (self.home / "mnt" / "share1").mkdir()
        self.new.set(P + "/device", self.dev)
        self.new.set(P + "/mount/point", self.point)
        self.new.set(NP + "/mount/point", self.home / "mnt" / "share1")
        self.subst = {"HOME": str(self.home), "DEV": self.dev, "RAW": RAWDEV,
                      "DEVMAJ": str(self.devmaj), "DEVMIN": str(self.devmin)}

    def set(self, key, value, base=P):
        self.new.set(key if key.startswith("/") else base + "/" + key, value)

    def delete(self, key, base=P):
        self.new.delete(key if key.startswith("/") else base + "/" + key)

    def raw(self, tool_body, timeout=5):
        """fs1 as disk type raw, queried through a script with this body."""
        tool = self.home / "rawtool"
        tool.write_text("#!/bin/sh\n" + tool_body + "\n")
        tool.chmod(0o755)
        self.set("disktype", "raw")
        for key, value in {"rawdevice": RAWDEV, "raw/path": tool, "raw/timeout": timeout,
                           "bind/timeout": 10, "bind/retry": 0, "unbind/timeout": 10,
                           "unbind/retry": 1, "unbind/action": "none"}.items():
            self.set(key, value)

    def vxvm(self, rawnode="char", numbers=None):
        """fs1 as disk type vxvm; its raw device a character node (by default
        with the block device's numbers), a regular file, or absent."""
        raw = self.home / "rvol"
        self.set("disktype", "vxvm")
        self.set("rawdevice", raw)
        if rawnode == "char":
            maj, mnr = numbers or (self.devmaj, self.devmin)
            os.mknod(raw, 0o600 | stat.S_IFCHR, os.makedev(maj, mnr))
        elif rawnode == "file":
            raw.write_text("")
        self.subst["RAW"] = str(raw)

    def run(self, rsc="fs1", prog="zordisk"):
        (self.home / "etc" / "zor.conf.new").write_text(self.new.xml())
        return self.node.run(["--test", rsc], prog=prog, ns=self.ns)

    def report(self, path=None):
        path = path or self.result
        return path.read_text() if path.exists() else None

    def expected(self, name, **extra):
        text = (EXPECTED / name).read_text()
        for key, value in {**self.subst, **extra}.items():
            text = text.replace("{" + key + "}", value)
        return text


@pytest.fixture
def chk(node, ns, loopdev):
    require_root()
    return Check(node, ns, loopdev)


def fstab_line(c, line):
    c.fstab.write_text(c.fstab.read_text() + line.format(**c.subst) + "\n")


def symlinked_parents(c):
    # HOME/l1 -> HOME/r1 and HOME/r1/l2 -> HOME/r2: the point HOME/l1/l2/fs1 has two links above it.
    (c.home / "r1").mkdir()
    (c.home / "r2" / "fs1").mkdir(parents=True)
    (c.home / "l1").symlink_to(c.home / "r1")
    (c.home / "r1" / "l2").symlink_to(c.home / "r2")
    c.set("mount/point", c.home / "l1" / "l2" / "fs1")


def point_per_server(c, disktype="disk"):
    # The common point is a file; this server's own value names a directory.
    c.set("disktype", disktype)
    if disktype == "vxvm":
        c.vxvm()
    c.point.rmdir()
    c.point.write_text("")
    (c.home / "mine").mkdir()
    c.set("mount/server@{0}/point".format(socket.gethostname().split(".")[0]), c.home / "mine")


def point_is_link(c):
    (c.home / "target").mkdir()
    (c.home / "linked").symlink_to(c.home / "target")
    c.set("mount/point", c.home / "linked")


def setall(c, values, base=P):
    for key, value in values.items():
        c.set(key, value, base)


def deleteall(c, keys, base=P):
    for key in keys:
        c.delete(key, base)


def nas(c, **values):
    setall(c, values, NP)


AT_BOUNDS = {"/root/disk/log/level": 32, "/root/disk/log/size": 0, "fsck/rebuildopt": 1,
             "fsck/fixopt": 0, "fsck/timeout": 1, "fsck/timing": 2, "fsck/interval": 999,
             "fsck/xfstimeout": 9999, "fsck/xfstiming": 0, "fsck/xfsinterval": 0,
             "mount/timeout": 999, "mount/retry": 0, "/root/cluster/exclusion/mount": 0,
             "mount/action": 0, "mount/xfsaction": 1, "umount/timeout": 1, "umount/retry": 999,
             "relpath/timeout": 2147483647, "roset/timeout": 0}
BEYOND_BOUNDS = {"fsck/rebuildopt": 2, "fsck/timeout": 10000, "fsck/timing": -1,
                 "fsck/xfsinterval": 1000, "mount/timeout": 0, "mount/retry": 1000,
                 "/root/cluster/exclusion/mount": 2, "mount/xfsaction": -1, "umount/timeout": 1000,
                 "umount/retry": -1, "relpath/timeout": -1, "roset/timeout": -2147483648}

# (id, resource, setup, expected report, exit status)
CASES = [
    # A clean resource of each kind.
    ("disk", "fs1", lambda c: None, "check_pass.txt", 0),
    ("lvm_any_case", "fs1", lambda c: c.set("disktype", "LVM"), "check_pass.txt", 0),
    ("raw_free", "fs1", lambda c: c.raw('echo "{0}:  bound to major 0, minor 0"'.format(RAWDEV)),
     "check_pass.txt", 0),
    ("vxvm", "fs1", lambda c: c.vxvm(), "check_pass.txt", 0),
    ("nas", "share1", lambda c: None, "check_pass_nas.txt", 0),
    ("values_at_bounds", "fs1", lambda c: setall(c, AT_BOUNDS), "check_pass.txt", 0),
    ("log_level_1", "fs1", lambda c: c.set("/root/disk/log/level", 1), "check_pass.txt", 0),
    # Optional values absent; a text value is never range-checked.
    ("optional_absent", "fs1", lambda c: (c.delete("/root/cluster/exclusion/mount"),
                                          c.set("umount/action", "anything")), "check_pass.txt", 0),
    ("nas_without_mount_actions", "share1",
     lambda c: deleteall(c, ["mount/action", "mount/xfsaction"], NP), "check_pass_nas.txt", 0),

    # Parameter faults: every fault of the branch is listed, then the device checks are skipped
    # (here the device is missing, which would give an E line).
    ("missing_values", "fs1", lambda c: (deleteall(c, ["fs", "fsck/path", "mount/point", "umount/action"]),
                                         c.set("fsck/interval", "ten"), c.set("device", "/dev/zor-nodev")),
     "check_missing.txt", 1),
    ("missing_device", "fs1", lambda c: c.delete("device"), "check_missing_device.txt", 1),
    ("beyond_bounds", "fs1", lambda c: setall(c, BEYOND_BOUNDS), "check_beyond_bounds.txt", 1),
    # Common values fail first and stop the check before the branch.
    ("common_values", "fs1", lambda c: (c.set("/root/disk/log/level", 33), c.set("/root/disk/log/size", -1),
                                        c.delete("disktype"), c.delete("fs")), "check_common.txt", 1),
    ("log_level_0", "fs1", lambda c: c.set("/root/disk/log/level", 0), "check_log_level_0.txt", 1),
    ("nas_disktype_required", "share1", lambda c: c.delete("disktype", NP), "check_nas_disktype.txt", 1),
    ("nas_values", "share1", lambda c: (nas(c, **{"ping/timeout": 1000, "mount/timeout": 0}),
                                        deleteall(c, ["svname", "umount/path"], NP)),
     "check_nas_values.txt", 1),
    ("nas_ping_timeout_999", "share1", lambda c: nas(c, **{"ping/timeout": 999}), "check_pass_nas.txt", 0),
    ("raw_values", "fs1", lambda c: (c.raw("true", timeout=-1), setall(c, {
        "bind/timeout": 2147483647, "bind/check/execute": 2, "bind/check/interval": -1,
        "unbind/execute": 1, "unbind/retry": 0, "unbind/timeout": 999}), c.delete("raw/path")),
     "check_raw_values.txt", 1),
    ("disktype_illegal", "fs1", lambda c: c.set("disktype", "xyz"), "check_disktype.txt", 1),

    # Device findings.
    ("device_missing", "fs1", lambda c: c.set("device", "/dev/zor-nodev"), "check_dev_missing.txt", 1),
    ("device_not_block", "fs1", lambda c: c.set("device", "/dev/null"), "check_dev_not_block.txt", 1),
    ("lvm_device_missing", "fs1", lambda c: (c.set("disktype", "lvm"), c.set("device", "/dev/zor-nodev")),
     "check_lvm_missing.txt", 0),
    ("vxvm_both_missing", "fs1", lambda c: (c.vxvm(rawnode=None), c.set("device", "/dev/zor-nodev")),
     "check_vxvm_both_missing.txt", 0),
    ("vxvm_raw_missing", "fs1", lambda c: c.vxvm(rawnode=None), "check_vxvm_raw_missing.txt", 0),
    ("vxvm_raw_not_char", "fs1", lambda c: c.vxvm(rawnode="file"), "check_vxvm_raw_not_char.txt", 1),
    ("vxvm_device_missing", "fs1", lambda c: (c.vxvm(), c.set("device", "/dev/zor-nodev")),
     "check_vxvm_dev_missing.txt", 1),
    ("vxvm_numbers_differ", "fs1", lambda c: c.vxvm(numbers=(1, 3)), "check_vxvm_numbers.txt", 1),

    # /etc/fstab entries: only the first entry of the device counts.
    ("fstab_ignore", "fs1", lambda c: fstab_line(c, "{DEV} /x ignore noauto 0 0"),
     "check_fstab_ignore.txt", 1),
    ("fstab_auto", "fs1", lambda c: fstab_line(c, "{DEV} /x ext4 defaults 0 0"), "check_fstab_auto.txt", 1),
    ("fstab_both", "fs1", lambda c: fstab_line(c, "{DEV} /x ignore ro 0 0"), "check_fstab_both.txt", 1),
    ("fstab_noauto", "fs1", lambda c: (fstab_line(c, "{DEV}1 /y ext4 defaults 0 0"),
                                       fstab_line(c, "{DEV} /x ext4 ro,noauto 0 0"),
                                       fstab_line(c, "{DEV} /z ignore defaults 0 0")), "check_pass.txt", 0),
    ("nas_fstab_noauto", "share1", lambda c: fstab_line(c, "10.231.0.1:/srv/share1 /n nfs noauto 0 0"),
     "check_pass_nas.txt", 0),
    ("nas_fstab_auto", "share1", lambda c: fstab_line(c, "10.231.0.1:/srv/share1 /n nfs rw 0 0"),
     "check_nas_fstab_auto.txt", 1),

    # Raw bindings, as the binding tool reports them.
    ("raw_bound_here", "fs1", lambda c: c.raw('echo "{0}:  bound to major {1}, minor {2}"'.format(
        RAWDEV, c.devmaj, c.devmin)), "check_pass.txt", 0),
    ("raw_bound_elsewhere", "fs1", lambda c: c.raw('echo "{0}:  bound to major 8, minor 17"'.format(RAWDEV)),
     "check_raw_bound.txt", 1),
    ("raw_first_line_counts", "fs1", lambda c: c.raw(
        'echo "{0}:  bound to major 0, minor 0"; echo "{0}:  bound to major 8, minor 17"'.format(RAWDEV)),
     "check_pass.txt", 0),
    # None of these lines is usable: other device, other name length, numbers not whole or too long.
    ("raw_unusable_output", "fs1", lambda c: c.raw("\n".join([
        "echo garbage", "echo", 'echo "/dev/raw/raw10:  bound to major 8, minor 17"',
        'echo "/dev/raw/raw2:  bound to major 8, minor 17"',
        'echo "{0}:  bound to major 1234, minor 5"'.format(RAWDEV),
        'echo "{0}:  bound to major 8, minor 1000"'.format(RAWDEV),
        'echo "{0}:  bound to major 8 , minor 17"'.format(RAWDEV),
        'echo "{0}:  bound to major 8, minor 17x"'.format(RAWDEV),
        'echo "{0}:  bound to major , minor 17"'.format(RAWDEV),
        'echo "{0}:  bound to minor 17, major 8"'.format(RAWDEV)])), "check_pass.txt", 0),
    ("raw_numbers_of_3_digits", "fs1", lambda c: c.raw(
        'printf "{0}:  bound to major 259, minor 999"'.format(RAWDEV)), "check_raw_bound.txt", 1),
    ("raw_tool_fails", "fs1", lambda c: c.raw("echo oops >&2; exit 3"), "check_pass.txt", 0),
    ("raw_tool_missing", "fs1", lambda c: (c.raw("true"), c.set("raw/path", "/nonexistent/raw")),
     "check_pass.txt", 0),
    ("raw_timeout_0", "fs1", lambda c: c.raw('echo "{0}:  bound to major 8, minor 17"'.format(RAWDEV),
                                             timeout=0), "check_pass.txt", 0),
    ("raw_device_missing", "fs1", lambda c: (c.raw("true"), c.set("device", "/dev/zor-nodev")),
     "check_raw_dev_missing.txt", 1),

    # The mount point.
    ("point_not_dir", "fs1", lambda c: (c.point.rmdir(), c.point.write_text("")), "check_point_file.txt", 1),
    ("point_absent", "fs1", lambda c: c.point.rmdir(), "check_pass.txt", 0),
    ("point_parents_symlinks", "fs1", symlinked_parents, "check_point_links.txt", 1),
    ("point_itself_link", "fs1", point_is_link, "check_pass.txt", 0),
    # The point is read for this server's name, except for vxvm, which reads the common value.
    ("point_per_server", "fs1", point_per_server, "check_pass.txt", 0),
    ("vxvm_point_common", "fs1", lambda c: point_per_server(c, "vxvm"), "check_point_file.txt", 1),
]


@pytest.mark.parametrize("case", CASES, ids=[c[0] for c in CASES])
def test_report(chk, case):
    _, rsc, setup, expected, status = case
    setup(chk)
    res = chk.run(rsc, prog="zornas" if rsc == "share1" else "zordisk")
    assert chk.report() == chk.expected(expected), res.stderr
    assert res.returncode == status


def test_hung_query_is_stopped_and_passes(chk):
    pidfile = chk.home / "tool.pid"
    chk.raw('echo $$ > {0}; exec sleep 60'.format(pidfile), timeout=1)
    start = time.monotonic()
    res = chk.run()
    elapsed = time.monotonic() - start
    assert chk.report() == chk.expected("check_pass.txt")
    assert res.returncode == 0
    assert 0.9 < elapsed < 10
    assert "raw : thread timeout ignore." in chk.node.messages()
    # The tool was ended with its process group, not left behind.
    pid = pidfile.read_text().strip()
    assert chk.ns.run(["kill", "-0", pid]).returncode != 0


def test_second_run_appends_a_block(chk):
    chk.run()
    chk.set("device", "/dev/null")
    res = chk.run()
    assert res.returncode == 1
    assert chk.report() == chk.expected("check_pass.txt") + chk.expected("check_dev_not_block.txt")


# The run itself: where the report goes and where the new configuration comes from.

def test_no_installation_path(chk):
    chk.node.conf.delete("/root/all/path")
    chk.node.write_conf()
    res = chk.run()
    assert res.returncode == 1
    assert res.stdout == chk.expected("check_no_ipath.txt")
    assert chk.report() is None


def test_result_file_cannot_be_opened(chk):
    chk.node.conf.set("/root/cluster/check/rdrctpath", "/nodir/result.txt")
    chk.node.write_conf()
    res = chk.run()
    assert res.returncode == 1
    # Nothing can be written once standard output could not be reopened.
    assert res.stdout == ""
    assert "freopen({0}/nodir/result.txt) failed.".format(chk.home) in chk.node.messages()


def test_result_file_default(chk):
    chk.node.conf.delete("/root/cluster/check/rdrctpath")
    chk.node.write_conf()
    (chk.home / "webmgr").mkdir()
    assert chk.run().returncode == 0
    assert chk.report(chk.home / "webmgr" / "check_result.txt") == chk.expected("check_pass.txt")


def test_result_path_joined_without_separator(chk):
    chk.node.conf.set("/root/cluster/check/rdrctpath", "-check.txt")
    chk.node.write_conf()
    joined = Path(str(chk.home) + "-check.txt")
    try:
        assert chk.run().returncode == 0
        assert chk.report(joined) == chk.expected("check_pass.txt")
    finally:
        joined.unlink(missing_ok=True)


def test_new_configuration_default_path(chk):
    chk.node.conf.delete("/root/cluster/check/chkconf")
    chk.node.write_conf()
    default = chk.home / "work" / "cfmgr" / "up"
    default.mkdir(parents=True)
    chk.set("device", "/dev/null")  # the file at the default path is the one read
    (default / "zor.conf").write_text(chk.new.xml())
    res = chk.node.run(["--test", "fs1"], ns=chk.ns)
    assert res.returncode == 1
    assert chk.report() == chk.expected("check_dev_not_block.txt")


@pytest.mark.parametrize("content", [None, "<root><all>", "not xml at all"], ids=["missing", "cut", "text"])
def test_new_configuration_unusable(chk, content):
    if content is not None:
        (chk.home / "etc" / "zor.conf.new").write_text(content)
    res = chk.node.run(["--test", "fs1"], ns=chk.ns)
    assert res.returncode == 1
    assert chk.report() == chk.expected("check_no_newconf.txt")


# --dactive and --ddeactive act on the new configuration.

def mounted_source(ns, point):
    for line in ns.run(["cat", "/proc/mounts"], check=True).stdout.splitlines():
        fields = line.split(" ")
        if fields[1] == str(point):
            return fields[0]
    return None


def test_dactive_and_ddeactive_use_the_new_configuration(node, ns, loopdev):
    require_root()
    dev = loopdev(size_mb=32, fs="ext4")
    point = node.home / "mnt" / "fs1"
    node.conf.set(P + "/device", RUNNING_DEV)
    node.conf.set(P + "/mount/point", node.home / "mnt" / "running")
    node.write_conf()
    new = Conf(node.conf.xml())
    for key, value in {"device": dev, "mount/point": point, "fsck/timing": 0, "mount/retry": 0,
                       "umount/action": "none", "umount/retry": 0}.items():
        new.set(P + "/" + key, value)
    (node.home / "etc" / "zor.conf.new").write_text(new.xml())

    # The running configuration's device does not exist: a plain activation fails.
    assert node.run(["--active", "-r", "fs1", "-g", "grp1"], ns=ns).returncode == 1

    res = node.run(["--dactive", "-r", "fs1", "-g", "grp1"], ns=ns)
    assert res.returncode == 0, node.log()
    assert mounted_source(ns, point) == dev
    assert node.status("grp1", "fs1") == "Success."

    res = node.run(["--ddeactive", "-r", "fs1", "-g", "grp1"], ns=ns)
    assert res.returncode == 0, node.log()
    assert mounted_source(ns, point) is None


def test_dactive_without_new_configuration(node, ns, loopdev):
    require_root()
    dev = loopdev(size_mb=32, fs="ext4")
    node.conf.set(P + "/device", dev)
    node.conf.set(P + "/mount/point", node.home / "mnt" / "fs1")
    node.write_conf()
    res = node.run(["--dactive", "-r", "fs1", "-g", "grp1"], ns=ns)
    assert res.returncode == 1
    assert mounted_source(ns, node.home / "mnt" / "fs1") is None
    # The run ends before its trace log is opened, with the status text left empty.
    assert node.status("grp1", "fs1") == ""
    assert node.log() == ""
