#!/usr/bin/env bash
# The list's filters on a large store: generates N reports (1,000,000 by
# default) straight into a new SQLite database and into a private
# PostgreSQL server on loopback, with bulk SQL rather than uploads, then
# times /api/reports with each filter alone through a running kobreportd
# (the count and the first page, as the list asks for them) and prints the
# median of three in milliseconds.  The figures are for reading, not part
# of the test command.
#
#   scripts/search-bench.sh [N] [BUILD_DIR]
set -euo pipefail

n=${1:-1000000}
build=${2:-build/gcc-cc}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
server=$build/server/kobreportd/kobreportd
[ -x "$server" ] || { echo "search-bench: build kobreportd in $build first" >&2; exit 1; }

work=$(mktemp -d /tmp/search-bench.XXXXXX)
chmod 755 "$work"
pg_bin=$(ls -d /usr/lib/postgresql/*/bin | sort -V | tail -1)
as_pg=()
[ "$(id -u)" -eq 0 ] && as_pg=(runuser -u postgres --)
server_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null || true
  [ -d "$work/pg" ] && "${as_pg[@]}" "$pg_bin/pg_ctl" -D "$work/pg" -m immediate stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# One report in ten fails (UDP blocked), one in five warns (an intranet
# gateway silent), the rest are fine; one in ten comes from kobdiag 4.3.0;
# one in four carries a comment, a fortieth of those "every evening"; a
# report every two seconds, 23 days for a million.
levels="CASE WHEN i % 10 < 1 THEN 'fail' WHEN i % 10 < 3 THEN 'warn' ELSE 'ok' END"
why="CASE WHEN i % 4 = 0 THEN 'the tunnel drops ' || CASE WHEN i % 160 = 0 THEN 'every evening'
  WHEN i % 3 = 0 THEN 'after lunch' ELSE 'sometimes' END || ' ticket' || (i % 100000) END"
summary="CASE lv WHEN 'fail' THEN 'UDP pass-through blocked (5/5 timeouts)'
  WHEN 'warn' THEN 'intranet partly reachable (3/4)' ELSE 'no problem found' END"
verdicts="INSERT INTO report_verdicts (report_id, rule, area, level, problem)
  SELECT id, CASE WHEN level = 'fail' THEN 'udp.blocked' ELSE 'udp.works' END, 'udp',
    CASE WHEN level = 'fail' THEN 'fail' ELSE 'ok' END, CASE WHEN level = 'fail' THEN 1 ELSE 0 END
    FROM reports
  UNION ALL SELECT id, 'traceroute.reached', 'traceroute', 'ok', 0 FROM reports
  UNION ALL SELECT id, CASE WHEN level = 'warn' THEN 'intranet.partial' ELSE 'intranet.reachable'
    END, 'intranet', CASE WHEN level = 'warn' THEN 'warn' ELSE 'ok' END,
    CASE WHEN level = 'warn' THEN 1 ELSE 0 END FROM reports
  UNION ALL SELECT id, 'logs.missing', 'logs', 'info', 0 FROM reports"

# The failing reports belong to seven issues; a tenth of the reports are
# open and a fiftieth owned by ann.
workflow="CASE WHEN i % 10 = 7 THEN 'open' ELSE 'new' END, CASE WHEN i % 50 = 0 THEN 'ann' END,
  CASE WHEN lv = 'fail' THEN 1 + i % 7 END"
names="INSERT INTO user_names (name) SELECT form_username FROM reports
  WHERE form_username IS NOT NULL UNION SELECT report_username FROM reports"

generate_sqlite() {
  local db=$1
  "$server" user list --db "$db" >/dev/null # makes the tables
  sqlite3 "$db" <<EOF
PRAGMA synchronous=OFF;
BEGIN;
WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k WHERE i < $n)
INSERT INTO reports (id, reference, received_at, form_username, report_username, summary, peer,
  size, "desc", why, rules, desc_zstd, sender_net, level, version, raw_expired, findings,
  status, owner, issue_id)
SELECT i, 'KOB-' || strftime('%Y%m%d', t, 'unixepoch') || '-' || printf('%09d', i), t,
  CASE WHEN i % 3 = 0 THEN 'form' || (i % 5000) END, 'user' || (i % 7000), $summary,
  '192.0.2.1', 3000, randomblob(600), $why, 1, 1, '192.0.2.0/24', lv,
  CASE WHEN i % 10 = 5 THEN '4.3.0' ELSE '4.4.1' END, 0, '', $workflow
FROM (SELECT i, 1790000000 + i * 2 AS t, $levels AS lv FROM k);
$verdicts;
INSERT INTO report_words (rowid, comment) SELECT id, why FROM reports WHERE why IS NOT NULL;
$names;
COMMIT;
ANALYZE;
EOF
}

generate_postgres() {
  local url=$1
  "$server" user list --db "$url" >/dev/null
  psql -q -v ON_ERROR_STOP=1 "$url" <<EOF
SET synchronous_commit TO OFF;
BEGIN;
INSERT INTO reports (id, reference, received_at, form_username, report_username, summary, peer,
  size, "desc", why, rules, desc_zstd, sender_net, level, version, raw_expired, findings,
  status, owner, issue_id)
SELECT i, 'KOB-' || to_char(to_timestamp(t) AT TIME ZONE 'UTC', 'YYYYMMDD') || '-' ||
  lpad(i::text, 9, '0'), t, CASE WHEN i % 3 = 0 THEN 'form' || (i % 5000) END,
  'user' || (i % 7000), $summary, '192.0.2.1', 3000, decode(repeat(md5(i::text), 38), 'hex'),
  convert_to(w, 'UTF8'), 1, 1, '192.0.2.0/24', lv,
  CASE WHEN i % 10 = 5 THEN '4.3.0' ELSE '4.4.1' END, 0, '', $workflow
FROM (SELECT i, 1790000000 + i * 2 AS t, $levels AS lv, $why AS w
      FROM generate_series(1, $n) AS i) AS g;
$verdicts;
$names;
INSERT INTO report_words (report_id, words)
  SELECT id, to_tsvector('simple', convert_from(why, 'UTF8')) FROM reports WHERE why IS NOT NULL;
SELECT setval(pg_get_serial_sequence('reports', 'id'), $n);
COMMIT;
VACUUM ANALYZE;
EOF
}

start_server() {
  local db=$1 port staff
  port=$(free_port)
  staff=$(free_port)
  token=$("$server" token add bench --role admin --db "$db")
  "$server" --db "$db" --listen "127.0.0.1:$port" --staff-listen "127.0.0.1:$staff" \
    --log-level warn >"$work/server.log" 2>&1 &
  server_pid=$!
  base="http://127.0.0.1:$staff"
  for _ in $(seq 100); do
    curl -s -o /dev/null "$base/api/reports" && break
    sleep 0.2
  done
}

stop_server() {
  kill "$server_pid" && wait "$server_pid" || true
  server_pid=
}

# The median of three, in milliseconds, after one run to warm the cache.
time_query() {
  local q=$1 t=() out
  curl -s -o /dev/null -H "Authorization: Bearer $token" "$base/api/reports?$q"
  for _ in 1 2 3; do
    out=$(curl -s -o "$work/answer" -w '%{http_code} %{time_total}' \
      -H "Authorization: Bearer $token" "$base/api/reports?$q")
    [ "${out%% *}" = 200 ] || { echo "search-bench: $q answered ${out%% *}" >&2; exit 1; }
    t+=("${out#* }")
  done
  local total
  total=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["total"])' "$work/answer")
  printf '%s\n' "${t[@]}" | sort -n | sed -n 2p |
    awk -v q="$q" -v total="$total" '{ printf "  %-44s %8.1f ms  %8d reports\n", q, $1 * 1000, total }'
}

run_queries() {
  local last=$((1790000000 + n * 2)) mid=$((n / 2))
  local day_last day_first ref
  day_last=$(date -u -d "@$last" +%Y-%m-%d)
  day_first=$(date -u -d "@1790000002" +%Y-%m-%d)
  ref="KOB-$(date -u -d "@$((1790000000 + mid * 2))" +%Y%m%d)-$(printf '%09d' "$mid")"
  for q in "" "q=$ref" "q=${ref:4:8}${ref:13}" "q=${ref: -6}" "q=KOB-${day_last//-/}" \
    "q=user1234" "q=tunnel" "q=every+evening" "rule=udp.blocked" "level=fail" "level=warn" \
    "area=intranet" "from=$day_last" "to=$day_first" "version=4.3.0" "status=open" \
    "owner=ann" "issue=3"; do
    time_query "$q"
  done
}

echo "search-bench: $n reports"
start=$(date +%s)
generate_sqlite "$work/reports.db"
echo "SQLite ($(($(date +%s) - start)) s to generate, $(du -h "$work/reports.db" | cut -f1)):"
start_server "$work/reports.db"
run_queries
stop_server

mkdir "$work/pg" "$work/pgrun"
[ "$(id -u)" -eq 0 ] && chown postgres "$work/pg" "$work/pgrun"
"${as_pg[@]}" "$pg_bin/initdb" -D "$work/pg" -A trust -U postgres --no-sync -E UTF8 --locale=C \
  >/dev/null
pg_port=$(free_port)
"${as_pg[@]}" "$pg_bin/pg_ctl" -D "$work/pg" -l "$work/pgrun/log" -w -o \
  "-k $work/pgrun -c listen_addresses=127.0.0.1 -p $pg_port -c fsync=off" start >/dev/null
url="postgresql://postgres@127.0.0.1:$pg_port/postgres"
start=$(date +%s)
generate_postgres "$url"
echo "PostgreSQL ($(($(date +%s) - start)) s to generate):"
start_server "$url"
run_queries
stop_server
