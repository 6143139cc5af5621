# Harness of the end-to-end scenarios.
#
# Each scenario runs the installed programs on an isolated cluster node: a
# temporary ZOR_HOME with its own configuration, logs, registry and status
# table. Anything that mounts, starts or kills processes runs inside a private
# mount and PID namespace, so that it can never see or touch a mount or a
# process outside the test. Loop devices are made with `losetup --find --show`
# and detached in cleanup registered the moment they exist.

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import xml.etree.ElementTree as ET
from pathlib import Path

import pytest

SOURCE_DIR = Path(os.environ.get("ZOR_SOURCE_DIR", Path(__file__).resolve().parents[2]))
BUILD_DIR = Path(os.environ.get("ZOR_BUILD_DIR", SOURCE_DIR / "build"))


def require(ok, why):
    """Skip a test whose needs are not met; under CI (which has them all) a skip would hide it, so fail."""
    if not ok:
        if os.environ.get("CI") == "true":
            pytest.fail(why + ", and CI must run this test")
        pytest.skip(why)


def require_root():
    require(os.geteuid() == 0, "needs root")


@pytest.fixture
def root():
    require_root()


def getro(dev):
    return subprocess.check_output(["blockdev", "--getro", dev], text=True).strip()


# Whether process `pid` runs (exists and is no zombie), as seen from here or from inside the namespace `ns`.
def alive(pid, ns=None):
    try:
        stat = ns.run(["cat", f"/proc/{pid}/stat"]).stdout if ns else Path(f"/proc/{pid}/stat").read_text()
        return stat.rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


# Polls `cond` until it holds; `what` (or what it returns, if callable) says what did not happen.
def wait_for(cond, timeout=10, what="condition not met in time"):
    deadline = time.time() + timeout
    while not cond():
        if time.time() > deadline:
            raise TimeoutError(what() if callable(what) else what)
        time.sleep(0.05)


def _mkdtemp(prefix):
    # World-traversable, so that a run under an unprivileged user can reach the node.
    path = Path(tempfile.mkdtemp(prefix=prefix, dir="/tmp"))
    path.chmod(0o755)
    return path


def install(prefix, build=BUILD_DIR):
    root = _mkdtemp(prefix)
    subprocess.run(["cmake", "--install", str(build), "--prefix", str(root)], check=True, stdout=subprocess.DEVNULL)
    return root


@pytest.fixture(scope="session")
def install_dir():
    root = install("zor-install.")
    yield root
    shutil.rmtree(root, ignore_errors=True)


class Conf:
    """The cluster configuration being edited, addressed by the library's own paths."""

    def __init__(self, text):
        self.root = ET.fromstring(text)

    def element(self, path, create=False):
        elem = self.root
        for seg in filter(None, path.split("/")[2:]):
            tag, _, name = seg.partition("@")
            found = elem.find(f"{tag}[@name='{name}']" if name else tag)
            if found is None and create:
                found = ET.SubElement(elem, tag, {"name": name} if name else {})
            if found is None:
                return None
            elem = found
        return elem

    def set(self, path, value):
        self.element(path, create=True).text = str(value)

    def get(self, path):
        elem = self.element(path)
        return None if elem is None else (elem.text or "")

    def delete(self, path):
        parent, elem = self.element(path.rpartition("/")[0]), self.element(path)
        if parent is not None and elem is not None:
            parent.remove(elem)

    def xml(self):
        return ET.tostring(self.root, encoding="unicode")


# The kernel's escape of a blank, tab or backslash in a mount table.
_OCTAL = re.compile(r"\\([0-3][0-7][0-7])")
# A record as syslog(3) sends it: <priority>time identity[pid]: message.
_SYSLOG = re.compile(r"^<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[]+)\[\d+\]: (.*)$", re.S)
# A trace record's head, before its message.
_RECORD = re.compile(r"^\S+ \S+ \[\d+:\d+\] \S+ \S+:\d+ \S+: (.*)$")


