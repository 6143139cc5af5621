# The Debian package, never installed on this machine: it is built from the build directory, checked by
# lintian, and installed, upgraded and purged with dpkg in a throw-away copy of the machine (an overlay of
# "/" in a private mount and PID namespace), where an operator's commands run from the PATH on a loop
# device. Every manual page it carries must render without a warning.

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD_DIR, SOURCE_DIR, require


def version():
    return re.search(r"^CMAKE_PROJECT_VERSION:\w+=(.+)$", (BUILD_DIR / "CMakeCache.txt").read_text(), re.M)[1]


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    out = tmp_path_factory.mktemp("deb")
    deb = subprocess.run([str(SOURCE_DIR / "packaging" / "mkdeb.sh"), str(BUILD_DIR), str(out)],
                         check=True, capture_output=True, text=True).stdout.strip()
    root = out / "root"
    subprocess.run(["dpkg-deb", "-x", deb, str(root)], check=True)
    return Path(deb), root


def render(page, width=80):
    env = dict(os.environ, MANWIDTH=str(width), LC_ALL="C.UTF-8")
    return subprocess.run(["man", "--warnings", "-l", str(page)], env=env, capture_output=True, text=True, timeout=60)


# Pages are for operators: a source or test file named in one is a developer's note that slipped in.
SOURCE_FILE = re.compile(r"[\w/.-]+\.(?:cpp|h|py)\b|\btests?/")


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
        assert (res.returncode, res.stderr, page.name.rsplit(".", 2)[0] in head, len(res.stdout.splitlines()) > 15,
                SOURCE_FILE.findall(res.stdout)) == (0, "", True, True, []), page


def test_lintian_finds_no_error(package):
    require(shutil.which("lintian"), "needs lintian (./run test installs it)")
    if "ZOR_SANITIZE:BOOL=ON" in (BUILD_DIR / "CMakeCache.txt").read_text():
        pytest.skip("a package is made from the normal build only: sanitizer programs are not static")
    deb, _ = package
    res = subprocess.run(["lintian", "--fail-on", "error", str(deb)], capture_output=True, text=True, timeout=300)
    assert (res.returncode, [line for line in res.stdout.splitlines() if line.startswith("E:")]) == (0, []), \
        res.stdout + res.stderr


class System:
    """This machine as a throw-away copy: "/" under an overlay whose writes go to a tmpfs, in the namespace
    `ns`, with the machine's devices (a status table of its own) and /proc. `sh` runs as root chrooted in it."""

    def __init__(self, ns, top):
        self.ns, self.upper, self.root = ns, top / "upper", top / "root"
        ns.sh(f"mkdir {top} && mount -t tmpfs zor-top {top} && mkdir {self.upper} {top}/work {self.root} && "
              f"mount -t overlay zor-system -o lowerdir=/,upperdir={self.upper},workdir={top}/work {self.root} && "
              f"mount --rbind /dev {self.root}/dev && mount -t tmpfs zor-shm {self.root}/dev/shm && "
              f"mount -t proc proc {self.root}/proc", check=True)
        # The manual page index is not rebuilt after every dpkg run.
        self.sh("rm -f /var/lib/man-db/auto-update")

    def sh(self, script):
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"}
        return self.ns.run(["chroot", str(self.root), "/bin/sh", "-ec", script], env=env, timeout=300)

    def made(self):
        """What the copy holds that the machine does not: files and links written, files removed (whiteouts),
        new directories; dpkg's own records left out, and the empty directories of base-files (/opt, /etc/opt)
        that dpkg removes with the last package shipping something there."""
        out = self.ns.run(["find", str(self.upper), "-mindepth", "1", "-printf", "%y %P\\n"], check=True).stdout
        entries = [line.split(" ", 1) for line in out.splitlines()]
        return [rel for kind, rel in entries if not rel.startswith(("var/lib/dpkg", "var/lib/man-db", "var/log", "tmp"))
                and not (kind == "d" and os.path.isdir("/" + rel))
                and not (kind == "c" and rel in ("opt", "etc/opt") and not os.listdir("/" + rel))]


def test_install_upgrade_and_purge(package, ns, loopdev, tmp_path):
    require(shutil.which("dpkg"), "needs dpkg")
    deb, _ = package
    # The same package one version later, for the upgrade.
    unpacked = tmp_path / "unpacked"
    subprocess.run(["dpkg-deb", "-R", str(deb), str(unpacked)], check=True)
    control = unpacked / "DEBIAN" / "control"
    control.write_text(control.read_text().replace(f"Version: {version()}\n", f"Version: {version()}+1\n"))
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", str(unpacked), str(tmp_path / "next.deb")],
                   check=True, capture_output=True)
    dev = loopdev(64, "ext4")
    subprocess.run(["blockdev", "--setro", dev], check=True)
    system = System(ns, tmp_path / "system")

    res = system.sh(f"dpkg -i {deb}")
    assert res.returncode == 0, res.stdout + res.stderr
    # The operator's commands are on the PATH.
    assert system.sh("for p in zordisk zornas zorroset zorrelpath zorstat; do command -v $p; done; "
                     "zordisk --version").stdout.split() == [
        f"/usr/sbin/{p}" for p in ("zordisk", "zornas", "zorroset", "zorrelpath")] + [
        "/usr/bin/zorstat", "zordisk", "(zor)", version()]
    # The example of zordisk(8) on the sample resource, given a device (checked when activated); it goes
    # through every link of the node's tree.
    conf = "/etc/opt/zor/zor.conf"
    system.sh(f"sed -i -e 's#/dev/loop0#{dev}#' -e 's#/mnt/zor/fs1#/tmp/zor-fs1#' "
              f"-e 's#<timing>2</timing>#<timing>1</timing>#' {conf}")
    states = []
    for action in ("--active", "--deactive"):
        res = system.sh(f"zordisk {action} -r fs1 -g grp1 && zorstat --json -g grp1 -r fs1")
        assert res.returncode == 0, res.stdout + res.stderr
        states += [(r["state"], r["text"]) for r in json.loads(res.stdout)]
    assert states == [("in service", "Success."), ("out of service", "Success.")]
    assert system.sh("test -s /var/opt/zor/log/disk_fsck.log && ls /var/opt/zor/log /var/opt/zor/run").stdout == \
        "/var/opt/zor/log:\ndisk.log\ndisk.log.lock\ndisk_fsck.log\ndisk_fsck.log.lock\n\n/var/opt/zor/run:\nmount.lock\nstatus.lock\n"
    # An upgrade keeps the edited configuration; a purge leaves nothing behind.
    edited = system.sh(f"md5sum {conf}").stdout
    res = system.sh(f"dpkg -i {tmp_path}/next.deb >&2 && md5sum {conf} && dpkg-query -W -f '${{Version}}' zor")
    assert (res.returncode, res.stdout) == (0, f"{edited}{version()}+1"), res.stdout + res.stderr
    res = system.sh("dpkg --purge zor >&2 && ls -A /dev/shm")
    assert (res.returncode, res.stdout, system.made()) == (0, "", []), res.stdout + res.stderr
