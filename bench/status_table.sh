#!/bin/sh
# Cost of the status table's calls (bench/status_table.cpp).
#   bench/status_table.sh BUILD_DIR [RUNS]     (default 200)
set -eu
build=${1:?usage: status_table.sh BUILD_DIR [RUNS]}
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/zorbench.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --build "$build" --target zoripc >/dev/null 2>&1 || { echo "status_table: building zoripc failed" >&2; exit 1; }
g++ -std=c++20 -O2 -I"$src/cluster_libs/include" "$src/bench/status_table.cpp" -o "$work/status_table" \
    "$build/cluster_libs/libzoripc.a" "$build/cluster_libs/libzorcommon.a" -lrt -lpthread
"$work/status_table" "${2:-200}"
