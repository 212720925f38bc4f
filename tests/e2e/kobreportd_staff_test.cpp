// kobreportd's staff side on both databases: every route behind its
// credentials, sign-in and its limits, sessions and their time limits, form
// tokens, tokens revoked while in use, the audit log, retention, deletion
// and the migration of a database of the first layout.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "webhook_receiver.h"
#include "store_fixture.h"

#include <filesystem>
#include <cstdio>
#include <fstream>
#include <condition_variable>
#include <gtest/gtest.h>
#include <httplib.h>
#include <thread>
#include <map>
#include <set>
#include <memory>
#include <sstream>
#include <algorithm>
#include <sqlite3.h>
#include <sys/stat.h>

namespace {

// A run whose captures name the user's own machine, beside the lab's targets.
std::string reportWithPersonalAddresses(const std::string &user) {
    auto run = reportgen::healthyRun();
    run.username = user;
    run.logs["kobvane_stdout.txt"] =
        "en0: inet 192.168.1.23 netmask 0xffffff00 ether a4:83:e7:01:02:03\n"
        "peer 2001:db8:5:6::17 answered\n";
    return reportgen::report(run);
}

class Staff : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        kobtest::writeFile(clockFile, "");
    }

    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }
    void setClock(std::time_t t) { kobtest::writeFile(clockFile, std::to_string(t) + "\n"); }

    std::string clockFile = dir.file("clock");
};

// One row of the server's route table, as `kobreportd routes` prints it.
struct Row {
    std::string method, pattern, listener, access, role;
};

std::vector<Row> routeTable() {
    auto printed = reportd::command(KOBREPORTD_BIN, {"routes"});
    std::vector<Row> rows;
    std::istringstream in(printed.out);
    for (Row r; in >> r.method >> r.pattern >> r.listener >> r.access >> r.role;)
        rows.push_back(r);
    return rows;
}

// A request that exercises a row: its path, whether it asks for more than
// the row's role (an admin's reveal), and what an admin gets.
struct Exercise {
    std::string path;
    bool adminOnly;
    int adminStatus;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Staff, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Staff, EveryRouteIsRefusedWithoutCredentialsAndAbsentFromTheOtherListener) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), "one\n"));
    std::string doomed = reportd::reference(reportd::upload(s.port(), "two\n"));
    std::string doomedToo = reportd::reference(reportd::upload(s.port(), "three\n"));
    ASSERT_FALSE(doomedToo.empty());
    ASSERT_EQ(s.addUser("victim", "viewer", "password of victim").status, 0);
    ASSERT_EQ(reportd::command(KOBREPORTD_BIN, {"token", "add", "victimtoken", "--db", db}).status,
              0);
    ASSERT_EQ(s.addUser("bystander", "viewer", "password of bystander").status, 0);
    ASSERT_EQ(reportd::command(KOBREPORTD_BIN, {"token", "add", "bystoken", "--db", db}).status, 0);

    // How to exercise each row of the table; a row without an entry here
    // fails the test, so a new route cannot go untried.
    const std::map<std::string, std::vector<Exercise>> exercises = {
        {"POST /report/problem.php", {{"/report/problem.php", false, 400}}},
        {"GET /healthz", {{"/healthz", false, 200}}},
        {"GET /readyz", {{"/readyz", false, 200}}},
        {"GET /static/style.css", {{"/static/style.css", false, 200}}},
        {"GET /signin", {{"/signin", false, 200}}},
        {"POST /signin", {{"/signin", false, 403}}},
        {"GET /", {{"/", false, 200}, {"/?q=one&page=1", false, 200}}},
        {"GET /reports/{ref}", {{"/reports/" + ref, false, 200}}},
        {"GET /reports/{ref}/raw", {{"/reports/" + ref + "/raw", false, 200}}},
        {"GET /audit", {{"/audit", false, 200}}},
        {"GET /admin/accounts", {{"/admin/accounts", false, 200}}},
        {"POST /reports/{ref}/reveal", {{"/reports/" + ref + "/reveal", false, 200}}},
        {"POST /reports/{ref}/raw", {{"/reports/" + ref + "/raw", false, 200}}},
        {"POST /reports/{ref}/delete", {{"/reports/" + doomed + "/delete", false, 303}}},
        {"POST /admin/users/{name}/role", {{"/admin/users/bystander/role", false, 200}}},
        {"POST /admin/users/{name}/disable", {{"/admin/users/bystander/disable", false, 200}}},
        {"POST /admin/users/{name}/enable", {{"/admin/users/bystander/enable", false, 200}}},
        {"POST /admin/users/{name}/reset", {{"/admin/users/bystander/reset", false, 200}}},
        {"POST /admin/tokens/{name}/disable", {{"/admin/tokens/bystoken/disable", false, 200}}},
        {"POST /admin/tokens/{name}/enable", {{"/admin/tokens/bystoken/enable", false, 200}}},
        {"GET /account/password", {{"/account/password", false, 200}}},
        {"POST /account/password", {{"/account/password", false, 400}}},
        {"GET /reset/{secret}", {{"/reset/" + std::string(64, 'a'), false, 404}}},
        {"POST /reset/{secret}", {{"/reset/" + std::string(64, 'a'), false, 403}}},
        {"GET /api/accounts", {{"/api/accounts", false, 200}}},
        {"POST /api/accounts", {{"/api/accounts", false, 400}}},
        {"POST /api/accounts/{name}/role", {{"/api/accounts/bystander/role", false, 400}}},
        {"POST /api/accounts/{name}/disable", {{"/api/accounts/nobody/disable", false, 404}}},
        {"POST /api/accounts/{name}/enable", {{"/api/accounts/nobody/enable", false, 404}}},
        {"DELETE /api/accounts/{name}", {{"/api/accounts/nobody", false, 404}}},
        {"POST /api/tokens/{name}/disable", {{"/api/tokens/nothing/disable", false, 404}}},
        {"POST /api/tokens/{name}/enable", {{"/api/tokens/nothing/enable", false, 404}}},
        {"POST /admin/users", {{"/admin/users", false, 200}}},
        {"POST /admin/users/{name}/delete", {{"/admin/users/victim/delete", false, 200}}},
        {"POST /admin/tokens", {{"/admin/tokens", false, 200}}},
        {"POST /admin/tokens/{name}/delete", {{"/admin/tokens/victimtoken/delete", false, 200}}},
        {"GET /api/reports", {{"/api/reports", false, 200}, {"/api/reports?q=one", false, 200}}},
        {"GET /api/reports/{ref}",
         {{"/api/reports/" + ref, false, 200}, {"/api/reports/" + ref + "?reveal=1", true, 200}}},
        {"GET /api/reports/{ref}/raw",
         {{"/api/reports/" + ref + "/raw", false, 200},
          {"/api/reports/" + ref + "/raw?reveal=1", true, 200}}},
        {"GET /api/audit", {{"/api/audit", false, 200}}},
        {"GET /metrics", {{"/metrics", false, 200}}},
        {"GET /fleet", {{"/fleet", false, 200}, {"/fleet?window=7d", false, 200}}},
        {"GET /fleet/reports", {{"/fleet/reports?area=tcp&target=x&window=6h", false, 200}}},
        {"GET /api/fleet",
         {{"/api/fleet?window=30d", false, 200}, {"/api/fleet?by=asn", false, 200}}},
        {"GET /incidents", {{"/incidents", false, 200}}},
        {"POST /incidents/{id}/acknowledge", {{"/incidents/1/acknowledge", false, 404}}},
        {"GET /api/incidents", {{"/api/incidents", false, 200}}},
        {"GET /compare", {{"/compare?a=" + ref + "&b=" + ref, false, 200}}},
        {"GET /users/{name}", {{"/users/nobody", false, 200}}},
        {"GET /api/compare", {{"/api/compare?a=" + ref + "&b=" + ref, false, 200}}},
        {"GET /api/users/{name}", {{"/api/users/nobody", false, 200}}},
        {"DELETE /api/reports/{ref}", {{"/api/reports/" + doomedToo, false, 200}}},
        {"GET /settings", {{"/settings", false, 200}}},
        {"POST /settings/zone", {{"/settings/zone", false, 200}}},
        {"POST /views", {{"/views", false, 303}}},
        {"POST /views/{id}/delete", {{"/views/999/delete", false, 404}}},
        {"POST /signout", {{"/signout", false, 303}}},
        // Without a sign-in waiting for its code, the sign-in page.
        {"GET /signin/code", {{"/signin/code", false, 303}}},
        {"POST /signin/code", {{"/signin/code", false, 403}}},
        {"GET /account/second-factor", {{"/account/second-factor", false, 200}}},
        {"POST /account/second-factor", {{"/account/second-factor", false, 200}}},
        // No code: the enrolment page again.
        {"POST /account/second-factor/confirm", {{"/account/second-factor/confirm", false, 400}}},
        {"POST /admin/users/{name}/second-factor/reset",
         {{"/admin/users/nobody/second-factor/reset", false, 404}}},
        {"DELETE /api/accounts/{name}/second-factor",
         {{"/api/accounts/nobody/second-factor", false, 404}}},
        // "one" is not a kobdiag report, a failure: it is in issue 1.
        {"GET /issues", {{"/issues", false, 200}, {"/issues?status=resolved", false, 200}}},
        {"GET /issues/{id}", {{"/issues/1", false, 200}}},
        {"POST /issues/{id}", {{"/issues/1", false, 303}}},
        {"POST /reports/{ref}/workflow", {{"/reports/" + ref + "/workflow", false, 303}}},
        {"GET /api/issues", {{"/api/issues", false, 200}}},
        {"GET /api/issues/{id}", {{"/api/issues/1", false, 200}}},
        // Without a field to change: refused as such, once past the credentials.
        {"POST /api/issues/{id}", {{"/api/issues/1", false, 400}}},
        {"POST /api/reports/{ref}", {{"/api/reports/" + ref, false, 400}}},
    };
    auto fields = [](const std::string &path) -> std::vector<std::pair<std::string, std::string>> {
        if (path == "/admin/users")
            return {{"name", "newcomer"}, {"role", "viewer"}, {"password", "a long password"}};
        if (path == "/admin/tokens")
            return {{"name", "newtoken"}, {"role", "viewer"}};
        if (path == "/views")
            return {{"name", "failing"}, {"query", "level=fail"}};
        if (path == "/settings/zone")
            return {{"zone", "Europe/Berlin"}};
        if (path == "/admin/users/bystander/role")
            return {{"role", "admin"}};
        if (path.rfind("/issues/", 0) == 0 || path.find("/workflow") != std::string::npos)
            return {{"status", "open"}};
        return {{"confirm", "yes"}};
    };

    auto viewerToken = reportd::command(KOBREPORTD_BIN, {"token", "add", "reader", "--db", db});
    ASSERT_EQ(viewerToken.status, 0);
    std::string viewerBearer =
        "Authorization: Bearer " + viewerToken.out.substr(0, viewerToken.out.size() - 1) + "\r\n";
    auto metricsToken = reportd::command(
        KOBREPORTD_BIN, {"token", "add", "scraper", "--role", "metrics", "--db", db});
    ASSERT_EQ(metricsToken.status, 0);
    std::string metricsBearer =
        "Authorization: Bearer " + metricsToken.out.substr(0, metricsToken.out.size() - 1) + "\r\n";
    reportd::Browser viewer = s.signedIn("viewer");
    reportd::Browser admin = s.signedIn("admin");

    auto rows = routeTable();
    std::set<std::string> keys, onBoth;
    for (const auto &row : rows) {
        std::string key = row.method + " " + row.pattern;
        if (!keys.insert(key).second)
            onBoth.insert(key);
    }
    ASSERT_EQ(keys.size(), exercises.size());
    EXPECT_EQ(onBoth, (std::set<std::string>{"GET /healthz", "GET /readyz"}));
    // Signing out ends the admin's session: it goes last.
    std::stable_partition(rows.begin(), rows.end(),
                          [](const Row &r) { return r.pattern != "/signout"; });
    for (const auto &row : rows) {
        std::string key = row.method + " " + row.pattern;
        SCOPED_TRACE(key);
        auto found = exercises.find(key);
        ASSERT_NE(found, exercises.end()) << "no way to exercise this route";
        bool staff = row.listener == "staff";
        int own = staff ? s.staffPort() : s.port(), other = staff ? s.port() : s.staffPort();
        for (const auto &e : found->second) {
            SCOPED_TRACE(e.path);
            // On the other listener: nothing, but for the probes both have.
            auto elsewhere = reportd::request(other, row.method, e.path);
            EXPECT_EQ(elsewhere.status, onBoth.count(key) ? e.adminStatus : 404) << elsewhere.raw;
            if (row.access == "open" || row.access == "upload") {
                EXPECT_EQ(row.role, "-");
                EXPECT_EQ(reportd::request(own, row.method, e.path).status, e.adminStatus);
                continue;
            }
            // No credentials: the sign-in page for pages, 401 for the API.
            // A session cookie of someone who is not signed in counts as none.
            for (const std::string &cookie : std::vector<std::string>{
                     "", "Cookie: kob_session=" + std::string(64, 'a') + "\r\n"}) {
                auto none = reportd::request(own, row.method, e.path, cookie);
                if (row.access == "page") {
                    EXPECT_EQ(none.status, 303) << none.raw;
                    EXPECT_EQ(reportd::header(none, "Location").rfind("/signin", 0), 0u)
                        << none.raw;
                } else {
                    EXPECT_EQ(none.status, 401) << none.raw;
                    EXPECT_EQ(none.body, "{\"error\":\"a valid API token is required\"}");
                }
            }
            // A bearer token does not open pages (a session opens the API:
            // kobreportd_search_test).
            if (row.access == "page") {
                EXPECT_EQ(reportd::request(own, row.method, e.path,
                                           "Authorization: Bearer " + s.token() + "\r\n")
                              .status,
                          303);
            }

            // A metrics token reads /metrics and nothing else.
            if (row.access == "api") {
                auto m = reportd::request(own, row.method, e.path, metricsBearer);
                if (row.pattern == "/metrics") {
                    EXPECT_EQ(m.status, 200) << m.raw.substr(0, 400);
                } else {
                    EXPECT_EQ(m.status, 403) << m.raw.substr(0, 400);
                    EXPECT_EQ(
                        m.body,
                        row.role == "admin"
                            ? "{\"error\":\"this needs an admin token\"}"
                            : "{\"error\":\"a metrics token reads /metrics and nothing else\"}");
                }
            } else if (row.access == "page") {
                EXPECT_EQ(reportd::request(own, row.method, e.path, metricsBearer).status, 303);
            }

            // A viewer: the viewer's routes, and 403 for the admin's.
            int want = row.role == "admin" || e.adminOnly ? 403 : e.adminStatus;
            if (row.access == "api") {
                auto v = reportd::request(own, row.method, e.path, viewerBearer);
                EXPECT_EQ(v.status, want) << v.raw.substr(0, 400);
            } else if (row.pattern != "/signout") {
                auto v =
                    row.method == "GET" ? viewer.get(e.path) : viewer.post(e.path, fields(e.path));
                EXPECT_EQ(v.status, want) << v.raw.substr(0, 400);
            }

            // An admin: everything.
            auto a = row.access == "api"   ? s.api(e.path, row.method)
                     : row.method == "GET" ? admin.get(e.path)
                                           : admin.post(e.path, fields(e.path));
            EXPECT_EQ(a.status, e.adminStatus) << a.raw.substr(0, 400);
            if (row.access == "page" && a.status == 200) {
                EXPECT_EQ(reportd::header(a, "Cache-Control"), "no-store");
            }
        }
    }
    // What the admin did took effect; what the viewer tried did not.
    EXPECT_EQ(s.api("/api/reports/" + doomed).status, 404);
    EXPECT_EQ(s.api("/api/reports/" + doomedToo).status, 404);
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'victim'"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'newcomer'"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM tokens WHERE name = 'victimtoken'"), "0");
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'bystander'"), "admin");
    EXPECT_EQ(value("SELECT disabled FROM users WHERE name = 'bystander'"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM password_resets WHERE account = 'bystander'"), "1");
    // Signed out: the session cookie opens nothing any more.
    EXPECT_EQ(admin.get("/").status, 303);
}

TEST_P(Staff, EveryStaffAnswerCarriesTheProtectiveHeaders) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), "one\n"));
    reportd::Browser b = s.signedIn();
    for (const std::string &path :
         std::vector<std::string>{"/signin", "/", "/reports/" + ref, "/audit", "/nowhere"}) {
        SCOPED_TRACE(path);
        auto r = path == "/signin" ? reportd::get(s.staffPort(), path) : b.get(path);
        EXPECT_EQ(reportd::header(r, "Content-Security-Policy"),
                  "default-src 'self'; frame-ancestors 'none'; form-action 'self'");
        EXPECT_EQ(reportd::header(r, "X-Content-Type-Options"), "nosniff");
        EXPECT_EQ(reportd::header(r, "Referrer-Policy"), "no-referrer");
        EXPECT_EQ(reportd::header(r, "X-Frame-Options"), "DENY");
        EXPECT_EQ(reportd::header(r, "Cache-Control"), "no-store");
        // No script at all, so the policy costs the pages nothing.
        EXPECT_EQ(r.body.find("<script"), std::string::npos);
    }
}

