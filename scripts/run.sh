#!/usr/bin/env bash
# The main job from a fresh clone: installs what is missing, builds, and runs the program.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh build >&2
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target fbm-demo >&2
exec ./build/default/tools/fbm-demo "$@"
