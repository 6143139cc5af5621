#!/bin/bash
# What a failover waits for, side by side in one run, as one table of ratios:
# zordisk / zornas, the bare commands a person would type, and the Filesystem
# agent of the resource-agents package (the open-source peer).
#
# Rows: activation and deactivation with no other processes and with 1000 idle
# ones; the monitor; ten resources deactivated one after another; a check at
# activation; a busy mount point released by "kill" among 2000 idle processes;
# the walk over /proc per 1000 processes against a bare walk; activation with
# a configuration of 1000 resources against one of 1 (read through its index,
# and just changed: parsed whole); a NAS (sshfs) share
# against a bare mount -t fuse.sshfs; the agent's peak resident memory.
#
# Usage (as root): bench/bench_disk.sh [BUILD_DIR] [ROUNDS]
# Everything that mounts or kills runs in a private mount and PID namespace
# (the NAS rows in the client namespace of the demo's file server); the idle
# processes are started there and ended by PID; loop devices, namespaces and
# temporary files are removed on exit.
set -euo pipefail

SELF=$(readlink -f "$0")
SRC_DIR=$(dirname "$(dirname "$SELF")")
BUILD_DIR=$(readlink -f "${1:-${ZOR_BUILD_DIR:-$SRC_DIR/build}}")
ROUNDS=${2:-15}
TEN=10
PEER=/usr/lib/ocf/resource.d/heartbeat/Filesystem

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

# ---------------------------------------------------------------------------
# NAS rows: inside the file server's client namespace.
# ---------------------------------------------------------------------------
if [ "${ZOR_BENCH_INNER:-}" = nas ]; then
    WORK=$ZOR_BENCH_WORK
    R=$WORK/results
    export ZOR_HOME=$WORK/node
    POINT=$WORK/mnt/share1
    OPTS=$ZOR_BENCH_NASOPT
    mkdir -p "$POINT"
    agent_act() { "$ZOR_HOME/bin/zornas" --active -r share1 -g grp2; }
    agent_deact() { "$ZOR_HOME/bin/zornas" --deactive -r share1 -g grp2; }
    bare_act() { mount -t fuse.sshfs -o "$OPTS" 10.231.0.1:/srv/share1 "$POINT"; }
    bare_deact() { umount "$POINT"; }
    agent_act >/dev/null 2>&1 && agent_deact >/dev/null 2>&1
    for ((i = 0; i < ROUNDS; i++)); do
        timed "$R/nas_agent_act" agent_act
        timed "$R/nas_agent_deact" agent_deact
        timed "$R/nas_bare_act" bare_act
        timed "$R/nas_bare_deact" bare_deact
    done
    exit 0
fi

