#include "vpf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "kobtest.h"
#include "odr.h"

namespace {

class Vpf : public ::testing::Test {
  protected:
    void SetUp() override { oldUmask = umask(022); }
    void TearDown() override { umask(oldUmask); }
    kobtest::TempDir dir;
    std::string path = dir.file("test.pid");
    mode_t oldUmask = 0;
};

// A child holding the PID file, with its number written or not.
struct Holder : kobtest::ChildHolder {
    Holder(const std::string &path, bool write)
        : ChildHolder([&] {
              vpf_fh *pfh = VPF_Open(path.c_str(), 0644, nullptr);
              return pfh != nullptr && (!write || VPF_Write(pfh) == 0);
          }) {
        EXPECT_TRUE(held());
    }
};

TEST_F(Vpf, OpenWriteAndClose) {
    vpf_fh *pfh = VPF_Open(path.c_str(), 0644, nullptr);
    ASSERT_NE(pfh, nullptr);
    EXPECT_EQ(VPF_Write(pfh), 0);
    EXPECT_EQ(kobtest::readFile(path), std::to_string(getpid())); // no line feed
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(VPF_Close(pfh), 0);
    EXPECT_TRUE(kobtest::fileExists(path)); // closing keeps the file
}

TEST_F(Vpf, RemoveUnlinks) {
    vpf_fh *pfh = VPF_Open(path.c_str(), 0600, nullptr);
    ASSERT_NE(pfh, nullptr);
    EXPECT_EQ(VPF_Remove(pfh), 0);
    EXPECT_FALSE(kobtest::fileExists(path));
}

TEST_F(Vpf, PathOf1024IsAcceptedAnd1025IsTooLong) {
    // Build a directory chain so that a path of exactly 1024 characters exists.
    std::string base = dir.path();
    while (base.size() < 1024 - 210) {
        base += "/" + std::string(200, 'd');
        ASSERT_EQ(mkdir(base.c_str(), 0755), 0);
    }
    std::string exact = base + "/";
    exact += std::string(1024 - exact.size(), 'f');
    ASSERT_EQ(exact.size(), 1024u);
    vpf_fh *pfh = VPF_Open(exact.c_str(), 0644, nullptr);
    ASSERT_NE(pfh, nullptr) << strerror(errno);
    EXPECT_EQ(VPF_Remove(pfh), 0);

    std::string over = exact + "g";
    errno = 0;
    EXPECT_EQ(VPF_Open(over.c_str(), 0644, nullptr), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(kobtest::fileExists(over));
}

TEST_F(Vpf, HeldByAnotherProcessGivesEEXISTAndItsPid) {
    Holder holder(path, true);
    pid_t other = 0;
    errno = 0;
    EXPECT_EQ(VPF_Open(path.c_str(), 0644, &other), nullptr);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(other, holder.pid());
    // The loser never truncated the holder's number.
    EXPECT_EQ(kobtest::readFile(path), std::to_string(holder.pid()));
}

TEST_F(Vpf, HeldWithoutOutParameterLeavesEAGAIN) {
    Holder holder(path, true);
    errno = 0;
    EXPECT_EQ(VPF_Open(path.c_str(), 0644, nullptr), nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Vpf, HolderFileWithoutCleanNumberGivesEINVAL) {
    Holder holder(path, false);
    kobtest::writeFile(path, "123\n"); // a trailing line feed is not clean
    pid_t other = 0;
    errno = 0;
    EXPECT_EQ(VPF_Open(path.c_str(), 0644, &other), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Vpf, ReplacedFileMakesWriteFailWithEINVAL) {
    // The handle's descriptor is the lowest free one: learn its number.
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    close(fd);
    vpf_fh *pfh = VPF_Open(path.c_str(), 0644, nullptr);
    ASSERT_NE(pfh, nullptr);
    int original = dup(fd);
    // Replace the file on disk, and what the descriptor names with it.
    ASSERT_EQ(unlink(path.c_str()), 0);
    kobtest::writeFile(path, "other");
    int replacement = open(path.c_str(), O_RDWR);
    ASSERT_GE(replacement, 0);
    ASSERT_EQ(dup2(replacement, fd), fd);
    close(replacement);
    errno = 0;
    EXPECT_EQ(VPF_Write(pfh), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kobtest::readFile(path), "other"); // the new file is left alone
    errno = 0;
    EXPECT_EQ(VPF_Remove(pfh), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(kobtest::fileExists(path));
    // Put the original back so that the handle can be closed and freed.
    ASSERT_EQ(dup2(original, fd), fd);
    close(original);
    EXPECT_EQ(VPF_Close(pfh), 0);
}

TEST_F(Vpf, NullPathAborts) {
    auto r = kobtest::runChild([] { (void)VPF_Open(nullptr, 0644, nullptr); });
    EXPECT_TRUE(kobtest::vasAbort(r, "VPF_Open", "lib/libkob/vpf.cpp", "path != NULL", 115));
}

TEST_F(Vpf, MissingDirectoryFails) {
    errno = 0;
    EXPECT_EQ(VPF_Open(dir.file("no/such.pid").c_str(), 0644, nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Vpf, FiftyProcessesRaceForOneFile) {
    constexpr int kProcs = 50;
    int start[2];
    int done[2];
    int report[2];
    ASSERT_EQ(pipe(start), 0);
    ASSERT_EQ(pipe(done), 0);
    ASSERT_EQ(pipe(report), 0);
    std::vector<pid_t> pids;
    for (int i = 0; i < kProcs; i++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(start[1]);
            close(done[1]);
            close(report[0]);
            char c;
            (void)!read(start[0], &c, 1); // every process starts together
            pid_t other = 0;
            vpf_fh *pfh = VPF_Open(path.c_str(), 0644, &other);
            char line[64];
            if (pfh != nullptr) {
                VPF_Write(pfh);
                snprintf(line, sizeof line, "W %d\n", getpid());
                (void)!write(report[1], line, strlen(line));
                (void)!read(done[0], &c, 1); // hold until every loser has reported
            } else {
                snprintf(line, sizeof line, "L %d %d\n", errno, static_cast<int>(other));
                (void)!write(report[1], line, strlen(line));
            }
            _exit(0);
        }
        pids.push_back(pid);
    }
    close(start[0]);
    close(done[0]);
    close(report[1]);
    close(start[1]); // go

    std::string all;
    int lines = 0;
    FILE *in = fdopen(report[0], "r");
    char buf[64];
    while (lines < kProcs && fgets(buf, sizeof buf, in) != nullptr) {
        all += buf;
        lines++;
    }
    close(done[1]);
    fclose(in);
    for (pid_t pid : pids)
        waitpid(pid, nullptr, 0);

    int winners = 0;
    int winner = -1;
    std::vector<std::pair<int, int>> losers;
    std::istringstream ss(all);
    std::string kind;
    while (ss >> kind) {
        if (kind == "W") {
            winners++;
            ss >> winner;
        } else {
            int err, pid;
            ss >> err >> pid;
            losers.emplace_back(err, pid);
        }
    }
    EXPECT_EQ(winners, 1);
    ASSERT_EQ(losers.size(), static_cast<size_t>(kProcs - 1));
    for (auto [err, pid] : losers) {
        EXPECT_EQ(err, EEXIST);
        EXPECT_EQ(pid, winner);
    }
    EXPECT_EQ(kobtest::readFile(path), std::to_string(winner));
}

} // namespace
