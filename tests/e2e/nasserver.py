# A real file server for the NAS scenarios and the demo.
#
# An OpenSSH server (its internal sftp) runs as root in a network namespace of
# its own and exports the directory `exports` of a temporary directory as /srv
# (a bind mount inside a private mount namespace, so /srv of the machine is never
# touched). A second network namespace is the client: the agent runs there, in a
# private mount and PID namespace, and mounts shares with sshfs
# (`mount -t fuse.sshfs SERVER:SHARE POINT`). The two are joined by a bridge in a
# network namespace of its own (cluster.py's Network), with the addresses
# 10.231.0.1 (server) and 10.231.0.2 (client).
#
# Taking the server's end of the link down makes the server unreachable: ping
# then fails, and an sshfs mount notices within its ServerAliveInterval.
#
# Both ends hold the harness's private mount and PID namespace (conftest's
# Namespace, started inside the network namespace). Everything is torn down by
# stop(): the processes by PID (killing the init of a PID namespace takes every
# process in it along), then the network namespaces.
#
# Command line, for the demo (state kept in STATE_DIR between calls):
#     nasserver.py start STATE_DIR [--key PATH]   start server and client namespace
#     nasserver.py exec STATE_DIR CMD...          run CMD in the client namespace
#     nasserver.py down|up STATE_DIR              take the server's link down / up
#     nasserver.py stop STATE_DIR                 stop everything


import contextlib
import json
import os
import secrets
import shutil
import signal
import subprocess
import sys
from pathlib import Path

from cluster import Network, _run
from conftest import Namespace, _mkdtemp, wait_for

SERVER_ADDR = "10.231.0.1"
CLIENT_ADDR = "10.231.0.2"


class NasServer:
    """The file server, its network and the client namespace; or, given `bridge` (the network namespace
    of a bridge br0), the server alone with its link on that bridge."""

    def __init__(self, workdir=None, key=None, bridge=None):
        tag = f"{os.getpid()}-{secrets.token_hex(2)}"
        self.server_ns, self.client_ns, self.bridge = "zt-srv-" + tag, "zt-cli-" + tag, bridge
        self.dir = Path(workdir) if workdir else _mkdtemp("zor-nas.")
        self.exports = self.dir / "exports"
        self.key = Path(key) if key else self.dir / "client_key"
        self.server = self.client = None
        self.net = Network()

    def start(self):
        try:
            self.exports.mkdir(parents=True, exist_ok=True)
            self.key.parent.mkdir(parents=True, exist_ok=True)
            for path in (self.dir / "host_key", self.key):
                if not path.exists():
                    _run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "zor-test", "-f", str(path)])
            # StrictModes off: the files live under /tmp, which is world-writable.
            (self.dir / "sshd_config").write_text(
                f"ListenAddress {SERVER_ADDR}:22\nHostKey {self.dir}/host_key\n"
                f"AuthorizedKeysFile {self.key}.pub\nPasswordAuthentication no\nUsePAM no\nStrictModes no\n"
                "Subsystem sftp internal-sftp\n")
            bridge = self.bridge or self.net.add(self.server_ns.replace("srv", "br"), bridge=True)
            self.net.join(bridge, "zvs", self.server_ns, SERVER_ADDR)
            if not self.bridge:
                self.net.join(bridge, "zvc", self.client_ns, CLIENT_ADDR)
                self.client = Namespace(["ip", "netns", "exec", self.client_ns])
            # sshd needs /run/sshd, and the shares are wanted under /srv: both are private mounts of the
            # server's own mount namespace.
            self.server = Namespace(["ip", "netns", "exec", self.server_ns])
            self.server.sh(f"mount -t tmpfs tmpfs /run && mkdir /run/sshd && "
                           f"mount --bind {self.exports} /srv", check=True)
            log = self.dir / "sshd.log"
            with open(log, "w") as out:
                sshd = self.server.popen(["/usr/sbin/sshd", "-D", "-e", "-f", f"{self.dir}/sshd_config"],
                                         stdout=out, stderr=out, start_new_session=True)
            wait_for(lambda: sshd.poll() is not None or "Server listening" in log.read_text(), 10,
                     "sshd start")
            if sshd.poll() is not None:
                raise RuntimeError("sshd did not start: " + log.read_text())
        except BaseException:
            self.stop()
            raise
        return self

    def share(self, name):
        # The share /srv/<name> on the server, as seen from here.
        path = self.exports / name
        path.mkdir(parents=True, exist_ok=True)
        return path

    def link(self, state):  # "down" or "up"
        _run(["ip", "-n", self.server_ns, "link", "set", "eth0", state])

    def stop(self):
        for space in (self.client, self.server):
            if space is not None:
                space.close()
        self.client = self.server = None
        self.net.close()
        shutil.rmtree(self.dir, ignore_errors=True)


def main(argv):
    if len(argv) < 3 or argv[1] not in ("start", "exec", "down", "up", "stop"):
        sys.stderr.write("usage: nasserver.py start|exec|down|up|stop STATE_DIR [--key PATH | CMD...]\n")
        return 2
    action, state_dir = argv[1], Path(argv[2])
    state = state_dir / "nas_state.json"
    if action == "start":
        key = argv[4] if len(argv) > 4 and argv[3] == "--key" else None
        state_dir.mkdir(parents=True, exist_ok=True)
        srv = NasServer(workdir=state_dir / "server", key=key).start()
        state.write_text(json.dumps({"netns": srv.net.made, "server": srv.server.init_pid,
                                     "client": srv.client.init_pid}))
        # The share of the sample configuration.
        (srv.share("share1") / "hello.txt").write_text("served by the test file server\n")
        # The holders outlive this process; `stop` ends them by PID.
        print(f"file server {SERVER_ADDR} in {srv.server_ns}, client namespace {srv.client_ns}")
        return 0
    st = json.loads(state.read_text())
    server_ns, client_ns = st["netns"][1:]
    if action == "exec":
        return subprocess.run(["nsenter", "--target", str(st["client"]), "--net", "--mount", "--pid", "--"]
                              + argv[3:]).returncode
    if action in ("down", "up"):
        _run(["ip", "-n", server_ns, "link", "set", "eth0", action])
        return 0
    # The first process of a namespace takes every other with it. Its PID may have been reused since:
    # only a process still in the namespace's network is killed.
    for pid, netns in ((st["server"], server_ns), (st["client"], client_ns)):
        with contextlib.suppress(OSError):
            if os.stat(f"/proc/{pid}/ns/net").st_ino == os.stat(f"/run/netns/{netns}").st_ino:
                os.kill(pid, signal.SIGKILL)
    Network(st["netns"]).close()
    shutil.rmtree(state_dir / "server", ignore_errors=True)
    state.unlink()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
