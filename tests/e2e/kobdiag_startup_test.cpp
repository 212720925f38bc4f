// kobdiag's command line and start-up chain, run as a whole program.  The lab
// build enters its application directory inside the build tree, so these
// tests may create, hold and remove things there.

#include <cerrno>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobtest.h"
#include "vpf.h"

namespace {

const std::string kLabBin = KOBDIAG_LAB_BIN;
const std::string kLabDir = KOBDIAG_LAB_DIR; // with its trailing slash
const std::string kPidFile = kLabDir + "kobdiag.pid";

const std::string kUsage = "usage: kobdiag [options]\n"
                           "    -m \"msg\"                     # Adds some comments\n"
                           "    -o                           # Outputs to the file\n"
                           "    -u username                  # Sets the KOBVANE username\n";

class KobdiagStartup : public ::testing::Test {
  protected:
    void SetUp() override {
        mkdir(kLabDir.c_str(), 0755);
        unlink(kPidFile.c_str());
    }

    kobtest::ChildResult run(std::vector<std::string> args) {
        args.insert(args.begin(), kLabBin);
        return kobtest::runProgram(args);
    }
};

TEST_F(KobdiagStartup, UnknownOptionPrintsMessageAndUsage) {
    auto r = run({"-x"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "illegal option -- x\n" + kUsage);
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(kobtest::fileExists(kPidFile));
}

TEST_F(KobdiagStartup, MissingArgumentPrintsMessageAndUsage) {
    auto r = run({"-o", "-u"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "option requires an argument -- u\n" + kUsage);
    EXPECT_EQ(r.out, "");
    auto m = run({"-m"});
    EXPECT_TRUE(m.exited(1));
    EXPECT_EQ(m.err, "option requires an argument -- m\n" + kUsage);
}

TEST_F(KobdiagStartup, BadOptionIsReportedBeforeTheDirectoryIsEntered) {
    std::string moved = kLabDir.substr(0, kLabDir.size() - 1) + ".moved";
    ASSERT_EQ(rename(kLabDir.c_str(), moved.c_str()), 0);
    auto r = run({"-q"});
    ASSERT_EQ(rename(moved.c_str(), kLabDir.c_str()), 0);
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "illegal option -- q\n" + kUsage);
    EXPECT_EQ(r.out, "");
}

TEST_F(KobdiagStartup, MissingApplicationDirectoryAbortsAt585) {
    std::string moved = kLabDir.substr(0, kLabDir.size() - 1) + ".moved";
    ASSERT_EQ(rename(kLabDir.c_str(), moved.c_str()), 0);
    auto r = run({"-o"});
    ASSERT_EQ(rename(moved.c_str(), kLabDir.c_str()), 0);
    EXPECT_TRUE(r.aborted());
    EXPECT_EQ(r.out, "assert fail! ODR_libinit lib/libkob/odr.cpp:585 r == 0 0\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(KobdiagStartup, SecondInstanceStopsAtThePidFile) {
    // Another process holds the PID file, as a running kobdiag would.
    vpf_fh *pfh = VPF_Open(kPidFile.c_str(), 0644, nullptr);
    ASSERT_NE(pfh, nullptr);
    ASSERT_EQ(VPF_Write(pfh), 0);
    auto r = run({"-o"});
    EXPECT_TRUE(kobtest::platformAssert(r, "DIA_writepid", "bin/kobdiag/kobdiag_report.cpp",
                                        "dia_pfh != NULL", 48));
    // Nothing of the report was shown before the assertion.
    EXPECT_EQ(r.err.find("==>"), std::string::npos);
    EXPECT_EQ(r.err.find("This program"), std::string::npos);
    EXPECT_EQ(kobtest::readFile(kPidFile), std::to_string(getpid()));
    EXPECT_EQ(VPF_Remove(pfh), 0);
}

} // namespace
