// kobreportd's backups and upgrades: a copy of a live SQLite database,
// references that stay unique across a restore from an older copy, and a
// database whose layout is older or newer than the server's.

#include "kobtest.h"
#include "reportd.h"
#include "store_fixture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

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
