# zorroset and zorrelpath, the two commands the agent runs beside itself.
#
# zorrelpath kills processes, so every scenario of it runs inside the private
# mount and PID namespace of the `ns` fixture: holders, bystanders, mounts and
# the tool itself live and die there.

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from conftest import alive, getro, wait_for


def roset(install_dir, args, prefix=()):
    return subprocess.run([*prefix, str(install_dir / "bin" / "zorroset"), *args], capture_output=True, text=True)


def test_roset_switches_a_loop_device_and_refusals_leave_it_alone(install_dir, loopdev, tmp_path):
    dev = loopdev(size_mb=8, fs=None)
    # Repeats included: switching to the state a device is already in is no error.
    for flag, want in (("-o", "1"), ("-o", "1"), ("-w", "0"), ("-w", "0"), ("-o", "1")):
        r = roset(install_dir, [flag, "-d", dev])
        assert (r.returncode, r.stderr, getro(dev)) == (0, "", want), flag
    (tmp_path / "image").write_bytes(b"\0" * 4096)
    # Root without CAP_SYS_ADMIN can open the device, but the kernel refuses BLKROSET.
    nocap = ["setpriv", "--bounding-set", "-sys_admin", "--"]
    # (command prefix, arguments, exit status, text the message names); each holds "-w" where it can,
    # so a parser that acted anyway would show.
    cases = [([], [flag, "-d", target], 1, target) for flag in ("-o", "-w") for target in
             (str(tmp_path / "no-such-device"), str(tmp_path / "image"), "/dev/null", str(tmp_path))]
    cases += [([], args, 2, "Try 'zorroset --help'.") for args in
              ([], ["-w"], ["-d", dev], ["-w", "-o", "-d", dev], ["-x", "-w", "-d", dev],
               ["-w", "-d", dev, "extra"], ["-w", "-d"], ["-w", "-d", ""])]
    cases += [(nocap, ["-w", "-d", dev], 3, dev)]
    for prefix, args, code, text in cases:
        r = roset(install_dir, args, prefix)
        assert (r.returncode, text in r.stderr, getro(dev)) == (code, True, "1"), (args, r.stderr)
    # A device held exclusively (as a mount holds it) stays writable for its holder.
    assert roset(install_dir, ["-w", "-d", dev]).returncode == 0
    held = os.open(dev, os.O_RDONLY | os.O_EXCL)
    r = roset(install_dir, ["-o", "-d", dev])
    os.close(held)
    assert (r.returncode, "in use" in r.stderr, getro(dev)) == (4, True, "0"), r.stderr


# Maps a file on the mount, then closes every descriptor on the mount (the mmap module
# keeps a copy of its own), so that only the memory map holds it; then names itself
# "sleep", which tells the test it is ready.
MMAP_HOLDER = r"""
import ctypes, mmap, os, sys, time
with open(sys.argv[1] + "/data", "rb") as f:
    m = mmap.mmap(f.fileno(), 4096, prot=mmap.PROT_READ)
for n in os.listdir("/proc/self/fd"):
    if os.path.realpath("/proc/self/fd/" + n).startswith(sys.argv[1]):
        os.close(int(n))
ctypes.CDLL(None).prctl(15, b"sleep", 0, 0, 0)  # PR_SET_NAME
time.sleep(1000)
"""


class Scene:
    """In the namespace: a loop device's file system mounted on MP, a bind mount
    of the root file system's /usr/bin on BIND (same device as "/"), a tmpfs on a
    directory whose name the mount table escapes, and processes around them."""

    def __init__(self, ns, dev, top):
        self.ns, self.top = ns, top
        self.parent = top / "parent"
        self.places = {"@TOP@": top, "@MP@": self.parent / "mnt", "@PARENT@": self.parent,
                       "@PLAIN@": self.parent / "plain", "@BIND@": top / "bind", "@ODD@": top / "a b\\c\td"}
        for d in list(self.places.values())[1:] + [self.parent / "plain" / "dir"]:
            d.mkdir(parents=True, exist_ok=True)
        self.mp = self.places["@MP@"]
        (top / "mmap_holder.py").write_text(MMAP_HOLDER)
        ns.sh(f"mount {dev} {self.mp} && head -c 8192 /dev/zero > {self.mp}/data && mkdir {self.mp}/dir && "
              f"cp /bin/sleep {self.mp}/sleep && mount --bind /usr/bin {top}/bind && "
              f"mount -t tmpfs odd '{self.places['@ODD@']}'", check=True)
        # What happens in the test's namespace stays there.
        assert str(self.mp) not in Path("/proc/mounts").read_text()

    def expand(self, text, quote=""):
        for key, val in self.places.items():
            text = text.replace(key, f"{quote}{val}{quote}")
        return text

    def start(self, script, comm="sleep"):
        """Starts a process in the namespace; the places above and @READY@ (tells the
        test the process is set up) are replaced in `script`. Returns it once its comm is `comm`."""
        pidfile = self.top / f"pid{len(self.ns.procs)}"
        script = script.replace("@READY@", f"echo $$ > {pidfile}.tmp && mv {pidfile}.tmp {pidfile}")
        popen = self.ns.popen(["bash", "-c", self.expand(script, "'")], cwd="/")
        wait_for(lambda: pidfile.exists() or popen.poll() is not None)
        assert popen.poll() is None, f"{script} ended early ({popen.returncode})"
        popen.zpid = int(pidfile.read_text())
        # bash has written its PID; the process is ready once it runs the final command.
        wait_for(lambda: self.ns.run(["cat", f"/proc/{popen.zpid}/comm"]).stdout.strip() == comm)
        return popen

    def relpath(self, install_dir, path, cwd="/"):
        """Runs the tool from a shell working in `cwd`; returns (exit status, stderr); the
        status is None when the shell itself did not survive."""
        r = self.ns.sh(f"cd '{cwd}' && {install_dir}/bin/zorrelpath '{path}'; echo rc=$?", timeout=60)
        out = r.stdout.strip()
        return (int(out[3:]) if out.startswith("rc=") else None), r.stderr

    def alive(self, proc):
        return proc.poll() is None and alive(proc.zpid, self.ns)


