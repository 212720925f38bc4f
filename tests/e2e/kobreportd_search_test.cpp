// The list's filters and search, and its export, on both databases: every
// filter alone and together with exact result sets, every form of a
// reference, the user's comment words, from and to across a day boundary,
// CSV and JSON lines equal to the list and masked for a viewer, audited;
// and the API read with a browser's session.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "store_fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

// 2026-11-20 23:59:30 UTC, half a minute before the next day.
constexpr std::time_t kLateDay1 = 1795219170;

class Search : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        if (db.empty())
            return;
        kobtest::writeFile(clockFile, "");
        server = std::make_unique<reportd::Server>(
            KOBREPORTD_BIN, db, std::vector<std::string>{}, true,
            std::vector<std::string>{"KOBREPORTD_TEST_CLOCK=" + clockFile});
        // alice: healthy, 2026-11-20 23:59:30; bob: UDP blocked, with an
        // older kobdiag, 00:00:30 the next day; carol: one TCP probe
        // unanswered, 10:00; dave: one intranet gateway silent, 12:00.
        auto alice = reportgen::healthyRun();
        alice.username = "alice";
        auto bob = reportgen::healthyRun();
        bob.username = "bob";
        bob.udp.assign(5, reportgen::udpTimeout());
        auto carol = reportgen::healthyRun();
        carol.username = "carol";
        carol.tcp[3] = reportgen::tcpTimeout();
        auto dave = reportgen::healthyRun();
        dave.username = "dave";
        dave.intranet[0] = reportgen::tcpTimeout();
        std::string bobText = reportgen::report(bob);
        std::string from = "==> Package Version: 4.4.1", to = "==> Package Version: 4.3.0";
        bobText.replace(bobText.find(from), from.size(), to);
        struct Upload {
            std::time_t at;
            std::string text;
            const char *form, *why;
        } uploads[] = {
            {kLateDay1, reportgen::report(alice), nullptr, "The tunnel drops every evening"},
            {kLateDay1 + 60, bobText, "bob", "VPN slow since Monday"},
            {kLateDay1 + 30 + 10 * 3600, reportgen::report(carol), "joe@example.com", nullptr},
            {kLateDay1 + 30 + 12 * 3600, reportgen::report(dave), nullptr, "tunnel fine now"},
        };
        for (const auto &u : uploads) {
            kobtest::writeFile(clockFile, std::to_string(u.at) + "\n");
            auto r = reportd::upload(server->port(), u.text, u.form, u.why);
            refs.push_back(reportd::reference(r));
            if (refs.back().empty()) {
                server->stop();
                FAIL() << r.raw << server->errors();
            }
        }
    }

    // The references /api/reports gives for a query, newest first.
    std::vector<std::string> found(const std::string &query) {
        auto r = server->api("/api/reports?" + query);
        EXPECT_EQ(r.status, 200) << query << "\n" << r.body;
        std::vector<std::string> out;
        auto j = nlohmann::json::parse(r.body, nullptr, false);
        if (j.is_discarded())
            return {"<not JSON: " + r.body + ">"};
        for (const auto &item : j["reports"])
            out.push_back(item["reference"]);
        EXPECT_EQ(j["total"], out.size()) << query;
        return out;
    }

    std::vector<std::string> some(std::initializer_list<int> which) {
        std::vector<std::string> out;
        for (int i : which)
            out.push_back(refs[static_cast<size_t>(i)]);
        return out;
    }

    std::string clockFile = dir.file("clock");
    std::unique_ptr<reportd::Server> server;
    std::vector<std::string> refs; // alice, bob, carol, dave
};

