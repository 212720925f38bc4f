// Command capture, traceroute, file reading and the report file.

#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobdiag_config.h"
#include "kobdiag_lines.h"
#include "kobreport.h"
#include "kobtest.h"
#include "report_buffer.h"
#include "vsb.h"

namespace {

using kobtest::captureFd;
using kobtest::runChild;

class Capture : public kobtest::ReportBuffer {
  protected:
    std::string dump(const std::string &cmd) {
        return captureFd(2, [&] { DIA_dumpCommand(cmd.c_str()); });
    }
};

std::string heading(const std::string &cmd) {
    return kobtest::dumpHeading(cmd);
}

TEST_F(Capture, PercentInTheCommandLineIsShownLiterally) {
    const std::string cmd = "printf '%s|%d|%%\\n' a 5";
    std::string err = dump(cmd);
    EXPECT_EQ(report(), heading(cmd) + "a|5|%\n");
    EXPECT_EQ(err, report());
}

TEST_F(Capture, ALineOf3000CharactersArrivesWhole) {
    const std::string cmd = "head -c 3000 /dev/zero | tr '\\000' x; echo; echo next";
    std::string err = dump(cmd);
    EXPECT_EQ(report(), heading(cmd) + std::string(3000, 'x') + "\nnext\n");
    EXPECT_EQ(err, report());
}

TEST_F(Capture, OutputWithoutFinalLineFeedIsKept) {
    std::string err = dump("printf 'a\\nb'");
    EXPECT_EQ(report(), heading("printf 'a\\nb'") + "a\nb");
}

TEST_F(Capture, EmptyOutputGivesTheHeadingOnly) {
    std::string err = dump("true");
    EXPECT_EQ(report(), heading("true"));
    EXPECT_EQ(err, report());
}

TEST_F(Capture, OnlyStandardOutputIsCaptured) {
    std::string err = dump("echo out; echo complaint >&2");
    EXPECT_EQ(report(), heading("echo out; echo complaint >&2") + "out\n");
    // The command's own standard error is the program's, and not the report's.
    EXPECT_NE(err.find("complaint\n"), std::string::npos);
}

TEST_F(Capture, ACommandTheShellCannotStartGivesTheHeadingOnly) {
    const std::string cmd = "/nonexistent/kobdiag-no-such-program -x";
    std::string err = dump(cmd);
    EXPECT_EQ(report(), heading(cmd));
    // The shell's complaint runs alongside, before or after the heading.
    EXPECT_NE(err.find(heading(cmd)), std::string::npos);
    EXPECT_GT(err.size(), heading(cmd).size());
}

TEST(DiaDumpCommand, NoPipeGivesThePopenError) {
    auto r = runChild([] {
        dia_msg = vsb_newauto();
        // No descriptor left for the pipe.
        struct rlimit rl = {16, 16};
        setrlimit(RLIMIT_NOFILE, &rl);
        while (open("/dev/null", O_RDONLY) >= 0) {
        }
        DIA_dumpCommand("echo never");
        vsb_finish(dia_msg);
        if (std::string(vsb_data(dia_msg)) != "_popen() error\n")
            _exit(3);
    });
    EXPECT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.err, "_popen() error\n");
}

TEST_F(Capture, NetworkStatusCapturesTheThreeCommandsInOrder) {
    std::string err = captureFd(2, [] { DIA_dumpNetworkStatus(); });
    std::vector<std::string> headings;
    for (const auto &s : kobtest::sections(report()))
        if (!s.heading.empty())
            headings.push_back(s.heading);
    std::vector<std::string> expected = {heading(KOBDIAG_CMD_IFCONFIG),
                                         heading(KOBDIAG_CMD_NETSTAT_AN),
                                         heading(KOBDIAG_CMD_NETSTAT_RN)};
    EXPECT_EQ(headings, expected);
}

TEST_F(Capture, TracerouteRunsTheConfiguredCommandLine) {
    // Loopback: the only hop is the target itself.
    std::string err = captureFd(2, [] { TRE_traceroute("127.0.0.1"); });
    char cmd[1024];
    snprintf(cmd, sizeof cmd, KOBDIAG_CMD_TRACEROUTE, "127.0.0.1");
    EXPECT_EQ(report().rfind(heading(cmd), 0), 0u) << report();
}

TEST(TreTraceroute, OverlongTargetIsThePlatformAssertion) {
    auto r = runChild([] {
        dia_msg = vsb_newauto();
        TRE_traceroute(std::string(1000, '1').c_str());
    });
    EXPECT_TRUE(kobtest::platformAssert(r, "TRE_traceroute", "bin/kobdiag/kobdiag_traceroute.cpp",
                                        "l < sizeof(buf)", 35));
}

