#!/usr/bin/env bash
# The intake side by side with what an operator would otherwise deploy: the
# same load generator (kobreportd-stress load) against kobreportd on SQLite,
# on PostgreSQL, and against nginx storing each request body to a file and
# answering 200, all on loopback.  Prints reports/s, MiB/s, p50/p99 latency
# and peak memory for each run, three runs of each, and kobreportd's median
# wall time over nginx's.  The figures are for reading, not part of the test
# command.
#
#   scripts/intake-bench.sh
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

# nginx from Debian, installed without starting the packaged service: only
# the instance below runs, on a loopback port.
if ! command -v nginx >/dev/null; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee /usr/sbin/policy-rc.d >/dev/null
  "${sudo_cmd[@]}" chmod +x /usr/sbin/policy-rc.d
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q nginx-light >/dev/null
  "${sudo_cmd[@]}" rm -f /usr/sbin/policy-rc.d
fi

build=build/stress
cmake -S . -B "$build" -G Ninja -DKOB_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target kobreportd kobreportd-stress >/dev/null
stress=$build/tests/support/kobreportd-stress
server=$build/server/kobreportd/kobreportd

work=$(mktemp -d /tmp/intake-bench.XXXXXX)
nginx_pid=
cleanup() {
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
mkdir -p "$work/bodies" "$work/logs"
# Each body is read into a file of its own and kept; the answer comes once
# it is whole.  The proxying to a second server that answers at once is
# what makes nginx read the body (it passes none of it on).
cat >"$work/nginx.conf" <<EOF
daemon off;
# The workers write the bodies into this script's own temporary directory.
user root;
master_process on;
worker_processes $(nproc);
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  client_body_temp_path $work/bodies;
  client_body_in_file_only on;
  client_max_body_size 200m;
  client_body_buffer_size 16k;
  server {
    listen 127.0.0.1:$port;
    location /report/problem.php {
      proxy_pass http://127.0.0.1:$((port + 1));
      proxy_pass_request_body off;
      proxy_set_header Content-Length "";
    }
  }
  server {
    listen 127.0.0.1:$((port + 1));
    location / { return 200 "Report received\n"; }
  }
}
EOF
nginx -c "$work/nginx.conf" -p "$work" &
nginx_pid=$!
for _ in $(seq 50); do
  python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 1)" 2>/dev/null && break
  sleep 0.1
done

# nginx's peak memory so far: its master and workers together.
nginx_peak() {
  local total=0 p kib
  for p in $(pgrep -f "nginx -c $work/nginx.conf"; pgrep -P "$nginx_pid"); do
    kib=$(awk '/VmHWM/ {print $2}' "/proc/$p/status" 2>/dev/null || echo 0)
    total=$((total + ${kib:-0}))
  done
  echo "  peak memory of nginx (all processes): $((total / 1024)) MiB"
}

wall() { awk '/ wall / {print $2}' "$1"; }
# The middle one of a target's three wall times.
median() { for k in 1 2 3; do wall "$work/$1.$k.txt"; done | sort -n | sed -n 2p; }

# Each target three times: this machine's other work moves single runs by
# a third and more.  The ratios are of the median wall times.  The targets
# take turns, each run starting with the disk's pending writes flushed, so
# that no target always follows the same one.  nginx's run of 2,000 small
# bodies is bimodal here: about 0.25-0.5 s, or about 1.1 s (27 ms each, with
# no retransmission counted), from one run to the next of one instance.
run() {
  local label=$1 target k
  shift
  echo "==> $label (three runs each)"
  for k in 1 2 3; do
    for target in sqlite pg nginx; do
      rm -rf "${work:?}/bodies"/*
      sync
      sleep 1
      case $target in
      sqlite) "$stress" load "$server" "$@" >"$work/$target.$k.txt" || true ;;
      pg) "$stress" load "$server" "$@" --postgres >"$work/$target.$k.txt" || true ;;
      nginx)
        if ! "$stress" load - "$@" --port "$port" >"$work/$target.$k.txt"; then
          echo "  nginx did not answer every upload with 200:"
          tail -n 5 "$work/logs/error.log"
        fi
        ;;
      esac
      cat "$work/$target.$k.txt"
    done
  done
  nginx_peak
  echo "  median wall: kobreportd on SQLite $(median sqlite) s, on PostgreSQL $(median pg) s, nginx $(median nginx) s"
  python3 -c "print('  wall time over nginx\'s: kobreportd on SQLite %.2f, on PostgreSQL %.2f' % ($(median sqlite) / $(median nginx), $(median pg) / $(median nginx)))"
}

run "200 concurrent uploads of 1 MiB" --count 200 --size 1048576
# What nginx leaves out: kobreportd answers once the report is on the disk,
# nginx never syncs.  The same 200 MiB written and synced, three times.
sync_1mib=$(python3 - "$work" <<'PY'
import os, sys, time
path = os.path.join(sys.argv[1], "sync.bin")
block = os.urandom(1 << 20)
times = []
for _ in range(3):
    t = time.monotonic()
    with open(path, "wb") as f:
        for _ in range(200):
            f.write(block)
        f.flush()
        os.fsync(f.fileno())
    times.append(time.monotonic() - t)
    os.unlink(path)
print(sorted(times)[1])
PY
)
echo "  200 MiB written and synced to this disk: $sync_1mib s (median of three)"
python3 -c "print('  kobreportd on SQLite over (that + nginx\'s wall time): %.2f' % ($(median sqlite) / ($sync_1mib + $(median nginx))))"
run "2,000 uploads of 16 KiB from 50 clients" --count 2000 --size 16384 --clients 50
run "one upload of 64 MiB" --count 1 --size 67108864
