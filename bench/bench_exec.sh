#!/bin/sh
# The agent's own time per command run (cmd_thread with "true") against a bare
# fork/exec, and per mount table probe with 10 000 bind mounts in a private
# mount namespace (root). Figures vary with the machine: compare, do not assert.
#   BUILD=build-dir bench/bench_exec.sh [runs] [mounts] [probes]
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build}
runs=${1:-500}
mounts=${2:-10000}
probes=${3:-20}
bin=$build/bench/bench_exec
[ -x "$bin" ] || { echo "build the bench_exec target in $build first" >&2; exit 1; }
echo "== command runs"
"$bin" runs "$runs"
echo
echo "== mount table probe"
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root for a private mount namespace"
    exit 0
fi
"$bin" mounts "$mounts" "$probes"
