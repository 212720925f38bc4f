#!/usr/bin/env bash
# Times kobdiag-lab -o with six client logs of 64 MiB each against cat of the
# same six files into one file.  Each is run three times, in turn with the
# others, and the median kept.
# The run's fixed part (a full lab run, every target answering, no client
# logs) is measured the same way and taken off the run with logs, so what is
# compared with cat is what the logs cost.  Prints wall times, CPU times
# (user plus system, steadier than wall time on a busy machine), peak memory
# (max RSS), minor page faults (each one a fresh page of memory handed to the
# process) and the ratios: the logs' cost over cat's, and the peak RSS of the
# run with logs over the size of the logs.  The load average is printed
# before and after, since other work on the machine moves every figure.  A
# timing script, not a test: nothing here passes or fails.
#
#   scripts/bench-run.sh [build dir]     (default: build/bench-run)
#
# koblab answers on fixed loopback addresses: run it under the same lock as
# the lab's whole-program tests when other checkouts may be testing.
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
  rm -rf "$labdir/aside"
  rm -rf "$work"
}
trap cleanup EXIT

: >"$work/koblab.log"
"$build/lab/koblab" -d "$work/reports" >"$work/koblab.log" 2>&1 &
koblab_pid=$!
until grep -q '^koblab: ready$' "$work/koblab.log"; do
  kill -0 "$koblab_pid" || { cat "$work/koblab.log"; exit 1; }
  sleep 0.1
done

runs=3
# run_once NAME LABEL ROUND COMMAND...: runs the command once, prints the
# run and adds its wall seconds, CPU seconds, max RSS (KiB) and minor page
# faults to the lists walls_NAME, cpus_NAME, rsss_NAME and flts_NAME.
run_once() {
  local name=$1 label=$2 round=$3
  shift 3
  local start end wall cpu rss flt
  start=$(date +%s%N)
  /usr/bin/time -f '%M %U %S %R' -o "$work/rss.txt" "$@"
  end=$(date +%s%N)
  wall=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
  read -r rss cpu flt < <(tail -n 1 "$work/rss.txt" | awk '{ printf "%d %.2f %d\n", $1, $2 + $3, $4 }')
  printf '%-36s run %d: wall %7.3f s  CPU %6.2f s  max RSS %8d KiB  minor faults %7d\n' \
    "$label" "$round" "$wall" "$cpu" "$rss" "$flt"
  eval "walls_$name+=($wall) cpus_$name+=($cpu) rsss_$name+=($rss) flts_$name+=($flt)"
}
# medians NAME: leaves the medians of NAME's lists in wall_NAME, cpu_NAME,
# rss_NAME and flt_NAME.
medians() {
  local name=$1 what list
  for what in wall cpu rss flt; do
    eval "list=(\"\${${what}s_$name[@]}\")"
    printf -v "${what}_$name" '%s' "$(printf '%s\n' "${list[@]}" | sort -g | sed -n "$(((runs + 1) / 2))p")"
  done
}

echo "==> six client logs of 64 MiB each"
# Made aside first: the fixed part is measured without them.
rm -f "$labdir"/*.txt
aside=$labdir/aside
mkdir -p "$aside"
logs=()
for p in kobvane kobrun kobflow; do
  for s in stdout stderr; do
    f=${p}_$s.txt
    # Log-like lines, with no zero byte so that all of it is copied.
    { yes "2026-01-05 09:12:01 $p/$s: tunnel keepalive answered in 23 ms (100% of routes)" ||
      true; } | head -c $((64 * 1024 * 1024)) >"$aside/$f"
    logs+=("$f")
  done
done
total=$(cd "$aside" && cat "${logs[@]}" | wc -c)
echo "total log size: $((total / 1024)) KiB"

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
# The three are taken in turn, round by round, so that a busy spell of the
# machine falls on all of them alike.  The fixed part is a full lab run,
# every target answering, with no client logs.
for ((i = 1; i <= runs; i++)); do
  run_once fixed "kobdiag-lab -o, no logs" "$i" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null
  (cd "$aside" && mv "${logs[@]}" ..)
  run_once cat "cat of the six logs into one file" "$i" \
    sh -c 'cat "$@" >"$0"' "$work/cat.out" "${logs[@]/#/$labdir/}"
  run_once logs "kobdiag-lab -o with the logs" "$i" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null
  (cd "$labdir" && mv "${logs[@]}" aside/)
done
ls -l "$labdir/kobdiag_stdout.txt" | awk '{print "report file:", $5, "bytes"}'
for name in fixed cat logs; do
  medians "$name"
done

echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "==> medians of $runs"
awk -v f="$wall_fixed" -v l="$wall_logs" -v c="$wall_cat" -v r="$rss_logs" -v t="$total" \
  -v cf="$cpu_fixed" -v cl="$cpu_logs" -v cc="$cpu_cat" \
  -v ff="$flt_fixed" -v fl="$flt_logs" -v fc="$flt_cat" -v pg="$(getconf PAGESIZE)" 'BEGIN {
  printf "wall: fixed part %.3f s, run with logs %.3f s, cat %.3f s\n", f, l, c
  printf "the logs cost %.3f s = %.2f x cat\n", l - f, (l - f) / c
  printf "CPU: fixed part %.2f s, run with logs %.2f s, cat %.2f s\n", cf, cl, cc
  if (cc > 0)
    printf "the logs cost %.2f s of CPU = %.2f x cat\n", cl - cf, (cl - cf) / cc
  printf "peak RSS with logs %d KiB = %.2f x the logs\n", r, r * 1024 / t
  printf "minor faults: fixed part %d, run with logs %d, cat %d\n", ff, fl, fc
  printf "the logs cost %d minor faults = %.2f x the logs in pages of %d bytes\n", fl - ff, (fl - ff) * pg / t, pg
}'
