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

    def run(self, action):
        mark = len(self.node.messages("nas"))
        res = self.node.run([action, "-r", "share1", "-g", "grp2"], prog="zornas", ns=self.client)
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


# A ping time-out of 0 skips the ping; a server gone by deactivation is ignored.
@pytest.mark.parametrize("pingto,down", [(1, True), (0, False)])
def test_round_trip(nas, pingto, down):
    nas.set(ping__timeout=pingto)
    r = nas.run("--active")
    assert r.returncode == 0, r.stdout + r.stderr
    assert nas.status() == "Success."
    [line] = nas.mounts()
    assert line.split()[0:3:2] == [f"{SERVER_ADDR}:/srv/share1", "fuse.sshfs"]
    assert nas.client.run(["cat", str(nas.point / "hello.txt")]).stdout == "from the server\n"
    ping = f'(exec "{nas.node.home}/bin/ping" -c 1 {SERVER_ADDR} > /dev/null 2>&1)'
    assert (ping in nas.msgs and "ping : success." in nas.msgs) == bool(pingto)
    assert ("<<< ping >>>" in nas.msgs) == bool(pingto)
    # Server and share reach the mount command as one quoted word.
    opts = nas.node.conf.get(PARAMS + "/mount/option")
    assert f'(exec "/bin/mount" -t fuse.sshfs -o {opts} "{SERVER_ADDR}:/srv/share1" "{nas.point}" 2>&1)' \
        in nas.msgs

    if down:
        nas.srv.link_down()
    r = nas.run("--deactive")
    assert r.returncode == 0, r.stdout + r.stderr
    assert nas.status() == "Success."
    assert nas.mounts() == []
    assert nas.msgs.count("umount start.") == 1
    assert ("ping failed ignore." in nas.msgs) == down


def _relative(nas):
    nas.point = "mnt/share1"
    nas.set(mount__point=nas.point)


# (name, set-up, status text, trace lines expected, server pinged,
#  mount commands run, mount-table lines left on the point)
REFUSALS = [
    ("server down", lambda nas: nas.srv.link_down(), "Command failed. (ping, ret=1)",
     ["ping : failed. (ret=1)"], True, 0, 0),
    ("relative point", _relative, "Mount point was invalid. (mnt/share1)",
     ["mntpoint=mnt/share1 is invalid.", "ping : success."], True, 0, 0),
    ("share missing", lambda nas: nas.set(share="/srv/nosuch", mount__retry=2),
     "Max recover retry over. (mount, retry=2)",
     ["mount retry start.(count=2)", "mount max recover retry(2) over."], True, 3, 0),
]


@pytest.mark.parametrize("name,setup,text,present,pinged,mounts_run,left", REFUSALS,
                         ids=[row[0] for row in REFUSALS])
def test_activation_refused(nas, name, setup, text, present, pinged, mounts_run, left):
    setup(nas)
    r = nas.run("--active")
    assert r.returncode == 1, r.stdout + r.stderr
    assert nas.status() == text.format(point=nas.point)
    assert {line.format(point=nas.point) for line in present} <= set(nas.msgs), nas.msgs
    assert ("<<< ping >>>" in nas.msgs) == pinged
    assert nas.msgs.count("mount start.") == mounts_run
    assert len(nas.mounts()) == left
    if name == "server down":
        assert not nas.point.exists()  # refused before anything was created


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


def test_stacked_mounts_all_unmounted(nas):
    assert nas.run("--active").returncode == 0
    nas.srv.share("share2")
    opts = nas.node.conf.get(PARAMS + "/mount/option")
    nas.client.run(["mount", "-t", "fuse.sshfs", "-o", opts, f"{SERVER_ADDR}:/srv/share2", str(nas.point)],
                   check=True)
    assert len(nas.mounts()) == 2
    r = nas.run("--deactive")
    assert r.returncode == 0, r.stdout + r.stderr
    assert nas.mounts() == []
    assert nas.msgs.count("umount start.") == 2


def test_dead_server_share_is_forced_out(nas):
    """The server stops answering while its share is mounted (sshfs is told to wait for it): every
    unmount hangs on it and is ended at its time-out, the retries are used up, then a forced and, if
    needed, a lazy unmount take the share out of the mount table, all within the unmount limits. The
    point is configured with a trailing "/", so the probe needs its canonical form, which must be made
    without asking the dead server."""
    opts = ",".join(o for o in nas.node.conf.get(PARAMS + "/mount/option").split(",")
                    if not o.startswith("ServerAlive"))
    nas.set(mount__option=opts, ping__timeout=0, umount__timeout=2, umount__retry=1, umount__interval=0)
    assert nas.run("--active").returncode == 0
    nas.set(mount__point=f"{nas.point}/")
    nas.srv.link_down()
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
