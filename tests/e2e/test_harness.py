# The isolation the other scenarios rely on: what happens in a test's
# namespace stays there.

from pathlib import Path

from conftest import require_root


def test_mount_and_processes_stay_inside_the_namespace(ns, loopdev, tmp_path):
    require_root()
    dev = loopdev(size_mb=16, fs="ext4")
    point = tmp_path / "mnt"
    point.mkdir()
    assert ns.run(["mount", dev, str(point)]).returncode == 0
    inside = ns.run(["grep", "-c", str(point), "/proc/mounts"]).stdout.strip()
    assert inside == "1"
    assert str(point) not in Path("/proc/mounts").read_text()
    # The namespace has its own process numbers: its init is 1.
    assert ns.run(["cat", "/proc/1/comm"]).stdout.strip() == "sleep"
