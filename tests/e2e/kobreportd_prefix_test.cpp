// kobreportd's staff side under --public-url, asked directly as the proxy
// in front of it would ask (the prefix already stripped): every redirect,
// cookie, link, form and stylesheet carries the public path, cookies are
// Secure and answers carry HSTS when the public URL is https, forms are
// taken only from the public URL's origin, and the option's usage errors.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

const std::string kPublic = "https://staff.example.net/kob/";
const std::string kOrigin = "https://staff.example.net";
const std::string kOriginHeader = "Origin: " + kOrigin + "\r\n";
const std::string kAttributes = "; HttpOnly; SameSite=Strict; Path=/kob/; Secure";

std::vector<std::string> setCookies(const reportd::Response &r) {
    std::vector<std::string> out;
    std::string head = r.raw.substr(0, r.raw.find("\r\n\r\n"));
    const std::string key = "\r\nSet-Cookie: ";
    for (size_t at = 0; (at = head.find(key, at)) != std::string::npos;) {
        at += key.size();
        out.push_back(head.substr(at, head.find("\r\n", at) - at));
    }
    return out;
}

// A page of the staff side: its status, and every link and form under the
// prefix, at least `least` of them, with each of `expected` among them.
void underPrefix(const reportd::Response &r, int status, size_t least,
                 const std::vector<std::string> &expected) {
    EXPECT_EQ(r.status, status) << r.raw;
    auto found = reportd::linkTargets(r.body);
    EXPECT_GE(found.size(), least) << r.body;
    for (const auto &t : found)
        EXPECT_TRUE(t.rfind("/kob/", 0) == 0) << "not under /kob/: " << t;
    for (const auto &e : expected)
        EXPECT_TRUE(std::find(found.begin(), found.end(), e) != found.end()) << "no " << e;
}

std::string port443Down(const std::string &user) {
    auto run = reportgen::healthyRun();
    run.username = user;
    run.tcp[3] = reportgen::tcpTimeout();
    return reportgen::report(run);
}

// Signs in through the form as a browser at the public URL does; the
// browser keeps the session and the form token of the first page.
reportd::Browser signedIn(const reportd::Server &s, const std::string &name) {
    EXPECT_EQ(s.addUser(name, "admin", "password of " + name).status, 0);
    reportd::Browser b(s.staffPort());
    b.get("/signin");
    auto r = b.post("/signin", {{"name", name}, {"password", "password of " + name}, {"next", "/"}},
                    kOriginHeader);
    EXPECT_EQ(r.status, 303) << r.raw;
    EXPECT_EQ(reportd::header(r, "Location"), "/kob/");
    b.get("/");
    return b;
}

} // namespace

TEST(PublicUrl, RedirectsCookiesAndHstsCarryThePublicUrl) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"), {"--public-url", kPublic});
    std::string ref = reportd::reference(reportd::upload(s.port(), "a report\n"));
    ASSERT_FALSE(ref.empty());
    ASSERT_EQ(s.addUser("olga", "viewer", "password of olga").status, 0);

    // Without a session: to the sign-in page under the prefix, with the
    // route's own path to come back to.
    auto away = reportd::get(s.staffPort(), "/reports/" + ref);
    EXPECT_EQ(away.status, 303);
    EXPECT_EQ(reportd::header(away, "Location"), "/kob/signin?next=%2Freports%2F" + ref);
    EXPECT_EQ(reportd::header(away, "Strict-Transport-Security"), "max-age=31536000");
    auto posted = reportd::request(s.staffPort(), "POST", "/reports/" + ref + "/delete");
    EXPECT_EQ(posted.status, 303);
    EXPECT_EQ(reportd::header(posted, "Location"), "/kob/signin");

    reportd::Browser b(s.staffPort());
    auto form = b.get("/signin?next=%2Freports%2F" + ref);
    EXPECT_EQ(form.status, 200);
    EXPECT_EQ(reportd::header(form, "Strict-Transport-Security"), "max-age=31536000");
    ASSERT_EQ(setCookies(form).size(), 1u);
    EXPECT_EQ(setCookies(form)[0],
              "kob_signin=" + b.cookie("kob_signin") + kAttributes + "; Max-Age=3600");
    EXPECT_NE(form.body.find("<form class=\"signin\" method=\"post\" action=\"/kob/signin\">"),
              std::string::npos)
        << form.body;
    EXPECT_NE(
        form.body.find("<input type=\"hidden\" name=\"next\" value=\"/reports/" + ref + "\">"),
        std::string::npos);

    auto in =
        b.post("/signin",
               {{"name", "olga"}, {"password", "password of olga"}, {"next", "/reports/" + ref}},
               kOriginHeader);
    EXPECT_EQ(in.status, 303) << in.raw;
    EXPECT_EQ(reportd::header(in, "Location"), "/kob/reports/" + ref);
    std::string session = b.cookie("kob_session");
    ASSERT_EQ(session.size(), 64u);
    EXPECT_EQ(setCookies(in),
              (std::vector<std::string>{"kob_session=" + session + kAttributes,
                                        "kob_signin=" + kAttributes + "; Max-Age=0"}));
    // Signed in already: the sign-in page sends the browser on, under the prefix.
    auto again = b.get("/signin");
    EXPECT_EQ(again.status, 303);
    EXPECT_EQ(reportd::header(again, "Location"), "/kob/");
    auto page = b.get("/reports/" + ref);
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(reportd::header(page, "Strict-Transport-Security"), "max-age=31536000");

    auto out = b.post("/signout", {}, kOriginHeader);
    EXPECT_EQ(out.status, 303) << out.raw;
    EXPECT_EQ(reportd::header(out, "Location"), "/kob/signin");
    EXPECT_EQ(setCookies(out),
              (std::vector<std::string>{"kob_session=" + kAttributes + "; Max-Age=0"}));
    EXPECT_EQ(reportd::get(s.staffPort(), "/reports/" + ref).status, 303);
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 200);
}

