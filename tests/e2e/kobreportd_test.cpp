// kobreportd with SQLite: uploads exactly as kobdiag sends them, the stored
// report and its reference, the error answers, timeouts, and the views.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// One column of one row, read straight from the database file.
std::string sqlValue(const std::string &db, const std::string &sql) {
    sqlite3 *h = nullptr;
    sqlite3_open_v2(db.c_str(), &h, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt *st = nullptr;
    std::string v = "<none>";
    if (sqlite3_prepare_v2(h, sql.c_str(), -1, &st, nullptr) == SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW && sqlite3_column_type(st, 0) != SQLITE_NULL)
        v.assign(static_cast<const char *>(sqlite3_column_blob(st, 0)),
                 static_cast<size_t>(sqlite3_column_bytes(st, 0)));
    sqlite3_finalize(st);
    sqlite3_close(h);
    return v;
}

struct Reportd : ::testing::Test {
    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
};

std::string form(const std::vector<std::pair<std::string, std::string>> &parts) {
    std::string b;
    for (const auto &[name, value] : parts)
        b += std::string("--") + reportgen::kBoundary +
             "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
    return b + "--" + reportgen::kBoundary + "--\r\n";
}

} // namespace

TEST_F(Reportd, PrintsOneReadyLineWithItsAddresses) {
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(s.readyLine(), "kobreportd: intake on http://127.0.0.1:" + std::to_string(s.port()) +
                                 "/; staff on http://127.0.0.1:" + std::to_string(s.staffPort()) +
                                 "/\n");
    reportd::Server intakeOnly(KOBREPORTD_BIN, dir.file("other.db"), {}, false);
    EXPECT_EQ(intakeOnly.readyLine(), "kobreportd: intake on http://127.0.0.1:" +
                                          std::to_string(intakeOnly.port()) + "/\n");
    EXPECT_TRUE(kobtest::fileExists(db));
    EXPECT_EQ(sqlValue(db, "PRAGMA journal_mode"), "wal");
    // A new file is made with small pages: a commit writes each page it
    // touches whole.
    EXPECT_EQ(sqlValue(db, "PRAGMA page_size"), "4096");
}

TEST_F(Reportd, StoresTheReportBeforeAnsweringWithItsReference) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string desc = reportgen::report(reportgen::healthyRun());
    std::string body = reportgen::body(desc, std::string("alice"), std::string("VPN drops\n"));
    auto r =
        reportd::exchange(s.port(), {reportgen::head("report.kobvane.example", body.size()), body});
    ASSERT_TRUE(r.ok) << r.raw;
    EXPECT_EQ(r.status, 200);
    std::string ref = reportd::reference(r);
    EXPECT_GE(reportd::referenceNumber(ref, reportd::utcToday()), 0) << r.body;
    EXPECT_EQ(r.body, "Report received: " + ref);
    EXPECT_NE(r.raw.find("\r\nConnection: close\r\n"), std::string::npos);
    // On disk byte for byte, under that reference, compressed.
    EXPECT_EQ(sqlValue(db, "SELECT desc_zstd FROM reports WHERE reference = '" + ref + "'"), "1");
    EXPECT_EQ(
        reportd::unzstd(sqlValue(db, "SELECT desc FROM reports WHERE reference = '" + ref + "'")),
        desc);
    EXPECT_EQ(sqlValue(db, "SELECT size FROM reports"), std::to_string(desc.size()));
    EXPECT_EQ(sqlValue(db, "SELECT form_username FROM reports"), "alice");
    EXPECT_EQ(sqlValue(db, "SELECT why FROM reports"), "VPN drops\n");
    EXPECT_EQ(sqlValue(db, "SELECT summary FROM reports"), "no problem found");

    auto raw = s.api("/api/reports/" + ref + "/raw?reveal=1");
    EXPECT_EQ(raw.status, 200);
    EXPECT_EQ(raw.body, desc);
    auto json = s.api("/api/reports/" + ref + "?reveal=1");
    EXPECT_EQ(json.status, 200);
    EXPECT_EQ(json.body.rfind("{\"reference\":\"" + ref + "\",\"received_at\":\"", 0), 0u)
        << json.body;
    for (const char *part : {"\"form_username\":\"alice\"", "\"why\":\"VPN drops\\n\"",
                             "\"username\":\"alice\"", "\"version\":\"4.4.1\"",
                             "\"verdicts\":[\"UDP pass-through works (5/5 answered, avg 12.0 "
                             "ms)\""})
        EXPECT_NE(json.body.find(part), std::string::npos) << part;
}

