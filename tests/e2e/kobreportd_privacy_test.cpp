// What a viewer of kobreportd's staff side sees of the user's own data, on
// both databases: no address of the user's machine or network, MAC, home
// directory or e-mail address on any page or in any JSON answer, before and
// after the raw text expires; the operator's targets readable; and verdicts
// that are the admin's, whatever masking does to the text.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "store_fixture.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

namespace {

using Json = nlohmann::json;

// What the user's machine and network are, as the report writes them; none
// may reach a viewer.
const std::vector<std::string> kPersonal = {
    "192.168.1.23",
    "a4:83:e7:01:02:03",
    "a4-83-e7-01-02-03",
    "2001:db8:5:6::17",
    "fe80::1c2b:3dff:fe4e:5f60",
    "203.0.113.77",
    "10.51.135",
    "joansmith",
    "joan.doe@example.org",
    "198.51.100.14",
};

// A run whose captures, routes, traceroute and logs name the user's own
// machine and network.  With `stuck`, the traceroute stops at the user's
// provider and the public probes fail.
std::string personalReport(bool stuck) {
    auto run = reportgen::healthyRun();
    run.username = "joan";
    run.ifconfig = "en0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500\n"
                   "\tether a4:83:e7:01:02:03\n"
                   "\tinet6 fe80::1c2b:3dff:fe4e:5f60%en0 prefixlen 64 scopeid 0x4\n"
                   "\tinet 192.168.1.23 netmask 0xffffff00 broadcast 192.168.1.255\n"
                   "\tinet6 2001:db8:5:6::17 prefixlen 64 autoconf\n";
    run.netstatRn = "Routing tables\n\nInternet:\n"
                    "Destination        Gateway            Flags        Netif Expire\n"
                    "default            192.168.1.1        UGScg          en0\n"
                    "10.51.135/24       link#4             UCS            en0      !\n"
                    "127.0.0.1          127.0.0.1          UH             lo0\n";
    if (stuck) {
        run.udp.assign(5, reportgen::udpTimeout());
        run.traceroute = " 1  192.168.1.1  1.123 ms  0.998 ms  1.004 ms\n"
                         " 2  203.0.113.77  5.310 ms  5.122 ms  5.200 ms\n"
                         " 3  * * *\n 4  * * *\n";
    }
    run.logs["kobvane_stdout.txt"] = "opened /Users/joansmith/Library/Logs/vane.log\n"
                                     "peer 198.51.100.14 answered from a4-83-e7-01-02-03\n"
                                     "account joan.doe@example.org signed in\n";
    return reportgen::report(run);
}

class Privacy : public OnEitherStore {};

// The verdicts of a report's JSON: rule, level and area of each.
std::set<std::string> verdicts(const std::string &body) {
    std::set<std::string> out;
    Json j = Json::parse(body, nullptr, false);
    if (j.is_object() && j.contains("findings") && j["findings"].is_object())
        j = j["findings"];
    if (!j.is_object() || !j.contains("verdict_levels"))
        return out;
    for (const auto &v : j["verdict_levels"])
        out.insert(v.value("rule", "?") + " " + v.value("level", "?") + " " + v.value("area", "?"));
    return out;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Privacy, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Privacy, NoViewerSurfaceShowsTheUsersDataAndVerdictsAreTheAdminsBeforeAndAfterPurge) {
    std::string stuck, healthy, viewerToken;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        stuck = reportd::reference(reportd::upload(s.port(), personalReport(true), "joan",
                                                   "it stops at joan.doe@example.org's home\n"));
        healthy = reportd::reference(reportd::upload(s.port(), personalReport(false), "joan"));
        ASSERT_FALSE(stuck.empty());
        ASSERT_FALSE(healthy.empty());
        ASSERT_EQ(s.stop(), 0);
    }
    auto token = reportd::command(KOBREPORTD_BIN, {"token", "add", "viewer", "--db", db});
    ASSERT_EQ(token.status, 0);
    viewerToken = token.out.substr(0, token.out.size() - 1);