# ---------------------------------------------------------------------------
# Disk rows: inside a private mount and PID namespace.
# ---------------------------------------------------------------------------
if [ "${ZOR_BENCH_INNER:-}" = disk ]; then
    DEV=$ZOR_BENCH_DEV
    read -r -a TDEVS <<<"$ZOR_BENCH_TDEVS"
    WORK=$ZOR_BENCH_WORK
    R=$WORK/results
    export ZOR_HOME=$WORK/node
    DIR=$WORK/mnt/fs1
    mkdir -p "$DIR"
    for ((k = 1; k <= TEN; k++)); do mkdir -p "$WORK/mnt/t$k"; done
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
    mounted() { grep -q " $DIR " /proc/mounts; }

    agent_act() { "$ZOR_HOME/bin/zordisk" --active -r fs1 -g grp1; }
    agent_deact() { "$ZOR_HOME/bin/zordisk" --deactive -r fs1 -g grp1; }
    agent_mon() { "$ZOR_HOME/bin/zordisk" --monitor -r fs1 -g grp1; }
    big_act() { ZOR_HOME=$WORK/big "$WORK/big/bin/zordisk" --active -r fs1 -g grp1; }
    big_deact() { ZOR_HOME=$WORK/big "$WORK/big/bin/zordisk" --deactive -r fs1 -g grp1; }
    bare_act() { blockdev --setrw "$DEV" && mount -t ext4 "$DEV" "$DIR"; }
    bare_deact() { umount "$DIR" && blockdev --setro "$DEV"; }
    bare_check_act() { blockdev --setrw "$DEV" && fsck -t ext4 -y "$DEV" && mount -t ext4 "$DEV" "$DIR"; }
    peer_start() { blockdev --setrw "$DEV" && "$PEER" start; }
    peer_stop() { "$PEER" stop; }
    peer_mon() { "$PEER" monitor; }

    # Ten resources t1..t10 of group grp10 in the node "ten", one loop device each.
    ten_agent_act() {
        for ((k = 1; k <= TEN; k++)); do
            ZOR_HOME=$WORK/ten "$WORK/ten/bin/zordisk" --active -r "t$k" -g grp10 || return 1
        done
    }
    ten_agent_deact() {
        for ((k = 1; k <= TEN; k++)); do
            ZOR_HOME=$WORK/ten "$WORK/ten/bin/zordisk" --deactive -r "t$k" -g grp10 || return 1
        done
    }
    ten_peer() {
        local verb=$1
        for ((k = 1; k <= TEN; k++)); do
            if [ "$verb" = start ]; then blockdev --setrw "${TDEVS[k - 1]}" || return 1; fi
            OCF_RESKEY_device=${TDEVS[k - 1]} OCF_RESKEY_directory=$WORK/mnt/t$k "$PEER" "$verb" || return 1
        done
    }
    ten_bare_act() {
        for ((k = 1; k <= TEN; k++)); do
            blockdev --setrw "${TDEVS[k - 1]}" && mount -t ext4 "${TDEVS[k - 1]}" "$WORK/mnt/t$k" || return 1
        done
    }
    ten_bare_deact() {
        for ((k = 1; k <= TEN; k++)); do
            umount "$WORK/mnt/t$k" && blockdev --setro "${TDEVS[k - 1]}" || return 1
        done
    }

    IDLE=()
    # idle N: N more idle processes in this namespace (ended by PID at the end).
    idle() {
        local i
        for ((i = 0; i < $1; i++)); do
            sleep infinity &
            IDLE+=($!)
        done
    }
    procs() { ls /proc | grep -c '^[0-9]'; }

    # Warm the page cache and the programs once.
    agent_act && agent_deact
    big_act && big_deact
    bare_act && bare_deact
    peer_start >/dev/null 2>&1 && peer_stop >/dev/null 2>&1
    ten_agent_act && ten_agent_deact

    # The monitor row waits for an agent that has the action.
    MONITOR=1
    agent_act
    if ! agent_mon >/dev/null 2>&1; then
        # An agent without the action refuses the option ("Option was invalid.",
        # stored only when it got as far as the names).
        if "$ZOR_HOME/bin/zorstat" -g grp1 -r fs1 2>/dev/null | grep -q "Option was invalid." ||
            ! grep -aqi -- --monitor "$ZOR_HOME/bin/zordisk"; then
            MONITOR=0
        else
            echo "zordisk --monitor failed on a mounted resource" >&2
            exit 1
        fi
    fi
    agent_deact

    # Rounds interleave agent, bare commands and peer, so that drift of the
    # machine hits them alike.
    rounds() {
        local tag=$1 i
        for ((i = 0; i < ROUNDS; i++)); do
            timed "$R/agent_act_$tag" agent_act
            if [ "$tag" = 0 ]; then
                [ "$MONITOR" = 1 ] && timed "$R/agent_mon" agent_mon
                timed "$R/peer_mon" peer_mon
            fi
            timed "$R/agent_deact_$tag" agent_deact
            timed "$R/bare_act_$tag" bare_act
            timed "$R/bare_deact_$tag" bare_deact
            timed "$R/peer_start_$tag" peer_start
            timed "$R/peer_stop_$tag" peer_stop
            if [ "$tag" = 0 ]; then
                timed "$R/big_act" big_act
                big_deact >/dev/null 2>&1
            fi
        done
    }
    rounds 0
    echo "$(procs)" >"$R/procs_0"

    # The first activation after the configuration changed parses it whole
    # and writes its index (once the file has been left alone for 2 s).
    for ((i = 0; i < ROUNDS; i++)); do
        touch "$WORK/big/etc/zor.conf"
        sleep 2.1
        timed "$R/big_cold_act" big_act
        big_deact >/dev/null 2>&1
    done

    for ((i = 0; i < ROUNDS; i++)); do
        ten_agent_act >/dev/null 2>&1
        timed "$R/ten_agent" ten_agent_deact
        ten_peer start >/dev/null 2>&1
        timed "$R/ten_peer" ten_peer stop
        ten_bare_act
        timed "$R/ten_bare" ten_bare_deact
    done

    conf fsck/timing=1 fsck/option=-y
    for ((i = 0; i < ROUNDS; i++)); do
        timed "$R/agent_check_act" agent_act
        agent_deact >/dev/null 2>&1
        timed "$R/bare_check_act" bare_check_act
        bare_deact
    done
    conf fsck/timing=0

    # A thousand idle processes, as on a real server.
    idle 1000
    sleep 0.5
    echo "$(procs)" >"$R/procs_1000"
    rounds 1000

    # The walk over /proc alone: the agent's running-unmount check and a bare
    # readdir + read of every cmdline; zorrelpath's holder walk (nothing holds
    # the mount, so one walk) timed as a whole program.
    "$BUILD_DIR/bench/proc_scan_bench" "$ROUNDS" >"$R/scan"
    agent_act
    for ((i = 0; i < ROUNDS; i++)); do
        timed "$R/relpath_walk" "$ZOR_HOME/bin/zorrelpath" "$DIR"
    done
    agent_deact

    # Busy point among 2000 idle processes: the release walks every process.
    idle 1000
    sleep 0.5
    echo "$(procs)" >"$R/procs_2000"
    hold() {
        (cd "$DIR" && exec sleep infinity) &
        HOLDER=$!
        while [ "$(readlink "/proc/$HOLDER/cwd" 2>/dev/null)" != "$DIR" ]; do sleep 0.005; done
    }
    for ((i = 0; i < ROUNDS; i++)); do
        agent_act >/dev/null 2>&1
        hold
        timed "$R/agent_busy" agent_deact
        wait "$HOLDER" 2>/dev/null || true
        mounted && { echo "agent left $DIR mounted" >&2; exit 1; }
        peer_start >/dev/null 2>&1
        hold
        timed "$R/peer_busy" env OCF_RESKEY_force_unmount=true "$PEER" stop
        wait "$HOLDER" 2>/dev/null || true
        mounted && { echo "peer left $DIR mounted" >&2; exit 1; }
    done
    kill "${IDLE[@]}" 2>/dev/null || true
    wait "${IDLE[@]}" 2>/dev/null || true

    # Peak resident memory (KiB), the largest of activation and deactivation,
    # with the 1-resource and the 1000-resource configuration.
    rss() { /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1; }
    {
        rss "$ZOR_HOME/bin/zordisk" --active -r fs1 -g grp1
        rss "$ZOR_HOME/bin/zordisk" --deactive -r fs1 -g grp1
    } >"$R/rss"
    big_act >/dev/null 2>&1 && big_deact >/dev/null 2>&1  # the index is there again
    {
        rss env ZOR_HOME="$WORK/big" "$WORK/big/bin/zordisk" --active -r fs1 -g grp1
        rss env ZOR_HOME="$WORK/big" "$WORK/big/bin/zordisk" --deactive -r fs1 -g grp1
    } >"$R/rss_big"
    touch "$WORK/big/etc/zor.conf"
    sleep 2.1
    rss env ZOR_HOME="$WORK/big" "$WORK/big/bin/zordisk" --active -r fs1 -g grp1 >"$R/rss_big_cold"
    big_deact >/dev/null 2>&1
    exit 0
