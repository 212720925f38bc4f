// kobreportd's accounts on both databases: the password rules on every
// path, changing and resetting passwords, roles, disabling, the last
// admin kept, confirmations before deleting, the last sign-in, and the
// bounded cost of many wrong sign-ins at once.

#include "kobtest.h"
#include "reportd.h"
#include "store_fixture.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

const std::string kLastAdmin = "This is the last enabled admin account; make another admin first.";

class Accounts : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        kobtest::writeFile(clockFile, "");
    }
    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }
    void setClock(std::time_t t) { kobtest::writeFile(clockFile, std::to_string(t) + "\n"); }

    reportd::Command cli(const std::vector<std::string> &args, const std::string &input = "") {
        auto all = args;
        all.insert(all.end(), {"--db", db});
        return reportd::command(KOBREPORTD_BIN, all, input);
    }

    std::string clockFile = dir.file("clock");
};

// A form posted to the API with the server's admin token.
reportd::Response apiForm(const reportd::Server &s, const std::string &method,
                          const std::string &path, const Fields &fields = {},
                          const std::string &token = "") {
    return reportd::request(s.staffPort(), method, path,
                            "Authorization: Bearer " + (token.empty() ? s.token() : token) +
                                "\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                            reportd::formEncode(fields));
}

std::string jsonError(const std::string &what) {
    return nlohmann::json{{"error", what}}.dump();
}

bool has(const reportd::Response &r, const std::string &text) {
    return r.body.find(text) != std::string::npos;
}

// What is between `<code class="token" id="ID">` and `</code>` on a page.
std::string codeOf(const reportd::Response &r, const std::string &id) {
    std::string open = "id=\"" + id + "\">";
    auto at = r.body.find(open);
    if (at == std::string::npos)
        return "";
    at += open.size();
    return r.body.substr(at, r.body.find("</code>", at) - at);
}

std::string isoTime(std::time_t t) {
    char b[32];
    std::tm tm{};
    gmtime_r(&t, &tm);
    std::strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return b;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Stores, Accounts, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(Accounts, EveryPasswordRuleGivesTheSameMessageOnTheCommandLineTheFormsAndTheApi) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string adminName;
    reportd::Browser admin = s.signedIn("admin", &adminName);
    const std::string length = "A password is 12 to 1,024 bytes long.";
    struct Case {
        const char *name;
        std::string password, message;
    } cases[] = {
        {"eleven bytes", "elevenbytes", length},
        {"1,025 bytes", std::string(1025, 'x'), length},
        {"not UTF-8", "twelve bytes\xff", "A password is text in UTF-8."},
        {"an overlong form", "twelve bytes\xc0\xaf", "A password is text in UTF-8."},
        {"spaces", std::string(12, ' '), "A password is not all white space."},
        {"tabs and no-break spaces", "\t\t\t\t\xc2\xa0\xc2\xa0\xe3\x80\x80   ",
         "A password is not all white space."},
        {"the name", "Maximilian.Ruiz", "A password is not the name of its account."},
        {"common", "Password2024",
         "That password is one of the 10,000 most common; choose "
         "another."},
        {"common too", "1q2w3e4r5t6y",
         "That password is one of the 10,000 most common; choose "
         "another."},
    };
    ASSERT_EQ(s.addUser("maximilian.ruiz", "viewer", "password of maximilian").status, 0);
    reportd::Browser own(s.staffPort());
    ASSERT_EQ(own.signIn("maximilian.ruiz", "password of maximilian").status, 303);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string name = "maximilian.ruiz";
        auto added = cli({"user", "add", name, "--role", "viewer"}, c.password + "\n");
        EXPECT_EQ(added.status, 1);
        EXPECT_EQ(added.err, "kobreportd: " + c.message + "\n");
        auto passwd = cli({"user", "passwd", name}, c.password + "\n");
        EXPECT_EQ(passwd.status, 1);
        EXPECT_EQ(passwd.err, "kobreportd: " + c.message + "\n");
        auto form =
            admin.post("/admin/users",
                       {{"name", "Maximilian.Ruiz"}, {"role", "viewer"}, {"password", c.password}});
        EXPECT_EQ(form.status, 400);
        EXPECT_TRUE(has(form, "<p class=\"notice\" id=\"message\">" + c.message + "</p>"))
            << form.body.substr(0, 2000);
        auto api =
            apiForm(s, "POST", "/api/accounts",
                    {{"name", "Maximilian.Ruiz"}, {"role", "viewer"}, {"password", c.password}});
        EXPECT_EQ(api.status, 400);
        EXPECT_EQ(api.body, jsonError(c.message));
        auto change = own.post("/account/password", {{"current", "password of maximilian"},
                                                     {"password", c.password},
                                                     {"again", c.password}});
        EXPECT_EQ(change.status, 400);
        EXPECT_TRUE(has(change, "<p class=\"notice\" id=\"message\">" + c.message + "</p>"));
    }
    // Nothing was added or changed: the first password still signs in.
    EXPECT_EQ(value("SELECT count(*) FROM users"), "2");
    reportd::Browser again(s.staffPort());
    EXPECT_EQ(again.signIn("maximilian.ruiz", "password of maximilian").status, 303);
    // At the bounds: 12 bytes, and 1,024 bytes of several-byte characters.
    std::string longest;
    while (longest.size() + 3 <= 1024)
        longest += "\xe2\x82\xac"; // the euro sign
    longest += std::string(1024 - longest.size(), 'e');
    EXPECT_EQ(cli({"user", "add", "twelve", "--role", "viewer"}, "twelve bytes\n").status, 0);
    auto added = apiForm(s, "POST", "/api/accounts",
                         {{"name", "euro"}, {"role", "viewer"}, {"password", longest}});
    EXPECT_EQ(added.status, 201);
    EXPECT_EQ(added.body, "{\"added\":\"euro\",\"role\":\"viewer\"}");
    auto twice = apiForm(s, "POST", "/api/accounts",
                         {{"name", "euro"}, {"role", "admin"}, {"password", "another long one"}});
    EXPECT_EQ(twice.status, 409);
    EXPECT_EQ(twice.body, jsonError("euro exists already"));
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'euro'"), "viewer");
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn("euro", longest).status, 303);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn("twelve", "twelve bytes").status, 303);
}

