#!/usr/bin/env bash
# Times kobdiag-lab -o with six client logs of 64 MiB each against cat of the
# same six files into one file.  Each is run three times and the median kept.
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
  rm -rf "$work"
}
trap cleanup EXIT

: >"$work/koblab.log"
"$build/tools/koblab" -d "$work/reports" >"$work/koblab.log" 2>&1 &
koblab_pid=$!
until grep -q '^koblab: ready$' "$work/koblab.log"; do
  kill -0 "$koblab_pid" || { cat "$work/koblab.log"; exit 1; }
  sleep 0.1
done

runs=3
# measure NAME LABEL COMMAND...: runs the command $runs times; prints each
# run and leaves the medians of wall seconds, CPU seconds, max RSS (KiB) and
# minor page faults in wall_NAME, cpu_NAME, rss_NAME and flt_NAME.
measure() {
  local name=$1 label=$2
  shift 2
  local walls=() cpus=() rsss=() flts=() i start end wall cpu rss flt
  for ((i = 1; i <= runs; i++)); do
    start=$(date +%s%N)
    /usr/bin/time -f '%M %U %S %R' -o "$work/rss.txt" "$@"
    end=$(date +%s%N)
    wall=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
    read -r rss cpu flt < <(tail -n 1 "$work/rss.txt" | awk '{ printf "%d %.2f %d\n", $1, $2 + $3, $4 }')
    printf '%-36s run %d: wall %7.3f s  CPU %6.2f s  max RSS %8d KiB  minor faults %7d\n' \
      "$label" "$i" "$wall" "$cpu" "$rss" "$flt"
    walls+=("$wall")
    cpus+=("$cpu")
    rsss+=("$rss")
    flts+=("$flt")
  done
  printf -v "wall_$name" '%s' "$(printf '%s\n' "${walls[@]}" | sort -g | sed -n 2p)"
  printf -v "cpu_$name" '%s' "$(printf '%s\n' "${cpus[@]}" | sort -g | sed -n 2p)"
  printf -v "rss_$name" '%s' "$(printf '%s\n' "${rsss[@]}" | sort -g | sed -n 2p)"
  printf -v "flt_$name" '%s' "$(printf '%s\n' "${flts[@]}" | sort -g | sed -n 2p)"
}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "==> the fixed part: a full lab run, every target answering, no client logs"
rm -f "$labdir"/*.txt
measure fixed "kobdiag-lab -o, no logs" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null

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

measure cat "cat of the six logs into one file" sh -c 'cat "$@" >"$0"' "$work/cat.out" "${logs[@]}"
measure logs "kobdiag-lab -o with the logs" "$build/bin/kobdiag/kobdiag-lab" -o 2>/dev/null
ls -l "$labdir/kobdiag_stdout.txt" | awk '{print "report file:", $5, "bytes"}'

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
