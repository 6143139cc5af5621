# The Debian package, never installed on this machine: it is built from the build directory,
# unpacked with `dpkg-deb -x` into a temporary root, and its programs run from there (ZOR_HOME in that
# root) on a loop device inside private namespaces. Every manual page it carries must render without a
# warning, and lintian must find no error.

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD_DIR, SOURCE_DIR, Disk, Node, _mkdtemp, getro, require

PREFIX = "/opt/zor"


def version():
    return re.search(r"^CMAKE_PROJECT_VERSION:\w+=(.+)$", (BUILD_DIR / "CMakeCache.txt").read_text(), re.M)[1]


@pytest.fixture(scope="module")
def package():
    out = _mkdtemp("zor-deb.")
    deb = subprocess.run([str(SOURCE_DIR / "packaging" / "mkdeb.sh"), str(BUILD_DIR), str(out)],
                         check=True, capture_output=True, text=True).stdout.strip()
    root = out / "root"
    subprocess.run(["dpkg-deb", "-x", deb, str(root)], check=True)
    yield Path(deb), root
    shutil.rmtree(out, ignore_errors=True)


def control(deb, option, name):
    """A control field (option -f) or control file (-I) of the package."""
    return subprocess.run(["dpkg-deb", option, str(deb), name], check=True, capture_output=True,
                          text=True).stdout.strip()


# Where an operator's tools look for each part of the package; every OCF agent comes with its page, named
# as resource-agents names its own.
TOOLS, AGENTS = ("zordisk", "zorstat", "zorroset", "zorrelpath"), ("zordisk", "zornas")
PROGRAMS = [f"opt/zor/bin/{t}" for t in TOOLS] + [f"usr/lib/ocf/resource.d/zor/{a}" for a in AGENTS]
FILES = [f"usr/share/man/man8/{t}.8.gz" for t in TOOLS] + [f"usr/share/man/man7/ocf_zor_{a}.7.gz" for a in AGENTS] + [
    "opt/zor/etc/zor.conf", "opt/zor/etc/zor.conf.sample", "usr/share/man/man5/zor.conf.5.gz",
    "usr/share/doc/zor/copyright"]


def test_layout_conffile_and_dependencies(package):
    deb, root = package
    assert deb.name == f"zor_{version()}_{control(deb, '-f', 'Architecture')}.deb"
    assert [p for p in PROGRAMS if not os.access(root / p, os.X_OK)] == []
    assert [f for f in FILES if not (root / f).is_file()] == []
    assert [d for d in ("log", "var/registry", "run") if not (root / "opt/zor" / d).is_dir()] == []
    assert os.readlink(root / "opt/zor/bin/zornas") == "zordisk"
    assert os.readlink(root / "usr/share/man/man8/zornas.8.gz") == "zordisk.8.gz"
    # The node's tree stays ZOR_HOME's default, and its configuration is never replaced.
    assert f"<path>{PREFIX}</path>" in (root / "opt/zor/etc/zor.conf").read_text()
    assert control(deb, "-I", "conffiles").split() == [PREFIX + "/etc/zor.conf"]
    assert {"mount", "iputils-ping"} <= {d.strip() for d in control(deb, "-f", "Depends").split(",")}
    assert not (root / "opt/zor/share").exists()


def render(page, width=80):
    env = dict(os.environ, MANWIDTH=str(width), LC_ALL="C.UTF-8")
    return subprocess.run(["man", "--warnings", "-l", str(page)], env=env, capture_output=True, text=True, timeout=60)


def test_every_manual_page_renders_without_warnings(package, tmp_path):
    # The check itself: a page with an unknown macro must be caught.
    bad = tmp_path / "bad.8"
    bad.write_text(".TH BAD 8\n.SH NAME\nbad \\- page\n.XYZ\n")
    assert "XYZ" in render(bad).stderr
    _, root = package
    pages = sorted((root / "usr/share/man").glob("man*/*"))
    assert len(pages) >= 6
    for page in pages:
        res = render(page)
        # The page names what it was installed as (zornas shares the page of zordisk).
        head = res.stdout.split("DESCRIPTION")[0].replace("\u2010", "-")
        assert (res.returncode, res.stderr, page.name.rsplit(".", 2)[0] in head, len(res.stdout.splitlines()) > 15) \
            == (0, "", True, True), page


def test_lintian_finds_no_error(package):
    require(shutil.which("lintian"), "needs lintian (./run test installs it)")
    if "ZOR_SANITIZE:BOOL=ON" in (BUILD_DIR / "CMakeCache.txt").read_text():
        pytest.skip("a package is made from the normal build only: sanitizer programs are not static")
    deb, _ = package
    res = subprocess.run(["lintian", "--fail-on", "error", str(deb)], capture_output=True, text=True, timeout=300)
    assert (res.returncode, [line for line in res.stdout.splitlines() if line.startswith("E:")]) == (0, []), \
        res.stdout + res.stderr


def test_activation_and_deactivation_from_the_unpacked_tree(package, ns, loopdev):
    home = package[1] / "opt/zor"
    node = Node(home, home=home, prefix=PREFIX)
    try:
        assert node.run(["--version"]).stdout == f"zordisk (zor) {version()}\n"
        d = Disk(node, ns, loopdev)
        # As a deactivated resource's device is; the check runs with the system's fsck.
        subprocess.run(["blockdev", "--setro", d.dev], check=True)
        d.set({"fsck/timing": 1})
        assert (d.act("--active"), d.mounts(), getro(d.dev)) == ((0, "Success."), 1, "0"), d.new
        assert (node.home / "log" / "disk_fsck.log").stat().st_size > 0
        assert (d.act("--deactive"), d.mounts(), getro(d.dev)) == ((0, "Success."), 0, "1"), d.new
        # The commands came from the unpacked tree: the read-only switch named by the configuration.
        assert any(f'"{node.home}/bin/zorroset"' in m for m in d.new), d.new
    finally:
        node.cleanup()