TEST_P(Accounts, TheCommandLineSetsAPasswordFromStandardInputAndEndsTheSessions) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string name;
    reportd::Browser b = s.signedIn("viewer", &name);
    EXPECT_EQ(b.get("/").status, 200);
    auto set = cli({"user", "passwd", name}, "a new phrase for " + name + "\n");
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "");
    EXPECT_EQ(set.err, "");
    EXPECT_EQ(b.get("/").status, 303);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn(name, "password of " + name).status, 401);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn(name, "a new phrase for " + name).status, 303);
    auto nobody = cli({"user", "passwd", "nobody"}, "a new phrase for nobody\n");
    EXPECT_EQ(nobody.status, 1);
    EXPECT_EQ(nobody.err, "kobreportd: no user nobody\n");
    auto none = cli({"user", "passwd", name}, "");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "kobreportd: no password on standard input\n");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'user.password.set' AND detail = '" +
                    name + "'"),
              "1");
}

TEST_P(Accounts, ChangingOnesOwnPasswordNeedsTheCurrentOneAndEndsTheOtherSessions) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string name;
    reportd::Browser here = s.signedIn("viewer", &name);
    reportd::Browser there(s.staffPort());
    ASSERT_EQ(there.signIn(name, "password of " + name).status, 303);
    auto home = here.get("/");
    EXPECT_TRUE(has(home, "<a href=\"/account/password\" id=\"own-password\">Password</a>"));
    auto form = here.get("/account/password");
    EXPECT_EQ(form.status, 200);
    EXPECT_TRUE(has(form, "<input name=\"current\" type=\"password\""));
    const std::string fresh = "correct horse battery";
    auto wrong = here.post("/account/password",
                           {{"current", "not my password"}, {"password", fresh}, {"again", fresh}});
    EXPECT_EQ(wrong.status, 403);
    EXPECT_TRUE(has(wrong, "id=\"message\">The current password is wrong.</p>"));
    auto differ = here.post(
        "/account/password",
        {{"current", "password of " + name}, {"password", fresh}, {"again", fresh + "!"}});
    EXPECT_EQ(differ.status, 400);
    EXPECT_TRUE(has(differ, "id=\"message\">The two new passwords differ.</p>"));
    EXPECT_EQ(there.get("/").status, 200);
    auto ok =
        here.post("/account/password",
                  {{"current", "password of " + name}, {"password", fresh}, {"again", fresh}});
    EXPECT_EQ(ok.status, 200);
    EXPECT_TRUE(has(ok, "id=\"message\">Your password is changed; your other sessions have "
                        "ended.</p>"));
    EXPECT_EQ(here.get("/").status, 200);
    EXPECT_EQ(there.get("/").status, 303);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn(name, "password of " + name).status, 401);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn(name, fresh).status, 303);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'user.password.changed' AND "
                    "account = '" +
                    name + "'"),
              "1");
}

