"""Start-up of the installed agent: every refusal ends with exit status 1, its
status text in the node's status table (only when both names were given) and
its trace records, read back through zorstat and the trace log."""

import os
import subprocess

import pytest

from conftest import require_root

N32 = "r" * 32
G32 = "g" * 32


def _table_name(home):
    # The IPC library names a node's status table after its canonical tree (FNV-1a).
    key = os.path.realpath(home)
    h = 14695981039346656037
    for b in key.encode():
        h = ((h ^ b) * 1099511628211) & 0xFFFFFFFFFFFFFFFF
    return "/dev/shm/zor-status-%016x" % h


@pytest.fixture
def agent(node):
    """The node, with its status table removed afterwards (it lives in /dev/shm)."""
    require_root()
    yield node
    try:
        os.unlink(_table_name(node.home))
    except FileNotFoundError:
        pass


def _run(node, args, prog="zordisk", ns=None, user=None):
    res = node.run(args, prog=prog, ns=ns, user=user)
    return res.returncode


# Refusals of the command line. Nothing is traced yet (the trace log opens
# after the configuration is read), and a status record exists only when
# both names were parsed before the fault.
COMMAND_LINE = [
    ("no arguments", [], None),
    ("four elements", ["--active", "-r", "fs1"], None),
    ("seven elements", ["--active", "--deactive", "-r", "fs1", "-g", "grp1"], None),
    ("no action option", ["-r", "fs1"], None),
    ("unknown option", ["--active", "-r", "fs1", "-x", "grp1"], None),
    ("unknown option after both names", ["-r", "fs1", "-g", "grp1", "--bogus"], "Option was invalid."),
    ("missing value", ["--active", "-g", "grp1", "--deactive", "-r"], None),
    ("value begins with -", ["--active", "-r", "-x", "-g", "grp1"], None),
    ("no group", ["--active", "-r", "fs1", "-r", "fs1"], None),
    ("32-character resource", ["-g", "grp1", "--active", "-r", N32], None),
    ("32-character test name", ["--test", N32], None),
    ("32-character group", ["-r", "fs1", "--active", "-g", G32], None),
]


@pytest.mark.parametrize("name,args,stored", COMMAND_LINE, ids=[c[0] for c in COMMAND_LINE])
def test_command_line_refusals(agent, name, args, stored):
    assert _run(agent, args) == 1
    assert agent.status("grp1", "fs1") == stored
    if stored is None:
        assert agent.records() == []
    assert agent.log() == ""


def test_caller_that_is_not_root(agent):
    res = agent.run(["--active", "-r", "fs1", "-g", "grp1"], user="nobody")
    assert res.returncode == 1
    assert agent.status("grp1", "fs1") == "User was not superuser."
    assert agent.log() == ""


def test_unknown_program_name_runs_nothing(agent, tmp_path):
    alias = tmp_path / "otherprog"
    alias.symlink_to(agent.home / "bin" / "zordisk")
    res = subprocess.run([str(alias), "--active", "-r", "fs1", "-g", "grp1"], env=agent.env(),
                         capture_output=True, text=True, timeout=60)
    assert res.returncode == 1
    # The refusal is stored under an empty resource type; without a type there
    # is no trace log to name.
    assert agent.status("grp1", "fs1", rtype="") == "Internal error. (status=128)"
    assert not (agent.home / "log" / ".log").exists()
    assert agent.log() == ""


def test_program_name_is_compared_without_case(agent, tmp_path, ns):
    alias = tmp_path / "ZORDISK"
    alias.symlink_to(agent.home / "bin" / "zordisk")
    res = ns.run([str(alias), "--active", "-r", "fs1", "-g", "nogrp"], env=agent.env())
    assert res.returncode == 1
    assert agent.status("nogrp", "fs1") == "Group was not in config. (nogrp)"


def _spoil_policy(name):
    def spoil(node):
        (node.home / "etc" / "policy" / (name + ".xml")).write_text("<root><open></root>")
    return spoil


def _remove_conf(node):
    (node.home / "etc" / "zor.conf").unlink()


def _malformed_conf(node):
    (node.home / "etc" / "zor.conf").write_text("<root><all><path>/x</path></all>")


def _delete(path):
    def spoil(node):
        node.conf.delete(path)
        node.write_conf()
    return spoil


def _set(path, value):
    def spoil(node):
        node.conf.set(path, value)
        node.write_conf()
    return spoil


# Without a loaded configuration every read fails; the log level stays 0, so
# the trace log keeps errors only.
NOT_LOADED = "  xmllib_get_value(/root/all/path, 0) failed. (0x2 ZOR_XMLERR_NOT_LOAD)"

