# The OCF resource agents ocf:zor:zordisk and ocf:zor:zornas of the installed tree: resource-agents'
# ocf-tester on a real loop device and a real file server, then what ocf-tester does not look at (probes on a
# node that lacks the resource, exit reasons, half-way resources, a disk still mounted elsewhere at a stop,
# check depths), all inside the harness's private namespaces.

import shutil

import pytest

from conftest import getro, require
from test_nas import nas  # noqa: F401  (fixture)

OCF_OK, OCF_ERR_GENERIC, OCF_ERR_INSTALLED, OCF_ERR_CONFIGURED, OCF_NOT_RUNNING = 0, 1, 5, 6, 7


def agent_path(node, kind):
    return str(node.install / "lib" / "ocf" / "resource.d" / "zor" / kind)


def ocf(d, action, probe=False, level="", home=None):
    env = {"OCF_ROOT": "/usr/lib/ocf", "OCF_RESOURCE_INSTANCE": "fs1", "OCF_RESKEY_resource": "fs1",
           "OCF_RESKEY_group": "grp1", "OCF_RESKEY_zor_home": str(home or d.node.home), "OCF_CHECK_LEVEL": str(level),
           "OCF_RESKEY_CRM_meta_interval": "0" if probe else "20000", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
    r = d.ns.run([agent_path(d.node, "zordisk"), action], env=env)
    reasons = [line.split(":", 1)[1] for line in r.stderr.splitlines() if line.startswith("ocf-exit-reason:")]
    return r.returncode, reasons


@pytest.fixture
def disk(disk):
    disk.ns.sh(f"blockdev --setro {disk.dev}", check=True)
    return disk


@pytest.mark.parametrize("kind,resource,group", [("zordisk", "fs1", "grp1"), ("zornas", "share1", "grp2")])
def test_ocf_tester(request, kind, resource, group):
    require(shutil.which("ocf-tester"), "needs ocf-tester (package resource-agents)")
    r = request.getfixturevalue("disk" if kind == "zordisk" else "nas")
    res = r.ns.run(["ocf-tester", "-n", resource, "-o", f"resource={resource}", "-o", f"group={group}",
                     "-o", f"zor_home={r.node.home}", agent_path(r.node, kind)], timeout=300)
    assert res.returncode == 0 and "passed all tests" in res.stdout, res.stdout + res.stderr
    # ocf-tester ends with a stop: nothing mounted, a disk's device read-only again.
    assert (r.mounts(), kind != "zordisk" or getro(r.dev) == "1") == (0, True)


# Preparations: shell steps ({p} the point, {d} the device, {e} a directory elsewhere), after an activation
# when they start with ACTIVE; UNKNOWN drops the resource from its group; other settings as a dict.
ACTIVE = "active; "
RW, FOREIGN, UNKNOWN = 'mkdir -p "{p}" && blockdev --setrw {d}', 'mkdir -p "{p}" && mount -t tmpfs zor-other "{p}"', ""
BOUND = ACTIVE + 'mkdir -p "{e}" && mount --bind "{p}" "{e}"'
LAZY = ACTIVE + 'cd "{p}" && (sleep 600 >/dev/null 2>&1 &) && cd / && umount -l "{p}"'
MISSING, BAD_TYPE = {"device": "/dev/zor-no-such-device"}, {"disktype": "floppy"}
MOVED = ACTIVE

# (name, preparation, action, probe, answer, exit reasons ({p} point, {d} device, {e} elsewhere), node tree,
#  afterwards: mounts of the device on the node, device read-only)
CASES = [
    # A node that lacks the resource: a probe says "not running", the other actions say why.
    ("probe_without_tree", None, "monitor", True, OCF_NOT_RUNNING, [], "/nonexistent", (0, "1")),
    ("monitor_without_tree", None, "monitor", False, 5, ["/nonexistent/bin/zordisk is not installed"], "/nonexistent",
     (0, "1")),
    ("monitor_point_missing", None, "monitor", False, OCF_NOT_RUNNING, [], None, (0, "1")),
    ("probe_not_in_config", UNKNOWN, "monitor", True, OCF_NOT_RUNNING, [], None, (0, "1")),
    ("validate_not_in_config", UNKNOWN, "validate-all", False, OCF_ERR_CONFIGURED,
     ["Resource was not in config. (fs1)"], None, (0, "1")),
    ("validate_unknown_disk_type", BAD_TYPE, "validate-all", False, OCF_ERR_CONFIGURED,
     ["Internal error. (status=64)"], None, (0, "1")),
    ("probe_device_missing", MISSING, "monitor", True, OCF_NOT_RUNNING, [], None, (0, "1")),
    ("start_device_missing", MISSING, "start", False, OCF_ERR_INSTALLED,
     ["Device was not found. (/dev/zor-no-such-device)"], None, (0, "1")),
    ("stop_device_missing", MISSING, "stop", False, OCF_OK, [], None, (0, "1")),
    # Another's file system on the point: nothing of this resource's; the stop leaves it alone.
    ("probe_foreign_mount", FOREIGN, "monitor", True, OCF_NOT_RUNNING, [], None, (0, "1")),
    ("start_over_foreign_mount", FOREIGN, "start", False, OCF_ERR_GENERIC,
     ["Mount point was already mounted. ({p})"], None, (0, "1")),
    ("stop_over_foreign_mount", FOREIGN, "stop", False, OCF_OK, [], None, (0, "1")),
    # A stop finishes what it finds half done: unmounted but still read-write.
    ("probe_read_write", RW, "monitor", True, OCF_NOT_RUNNING, [], None, (0, "0")),
    ("monitor_read_write", RW, "monitor", False, OCF_ERR_GENERIC, ["Device was read-write but not mounted. ({d})"],
     None, (0, "0")),
    ("stop_read_write", RW, "stop", False, OCF_OK, [], None, (0, "1")),
    ("validate_half_way", RW, "validate-all", False, OCF_OK, [], None, (0, "0")),
    # Still mounted, or held, on the node after the unmount of the point: the stop fails, the device stays
    # writable for whoever still uses it.
    ("stop_bound_elsewhere", BOUND, "stop", False, OCF_ERR_GENERIC, ["Device was mounted elsewhere. ({d}, {e})"],
     None, (1, "0")),
    ("stop_point_changed", MOVED, "stop", False, OCF_ERR_GENERIC, ["Device was mounted elsewhere. ({d}, {p})"], None,
     (1, "0")),
    ("stop_lazily_detached", LAZY, "stop", False, OCF_ERR_GENERIC, ["Device was in use. ({d})"], None, (0, "0")),
    ("probe_lazily_detached", LAZY, "monitor", True, OCF_ERR_GENERIC, ["Device was in use. ({d})"], None, (0, "0")),
]


@pytest.mark.parametrize("name,what,action,probe,answer,reasons,home,after", CASES, ids=[c[0] for c in CASES])
def test_agent_cases(disk, name, what, action, probe, answer, reasons, home, after):
    where = f"{disk.node.home}/elsewhere"
    if what == UNKNOWN:
        disk.node.conf.delete("/root/group@grp1/resource@disk@fs1")
        disk.node.write_conf()
    elif isinstance(what, dict):
        disk.set(what)
    elif what:
        if what.startswith(ACTIVE):
            assert ocf(disk, "start") == (OCF_OK, [])
        disk.ns.sh(what.removeprefix(ACTIVE).format(p=disk.point, d=disk.dev, e=where), check=True)
    if name == "stop_point_changed":
        disk.set({"mount/point": f"{disk.node.home}/moved"})
    assert ocf(disk, action, probe=probe, home=home) == (
        answer, [r.format(p=disk.point, d=disk.dev, e=where) for r in reasons])
    mounts = disk.ns.run(["grep", "-c", f"^{disk.dev} ", "/proc/mounts"]).stdout.strip()
    assert (int(mounts), getro(disk.dev)) == after


def test_check_depth_reaches_the_program(disk):
    assert [ocf(disk, "start")] + [ocf(disk, "monitor", level=lv) for lv in (0, 10, 20)] == [(OCF_OK, [])] * 4
    # Only the write check of level 20 leaves this file.
    assert disk.ns.run(["cat", disk.point + "/.zor_monitor"]).stdout.startswith("zor monitor ")
