#!/usr/bin/env bash
# Makes the release artefacts from a build folder (what `make package` does):
#   scripts/package.sh [BUILD] [OUT]
# - OUT/QOR-Velmora-<version>-linux-<arch>.tar.gz: the update image, whose
#   top-level entry is the bundle folder "QOR Velmora";
# - OUT/qor-velmora_<version>_<debian arch>.deb: the bundle under
#   /opt/qor-velmora, with the command, launcher, icon and store listing
#   linked into /usr.
# Each artefact appears complete or not at all.
set -euo pipefail

build=${1:-build}
out=${2:-$build/packages}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

bundle="$work/QOR Velmora"
cmake --install "$build" --prefix "$bundle" --strip >/dev/null
version=$(tr -d '[:space:]' <"$bundle/share/qor-velmora/APP_VERSION")
case $(uname -m) in
  x86_64) platform=linux-x64 ;;
  aarch64) platform=linux-arm64 ;;
  *) echo "package.sh: no update platform for $(uname -m)" >&2; exit 1 ;;
esac
mkdir -p "$out"

# The same inputs give the same bytes: sorted entries, no owners, fixed times.
stamp=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || echo 0)}
tar_flags=(--sort=name --owner=0 --group=0 --numeric-owner --mtime="@$stamp")

image="$out/QOR-Velmora-$version-$platform.tar.gz"
tar "${tar_flags[@]}" -C "$work" -cf - "QOR Velmora" | gzip -9n >"$work/image"
mv "$work/image" "$image"
echo "Update image: $image"

# The Debian package: the bundle under /opt, what desktops look for linked
# into /usr, and the documentation Debian asks of every package.
root="$work/deb"
prefix=/opt/qor-velmora
doc="$root/usr/share/doc/qor-velmora"
mkdir -p "$root/opt" "$root/usr/bin" "$root/DEBIAN" "$doc"
cp -a "$bundle" "$root$prefix"
# Tells the shell that dpkg owns this bundle, so it never replaces it in place.
echo deb >"$root$prefix/share/qor-velmora/PACKAGE_MANAGED"
ln -s "$prefix/bin/qor-velmora" "$root/usr/bin/qor-velmora"
for file in $(cd "$bundle/share" && find applications metainfo icons -type f | LC_ALL=C sort); do
  mkdir -p "$(dirname "$root/usr/share/$file")"
  ln -s "$prefix/share/$file" "$root/usr/share/$file"
done
here=$(dirname "$0")
cp "$here/debian/copyright" "$doc/copyright"
/usr/bin/python3 "$here/debian/changelog.py" "$bundle/share/metainfo/org.qor.Velmora.metainfo.xml" |
  gzip -9n >"$doc/changelog.gz"

# Libraries as dpkg-shlibdeps finds them, plus the tools the shell runs and
# the Python its bundled runtime uses (tar is essential, so goes unsaid).
# libsoup 3's symbols file dates its symbols by libsoup 2.4's versions, which
# no libsoup 3 package has: its first release is the real floor.
mkdir -p "$work/shlibs/debian"
printf 'Source: qor-velmora\n\nPackage: qor-velmora\nArchitecture: any\n' >"$work/shlibs/debian/control"
libraries=$(cd "$work/shlibs" && dpkg-shlibdeps -O "$root$prefix/bin/qor-velmora" \
  "$root$prefix/lib/qor-velmora/libqor-velmora-web.so" |
  sed -n 's/^shlibs:Depends=//p' | sed 's/libsoup-3\.0-0 (>= 2\.[^)]*)/libsoup-3.0-0 (>= 3.0.0)/')
[ -n "$libraries" ] || { echo "package.sh: dpkg-shlibdeps found no libraries" >&2; exit 1; }
architecture=$(dpkg --print-architecture)
cat >"$root/DEBIAN/control" <<CONTROL
Package: qor-velmora
Version: $version
Architecture: $architecture
Maintainer: QOR <desktop@qor.example.org>
Installed-Size: $(du -sk --apparent-size --exclude=DEBIAN "$root" | cut -f1)
Depends: $libraries, unzip, zip, python3 (>= 3.9)
Section: misc
Priority: optional
Homepage: https://qor.example.org/velmora
Description: QOR workspace desktop application
 QOR Velmora brings the QOR workspace to the desktop: it sets up the local
 service the workspace needs on first start, keeps it running while the
 window is open, and stops it on quit.
CONTROL
(cd "$root" && find opt usr -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum) \
  >"$root/DEBIAN/md5sums"

# Put together here rather than by dpkg-deb, which would also claim /opt, a
# folder base-files owns.
(cd "$root" && find . -mindepth 1 -path ./DEBIAN -prune -o ! -path ./opt -print) |
  LC_ALL=C sort >"$work/entries"
tar "${tar_flags[@]}" --no-recursion -C "$root" -T "$work/entries" -cf - | xz -9 >"$work/data.tar.xz"
tar "${tar_flags[@]}" -C "$root/DEBIAN" -cf - . | xz -9 >"$work/control.tar.xz"
echo 2.0 >"$work/debian-binary"
(cd "$work" && ar -rcD deb.deb debian-binary control.tar.xz data.tar.xz)
deb="$out/qor-velmora_${version}_$architecture.deb"
mv "$work/deb.deb" "$deb"
echo "Debian package: $deb"
