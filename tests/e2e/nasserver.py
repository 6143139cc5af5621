"""A real file server for the NAS scenarios and the demo.

An OpenSSH server (its internal sftp) runs as root in a network namespace of
its own and exports the directory `exports` of a temporary directory as /srv
(a bind mount inside a private mount namespace, so /srv of the machine is never
touched). A second network namespace is the client: the agent runs there, in a
private mount and PID namespace, and mounts shares with sshfs
(`mount -t fuse.sshfs SERVER:SHARE POINT`). The two are joined by a veth pair
whose ends exist only inside the two namespaces, with the addresses
10.231.0.1 (server) and 10.231.0.2 (client).

Taking the server's end of the link down makes the server unreachable: ping
then fails, and an sshfs mount notices within its ServerAliveInterval.

Everything is torn down by stop(): the processes by PID (killing the init of a
PID namespace takes every process in it along), then the namespaces.

Command line, for the demo (state kept in STATE_DIR between calls):
    nasserver.py start STATE_DIR [--key PATH]   start server and client namespace
    nasserver.py exec STATE_DIR CMD...          run CMD in the client namespace
    nasserver.py down|up STATE_DIR              take the server's link down / up
    nasserver.py stop STATE_DIR                 stop everything
"""

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

SERVER_ADDR = "10.231.0.1"
CLIENT_ADDR = "10.231.0.2"
PREFIX_LEN = 24
SSHD = "/usr/sbin/sshd"


def _run(cmd, **kw):
    return subprocess.run(cmd, check=True, capture_output=True, text=True, **kw)


def _ns_inode(path):
    try:
        return os.stat(path).st_ino
    except OSError:
        return None


def _alive(pid):
    try:
        state = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError):
        return False
    return state != "Z"


def _kill_holder(pid, netns):
    """SIGKILL pid only if it is still our holder: a process of netns `netns`."""
    if pid is None or not _alive(pid):
        return
    if _ns_inode(f"/proc/{pid}/ns/net") != _ns_inode(f"/run/netns/{netns}"):
        return  # the PID was reused by someone else's process
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def _wait_gone(pid, timeout=20):
    deadline = time.time() + timeout
    while _alive(pid) and time.time() < deadline:
        time.sleep(0.02)


def _first_child(pid, timeout=10):
    children = Path(f"/proc/{pid}/task/{pid}/children")
    deadline = time.time() + timeout
    while time.time() < deadline:
        try:
            text = children.read_text().split()
        except OSError:
            return None
        if text:
            return int(text[0])
        time.sleep(0.01)
    return None


