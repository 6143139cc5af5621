# --help and --version of every installed program: the text on standard output, exit status 0, and
# nothing else done; for the agent only as the sole argument (every other command line: test_driver.py).

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
