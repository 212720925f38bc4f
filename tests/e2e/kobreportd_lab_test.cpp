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

std::string today() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[16];
    std::strftime(buf, sizeof buf, "%Y%m%d", &tm);
    return buf;
}

} // namespace

TEST_F(LabIntake, TheUserGetsAReferenceAndSupportSeesTheVerdicts) {
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path(), "-s", KOBREPORTD_BIN});
    const std::string view = std::string("http://") + KOBDIAG_REPORT_HOST + ":" +
                             std::to_string(KOBDIAG_REPORT_PORT) + "/";
    EXPECT_NE(lab.output().find("koblab: browser view           " + view + "\n"), std::string::npos)
        << lab.output();
    kobtest::writeFile(kLabDir + "kobvane_stdout.txt", "tunnel up\n");
    kobtest::writeFile(kLabDir + "why.txt", "It drops every hour.\n");

    auto r = runLab({"-u", "alice", "-m", "why.txt"});
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_TRUE(matchesRun(r.err, "alice"));

    // The server's answer, as kobdiag logs it, carries the reference.
    // The server sends its short answer in one piece, so it is one record.
    auto answer = kobtest::logRecords(r.out, "----", "dia");
    ASSERT_EQ(answer.size(), 1u) << r.out;
    const std::string ref = "KOB-" + today() + "-000001";
    EXPECT_EQ(answer[0], "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 36\r\n"
                         "Content-Type: text/plain; charset=utf-8\r\n\r\nReport received: " +
                             ref);

    // Stored as the user saw it, countdown included.
    auto raw =
        reportd::getAt(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT, "/api/reports/" + ref + "/raw");
    EXPECT_EQ(raw.status, 200);
    EXPECT_EQ(raw.body, r.err);

    auto json = reportd::getAt(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT, "/api/reports/" + ref);
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

    auto list = reportd::getAt(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT, "/?q=alice");
    EXPECT_NE(list.body.find("<td>alice</td><td><a href=\"/reports/" + ref + "\">"),
              std::string::npos)
        << list.body;

    EXPECT_EQ(lab.stop(), 0);
    EXPECT_NE(lab.output().find("koblab: kobreportd stopped (exit status 0)\n"), std::string::npos)
        << lab.output();
    EXPECT_TRUE(kobtest::fileExists(reports.path() + "/reports.db"));
}
