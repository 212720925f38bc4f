// kobreportd's database as the operator watches it: the time its reads and
// transactions take and the ones it fails, on either store, and on SQLite
// the write-ahead log's size, which stays bounded under a stream of uploads.

#include "kobtest.h"
#include "reportd.h"
#include "store_fixture.h"

#include <gtest/gtest.h>
#include <random>
#include <sqlite3.h>
#include <sys/stat.h>

namespace {

class Database : public OnEitherStore {};

// The value of an unlabelled sample, or "<none>".
std::string metric(const std::string &body, const std::string &name) {
    auto at = body.find("\n" + name + " ");
    if (at == std::string::npos)
        return "<none>";
    at += name.size() + 2;
    return body.substr(at, body.find('\n', at) - at);
}

double number(const std::string &body, const std::string &name) {
    return std::atof(metric(body, name).c_str());
}

long long fileSize(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Database, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Database, QueriesAreTimedAndTheFailedOnesCounted) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto before = s.api("/metrics").body;
    for (const std::string line : {
             "# TYPE kobreportd_database_query_duration_seconds histogram\n",
             "\nkobreportd_database_query_duration_seconds_bucket{le=\"0.0005\"} ",
             "\nkobreportd_database_query_duration_seconds_bucket{le=\"2.5\"} ",
             "\nkobreportd_database_query_duration_seconds_bucket{le=\"+Inf\"} ",
             "# TYPE kobreportd_database_errors_total counter\n",
         })
        EXPECT_NE(before.find(line), std::string::npos) << line << before;
    EXPECT_EQ(metric(before, "kobreportd_database_errors_total"), "0");
    double calls = number(before, "kobreportd_database_query_duration_seconds_count");

    // An upload is at least one transaction more, and the scrape's own
    // token check a read.
    ASSERT_EQ(reportd::upload(s.port(), "one\n").status, 200);
    auto after = s.api("/metrics").body;
    EXPECT_GE(number(after, "kobreportd_database_query_duration_seconds_count"), calls + 2);
    EXPECT_GT(number(after, "kobreportd_database_query_duration_seconds_sum"),
              number(before, "kobreportd_database_query_duration_seconds_sum"));
    EXPECT_EQ(metric(after, "kobreportd_database_errors_total"), "0");

    // The table taken away under the running server: its statements fail.
    EXPECT_EQ(value("ALTER TABLE reports RENAME TO reports_away"), "<none>");
    EXPECT_EQ(s.api("/api/reports").status, 500);
    EXPECT_NE(reportd::upload(s.port(), "two\n").status, 200);
    auto failed = s.api("/metrics").body;
    EXPECT_GE(number(failed, "kobreportd_database_errors_total"), 2) << failed;
    EXPECT_GT(number(failed, "kobreportd_database_query_duration_seconds_count"),
              number(after, "kobreportd_database_query_duration_seconds_count"));
    value("ALTER TABLE reports_away RENAME TO reports");
    // Logged as one JSON line each, naming no client.
    auto notStored = reportd::logEvents(s.errors(), "report_not_stored");
    ASSERT_EQ(notStored.size(), 1u) << s.errors();
    EXPECT_EQ(notStored[0]["level"], "error");
    EXPECT_EQ(notStored[0].dump().find("127.0.0.1"), std::string::npos);
    auto failedRequest = reportd::logEvents(s.errors(), "request_failed");
    ASSERT_FALSE(failedRequest.empty());
    EXPECT_EQ(failedRequest[0]["route"], "/api/reports");
}

TEST_P(Database, OnlySqlitesLogHasItsSizeShown) {
    reportd::Server s(KOBREPORTD_BIN, db);
    ASSERT_EQ(reportd::upload(s.port(), "one\n").status, 200);
    auto m = s.api("/metrics").body;
    if (GetParam() == "postgres") {
        EXPECT_EQ(m.find("kobreportd_database_wal_bytes"), std::string::npos) << m;
        return;
    }
    EXPECT_NE(m.find("# TYPE kobreportd_database_wal_bytes gauge\n"), std::string::npos) << m;
    // The upload's commit is in the log until a checkpoint folds it back,
    // which waits for megabytes of them.
    EXPECT_EQ(metric(m, "kobreportd_database_wal_bytes"), std::to_string(fileSize(db + "-wal")));
    EXPECT_GT(fileSize(db + "-wal"), 0);
}

// Uploads one after another leave the writer no pause for its checkpoints:
// the log must still be folded back and cut back to its bound while they
// come, not only at the stop.  100 reports of a MiB that hardly compress
// put well over the bound through the log.
TEST(DatabaseLog, StaysWithinItsBoundUnderAStreamOfUploads) {
    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
    reportd::Server s(KOBREPORTD_BIN, db);
    std::mt19937 random(7);
    const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+/";
    std::string desc(size_t{1} << 20, ' ');
    for (char &c : desc)
        c = digits[random() % 64];
    constexpr long long kBound = 64ll << 20;
    long long largest = 0;
    for (int i = 0; i < 100; i++) {
        desc.replace(0, 8, std::to_string(10000000 + i));
        ASSERT_EQ(reportd::upload(s.port(), desc).status, 200) << i;
        largest = std::max(largest, fileSize(db + "-wal"));
    }
    EXPECT_GT(largest, 0);
    EXPECT_LE(largest, kBound);
    EXPECT_EQ(s.stop(), 0) << s.errors();
}

// Pages are sized when a file is made; one made with large pages keeps
// them (a change is a rewrite of the whole file, the operator's to choose),
// and the log says what they cost and how to change them.
TEST(DatabaseLog, AFileWithLargePagesKeepsThemAndTheLogSaysSo) {
    kobtest::TempDir dir;
    std::string old = dir.file("old.db");
    sqlite3 *h = nullptr;
    ASSERT_EQ(sqlite3_open(old.c_str(), &h), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(h, "PRAGMA page_size=65536; PRAGMA journal_mode=WAL", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(h);
    reportd::Server s(KOBREPORTD_BIN, old);
    EXPECT_EQ(reportd::upload(s.port(), "one\n").status, 200);
    EXPECT_EQ(s.stop(), 0);
    EXPECT_EQ(reportd::sqliteValue(old, "PRAGMA page_size"), "65536");
    EXPECT_NE(s.errors().find("\"event\":\"database_large_pages\""), std::string::npos)
        << s.errors();
    EXPECT_NE(s.errors().find("\"page_size\":65536,\"page_size_of_new_files\":4096"),
              std::string::npos)
        << s.errors();

    reportd::Server made(KOBREPORTD_BIN, dir.file("new.db"));
    EXPECT_EQ(made.stop(), 0);
    EXPECT_EQ(reportd::sqliteValue(dir.file("new.db"), "PRAGMA page_size"), "4096");
    EXPECT_EQ(made.errors().find("database_large_pages"), std::string::npos) << made.errors();
}
