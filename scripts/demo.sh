#!/usr/bin/env bash
# The main job: a whole diagnostic run of kobdiag against the operator's
# network played by koblab on loopback addresses.  Builds kobdiag-lab and
# koblab, starts koblab, puts sample client logs into the lab's application
# directory (one left missing), runs `kobdiag-lab -u demo -m <comment file>`
# through the countdown and the upload, then shows what the report server
# received and where it stored it.  koblab is stopped afterwards, also when
# the demo is interrupted.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

build=build/demo
cmake -S . -B "$build" -G Ninja -DKOB_BUILD_TESTS=OFF -DKOB_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target kobdiag-lab koblab

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

echo "==> starting koblab (the operator's network on loopback addresses)"
"$build/tools/koblab" -d "$reports" >"$koblab_log" 2>&1 &
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
"$build/bin/kobdiag/kobdiag-lab" -u demo -m "$comment" || status=$?
echo "==> kobdiag-lab exit status: $status"

echo
echo "==> what the report server received"
stored=$(ls "$reports"/report-*.http 2>/dev/null | tail -n 1 || true)
if [ -z "$stored" ]; then
  echo "nothing was stored"
  exit 1
fi
# The head, then each form part's name and size.
sed -n '1,/^\r$/p' "$stored" | tr -d '\r'
python3 - "$stored" <<'PY' 2>/dev/null || awk 'BEGIN{RS="--------kobvaneFormBoundaryj2U6RdY2ckKXjaso"} NR>1 {print "part:", length($0), "bytes"}' "$stored"
import re, sys
data = open(sys.argv[1], 'rb').read()
head, body = data.split(b'\r\n\r\n', 1)
delim = b'--------kobvaneFormBoundaryj2U6RdY2ckKXjaso'
print(f"body: {len(body)} bytes")
for part in body.split(delim)[1:]:
    if part.startswith(b'--'):
        print("closing delimiter")
        continue
    phead, content = part[2:].split(b'\r\n\r\n', 1)
    name = re.search(rb'name="([^"]*)"', phead).group(1).decode()
    content = content[:-2]  # the part's closing CR LF
    first = content.split(b'\n', 1)[0][:60].decode(errors='replace')
    print(f"part {name!r}: {len(content)} bytes, begins: {first!r}")
PY
echo "stored in: $stored"
stop_koblab
echo
tail -n 1 "$koblab_log"
