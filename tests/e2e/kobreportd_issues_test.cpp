// kobreportd's issues and workflow on both databases: reports grouped by
// their failing rules and the targets those name, regrouped by retriage,
// a resolved issue reopened by a new report, the status, owner, ticket and
// notes of issues and reports through the pages and the API with their
// form tokens and audit rows, and the list filtered by them.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "store_fixture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;
using Fields = std::vector<std::pair<std::string, std::string>>;

// 2026-11-20 12:00:00 UTC.
constexpr std::time_t kNoon = 1795176000;
constexpr std::time_t kDay = 86400;

std::string udpBlocked(const std::string &user) {
    auto run = reportgen::healthyRun();
    run.username = user;
    for (auto &a : run.udp)
        a = reportgen::udpTimeout();
    return reportgen::report(run);
}

// The TCP probe at index `probe` (kobrun::kTcpProbes) unanswered.
std::string tcpUnanswered(const std::string &user, size_t probe) {
    auto run = reportgen::healthyRun();
    run.username = user;
    run.tcp[probe] = reportgen::tcpTimeout();
    return reportgen::report(run);
}

std::string healthy(const std::string &user) {
    auto run = reportgen::healthyRun();
    run.username = user;
    return reportgen::report(run);
}

const std::string kUdpTitle = "udp.blocked: UDP pass-through";
const std::string kAuthTitle = "tcp.unanswered: authentication server";
const std::string kJpTitle = "tcp.unanswered: JP - Amazon";

class Issues : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        setClock(kNoon);
    }
    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }
    void setClock(std::time_t t) { kobtest::writeFile(clockFile, std::to_string(t) + "\n"); }

    std::string upload(const reportd::Server &s, const std::string &desc) {
        std::string ref = reportd::reference(reportd::upload(s.port(), desc));
        EXPECT_FALSE(ref.empty());
        return ref;
    }

    // A JSON answer of the API with the server's admin token.
    Json apiJson(const reportd::Server &s, const std::string &path, int want = 200) {
        auto r = s.api(path);
        EXPECT_EQ(r.status, want) << path << "\n" << r.raw.substr(0, 600);
        return Json::parse(r.body, nullptr, false);
    }

    // The references of a list answer of /api/reports.
    std::set<std::string> listed(const reportd::Server &s, const std::string &query) {
        Json j = apiJson(s, "/api/reports" + query);
        std::set<std::string> refs;
        for (const auto &r : j["reports"])
            refs.insert(r["reference"].get<std::string>());
        EXPECT_EQ(j["total"].get<size_t>(), refs.size()) << query;
        return refs;
    }

    // The references on a list page.
    static std::set<std::string> onPage(const std::string &body) {
        std::set<std::string> refs;
        const std::string mark = "data-reference=\"";
        for (size_t at = 0; (at = body.find(mark, at)) != std::string::npos;) {
            at += mark.size();
            refs.insert(body.substr(at, body.find('"', at) - at));
        }
        return refs;
    }

    int64_t issueOf(const std::string &ref) {
        std::string v = value("SELECT issue_id FROM reports WHERE reference = '" + ref + "'");
        return v == "<none>" ? 0 : std::stoll(v);
    }

    std::string clockFile = dir.file("clock");
};

