#!/usr/bin/env bash
# Installs what is needed, builds everything and runs every test: unit, system (real daemon on a
# private bus against the phone simulator and the adb stand-in), the board variant's compile check,
# sanitizer builds (ASan+UBSan, TSan), brief fuzzing, and the daemon cross-built for armhf and arm64
# and tested under qemu-user. Safe to run again. Each stage's time is printed after it.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=${JOBS:-$(nproc)}

STAGE=""
STAGE_START=$SECONDS
step() {
  [ -z "$STAGE" ] || printf '==== %s: %d s ====\n' "$STAGE" "$((SECONDS - STAGE_START))"
  STAGE="$*"
  STAGE_START=$SECONDS
  printf '\n==== %s ====\n' "$*"
}

# Every ctest run adds to one tally, printed as the last line.
PASSED=0
FAILED=0
LOGDIR=$(mktemp -d)
trap 'rm -rf "$LOGDIR"' EXIT
run_ctest() {
  local log="$LOGDIR/ctest.$RANDOM.log" rc=0
  ctest "$@" 2>&1 | tee "$log" || rc=$?
  local line total failed
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1 || true)
  if [ -n "$line" ]; then
    failed=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
    PASSED=$((PASSED + total - failed))
    FAILED=$((FAILED + failed))
  fi
  if [ "$rc" -ne 0 ]; then
    printf 'tests: %d passed, %d failed\n' "$PASSED" "$((FAILED > 0 ? FAILED : 1))"
    exit "$rc"
  fi
}

step "dependencies"
bash scripts/install-deps.sh

step "build (host platform, Qt 5)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$JOBS"

step "format"
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || true)
if [ -n "$files" ]; then
  # shellcheck disable=SC2086
  clang-format --dry-run --Werror $files
fi

step "unit and system tests"
run_ctest --test-dir build --output-on-failure -j "$JOBS" -L 'unit|system'

step "board variant (compile only: the vendor libraries exist only on the head unit)"
cmake -S . -B build-board -G Ninja -DORVANE_PLATFORM=board -DORVANE_TESTS=OFF >/dev/null
cmake --build build-board -j "$JOBS" --target orvane_core orvane_platform

step "Qt 6 build: daemon and tools, and the D-Bus surface on it"
cmake -S . -B build-qt6 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANE_QT=6 -DORVANE_TESTS=OFF >/dev/null
cmake --build build-qt6 -j "$JOBS"
(cd tests/system && ORVANE_BUILD_DIR="$ROOT/build-qt6" python3 -m unittest test_dbus)

# The HMI storm and the 200-cycle endurance run once, in the stage above: under ASan they would double
# the run, and ASan's quarantine makes resident memory say nothing about the daemon. The clock test
# preloads its shim ahead of the sanitizer's runtime, which ASan refuses; it runs plain and on armhf.
# The starved-machine test runs plain too: ASan's shadow memory needs far more address space than the
# limits it sets, and UBSan probes memory through a pipe, so it takes every object for a bad one in a
# process without a free descriptor.
step "ASan+UBSan: unit and system tests"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVANE_SANITIZE=address >/dev/null
cmake --build build-asan -j "$JOBS"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest --test-dir build-asan --output-on-failure -j "$JOBS" -L 'unit|system' -E 'packaging|storm|endurance|clock|machine'

step "TSan: unit tests"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVANE_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$JOBS"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$ROOT/tests/tsan.supp" \
  run_ctest --test-dir build-tsan --output-on-failure -j "$JOBS" -L unit

step "fuzzing (libFuzzer, a bounded run per target)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DORVANE_TESTS=OFF -DORVANE_FUZZ=ON -DORVANE_SANITIZE=address >/dev/null
cmake --build build-fuzz -j "$JOBS"
run_ctest --test-dir build-fuzz --output-on-failure -L fuzz