TEST_P(Accounts, AResetLinkSetsAPasswordOnceAndNotAfter24Hours) {
    const std::time_t t0 = 1795000000;
    setClock(t0);
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    reportd::Browser admin = s.signedIn("admin");
    ASSERT_EQ(s.addUser("forgetful", "viewer", "password of forgetful").status, 0);
    reportd::Browser old(s.staffPort());
    ASSERT_EQ(old.signIn("forgetful", "password of forgetful").status, 303);
    auto made = admin.post("/admin/users/forgetful/reset", {});
    ASSERT_EQ(made.status, 200);
    EXPECT_TRUE(has(made, "id=\"message\">Made a reset link for forgetful.</p>"));
    std::string link = codeOf(made, "reset-link");
    std::string origin = "http://127.0.0.1:" + std::to_string(s.staffPort());
    ASSERT_EQ(link.rfind(origin + "/reset/", 0), 0u) << link;
    std::string path = link.substr(origin.size()), secret = path.substr(7);
    ASSERT_EQ(secret.size(), 64u);
    // Kept only as a hash.
    EXPECT_EQ(value("SELECT count(*) FROM password_resets WHERE id_hash = '" + secret + "'"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM password_resets WHERE account = 'forgetful'"), "1");
    EXPECT_EQ(admin.get("/admin/accounts").body.find(secret), std::string::npos);

    reportd::Browser b(s.staffPort());
    auto form = b.get(path);
    ASSERT_EQ(form.status, 200);
    auto weak = b.post(path, {{"password", "forgetful"}, {"again", "forgetful"}});
    EXPECT_EQ(weak.status, 400);
    EXPECT_TRUE(has(weak, "id=\"message\">A password is 12 to 1,024 bytes long.</p>"));
    auto named = b.post(path, {{"password", "FORGETFUL"}, {"again", "FORGETFUL"}});
    EXPECT_EQ(named.status, 400);
    const std::string fresh = "remembered at last";
    auto set = b.post(path, {{"password", fresh}, {"again", fresh}});
    EXPECT_EQ(set.status, 200);
    EXPECT_TRUE(has(set, "id=\"message\">The password of forgetful is set; sign in with it.</p>"));
    EXPECT_EQ(old.get("/").status, 303);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn("forgetful", fresh).status, 303);
    // Used once: no more.
    const std::string gone = "This link is not good: it has been used, it is more than 24 hours "
                             "old, or it was never made. Ask an admin for a new one.";
    auto twice = b.post(path, {{"password", "another new one"}, {"again", "another new one"}});
    EXPECT_EQ(twice.status, 404);
    EXPECT_TRUE(has(twice, gone));
    EXPECT_EQ(b.get(path).status, 404);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn("forgetful", "another new one").status, 401);

    // A day and a second later, a fresh link is no good either.
    auto late = admin.post("/admin/users/forgetful/reset", {});
    std::string latePath = codeOf(late, "reset-link").substr(origin.size());
    reportd::Browser c(s.staffPort());
    ASSERT_EQ(c.get(latePath).status, 200);
    setClock(t0 + 24 * 3600 - 1);
    ASSERT_EQ(c.get(latePath).status, 200);
    setClock(t0 + 24 * 3600);
    EXPECT_EQ(c.get(latePath).status, 404);
    auto expired =
        c.post(latePath, {{"password", "too late by now"}, {"again", "too late by now"}});
    EXPECT_EQ(expired.status, 404);
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn("forgetful", "too late by now").status, 401);
    // The form needs its own token.
    auto bare = reportd::request(s.staffPort(), "POST", latePath,
                                 "Content-Type: application/x-www-form-urlencoded\r\n",
                                 "password=abcdefghijklm&again=abcdefghijklm");
    EXPECT_EQ(bare.status, 403);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'user.password.reset' AND account "
                    "= 'forgetful'"),
              "1");
}