    for (bool purged : {false, true}) {
        SCOPED_TRACE(purged ? "after purge" : "before purge");
        if (purged) {
            auto purge =
                reportd::command(KOBREPORTD_BIN, {"purge", "--older-than", "0", "--db", db});
            ASSERT_EQ(purge.status, 0) << purge.err;
        }
        reportd::Server s(KOBREPORTD_BIN, db);
        reportd::Browser viewer = s.signedIn("viewer");
        std::vector<std::pair<std::string, std::string>> seen;
        for (const std::string &path : std::vector<std::string>{
                 "/", "/?q=joan", "/reports/" + stuck, "/reports/" + healthy, "/users/joan",
                 "/compare?a=" + stuck + "&b=" + healthy, "/fleet", "/fleet?window=30d",
                 "/fleet/reports?area=udp&target=UDP%20pass-through&window=30d"}) {
            auto r = viewer.get(path);
            EXPECT_EQ(r.status, 200) << path;
            seen.emplace_back(path, r.body);
        }
        if (!purged)
            seen.emplace_back("/reports/" + stuck + "/raw",
                              viewer.get("/reports/" + stuck + "/raw").body);
        auto api = [&](const std::string &path) {
            return reportd::request(s.staffPort(), "GET", path,
                                    "Authorization: Bearer " + viewerToken + "\r\n");
        };
        for (const std::string &path : std::vector<std::string>{
                 "/api/reports", "/api/reports?q=joan", "/api/reports/" + stuck,
                 "/api/reports/" + healthy, "/api/users/joan",
                 "/api/compare?a=" + stuck + "&b=" + healthy, "/api/fleet?window=30d"}) {
            auto r = api(path);
            EXPECT_EQ(r.status, 200) << path;
            seen.emplace_back(path, r.body);
        }
        for (const auto &[path, body] : seen)
            for (const std::string &secret : kPersonal)
                EXPECT_EQ(body.find(secret), std::string::npos)
                    << path << " shows " << secret << ":\n"
                    << body.substr(body.find(secret) > 200 ? body.find(secret) - 200 : 0, 400);

        // The operator's target stays readable where the verdict names it.
        std::string target = reportgen::healthyRun().ktIdc;
        EXPECT_NE(viewer.get("/reports/" + healthy).body.find(target), std::string::npos);

        // What the viewer is told is the admin's verdict, rule by rule.
        for (const std::string &ref : {stuck, healthy}) {
            auto shown = verdicts(api("/api/reports/" + ref).body);
            auto admin = verdicts(s.api("/api/reports/" + ref + "?reveal=1").body);
            EXPECT_FALSE(shown.empty()) << ref;
            EXPECT_EQ(shown, admin) << ref;
        }
        EXPECT_NE(api("/api/reports/" + stuck).body.find("udp.blocked"), std::string::npos);
        ASSERT_EQ(s.stop(), 0);
        // The server's own lines name no user either.
        for (const std::string &secret : kPersonal)
            EXPECT_EQ(s.errors().find(secret), std::string::npos) << secret;
    }
}

TEST_P(Privacy, TheUnmaskedTextIsDownloadedAndTheMaskedOneRead) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), personalReport(false), "joan"));
    reportd::Browser admin = s.signedIn("admin");
    ASSERT_EQ(admin.get("/reports/" + ref).status, 200);
    auto download = admin.post("/reports/" + ref + "/raw", {});
    EXPECT_EQ(download.status, 200);
    EXPECT_EQ(reportd::header(download, "Content-Disposition"),
              "attachment; filename=\"" + ref + ".txt\"");
    EXPECT_NE(download.body.find("inet 192.168.1.23 netmask"), std::string::npos);
    auto read = admin.get("/reports/" + ref + "/raw");
    EXPECT_EQ(read.status, 200);
    EXPECT_EQ(reportd::header(read, "Content-Disposition"), "");
    EXPECT_EQ(read.body.find("192.168.1.23"), std::string::npos);
    EXPECT_NE(read.body.find("inet 192.168.x.x netmask"), std::string::npos);
}

// A report of 60 MiB, nearly all of it one client log: its page shows the
// log's two ends within 2 MiB, and the raw text page numbers every line as
// the evidence does.  Under a sanitizer 12 MiB, still six times what the
// page may show, takes the same paths in a fifth of the time.
TEST_P(Privacy, AHugeReportsPageStaysLightAndItsRawTextIsNumbered) {
    std::string desc = reportgen::reportOfSize((kobtest::kSanitized ? 12u : 60u) << 20, 7);
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), desc, "joan"));
    ASSERT_FALSE(ref.empty());
    reportd::Browser viewer = s.signedIn("viewer");
    auto page = viewer.get("/reports/" + ref);
    ASSERT_EQ(page.status, 200);
    EXPECT_LE(page.body.size(), 2u << 20);
    EXPECT_NE(page.body.find("<h3>kobvane_stdout.txt, "), std::string::npos);
    EXPECT_NE(page.body.find(" bytes not shown here; <a href=\"/reports/" + ref +
                             "/raw\">the whole text</a> has them, its lines numbered.</p>"),
              std::string::npos);
    // The log's first and last lines are on the page.
    size_t start = desc.find("[STDOUT]\n") + 9, end = desc.find("[STDERR]\n", start);
    ASSERT_NE(end, std::string::npos);
    std::string first = desc.substr(start, desc.find('\n', start) + 1 - start);
    std::string last =
        desc.substr(desc.rfind('\n', end - 2) + 1, end - desc.rfind('\n', end - 2) - 1);
    EXPECT_NE(page.body.find("<pre class=\"log\">" + first), std::string::npos) << first;
    EXPECT_NE(page.body.find(last + "</pre>"), std::string::npos) << last;
    auto raw = viewer.get("/reports/" + ref + "/raw");
    ASSERT_EQ(raw.status, 200);
    size_t lines = static_cast<size_t>(std::count(desc.begin(), desc.end(), '\n'));
    EXPECT_EQ(raw.body.substr(0, 23), "1| " + desc.substr(0, 20));
    std::string lastLine = desc.substr(desc.rfind('\n', desc.size() - 2) + 1);
    EXPECT_EQ(raw.body.substr(raw.body.size() - lastLine.size() - std::to_string(lines).size() - 2),
              std::to_string(lines) + "| " + lastLine);
    EXPECT_EQ(
        raw.body.size(), desc.size() + 2 * lines + [&] {
            size_t digits = 0;
            for (size_t n = 1; n <= lines; n++)
                digits += std::to_string(n).size();
            return digits;
        }());
}