TEST_P(Staff, UnknownNameAndWrongPasswordGetTheSameAnswer) {
    reportd::Server s(KOBREPORTD_BIN, db);
    ASSERT_EQ(s.addUser("carol", "viewer", "password of carol").status, 0);
    auto answer = [&](const std::string &name) {
        reportd::Browser b(s.staffPort());
        auto r = b.signIn(name, "not the password");
        // The form token differs from form to form; the rest must not.
        std::string body = r.body;
        body.replace(body.find(b.csrf()), b.csrf().size(), "TOKEN");
        return std::make_pair(r.status, body);
    };
    auto wrong = answer("carol"), unknown = answer("nobody");
    EXPECT_EQ(wrong.first, 401);
    EXPECT_EQ(wrong, unknown);
    EXPECT_NE(wrong.second.find("<p class=\"error\" id=\"message\">Wrong name or password.</p>"),
              std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'signin.failed'"), "2");
}

TEST_P(Staff, FiveFailuresShutTheDoorForFiveMinutesPerAccountAndPerAddress) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    setClock(1800000000);
    ASSERT_EQ(s.addUser("dave", "viewer", "password of dave").status, 0);
    ASSERT_EQ(s.addUser("erin", "viewer", "password of erin").status, 0);
    reportd::Browser b(s.staffPort());
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(b.signIn("dave", "guess " + std::to_string(i)).status, 401);
    // The right password does not help now.
    auto locked = b.signIn("dave", "password of dave");
    EXPECT_EQ(locked.status, 429);
    EXPECT_EQ(reportd::header(locked, "Retry-After"), "300");
    EXPECT_NE(locked.body.find("Too many failed sign-ins. Try again in 5 minutes."),
              std::string::npos);
    // The address failed five times too: another account from it waits as well.
    EXPECT_EQ(b.signIn("erin", "password of erin").status, 429);
    // Four minutes later still shut, with a minute to go; five minutes later open.
    setClock(1800000000 + 240);
    auto later = b.signIn("dave", "password of dave");
    EXPECT_EQ(later.status, 429);
    EXPECT_EQ(reportd::header(later, "Retry-After"), "60");
    setClock(1800000000 + 301);
    EXPECT_EQ(b.signIn("dave", "password of dave").status, 303);
    // The refused tries were not counted as failures: nothing is shut again.
    // The five failures of one minute are one row of the log.
    EXPECT_EQ(value("SELECT sum(count) FROM audit WHERE action = 'signin.failed'"), "5");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'signin.failed'"), "1");
    EXPECT_EQ(value("SELECT sum(count) FROM audit WHERE action = 'signin.locked'"), "3");
    EXPECT_EQ(s.stop(), 0);
}

