#!/usr/bin/env bash
# Benchmarks from a fresh clone: installs what is missing (Google Benchmark, GStreamer for the
# peer), builds in release mode, runs the suite and prints one table, then two cameras at once
# against each alone, then a long simulator run for memory. Usage: scripts/bench.sh [extra Google Benchmark flags]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh build sim bench >&2
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target fbm_bench fbm-sim >&2
out=build/release/bench/results.json
# Every case is repeated 12 times, the repetitions of all cases shuffled together, so that ours
# and the peer's run side by side and a load on the machine falls on both; each ratio is taken
# from paired repetitions.
./build/release/bench/fbm_bench --benchmark_repetitions=12 --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.2 --benchmark_out="$out" --benchmark_out_format=json "$@" >/dev/null
python3 bench/report.py "$out"
echo
python3 bench/dual.py build/release/tools/fbm-sim tools/scenarios/dual.json 20000 5
echo
echo "memory over a long run (fbm-sim, 100,000 frames):"
./build/release/tools/fbm-sim --no-progress -n 100000 | grep -E 'frames/s|memory:|leak check:'