TEST_P(Accounts, TheLastEnabledAdminIsNeitherDeletedDisabledNorDemoted) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string root;
    reportd::Browser admin = s.signedIn("admin", &root);
    // The pages.
    for (const auto &[path, fields] : std::vector<std::pair<std::string, Fields>>{
             {"/admin/users/" + root + "/delete", {{"confirm", "yes"}}},
             {"/admin/users/" + root + "/disable", {{"confirm", "yes"}}},
             {"/admin/users/" + root + "/role", {{"role", "viewer"}}}}) {
        SCOPED_TRACE(path);
        auto r = admin.post(path, fields);
        EXPECT_EQ(r.status, 409);
        EXPECT_TRUE(has(r, "<p class=\"notice\" id=\"message\">" + kLastAdmin + "</p>"));
    }
    // The API.
    for (const auto &[method, path, fields] :
         std::vector<std::tuple<std::string, std::string, Fields>>{
             {"DELETE", "/api/accounts/" + root, {}},
             {"POST", "/api/accounts/" + root + "/disable", {}},
             {"POST", "/api/accounts/" + root + "/role", {{"role", "viewer"}}}}) {
        SCOPED_TRACE(path);
        auto r = apiForm(s, method, path, fields);
        EXPECT_EQ(r.status, 409);
        EXPECT_EQ(r.body, jsonError(kLastAdmin));
    }
    // The command line.
    for (const auto &args :
         std::vector<std::vector<std::string>>{{"user", "del", root},
                                               {"user", "disable", root},
                                               {"user", "role", root, "--role", "viewer"}}) {
        SCOPED_TRACE(args[1]);
        auto r = cli(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "kobreportd: " + root +
                             " is the last enabled admin account; make another admin first\n");
    }
    EXPECT_EQ(value("SELECT role FROM users WHERE name = '" + root + "'"), "admin");
    EXPECT_EQ(value("SELECT disabled FROM users WHERE name = '" + root + "'"), "0");
    EXPECT_EQ(admin.get("/").status, 200);

    // A disabled admin is no second key.
    ASSERT_EQ(s.addUser("spare", "admin", "password of spare").status, 0);
    ASSERT_EQ(cli({"user", "disable", "spare"}).status, 0);
    EXPECT_EQ(apiForm(s, "DELETE", "/api/accounts/" + root).status, 409);
    // An enabled one is: then the first may go.
    ASSERT_EQ(cli({"user", "enable", "spare"}).status, 0);
    auto demoted = apiForm(s, "POST", "/api/accounts/" + root + "/role", {{"role", "viewer"}});
    EXPECT_EQ(demoted.status, 200);
    EXPECT_EQ(demoted.body, "{\"name\":\"" + root + "\",\"role\":\"viewer\"}");
    EXPECT_EQ(value("SELECT role FROM users WHERE name = '" + root + "'"), "viewer");
    // Now spare is the last one.
    auto r = cli({"user", "role", "spare", "--role", "viewer"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(cli({"user", "del", root}).status, 0);
    EXPECT_EQ(value("SELECT count(*) FROM users"), "1");
}

TEST_P(Accounts, DisablingStopsALiveSessionAndATokenMidUseAndKeepsTheAuditHistory) {
    reportd::Server s(KOBREPORTD_BIN, db);
    reportd::Browser admin = s.signedIn("admin");
    std::string name;
    reportd::Browser b = s.signedIn("viewer", &name);
    EXPECT_EQ(b.get("/").status, 200);
    // Asked first; nothing happens until confirmed.
    auto asked = admin.post("/admin/users/" + name + "/disable", {});
    EXPECT_EQ(asked.status, 200);
    EXPECT_TRUE(has(asked, "<p id=\"question\">Disable the account " + name +
                               "? Its sessions end at once and it cannot sign in until enabled "
                               "again.</p>"));
    EXPECT_TRUE(has(asked, "<input type=\"hidden\" name=\"confirm\" value=\"yes\">"));
    EXPECT_EQ(b.get("/").status, 200);
    auto off = admin.post("/admin/users/" + name + "/disable", {{"confirm", "yes"}});
    EXPECT_EQ(off.status, 200);
    EXPECT_TRUE(has(off, "id=\"message\">Disabled " + name + ".</p>"));
    EXPECT_EQ(b.get("/").status, 303);
    EXPECT_EQ(value("SELECT disabled FROM users WHERE name = '" + name + "'"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM sessions WHERE account = '" + name + "'"), "0");
    // The right password does not open a disabled account, and says no more
    // than a wrong one.
    auto in = reportd::Browser(s.staffPort()).signIn(name, "password of " + name);
    EXPECT_EQ(in.status, 401);
    EXPECT_TRUE(has(in, "Wrong name or password."));
    auto list = nlohmann::json::parse(s.api("/api/accounts").body);
    bool seen = false;
    for (const auto &u : list["users"]) {
        if (u["name"] == name) {
            seen = true;
            EXPECT_EQ(u["disabled"], true);
        }
    }
    EXPECT_TRUE(seen);
    auto on = admin.post("/admin/users/" + name + "/enable", {});
    EXPECT_EQ(on.status, 200);
    EXPECT_TRUE(has(on, "id=\"message\">Enabled " + name + ".</p>"));
    EXPECT_EQ(reportd::Browser(s.staffPort()).signIn(name, "password of " + name).status, 303);
    // Through the API too.
    reportd::Browser again(s.staffPort());
    ASSERT_EQ(again.signIn(name, "password of " + name).status, 303);
    EXPECT_EQ(apiForm(s, "POST", "/api/accounts/" + name + "/disable").body,
              "{\"disabled\":\"" + name + "\"}");
    EXPECT_EQ(again.get("/").status, 303);
    EXPECT_EQ(apiForm(s, "POST", "/api/accounts/" + name + "/enable").body,
              "{\"enabled\":\"" + name + "\"}");

    // A token in use stops between two requests.
    auto made = cli({"token", "add", "dashboard"});
    ASSERT_EQ(made.status, 0);
    std::string token = made.out.substr(0, made.out.size() - 1);
    auto use = [&] {
        return reportd::request(s.staffPort(), "GET", "/api/reports",
                                "Authorization: Bearer " + token + "\r\n")
            .status;
    };
    EXPECT_EQ(use(), 200);
    EXPECT_EQ(use(), 200);
    auto offToken = admin.post("/admin/tokens/dashboard/disable", {});
    EXPECT_EQ(offToken.status, 200);
    EXPECT_TRUE(has(offToken, "id=\"message\">Disabled the token dashboard.</p>"));
    EXPECT_EQ(use(), 401);
    EXPECT_EQ(admin.post("/admin/tokens/dashboard/enable", {}).status, 200);
    EXPECT_EQ(use(), 200);
    auto apiOff = apiForm(s, "POST", "/api/tokens/dashboard/disable");
    EXPECT_EQ(apiOff.status, 200);
    EXPECT_EQ(apiOff.body, "{\"disabled\":\"dashboard\"}");
    EXPECT_EQ(use(), 401);
    EXPECT_EQ(apiForm(s, "POST", "/api/tokens/dashboard/enable").body,
              "{\"enabled\":\"dashboard\"}");
    EXPECT_EQ(use(), 200);
    EXPECT_EQ(apiForm(s, "POST", "/api/tokens/nothing/enable").body,
              "{\"error\":\"no such token\"}");
    ASSERT_EQ(cli({"token", "disable", "dashboard"}).status, 0);
    EXPECT_EQ(use(), 401);
    EXPECT_EQ(cli({"token", "list"}).out.find("dashboard\tviewer\tdisabled\n") != std::string::npos,
              true);

    // Deleting keeps what the account did in the audit log.
    std::string before =
        value("SELECT count(*) FROM audit WHERE account = '" + name + "' AND action = 'signin'");
    EXPECT_NE(before, "0");
    ASSERT_EQ(admin.post("/admin/users/" + name + "/delete", {{"confirm", "yes"}}).status, 200);
    EXPECT_EQ(
        value("SELECT count(*) FROM audit WHERE account = '" + name + "' AND action = 'signin'"),
        before);
    for (const char *action :
         {"user.disabled", "user.enabled", "user.deleted", "token.disabled", "token.enabled"})
        EXPECT_NE(value(std::string("SELECT count(*) FROM audit WHERE action = '") + action + "'"),
                  "0")
            << action;
}

TEST_P(Accounts, DeletingAndRevokingAskFirstAndEveryChangeSaysWhatWasDone) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string ref = reportd::reference(reportd::upload(s.port(), "doomed\n"));
    ASSERT_FALSE(ref.empty());
    reportd::Browser admin = s.signedIn("admin");
    ASSERT_EQ(s.addUser("leaver", "viewer", "password of leaver").status, 0);
    ASSERT_EQ(cli({"token", "add", "old-export"}).status, 0);

    auto asked = admin.post("/reports/" + ref + "/delete", {});
    EXPECT_EQ(asked.status, 200);
    EXPECT_TRUE(
        has(asked, "<p id=\"question\">Delete the report " + ref + "? This cannot be undone.</p>"));
    EXPECT_TRUE(has(asked, "<form method=\"post\" action=\"/reports/" + ref + "/delete\">"));
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 200);
    auto deleted = admin.post("/reports/" + ref + "/delete", {{"confirm", "yes"}});
    EXPECT_EQ(deleted.status, 303);
    EXPECT_EQ(reportd::header(deleted, "Location"), "/?deleted=" + ref);
    auto after = admin.get(reportd::header(deleted, "Location"));
    EXPECT_EQ(after.status, 200);
    EXPECT_TRUE(has(after, "<p id=\"message\">Deleted the report " + ref + ".</p>"));
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 404);
    // Only of a report that is gone.
    std::string kept = reportd::reference(reportd::upload(s.port(), "kept\n"));
    EXPECT_FALSE(has(admin.get("/?deleted=" + kept), "Deleted the report"));

    auto askUser = admin.post("/admin/users/leaver/delete", {});
    EXPECT_EQ(askUser.status, 200);
    EXPECT_TRUE(has(askUser, "Delete the account leaver? Its audit history stays"));
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'leaver'"), "1");
    auto user = admin.post("/admin/users/leaver/delete", {{"confirm", "yes"}});
    EXPECT_EQ(user.status, 200);
    EXPECT_TRUE(has(user, "id=\"message\">Deleted leaver.</p>"));
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'leaver'"), "0");

    auto askToken = admin.post("/admin/tokens/old-export/delete", {});
    EXPECT_EQ(askToken.status, 200);
    EXPECT_TRUE(has(askToken, "Revoke the token old-export? Whatever uses it stops at once."));
    EXPECT_EQ(value("SELECT count(*) FROM tokens WHERE name = 'old-export'"), "1");
    auto token = admin.post("/admin/tokens/old-export/delete", {{"confirm", "yes"}});
    EXPECT_EQ(token.status, 200);
    EXPECT_TRUE(has(token, "id=\"message\">Revoked the token old-export.</p>"));
    EXPECT_EQ(value("SELECT count(*) FROM tokens WHERE name = 'old-export'"), "0");

    ASSERT_EQ(s.addUser("climber", "viewer", "password of climber").status, 0);
    auto up = admin.post("/admin/users/climber/role", {{"role", "admin"}});
    EXPECT_EQ(up.status, 200);
    EXPECT_TRUE(has(up, "id=\"message\">Made climber an admin.</p>"));
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'climber'"), "admin");
    auto bad = admin.post("/admin/users/climber/role", {{"role", "metrics"}});
    EXPECT_EQ(bad.status, 400);
    EXPECT_EQ(admin.post("/admin/users/nobody/role", {{"role", "admin"}}).status, 404);
    auto down = apiForm(s, "POST", "/api/accounts/climber/role", {{"role", "viewer"}});
    EXPECT_EQ(down.body, "{\"name\":\"climber\",\"role\":\"viewer\"}");
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'climber'"), "viewer");
    ASSERT_EQ(cli({"user", "role", "climber", "--role", "admin"}).status, 0);
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'climber'"), "admin");
    EXPECT_EQ(apiForm(s, "DELETE", "/api/accounts/climber").body, "{\"deleted\":\"climber\"}");
    EXPECT_EQ(apiForm(s, "DELETE", "/api/accounts/climber").body, jsonError("no such user"));
}

