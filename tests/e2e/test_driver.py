# Start-up of the installed programs: --help and --version, and every refusal of the agent, which ends with
# exit status 1, its status text in the node's status table (only when both names were given) and its trace
# records, read back through zorstat and the trace log.

import pytest

from test_package import version

pytestmark = pytest.mark.usefixtures("root")


# Refusals of the command line and of a caller that is not root: one line on stderr that names the problem
# (for a usage error followed by "Try 'zordisk --help'."). Nothing is traced yet (the trace log opens after
# the configuration is read), and a status record exists only when both names were parsed before the fault
# (which names a command line gives is a unit table), and never one of another user's: the table is root's
# alone. --help and --version anywhere but alone are options like any other.
USAGE = "\nTry 'zordisk --help'.\n"
COMMAND_LINE = [
    ("alone", [], None, None, "no action given (--active, --deactive, --monitor, --test, ...)" + USAGE),
    ("unknown option", ["--bogus"], None, None, "unrecognized option '--bogus'" + USAGE),
    ("no resource", ["--active", "-g", "grp1"], None, None, "no resource given (-r RESOURCE)" + USAGE),
    ("extra argument", ["--active", "-r", "fs1", "-g", "grp1", "x"], None, None, "unexpected argument 'x'" + USAGE),
    ("two actions", ["--active", "--deactive", "-r", "fs1", "-g", "grp1"], None, None,
     "wrong number of arguments" + USAGE),
    ("32-character group", ["-r", "fs1", "--active", "-g", "g" * 32], None, None,
     f"group name '{'g' * 32}' is longer than 31 characters" + USAGE),
    ("--help as the value of --test", ["--test", "--help"], None, None, "option '--test' requires an argument" + USAGE),
    ("--help after both names", ["-r", "fs1", "-g", "grp1", "--help"], "Option was invalid.", None,
     "unrecognized option '--help'" + USAGE),
    ("not root", ["--active", "-r", "fs1", "-g", "grp1"], None, "nobody",
     "must be run as root (uid 65534)\n"),
]


@pytest.mark.parametrize("name,args,stored,user,err", COMMAND_LINE, ids=[c[0] for c in COMMAND_LINE])
def test_command_line_refusals(node, name, args, stored, user, err):
    res = node.run(args, user=user)
    assert (res.returncode, res.stdout, res.stderr, node.status("grp1", "fs1"), node.log(),
            len(node.records())) == (1, "", "zordisk: " + err, stored, "", int(stored is not None))


PROGRAMS = ["zordisk", "zornas", "zorstat", "zorroset", "zorrelpath"]


# --help and --version of every installed program, and for the agent only as the sole argument: the text on
# standard output, exit status 0, and nothing else done. Answered before any start-up step: run as nobody with
# no configuration to read, a step would fail and say so. The agent takes the two words in any case.
@pytest.mark.parametrize("prog,arg", [(p, a) for p in PROGRAMS for a in ("--help", "--version")]
                         + [("zordisk", "--VERSION")])
def test_help_and_version(node, prog, arg):
    (node.home / "etc" / "zor.conf").unlink()
    res = node.run([arg], prog=prog, user="nobody", timeout=30)
    assert (res.returncode, res.stderr) == (0, "")
    if arg.lower() == "--version":
        assert res.stdout == f"{prog} (zor) {version()}\n"
    else:
        assert res.stdout.startswith(f"Usage: {prog} ") and "--version" in res.stdout, res.stdout
    assert (node.records(), node.log(), list((node.home / "log").iterdir())) == ([], "", [])


def _edit(path, value=None):
    return lambda node: node.edit(path, value)


# Without a loaded configuration every read fails; the log level stays 0, so
# the trace log keeps errors only.
LOAD_FAILED = "Loading config was failed."
NOT_LOADED = "  xmllib_get_value(/root/all/path, 0) failed. (0x2 ZOR_XMLERR_NOT_LOAD)"
NOT_EXIST = "  xmllib_get_value({}, 0) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"
P = "/root/resource/disk@fs1/parameters/"

