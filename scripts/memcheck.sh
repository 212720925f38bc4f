#!/usr/bin/env bash
# valgrind memcheck over whole programs of a build tree: kobdiag-lab's full
# run with -o and its upload run, each against koblab on loopback, and the
# readers koblog -d and kobstat -1 on segment files left by segmake.  Every
# invalid access and every leak fails it, reachable blocks included, except
# what tests/valgrind.supp names: the blocks the programs keep until they
# end on purpose.
#
#   scripts/memcheck.sh [<build-dir>]      (default build/ci-gcc)
#
# The lab runs use the tree's lab directory: run it when no lab test runs.
# They run in a network namespace of their own when one can be made (as
# root, or as a user through a user namespace), so that lab runs of other
# trees on this machine, which use the same loopback addresses, cannot
# collide with them.
set -euo pipefail

if [ -z "${KOB_MEMCHECK_NETNS:-}" ]; then
  for how in "unshare --net" "unshare --map-root-user --net"; do
    if $how true 2>/dev/null; then
      exec env KOB_MEMCHECK_NETNS=1 $how "$0" "$@"
    fi
  done
  echo "memcheck: no network namespace of its own; using the host's loopback"
else
  ip link set lo up
fi

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=$(cd "${1:-build/ci-gcc}" && pwd)
supp=$root/tests/valgrind.supp
logs=$build/memcheck
rm -rf "$logs"
mkdir -p "$logs"

vg=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
  --show-leak-kinds=all --errors-for-leak-kinds=all --track-origins=yes
  --suppressions="$supp" --gen-suppressions=all --num-callers=30)

failed=0
check() {
  local name=$1
  shift
  local rc=0
  "${vg[@]}" --log-file="$logs/$name.valgrind" "$@" >"$logs/$name.out" 2>"$logs/$name.err" || rc=$?
  local summary
  summary=$(grep -E 'ERROR SUMMARY' "$logs/$name.valgrind" | tail -1 | sed 's/^==[0-9]*== //')
  if [ "$rc" -eq 99 ] || ! grep -q 'ERROR SUMMARY: 0 errors' "$logs/$name.valgrind"; then
    echo "FAIL memcheck $name (exit $rc): $summary"
    cat "$logs/$name.valgrind"
    return 1
  fi
  echo "ok   memcheck $name (exit $rc): $summary"
}

# --- kobdiag-lab against koblab ---------------------------------------------
labdir=$build/lab/var
mkdir -p "$labdir"
rm -f "$labdir"/kob*_std*.txt "$labdir"/kobdiag.pid "$labdir"/why.txt
printf 'vane says hello\n' >"$labdir/kobvane_stdout.txt"
printf 'flow line 1\nflow line 2\n' >"$labdir/kobflow_stderr.txt"
printf 'why it broke\n' >"$labdir/why.txt"

reports=$logs/reports
"$build/lab/koblab" -d "$reports" >"$logs/koblab.out" 2>&1 &
koblab=$!
stop_koblab() {
  if kill -0 "$koblab" 2>/dev/null; then
    kill -TERM "$koblab"
    wait "$koblab" || true
  fi
}
trap stop_koblab EXIT
for _ in $(seq 100); do
  grep -q '^koblab: ready$' "$logs/koblab.out" && break
  kill -0 "$koblab" 2>/dev/null || { cat "$logs/koblab.out"; exit 1; }
  sleep 0.1
done
grep -q '^koblab: ready$' "$logs/koblab.out" || { echo "koblab did not start"; exit 1; }

check kobdiag-lab-o "$build/bin/kobdiag/kobdiag-lab" -o -u memcheck || failed=1
[ -s "$labdir/kobdiag_stdout.txt" ] || { echo "FAIL: the -o run wrote no report file"; failed=1; }
rm -f "$labdir/kobdiag.pid"
# -o twice is the upload, after the countdown; -m names the comment file.
check kobdiag-lab-upload "$build/bin/kobdiag/kobdiag-lab" -o -o -u memcheck -m why.txt || failed=1
ls "$reports"/report-*.http >/dev/null 2>&1 || { echo "FAIL: koblab stored no report"; failed=1; }
stop_koblab
rm -f "$labdir"/kob*_std*.txt "$labdir"/kobdiag.pid "$labdir"/why.txt

# --- the readers --------------------------------------------------------------
segs=$logs/segments
mkdir -p "$segs"
"$build/tests/support/segmake" "$segs"
(cd "$segs" && check koblog-d "$build/tools/koblog" -d) || failed=1
(cd "$segs" && check koblog-d-flow "$build/tools/koblog" -d -n .kobflow.vsm) || failed=1
(cd "$segs" && check kobstat-1 "$build/tools/kobstat" -1) || failed=1
(cd "$segs" && check kobstat-1-flow "$build/tools/kobstat" -1 -n .kobflow.vsm) || failed=1

exit $failed