# The head unit's CPU (armhf) and arm64: cross-built against Debian 12 sysroots, the unit tests run
# under qemu-user, the D-Bus, USB and clock system tests run the ARM daemon and orvanectl against the
# native phone simulator and adb stand-in of build/bin. Left out under emulation: the endurance test
# (qemu's own heap grows by about 0.7 MB with every thread it starts, one per link, while the
# daemon's own memory stays flat) and the storm test (300 s at 60 pictures a second of 1280x720,
# which emulated decoding cannot keep up with). A sysroot is kept between runs in ORVANE_SYSROOTS.
SYSROOTS=${ORVANE_SYSROOTS:-/var/cache/orvane}
step "qemu-user for ARM programs (binfmt_misc)"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
[ -e /proc/sys/fs/binfmt_misc/register ] || $SUDO mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
for q in qemu-arm qemu-aarch64; do
  grep -qx enabled "/proc/sys/fs/binfmt_misc/$q" 2>/dev/null || $SUDO update-binfmts --enable "$q"
  printf '%s: %s\n' "$q" "$(grep -E '^(enabled|flags)' "/proc/sys/fs/binfmt_misc/$q" | tr '\n' ' ')"
done

for ARCH in armhf arm64; do
  SYSROOT=$SYSROOTS/sysroot-$ARCH
  step "$ARCH: sysroot"
  $SUDO mkdir -p "$SYSROOTS"
  $SUDO bash scripts/sysroot.sh "$ARCH" "$SYSROOT"

  step "$ARCH: cross build with -Werror"
  cmake -S . -B "build-$ARCH" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux.toolchain.cmake -DORVANE_ARCH="$ARCH" \
    -DORVANE_SYSROOT="$SYSROOT" -DORVANE_TOOLS_DIR="$ROOT/build/bin" >/dev/null
  cmake --build "build-$ARCH" -j "$JOBS" 2>&1 | tee "$LOGDIR/build-$ARCH.log"
  printf '%s: warnings %s; the daemon is %s\n' "$ARCH" "$(grep -c 'warning:' "$LOGDIR/build-$ARCH.log" || true)" \
    "$(readelf -h "build-$ARCH/bin/orvaned" | sed -nE 's/^ *(Class|Machine): *//p' | tr '\n' ' ')"

  step "$ARCH: unit tests under qemu-user"
  run_ctest --test-dir "build-$ARCH" --output-on-failure -j "$JOBS" -L unit

  step "$ARCH: system tests with the ARM daemon (D-Bus, USB, misbehaving phone, clock)"
  run_ctest --test-dir "build-$ARCH" --output-on-failure -L system -R 'dbus|usb|clock'
  printf '%s: ' "$ARCH"
  grep -h '^frame-rate cap:' "build-$ARCH/Testing/Temporary/LastTest.log"

  if [ "$ARCH" = armhf ]; then
    # Everything compiles; the daemon's link may miss only what the vendor's libraries define.
    step "armhf: board variant"
    cmake -S . -B build-board-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux.toolchain.cmake \
      -DORVANE_ARCH=armhf -DORVANE_SYSROOT="$SYSROOT" -DORVANE_PLATFORM=board -DORVANE_TESTS=OFF \
      -DORVANE_BOARD_LIBS= >/dev/null
    cmake --build build-board-armhf -j "$JOBS" --target orvane_core orvane_platform orvanectl
    if cmake --build build-board-armhf --target orvaned >"$LOGDIR/board-link.log" 2>&1; then
      echo "board variant: the daemon linked without the vendor's libraries?" >&2
      exit 1
    fi
    missing=$(grep -oE "undefined reference to .[A-Za-z_0-9]+" "$LOGDIR/board-link.log" | sed 's/.* .//' | sort -u)
    if [ -z "$missing" ] || grep -vqE '^(MFC|tezapi_)' <<<"$missing"; then
      cat "$LOGDIR/board-link.log" >&2
      echo "board variant: the link failed for more than the vendor's libraries" >&2
      exit 1
    fi
    printf 'board variant compiled for armhf; the link misses only the vendor functions %s\n' "$(tr '\n' ' ' <<<"$missing")"
  fi

  step "$ARCH: package"
  (cd "build-$ARCH" && cpack -G DEB >/dev/null)
  deb=$(ls "build-$ARCH"/orvane_*_"$ARCH".deb)
  dpkg-deb -f "$deb" Package Version Architecture Depends
  printf '%s: built %s\n' "$ARCH" "$deb"
done

step "done"
printf 'total: %d s\n' "$SECONDS"
printf 'tests: %d passed, %d failed\n' "$PASSED" "$FAILED"
