// kobreportd at the edge: the bounds of a request's head, its syntax, its
// body's coding and pace, the connections one address and everyone may
// hold, and a normal upload still served promptly while hundreds of
// clients trickle.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"

#include <arpa/inet.h>
#include <chrono>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

bool sendAll(int fd, const std::string &s) {
    for (size_t off = 0; off < s.size();) {
        ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

// Everything until the server closes, within the seconds given.
std::string readUntilClosed(int fd, int seconds) {
    struct timeval tv = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return reportd::readAll(fd);
}

// A request that asks for its connection to close after the answer (the
// staff side would keep it for the next).
std::string get(const std::string &path, const std::string &headers = "") {
    return "GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers + "\r\n";
}

// A head of exactly `size` bytes in exactly `lines` lines (request line
// included), padded in its last field.
std::string headOf(const std::string &path, size_t size, int lines) {
    std::string h = "GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n";
    for (int i = 3; i < lines - 1; i++)
        h += "X-L" + std::to_string(i) + ": y\r\n";
    std::string last = "X-Pad: ";
    size_t used = h.size() + last.size() + 2 + 2;
    return h + last + std::string(size - used, 'p') + "\r\n\r\n";
}

struct Edge : ::testing::Test {
    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
};

const std::string kHeadTooLarge =
    "Request header fields too large: at most 16384 bytes in 100 lines\n";

} // namespace

TEST_F(Edge, AHeadOf16KiBIn100LinesPassesAndOneByteOrLineMoreIs431OnBothListeners) {
    reportd::Server s(KOBREPORTD_BIN, db);
    for (int port : {s.port(), s.staffPort()}) {
        std::string path = port == s.port() ? "/healthz" : "/static/style.css";
        SCOPED_TRACE(path);
        struct Case {
            size_t size;
            int lines, status;
        } cases[] = {{16384, 3, 200}, {16385, 3, 431}, {16384, 100, 200}, {16384, 101, 431}};
        for (const auto &c : cases) {
            SCOPED_TRACE(std::to_string(c.size) + " bytes, " + std::to_string(c.lines) + " lines");
            std::string head = headOf(path, c.size, c.lines);
            ASSERT_EQ(head.size(), c.size);
            auto r = reportd::exchange(port, {head});
            EXPECT_EQ(r.status, c.status) << r.raw.substr(0, 300);
            if (c.status == 431) {
                EXPECT_EQ(r.body, kHeadTooLarge);
            }
        }
        // Far beyond: the library itself refuses before the head is whole,
        // and the server does not grow with it.
        auto huge =
            reportd::exchange(port, {get(path, "X-Big: " + std::string(64u << 10, 'b') + "\r\n")});
        EXPECT_EQ(huge.status, 431) << huge.raw.substr(0, 300);
        EXPECT_EQ(huge.body,
                  "<html><head><title>Request too big</title></head><body>Your HTTP header was "
                  "too big for the memory constraints of this webserver.</body></html>");
        std::string many;
        for (int i = 0; i < 3000; i++)
            many += "X: y\r\n";
        EXPECT_EQ(reportd::exchange(port, {get(path, many)}).status, 431);
    }
    EXPECT_EQ(reportd::get(s.port(), "/healthz").body, "ok");
}

TEST_F(Edge, ATargetOver8KiBIs414) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string at = "/healthz?" + std::string(8192 - 9, 'q');
    EXPECT_EQ(reportd::exchange(s.port(), {get(at)}).body, "ok");
    auto r = reportd::exchange(s.port(), {get(at + "q")});
    EXPECT_EQ(r.status, 414);
    EXPECT_EQ(r.body, "URI too long\n");
}

