// A whole kobdiag-lab run whose upload koblab hands to kobreportd: the user
// sees the reference in the "dia" log, the stored report is what the run
// showed, and its triage and browser view say what the lab network does.

#include "lab_support.h"
#include "reportd.h"

#include <filesystem>

using namespace lab_test;

namespace {

class LabIntake : public ::testing::Test {
  protected:
    void SetUp() override { clearLabDir(); }
    void TearDown() override { clearLabDir(); }
    kobtest::TempDir reports;
};

} // namespace

TEST_F(LabIntake, TheUserGetsAReferenceAndSupportSeesTheVerdicts) {
    // An API token and an account, made before the server starts, as an
    // operator would.
    const std::string db = reports.path() + "/reports.db";
    auto token =
        reportd::command(KOBREPORTD_BIN, {"token", "add", "lab", "--role", "admin", "--db", db});
    ASSERT_EQ(token.status, 0) << token.err;
    const std::string bearer =
        "Authorization: Bearer " + token.out.substr(0, token.out.size() - 1) + "\r\n";
    ASSERT_EQ(reportd::command(KOBREPORTD_BIN,
                               {"user", "add", "support", "--role", "viewer", "--db", db},
                               "password of support\n")
                  .status,
              0);
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path(), "-s", KOBREPORTD_BIN});
    // The staff side is on loopback, on a port of its own.
    const std::string prefix = "koblab: browser view           http://127.0.0.1:";
    auto at = lab.output().find(prefix);
    ASSERT_NE(at, std::string::npos) << lab.output();
    const int staffPort = std::atoi(lab.output().c_str() + at + prefix.size());
    ASSERT_GT(staffPort, 0);
    ASSERT_NE(staffPort, KOBDIAG_REPORT_PORT);
    kobtest::writeFile(kLabDir + "kobvane_stdout.txt", "tunnel up\n");
    kobtest::writeFile(kLabDir + "why.txt", "It drops every hour.\n");

    auto r = runLab({"-u", "alice", "-m", "why.txt"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, "alice"));

    // The server's answer, as kobdiag logs it, carries the reference.
    // The server sends its short answer in one piece, so it is one record.
    auto answer = kobtest::logRecords(r.out, "----", "dia");
    ASSERT_EQ(answer.size(), 1u) << r.out;
    const std::string ref = answer[0].substr(answer[0].rfind("KOB-"));
    EXPECT_GE(reportd::referenceNumber(ref, reportd::utcToday()), 0) << answer[0];
    // The Date line is the one part that changes from run to run.
    std::string shown = answer[0];
    auto date = shown.find("\r\nDate: ");
    ASSERT_NE(date, std::string::npos) << shown;
    shown.replace(date + 8, shown.find('\r', date + 2) - date - 8, "<date>");
    EXPECT_EQ(shown, "HTTP/1.1 200 OK\r\nDate: <date>\r\nConnection: close\r\n"
                     "Content-Type: text/plain; charset=utf-8\r\nContent-Length: 39\r\n\r\n"
                     "Report received: " +
                         ref);

    // Stored as the user saw it, countdown included; the lab's addresses
    // are loopback ones, no one's own, which a viewer sees as they are.
    auto raw = reportd::request(staffPort, "GET", "/api/reports/" + ref + "/raw?reveal=1", bearer);
    EXPECT_EQ(raw.status, 200);
    EXPECT_EQ(raw.body, r.err);
    auto masked = reportd::request(staffPort, "GET", "/api/reports/" + ref + "/raw", bearer);
    EXPECT_EQ(masked.status, 200);
    EXPECT_EQ(masked.body.find("127.0.x.x"), std::string::npos) << masked.body;
    EXPECT_NE(masked.body.find("127.0.0.1"), std::string::npos) << masked.body;
    // The intake answers nothing but uploads and its health check.
    EXPECT_EQ(
        reportd::getAt(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT, "/api/reports/" + ref + "/raw")
            .status,
        404);
    EXPECT_EQ(reportd::getAt(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT, "/healthz").body, "ok");

    auto json = reportd::request(staffPort, "GET", "/api/reports/" + ref, bearer);
    ASSERT_EQ(json.status, 200);
    for (const std::string part : {
             "\"form_username\":\"alice\"",
             "\"why\":\"It drops every hour.\\n\"",
             "\"username\":\"alice\"",
             "\"version\":\"4.4.1\"",
             "\"complete\":true",
             "\"udp_summary\":{\"attempts\":5,\"answered\":5,",
             "\"UDP pass-through works (5/5 answered, avg ",
             "\"TCP answered on all 7 probes (a refusal counts)\"",
             // koblab's second gateway never completes the handshake.
             "\"intranet partly reachable (3/4)\"",
             "\"client logs missing: kobvane_stderr.txt, kobrun_stdout.txt, kobrun_stderr.txt, "
             "kobflow_stdout.txt, kobflow_stderr.txt\"",
         })
        EXPECT_NE(json.body.find(part), std::string::npos) << part << "\n" << json.body;

    reportd::Browser support(staffPort);
    ASSERT_EQ(support.signIn("support", "password of support").status, 303);
    auto list = support.get("/?q=alice");
    EXPECT_NE(list.body.find("<td class=\"user\">alice</td><td class=\"ref\"><a href=\"/reports/" +
                             ref + "\">"),
              std::string::npos)
        << list.body;

    EXPECT_EQ(lab.stop(), 0);
    EXPECT_NE(lab.output().find("koblab: kobreportd stopped (exit status 0)\n"), std::string::npos)
        << lab.output();
    EXPECT_TRUE(kobtest::fileExists(reports.path() + "/reports.db"));
}