# Configuration faults after the command line: (spoil, status text, a record
# the trace log must hold).
CONFIG = [
    ("broken all policy", _spoil_policy("all"), "Getting of config was failed.", NOT_LOADED),
    ("broken rc policy", _spoil_policy("rc"), "Getting of config was failed.", NOT_LOADED),
    ("broken disk policy", _spoil_policy("disk"), "Getting of config was failed.", NOT_LOADED),
    ("no zor.conf", _remove_conf, "Getting of config was failed.", NOT_LOADED),
    ("malformed zor.conf", _malformed_conf, "Getting of config was failed.", NOT_LOADED),
    ("no log level", _delete("/root/disk/log/level"), "Loading config was failed.", "disk resource failed."),
    ("no installation path", _delete("/root/all/path"), "Loading config was failed.",
     "  xmllib_get_value(/root/all/path, 0) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"),
    ("no disk type", _delete("/root/resource/disk@fs1/parameters/disktype"), "Loading config was failed.",
     "  xmllib_get_value(/root/resource/disk@fs1/parameters/disktype, 0) failed."
     " (0x4 ZOR_XMLERR_NOTEXIST_PATH)"),
    ("unknown disk type", _set("/root/resource/disk@fs1/parameters/disktype", "xyz"),
     "Internal error. (status=64)", "invalid disk resource disktype:xyz."),
]


@pytest.mark.parametrize("name,spoil,text,record", CONFIG, ids=[c[0] for c in CONFIG])
def test_configuration_refusals(agent, name, spoil, text, record):
    spoil(agent)
    assert _run(agent, ["--active", "-r", "fs1", "-g", "grp1"]) == 1
    assert agent.status("grp1", "fs1") == text
    msgs = agent.messages()
    assert record in msgs
    assert msgs[-1] == "disk resource failed."
    # Only a run that got as far as the dispatch attaches the semaphores.
    assert ("disk_sem_attach()  ENTRY..." in msgs) == (name == "unknown disk type")


def test_unknown_disk_type_is_traced_at_every_level(agent):
    _set("/root/resource/disk@fs1/parameters/disktype", "xyz")(agent)
    assert _run(agent, ["--deactive", "-g", "grp1", "-r", "fs1"]) == 1
    msgs = agent.messages()
    assert "disktype: xyz" in msgs
    assert "invalid disk resource disktype:xyz." in msgs
    # The status store is traced before the log closes.
    assert "  shmrm_setdescript(grp1, disk, fs1, Internal error. (status=64), 128) success." in msgs


# Resources the loaders do not find: the flows report the loader's code.
MISSING = [
    ("group not configured", "zordisk", "disk", ["--active", "-r", "fs1", "-g", "nogrp"], "nogrp", "fs1",
     "Group was not in config. (nogrp)", "group=nogrp not exist in config."),
    ("resource not in the group", "zordisk", "disk", ["--deactive", "-r", "fs1", "-g", "grp2"], "grp2", "fs1",
     "Resource was not in config. (fs1)", "resource=fs1 not exist in config."),
    ("nas not in the group", "zornas", "nas", ["--active", "-r", "share1", "-g", "grp1"], "grp1", "share1",
     "Resource was not in config. (share1)", "resource=share1 not exist in config."),
    ("group in other case", "zornas", "nas", ["--deactive", "-r", "share1", "-g", "GRP2"], "GRP2", "share1",
     "Group was not in config. (GRP2)", "group=GRP2 not exist in config."),
]


@pytest.mark.parametrize("name,prog,rtype,args,group,rsc,text,record", MISSING, ids=[c[0] for c in MISSING])
def test_missing_group_or_resource(agent, ns, name, prog, rtype, args, group, rsc, text, record):
    assert _run(agent, args, prog=prog, ns=ns) == 1
    assert agent.status(group, rsc, rtype=rtype) == text
    msgs = agent.messages(rtype)
    assert record in msgs
    assert msgs[-1] == rtype + " resource failed."


# The routine chosen by resource type and disk type (compared without case):
# with a group that is not configured, the routine only loads and refuses.
DISPATCH = [
    ("zordisk", "disk", "--active", "disk_act"),
    ("zordisk", "LVM", "--deactive", "disk_deact"),
    ("zordisk", "VXVM", "--active", "vxvol_act"),
    ("zordisk", "vxvm", "--deactive", "vxvol_deact"),
    ("zornas", "anything", "--active", "nas_act"),
]


@pytest.mark.parametrize("prog,disktype,action,routine", DISPATCH, ids=[d[3] + "-" + d[1] for d in DISPATCH])
def test_dispatch_table(agent, ns, prog, disktype, action, routine):
    rtype = "disk" if prog == "zordisk" else "nas"
    rsc = "fs1" if rtype == "disk" else "share1"
    _set(f"/root/resource/{rtype}@{rsc}/parameters/disktype", disktype)(agent)
    assert _run(agent, [action, "-r", rsc, "-g", "nogrp"], prog=prog, ns=ns) == 1
    assert agent.status("nogrp", rsc, rtype=rtype) == "Group was not in config. (nogrp)"
    assert f" {routine}: " in agent.log(rtype)