TEST_F(Reportd, FormWithTheReportOnlyAndEmptyReport) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto r = reportd::upload(s.port(), "short report\n");
    EXPECT_EQ(r.status, 200) << r.raw;
    std::string ref = reportd::reference(r);
    EXPECT_EQ(sqlValue(db, "SELECT form_username FROM reports"), "<none>");
    EXPECT_EQ(sqlValue(db, "SELECT why FROM reports"), "<none>");
    r = reportd::upload(s.port(), "");
    EXPECT_EQ(r.status, 200) << r.raw;
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "2");
    auto j = s.api("/api/reports/" + reportd::reference(r));
    EXPECT_NE(j.body.find("\"verdicts\":[\"not a kobdiag report"), std::string::npos);
}

TEST_F(Reportd, ReferencesAreUniqueAndTheListIsNewestFirstPagedAndSearchable) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::vector<std::string> refs;
    for (int i = 0; i < 53; i++) {
        auto run = reportgen::healthyRun();
        run.username = i % 2 ? "Odd_User" : "even";
        auto r = reportd::upload(s.port(), reportgen::report(run), i == 7 ? "seventh" : nullptr);
        refs.push_back(reportd::reference(r));
        ASSERT_FALSE(refs.back().empty()) << r.raw;
    }
    // Each later than the one before, all of the day.
    for (int i = 0; i < 53; i++) {
        SCOPED_TRACE(refs[i]);
        EXPECT_GE(reportd::referenceNumber(refs[i], reportd::utcToday()), 0);
        if (i) {
            EXPECT_GT(reportd::referenceNumber(refs[i], reportd::utcToday()),
                      reportd::referenceNumber(refs[i - 1], reportd::utcToday()));
        }
    }
    auto list = s.api("/api/reports");
    EXPECT_EQ(
        list.body.rfind("{\"total\":53,\"page\":1,\"page_size\":50,\"reports\":[{\"reference\":"
                        "\"" +
                            refs[52] + "\"",
                        0),
        0u)
        << list.body.substr(0, 200);
    auto page2 = s.api("/api/reports?page=2");
    EXPECT_NE(page2.body.find(refs[2]), std::string::npos);
    EXPECT_EQ(page2.body.find(refs[3]), std::string::npos);
    auto byUser = s.api("/api/reports?q=odd_u");
    EXPECT_EQ(byUser.body.rfind("{\"total\":26,", 0), 0u);
    auto byForm = s.api("/api/reports?q=SEVENTH");
    EXPECT_EQ(byForm.body.rfind("{\"total\":1,", 0), 0u);
    EXPECT_NE(byForm.body.find(refs[7]), std::string::npos);
    auto byRef = s.api("/api/reports?q=" + refs[9]);
    EXPECT_EQ(byRef.body.rfind("{\"total\":1,", 0), 0u);
    // A wildcard typed by a user is a plain character.
    EXPECT_EQ(s.api("/api/reports?q=%25").body.rfind("{\"total\":0,", 0), 0u);
    // 27 runs of user "even", and the form's user "seventh".
    reportd::Browser staff = s.signedIn();
    auto html = staff.get("/?q=even&page=2");
    EXPECT_EQ(html.status, 200);
    EXPECT_NE(html.body.find("28 reports matching"), std::string::npos) << html.raw.substr(0, 1500);
    EXPECT_NE(html.body.find("rel=\"prev\" href=\"/?q=even&amp;page=1\""), std::string::npos);
}

TEST_F(Reportd, KeepsItsReportsAcrossARestart) {
    std::string ref;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        ref = reportd::reference(reportd::upload(s.port(), "first\n"));
        EXPECT_EQ(s.stop(), 0);
    }
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(s.api("/api/reports/" + ref + "/raw?reveal=1").body, "first\n");
    std::string second = reportd::reference(reportd::upload(s.port(), "second\n"));
    EXPECT_GT(reportd::referenceNumber(second, reportd::utcToday()),
              reportd::referenceNumber(ref, reportd::utcToday()))
        << ref << " then " << second;
}

