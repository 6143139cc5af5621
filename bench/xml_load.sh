#!/bin/sh
# Load time of the configuration library on a configuration of many resources.
#   bench/xml_load.sh BUILD_DIR [RESOURCES]     (default 10000)
# Builds bench/xml_load.cpp against BUILD_DIR's libzorxml.a, writes a
# configuration of RESOURCES disk resources (10 per group) into a temporary
# $ZOR_HOME and prints the measured times, parsed whole and through its index.
set -eu
build=${1:?usage: xml_load.sh BUILD_DIR [RESOURCES]}
n=${2:-10000}
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/zorbench.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --build "$build" --target zorxml >/dev/null 2>&1 || { echo "xml_load: building zorxml failed" >&2; exit 1; }
g++ -std=c++20 -O2 -I"$src/cluster_libs/include" "$src/bench/xml_load.cpp" -o "$work/xml_load" \
    "$build/cluster_libs/libzorxml.a" "$build/cluster_libs/libzorcommon.a" -lpugixml -lpthread

mkdir -p "$work/etc/policy"
awk -v n="$n" 'BEGIN {
    print "<?xml version=\"1.0\"?>\n<root>\n  <all><path>/opt/zor</path></all>"
    print "  <disk><log><level>8</level><size>4194304</size></log></disk>"
    for (g = 0; g * 10 < n; g++) {
        printf "  <group name=\"grp%d\">", g
        for (i = g * 10; i < g * 10 + 10 && i < n; i++) printf "<resource name=\"disk@fs%d\"/>", i
        print "</group>"
    }
    print "  <resource>"
    for (i = 0; i < n; i++) {
        printf "    <disk name=\"fs%d\"><parameters><disktype>disk</disktype><device>/dev/vg/lv%d</device><fs>ext4</fs>\n", i, i
        printf "      <mount><path>/bin/mount</path><point>/mnt/fs%d</point><option></option><timeout>60</timeout>", i
        printf "<retry>2</retry><action>1</action><xfsaction>1</xfsaction></mount>\n"
        printf "      <umount><path>/bin/umount</path><option></option><timeout>60</timeout><retry>3</retry>"
        printf "<action>kill</action></umount>\n"
        printf "      <fsck><path>/sbin/fsck</path><reiserfs>/sbin/reiserfsck</reiserfs><rebuildopt>0</rebuildopt>"
        printf "<fixopt>1</fixopt><option>-y</option><timeout>600</timeout><timing>2</timing><interval>10</interval>"
        printf "<xfs>/sbin/xfs_repair</xfs><xfsoption></xfsoption><xfstimeout>600</xfstimeout><xfstiming>0</xfstiming>"
        printf "<xfsinterval>0</xfsinterval></fsck>\n"
        printf "      <roset><path>bin/zorroset</path><timeout>10</timeout></roset>"
        printf "<relpath><path>bin/zorrelpath</path><timeout>30</timeout></relpath>\n"
        print "    </parameters></disk>"
    }
    print "  </resource>\n</root>"
}' > "$work/etc/zor.conf"
echo "configuration: $(wc -c < "$work/etc/zor.conf") bytes"
echo "== just written (parsed whole, not indexed yet)"
ZOR_HOME="$work" "$work/xml_load" "$n"
# A file is indexed once it has not changed for 2 s; the next load reads the index.
sleep 2.1
ZOR_HOME="$work" "$work/xml_load" "$n" >/dev/null
echo "== unchanged since its index was made"
ZOR_HOME="$work" "$work/xml_load" "$n"
