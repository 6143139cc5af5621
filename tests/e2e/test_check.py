# The configuration check end to end: `zordisk --test fs1` and `zornas --test share1` validate
# the resource in the new configuration file and examine the server; the report is compared whole
# with tests/expected/check_*.txt. Runs happen in a private namespace with a test /etc/fstab bound
# over the real one; devices are loop devices and mknod nodes, the raw binding tool a script. The
# running configuration names a missing device, so a clean report also shows the new file is read.

import os
import socket
import stat
import subprocess
import time
from pathlib import Path

import pytest

from conftest import Conf, SOURCE_DIR, Resource, script

EXPECTED = SOURCE_DIR / "tests" / "expected"
P = "/root/resource/disk@fs1/parameters"
NP = "/root/resource/nas@share1/parameters"
RAWDEV = "/dev/raw/raw1"
NODEV = "/dev/zor-nodev"
FSID = "0bad1dea-1234-4321-8000-00000000cafe"
NASFS = "10.231.0.1:/srv/share1 /n nfs "
EXCL = "/root/cluster/exclusion/mount"


class Check:
    def __init__(self, node, ns, loopdev):
        self.node, self.ns, self.home = node, ns, node.home
        self.dev = loopdev(size_mb=8, fs=None)
        self.devmaj, self.devmin = os.major(os.stat(self.dev).st_rdev), os.minor(os.stat(self.dev).st_rdev)
        self.where = self.result = self.home / "log" / "check_result.txt"
        self.newconf = True  # whether the new configuration file is written
        self.fstab = self.home / "fstab"
        self.fstab.write_text("# test fstab\nproc /proc proc defaults 0 0\n")
        ns.run(["mount", "--bind", str(self.fstab), "/etc/fstab"], check=True)
        node.edit(P + "/device", "/dev/zor-running-missing")
        self.new = Conf(node.conf.xml())
        self.point = self.home / "mnt" / "fs1"
        self.point.mkdir(parents=True)
        (self.home / "mnt" / "share1").mkdir()
        self.set({"device": self.dev, "mount/point": self.point})
        self.set("mount/point", self.home / "mnt" / "share1", NP)
        self.subst = dict(HOME=self.home, DEV=self.dev, RAW=RAWDEV, DEVMAJ=self.devmaj, DEVMIN=self.devmin)

    def set(self, key, value=None, base=P):
        """Edits the new configuration: one key, or a dict of them; a value None deletes."""
        for k, v in key.items() if isinstance(key, dict) else [(key, value)]:
            path = k if k.startswith("/") else base + "/" + k
            self.new.delete(path) if v is None else self.new.set(path, v)

    def raw(self, tool_body, timeout=5):
        """fs1 as disk type raw, queried through a script with this body."""
        tool = script(self.home, "rawtool", tool_body)
        self.set({"disktype": "raw", "rawdevice": RAWDEV, "raw/path": tool, "raw/timeout": timeout,
                  "bind/timeout": 10, "bind/retry": 0, "unbind/timeout": 10, "unbind/retry": 1,
                  "unbind/action": "none"})

    def vxvm(self, rawnode="char", numbers=None):
        """fs1 as disk type vxvm; its raw device a char node (the block device's numbers), file or absent."""
        raw = self.subst["RAW"] = self.home / "rvol"
        self.set({"disktype": "vxvm", "rawdevice": raw})
        if rawnode == "char":
            os.mknod(raw, 0o600 | stat.S_IFCHR, os.makedev(*(numbers or (self.devmaj, self.devmin))))
        elif rawnode == "file":
            raw.write_text("")

    def mkfs(self, *opts):
        subprocess.run(["mkfs.ext4", "-q", *opts, self.dev], check=True, capture_output=True)

    def fstab_line(self, line):
        self.fstab.write_text(self.fstab.read_text() + line.format(**self.subst) + "\n")

    def run(self, rsc="fs1"):
        if self.newconf:
            (self.home / "etc" / "zor.conf.new").write_text(self.new.xml())
        return self.node.run(["--test", rsc], prog="zornas" if rsc == "share1" else "zordisk", ns=self.ns)

    def expected(self, names):
        text = "".join((EXPECTED / f"check_{name}.txt").read_text() for name in names.split())
        for key, value in self.subst.items():
            text = text.replace("{" + key + "}", str(value))
        return text


