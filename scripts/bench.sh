#!/usr/bin/env bash
# Benchmarks from a fresh clone: installs what is missing (Google Benchmark, GStreamer for the
# peer), builds in release mode, runs the suite and prints one table, then a long simulator run
# for memory. Usage: scripts/bench.sh [extra Google Benchmark flags]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh build sim bench >&2
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target fbm_bench fbm-sim >&2
out=build/release/bench/results.json
./build/release/bench/fbm_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$out" --benchmark_out_format=json "$@" >&2
python3 bench/report.py "$out"
echo
echo "memory over a long run (fbm-sim, 100,000 frames):"
./build/release/tools/fbm-sim --no-progress -n 100000 | grep -E 'frames/s|memory:|leak check:'