TEST_F(Reportd, AnswersErrorsAndKeepsServing) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-body", "2000000"});
    int port = s.port();
    auto head = [](const std::string &extra, size_t len) {
        return "POST /report/problem.php HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
               std::to_string(len) + "\r\n" + extra + "Host: x\r\n\r\n";
    };
    std::string ct =
        std::string("Content-Type: multipart/form-data; boundary=") + reportgen::kBoundary + "\r\n";
    std::string good = form({{"desc", "report"}});
    std::string manyParts;
    for (int i = 0; i < 10000; i++)
        manyParts += std::string("--") + reportgen::kBoundary +
                     "\r\nContent-Disposition: form-data; name=\"why\"\r\n\r\nx\r\n";
    manyParts += std::string("--") + reportgen::kBoundary + "--\r\n";
    struct Case {
        const char *name;
        std::vector<std::string> pieces;
        int status;
    } cases[] = {
        {"other path", {"GET /report/other.php HTTP/1.1\r\nHost: x\r\n\r\n"}, 404},
        {"post to other path", {"POST /upload HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"}, 404},
        {"get of the upload path", {"GET /report/problem.php HTTP/1.1\r\nHost: x\r\n\r\n"}, 405},
        {"no boundary", {head("Content-Type: multipart/form-data\r\n", good.size()), good}, 400},
        {"not a form", {head("Content-Type: text/plain\r\n", good.size()), good}, 400},
        {"no Content-Length",
         {"POST /report/problem.php HTTP/1.1\r\n" + ct + "Host: x\r\n\r\n" + good},
         400},
        {"Content-Length not a number", {head(ct, 0).replace(70, 1, "1x"), good}, 400},
        {"two Content-Lengths", {head(ct + "Content-Length: 5\r\n", good.size()), good}, 400},
        {"chunked",
         {"POST /report/problem.php HTTP/1.1\r\nTransfer-Encoding: chunked\r\n" + ct +
          "Host: x\r\n\r\n5\r\nhello\r\n0\r\n\r\n"},
         400},
        {"Content-Length too small", {head(ct, good.size() - 10), good}, 400},
        {"no report part",
         {head(ct, form({{"username", "u"}}).size()), form({{"username", "u"}})},
         400},
        {"unknown part",
         {head(ct, form({{"desc", "a"}, {"file", "b"}}).size()),
          form({{"desc", "a"}, {"file", "b"}})},
         400},
        {"part twice",
         {head(ct, form({{"desc", "a"}, {"desc", "b"}}).size()),
          form({{"desc", "a"}, {"desc", "b"}})},
         400},
        {"10,000 parts", {head(ct, manyParts.size()), manyParts}, 400},
        {"over the limit", {head(ct, 2000001), std::string(2000001, 'x')}, 413},
        {"claims 100 MiB", {head(ct, 100u << 20), std::string(1000, 'x')}, 413},
        {"not HTTP", {"\x16\x03\x01 hello\r\n\r\n"}, 400},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto r = reportd::exchange(port, c.pieces);
        EXPECT_EQ(r.status, c.status) << r.raw;
        auto ok = reportd::upload(port, "still here\n");
        EXPECT_EQ(ok.status, 200) << ok.raw;
    }
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), std::to_string(std::size(cases)));
}

TEST_F(Reportd, HalfSentAndTricklingRequestsTimeOut) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--read-timeout", "1", "--request-timeout", "3"});
    std::string body = reportgen::body(std::string("report"), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    // Half the body, then silence: the read gives up after a second.
    auto t0 = std::chrono::steady_clock::now();
    auto r = reportd::exchange(s.port(), {head, body.substr(0, body.size() / 2)}, 20);
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_EQ(r.status, 408) << r.raw;
    EXPECT_LT(took, std::chrono::seconds(5));
    // A byte every half second, each within the read time limit: the whole
    // request still has its deadline, in the body (408) as in the head
    // (closed without an answer, as no request was ever made).
    struct Trickle {
        size_t from; // bytes sent at once before the trickle
        reportd::Response r;
        std::chrono::steady_clock::duration took{};
    } body1{head.size(), {}}, head1{10, {}};
    auto trickle = [&](Trickle &t) {
        auto start = std::chrono::steady_clock::now();
        struct sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(s.port()));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            close(fd);
            return;
        }
        std::string all = head + body, raw;
        send(fd, all.data(), t.from, MSG_NOSIGNAL);
        for (size_t i = t.from; i < all.size(); i++) {
            if (send(fd, &all[i], 1, MSG_NOSIGNAL) != 1)
                break;
            // Half a second between bytes, unless the server has answered.
            struct pollfd pf = {fd, POLLIN, 0};
            if (poll(&pf, 1, 500) > 0)
                break;
        }
        raw += reportd::readAll(fd);
        close(fd);
        t.took = std::chrono::steady_clock::now() - start;
        t.r = reportd::parse(raw);
    };
    std::thread inBody(trickle, std::ref(body1)), inHead(trickle, std::ref(head1));
    // Meanwhile others are served.
    EXPECT_EQ(reportd::upload(s.port(), "meanwhile\n").status, 200);
    inBody.join();
    inHead.join();
    EXPECT_EQ(body1.r.status, 408) << body1.r.raw;
    EXPECT_EQ(head1.r.raw, "");
    for (const auto *t : {&body1, &head1}) {
        EXPECT_GE(t->took, std::chrono::milliseconds(2900));
        EXPECT_LT(t->took, std::chrono::seconds(6));
    }
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "1");
}

TEST_F(Reportd, ViewsAndApiAnswerUnknownReferencesWith404) {
    reportd::Server s(KOBREPORTD_BIN, db);
    reportd::Browser staff = s.signedIn();
    EXPECT_EQ(staff.get("/reports/KOB-20260101-000009").status, 404);
    EXPECT_EQ(s.api("/api/reports/nope").status, 404);
    EXPECT_EQ(s.api("/api/reports/nope/raw").status, 404);
    auto css = reportd::get(s.staffPort(), "/static/style.css");
    EXPECT_EQ(css.status, 200);
    EXPECT_NE(css.raw.find("Content-Type: text/css"), std::string::npos);
}