@pytest.fixture
def chk(node, ns, loopdev):
    yield Check(node, ns, loopdev)
    Path(str(node.home) + "-check.txt").unlink(missing_ok=True)


def symlinked_parents(c):
    # HOME/l1 -> HOME/r1 and HOME/r1/l2 -> HOME/r2: the point HOME/l1/l2/fs1 has two links above it.
    (c.home / "r2" / "fs1").mkdir(parents=True)
    (c.home / "r1").mkdir()
    for link, target in (("l1", "r1"), ("r1/l2", "r2")):
        (c.home / link).symlink_to(c.home / target)
    c.set("mount/point", c.home / "l1" / "l2" / "fs1")


def point_per_server(c, disktype="disk"):
    # The common point is a file; this server's own value names a directory.
    c.vxvm() if disktype == "vxvm" else c.set("disktype", disktype)
    c.point.rmdir()
    c.point.write_text("")
    (c.home / "mine").mkdir()
    c.set(f"mount/server@{socket.gethostname().split('.')[0]}/point", c.home / "mine")


def report_to(c, where, rdrct=None):
    """The report goes to the tree's path with `where` appended (None: standard output)."""
    c.node.edit("/root/cluster/check/rdrctpath", rdrct)
    c.where = None if where is None else Path(str(c.home) + where)


def default_newconf(c):
    c.node.edit("/root/cluster/check/chkconf")
    (default := c.home / "work" / "cfmgr" / "up").mkdir(parents=True)
    c.set("device", "/dev/null")  # the file at the default path is the one read
    (default / "zor.conf").write_text(c.new.xml())
    c.newconf = False


AT_BOUNDS = {"/root/disk/log/level": 32, "/root/disk/log/size": 0, "fsck/rebuildopt": 1, "fsck/fixopt": 0,
             "fsck/timeout": 1, "fsck/timing": 2, "fsck/interval": 999, "fsck/xfstimeout": 9999,
             "fsck/xfstiming": 0, "fsck/xfsinterval": 0, "mount/timeout": 999, "mount/retry": 0, EXCL: 0,
             "mount/action": 0, "mount/xfsaction": 1, "umount/timeout": 1, "umount/retry": 999,
             "relpath/timeout": 2147483647, "roset/timeout": 0}
BEYOND_BOUNDS = {"fsck/rebuildopt": 2, "fsck/timeout": 10000, "fsck/timing": -1, "fsck/xfsinterval": 1000,
                 "mount/timeout": 0, "mount/retry": 1000, EXCL: 2, "mount/xfsaction": -1,
                 "umount/timeout": 1000, "umount/retry": -1, "relpath/timeout": -1,
                 "roset/timeout": -2147483648}


def bound(major, minor):
    """A line of the binding tool's report."""
    return f'echo "{RAWDEV}:  bound to major {major}, minor {minor}"'