TEST_P(Accounts, ThePagesAndTheApiSayWhenEachPersonLastSignedIn) {
    const std::time_t t0 = 1795000000;
    setClock(t0);
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    ASSERT_EQ(s.addUser("sleeper", "viewer", "password of sleeper").status, 0);
    std::string name;
    reportd::Browser admin = s.signedIn("admin", &name);
    auto list = nlohmann::json::parse(s.api("/api/accounts").body);
    ASSERT_EQ(list["users"].size(), 2u);
    for (const auto &u : list["users"]) {
        SCOPED_TRACE(u.dump());
        EXPECT_EQ(u["role"], u["name"] == name ? "admin" : "viewer");
        EXPECT_EQ(u["disabled"], false);
        EXPECT_EQ(u["last_signin"],
                  u["name"] == name ? nlohmann::json(isoTime(t0)) : nlohmann::json(nullptr));
    }
    EXPECT_EQ(list["tokens"][0]["role"], "admin");
    auto page = admin.get("/admin/accounts");
    EXPECT_TRUE(has(page, "<th>Last signed in</th>"));
    EXPECT_TRUE(has(page, "<tr><td>sleeper</td><td>viewer</td><td>enabled</td>"));
    EXPECT_TRUE(has(page, "<td>never</td>"));
    setClock(t0 + 3600);
    ASSERT_EQ(reportd::Browser(s.staffPort()).signIn("sleeper", "password of sleeper").status, 303);
    list = nlohmann::json::parse(s.api("/api/accounts").body);
    for (const auto &u : list["users"]) {
        if (u["name"] == "sleeper") {
            EXPECT_EQ(u["last_signin"], isoTime(t0 + 3600));
        }
    }
    EXPECT_FALSE(has(admin.get("/admin/accounts"), "<td>never</td>"));
    EXPECT_EQ(value("SELECT last_signin FROM users WHERE name = 'sleeper'"),
              std::to_string(t0 + 3600));
}

