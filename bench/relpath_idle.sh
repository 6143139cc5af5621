#!/bin/bash
# Times zorrelpath on a machine with many idle processes: N sleepers that do not
# use the mount, plus one holder that does. Everything runs in a private mount
# and PID namespace, so no process or mount outside it is ever touched.
# Usage: bench/relpath_idle.sh [BUILD_DIR] [N] [RUNS]   (root)
set -eu
build=${1:-$(dirname "$0")/../build}
count=${2:-2000}
runs=${3:-5}
tool=$(realpath "$build/tools/zorrelpath")
[ "$(id -u)" = 0 ] || { echo "needs root" >&2; exit 2; }
dir=$(mktemp -d /tmp/zor-bench.XXXXXX)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/mnt"

# The namespace's teardown kills the sleepers; its noise goes to /dev/null.
unshare --mount --propagation private --pid --fork --mount-proc \
    bash -s "$tool" "$dir/mnt" "$count" "$runs" 2>/dev/null <<'INNER'
set -eu
tool=$1 mnt=$2 count=$3 runs=$4
mount -t tmpfs bench "$mnt"
cd /
for ((i = 0; i < count; i++)); do sleep 1000 & done
sleep 1
echo "processes in the namespace: $(ls /proc | grep -c '^[0-9]')"
ms() { echo $(( $(date +%s%N) / 1000000 )); }
# Prints "exit CODE, MS ms" for one run.
timed() {
    local t0 t1 rc=0
    t0=$(ms); "$tool" "$mnt" 2>/dev/null || rc=$?; t1=$(ms)
    echo "exit $rc, $((t1 - t0)) ms"
}
for ((r = 1; r <= runs; r++)); do
    echo "run $r, nothing holding: $(timed)"
    (cd "$mnt" && exec sleep 1000) &
    sleep 0.2
    echo "run $r, one holder:      $(timed)"
done
umount "$mnt" && echo "umount after release: ok"
INNER