namespace {

uint64_t peakMemory(pid_t pid) {
    return kobtest::processMemory(pid, "VmHWM:");
}

// The peak starts again from what is resident now, where the kernel lets
// this process say so; the peak reached before (the upload's) then hides
// nothing of what the views take.
uint64_t restartPeak(pid_t pid) {
    std::ofstream refs("/proc/" + std::to_string(pid) + "/clear_refs");
    if (refs << "5" << std::flush)
        return kobtest::processMemory(pid, "VmRSS:");
    return peakMemory(pid);
}

} // namespace

TEST_P(Privacy, FourViewersOfAHugeReportRaiseThePeakByAtMost64MiB) {
    if (kobtest::kSanitized)
        GTEST_SKIP() << "under a sanitizer the server's memory is mostly the sanitizer's (shadow "
                        "and quarantine), not what the views hold";
    std::string desc = reportgen::reportOfSize(64u << 20, 11);
    // The form around a 64 MiB report is a little more than the default
    // bound.
    reportd::Server s(KOBREPORTD_BIN, db, {"--max-body", std::to_string(65u << 20)});
    std::string ref = reportd::reference(reportd::upload(s.port(), desc, "joan"));
    ASSERT_FALSE(ref.empty());
    desc.clear();
    desc.shrink_to_fit();
    std::vector<reportd::Browser> viewers;
    for (int i = 0; i < 4; i++)
        viewers.push_back(s.signedIn("viewer"));
    uint64_t before = restartPeak(s.pid());
    ASSERT_GT(before, 0u);
    std::vector<std::thread> views;
    std::vector<int> statuses(4);
    std::vector<size_t> sizes(4);
    for (int i = 0; i < 4; i++)
        views.emplace_back([&, i] {
            auto page = viewers[static_cast<size_t>(i)].get("/reports/" + ref);
            statuses[static_cast<size_t>(i)] = page.status;
            sizes[static_cast<size_t>(i)] = page.body.size();
        });
    for (auto &t : views)
        t.join();
    uint64_t after = peakMemory(s.pid());
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(statuses[static_cast<size_t>(i)], 200);
        EXPECT_LE(sizes[static_cast<size_t>(i)], 2u << 20);
    }
    std::printf("memory %.1f MiB before the views, peak %.1f MiB after\n",
                static_cast<double>(before) / (1 << 20), static_cast<double>(after) / (1 << 20));
    EXPECT_LE(after - before, uint64_t{64} << 20);
}

// A large report's page comes from the findings stored with it and the ends
// of its logs read out of the stored text; it is the very page that the
// whole text, judged again, gives.
TEST_P(Privacy, ALargeReportsPageFromItsFindingsIsThePageFromItsText) {
    auto run = reportgen::healthyRun();
    run.ifconfig = std::string(70000, 'i') + "\n<en0> & more\n";
    std::string log, other;
    for (int i = 0; log.size() < (3u << 20); i++)
        log += "line " + std::to_string(i) + " <tag a=\"" + std::string(i % 300, 'x') + "\"> & \n";
    for (int i = 0; other.size() < 100000; i++)
        other += "err " + std::to_string(i) + " \xc3\xa9\xe2\x82\xac\n";
    run.logs["kobvane_stdout.txt"] = log;
    run.logs["kobvane_stderr.txt"] = other;
    run.logs["kobrun_stdout.txt"] = std::string(200000, 'z'); // one line, no line feed
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), reportgen::report(run), "joan"));
    ASSERT_FALSE(ref.empty());
    ASSERT_EQ(reportd::databaseValue(db, "SELECT count(*) FROM reports WHERE findings_zstd IS NOT"
                                         " NULL"),
              "1");
    // A report of ordinary size keeps none: its page reads its text again.
    ASSERT_FALSE(reportd::reference(reportd::upload(s.port(), personalReport(false))).empty());
    EXPECT_EQ(reportd::databaseValue(db, "SELECT count(*) FROM reports WHERE findings_zstd IS NOT"
                                         " NULL"),
              "1");
    reportd::Browser viewer = s.signedIn("viewer");
    auto fromFindings = viewer.get("/reports/" + ref);
    ASSERT_EQ(fromFindings.status, 200);
    // Without its findings, as a report stored by an earlier version.
    reportd::databaseValue(db, "UPDATE reports SET findings_zstd = NULL");
    auto fromText = viewer.get("/reports/" + ref);
    ASSERT_EQ(fromText.status, 200);
    EXPECT_EQ(fromFindings.body.size(), fromText.body.size());
    EXPECT_TRUE(fromFindings.body == fromText.body);
    EXPECT_NE(fromText.body.find("bytes not shown here"), std::string::npos);
    EXPECT_NE(fromText.body.find("&lt;tag a="), std::string::npos);
}