# (id, setup, expected report: tests/expected/check_<name>.txt joined, exit status); ids nas* check share1.
# One row per report line and branch: a row that only repeats a line of another is left out.
CASES = [
    # A clean resource of each kind; values at their bounds; optional values absent, a text value never
    # range-checked; a point yet to be made; only the first /etc/fstab entry of the device counts.
    ("lvm_any_case_at_bounds", lambda c: c.set(dict(AT_BOUNDS, disktype="LVM")), "pass", 0),
    ("optional_absent", lambda c: (c.set({EXCL: None, "umount/action": "x"}), c.point.rmdir(), c.fstab_line(
        "{DEV}1 /y ext4 defaults 0 0\n{DEV} /x ext4 ro,noauto 0 0\n{DEV} /z ignore defaults 0 0")), "pass", 0),
    ("vxvm", lambda c: c.vxvm(), "pass", 0),
    ("nas_at_bounds", lambda c: (c.set({"ping/timeout": 999, "mount/action": None, "mount/xfsaction": None},
                                       base=NP), c.fstab_line(NASFS + "noauto 0 0")), "pass_nas", 0),
    # Parameter faults: every fault of the branch is listed, then the device checks are skipped
    # (here the device is missing, which would give an E line).
    ("missing_values", lambda c: c.set({"fs": None, "fsck/path": None, "mount/point": None,
                                        "umount/action": None, "fsck/interval": "ten", "device": NODEV}),
     "missing", 1),
    ("beyond_bounds", lambda c: c.set(dict(BEYOND_BOUNDS, device=None)), "beyond_bounds", 1),
    # Common values fail first and stop the check before the branch.
    ("common_values", lambda c: c.set({"/root/disk/log/level": 33, "/root/disk/log/size": -1,
                                       "disktype": None, "fs": None}), "common", 1),
    ("nas_values", lambda c: c.set({"umount/path": None, "ping/timeout": 1000, "mount/timeout": 0,
                                    "svname": "a`x`", "fs": "nfs", "mount/option": "ro>x",
                                    "share": "/srv/$(x)"}, base=NP), "nas_values", 1),
    ("raw_values", lambda c: (c.raw("true", timeout=-1), c.set({
        "raw/path": None, "rawdevice": RAWDEV + "&", "bind/timeout": 2147483647, "bind/check/execute": 2,
        "bind/check/interval": -1, "unbind/execute": 1, "unbind/retry": 0, "unbind/timeout": 999})),
     "raw_values", 1),
    ("disktype_illegal", lambda c: c.set("disktype", "xyz"), "disktype", 1),
    # Values a command line takes unquoted hold no character the shell would interpret; a list of
    # options may hold blanks, a single word (file system type, mount options, server) may not.
    ("shell_characters", lambda c: c.set({"fs": "ext4;x", "fsck/option": "-y $(x)", "fsck/xfsoption": "-n -v",
                                          "mount/option": "ro noatime", "umount/option": "-l|x"}),
     "shell_chars", 1),
    # Device findings (a device that is no block device: newconf_default_path and second_run).
    ("device_missing", lambda c: c.set("device", NODEV), "dev_missing", 1),
    ("lvm_device_missing", lambda c: c.set({"disktype": "lvm", "device": NODEV}), "lvm_missing", 0),
    ("vxvm_both_missing", lambda c: (c.vxvm(None), c.set("device", NODEV)), "vxvm_both_missing", 0),
    ("vxvm_raw_not_char", lambda c: c.vxvm("file"), "vxvm_raw_not_char", 1),
    ("vxvm_device_missing", lambda c: (c.vxvm(), c.set("device", NODEV)), "vxvm_dev_missing", 1),
    ("vxvm_numbers_differ", lambda c: c.vxvm(numbers=(1, 3)), "vxvm_numbers", 1),
    # An ext file system's multi-mount protection (one without it: fsid_same), and a mount time limit that would
    # cut a takeover short.
    ("mmp_on", lambda c: c.mkfs("-O", "mmp", "-E", "mmp_update_interval=1"), "mmp_on", 0),
    ("mmp_timeout_short", lambda c: (c.mkfs("-O", "mmp"), c.set("mount/timeout", 51)), "mmp_short", 1),
    # The file system's identity: a label (or UUID) of another is refused.
    ("fsid_other", lambda c: (c.mkfs("-L", "data"), c.set("label", "other")), "fsid_other", 1),
    ("fsid_same", lambda c: (c.mkfs("-L", "data", "-U", FSID), c.set({"label": "data", "uuid": FSID.upper()})),
     "mmp_off", 0),
    # /etc/fstab entries.
    ("fstab_both", lambda c: c.fstab_line("{DEV} /x ignore ro 0 0"), "fstab_both", 1),
    ("nas_fstab_auto", lambda c: c.fstab_line(NASFS + "rw 0 0"), "nas_fstab_auto", 1),
    # Raw bindings, as the binding tool reports them (which lines it believes is a unit table).
    ("raw_bound_here", lambda c: c.raw(bound(c.devmaj, c.devmin)), "pass", 0),
    ("raw_bound_elsewhere", lambda c: c.raw(bound(8, 17)), "raw_bound", 1),
    ("raw_free_first_line_counts", lambda c: c.raw(bound(0, 0) + "; " + bound(8, 17)), "pass", 0),
    ("raw_tool_fails", lambda c: c.raw("echo oops >&2; exit 3"), "pass", 0),
    ("raw_timeout_0", lambda c: c.raw(bound(8, 17), timeout=0), "pass", 0),
    ("raw_device_missing", lambda c: (c.raw("true"), c.set("device", NODEV)), "raw_dev_missing", 1),
    # The mount point.
    ("point_not_dir", lambda c: (c.point.rmdir(), c.point.write_text("")), "point_file", 1),
    ("point_of_the_system", lambda c: c.set("mount/point", "/proc//"), "point_system", 1),
    ("point_parents_symlinks", symlinked_parents, "point_links", 1),
    # The point is read for this server's name, except for vxvm, which reads the common value.
    ("point_per_server", point_per_server, "pass", 0),
    ("vxvm_point_common", lambda c: point_per_server(c, "vxvm"), "point_file", 1),
    # Where the report goes and where the new configuration comes from.
    ("no_ipath", lambda c: (c.node.edit("/root/all/path"), setattr(c, "where", None)), "no_ipath", 1),
    ("result_file_default", lambda c: (report_to(c, "/webmgr/check_result.txt"), (c.home / "webmgr").mkdir()),
     "pass", 0),
    ("result_path_joined", lambda c: report_to(c, "-check.txt", "-check.txt"), "pass", 0),
    # Nothing can be written once standard output could not be reopened.
    ("result_file_unopenable", lambda c: report_to(c, None, "/nodir/result.txt"), None, 1),
    ("newconf_default_path", default_newconf, "dev_not_block", 1),
    ("newconf_missing", lambda c: setattr(c, "newconf", False), "no_newconf", 1),
    # A second run appends its block to the report.
    ("second_run", lambda c: (c.run(), c.set("device", "/dev/null")), "pass dev_not_block", 1),
]