TEST_F(Reportd, ReportPageEscapesWhatTheReportSays) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto run = reportgen::healthyRun();
    run.username = "<script>alert(1)</script>";
    run.logs["kobvane_stdout.txt"] = "<b>&amp;\xff\n";
    auto ref =
        reportd::reference(reportd::upload(s.port(), reportgen::report(run), "<u>", "<i>x</i>"));
    reportd::Browser staff = s.signedIn();
    auto page = staff.get("/reports/" + ref);
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body.find("<script>"), std::string::npos);
    EXPECT_NE(page.body.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(page.body.find("&lt;b&gt;&amp;amp;\xef\xbf\xbd"), std::string::npos);
    EXPECT_NE(page.body.find("<pre id=\"why\">&lt;i&gt;x&lt;/i&gt;</pre>"), std::string::npos)
        << page.raw.substr(0, 3000);
}

TEST(ReportdCommandLine, BadArgumentsAndUnusableDatabaseExitOne) {
    kobtest::TempDir dir;
    for (auto args : std::vector<std::vector<std::string>>{
             {KOBREPORTD_BIN},
             {KOBREPORTD_BIN, "--listen", "127.0.0.1:0"},
             {KOBREPORTD_BIN, "--listen", "127.0.0.1", "--db", dir.file("d")},
             {KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db", dir.file("d"), "--max-body", "-5"},
             {KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db", dir.file("d"), "--bogus", "1"}}) {
        auto r = kobtest::runProgram(args);
        EXPECT_TRUE(r.exited(1));
        EXPECT_EQ(r.err.rfind("usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL", 0), 0u);
    }
    auto r = kobtest::runProgram(
        {KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db", dir.file("no/such/dir/r.db")});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err.rfind("kobreportd: cannot open " + dir.file("no/such/dir/r.db"), 0), 0u)
        << r.err;
}

// Under the sanitizers a finding ends up on the server's standard error; a
// busy server must leave it empty and stop cleanly on SIGTERM.
TEST_F(Reportd, BusyServerStopsCleanlyWithNothingOnStandardError) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--threads", "8"});
    reportd::Browser staff = s.signedIn();
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; t++) {
        threads.emplace_back([&, t] {
            reportd::Browser mine = staff;
            for (int i = 0; i < 8; i++) {
                auto run = reportgen::healthyRun();
                run.username = "u" + std::to_string(t);
                auto ref = reportd::reference(reportd::upload(s.port(), reportgen::report(run)));
                mine.get("/reports/" + ref);
                s.api("/api/reports?q=u" + std::to_string(t));
                reportd::exchange(s.port(), {"POST /report/problem.php HTTP/1.1\r\n"
                                             "Content-Length: 5\r\n\r\nhello"});
            }
        });
    }
    for (auto &t : threads)
        t.join();
    int st = s.stop();
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    EXPECT_EQ(reportd::unusualLines(s.errors()), "");
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "48");
}

// A client that waits for "100 Continue" before it sends the body gets it
// at once, although answers are otherwise sent whole.
TEST_F(Reportd, ExpectContinueIsAnsweredBeforeTheBody) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string body = reportgen::body(std::string("report\n"), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    head.insert(head.size() - 2, "Expect: 100-continue\r\n");
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(s.port()));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(send(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
    struct pollfd pf = {fd, POLLIN, 0};
    ASSERT_EQ(poll(&pf, 1, 5000), 1);
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_EQ(send(fd, body.data(), body.size(), 0), static_cast<ssize_t>(body.size()));
    std::string raw = reportd::readAll(fd);
    close(fd);
    auto answer = reportd::parse(raw);
    EXPECT_GE(reportd::referenceNumber(reportd::reference(answer), reportd::utcToday()), 0) << raw;
}

// A burst of simultaneous uploads, far more than the workers: every one is
// queued for a worker and answered, none is turned away at the door while
// the in-flight limit allows them (they all come from one address here, so
// its connection cap is raised too).
TEST_F(Reportd, ABurstOfUploadsIsAllAnsweredWithUniqueReferences) {
    reportd::Server s(
        KOBREPORTD_BIN, db,
        {"--threads", "4", "--max-inflight", "200", "--max-conns-per-address", "200"});
    constexpr int kClients = 150;
    std::vector<std::string> refs(kClients);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; i++)
        threads.emplace_back([&, i] {
            refs[i] = reportd::reference(reportd::upload(s.port(), "burst " + std::to_string(i)));
        });
    for (auto &t : threads)
        t.join();
    std::set<std::string> unique(refs.begin(), refs.end());
    EXPECT_EQ(unique.count(""), 0u);
    EXPECT_EQ(unique.size(), static_cast<size_t>(kClients));
    EXPECT_EQ(sqlValue(db, "SELECT count(DISTINCT desc) FROM reports"), std::to_string(kClients));
}

// Every byte value, in a text that does not repeat with a short period, so
// that a piece stored out of place or twice shows.
std::string binaryReport(size_t size, unsigned seed) {
    std::string s(size, '\0');
    unsigned x = seed * 2654435761u + 7;
    for (size_t i = 0; i < size; i++) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>((x >> 16) & 0xff);
    }
    return s;
}

// Reports large and small, sent together, each under its own reference:
// the large ones reach the database in pieces, and uploads that arrive
// together are committed together.
TEST_F(Reportd, ReportsSentTogetherAreStoredWholeEachUnderItsOwnReference) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-body", "20000000"});
    const std::vector<size_t> sizes = {1,    300u << 10, 7,      (5u << 20) + 3,
                                       4096, 262144,     262145, (1u << 20) - 1};
    std::vector<std::string> descs;
    for (size_t i = 0; i < sizes.size(); i++)
        descs.push_back(binaryReport(sizes[i], static_cast<unsigned>(i)));
    std::vector<std::string> refs = reportd::uploadTogether(s.port(), descs);
    std::set<std::string> unique(refs.begin(), refs.end());
    EXPECT_EQ(unique.size(), sizes.size());
    for (size_t i = 0; i < sizes.size(); i++) {
        SCOPED_TRACE(sizes[i]);
        ASSERT_FALSE(refs[i].empty());
        auto raw = s.api("/api/reports/" + refs[i] + "/raw?reveal=1");
        EXPECT_EQ(raw.status, 200);
        EXPECT_TRUE(raw.body == descs[i]) << raw.body.size();
        EXPECT_EQ(sqlValue(db, "SELECT size FROM reports WHERE reference = '" + refs[i] + "'"),
                  std::to_string(sizes[i]));
    }
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), std::to_string(sizes.size()));
}

