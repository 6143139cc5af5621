# The OCF resource agents ocf:zor:zordisk and ocf:zor:zornas of the installed tree: resource-agents'
# ocf-tester on a real loop device and a real file server, then what ocf-tester does not look at (probes on a
# node that lacks the resource, exit reasons, check depths; probes and stops of half-way resources are in
# test_monitor.py), all inside the harness's private namespaces.

import shutil

import pytest

from conftest import getro, require
from test_nas import nas  # noqa: F401  (fixture)

OCF_OK, OCF_ERR_GENERIC, OCF_ERR_INSTALLED, OCF_ERR_CONFIGURED, OCF_NOT_RUNNING = 0, 1, 5, 6, 7


def agent_path(node, kind):
    return str(node.install / "lib" / "ocf" / "resource.d" / "zor" / kind)


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


# Preparations: a shell step ({p} the point), UNKNOWN: the resource dropped from its group, or settings.
FOREIGN, UNKNOWN = 'mkdir -p "{p}" && mount -t tmpfs zor-other "{p}"', ""
MISSING, BAD_TYPE = {"device": "/dev/zor-no-such-device"}, {"disktype": "floppy"}

# What ocf-tester and the monitor's states (test_monitor.py) do not show: (name, preparation, action, probe,
# answer, exit reasons ({p} the point), node tree). Nothing is mounted afterwards, the device is read-only.
CASES = [
    # A node that lacks the resource: a probe says "not running", the other actions say why.
    ("probe_without_tree", None, "monitor", True, OCF_NOT_RUNNING, [], "/nonexistent"),
    ("monitor_without_tree", None, "monitor", False, 5, ["/nonexistent/bin/zordisk is not installed"], "/nonexistent"),
    ("probe_not_in_config", UNKNOWN, "monitor", True, OCF_NOT_RUNNING, [], None),
    ("validate_not_in_config", UNKNOWN, "validate-all", False, OCF_ERR_CONFIGURED,
     ["Resource was not in config. (fs1)"], None),
    ("validate_unknown_disk_type", BAD_TYPE, "validate-all", False, OCF_ERR_CONFIGURED,
     ["Internal error. (status=64)"], None),
    ("start_device_missing", MISSING, "start", False, OCF_ERR_INSTALLED,
     ["Device was not found. (/dev/zor-no-such-device)"], None),
    ("start_over_foreign_mount", FOREIGN, "start", False, OCF_ERR_GENERIC,
     ["Mount point was already mounted. ({p})"], None),
]


@pytest.mark.parametrize("name,what,action,probe,answer,reasons,home", CASES, ids=[c[0] for c in CASES])
def test_agent_cases(disk, name, what, action, probe, answer, reasons, home):
    if what == UNKNOWN:
        disk.node.conf.delete("/root/group@grp1/resource@disk@fs1")
        disk.node.write_conf()
    elif isinstance(what, dict):
        disk.set(what)
    elif what:
        disk.ns.sh(what.format(p=disk.point), check=True)
    assert disk.ocf(action, probe=probe, home=home) == (answer, [r.format(p=disk.point) for r in reasons])
    assert (disk.ns.run(["grep", "-c", f"^{disk.dev} ", "/proc/mounts"]).stdout.strip(), getro(disk.dev)) == (
        "0", "1")


def test_check_depth_reaches_the_program(disk):
    assert [disk.ocf("start")] + [disk.ocf("monitor", level=lv) for lv in (0, 10, 20)] == [(OCF_OK, [])] * 4
    # Only the write check of level 20 leaves this file.
    assert disk.ns.sh(f'cat "{disk.point}"/.zor_monitor/*').stdout.startswith("zor monitor ")