class ClientSpace:
    """A private mount and PID namespace inside the client network namespace.

    Same interface as the harness's namespace (run, sh, popen, close), so that
    node.run(..., ns=client) runs the agent there.
    """

    def __init__(self, netns, holder_pid=None, init_pid=None):
        self.netns = netns
        self.holder = None
        self.holder_pid = holder_pid
        self.init_pid = init_pid
        self.procs = []

    def start(self):
        self.holder = subprocess.Popen(
            ["ip", "netns", "exec", self.netns, "unshare", "--mount", "--propagation", "private", "--pid",
             "--fork", "--mount-proc", "--kill-child", "sleep", "infinity"],
            # No inherited output: a caller reading ours must see its end.
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        self.holder_pid = self.holder.pid
        deadline = time.time() + 10
        while time.time() < deadline:
            pid = _first_child(self.holder_pid, timeout=0.5)
            try:
                if pid and Path(f"/proc/{pid}/comm").read_text().strip() == "sleep":
                    self.init_pid = pid
                    return self
            except OSError:
                pass
            time.sleep(0.01)
        self.close()
        raise RuntimeError("the client namespace did not start")

    def _enter(self, cmd):
        return ["nsenter", "--target", str(self.init_pid), "--net", "--mount", "--pid", "--"] + list(cmd)

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

    def mounts(self, point):
        """Mount-table lines of the namespace whose mount point is `point`."""
        out = self.run(["cat", "/proc/self/mounts"], check=True).stdout
        return [line for line in out.splitlines() if line.split(" ")[1:2] == [str(point)]]

    def close(self):
        # The init's death takes every process of the PID namespace along,
        # sshfs included, and with the last of them the mounts go.
        if self.init_pid is not None and _alive(self.init_pid):
            _kill_holder(self.init_pid, self.netns)
        _kill_holder(self.holder_pid, self.netns)
        if self.holder is not None:
            try:
                self.holder.wait(timeout=20)
            except subprocess.TimeoutExpired:
                pass
        elif self.holder_pid is not None:
            _wait_gone(self.holder_pid)
        for p in self.procs:
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        self.init_pid = None


class NasServer:
    """The file server, its network and the client namespace."""

    def __init__(self, workdir=None, key=None):
        tag = f"{os.getpid()}-{secrets.token_hex(2)}"
        self.server_ns = "zt-srv-" + tag
        self.client_ns = "zt-cli-" + tag
        self.own_dir = workdir is None
        self.dir = Path(workdir) if workdir else Path(tempfile.mkdtemp(prefix="zor-nas.", dir="/tmp"))
        self.dir.mkdir(parents=True, exist_ok=True)
        self.exports = self.dir / "exports"
        self.key = Path(key) if key else self.dir / "client_key"
        self.server = None
        self.server_pid = None
        self.client = None
        self.netns_made = []

    # --- set-up -----------------------------------------------------------
    def start(self):
        try:
            self._keys_and_config()
            self._network()
            self._sshd()
            self.client = ClientSpace(self.client_ns).start()
        except BaseException:
            self.stop()
            raise
        return self

    def _keys_and_config(self):
        self.exports.mkdir(exist_ok=True)
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
        for name in (self.server_ns, self.client_ns):
            _run(["ip", "netns", "add", name])
            self.netns_made.append(name)
        # Both ends are created inside the namespaces: the machine's own
        # network never sees the link or its addresses.
        _run(["ip", "-n", self.server_ns, "link", "add", "veth", "type", "veth",
              "peer", "name", "veth", "netns", self.client_ns])
        for name, addr in ((self.server_ns, SERVER_ADDR), (self.client_ns, CLIENT_ADDR)):
            _run(["ip", "-n", name, "addr", "add", f"{addr}/{PREFIX_LEN}", "dev", "veth"])
            _run(["ip", "-n", name, "link", "set", "lo", "up"])
            _run(["ip", "-n", name, "link", "set", "veth", "up"])

    def _sshd(self):
        # sshd needs /run/sshd, and the shares are wanted under /srv: both are
        # private mounts of the server's own mount namespace.
        script = (f"mount -t tmpfs tmpfs /run && mkdir /run/sshd && mount --bind {self.exports} /srv && "
                  f"exec {SSHD} -D -e -f {self.dir}/sshd_config")
        log = open(self.dir / "sshd.log", "w")
        self.server = subprocess.Popen(
            ["ip", "netns", "exec", self.server_ns, "unshare", "--mount", "--propagation", "private", "--pid",
             "--fork", "--mount-proc", "--kill-child", "bash", "-c", script],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
        log.close()
        self.server_pid = self.server.pid
        deadline = time.time() + 10
        while time.time() < deadline:
            if "Server listening" in (self.dir / "sshd.log").read_text():
                return
            if self.server.poll() is not None:
                break
            time.sleep(0.02)
        raise RuntimeError("sshd did not start: " + (self.dir / "sshd.log").read_text())

    # --- use --------------------------------------------------------------
    def share(self, name):
        """Creates the share /srv/<name> on the server; returns its directory as seen here."""
        path = self.exports / name
        path.mkdir(parents=True, exist_ok=True)
        return path

    def link_down(self):
        _run(["ip", "-n", self.server_ns, "link", "set", "veth", "down"])

    def link_up(self):
        _run(["ip", "-n", self.server_ns, "link", "set", "veth", "up"])

    # --- tear-down --------------------------------------------------------
    def stop(self):
        if self.client is not None:
            self.client.close()
            self.client = None
        _kill_holder(self.server_pid, self.server_ns)
        if self.server is not None:
            try:
                self.server.wait(timeout=20)
            except subprocess.TimeoutExpired:
                pass
            self.server = None
        elif self.server_pid is not None:
            _wait_gone(self.server_pid)
        self.server_pid = None
        for name in reversed(self.netns_made):
            subprocess.run(["ip", "netns", "delete", name], capture_output=True)
        self.netns_made = []
        if self.own_dir:
            shutil.rmtree(self.dir, ignore_errors=True)

    # --- state between command-line calls ---------------------------------
    def save(self, path):
        path.write_text(json.dumps({
            "dir": str(self.dir), "own_dir": self.own_dir, "key": str(self.key),
            "server_ns": self.server_ns, "client_ns": self.client_ns, "netns": self.netns_made,
            "server_pid": self.server_pid,
            "client_holder": self.client.holder_pid, "client_init": self.client.init_pid}))

    @classmethod
    def load(cls, path):
        st = json.loads(path.read_text())
        srv = cls.__new__(cls)
        srv.dir = Path(st["dir"])
        srv.own_dir = st["own_dir"]
        srv.exports = srv.dir / "exports"
        srv.key = Path(st["key"])
        srv.server_ns, srv.client_ns = st["server_ns"], st["client_ns"]
        srv.netns_made = st["netns"]
        srv.server, srv.server_pid = None, st["server_pid"]
        srv.client = ClientSpace(srv.client_ns, st["client_holder"], st["client_init"])
        return srv


def main(argv):
    if len(argv) < 3 or argv[1] not in ("start", "exec", "down", "up", "stop"):
        sys.stderr.write(__doc__)
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
