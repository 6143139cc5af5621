# Harness of the end-to-end scenarios.
#
# Each scenario runs the installed programs on an isolated cluster node: a
# temporary ZOR_HOME with its own configuration, logs, registry and status
# table. Anything that mounts, starts or kills processes runs inside a private
# mount and PID namespace, so that it can never see or touch a mount or a
# process outside the test. Loop devices are made with `losetup --find --show`
# and detached in cleanup registered the moment they exist.

import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import xml.etree.ElementTree as ET
from pathlib import Path

import pytest

SOURCE_DIR = Path(os.environ.get("ZOR_SOURCE_DIR", Path(__file__).resolve().parents[2]))
BUILD_DIR = Path(os.environ.get("ZOR_BUILD_DIR", SOURCE_DIR / "build"))


def require_root():
    """Skip a test that needs root; under CI (which is root) a skip would hide it, so fail."""
    if os.geteuid() != 0:
        if os.environ.get("CI") == "true":
            pytest.fail("this test needs root, and CI must run it")
        pytest.skip("needs root")


def getro(dev):
    return subprocess.check_output(["blockdev", "--getro", dev], text=True).strip()


def wait_for(cond, timeout=10):
    deadline = time.time() + timeout
    while not cond():
        assert time.time() < deadline, "condition not met in time"
        time.sleep(0.02)


def _mkdtemp(prefix):
    # World-traversable, so that a run under an unprivileged user can reach the node.
    path = Path(tempfile.mkdtemp(prefix=prefix, dir="/tmp"))
    path.chmod(0o755)
    return path


@pytest.fixture(scope="session")
def install_dir():
    root = _mkdtemp("zor-install.")
    subprocess.run(["cmake", "--install", str(BUILD_DIR), "--prefix", str(root)],
                   check=True, stdout=subprocess.DEVNULL)
    yield root
    shutil.rmtree(root, ignore_errors=True)


class Conf:
    """The cluster configuration being edited, addressed by the library's own paths."""

    def __init__(self, text):
        self.root = ET.fromstring(text)

    @staticmethod
    def _segments(path):
        parts = [p for p in path.split("/") if p]
        if not parts or parts[0] != "root":
            raise ValueError("a path starts at /root: " + path)
        return parts[1:]

    def _find(self, path, create=False):
        elem = self.root
        for seg in self._segments(path):
            tag, _, name = seg.partition("@")
            found = None
            for child in elem:
                if child.tag == tag and (not name or child.get("name") == name):
                    found = child
                    break
            if found is None:
                if not create:
                    return None
                found = ET.SubElement(elem, tag)
                if name:
                    found.set("name", name)
            elem = found
        return elem

    def set(self, path, value):
        self._find(path, create=True).text = str(value)

    def get(self, path):
        elem = self._find(path)
        return None if elem is None else (elem.text or "")

    def delete(self, path):
        segs = self._segments(path)
        parent = self._find("/root/" + "/".join(segs[:-1])) if len(segs) > 1 else self.root
        elem = self._find(path)
        if parent is not None and elem is not None:
            parent.remove(elem)

    def element(self, path, create=False):
        return self._find(path, create=create)

    def xml(self):
        return ET.tostring(self.root, encoding="unicode")


_RECORD = re.compile(r"^\S+ \S+ \[\d+:\d+\] \S+ \S+:\d+ \S+: (.*)$")


class Node:
    """A node of its own beside the installed tree; or, given `home`, the tree itself (an unpacked
    package), whose sample names the installation prefix `prefix`."""

    def __init__(self, install, home=None, prefix=None):
        self.install = install
        self.home = home or _mkdtemp("zor-node.")
        if home is None:
            (self.home / "bin").symlink_to(install / "bin")
        for sub in ("etc/policy", "log", "var/registry", "run"):
            (self.home / sub).mkdir(parents=True, exist_ok=True)
        sample = (install / "etc" / "zor.conf.sample").read_text()
        self.conf = Conf(sample.replace(prefix or str(install), str(self.home)))
        self.write_conf()

    def env(self, extra=None):
        env = dict(os.environ)
        env["ZOR_HOME"] = str(self.home)
        if extra:
            env.update(extra)
        return env

    def write_conf(self):
        (self.home / "etc" / "zor.conf").write_text(self.conf.xml())

    def run(self, args, prog="zordisk", ns=None, user=None, timeout=120, env=None):
        cmd = [str(self.home / "bin" / prog)] + list(args)
        if user is not None:
            cmd = ["setpriv", "--reuid=" + user, "--regid=nogroup", "--clear-groups", "--"] + cmd
        if ns is not None:
            return ns.run(cmd, env=self.env(env), timeout=timeout)
        return subprocess.run(cmd, env=self.env(env), capture_output=True, text=True, timeout=timeout)

    def records(self):
        out = subprocess.run([str(self.home / "bin" / "zorstat"), "--json"], env=self.env(),
                             capture_output=True, text=True, check=True)
        return json.loads(out.stdout or "[]")

    def status(self, group, resource, rtype="disk"):
        for rec in self.records():
            if rec["group"] == group and rec["resource"] == resource and rec["type"] == rtype:
                return rec["text"]
        return None

    def log(self, name="disk"):
        path = self.home / "log" / (name + ".log")
        return path.read_text(errors="replace") if path.exists() else ""

    def messages(self, name="disk"):
        out = []
        for line in self.log(name).splitlines():
            m = _RECORD.match(line)
            out.append(m.group(1) if m else line)
        return out

    def cleanup(self):
        # The node's status table lives in /dev/shm, outside its tree.
        name = subprocess.run([str(self.home / "bin" / "zorstat"), "--table-name"], env=self.env(),
                              capture_output=True, text=True)
        if name.returncode == 0 and name.stdout.strip():
            Path("/dev/shm/" + name.stdout.strip().lstrip("/")).unlink(missing_ok=True)
        shutil.rmtree(self.home, ignore_errors=True)