// A POST to the API with a bearer token and form fields.
reportd::Response apiPost(int port, const std::string &token, const std::string &path,
                          const Fields &fields) {
    return reportd::request(port, "POST", path,
                            "Authorization: Bearer " + token +
                                "\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                            reportd::formEncode(fields));
}

std::string viewerToken(const std::string &db, const std::string &name) {
    auto t = reportd::command(KOBREPORTD_BIN, {"token", "add", name, "--db", db});
    EXPECT_EQ(t.status, 0) << t.err;
    return t.out.substr(0, t.out.size() - 1);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Issues, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Issues, ReportsGroupByTheirFailingRulesAndTheTargetsTheyName) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    // UDP blocked: three reports from two users over three days.
    setClock(kNoon - 2 * kDay);
    std::string u1 = upload(s, udpBlocked("alice"));
    setClock(kNoon - kDay);
    std::string u2 = upload(s, udpBlocked("bob"));
    setClock(kNoon);
    std::string u3 = upload(s, udpBlocked("alice"));
    // The same rule naming two different targets: two issues.
    std::string a1 = upload(s, tcpUnanswered("carol", 0));
    std::string a2 = upload(s, tcpUnanswered("dave", 0));
    std::string j1 = upload(s, tcpUnanswered("erin", 6));
    // No failure, no issue; a report from before the window counts in
    // the totals but not in the chart.
    std::string ok = upload(s, healthy("frank"));
    setClock(kNoon - 20 * kDay);
    std::string old = upload(s, tcpUnanswered("gina", 6));
    setClock(kNoon);

    EXPECT_EQ(value("SELECT count(*) FROM issues"), "3");
    EXPECT_EQ(issueOf(ok), 0);
    EXPECT_EQ(issueOf(u1), issueOf(u2));
    EXPECT_EQ(issueOf(u1), issueOf(u3));
    EXPECT_EQ(issueOf(a1), issueOf(a2));
    EXPECT_EQ(issueOf(j1), issueOf(old));
    std::set<int64_t> ids = {issueOf(u1), issueOf(a1), issueOf(j1)};
    EXPECT_EQ(ids.size(), 3u);
    EXPECT_EQ(value("SELECT signature FROM issues WHERE id = " + std::to_string(issueOf(a1))),
              "tcp.unanswered\tChecks a connection to authentication server.\n");

    Json list = apiJson(s, "/api/issues");
    ASSERT_EQ(list["issues"].size(), 3u) << list.dump();
    // The most recently seen first; the same second, the newest issue first.
    EXPECT_EQ(list["issues"][0]["title"], kJpTitle);
    EXPECT_EQ(list["issues"][1]["title"], kAuthTitle);
    EXPECT_EQ(list["issues"][2]["title"], kUdpTitle);
    const Json &udp = list["issues"][2];
    EXPECT_EQ(udp["id"], issueOf(u1));
    EXPECT_EQ(udp["signature"],
              Json::parse(R"([{"rule":"udp.blocked","target":"UDP pass-through"}])"));
    EXPECT_EQ(udp["status"], "new");
    EXPECT_EQ(udp["owner"], nullptr);
    EXPECT_EQ(udp["ticket"], nullptr);
    EXPECT_EQ(udp["first_seen"], "2026-11-18T12:00:00Z");
    EXPECT_EQ(udp["last_seen"], "2026-11-20T12:00:00Z");
    EXPECT_EQ(udp["reports"], 3);
    EXPECT_EQ(udp["users"], 2);
    EXPECT_EQ(udp["days_from"], "2026-11-07");
    EXPECT_EQ(udp["days"], Json::parse("[0,0,0,0,0,0,0,0,0,0,0,1,1,1]"));
    const Json &jp = list["issues"][0];
    EXPECT_EQ(jp["reports"], 2);
    EXPECT_EQ(jp["users"], 2);
    EXPECT_EQ(jp["first_seen"], "2026-10-31T12:00:00Z");
    EXPECT_EQ(jp["days"], Json::parse("[0,0,0,0,0,0,0,0,0,0,0,0,0,1]"));
    EXPECT_EQ(list["issues"][1]["reports"], 2);

    // One issue and its reports, newest first.
    Json one = apiJson(s, "/api/issues/" + std::to_string(issueOf(u1)));
    EXPECT_EQ(one["title"], kUdpTitle);
    std::vector<std::string> refs;
    for (const auto &r : one["report_list"])
        refs.push_back(r["reference"]);
    EXPECT_EQ(refs, (std::vector<std::string>{u3, u2, u1}));
    EXPECT_EQ(one["notes"], Json::array());
    apiJson(s, "/api/issues/999", 404);
    apiJson(s, "/api/issues/x1", 404);
    EXPECT_EQ(s.api("/api/issues?status=closed").body,
              "{\"error\":\"status is one of new, open, resolved, ignored\"}");

    // The pages say the same, the chart with its numbers as text.
    reportd::Browser b = s.signedIn("viewer");
    auto page = b.get("/issues");
    ASSERT_EQ(page.status, 200);
    size_t rows = 0;
    for (size_t at = 0; (at = page.body.find("<tr class=\"issue\"", at)) != std::string::npos; at++)
        rows++;
    EXPECT_EQ(rows, 3u);
    EXPECT_NE(page.body.find("role=\"img\" aria-label=\"reports per day from 2026-11-07 to "
                             "2026-11-20: 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1\"><title>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(
        page.body.find(">udp.blocked: UDP pass-through</a></td><td>2026-11-18 12:00:00 UTC</td>"
                       "<td>2026-11-20 12:00:00 UTC</td><td>3</td><td>2</td>"),
        std::string::npos)
        << page.body;
    auto issuePage = b.get("/issues/" + std::to_string(issueOf(a1)));
    ASSERT_EQ(issuePage.status, 200);
    EXPECT_EQ(onPage(issuePage.body), (std::set<std::string>{a1, a2}));
    EXPECT_EQ(b.get("/issues/999").status, 404);
    // Under each verdict of a report's page, what to tell the user.
    auto udpPage = b.get("/reports/" + u1);
    EXPECT_NE(udpPage.body.find("UDP pass-through blocked (5/5 timeouts)<p class=\"advice\">Tell "
                                "the user: Ask the user to switch the VPN protocol to TCP in the "
                                "client&#39;s settings: the network they are on (often a "
                                "company&#39;s or a hotel&#39;s) drops UDP.</p><details"),
              std::string::npos)
        << udpPage.body;
    // A report's page names its issue.
    auto reportPage = b.get("/reports/" + j1);
    EXPECT_NE(reportPage.body.find("<p id=\"issue\">Issue <a href=\"/issues/" +
                                   std::to_string(issueOf(j1)) + "\">" + kJpTitle + "</a> (new)"),
              std::string::npos);
}

TEST_P(Issues, RetriageRegroupsReportsJudgedByOlderRules) {
    std::string a, u, ok;
    {
        reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
        a = upload(s, tcpUnanswered("carol", 0));
        u = upload(s, udpBlocked("alice"));
        ok = upload(s, healthy("frank"));
    }
    std::string udpIssue = std::to_string(issueOf(u)), tcpIssue = std::to_string(issueOf(a));
    // As older rules judged them: the TCP report in the UDP issue, the
    // UDP report in none, the healthy one in the TCP issue.
    value("UPDATE reports SET rules = 0, issue_id = " + udpIssue + " WHERE reference = '" + a +
          "'");
    value("UPDATE reports SET rules = 0, issue_id = NULL WHERE reference = '" + u + "'");
    value("UPDATE reports SET rules = 0, issue_id = " + tcpIssue + " WHERE reference = '" + ok +
          "'");
    auto run = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(std::to_string(issueOf(a)), tcpIssue);
    EXPECT_EQ(std::to_string(issueOf(u)), udpIssue);
    EXPECT_EQ(issueOf(ok), 0);
    EXPECT_EQ(value("SELECT count(*) FROM issues"), "2");
    // Regrouping reopens nothing and writes no reopening.
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'issue.reopened'"), "0");
}

TEST_P(Issues, ANewReportReopensAResolvedIssueButNotAnIgnoredOne) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    std::string u1 = upload(s, udpBlocked("alice"));
    std::string a1 = upload(s, tcpUnanswered("carol", 0));
    std::string udp = std::to_string(issueOf(u1)), tcp = std::to_string(issueOf(a1));
    ASSERT_EQ(
        apiPost(s.staffPort(), s.token(), "/api/issues/" + udp, {{"status", "resolved"}}).status,
        200);
    ASSERT_EQ(
        apiPost(s.staffPort(), s.token(), "/api/issues/" + tcp, {{"status", "ignored"}}).status,
        200);
    setClock(kNoon + 60);
    std::string u2 = upload(s, udpBlocked("bob"));
    std::string a2 = upload(s, tcpUnanswered("dave", 0));
    EXPECT_EQ(std::to_string(issueOf(u2)), udp);
    EXPECT_EQ(value("SELECT status FROM issues WHERE id = " + udp), "open");
    EXPECT_EQ(value("SELECT status FROM issues WHERE id = " + tcp), "ignored");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'issue.reopened'"), "1");
    EXPECT_EQ(value("SELECT account || ' ' || reference || ' ' || detail || ' ' || at FROM audit"
                    " WHERE action = 'issue.reopened'"),
              "(intake) issue:" + udp + " resolved -> open: " + u2 + " " +
                  std::to_string(kNoon + 60));
    // The open issues are the reopened one alone.
    Json open = apiJson(s, "/api/issues");
    ASSERT_EQ(open["issues"].size(), 1u);
    EXPECT_EQ(open["issues"][0]["status"], "open");
    EXPECT_EQ(apiJson(s, "/api/issues?status=ignored")["issues"][0]["reports"], 2);
}

