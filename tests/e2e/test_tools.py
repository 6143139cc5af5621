"""zorroset and zorrelpath, the two commands the agent runs beside itself.

zorrelpath kills processes, so every scenario of it runs inside the private
mount and PID namespace of the `ns` fixture: holders, bystanders, mounts and
the tool itself live and die there.
"""

import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

from conftest import require_root


def _tool(install_dir, name):
    return str(install_dir / "bin" / name)


# ---------------------------------------------------------------- zorroset

def _getro(dev):
    return subprocess.run(["blockdev", "--getro", dev], capture_output=True, text=True,
                          check=True).stdout.strip()


def test_roset_switches_a_loop_device_both_ways(install_dir, loopdev):
    require_root()
    dev = loopdev(size_mb=8, fs=None)
    roset = _tool(install_dir, "zorroset")
    # Repeats included: switching to the state a device is already in is no error.
    for flag, want in (("-o", "1"), ("-o", "1"), ("-w", "0"), ("-w", "0"), ("-o", "1"), ("-w", "0")):
        r = subprocess.run([roset, flag, "-d", dev], capture_output=True, text=True)
        assert (r.returncode, r.stderr) == (0, ""), flag
        assert _getro(dev) == want, flag


@pytest.mark.parametrize("kind", ["missing", "regular file", "character device", "directory"])
def test_roset_refuses_what_is_not_a_block_device(install_dir, tmp_path, kind):
    require_root()
    target = {
        "missing": str(tmp_path / "no-such-device"),
        "regular file": str(tmp_path / "image"),
        "character device": "/dev/null",
        "directory": str(tmp_path),
    }[kind]
    (tmp_path / "image").write_bytes(b"\0" * 4096)
    for flag in ("-o", "-w"):
        r = subprocess.run([_tool(install_dir, "zorroset"), flag, "-d", target], capture_output=True,
                           text=True)
        assert r.returncode == 1, (flag, r.stderr)
        assert target in r.stderr


def test_roset_usage_errors_leave_the_device_alone(install_dir, loopdev):
    require_root()
    dev = loopdev(size_mb=8, fs=None)
    roset = _tool(install_dir, "zorroset")
    subprocess.run(["blockdev", "--setro", dev], check=True)
    # Each of these holds "-w" somewhere, so a parser that acted anyway would show.
    for args in ([], ["-w"], ["-d", dev], ["-w", "-o", "-d", dev], ["-x", "-w", "-d", dev],
                 ["-w", "-d", dev, "extra"], ["-w", "-d"], ["-w", "-d", ""]):
        r = subprocess.run([roset] + args, capture_output=True, text=True)
        assert r.returncode == 2, args
        assert "Usage" in r.stderr, args
        assert _getro(dev) == "1", args


def test_roset_reports_a_refused_switch(install_dir, loopdev):
    require_root()
    dev = loopdev(size_mb=8, fs=None)
    subprocess.run(["blockdev", "--setro", dev], check=True)
    # Root without CAP_SYS_ADMIN can open the device, but the kernel refuses BLKROSET.
    r = subprocess.run(["setpriv", "--bounding-set", "-sys_admin", "--",
                        _tool(install_dir, "zorroset"), "-w", "-d", dev], capture_output=True, text=True)
    assert r.returncode == 3, r.stderr
    assert dev in r.stderr
    assert _getro(dev) == "1"


# ---------------------------------------------------------------- zorrelpath

# Maps a file on the mount and closes the descriptor, so that only the memory
# map holds the mount (checked here, or the case would test something else).
MMAP_HOLDER = r"""
import ctypes, os, sys, time
mp, pidfile = sys.argv[1], sys.argv[2]
os.chdir("/")
libc = ctypes.CDLL(None, use_errno=True)
libc.mmap.restype = ctypes.c_void_p
libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                      ctypes.c_long]
fd = os.open(os.path.join(mp, "data"), os.O_RDONLY)
addr = libc.mmap(None, 4096, 1, 1, fd, 0)  # PROT_READ, MAP_SHARED
os.close(fd)
if addr in (None, ctypes.c_void_p(-1).value):
    sys.exit(3)
for n in os.listdir("/proc/self/fd"):
    try:
        if os.readlink("/proc/self/fd/" + n).startswith(mp):
            sys.exit(4)
    except OSError:
        pass
with open(pidfile + ".tmp", "w") as f:
    f.write(str(os.getpid()))
os.rename(pidfile + ".tmp", pidfile)
time.sleep(1000)
"""