@pytest.fixture
def scene(ns, loopdev, tmp_path):
    # The namespace's teardown ends its processes and mounts.
    return Scene(ns, loopdev(size_mb=16), tmp_path)


CWD = "cd @MP@/dir && @READY@ && exec sleep 1000"
TERM, KILL = signal.SIGTERM, signal.SIGKILL
# (holder: script, or (script, comm); path given; signal that ends the holder (None: it must
#  survive); directory the tool is run from)
HOLDERS = {
    "cwd": (CWD, "@MP@", TERM, "/"),
    "open file": ("cd / && exec 3<@MP@/data && @READY@ && exec sleep 1000", "@MP@", TERM, "/"),
    "memory map": ("cd / && @READY@ && exec python3 @TOP@/mmap_holder.py @MP@", "@MP@", TERM, "/"),
    "executable": ("cd / && @READY@ && exec @MP@/sleep 1000", "@MP@", TERM, "/"),
    "ignores SIGTERM": ("trap '' TERM && cd @MP@ && @READY@ && exec sleep 1000", "@MP@", KILL, "/"),
    "stopped": (CWD, "@MP@", TERM, "/"),
    # The shell leaves the mount in its trap; its short-lived children are ended.
    "lets go on SIGTERM": (("trap 'cd /' TERM; cd @MP@ && @READY@ && while :; do sleep 0.05; done", "bash"),
                           "@MP@", None, "/"),
    "relative": (CWD, "mnt", TERM, "@PARENT@"),
    # The calling shell, and so the tool itself, work in the mount.
    "tool works in it": (CWD, "@MP@", TERM, "@MP@"),
    # The mount table writes blank, tab and backslash as octal escapes.
    "escaped name": ("cd @ODD@ && @READY@ && exec sleep 1000", "@ODD@", TERM, "/"),
    # Shares its device with "/", where every process's executable and libraries live.
    "bind mount of /": ("cd @BIND@ && @READY@ && exec sleep 1000", "@BIND@", TERM, "/"),
}


@pytest.mark.parametrize("kind", HOLDERS)
def test_relpath_ends_the_holder_only(install_dir, scene, kind):
    holder, path, sig, cwd = HOLDERS[kind]
    script, comm = holder if isinstance(holder, tuple) else (holder, "sleep")
    holder = scene.start(script, comm=comm)
    if kind == "stopped":
        scene.ns.sh(f"kill -STOP {holder.zpid}", check=True)
    # Bystanders: in "/" (same device as the bind mount), above the mount, in the other mount.
    others = [scene.start(f"cd {d} && @READY@ && exec sleep 1000") for d in
              ("/", "@PARENT@", "@MP@" if path == "@BIND@" else "@BIND@")]
    t0 = time.monotonic()
    rc, err = scene.relpath(install_dir, scene.expand(path), scene.expand(cwd))
    took = time.monotonic() - t0
    assert (rc, "SIGKILL" in err) == (1, sig == KILL), err
    if sig is None:
        assert scene.alive(holder)
    else:
        assert f"SIGTERM to {holder.zpid} (" in err
        if kind == "stopped":  # nsenter stopped along with its child; continued, it tells how it ended
            os.kill(holder.pid, signal.SIGCONT)
        assert holder.wait(timeout=5) == -sig  # nsenter passes on the signal that ended it
    if sig == KILL:
        assert 0.9 < took < 5, took  # the grace, then no long wait
    assert (all(scene.alive(p) for p in others), scene.ns.run(["cat", "/proc/1/comm"]).stdout) == (True, "sleep\n")


