// Test fixture for the segment readers: readers open segment files by bare
// name in the current directory, so each test runs inside a fresh one.

#ifndef KOB_SEGTEST_H
#define KOB_SEGTEST_H

#include <climits>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobtest.h"
#include "segwriter.h"

class InTempDir : public ::testing::Test {
  protected:
    void SetUp() override {
        char buf[PATH_MAX];
        ASSERT_NE(getcwd(buf, sizeof buf), nullptr);
        saved_ = buf;
        ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir(saved_.c_str()), 0); }

    kobtest::TempDir dir_;

  private:
    std::string saved_;
};

#endif
