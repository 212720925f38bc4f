// The browser view in headless Chromium: an uploaded report shows up in the
// list, the search finds it, and its page carries the verdicts, the findings
// and the raw text.  A screenshot of the report page is kept in the build
// tree for people to look at.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

std::string chromium() {
    for (const char *name : {"chromium", "chromium-browser"}) {
        for (const char *dir : {"/usr/bin", "/usr/local/bin"}) {
            std::string p = std::string(dir) + "/" + name;
            if (access(p.c_str(), X_OK) == 0)
                return p;
        }
    }
    return "";
}

// Chromium that talks to nothing but the page it is given.
kobtest::ChildResult browse(const std::string &bin, const std::string &profile,
                            const std::vector<std::string> &what, const std::string &url) {
    std::vector<std::string> argv = {bin,
                                     "--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-quic",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--user-data-dir=" + profile};
    argv.insert(argv.end(), what.begin(), what.end());
    argv.push_back(url);
    return kobtest::runProgram(argv);
}

} // namespace

TEST(ReportdBrowser, ListSearchAndReportPage) {
    std::string bin = chromium();
    if (bin.empty())
        GTEST_SKIP() << "chromium is not installed (Debian package chromium)";
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    std::string base = "http://127.0.0.1:" + std::to_string(s.port());

    auto run = reportgen::healthyRun();
    run.username = "carol";
    run.udp.assign(5, reportgen::udpTimeout());
    run.tcp[3] = reportgen::tcpTimeout();
    std::string desc = reportgen::report(run);
    std::string ref = reportd::reference(reportd::upload(s.port(), desc, "carol", "no VPN\n"));
    ASSERT_FALSE(ref.empty());
    reportd::upload(s.port(), reportgen::report(reportgen::healthyRun()), "dave");

    auto list = browse(bin, dir.file("profile"), {"--dump-dom"}, base + "/");
    ASSERT_TRUE(list.exited(0)) << list.err;
    EXPECT_NE(list.out.find("<p class=\"count\">2 reports</p>"), std::string::npos) << list.out;
    auto row = list.out.find("data-reference=\"" + ref + "\"");
    ASSERT_NE(row, std::string::npos) << list.out;
    // Newest first: dave's report comes before carol's.
    EXPECT_LT(list.out.find("<td>dave</td>"), row);
    EXPECT_NE(list.out.find("<td>carol</td><td><a href=\"/reports/" + ref + "\">" + ref +
                                "</a></td><td class=\"fail\">UDP pass-through blocked (5/5 "
                                "timeouts); TCP 443 to KT IDC unanswered within 15 s</td>",
                            row),
              std::string::npos)
        << list.out;

    auto found = browse(bin, dir.file("profile"), {"--dump-dom"}, base + "/?q=CAR");
    EXPECT_NE(found.out.find("1 report matching"), std::string::npos);
    EXPECT_NE(found.out.find(ref), std::string::npos);
    EXPECT_EQ(found.out.find("dave"), std::string::npos);

    auto page = browse(bin, dir.file("profile"), {"--dump-dom"}, base + "/reports/" + ref);
    ASSERT_TRUE(page.exited(0)) << page.err;
    EXPECT_NE(page.out.find("<h2 id=\"reference\">" + ref + "</h2>"), std::string::npos);
    EXPECT_NE(page.out.find("<td>UDP pass-through blocked (5/5 timeouts)</td>"), std::string::npos);
    EXPECT_NE(page.out.find("<td>TCP 443 to KT IDC unanswered within 15 s</td>"),
              std::string::npos);
    EXPECT_NE(page.out.find("<td>10.243.160.1:8081</td><td class=\"num ok\">3.250 ms</td>"),
              std::string::npos);
    EXPECT_NE(page.out.find("<td>kobvane_stdout.txt</td><td>present</td>"), std::string::npos);
    EXPECT_NE(page.out.find("<pre id=\"why\">no VPN\n</pre>"), std::string::npos);
    EXPECT_NE(page.out.find("<pre id=\"raw\">This program diagnoses your network"),
              std::string::npos);

    std::string shot = std::string(SCREENSHOT_DIR) + "/kobreportd-report-page.png";
    std::filesystem::remove(shot);
    auto sc = browse(bin, dir.file("profile"), {"--screenshot=" + shot, "--window-size=1280,1800"},
                     base + "/reports/" + ref);
    ASSERT_TRUE(sc.exited(0)) << sc.err;
    std::string png = kobtest::readFile(shot);
    ASSERT_GT(png.size(), 10000u);
    EXPECT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n");
}