/* ---- DIA_readFile ---------------------------------------------------------------- */

std::string contents(struct vsb *v) {
    EXPECT_TRUE(vsb_done(v));
    return std::string(vsb_data(v), static_cast<size_t>(vsb_len(v)));
}

TEST(DiaReadFile, ReadsEveryByteUnchanged) {
    kobtest::TempDir dir;
    std::string data;
    for (int i = 0; i < 5000; i++)
        data += static_cast<char>(i * 7);
    data += std::string("%s%n\0\r\n", 7);
    kobtest::writeFile(dir.file("f"), data);
    struct vsb *v = DIA_readFile(dir.file("f").c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(contents(v), data);
    vsb_delete(v);
}

TEST(DiaReadFile, EmptyFileIsAnEmptyFinishedBuffer) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("f"), "");
    struct vsb *v = DIA_readFile(dir.file("f").c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(contents(v), "");
    vsb_delete(v);
}

TEST(DiaReadFile, MissingOrUnreadableFileIsNull) {
    kobtest::TempDir dir;
    EXPECT_EQ(DIA_readFile(dir.file("missing").c_str()), nullptr);
    kobtest::writeFile(dir.file("locked"), "x");
    kobtest::writeFile(dir.file("open"), "y");
    ASSERT_EQ(chmod(dir.file("locked").c_str(), 0), 0);
    ASSERT_EQ(chmod(dir.file("open").c_str(), 0644), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    // root reads anything: the reading side runs as an ordinary user, in a
    // child when the test runs as root.  The readable file beside the
    // locked one shows that the mode, not the way there, refuses it.
    auto r = runChild([&] {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
            _exit(3);
        struct vsb *open = DIA_readFile(dir.file("open").c_str());
        struct vsb *locked = DIA_readFile(dir.file("locked").c_str());
        _exit(open != nullptr && vsb_len(open) == 1 ? (locked == nullptr ? 0 : 4) : 5);
    });
    EXPECT_TRUE(r.exited(0)) << r.status;
}

TEST(DiaReadFile, StreamLongerThanItsSizeSaysIsReadWhole) {
    // A pipe has no size to read ahead of the bytes: the buffer starts
    // small and grows as they come.
    kobtest::TempDir dir;
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    std::string data;
    for (int i = 0; i < 300000; i++)
        data += static_cast<char>(i * 13 + i / 256);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fd = open(dir.file("fifo").c_str(), O_WRONLY);
        size_t off = 0;
        while (fd >= 0 && off < data.size()) {
            ssize_t n = write(fd, data.data() + off, data.size() - off);
            if (n <= 0)
                _exit(1);
            off += static_cast<size_t>(n);
        }
        _exit(fd >= 0 ? 0 : 2);
    }
    struct vsb *v = DIA_readFile(dir.file("fifo").c_str());
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(contents(v), data);
    vsb_delete(v);
}

/* ---- DIA_writeFile --------------------------------------------------------------- */

std::string writeReportIn(const std::string &dir, const std::string &text) {
    auto r = runChild([&] {
        if (chdir(dir.c_str()) != 0)
            _exit(3);
        struct vsb *v = vsb_newauto();
        vsb_bcat(v, text.data(), text.size());
        vsb_finish(v);
        DIA_writeFile(v);
    });
    EXPECT_TRUE(r.exited(0));
    // Nothing is printed on success.
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    return kobtest::readFile(dir + "/kobdiag_stdout.txt");
}

TEST(DiaWriteFile, WritesTheReportExactly) {
    kobtest::TempDir dir;
    std::string text = "==> x\n" + std::string(70000, 'y') + "\nno final line feed";
    EXPECT_EQ(writeReportIn(dir.path(), text), text);
}

TEST(DiaWriteFile, AnEarlierFileIsReplacedNotAppendedTo) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("kobdiag_stdout.txt"), std::string(10000, 'o'));
    EXPECT_EQ(writeReportIn(dir.path(), "first\n"), "first\n");
    EXPECT_EQ(writeReportIn(dir.path(), "second\n"), "second\n");
}

TEST(DiaWriteFile, UnopenableFileIsThePlatformAssertion) {
    kobtest::TempDir dir;
    ASSERT_EQ(mkdir(dir.file("kobdiag_stdout.txt").c_str(), 0755), 0);
    auto r = runChild([&] {
        if (chdir(dir.path().c_str()) != 0)
            _exit(3);
        struct vsb *v = vsb_newauto();
        vsb_finish(v);
        DIA_writeFile(v);
    });
    EXPECT_TRUE(kobtest::platformAssert(r, "DIA_writeFile", "bin/kobdiag/kobdiag_report.cpp",
                                        "(fp) != 0", 214));
}

} // namespace
