#!/usr/bin/env bash
# Runs the fuzz targets of a KOB_FUZZ build tree, each for a bounded time,
# two at a time.  A crash, a leak, a sanitizer report or a time-out fails it.
#
#   scripts/fuzz.sh <build-dir> <seconds-per-target> [<work-dir>] [target ...]
#
# Each target starts from its committed seeds (fuzz/corpus/<target>) and
# keeps what it finds in <work-dir>/<target>/corpus, never in the seeds;
# crashing inputs land in <work-dir>/<target>/ beside the log.  The last
# line per target sums the run up: executions, coverage and features.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
seconds=$2
work=${3:-$build/fuzz-work}
shift $(($# < 3 ? $# : 3))
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in "$build"/fuzz/*_fuzz; do
    n=$(basename "$f")
    targets+=("${n%_fuzz}")
  done
fi
mkdir -p "$work"
work=$(cd "$work" && pwd)

run_one() {
  local t=$1 dir="$work/$1"
  mkdir -p "$dir/corpus"
  # Paths are absolute: the segment targets change their directory.
  local rc=0
  # Every target has seeds; one without them still runs, from nothing.
  local seeds=("$root/fuzz/corpus/$t")
  [ -d "${seeds[0]}" ] || {
    echo "note $t: no seeds in fuzz/corpus/$t"
    seeds=()
  }
  "$build/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$dir/" \
    "$dir/corpus" "${seeds[@]}" >"$dir/log" 2>&1 || rc=$?
  local execs cov
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log")
  cov=$(grep -E '^#[0-9]+.*cov: ' "$dir/log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  if [ "$rc" -ne 0 ]; then
    echo "FAIL $t (exit $rc); log: $dir/log"
    grep -E -A30 '==ERROR|ERROR: libFuzzer|runtime error|assert fail' "$dir/log" | head -60
    return 1
  fi
  echo "ok   $t: ${execs:-?} executions in ${seconds}s, ${cov:-no coverage line}"
}
export -f run_one
export build seconds work root

printf '%s\n' "${targets[@]}" | xargs -P 2 -I{} bash -c 'run_one {}'
