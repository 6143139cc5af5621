#!/bin/bash
# The file server of the demo's NAS part: an SSH file server in a network
# namespace of its own, reached from a client namespace in which zornas runs
# and mounts the share with sshfs. Needs root.
#
#   nas_server.sh start STATE_DIR PREFIX   start; the client key becomes PREFIX/etc/nas_key
#                                          (the key the sample configuration names)
#   nas_server.sh run STATE_DIR CMD...     run CMD in the client namespace (network,
#                                          private mounts and processes)
#   nas_server.sh down|up STATE_DIR        take the server's link down / bring it back
#   nas_server.sh stop STATE_DIR           stop the server, remove both namespaces
#
# The server exports /srv/share1 (holding hello.txt), at 10.231.0.1; the client is
# 10.231.0.2. Nothing of the machine's own network or mounts is touched.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
server="$here/../tests/e2e/nasserver.py"

case "${1:-}" in
start)
    [ $# -eq 3 ] || { echo "usage: $0 start STATE_DIR PREFIX" >&2; exit 2; }
    mkdir -p "$3/etc"
    exec /usr/bin/python3 "$server" start "$2" --key "$3/etc/nas_key"
    ;;
run)
    [ $# -ge 3 ] || { echo "usage: $0 run STATE_DIR CMD..." >&2; exit 2; }
    state=$2
    shift 2
    exec /usr/bin/python3 "$server" exec "$state" "$@"
    ;;
down | up | stop)
    [ $# -eq 2 ] || { echo "usage: $0 $1 STATE_DIR" >&2; exit 2; }
    exec /usr/bin/python3 "$server" "$1" "$2"
    ;;
*)
    sed -n '2,14p' "$0" >&2
    exit 2
    ;;
esac