// RFC 9112's refusals: what the HTTP library lets through is refused from
// what it parsed, on both listeners.
TEST_F(Edge, HeadFieldsThatRfc9112RefusesAre400AndContentCodingsAre415) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string body = reportgen::body(std::string("report\n"), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    auto with = [&](const std::string &field) {
        std::string h = head;
        return h.insert(h.size() - 2, field);
    };
    struct Case {
        const char *name;
        std::string request;
        int status;
        std::string body;
    } cases[] = {
        {"space before the colon", with("Transfer-Encoding : chunked\r\n") + body, 400,
         "Bad request: malformed header field\n"},
        {"tab before the colon", with("X-Tab\t: y\r\n") + body, 400,
         "Bad request: malformed header field\n"},
        {"bare CR", with("X-CR: one\rtwo\r\n") + body, 400,
         "Bad request: malformed header field\n"},
        {"two Content-Lengths",
         with("Content-Length: " + std::to_string(body.size()) + "\r\n") + body, 400,
         "Bad request: Content-Length\n"},
        {"Content-Length with Transfer-Encoding", with("Transfer-Encoding: chunked\r\n") + body,
         400, "Bad request: Content-Length with Transfer-Encoding\n"},
        {"gzip", with("Content-Encoding: gzip\r\n") + body, 415,
         "Unsupported Content-Encoding: only identity is accepted\n"},
        {"deflate, twice",
         with("Content-Encoding: identity\r\nContent-Encoding: deflate\r\n") + body, 415,
         "Unsupported Content-Encoding: only identity is accepted\n"},
        // A folded line is refused wherever it is, even where it would
        // hide the length of the body.
        {"obs-fold",
         [&] {
             std::string h = head;
             auto at = h.find("boundary=");
             return h.insert(at, "\r\n ") + body;
         }(),
         400, "Bad request: a folded header line\n"},
        {"obs-fold in the length",
         [&] {
             std::string h = head;
             auto at = h.find("Content-Length: ") + 17;
             return h.insert(at, "\r\n\t") + body;
         }(),
         400, "Bad request: a folded header line\n"},
        // With no field before it, the library refuses it itself.
        {"obs-fold after the request line", with("").insert(head.find("\r\n") + 2, " x\r\n") + body,
         400,
         "<html><head><title>Request malformed</title></head><body>Your HTTP request was "
         "syntactically incorrect.</body></html>"},
        {"empty and blank-padded fields", with("X-Empty:\r\nX-Pad: \t padded \t\r\n") + body, 200,
         ""},
        {"identity", with("Content-Encoding: identity\r\n") + body, 200, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto r = reportd::exchange(s.port(), {c.request});
        EXPECT_EQ(r.status, c.status) << r.raw.substr(0, 400);
        if (c.status != 200) {
            EXPECT_EQ(r.body, c.body);
        }
    }
    // The staff side refuses the same heads.
    auto staff = reportd::exchange(s.staffPort(), {get("/signin", "Host : y\r\n")});
    EXPECT_EQ(staff.status, 400);
    EXPECT_EQ(staff.body, "Bad request: malformed header field\n");
    auto folded = reportd::exchange(s.staffPort(), {get("/signin", "X-A: one\r\n two\r\n")});
    EXPECT_EQ(folded.status, 400);
    EXPECT_EQ(folded.body, "Bad request: a folded header line\n");
    auto coded =
        reportd::request(s.staffPort(), "POST", "/signin", "Content-Encoding: br\r\n", "x=1");
    EXPECT_EQ(coded.status, 415);
}

// A claimed length is not a received one: the metrics count what came.
TEST_F(Edge, AnUploadIsCountedAsReceivedNotAsClaimed) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string head = reportgen::head("h", 50000);
    int fd = reportd::connectFrom("127.0.0.1", s.port());
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, head + std::string(1000, 'x')));
    shutdown(fd, SHUT_WR);
    auto r = reportd::parse(readUntilClosed(fd, 20));
    close(fd);
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(r.body, "Bad request: the body ended early\n");
    auto m = s.api("/metrics");
    EXPECT_NE(m.body.find("\nkobreportd_upload_received_bytes_total 1000\n"), std::string::npos)
        << m.body;
    EXPECT_NE(m.body.find("\nkobreportd_uploads_total{code=\"400\"} 1\n"), std::string::npos);
}

