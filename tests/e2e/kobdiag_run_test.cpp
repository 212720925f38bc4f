// Whole diagnostic runs of kobdiag-lab against koblab, delivered to the
// report file (-o), so that none of them waits through the countdown.

#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "lab_support.h"

namespace {

using namespace lab_test;

class LabRun : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        reports_ = new kobtest::TempDir;
        lab_ = new kobtest::Koblab(kKoblabBin, {"-d", reports_->path()});
    }
    static void TearDownTestSuite() {
        delete lab_;
        delete reports_;
    }
    void SetUp() override { clearLabDir(); }
    void TearDown() override {
        clearLabDir();
        // Nothing of these runs is ever uploaded.
        EXPECT_TRUE(storedReports(reports_->path()).empty());
    }
    static std::string reportFile() { return kobtest::readFile(kLabDir + "kobdiag_stdout.txt"); }

    static kobtest::TempDir *reports_;
    static kobtest::Koblab *lab_;
};

kobtest::TempDir *LabRun::reports_;
kobtest::Koblab *LabRun::lab_;

TEST_F(LabRun, HeadingsAndResultsComeInTheFixedOrder) {
    auto r = runLab({"-o", "-u", "bob"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, "bob"));
    EXPECT_EQ(logDump(r.err), kNoLogs);
}

TEST_F(LabRun, WithoutUsernameThereIsNoUsernameLine) {
    auto r = runLab({"-o"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, nullptr));
    EXPECT_EQ(r.err.find("Username"), std::string::npos);
}

TEST_F(LabRun, TheReportFileIsWhatStandardErrorShowed) {
    auto r = runLab({"-o", "-u", "bob", "-m", "why.txt"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(reportFile(), r.err);
    // It ends with the last line of the client log dump: no countdown.
    EXPECT_EQ(lastLine(r.err), "No kobflow_stderr.txt exists\n");
    // Nothing is logged without an upload.
    EXPECT_EQ(r.out, "");
}

TEST_F(LabRun, ASecondRunReplacesTheReportFile) {
    kobtest::writeFile(kLabDir + "kobdiag_stdout.txt", std::string(100000, 'o'));
    auto first = runLab({"-o", "-u", "a-rather-long-user-name"});
    ASSERT_TRUE(first.exited(0));
    EXPECT_EQ(reportFile(), first.err);
    auto second = runLab({"-o"});
    ASSERT_TRUE(second.exited(0));
    EXPECT_EQ(reportFile(), second.err);
}

TEST_F(LabRun, OutputFlagThreeTimesWritesTheFile) {
    for (auto args :
         {std::vector<std::string>{"-o", "-o", "-o"}, std::vector<std::string>{"-oo", "-o"}}) {
        clearLabDir();
        auto r = runLab(args);
        ASSERT_TRUE(r.exited(0)) << r.err;
        EXPECT_EQ(reportFile(), r.err);
        EXPECT_EQ(r.err.find("==> All tests had done"), std::string::npos);
    }
}

TEST_F(LabRun, OptionFormsInWholeRuns) {
    // Each run writes the report file, so no -o was taken once too often;
    // the header shows whether -u was taken.
    struct Case {
        std::vector<std::string> args;
        const char *username;
    } cases[] = {
        {{"-ufoo", "-o"}, "foo"},
        {{"-oufoo"}, "foo"},
        {{"-o", "--", "-o", "-u", "bar"}, nullptr},
        {{"-o", "-", "-o", "-u", "bar"}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : ""));
        clearLabDir();
        auto r = runLab(c.args);
        ASSERT_TRUE(r.exited(0)) << r.status << r.err;
        EXPECT_TRUE(matchesRun(r.err, c.username));
        EXPECT_EQ(reportFile(), r.err);
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(LabRun, ClientLogsAreCopiedWithTheirLabels) {
    // stdout without its final line feed, '%' characters, an empty file, a
    // zero byte, and two files missing.
    kobtest::writeFile(kLabDir + "kobvane_stdout.txt",
                       "started %s %d 100%\nlast line without feed");
    kobtest::writeFile(kLabDir + "kobvane_stderr.txt", "warning: %n\n");
    kobtest::writeFile(kLabDir + "kobrun_stdout.txt", "");
    kobtest::writeFile(kLabDir + "kobrun_stderr.txt", std::string("cut\0hidden\n", 11));
    auto r = runLab({"-o"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(logDump(r.err), "==> Dumping KOBVANE log files\n"
                              "[STDOUT]\n"
                              "started %s %d 100%\n"
                              "last line without feed[STDERR]\n"
                              "warning: %n\n"
                              "==> Dumping KOBRUN log files\n"
                              "[STDOUT]\n"
                              "Empty file.\n"
                              "[STDERR]\n"
                              "cut" // the zero byte ends the shown text
                              "==> Dumping KOBFLOW log files\n"
                              "No kobflow_stdout.txt exists\n"
                              "No kobflow_stderr.txt exists\n");
    EXPECT_EQ(reportFile(), r.err);
}

TEST_F(LabRun, AZeroByteInAStdoutLogHidesItsStderrLog) {
    kobtest::writeFile(kLabDir + "kobflow_stdout.txt", std::string("a\0b", 3));
    kobtest::writeFile(kLabDir + "kobflow_stderr.txt", "never shown\n");
    auto r = runLab({"-o"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    const std::string tail = "==> Dumping KOBFLOW log files\n[STDOUT]\na";
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
}

TEST_F(LabRun, UnwritableReportFileAbortsAfterTheRun) {
    ASSERT_EQ(mkdir((kLabDir + "kobdiag_stdout.txt").c_str(), 0755), 0);
    auto r = runLab({"-o"});
    EXPECT_TRUE(r.aborted());
    EXPECT_TRUE(matchesRun(r.err, nullptr));
    std::string last = lastLine(r.err);
    EXPECT_NE(last.find(": bin/kobdiag/kobdiag_report.cpp:214: DIA_writeFile: Assertion "
                        "`(fp) != 0' failed.\n"),
              std::string::npos)
        << last;
}

} // namespace
