#!/usr/bin/env bash
# Network guard: runs the end-to-end test programs that start kobdiag-lab
# (and koblab) under strace, following every child, and fails if any
# connect or sendto goes to a destination outside 127.0.0.0/8 and ::1.
# Local sockets (AF_UNIX) and netlink requests (the interface and route
# captures) are not network destinations; AF_UNSPEC only dissolves an
# association.
#
#   scripts/netguard.sh [<build-dir>]      (default build/ci-gcc)
#
# Left out: kobdiag_netns_test, which runs the shipped build on purpose, with
# its real-looking addresses, inside a network namespace that the test makes
# and koblab serves; nothing it sends can leave that namespace.
#
# The programs share the lab's fixed loopback addresses with lab runs of
# other build trees on this machine, so they run in a network namespace of
# their own when one can be made; the addresses they use are the same.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=$(cd "${1:-build/ci-gcc}" && pwd)
# kobreportd_lab_test is built with the operator's programs only.
programs=(kobdiag_startup_test kobdiag_run_test kobdiag_run_slow_test koblab_test
  kobreportd_lab_test)

if [ -z "${KOB_NETGUARD_NETNS:-}" ]; then
  for how in "unshare --net" "unshare --map-root-user --net"; do
    if $how true 2>/dev/null; then
      exec env KOB_NETGUARD_NETNS=1 $how "$0" "$@"
    fi
  done
  echo "netguard: no network namespace of its own; using the host's loopback"
else
  ip link set lo up
fi

logs=$build/netguard
rm -rf "$logs"
mkdir -p "$logs"

check_trace() {
  python3 - "$@" <<'PY'
import ipaddress, re, sys

# One address argument of a traced connect or sendto.
family = re.compile(r"sa_family=(AF_[A-Z0-9]+)")
v4 = re.compile(r'sin_port=htons\((\d+)\), sin_addr=inet_addr\("([^"]+)"\)')
v6 = re.compile(r'sin6_port=htons\((\d+)\).*?inet_pton\(AF_INET6, "([^"]+)"')
local_families = {"AF_UNIX", "AF_LOCAL", "AF_NETLINK", "AF_UNSPEC"}


def allowed(addr):
    ip = ipaddress.ip_address(addr)
    if ip.version == 6 and ip.ipv4_mapped is not None:
        ip = ip.ipv4_mapped
    return ip.is_loopback if ip.version == 4 else ip == ipaddress.ip_address("::1")


def scan(lines):
    bad, seen = [], []
    for line in lines:
        call = re.search(r"\b(connect|sendto)\(", line)
        if not call:
            continue
        m = family.search(line)
        if not m:
            continue  # a connected socket's send names no destination
        fam = m.group(1)
        if fam in local_families:
            continue
        m = (v4 if fam == "AF_INET" else v6).search(line) if fam in ("AF_INET", "AF_INET6") else None
        if m is None:
            bad.append(line)  # a family that can reach a network, or an unreadable address
            continue
        port, addr = int(m.group(1)), m.group(2)
        seen.append((call.group(1), addr, port))
        if not allowed(addr):
            bad.append(line)
    return bad, seen


if sys.argv[1] == "--self-test":
    ok = [
        'connect(3, {sa_family=AF_INET, sin_port=htons(80), sin_addr=inet_addr("127.10.0.80")}, 16) = 0',
        'connect(3, {sa_family=AF_INET6, sin6_port=htons(80), sin6_flowinfo=htonl(0), inet_pton(AF_INET6, "::1", &sin6_addr), sin6_scope_id=0}, 28) = 0',
        'sendto(3, "P", 1, 0, {sa_family=AF_INET, sin_port=htons(10007), sin_addr=inet_addr("127.10.0.7")}, 16) = 1',
        'connect(5, {sa_family=AF_UNIX, sun_path="/var/run/nscd/socket"}, 110) = -1 ENOENT',
        'sendto(4, [{nlmsg_len=20, nlmsg_type=RTM_GETLINK}], 20, 0, {sa_family=AF_NETLINK, nl_pid=0, nl_groups=00000000}, 12) = 20',
        'connect(3, {sa_family=AF_UNSPEC, sa_data="..."}, 16) = 0',
        'sendto(3, "x", 1, 0, NULL, 0) = 1',
    ]
    wrong = [
        'connect(3, {sa_family=AF_INET, sin_port=htons(80), sin_addr=inet_addr("192.0.2.1")}, 16) = -1 ENETUNREACH',
        '1234  connect(3, {sa_family=AF_INET, sin_port=htons(8081), sin_addr=inet_addr("10.243.160.1")}, 16 <unfinished ...>',
        'sendto(3, "P", 1, 0, {sa_family=AF_INET6, sin6_port=htons(53), sin6_flowinfo=htonl(0), inet_pton(AF_INET6, "2001:db8::1", &sin6_addr), sin6_scope_id=0}, 28) = 1',
        'sendto(3, "", 0, 0, {sa_family=AF_PACKET, sll_protocol=htons(ETH_P_ALL)}, 20) = 0',
    ]
    for line in ok:
        if scan([line])[0]:
            sys.exit("self-test: flagged a local destination: " + line)
    for line in wrong:
        if not scan([line])[0]:
            sys.exit("self-test: missed a destination: " + line)
    sys.exit(0)

bad, seen = [], []
for path in sys.argv[1:]:
    b, s = scan(open(path, errors="replace"))
    bad += [f"{path}: {line.rstrip()}" for line in b]
    seen += s
for line in bad:
    print("outside loopback:", line)
# The trace must have seen the lab runs at all, or the guard proves nothing.
if not any(c == "connect" and p == 80 for c, a, p in seen):
    sys.exit("netguard: no connect to a report server was traced")
if not any(c == "sendto" and p == 10007 for c, a, p in seen):
    sys.exit("netguard: no UDP probe was traced")
dests = sorted({(a, p) for c, a, p in seen})
print(f"netguard: {len(seen)} traced destinations, {len(dests)} distinct, all on loopback"
      if not bad else f"netguard: {len(bad)} destinations outside loopback")
sys.exit(1 if bad else 0)
PY
}

check_trace --self-test

failed=0
for p in "${programs[@]}"; do
  if [ ! -x "$build/tests/e2e/$p" ]; then
    echo "==> $p: not built here"
    continue
  fi
  echo "==> strace $p"
  rc=0
  strace -f -qq -e trace=connect,sendto -o "$logs/$p.strace" \
    "$build/tests/e2e/$p" --gtest_brief=1 >"$logs/$p.out" 2>&1 || rc=$?
  if [ "$rc" -ne 0 ]; then
    echo "FAIL: $p exited $rc under strace"
    tail -30 "$logs/$p.out"
    failed=1
  fi
done
check_trace "$logs"/*.strace || failed=1
exit $failed
