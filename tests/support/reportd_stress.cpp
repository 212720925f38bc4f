// Load and fault runs against kobreportd that print figures; they are not
// part of the test pass/fail (scripts/reportd-stress.sh runs them).
//
//   kobreportd-stress load   KOBREPORTD [--postgres] [--count N] [--size BYTES]
//                            [--clients N] [--port P]
//     (--clients: that many connections at a time, each sending its share
//     in turn; --port: load a server already listening on 127.0.0.1:P, such
//     as a web server to compare with, instead of starting KOBREPORTD)
//   kobreportd-stress crash  KOBREPORTD [--postgres] [--cycles N]
//   kobreportd-stress hostile KOBREPORTD
//   kobreportd-stress limits KOBREPORTD
//   kobreportd-stress fleet  KOBREPORTD [--postgres] [--count N]

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "reportd.h"
#include "reportgen.h"

#include <sqlite3.h>
#include "reportgen.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

struct Options {
    std::string binary;
    bool postgres = false;
    int count = 200;
    size_t size = 1u << 20;
    int cycles = 3;
    int clients = 0; // 0: every upload at once
    int port = 0;    // 0: start KOBREPORTD
};

// A database for one run: a fresh SQLite file or a fresh PostgreSQL server.
struct Database {
    explicit Database(bool postgres) {
        if (postgres) {
            pg = std::make_unique<reportd::Postgres>();
            if (!pg->available()) {
                std::fprintf(stderr, "PostgreSQL unavailable: %s\n", pg->reason().c_str());
                std::exit(2);
            }
            where = pg->url();
            name = "PostgreSQL";
        } else {
            char tmpl[] = "/tmp/kobstress.XXXXXX";
            dir = mkdtemp(tmpl);
            where = dir + "/reports.db";
            name = "SQLite";
        }
    }
    ~Database() {
        if (!dir.empty())
            std::system(("rm -rf '" + dir + "'").c_str());
    }
    std::unique_ptr<reportd::Postgres> pg;
    std::string dir, where, name;
};

// The peak resident memory of a process, from the kernel, in KiB.
long peakKiB(pid_t pid) {
    FILE *f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long kib = -1;
    char line[256];
    while (f && std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1)
            break;
    if (f)
        std::fclose(f);
    return kib;
}

