# --help and --version of every installed program: the text on standard output, exit status 0, and
# nothing else done; for the agent only as the sole argument, every other command line being parsed as
# before.

import pytest

from conftest import require_root
from test_package import version

PROGRAMS = ["zordisk", "zornas", "zorstat", "zorroset", "zorrelpath"]


# Answered before any start-up step: run as nobody with no configuration to read, a step would fail and say
# so. The agent takes the two words in any case.
@pytest.mark.parametrize("prog,arg", [(p, a) for p in PROGRAMS for a in ("--help", "--version")]
                         + [("zordisk", "--VERSION")])
def test_help_and_version(node, prog, arg):
    require_root()
    (node.home / "etc" / "zor.conf").unlink()
    res = node.run([arg], prog=prog, user="nobody", timeout=30)
    assert (res.returncode, res.stderr) == (0, "")
    if arg.lower() == "--version":
        assert res.stdout == f"{prog} (zor) {version()}\n"
    else:
        assert res.stdout.startswith(f"Usage: {prog} ") and "--version" in res.stdout, res.stdout
    assert (node.records(), node.log(), list((node.home / "log").iterdir())) == ([], "", [])


# Anywhere but alone, the two words are what they were before: unknown options.
NOT_ALONE = [
    ("as the value of --test", ["--test", "--help"], None),
    ("after both names", ["-r", "fs1", "-g", "grp1", "--help"], "Option was invalid."),
    ("as a resource name", ["--active", "-r", "--version", "-g", "grp1"], None),
]


@pytest.mark.parametrize("name,args,stored", NOT_ALONE, ids=[c[0] for c in NOT_ALONE])
def test_agent_parses_other_command_lines_as_before(node, name, args, stored):
    require_root()
    res = node.run(args)
    assert (res.returncode, res.stdout, node.status("grp1", "fs1"), node.log()) == (1, "", stored, "")
