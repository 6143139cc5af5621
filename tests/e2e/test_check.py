"""The configuration check end to end: `zordisk --test fs1` and `zornas --test
share1` validate the resource in the new configuration file and examine the
server; their report is compared whole with tests/expected/check_*.txt.

Every run happens in a private namespace whose /etc/fstab is a test file
bind-mounted over the real one; devices are loop devices and nodes made with
mknod; the raw binding tool is a script. The running configuration points
fs1 at a device that does not exist, so a clean report also shows that the
check reads the new file, not the running one.
"""

import os
import socket
import stat
import subprocess
import time
from pathlib import Path

import pytest

from conftest import Conf, SOURCE_DIR, require_root

EXPECTED = SOURCE_DIR / "tests" / "expected"
P = "/root/resource/disk@fs1/parameters"
NP = "/root/resource/nas@share1/parameters"
RDRCT = "/root/cluster/check/rdrctpath"
RAWDEV = "/dev/raw/raw1"


class Check:
    def __init__(self, node, ns, loopdev):
        self.node, self.ns, self.home = node, ns, node.home
        self.dev = loopdev(size_mb=8, fs=None)
        rdev = os.stat(self.dev).st_rdev
        self.devmaj, self.devmin = os.major(rdev), os.minor(rdev)
        self.where = self.result = self.home / "log" / "check_result.txt"
        self.newtext = None  # the new file's text when not self.new; False: no file
        self.fstab = self.home / "fstab"
        self.fstab.write_text("# test fstab\nproc /proc proc defaults 0 0\n")
        ns.run(["mount", "--bind", str(self.fstab), "/etc/fstab"], check=True)
        self.running(P + "/device", "/dev/zor-running-missing")
        self.new = Conf(node.conf.xml())
        self.point = self.home / "mnt" / "fs1"
        self.point.mkdir(parents=True)
        (self.home / "mnt" / "share1").mkdir()
        self.set("device", self.dev)
        self.set("mount/point", self.point)
        self.set("mount/point", self.home / "mnt" / "share1", NP)
        self.subst = {"HOME": str(self.home), "DEV": self.dev, "RAW": RAWDEV,
                      "DEVMAJ": str(self.devmaj), "DEVMIN": str(self.devmin)}

    def running(self, path, value=None):
        """Edits the running configuration; no value deletes."""
        self.node.conf.delete(path) if value is None else self.node.conf.set(path, value)
        self.node.write_conf()

    def set(self, key, value, base=P):
        self.new.set(key if key.startswith("/") else base + "/" + key, value)

    def setall(self, values, base=P):
        for key, value in values.items():
            self.set(key, value, base)

    def delete(self, *keys, base=P):
        for key in keys:
            self.new.delete(key if key.startswith("/") else base + "/" + key)

    def raw(self, tool_body, timeout=5):
        """fs1 as disk type raw, queried through a script with this body."""
        tool = self.home / "rawtool"
        tool.write_text("#!/bin/sh\n" + tool_body.replace("RAW", RAWDEV) + "\n")
        tool.chmod(0o755)
        self.setall({"disktype": "raw", "rawdevice": RAWDEV, "raw/path": tool, "raw/timeout": timeout,
                     "bind/timeout": 10, "bind/retry": 0, "unbind/timeout": 10, "unbind/retry": 1,
                     "unbind/action": "none"})

    def vxvm(self, rawnode="char", numbers=None):
        """fs1 as disk type vxvm; its raw device a character node (by default
        with the block device's numbers), a regular file, or absent."""
        raw = self.home / "rvol"
        self.setall({"disktype": "vxvm", "rawdevice": raw})
        if rawnode == "char":
            os.mknod(raw, 0o600 | stat.S_IFCHR, os.makedev(*(numbers or (self.devmaj, self.devmin))))
        elif rawnode == "file":
            raw.write_text("")
        self.subst["RAW"] = str(raw)

    def fstab_line(self, line):
        self.fstab.write_text(self.fstab.read_text() + line.format(**self.subst) + "\n")

    def run(self, rsc="fs1"):
        if self.newtext is not False:
            text = self.new.xml() if self.newtext is None else self.newtext
            (self.home / "etc" / "zor.conf.new").write_text(text)
        return self.node.run(["--test", rsc], prog="zornas" if rsc == "share1" else "zordisk", ns=self.ns)

    def report(self, path=None):
        path = path or self.result
        return path.read_text() if path.exists() else None

    def expected(self, name):
        text = (EXPECTED / name).read_text()
        for key, value in self.subst.items():
            text = text.replace("{" + key + "}", value)
        return text