int load(const Options &o) {
    std::unique_ptr<Database> db;
    std::unique_ptr<reportd::Server> s;
    int port = o.port;
    std::string name = "server on port " + std::to_string(port);
    if (!port) {
        db = std::make_unique<Database>(o.postgres);
        s = std::make_unique<reportd::Server>(
            o.binary, db->where,
            // Its workers as it sizes them for the machine; the body limit
            // is raised for the 64 MiB upload, and the limits on
            // connections per address and uploads in flight, as every
            // upload here comes from one address at once.
            std::vector<std::string>{"--max-body", "200000000", "--max-conns-per-address", "100000",
                                     "--max-inflight", "100000"});
        port = s->port();
        name = "kobreportd, " + db->name;
    }
    int clients = o.clients > 0 ? std::min(o.clients, o.count) : o.count;
    std::vector<std::string> descs(o.count), bodies(o.count), refs(o.count);
    for (int i = 0; i < o.count; i++) {
        descs[i] = reportgen::reportOfSize(o.size, i);
        bodies[i] = reportgen::body(descs[i], "load" + std::to_string(i), std::nullopt);
    }
    std::vector<double> lat(o.count);
    std::vector<int> status(o.count);
    std::vector<std::string> failures(o.count);
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; c++) {
        threads.emplace_back([&, c] {
            ready++;
            while (!go)
                std::this_thread::yield();
            for (int i = c; i < o.count; i += clients) {
                auto t0 = Clock::now();
                auto r = reportd::exchange(
                    port, {reportgen::head("report.kobvane.example", bodies[i].size()), bodies[i]},
                    120);
                lat[i] = secondsSince(t0);
                status[i] = r.status;
                if (!r.ok)
                    failures[i] = r.raw.empty() ? "closed without an answer" : r.raw.substr(0, 80);
                refs[i] = reportd::reference(r);
            }
        });
    }
    while (ready < clients)
        std::this_thread::yield();
    auto start = Clock::now();
    go = true;
    for (auto &t : threads)
        t.join();
    double wall = secondsSince(start);

    int ok = static_cast<int>(std::count(status.begin(), status.end(), 200));
    std::map<int, int> byStatus;
    for (int st : status)
        byStatus[st]++;
    std::string statuses;
    for (const auto &[st, n] : byStatus)
        statuses += (statuses.empty() ? "" : ", ") +
                    (st == 0 ? std::string("no answer") : std::to_string(st)) + ": " +
                    std::to_string(n);
    std::vector<double> sorted = lat;
    std::sort(sorted.begin(), sorted.end());
    auto pct = [&](double p) {
        size_t k = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
        return sorted[k] * 1000;
    };
    std::printf("%s: %d uploads of %zu bytes from %d clients\n", name.c_str(), o.count,
                bodies[0].size(), clients);
    std::printf("  answers: %s\n", statuses.c_str());
    std::map<std::string, int> whyFailed;
    for (const auto &f : failures)
        if (!f.empty())
            whyFailed[f]++;
    for (const auto &[f, n] : whyFailed)
        std::printf("  no answer (%d): %s\n", n, f.c_str());
    std::printf("  wall %.2f s, %.1f reports/s, %.1f MiB/s\n", wall, o.count / wall,
                o.count * static_cast<double>(bodies[0].size()) / wall / 1048576.0);
    std::printf("  latency ms: p50 %.0f, p90 %.0f, p99 %.0f, max %.0f\n", pct(0.5), pct(0.9),
                pct(0.99), sorted.back() * 1000);
    if (!s)
        return ok == o.count ? 0 : 1;
    std::printf("  peak memory of kobreportd: %.1f MiB\n", peakKiB(s->pid()) / 1024.0);
    std::set<std::string> unique(refs.begin(), refs.end());
    unique.erase("");
    // Every answered report is stored once and whole.
    int whole = 0;
    for (int i = 0; i < o.count; i++)
        if (!refs[i].empty() &&
            s->api("/api/reports/" + refs[i] + "/raw?reveal=1").body == descs[i])
            whole++;
    auto list = s->api("/api/reports");
    long long total = -1;
    std::sscanf(list.body.c_str(), "{\"total\":%lld", &total);
    std::printf("  answered 200: %d/%d, unique references: %zu, stored whole: %d, rows: %lld\n", ok,
                o.count, unique.size(), whole, total);
    bool good = ok == o.count && static_cast<int>(unique.size()) == o.count && whole == o.count &&
                total == o.count;
    std::printf("  %s\n", good ? "PASS: every report stored exactly once"
                               : "FAIL: lost, duplicated or damaged reports");
    return good ? 0 : 1;
}