class Proc:
    def __init__(self, popen, pid):
        self.popen = popen
        self.pid = pid


class Scene:
    """A file system mounted inside the namespace, and processes started around it."""

    def __init__(self, ns, dev, top):
        self.ns = ns
        self.top = top                      # on the host's file system, shared with the namespace
        self.parent = top / "parent"
        self.mp = self.parent / "mnt"
        self.plain = self.parent / "plain"
        for d in (self.mp, self.plain / "dir"):
            d.mkdir(parents=True)
        self.count = 0
        self.sh(f"mount {dev} {self.mp} && head -c 8192 /dev/zero > {self.mp}/data && "
                f"mkdir {self.mp}/dir && cp /bin/sleep {self.mp}/sleep")

    def sh(self, script):
        r = self.ns.sh(script)
        assert r.returncode == 0, (script, r.stderr)
        return r

    def start(self, script=None, argv=None, comm="sleep"):
        """Starts a process in the namespace; @MP@, @PARENT@, @PLAIN@ and @READY@ in
        `script` are the mount point, its parent, a plain directory and the command
        that tells the test the process is set up. Returns it once its comm is `comm`."""
        self.count += 1
        pidfile = self.top / f"pid{self.count}"
        if argv is None:
            ready = f"echo $$ > {pidfile}.tmp && mv {pidfile}.tmp {pidfile}"
            for key, val in (("@MP@", self.mp), ("@PARENT@", self.parent), ("@PLAIN@", self.plain),
                             ("@READY@", ready)):
                script = script.replace(key, str(val))
            argv = ["bash", "-c", script]
        else:
            argv = [a.replace("@MP@", str(self.mp)).replace("@PIDFILE@", str(pidfile)) for a in argv]
        popen = self.ns.popen(argv, cwd="/")
        deadline = time.time() + 10
        while not pidfile.exists():
            assert popen.poll() is None, f"{argv} ended early ({popen.returncode})"
            assert time.time() < deadline, f"{argv} did not start"
            time.sleep(0.01)
        pid = int(pidfile.read_text())
        # bash has written its PID; the process is ready once it runs the final command.
        while self.ns.run(["cat", f"/proc/{pid}/comm"]).stdout.strip() != comm:
            assert time.time() < deadline, f"{argv} never became {comm}"
            time.sleep(0.01)
        return Proc(popen, pid)

    def bystanders(self):
        return [self.start("cd / && @READY@ && exec sleep 1000"),
                self.start("cd @PARENT@ && @READY@ && exec sleep 1000")]

    def relpath(self, install_dir, path=None):
        return self.ns.run([_tool(install_dir, "zorrelpath"), str(self.mp if path is None else path)],
                           timeout=60)

    def alive(self, proc):
        stat = self.ns.run(["cat", f"/proc/{proc.pid}/stat"]).stdout
        return proc.popen.poll() is None and stat.startswith(f"{proc.pid} (") and \
            stat.rsplit(")", 1)[1].split()[0] != "Z"

    def ended_by(self, proc):
        """The signal that ended the process (nsenter passes it on), or None while it lives."""
        try:
            rc = proc.popen.wait(timeout=5)
        except subprocess.TimeoutExpired:
            return None
        return -rc if rc < 0 else rc


@pytest.fixture
def scene(ns, loopdev):
    top = Path(tempfile.mkdtemp(prefix="zor-relpath.", dir="/tmp"))
    s = Scene(ns, loopdev(size_mb=16), top)
    yield s
    # The namespace's teardown ends its processes and mounts; a lazy unmount
    # first, so that removing the directories cannot meet a live mount.
    ns.run(["umount", "-R", "-l", str(s.mp)])
    shutil.rmtree(top, ignore_errors=True)