@pytest.fixture
def chk(node, ns, loopdev):
    require_root()
    c = Check(node, ns, loopdev)
    yield c
    Path(str(c.home) + "-check.txt").unlink(missing_ok=True)


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


def report_to(c, where, rdrct=None):
    """The report goes to the tree's path with `where` appended (None: standard output)."""
    c.running(RDRCT, rdrct)
    c.where = None if where is None else Path(str(c.home) + where)


def default_newconf(c):
    c.running("/root/cluster/check/chkconf")
    default = c.home / "work" / "cfmgr" / "up"
    default.mkdir(parents=True)
    c.set("device", "/dev/null")  # the file at the default path is the one read
    (default / "zor.conf").write_text(c.new.xml())
    c.newtext = False


def newconf_text(text):
    return lambda c: setattr(c, "newtext", text)


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


def bound(major, minor, dev="RAW"):
    """A line of the binding tool's report."""
    return f'echo "{dev}:  bound to major {major}, minor {minor}"'


# (id, resource, setup, expected report, exit status)
CASES = [
    # A clean resource of each kind.
    ("disk", "fs1", lambda c: None, "check_pass.txt", 0),
    ("lvm_any_case", "fs1", lambda c: c.set("disktype", "LVM"), "check_pass.txt", 0),
    ("raw_free", "fs1", lambda c: c.raw(bound(0, 0)), "check_pass.txt", 0),
    ("vxvm", "fs1", lambda c: c.vxvm(), "check_pass.txt", 0),
    ("nas", "share1", lambda c: None, "check_pass_nas.txt", 0),
    ("values_at_bounds", "fs1", lambda c: c.setall(AT_BOUNDS), "check_pass.txt", 0),
    # Optional values absent; a text value is never range-checked.
    ("optional_absent", "fs1", lambda c: (c.delete("/root/cluster/exclusion/mount"),
                                          c.set("umount/action", "anything")), "check_pass.txt", 0),
    ("nas_without_mount_actions", "share1", lambda c: c.delete("mount/action", "mount/xfsaction", base=NP),
     "check_pass_nas.txt", 0),

    # Parameter faults: every fault of the branch is listed, then the device checks are skipped
    # (here the device is missing, which would give an E line).
    ("missing_values", "fs1", lambda c: (c.delete("fs", "fsck/path", "mount/point", "umount/action"),
                                         c.set("fsck/interval", "ten"), c.set("device", "/dev/zor-nodev")),
     "check_missing.txt", 1),
    ("missing_device", "fs1", lambda c: c.delete("device"), "check_missing_device.txt", 1),
    ("beyond_bounds", "fs1", lambda c: c.setall(BEYOND_BOUNDS), "check_beyond_bounds.txt", 1),
    # Common values fail first and stop the check before the branch.
    ("common_values", "fs1", lambda c: (c.setall({"/root/disk/log/level": 33, "/root/disk/log/size": -1}),
                                        c.delete("disktype", "fs")), "check_common.txt", 1),
    ("log_level_0", "fs1", lambda c: c.set("/root/disk/log/level", 0), "check_log_level_0.txt", 1),
    ("nas_disktype_required", "share1", lambda c: c.delete("disktype", base=NP), "check_nas_disktype.txt", 1),
    ("nas_values", "share1", lambda c: (c.setall({"ping/timeout": 1000, "mount/timeout": 0}, NP),
                                        c.delete("svname", "umount/path", base=NP)),
     "check_nas_values.txt", 1),
    ("nas_ping_timeout_999", "share1", lambda c: c.set("ping/timeout", 999, NP), "check_pass_nas.txt", 0),
    ("raw_values", "fs1", lambda c: (c.raw("true", timeout=-1), c.delete("raw/path"), c.setall({
        "bind/timeout": 2147483647, "bind/check/execute": 2, "bind/check/interval": -1,
        "unbind/execute": 1, "unbind/retry": 0, "unbind/timeout": 999})), "check_raw_values.txt", 1),
    ("disktype_illegal", "fs1", lambda c: c.set("disktype", "xyz"), "check_disktype.txt", 1),

    # Device findings.
    ("device_missing", "fs1", lambda c: c.set("device", "/dev/zor-nodev"), "check_dev_missing.txt", 1),
    ("device_not_block", "fs1", lambda c: c.set("device", "/dev/null"), "check_dev_not_block.txt", 1),
    ("lvm_device_missing", "fs1", lambda c: c.setall({"disktype": "lvm", "device": "/dev/zor-nodev"}),
     "check_lvm_missing.txt", 0),
    ("vxvm_both_missing", "fs1", lambda c: (c.vxvm(rawnode=None), c.set("device", "/dev/zor-nodev")),
     "check_vxvm_both_missing.txt", 0),
    ("vxvm_raw_missing", "fs1", lambda c: c.vxvm(rawnode=None), "check_vxvm_raw_missing.txt", 0),
    ("vxvm_raw_not_char", "fs1", lambda c: c.vxvm(rawnode="file"), "check_vxvm_raw_not_char.txt", 1),
    ("vxvm_device_missing", "fs1", lambda c: (c.vxvm(), c.set("device", "/dev/zor-nodev")),
     "check_vxvm_dev_missing.txt", 1),
    ("vxvm_numbers_differ", "fs1", lambda c: c.vxvm(numbers=(1, 3)), "check_vxvm_numbers.txt", 1),

    # /etc/fstab entries: only the first entry of the device counts.
    ("fstab_ignore", "fs1", lambda c: c.fstab_line("{DEV} /x ignore noauto 0 0"),
     "check_fstab_ignore.txt", 1),
    ("fstab_auto", "fs1", lambda c: c.fstab_line("{DEV} /x ext4 defaults 0 0"), "check_fstab_auto.txt", 1),
    ("fstab_both", "fs1", lambda c: c.fstab_line("{DEV} /x ignore ro 0 0"), "check_fstab_both.txt", 1),
    ("fstab_noauto", "fs1", lambda c: (c.fstab_line("{DEV}1 /y ext4 defaults 0 0"),
                                       c.fstab_line("{DEV} /x ext4 ro,noauto 0 0"),
                                       c.fstab_line("{DEV} /z ignore defaults 0 0")), "check_pass.txt", 0),
    ("nas_fstab_noauto", "share1", lambda c: c.fstab_line("10.231.0.1:/srv/share1 /n nfs noauto 0 0"),
     "check_pass_nas.txt", 0),
    ("nas_fstab_auto", "share1", lambda c: c.fstab_line("10.231.0.1:/srv/share1 /n nfs rw 0 0"),
     "check_nas_fstab_auto.txt", 1),

    # Raw bindings, as the binding tool reports them.
    ("raw_bound_here", "fs1", lambda c: c.raw(bound(c.devmaj, c.devmin)), "check_pass.txt", 0),
    ("raw_bound_elsewhere", "fs1", lambda c: c.raw(bound(8, 17)), "check_raw_bound.txt", 1),
    ("raw_first_line_counts", "fs1", lambda c: c.raw(bound(0, 0) + "; " + bound(8, 17)), "check_pass.txt", 0),
    # None of these lines is usable: other device, other name length, numbers not whole or too long.
    ("raw_unusable_output", "fs1", lambda c: c.raw("\n".join([
        "echo garbage", "echo", bound(8, 17, "/dev/raw/raw10"), bound(8, 17, "/dev/raw/raw2"), bound(1234, 5),
        bound(8, 1000), bound("8 ", 17), bound(8, "17x"), bound("", 17),
        'echo "RAW:  bound to minor 17, major 8"'])), "check_pass.txt", 0),
    ("raw_numbers_of_3_digits", "fs1", lambda c: c.raw('printf "RAW:  bound to major 259, minor 999"'),
     "check_raw_bound.txt", 1),
    ("raw_tool_fails", "fs1", lambda c: c.raw("echo oops >&2; exit 3"), "check_pass.txt", 0),
    ("raw_timeout_0", "fs1", lambda c: c.raw(bound(8, 17), timeout=0), "check_pass.txt", 0),
    ("raw_device_missing", "fs1", lambda c: (c.raw("true"), c.set("device", "/dev/zor-nodev")),
     "check_raw_dev_missing.txt", 1),

    # The mount point.
    ("point_not_dir", "fs1", lambda c: (c.point.rmdir(), c.point.write_text("")), "check_point_file.txt", 1),
    ("point_absent", "fs1", lambda c: c.point.rmdir(), "check_pass.txt", 0),
    ("point_parents_symlinks", "fs1", symlinked_parents, "check_point_links.txt", 1),
    # The point is read for this server's name, except for vxvm, which reads the common value.
    ("point_per_server", "fs1", point_per_server, "check_pass.txt", 0),
    ("vxvm_point_common", "fs1", lambda c: point_per_server(c, "vxvm"), "check_point_file.txt", 1),

    # Where the report goes and where the new configuration comes from.
    ("no_installation_path", "fs1", lambda c: (c.running("/root/all/path"), setattr(c, "where", None)),
     "check_no_ipath.txt", 1),
    ("result_file_default", "fs1", lambda c: (report_to(c, "/webmgr/check_result.txt"),
                                              (c.home / "webmgr").mkdir()), "check_pass.txt", 0),
    ("result_path_joined", "fs1", lambda c: report_to(c, "-check.txt", "-check.txt"), "check_pass.txt", 0),
    # Nothing can be written once standard output could not be reopened.
    ("result_file_unopenable", "fs1", lambda c: report_to(c, None, "/nodir/result.txt"), None, 1),
    ("newconf_default_path", "fs1", default_newconf, "check_dev_not_block.txt", 1),
    ("newconf_missing", "fs1", newconf_text(False), "check_no_newconf.txt", 1),
    ("newconf_cut", "fs1", newconf_text("<root><all>"), "check_no_newconf.txt", 1),
]


