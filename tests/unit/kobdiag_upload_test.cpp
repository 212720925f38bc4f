// The problem-report upload against servers of the test's own: the request
// byte for byte, the answer in the "dia" log, and the failures.

#include <sched.h>
#include <string>

#include <gtest/gtest.h>

#include "upload_support.h"

namespace {

using kobtest::formEnd;
using kobtest::formPart;
using kobtest::requestHead;
using upload_test::reportOf;
using upload_test::ReportServer;
using upload_test::sendReport;

const std::string kHost = "127.0.0.1";

std::string request(const std::string &body) {
    return requestHead(body.size(), kHost) + body;
}

TEST(DiaSendReport, WithoutUsernameAndMessageTheBodyIsTheReportAlone) {
    ReportServer server;
    const std::string text = "==> Package Version: 4.4.1\n";
    auto r = sendReport(
        kHost, server.port(), [&] { return reportOf(text); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(), request(formPart("desc", text) + formEnd()));
}

TEST(DiaSendReport, UsernameAndCommentFileAddTheirParts) {
    kobtest::TempDir dir;
    const std::string comment = "it drops\nevery hour %s\n";
    kobtest::writeFile(dir.file("why.txt"), comment);
    std::string why = dir.file("why.txt");
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("report\n"); }, "demo", why.c_str());
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(),
              request(formPart("desc", "report\n") + formPart("username", "demo") +
                      formPart("why", comment) + formEnd()));
}

TEST(DiaSendReport, AnUnreadableCommentFileLeavesThePartOut) {
    kobtest::TempDir dir;
    std::string missing = dir.file("missing.txt");
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("report\n"); }, "u", missing.c_str());
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(),
              request(formPart("desc", "report\n") + formPart("username", "u") + formEnd()));
}

TEST(DiaSendReport, AnEmptyCommentFileIsAnEmptyPart) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("empty"), "");
    std::string empty = dir.file("empty");
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("r"); }, nullptr, empty.c_str());
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(), request(formPart("desc", "r") + formPart("why", "") + formEnd()));
}

TEST(DiaSendReport, AnUnfinishedReportHasNoDescPart) {
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("never sent", false); }, "u", nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(), request(formPart("username", "u") + formEnd()));
}

TEST(DiaSendReport, WithNoPartTheBodyIsTheClosingDelimiterAlone) {
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("", false); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(), requestHead(formEnd().size(), kHost) +
                                     "--------kobvaneFormBoundaryj2U6RdY2ckKXjaso--\r\n");
}

TEST(DiaSendReport, ContentLengthIsExactForAReportFarOver1024Bytes) {
    std::string text;
    for (int i = 0; i < 20000; i++)
        text += "line " + std::to_string(i) + " %d %s\n";
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [&] { return reportOf(text); }, "u", nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    std::string body = formPart("desc", text) + formPart("username", "u") + formEnd();
    ASSERT_GT(body.size(), 300000u);
    EXPECT_EQ(server.received(), request(body));
}

TEST(DiaSendReport, AZeroByteCutsThePartAndContentLengthFollows) {
    kobtest::TempDir dir;
    const std::string comment("before\0after", 12);
    kobtest::writeFile(dir.file("why"), comment);
    std::string why = dir.file("why");
    const std::string text("abc\0def", 7);
    ReportServer server;
    auto r = sendReport(
        kHost, server.port(), [&] { return reportOf(text); }, nullptr, why.c_str());
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(server.received(),
              request(formPart("desc", "abc") + formPart("why", "before") + formEnd()));
}

TEST(DiaSendReport, TheHostHeaderNamesTheConfiguredHostWithoutPort) {
    // "localhost" resolves through the hosts file; the header carries the
    // name as configured.
    ReportServer server;
    auto r = sendReport(
        "localhost", server.port(), [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    std::string body = formPart("desc", "x") + formEnd();
    EXPECT_EQ(server.received(), requestHead(body.size(), "localhost") + body);
}

TEST(DiaSendReport, TheAnnouncementAndTheAnswerGoToTheDiaLog) {
    ReportServer server({"HTTP/1.1 500 Internal Server Error\r\n\r\nno"});
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(kobtest::logRecords(r.out, "#   ", "dia"),
              std::vector<std::string>{"Sending a user problem report."});
    // A failure answer is logged like any other and changes nothing.
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"),
              std::vector<std::string>{"HTTP/1.1 500 Internal Server Error\r\n\r\nno"});
    EXPECT_EQ(r.err, "");
}

TEST(DiaSendReport, AnAnswerIsLoggedOneRecordPerReadOfAtMost1024Bytes) {
    std::string answer = "HTTP/1.1 200 OK\r\n\r\n";
    while (answer.size() < 2600)
        answer += "0123456789abcdef";
    ReportServer server({answer});
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    auto records = kobtest::logRecords(r.out, "----", "dia");
    ASSERT_GE(records.size(), 3u);
    std::string joined;
    for (const auto &rec : records) {
        EXPECT_LE(rec.size(), 1024u);
        joined += rec;
    }
    EXPECT_EQ(joined, answer);
}

TEST(DiaSendReport, AnAnswerInSeveralPiecesIsLoggedInOrder) {
    std::vector<std::string> pieces = {"HTTP/1.1 200 OK\r\n", "Content-Length: 2\r\n\r\n", "ok"};
    ReportServer server(pieces, std::chrono::milliseconds(150));
    auto r = sendReport(
        kHost, server.port(), [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0)) << r.err;
    auto records = kobtest::logRecords(r.out, "----", "dia");
    // Each read is one record; pieces that arrive apart are read apart.
    EXPECT_GE(records.size(), 2u);
    std::string joined;
    for (const auto &rec : records)
        joined += rec;
    EXPECT_EQ(joined, pieces[0] + pieces[1] + pieces[2]);
}

TEST(DiaSendReport, ARefusedConnectionCountsAsMadeAndTheHeadWriteAborts) {
    kobtest::ClosedPort closed;
    auto r = sendReport(
        kHost, closed.port, [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(kobtest::platformAssert(r, "DIA_sendReport", "bin/kobdiag/kobdiag_report.cpp",
                                        "l == vsb_len(hdr)"));
    EXPECT_EQ(r.out.find("VSS_open(2) error"), std::string::npos);
}

TEST(DiaSendReport, AMalformedEndpointIsOneVssOpenRecord) {
    auto r = sendReport(
        "[::1", 80, [] { return reportOf("x"); }, nullptr, nullptr);
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"),
              std::vector<std::string>{"VSS_open(2) error: 1 0"});
    EXPECT_EQ(r.err, "");
}

TEST(DiaSendReport, AHostNameThatDoesNotResolveIsOneVssOpenRecord) {
#ifndef __linux__
    GTEST_SKIP() << "needs Linux: a network namespace (unshare) keeps the lookup local";
#else
    // The lookup happens in a network namespace of its own with nothing but
    // a downed loopback, so the query never leaves this process's sandbox.
    auto r = kobtest::runChild([] {
        if (unshare(CLONE_NEWNET) != 0) {
            printf("no namespace: %s\n", strerror(errno));
            _exit(77);
        }
        dia_vl = vtc_logopen("dia", nullptr);
        dia_report_host = "no-such-host.kobvane.example";
        dia_report_port = 80;
        DIA_sendReport(reportOf("x"), nullptr, nullptr);
    });
    if (r.exited(77))
        GTEST_SKIP() << "cannot make a network namespace here: " << r.out;
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"),
              std::vector<std::string>{"VSS_open(2) error: 5 0"});
#endif
}

} // namespace
