#!/usr/bin/env bash
# Installs what is needed, builds everything and runs every test: unit, system (real daemon on a
# private bus against the phone simulator and the adb stand-in), the board variant's compile check,
# sanitizer builds (ASan+UBSan, TSan) and brief fuzzing. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=${JOBS:-$(nproc)}

step() { printf '\n==== %s ====\n' "$*"; }

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
# the run, and ASan's quarantine makes resident memory say nothing about the daemon.
step "ASan+UBSan: unit and system tests"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVANE_SANITIZE=address >/dev/null
cmake --build build-asan -j "$JOBS"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest --test-dir build-asan --output-on-failure -j "$JOBS" -L 'unit|system' -E 'packaging|storm|endurance'

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

step "done"
printf 'tests: %d passed, %d failed\n' "$PASSED" "$FAILED"