// An upload's room is reserved for the length it claims, but memory is
// taken only as the body comes: eight uploads that claim 60 MiB each and
// send 300 KiB raise the server's resident memory by a few MiB, not by
// the 480 MiB they claim.
TEST_F(Edge, AnUploadThatClaimsMuchAndSendsLittleHoldsLittleMemory) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto resident = [&s] { return kobtest::processMemory(s.pid(), "VmRSS:"); };
    std::string body = reportgen::body(reportgen::reportOfSize(1u << 20, 3), "joan", std::nullopt);
    std::string start = reportgen::head("h", 60u << 20) + body.substr(0, 300u << 10);
    uint64_t before = resident();
    std::vector<int> held;
    for (int i = 0; i < 8; i++) {
        held.push_back(reportd::connectFrom("127.0.0.6", s.port()));
        ASSERT_GE(held.back(), 0);
        ASSERT_TRUE(sendAll(held.back(), start));
    }
    // The server has read all that was sent once its sockets hold none of
    // it (/proc/net/tcp: the local end's port, and tx_queue:rx_queue).
    char local[16];
    std::snprintf(local, sizeof local, "0100007F:%04X", s.port());
    auto unread = [&local] {
        std::istringstream lines(kobtest::readFile("/proc/net/tcp"));
        std::string line, slot, here, there, state, queues;
        long sockets = 0, bytes = 0;
        while (std::getline(lines, line)) {
            std::istringstream fields(line);
            if (fields >> slot >> here >> there >> state >> queues && here == local &&
                there.compare(0, 9, "0600007F:") == 0) {
                sockets++;
                bytes += std::stol(queues.substr(queues.find(':') + 1), nullptr, 16);
            }
        }
        return sockets == 8 ? bytes : -1;
    };
    for (int i = 0; i < 500 && unread() != 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(unread(), 0);
    uint64_t after = resident();
    EXPECT_LT(after, before + (32u << 20)) << before << " -> " << after;
    for (int fd : held)
        close(fd);
}

TEST_F(Edge, ConnectionsBeyondTheAddressCapGet503AtOnceAndOthersAreServed) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-conns-per-address", "3"});
    for (int port : {s.port(), s.staffPort()}) {
        SCOPED_TRACE(port);
        std::vector<int> held;
        for (int i = 0; i < 3; i++) {
            held.push_back(reportd::connectFrom("127.0.0.3", port));
            ASSERT_GE(held.back(), 0);
            // Each is accepted before the next comes: its first byte is in.
            ASSERT_TRUE(sendAll(held.back(), "G"));
        }
        auto t0 = Clock::now();
        auto refused = reportd::exchangeAt("127.0.0.1", port, {get("/healthz")}, 10, "127.0.0.3");
        EXPECT_LT(Clock::now() - t0, std::chrono::seconds(2));
        EXPECT_EQ(refused.status, 503) << refused.raw;
        EXPECT_EQ(reportd::header(refused, "Retry-After"), "10");
        EXPECT_EQ(refused.body,
                  "Too many connections from this address, please try again shortly\n");
        // Another address is served; and once one of the three has gone,
        // this one is too.
        EXPECT_NE(reportd::exchangeAt("127.0.0.1", port, {get("/healthz")}, 10, "127.0.0.4").status,
                  503);
        // One of the three finishes its request and is answered; the
        // server has let it go once it closes.
        ASSERT_TRUE(sendAll(held.back(), get("/healthz").substr(1)));
        EXPECT_NE(readUntilClosed(held.back(), 20), "");
        close(held.back());
        held.pop_back();
        reportd::Response again;
        for (int i = 0; i < 5000 && again.status != 404 && again.status != 200; i++)
            again = reportd::exchangeAt("127.0.0.1", port, {get("/healthz")}, 10, "127.0.0.3");
        EXPECT_NE(again.status, 503);
        for (int fd : held)
            close(fd);
    }
}