class Node:
    """A node of its own beside the installed tree."""

    def __init__(self, install):
        self.install = install
        self.home = _mkdtemp("zor-node.")
        (self.home / "bin").symlink_to(install / "bin")
        for sub in ("etc/policy", "log", "var/registry", "run"):
            (self.home / sub).mkdir(parents=True, exist_ok=True)
        sample = (install / "etc" / "zor.conf.sample").read_text()
        self.conf = Conf(sample.replace(str(install), str(self.home)))
        for rtype in ("disk", "nas"):  # the scenarios read every record
            self.conf.set(f"/root/{rtype}/log/level", 8)
        self.write_conf()

    def env(self, extra=None):
        return {**os.environ, "ZOR_HOME": str(self.home), **(extra or {})}

    def write_conf(self):
        (self.home / "etc" / "zor.conf").write_text(self.conf.xml())

    def edit(self, path, value=None):
        """Sets one key of the configuration, or deletes it when `value` is None, and writes it."""
        self.conf.delete(path) if value is None else self.conf.set(path, value)
        self.write_conf()

    def run(self, args, prog="zordisk", ns=None, user=None, timeout=120, env=None):
        cmd = [str(self.home / "bin" / prog)] + list(args)
        if user is not None:
            cmd = ["setpriv", "--reuid=" + user, "--regid=nogroup", "--clear-groups", "--"] + cmd
        if ns is not None:
            return ns.run(cmd, env=self.env(env), timeout=timeout)
        return subprocess.run(cmd, env=self.env(env), capture_output=True, text=True, timeout=timeout)

    def records(self, **run):
        res = self.run(["--json"], prog="zorstat", **run)
        assert res.returncode == 0, res.stderr
        return json.loads(res.stdout or "[]")

    def status(self, group, resource, rtype="disk"):
        key = (group, resource, rtype)
        return next((r["text"] for r in self.records() if (r["group"], r["resource"], r["type"]) == key), None)

    def log(self, name="disk"):
        path = self.home / "log" / (name + ".log")
        return path.read_text(errors="replace") if path.exists() else ""

    def messages(self, name="disk"):
        return [_RECORD.sub(r"\1", line) for line in self.log(name).splitlines()]

    def cleanup(self):
        # The node's status table lives in /dev/shm, outside its tree.
        name = self.run(["--table-name"], prog="zorstat")
        if name.returncode == 0 and name.stdout.strip():
            Path("/dev/shm/" + name.stdout.strip().lstrip("/")).unlink(missing_ok=True)
        shutil.rmtree(self.home, ignore_errors=True)


@pytest.fixture
def node(install_dir):
    n = Node(install_dir)
    yield n
    n.cleanup()