TEST(PublicUrl, FormsAreTakenFromThePublicOriginOnly) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"), {"--public-url", kPublic});
    std::vector<std::string> refs;
    for (int i = 0; i < 5; i++) {
        refs.push_back(reportd::reference(reportd::upload(s.port(), "report\n")));
        ASSERT_FALSE(refs.back().empty());
    }
    reportd::Browser b = signedIn(s, "ada");
    // The origin of the Host a request names is not the public URL's: only
    // the public origin passes, and no Origin at all (an older browser).
    struct Case {
        std::string origin;
        int status;
    };
    const std::vector<Case> cases = {
        {"Origin: http://127.0.0.1:" + std::to_string(s.staffPort()) + "\r\n", 403},
        {"Origin: https://evil.example\r\n", 403},
        {"Origin: https://staff.example.net:8443\r\n", 403},
        {"Origin: http://staff.example.net\r\n", 403},
        {"Origin: https://staff.example.net/kob\r\n", 403},
        {kOriginHeader, 303},
        {"", 303},
    };
    for (size_t i = 0; i < cases.size(); i++) {
        SCOPED_TRACE(cases[i].origin);
        const std::string &ref = refs[i % refs.size()];
        auto r = b.post("/reports/" + ref + "/delete", {{"confirm", "yes"}}, cases[i].origin);
        EXPECT_EQ(r.status, cases[i].status) << r.raw;
        if (r.status == 303)
            EXPECT_EQ(reportd::header(r, "Location"), "/kob/?deleted=" + ref);
        else
            EXPECT_NE(r.body.find("did not come from this server"), std::string::npos) << r.body;
    }
    // The last two went; the refused ones are there still.
    EXPECT_EQ(s.api("/api/reports/" + refs[0]).status, 404);
    EXPECT_EQ(s.api("/api/reports/" + refs[1]).status, 404);
    for (size_t i = 2; i < refs.size(); i++)
        EXPECT_EQ(s.api("/api/reports/" + refs[i]).status, 200) << refs[i];
    // The sign-in form too.
    reportd::Browser other(s.staffPort());
    other.get("/signin");
    auto refused = other.post("/signin", {{"name", "ada"}, {"password", "password of ada"}},
                              "Origin: https://evil.example\r\n");
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(other.cookie("kob_session"), "");
}

