# The monitor end to end: `zordisk --monitor` and `zornas --monitor` on real devices and a real file
# server, in every state a cluster engine can meet, half-way states made by hand included.
#
# Answers: 0 in service, 7 cleanly out of service, 1 failed or half-way. Only an answer of 1 may store a
# status text; 0 and 7 leave the one the last action stored (here: none, or "Success.").

import time

import pytest

from conftest import require_root
from test_disk_flows import Disk, getro
from test_nas import Share
from nasserver import NasServer

CHECK_FILE = ".zor_monitor"


def monitor(d, level=None, prog="zordisk", rsc=("fs1", "grp1")):
    args = ["--monitor", "-r", rsc[0], "-g", rsc[1]] + (["--level", str(level)] if level is not None else [])
    mark = len(d.node.messages("nas" if prog == "zornas" else "disk"))
    res = d.node.run(args, prog=prog, ns=d.ns if prog == "zordisk" else d.client)
    d.new = d.node.messages("nas" if prog == "zornas" else "disk")[mark:]
    return res.returncode


def sh(d, script):
    d.ns.sh(script, check=True)


def setro(d, flag):
    sh(d, f"blockdev --{'setro' if flag else 'setrw'} {d.dev}")


def active(d):
    assert d.run("--active").returncode == 0, d.new


def stopped(d):
    setro(d, True)
    sh(d, f'mkdir -p "{d.point}"')


def other_device(d):
    stopped(d)
    d.other = d.loopdev(16, "ext4")
    sh(d, f'mount "{d.other}" "{d.point}"')


def stacked(d):
    active(d)
    d.other = d.loopdev(16, "ext4")
    sh(d, f'mount "{d.other}" "{d.point}"')


def rw_unmounted(d):
    stopped(d)
    setro(d, False)


def point_missing(d):
    setro(d, True)


def ro_while_mounted(d):
    active(d)
    setro(d, True)


def device_missing(d):
    stopped(d)
    d.set({"device": "/dev/zor-no-such-device"})


def lvm_rw_unmounted(d):
    # An lvm volume has no read-only switch: its flag says nothing.
    rw_unmounted(d)
    d.set({"disktype": "lvm"})


# (name, preparation, answer, status text ({p} point, {d} device, {o} other device); None: no record)
DISK_STATES = [
    ("stopped", stopped, 7, None),
    ("running", active, 0, "Success."),
    ("mounted_from_another_device", other_device, 1, "Mount point was mounted from another device. ({p}, {o})"),
    ("another_device_stacked_on_top", stacked, 1, "Mount point was mounted from another device. ({p}, {o})"),
    ("read_write_not_mounted", rw_unmounted, 1, "Device was read-write but not mounted. ({d})"),
    ("point_missing", point_missing, 1, "Mount point was not found. ({p})"),
    ("read_only_while_mounted", ro_while_mounted, 1, "Device was read-only while mounted. ({d})"),
    ("device_missing", device_missing, 1, "Device was not found. (/dev/zor-no-such-device)"),
    ("lvm_not_mounted", lvm_rw_unmounted, 7, None),
]


@pytest.fixture
def disk(node, ns, loopdev):
    d = Disk(node, ns, loopdev)
    d.loopdev = loopdev
    return d


@pytest.mark.parametrize("name,prepare,answer,text", DISK_STATES, ids=[s[0] for s in DISK_STATES])
def test_disk_states(disk, name, prepare, answer, text):
    prepare(disk)
    before = (getro(disk.dev), disk.mounts())
    for level in (None, 0, 10, 20):
        assert monitor(disk, level) == answer, (level, disk.new)
        want = text and text.format(p=disk.point, d=disk.dev, o=getattr(disk, "other", ""))
        assert disk.status() == want, level
        # The monitor only looks: device flag and mount table are as it found them.
        assert (getro(disk.dev), disk.mounts()) == before
    # The last run was level 20: it read and wrote only a resource in service.
    assert len([m for m in disk.new if m.startswith("(exec")]) == (2 if answer == 0 else 0), disk.new


def test_level_zero_touches_nothing_on_the_mount(disk):
    active(disk)
    assert monitor(disk, 0) == 0
    assert not any("pthread_create" in m for m in disk.new), disk.new
    assert disk.ns.run(["test", "-e", f"{disk.point}/{CHECK_FILE}"]).returncode == 1
    assert monitor(disk, 10) == 0
    assert any(f'(exec "/bin/ls" -A -- "{disk.point}" > /dev/null 2>&1)' in m for m in disk.new)
    assert disk.ns.run(["test", "-e", f"{disk.point}/{CHECK_FILE}"]).returncode == 1
    assert monitor(disk, 20) == 0
    token = disk.ns.run(["cat", f"{disk.point}/{CHECK_FILE}"]).stdout
    assert token.startswith("zor monitor ") and token.endswith("\n")


def test_stored_text_is_replaced_only_by_a_failure(disk):
    point_missing(disk)
    assert monitor(disk) == 1
    failure = disk.status()
    sh(disk, f'mkdir -p "{disk.point}"')
    assert monitor(disk) == 7
    assert disk.status() == failure  # 7 leaves the failure's text for the operator
    active(disk)
    assert monitor(disk) == 0 and disk.status() == "Success."


# NAS: the sample's nas@share1 of grp2 against the test file server.
@pytest.fixture
def share(node):
    require_root()
    srv = NasServer(key=node.home / "etc" / "nas_key")
    try:
        srv.start()
        srv.share("share1")
        s = Share(node, srv)
        s.ns = srv.client
        yield s
    finally:
        srv.stop()


def nas_monitor(s, level=None):
    return monitor(s, level, prog="zornas", rsc=("share1", "grp2"))


def test_nas_states(share):
    share.client.sh(f'mkdir -p "{share.point}"', check=True)
    assert nas_monitor(share) == 7 and share.status() is None
    assert share.run("--active").returncode == 0
    for level in (0, 10, 20):
        assert nas_monitor(share, level) == 0, share.new
    assert share.status() == "Success."
    # What the level-20 check wrote reached the server.
    assert (share.srv.exports / "share1" / CHECK_FILE).read_text().startswith("zor monitor ")

    # A share that does not answer: level 0 still answers at once (it never touches the mount),
    # a deeper level reports the failure within its time limit instead of hanging.
    share.srv.link_down()
    t0 = time.monotonic()
    assert nas_monitor(share, 0) == 0
    assert time.monotonic() - t0 < 2
    t0 = time.monotonic()
    assert nas_monitor(share, 10) == 1
    assert time.monotonic() - t0 < 14
    assert share.status() in (f"Mount point did not answer. ({share.point}, timeout=10)",
                              f"Reading of mount point was failed. ({share.point})")


def test_nas_mounted_from_elsewhere(share):
    share.client.sh(f'mkdir -p "{share.point}" && mount -t tmpfs zor-other "{share.point}"', check=True)
    assert nas_monitor(share) == 1
    assert share.status() == f"Mount point was mounted from another share. ({share.point}, zor-other)"
    share.client.sh(f'umount "{share.point}" && rmdir "{share.point}"', check=True)
    assert nas_monitor(share) == 1
    assert share.status() == f"Mount point was not found. ({share.point})"