TEST_F(Edge, ConnectionsBeyondTheGlobalCapGet503AtOnce) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-conns", "10", "--max-conns-per-address", "100"});
    std::vector<int> held;
    for (int i = 0; i < 10; i++) {
        held.push_back(reportd::connectFrom("127.0.0." + std::to_string(10 + i), s.port()));
        ASSERT_GE(held.back(), 0);
        ASSERT_TRUE(sendAll(held.back(), "G"));
    }
    auto refused = reportd::exchangeAt("127.0.0.1", s.port(), {get("/healthz")}, 10, "127.0.0.99");
    EXPECT_EQ(refused.status, 503) << refused.raw;
    EXPECT_EQ(reportd::header(refused, "Retry-After"), "10");
    EXPECT_EQ(refused.body, "Too busy, please try again shortly\n");
    // They finish their requests and are answered; the server lets each
    // go once it closes.
    for (int fd : held) {
        ASSERT_TRUE(sendAll(fd, get("/healthz").substr(1)));
        EXPECT_EQ(reportd::parse(readUntilClosed(fd, 20)).body, "ok");
        close(fd);
    }
    reportd::Response again;
    for (int i = 0; i < 5000 && again.status != 200; i++)
        again = reportd::get(s.port(), "/healthz");
    EXPECT_EQ(again.body, "ok");
}

TEST_F(Edge, AConnectionThatSaysNothingIsClosedAfterTheReadTimeout) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--read-timeout", "1"});
    int fd = reportd::connectFrom("127.0.0.1", s.port());
    ASSERT_GE(fd, 0);
    auto t0 = Clock::now();
    EXPECT_EQ(readUntilClosed(fd, 20), "");
    auto took = Clock::now() - t0;
    close(fd);
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(4));
}

// The head has ten seconds from the first byte, however steadily it comes;
// a body must bring a kilobyte a second, averaged over ten.
TEST_F(Edge, AHeadLateAfterTenSecondsAndABodyUnderAKilobyteASecondAreCut) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string body = reportgen::body(std::string(30000, 'r'), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    struct Trickle {
        std::string first; // sent at once
        std::string rest;  // then a piece at a time
        size_t piece;      // bytes per piece
        int everyMs;       // between pieces
        std::string raw;
        Clock::duration took{};
    } slowHead{"P", head.substr(1) + body, 1, 2000, {}, {}},
        slowBody{head, body, 600, 1000, {}, {}}, steadyBody{head, body, 3000, 1000, {}, {}};
    auto run = [&](Trickle &t) {
        auto start = Clock::now();
        int fd = reportd::connectFrom("127.0.0.1", s.port());
        if (fd < 0)
            return;
        sendAll(fd, t.first);
        for (size_t i = 0; i < t.rest.size(); i += t.piece) {
            // The pause is a wait for the answer, which ends it early.
            struct pollfd pf = {fd, POLLIN, 0};
            if (poll(&pf, 1, t.everyMs) > 0)
                break;
            if (!sendAll(fd, t.rest.substr(i, t.piece)))
                break;
        }
        t.raw = readUntilClosed(fd, 30);
        close(fd);
        t.took = Clock::now() - start;
    };
    std::thread a(run, std::ref(slowHead)), b(run, std::ref(slowBody)),
        c(run, std::ref(steadyBody));
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(slowHead.raw, "");
    EXPECT_GE(slowHead.took, std::chrono::milliseconds(9900));
    EXPECT_LT(slowHead.took, std::chrono::seconds(13));
    auto r = reportd::parse(slowBody.raw);
    EXPECT_EQ(r.status, 408) << slowBody.raw;
    EXPECT_EQ(r.body, "Request timeout\n");
    EXPECT_GE(slowBody.took, std::chrono::milliseconds(9900));
    EXPECT_LT(slowBody.took, std::chrono::seconds(13));
    // Three kilobytes a second go through, however long they take.
    EXPECT_EQ(reportd::parse(steadyBody.raw).status, 200) << steadyBody.raw;
    EXPECT_GE(steadyBody.took, std::chrono::seconds(10));
}

