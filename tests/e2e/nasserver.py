# A real file server for the NAS scenarios and the demo.
#
# An OpenSSH server (its internal sftp) runs as root in a network namespace of
# its own and exports the directory `exports` of a temporary directory as /srv
# (a bind mount inside a private mount namespace, so /srv of the machine is never
# touched). A second network namespace is the client: the agent runs there, in a
# private mount and PID namespace, and mounts shares with sshfs
# (`mount -t fuse.sshfs SERVER:SHARE POINT`). The two are joined by a veth pair
# whose ends exist only inside the two namespaces, with the addresses
# 10.231.0.1 (server) and 10.231.0.2 (client).
#
# Taking the server's end of the link down makes the server unreachable: ping
# then fails, and an sshfs mount notices within its ServerAliveInterval.
#
# Both ends hold the harness's private mount and PID namespace (conftest's
# Namespace, started inside the network namespace). Everything is torn down by
# stop(): the processes by PID (killing the init of a PID namespace takes every
# process in it along), then the network namespaces.


import json
import os
import secrets
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from conftest import Namespace

SERVER_ADDR = "10.231.0.1"
CLIENT_ADDR = "10.231.0.2"
SSHD = "/usr/sbin/sshd"
USAGE = """Command line, for the demo (state kept in STATE_DIR between calls):
    nasserver.py start STATE_DIR [--key PATH]   start server and client namespace
    nasserver.py exec STATE_DIR CMD...          run CMD in the client namespace
    nasserver.py down|up STATE_DIR              take the server's link down / up
    nasserver.py stop STATE_DIR                 stop everything
"""


def _run(cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True)


