// kobreportd's backups and upgrades: a copy of a live SQLite database,
// references that stay unique across a restore from an older copy, and a
// database whose layout is older or newer than the server's.

#include "kobtest.h"
#include "reportd.h"
#include "store_fixture.h"

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>

namespace {

struct Backup : ::testing::Test {
    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
    std::string copy = dir.file("copy.db");
};

int modeOf(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

} // namespace

TEST_F(Backup, ACopyOfTheLiveDatabaseHoldsItsReportsIsPrivateAndWhole) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::vector<std::string> refs;
    for (int i = 0; i < 3; i++)
        refs.push_back(
            reportd::reference(reportd::upload(s.port(), "report " + std::to_string(i))));
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", copy});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "kobreportd: backed up 3 reports to " + copy + "\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(modeOf(copy), 0600);
    EXPECT_EQ(reportd::sqliteValue(copy, "PRAGMA integrity_check"), "ok");
    for (const auto &ref : refs)
        EXPECT_EQ(reportd::sqliteValue(copy, "SELECT count(*) FROM reports WHERE reference = '" +
                                                 ref + "'"),
                  "1");
    // The server went on serving.
    EXPECT_FALSE(reportd::reference(reportd::upload(s.port(), "after the backup")).empty());
}

TEST_F(Backup, AnExistingFileIsNotOverwritten) {
    reportd::Server s(KOBREPORTD_BIN, db);
    reportd::upload(s.port(), "one");
    kobtest::writeFile(copy, "keep me");
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", copy});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "kobreportd: backup failed: cannot write " + copy + ": it exists already\n");
    EXPECT_EQ(kobtest::readFile(copy), "keep me");
}

TEST_F(Backup, NoDatabaseNoCopy) {
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", copy});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: no database at " + db + "\n");
    EXPECT_FALSE(kobtest::fileExists(db));
    EXPECT_FALSE(kobtest::fileExists(copy));
}

TEST_F(Backup, ACopyThatCannotBeWrittenLeavesNothingBehind) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string elsewhere = dir.file("missing/copy.db");
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", elsewhere});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: backup failed: cannot write " + elsewhere +
                         ": No such file or directory\n");
}