TEST_P(Staff, SignInGivesASessionIdNobodyHasSeenAndEndsAPlantedOne) {
    reportd::Server s(KOBREPORTD_BIN, db);
    ASSERT_EQ(s.addUser("frank", "admin", "password of frank").status, 0);
    reportd::Browser b(s.staffPort());
    const std::string planted(64, 'b');
    b.setCookie("kob_session", planted);
    auto r = b.signIn("frank", "password of frank");
    ASSERT_EQ(r.status, 303);
    std::string fresh = b.cookie("kob_session");
    EXPECT_EQ(fresh.size(), 64u);
    EXPECT_NE(fresh, planted);
    EXPECT_NE(
        r.raw.find("Set-Cookie: kob_session=" + fresh + "; HttpOnly; SameSite=Strict; Path=/\r\n"),
        std::string::npos)
        << r.raw;
    // Signing in again gives yet another id.
    reportd::Browser again(s.staffPort());
    again.signIn("frank", "password of frank");
    EXPECT_NE(again.cookie("kob_session"), fresh);
    // The database holds hashes only: neither the id nor the password.
    EXPECT_EQ(value("SELECT count(*) FROM sessions WHERE id_hash = '" + fresh + "'"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM sessions"), "2");
    EXPECT_EQ(value("SELECT substr(pw_hash, 1, 10) FROM users"), "$argon2id$");
    EXPECT_EQ(value("SELECT substr(hash, 1, 10) FROM tokens LIMIT 1"), "$argon2id$");
}

TEST_P(Staff, SessionsEndAfterThirtyIdleMinutesAndTwelveHours) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    std::time_t t0 = 1800000000;
    setClock(t0);
    reportd::Browser idle = s.signedIn("viewer");
    reportd::Browser busy = s.signedIn("viewer");
    setClock(t0 + 29 * 60);
    EXPECT_EQ(idle.get("/").status, 200);
    // Thirty minutes after the last request: gone.
    setClock(t0 + 29 * 60 + 30 * 60);
    EXPECT_EQ(idle.get("/").status, 303);
    // Busy all the time, yet twelve hours after signing in: gone.
    for (std::time_t t = t0; t < t0 + 12 * 3600; t += 25 * 60) {
        setClock(t);
        ASSERT_EQ(busy.get("/").status, 200) << "after " << (t - t0) << " s";
    }
    setClock(t0 + 12 * 3600);
    EXPECT_EQ(busy.get("/").status, 303);
}

TEST_P(Staff, FormsWithoutTheirTokenOrFromAnotherSiteAreRefused) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), "keep me\n"));
    reportd::Browser admin = s.signedIn("admin");
    admin.get("/");
    std::string token = admin.csrf();
    ASSERT_EQ(token.size(), 64u);
    struct Case {
        const char *name;
        std::string csrf, headers;
        int status;
    } cases[] = {
        {"no token", "", "", 403},
        {"another token", std::string(64, '0'), "", 403},
        {"foreign Origin", token, "Origin: http://evil.example\r\n", 403},
        {"cross-site fetch", token, "Sec-Fetch-Site: cross-site\r\n", 403},
        // A page without a referrer posts with "Origin: null": only its own
        // site may, as the browser says in Sec-Fetch-Site.
        {"null Origin alone", token, "Origin: null\r\n", 403},
        {"null Origin from another site", token, "Origin: null\r\nSec-Fetch-Site: same-site\r\n",
         403},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string body = "confirm=yes&csrf=" + c.csrf;
        auto r = reportd::request(s.staffPort(), "POST", "/reports/" + ref + "/delete",
                                  "Content-Type: application/x-www-form-urlencoded\r\nCookie: "
                                  "kob_session=" +
                                      admin.cookie("kob_session") + "\r\n" + c.headers,
                                  body);
        EXPECT_EQ(r.status, c.status) << r.raw.substr(0, 300);
        EXPECT_EQ(s.api("/api/reports/" + ref).status, 200);
    }
    // The sign-in form needs its own token too.
    auto bare = reportd::request(s.staffPort(), "POST", "/signin",
                                 "Content-Type: application/x-www-form-urlencoded\r\n",
                                 "name=x&password=y");
    EXPECT_EQ(bare.status, 403);
    // With the token and from its own page, it goes through.
    auto ok = admin.post("/reports/" + ref + "/delete", {{"confirm", "yes"}},
                         "Origin: http://127.0.0.1:" + std::to_string(s.staffPort()) + "\r\n");
    EXPECT_EQ(ok.status, 303) << ok.raw;
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 404);
}

TEST_P(Staff, ATokenOrAUserDeletedWhileInUseStopsAtOnce) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto made = reportd::command(KOBREPORTD_BIN, {"token", "add", "dashboard", "--db", db});
    ASSERT_EQ(made.status, 0) << made.err;
    std::string bearer =
        "Authorization: Bearer " + made.out.substr(0, made.out.size() - 1) + "\r\n";
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/api/reports", bearer).status, 200);
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/api/reports", bearer).status, 200);
    ASSERT_EQ(reportd::command(KOBREPORTD_BIN, {"token", "del", "dashboard", "--db", db}).status,
              0);
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/api/reports", bearer).status, 401);

    std::string name;
    reportd::Browser b = s.signedIn("viewer", &name);
    EXPECT_EQ(b.get("/").status, 200);
    ASSERT_EQ(reportd::command(KOBREPORTD_BIN, {"user", "del", name, "--db", db}).status, 0);
    EXPECT_EQ(b.get("/").status, 303);
}

TEST_P(Staff, HostileReferencesAndHugeHeadersGetTheirAnswerAndTheServerGoesOn) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), "safe\n"));
    reportd::Browser b = s.signedIn();
    struct Case {
        std::string path;
        int status;
    } cases[] = {
        {"/reports/..%2f..%2fetc%2fpasswd", 404},
        {"/reports/%2e%2e", 404},
        {"/reports/" + ref + "%00", 404},
        {"/reports/KOB-" + std::string(5000, '1'), 404},
        {"/reports/" + std::string(9000, 'x'), 414},
        {"/api/reports/..%2f" + ref, 404},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path.substr(0, 60));
        auto r = c.path.rfind("/api/", 0) == 0 ? s.api(c.path) : b.get(c.path);
        EXPECT_EQ(r.status, c.status) << r.raw.substr(0, 200);
        EXPECT_EQ(b.get("/reports/" + ref).status, 200);
    }
    // A 10 MB cookie: refused, and the next request is served.
    auto huge = reportd::request(s.staffPort(), "GET", "/",
                                 "Cookie: kob_session=" + std::string(10u << 20, 'c') + "\r\n");
    EXPECT_TRUE(!huge.ok || huge.status == 400 || huge.status == 431) << huge.raw.substr(0, 200);
    EXPECT_EQ(b.get("/").status, 200);
    EXPECT_EQ(s.api("/api/reports").status, 200);
}

TEST_P(Staff, TheAuditLogListsEachStepAndRefusesChanges) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref =
        reportd::reference(reportd::upload(s.port(), reportWithPersonalAddresses("u")));
    std::string name;
    reportd::Browser admin = s.signedIn("admin", &name);
    admin.get("/reports/" + ref);
    admin.post("/reports/" + ref + "/reveal", {});
    admin.get("/reports/" + ref + "/raw");
    admin.post("/reports/" + ref + "/delete", {{"confirm", "yes"}});
    auto page = admin.get("/audit");
    ASSERT_EQ(page.status, 200);
    // Newest first.
    size_t at = 0;
    for (const char *action : {"report.deleted", "report.raw", "report.revealed", "report.viewed",
                               "signin", "user.added"}) {
        SCOPED_TRACE(action);
        auto next = page.body.find(std::string("<td class=\"action\">") + action + "</td>", at);
        ASSERT_NE(next, std::string::npos) << page.body;
        at = next + 1;
    }
    auto api = s.api("/api/audit");
    EXPECT_NE(api.body.find("{\"total\":"), std::string::npos);
    EXPECT_NE(api.body.find("\"account\":\"" + name +
                            "\",\"address\":\"127.0.0.1\","
                            "\"action\":\"report.deleted\",\"reference\":\"" +
                            ref + "\""),
              std::string::npos)
        << api.body;
    // The database itself keeps the log as it was written.
    std::string before = value("SELECT count(*) FROM audit");
    std::string upd = value("UPDATE audit SET account = 'someone else'");
    std::string del = value("DELETE FROM audit");
    EXPECT_EQ(value("SELECT count(*) FROM audit"), before);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE account = 'someone else'"), "0");
    if (GetParam() == "sqlite") {
        EXPECT_EQ(upd, "<error: the audit log is append-only>");
        EXPECT_EQ(del, "<error: the audit log is append-only>");
    }
    // Signing out is the last step.
    admin.post("/signout", {});
    EXPECT_NE(s.api("/api/audit").body.find("\"action\":\"signout\""), std::string::npos);
}

TEST_P(Staff, ViewersSeeTheUsersAddressesMaskedAndAnAdminMayRevealThem) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string desc = reportWithPersonalAddresses("grace");
    std::string ref =
        reportd::reference(reportd::upload(s.port(), desc, "grace", "my IP is 10.1.2.3\n"));
    reportd::Browser viewer = s.signedIn("viewer");
    auto page = viewer.get("/reports/" + ref);
    ASSERT_EQ(page.status, 200);
    for (const char *hidden : {"192.168.1.23", "a4:83:e7:01:02:03", "2001:db8:5:6::17", "10.1.2.3"})
        EXPECT_EQ(page.body.find(hidden), std::string::npos) << hidden;
    for (const char *shown :
         {"192.168.x.x", "a4:83:xx:xx:xx:xx", "2001:db8:x:x:x:x:x:x", "10.1.x.x", "grace"})
        EXPECT_NE(page.body.find(shown), std::string::npos) << shown;
    // The targets stay readable: the verdicts are about them.
    EXPECT_NE(page.body.find("10.243.160.1:8081"), std::string::npos);
    // The same rule for the raw text and the API; the reveal is an admin's.
    EXPECT_EQ(viewer.get("/reports/" + ref + "/raw").body.find("192.168.1.23"), std::string::npos);
    EXPECT_EQ(viewer.post("/reports/" + ref + "/reveal", {}).status, 403);
    EXPECT_EQ(s.api("/api/reports/" + ref).body.find("10.1.2.3"), std::string::npos);
    EXPECT_NE(s.api("/api/reports/" + ref + "?reveal=1").body.find("10.1.2.3"), std::string::npos);
    EXPECT_EQ(s.api("/api/reports/" + ref + "/raw?reveal=1").body, desc);
    reportd::Browser admin = s.signedIn("admin");
    auto revealed = admin.post("/reports/" + ref + "/reveal", {});
    EXPECT_NE(revealed.body.find("192.168.1.23"), std::string::npos);
    EXPECT_NE(revealed.body.find("<p class=\"notice\" id=\"revealed\">"), std::string::npos);
}

// The level of each row of a page's verdicts table, in order.
std::vector<std::string> verdictLevels(const std::string &page) {
    std::vector<std::string> out;
    size_t from = page.find("<table id=\"verdicts\">"), to = page.find("</table>", from);
    const std::string row = "<tr class=\"";
    for (size_t at = page.find(row, from); at < to; at = page.find(row, at)) {
        at += row.size();
        out.push_back(page.substr(at, page.find('"', at) - at));
    }
    return out;
}