// A number once given is never given again, not even after the newest
// report was deleted and the server restarted.
TEST_F(Reportd, TheNumberOfADeletedReportIsNotGivenAgain) {
    std::vector<long long> numbers;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        for (const char *text : {"one\n", "two\n", "three\n"}) {
            std::string ref = reportd::reference(reportd::upload(s.port(), text));
            numbers.push_back(reportd::referenceNumber(ref, reportd::utcToday()));
            // The newest is deleted each time.
            if (numbers.size() > 1) {
                EXPECT_EQ(s.api("/api/reports/" + ref, "DELETE").status, 200);
            }
        }
        EXPECT_EQ(s.stop(), 0);
    }
    reportd::Server s(KOBREPORTD_BIN, db);
    numbers.push_back(reportd::referenceNumber(
        reportd::reference(reportd::upload(s.port(), "four\n")), reportd::utcToday()));
    EXPECT_GE(numbers[0], 0);
    for (size_t i = 1; i < numbers.size(); i++)
        EXPECT_GT(numbers[i], numbers[i - 1]);
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "2");
}

// A client that stops sending in the middle of a large report, or goes
// away, leaves nothing stored, and the server goes on.
TEST_F(Reportd, ALargeReportCutOffMidBodyIsNotStored) {
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--read-timeout", "1", "--request-timeout", "30", "--max-body", "20000000"});
    std::string body = reportgen::body(binaryReport(3u << 20, 1), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    // Silent after two thirds: the read time limit ends it.
    auto r = reportd::exchange(s.port(), {head, body.substr(0, body.size() * 2 / 3)}, 20);
    EXPECT_EQ(r.status, 408) << r.raw;
    // Gone after two thirds: the end of the stream ends it at once.
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(s.port()));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    std::string part = head + body.substr(0, body.size() * 2 / 3);
    for (size_t off = 0; off < part.size();) {
        ssize_t n = send(fd, part.data() + off, part.size() - off, MSG_NOSIGNAL);
        ASSERT_GT(n, 0);
        off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    std::string raw = reportd::readAll(fd);
    close(fd);
    EXPECT_EQ(reportd::parse(raw).status, 400) << raw;
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "0");
    EXPECT_EQ(reportd::upload(s.port(), "after\n").status, 200);
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "1");
}

TEST_F(Reportd, UploadsPerAddressAreLimitedAndAnswered429WithRetryAfter) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--rate", "3"});
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(reportd::upload(s.port(), "burst\n").status, 200) << i;
    auto refused = reportd::upload(s.port(), "one too many\n");
    EXPECT_EQ(refused.status, 429);
    EXPECT_EQ(reportd::header(refused, "Retry-After"), "20");
    EXPECT_EQ(refused.body, "Too many reports from this address, please wait\n");
    // Another address has its own allowance, and health checks are not counted.
    EXPECT_EQ(reportd::uploadFrom("127.0.0.2", s.port(), "elsewhere\n").status, 200);
    EXPECT_EQ(reportd::get(s.port(), "/healthz").status, 200);
    EXPECT_EQ(sqlValue(db, "SELECT count(*) FROM reports"), "4");
}

