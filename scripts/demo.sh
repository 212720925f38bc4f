#!/usr/bin/env bash
# The main job: builds kobdiag and shows its usage text.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

cmake -S . -B build/demo -G Ninja -DKOB_BUILD_TESTS=OFF -DKOB_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo --target kobdiag

echo "==> kobdiag -x (an unknown option prints the usage text; exit status 1)"
status=0
build/demo/bin/kobdiag/kobdiag -x || status=$?
echo "==> exit status: $status"
