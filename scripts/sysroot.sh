#!/usr/bin/env bash
# Makes a Debian 12 sysroot for cross-building and testing the daemon on ARM:
#   bash scripts/sysroot.sh armhf|arm64 DIR
# The packages are only unpacked (mmdebstrap's extract variant): nothing runs under emulation, and
# the directory is the target's headers and libraries as its Debian packages ship them. A DIR that
# already holds a sysroot made by this script from the same package list is kept as it is; one made
# from another list is made again.
set -euo pipefail

ARCH=${1:?usage: sysroot.sh armhf|arm64 DIR}
DIR=${2:?usage: sysroot.sh armhf|arm64 DIR}
case "$ARCH" in
  armhf | arm64) ;;
  *) echo "sysroot.sh: the architecture is armhf or arm64, not $ARCH" >&2; exit 64 ;;
esac

# What the daemon, its tools, its unit tests and the clock test build and run against (their
# dependencies come along).
PKGS=qtbase5-dev,libavcodec-dev,libavutil-dev,libswscale-dev,libsdl2-dev,libavahi-compat-libdnssd-dev
PKGS=$PKGS,libcairo2-dev,libgtest-dev,libfaketime
STAMP="$DIR/.orvane-sysroot"
if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$ARCH $PKGS" ]; then
  echo "sysroot.sh: $DIR is already a $ARCH sysroot"
  exit 0
fi
if [ -f "$STAMP" ]; then
  echo "sysroot.sh: $DIR was made from another package list: making it again"
  rm -rf "$DIR"
elif [ -e "$DIR" ]; then
  echo "sysroot.sh: $DIR exists and is not a sysroot made here; remove it first" >&2
  exit 1
fi
# Made beside its place and moved there whole, so that an interrupted run leaves no half sysroot.
NEW="$DIR.partial"
rm -rf "$NEW"

# The release and its updates, without the security suite: its armhf index has been served out of
# step with its release file, and mmdebstrap stops at any index error. The libraries' names and
# interfaces are the release's either way.
#
# Each package's shlibs file goes into the sysroot's dpkg directory, so that a package built
# against the sysroot can name the packages its libraries come from (nothing is installed here,
# so dpkg itself has no record of them).
# shellcheck disable=SC2016
mmdebstrap --variant=extract --architectures="$ARCH" --include="$PKGS" \
  --setup-hook='sed -i "/-security/d" "$1/etc/apt/sources.list"' \
  --extract-hook='for deb in "$1"/var/cache/apt/archives/*.deb; do
      pkg=$(dpkg-deb --field "$deb" Package)
      dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs 2>/dev/null > "$1/var/lib/dpkg/info/$pkg.shlibs" || true
      [ -s "$1/var/lib/dpkg/info/$pkg.shlibs" ] || rm -f "$1/var/lib/dpkg/info/$pkg.shlibs"
    done' \
  bookworm "$NEW" </dev/null

# Absolute symbolic links (libz.so -> /lib/...) would point into the build machine: make them
# relative to the sysroot.
find "$NEW/lib" "$NEW/usr/lib" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$NEW$target")" "$link"
done
echo "$ARCH $PKGS" >"$NEW/.orvane-sysroot"
mv "$NEW" "$DIR"
echo "sysroot.sh: $ARCH sysroot in $DIR ($(du -sh "$DIR" | cut -f1))"
