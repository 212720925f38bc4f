// The SQLite database under the store: statements are prepared once and
// kept, and what is kept must behave as a fresh statement would.

#include "kobtest.h"
#include "sql.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace kobreportd;

struct Sqlite : ::testing::Test {
    kobtest::TempDir dir;
    std::string file = dir.file("t.db");
    std::unique_ptr<sql::Db> db = sql::openSqlite(file);

    std::string text(std::string_view q, std::initializer_list<sql::Param> params = {}) {
        return db->read(q, params).str(0, "v");
    }
};

} // namespace

TEST_F(Sqlite, AKeptStatementTakesEachUsesOwnParameters) {
    EXPECT_EQ(text("SELECT $1 || $2 AS v", {sql::text("a"), sql::text("b")}), "ab");
    EXPECT_EQ(text("SELECT $1 || $2 AS v", {sql::text("c"), sql::text("d")}), "cd");
    // A parameter left out is NULL, not the one the last use bound.
    EXPECT_EQ(text("SELECT coalesce($1, 'none') AS v", {sql::text("x")}), "x");
    EXPECT_EQ(text("SELECT coalesce($1, 'none') AS v"), "none");
}

TEST_F(Sqlite, AKeptStatementSeesTheTableAsItIsNow) {
    db->write("CREATE TABLE t (a TEXT)");
    db->write("INSERT INTO t (a) VALUES ('one')");
    EXPECT_THROW(db->read("SELECT * FROM t").str(0, "b"), StoreError);
    db->write("ALTER TABLE t ADD COLUMN b TEXT NOT NULL DEFAULT 'two'");
    EXPECT_EQ(db->read("SELECT * FROM t").str(0, "b"), "two");
}

TEST_F(Sqlite, AStatementThatFailedRunsAgain) {
    db->write("CREATE TABLE u (k TEXT UNIQUE)");
    db->write("INSERT INTO u (k) VALUES ($1)", {sql::text("a")});
    EXPECT_THROW(db->write("INSERT INTO u (k) VALUES ($1)", {sql::text("a")}), StoreError);
    db->write("INSERT INTO u (k) VALUES ($1)", {sql::text("b")});
    EXPECT_EQ(text("SELECT group_concat(k, ',') AS v FROM (SELECT k FROM u ORDER BY k)"), "a,b");
}

TEST_F(Sqlite, ATextWithNoStatementIsAnError) {
    try {
        db->read(" -- nothing here");
        FAIL() << "no error";
    } catch (const StoreError &e) {
        EXPECT_STREQ(e.what(), "prepare: no statement in \" -- nothing here\"");
    }
    EXPECT_EQ(text("SELECT 'still here' AS v"), "still here");
}

TEST_F(Sqlite, MoreTextsThanAreKeptAllStillAnswer) {
    for (int round = 0; round < 2; round++)
        for (int i = 0; i < 300; i++)
            ASSERT_EQ(text("SELECT " + std::to_string(i) + " || '' AS v"), std::to_string(i));
}

TEST_F(Sqlite, ClosedWithStatementsKeptTheDatabaseIsLeftWhole) {
    db->write("CREATE TABLE t (a TEXT)");
    db->write("INSERT INTO t (a) VALUES ($1)", {sql::text("kept")});
    EXPECT_EQ(text("SELECT a AS v FROM t"), "kept");
    EXPECT_TRUE(kobtest::fileExists(file + "-wal"));
    db.reset();
    // The last connection to close folds the log back and removes it,
    // which it cannot while a statement of it is still open.
    EXPECT_FALSE(kobtest::fileExists(file + "-wal"));
    db = sql::openSqlite(file);
    EXPECT_EQ(text("SELECT a AS v FROM t"), "kept");
}
