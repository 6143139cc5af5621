# NAS resources end to end: zornas against a real SSH file server.
#
# The server runs in a network namespace of its own (nasserver.py); the agent
# runs in the client network namespace, in a private mount and PID namespace, and
# mounts the share with sshfs. The sample configuration's nas@share1 of group
# grp2 is used as it stands, except for the mount point, which lives in the
# node's temporary tree.

import time

import pytest

from conftest import require_root, wait_for
from nasserver import NasServer, SERVER_ADDR

PARAMS = "/root/resource/nas@share1/parameters"


class Share:
    def __init__(self, node, srv):
        self.node, self.srv, self.client = node, srv, srv.client
        self.point = node.home / "mnt" / "share1"
        self.set(mount__point=self.point)

    def set(self, **values):
        for key, value in values.items():
            self.node.conf.set(PARAMS + "/" + key.replace("__", "/"), value)
        self.node.write_conf()

    def run(self, action, *more):
        mark = len(self.node.messages("nas"))
        res = self.node.run([action, "-r", "share1", "-g", "grp2", *more], prog="zornas", ns=self.client)
        self.msgs = self.node.messages("nas")[mark:]
        return res

    def status(self):
        return self.node.status("grp2", "share1", rtype="nas")

    def mounts(self):
        return self.client.mounts(self.point)


@pytest.fixture
def nas(node):
    require_root()
    # The sample configuration names <prefix>/etc/nas_key as the client key.
    srv = NasServer(key=node.home / "etc" / "nas_key")
    try:
        srv.start()
        (srv.share("share1") / "hello.txt").write_text("from the server\n")
        yield Share(node, srv)
    finally:
        srv.stop()


# A server gone while its share is mounted does not stop the deactivation.
def test_round_trip(nas):
    r = nas.run("--active")
    assert r.returncode == 0, r.stdout + r.stderr
    assert nas.status() == "Success."
    [line] = nas.mounts()
    assert line.split()[0:3:2] == [f"{SERVER_ADDR}:/srv/share1", "fuse.sshfs"]
    assert nas.client.run(["cat", str(nas.point / "hello.txt")]).stdout == "from the server\n"
    ping = f'(exec "{nas.node.home}/bin/ping" -c 1 {SERVER_ADDR} > /dev/null 2>&1)'
    assert ping in nas.msgs and "ping : success." in nas.msgs
    # Server and share reach the mount command as one quoted word.
    opts = nas.node.conf.get(PARAMS + "/mount/option")
    assert f'(exec "/bin/mount" -t fuse.sshfs -o {opts} "{SERVER_ADDR}:/srv/share1" "{nas.point}" 2>&1)' \
        in nas.msgs
    for level in ("0", "10", "20"):
        assert nas.run("--monitor", "--level", level).returncode == 0, nas.msgs
    # What the level-20 check wrote reached the server.
    assert (nas.srv.exports / "share1" / ".zor_monitor").read_text().startswith("zor monitor ")

    nas.srv.link("down")
    r = nas.run("--deactive")
    assert r.returncode == 0, (nas.status(), nas.msgs)
    assert nas.status() == "Success."
    assert nas.mounts() == []
    assert nas.msgs.count("umount start.") == 1
    assert "ping failed ignore." in nas.msgs


# A server gone while its share is mounted: the monitor's level 0 still answers at once (it never touches the
# mount), a deeper level fails within its time limit instead of hanging.
def test_monitor_of_a_share_that_does_not_answer(nas):
    assert nas.run("--active").returncode == 0
    nas.srv.link("down")
    t0 = time.monotonic()
    assert nas.run("--monitor", "--level", "0").returncode == 0
    assert time.monotonic() - t0 < 2
    assert nas.run("--monitor", "--level", "10").returncode == 1
    assert time.monotonic() - t0 < 16
    assert nas.status() in (f"Mount point did not answer. ({nas.point}, timeout=10)",
                            f"Reading of mount point was failed. ({nas.point})")


def test_monitor_out_of_service(nas):
    nas.client.sh(f'mkdir -p "{nas.point}" && mount -t tmpfs zor-other "{nas.point}"', check=True)
    assert nas.run("--monitor").returncode == 1
    other = f"Mount point was mounted from another share. ({nas.point}, zor-other)"
    assert nas.status() == other
    nas.client.sh(f'umount "{nas.point}"', check=True)
    assert (nas.run("--monitor").returncode, nas.status()) == (7, other)  # 7 stores no text
    nas.client.sh(f'rmdir "{nas.point}"', check=True)
    assert nas.run("--monitor").returncode == 1
    assert nas.status() == f"Mount point was not found. ({nas.point})"


# Refused on the ping's answer, before anything is created or mounted.
def test_server_down_refused(nas):
    nas.srv.link("down")
    r = nas.run("--active")
    assert r.returncode == 1, r.stdout + r.stderr
    assert nas.status() == "Command failed. (ping, ret=1)"
    assert "ping : failed. (ret=1)" in nas.msgs and nas.msgs.count("mount start.") == 0, nas.msgs
    assert not nas.point.exists() and nas.mounts() == []


def test_busy_share_is_released_by_kill(nas):
    nas.set(umount__action="kill", umount__retry=2)
    assert nas.run("--active").returncode == 0
    user = nas.client.popen(["sh", "-c", f"cd {nas.point} && exec sleep 600"])
    wait_for(lambda: nas.client.sh(f"for p in /proc/[0-9]*; do readlink $p/cwd; done | grep -qx {nas.point}")
             .returncode == 0)
    assert nas.run("--deactive").returncode == 0
    assert nas.status() == "Success."
    assert "break umount retry. (count=1)" in nas.msgs
    assert nas.mounts() == []
    user.wait(timeout=10)


# The server stops answering while its share is mounted (sshfs is told to wait for it): every unmount hangs
# on it and is ended at its time-out, the retries are used up, then a forced and, if needed, a lazy unmount
# take the share out of the mount table, all within the unmount limits. The point is configured with a
# trailing "/", so the probe needs its canonical form, which must be made without asking the dead server.
def test_dead_server_share_is_forced_out(nas):
    opts = ",".join(o for o in nas.node.conf.get(PARAMS + "/mount/option").split(",")
                    if not o.startswith("ServerAlive"))
    nas.set(mount__option=opts, ping__timeout=0, umount__timeout=2, umount__retry=1, umount__interval=0)
    assert nas.run("--active").returncode == 0
    nas.set(mount__point=f"{nas.point}/")
    nas.srv.link("down")
    start = time.time()
    r = nas.run("--deactive")
    took = time.time() - start
    assert r.returncode == 1, r.stdout + r.stderr
    assert nas.status() == "Max recover retry over. (umount, retry=1)"
    assert nas.msgs.count("umount : thread timeout.") >= 2
    assert f"force umount. mntpoint={nas.point}/" in nas.msgs
    assert f"mntpoint={nas.point}/ out of the mount table." in nas.msgs
    assert nas.mounts() == []
    # Two hung unmounts, the forced and the lazy one: at most four limits of 2 s, each with its grace.
    assert took < 4 * (2 + 1.5), took