fi

# ---------------------------------------------------------------------------
# Outside: node trees, loop devices, the file server, then the namespaces.
# ---------------------------------------------------------------------------
if [ "$(id -u)" != 0 ]; then
    echo "bench_disk.sh: needs root (it mounts loop devices in a private namespace)" >&2
    exit 2
fi
for tool in "$PEER" /usr/bin/time losetup blockdev mkfs.ext4 unshare python3; do
    command -v "$tool" >/dev/null || { echo "bench_disk.sh: missing $tool" >&2; exit 2; }
done
[ -x "$BUILD_DIR/bench/proc_scan_bench" ] || { echo "bench_disk.sh: no build in $BUILD_DIR" >&2; exit 2; }

WORK=$(mktemp -d /tmp/zor-bench.XXXXXX)
DEVS=()
NAS_STATE=""
cleanup() {
    if [ -n "$NAS_STATE" ]; then
        "$SRC_DIR/demo/nas_server.sh" stop "$NAS_STATE" >/dev/null 2>&1 || true
    fi
    local dev
    for dev in "${DEVS[@]}"; do
        blockdev --setrw "$dev" 2>/dev/null || true
        # The namespace's mount may take a moment to go after its last process.
        for _ in $(seq 50); do losetup -d "$dev" 2>/dev/null && break; sleep 0.1; done
    done
    rm -rf "$WORK"
}
trap cleanup EXIT

# newdev SIZE: an ext4 loop device, detached at exit.
newdev() {
    local img dev
    img=$(mktemp "$WORK/disk.XXXXXX")
    truncate -s "$1" "$img"
    mkfs.ext4 -q -F "$img"
    dev=$(losetup --find --show "$img")
    DEVS+=("$dev")
    NEWDEV=$dev
}

cmake --install "$BUILD_DIR" --prefix "$WORK/node" >/dev/null
newdev 256M
DEV=$NEWDEV
TDEVS=()
for ((k = 1; k <= TEN; k++)); do
    newdev 16M
    TDEVS+=("$NEWDEV")
