#!/usr/bin/env bash
# Installs everything the daemon, its tools and its tests need on Debian 12.
# Idempotent: packages already present are left alone and apt is not refreshed twice.
set -euo pipefail

PKGS=(
  build-essential cmake ninja-build pkg-config git clang clang-format libclang-rt-14-dev
  qtbase5-dev qtbase5-dev-tools qt6-base-dev qt6-base-dev-tools
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev ffmpeg
  libsdl2-dev libcairo2-dev fonts-dejavu-core
  libavahi-compat-libdnssd-dev avahi-daemon avahi-utils libnss-mdns
  dbus dbus-bin dbus-daemon
  adb
  libgtest-dev googletest
  iproute2 procps psmisc python3
  xvfb xdotool help2man util-linux systemd
  mmdebstrap qemu-user-static binfmt-support crossbuild-essential-armhf crossbuild-essential-arm64
)

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