@pytest.mark.parametrize("case", CASES, ids=[c[0] for c in CASES])
def test_report(chk, case):
    _, rsc, setup, expected, status = case
    setup(chk)
    res = chk.run(rsc)
    got = res.stdout if chk.where is None else chk.report(chk.where)
    assert got == (chk.expected(expected) if expected else ""), res.stderr
    assert res.returncode == status
    if chk.where != chk.result:
        assert chk.report() is None


def test_hung_query_is_stopped_and_passes(chk):
    pidfile = chk.home / "tool.pid"
    chk.raw(f"echo $$ > {pidfile}; exec sleep 60", timeout=1)
    start = time.monotonic()
    res = chk.run()
    assert 0.9 < time.monotonic() - start < 10
    assert (chk.report(), res.returncode) == (chk.expected("check_pass.txt"), 0)
    assert "raw : thread timeout ignore." in chk.node.messages()
    # The tool was ended with its process group, not left behind.
    assert chk.ns.run(["kill", "-0", pidfile.read_text().strip()]).returncode != 0


def test_second_run_appends_a_block(chk):
    chk.run()
    chk.set("device", "/dev/null")
    assert chk.run().returncode == 1
    assert chk.report() == chk.expected("check_pass.txt") + chk.expected("check_dev_not_block.txt")


