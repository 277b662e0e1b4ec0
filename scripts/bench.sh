#!/usr/bin/env bash
# Builds the daemon and its benchmarks and runs them all: the stream path against ffmpeg and a bare
# loopback loop at a landscape and a portrait size (tests/bench/stream_bench), then the running
# daemon's frame and touch latency and its resources (tests/bench/system_bench.py). Every figure is a
# ratio against, or printed beside, a baseline measured in the same run; nothing passes or fails on a time.
#   BUILD_DIR (default build), ORVANE_BENCH_SECONDS (streaming window per size, default 8)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
JOBS=${JOBS:-$(nproc)}

cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS" >/dev/null

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(date -u +%Y-%m-%d)"
for size in 1280x720 1080x1920; do
  echo
  echo "== stream path throughput ($size) =="
  if [ -x "$BUILD_DIR/bench/stream_bench" ]; then
    "$BUILD_DIR/bench/stream_bench" "$size"
  else
    echo "stream_bench not built (libbenchmark-dev missing?)"
  fi
done
echo
echo "== running daemon: latency and resources =="
python3 tests/bench/system_bench.py "$BUILD_DIR"
