// A test that runs once on SQLite and once on PostgreSQL, each time on a
// database of its own: GetParam() names the store, db is where it is.

#ifndef KOB_STORE_FIXTURE_H
#define KOB_STORE_FIXTURE_H

#include <gtest/gtest.h>
#include <string>

#include "kobtest.h"
#include "reportd.h"

class OnEitherStore : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        std::string reason;
        db = reportd::testDatabase(GetParam(), dir.path(), reason);
        if (db.empty())
            GTEST_SKIP() << reason;
    }

    // A value from the database, whichever it is.
    std::string value(const std::string &sql) { return reportd::databaseValue(db, sql); }

    kobtest::TempDir dir;
    std::string db;
};

#endif
