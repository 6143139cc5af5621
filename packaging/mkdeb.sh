#!/usr/bin/env bash
# Builds the Debian package of zor from a CMake build directory.
#
#   packaging/mkdeb.sh BUILD_DIR OUT_DIR    prints the path of the .deb it wrote
#
# Layout of the package:
#   /opt/zor/...                      the node's tree (ZOR_HOME's default), as
#                                     `cmake --install --prefix /opt/zor` makes it
#   /opt/zor/etc/zor.conf             conffile: dpkg never overwrites an operator's edit
#   /opt/zor/etc/zor.conf.sample      replaced by every upgrade
#   /opt/zor/{log,var/registry,run}   run-time directories
#   /usr/lib/ocf/resource.d/zor/      the OCF agents, where the cluster engine looks
#   /usr/share/man/man{5,7,8}/        the manual pages, compressed, where man looks
set -euo pipefail

build=$(realpath "$1")
out=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
prefix=/opt/zor

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || { echo "mkdeb: no project version in $build/CMakeCache.txt" >&2; exit 1; }
arch=$(dpkg --print-architecture)
# Reproducible: every time stamp is the last commit's, or the version file's.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$here/.." log -1 --format=%ct 2>/dev/null || stat -c %Y "$here/mkdeb.sh")}

stage=$(mktemp -d /tmp/zor-deb.XXXXXX)
trap 'rm -rf "$stage"' EXIT
root=$stage/root
mkdir -p "$root"

DESTDIR=$root cmake --install "$build" --prefix "$prefix" >/dev/null

# The static programs carry their debugging information in the build only.
for p in zordisk zorroset zorrelpath zorstat; do
    strip --strip-unneeded --remove-section=.comment --remove-section=.note "$root$prefix/bin/$p"
done

# Manual pages go where man finds them without a MANPATH.
if [ -d "$root$prefix/share/man" ]; then
    mkdir -p "$root/usr/share"
    mv "$root$prefix/share/man" "$root/usr/share/man"
    rmdir --ignore-fail-on-non-empty "$root$prefix/share"
    find "$root/usr/share/man" -type f -exec gzip -9n {} +
    # A link to a page follows its target's new name.
    find "$root/usr/share/man" -type l | while read -r link; do
        target=$(readlink "$link")
        rm "$link"
        ln -s "$target.gz" "$link.gz"
    done
fi

# OCF agents: the cluster engine looks under /usr/lib/ocf only.
agents=$root$prefix/lib/ocf/resource.d/zor
if [ -d "$agents" ] && [ -n "$(ls -A "$agents")" ]; then
    mkdir -p "$root/usr/lib/ocf/resource.d"
    mv "$agents" "$root/usr/lib/ocf/resource.d/zor"
fi
rm -rf "$root$prefix/lib/ocf"
rmdir --ignore-fail-on-non-empty "$root$prefix/lib" 2>/dev/null || true

doc=$root/usr/share/doc/zor
mkdir -p "$doc"
cp "$here/copyright" "$doc/copyright"
sed -e "s/@VERSION@/$version/" \
    -e "s/@DATE@/$(date -u -R -d "@$SOURCE_DATE_EPOCH")/" "$here/changelog.in" | gzip -9n >"$doc/changelog.gz"
mkdir -p "$root/usr/share/lintian/overrides"
cp "$here/lintian-overrides" "$root/usr/share/lintian/overrides/zor"

# Plain permissions: directories and programs 0755, everything else 0644.
find "$root" -type d -exec chmod 0755 {} +
find "$root" -type f -exec chmod 0644 {} +
chmod 0755 "$root$prefix"/bin/zor*
[ -d "$root/usr/lib/ocf/resource.d/zor" ] && find "$root/usr/lib/ocf/resource.d/zor" -type f -exec chmod 0755 {} +

mkdir -p "$root/DEBIAN"
echo "$prefix/etc/zor.conf" >"$root/DEBIAN/conffiles"
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z |
    xargs -0 md5sum >DEBIAN/md5sums)
size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
sed -e "s/@VERSION@/$version/" -e "s/@ARCH@/$arch/" -e "s/@SIZE@/$size/" \
    "$here/control.in" >"$root/DEBIAN/control"
chmod 0644 "$root/DEBIAN/"*
install -m 0755 "$here/postrm" "$root/DEBIAN/postrm"
find "$root" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +

mkdir -p "$out"
deb=$out/zor_${version}_${arch}.deb
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