def _alive(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


def _in_netns(pid, netns):
    try:
        return os.stat(f"/proc/{pid}/ns/net").st_ino == os.stat(f"/run/netns/{netns}").st_ino
    except OSError:
        return False


class NetSpace(Namespace):
    """The harness's namespace inside the network namespace `netns`.

    The command line re-attaches it by its PIDs (`pids`); as they may have been
    reused since, only a process still in `netns` is then killed.
    """

    def __init__(self, netns, pids=None):
        self.netns = netns
        if pids is None:
            super().__init__(["ip", "netns", "exec", netns])
        else:
            self.net, self.procs, self.holder = ["--net"], [], None
            self.holder_pid, self.init_pid = pids

    def pids(self):
        return [self.holder.pid, self.init_pid]

    def close(self):
        if self.holder is not None:
            return super().close()
        for pid in (self.init_pid, self.holder_pid):
            if _alive(pid) and _in_netns(pid, self.netns):
                os.kill(pid, signal.SIGKILL)
        deadline = time.time() + 20
        while _alive(self.holder_pid) and time.time() < deadline:
            time.sleep(0.02)


class NasServer:
    """The file server, its network and the client namespace; or, given `bridge` (the network namespace
    of a bridge br0), the server alone with its link on that bridge."""

    def __init__(self, workdir=None, key=None, bridge=None):
        tag = f"{os.getpid()}-{secrets.token_hex(2)}"
        self.server_ns, self.client_ns = "zt-srv-" + tag, "zt-cli-" + tag
        self.own_dir = workdir is None
        self.dir = Path(workdir or tempfile.mkdtemp(prefix="zor-nas.", dir="/tmp"))
        self.exports = self.dir / "exports"
        self.key = Path(key) if key else self.dir / "client_key"
        self.server = self.client = None
        self.netns_made, self.bridge = [], bridge

    def start(self):
        try:
            self._keys_and_config()
            self._network()
            self.server = NetSpace(self.server_ns)
            self._sshd()
            self.client = None if self.bridge else NetSpace(self.client_ns)
        except BaseException:
            self.stop()
            raise
        return self

    def _keys_and_config(self):
        self.exports.mkdir(parents=True, exist_ok=True)
        self.key.parent.mkdir(parents=True, exist_ok=True)
        for path in (self.dir / "host_key", self.key):
            if not path.exists():
                _run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "zor-test", "-f", str(path)])
        shutil.copy(str(self.key) + ".pub", self.dir / "authorized_keys")
        # StrictModes off: the files live under /tmp, which is world-writable.
        (self.dir / "sshd_config").write_text(
            f"ListenAddress {SERVER_ADDR}:22\n"
            f"HostKey {self.dir}/host_key\n"
            f"AuthorizedKeysFile {self.dir}/authorized_keys\n"
            f"PidFile {self.dir}/sshd.pid\n"
            "PermitRootLogin prohibit-password\n"
            "PasswordAuthentication no\n"
            "KbdInteractiveAuthentication no\n"
            "UsePAM no\n"
            "StrictModes no\n"
            "Subsystem sftp internal-sftp\n")

    def _network(self):
        ends = [(self.server_ns, SERVER_ADDR)] + ([] if self.bridge else [(self.client_ns, CLIENT_ADDR)])
        for name, _ in ends:
            _run(["ip", "netns", "add", name])
            self.netns_made.append(name)
        # Both ends are created inside the namespaces: the machine's own
        # network never sees the link or its addresses.
        if self.bridge:
            _run(["ip", "-n", self.bridge, "link", "add", "zvs", "type", "veth", "peer", "name", "veth", "netns",
                  self.server_ns])
            _run(["ip", "-n", self.bridge, "link", "set", "zvs", "master", "br0", "up"])
        else:
            _run(["ip", "-n", self.server_ns, "link", "add", "veth", "type", "veth",
                  "peer", "name", "veth", "netns", self.client_ns])
        for name, addr in ends:
            _run(["ip", "-n", name, "addr", "add", f"{addr}/24", "dev", "veth"])
            _run(["ip", "-n", name, "link", "set", "lo", "up"])
            _run(["ip", "-n", name, "link", "set", "veth", "up"])

    def _sshd(self):
        # sshd needs /run/sshd, and the shares are wanted under /srv: both are
        # private mounts of the server's own mount namespace.
        self.server.sh(f"mount -t tmpfs tmpfs /run && mkdir /run/sshd && mount --bind {self.exports} /srv",
                       check=True)
        log = self.dir / "sshd.log"
        with open(log, "w") as out:
            sshd = self.server.popen([SSHD, "-D", "-e", "-f", f"{self.dir}/sshd_config"], stdout=out, stderr=out,
                                     start_new_session=True)
        deadline = time.time() + 10
        while time.time() < deadline and sshd.poll() is None:
            if "Server listening" in log.read_text():
                return
            time.sleep(0.02)
        raise RuntimeError("sshd did not start: " + log.read_text())

    def share(self, name):
        """Creates the share /srv/<name> on the server; returns its directory as seen here."""
        path = self.exports / name
        path.mkdir(parents=True, exist_ok=True)
        return path

    def link_down(self):
        _run(["ip", "-n", self.server_ns, "link", "set", "veth", "down"])

    def link_up(self):
        _run(["ip", "-n", self.server_ns, "link", "set", "veth", "up"])

    def stop(self):
        for space in (self.client, self.server):
            if space is not None:
                space.close()
        self.client = self.server = None
        for name in reversed(self.netns_made):
            subprocess.run(["ip", "netns", "delete", name], capture_output=True)
        self.netns_made = []
        if self.own_dir:
            shutil.rmtree(self.dir, ignore_errors=True)

    # State between command-line calls.
    def save(self, path):
        path.write_text(json.dumps({"dir": str(self.dir), "key": str(self.key), "netns": self.netns_made,
                                    "server": self.server.pids(), "client": self.client.pids()}))

    @classmethod
    def load(cls, path):
        st = json.loads(path.read_text())
        srv = cls(st["dir"], st["key"])
        srv.server_ns, srv.client_ns = srv.netns_made = st["netns"]
        srv.server, srv.client = NetSpace(srv.server_ns, st["server"]), NetSpace(srv.client_ns, st["client"])
        return srv


def main(argv):
    if len(argv) < 3 or argv[1] not in ("start", "exec", "down", "up", "stop"):
        sys.stderr.write(USAGE)
        return 2
    action, state_dir = argv[1], Path(argv[2])
    state = state_dir / "nas_state.json"
    if action == "start":
        key = argv[4] if len(argv) > 4 and argv[3] == "--key" else None
        state_dir.mkdir(parents=True, exist_ok=True)
        srv = NasServer(workdir=state_dir / "server", key=key).start()
        srv.save(state)
        # The share of the sample configuration.
        (srv.share("share1") / "hello.txt").write_text("served by the test file server\n")
        # The holders outlive this process; `stop` ends them by PID.
        print(f"file server {SERVER_ADDR} in {srv.server_ns}, client namespace {srv.client_ns}")
        return 0
    srv = NasServer.load(state)
    if action == "exec":
        return subprocess.run(srv.client._enter(argv[3:])).returncode
    if action == "down":
        srv.link_down()
    elif action == "up":
        srv.link_up()
    else:
        srv.stop()
        shutil.rmtree(srv.dir, ignore_errors=True)
        state.unlink()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