TEST_P(Accounts, AnOperatorsListOfCommonPasswordsReplacesTheShippedOne) {
    std::string list = dir.file("common.txt");
    kobtest::writeFile(list, "Our Company Name 2026\n");
    reportd::Server s(KOBREPORTD_BIN, db, {"--common-passwords", list});
    const std::string common = "That password is one of the 10,000 most common; choose another.";
    auto ours = apiForm(s, "POST", "/api/accounts",
                        {{"name", "a"}, {"role", "viewer"}, {"password", "our company name 2026"}});
    EXPECT_EQ(ours.status, 400);
    EXPECT_EQ(ours.body, jsonError(common));
    // The shipped list is not read then.
    EXPECT_EQ(apiForm(s, "POST", "/api/accounts",
                      {{"name", "b"}, {"role", "viewer"}, {"password", "passwordpassword"}})
                  .status,
              201);
    auto cliOurs = cli({"user", "add", "c", "--role", "viewer", "--common-passwords", list},
                       "OUR COMPANY NAME 2026\n");
    EXPECT_EQ(cliOurs.status, 1);
    EXPECT_EQ(cliOurs.err, "kobreportd: " + common + "\n");
    std::string missing = dir.file("missing.txt");
    auto noList = cli({"user", "add", "c", "--role", "viewer", "--common-passwords", missing},
                      "a fine long password\n");
    EXPECT_EQ(noList.status, 1);
    EXPECT_EQ(noList.err, "kobreportd: cannot read the list of common passwords " + missing +
                              "; name one with --common-passwords FILE\n");
    auto server = reportd::command(
        KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db", db, "--common-passwords", missing});
    EXPECT_EQ(server.status, 1);
    EXPECT_EQ(server.err, "kobreportd: cannot read the list of common passwords " + missing +
                              "; name one with --common-passwords FILE\n");
    EXPECT_EQ(value("SELECT count(*) FROM users"), "1");
}

// Each password hash takes 64 MiB while it is worked out: only four are at
// once, and the rest wait their turn or are told to come back.
TEST(AccountsMemory, ThirtyTwoWrongSignInsAtOnceStayUnder300MiB) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    reportd::Browser form(s.staffPort());
    ASSERT_EQ(form.get("/signin").status, 200);
    std::string head = "POST /signin HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(s.staffPort()) +
                       "\r\nCookie: kob_signin=" + form.cookie("kob_signin") +
                       "\r\nContent-Type: application/x-www-form-urlencoded\r\nConnection: "
                       "close\r\n";
    constexpr int kAtOnce = 32;
    std::vector<int> statuses(kAtOnce);
    std::vector<std::thread> threads;
    for (int i = 0; i < kAtOnce; i++)
        threads.emplace_back([&, i] {
            // Each from an address and under a name of its own, so that no
            // lock-out spares the server the hash.
            std::string body = reportd::formEncode({{"name", "stranger" + std::to_string(i)},
                                                    {"password", "not the password at all"},
                                                    {"next", "/"},
                                                    {"csrf", form.csrf()}});
            auto r = reportd::exchangeAt(
                "127.0.0.1", s.staffPort(),
                {head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body}, 60,
                "127.0.1." + std::to_string(i + 1));
            statuses[static_cast<size_t>(i)] = r.status;
        });
    for (auto &t : threads)
        t.join();
    int wrong = 0, busy = 0;
    for (int st : statuses) {
        EXPECT_TRUE(st == 401 || st == 429) << st;
        wrong += st == 401;
        busy += st == 429;
    }
    EXPECT_GE(wrong, 4);
    uint64_t peak = kobtest::processMemory(s.pid(), "VmHWM:");
    std::printf("%d wrong, %d told to come back; peak %.1f MiB\n", wrong, busy,
                static_cast<double>(peak) / (1 << 20));
    if (kobtest::kSanitized)
        GTEST_SKIP() << "under a sanitizer the server's memory is mostly the sanitizer's (shadow "
                        "and quarantine), not the hashes'";
    EXPECT_GT(peak, 0u);
    EXPECT_LT(peak, uint64_t{300} << 20);
}