class Namespace:
    """A private mount and PID namespace kept alive by its first process `init`. `prefix` starts it through a
    command, e.g. ["ip", "netns", "exec", NAME]: the commands run inside then enter that network namespace
    as well; `extra` names further namespaces of its own ("uts", "ipc")."""

    def __init__(self, prefix=(), extra=(), init=("sleep", "infinity")):
        self.net = (["--net"] if prefix else []) + [f"--{e}" for e in extra]
        self.init_pid, self.procs, self.sockets = None, [], []
        # No inherited output: a caller reading ours must see its end.
        self.holder = subprocess.Popen(
            list(prefix) + ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--mount-proc"]
            + [f"--{e}" for e in extra] + ["--kill-child"] + list(init),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        children = Path(f"/proc/{self.holder.pid}/task/{self.holder.pid}/children")

        def started():
            with contextlib.suppress(OSError, IndexError):
                pid = int(children.read_text().split()[0])
                # The child is the namespace's init once it runs `init`.
                if Path(f"/proc/{pid}/comm").read_text().strip() == Path(init[0]).name[:15]:
                    self.init_pid = pid
            return self.init_pid is not None or self.holder.poll() is not None

        with contextlib.suppress(TimeoutError):
            wait_for(started, 10)
        if self.init_pid is None:
            self.close()
            raise RuntimeError("the test namespace did not start")

    def _enter(self, cmd):
        return ["nsenter", "--target", str(self.init_pid)] + self.net + ["--mount", "--pid", "--"] + list(cmd)

    def mounts(self, point):
        """Mount-table lines of the namespace whose mount point, its escapes undone, is `point`."""
        out = self.run(["cat", "/proc/self/mounts"], check=True).stdout
        return [line for line in out.splitlines()
                if _OCTAL.sub(lambda m: chr(int(m.group(1), 8)), line.split(" ")[1]) == str(point)]

    def run(self, cmd, env=None, check=False, timeout=120):
        r = subprocess.run(self._enter(cmd), env=env, timeout=timeout, capture_output=True, text=True)
        if check and r.returncode != 0:
            raise RuntimeError(f"{cmd}: exit status {r.returncode}: {r.stdout}{r.stderr}")
        return r

    def sh(self, script, check=False, timeout=120):
        return self.run(["bash", "-c", script], check=check, timeout=timeout)

    def popen(self, cmd, env=None, **kw):
        quiet = subprocess.DEVNULL
        p = subprocess.Popen(self._enter(cmd), env=env, **{"stdin": quiet, "stdout": quiet, "stderr": quiet, **kw})
        self.procs.append(p)
        return p

    def syslog(self, folder):
        """Gives the namespace a /dev/log of the test's (the machine's /dev stays reachable through links) and
        returns a function that reads what arrived there: (priority, identity, message) of each record."""
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(str(folder / "log.sock"))
        sock.setblocking(False)
        self.sockets.append(sock)
        self.sh(f"mkdir {folder}/dev && mount --rbind /dev {folder}/dev && mount -t tmpfs zor-dev /dev && "
                f"ln -s {folder}/dev/* /dev/ && ln -sf {folder}/log.sock /dev/log", check=True)

        def received():
            records = []
            with contextlib.suppress(BlockingIOError):
                while True:
                    m = _SYSLOG.match(sock.recv(4096).decode())
                    records.append((int(m[1]), m[2], m[3]))
            return records
        return received

    def close(self):
        for sock in self.sockets:
            sock.close()
        # Killing the namespace's init makes the kernel kill every process in it;
        # the mounts go with the last process of the mount namespace.
        if self.init_pid is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.init_pid, signal.SIGKILL)
        for p in [self.holder] + self.procs:
            try:
                p.wait(timeout=20)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()


class LoopDevices:
    def __init__(self):
        self.dir = _mkdtemp("zor-img.")
        self.devices = []

    def image(self, size_mb=64, fs="ext4", mkfs=()):
        # A new image with the file system `fs` (ext4, xfs) or none; `mkfs`: further options.
        img = self.dir / f"disk{len(list(self.dir.iterdir()))}.img"
        subprocess.run(["truncate", "-s", f"{size_mb}M", str(img)], check=True)
        if fs:
            subprocess.run([f"mkfs.{fs}", "-q", "-F" if fs == "ext4" else "-f", *mkfs, str(img)], check=True)
        return img

    def attach(self, img):
        dev = subprocess.check_output(["losetup", "--find", "--show", str(img)], text=True).strip()
        self.devices.append(dev)
        return dev

    # Called as the fixture `loopdev` is: a new image attached to a loop device.
    def __call__(self, size_mb=64, fs="ext4"):
        return self.attach(self.image(size_mb, fs))

    def close(self):
        for dev in reversed(self.devices):
            # The kernel may release a file system of a torn-down namespace a moment late.
            subprocess.run(["blockdev", "--setrw", dev], capture_output=True)
            with contextlib.suppress(TimeoutError):
                wait_for(lambda: subprocess.run(["losetup", "-d", dev], capture_output=True).returncode == 0, 5)
        shutil.rmtree(self.dir, ignore_errors=True)


@pytest.fixture
def loopdev(root):
    loops = LoopDevices()
    yield loops
    loops.close()


@pytest.fixture
def ns(loopdev):
    # Depends on loopdev so that loop devices are detached only after the
    # namespace, and with it every mount of them, is gone.
    space = Namespace()
    yield space
    space.close()