// A failure that the rules find after good news still heads the table,
// and so it does among the verdicts kept when the raw text has expired.
TEST_P(Staff, AReportsVerdictsComeWorstFirst) {
    std::time_t t0 = 1800000000;
    setClock(t0);
    auto run = reportgen::healthyRun();
    run.tcp.assign(7, reportgen::tcpTimeout());
    std::vector<std::string> worstFirst(7, "fail");
    worstFirst.insert(worstFirst.end(), 3, "ok");
    std::string ref;
    {
        reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
        ref = reportd::reference(reportd::upload(s.port(), reportgen::report(run), "kim"));
        ASSERT_FALSE(ref.empty());
        auto page = s.signedIn().get("/reports/" + ref);
        EXPECT_EQ(verdictLevels(page.body), worstFirst) << page.body;
        // The rules themselves go UDP first.
        EXPECT_LT(page.body.find("<tr class=\"fail\">"),
                  page.body.find("<td>UDP pass-through works"));
        EXPECT_EQ(s.stop(), 0);
    }
    setClock(t0 + 10 * 86400);
    auto purge = reportd::command(KOBREPORTD_BIN, {"purge", "--older-than", "5", "--db", db}, "",
                                  clockEnv());
    ASSERT_EQ(purge.out, "1 report expired\n") << purge.err;
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    auto page = s.signedIn().get("/reports/" + ref);
    ASSERT_NE(page.body.find("id=\"expired\""), std::string::npos) << page.body;
    EXPECT_EQ(verdictLevels(page.body), worstFirst) << page.body;
    EXPECT_EQ(s.stop(), 0);
}

// Each person reads times in a zone of their own, named beside each time;
// the run's own time, which kobdiag writes without a zone, says whose it is.
TEST_P(Staff, EachPersonReadsTimesInTheirOwnZone) {
    setClock(1800000000); // 2027-01-15 08:00:00 UTC
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    std::string ref = reportd::reference(
        reportd::upload(s.port(), reportgen::report(reportgen::healthyRun()), "zoe"));
    ASSERT_FALSE(ref.empty());
    std::string viewer;
    auto b = s.signedIn("viewer", &viewer);
    auto admin = s.signedIn("admin");
    EXPECT_NE(b.get("/").body.find("<td class=\"time\">2027-01-15 08:00:00 UTC</td>"),
              std::string::npos);
    b.get("/settings");
    auto bad = b.post("/settings/zone", {{"zone", "Mars/Olympus"}});
    EXPECT_EQ(bad.status, 400);
    EXPECT_NE(bad.body.find("<p class=\"notice\" id=\"message\">Not changed: no time zone is "
                            "called \u201cMars/Olympus\u201d. Pick one of the list, such as "
                            "Europe/Berlin, or UTC.</p>"),
              std::string::npos)
        << bad.body;
    auto good = b.post("/settings/zone", {{"zone", "America/New_York"}});
    EXPECT_EQ(good.status, 200);
    EXPECT_NE(good.body.find("<p class=\"notice\" id=\"message\">Times are now shown in "
                             "America/New_York.</p>"),
              std::string::npos)
        << good.body;
    EXPECT_NE(good.body.find("Times are shown in America/New_York: it is now 2027-01-15 "
                             "03:00:00 EST."),
              std::string::npos)
        << good.body;
    EXPECT_NE(b.get("/").body.find("<td class=\"time\">2027-01-15 03:00:00 EST</td>"),
              std::string::npos);
    auto page = b.get("/reports/" + ref);
    EXPECT_NE(page.body.find("<dt>Received</dt><dd>2027-01-15 03:00:00 EST</dd>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(
        page.body.find("<dt>Run started</dt><dd>Sat Nov 21 10:00:00 2026 (the user&#39;s local "
                       "time)</dd>"),
        std::string::npos)
        << page.body;
    // Someone else still reads UTC.
    EXPECT_NE(admin.get("/reports/" + ref).body.find("<dd>2027-01-15 08:00:00 UTC</dd>"),
              std::string::npos);
    // A day in from and to is the viewer's day: 08:00 UTC is still the 15th
    // in New York, and 02:00 UTC on the 15th was the 14th there.
    setClock(1800000000 - 6 * 3600);
    std::string late = reportd::reference(
        reportd::upload(s.port(), reportgen::report(reportgen::healthyRun()), "zoe"));
    ASSERT_FALSE(late.empty());
    auto day14 = b.get("/?to=2027-01-14");
    EXPECT_NE(day14.body.find(late), std::string::npos) << day14.body;
    EXPECT_EQ(day14.body.find(ref), std::string::npos);
    auto utc14 = admin.get("/?to=2027-01-14");
    EXPECT_NE(utc14.body.find("id=\"empty\""), std::string::npos) << utc14.body;
    EXPECT_EQ(value("SELECT zone FROM users WHERE name = '" + viewer + "'"), "America/New_York");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'account.zone'"), "America/New_York");
    EXPECT_EQ(s.stop(), 0);
}

TEST_P(Staff, OldRawTextExpiresAndTheFindingsRemain) {
    std::time_t t0 = 1800000000;
    setClock(t0);
    std::string oldRef, newRef;
    {
        reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
        auto run = reportgen::healthyRun();
        run.username = "heidi";
        run.udp.assign(5, reportgen::udpTimeout());
        oldRef = reportd::reference(
            reportd::upload(s.port(), reportgen::report(run), "heidi", "secret comment\n"));
        setClock(t0 + 80 * 86400);
        newRef = reportd::reference(reportd::upload(s.port(), "recent\n", "ivan"));
        EXPECT_EQ(s.stop(), 0);
    }
    // Started again 91 days after the first report: it expires before the
    // server takes requests; the recent one stays whole.
    setClock(t0 + 91 * 86400);
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    auto json = s.api("/api/reports/" + oldRef);
    ASSERT_EQ(json.status, 200);
    EXPECT_NE(json.body.find("\"raw_expired\":true"), std::string::npos) << json.body;
    EXPECT_NE(json.body.find("\"form_username\":\"heidi\""), std::string::npos);
    EXPECT_NE(json.body.find("UDP pass-through blocked (5/5 timeouts)"), std::string::npos);
    EXPECT_EQ(json.body.find("secret comment"), std::string::npos);
    EXPECT_EQ(s.api("/api/reports/" + oldRef + "/raw?reveal=1").status, 410);
    EXPECT_EQ(s.api("/api/reports/" + newRef + "/raw?reveal=1").body, "recent\n");
    auto page = s.signedIn().get("/reports/" + oldRef);
    EXPECT_NE(page.body.find("<p class=\"notice\" id=\"expired\">The raw text of this report has "
                             "expired (reports keep it 90 days); its summary and findings "
                             "remain.</p>"),
              std::string::npos)
        << page.body;
    // The kept verdicts still show their rule and evidence.
    EXPECT_NE(
        page.body.find("<td>UDP pass-through blocked (5/5 timeouts)<details "
                       "class=\"evidence\"><summary>rule udp.blocked (version 1), 5 lines of the "
                       "report</summary>"),
        std::string::npos)
        << page.body;
    EXPECT_EQ(value("SELECT length(why) FROM reports WHERE reference = '" + oldRef + "'"),
              "<none>");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'retention.expired'"), "1");
    EXPECT_EQ(s.stop(), 0);

    // The command does the same at once, for any age.
    auto purge = reportd::command(KOBREPORTD_BIN, {"purge", "--older-than", "5", "--db", db}, "",
                                  clockEnv());
    EXPECT_EQ(purge.status, 0) << purge.err;
    EXPECT_EQ(purge.out, "1 report expired\n");
    // What is kept is kept compressed: nothing of it is plain in its row.
    EXPECT_EQ(value("SELECT length(findings) FROM reports WHERE reference = '" + oldRef + "'"),
              "0");
    EXPECT_EQ(value("SELECT count(*) FROM reports WHERE findings_zstd IS NOT NULL"), "2");
}

TEST_P(Staff, FindingsKeptPlainByTheLastLayoutAreCompressedOnStart) {
    std::string ref;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        ref = reportd::reference(reportd::upload(s.port(), "old report\n", "kim"));
        ASSERT_EQ(s.stop(), 0);
    }
    // As layout 7 kept an expired report: its findings as JSON text.
    value("ALTER TABLE reports DROP COLUMN findings_zstd");
    value("UPDATE reports SET raw_expired = 1, desc_zstd = 0, \"desc\" = " +
          std::string(GetParam() == "postgres" ? "''::bytea" : "X''") +
          ", findings = '{\"header\":{\"user\":\"kim\"}}'");
    // As layouts before 10 kept accounts.
    for (const char *sql :
         {"ALTER TABLE users DROP COLUMN disabled", "ALTER TABLE users DROP COLUMN last_signin",
          "ALTER TABLE tokens DROP COLUMN disabled", "DROP TABLE password_resets"})
        value(sql);
    value("UPDATE kob_meta SET value = '7' WHERE key = 'schema'");
    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(value("SELECT value FROM kob_meta WHERE key = 'schema'"),
              std::to_string(reportd::kLayout));
    EXPECT_EQ(value("SELECT length(findings) FROM reports"), "0");
    EXPECT_NE(value("SELECT findings_zstd FROM reports"), "<none>");
    auto json = s.api("/api/reports/" + ref);
    EXPECT_NE(json.body.find("\"findings\":{\"header\":{\"user\":\"kim\"}}"), std::string::npos)
        << json.body;
}

// Expiry replaces each report's text with its smaller findings, and the
// file gives the pages so freed back.
TEST_P(Staff, PurgingFiveHundredReportsLeavesASmallerFile) {
    if (GetParam() == "postgres")
        GTEST_SKIP() << "PostgreSQL reuses the space of dead rows after its ordinary vacuum";
    auto bytes = [&] {
        uintmax_t n = 0;
        for (const char *side : {"", "-wal"}) {
            std::error_code ec;
            auto size = std::filesystem::file_size(db + side, ec);
            n += ec ? 0 : size;
        }
        return n;
    };
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        for (int i = 0; i < 500; i++)
            ASSERT_EQ(reportd::upload(s.port(), reportgen::reportOfSize(12000, i)).status, 200);
        ASSERT_EQ(s.stop(), 0);
    }
    uintmax_t before = bytes();
    auto purge = reportd::command(KOBREPORTD_BIN, {"purge", "--older-than", "0", "--db", db});
    ASSERT_EQ(purge.status, 0) << purge.err;
    EXPECT_EQ(purge.out, "500 reports expired\n");
    uintmax_t after = bytes();
    EXPECT_LT(after, before) << "before " << before << " bytes, after " << after;
    std::printf("the database before purging 500 reports: %ju bytes; after: %ju bytes\n", before,
                after);
}