TEST_P(Issues, WorkflowThroughThePagesAndTheApiWithFormTokensAndAudit) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--ticket-url", "https://desk.example/t/{ticket}"}, true,
                      clockEnv());
    std::string u1 = upload(s, udpBlocked("alice"));
    std::string id = std::to_string(issueOf(u1));
    std::string viewerName;
    // A support engineer is a viewer, and works the queue.
    reportd::Browser b = s.signedIn("viewer", &viewerName);
    ASSERT_EQ(b.get("/issues/" + id).status, 200);

    // Without the form token, or from another site: refused, nothing changed.
    const std::string expired = "This form has expired or did not come from this server.";
    auto noToken =
        reportd::request(s.staffPort(), "POST", "/issues/" + id,
                         "Content-Type: application/x-www-form-urlencoded\r\nCookie: kob_session=" +
                             b.cookie("kob_session") + "\r\n",
                         reportd::formEncode({{"status", "resolved"}}));
    EXPECT_EQ(noToken.status, 403);
    EXPECT_NE(noToken.body.find(expired), std::string::npos);
    auto elsewhere =
        b.post("/issues/" + id, {{"status", "resolved"}}, "Origin: http://elsewhere.example\r\n");
    EXPECT_EQ(elsewhere.status, 403);
    auto reportNoToken =
        reportd::request(s.staffPort(), "POST", "/reports/" + u1 + "/workflow",
                         "Content-Type: application/x-www-form-urlencoded\r\nCookie: kob_session=" +
                             b.cookie("kob_session") + "\r\n",
                         reportd::formEncode({{"status", "resolved"}}));
    EXPECT_EQ(reportNoToken.status, 403);
    EXPECT_EQ(value("SELECT status FROM issues WHERE id = " + id), "new");
    EXPECT_EQ(value("SELECT status FROM reports WHERE reference = '" + u1 + "'"), "new");

    // The page's form: status, owner and ticket at once; then a note.
    auto saved =
        b.post("/issues/" + id, {{"status", "open"}, {"owner", viewerName}, {"ticket", "AB-12/3"}});
    EXPECT_EQ(saved.status, 303) << saved.raw;
    EXPECT_EQ(reportd::header(saved, "Location"), "/issues/" + id);
    setClock(kNoon + 30);
    EXPECT_EQ(b.post("/issues/" + id, {{"note", "Asked <alice> to try TCP"}}).status, 303);
    auto page = b.get("/issues/" + id);
    EXPECT_NE(page.body.find("<dd id=\"status\">open</dd><dt>Owner</dt><dd id=\"owner\">" +
                             viewerName + "</dd>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(page.body.find("<p id=\"ticket\">Ticket <a href=\"https://desk.example/t/"
                             "AB-12%2F3\">AB-12/3</a></p>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(page.body.find("<li><span class=\"note-head\">" + viewerName +
                             ", 2026-11-20 12:00:30 UTC</span><pre>Asked &lt;alice&gt; to try "
                             "TCP</pre></li>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(page.body.find("<option selected>open</option>"), std::string::npos);
    // Unchanged fields are not written again.
    EXPECT_EQ(
        b.post("/issues/" + id, {{"status", "open"}, {"owner", viewerName}, {"ticket", "AB-12/3"}})
            .status,
        303);
    // A value that cannot be: the page says why, nothing changes.
    auto bad = b.post("/issues/" + id, {{"status", "closed"}});
    EXPECT_EQ(bad.status, 400);
    EXPECT_NE(bad.body.find("<p class=\"error\" id=\"message\">status is one of new, open, "
                            "resolved, ignored</p>"),
              std::string::npos);
    EXPECT_EQ(b.post("/issues/" + id, {{"owner", "nobody"}}).status, 400);
    EXPECT_EQ(b.post("/issues/" + id, {{"ticket", "has space"}}).status, 400);
    EXPECT_EQ(b.post("/issues/999", {{"status", "open"}}).status, 404);

    // The API, with a viewer's token.
    std::string token = viewerToken(db, "desk");
    auto r = apiPost(s.staffPort(), token, "/api/issues/" + id,
                     {{"status", "resolved"}, {"owner", ""}, {"note", "fixed upstream"}});
    ASSERT_EQ(r.status, 200) << r.raw;
    Json j = Json::parse(r.body);
    EXPECT_EQ(j["status"], "resolved");
    EXPECT_EQ(j["owner"], nullptr);
    EXPECT_EQ(j["ticket"],
              Json::parse(R"({"id":"AB-12/3","url":"https://desk.example/t/AB-12%2F3"})"));
    ASSERT_EQ(j["notes"].size(), 2u);
    EXPECT_EQ(j["notes"][1], Json::parse(R"({"at":"2026-11-20T12:00:30Z","account":"token:desk",)"
                                         R"("text":"fixed upstream"})"));
    for (const auto &[fields, status, body] : std::vector<std::tuple<Fields, int, std::string>>{
             {{}, 400, "{\"error\":\"nothing to change: give status, owner, ticket or note\"}"},
             {{{"status", "done"}},
              400,
              "{\"error\":\"status is one of new, open, resolved, ignored\"}"},
             {{{"owner", "nobody"}}, 400, "{\"error\":\"the owner is a staff account's name\"}"},
             {{{"note", std::string(4001, 'x')}}, 400, "{\"error\":\"a note is 1 to 4000 bytes\"}"},
         }) {
        auto refused = apiPost(s.staffPort(), token, "/api/issues/" + id, fields);
        EXPECT_EQ(refused.status, status);
        EXPECT_EQ(refused.body, body);
    }
    EXPECT_EQ(apiPost(s.staffPort(), token, "/api/issues/999", {{"status", "open"}}).body,
              "{\"error\":\"not found\"}");

    // A report's workflow: through its page, then the API.
    auto rs = b.post("/reports/" + u1 + "/workflow",
                     {{"status", "ignored"}, {"owner", viewerName}, {"ticket", "Z9"}});
    EXPECT_EQ(rs.status, 303) << rs.raw;
    EXPECT_EQ(reportd::header(rs, "Location"), "/reports/" + u1);
    EXPECT_EQ(b.post("/reports/" + u1 + "/workflow", {{"note", "duplicate of Z9"}}).status, 303);
    auto rp = b.get("/reports/" + u1);
    EXPECT_NE(rp.body.find("<p id=\"ticket\">Ticket <a href=\"https://desk.example/t/Z9\">Z9</a>"),
              std::string::npos);
    EXPECT_NE(rp.body.find("<pre>duplicate of Z9</pre>"), std::string::npos);
    EXPECT_EQ(b.post("/reports/KOB-20261120-999999999/workflow", {{"status", "open"}}).status, 404);
    auto ra = apiPost(s.staffPort(), token, "/api/reports/" + u1, {{"ticket", ""}});
    ASSERT_EQ(ra.status, 200) << ra.raw;
    Json rj = Json::parse(ra.body);
    EXPECT_EQ(rj["status"], "ignored");
    EXPECT_EQ(rj["owner"], viewerName);
    EXPECT_EQ(rj["ticket"], nullptr);
    EXPECT_EQ(rj["issue"], issueOf(u1));
    EXPECT_EQ(rj["notes"].size(), 1u);
    EXPECT_EQ(apiPost(s.staffPort(), token, "/api/reports/nonsense", {{"status", "open"}}).status,
              404);
    EXPECT_EQ(value("SELECT status || ' ' || owner || ' ' || coalesce(ticket, '-') FROM reports"
                    " WHERE reference = '" +
                    u1 + "'"),
              "ignored " + viewerName + " -");

    // Every change in the audit log, in order, and nothing for what was
    // refused or left as it was.
    std::string rows;
    for (int n = 1;; n++) {
        std::string row =
            value("SELECT account || '|' || action || '|' || reference || '|' || detail FROM audit"
                  " WHERE action LIKE 'issue.%' OR action IN ('report.status', 'report.owner',"
                  " 'report.ticket', 'report.noted') ORDER BY id LIMIT 1 OFFSET " +
                  std::to_string(n - 1));
        if (row == "<none>")
            break;
        rows += row + "\n";
    }
    std::string v = viewerName, is = "issue:" + id;
    EXPECT_EQ(rows, v + "|issue.status|" + is + "|new -> open\n" + v + "|issue.owner|" + is +
                        "|(none) -> " + v + "\n" + v + "|issue.ticket|" + is +
                        "|(none) -> AB-12/3\n" + v + "|issue.noted|" + is +
                        "|Asked <alice> to try TCP\n"
                        "token:desk|issue.status|" +
                        is + "|open -> resolved\ntoken:desk|issue.owner|" + is + "|" + v +
                        " -> (none)\ntoken:desk|issue.noted|" + is + "|fixed upstream\n" + v +
                        "|report.status|" + u1 + "|new -> ignored\n" + v + "|report.owner|" + u1 +
                        "|(none) -> " + v + "\n" + v + "|report.ticket|" + u1 + "|(none) -> Z9\n" +
                        v + "|report.noted|" + u1 + "|duplicate of Z9\ntoken:desk|report.ticket|" +
                        u1 + "|Z9 -> (none)\n");
}

TEST_P(Issues, TheListFiltersByStatusOwnerAndIssue) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    std::string u1 = upload(s, udpBlocked("alice"));
    std::string u2 = upload(s, udpBlocked("bob"));
    std::string a1 = upload(s, tcpUnanswered("carol", 0));
    std::string a2 = upload(s, tcpUnanswered("dave", 0));
    std::string ok = upload(s, healthy("frank"));
    ASSERT_EQ(s.addUser("ann", "viewer", "password of ann").status, 0);
    ASSERT_EQ(s.addUser("ben", "viewer", "password of ben").status, 0);
    auto set = [&](const std::string &ref, const Fields &f) {
        auto r = apiPost(s.staffPort(), s.token(), "/api/reports/" + ref, f);
        ASSERT_EQ(r.status, 200) << r.raw;
    };
    set(u1, {{"status", "open"}, {"owner", "ann"}});
    set(u2, {{"status", "resolved"}, {"owner", "ben"}});
    set(a1, {{"status", "open"}, {"owner", "ben"}});
    set(ok, {{"owner", "ann"}});
    std::string udp = std::to_string(issueOf(u1)), tcp = std::to_string(issueOf(a1));
    using Refs = std::set<std::string>;
    const std::vector<std::pair<std::string, Refs>> cases = {
        {"", {u1, u2, a1, a2, ok}},
        {"?status=new", {a2, ok}},
        {"?status=open", {u1, a1}},
        {"?status=resolved", {u2}},
        {"?status=ignored", {}},
        {"?owner=ann", {u1, ok}},
        {"?owner=ben", {u2, a1}},
        {"?owner=nobody", {}},
        {"?issue=" + udp, {u1, u2}},
        {"?issue=" + tcp, {a1, a2}},
        {"?issue=999", {}},
        {"?status=open&owner=ben", {a1}},
        {"?status=open&issue=" + udp, {u1}},
        {"?owner=ben&issue=" + tcp + "&status=open", {a1}},
        {"?owner=ann&issue=" + tcp, {}},
        {"?q=carol&issue=" + tcp, {a1}},
        {"?status=&owner=&issue=", {u1, u2, a1, a2, ok}},
    };
    reportd::Browser b = s.signedIn("viewer");
    for (const auto &[query, want] : cases) {
        SCOPED_TRACE(query);
        EXPECT_EQ(listed(s, query), want);
        auto page = b.get("/" + query);
        EXPECT_EQ(page.status, 200);
        EXPECT_EQ(onPage(page.body), want);
    }
    for (const std::string query : {"?status=closed", "?issue=abc", "?issue=-1"}) {
        SCOPED_TRACE(query);
        auto r = s.api("/api/reports" + query);
        EXPECT_EQ(r.status, 400);
        EXPECT_EQ(r.body, query.find("status") != std::string::npos
                              ? "{\"error\":\"status is one of new, open, resolved, ignored\"}"
                              : "{\"error\":\"issue is an issue's number\"}");
        EXPECT_EQ(b.get("/" + query).status, 400);
    }
}