// 250 clients each trickle a byte of their head every half second from 32
// addresses; meanwhile uploads and the sign-in page are answered at once.
TEST_F(Edge, TwoHundredFiftyTricklingConnectionsDoNotDelayAnUploadOrTheSignInPage) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::vector<int> slow;
    for (int i = 0; i < 250; i++) {
        int port = i % 5 == 0 ? s.staffPort() : s.port();
        int fd = reportd::connectFrom("127.0.1." + std::to_string(1 + i / 8), port);
        ASSERT_GE(fd, 0) << i;
        ASSERT_TRUE(sendAll(fd, "P"));
        slow.push_back(fd);
    }
    std::string head = "OST /report/problem.php HTTP/1.1\r\nHost: x\r\nX-Slow: ";
    std::atomic<bool> done{false};
    std::thread trickler([&] {
        for (size_t k = 0; !done && k < 40; k++) {
            for (int fd : slow)
                send(fd, &head[k % head.size()], 1, MSG_NOSIGNAL);
            struct pollfd none = {-1, 0, 0};
            poll(&none, 0, 500);
        }
    });
    for (int i = 0; i < 10; i++) {
        SCOPED_TRACE(i);
        auto t0 = Clock::now();
        auto up = reportd::upload(s.port(), "during the trickle " + std::to_string(i) + "\n");
        EXPECT_EQ(up.status, 200) << up.raw;
        EXPECT_LT(Clock::now() - t0, std::chrono::seconds(1));
        t0 = Clock::now();
        auto page = reportd::get(s.staffPort(), "/signin");
        EXPECT_EQ(page.status, 200);
        EXPECT_LT(Clock::now() - t0, std::chrono::seconds(1));
    }
    done = true;
    trickler.join();
    // And the tricklers' heads ran out of time, without an answer.
    for (int fd : slow) {
        EXPECT_EQ(readUntilClosed(fd, 20), "");
        close(fd);
    }
}

TEST(EdgeCommandLine, TheUsageTextNamesEveryOption) {
    auto r = kobtest::runProgram({KOBREPORTD_BIN, "--bogus", "1"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(
        r.err,
        "usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL [--staff-listen ADDR:PORT]\n"
        "                  [--tls-cert FILE --tls-key FILE] [--retain-days N]\n"
        "                  [--rate PER_MINUTE] [--max-inflight N] [--max-body BYTES]\n"
        "                  [--read-timeout SECONDS] [--request-timeout SECONDS] [--threads N]\n"
        "                  [--max-conns-per-address N] [--max-conns N]\n"
        "                  [--quota-per-address BYTES] [--min-free-disk PERCENT]\n"
        "                  [--max-db-size BYTES] [--trusted-proxy CIDR]...\n"
        "                  [--proxy-protocol intake|staff]... [--public-url URL]\n"
        "                  [--alert-webhook URL] [--alert-check SECONDS]\n"
        "                  [--alert-webhook-secret FILE]\n"
        "                  [--asn-db FILE] [--country-db FILE]\n"
        "                  [--alert-min-senders N] [--alert-min-baseline N]\n"
        "                  [--targets FILE] [--ticket-url PATTERN]\n"
        "                  [--log-level debug|info|warn|error] [--access-log]\n"
        "                  [--common-passwords FILE]\n"
        "                  [--require-2fa admin|all] [--second-factor-key FILE]\n"
        "                  [--auth-proxy-header NAME [--auth-proxy-email-header NAME]\n"
        "                   [--auth-proxy-role-header NAME] [--auth-proxy-autocreate]]\n"
        "       kobreportd user add NAME --role viewer|admin --db PATH_OR_URL\n"
        "       kobreportd user passwd NAME --db PATH_OR_URL\n"
        "       kobreportd user role NAME --role viewer|admin --db PATH_OR_URL\n"
        "       kobreportd user disable|enable|del NAME --db PATH_OR_URL\n"
        "       kobreportd user list --db PATH_OR_URL\n"
        "       kobreportd token add NAME [--role viewer|admin|metrics] --db PATH_OR_URL\n"
        "       kobreportd token disable|enable|del NAME --db PATH_OR_URL\n"
        "       kobreportd token list --db PATH_OR_URL\n"
        "       kobreportd purge --older-than DAYS --db PATH_OR_URL\n"
        "       kobreportd retriage [--targets FILE] --db PATH_OR_URL\n"
        "       kobreportd backup --db PATH --to FILE\n"
        "       kobreportd --version\n");
}