TEST_F(Reportd, UploadsBeyondTheInFlightLimitAreAnswered503) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--threads", "8", "--max-inflight", "2"});
    std::string body = reportgen::body(std::string("slow report\n"), std::nullopt, std::nullopt);
    std::string head = reportgen::head("h", body.size());
    head.insert(head.size() - 2, "Expect: 100-continue\r\n");
    // Two uploads whose bodies have not arrived yet.
    std::vector<int> slow;
    for (int i = 0; i < 2; i++) {
        struct sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(s.port()));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        ASSERT_EQ(send(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
        // The interim answer comes just before the upload is counted.
        struct pollfd pf = {fd, POLLIN, 0};
        ASSERT_EQ(poll(&pf, 1, 5000), 1);
        char buf[256];
        ASSERT_GT(recv(fd, buf, sizeof buf, 0), 0);
        slow.push_back(fd);
    }
    reportd::Response busy;
    for (int i = 0; i < 50 && busy.status != 503; i++)
        busy = reportd::upload(s.port(), "third\n");
    EXPECT_EQ(busy.status, 503);
    EXPECT_EQ(reportd::header(busy, "Retry-After"), "10");
    EXPECT_EQ(busy.body, "Too busy, please send the report again shortly\n");
    // The two finish, and the door opens again.
    for (int fd : slow) {
        ASSERT_EQ(send(fd, body.data(), body.size(), 0), static_cast<ssize_t>(body.size()));
        std::string raw = reportd::readAll(fd);
        close(fd);
        EXPECT_EQ(reportd::parse(raw).status, 200) << raw;
    }
    EXPECT_EQ(reportd::upload(s.port(), "fourth\n").status, 200);
}

TEST_F(Reportd, WithoutAStaffListenerThereIsNoStaffSideAtAll) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, false);
    for (const char *path : {"/", "/signin", "/api/reports", "/static/style.css", "/audit"})
        EXPECT_EQ(reportd::get(s.port(), path).status, 404) << path;
    EXPECT_EQ(reportd::get(s.port(), "/healthz").body, "ok");
}

TEST_F(Reportd, AccountsAreMadeFromTheCommandLineWithThePasswordOnStandardInput) {
    auto add =
        reportd::command(KOBREPORTD_BIN, {"user", "add", "lena", "--role", "admin", "--db", db},
                         "a password of lena\n");
    EXPECT_EQ(add.status, 0) << add.err;
    EXPECT_EQ(add.out, "");
    EXPECT_EQ(add.err, "");
    auto again =
        reportd::command(KOBREPORTD_BIN, {"user", "add", "lena", "--role", "viewer", "--db", db},
                         "another password\n");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "kobreportd: user lena exists already\n");
    auto shortPw = reportd::command(
        KOBREPORTD_BIN, {"user", "add", "mike", "--role", "viewer", "--db", db}, "short\n");
    EXPECT_EQ(shortPw.status, 1);
    EXPECT_EQ(shortPw.err, "kobreportd: a password needs 12 or more characters\n");
    EXPECT_EQ(reportd::command(KOBREPORTD_BIN, {"user", "add", "mike", "--db", db}).status, 1);
    auto badName =
        reportd::command(KOBREPORTD_BIN, {"user", "add", "<b>", "--role", "viewer", "--db", db},
                         "a long enough password\n");
    EXPECT_EQ(badName.err, "kobreportd: a name is 1 to 64 letters, digits, '.', '_', '-' or '@'\n");
    // A token is printed once and kept only as a hash.
    auto tok = reportd::command(KOBREPORTD_BIN, {"token", "add", "grafana", "--db", db});
    EXPECT_EQ(tok.status, 0);
    ASSERT_EQ(tok.out.size(), 4u + 16 + 1 + 64 + 1) << tok.out;
    EXPECT_EQ(tok.out.rfind("kob_", 0), 0u);
    std::string token = tok.out.substr(0, tok.out.size() - 1);
    std::string file = kobtest::readFile(db) +
                       (kobtest::fileExists(db + "-wal") ? kobtest::readFile(db + "-wal") : "");
    EXPECT_EQ(file.find(token.substr(21)), std::string::npos);
    EXPECT_EQ(file.find("a password of lena"), std::string::npos);
    auto users = reportd::command(KOBREPORTD_BIN, {"user", "list", "--db", db});
    EXPECT_EQ(users.out, "lena\tadmin\n");
    auto tokens = reportd::command(KOBREPORTD_BIN, {"token", "list", "--db", db});
    EXPECT_EQ(tokens.out, "grafana\tviewer\n");
    EXPECT_EQ(reportd::command(KOBREPORTD_BIN, {"token", "del", "grafana", "--db", db}).status, 0);
    auto gone = reportd::command(KOBREPORTD_BIN, {"token", "del", "grafana", "--db", db});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "kobreportd: no token grafana\n");
    // A password never comes from the command line.
    auto onLine = reportd::command(
        KOBREPORTD_BIN, {"user", "add", "nina", "--role", "viewer", "--password", "x", "--db", db});
    EXPECT_EQ(onLine.status, 1);
    EXPECT_EQ(onLine.err.rfind("usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL", 0), 0u);
    EXPECT_EQ(
        sqlValue(db,
                 "SELECT group_concat(action, ' ') FROM (SELECT action FROM audit ORDER BY id)"),
        "user.added token.added token.deleted");
}

