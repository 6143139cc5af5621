# NAS resources end to end: zornas against a real SSH file server.
#
# The server runs in a network namespace of its own (nasserver.py); the agent
# runs in the client network namespace, in a private mount and PID namespace, and
# mounts the share with sshfs. The sample configuration's nas@share1 of group
# grp2 is used as it stands, except for the mount point, which lives in the
# node's temporary tree.

import os
import time

import pytest

from conftest import Resource
from nasserver import NasServer, SERVER_ADDR
from test_monitor import round_trips, spellings


@pytest.fixture
def nas(node, root):
    # The sample configuration names <prefix>/etc/nas_key as the client key.
    srv = NasServer(key=node.home / "etc" / "nas_key").start()  # stops itself if it cannot start
    try:
        (srv.share("share1") / "hello.txt").write_text("from the server\n")
        share = Resource(node, srv.client, "nas")
        share.srv = srv
        share.set({"mount/point": share.point})
        yield share
    finally:
        srv.stop()


# Refused on the ping's answer while the server is down, before anything is created or mounted; served once
# it is back. Gone again while its share is mounted, it does not stop the deactivation.
def test_round_trip(nas):
    nas.srv.link("down")
    assert nas.act("--active") == (1, "Command failed. (ping, ret=1)")
    assert "ping : failed. (ret=1)" in nas.new and "mount start." not in nas.new, nas.new
    assert (os.path.exists(nas.point), nas.mounts()) == (False, 0)
    nas.srv.link("up")
    assert nas.act("--active") == (0, "Success."), nas.new
    assert [m.split()[0:3:2] for m in nas.ns.mounts(nas.point)] == [[f"{SERVER_ADDR}:/srv/share1", "fuse.sshfs"]]
    assert nas.ns.run(["cat", nas.point + "/hello.txt"]).stdout == "from the server\n"
    for level in ("0", "10", "20"):
        assert nas.run("--monitor", "--level", level).returncode == 0, nas.new
    # What the level-20 check wrote reached the server.
    assert [f.read_text()[:12] for f in (nas.srv.exports / "share1" / ".zor_monitor").iterdir()] == ["zor monitor "]

    nas.srv.link("down")
    assert nas.act("--deactive") == (0, "Success."), nas.new
    assert (nas.mounts(), nas.new.count("umount start."), "ping failed ignore." in nas.new) == (0, 1, True)


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


# However its point is spelt, the share is found where activation mounted it. Another's file system on the
# point is nothing of the share's: out of service (the deactivation leaves it: test_failover_safety.py).
def test_spelt_points_and_a_foreign_mount(nas):
    assert round_trips(nas, spellings(nas)) == []
    nas.set({"mount/point": nas.point})
    nas.ns.sh(f'mount -t tmpfs zor-other "{nas.point}"', check=True)
    assert nas.act("--monitor") == (7, "Success.")


# The server stops answering while its share is mounted (sshfs is told to wait for it): every unmount hangs
# on it and is ended at its time-out, the retries are used up, then a forced and, if needed, a lazy unmount
# take the share out of the mount table, all within the unmount limits. The point is configured with a
# trailing "/", so the probe needs its canonical form, which must be made without asking the dead server.
def test_dead_server_share_is_forced_out(nas):
    opts = ",".join(o for o in nas.node.conf.get(nas.params + "/mount/option").split(",")
                    if not o.startswith("ServerAlive"))
    nas.set({"mount/option": opts, "ping/timeout": 0, "umount/timeout": 2, "umount/retry": 1, "umount/interval": 0})
    assert nas.run("--active").returncode == 0
    nas.set({"mount/point": nas.point + "/"})
    nas.srv.link("down")
    start = time.time()
    assert nas.act("--deactive") == (1, "Max recover retry over. (umount, retry=1)"), nas.new
    took = time.time() - start
    assert nas.new.count("umount : thread timeout.") >= 2 and nas.mounts() == 0
    assert {f"force umount. mntpoint={nas.point}/", f"mntpoint={nas.point}/ out of the mount table."} \
        <= set(nas.new), nas.new
    # Two hung unmounts, the forced and the lazy one: at most four limits of 2 s, each with its grace.
    assert took < 4 * (2 + 1.5), took
