#!/usr/bin/env bash
# Where a cycle's time goes, counted exactly: runs fixed numbers of cycles of the benchmark cases
# under callgrind (instructions and atomic read-modify-writes, which cost most of the time on a
# frame path without contention) and prints them per cycle by owner: heap pool, producer, manager,
# platform (the host stand-in of the camera stack's stream buffers and heaps) and caller (the
# benchmark's own code). The peer, GStreamer's GstBufferPool, is counted whole.
# Usage: bench/profile.sh [CYCLES]   (default 20000)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh build bench profile >&2
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target fbm_profile >&2
cycles=${1:-20000}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for c in acquire frame peer; do
  valgrind --tool=callgrind --collect-bus=yes --toggle-collect=fbm_profile_cycles \
    --callgrind-out-file="$out/$c" ./build/release/bench/fbm_profile "$c" "$cycles" 2>/dev/null || continue
  case $c in
    acquire) echo "1. one acquire + release, per cycle" ;;
    frame) echo "3. one 4-stream frame with 10 sets ready, per cycle" ;;
    peer) echo "peer: GstBufferPool acquire + release, per cycle" ;;
  esac
  python3 bench/profile.py "$out/$c" "$cycles" $([ "$c" = peer ] && echo whole)
  echo
done
