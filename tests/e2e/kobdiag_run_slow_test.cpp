// Whole diagnostic runs of kobdiag-lab that go through the ten-second
// countdown and the upload.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "lab_support.h"

namespace {

using namespace lab_test;
using kobtest::formEnd;
using kobtest::formPart;
using kobtest::requestHead;

const std::string kAnswer = "HTTP/1.1 200 OK\r\n"
                            "Content-Type: text/plain\r\n"
                            "Content-Length: 9\r\n"
                            "Connection: close\r\n"
                            "\r\n"
                            "received\n";

class LabUpload : public ::testing::Test {
  protected:
    void SetUp() override { clearLabDir(); }
    void TearDown() override { clearLabDir(); }
    kobtest::TempDir reports;
};

TEST_F(LabUpload, WithoutOptionsTheReportIsUploadedAfterTenCountdownLines) {
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path()});
    auto r = runLab({});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, nullptr));
    EXPECT_EQ(logDump(r.err), kNoLogs + countdown());
    EXPECT_FALSE(kobtest::fileExists(kLabDir + "kobdiag_stdout.txt"));

    auto stored = storedReports(reports.path());
    ASSERT_EQ(stored.size(), 1u);
    // The uploaded report is what standard error showed, countdown included.
    std::string body = formPart("desc", r.err) + formEnd();
    EXPECT_EQ(kobtest::readFile(stored[0]), requestHead(body.size(), KOBDIAG_REPORT_HOST) + body);
    EXPECT_GT(body.size(), 1024u);

    EXPECT_EQ(kobtest::logRecords(r.out, "#   ", "dia"),
              std::vector<std::string>{"Sending a user problem report."});
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"), std::vector<std::string>{kAnswer});
}

TEST_F(LabUpload, OutputFlagTwiceUploadsWithUsernameAndComment) {
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path()});
    // The comment file is named relative to the application directory.
    const std::string comment = "It drops every hour.\n100% reproducible %s\n";
    kobtest::writeFile(kLabDir + "why.txt", comment);
    auto r = runLab({"-o", "-u", "demo", "-o", "-m", "why.txt"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, "demo"));
    EXPECT_FALSE(kobtest::fileExists(kLabDir + "kobdiag_stdout.txt"));
    auto stored = storedReports(reports.path());
    ASSERT_EQ(stored.size(), 1u);
    std::string body = formPart("desc", r.err) + formPart("username", "demo") +
                       formPart("why", comment) + formEnd();
    EXPECT_EQ(kobtest::readFile(stored[0]), requestHead(body.size(), KOBDIAG_REPORT_HOST) + body);
}

TEST_F(LabUpload, ARefusedReportServerAbortsAtTheHeadWrite) {
    // Everything served but the report server, whose address refuses.
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path(), "-r", "127.10.0.81:80"});
    auto r = runLab({});
    EXPECT_TRUE(r.aborted());
    EXPECT_EQ(logDump(r.err).rfind(kNoLogs + countdown(), 0), 0u);
    std::string last = lastLine(r.err);
    EXPECT_NE(last.find(": bin/kobdiag/kobdiag_report.cpp:"), std::string::npos) << last;
    EXPECT_NE(last.find(": DIA_sendReport: Assertion `l == vsb_len(hdr)' failed.\n"),
              std::string::npos)
        << last;
    EXPECT_EQ(r.out.find("VSS_open(2) error"), std::string::npos);
}

// A listener on the report server's address whose accept queue is full, so
// the upload's handshake never completes.
struct StalledReportServer {
    kobtest::Fd fd;
    std::vector<kobtest::Fd> fillers;
    StalledReportServer() {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_port = htons(KOBDIAG_REPORT_PORT);
        inet_pton(AF_INET, KOBDIAG_REPORT_HOST, &sin.sin_addr);
        fd.reset(socket(AF_INET, SOCK_STREAM, 0));
        int one = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0 ||
            listen(fd.get(), 0) != 0)
            throw std::runtime_error("cannot listen on the report server's address");
        for (int i = 0; i < 16; i++) {
            kobtest::Fd c(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            (void)connect(c.get(), reinterpret_cast<sockaddr *>(&sin), sizeof sin);
            pollfd p = {c.get(), POLLOUT, 0};
            int n = poll(&p, 1, 500);
            fillers.push_back(std::move(c));
            if (n == 0)
                return;
        }
        throw std::runtime_error("the accept queue never filled");
    }
};

TEST_F(LabUpload, AnUnreachableReportServerIsOneVssOpenRecordAndExitZero) {
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path(), "-r", "127.10.0.81:80"});
    StalledReportServer stalled;
    auto r = runLab({"-u", "demo"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(logDump(r.err), kNoLogs + countdown());
    EXPECT_EQ(kobtest::logRecords(r.out, "#   ", "dia"),
              std::vector<std::string>{"Sending a user problem report."});
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"),
              std::vector<std::string>{"VSS_open(2) error: 2 0"});
}

} // namespace