done
cp -a "$WORK/node" "$WORK/big"
cp -a "$WORK/node" "$WORK/ten"

# The three configurations: the sample's (one disk resource, fs1), the same
# with 999 more disk resources in groups of their own ahead of it, and ten
# resources t1..t10 in group grp10.
python3 - "$WORK" "$DEV" "${TDEVS[@]}" <<'EOF'
import copy, sys, xml.etree.ElementTree as ET
work, dev, tdevs = sys.argv[1], sys.argv[2], sys.argv[3:]

def load(node):
    tree = ET.parse(f"{work}/{node}/etc/zor.conf")
    root = tree.getroot()
    fs1 = root.find("resource/disk[@name='fs1']")
    params = fs1.find("parameters")
    params.find("device").text = dev
    params.find("mount/point").text = f"{work}/mnt/fs1"
    for key, value in (("fsck/timing", "0"), ("umount/interval", "0"), ("umount/retry", "2"),
                       ("umount/action", "kill")):
        params.find(key).text = value
    return tree, root, fs1

def disk(fs1, name, device, point):
    d = copy.deepcopy(fs1)
    d.set("name", name)
    d.find("parameters/device").text = device
    d.find("parameters/mount/point").text = point
    return d

tree, root, fs1 = load("node")
tree.write(f"{work}/node/etc/zor.conf")

tree, root, fs1 = load("big")
resources = root.find("resource")
first_group = list(root).index(root.find("group"))
for i in range(999):
    g = ET.Element("group", name=f"g{i:04d}")
    ET.SubElement(g, "resource", name=f"disk@d{i:04d}")
    root.insert(first_group + i, g)
    resources.insert(i, disk(fs1, f"d{i:04d}", f"/dev/zor-bench-none{i}", f"{work}/mnt/d{i:04d}"))
tree.write(f"{work}/big/etc/zor.conf")

tree, root, fs1 = load("ten")
g = ET.Element("group", name="grp10")
for k, tdev in enumerate(tdevs, 1):
    ET.SubElement(g, "resource", name=f"disk@t{k}")
    root.find("resource").append(disk(fs1, f"t{k}", tdev, f"{work}/mnt/t{k}"))
root.insert(list(root).index(root.find("group")), g)
tree.write(f"{work}/ten/etc/zor.conf")
EOF

R=$WORK/results
mkdir -p "$R"
START_LOAD=$(cut -d' ' -f1-3 /proc/loadavg)

ZOR_BENCH_INNER=disk ZOR_BENCH_DEV=$DEV ZOR_BENCH_TDEVS="${TDEVS[*]}" ZOR_BENCH_WORK=$WORK \
    unshare --mount --propagation private --pid --fork --mount-proc --kill-child \
    bash "$SELF" "$BUILD_DIR" "$ROUNDS"

# NAS rows, against the demo's file server (network namespaces of its own).
NAS_NOTE=""
if command -v sshfs >/dev/null && { command -v sshd >/dev/null || [ -x /usr/sbin/sshd ]; }; then
    NAS_STATE=$WORK/nas
    if "$SRC_DIR/demo/nas_server.sh" start "$NAS_STATE" "$WORK/node" >/dev/null 2>&1; then
        NASOPT=$(python3 - "$WORK" <<'EOF'
import sys, xml.etree.ElementTree as ET
work = sys.argv[1]
path = f"{work}/node/etc/zor.conf"
tree = ET.parse(path)
params = tree.getroot().find("resource/nas[@name='share1']/parameters")
params.find("mount/point").text = f"{work}/mnt/share1"
params.find("umount/interval").text = "0"
tree.write(path)
print(params.find("mount/option").text)
EOF
)
        "$SRC_DIR/demo/nas_server.sh" run "$NAS_STATE" env ZOR_BENCH_INNER=nas ZOR_BENCH_WORK="$WORK" \
            ZOR_BENCH_NASOPT="$NASOPT" ROUNDS="$ROUNDS" bash "$SELF" "$BUILD_DIR" "$ROUNDS" ||
            NAS_NOTE="NAS rows failed"
    else
        NAS_NOTE="the file server did not start"
    fi
else
    NAS_NOTE="sshfs or sshd missing"
fi
END_LOAD=$(cut -d' ' -f1-3 /proc/loadavg)

# ---------------------------------------------------------------------------
# The table.
# ---------------------------------------------------------------------------
median() {
    [ -s "$R/$1" ] || { echo "-"; return; }
    sort -n "$R/$1" | awk '{v[NR]=$1} END {m=int((NR+1)/2); printf "%.2f", v[m]/1000}'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (a == "-" || b == "-" || b == 0) print "-"; else printf "%.2f", a/b}'; }
