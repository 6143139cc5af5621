#!/usr/bin/env bash
# The agent's main job on a built-in sample node, as an operator would watch it:
# a loop-backed ext4 file system is brought into service and taken out again.
#
# Usage: demo/demo.sh BUILD_DIR   (./run demo builds first and calls this)
# Everything happens in a temporary node tree and a private mount and PID
# namespace; the loop device and the tree are removed at the end.
set -euo pipefail
build=${1:?usage: demo.sh BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "the demo mounts a file system: run it as root" >&2
    exit 1
fi

home=$(mktemp -d /tmp/zor-demo.XXXXXX)
chmod 755 "$home"
dev=""
cleanup() {
    if [ -n "$dev" ]; then
        blockdev --setrw "$dev" 2>/dev/null || true
        for _ in $(seq 50); do losetup -d "$dev" 2>/dev/null && break; sleep 0.1; done
    fi
    table=$(ZOR_HOME=$home "$home/bin/zorstat" --table-name 2>/dev/null || true)
    [ -n "$table" ] && rm -f "/dev/shm/${table#/}"
    rm -rf "$home"
}
trap cleanup EXIT

bold() { printf '\n\033[1m%s\033[0m\n' "$*"; }

bold "== Installing a node into $home"
cmake --install "$build" --prefix "$home" >/dev/null
export ZOR_HOME=$home
export PATH=$home/bin:$PATH

truncate -s 64M "$home/fs1.img"
mkfs.ext4 -q -F "$home/fs1.img"
dev=$(losetup --find --show "$home/fs1.img")
blockdev --setro "$dev"
point=$home/mnt/fs1

# The sample configuration names a placeholder device and mount point.
sed -i -e "s#<device>/dev/loop0</device>#<device>$dev</device>#" \
       -e "s#<point>/mnt/zor/fs1</point>#<point>$point</point>#" "$home/etc/zor.conf"
echo "resource fs1 of group grp1: device $dev (ext4, now read-only), mount point $point"

# A trace log as an operator reads it: time, level and message of each record
# (the sample traces at level 4), less the values read at the start of a run
# and the exit records of single steps.
trace_excerpt() { # log
    grep -v -E " (loaders|getinfo)\.cpp:|<<< " "$1" |
        sed -E -e 's/^[0-9-]+ ([0-9:]+)\.[0-9]+ \[[0-9:]+\] (\S+) \S+ \S+: /\1 \2 /' -e 's/^/   /'
}

show_state() {
    echo "-- status table (zorstat):"
    zorstat | sed 's/^/   /'
    echo "-- mount table entry for $point:"
    grep " $point " /proc/mounts | sed 's/^/   /' || echo "   (not mounted)"
    echo "-- device $dev read-only: $(blockdev --getro "$dev")"
}
export -f show_state bold trace_excerpt
export dev point

unshare --mount --propagation private --pid --fork --mount-proc bash -euo pipefail -c '
    bold "== zordisk --active -r fs1 -g grp1"
    zordisk --active -r fs1 -g grp1 && echo "exit status 0" || echo "exit status $?"
    show_state
    bold "== writing a file on the mounted file system"
    echo "written by the demo at $(date)" > "$point/hello.txt"
    ls -l "$point" | sed "s/^/   /"
    bold "== zordisk --deactive -r fs1 -g grp1"
    zordisk --deactive -r fs1 -g grp1 && echo "exit status 0" || echo "exit status $?"
    show_state
'

bold "== The course of both runs in the trace log $home/log/disk.log (time, level, message)"
trace_excerpt "$home/log/disk.log"

if [ -x "$here/nas_demo.sh" ]; then
    bold "== The NAS resource share1 of group grp2"
    "$here/nas_demo.sh" "$home"
fi
bold "== Done; the node, its mounts and the loop device are removed."