enum { Alice, Bob, Carol, Dave };

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Search, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Search, EachFilterAloneAndTogetherGivesExactlyItsReports) {
    struct Case {
        std::string query;
        std::vector<std::string> refs;
    } cases[] = {
        {"", some({Dave, Carol, Bob, Alice})},
        {"q=alice", some({Alice})},
        {"q=JOE", some({Carol})},
        {"q=tunnel", some({Dave, Alice})},
        {"q=Tunnel+DROPS", some({Alice})},
        {"q=evening", some({Alice})},
        {"q=vpn", some({Bob})},
        {"q=nobody", {}},
        {"rule=udp.blocked", some({Bob})},
        {"rule=udp.works", some({Dave, Carol, Alice})},
        {"rule=no.such", {}},
        {"level=fail", some({Carol, Bob})},
        {"level=warn", some({Dave})},
        {"level=ok", some({Alice})},
        {"area=udp", some({Bob})},
        {"area=tcp", some({Carol})},
        {"area=intranet", some({Dave})},
        {"version=4.3.0", some({Bob})},
        {"version=4.4.1", some({Dave, Carol, Alice})},
        // The day boundary: alice half a minute before it, bob half a
        // minute after.
        {"from=2026-11-21", some({Dave, Carol, Bob})},
        {"to=2026-11-20", some({Alice})},
        {"from=2026-11-20&to=2026-11-20", some({Alice})},
        {"from=2026-11-20T23:59&to=2026-11-21T00:00", some({Bob, Alice})},
        {"from=2026-11-21T00:00:30&to=2026-11-21T00:00:30", some({Bob})},
        {"to=2026-11-20T23:59:29", {}},
        {"from=2026-11-21T00:00:31Z", some({Dave, Carol})},
        // Together: every filter must hold.
        {"level=fail&version=4.4.1", some({Carol})},
        {"q=tunnel&level=ok", some({Alice})},
        {"q=tunnel&from=2026-11-21", some({Dave})},
        {"rule=udp.blocked&level=warn", {}},
        {"area=udp&level=fail&from=2026-11-21&to=2026-11-21&version=4.3.0&q=bob", some({Bob})},
        {"level=&rule=&q=", some({Dave, Carol, Bob, Alice})}, // empty fields filter nothing
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.query);
        EXPECT_EQ(found(c.query), c.refs);
    }
    struct Refused {
        std::string query, body;
    } refused[] = {
        {"level=bad", "{\"error\":\"level is one of fail, warn, ok\"}"},
        {"from=2026-11-31",
         "{\"error\":\"from is a date (YYYY-MM-DD) or a date and time (YYYY-MM-DDThh:mm or "
         "YYYY-MM-DDThh:mm:ss)\"}"},
        {"to=yesterday", "{\"error\":\"to is a date (YYYY-MM-DD) or a date and time "
                         "(YYYY-MM-DDThh:mm or YYYY-MM-DDThh:mm:ss)\"}"},
        {"format=xml", "{\"error\":\"format is csv or jsonl\"}"},
    };
    for (const auto &r : refused) {
        SCOPED_TRACE(r.query);
        auto a = server->api("/api/reports?" + r.query);
        EXPECT_EQ(a.status, 400);
        EXPECT_EQ(a.body, r.body);
    }
    // What the filters read is stored beside each report.
    EXPECT_EQ(
        value("SELECT level || ' ' || version FROM reports WHERE reference = '" + refs[Bob] + "'"),
        "fail 4.3.0");
    EXPECT_EQ(value("SELECT count(*) FROM report_verdicts v JOIN reports r ON r.id = v.report_id"
                    " WHERE r.reference = '" +
                    refs[Bob] + "' AND v.rule = 'udp.blocked' AND v.problem = 1"),
              "1");
}

