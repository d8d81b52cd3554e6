#!/usr/bin/env bash
# The whole test suite from a fresh clone: installs what is missing, then builds and runs
#   1. the default build's tests (the integration example and the API reference among them),
#   2. an install of the library and a consumer project built against it, and the installed
#      simulator run,
#   3. the thread-safety analysis build (clang),
#   4. the tests under address+undefined and under thread sanitizers, with the unload, metadata
#      worker and lock torture tests repeated,
#   5. the libFuzzer harness for FBM_FUZZ_SECONDS (default 60) on every core, from the committed
#      minimised corpus,
#   6. the arm64 cross-build, its tests and a simulator run under qemu-user (stress test at 1,000
#      frames instead of 4,000; no fuzzing there),
#   7. Android.bp: canonical for bpfmt, and built for arm64 with mini-soong (check-android-bp.sh).
# Usage: scripts/test.sh [--quick]   (--quick: step 1 only)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/ensure-deps.sh build sim docs fuzz arm64 soong

step() { printf '\n==== %s ====\n' "$*"; }

step "default build and tests"
cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
ctest --preset default -j "$jobs"
[ "${1:-}" = "--quick" ] && exit 0

# A hang at unload or exit is rare per process: these run again and again, two at a time.
lifecycle='UnloadTest|MetaWorkerTest|LockTortureTest'
step "unload, metadata worker and lock tests repeated"
ctest --preset default -j "$jobs" -R "$lifecycle" --repeat until-fail:5 | tail -3

step "install and consumer project"
rm -rf build/install build/consumer
cmake --install build/default --prefix build/install >/dev/null
cmake -S examples/consumer -B build/consumer -G Ninja -DCMAKE_PREFIX_PATH="$PWD/build/install" >/dev/null
cmake --build build/consumer -j "$jobs"
./build/consumer/fbm-consumer
# The simulator runs from the install; the test seams install only as their component.
./build/install/bin/fbm-sim --help >/dev/null
./build/install/bin/fbm-sim --scenario build/install/share/vexlor_pipeline_fbm/scenarios/starving.json \
  -n 100 --no-progress | grep -q 'fbm-sim: scenario "starving"'
if [ -e build/install/include/vexlor-platform/vexlor/HostSeams.h ]; then
  echo "install: the test seams were installed as API" >&2
  exit 1
fi

step "long simulator run: memory stays flat, nothing lost"
./build/default/tools/fbm-sim --no-progress -n 100000 | grep -E 'frames/s|memory:|leak check:'

step "thread-safety analysis (clang)"
cmake --preset clang-tsa >/dev/null
cmake --build --preset clang-tsa -j "$jobs"

for preset in asan tsan; do
  step "tests under $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs" -R "$lifecycle" --repeat until-fail:3 | tail -3
done
step "fuzzing for ${FBM_FUZZ_SECONDS:-60} s on $jobs cores"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
corpus=$(mktemp -d)
trap 'rm -rf "$corpus"' EXIT
# libFuzzer's per-input leak check re-runs every input whose mallocs outnumber its frees and scans
# the heap, which the manager's worker threads make true of most inputs: off, since the harness
# itself checks after every input that nothing of the pipeline is still out, and that nothing
# outlives a manager. Entropic scheduling is off too: its bookkeeping of every feature an input
# touches took a third of the time. One fuzzing process per core (fork mode), each keeping its
# pipelines from input to input; a crash or a broken invariant ends the run with an error.
./build/fuzz/tests/fuzz/fbm_fuzz -fork="$jobs" -entropic=0 -max_total_time="${FBM_FUZZ_SECONDS:-60}" \
  -max_len=128 -detect_leaks=0 -artifact_prefix=build/fuzz/ "$corpus" tests/fuzz/corpus 2>&1 |
  grep -E '^#[0-9]+: cov|INFO: fuzzed|ERROR|invariant|SUMMARY|crash-' | tail -n 3
# What the run's corpus covers, in edges and features of one pass over it.
./build/fuzz/tests/fuzz/fbm_fuzz -runs=0 -entropic=0 -detect_leaks=0 "$corpus" tests/fuzz/corpus 2>&1 | grep -E '^#[0-9]+[[:space:]]+INITED'

step "arm64: cross-build, tests and a simulator run under qemu-user"
cmake --preset arm64 >/dev/null
cmake --build --preset arm64 -j "$jobs"
ctest --preset arm64 -j "$jobs"
qemu-aarch64 -L / -E LD_LIBRARY_PATH="$PWD/build/deps/arm64/usr/lib/p7zip" \
  ./build/arm64/tools/fbm-sim --no-progress -n 3000 |
  grep -E 'frames/s|leak check:'

step "Android.bp: bpfmt and a mini-soong build for arm64"
scripts/check-android-bp.sh

step "all passed"
