// kobreportd behind the operator's reverse proxies and under its storage
// quotas, on both databases: who the client is (X-Forwarded-For, Forwarded,
// the PROXY protocol), that only the trusted proxies are believed, that every
// per-address decision follows the client so found, and what an address and
// the whole store may take.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "store_fixture.h"

#include <arpa/inet.h>
#include <chrono>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>

namespace {

// 2027-01-15 08:00:00 UTC: 57,600 seconds before the day turns.
constexpr std::time_t kMorning = 1800000000;

class Behind : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        kobtest::writeFile(clockFile, std::to_string(kMorning) + "\n");
    }

    // The stored senders, oldest first, one space between.
    std::string senders() {
        return value(GetParam() == "postgres"
                         ? "SELECT string_agg(peer, ' ' ORDER BY id) FROM reports"
                         : "SELECT group_concat(peer, ' ') FROM (SELECT peer FROM reports "
                           "ORDER BY id)");
    }

    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }

    std::string clockFile = dir.file("clock");
};

// kobdiag's upload with header lines added (each ending in CRLF), sent
// from source, after a preface when one is given.
reportd::Response uploadWith(const std::string &source, int port, const std::string &headers,
                             const std::string &desc = "report\n",
                             const std::string &preface = "") {
    std::string body = reportgen::body(desc, std::nullopt, std::nullopt);
    std::string head = reportgen::head("report.kobvane.example", body.size());
    head = head.substr(0, head.size() - 2) + headers + "\r\n";
    std::vector<std::string> pieces = {head, body};
    if (!preface.empty())
        pieces.insert(pieces.begin(), preface);
    return reportd::exchangeAt("127.0.0.1", port, pieces, 30, source);
}

std::string getRequest(const std::string &path) {
    return "GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
}

// A PROXY protocol version 2 preface for a TCP over IPv6 client.
std::string proxyV2(const std::string &source) {
    std::string p("\r\n\r\n\0\r\nQUIT\n", 12);
    p += '\x21'; // version 2, PROXY
    p += '\x21'; // TCP over IPv6
    p += std::string("\0\x24", 2);
    unsigned char a[16];
    inet_pton(AF_INET6, source.c_str(), a);
    p.append(reinterpret_cast<char *>(a), 16);
    inet_pton(AF_INET6, "2001:db8::1", a);
    p.append(reinterpret_cast<char *>(a), 16);
    p += std::string("\x9c\x40\x00\x50", 4);
    return p;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Behind, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Behind, TheClientIsWhomATrustedProxyNamesAndNobodyElsesHeadersAreBelieved) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--trusted-proxy", "127.0.0.0/31"});
    struct Case {
        const char *source, *headers;
    } cases[] = {
        // The rightmost address that is not one of ours.
        {"127.0.0.1", "X-Forwarded-For: 203.0.113.9, 198.51.100.20\r\n"},
        {"127.0.0.1", "X-Forwarded-For: 198.51.100.21\r\nX-Forwarded-For: 127.0.0.1\r\n"},
        {"127.0.0.1", "Forwarded: for=\"[2001:db8::5]:4711\";proto=https\r\n"},
        {"127.0.0.1", ""},
        // Garbage from a proxy is not an address: the proxy is the sender.
        {"127.0.0.1", "X-Forwarded-For: 198.51.100.22, not-an-address\r\n"},
        // Anyone else's say is ignored.
        {"127.0.0.2", "X-Forwarded-For: 198.51.100.23\r\n"},
        {"127.0.0.2", "Forwarded: for=198.51.100.24\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.headers);
        EXPECT_EQ(uploadWith(c.source, s.port(), c.headers).status, 200);
    }
    EXPECT_EQ(senders(), "198.51.100.20 198.51.100.21 2001:db8::5 127.0.0.1 127.0.0.1 127.0.0.2 "
                         "127.0.0.2");
}

TEST_P(Behind, TheRateAndTheQuotaFollowTheClientAndAnIPv6SendersSlash64) {
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--trusted-proxy", "127.0.0.1", "--rate", "1", "--quota-per-address", "0"},
                      true, clockEnv());
    auto via = [&](const std::string &client) {
        return uploadWith("127.0.0.1", s.port(), "X-Forwarded-For: " + client + "\r\n");
    };
    EXPECT_EQ(via("198.51.100.1").status, 200);
    EXPECT_EQ(via("198.51.100.2").status, 200);
    EXPECT_EQ(via("198.51.100.1").status, 429);
    EXPECT_EQ(via("2001:db8:0:1::1").status, 200);
    // Another address of the same /64 is the same sender.
    auto same = via("2001:db8:0:1:ffff::2");
    EXPECT_EQ(same.status, 429);
    EXPECT_EQ(same.body, "Too many reports from this address, please wait\n");
    EXPECT_EQ(via("2001:db8:0:2::1").status, 200);
    EXPECT_EQ(value("SELECT count(*) FROM reports"), "4");
}

