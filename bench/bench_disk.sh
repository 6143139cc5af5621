#!/bin/bash
# Disk activation and deactivation cost, side by side on one ext4 loop device:
#   zordisk --active / --deactive, the bare commands a person would type, and
#   the Filesystem agent of the resource-agents package (the open-source peer).
# Also: a check at every activation, a busy mount point released by "kill"
# among 2000 idle processes, and the agent's peak resident memory.
#
# Usage (as root): bench/bench_disk.sh [BUILD_DIR] [ROUNDS]
# Everything that mounts or kills runs in a private mount and PID namespace;
# the loop device and temporary files are removed on exit.
set -euo pipefail

SELF=$(readlink -f "$0")
SRC_DIR=$(dirname "$(dirname "$SELF")")
BUILD_DIR=${1:-${ZOR_BUILD_DIR:-$SRC_DIR/build}}
ROUNDS=${2:-21}
IDLE_PROCS=2000
PEER=/usr/lib/ocf/resource.d/heartbeat/Filesystem

# ---------------------------------------------------------------------------
# Inside the namespace.
# ---------------------------------------------------------------------------
if [ "${ZOR_BENCH_INNER:-}" = 1 ]; then
    DEV=$ZOR_BENCH_DEV
    WORK=$ZOR_BENCH_WORK
    export ZOR_HOME=$WORK/node
    DIR=$WORK/mnt/fs1
    mkdir -p "$DIR"
    AGENT=("$ZOR_HOME/bin/zordisk")
    export OCF_ROOT=/usr/lib/ocf OCF_RESKEY_device=$DEV OCF_RESKEY_directory=$DIR OCF_RESKEY_fstype=ext4

    # conf KEY=VALUE...: sets values of the resource disk@fs1 in the node's configuration.
    conf() {
        python3 - "$ZOR_HOME/etc/zor.conf" "$@" <<'EOF'
import sys, xml.etree.ElementTree as ET
path = sys.argv[1]
tree = ET.parse(path)
params = tree.getroot().find("resource/disk[@name='fs1']/parameters")
for arg in sys.argv[2:]:
    key, _, value = arg.partition("=")
    elem = params
    for tag in key.split("/"):
        child = elem.find(tag)
        elem = child if child is not None else ET.SubElement(elem, tag)
    elem.text = value
tree.write(path)
EOF
    }

    now_us() { echo "${EPOCHREALTIME/./}"; }
    # timed FILE CMD...: appends the command's wall time in microseconds to FILE;
    # the command must succeed.
    timed() {
        local out=$1 t0 t1
        shift
        t0=$(now_us)
        "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
        t1=$(now_us)
        echo $((t1 - t0)) >>"$out"
    }
    median() { sort -n "$1" | awk '{v[NR]=$1} END {m=int((NR+1)/2); printf "%.2f", v[m]/1000}'; }
    ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a/b}'; }
    mounted() { grep -q " $DIR " /proc/mounts; }

    agent_act() { "${AGENT[@]}" --active -r fs1 -g grp1; }
    agent_deact() { "${AGENT[@]}" --deactive -r fs1 -g grp1; }
    bare_act() { blockdev --setrw "$DEV" && mount -t ext4 "$DEV" "$DIR"; }
    bare_deact() { umount "$DIR" && blockdev --setro "$DEV"; }
    bare_check_act() { blockdev --setrw "$DEV" && fsck -t ext4 -y "$DEV" && mount -t ext4 "$DEV" "$DIR"; }
    peer_start() { blockdev --setrw "$DEV" && "$PEER" start; }
    peer_stop() { "$PEER" stop; }

    R=$WORK/results
    mkdir -p "$R"
    conf fsck/timing=0 umount/interval=0 umount/retry=2 umount/action=kill
    # Warm the page cache and the programs once.
    agent_act && agent_deact
    bare_act && bare_deact
    peer_start >/dev/null 2>&1 && peer_stop >/dev/null 2>&1

    # Rounds interleave the three so that drift of the machine hits them alike.
    for ((i = 0; i < ROUNDS; i++)); do
        timed "$R/agent_act" agent_act
        timed "$R/agent_deact" agent_deact
        timed "$R/bare_act" bare_act
        timed "$R/bare_deact" bare_deact
        timed "$R/peer_start" peer_start
        timed "$R/peer_stop" peer_stop
    done

    conf fsck/timing=1 fsck/option=-y
    for ((i = 0; i < ROUNDS; i++)); do
        timed "$R/agent_check_act" agent_act
        agent_deact >/dev/null 2>&1
        timed "$R/bare_check_act" bare_check_act
        bare_deact
    done
    conf fsck/timing=0

    # Busy point among many idle processes: the release scans every process.
    for ((i = 0; i < IDLE_PROCS; i++)); do
        sleep infinity &
    done
    hold() {
        (cd "$DIR" && exec sleep infinity) &
        HOLDER=$!
        while [ "$(readlink "/proc/$HOLDER/cwd" 2>/dev/null)" != "$DIR" ]; do sleep 0.005; done
    }
    for ((i = 0; i < ROUNDS; i++)); do
        agent_act >/dev/null 2>&1
        hold
        timed "$R/agent_busy_deact" agent_deact
        wait "$HOLDER" 2>/dev/null || true
        mounted && { echo "agent left $DIR mounted" >&2; exit 1; }
        peer_start >/dev/null 2>&1
        hold
        timed "$R/peer_busy_stop" env OCF_RESKEY_force_unmount=true "$PEER" stop
        wait "$HOLDER" 2>/dev/null || true
        mounted && { echo "peer left $DIR mounted" >&2; exit 1; }
    done

    # Peak resident memory of one activation and one deactivation.
    rss() { /usr/bin/time -f %M "${AGENT[@]}" "$1" -r fs1 -g grp1 2>&1 >/dev/null | tail -1; }
    RSS_ACT=$(rss --active)
    RSS_DEACT=$(rss --deactive)

    a=$(median "$R/agent_act") b=$(median "$R/bare_act") p=$(median "$R/peer_start")
    ad=$(median "$R/agent_deact") bd=$(median "$R/bare_deact") pd=$(median "$R/peer_stop")
    ac=$(median "$R/agent_check_act") bc=$(median "$R/bare_check_act")
    ab=$(median "$R/agent_busy_deact") pb=$(median "$R/peer_busy_stop")

    echo "disk resource benchmark: ext4 on $DEV, $ROUNDS rounds each, medians in ms"
    printf '%-34s %10s %10s %10s %12s %12s\n' "" agent bare peer agent/bare peer/agent
    printf '%-34s %10s %10s %10s %12s %12s\n' "activate (check timing 0)" "$a" "$b" "$p" \
        "$(ratio "$a" "$b")" "$(ratio "$p" "$a")"
    printf '%-34s %10s %10s %10s %12s %12s\n' "deactivate" "$ad" "$bd" "$pd" \
        "$(ratio "$ad" "$bd")" "$(ratio "$pd" "$ad")"
    printf '%-34s %10s %10s %10s %12s %12s\n' "activate (check timing 1)" "$ac" "$bc" "-" \
        "$(ratio "$ac" "$bc")" "-"
    printf '%-34s %10s %10s %10s %12s %12s\n' "deactivate busy ($IDLE_PROCS idle procs)" "$ab" "-" "$pb" \
        "-" "$(ratio "$pb" "$ab")"
    echo "agent peak RSS: activate ${RSS_ACT} KiB, deactivate ${RSS_DEACT} KiB"
    echo "bare: blockdev --setrw + mount -t ext4 / umount + blockdev --setro;" \
        "check: blockdev --setrw + fsck -t ext4 -y + mount"
    echo "agent: umount/interval 0, umount/action kill; peer busy stop with force_unmount=true"
    exit 0
