#!/usr/bin/env bash
# Builds the Debian package of zor from a CMake build directory.
#
#   packaging/mkdeb.sh BUILD_DIR OUT_DIR    prints the path of the .deb it wrote
#
# zor is an add-on package laid out as the FHS asks of one:
#   /opt/zor/bin/                     the programs (static files of the add-on)
#   /opt/zor/{etc,log,var,run}        links, so that the node's tree /opt/zor (ZOR_HOME's
#                                     default, which every library and the configuration
#                                     name) stays whole:
#     etc -> /etc/opt/zor             host configuration; zor.conf is a conffile
#     var -> /var/opt/zor             variable data: registry/, xmlindex/
#     log -> /var/opt/zor/log         trace logs, check reports
#     run -> /var/opt/zor/run         the mount lock
#   /usr/sbin/zordisk, zornas, zorroset, zorrelpath and /usr/bin/zorstat
#                                     links to /opt/zor/bin, on every user's PATH
#   /usr/lib/ocf/resource.d/zor/      the OCF agents, where the cluster engine looks
#   /usr/share/man/man{1,5,7,8}/      the manual pages, compressed, where man looks
#   /usr/share/doc/zor/               README, the documents, the sample configuration
# The directories under /var/opt/zor are made by postinst and removed on purge.
set -euo pipefail

build=$(realpath "$1")
out=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/.." && pwd)
prefix=/opt/zor

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || { echo "mkdeb: no project version in $build/CMakeCache.txt" >&2; exit 1; }
arch=$(dpkg --print-architecture)
# Reproducible: every time stamp is the last commit's, or the version file's.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$top" log -1 --format=%ct 2>/dev/null || stat -c %Y "$here/mkdeb.sh")}

stage=$(mktemp -d /tmp/zor-deb.XXXXXX)
trap 'rm -rf "$stage"' EXIT
root=$stage/root
mkdir -p "$root"

DESTDIR=$root cmake --install "$build" --prefix "$prefix" >/dev/null
tree=$root$prefix

# The static programs carry their debugging information in the build only.
for p in zordisk zorroset zorrelpath zorstat; do
    strip --strip-unneeded --remove-section=.comment --remove-section=.note "$tree/bin/$p"
done

# Manual pages go where man finds them without a MANPATH.
mkdir -p "$root/usr/share"
mv "$tree/share/man" "$root/usr/share/man"
rmdir "$tree/share"
find "$root/usr/share/man" -type f -exec gzip -9n {} +
# A link to a page follows its target's new name.
find "$root/usr/share/man" -type l | while read -r link; do
    target=$(readlink "$link")
    rm "$link"
    ln -s "$target.gz" "$link.gz"
done

# OCF agents: the cluster engine looks under /usr/lib/ocf only.
mkdir -p "$root/usr/lib/ocf/resource.d"
mv "$tree/lib/ocf/resource.d/zor" "$root/usr/lib/ocf/resource.d/zor"
rm -r "$tree/lib"

doc=$root/usr/share/doc/zor
mkdir -p "$doc/examples"
# Host configuration: the operator's file only; the samples are documentation.
mkdir -p "$root/etc/opt/zor"
mv "$tree/etc/zor.conf" "$root/etc/opt/zor/zor.conf"
mv "$tree/etc/zor.conf.sample" "$doc/examples/zor.conf.sample"
mv "$tree/etc/policy/README.example.xml" "$doc/examples/policy-example.xml"
rm -r "$tree/etc" "$tree/log" "$tree/var" "$tree/run"
ln -s /etc/opt/zor "$tree/etc"
ln -s /var/opt/zor "$tree/var"
ln -s /var/opt/zor/log "$tree/log"
ln -s /var/opt/zor/run "$tree/run"

# On the PATH: the programs only root may run in /usr/sbin, zorstat for everyone.
mkdir -p "$root/usr/sbin" "$root/usr/bin"
for p in zordisk zornas zorroset zorrelpath; do
    ln -s "$prefix/bin/$p" "$root/usr/sbin/$p"
done
ln -s "$prefix/bin/zorstat" "$root/usr/bin/zorstat"

cp "$here/copyright" "$doc/copyright"
cp "$top/README.md" "$top"/docs/*.md "$doc/"
sed -e "s/@VERSION@/$version/" \
    -e "s/@DATE@/$(date -u -R -d "@$SOURCE_DATE_EPOCH")/" "$here/changelog.in" >"$doc/changelog"
# As dh_compress does: the change log and every document over 4 KiB.
find "$doc" -type f ! -name copyright \( -name changelog -o -size +4k \) -exec gzip -9n {} +
mkdir -p "$root/usr/share/lintian/overrides"
cp "$here/lintian-overrides" "$root/usr/share/lintian/overrides/zor"

# Plain permissions: directories and programs 0755, everything else 0644.
find "$root" -type d -exec chmod 0755 {} +
find "$root" -type f -exec chmod 0644 {} +
chmod 0755 "$tree"/bin/zor* "$root/usr/lib/ocf/resource.d/zor/zordisk"

mkdir -p "$root/DEBIAN"
echo /etc/opt/zor/zor.conf >"$root/DEBIAN/conffiles"
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z |
    xargs -0 md5sum >DEBIAN/md5sums)
size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
sed -e "s/@VERSION@/$version/" -e "s/@ARCH@/$arch/" -e "s/@SIZE@/$size/" \
    "$here/control.in" >"$root/DEBIAN/control"
chmod 0644 "$root/DEBIAN/"*
for script in preinst postinst prerm postrm; do
    install -m 0755 "$here/$script" "$root/DEBIAN/$script"
done
find "$root" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +

mkdir -p "$out"
deb=$out/zor_${version}_${arch}.deb
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