TEST_F(Reportd, TheStaffListenerSpeaksTlsWithTheOperatorsCertificate) {
    std::string cert = dir.file("cert.pem"), key = dir.file("key.pem");
    auto made = kobtest::runProgram({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048",
                                     "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj",
                                     "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
    ASSERT_TRUE(made.exited(0)) << made.err;
    reportd::Server s(KOBREPORTD_BIN, db, {"--tls-cert", cert, "--tls-key", key});
    EXPECT_EQ(s.readyLine(), "kobreportd: intake on http://127.0.0.1:" + std::to_string(s.port()) +
                                 "/; staff on https://127.0.0.1:" + std::to_string(s.staffPort()) +
                                 "/\n");
    // The intake stays plain HTTP, as kobdiag speaks it.
    std::string ref = reportd::reference(reportd::upload(s.port(), "over plain HTTP\n"));
    ASSERT_FALSE(ref.empty());
    ASSERT_EQ(s.addUser("olga", "viewer", "password of olga").status, 0);

    httplib::SSLClient c("127.0.0.1", s.staffPort());
    c.set_ca_cert_path(cert.c_str());
    c.enable_server_certificate_verification(true);
    auto signin = c.Get("/signin");
    ASSERT_TRUE(signin) << httplib::to_string(signin.error());
    EXPECT_EQ(signin->status, 200);
    EXPECT_EQ(signin->get_header_value("Strict-Transport-Security"), "max-age=31536000");
    std::string pre = signin->get_header_value("Set-Cookie");
    ASSERT_NE(pre.find("; HttpOnly; SameSite=Strict; Path=/; Secure; Max-Age=3600"),
              std::string::npos)
        << pre;
    std::string csrfAt = "name=\"csrf\" value=\"";
    auto at = signin->body.find(csrfAt) + csrfAt.size();
    std::string csrf = signin->body.substr(at, 64);
    httplib::Headers h = {{"Cookie", pre.substr(0, pre.find(';'))}};
    auto r = c.Post("/signin", h,
                    reportd::formEncode({{"csrf", csrf},
                                         {"name", "olga"},
                                         {"password", "password of olga"},
                                         {"next", "/reports/" + ref}}),
                    "application/x-www-form-urlencoded");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 303);
    EXPECT_EQ(r->get_header_value("Location"), "/reports/" + ref);
    std::string session;
    for (size_t i = 0; i < r->get_header_value_count("Set-Cookie"); i++) {
        std::string v = r->get_header_value("Set-Cookie", i);
        if (v.rfind("kob_session=", 0) == 0)
            session = v;
    }
    EXPECT_EQ(session.size(), std::string("kob_session=").size() + 64 +
                                  std::string("; HttpOnly; SameSite=Strict; Path=/; Secure").size())
        << session;
    EXPECT_NE(session.find("; Secure"), std::string::npos);
    auto page =
        c.Get(("/reports/" + ref).c_str(), {{"Cookie", session.substr(0, session.find(';'))}});
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("over plain HTTP"), std::string::npos);
    // Plain HTTP to the staff port gets no page.
    EXPECT_FALSE(reportd::get(s.staffPort(), "/signin").status == 200);
    // A key that does not go with the certificate stops the start.
    kobtest::writeFile(dir.file("bad.pem"), "not a key\n");
    auto bad = kobtest::runProgram({KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--staff-listen",
                                    "127.0.0.1:0", "--db", db, "--tls-cert", cert, "--tls-key",
                                    dir.file("bad.pem")});
    EXPECT_TRUE(bad.exited(1));
    EXPECT_EQ(bad.err, "kobreportd: cannot use the certificate " + cert + " with the key " +
                           dir.file("bad.pem") + "\n");
}