// A name and a comment may both match, in different reports or in the same
// one: each report is listed and counted once.  A deleted report's names
// leave the table of names unless another report gives them.
TEST_P(Search, NamesAndCommentWordsTogetherCountEachReportOnceAndDeletedNamesGo) {
    auto eve = reportgen::healthyRun();
    eve.username = "eve";
    auto tester = reportgen::healthyRun();
    tester.username = "tunnel-tester";
    kobtest::writeFile(clockFile, std::to_string(kLateDay1 + 13 * 3600) + "\n");
    std::string eveRef = reportd::reference(reportd::upload(
        server->port(), reportgen::report(eve), nullptr, "alice says the tunnel drops"));
    kobtest::writeFile(clockFile, std::to_string(kLateDay1 + 14 * 3600) + "\n");
    std::string testerRef = reportd::reference(
        reportd::upload(server->port(), reportgen::report(tester), "alice", "the tunnel is down"));
    ASSERT_FALSE(eveRef.empty());
    ASSERT_FALSE(testerRef.empty());
    // alice by name (hers and the tester's form) and by eve's comment.
    EXPECT_EQ(found("q=alice"), (std::vector<std::string>{testerRef, eveRef, refs[Alice]}));
    // tunnel by the tester's name and comment both, and by three comments.
    EXPECT_EQ(found("q=tunnel"),
              (std::vector<std::string>{testerRef, eveRef, refs[Dave], refs[Alice]}));
    EXPECT_EQ(found("q=tester"), (std::vector<std::string>{testerRef}));
    EXPECT_EQ(found("q=tunnel&level=warn"), (std::vector<std::string>{refs[Dave]}));
    EXPECT_EQ(value("SELECT count(*) FROM user_names WHERE name IN ('alice', 'tunnel-tester')"),
              "2");

    reportd::Browser admin = server->signedIn("admin");
    ASSERT_EQ(admin.post("/reports/" + testerRef + "/delete", {{"confirm", "yes"}}).status, 303);
    // alice still names her own report; the tester's name named only theirs.
    EXPECT_EQ(value("SELECT count(*) FROM user_names WHERE name = 'alice'"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM user_names WHERE name = 'tunnel-tester'"), "0");
    EXPECT_EQ(found("q=tester"), std::vector<std::string>{});
    EXPECT_EQ(found("q=tunnel"), (std::vector<std::string>{eveRef, refs[Dave], refs[Alice]}));
}

// A name and comment search over more than a page: the pages together are
// every match once, newest first, however the two kinds interleave.
TEST_P(Search, PagesOfANameAndWordSearchTakeEveryMatchOnceNewestFirst) {
    std::vector<std::string> expected;
    auto run = reportgen::healthyRun();
    for (int i = 0; i < 61; i++) {
        kobtest::writeFile(clockFile, std::to_string(kLateDay1 + 86400 + i) + "\n");
        // By name, by comment, or (each tenth) by both.
        run.username = i % 2 ? "pager" : "someone";
        const char *why = i % 2 == 0 || i % 10 == 1 ? "the pager rang" : nullptr;
        expected.insert(expected.begin(),
                        reportd::reference(
                            reportd::upload(server->port(), reportgen::report(run), nullptr, why)));
        ASSERT_FALSE(expected.front().empty());
    }
    std::vector<std::string> pages;
    for (int pg : {1, 2}) {
        auto r = server->api("/api/reports?q=pager&page=" + std::to_string(pg));
        ASSERT_EQ(r.status, 200);
        auto j = nlohmann::json::parse(r.body);
        EXPECT_EQ(j["total"], 61);
        EXPECT_EQ(j["reports"].size(), pg == 1 ? 50u : 11u);
        for (const auto &item : j["reports"])
            pages.push_back(item["reference"]);
    }
    EXPECT_EQ(pages, expected);
}

// A database as the layout before left it, its names only in the reports
// and, on PostgreSQL, its comments' words in a column of the reports: both
// are found as before once it is brought up to date.
TEST_P(Search, ADatabaseOfTheLayoutBeforeFindsItsNamesAndWordsAfterTheUpgrade) {
    ASSERT_EQ(server->stop(), 0);
    value("DROP TABLE user_names");
    value("DROP INDEX reports_by_report_user");
    if (GetParam() == "postgres") {
        value("ALTER TABLE reports ADD COLUMN words tsvector");
        value("UPDATE reports SET words = w.words FROM report_words w WHERE w.report_id = "
              "reports.id");
        value("DROP TABLE report_words");
        value("CREATE INDEX reports_by_words ON reports USING gin (words)");
    }
    value("UPDATE kob_meta SET value = '" + std::to_string(reportd::kLayout - 1) +
          "' WHERE key = 'schema'");
    server = std::make_unique<reportd::Server>(
        KOBREPORTD_BIN, db, std::vector<std::string>{}, true,
        std::vector<std::string>{"KOBREPORTD_TEST_CLOCK=" + clockFile});
    EXPECT_EQ(value("SELECT value FROM kob_meta WHERE key = 'schema'"),
              std::to_string(reportd::kLayout));
    EXPECT_EQ(found("q=tunnel"), some({Dave, Alice}));
    EXPECT_EQ(found("q=JOE"), some({Carol}));
    EXPECT_EQ(found("q=vpn"), some({Bob}));
    EXPECT_EQ(value("SELECT count(*) FROM user_names"), "5"); // and joe@example.com
    if (GetParam() == "postgres") {
        EXPECT_EQ(value("SELECT count(*) FROM report_words"), "3");
        EXPECT_EQ(value("SELECT count(*) FROM information_schema.columns WHERE"
                        " table_name = 'reports' AND column_name = 'words'"),
                  "0");
    }
}

TEST_P(Search, AReferenceIsFoundInEachOfItsFormsAndAWholeOneOpens) {
    const std::string &ref = refs[Carol]; // KOB-20261121-NNNNNNNNN
    std::string day = ref.substr(4, 8), number = ref.substr(13);
    std::string spaced;
    for (char c : ref)
        spaced += std::string(1, c) + (c == '-' ? " " : "");
    std::vector<std::string> whole = {
        ref,
        "kob-" + day + "-" + number,
        " KOB - " + day.substr(0, 4) + " " + day.substr(4) + " - " + number + " ",
        day + "-" + number,
        day + number,
        "KOB" + day + number,
    };
    reportd::Browser staff = server->signedIn("viewer");
    for (const auto &form : whole) {
        SCOPED_TRACE(form);
        EXPECT_EQ(found("q=" + reportd::formEncode({{"x", form}}).substr(2)), some({Carol}));
        auto page = staff.get("/?" + reportd::formEncode({{"q", form}}));
        EXPECT_EQ(page.status, 303);
        EXPECT_EQ(reportd::header(page, "Location"), "/reports/" + ref);
    }
    // The last six digits, and the day's beginning, give a list.
    std::string six = ref.substr(ref.size() - 6);
    EXPECT_EQ(found("q=" + six), some({Carol}));
    auto byDigits = staff.get("/?q=" + six);
    EXPECT_EQ(byDigits.status, 200);
    EXPECT_NE(byDigits.body.find("1 report matching \xe2\x80\x9c" + six + "\xe2\x80\x9d"),
              std::string::npos)
        << byDigits.body;
    EXPECT_EQ(found("q=KOB-20261121"), some({Dave, Carol, Bob}));
    EXPECT_EQ(found("q=KOB-20261120-"), some({Alice}));
    // A whole reference that names no report is an empty list, not a
    // redirect.
    auto none = staff.get("/?q=KOB-20261121-000000001");
    EXPECT_EQ(none.status, 200);
    EXPECT_NE(none.body.find("<p class=\"count\" id=\"empty\">No report matches all of "
                             "\xe2\x80\x9cKOB-20261121-000000001\xe2\x80\x9d. Each filter narrows "
                             "the list: remove one to widen it.</p>"),
              std::string::npos)
        << none.body;
}

TEST_P(Search, TheListPageFiltersByItsURLAndSaysWhatFoundNothing) {
    reportd::Browser staff = server->signedIn("viewer");
    auto fail = staff.get("/?level=fail&from=2026-11-21");
    EXPECT_EQ(fail.status, 200);
    EXPECT_NE(fail.body.find("2 reports matching level \xe2\x80\x9c"
                             "fail\xe2\x80\x9d, from "
                             "\xe2\x80\x9c"
                             "2026-11-21\xe2\x80\x9d</p>"),
              std::string::npos)
        << fail.body;
    EXPECT_NE(fail.body.find("data-reference=\"" + refs[Carol] + "\""), std::string::npos);
    EXPECT_NE(fail.body.find("data-reference=\"" + refs[Bob] + "\""), std::string::npos);
    EXPECT_EQ(fail.body.find("data-reference=\"" + refs[Alice] + "\""), std::string::npos);
    // The form shows the filters in effect, and the export links carry them.
    EXPECT_NE(fail.body.find("<option value=\"fail\" selected>fail</option>"), std::string::npos);
    EXPECT_NE(fail.body.find("href=\"/?level=fail&amp;from=2026-11-21&amp;format=csv\""),
              std::string::npos);
    auto none = staff.get("/?q=tunnel&level=fail");
    EXPECT_EQ(none.status, 200);
    EXPECT_NE(none.body.find("<p class=\"count\" id=\"empty\">No report matches all of q "
                             "\xe2\x80\x9ctunnel\xe2\x80\x9d, level \xe2\x80\x9c"
                             "fail\xe2\x80\x9d. Each filter narrows the list: remove one to "
                             "widen it.</p>"),
              std::string::npos)
        << none.body;
    EXPECT_EQ(none.body.find("<table id=\"reports\""), std::string::npos);
    auto bad = staff.get("/?level=worst");
    EXPECT_EQ(bad.status, 400);
    EXPECT_NE(bad.body.find("Not searched: level is one of fail, warn, ok."), std::string::npos);
}

// A row of the list is one line: the worst verdict's level as a word in a
// badge, and the title of that verdict's rule; of two failures, the one the
// report page lists first.  The API gives the same level and title.  A
// report judged before levels were kept shows its summary until retriage
// judges it again.
TEST_P(Search, EachRowOfTheListShowsItsWorstVerdictsLevelAndRuleTitle) {
    // erin: UDP blocked and a TCP probe unanswered, two failures.
    auto erin = reportgen::healthyRun();
    erin.username = "erin";
    erin.udp.assign(5, reportgen::udpTimeout());
    erin.tcp[3] = reportgen::tcpTimeout();
    kobtest::writeFile(clockFile, std::to_string(kLateDay1 + 13 * 3600) + "\n");
    std::string erinRef =
        reportd::reference(reportd::upload(server->port(), reportgen::report(erin)));
    ASSERT_FALSE(erinRef.empty());
    auto row = [](const std::string &ref, const std::string &time, const std::string &user,
                  const std::string &level, const std::string &title) {
        return "<tr class=\"report\" data-reference=\"" + ref + "\"><td class=\"time\">" + time +
               "</td><td class=\"user\">" + user + "</td><td class=\"ref\"><a href=\"/reports/" +
               ref + "\">" + ref + "</a></td><td class=\"level\">" + level +
               "</td><td class=\"title\">" + title + "</td></tr>\n";
    };
    const std::string fail = "<span class=\"badge fail\">FAIL</span>",
                      warn = "<span class=\"badge warn\">WARN</span>",
                      ok = "<span class=\"badge ok\">OK</span>";
    const std::string head = "<table id=\"reports\" class=\"reports\"><thead><tr><th>Received</th>"
                             "<th>User</th><th>Reference</th><th>Level</th><th>Worst verdict</th>"
                             "</tr></thead><tbody>\n";
    const std::string carol = row(refs[Carol], "2026-11-21 10:00:00 UTC",
                                  "\xe2\x80\xa6@example.com", fail, "TCP probe unanswered");
    const std::string dave =
        row(refs[Dave], "2026-11-21 12:00:00 UTC", "dave", warn, "Intranet partly reachable");
    const std::string alice =
        row(refs[Alice], "2026-11-20 23:59:30 UTC", "alice", ok, "no problem found");
    reportd::Browser staff = server->signedIn("viewer");
    auto page = staff.get("/");
    EXPECT_NE(page.body.find(head +
                             row(erinRef, "2026-11-21 12:59:30 UTC", "erin", fail, "UDP blocked") +
                             dave + carol +
                             row(refs[Bob], "2026-11-21 00:00:30 UTC", "bob", fail, "UDP blocked") +
                             alice + "</tbody></table>\n"),
              std::string::npos)
        << page.body;

    auto j = nlohmann::json::parse(server->api("/api/reports").body, nullptr, false);
    std::vector<std::string> shown;
    for (const auto &item : j["reports"])
        shown.push_back(item["level"].get<std::string>() + " " + item["title"].get<std::string>());
    EXPECT_EQ(shown, (std::vector<std::string>{"fail UDP blocked", "warn Intranet partly reachable",
                                               "fail TCP probe unanswered", "fail UDP blocked",
                                               "ok no problem found"}));

    // As a report stored before levels and verdicts were kept.
    std::string bob = "reference = '" + refs[Bob] + "'";
    value("UPDATE reports SET level = '', rules = 0 WHERE " + bob);
    value("DELETE FROM report_verdicts WHERE report_id = (SELECT id FROM reports WHERE " + bob +
          ")");
    const std::string bobBefore = row(refs[Bob], "2026-11-21 00:00:30 UTC", "bob", "",
                                      "UDP pass-through blocked (5/5 timeouts)");
    page = staff.get("/?from=2026-11-20&to=2026-11-21T11:00");
    EXPECT_NE(page.body.find(head + carol + bobBefore + alice + "</tbody>"), std::string::npos)
        << page.body;
    server->stop();
    auto run = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    ASSERT_EQ(run.status, 0) << run.err;
    server = std::make_unique<reportd::Server>(
        KOBREPORTD_BIN, db, std::vector<std::string>{}, true,
        std::vector<std::string>{"KOBREPORTD_TEST_CLOCK=" + clockFile});
    page = server->signedIn("viewer").get("/?q=bob");
    EXPECT_NE(page.body.find(head +
                             row(refs[Bob], "2026-11-21 00:00:30 UTC", "bob", fail, "UDP blocked") +
                             "</tbody>"),
              std::string::npos)
        << page.body;
}

TEST_P(Search, ExportsAreTheFilteredListMaskedForAViewerAndAudited) {
    reportd::Browser viewer = server->signedIn("viewer");
    auto csv = viewer.get("/?from=2026-11-21&format=csv");
    EXPECT_EQ(csv.status, 200);
    EXPECT_EQ(reportd::header(csv, "Content-Type"), "text/csv; charset=utf-8; header=present");
    EXPECT_EQ(reportd::header(csv, "Content-Disposition"), "attachment; filename=\"reports.csv\"");
    auto api = [&](int i) {
        auto j = nlohmann::ordered_json::parse(server->api("/api/reports?q=" + refs[i]).body);
        return j["reports"][0];
    };
    std::string expected = "reference,received_at,username,form_username,report_username,level,"
                           "version,summary,size,raw_expired\r\n";
    for (int i : {Dave, Carol, Bob}) {
        auto j = api(i);
        std::string user = j["username"];
        std::string summary = j["summary"];
        std::string form = j["form_username"].is_null() ? "" : std::string(j["form_username"]);
        const char *report = i == Dave ? "dave" : i == Carol ? "carol" : "bob";
        if (summary.find(',') != std::string::npos)
            summary = "\"" + summary + "\"";
        expected += refs[static_cast<size_t>(i)] + "," + std::string(j["received_at"]) + "," +
                    user + "," + form + "," + report + "," + std::string(j["level"]) + "," +
                    std::string(j["version"]) + "," + summary + "," +
                    std::to_string(static_cast<long long>(j["size"])) + ",false\r\n";
    }
    // The viewer's copy hides the person in the e-mail address, as the
    // list does.
    EXPECT_EQ(csv.body, expected);
    EXPECT_NE(csv.body.find(",\xe2\x80\xa6@example.com,"), std::string::npos);
    EXPECT_EQ(csv.body.find("joe@"), std::string::npos);

    auto jsonl = viewer.get("/?level=fail&format=jsonl");
    EXPECT_EQ(jsonl.status, 200);
    EXPECT_EQ(reportd::header(jsonl, "Content-Type"), "application/x-ndjson");
    std::string lines;
    for (int i : {Carol, Bob})
        lines += api(i).dump() + "\n";
    EXPECT_EQ(lines.find("joe@"), std::string::npos);
    EXPECT_EQ(jsonl.body, lines);

    // With a token, the same list.
    auto byToken = server->api("/api/reports?level=fail&format=jsonl");
    EXPECT_EQ(byToken.status, 200);
    EXPECT_EQ(byToken.body, lines);
    // Quotes, commas and line breaks in a field are quoted as RFC 4180 says.
    kobtest::writeFile(clockFile, std::to_string(kLateDay1 + 86400) + "\n");
    auto odd = reportgen::healthyRun();
    std::string oddRef = reportd::reference(reportd::upload(server->port(), reportgen::report(odd),
                                                            "say \"hi\", then\nleave", "quoted"));
    auto quoted = server->api("/api/reports?q=quoted&format=csv");
    EXPECT_NE(quoted.body.find("\r\n" + oddRef +
                               ",2026-11-21T23:59:30Z,\"say \"\"hi\"\", then\n"
                               "leave\",\"say \"\"hi\"\", then\nleave\",alice,"),
              std::string::npos)
        << quoted.body;

    // A name that a spreadsheet would take for a formula stays text.
    std::string formulaRef =
        reportd::reference(reportd::upload(server->port(), reportgen::report(odd),
                                           "=HYPERLINK(\"http://x.example/\",\"a\")", "formula"));
    auto formula = server->api("/api/reports?q=formula&format=csv");
    EXPECT_NE(formula.body.find(
                  "\r\n" + formulaRef +
                  ",2026-11-21T23:59:30Z,\"'=HYPERLINK(\"\"http://x.example/\"\",\"\"a\"\")\","
                  "\"'=HYPERLINK(\"\"http://x.example/\"\",\"\"a\"\")\",alice,"),
              std::string::npos)
        << formula.body;
    // JSON lines are data for programs, and keep the name as it came.
    EXPECT_NE(
        server->api("/api/reports?q=formula&format=jsonl")
            .body.find("\"form_username\":\"=HYPERLINK(\\\"http://x.example/\\\",\\\"a\\\")\""),
        std::string::npos);

    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'reports.exported'"), "6");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'reports.exported' ORDER BY id"
                    " LIMIT 1"),
              "csv from=2026-11-21");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'reports.exported' ORDER BY id DESC"
                    " LIMIT 1"),
              "jsonl q=formula");
}

