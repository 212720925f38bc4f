#!/usr/bin/env bash
# Load and fault runs against kobreportd, on loopback, that print figures:
# 200 concurrent uploads of 1 MiB (SQLite, then PostgreSQL), the server
# killed in the middle of a stream of uploads and restarted, the intake's
# limits under a flood from one address, and hostile requests.  Not part of scripts/test.sh: the figures are for reading.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

build=build/stress
cmake -S . -B "$build" -G Ninja -DKOB_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target kobreportd kobreportd-stress >/dev/null

stress=$build/tests/support/kobreportd-stress
server=$build/server/kobreportd/kobreportd
status=0
echo "==> load"
"$stress" load "$server" --count 200 --size 1048576 || status=1
"$stress" load "$server" --count 200 --size 1048576 --postgres || status=1
echo "==> kill and restart"
"$stress" crash "$server" --cycles 3 || status=1
"$stress" crash "$server" --cycles 3 --postgres || status=1
echo "==> the fleet view over 100,000 reports"
"$stress" fleet "$server" --count 100000 || status=1
"$stress" fleet "$server" --count 100000 --postgres || status=1
echo "==> intake limits"
"$stress" limits "$server" || status=1
echo "==> hostile requests"
"$stress" hostile "$server" || status=1
exit $status
