#!/usr/bin/env bash
# Builds the daemon and its benchmarks and runs them all: the stream path against the decoder alone
# and a bare loopback loop, at a landscape and a portrait size (tests/bench/stream_bench), then the
# running daemon's frame latency against its limit, CPU, touch latency and memory
# (tests/bench/system_bench.py). Every figure is a ratio against, or printed beside, a limit or
# baseline measured in the same run; nothing passes or fails on a time. Ends with the headline
# figures, one `ratio NAME VALUE` line each (the limit or baseline over the measure: at most 1).
#   BUILD_DIR (default build), ORVANE_BENCH_SECONDS (streaming window per size, default 8)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
JOBS=${JOBS:-$(nproc)}

cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS" >/dev/null

out=$(mktemp)
trap 'rm -f "$out"' EXIT
# Each part's table now, its ratio lines gathered for the end.
run() { "$@" | tee -a "$out" | grep -v '^ratio '; }

# Other work on the machine shows in the load average: a run that starts or ends busy is worth repeating.
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(date -u +%Y-%m-%d)"
echo "load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "== stream path throughput =="
run "$BUILD_DIR/bench/stream_bench" 1280x720 1080x1920
echo
echo "== running daemon: latency, CPU, touch and memory =="
run python3 tests/bench/system_bench.py "$BUILD_DIR"
echo
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
grep '^ratio ' "$out"