TEST_P(Search, TheAPIReadsABrowsersSessionAndRefusesItsChangesWithoutTheFormToken) {
    reportd::Browser staff = server->signedIn("admin");
    auto j = staff.get("/api/reports/" + refs[Bob]);
    EXPECT_EQ(j.status, 200);
    EXPECT_EQ(j.body.rfind("{\"reference\":\"" + refs[Bob] + "\"", 0), 0u) << j.body;
    std::string cookie = "Cookie: kob_session=" + staff.cookie("kob_session") + "\r\n";
    auto del = reportd::request(server->staffPort(), "DELETE", "/api/reports/" + refs[Bob], cookie);
    EXPECT_EQ(del.status, 403);
    EXPECT_EQ(del.body, "{\"error\":\"a change from a browser session needs its form token\"}");
    EXPECT_EQ(found("q=" + refs[Bob]), some({Bob}));
    auto ok = reportd::request(server->staffPort(), "DELETE",
                               "/api/reports/" + refs[Bob] + "?csrf=" + staff.csrf(), cookie);
    EXPECT_EQ(ok.status, 200);
    EXPECT_EQ(found("q=" + refs[Bob]), std::vector<std::string>{});
    // Deleting takes its verdicts and comment words with it.
    EXPECT_EQ(found("q=vpn"), std::vector<std::string>{});
    EXPECT_EQ(value("SELECT count(*) FROM report_verdicts WHERE rule = 'udp.blocked'"), "0");
    // No session and no token: refused as before.
    auto anon = reportd::request(server->staffPort(), "GET", "/api/reports");
    EXPECT_EQ(anon.status, 401);
    auto bogus = reportd::request(server->staffPort(), "GET", "/api/reports",
                                  "Cookie: kob_session=nothing\r\n");
    EXPECT_EQ(bogus.status, 401);
}

