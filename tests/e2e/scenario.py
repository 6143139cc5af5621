# Pieces the end-to-end scenarios share: a resource of the node run in a private namespace, the disk
# resource fs1 on a loop device, and scripts that stand in for a command and keep a record of their calls.

from conftest import require_root, wait_for


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

    def run(self, option, timeout=120):
        """Runs the agent; the trace lines it added are kept in self.new."""
        mark = len(self.node.messages(self.rtype))
        res = self.node.run([option, "-r", self.rsc, "-g", self.group], prog="zor" + self.rtype, ns=self.ns,
                            timeout=timeout)
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

    def forget(self):
        for f in [*self.scripts.glob("*.calls"), *self.scripts.glob("*.args")]:
            f.unlink()


class Disk(Resource):
    """disk@fs1 on one loop device with an ext4 or xfs file system; no check, no retries."""

    def __init__(self, node, ns, loopdev, fs="ext4"):
        require_root()
        super().__init__(node, ns)
        self.dev = loopdev(300 if fs == "xfs" else 64, fs)
        self.set({"device": self.dev, "fs": fs, "mount/point": self.point, "mount/timeout": 20,
                  "mount/retry": 0, "mount/action": 0, "mount/xfsaction": 0, "umount/timeout": 20,
                  "umount/retry": 1, "umount/action": "none", "umount/interval": 0, "fsck/timing": 0,
                  "fsck/timeout": 120, "fsck/xfstimeout": 120, "fsck/xfstiming": 0})

    def hold(self):
        """A process with its working directory on the mounted point."""
        proc = self.ns.popen(["bash", "-c", f'cd "{self.point}" && touch .held && exec sleep 300'])
        wait_for(lambda: self.ns.run(["test", "-e", self.point + "/.held"]).returncode == 0)
        return proc
