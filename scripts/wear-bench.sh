#!/usr/bin/env bash
# What kobreportd on SQLite costs the disk: reports uploaded one after
# another (500 of 6 KB, then 100 of 1 MiB, each run on a fresh database),
# with the bytes the server process wrote read from /proc/PID/io before and
# after.  Prints, per report, write_bytes (what reached the block layer:
# the wear) and wchar (what the process handed to write()), write_bytes
# again with the fold-back at stop included, and the write-ahead log's
# largest size seen (sampled every 10 ms) and its size at the end.  The
# figures are for reading, not part of the test command.
#
#   scripts/wear-bench.sh                 (builds build/stress)
#   BUILD=build/gcc scripts/wear-bench.sh (binaries of an existing tree)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${BUILD:-}
if [ -z "$build" ]; then
  scripts/deps.sh
  build=build/stress
  cmake -S . -B "$build" -G Ninja -DKOB_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target kobreportd kobreportd-stress >/dev/null
fi
server=$build/server/kobreportd/kobreportd
stress=$build/tests/support/kobreportd-stress

work=$(mktemp -d /tmp/wear-bench.XXXXXX)
server_pid=
launcher_pid=
sampler_pid=
cleanup() {
  [ -n "$sampler_pid" ] && kill "$sampler_pid" 2>/dev/null || true
  [ -n "$launcher_pid" ] && kill "$launcher_pid" 2>/dev/null && wait "$launcher_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
wait_port() {
  for _ in $(seq 100); do
    python3 -c "import socket; socket.create_connection(('127.0.0.1', $1), 1)" 2>/dev/null && return 0
    python3 -c 'import select; select.select([], [], [], 0.1)'
  done
  return 1
}
# One field of /proc/PID/io.
io() { awk -v k="$2:" '$1 == k {print $2}' "/proc/$1/io"; }

# Runs the server as its child and, when it has exited, writes the blocks
# it wrote in its whole life (ru_oublock, the same count as write_bytes, in
# 512-byte units): the shell reaps its children itself, so their last
# /proc/PID/io is not there to read after a stop.
cat >"$work/launch.py" <<'PY'
import os, signal, subprocess, sys
pidfile, total = sys.argv[1:3]
child = subprocess.Popen(sys.argv[3:])
with open(pidfile + ".tmp", "w") as f:
    f.write(str(child.pid))
os.rename(pidfile + ".tmp", pidfile)
signal.signal(signal.SIGTERM, lambda *_: child.send_signal(signal.SIGTERM))
while True:
    try:
        _, status, usage = os.wait4(child.pid, 0)
        break
    except InterruptedError:
        continue
with open(total, "w") as f:
    f.write(str(usage.ru_oublock * 512))
PY

# The log's size, every 10 ms until the flag file appears; the largest
# seen is written to the output file.
cat >"$work/sampler.py" <<'PY'
import os, sys, time
wal, flag, out = sys.argv[1:4]
peak = 0
while not os.path.exists(flag):
    try:
        peak = max(peak, os.stat(wal).st_size)
    except FileNotFoundError:
        pass
    time.sleep(0.01)
with open(out, "w") as f:
    f.write(str(peak))
PY

run() {
  local count=$1 size=$2 label=$3 db port w0 c0 w1 c1 w2 wal_end
  db="$work/$size/reports.db"
  mkdir -p "$work/$size"
  port=$(free_port)
  python3 "$work/launch.py" "$work/$size/pid" "$work/$size/total" \
    "$server" --listen "127.0.0.1:$port" --db "$db" --rate 0 --quota-per-address 0 \
    --max-body 200000000 >"$work/$size/out" 2>"$work/$size/err" &
  launcher_pid=$!
  wait_port "$port" || { echo "wear-bench: kobreportd did not start" >&2; cat "$work/$size/err" >&2; exit 1; }
  python3 "$work/sampler.py" "$db-wal" "$work/$size/done" "$work/$size/peak" &
  sampler_pid=$!
  server_pid=$(cat "$work/$size/pid")
  w0=$(io "$server_pid" write_bytes)
  c0=$(io "$server_pid" wchar)
  "$stress" load - --port "$port" --count "$count" --size "$size" --clients 1 >"$work/$size/load"
  w1=$(io "$server_pid" write_bytes)
  c1=$(io "$server_pid" wchar)
  wal_end=$(stat -c %s "$db-wal" 2>/dev/null || echo 0)
  touch "$work/$size/done"
  wait "$sampler_pid"
  sampler_pid=
  # At stop the log is folded back: written once more, now into the file.
  kill -TERM "$launcher_pid"
  wait "$launcher_pid" || true
  launcher_pid=
  server_pid=
  w2=$(cat "$work/$size/total")
  echo "==> $label: $count uploads one after another"
  sed -n 's/^/  /; 2,4p' "$work/$size/load"
  python3 - "$count" "$w0" "$w1" "$w2" "$c0" "$c1" "$(cat "$work/$size/peak")" "$wal_end" \
    "$(stat -c %s "$db")" <<'PY'
import sys
n, w0, w1, w2, c0, c1, peak, wal_end, dbsize = map(int, sys.argv[1:])
kib = lambda b: b / 1024
print("  per report while running: write_bytes %.1f KiB, wchar %.1f KiB" % (kib((w1 - w0) / n), kib((c1 - c0) / n)))
print("  per report with the stop:  write_bytes %.1f KiB" % kib((w2 - w0) / n))
print("  write-ahead log: largest seen %.1f MiB, %.1f MiB at the end of the uploads; database file %.1f MiB"
      % (peak / 1048576, wal_end / 1048576, dbsize / 1048576))
PY
}

run 500 6144 "6 KB reports"
run 100 1048576 "1 MiB reports"
