"""NAS resources end to end: zornas against a real SSH file server.

The server runs in a network namespace of its own (nasserver.py); the agent
runs in the client network namespace, in a private mount and PID namespace, and
mounts the share with sshfs. The sample configuration's nas@share1 of group
grp2 is used as it stands, except for the mount point, which lives in the
node's temporary tree.
"""

import time

import pytest

from conftest import require_root
from nasserver import NasServer, SERVER_ADDR

PARAMS = "/root/resource/nas@share1/parameters"
RSC = ["-r", "share1", "-g", "grp2"]


@pytest.fixture
def nas(node):
    require_root()
    # The sample configuration names <prefix>/etc/nas_key as the client key.
    srv = NasServer(key=node.home / "etc" / "nas_key")
    try:
        srv.start()
        (srv.share("share1") / "hello.txt").write_text("from the server\n")
        srv.point = node.home / "mnt" / "share1"
        node.conf.set(PARAMS + "/mount/point", srv.point)
        node.write_conf()
        yield srv
    finally:
        srv.stop()


def act(node, srv):
    return node.run(["--active"] + RSC, prog="zornas", ns=srv.client)


def deact(node, srv):
    return node.run(["--deactive"] + RSC, prog="zornas", ns=srv.client)


def status(node):
    return node.status("grp2", "share1", rtype="nas")


def configure(node, **values):
    for key, value in values.items():
        node.conf.set(PARAMS + "/" + key.replace("__", "/"), value)
    node.write_conf()


def assert_mounted(srv):
    lines = srv.client.mounts(srv.point)
    assert len(lines) == 1, lines
    assert lines[0].split()[0] == f"{SERVER_ADDR}:/srv/share1"
    assert lines[0].split()[2] == "fuse.sshfs"
    # The file server's content is really there.
    assert srv.client.run(["cat", str(srv.point / "hello.txt")]).stdout == "from the server\n"


def count(messages, text):
    return sum(1 for m in messages if m == text)


# --- round trip --------------------------------------------------------------

@pytest.mark.parametrize("pingto", [1, 0])
def test_round_trip(node, nas, pingto):
    configure(node, ping__timeout=pingto)

    r = act(node, nas)
    assert r.returncode == 0, r.stdout + r.stderr
    assert status(node) == "Success."
    assert_mounted(nas)

    msgs = node.messages("nas")
    ping_line = f'(exec "{node.home}/bin/ping" -c 1 {SERVER_ADDR} > /dev/null 2>&1)'
    if pingto:
        assert ping_line in msgs
        assert "ping : success." in msgs
    else:
        assert "<<< ping >>>" not in msgs
    # Server and share reach the mount command as one quoted word.
    opts = node.conf.get(PARAMS + "/mount/option")
    assert (f'(exec "/bin/mount" -t fuse.sshfs -o {opts} "{SERVER_ADDR}:/srv/share1" "{nas.point}" 2>&1)'
            in msgs)

    r = deact(node, nas)
    assert r.returncode == 0, r.stdout + r.stderr
    assert status(node) == "Success."
    assert nas.client.mounts(nas.point) == []
    assert count(node.messages("nas"), "umount start.") == 1


# --- activation refusals -------------------------------------------------------

def _server_down(node, srv):
    srv.link_down()


def _mounted_and_down(node, srv):
    srv.client.sh(f"mkdir -p {srv.point} && mount -t tmpfs other {srv.point}", check=True)
    srv.link_down()


def _relative_point(node, srv):
    srv.point = "mnt/share1"
    configure(node, mount__point=srv.point)


def _point_under_file(node, srv):
    (node.home / "afile").write_text("")
    srv.point = node.home / "afile" / "share1"
    configure(node, mount__point=srv.point)


def _no_share(retry):
    def setup(node, srv):
        configure(node, share="/srv/nosuch", mount__retry=retry)
    return setup


# (name, set-up, status text, trace lines expected, trace lines not expected,
#  number of mount commands run, mount-table lines left on the point)
REFUSALS = [
    ("server down", _server_down, "Command failed. (ping, ret=1)",
     ["ping : failed. (ret=1)"], ["mount start."], 0, 0),
    ("point mounted, server down", _mounted_and_down, "Mount point was already mounted. ({point})",
     ["mntpoint={point} already mounted."], ["<<< ping >>>"], 0, 1),
    ("relative point", _relative_point, "Mount point was invalid. (mnt/share1)",
     ["mntpoint=mnt/share1 is invalid.", "ping : success."], [], 0, 0),
    ("point not creatable", _point_under_file, "Creating of mount point was failed. ({point})",
     [], [], 0, 0),
    ("share missing, 2 retries", _no_share(2), "Max recover retry over. (mount, retry=2)",
     ["mount retry start.(count=2)", "mount max recover retry(2) over."], [], 3, 0),
    ("share missing, no retry", _no_share(0), "Command failed. (mount, ret=1)",
     ["return because of mount retry=0."], ["mount retry start.(count=1)"], 1, 0),
]