TEST_P(Staff, ADeletedReportIsGoneAndItsTextLeavesTheDatabaseFile) {
    reportd::Server s(KOBREPORTD_BIN, db);
    const std::string marker = "UNIQUE-MARKER-7f3a9c";
    std::string big = marker + "\n";
    for (unsigned i = 0, x = 1; i < 20000; i++, x = x * 1103515245u + 12345u)
        big += "judy's log line " + std::to_string(i) + " " + std::to_string(x) + "\n";
    big += marker + "\n";
    std::string ref = reportd::reference(reportd::upload(s.port(), big, "judy", marker.c_str()));
    std::string other = reportd::reference(reportd::upload(s.port(), "stays\n"));
    // The report as the database holds it.
    const std::string stored = reportd::zstdFrame(big);
    ASSERT_GT(stored.size(), 10000u);
    auto inFiles = [&](const std::string &what) {
        std::string bytes;
        for (const std::string &f : std::vector<std::string>{db, db + "-wal"})
            bytes += kobtest::fileExists(f) ? kobtest::readFile(f) : "";
        return bytes.find(what) != std::string::npos;
    };
    // Pieces of it, each within one page of the file.
    std::vector<std::string> pieces;
    for (size_t at = 0; at + 64 <= stored.size(); at += stored.size() / 8)
        pieces.push_back(stored.substr(at, 64));
    if (GetParam() == "sqlite") {
        EXPECT_TRUE(inFiles(marker));
        for (const std::string &p : pieces)
            EXPECT_TRUE(inFiles(p));
    }
    auto r = s.api("/api/reports/" + ref, "DELETE");
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.body, "{\"deleted\":\"" + ref + "\"}");
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 404);
    EXPECT_EQ(s.api("/api/reports/" + ref, "DELETE").status, 404);
    EXPECT_EQ(s.api("/api/reports/" + other + "/raw?reveal=1").body, "stays\n");
    if (GetParam() == "sqlite") {
        // Neither the file nor its log holds it any more: not the comment,
        // nor any of those pieces of the report as it was stored.
        EXPECT_FALSE(inFiles(marker));
        for (const std::string &p : pieces)
            EXPECT_FALSE(inFiles(p));
    }
}

TEST_P(Staff, ADatabaseOfTheFirstLayoutIsBroughtUpToDateOnStart) {
    const char *firstLayout =
        GetParam() == "postgres"
            ? "CREATE TABLE reports (id BIGSERIAL PRIMARY KEY, reference TEXT NOT NULL UNIQUE,"
              " received_at BIGINT NOT NULL, form_username TEXT, report_username TEXT,"
              " summary TEXT NOT NULL, peer TEXT NOT NULL, size BIGINT NOT NULL,"
              " \"desc\" BYTEA NOT NULL, why BYTEA)"
            : "CREATE TABLE reports (id INTEGER PRIMARY KEY AUTOINCREMENT, reference TEXT UNIQUE,"
              " received_at INTEGER NOT NULL, form_username TEXT, report_username TEXT,"
              " summary TEXT NOT NULL, peer TEXT NOT NULL, size INTEGER NOT NULL,"
              " desc BLOB NOT NULL, why BLOB)";
    value(firstLayout);
    value("INSERT INTO reports (reference, received_at, form_username, report_username, summary,"
          " peer, size, \"desc\", why) VALUES ('KOB-20260101-000001', 1767225600, 'kim', 'kim',"
          " 'no problem found', '127.0.0.1', 4, 'old\n', NULL)");
    if (GetParam() == "postgres")
        value("SELECT setval(pg_get_serial_sequence('reports', 'id'), 1)");
    reportd::Server s(KOBREPORTD_BIN, db, {"--retain-days", "0"});
    EXPECT_EQ(s.api("/api/reports/KOB-20260101-000001/raw?reveal=1").body, "old\n");
    std::string ref = reportd::reference(reportd::upload(s.port(), "new\n"));
    EXPECT_EQ(ref.size(), 22u) << ref;
    EXPECT_EQ(value("SELECT value FROM kob_meta WHERE key = 'schema'"),
              std::to_string(reportd::kLayout));
    // The old text stays as it was; the new one is compressed.
    EXPECT_EQ(value("SELECT desc_zstd FROM reports WHERE reference = 'KOB-20260101-000001'"), "0");
    EXPECT_EQ(value("SELECT desc_zstd FROM reports WHERE reference = '" + ref + "'"), "1");
    // Judged by no rules that are known: retriage will take it.
    EXPECT_EQ(value("SELECT rules FROM reports WHERE reference = 'KOB-20260101-000001'"), "0");
    EXPECT_EQ(value("SELECT rules FROM reports WHERE reference = '" + ref + "'"), "1");
    EXPECT_EQ(s.signedIn().get("/reports/KOB-20260101-000001").status, 200);
    EXPECT_EQ(s.stop(), 0);
    // A second start finds it done.
    reportd::Server again(KOBREPORTD_BIN, db);
    EXPECT_EQ(again.api("/api/reports").body.rfind("{\"total\":2,", 0), 0u);
}

TEST_P(Staff, ADatabaseOfTheLastLayoutKeepsItsTextsAsTheyCameAndCompressesNewOnes) {
    std::string oldRef;
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        oldRef = reportd::reference(reportd::upload(s.port(), "old report\n"));
        ASSERT_EQ(s.stop(), 0);
    }
    // As layout 4 left it: the text as it came, no flag for it, no sender's
    // network.
    value("ALTER TABLE reports DROP COLUMN desc_zstd");
    value("ALTER TABLE reports DROP COLUMN sender_net");
    value("ALTER TABLE reports DROP COLUMN findings_zstd");
    // Nor folded sign-ins; its audit log took no change at all.
    if (GetParam() == "sqlite")
        value("DROP TRIGGER audit_append_only_UPDATE");
    value("ALTER TABLE audit DROP COLUMN count");
    value("ALTER TABLE audit DROP COLUMN last_at");
    if (GetParam() == "sqlite")
        value("CREATE TRIGGER audit_append_only_UPDATE BEFORE UPDATE ON audit BEGIN SELECT"
              " RAISE(ABORT, 'the audit log is append-only'); END");
    value(GetParam() == "postgres"
              ? "UPDATE reports SET \"desc\" = convert_to('old report' || chr(10), 'UTF8')"
              : "UPDATE reports SET \"desc\" = CAST('old report' || char(10) AS BLOB)");
    // As layouts before 10 kept accounts.
    for (const char *sql :
         {"ALTER TABLE users DROP COLUMN disabled", "ALTER TABLE users DROP COLUMN last_signin",
          "ALTER TABLE tokens DROP COLUMN disabled", "DROP TABLE password_resets"})
        value(sql);
    value("UPDATE kob_meta SET value = '4' WHERE key = 'schema'");

    reportd::Server s(KOBREPORTD_BIN, db);
    EXPECT_EQ(value("SELECT value FROM kob_meta WHERE key = 'schema'"),
              std::to_string(reportd::kLayout));
    EXPECT_EQ(s.api("/api/reports/" + oldRef + "/raw?reveal=1").body, "old report\n");
    std::string newRef = reportd::reference(reportd::upload(s.port(), "new report\n"));
    EXPECT_EQ(s.api("/api/reports/" + newRef + "/raw?reveal=1").body, "new report\n");
    EXPECT_EQ(value("SELECT desc_zstd FROM reports WHERE reference = '" + oldRef + "'"), "0");
    EXPECT_EQ(value("SELECT desc_zstd FROM reports WHERE reference = '" + newRef + "'"), "1");
    EXPECT_EQ(value("SELECT sender_net FROM reports WHERE reference = '" + oldRef + "'"),
              GetParam() == "postgres" ? "<none>" : "");
    EXPECT_EQ(value("SELECT sender_net FROM reports WHERE reference = '" + newRef + "'"),
              "127.0.0.0/24");
}

TEST_P(Staff, AStoredReportThatNoLongerDecompressesIsAnErrorNotAnotherText) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string bad = reportd::reference(reportd::upload(s.port(), "will be damaged\n"));
    std::string good = reportd::reference(reportd::upload(s.port(), "stays readable\n"));
    // A zstd frame's magic and then nothing that decodes.
    value(std::string("UPDATE reports SET \"desc\" = ") +
          (GetParam() == "postgres" ? "'\\x28b52ffd00ff'::bytea" : "X'28b52ffd00ff'") +
          " WHERE reference = '" + bad + "'");
    auto raw = s.api("/api/reports/" + bad + "/raw?reveal=1");
    EXPECT_EQ(raw.status, 500);
    EXPECT_EQ(raw.body, "Internal error\n");
    EXPECT_EQ(s.api("/api/reports/" + good + "/raw?reveal=1").body, "stays readable\n");
    auto failed = reportd::logEvents(s.errors(), "request_failed");
    ASSERT_EQ(failed.size(), 1u) << s.errors();
    EXPECT_EQ(failed[0]["level"], "error");
    EXPECT_EQ(failed[0]["method"], "GET");
    EXPECT_EQ(failed[0]["route"], "/api/reports/{ref}/raw");
    EXPECT_EQ(failed[0]["error"], "a stored report is damaged: its text does not decompress");
    ASSERT_EQ(s.stop(), 0);
    // Retriage leaves it as it was and goes on with the others.
    value("UPDATE reports SET rules = 0");
    auto run = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    EXPECT_EQ(run.status, 0) << run.err;
    auto skipped = reportd::logEvents(run.err, "retriage_skipped");
    ASSERT_EQ(skipped.size(), 1u) << run.err;
    EXPECT_EQ(skipped[0]["error"], "a stored report is damaged: its text does not decompress");
    EXPECT_EQ(value("SELECT rules FROM reports WHERE reference = '" + bad + "'"), "0");
    EXPECT_EQ(value("SELECT rules FROM reports WHERE reference = '" + good + "'"), "1");
}