TEST_P(Search, AFilteredListIsSavedUnderANameSharedOrNotAndAudited) {
    std::string annName, benName;
    reportd::Browser ann = server->signedIn("viewer", &annName);
    reportd::Browser ben = server->signedIn("viewer", &benName);
    ASSERT_EQ(ann.get("/?level=fail").status, 200);
    // Without the form's token: refused, nothing saved.
    auto forged = reportd::request(server->staffPort(), "POST", "/views",
                                   "Content-Type: application/x-www-form-urlencoded\r\nCookie: "
                                   "kob_session=" +
                                       ann.cookie("kob_session") + "\r\n",
                                   "name=x&query=level%3Dfail");
    EXPECT_EQ(forged.status, 403);
    EXPECT_EQ(value("SELECT count(*) FROM saved_views"), "0");

    auto mine = ann.post("/views", {{"name", "Failing"}, {"query", "level=fail"}});
    EXPECT_EQ(mine.status, 303);
    EXPECT_EQ(reportd::header(mine, "Location"), "/?level=fail");
    auto ours = ann.post(
        "/views",
        {{"name", "Tunnel <today>"}, {"query", "q=tunnel&from=2026-11-21"}, {"shared", "1"}});
    EXPECT_EQ(ours.status, 303);
    EXPECT_EQ(ann.post("/views", {{"name", "Failing"}, {"query", "level=warn"}}).status, 409);
    EXPECT_EQ(ann.post("/views", {{"name", "Bad"}, {"query", "\"><b>"}}).status, 400);

    auto annList = ann.get("/");
    EXPECT_NE(annList.body.find("<a href=\"/?level=fail\">Failing</a>"), std::string::npos)
        << annList.body;
    EXPECT_NE(annList.body.find("<a href=\"/?q=tunnel&amp;from=2026-11-21\">Tunnel "
                                "&lt;today&gt;</a> <span class=\"shared\">shared by " +
                                annName + "</span>"),
              std::string::npos);
    // The other sees the shared one only, and cannot delete it.
    auto benList = ben.get("/");
    EXPECT_EQ(benList.body.find(">Failing</a>"), std::string::npos);
    EXPECT_NE(benList.body.find(">Tunnel &lt;today&gt;</a>"), std::string::npos);
    std::string id = value("SELECT id FROM saved_views WHERE name = 'Tunnel <today>'");
    EXPECT_EQ(ben.post("/views/" + id + "/delete", {}).status, 404);
    // The saved link gives the list it was saved from.
    auto shared = ben.get("/?q=tunnel&from=2026-11-21");
    EXPECT_NE(shared.body.find("data-reference=\"" + refs[Dave] + "\""), std::string::npos);
    EXPECT_EQ(shared.body.find("data-reference=\"" + refs[Alice] + "\""), std::string::npos);
    ann.get("/");
    EXPECT_EQ(ann.post("/views/" + id + "/delete", {}).status, 303);
    EXPECT_EQ(value("SELECT count(*) FROM saved_views"), "1");

    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'view.saved' AND account = '" +
                    annName + "'"),
              "2");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'view.saved' ORDER BY id DESC"
                    " LIMIT 1"),
              "Tunnel <today> (shared): q=tunnel&from=2026-11-21");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'view.deleted'"),
              "Tunnel <today> of " + annName);
}