TEST_P(Behind, SignInFailuresShutTheDoorOnTheClientNotOnTheProxy) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--trusted-proxy", "127.0.0.1"}, true, clockEnv());
    ASSERT_EQ(s.addUser("dave", "viewer", "password of dave").status, 0);
    ASSERT_EQ(s.addUser("erin", "viewer", "password of erin").status, 0);
    ASSERT_EQ(s.addUser("fay", "viewer", "password of fay").status, 0);
    reportd::Browser b(s.staffPort());
    auto signIn = [&](const std::string &name, const std::string &client) {
        b.get("/signin");
        return b.post("/signin", {{"name", name}, {"password", "password of " + name}},
                      "X-Forwarded-For: " + client + "\r\n");
    };
    b.get("/signin");
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(b.post("/signin", {{"name", "dave"}, {"password", "guess"}},
                         "X-Forwarded-For: 198.51.100.66\r\n")
                      .status,
                  401);
    // That client is shut out, whatever the account; another is not.
    EXPECT_EQ(signIn("erin", "198.51.100.66").status, 429);
    EXPECT_EQ(signIn("fay", "198.51.100.67").status, 303);
    EXPECT_EQ(value("SELECT address FROM audit WHERE action = 'signin.failed'"), "198.51.100.66");
    EXPECT_EQ(value("SELECT address FROM audit WHERE action = 'signin'"), "198.51.100.67");
}

TEST_P(Behind, AnAddressHasItsBytesADayAndWhatIsStoredStaysWhenItIsSpent) {
    std::string report(150000, 'r');
    {
        reportd::Server s(KOBREPORTD_BIN, db, {"--quota-per-address", "300000"}, true, clockEnv());
        EXPECT_EQ(reportd::uploadFrom("127.0.0.2", s.port(), report).status, 200);
        auto spent = reportd::uploadFrom("127.0.0.2", s.port(), report);
        EXPECT_EQ(spent.status, 429);
        EXPECT_EQ(spent.body,
                  "Too many report bytes from this address today (at most 300000 bytes), "
                  "please send the report again tomorrow\n");
        EXPECT_EQ(reportd::header(spent, "Retry-After"), "57600");
        EXPECT_EQ(reportd::uploadFrom("127.0.0.3", s.port(), report).status, 200);
        auto m = s.api("/metrics");
        EXPECT_NE(m.body.find("\nkobreportd_uploads_refused_total{reason=\"address_quota\"} 1\n"),
                  std::string::npos)
            << m.body;
        EXPECT_EQ(value("SELECT count(*) FROM reports"), "2");
        // The next day, the address has its bytes again.
        kobtest::writeFile(clockFile, std::to_string(kMorning + 57600) + "\n");
        EXPECT_EQ(reportd::uploadFrom("127.0.0.2", s.port(), report).status, 200);
    }
    // A store over its cap takes nothing more, and keeps what it has.
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-db-size", "1"});
    auto full = reportd::uploadFrom("127.0.0.4", s.port(), "one more\n");
    EXPECT_EQ(full.status, 507);
    EXPECT_EQ(full.body,
              "Report not stored: the server's store is full, please send it again later\n");
    EXPECT_EQ(reportd::header(full, "Retry-After"), "3600");
    EXPECT_NE(
        s.api("/metrics").body.find("\nkobreportd_uploads_refused_total{reason=\"db_size\"} 1\n"),
        std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM reports"), "3");
    EXPECT_EQ(s.api("/api/reports").status, 200);
}

// The free share is that of the file system the database is on, which this
// test cannot fill: it asks for more than there is.
TEST(Quota, AStoreOnADiskShortOfTheFreeShareIsRefused507) {
    kobtest::TempDir dir;
    struct statvfs fs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &fs), 0);
    if (fs.f_bavail >= fs.f_blocks * 99 / 100)
        GTEST_SKIP() << "the temporary directory's file system is more than 99% free";
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"), {"--min-free-disk", "99%"});
    auto low = reportd::uploadFrom("127.0.0.2", s.port(), "a report\n");
    EXPECT_EQ(low.status, 507);
    EXPECT_EQ(low.body,
              "Report not stored: the server is short of disk space, please send it again later\n");
    EXPECT_NE(
        s.api("/metrics").body.find("\nkobreportd_uploads_refused_total{reason=\"disk_free\"} 1\n"),
        std::string::npos);
    EXPECT_EQ(reportd::sqliteValue(dir.file("reports.db"), "SELECT count(*) FROM reports"), "0");
}

