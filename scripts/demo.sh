#!/usr/bin/env bash
# The daemon's main job on any Linux machine: mirror the simulated USB phone onto the (host) screen.
# Installs what is needed, builds, starts a private session bus, the daemon on the host platform with
# the adb stand-in as its adb, asks for the USB link with orvanectl, and shows the mirrored phone until
# interrupted (Ctrl-C) or its window is closed, then stops the link and cleans up everything it started.
# With a display the window is the phone's touchscreen: click and drag on the picture, Esc or
# Backspace is back, Home is home, Menu or F2 opens the phone's menu.
#   DEMO_SECONDS=N   stop by itself after N seconds (default: run until interrupted)
#   ORVANE_HOST_DISPLAY=sdl|headless   force the presenter (default: a window when a display is reachable)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target orvaned orvanectl phone-sim fake-adb

BIN=$ROOT/build/bin
WORK=$(mktemp -d /tmp/orvane-demo.XXXXXX)
BUS_PID=""
DAEMON_PID=""
TAIL_PID=""

cleanup() {
  trap - EXIT INT TERM
  if [ -n "$DAEMON_PID" ] && kill -0 "$DAEMON_PID" 2>/dev/null; then
    echo "demo: the link's statistics (orvanectl stats)"
    timeout 20 "$BIN/orvanectl" stats | sed 's/^/  /' || true
    echo "demo: stopping the link"
    timeout 20 "$BIN/orvanectl" stop usb || true
    # SIGINT ends the daemon in order (SIGTERM would only make it print its call stack).
    kill -INT "$DAEMON_PID" 2>/dev/null || true
  fi
  [ -n "$DAEMON_PID" ] && wait "$DAEMON_PID" 2>/dev/null || true
  [ -n "$TAIL_PID" ] && kill "$TAIL_PID" 2>/dev/null || true
  [ -n "$BUS_PID" ] && kill "$BUS_PID" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$WORK"
  echo "demo: cleaned up"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

# A private session bus, so the demo never meets another daemon or HMI.
cat >"$WORK/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$WORK/bus</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
dbus-daemon --config-file="$WORK/bus.conf" --nofork --nopidfile >/dev/null 2>&1 &
BUS_PID=$!
export DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/bus"
for _ in $(seq 50); do [ -S "$WORK/bus" ] && break; sleep 0.1; done

# The adb stand-in is the daemon's adb; the shell commands around a USB link are pointed at it and
# at a scratch file instead of the board's USB controller and every adb on this machine.
export ADB="$BIN/fake-adb"
export FAKE_ADB_LOG="$WORK/adb.log"
export ORVANE_ADB_DEVICES_COMMAND="$ADB devices"
export ORVANE_OTG_COMMAND="echo otg > $WORK/usb-mode"
export ORVANE_ADB_KILL_COMMAND="$ADB kill-server"
export ORVANE_CONSOLE="$WORK/console.log"
export ORVANE_HOST_CODEC_LOCK="$WORK/codec.lock"
export PHONE_SIM_FPS="${PHONE_SIM_FPS:-30}"
if [ -z "${ORVANE_HOST_DISPLAY:-}" ]; then
  if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then ORVANE_HOST_DISPLAY=sdl; else ORVANE_HOST_DISPLAY=headless; fi
fi
export ORVANE_HOST_DISPLAY
# The screen is also written to a PNG, so that a window that cannot be opened still leaves a picture.
SNAPSHOT="${DEMO_SNAPSHOT:-/tmp/orvane-demo-screen.png}"
export ORVANE_HOST_SNAPSHOT="$SNAPSHOT"

touch "$ORVANE_CONSOLE"
tail -n +1 -f "$ORVANE_CONSOLE" | sed -u 's/^/console: /' &
TAIL_PID=$!

# A session of its own: Ctrl-C reaches the demo, which then stops the link and the daemon in order.
setsid "$BIN/orvaned" &
DAEMON_PID=$!
for _ in $(seq 100); do grep -q 'OrvaneApp init dbus: true' "$ORVANE_CONSOLE" && break; sleep 0.1; done

echo "demo: asking for the USB link"
"$BIN/orvanectl" start usb --timeout 60
# The presenter says which it got: a window, or headless (no display, or one that cannot be opened).
WINDOW=""
if [ "$ORVANE_HOST_DISPLAY" = sdl ]; then
  for _ in $(seq 100); do
    if grep -q '^host display: window ' "$ORVANE_CONSOLE"; then WINDOW=yes; break; fi
    grep -q '^host display: .*running headless' "$ORVANE_CONSOLE" && break
    sleep 0.1
  done
fi
if [ -n "$WINDOW" ]; then
  echo "demo: the phone is shown in a window, which is its touchscreen:"
  echo "demo:   click or drag on the picture to touch the phone; Esc or Backspace: back; Home: home;"
  echo "demo:   Menu or F2: menu; closing the window stops the link and the daemon"
else
  echo "demo: no window; the mirrored screen is written to $SNAPSHOT about once a second"
  echo "demo: (the file keeps the last mirrored picture after the demo)"
fi
echo "demo: mirroring; press Ctrl-C to stop"
if [ -n "${DEMO_SECONDS:-}" ]; then
  sleep "$DEMO_SECONDS"
else
  while kill -0 "$DAEMON_PID" 2>/dev/null; do sleep 1; done
fi