TEST_P(Staff, RetriageBringsOlderReportsToTheCurrentRulesAndTheFleetFollows) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto slow = reportgen::healthyRun();
    slow.tcp[3] = reportgen::tcpTimeout();
    auto offline = reportgen::healthyRun();
    offline.udp.assign(5, reportgen::udpTimeout());
    offline.tcp.assign(7, reportgen::tcpFail(51, "Network is unreachable"));
    std::vector<std::string> refs;
    for (const auto &run : {reportgen::healthyRun(), slow, offline, reportgen::healthyRun()})
        refs.push_back(reportd::reference(reportd::upload(s.port(), reportgen::report(run))));
    ASSERT_EQ(s.stop(), 0);
    auto summary = [&](int k) {
        return value("SELECT summary FROM reports WHERE reference = '" + refs[k] + "'");
    };
    std::string slowSummary = summary(1), offlineSummary = summary(2);
    EXPECT_EQ(offlineSummary, "no network at all: no public target answered and `netstat -rn' "
                              "shows no default route");
    auto counted = [&] {
        return value("SELECT count(*) || '/' || sum(failing) FROM outcomes") + " " +
               value("SELECT sum(reports) || '/' || sum(failing) FROM outcome_hours");
    };
    std::string lastOutcomes = value("SELECT count(*) FROM outcomes o JOIN reports r ON"
                                     " r.id = o.report_id WHERE r.reference = '" +
                                     refs[3] + "'");
    ASSERT_EQ(lastOutcomes, "13");

    // As an older kobreportd left them: other summaries, no outcomes, and
    // the last one's raw text expired.
    value("UPDATE reports SET rules = 0, summary = 'judged by older rules'");
    value("DELETE FROM outcomes");
    value("DELETE FROM outcome_hours");
    value("UPDATE reports SET raw_expired = 1 WHERE reference = '" + refs[3] + "'");

    auto run = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind("3 reports re-judged with rules version 1 in ", 0), 0u) << run.out;
    const std::string kept = " s; 1 kept as they were (raw text expired)\n";
    ASSERT_GT(run.out.size(), kept.size());
    EXPECT_EQ(run.out.substr(run.out.size() - kept.size()), kept) << run.out;
    EXPECT_EQ(run.err.rfind("retriage: 3 reports to re-judge with rules version 1\n", 0), 0u)
        << run.err;
    EXPECT_NE(run.err.find("\nretriage: 3 of 3 reports, "), std::string::npos) << run.err;
    EXPECT_EQ(summary(0), "no problem found");
    EXPECT_EQ(summary(1), slowSummary);
    EXPECT_EQ(summary(2), offlineSummary);
    EXPECT_EQ(summary(3), "judged by older rules");
    EXPECT_EQ(value("SELECT rules FROM reports WHERE reference = '" + refs[3] + "'"), "0");
    // Two reports of 13 targets each, one failing in the slow one, and the
    // one without network counted once, as its own row, failing no target;
    // the hourly totals agree.
    EXPECT_EQ(counted(), "27/2 27/2");

    // Done is done; and a run stopped half-way goes on with what is left.
    auto again = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    EXPECT_EQ(again.out.rfind("0 reports re-judged with rules version 1 in ", 0), 0u) << again.out;
    value("UPDATE reports SET rules = 0 WHERE reference = '" + refs[1] + "'");
    auto rest = reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db});
    EXPECT_EQ(rest.out.rfind("1 report re-judged with rules version 1 in ", 0), 0u) << rest.out;
    EXPECT_EQ(counted(), "27/2 27/2");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'reports.retriaged'"), "3");

    // The fleet's numbers come from the new outcomes.
    reportd::Server after(KOBREPORTD_BIN, db);
    auto fleet = after.api("/api/fleet?window=24h");
    EXPECT_NE(fleet.body.find("{\"area\":\"tcp\",\"target\":\"Testing TCP pass-through to port "
                              "443\",\"reports\":2,\"failing\":1,"),
              std::string::npos)
        << fleet.body;
    EXPECT_EQ(reportd::command(KOBREPORTD_BIN, {"retriage", "--db", db, "extra"}).status, 1);
}

TEST_P(Staff, NamesAndSearchesAreCleanedAndMatchedLiterallyOnEitherStore) {
    reportd::Server s(KOBREPORTD_BIN, db);
    // User names with broken UTF-8, a zero byte and every wildcard of LIKE.
    const std::vector<std::string> names = {"bad\xff\xfe", "nul\x01",     "100%", "under_score",
                                            "it's",        "back\\slash", "plain"};
    for (const auto &n : names)
        ASSERT_FALSE(reportd::reference(reportd::upload(s.port(), "r\n", n.c_str())).empty()) << n;
    // A form field with a zero byte in it is cut by nothing: it is kept as U+FFFD.
    std::string body = reportgen::body(std::string("r\n"), std::string("ze\0ro", 5), std::nullopt);
    ASSERT_EQ(reportd::exchange(s.port(), {reportgen::head("h", body.size()), body}).status, 200);
    struct Case {
        std::string q; // as sent, percent-encoded
        int total;
    } cases[] = {
        {"%25", 1},       // "%" matches only "100%"
        {"_", 1},         // "_" only "under_score"
        {"%27", 1},       // "'" only "it's"
        {"%5C", 1},       // "\" only "back\slash"
        {"%EF%BF%BD", 2}, // U+FFFD: the broken name and the zero byte
        {"%FF", 2},       // a broken search is cleaned the same way
        {"ze%EF%BF%BDro", 1},
        {"PLAIN", 1},
        {"%25%25", 0},
        {"", static_cast<int>(names.size()) + 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.q);
        auto r = s.api("/api/reports?q=" + c.q);
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body.rfind("{\"total\":" + std::to_string(c.total) + ",", 0), 0u)
            << r.body.substr(0, 300);
    }
    auto list = s.api("/api/reports?q=bad");
    EXPECT_NE(list.body.find("\"form_username\":\"bad\xef\xbf\xbd\xef\xbf\xbd\""),
              std::string::npos)
        << list.body;
}

namespace {

std::string iso(std::time_t t) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

// A run whose TCP probe to port 443 timed out.
std::string port443Down() {
    auto run = reportgen::healthyRun();
    run.tcp[3] = reportgen::tcpTimeout();
    return reportgen::report(run);
}

const std::string k443 = "Testing TCP pass-through to port 443";

// A sender on a network of its own: 127.0.N.1 is in the /24 127.0.N.0.
std::string userNetwork(int n) {
    return "127.0." + std::to_string(10 + n) + ".1";
}

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size())
        n++;
    return n;
}

} // namespace

TEST_P(Staff, FleetNumbersPerTargetAndHourAreWhatWasSent) {
    const std::time_t t0 = 1800000000; // on the hour
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    setClock(t0 - 3 * 3600 + 100);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(reportd::upload(s.port(), reportgen::report(reportgen::healthyRun())).status,
                  200);
    setClock(t0 - 2 * 3600 + 100);
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(reportd::upload(s.port(), port443Down()).status, 200);
    ASSERT_EQ(reportd::upload(s.port(), reportgen::report(reportgen::healthyRun())).status, 200);
    // Not a kobdiag report: no target, not counted anywhere.
    ASSERT_EQ(reportd::upload(s.port(), "hello\n").status, 200);
    setClock(t0 + 600);

    auto j = s.api("/api/fleet?window=6h");
    ASSERT_EQ(j.status, 200);
    EXPECT_EQ(j.body.rfind("{\"window\":\"6h\",\"from\":\"" + iso(t0 - 5 * 3600) + "\",\"to\":\"" +
                               iso(t0 + 3600) + "\",\"bucket_seconds\":3600,",
                           0),
              0u)
        << j.body.substr(0, 300);
    // Hand-counted: six runs, two of them with port 443 down, in two hours.
    EXPECT_NE(j.body.find("{\"area\":\"tcp\",\"target\":\"" + k443 +
                          "\",\"reports\":6,\"failing\":2,\"broken\":false,\"last_hour\":{"
                          "\"reports\":0,\"failing\":0},\"baseline\":{\"reports\":6,\"failing\":2,"
                          "\"share\":0.375},\"buckets\":[{\"start\":\"" +
                          iso(t0 - 3 * 3600) + "\",\"reports\":3,\"failing\":0},{\"start\":\"" +
                          iso(t0 - 2 * 3600) + "\",\"reports\":3,\"failing\":2}]}"),
              std::string::npos)
        << j.body;
    EXPECT_NE(j.body.find("{\"area\":\"udp\",\"target\":\"UDP pass-through\",\"reports\":6,"
                          "\"failing\":0,"),
              std::string::npos);
    EXPECT_NE(j.body.find("{\"area\":\"intranet\",\"target\":\"10.243.160.1:8081\",\"reports\":6,"
                          "\"failing\":0,"),
              std::string::npos)
        << j.body;
    // Seven TCP probes, the pass-through, four gateways and the traceroute.
    size_t targets = 0;
    for (size_t at = 0; (at = j.body.find("{\"area\":", at)) != std::string::npos; at++)
        targets++;
    EXPECT_EQ(targets, 13u);
    // Per day over a week: one bucket holds all six.
    auto week = s.api("/api/fleet?window=7d");
    EXPECT_NE(week.body.find("\"target\":\"" + k443 + "\",\"reports\":6,\"failing\":2,"),
              std::string::npos);
    EXPECT_NE(week.body.find("\"buckets\":[{\"start\":\"" + iso(t0 - t0 % 86400) +
                             "\",\"reports\":6,\"failing\":2}]"),
              std::string::npos)
        << week.body;
    EXPECT_EQ(s.api("/api/fleet?window=1y").status, 400);
    // The page draws the same, as SVG without script.
    auto page = s.signedIn("viewer").get("/fleet?window=6h");
    ASSERT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("<p class=\"ok\" id=\"broken\">Nothing"), std::string::npos);
    EXPECT_NE(page.body.find("<title>" + iso(t0 - 2 * 3600).substr(0, 10) + " " +
                             iso(t0 - 2 * 3600).substr(11, 2) + ":00 UTC: 2 of 3 failing</title>"),
              std::string::npos)
        << page.body;
    EXPECT_EQ(page.body.find("<script"), std::string::npos);
}