@pytest.mark.parametrize("case", CASES, ids=[c[0] for c in CASES])
def test_report(chk, case):
    name, setup, expected, status = case
    setup(chk)
    res = chk.run("share1" if name.startswith("nas") else "fs1")
    got = res.stdout if chk.where is None else chk.where.read_text()
    assert (got, res.returncode) == (chk.expected(expected) if expected else "", status), res.stderr
    assert chk.where == chk.result or not chk.result.exists()


def test_hung_query_is_stopped_and_passes(chk):
    chk.raw(f"echo $$ > {(pidfile := chk.home / 'tool.pid')}; exec sleep 60", timeout=1)
    start = time.monotonic()
    res = chk.run()
    assert 0.9 < time.monotonic() - start < 10
    assert (chk.where.read_text(), res.returncode, "raw : thread timeout ignore." in chk.node.messages()) == (
        chk.expected("pass"), 0, True)
    # The tool was ended with its process group, not left behind.
    assert chk.ns.run(["kill", "-0", pidfile.read_text().strip()]).returncode != 0


def test_dactive_and_ddeactive_use_the_new_configuration(chk):
    chk.mkfs()
    # The running point is kept inside the tree: a plain activation must not create one outside.
    chk.node.edit(P + "/mount/point", chk.home / "mnt" / "running")
    chk.set({"fsck/timing": 0, "mount/retry": 0, "umount/action": "none", "umount/retry": 0})
    fs1 = Resource(chk.node, chk.ns)
    # Without a new configuration the run ends before its trace log opens, the status text empty.
    assert (fs1.act("--dactive"), fs1.mounts(), chk.node.log()) == ((1, ""), 0, "")
    (chk.home / "etc" / "zor.conf.new").write_text(chk.new.xml())
    # The running configuration's device does not exist: a plain activation fails.
    assert (fs1.run("--active").returncode, fs1.mounts()) == (1, 0)
    assert (fs1.act("--dactive"), [m.split()[0] for m in chk.ns.mounts(chk.point)]) == ((0, "Success."), [chk.dev])
    assert (fs1.act("--ddeactive"), fs1.mounts()) == ((0, "Success."), 0)