row() { # row LABEL AGENT BARE PEER GOAL
    printf '%-44s %9s %9s %9s %10s %10s  %s\n' "$1" "$2" "$3" "$4" "$(ratio "$2" "$3")" "$(ratio "$4" "$2")" "$5"
}

echo "failover benchmark: ext4 on loop devices, $ROUNDS rounds, medians in ms;" \
    "load average $START_LOAD at start, $END_LOAD at end ($(nproc) cores)"
printf '%-44s %9s %9s %9s %10s %10s  %s\n' "" agent bare peer agent/bare peer/agent goal
for n in 0 1000; do
    p=$(cat "$R/procs_$n")
    row "activate, $n idle procs ($p in ns)" "$(median agent_act_$n)" "$(median bare_act_$n)" \
        "$(median peer_start_$n)" "a/b<=1.5 p/a>=6"
    row "deactivate, $n idle procs" "$(median agent_deact_$n)" "$(median bare_deact_$n)" \
        "$(median peer_stop_$n)" "a/b<=1.5 p/a>=6"
done
if [ -s "$R/agent_mon" ]; then
    row "monitor" "$(median agent_mon)" "-" "$(median peer_mon)" "p/a>=6"
else
    printf '%-44s %9s %9s %9s %10s %10s  %s\n' "monitor" "n/a (no --monitor)" "" "$(median peer_mon)" "" "" "p/a>=6"
fi
row "deactivate $TEN resources one after another" "$(median ten_agent)" "$(median ten_bare)" "$(median ten_peer)" ""
row "activate with check (fsck timing 1)" "$(median agent_check_act)" "$(median bare_check_act)" "-" ""
row "busy deactivate, 2000 idle, holder killed" "$(median agent_busy)" "-" "$(median peer_busy)" "agent<200"
if [ -s "$R/nas_agent_act" ]; then
    row "NAS activate (sshfs)" "$(median nas_agent_act)" "$(median nas_bare_act)" "-" ""
    row "NAS deactivate (sshfs)" "$(median nas_agent_deact)" "$(median nas_bare_deact)" "-" ""
else
    echo "NAS rows: n/a ($NAS_NOTE)"
fi
read -r sprocs sbare sagent <"$R/scan"
per1000() { awk -v t="$1" -v n="$2" 'BEGIN {printf "%.2f", t * 1000 / n}'; }
walk=$(median relpath_walk)
printf '%-44s %9s %9s %9s %10s %10s  %s\n' "walk of /proc per 1000 procs: umount check" \
    "$(per1000 "$sagent" "$sprocs")" "$(per1000 "$sbare" "$sprocs")" "-" "$(ratio "$sagent" "$sbare")" "-" \
    "bare = readdir + read of every cmdline"
printf '%-44s %9s %9s %9s %10s %10s  %s\n' "  zorrelpath, nothing holding (whole run)" \
    "$(per1000 "$walk" "$sprocs")" "$(per1000 "$sbare" "$sprocs")" "-" "$(ratio "$walk" "$sbare")" "-" ""
big=$(median big_act) small=$(median agent_act_0)
printf '%-44s %9s %9s %9s %10s %10s  %s\n' "activate, 1000-resource configuration" "$big" "$small" "-" \
    "$(ratio "$big" "$small")" "-" "adds $(awk -v a="$big" -v b="$small" 'BEGIN {printf "%.2f", a-b}') ms (goal <1)"
cold=$(median big_cold_act)
printf '%-44s %9s %9s %9s %10s %10s  %s\n' "  the same, configuration just changed" "$cold" "$small" "-" \
    "$(ratio "$cold" "$small")" "-" "adds $(awk -v a="$cold" -v b="$small" 'BEGIN {printf "%.2f", a-b}') ms (parse whole + index)"
rss=$(sort -n "$R/rss" | tail -1) rssbig=$(sort -n "$R/rss_big" | tail -1) rsscold=$(cat "$R/rss_big_cold")
echo "agent peak RSS: ${rss} KiB (1-resource configuration), ${rssbig} KiB (1000 resources)," \
    "${rsscold} KiB (1000 resources, configuration just changed); goal < 4096 KiB"
echo "bare: blockdev --setrw + mount / umount + blockdev --setro (NAS: mount -t fuse.sshfs / umount);" \
    "bare column of the 1000-resource row: the same activation with the 1-resource configuration"
echo "agent: umount/interval 0, umount/action kill; peer busy stop with force_unmount=true"