TEST_P(Staff, AnOutageOfOneTargetIsBrokenNowAndItsReportsAreOneClickAway) {
    const std::time_t t0 = 1800000000;
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    // A healthy week: twenty reports, every six hours.
    for (int i = 20; i >= 1; i--) {
        setClock(t0 - i * 6 * 3600);
        ASSERT_EQ(reportd::upload(s.port(), reportgen::report(reportgen::healthyRun())).status,
                  200);
    }
    // Then, within the last hour, port 443 fails for five of six users, each
    // on a network of their own.
    std::vector<std::string> down;
    for (int i = 0; i < 6; i++) {
        setClock(t0 + 60 * i);
        auto r = reportd::uploadFrom(userNetwork(i), s.port(),
                                     i == 2 ? reportgen::report(reportgen::healthyRun())
                                            : port443Down());
        ASSERT_EQ(r.status, 200);
        if (i != 2)
            down.push_back(reportd::reference(r));
    }
    setClock(t0 + 600);
    auto j = s.api("/api/fleet?window=24h");
    size_t broken = 0;
    for (size_t at = 0; (at = j.body.find("\"broken\":true", at)) != std::string::npos; at++)
        broken++;
    EXPECT_EQ(broken, 1u) << j.body;
    // In the window: the outage hour and three healthy reports of the day.
    EXPECT_NE(
        j.body.find("\"target\":\"" + k443 +
                    "\",\"reports\":9,\"failing\":5,\"broken\":true,\"last_hour\":{"
                    "\"reports\":6,\"failing\":5},\"baseline\":{\"reports\":20,\"failing\":0,"),
        std::string::npos)
        << j.body;
    reportd::Browser b = s.signedIn("viewer");
    auto page = b.get("/fleet");
    auto list = page.body.find("<ul class=\"broken\" id=\"broken\"><li class=\"fail\"><a href=\"");
    ASSERT_NE(list, std::string::npos) << page.body;
    EXPECT_NE(page.body.find(k443 + "</a> (tcp): 5 of 6 reports failing in the last hour (83%), "
                                    "against 0% of 20 over the seven days before</li>",
                             list),
              std::string::npos);
    auto failing =
        b.get("/fleet/reports?area=tcp&" + reportd::formEncode({{"target", k443}}) + "&window=6h");
    for (const auto &ref : down)
        EXPECT_NE(failing.body.find("<a href=\"/reports/" + ref + "\">"), std::string::npos) << ref;
    size_t items = 0;
    for (size_t at = 0; (at = failing.body.find("<li>", at)) != std::string::npos; at++)
        items++;
    EXPECT_EQ(items, down.size());
    // A deleted report leaves the numbers.
    EXPECT_EQ(s.api("/api/reports/" + down[0], "DELETE").status, 200);
    EXPECT_NE(s.api("/api/fleet?window=24h")
                  .body.find("\"target\":\"" + k443 + "\",\"reports\":8,\"failing\":4,"),
              std::string::npos);
}

TEST_P(Staff, OneUsersReportsShowWhatChangedAndTwoCompareProbeByProbe) {
    reportd::Server s(KOBREPORTD_BIN, db);
    auto first = reportgen::healthyRun();
    first.username = "pat";
    first.ifconfig = "en0: flags=8863<UP> mtu 1500\n\tinet 192.168.1.23 netmask 0xffffff00\n";
    auto second = first;
    second.tcp[3] = reportgen::tcpTimeout();
    second.ifconfig = "en0: flags=8863<UP> mtu 1500\n\tinet 10.20.30.40 netmask 0xff000000\n"
                      "utun3: flags=8051<UP> mtu 1400\n";
    std::vector<std::string> refs;
    for (const auto *run : {&first, &second, &first})
        refs.push_back(reportd::reference(reportd::upload(s.port(), reportgen::report(*run))));
    ASSERT_EQ(refs.size(), 3u);
    reportd::upload(s.port(), reportgen::report(reportgen::healthyRun()), "someone-else");

    auto api = s.api("/api/users/pat");
    // Each report's own time of receipt, as the answer gives it: the three
    // uploads may fall into different seconds.
    size_t at = 0;
    auto receivedAt = [&api, &at] {
        at = api.body.find("\"received_at\":", at) + 14;
        return api.body.substr(at, 22);
    };
    std::string t2 = receivedAt(), t1 = receivedAt(), t0 = receivedAt();
    EXPECT_EQ(api.body,
              "{\"username\":\"pat\",\"reports\":[{\"reference\":\"" + refs[2] +
                  "\",\"received_at\":" + t2 +
                  ",\"summary\":\"no problem found\",\"now_failing\":[],\"recovered\":[\"" + k443 +
                  "\"]},{\"reference\":\"" + refs[1] + "\",\"received_at\":" + t1 +
                  ",\"summary\":\"TCP 443 to KT IDC unanswered within 15 s\",\"now_failing\":[\"" +
                  k443 + "\"],\"recovered\":[]},{\"reference\":\"" + refs[0] +
                  "\",\"received_at\":" + t0 + ",\"summary\":\"no problem found\"}]}")
        << api.body;
    reportd::Browser b = s.signedIn("viewer");
    auto timeline = b.get("/users/pat");
    EXPECT_NE(timeline.body.find("<span class=\"fail\">now failing: " + k443 + "</span>"),
              std::string::npos);
    EXPECT_NE(timeline.body.find("<span class=\"ok\">recovered: " + k443 + "</span>"),
              std::string::npos);
    EXPECT_EQ(timeline.body.find("someone-else"), std::string::npos);
    // Each report reads as it does in the list: its level and worst verdict.
    EXPECT_NE(timeline.body.find(refs[1] + "</a></td><td class=\"level\"><span class=\"badge "
                                           "fail\">FAIL</span></td><td>TCP probe unanswered</td>"),
              std::string::npos)
        << timeline.body;
    EXPECT_NE(timeline.body.find(refs[0] + "</a></td><td class=\"level\"><span class=\"badge "
                                           "ok\">OK</span></td><td>no problem found</td>"),
              std::string::npos)
        << timeline.body;

    auto cmp = b.get("/compare?a=" + refs[0] + "&b=" + refs[1]);
    ASSERT_EQ(cmp.status, 200);
    EXPECT_NE(cmp.body.find("<tr class=\"changed\"><td>tcp</td><td>" + k443 +
                            "</td><td class=\"ok\">ok</td><td class=\"fail\">failing</td><td>"
                            "<strong>changed</strong></td></tr>"),
              std::string::npos)
        << cmp.body;
    EXPECT_NE(cmp.body.find("<tr><td>udp</td><td>UDP pass-through</td><td class=\"ok\">ok</td>"
                            "<td class=\"ok\">ok</td><td></td></tr>"),
              std::string::npos);
    // The captures' differences, masked as everywhere for a viewer.
    EXPECT_NE(cmp.body.find("<pre id=\"interfaces\">- \tinet 192.168.x.x netmask 0xffffff00\n"
                            "+ \tinet 10.20.x.x netmask 0xff000000\n+ utun3: flags=8051&lt;UP&gt; "
                            "mtu 1400\n</pre>"),
              std::string::npos)
        << cmp.body;
    EXPECT_NE(cmp.body.find("<pre id=\"routes\">(the same)</pre>"), std::string::npos);
    auto cj = s.api("/api/compare?a=" + refs[0] + "&b=" + refs[1]);
    EXPECT_EQ(cj.body, "{\"a\":\"" + refs[0] + "\",\"b\":\"" + refs[1] + "\",\"now_failing\":[\"" +
                           k443 + "\"],\"recovered\":[]}");
    EXPECT_EQ(b.get("/compare?a=" + refs[0] + "&b=KOB-20260101-999999").status, 404);
}

