#!/usr/bin/env bash
# The demo's NAS part: zornas mounts the share of a real file server and takes
# it down again, then refuses a server that does not answer.
#
# Usage: demo/nas_demo.sh NODE_HOME   (demo.sh calls it with its node tree and
# ZOR_HOME exported). The file server is an SSH server (sftp) in a network
# namespace of its own, 10.231.0.1; zornas runs in a client network namespace,
# 10.231.0.2, in a private mount and PID namespace, and mounts with sshfs.
# Everything is stopped and removed when this script ends.
set -euo pipefail
home=${1:?usage: nas_demo.sh NODE_HOME}
here=$(cd "$(dirname "$0")" && pwd)
server="$here/nas_server.sh"
state=$home/nas
export ZOR_HOME=$home
export PATH=$home/bin:$PATH

bold() { printf '\n\033[1m%s\033[0m\n' "$*"; }
stop() { "$server" stop "$state" >/dev/null 2>&1 || true; }
trap stop EXIT

# The client key goes where the sample configuration's IdentityFile names it.
"$server" start "$state" "$home"
point=$home/mnt/share1
sed -i -e "s#<point>/mnt/zor/share1</point>#<point>$point</point>#" "$home/etc/zor.conf"
echo "   resource share1 of group grp2: 10.231.0.1:/srv/share1 (fuse.sshfs), mount point $point"

in_client() { "$server" run "$state" "$@"; }
zornas_run() {
    in_client zornas "$@" -r share1 -g grp2 && echo "exit status 0" || echo "exit status $?"
}
show_state() {
    echo "-- status (zorstat in the client namespace): $(in_client zorstat | grep share1 || true)"
    echo "-- mount table entry for $point (client namespace):"
    in_client grep " $point " /proc/mounts | sed 's/^/   /' || echo "   (not mounted)"
}

bold "== zornas --active -r share1 -g grp2   (ping, then mount the share)"
zornas_run --active
show_state
echo "-- $point/hello.txt, read through the share:"
in_client cat "$point/hello.txt" | sed 's/^/   /'

bold "== zornas --deactive -r share1 -g grp2"
zornas_run --deactive
show_state

bold "== the server's link goes down; zornas --active must refuse (ping waits for its answer)"
"$server" down "$state"
zornas_run --active
show_state
"$server" up "$state"

bold "== The trace log $home/log/nas.log (time, level, message)"
trace_excerpt "$home/log/nas.log"