fi

# ---------------------------------------------------------------------------
# Outside: the node tree, the loop device, then the namespace.
# ---------------------------------------------------------------------------
if [ "$(id -u)" != 0 ]; then
    echo "bench_disk.sh: needs root (it mounts a loop device in a private namespace)" >&2
    exit 2
fi
for tool in "$PEER" /usr/bin/time losetup blockdev mkfs.ext4 unshare python3; do
    command -v "$tool" >/dev/null || { echo "bench_disk.sh: missing $tool" >&2; exit 2; }
done
[ -x "$BUILD_DIR/src/linux/server/resource/disk/zordisk" ] || [ -f "$BUILD_DIR/CMakeCache.txt" ] ||
    { echo "bench_disk.sh: no build in $BUILD_DIR" >&2; exit 2; }

WORK=$(mktemp -d /tmp/zor-bench.XXXXXX)
DEV=""
cleanup() {
    if [ -n "$DEV" ]; then
        blockdev --setrw "$DEV" 2>/dev/null || true
        # The namespace's mount may take a moment to go after its last process.
        for _ in $(seq 50); do losetup -d "$DEV" 2>/dev/null && break; sleep 0.1; done
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT

cmake --install "$BUILD_DIR" --prefix "$WORK/node" >/dev/null
truncate -s 256M "$WORK/disk.img"
mkfs.ext4 -q -F "$WORK/disk.img"
DEV=$(losetup --find --show "$WORK/disk.img")

python3 - "$WORK/node/etc/zor.conf" "$DEV" "$WORK/mnt/fs1" <<'EOF'
import sys, xml.etree.ElementTree as ET
path, dev, point = sys.argv[1:4]
tree = ET.parse(path)
params = tree.getroot().find("resource/disk[@name='fs1']/parameters")
params.find("device").text = dev
params.find("mount/point").text = point
tree.write(path)
EOF

ZOR_BENCH_INNER=1 ZOR_BENCH_DEV=$DEV ZOR_BENCH_WORK=$WORK ROUNDS=$ROUNDS \
    unshare --mount --propagation private --pid --fork --mount-proc --kill-child \
    bash "$SELF" "$BUILD_DIR" "$ROUNDS"
