#!/usr/bin/env bash
# The main job from a fresh clone: installs what is missing, builds the pipeline simulator and runs
# it. With no arguments it runs the default scenario and renders its plot to build/sim/default.png;
# arguments go to fbm-sim as they are (scripts/run.sh --help lists them), e.g.
#   scripts/run.sh plan --vary fullA=3..9 --plot build/sim/plan.png
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh build sim >&2
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target fbm-sim >&2
mkdir -p build/sim
[ $# -eq 0 ] && set -- --plot build/sim/default.png
exec ./build/default/tools/fbm-sim "$@"