@pytest.fixture
def node(install_dir):
    n = Node(install_dir)
    yield n
    n.cleanup()


class Namespace:
    """A private mount and PID namespace kept alive by its first process `init` (a sleep).

    `prefix` starts the holder through a command, e.g. ["ip", "netns", "exec", NAME] to put the
    namespace into a network namespace, which the commands run inside then enter as well; `extra`
    names further namespaces of its own ("uts", "ipc").
    """

    def __init__(self, prefix=(), extra=(), init=("sleep", "infinity")):
        self.net = (["--net"] if prefix else []) + [f"--{e}" for e in extra]
        self.init_pid, self.procs = None, []
        # No inherited output: a caller reading ours must see its end.
        self.holder = subprocess.Popen(
            list(prefix) + ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--mount-proc"]
            + [f"--{e}" for e in extra] + ["--kill-child"] + list(init),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        deadline = time.time() + 10
        children = Path(f"/proc/{self.holder.pid}/task/{self.holder.pid}/children")
        while self.init_pid is None and time.time() < deadline and self.holder.poll() is None:
            try:
                pid = int(children.read_text().split()[0])
                # The child is the namespace's init once it runs `init`.
                if Path(f"/proc/{pid}/comm").read_text().strip() == Path(init[0]).name[:15]:
                    self.init_pid = pid
            except (OSError, IndexError):
                pass
            time.sleep(0.01)
        if self.init_pid is None:
            self.close()
            raise RuntimeError("the test namespace did not start")

    def _enter(self, cmd):
        return ["nsenter", "--target", str(self.init_pid)] + self.net + ["--mount", "--pid", "--"] + list(cmd)

    def mounts(self, point):
        """Mount-table lines of the namespace whose mount point is `point`."""
        out = self.run(["cat", "/proc/self/mounts"], check=True).stdout
        return [line for line in out.splitlines() if line.split(" ")[1:2] == [str(point)]]

    def run(self, cmd, env=None, check=False, timeout=120, input=None):
        return subprocess.run(self._enter(cmd), env=env, check=check, timeout=timeout, input=input,
                              capture_output=True, text=True)

    def sh(self, script, check=False, timeout=120, env=None):
        return self.run(["bash", "-c", script], env=env, check=check, timeout=timeout)

    def popen(self, cmd, env=None, **kw):
        kw.setdefault("stdin", subprocess.DEVNULL)
        kw.setdefault("stdout", subprocess.DEVNULL)
        kw.setdefault("stderr", subprocess.DEVNULL)
        p = subprocess.Popen(self._enter(cmd), env=env, **kw)
        self.procs.append(p)
        return p

    def close(self):
        # Killing the namespace's init makes the kernel kill every process in it;
        # the mounts go with the last process of the mount namespace.
        if self.init_pid is not None:
            try:
                os.kill(self.init_pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            self.holder.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.kill(self.holder.pid, signal.SIGKILL)
            self.holder.wait()
        for p in self.procs:
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()


class LoopDevices:
    def __init__(self):
        self.dir = _mkdtemp("zor-img.")
        self.devices = []

    def make(self, size_mb=64, fs="ext4", name=None):
        img = self.dir / (name or f"disk{len(self.devices)}.img")
        with open(img, "wb") as f:
            f.truncate(size_mb * 1024 * 1024)
        if fs == "ext4":
            subprocess.run(["mkfs.ext4", "-q", "-F", str(img)], check=True)
        elif fs == "xfs":
            subprocess.run(["mkfs.xfs", "-q", "-f", str(img)], check=True)
        elif fs is not None:
            subprocess.run(["mkfs", "-t", fs, str(img)], check=True, capture_output=True)
        dev = subprocess.run(["losetup", "--find", "--show", str(img)], check=True,
                             capture_output=True, text=True).stdout.strip()
        self.devices.append(dev)
        return dev

    def close(self):
        for dev in reversed(self.devices):
            # The kernel may release a file system of a torn-down namespace a moment late.
            subprocess.run(["blockdev", "--setrw", dev], capture_output=True)
            for _ in range(50):
                if subprocess.run(["losetup", "-d", dev], capture_output=True).returncode == 0:
                    break
                time.sleep(0.1)
        shutil.rmtree(self.dir, ignore_errors=True)


@pytest.fixture
def loopdev():
    require_root()
    loops = LoopDevices()
    yield loops.make
    loops.close()


@pytest.fixture
def ns(loopdev):
    # Depends on loopdev so that loop devices are detached only after the
    # namespace, and with it every mount of them, is gone.
    require_root()
    space = Namespace()
    yield space
    space.close()