def test_dactive_and_ddeactive_use_the_new_configuration(chk):
    subprocess.run(["mkfs.ext4", "-q", chk.dev], check=True, capture_output=True)
    # The running point is kept inside the tree: a plain activation must not create one outside.
    chk.running(P + "/mount/point", chk.home / "mnt" / "running")
    chk.setall({"fsck/timing": 0, "mount/retry": 0, "umount/action": "none", "umount/retry": 0})

    def run(option):
        res = chk.node.run([option, "-r", "fs1", "-g", "grp1"], ns=chk.ns)
        mounted = [ln.split()[0] for ln in chk.ns.run(["cat", "/proc/mounts"]).stdout.splitlines()
                   if ln.split()[1] == str(chk.point)]
        return res.returncode, mounted, chk.node.status("grp1", "fs1")

    # Without a new configuration the run ends before its trace log opens, the status text empty.
    assert run("--dactive") == (1, [], "")
    assert chk.node.log() == ""
    (chk.home / "etc" / "zor.conf.new").write_text(chk.new.xml())
    # The running configuration's device does not exist: a plain activation fails.
    assert run("--active")[0:2] == (1, [])
    assert run("--dactive") == (0, [chk.dev], "Success."), chk.node.log()
    assert run("--ddeactive") == (0, [], "Success."), chk.node.log()
