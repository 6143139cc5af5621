# What a hostile node does to an action, end to end: the agent killed as a cluster engine kills it, a full
# /dev/shm and log directory, a user of a mounted file system planting links where the monitor writes. All
# inside the scenario's namespaces; small tmpfs mounts there stand in for full file systems. (The files that
# only root may open or choose, the lock and status table among them: unit tables.)

import re
import subprocess

import pytest

from conftest import alive, wait_for


# A start killed while its mount command runs (a stand-in that sleeps, under the node's mount lock): zordisk
# itself, or the OCF agent's shell alone or with its process group, as a cluster engine kills it at its
# time-out. The command ends with the agent, and the lock is free once it has.
@pytest.mark.parametrize("program,target", [("zordisk", "pid"), ("ocf", "pid"), ("ocf", "group")])
def test_killed_start_leaves_nothing_running(disk, program, target):
    pids, top, lock = disk.scripts / "mount.pids", disk.scripts / "top.pid", str(disk.node.home / "run/mount.lock")
    disk.set({"mount/path": disk.script("mount", f'echo $$ $PPID > "{pids}"; exec sleep 100'), "mount/lock": 1,
              "mount/timeout": 200})
    prog = (f'"{disk.node.install}/lib/ocf/resource.d/zor/zordisk" start' if program == "ocf"
            else f'"{disk.node.home}/bin/zordisk" --active -r fs1 -g grp1')
    # A process group of its own, as the engine starts an agent.
    disk.ns.popen(["setsid", "bash", "-c", f'echo $$ > "{top}"; exec {prog}'], env=disk.node.env(
        {"OCF_RESKEY_resource": "fs1", "OCF_RESKEY_group": "grp1", "OCF_RESKEY_zor_home": str(disk.node.home)}))
    wait_for(lambda: pids.exists() and len(pids.read_text().split()) == 2, 60)
    command, agent = pids.read_text().split()
    assert subprocess.run(["flock", "-n", lock, "true"]).returncode == 1, "the mount ran without the lock"
    disk.ns.sh(f"kill -KILL -- {'-' if target == 'group' else ''}{top.read_text().strip()}", check=True)
    wait_for(lambda: not (alive(command, disk.ns) or alive(agent, disk.ns)), 5,
             "the command or the agent lived on")
    assert subprocess.run(["flock", "-w", "5", lock, "true"]).returncode == 0


HEAD = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[\d+:\d+\]")


# A full /dev/shm and a full log directory: the action that did its work succeeds, the status text that cannot
# be stored is traced, and the record the full directory cut is not continued by the next run's.
def test_full_shm_and_log_directory(disk):
    log = disk.node.home / "log"
    disk.node.conf.set("/root/disk/log/level", 1)  # errors only: the failed status store
    disk.node.write_conf()
    # 16 pages each: the table needs about 100; 15 taken by a filler, the log's last page 96 bytes short of full.
    disk.ns.sh(f'mount -t tmpfs -o size=64k,mode=1777 zor-shm /dev/shm && mount -t tmpfs -o size=64k zor-log "{log}"'
               f' && head -c 61440 /dev/zero > "{log}/filler" && printf "%3999s\\n" "" > "{log}/disk.log"', check=True)
    assert (disk.run("--active").returncode, disk.mounts()) == (0, 1)
    disk.ns.run(["rm", f"{log}/filler"], check=True)
    assert (disk.run("--deactive").returncode, disk.mounts(), disk.status()) == (0, 0, None)
    text = disk.ns.run(["cat", f"{log}/disk.log"], check=True).stdout
    # Past the first line: the cut record, then whole ones, each on a line of its own.
    lines = text.splitlines()[1:]
    assert (len(lines) > 1, [len(HEAD.findall(line)) for line in lines]) == (True, [1] * len(lines)), lines
    assert "shmrm_attach() failed. (0x5 SHMRM_ERR_NOTENOUGH)" in text


# What a user who may write the mount's root plants where the depth-20 check writes: a link to a root-owned
# file outside the mount, a directory of theirs holding such a link, an old check file. The check follows
# none, writes in a directory of root's alone, and answers 0.
PLANTS = [
    ("link", 'ln -s "$1" .zor_monitor'),
    ("user's directory", 'mkdir -m 777 .zor_monitor && ln -s "$1" ".zor_monitor/$(uname -n | cut -d. -f1)"'),
    ("old check file", "echo old > .zor_monitor"),
]


@pytest.mark.parametrize("name,plant", PLANTS, ids=[p[0] for p in PLANTS])
def test_write_check_never_follows_a_link(disk, name, plant):
    secret = disk.node.home / "secret"
    secret.write_text("root's own\n")
    secret.chmod(0o600)
    assert disk.run("--active").returncode == 0
    disk.ns.sh(f'cd "{disk.point}" && chmod 1777 . && setpriv --reuid=nobody --regid=nogroup --clear-groups -- '
               f'sh -c \'{plant}\' plant "{secret}"', check=True)
    assert disk.run("--monitor", "--level", "20").returncode == 0, disk.new
    check = disk.ns.sh(f'cd "{disk.point}" && stat -c "%U %a %F" .zor_monitor && cat .zor_monitor/*').stdout
    assert (secret.read_text(), check.splitlines()[0], check.splitlines()[1][:12]) == (
        "root's own\n", "root 700 directory", "zor monitor ")