def test_relpath_repeated_walk_finds_a_child_started_while_ending(install_dir, scene):
    # The holder starts a child in the mount from its SIGTERM handler, then exits: only
    # the repeated walk, which passes over the processes the first one saw, can find it.
    holder = scene.start("trap '(exec sleep 1000) & exit 0' TERM; cd @MP@ && @READY@ && "
                         "while :; do sleep 0.05; done", comm="bash")
    bystander = scene.start("cd / && @READY@ && exec sleep 1000")
    rc, err = scene.relpath(install_dir, str(scene.mp))
    assert rc == 1 and f"SIGTERM to {holder.zpid} (bash)" in err, err
    # The child, named bash or sleep by the time it is found, is a second process signalled.
    assert err.count("SIGTERM to ") >= 2 and "SIGKILL" not in err, err
    assert (scene.ns.run(["umount", str(scene.mp)]).returncode, scene.alive(bystander)) == (0, True), err


def test_relpath_refuses_what_is_not_a_mount_point(install_dir, scene):
    # Every process here would match a path-prefix or device-of-the-directory
    # approach: a holder in a plain directory, one in a directory of the mount.
    plain, mp = scene.places["@PLAIN@"], scene.mp
    procs = [scene.start(f"cd {d} && @READY@ && exec sleep 1000") for d in ("@PLAIN@/dir", "/", "@BIND@")]
    assert scene.relpath(install_dir, mp) == (0, "")  # nothing holds it yet
    procs.append(scene.start("cd @MP@/dir && @READY@ && exec sleep 1000"))
    for path, code in ((plain, 3), (f"{plain}/", 3), (f"{mp}/dir", 3), ("/", 3), ("//", 3),
                       (scene.parent / "absent", 3), (scene.top / "absent" / "mnt", 3),
                       (f"{mp}/dir/..", 2), (f"{mp}/.", 2), ("", 2), ("-x", 2)):
        rc, err = scene.relpath(install_dir, str(path))
        assert rc == code and " to " not in err, (path, err)
    for extra in ([], [str(mp), str(mp)]):
        assert scene.ns.run([f"{install_dir}/bin/zorrelpath"] + extra).returncode == 2
    assert all(scene.alive(p) for p in procs)


def test_relpath_releases_only_the_top_of_stacked_mounts(install_dir, scene):
    below = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    scene.ns.sh(f"mount -t tmpfs top {scene.mp}", check=True)
    above = scene.start("cd @MP@ && @READY@ && exec sleep 1000")
    assert (scene.relpath(install_dir, scene.mp)[0], above.wait(timeout=5), scene.alive(below)) == (
        1, -TERM, True)
    scene.ns.sh(f"umount {scene.mp}", check=True)  # the tmpfs; now the loop device's file system
    assert (scene.relpath(install_dir, scene.mp)[0], below.wait(timeout=5)) == (1, -TERM)


def test_zorstat_shows_filters_escapes_and_removes(node):
    # Two refusals store two records; the name of one holds a quote and a
    # backslash, which the JSON form must escape. Neither is configured.
    assert node.run(["--active", "-r", "fs1", "-g", "nogrp"]).returncode == 1
    assert node.run(["--active", "-r", 'a"b\\c', "-g", "grp1"]).returncode == 1

    def zorstat(*args, user=None):
        return node.run(list(args), prog="zorstat", user=user)

    table = zorstat(user="nobody")  # every user reads it; root's view: node.records()
    lines = table.stdout.splitlines()
    assert (table.returncode, lines[0].split()) == (0, ["GROUP", "TYPE", "RESOURCE", "STATE", "UPDATED", "STATUS"])
    # Sorted by group: grp1 before nogrp.
    assert [line.split()[0] for line in lines[1:]] == ["grp1", "nogrp"]
    assert [line.split()[0] for line in zorstat("-g", "nogrp").stdout.splitlines()[1:]] == ["nogrp"]
    records = {r["resource"]: (r["state"], r["text"]) for r in node.records()}
    assert records == {"fs1": ("not configured", "Group was not in config. (nogrp)"),
                       'a"b\\c': ("not configured", "Loading config was failed.")}
    # A stale record goes: only by root's hand, named by group and resource.
    results = [(r.returncode, r.stderr.splitlines()[:1]) for r in (
        zorstat("--remove", "-g", "nogrp", "-r", "fs1", user="nobody"), zorstat("--remove", "-g", "nogrp"),
        zorstat("--remove", "-g", "nogrp", "-r", "fs1"), zorstat("--remove", "-g", "nogrp", "-r", "fs1"),
        zorstat("--bogus"))]
    assert results == [(1, ["zorstat: only root can remove a record"]),
                       (2, ["zorstat: --remove needs -g GROUP and -r RESOURCE"]), (0, []),
                       (1, ["zorstat: no record of group nogrp and resource fs1"]),
                       (2, ["zorstat: unrecognized option '--bogus'"])]
    assert [r["resource"] for r in node.records()] == ['a"b\\c']