TEST(BackupCommandLine, PostgreSqlIsBackedUpWithItsOwnTools) {
    kobtest::TempDir dir;
    auto r = reportd::command(
        KOBREPORTD_BIN, {"backup", "--db", "postgresql://127.0.0.1/kob", "--to", dir.file("copy")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: backup copies an SQLite file; back up PostgreSQL with pg_dump "
                     "-Fc and restore it with pg_restore (see kobreportd(8))\n");
    EXPECT_FALSE(kobtest::fileExists(dir.file("copy")));
}

TEST(BackupCommandLine, TheCopyNeedsATarget) {
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", "x.db"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("\n       kobreportd backup --db PATH --to FILE\n"), std::string::npos);
    r = reportd::command(KOBREPORTD_BIN,
                         {"purge", "--older-than", "3", "--db", "x.db", "--to", "y"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("usage: kobreportd", 0), 0u);
}

namespace {

// The operator's backup and restore for each store, as the manual page
// gives them.
class Restore : public OnEitherStore {
  protected:
    bool pg() const { return GetParam() == "postgres"; }
    std::string name() const { return db.substr(db.rfind('/') + 1); }

    reportd::Command backUp(const std::string &to) {
        if (!pg())
            return reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", to});
        return reportd::command(reportd::sharedPostgres().program("pg_dump"),
                                {"-Fc", "-f", to, "-d", db});
    }

    // With the server stopped.
    void restore(const std::string &from) {
        if (!pg()) {
            for (const char *side : {"", "-wal", "-shm"})
                std::filesystem::remove(db + side);
            std::filesystem::copy_file(from, db);
            std::filesystem::permissions(db, std::filesystem::perms::owner_read |
                                                 std::filesystem::perms::owner_write);
            return;
        }
        auto &server = reportd::sharedPostgres();
        server.psql("DROP DATABASE " + name());
        server.psql("CREATE DATABASE " + name());
        auto r = reportd::command(server.program("pg_restore"), {"-d", db, from});
        ASSERT_EQ(r.status, 0) << r.err;
    }
};

} // namespace

// Users keep the references they were given after the backup was taken;
// the restored server must never give one of them again.
TEST_P(Restore, ARestoredOlderCopyNeverGivesAReferenceAgain) {
    std::string copy = dir.file("copy");
    std::vector<std::string> given;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        given.push_back(reportd::reference(reportd::upload(s.port(), "before the backup\n")));
        auto b = backUp(copy);
        ASSERT_EQ(b.status, 0) << b.err;
        for (int i = 0; i < 3; i++)
            given.push_back(reportd::reference(reportd::upload(s.port(), "after the backup\n")));
        EXPECT_EQ(s.stop(), 0);
    }
    restore(copy);
    EXPECT_EQ(value("SELECT count(*) FROM reports"), "1");
    reportd::Server s(KOBREPORTD_BIN, db);
    for (int i = 0; i < 3; i++) {
        std::string ref = reportd::reference(reportd::upload(s.port(), "after the restore\n"));
        SCOPED_TRACE(ref);
        for (const auto &old : given) {
            EXPECT_NE(ref, old);
            EXPECT_GT(reportd::referenceNumber(ref, reportd::utcToday()),
                      reportd::referenceNumber(old, reportd::utcToday()));
        }
        given.push_back(ref);
    }
    EXPECT_EQ(value("SELECT count(*) FROM reports"), "4");
}

INSTANTIATE_TEST_SUITE_P(Stores, Restore, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

// The layout this kobreportd writes (kobreportd --version names it).
constexpr int kLayout = 14;

// Before a file of an older layout is migrated, a copy of it as it was is
// left beside it; a new file has nothing to copy.
TEST_F(Backup, AFileOfAnOlderLayoutIsCopiedBesideItBeforeItIsMigrated) {
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        reportd::upload(s.port(), "kept\n");
        EXPECT_EQ(s.stop(), 0);
        EXPECT_EQ(s.errors().find("migration_backup"), std::string::npos) << s.errors();
    }
    std::string copy = db + ".layout8-backup";
    EXPECT_FALSE(kobtest::fileExists(db + ".layout" + std::to_string(kLayout) + "-backup"));
    EXPECT_FALSE(kobtest::fileExists(db + ".layout0-backup"));
    // The layout before: without the day's reference numbers.
    reportd::sqliteValue(db, "DROP TABLE reference_days");
    reportd::sqliteValue(db, "UPDATE kob_meta SET value = '8' WHERE key = 'schema'");
    // Any use of the database migrates it: here a command's.
    auto migrated = reportd::command(KOBREPORTD_BIN, {"user", "list", "--db", db});
    EXPECT_EQ(migrated.status, 0);
    EXPECT_EQ(migrated.err.rfind("{\"time\":\"", 0), 0u) << migrated.err;
    EXPECT_EQ(migrated.err.substr(migrated.err.find("\"level\"")),
              "\"level\":\"info\",\"event\":\"migration_backup\",\"from\":8,\"to\":14,\"path\":\"" +
                  copy + "\"}\n");
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        EXPECT_FALSE(reportd::reference(reportd::upload(s.port(), "after\n")).empty());
        EXPECT_EQ(s.stop(), 0);
    }
    EXPECT_EQ(modeOf(copy), 0600);
    EXPECT_EQ(reportd::sqliteValue(copy, "SELECT value FROM kob_meta WHERE key = 'schema'"), "8");
    EXPECT_EQ(reportd::sqliteValue(copy, "SELECT count(*) FROM reports"), "1");
    EXPECT_EQ(reportd::sqliteValue(copy, "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT value FROM kob_meta WHERE key = 'schema'"),
              std::to_string(kLayout));
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT count(*) FROM reports"), "2");

    // Put back, and migrated again: the first copy is not overwritten.
    reportd::sqliteValue(db, "DROP TABLE reference_days");
    reportd::sqliteValue(db, "UPDATE kob_meta SET value = '8' WHERE key = 'schema'");
    auto r = reportd::command(KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db", db});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: not migrating the database to layout 14: cannot write " + copy +
                         ": it exists already\n");
    EXPECT_EQ(reportd::sqliteValue(copy, "SELECT count(*) FROM reports"), "1");
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT value FROM kob_meta WHERE key = 'schema'"), "8");
}

namespace {

class Layout : public OnEitherStore {};

} // namespace

// A database a newer kobreportd has migrated is not opened at all.
TEST_P(Layout, ADatabaseOfANewerLayoutIsRefusedAtStart) {
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        EXPECT_EQ(s.stop(), 0);
    }
    value("UPDATE kob_meta SET value = '" + std::to_string(kLayout + 1) + "' WHERE key = 'schema'");
    auto r = reportd::command(KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db", db});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "kobreportd: the database was written by a newer kobreportd (layout 15, this "
                     "one knows up to 14)\n");
    r = reportd::command(KOBREPORTD_BIN, {"user", "list", "--db", db});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: the database was written by a newer kobreportd (layout 15, this "
                     "one knows up to 14)\n");
}

