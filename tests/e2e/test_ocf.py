# The OCF resource agents ocf:zor:zordisk and ocf:zor:zornas of the installed tree: resource-agents'
# ocf-tester on a real loop device and a real file server, then what ocf-tester does not look at (probes on a
# node that lacks the resource, exit reasons, check depths; probes and stops of half-way resources are in
# test_monitor.py), all inside the harness's private namespaces.

import shutil

import pytest

from conftest import getro, require
from test_nas import nas  # noqa: F401  (fixture)

OCF_OK, OCF_ERR_GENERIC, OCF_ERR_INSTALLED, OCF_NOT_RUNNING = 0, 1, 5, 7


@pytest.mark.parametrize("kind", ["disk", "nas"])
def test_ocf_tester(request, kind):
    require(shutil.which("ocf-tester"), "needs ocf-tester (package resource-agents)")
    r = request.getfixturevalue(kind)
    if kind == "disk":  # out of service, as a deactivated resource's device is
        r.ns.sh(f"blockdev --setro {r.dev}", check=True)
    res = r.ns.run(["ocf-tester", "-n", r.rsc, "-o", f"resource={r.rsc}", "-o", f"group={r.group}", "-o",
                    f"zor_home={r.node.home}", str(r.node.install / "lib/ocf/resource.d/zor" / ("zor" + kind))],
                   timeout=300)
    assert res.returncode == 0 and "passed all tests" in res.stdout, res.stdout + res.stderr
    # ocf-tester ends with a stop: nothing mounted, a disk's device read-only again.
    assert (r.mounts(), kind == "nas" or getro(r.dev) == "1") == (0, True)


# zor.conf as a node may have it: DROP leaves the resource out of its group, a dict sets the resource's keys;
# NO_TREE: the agent is pointed at a node tree that does not exist; FOREIGN: a file system of another stands on
# the point. Placeholders: {d} the device, {o} another disk, {l} a link to the device, {p} the point, {h} this
# node's name, {u} the file system's UUID.
DROP, NO_TREE, FOREIGN = "drop", "no tree", "foreign"
ZERO_UUID = "00000000-0000-0000-0000-000000000000"

# What ocf-tester and the monitor's states (test_monitor.py) do not show: (name, activated first, zor.conf, the
# engine's attributes, action (an OCF action, or the program's own option), probe, answer, exit reasons (the
# program's: its status text), mounts of the device afterwards). The other disk is never mounted, and a device
# that nothing mounts is read-only.
CASES = [
    ("probe_without_tree", False, NO_TREE, {}, "monitor", True, OCF_NOT_RUNNING, [], 0),
    ("monitor_without_tree", False, NO_TREE, {}, "monitor", False, OCF_ERR_INSTALLED,
     ["/nonexistent/bin/zordisk is not installed"], 0),
    ("start_over_foreign_mount", False, FOREIGN, {}, "start", False, OCF_ERR_GENERIC,
     ["Mount point was already mounted. ({p})"], 0),
    # A node that lacks the resource, or cannot use it, keeps it off that node alone.
    ("validate_not_in_config", False, DROP, {}, "validate-all", False, OCF_ERR_INSTALLED,
     ["Resource was not in config. (fs1)"], 0),
    ("probe_unknown_disk_type", False, {"disktype": "floppy"}, {}, "monitor", True, OCF_ERR_INSTALLED,
     ["Internal error. (status=64)"], 0),
    # The engine's description against this node's zor.conf: the same device by another name agrees; another
    # device, point or file system is refused, by the agent and by the program itself.
    ("start_device_through_a_link", False, {}, {"device": "{l}", "directory": "{p}/"}, "start", False, OCF_OK, [], 1),
    ("start_other_point", False, {}, {"directory": "{p}x"}, "start", False, OCF_ERR_INSTALLED,
     ["Mount point differed from the engine's. ({h}: {p}, engine: {p}x)"], 0),
    ("stop_other_device", False, {}, {"device": "{o}"}, "stop", False, OCF_OK, [], 0),
    ("program_other_device", False, {}, {"device": "{o}"}, "--active", False, 1,
     ["Device differed from the engine's. ({h}: {d}, engine: {o})"], 0),
    ("program_other_uuid", False, {}, {"uuid": ZERO_UUID}, "--active", False, 1,
     [f"File system was another. (uuid={{u}}, expected {ZERO_UUID}, {{d}})"], 0),
    ("program_other_label", False, {"label": "data"}, {}, "--active", False, 1,
     ["File system was another. (label=, expected data, {d})"], 0),
    ("program_same_uuid", False, {"uuid": "{u}"}, {"uuid": "{u}"}, "--active", False, 0, ["Success."], 1),
    # zor.conf changed under a running resource: the monitor fails it, and the stop takes down what the engine
    # names; without the engine's description what this node recorded at its start still names it, and a stop
    # that cannot take it down fails.
    ("monitor_running_conf_changed", True, {"device": "{o}"}, {"device": "{d}"}, "monitor", False, OCF_ERR_GENERIC,
     ["Device differed from the engine's. ({h}: {o}, engine: {d})"], 1),
    ("stop_running_conf_changed", True, {"device": "{o}"}, {"device": "{d}"}, "stop", False, OCF_OK, [], 0),
    ("probe_running_dropped", True, DROP, {}, "monitor", True, OCF_ERR_GENERIC,
     ["Resource was still mounted. ({d}, {p})"], 1),
    ("stop_running_dropped", True, DROP, {}, "stop", False, OCF_ERR_GENERIC,
     ["Resource was still mounted. ({d}, {p})"], 1),
]


