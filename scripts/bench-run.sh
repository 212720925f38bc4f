#!/usr/bin/env bash
# Times kobdiag-lab with six client logs of 64 MiB each against cat of the
# same six files, in the same run, and a full lab run with every target
# answering.  Prints wall time and peak memory (max RSS) of each.  A timing
# script, not a test: nothing here passes or fails.
#
#   scripts/bench-run.sh [build dir]     (default: build/bench-run)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${1:-build/bench-run}
if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DKOB_BUILD_TESTS=OFF -DKOB_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" --target kobdiag-lab koblab >/dev/null

labdir=$root/$build/lab/var
work=$(mktemp -d /tmp/kobdiag-bench.XXXXXX)
koblab_pid=
cleanup() {
  [ -n "$koblab_pid" ] && { kill -TERM "$koblab_pid" 2>/dev/null; wait "$koblab_pid" 2>/dev/null; }
  rm -f "$labdir"/*.txt "$labdir/kobdiag.pid"
  rm -rf "$work"
}
trap cleanup EXIT

"$build/tools/koblab" -d "$work/reports" >"$work/koblab.log" 2>&1 &
koblab_pid=$!
until grep -q '^koblab: ready$' "$work/koblab.log"; do
  kill -0 "$koblab_pid" || { cat "$work/koblab.log"; exit 1; }
  sleep 0.1
done

# /usr/bin/time -v: "Elapsed (wall clock) time" and "Maximum resident set size".
measure() {
  local label=$1
  shift
  /usr/bin/time -v -o "$work/time.txt" "$@"
  local wall rss
  wall=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$work/time.txt")
  rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/time.txt")
  printf '%-44s wall %-9s max RSS %8d KiB\n' "$label" "$wall" "$rss"
}

echo "==> a full lab run, every target answering (report to the file)"
rm -f "$labdir"/*.txt
measure "kobdiag-lab -o (no client logs)" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null

echo "==> six client logs of 64 MiB each"
logs=()
for p in kobvane kobrun kobflow; do
  for s in stdout stderr; do
    f=$labdir/${p}_$s.txt
    # Log-like lines, with no zero byte so that all of it is copied.
    { yes "2026-01-05 09:12:01 $p/$s: tunnel keepalive answered in 23 ms (100% of routes)" ||
      true; } | head -c $((64 * 1024 * 1024)) >"$f"
    logs+=("$f")
  done
done
total=$(cat "${logs[@]}" | wc -c)
echo "total log size: $((total / 1024)) KiB"

for round in 1 2; do
  measure "cat of the six logs into one file ($round)" sh -c 'cat "$@" >"$0"' "$work/cat.out" "${logs[@]}"
  measure "kobdiag-lab -o, stderr to /dev/null ($round)" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null
done
ls -l "$labdir/kobdiag_stdout.txt" | awk '{print "report file:", $5, "bytes"}'