// Another instance migrated the shared database under a running one: the
// running one stops serving rows it cannot read, says why, and logs it once.
TEST_P(Layout, ARunningServerStopsServingWhenANewerOneMigratesTheDatabase) {
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(reportd::upload(s.port(), "before\n").status, 200);
    EXPECT_EQ(s.api("/api/reports").status, 200);
    value("UPDATE kob_meta SET value = '" + std::to_string(kLayout + 1) + "' WHERE key = 'schema'");
    const std::string why = "Service unavailable: the database was upgraded to layout 15 by a "
                            "newer kobreportd; this one reads layout 14\n";
    // The layout is looked at once a second: readiness says when it was.
    for (int i = 0; i < 300 && reportd::get(s.port(), "/readyz").status != 503; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(reportd::get(s.port(), "/readyz").body, why);
    EXPECT_EQ(reportd::get(s.port(), "/healthz").status, 200);
    auto up = reportd::upload(s.port(), "after\n");
    EXPECT_EQ(up.status, 503);
    EXPECT_EQ(up.body, why);
    auto staff = s.api("/api/reports");
    EXPECT_EQ(staff.status, 503);
    EXPECT_EQ(staff.body, why);
    EXPECT_EQ(reportd::get(s.staffPort(), "/signin").status, 503);
    EXPECT_EQ(value("SELECT count(*) FROM reports"), "1");
    EXPECT_EQ(s.stop(), 0);
    const std::string line =
        "\"level\":\"error\",\"event\":\"layout_newer\",\"layout\":15,\"own_layout\":14,"
        "\"message\":\"the database was written by a newer kobreportd (layout 15, this one knows "
        "up to 14); not serving until upgraded\"}\n";
    std::string errors = s.errors();
    auto at = errors.find(line);
    EXPECT_NE(at, std::string::npos) << errors;
    EXPECT_EQ(errors.find(line, at + 1), std::string::npos) << errors;
}

INSTANTIATE_TEST_SUITE_P(Stores, Layout, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

// The copy is taken while a client keeps uploading: every report answered
// before it began is in it, it is whole, and no upload waits on it.
TEST_F(Backup, ACopyTakenUnderASteadyStreamOfUploadsHoldsEveryAnsweredReport) {
    using Clock = std::chrono::steady_clock;
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-body", "4000000"});
    // Some bulk first, so that the copy takes a while: reports that do not
    // compress.
    std::string bulk(1u << 20, '\0');
    unsigned x = 12345;
    for (char &c : bulk) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    for (int i = 0; i < 40; i++) {
        bulk[0] = static_cast<char>(i);
        ASSERT_EQ(reportd::upload(s.port(), bulk).status, 200);
    }

    struct Answered {
        Clock::time_point sent, answered;
        std::string ref;
    };
    std::mutex m;
    std::condition_variable more;
    std::vector<Answered> answers;
    bool stop = false;
    std::thread client([&] {
        for (int i = 0;; i++) {
            {
                std::lock_guard<std::mutex> hold(m);
                if (stop)
                    return;
            }
            auto sent = Clock::now();
            std::string ref =
                reportd::reference(reportd::upload(s.port(), "during " + std::to_string(i) + "\n"));
            std::lock_guard<std::mutex> hold(m);
            answers.push_back({sent, Clock::now(), ref});
            more.notify_all();
        }
    });
    auto waitFor = [&](size_t n) {
        std::unique_lock<std::mutex> hold(m);
        more.wait(hold, [&] { return answers.size() >= n; });
        return answers.size();
    };
    waitFor(5);
    std::vector<std::string> before;
    Clock::time_point start;
    {
        std::lock_guard<std::mutex> hold(m);
        for (const auto &a : answers)
            before.push_back(a.ref);
        start = Clock::now();
    }
    auto r = reportd::command(KOBREPORTD_BIN, {"backup", "--db", db, "--to", copy});
    auto end = Clock::now();
    waitFor(waitFor(0) + 3);
    {
        std::lock_guard<std::mutex> hold(m);
        stop = true;
    }
    client.join();

    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("kobreportd: backed up ", 0), 0u) << r.out;
    EXPECT_EQ(reportd::sqliteValue(copy, "PRAGMA integrity_check"), "ok");
    for (const auto &ref : before) {
        SCOPED_TRACE(ref);
        ASSERT_FALSE(ref.empty());
        EXPECT_EQ(reportd::sqliteValue(copy, "SELECT count(*) FROM reports WHERE reference = '" +
                                                 ref + "'"),
                  "1");
    }
    // The longest any upload waited while the copy was written, and the
    // longest before it, for comparison.
    auto ms = [](Clock::duration d) {
        return static_cast<long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
    };
    long long during = 0, usual = 0, uploads = 0;
    for (const auto &a : answers) {
        EXPECT_FALSE(a.ref.empty());
        if (a.answered >= start && a.sent <= end) {
            during = std::max<long long>(during, ms(a.answered - a.sent));
            uploads++;
        } else if (a.answered < start) {
            usual = std::max<long long>(usual, ms(a.answered - a.sent));
        }
    }
    std::printf("backup of %s bytes took %lld ms; %lld uploads meanwhile, the longest %lld ms "
                "(before it: %lld ms)\n",
                reportd::sqliteValue(copy, "SELECT page_count * page_size FROM "
                                           "pragma_page_count(), pragma_page_size()")
                    .c_str(),
                ms(end - start), uploads, during, usual);
    // The machine running the tests is shared; the aim is far below this.
    EXPECT_LT(during, 1000);
}