int crash(const Options &o) {
    Database db(o.postgres);
    std::printf("%s: kill -9 in the middle of a stream of uploads, %d times\n", db.name.c_str(),
                o.cycles);
    std::map<std::string, std::string> answered; // reference -> report
    std::mutex mu;
    int failedTotal = 0;
    bool good = true;
    for (int cycle = 0; cycle < o.cycles; cycle++) {
        auto s = std::make_unique<reportd::Server>(o.binary, db.where);
        int port = s->port();
        std::atomic<bool> stop{false};
        std::atomic<int> sent{0}, failed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; t++) {
            threads.emplace_back([&, t] {
                for (int i = 0; !stop; i++) {
                    std::string desc =
                        reportgen::reportOfSize(64 * 1024 + 4096 * static_cast<size_t>(i % 16),
                                                cycle * 100000 + t * 1000 + i);
                    auto r = reportd::upload(port, desc);
                    sent++;
                    std::string ref = reportd::reference(r);
                    if (ref.empty()) {
                        failed++;
                        continue;
                    }
                    std::lock_guard<std::mutex> lock(mu);
                    if (answered.count(ref)) {
                        std::printf("  FAIL: reference %s given twice\n", ref.c_str());
                        good = false;
                    }
                    answered[ref] = desc;
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        s->kill();
        stop = true;
        for (auto &t : threads)
            t.join();
        failedTotal += failed;
        std::printf("  cycle %d: %d uploads attempted, %d answered 200 so far, %d cut off or "
                    "refused around the kill\n",
                    cycle + 1, sent.load(), static_cast<int>(answered.size()), failed.load());
    }
    reportd::Server s(o.binary, db.where);
    int present = 0;
    for (const auto &[ref, desc] : answered)
        if (s.api("/api/reports/" + ref + "/raw?reveal=1").body == desc)
            present++;
    std::printf("  after restart: %d of %zu answered reports present and whole\n", present,
                answered.size());
    good = good && present == static_cast<int>(answered.size());
    std::printf("  %s\n", good ? "PASS: nothing answered 200 was lost"
                               : "FAIL: an answered report is missing or damaged");
    (void)failedTotal;
    return good ? 0 : 1;
}

// A raw connection for hostile clients.
int connectTo(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int hostile(const Options &o) {
    Database db(false);
    // Short limits so that the slow cases end within the run.
    reportd::Server s(o.binary, db.where, {"--read-timeout", "5", "--request-timeout", "20"});
    int port = s.port();
    std::printf("hostile requests (read timeout 5 s, request deadline 20 s, max body 64 MiB)\n");

    // A well-behaved client uploads all along; its worst latency shows
    // whether the others could hold the server up.
    std::atomic<bool> stop{false};
    std::atomic<int> goodOk{0}, goodBad{0};
    std::atomic<long long> worstMs{0};
    std::thread good([&] {
        std::string desc = reportgen::report(reportgen::healthyRun());
        while (!stop) {
            auto t0 = Clock::now();
            auto r = reportd::upload(port, desc);
            long long ms = static_cast<long long>(secondsSince(t0) * 1000);
            if (ms > worstMs)
                worstMs = ms;
            (r.status == 200 ? goodOk : goodBad)++;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });

    std::string ct =
        std::string("Content-Type: multipart/form-data; boundary=") + reportgen::kBoundary + "\r\n";
    auto head = [&](const std::string &contentType, size_t len) {
        return "POST /report/problem.php HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
               std::to_string(len) + "\r\n" + contentType + "Host: x\r\n\r\n";
    };
    std::string body = reportgen::body(std::string("a report\n"), std::nullopt, std::nullopt);
    std::string many;
    for (int i = 0; i < 10000; i++)
        many += std::string("--") + reportgen::kBoundary +
                "\r\nContent-Disposition: form-data; name=\"why\"\r\n\r\nx\r\n";
    many += std::string("--") + reportgen::kBoundary + "--\r\n";
    std::string big = reportgen::body(std::string(100u << 20, 'x'), std::nullopt, std::nullopt);

    struct Case {
        std::string name;
        std::vector<std::string> pieces;
        int trickleFrom = -1; // from this byte on, one byte a second
    };
    std::vector<Case> cases = {
        {"Content-Length larger than the body", {head(ct, body.size() + 100), body}},
        {"Content-Length smaller than the body", {head(ct, body.size() - 20), body}},
        {"Content-Length not a number", {head(ct, 0).replace(70, 1, "1x"), body}},
        {"missing boundary", {head("Content-Type: multipart/form-data\r\n", body.size()), body}},
        {"10,000 parts", {head(ct, many.size()), many}},
        {"a part of 100 MiB", {head(ct, big.size()), big}},
        {"body trickling at one byte per second", {head(ct, body.size()), body}, 0},
        {"head trickling at one byte per second", {head(ct, body.size()) + body}, 0},
    };
    cases[6].trickleFrom = static_cast<int>(cases[6].pieces[0].size());
    cases[6].pieces = {cases[6].pieces[0] + cases[6].pieces[1]};

    bool allEnded = true;
    std::vector<std::thread> running;
    std::mutex out;
    for (auto &c : cases) {
        running.emplace_back([&, c] {
            auto t0 = Clock::now();
            int fd = connectTo(port);
            if (fd < 0)
                return;
            struct timeval tv = {60, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            if (c.trickleFrom < 0) {
                for (const auto &p : c.pieces) {
                    size_t off = 0;
                    while (off < p.size()) {
                        ssize_t n = send(fd, p.data() + off, p.size() - off, MSG_NOSIGNAL);
                        if (n <= 0)
                            break;
                        off += static_cast<size_t>(n);
                    }
                }
            } else {
                const std::string &all = c.pieces[0];
                send(fd, all.data(), static_cast<size_t>(c.trickleFrom), MSG_NOSIGNAL);
                for (size_t i = static_cast<size_t>(c.trickleFrom); i < all.size(); i++) {
                    if (send(fd, &all[i], 1, MSG_NOSIGNAL) != 1)
                        break;
                    struct pollfd pf = {fd, POLLIN, 0};
                    if (poll(&pf, 1, 1000) != 0)
                        break;
                }
            }
            auto r = reportd::parse(reportd::readAll(fd));
            close(fd);
            double took = secondsSince(t0);
            std::lock_guard<std::mutex> lock(out);
            std::string what = r.ok ? "answered " + std::to_string(r.status)
                                    : std::string("closed without an answer");
            std::printf("  %-40s %-28s after %.1f s\n", c.name.c_str(), what.c_str(), took);
            if (r.ok && r.status == 200)
                allEnded = false;
        });
    }
    for (auto &t : running)
        t.join();
    stop = true;
    good.join();
    std::printf("  meanwhile a normal client: %d uploads answered 200, %d not; worst latency %lld "
                "ms\n",
                goodOk.load(), goodBad.load(), worstMs.load());
    bool pass = allEnded && goodBad == 0 && goodOk > 0;
    std::printf("  %s\n", pass ? "PASS: every hostile request got its error or timed out; "
                                 "the server kept serving"
                               : "FAIL");
    return pass ? 0 : 1;
}

int usage() {
    std::fprintf(stderr,
                 "usage: kobreportd-stress load|crash|hostile|limits|fleet KOBREPORTD [--postgres] "
                 "[--count N] [--size BYTES] [--cycles N]\n");
    return 2;
}

} // namespace

// One address floods the intake with uploads from many connections, some
// of them slow to send; the limits per address and in flight answer 429 and
// 503 while a normal client on another address is served as usual.
int limits(const Options &o) {
    Database db(false);
    // One address may hold fewer connections than there are uploads in
    // flight, so that a flood from it cannot take every place.
    reportd::Server s(
        o.binary, db.where,
        {"--rate", "30", "--max-inflight", "8", "--threads", "16", "--max-conns-per-address", "4"});
    int port = s.port();
    std::printf("intake limits (30 uploads a minute and 4 connections per address, 8 in flight,"
                " 16 workers)\n");
    std::atomic<bool> stop{false};
    std::atomic<int> normalOk{0}, normalOther{0};
    std::atomic<long long> worstMs{0};
    std::thread normal([&] {
        std::string desc = reportgen::report(reportgen::healthyRun());
        while (!stop) {
            auto t0 = Clock::now();
            // Each time from another address, as users of one network are.
            static int n = 0;
            std::string from = "127.0.1." + std::to_string(1 + n++ % 250);
            auto r = reportd::uploadFrom(from, port, desc);
            long long ms = static_cast<long long>(secondsSince(t0) * 1000);
            if (ms > worstMs)
                worstMs = ms;
            (r.status == 200 ? normalOk : normalOther)++;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    std::map<int, int> answers;
    std::mutex m;
    std::string desc = reportgen::report(reportgen::healthyRun());
    std::string body = reportgen::body(desc, std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    auto t0 = Clock::now();
    std::vector<std::thread> flood;
    for (int c = 0; c < 32; c++)
        flood.emplace_back([&, c] {
            for (int i = 0; i < 40; i++) {
                reportd::Response r;
                if (c % 4 == 0) {
                    // A slow sender: the head, then the body a second later.
                    int fd = -1;
                    struct sockaddr_in a {};
                    a.sin_family = AF_INET;
                    a.sin_port = htons(static_cast<uint16_t>(port));
                    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                    fd = socket(AF_INET, SOCK_STREAM, 0);
                    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
                        send(fd, head.data(), head.size(), MSG_NOSIGNAL) > 0) {
                        std::this_thread::sleep_for(std::chrono::seconds(1));
                        (void)send(fd, body.data(), body.size(), MSG_NOSIGNAL);
                        r = reportd::parse(reportd::readAll(fd));
                    }
                    close(fd);
                } else {
                    r = reportd::upload(port, desc);
                }
                std::lock_guard<std::mutex> lock(m);
                answers[r.status]++;
            }
        });
    for (auto &t : flood)
        t.join();
    double took = secondsSince(t0);
    stop = true;
    normal.join();
    int total = 0;
    for (auto &[code, n] : answers)
        total += n;
    std::printf("  flood from 127.0.0.1: %d uploads in %.1f s: %d answered 200, %d 429, %d 503, "
                "%d other\n",
                total, took, answers[200], answers[429], answers[503],
                total - answers[200] - answers[429] - answers[503]);
    std::printf("  normal client on other addresses meanwhile: %d answered 200, %d other, worst "
                "latency %lld ms\n",
                normalOk.load(), normalOther.load(), worstMs.load());
    int st = s.stop();
    bool ok = normalOther == 0 && answers[429] > 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0;
    std::printf("  %s\n",
                ok ? "ok: the flood was limited and the normal client was served" : "FAILED");
    return ok ? 0 : 1;
}

bool sqliteExec(const std::string &file, const std::string &sql) {
    sqlite3 *h = nullptr;
    sqlite3_open(file.c_str(), &h);
    bool ok = sqlite3_exec(h, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(h);
    return ok;
}

// The fleet view over many stored reports: count reports spread over 30
// days, 13 outcomes each, put straight into the database, then the time
// /api/fleet and /fleet take for each window.
int fleetBench(const Options &o) {
    Database db(o.postgres);
    { reportd::Server make(o.binary, db.where); } // the tables
    long long n = o.count, now = static_cast<long long>(std::time(nullptr));
    long long step = 30LL * 86400 / n;
    std::string targets =
        "CREATE TEMP TABLE t (area TEXT, target TEXT, k INTEGER);"
        "INSERT INTO t VALUES ('udp', 'UDP pass-through', 0),"
        "('tcp', 'Checks a connection to authentication server.', 1),"
        "('tcp', 'Checks a connection to authentication server (old).', 2),"
        "('tcp', 'Testing TCP pass-through to port 80', 3),"
        "('tcp', 'Testing TCP pass-through to port 443', 4),"
        "('tcp', 'Testing TCP pass-through to port 10007', 5),"
        "('tcp', 'Testing TCP pass-through to port 10008 (KR - KT2)', 6),"
        "('tcp', 'Testing TCP pass-through to port 10008 (JP - Amazon)', 7),"
        "('intranet', '10.243.160.1:8081', 8), ('intranet', '10.252.240.1:8081', 9),"
        "('intranet', '10.243.144.1:8081', 10), ('intranet', '10.252.128.1:8081', 11),"
        "('traceroute', 'traceroute to 192.0.2.2', 12);";
    std::string reports =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(n) +
        ") INSERT INTO reports (reference, received_at, form_username, report_username, summary,"
        " peer, size, \"desc\") SELECT 'KOB-20260101-' || (1000000 + i), " +
        std::to_string(now) + " - i * " + std::to_string(step) +
        ", 'user' || (i % 500), 'user' || (i % 500), 'no problem found', '127.0.0.1', 0, " +
        (o.postgres ? "''::bytea" : "X''") + " FROM n;";
    std::string outcomes =
        "INSERT INTO outcomes (report_id, received_at, area, target, failing)"
        " SELECT r.id, r.received_at, t.area, t.target,"
        " CASE WHEN (r.id * 7 + t.k) % 20 = 0 THEN 1 ELSE 0 END FROM reports r CROSS JOIN t;"
        "INSERT INTO outcome_hours (area, target, hour, reports, failing)"
        " SELECT area, target, received_at / 3600, count(*), sum(failing) FROM outcomes"
        " GROUP BY area, target, received_at / 3600;";
    auto t0 = Clock::now();
    if (o.postgres) {
        db.pg->psql("BEGIN;" + targets + reports + outcomes + "COMMIT; ANALYZE;");
    } else {
        sqlite3 *h = nullptr;
        sqlite3_open(db.where.c_str(), &h);
        char *err = nullptr;
        if (sqlite3_exec(h, ("BEGIN;" + targets + reports + outcomes + "COMMIT; ANALYZE;").c_str(),
                         nullptr, nullptr, &err) != SQLITE_OK) {
            std::fprintf(stderr, "fleet: %s\n", err ? err : "?");
            return 1;
        }
        sqlite3_close(h);
    }
    std::printf("%s: %lld reports over 30 days, %lld outcomes, made in %.1f s\n", db.name.c_str(),
                n, n * 13, secondsSince(t0));
    reportd::Server s(o.binary, db.where);
    reportd::Browser staff = s.signedIn("viewer");
    bool good = true;
    for (const char *w : {"6h", "24h", "7d", "30d"}) {
        std::vector<double> api, page;
        for (int k = 0; k < 5; k++) {
            auto a = Clock::now();
            auto r = s.api(std::string("/api/fleet?window=") + w);
            api.push_back(secondsSince(a) * 1000);
            good = good && r.status == 200;
            a = Clock::now();
            auto p = staff.get(std::string("/fleet?window=") + w);
            page.push_back(secondsSince(a) * 1000);
            good = good && p.status == 200;
        }
        std::sort(api.begin(), api.end());
        std::sort(page.begin(), page.end());
        std::printf("  window %-3s: /api/fleet median %.0f ms (max %.0f), /fleet median %.0f ms "
                    "(max %.0f)\n",
                    w, api[2], api[4], page[2], page[4]);
    }
    auto check = s.api("/api/fleet?window=30d");
    long long total = 0;
    for (size_t at = 0; (at = check.body.find("\"area\":\"udp\"", at)) != std::string::npos; at++) {
        std::sscanf(check.body.c_str() + check.body.find("\"reports\":", at), "\"reports\":%lld",
                    &total);
        break;
    }
    std::printf("  30 days hold %lld reports of the UDP pass-through\n", total);
    good = good && total == n;
    s.stop();

    // Retriage: every report given a lab run's text (one TCP probe failing)
    // and marked as judged by no known rules, then the command, alone.
    auto run = reportgen::healthyRun();
    run.tcp[3] = reportgen::tcpTimeout();
    std::string text = reportgen::report(run);
    std::string set =
        "UPDATE reports SET rules = 0, desc_zstd = 0, size = " + std::to_string(text.size());
    if (o.postgres) {
        std::string quoted;
        for (char c : text)
            quoted += c == '\'' ? std::string("''") : std::string(1, c);
        db.pg->psql(set + ", \"desc\" = convert_to('" + quoted + "', 'UTF8')");
    } else {
        sqlite3 *h = nullptr;
        sqlite3_open(db.where.c_str(), &h);
        sqlite3_stmt *st = nullptr;
        sqlite3_prepare_v2(h, (set + ", \"desc\" = ?").c_str(), -1, &st, nullptr);
        sqlite3_bind_blob(st, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
        good = good && sqlite3_step(st) == SQLITE_DONE;
        sqlite3_finalize(st);
        sqlite3_close(h);
    }
    auto r0 = Clock::now();
    auto re = reportd::command(o.binary, {"retriage", "--db", db.where});
    double took = secondsSince(r0);
    std::printf("  retriage of %lld reports of %zu bytes: %.1f s, %.0f reports/s (%s)\n", n,
                text.size(), took, static_cast<double>(n) / took,
                re.out.empty() ? re.err.c_str() : re.out.substr(0, re.out.size() - 1).c_str());
    good = good && re.status == 0 && re.out.rfind(std::to_string(n) + " reports re-judged", 0) == 0;
    // Again, as after an upgrade that changes what is said of a report but
    // not what it found: the outcomes stay as they are.
    if (o.postgres)
        db.pg->psql("UPDATE reports SET rules = 0");
    else
        good = good && sqliteExec(db.where, "UPDATE reports SET rules = 0");
    r0 = Clock::now();
    re = reportd::command(o.binary, {"retriage", "--db", db.where});
    took = secondsSince(r0);
    std::printf("  retriage again, outcomes unchanged: %.1f s, %.0f reports/s\n", took,
                static_cast<double>(n) / took);
    good = good && re.status == 0 && re.out.rfind(std::to_string(n) + " reports re-judged", 0) == 0;
    std::printf("  %s\n", good ? "ok" : "FAILED");
    return good ? 0 : 1;
}

int main(int argc, char *argv[]) {
    if (argc < 3)
        return usage();
    std::signal(SIGPIPE, SIG_IGN);
    std::string mode = argv[1];
    Options o;
    o.binary = argv[2];
    for (int i = 3; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--postgres")
            o.postgres = true;
        else if (a == "--count" && i + 1 < argc)
            o.count = std::atoi(argv[++i]);
        else if (a == "--size" && i + 1 < argc)
            o.size = static_cast<size_t>(std::atoll(argv[++i]));
        else if (a == "--cycles" && i + 1 < argc)
            o.cycles = std::atoi(argv[++i]);
        else if (a == "--clients" && i + 1 < argc)
            o.clients = std::atoi(argv[++i]);
        else if (a == "--port" && i + 1 < argc)
            o.port = std::atoi(argv[++i]);
        else
            return usage();
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (mode == "load")
        return load(o);
    if (mode == "crash")
        return crash(o);
    if (mode == "fleet")
        return fleetBench(o);
    if (mode == "limits")
        return limits(o);
    if (mode == "hostile")
        return hostile(o);
    return usage();
}