# The disk resource fs1 on a loop device, or the share share1, run in a private namespace, and scripts that
# stand in for a command and keep a record of their calls.
def script(folder, name, body):
    """An executable FOLDER/NAME that counts its calls in NAME.calls and keeps the arguments of the last
    call in NAME.args (NUL-separated), then runs `body` ($n: this call). Returns its path."""
    path, tally = folder / name, folder / (name + ".calls")
    path.write_text(f'#!/bin/bash\nn=$(( $(cat "{tally}" 2>/dev/null || echo 0) + 1 ))\necho $n > "{tally}"\n'
                    f'printf "%s\\0" "$@" > "{path}.args"\n{body}\n')
    path.chmod(0o755)
    return str(path)


class Resource:
    """disk@fs1 of group grp1 (zordisk) or nas@share1 of group grp2 (zornas), run in the namespace `ns`."""

    def __init__(self, node, ns, rtype="disk"):
        self.node, self.ns, self.rtype = node, ns, rtype
        self.rsc, self.group = ("fs1", "grp1") if rtype == "disk" else ("share1", "grp2")
        self.params = f"/root/resource/{rtype}@{self.rsc}/parameters"
        self.point = str(node.home / "mnt" / self.rsc)
        self.scripts = node.home / "scripts"
        self.scripts.mkdir(exist_ok=True)
        self.new = []

    def set(self, values):
        for key, value in values.items():
            self.node.conf.set(self.params + "/" + key, value)
        self.node.write_conf()

    def run(self, option, *more):
        """Runs the agent; the trace lines it added are kept in self.new."""
        mark = len(self.node.messages(self.rtype))
        res = self.node.run([option, "-r", self.rsc, "-g", self.group, *more], prog="zor" + self.rtype, ns=self.ns)
        self.new = self.node.messages(self.rtype)[mark:]
        return res

    def act(self, option):
        """(exit status, status text) of one run."""
        return self.run(option).returncode, self.status()

    def status(self):
        return self.node.status(self.group, self.rsc, rtype=self.rtype)

    def mounts(self):
        return len(self.ns.mounts(self.point))

    def said(self, text):
        return any(text in m for m in self.new)

    def script(self, name, body):
        return script(self.scripts, name, body)

    def calls(self, name):
        tally = self.scripts / (name + ".calls")
        return int(tally.read_text()) if tally.exists() else 0

    def args(self, name):
        path = self.scripts / (name + ".args")
        return path.read_text().split("\0")[:-1] if path.exists() else None

    def ocf(self, action, probe=False, level="", home=None, params=None):
        """(exit status, exit reasons) of the resource's OCF agent of the installed tree (a probe: interval 0),
        with further instance attributes `params` (OCF_RESKEY_ of each key); its stderr in self.err."""
        env = {"OCF_ROOT": "/usr/lib/ocf", "OCF_RESOURCE_INSTANCE": self.rsc, "OCF_RESKEY_resource": self.rsc,
               "OCF_RESKEY_group": self.group, "OCF_RESKEY_zor_home": str(home or self.node.home),
               "OCF_CHECK_LEVEL": str(level), "OCF_RESKEY_CRM_meta_interval": "0" if probe else "20000",
               "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **{f"OCF_RESKEY_{k}": v for k, v in (params or {}).items()}}
        r = self.ns.run([str(self.node.install / "lib/ocf/resource.d/zor" / ("zor" + self.rtype)), action], env=env)
        self.err = r.stderr
        return r.returncode, [line.split(":", 1)[1] for line in r.stderr.splitlines()
                              if line.startswith("ocf-exit-reason:")]


class Disk(Resource):
    """disk@fs1 on one loop device with an ext4 or xfs file system; no check, no retries."""

    def __init__(self, node, ns, loopdev, fs="ext4"):
        super().__init__(node, ns)
        self.dev = loopdev(300 if fs == "xfs" else 64, fs)
        self.set({"device": self.dev, "fs": fs, "mount/point": self.point, "mount/timeout": 20,
                  "mount/retry": 0, "mount/action": 0, "mount/xfsaction": 0, "umount/timeout": 20,
                  "umount/retry": 1, "umount/action": "none", "umount/interval": 0, "fsck/timing": 0,
                  "fsck/timeout": 120, "fsck/xfstimeout": 120, "fsck/xfstiming": 0})


@pytest.fixture
def disk(node, ns, loopdev):
    return Disk(node, ns, loopdev)