TEST(ReportdVersion, VersionNamesTheReleaseAndTheLayout) {
    auto r = kobtest::runProgram({KOBREPORTD_BIN, "--version"});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "kobreportd " KOB_VERSION " (database layout 14)\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(Reportd, MetricsFollowPrometheusConventions) {
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(reportd::upload(s.port(), "one\n").status, 200);
    EXPECT_EQ(reportd::get(s.port(), "/healthz").status, 200);
    EXPECT_EQ(reportd::get(s.port(), "/nowhere").status, 404);
    auto m = s.api("/metrics");
    ASSERT_EQ(m.status, 200);
    for (const std::string line : {
             // Bucket bounds as short decimals, so that le="0.005" matches.
             "kobreportd_upload_duration_seconds_bucket{le=\"0.005\"} ",
             "kobreportd_upload_duration_seconds_bucket{le=\"0.0025\"} ",
             "\nkobreportd_build_info{version=\"" KOB_VERSION "\",layout=\"14\"} 1\n",
             "\nkobreportd_uploads_in_flight 0\n",
             "\nkobreportd_http_requests_total{listener=\"intake\",route=\"/"
             "healthz\",code=\"200\"} "
             "1\n",
             "\nkobreportd_http_requests_total{listener=\"intake\",route=\"/report/problem.php\","
             "code=\"200\"} 1\n",
             "\nkobreportd_http_requests_total{listener=\"intake\",route=\"\",code=\"404\"} 1\n",
             "\nkobreportd_http_request_duration_seconds_count{listener=\"intake\"} 3\n",
             "\nkobreportd_retention_expired_reports_total 0\n",
         })
        EXPECT_NE(m.body.find(line), std::string::npos) << line << m.body;
    EXPECT_EQ(m.body.find("0000000"), std::string::npos) << m.body;
    auto value = [](const std::string &body, const std::string &name) {
        auto at = body.find("\n" + name + " ");
        return at == std::string::npos
                   ? std::string("<none>")
                   : body.substr(at + name.size() + 2,
                                 body.find('\n', at + 1) - at - name.size() - 2);
    };
    // The first pass of retention ran at the start.
    EXPECT_GT(std::atof(value(m.body, "kobreportd_retention_last_run_timestamp_seconds").c_str()),
              1.7e9);
    EXPECT_GT(std::atof(value(m.body, "kobreportd_database_size_bytes").c_str()), 0);
    // The start time is the same at every scrape.
    std::string start = value(m.body, "process_start_time_seconds");
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(value(s.api("/metrics").body, "process_start_time_seconds"), start);
}

TEST_F(Reportd, MetricsCountUploadsAndPassPromtool) {
    if (access("/usr/bin/promtool", X_OK) != 0)
        GTEST_SKIP() << "promtool is not installed (Debian package prometheus)";
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(reportd::upload(s.port(), "one\n").status, 200);
    EXPECT_EQ(reportd::upload(s.port(), std::string(1000, 'x')).status, 200);
    EXPECT_EQ(reportd::exchange(s.port(), {"POST /report/problem.php HTTP/1.1\r\n"
                                           "Content-Length: 5\r\n\r\nhello"})
                  .status,
              400);
    EXPECT_EQ(reportd::get(s.port(), "/healthz").status, 200);
    auto m = s.api("/metrics");
    ASSERT_EQ(m.status, 200);
    EXPECT_EQ(reportd::header(m, "Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    for (const std::string line : {
             "kobreportd_uploads_total{code=\"200\"} 2\n",
             "kobreportd_uploads_total{code=\"400\"} 1\n",
             "kobreportd_uploads_total{code=\"429\"} 0\n",
             "kobreportd_reports_stored_total 2\n",
             "kobreportd_upload_duration_seconds_count 3\n",
             "kobreportd_upload_duration_seconds_bucket{le=\"+Inf\"} 3\n",
             "kobreportd_triage_duration_seconds_count 2\n",
             "# TYPE process_resident_memory_bytes gauge\n",
             "# TYPE kobreportd_database_query_duration_seconds histogram\n",
             "kobreportd_database_query_duration_seconds_bucket{le=\"0.0005\"} ",
             "kobreportd_database_errors_total 0\n",
             "# TYPE kobreportd_database_wal_bytes gauge\n",
         })
        EXPECT_NE(m.body.find(line), std::string::npos) << line << m.body;
    // The bodies' bytes, as their Content-Length said.
    auto bytesAt = m.body.find("\nkobreportd_upload_received_bytes_total ");
    ASSERT_NE(bytesAt, std::string::npos);
    EXPECT_GT(std::atoll(m.body.c_str() + bytesAt + 40), 1000);
    kobtest::writeFile(dir.file("metrics.txt"), m.body);
    auto check = kobtest::runProgram(
        {"/bin/sh", "-c", "/usr/bin/promtool check metrics < " + dir.file("metrics.txt")});
    EXPECT_TRUE(check.exited(0)) << check.out << check.err;
    EXPECT_EQ(check.out + check.err, "");
    // Not without a token, and not on the intake.
    EXPECT_EQ(reportd::get(s.staffPort(), "/metrics").status, 401);
    EXPECT_EQ(reportd::get(s.port(), "/metrics").status, 404);
}