@pytest.mark.parametrize("name,setup,text,present,absent,mounts_run,left", REFUSALS,
                         ids=[row[0] for row in REFUSALS])
def test_activation_refused(node, nas, name, setup, text, present, absent, mounts_run, left):
    setup(node, nas)

    r = act(node, nas)
    assert r.returncode == 1, r.stdout + r.stderr
    point = nas.point
    assert status(node) == text.format(point=point)
    msgs = node.messages("nas")
    for line in present:
        assert line.format(point=point) in msgs
    for line in absent:
        assert line not in msgs
    assert count(msgs, "mount start.") == mounts_run
    assert len(nas.client.mounts(point)) == left
    if name == "server down":
        # Refused before anything was created.
        assert not nas.point.exists()


# --- deactivation paths ------------------------------------------------------------

def test_deactivation_of_unmounted_point(node, nas):
    r = deact(node, nas)
    assert r.returncode == 1
    assert status(node) == f"Mount point was not mounted. ({nas.point})"
    msgs = node.messages("nas")
    assert f"mntpoint={nas.point} not mounted." in msgs
    assert "<<< ping >>>" not in msgs
    assert "umount start." not in msgs


def test_deactivation_ignores_dead_server(node, nas):
    assert act(node, nas).returncode == 0
    nas.link_down()

    r = deact(node, nas)
    assert r.returncode == 0, r.stdout + r.stderr
    assert status(node) == "Success."
    assert "ping failed ignore." in node.messages("nas")
    assert nas.client.mounts(nas.point) == []


@pytest.mark.parametrize("action,rc,text,still_mounted", [
    ("kill", 0, "Success.", False),
    ("none", 1, "Max recover retry over. (umount, retry=2)", True),
])
def test_busy_share(node, nas, action, rc, text, still_mounted):
    configure(node, umount__action=action, umount__retry=2)
    assert act(node, nas).returncode == 0
    # A process working in the share keeps it busy.
    user = nas.client.popen(["sh", "-c", f"cd {nas.point} && exec sleep 600"])
    _wait_for(lambda: _cwd_in(nas))

    r = deact(node, nas)
    assert r.returncode == rc, r.stdout + r.stderr
    assert status(node) == text
    msgs = node.messages("nas")
    assert ("break umount retry. (count=1)" in msgs) == (action == "kill")
    assert (len(nas.client.mounts(nas.point)) == 1) == still_mounted
    assert (user.poll() is None) == still_mounted


def _cwd_in(srv):
    r = srv.client.sh(f"for p in /proc/[0-9]*; do readlink $p/cwd; done | grep -qx {srv.point}")
    return r.returncode == 0


def _wait_for(cond, timeout=10):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if cond():
            return
        time.sleep(0.05)
    raise AssertionError("condition not met in time")


@pytest.mark.parametrize("chkprcmnts,rc,text", [
    (1, 0, "Success."),
    (0, 1, "Max recover retry over. (umount, retry=3)"),
])
def test_unmount_finished_by_someone_else(node, nas, chkprcmnts, rc, text):
    """The unmount command fails, but another unmount empties the point meanwhile."""
    failing = node.home / "umount_busy"
    failing.write_text("#!/bin/sh\necho \"umount: $1: target is busy.\"\nexit 32\n")
    failing.chmod(0o755)
    configure(node, umount__path=failing, umount__action="none", umount__retry=3,
              umount__interval=1, umount__chkprcmnts=chkprcmnts)
    assert act(node, nas).returncode == 0

    nas.client.popen(["sh", "-c", f"sleep 1.5; exec umount {nas.point}"])
    r = deact(node, nas)
    assert r.returncode == rc, r.stdout + r.stderr
    assert status(node) == text
    msgs = node.messages("nas")
    assert (f"actually, mntpoint={nas.point} umounted." in msgs) == (chkprcmnts == 1)
    # With the mount table consulted the loop ends early; without, every retry fails.
    attempts = count(msgs, "umount start.")
    assert attempts < 4 if chkprcmnts else attempts == 4
    assert nas.client.mounts(nas.point) == []


def test_stacked_mounts_all_unmounted(node, nas):
    assert act(node, nas).returncode == 0
    nas.share("share2")
    opts = node.conf.get(PARAMS + "/mount/option")
    nas.client.run(["mount", "-t", "fuse.sshfs", "-o", opts, f"{SERVER_ADDR}:/srv/share2", str(nas.point)],
                   check=True)
    assert len(nas.client.mounts(nas.point)) == 2

    r = deact(node, nas)
    assert r.returncode == 0, r.stdout + r.stderr
    assert nas.client.mounts(nas.point) == []
    assert count(node.messages("nas"), "umount start.") == 2
