# What a hostile node does to an action, end to end: a full /dev/shm and log directory, in the scenario's own
# mount namespace, where small tmpfs mounts stand in for full file systems. (The files that only root may
# open or choose, the lock and status table among them: unit tables.)

import re


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