@pytest.mark.parametrize("name,active,conf,attrs,action,probe,answer,reasons,mounted", CASES,
                         ids=[c[0] for c in CASES])
def test_agent_cases(disk, loopdev, name, active, conf, attrs, action, probe, answer, reasons, mounted):
    other = loopdev(16, "ext4")
    disk.ns.sh(f"blockdev --setro {disk.dev} {other} && ln -s {disk.dev} {disk.node.home}/dev-link",
               check=True)
    uuid = disk.ns.run(["blkid", "-p", "-s", "UUID", "-o", "value", disk.dev], check=True).stdout.strip()
    fill = dict(d=disk.dev, o=other, l=f"{disk.node.home}/dev-link", p=disk.point, u=uuid,
                h=disk.ns.run(["hostname", "-s"]).stdout.strip())
    if active:
        assert disk.act("--active") == (0, "Success.")
    if conf == DROP:
        disk.node.edit("/root/group@grp1/resource@disk@fs1")
    elif conf == FOREIGN:
        disk.ns.sh(f'mkdir -p "{disk.point}" && mount -t tmpfs zor-other "{disk.point}"', check=True)
    elif isinstance(conf, dict):
        disk.set({k: v.format(**fill) for k, v in conf.items()})
    params = {k: v.format(**fill) for k, v in attrs.items()}
    if action.startswith("--"):
        options = [x for k, v in params.items() for x in (f"--{k}", v)]
        got = (disk.run(action, *options).returncode, [disk.status()])
    else:
        got = disk.ocf(action, probe=probe, home="/nonexistent" if conf == NO_TREE else None, params=params)
    assert got == (answer, [r.format(**fill) for r in reasons])
    table = disk.ns.run(["cat", "/proc/mounts"]).stdout.split("\n")
    assert ([sum(line.startswith(f"{d} ") for line in table) for d in (disk.dev, other)], getro(other),
            getro(disk.dev)) == ([mounted, 0], "1", "0" if mounted else "1")


def test_check_depth_reaches_the_program(disk):
    assert [disk.ocf("start")] + [disk.ocf("monitor", level=lv) for lv in (0, 10, 20)] == [(OCF_OK, [])] * 4
    # Only the write check of level 20 leaves this file.
    assert disk.ns.sh(f'cat "{disk.point}"/.zor_monitor/*').stdout.startswith("zor monitor ")