TEST(Proxies, AProxysOwnConnectionsAreNotHeldToThePerAddressCap) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"),
                      {"--trusted-proxy", "127.0.0.1", "--max-conns-per-address", "2"});
    std::vector<int> held;
    for (const char *source :
         {"127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.2", "127.0.0.2"}) {
        held.push_back(reportd::connectFrom(source, s.port()));
        ASSERT_GE(held.back(), 0);
        ASSERT_TRUE(send(held.back(), "G", 1, MSG_NOSIGNAL) == 1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto proxy =
        reportd::exchangeAt("127.0.0.1", s.port(), {getRequest("/healthz")}, 10, "127.0.0.1");
    EXPECT_EQ(proxy.body, "ok");
    auto other =
        reportd::exchangeAt("127.0.0.1", s.port(), {getRequest("/healthz")}, 10, "127.0.0.2");
    EXPECT_EQ(other.status, 503);
    EXPECT_EQ(other.body, "Too many connections from this address, please try again shortly\n");
    for (int fd : held)
        close(fd);
}

TEST_P(Behind, APROXYPrefaceNamesTheClientOnlyFromATrustedProxy) {
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--trusted-proxy", "127.0.0.1", "--proxy-protocol", "intake",
                       "--proxy-protocol", "staff"});
    std::string v1 = "PROXY TCP4 198.51.100.30 127.0.0.1 40000 80\r\n";
    EXPECT_EQ(uploadWith("127.0.0.1", s.port(), "", "one\n", v1).status, 200);
    EXPECT_EQ(uploadWith("127.0.0.1", s.port(), "", "two\n", proxyV2("2001:db8::30")).status, 200);
    // From a peer that is not ours, the preface is read and not believed.
    EXPECT_EQ(uploadWith("127.0.0.2", s.port(), "", "three\n", v1).status, 200);
    // The preface's client is the one whose proxies' headers count: none.
    EXPECT_EQ(
        uploadWith("127.0.0.1", s.port(), "X-Forwarded-For: 203.0.113.1\r\n", "four\n", v1).status,
        200);
    // A preface in pieces is waited for.
    std::string body = reportgen::body("five\n", std::nullopt, std::nullopt);
    auto pieces =
        reportd::exchangeAt("127.0.0.1", s.port(),
                            {v1.substr(0, 9), v1.substr(9, 20), v1.substr(29),
                             reportgen::head("report.kobvane.example", body.size()), body},
                            30, "127.0.0.1");
    EXPECT_EQ(pieces.status, 200);
    EXPECT_EQ(senders(), "198.51.100.30 2001:db8::30 127.0.0.2 198.51.100.30 198.51.100.30");
    // No preface, or a broken one: closed without an answer.
    EXPECT_EQ(reportd::exchange(s.port(), {getRequest("/healthz")}).raw, "");
    EXPECT_EQ(reportd::exchange(s.port(), {"PROXY TCP4 nonsense\r\n" + getRequest("/healthz")}).raw,
              "");
    // The staff side reads its preface too, before TLS or HTTP.
    auto page = reportd::exchange(s.staffPort(), {v1 + getRequest("/signin")});
    EXPECT_EQ(page.status, 200);
}

TEST(Proxies, AConnectionNamedByAPrefaceIsHeldToTheCapOfItsClient) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"),
                      {"--trusted-proxy", "127.0.0.1", "--proxy-protocol", "intake",
                       "--max-conns-per-address", "1"});
    std::string v1 = "PROXY TCP4 198.51.100.40 127.0.0.1 40000 80\r\n";
    int held = reportd::connectFrom("127.0.0.1", s.port());
    ASSERT_GE(held, 0);
    ASSERT_EQ(send(held, v1.data(), v1.size(), MSG_NOSIGNAL), static_cast<ssize_t>(v1.size()));
    ASSERT_EQ(send(held, "G", 1, MSG_NOSIGNAL), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto again = reportd::exchange(s.port(), {v1 + getRequest("/healthz")});
    EXPECT_EQ(again.status, 503);
    EXPECT_EQ(again.body, "Too many connections from this address, please try again shortly\n");
    auto other = reportd::exchange(
        s.port(), {"PROXY TCP4 198.51.100.41 127.0.0.1 40000 80\r\n" + getRequest("/healthz")});
    EXPECT_EQ(other.body, "ok");
    close(held);
}

TEST(ProxiesCommandLine, BadValuesAreRefused) {
    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
    auto noProxy = reportd::command(
        KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db", db, "--proxy-protocol", "intake"});
    EXPECT_EQ(noProxy.status, 1);
    EXPECT_EQ(noProxy.err, "kobreportd: --proxy-protocol needs --trusted-proxy: a preface is "
                           "believed only from the proxies named there\n");
    for (auto bad : std::vector<std::vector<std::string>>{{"--trusted-proxy", "proxy.example"},
                                                          {"--trusted-proxy", "10.0.0.0/33"},
                                                          {"--proxy-protocol", "both"},
                                                          {"--min-free-disk", "100"},
                                                          {"--quota-per-address", "-1"},
                                                          {"--max-db-size", "1G"}}) {
        SCOPED_TRACE(bad[0] + " " + bad[1]);
        std::vector<std::string> args = {"--listen", "127.0.0.1:0", "--db", db};
        args.insert(args.end(), bad.begin(), bad.end());
        auto r = reportd::command(KOBREPORTD_BIN, args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind("usage: kobreportd --listen ADDR:PORT", 0), 0u) << r.err;
    }
}