TEST_P(Staff, AnOutageIsPostedOnceAtTheWebhookAndAgainWhenItResolves) {
    kobtest::WebhookReceiver hook(1);
    const std::time_t t0 = 1800000000;
    std::vector<std::string> down;
    {
        // The reports first, on a server that checks nothing yet, so that
        // the first check sees the whole outage.
        reportd::Server quiet(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 20; i >= 1; i--) {
            setClock(t0 - i * 6 * 3600);
            ASSERT_EQ(
                reportd::upload(quiet.port(), reportgen::report(reportgen::healthyRun())).status,
                200);
        }
        for (int i = 0; i < 6; i++) {
            setClock(t0 + 60 * i);
            auto r = reportd::uploadFrom(userNetwork(i), quiet.port(),
                                         i == 2 ? reportgen::report(reportgen::healthyRun())
                                                : port443Down());
            if (i != 2)
                down.push_back(reportd::reference(r));
        }
        EXPECT_EQ(quiet.stop(), 0);
    }
    setClock(t0 + 600);
    reportd::Server s(KOBREPORTD_BIN, db, {"--alert-webhook", hook.url(), "--alert-check", "1"},
                      true, clockEnv());
    std::string opened = hook.wait(1);
    ASSERT_FALSE(opened.empty()) << "no alert within a minute";
    EXPECT_EQ(opened.rfind("{\"event\":\"opened\",\"at\":\"" + iso(t0 + 600) + "\",", 0), 0u)
        << opened;
    EXPECT_NE(opened.find("\"incident\":1,\"status\":\"open\",\"started_at\":\"" + iso(t0) +
                          "\",\"targets\":[{\"area\":\"tcp\",\"target\":\"" + k443 +
                          "\"}],\"reports\":6,\"failing\":5,\"users\":1,\"networks\":[],"
                          "\"samples\":[\"" +
                          down[4] + "\",\"" + down[3] + "\",\"" + down[2] + "\",\"" + down[1] +
                          "\",\"" + down[0] + "\"],\"link\":\"/incidents#incident-1\"}"),
              std::string::npos)
        << opened;
    // The first delivery was refused and tried again.
    EXPECT_GE(hook.attempts(), 2);
    // The scrape shows what is open, once a check has counted it.
    auto scrapedOpen = [&](const std::string &n) {
        for (int i = 0; i < 300; i++) {
            if (s.api("/metrics").body.find("\nkobreportd_alerts_open " + n + "\n") !=
                std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    };
    EXPECT_TRUE(scrapedOpen("1"));
    EXPECT_NE(s.api("/metrics")
                  .body.find("\nkobreportd_alerts_checked_timestamp_seconds " +
                             std::to_string(t0 + 600) + "\n"),
              std::string::npos);
    // Still broken at the next checks: nothing more is sent.  Two hours on,
    // six healthy reports bring the share back and the alert clears.
    setClock(t0 + 2 * 3600);
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(reportd::upload(s.port(), reportgen::report(reportgen::healthyRun())).status,
                  200);
    // The alert clears at once; the incident resolves after a quiet hour,
    // which two hours on it has had.
    std::string resolved = hook.wait(2);
    EXPECT_EQ(resolved.rfind("{\"event\":\"resolved\",", 0), 0u) << resolved;
    EXPECT_NE(resolved.find("\"incident\":1,\"status\":\"resolved\","), std::string::npos)
        << resolved;
    EXPECT_EQ(value("SELECT count(*) FROM alerts"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM alerts WHERE cleared_at IS NULL"), "0");
    EXPECT_NE(s.api("/metrics").body.find("\nkobreportd_alerts_raised_total 1\n"),
              std::string::npos);
    EXPECT_TRUE(scrapedOpen("0"));
    EXPECT_EQ(s.stop(), 0);
    EXPECT_EQ(hook.delivered(), 2u);
}

TEST_P(Staff, AReportNamingATargetTwiceIsStoredAndCountedTwice) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string desc = port443Down();
    const std::string block = "==> " + k443 + "\n" + reportgen::tcpTimeout();
    auto at = desc.find(block);
    ASSERT_NE(at, std::string::npos);
    desc.insert(at, block);
    auto r = reportd::upload(s.port(), desc);
    ASSERT_EQ(r.status, 200) << r.raw;
    auto j = s.api("/api/fleet?window=6h");
    EXPECT_NE(j.body.find("\"target\":\"" + k443 + "\",\"reports\":2,\"failing\":2,"),
              std::string::npos)
        << j.body;
    EXPECT_EQ(value("SELECT count(*) FROM outcomes WHERE target = '" + k443 + "'"), "2");
}

// The same outage from one address, as one person could forge it: as many
// failing reports as a real one, but from one network, so nothing is broken
// and nothing is raised.  The operator may ask for fewer networks.
TEST_P(Staff, FailuresFromOneNetworkAreNeverBrokenNow) {
    const std::time_t t0 = 1800000000;
    {
        reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 20; i >= 1; i--) {
            setClock(t0 - i * 6 * 3600);
            ASSERT_EQ(reportd::upload(s.port(), reportgen::report(reportgen::healthyRun())).status,
                      200);
        }
        // 25 failing reports in the last hour: 127.0.20.1 to .25, one /24.
        for (int i = 0; i < 25; i++) {
            setClock(t0 + 60 * i);
            ASSERT_EQ(
                reportd::uploadFrom("127.0.20." + std::to_string(i + 1), s.port(), port443Down())
                    .status,
                200);
        }
        setClock(t0 + 25 * 60);
        auto j = s.api("/api/fleet?window=24h");
        EXPECT_NE(j.body.find("\"target\":\"" + k443 +
                              "\",\"reports\":28,\"failing\":25,\"broken\":false,\"last_hour\":{"
                              "\"reports\":25,\"failing\":25},"),
                  std::string::npos)
            << j.body;
        EXPECT_EQ(count(j.body, "\"broken\":true"), 0u) << j.body;
        EXPECT_NE(
            s.signedIn("viewer").get("/fleet").body.find("<p class=\"ok\" id=\"broken\">Nothing"),
            std::string::npos);
        EXPECT_EQ(s.stop(), 0);
    }
    EXPECT_EQ(value("SELECT count(DISTINCT sender_net) FROM reports WHERE received_at >= " +
                    std::to_string(t0)),
              "1");
    EXPECT_EQ(
        value("SELECT min(sender_net) FROM reports WHERE received_at >= " + std::to_string(t0)),
        "127.0.20.0/24");
    reportd::Server one(KOBREPORTD_BIN, db, {"--alert-min-senders", "1"}, true, clockEnv());
    auto j = one.api("/api/fleet?window=24h");
    EXPECT_NE(
        j.body.find("\"target\":\"" + k443 + "\",\"reports\":28,\"failing\":25,\"broken\":true,"),
        std::string::npos)
        << j.body;
    EXPECT_EQ(count(j.body, "\"broken\":true"), 1u);
}

// A report may name any heading and any gateway: the report keeps them,
// the fleet counts only the targets kobdiag probes, or those the operator
// lists in --targets.
TEST_P(Staff, OnlyTheProbedTargetsBecomeFleetRows) {
    std::string desc = port443Down();
    std::string invented;
    // Under a sanitizer a tenth as many: the same paths, in a tenth of the time.
    const int targets = kobtest::kSanitized ? 300 : 3000;
    for (int i = 0; i < targets; i++)
        invented += "==> Testing TCP pass-through to port " + std::to_string(20000 + i) + "\n" +
                    reportgen::tcpTimeout() + "==> Testing to the intranet 10.9." +
                    std::to_string(i / 250) + "." + std::to_string(i % 250) + ":8081\n" +
                    reportgen::tcpTimeout();
    auto at = desc.find("==> " + k443);
    ASSERT_NE(at, std::string::npos);
    desc.insert(at, invented);
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        auto r = reportd::upload(s.port(), desc);
        ASSERT_EQ(r.status, 200) << r.raw;
        auto stored = s.api("/api/reports/" + reportd::reference(r) + "/raw");
        EXPECT_NE(stored.body.find("==> Testing TCP pass-through to port " +
                                   std::to_string(20000 + targets - 1) + "\n"),
                  std::string::npos);
        auto j = s.api("/api/fleet?window=6h");
        // Seven TCP probes, the pass-through, four gateways and the traceroute.
        EXPECT_EQ(count(j.body, "{\"area\":"), 13u) << j.body.substr(0, 2000);
        EXPECT_NE(j.body.find("\"target\":\"" + k443 + "\",\"reports\":1,\"failing\":1,"),
                  std::string::npos);
        EXPECT_LT(j.body.size(), size_t{16} << 10);
        EXPECT_EQ(s.stop(), 0);
    }
    EXPECT_EQ(value("SELECT count(*) FROM outcomes"), "13");
    EXPECT_EQ(value("SELECT count(*) FROM outcome_hours"), "13");

    // The operator's own list: two targets, one of them invented above.
    std::string list = dir.file("targets");
    kobtest::writeFile(list, "# the two we watch\n\ntcp " + k443 +
                                 "\n  intranet   10.9.0.7:8081   # a gateway of ours\n");
    reportd::Server s(KOBREPORTD_BIN, db, {"--targets", list});
    ASSERT_EQ(reportd::upload(s.port(), desc).status, 200);
    auto j = s.api("/api/fleet?window=6h");
    EXPECT_EQ(count(j.body, "{\"area\":"), 2u) << j.body.substr(0, 2000);
    EXPECT_NE(j.body.find("{\"area\":\"intranet\",\"target\":\"10.9.0.7:8081\",\"reports\":1,"
                          "\"failing\":1,"),
              std::string::npos)
        << j.body;
    EXPECT_NE(j.body.find("\"target\":\"" + k443 + "\",\"reports\":2,\"failing\":2,"),
              std::string::npos);
}

TEST(ReportdTargets, AListThatIsNotAreaAndTargetIsRefusedWithItsLine) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("targets"), "udp UDP pass-through\nping 10.0.0.1\n");
    auto r = kobtest::runProgram({KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db",
                                  dir.file("r.db"), "--targets", dir.file("targets")});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err,
              "kobreportd: " + dir.file("targets") +
                  ":2: not \"AREA TARGET\" with AREA one of udp, tcp, intranet, traceroute\n");
    r = kobtest::runProgram({KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db", dir.file("r.db"),
                             "--targets", dir.file("none")});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "kobreportd: cannot read " + dir.file("none") + "\n");
}

// The database holds users' addresses and logs: from a root shell's umask,
// from the server and from its commands alike, it and its side files are
// the service's alone; a file an earlier version left readable is closed.
TEST(ReportdFiles, TheDatabaseAndItsSideFilesAreCreatedPrivateWhateverTheUmask) {
    kobtest::TempDir dir;
    mode_t old = umask(022);
    auto mode = [](const std::string &path) {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
    };
    std::string db = dir.file("reports.db");
    {
        reportd::Server s(KOBREPORTD_BIN, db);
        ASSERT_EQ(reportd::upload(s.port(), "a report\n").status, 200);
        EXPECT_EQ(mode(db), 0600);
        EXPECT_EQ(mode(db + "-wal"), 0600);
        EXPECT_EQ(mode(db + "-shm"), 0600);
        EXPECT_EQ(s.stop(), 0);
    }
    std::string byCommand = dir.file("by-command.db");
    auto r = reportd::command(KOBREPORTD_BIN, {"token", "add", "t", "--db", byCommand});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(mode(byCommand), 0600);
    std::string open = dir.file("open.db");
    kobtest::writeFile(open, "");
    ASSERT_EQ(chmod(open.c_str(), 0644), 0);
    r = reportd::command(KOBREPORTD_BIN, {"token", "list", "--db", open});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(mode(open), 0600);
    umask(old);
}

// A stranger's flood of sign-ins: long invented names, a wrong password for
// a real account, from one address within a minute.  The log keeps one row
// per account there is and one for every other name, each with its count;
// what was typed as a name is kept only when it names an account.
TEST_P(Staff, AFloodOfFailedSignInsIsFoldedAndStrangersNamesAreNotKept) {
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    const std::time_t t0 = 1800000000; // on the minute
    setClock(t0 + 5);
    ASSERT_EQ(s.addUser("gail", "viewer", "password of gail").status, 0);
    reportd::Browser b(s.staffPort());
    int refused = 0;
    for (int i = 0; i < 40; i++) {
        std::string name =
            i % 10 == 9 ? "gail" : std::string(4096, static_cast<char>('a' + i % 26));
        auto r = b.signIn(name, "not it");
        ASSERT_TRUE(r.status == 401 || r.status == 429) << r.status;
        refused += r.status == 429;
    }
    // Five failures from the address shut it; the rest were refused.
    EXPECT_EQ(refused, 35);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action LIKE 'signin.%'"), "3");
    EXPECT_EQ(value("SELECT sum(count) FROM audit WHERE action = 'signin.failed'"), "5");
    EXPECT_EQ(value("SELECT sum(count) FROM audit WHERE action = 'signin.locked'"), "35");
    EXPECT_EQ(value("SELECT count FROM audit WHERE action = 'signin.failed' AND account = '" +
                    std::string("(no such account)") + "'"),
              "5");
    EXPECT_EQ(value("SELECT count FROM audit WHERE action = 'signin.locked' AND account = 'gail'"),
              "4");
    EXPECT_EQ(value("SELECT max(length(account)) FROM audit WHERE action LIKE 'signin.%'"), "17");
    // The next minute starts a row of its own; the log shows the count.
    setClock(t0 + 65);
    EXPECT_EQ(b.signIn("gail", "not it").status, 429);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'signin.locked'"), "3");
    setClock(t0 + 400);
    auto page = s.signedIn("admin").get("/audit");
    std::string at = iso(t0 + 5);
    EXPECT_NE(page.body.find("<td>31 times, the last at " + at.substr(0, 10) + " " +
                             at.substr(11, 8) + " UTC</td>"),
              std::string::npos)
        << page.body;
    // Rows stay append-only but for a folded row's count.
    std::string before = value("SELECT sum(count) FROM audit");
    std::string other = value("UPDATE audit SET account = 'x' WHERE action = 'signin.locked'");
    std::string notFolded = value("UPDATE audit SET count = count + 1 WHERE action = 'signin'");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE account = 'x'"), "0");
    EXPECT_EQ(value("SELECT sum(count) FROM audit"), before);
    if (GetParam() == "sqlite") {
        EXPECT_EQ(other, "<error: the audit log is append-only>");
        EXPECT_EQ(notFolded, "<error: the audit log is append-only>");
    }
}
