#!/usr/bin/env bash
# The main job: a whole diagnostic run of kobdiag against the operator's
# network played by koblab on loopback addresses.  Builds kobdiag-lab and
# koblab, starts koblab, puts sample client logs into the lab's application
# directory (one left missing), runs `kobdiag-lab -u demo -m <comment file>`
# through the countdown and the upload to kobreportd, the operator's report
# intake that koblab runs as its report server, then shows the reference the
# user saw, the verdict table of the stored report and the address of the
# browser view.  koblab (and with it kobreportd) is stopped afterwards, also
# when the demo is interrupted.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

build=build/demo
cmake -S . -B "$build" -G Ninja -DKOB_BUILD_TESTS=OFF -DKOB_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target kobdiag-lab koblab kobreportd kobreport

labdir=$root/$build/lab/var
reports=$(mktemp -d /tmp/kobdiag-demo-reports.XXXXXX)
koblab_log=$reports/koblab.log
koblab_pid=

stop_koblab() {
  if [ -n "$koblab_pid" ]; then
    kill -TERM "$koblab_pid" 2>/dev/null || true
    wait "$koblab_pid" 2>/dev/null || true
    koblab_pid=
  fi
}
trap stop_koblab EXIT
trap 'echo; echo "==> interrupted"; exit 130' INT TERM

# Staff sign in to see reports: an admin account with a random password,
# and an API token for this script to fetch the stored report with.
rm -f "$reports"/reports.db*
admin_password=$(head -c 18 /dev/urandom | base64 | tr '+/' '-_')
printf '%s\n' "$admin_password" |
  "$build/server/kobreportd/kobreportd" user add demo-admin --role admin --db "$reports/reports.db"
token=$("$build/server/kobreportd/kobreportd" token add demo-script --role admin --db "$reports/reports.db")

echo "==> starting koblab (the operator's network on loopback addresses)"
"$build/lab/koblab" -d "$reports" -s "$build/server/kobreportd/kobreportd" >"$koblab_log" 2>&1 &
koblab_pid=$!
for _ in $(seq 1 100); do
  grep -q '^koblab: ready$' "$koblab_log" && break
  kill -0 "$koblab_pid" 2>/dev/null || { cat "$koblab_log"; exit 1; }
  sleep 0.1
done
grep -q '^koblab: ready$' "$koblab_log" || { cat "$koblab_log"; echo "koblab did not start"; exit 1; }
cat "$koblab_log"

echo
echo "==> sample client logs in $labdir (kobflow_stderr.txt left missing)"
rm -f "$labdir"/*.txt "$labdir/kobdiag.pid"
printf '2026-01-05 09:12:01 kobvane started, tunnel up (100%% of routes)\n2026-01-05 09:40:13 keepalive missed\n' \
  >"$labdir/kobvane_stdout.txt"
printf 'warning: DNS answer took 2300 ms\n' >"$labdir/kobvane_stderr.txt"
printf 'kobrun 4.4.1 ready\n' >"$labdir/kobrun_stdout.txt"
: >"$labdir/kobrun_stderr.txt"
printf 'flow table loaded: 12 entries\nlast line without a line feed' >"$labdir/kobflow_stdout.txt"
comment=$reports/comment.txt
printf 'The tunnel drops about once an hour since Monday.\n' >"$comment"
ls -l "$labdir"

echo
echo "==> kobdiag-lab -u demo -m $comment"
status=0
# Its test-log lines (standard output) are kept: the "dia" log carries the
# server's answer.
"$build/bin/kobdiag/kobdiag-lab" -u demo -m "$comment" | tee "$reports/kobdiag.out" ||
  status=$?
echo "==> kobdiag-lab exit status: $status"

view=$(sed -n 's/^koblab: browser view *//p' "$koblab_log")
reference=$(grep -o 'KOB-[0-9]\{8\}-[0-9]\{6,\}' "$reports/kobdiag.out" | tail -n 1 || true)
echo
if [ -z "$reference" ]; then
  echo "==> the report server gave no reference"
  cat "$koblab_log"
  exit 1
fi
echo "==> the reference the user saw: $reference"

# The stored report, as the user sent it, fetched from the staff side's API
# with bash alone.
hostport=${view#http://}
hostport=${hostport%/}
stored=$reports/$reference.txt
exec 3<>"/dev/tcp/${hostport%:*}/${hostport##*:}"
printf 'GET /api/reports/%s/raw?reveal=1 HTTP/1.1\r\nHost: %s\r\nAuthorization: Bearer %s\r\nConnection: close\r\n\r\n' \
  "$reference" "$hostport" "$token" >&3
sed '1,/^\r$/d' <&3 >"$stored"
exec 3<&-
echo
echo "==> kobreport: the verdicts on report $reference ($(wc -c <"$stored") bytes stored)"
"$build/server/kobreport/kobreport" "$stored"
echo
echo "==> staff view: $view (report page: ${view}reports/$reference)"
echo "    sign in as demo-admin with the password $admin_password"
echo "    It is served while koblab runs; to browse the stored reports again later:"
echo "    $build/server/kobreportd/kobreportd --listen 127.0.0.1:8080 --staff-listen 127.0.0.1:8081 \\"
echo "      --db $reports/reports.db"
stop_koblab
echo
tail -n 2 "$koblab_log"