# Configuration faults after the command line: (spoil, status text, records the trace log of an activation
# must hold, the monitor's answer). A failed set-up is followed by failing reads; the last failure's text is
# the one reported. Each step of the set-up failing in turn is a unit table. The OCF agent turns the
# monitor's answer into "not running" (5: the node lacks the resource) or a configuration error (6).
CONFIG = [
    ("no zor.conf", lambda node: (node.home / "etc/zor.conf").unlink(), LOAD_FAILED, [NOT_LOADED], 5),
    ("malformed zor.conf", lambda node: (node.home / "etc/zor.conf").write_text("<root><all><path>/x</path>"),
     LOAD_FAILED, [NOT_LOADED], 6),
    ("no log level", _edit("/root/disk/log/level"), LOAD_FAILED, [], 6),
    ("no installation path", _edit("/root/all/path"), LOAD_FAILED, [NOT_EXIST.format("/root/all/path")], 6),
    ("not in its group", _edit("/root/group@grp1/resource@disk@fs1"), "Resource was not in config. (fs1)",
     [], 5),
    # The status store is traced before the log closes.
    ("unknown disk type", _edit(P + "disktype", "xyz"), "Internal error. (status=64)",
     ["disktype: xyz", "invalid disk resource disktype:xyz.",
      "  shmrm_setdescript(grp1, disk, fs1, Internal error. (status=64), 128) success."], 6),
    ("no mount point", _edit(P + "mount/point"), "Getting of config was failed.", [], 6),
]


@pytest.mark.parametrize("name,spoil,text,records,answer", CONFIG, ids=[c[0] for c in CONFIG])
def test_configuration_refusals(node, name, spoil, text, records, answer):
    spoil(node)
    res = node.run(["--active", "-r", "fs1", "-g", "grp1"])
    # A failed action says why on stderr, which the cluster engine's log keeps.
    assert (res.returncode, res.stderr, node.status("grp1", "fs1")) == (1, f"zordisk: {text}\n", text)
    msgs = node.messages()
    # Only a run that got as far as the dispatch attaches the semaphores.
    assert (set(records) <= set(msgs), msgs[-1], "disk_sem_attach()  ENTRY..." in msgs) == (
        True, "disk resource failed.", text != LOAD_FAILED), msgs
    # The monitor, on a node whose record of the activation is gone, leaves the same text.
    removed = node.run(["--remove", "-g", "grp1", "-r", "fs1"], prog="zorstat").returncode
    assert (removed, node.run(["--monitor", "-r", "fs1", "-g", "grp1"]).returncode,
            node.status("grp1", "fs1")) == (0, answer, text)


# Resources the loaders do not find, reached through the routine chosen by
# resource type and disk type (compared without case; so is the program name).
MISSING = [
    ("zordisk", "disk", "--active", "nogrp", "Group was not in config. (nogrp)", "disk_act"),
    ("ZORDISK", "LVM", "--deactive", "nogrp", "Group was not in config. (nogrp)", "disk_deact"),
    ("zordisk", "VXVM", "--active", "nogrp", "Group was not in config. (nogrp)", "vxvol_act"),
    ("zordisk", "vxvm", "--deactive", "grp2", "Resource was not in config. (fs1)", "vxvol_deact"),
    ("zornas", "anything", "--active", "grp1", "Resource was not in config. (share1)", "nas_act"),
    ("zornas", "nfs", "--deactive", "GRP2", "Group was not in config. (GRP2)", "nas_deact"),
    # An unknown program name runs nothing: stored under an empty resource type, no trace log to name.
    ("otherprog", "disk", "--active", "grp1", "Internal error. (status=128)", None),
]


@pytest.mark.parametrize("prog,disktype,action,group,text,routine", MISSING,
                         ids=[f"{m[5] or m[0]}-{m[1]}-{m[3]}" for m in MISSING])
def test_missing_group_or_resource(node, ns, tmp_path, prog, disktype, action, group, text, routine):
    rtype, rsc = {"zordisk": ("disk", "fs1"), "zornas": ("nas", "share1")}.get(prog.lower(), ("", "fs1"))
    node.edit(f"/root/resource/{rtype or 'disk'}@{rsc}/parameters/disktype", disktype)
    alias = tmp_path / prog
    alias.symlink_to(node.home / "bin" / (prog.lower() if rtype else "zordisk"))
    syslog = ns.syslog(tmp_path)
    assert (ns.run([str(alias), action, "-r", rsc, "-g", group], env=node.env()).returncode,
            node.status(group, rsc, rtype=rtype)) == (1, text)
    if routine is None:
        assert (list((node.home / "log").iterdir()), syslog()) == ([], [])
        return
    # The trace log's errors also reach syslog (facility daemon, priority err: 27) under the program's name,
    # naming group and resource; the last two say why and that the action failed.
    records = syslog()
    assert {(prio, ident) for prio, ident, _ in records} == {(27, "zor" + rtype)}, records
    assert [m for _, _, m in records][-2:] == [f"{group}/{rsc}: status: {text}",
                                               f"{group}/{rsc}: {rtype} resource failed."], records
    msgs = node.messages(rtype)
    kind = "group" if text.startswith("Group") else "resource"
    assert (f"{kind}={group if kind == 'group' else rsc} not exist in config." in msgs, msgs[-1],
            f" {routine}: " in node.log(rtype)) == (True, rtype + " resource failed.", True), msgs