HOLDERS = {
    "cwd": dict(script="cd @MP@/dir && @READY@ && exec sleep 1000"),
    "open file": dict(script="cd / && exec 3<@MP@/data && @READY@ && exec sleep 1000"),
    "file open for writing": dict(script="cd / && exec 3>>@MP@/data && @READY@ && exec sleep 1000"),
    "memory map": dict(argv=["python3", "-c", MMAP_HOLDER, "@MP@", "@PIDFILE@"], comm="python3"),
    "executable": dict(script="cd / && @READY@ && exec @MP@/sleep 1000"),
}


@pytest.mark.parametrize("kind", HOLDERS)
def test_relpath_ends_each_kind_of_holder(install_dir, scene, kind):
    holder = scene.start(**HOLDERS[kind])
    others = scene.bystanders()
    r = scene.relpath(install_dir)
    assert r.returncode == 1, r.stderr
    assert f"SIGTERM to {holder.pid} (" in r.stderr
    assert "SIGKILL" not in r.stderr
    assert scene.ended_by(holder) == signal.SIGTERM
    assert all(scene.alive(p) for p in others)
    scene.sh(f"umount {scene.mp}")


def test_relpath_kills_what_ignores_sigterm(install_dir, scene):
    holder = scene.start("trap '' TERM && cd @MP@ && @READY@ && exec sleep 1000")
    others = scene.bystanders()
    t0 = time.monotonic()
    r = scene.relpath(install_dir)
    took = time.monotonic() - t0
    assert r.returncode == 1, r.stderr
    assert f"SIGKILL to {holder.pid} (sleep)" in r.stderr
    assert scene.ended_by(holder) == signal.SIGKILL
    assert 0.9 < took < 5, took      # the grace, then no long wait
    assert all(scene.alive(p) for p in others)
    scene.sh(f"umount {scene.mp}")


def test_relpath_wakes_a_stopped_holder_for_sigterm(install_dir, scene):
    holder = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    scene.sh(f"kill -STOP {holder.pid}")
    r = scene.relpath(install_dir)
    assert r.returncode == 1, r.stderr
    assert "SIGKILL" not in r.stderr
    assert not scene.alive(holder)
    # nsenter stopped along with its child; once continued it reports how the child ended.
    os.kill(holder.popen.pid, signal.SIGCONT)
    assert scene.ended_by(holder) == signal.SIGTERM
    scene.sh(f"umount {scene.mp}")


def test_relpath_spares_a_holder_that_lets_go_on_sigterm(install_dir, scene):
    # The shell leaves the mount in its trap; its short-lived children are ended.
    shell = scene.start("trap 'cd /' TERM; cd @MP@ && @READY@ && while :; do sleep 0.05; done", comm="bash")
    r = scene.relpath(install_dir)
    assert r.returncode == 1, r.stderr
    assert "SIGKILL" not in r.stderr
    assert scene.alive(shell)
    scene.sh(f"umount {scene.mp}")


def test_relpath_with_nothing_holding(install_dir, scene):
    others = scene.bystanders()
    r = scene.relpath(install_dir)
    assert (r.returncode, r.stderr) == (0, "")
    assert all(scene.alive(p) for p in others)
    scene.sh(f"umount {scene.mp}")


@pytest.mark.parametrize("spelling", ["trailing slash", "doubled slashes", "symlink to it", "relative"])
def test_relpath_accepts_other_spellings_of_the_mount_point(install_dir, scene, spelling):
    holder = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    (scene.parent / "link").symlink_to("mnt")
    path = {
        "trailing slash": f"{scene.mp}/",
        "doubled slashes": str(scene.mp).replace("/", "//") + "//",
        "symlink to it": f"{scene.parent}/link",
        "relative": "mnt",
    }[spelling]
    if spelling == "relative":
        r = scene.ns.sh(f"cd {scene.parent} && {_tool(install_dir, 'zorrelpath')} {path}")
    else:
        r = scene.relpath(install_dir, path)
    assert r.returncode == 1, r.stderr
    assert f"{scene.mp}: SIGTERM to {holder.pid}" in r.stderr
    assert scene.ended_by(holder) == signal.SIGTERM
    scene.sh(f"umount {scene.mp}")