TEST(PublicUrl, EveryLinkFormAndStylesheetOfEveryPageCarriesThePrefix) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"), {"--public-url", kPublic});
    std::vector<std::string> refs;
    // More than a page of reports, one user's two of them failing.
    for (int i = 0; i < 52; i++) {
        auto r = reportd::upload(s.port(), i < 2 ? port443Down("carol") : "report\n",
                                 i < 2 ? "carol" : "dave");
        refs.push_back(reportd::reference(r));
        ASSERT_FALSE(refs.back().empty()) << r.raw;
    }
    reportd::Browser b = signedIn(s, "ada");
    ASSERT_EQ(s.addUser("vera", "viewer", "password of vera").status, 0);
    ASSERT_EQ(
        reportd::command(KOBREPORTD_BIN, {"token", "add", "export", "--db", dir.file("reports.db")})
            .status,
        0);
    const std::string ref = refs[0];
    const std::string &newest = refs.back();

    // More than a page of audit entries.
    for (int i = 0; i < 50; i++)
        ASSERT_EQ(b.get("/reports/" + newest).status, 200);

    const std::vector<std::string> frame = {
        "/kob/static/style.css", "/kob/",       "/kob/fleet", "/kob/audit",
        "/kob/admin/accounts",   "/kob/signout"};
    auto with = [&frame](std::vector<std::string> more) {
        more.insert(more.end(), frame.begin(), frame.end());
        return more;
    };
    underPrefix(b.get("/"), 200, 50, with({"/kob/reports/" + newest, "/kob/?page=2"}));
    underPrefix(b.get("/?page=2&q=carol"), 200, 8, with({"/kob/?q=carol&amp;page=1"}));
    underPrefix(b.get("/reports/" + ref), 200, 10,
                with({"/kob/api/reports/" + ref, "/kob/users/carol", "/kob/reports/" + ref + "/raw",
                      "/kob/reports/" + ref + "/reveal", "/kob/reports/" + ref + "/delete"}));
    underPrefix(b.post("/reports/" + ref + "/reveal", {}, kOriginHeader), 200, 10,
                with({"/kob/reports/" + ref + "/raw"}));
    underPrefix(
        b.get("/users/carol"), 200, 9,
        with({"/kob/reports/" + refs[1], "/kob/compare?a=" + refs[0] + "&amp;b=" + refs[1]}));
    underPrefix(b.get("/compare?a=" + refs[0] + "&b=" + refs[1]), 200, 8,
                with({"/kob/reports/" + refs[0], "/kob/reports/" + refs[1]}));
    underPrefix(b.get("/fleet"), 200, 10,
                with({"/kob/fleet?window=6h", "/kob/fleet?window=30d",
                      "/kob/fleet/reports?area=tcp&amp;target=Testing%20TCP%20pass-through%20to%"
                      "20port%20443&amp;window=24h"}));
    underPrefix(
        b.get("/fleet/reports?area=tcp&target=Testing%20TCP%20pass-through%20to%20port%20443"
              "&window=24h"),
        200, 8, with({"/kob/reports/" + refs[0], "/kob/reports/" + refs[1]}));
    underPrefix(b.get("/audit"), 200, 56, with({"/kob/audit?page=2", "/kob/reports/" + newest}));
    underPrefix(b.get("/audit?page=2"), 200, 7, with({"/kob/audit?page=1"}));
    underPrefix(b.get("/admin/accounts"), 200, 10,
                with({"/kob/admin/users", "/kob/admin/tokens", "/kob/admin/users/vera/delete",
                      "/kob/admin/tokens/export/delete"}));
    underPrefix(b.post("/admin/users", {{"name", "x"}}, kOriginHeader), 400, 10,
                with({"/kob/admin/users"}));
    underPrefix(b.get("/reports/KOB-20000101-000000"), 404, 6, frame);
    // A refusal is a page of the frame too.
    underPrefix(b.post("/reports/" + ref + "/delete", {}, "Origin: https://evil.example\r\n"), 403,
                6, frame);
    reportd::Browser anonymous(s.staffPort());
    underPrefix(anonymous.get("/signin"), 200, 3,
                {"/kob/static/style.css", "/kob/", "/kob/signin"});
    // A viewer's frame has no admin links, and still the prefix.
    reportd::Browser viewer(s.staffPort());
    viewer.get("/signin");
    ASSERT_EQ(
        viewer.post("/signin", {{"name", "vera"}, {"password", "password of vera"}}, kOriginHeader)
            .status,
        303);
    underPrefix(viewer.get("/reports/" + ref), 200, 8,
                {"/kob/static/style.css", "/kob/fleet", "/kob/signout", "/kob/users/carol"});
}

