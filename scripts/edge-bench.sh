#!/usr/bin/env bash
# kobreportd at the edge, on loopback: while 1,000 connections trickle a
# header byte a second and 5,000 more sit idle, from 750 loopback addresses
# (8 each, the default cap per address), a normal 64 KiB upload is sent 200
# times one after another from another address.  Prints how many were
# answered 200 and their p50/p99/max latency, the descriptors the server
# held, and its resident memory idle, with the 6,000 open, and at its peak;
# then the same run against nginx proxying to kobreportd, side by side (the
# memory there is nginx's and kobreportd's together).  The figures are for
# reading, not part of the test command.
#
#   scripts/edge-bench.sh                 (builds build/stress)
#   KOBREPORTD=path/to/kobreportd scripts/edge-bench.sh
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
server=${KOBREPORTD:-}
if [ -z "$server" ]; then
  scripts/deps.sh
  build=build/stress
  cmake -S . -B "$build" -G Ninja -DKOB_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target kobreportd >/dev/null
  server=$build/server/kobreportd/kobreportd
fi

work=$(mktemp -d /tmp/edge-bench.XXXXXX)
server_pid=
nginx_pid=
cleanup() {
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null || true
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The clients and the servers each need more than 6,000 descriptors.
ulimit -n "$(ulimit -Hn)"
[ "$(ulimit -n)" -ge 13000 ] || { echo "edge-bench: needs a file limit of 13000 or more" >&2; exit 1; }

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# Waits for a port to take connections.
wait_port() {
  for _ in $(seq 100); do
    python3 -c "import socket; socket.create_connection(('127.0.0.1', $1), 1)" 2>/dev/null && return 0
    python3 -c 'import select; select.select([], [], [], 0.1)'
  done
  return 1
}

cat >"$work/load.py" <<'PY'
import os, random, socket, sys, threading, time

port, pids = int(sys.argv[1]), [int(p) for p in sys.argv[2:]]

def processes():
    # The processes named and their children (nginx's workers).
    found = []
    for p in pids:
        found.append(p)
        try:
            with open(f"/proc/{p}/task/{p}/children") as f:
                found += [int(c) for c in f.read().split()]
        except OSError:
            pass
    return found

def rss_mib():
    total = 0
    for p in processes():
        try:
            with open(f"/proc/{p}/status") as f:
                for line in f:
                    if line.startswith("VmRSS:"):
                        total += int(line.split()[1])
        except OSError:
            pass
    return total / 1024.0

def open_fds():
    return sum(len(os.listdir(f"/proc/{p}/fd")) for p in processes())

def connect(source):
    s = socket.socket()
    s.bind((source, 0))
    s.connect(("127.0.0.1", port))
    return s

# 750 addresses, 8 connections each: 1,000 trickle, 5,000 say nothing.
sources = [f"127.1.{i // 250}.{i % 250 + 1}" for i in range(750)]
idle_rss = rss_mib()
trickling, idle = [], []
for n in range(6000):
    s = connect(sources[n // 8])
    (trickling if n < 1000 else idle).append(s)
head = b"POST /report/problem.php HTTP/1.1\r\nHost: edge\r\nX-Slow: "
peak = [rss_mib()]
stop = threading.Event()

def trickle():
    k = 0
    while not stop.is_set():
        for s in trickling:
            try:
                s.send(head[k % len(head):k % len(head) + 1])
            except OSError:
                pass
        k += 1
        peak[0] = max(peak[0], rss_mib())
        stop.wait(1.0)

t = threading.Thread(target=trickle)
t.start()
stop.wait(1.5)
held_rss, held_fds = rss_mib(), open_fds()

boundary = "----edgebench"
desc = "".join(random.choice("abcdefghij \n") for _ in range(64 * 1024))
body = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"desc\"\r\n\r\n{desc}\r\n"
        f"--{boundary}--\r\n").encode()
request = (f"POST /report/problem.php HTTP/1.1\r\nHost: edge\r\nConnection: close\r\n"
           f"Content-Type: multipart/form-data;"
           f" boundary={boundary}\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body
times, ok = [], 0
for i in range(200):
    t0 = time.monotonic()
    s = connect("127.0.0.1")
    s.sendall(request)
    answer = b""
    while True:
        d = s.recv(65536)
        if not d:
            break
        answer += d
    s.close()
    times.append(time.monotonic() - t0)
    ok += answer.startswith(b"HTTP/1.1 200 ")
    peak[0] = max(peak[0], rss_mib())
stop.set()
t.join()
times.sort()
ms = lambda x: f"{x * 1000:.1f} ms"
print(f"  descriptors open in the server's processes: {held_fds}")
print(f"  64 KiB uploads meanwhile: {ok}/200 answered 200; p50 {ms(times[99])}, "
      f"p99 {ms(times[197])}, max {ms(times[-1])}")
print(f"  memory: idle {idle_rss:.1f} MiB, with the 6,000 open {held_rss:.1f} MiB "
      f"(+{held_rss - idle_rss:.1f} MiB), peak {peak[0]:.1f} MiB (+{peak[0] - idle_rss:.1f} MiB)")
for s in trickling + idle:
    s.close()
PY

echo "==> kobreportd alone"
port=$(free_port)
"$server" --listen "127.0.0.1:$port" --db "$work/alone.db" --rate 0 >"$work/out" 2>"$work/err" &
server_pid=$!
wait_port "$port" || { cat "$work/err" >&2; exit 1; }
python3 "$work/load.py" "$port" "$server_pid"
kill "$server_pid"
wait "$server_pid" || true
server_pid=

echo "==> nginx proxying to kobreportd"
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
port=$(free_port)
upstream=$(free_port)
# Every connection nginx makes comes from one address: as a trusted proxy
# it is not held to the cap per address, and it names each client.
"$server" --listen "127.0.0.1:$upstream" --db "$work/behind.db" --rate 0 \
  --trusted-proxy 127.0.0.1 >"$work/out" 2>"$work/err" &
server_pid=$!
wait_port "$upstream" || { cat "$work/err" >&2; exit 1; }
mkdir -p "$work/nginx"
cat >"$work/nginx.conf" <<CONF
daemon off;
user root;
master_process on;
worker_processes $(nproc);
worker_rlimit_nofile 20000;
pid $work/nginx.pid;
error_log $work/nginx/error.log crit;
events { worker_connections 16000; }
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  client_max_body_size 64m;
  server {
    listen 127.0.0.1:$port backlog=8192;
    location / {
      proxy_pass http://127.0.0.1:$upstream;
      proxy_set_header X-Forwarded-For \$remote_addr;
    }
  }
}
CONF
nginx -c "$work/nginx.conf" -p "$work" &
nginx_pid=$!
wait_port "$port" || { cat "$work/nginx/error.log" >&2; exit 1; }
python3 "$work/load.py" "$port" "$nginx_pid" "$server_pid"