def test_relpath_unescapes_the_mount_table(install_dir, scene):
    # The mount table writes blank, tab and backslash as octal escapes.
    odd = scene.top / "a b\\c\td"
    odd.mkdir()
    assert scene.ns.run(["mount", "-t", "tmpfs", "odd", str(odd)]).returncode == 0
    script = 'cd "$1" && echo $$ > "$2.tmp" && mv "$2.tmp" "$2" && exec sleep 1000'
    holder = scene.start(argv=["bash", "-c", script, "holder", str(odd), "@PIDFILE@"])
    r = scene.relpath(install_dir, odd)
    assert r.returncode == 1, r.stderr
    assert scene.ended_by(holder) == signal.SIGTERM


def test_relpath_refuses_what_is_not_a_mount_point(install_dir, scene):
    # Every process here would match a path-prefix or device-of-the-directory
    # approach: a holder in a plain directory, one in a directory of the mount.
    in_plain = scene.start("cd @PLAIN@/dir && @READY@ && exec sleep 1000")
    in_mount = scene.start("cd @MP@/dir && @READY@ && exec sleep 1000")
    others = scene.bystanders()
    for path, code in ((scene.plain, 3), (f"{scene.plain}/", 3), (f"{scene.mp}/dir", 3), ("/", 3),
                       ("//", 3), (scene.parent / "absent", 3), (scene.top / "absent" / "mnt", 3),
                       (f"{scene.mp}/dir/..", 2), (f"{scene.mp}/.", 2), ("", 2), ("-x", 2)):
        r = scene.relpath(install_dir, path)
        assert r.returncode == code, (path, r.stderr)
        assert " to " not in r.stderr, path
    for extra in ([], [str(scene.mp), str(scene.mp)]):
        assert scene.ns.run([_tool(install_dir, "zorrelpath")] + extra).returncode == 2
    assert all(scene.alive(p) for p in [in_plain, in_mount] + others)


def test_relpath_spares_itself_and_its_ancestors(install_dir, scene):
    holder = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    # The calling shell, and so the tool itself, work in the mount.
    r = scene.ns.sh(f"cd {scene.mp} && {_tool(install_dir, 'zorrelpath')} {scene.mp}; echo rc=$?")
    assert r.stdout.strip() == "rc=1", r.stderr
    assert scene.ended_by(holder) == signal.SIGTERM


def test_relpath_releases_only_the_top_of_stacked_mounts(install_dir, scene):
    below = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    scene.sh(f"mount -t tmpfs top {scene.mp}")
    above = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    r = scene.relpath(install_dir)
    assert r.returncode == 1, r.stderr
    assert scene.ended_by(above) == signal.SIGTERM
    assert scene.alive(below)
    scene.sh(f"umount {scene.mp}")                      # the tmpfs
    assert scene.relpath(install_dir).returncode == 1   # now the loop device's file system
    assert scene.ended_by(below) == signal.SIGTERM


def test_relpath_on_a_bind_mount_of_the_root_file_system(install_dir, scene):
    # The bind mount shares its device with "/", where every process's executable
    # and libraries live: only users of the bind mount itself may be touched.
    bindpoint = scene.top / "bind"
    bindpoint.mkdir()
    scene.sh(f"mount --bind {os.path.dirname(os.path.realpath(shutil.which('sleep')))} {bindpoint}")
    holder = scene.start(f"cd {bindpoint} && @READY@ && exec sleep 1000")
    others = scene.bystanders() + [scene.start("cd @MP@ && @READY@ && exec sleep 1000")]
    r = scene.relpath(install_dir, bindpoint)
    assert r.returncode == 1, r.stderr
    assert scene.ended_by(holder) == signal.SIGTERM
    assert all(scene.alive(p) for p in others)
    assert scene.ns.run(["cat", "/proc/1/comm"]).stdout.strip() == "sleep"
    scene.sh(f"umount {bindpoint}")