TEST(PublicUrl, PlainHttpPublicUrlHasNeitherSecureNorHsts) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"),
                      {"--public-url", "http://127.0.0.1:8080/staff/kob"});
    EXPECT_EQ(s.readyLine(), "kobreportd: intake on http://127.0.0.1:" + std::to_string(s.port()) +
                                 "/; staff on http://127.0.0.1:" + std::to_string(s.staffPort()) +
                                 "/, public at http://127.0.0.1:8080/staff/kob/\n");
    auto form = reportd::get(s.staffPort(), "/signin");
    EXPECT_EQ(form.status, 200);
    EXPECT_EQ(reportd::header(form, "Strict-Transport-Security"), "");
    ASSERT_EQ(setCookies(form).size(), 1u);
    EXPECT_EQ(setCookies(form)[0].substr(setCookies(form)[0].find(';')),
              "; HttpOnly; SameSite=Strict; Path=/staff/kob/; Max-Age=3600");
    EXPECT_NE(form.body.find("action=\"/staff/kob/signin\""), std::string::npos);
    auto away = reportd::get(s.staffPort(), "/fleet");
    EXPECT_EQ(reportd::header(away, "Location"), "/staff/kob/signin?next=%2Ffleet");
}

TEST(PublicUrl, WithoutTheOptionPathsCookiesAndOriginsAreAsBefore) {
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    EXPECT_EQ(s.readyLine(), "kobreportd: intake on http://127.0.0.1:" + std::to_string(s.port()) +
                                 "/; staff on http://127.0.0.1:" + std::to_string(s.staffPort()) +
                                 "/\n");
    reportd::Browser b(s.staffPort());
    auto form = b.get("/signin");
    EXPECT_EQ(reportd::header(form, "Strict-Transport-Security"), "");
    ASSERT_EQ(setCookies(form).size(), 1u);
    EXPECT_EQ(setCookies(form)[0], "kob_signin=" + b.cookie("kob_signin") +
                                       "; HttpOnly; SameSite=Strict; Path=/; Max-Age=3600");
    ASSERT_EQ(s.addUser("olga", "viewer", "password of olga").status, 0);
    // The Host's own origin is this server's.
    auto in = b.post("/signin", {{"name", "olga"}, {"password", "password of olga"}, {"next", "/"}},
                     "Origin: http://127.0.0.1:" + std::to_string(s.staffPort()) + "\r\n");
    EXPECT_EQ(in.status, 303) << in.raw;
    EXPECT_EQ(reportd::header(in, "Location"), "/");
    for (const auto &t : reportd::linkTargets(b.get("/").body))
        EXPECT_EQ(t.rfind("/kob/", 0), std::string::npos) << t;
    EXPECT_NE(b.get("/").body.find("href=\"/static/style.css\""), std::string::npos);
}

TEST(PublicUrl, UsageErrorsSayWhatIsWrongAndExitOne) {
    kobtest::TempDir dir;
    const std::string example = " (for example https://staff.example.net/kob/)\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/kob/", "must be an absolute http:// or https:// URL"},
        {"ftp://staff.example.net/kob/", "must be an absolute http:// or https:// URL"},
        {"https://staff.example.net/kob/?x=1", "may not have a query or a fragment"},
        {"https://staff.example.net/kob/#x", "may not have a query or a fragment"},
        {"https://ada@staff.example.net/kob/", "may not name a user"},
        {"https:///kob/", "has no valid host"},
        {"https://staff.example.net:0/kob/", "has a bad port"},
        {"https://staff.example.net//kob/", "has a path that cannot serve as a prefix"},
    };
    for (const auto &[url, why] : cases) {
        SCOPED_TRACE(url);
        auto r = reportd::command(KOBREPORTD_BIN,
                                  {"--listen", "127.0.0.1:0", "--staff-listen", "127.0.0.1:0",
                                   "--db", dir.file("r.db"), "--public-url", url});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "kobreportd: --public-url " + why + ": " + url + example);
    }
    // Nothing to put it on without a staff side; a missing value.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--listen", "127.0.0.1:0", "--db", dir.file("r.db"),
                                   "--public-url", kPublic},
          std::vector<std::string>{"--listen", "127.0.0.1:0", "--staff-listen", "127.0.0.1:0",
                                   "--db", dir.file("r.db"), "--public-url"}}) {
        auto r = reportd::command(KOBREPORTD_BIN, args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind("usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL", 0), 0u)
            << r.err;
        EXPECT_NE(r.err.find("[--public-url URL]"), std::string::npos);
    }
}
