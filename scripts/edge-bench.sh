#!/usr/bin/env bash
# kobreportd at the edge, on loopback: while 1,000 connections trickle a
# header byte a second and 5,000 more sit idle, from 750 loopback addresses
# (8 each, the default cap per address), a normal 64 KiB upload is sent 200
# times one after another from another address.  Prints how many were
# answered 200 and their p50/p99/max latency, the connections the server
# held, and its resident memory idle, with the 6,000 open, and at its peak.
# The figures are for reading, not part of the test command.
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
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The clients and the server each need more than 6,000 descriptors.
ulimit -n "$(ulimit -Hn)"
[ "$(ulimit -n)" -ge 13000 ] || { echo "edge-bench: needs a file limit of 13000 or more" >&2; exit 1; }

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$server" --listen "127.0.0.1:$port" --db "$work/reports.db" --rate 0 >"$work/out" 2>"$work/err" &
server_pid=$!
# The ready line says it listens.
for _ in $(seq 100); do
  grep -q '^kobreportd: intake on' "$work/out" && break
  kill -0 "$server_pid" || { cat "$work/err" >&2; exit 1; }
  python3 -c 'import select; select.select([], [], [], 0.1)'
done

python3 - "$port" "$server_pid" <<'EOF'
import random, selectors, socket, sys, threading, time

port, pid = int(sys.argv[1]), int(sys.argv[2])

def rss_mib():
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return 0.0

def open_fds():
    import os
    return len(os.listdir(f"/proc/{pid}/fd"))

def connect(source):
    s = socket.socket()
    s.setblocking(True)
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
request = (f"POST /report/problem.php HTTP/1.1\r\nHost: edge\r\nContent-Type: multipart/form-data;"
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
print(f"connections held by the server: {held_fds} descriptors "
      f"(1,000 trickling + 5,000 idle, two descriptors each once past their first byte)")
print(f"64 KiB uploads meanwhile: {ok}/200 answered 200; p50 {ms(times[99])}, "
      f"p99 {ms(times[197])}, max {ms(times[-1])}")
print(f"server memory: idle {idle_rss:.1f} MiB, with the 6,000 open {held_rss:.1f} MiB "
      f"(+{held_rss - idle_rss:.1f} MiB), peak {peak[0]:.1f} MiB (+{peak[0] - idle_rss:.1f} MiB)")
for s in trickling + idle:
    s.close()
EOF
