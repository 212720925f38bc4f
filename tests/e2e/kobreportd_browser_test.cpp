// The staff view in a real browser: headless Chromium driven through
// chromedriver signs in through the form, reads reports, reveals and
// deletes as an admin, and opens pages full of hostile text; and walks the
// staff side through nginx with TLS under a path prefix, as the package's
// example site serves it.  Screenshots of the pages stay in the build tree
// for people to look at.

#include "kobtest.h"
#include "nginx.h"
#include "reportd.h"
#include "reportgen.h"
#include "webdriver.h"

#include <filesystem>
#include <map>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

std::string base(const reportd::Server &s) {
    return "http://127.0.0.1:" + std::to_string(s.staffPort());
}

// A run from a home network: the user's own addresses in the interface
// capture, the operator's servers in the probe lines.
reportgen::Run homeRun() {
    auto run = reportgen::healthyRun();
    run.username = "carol";
    run.ifconfig = "lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384\n"
                   "en0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500\n"
                   "\tether a4:83:e7:5b:21:9c\n"
                   "\tinet 192.168.1.23 netmask 0xffffff00 broadcast 192.168.1.255\n";
    return run;
}

std::string upload(const reportd::Server &s, const reportgen::Run &run, const char *user,
                   const char *why = nullptr) {
    auto r = reportd::upload(s.port(), reportgen::report(run), user, why);
    EXPECT_EQ(r.status, 200) << r.raw;
    return reportd::reference(r);
}

std::string profile(const kobtest::TempDir &dir) {
    std::string p = dir.file("browser");
    mkdir(p.c_str(), 0700);
    return p;
}

// Signs in through the form, as a person does, starting at url.
void signIn(webdriver::Session &b, const std::string &url, const std::string &name,
            const std::string &password) {
    b.navigate(url);
    ASSERT_EQ(b.title(), "Sign in");
    b.sendKeys(b.find("#name"), name);
    b.sendKeys(b.find("#password"), password);
    b.clickToLoad(b.find("#signin"));
    ASSERT_NE(b.title(), "Sign in") << b.source();
}

std::vector<std::string> texts(webdriver::Session &b, const std::string &css) {
    std::vector<std::string> out;
    for (const auto &e : b.findAll(css))
        out.push_back(b.text(e));
    return out;
}

// The page as it is now, kept as a PNG in the build tree.
void keepScreenshot(webdriver::Session &b, const std::string &name) {
    std::string shot = std::string(SCREENSHOT_DIR) + "/kobreportd-" + name + ".png";
    std::filesystem::remove(shot);
    b.setWindowSize(1280, 1800);
    b.screenshot(shot);
    std::string png = kobtest::readFile(shot);
    EXPECT_GT(png.size(), 10000u) << shot;
    EXPECT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n") << shot;
}

// The HTTP status of the page on show, as the browser received it.
int pageStatus(webdriver::Session &b) {
    auto v = b.execute("return performance.getEntriesByType('navigation')[0].responseStatus;");
    return v.is_number_integer() ? v.get<int>() : -1;
}

// The user name from the upload form among a report's facts.
constexpr const char *kFormUser = "dl.facts dd:nth-of-type(2)";

// The browser closes, and kobreportd stops on SIGTERM having said nothing
// on standard error (where the sanitizers report) meanwhile.
void stopsCleanly(webdriver::Session &b, reportd::Server &s) {
    b.quit();
    int st = s.stop();
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    EXPECT_EQ(reportd::unusualLines(s.errors()), "");
}

bool has(const std::string &hay, const std::string &needle) {
    return hay.find(needle) != std::string::npos;
}

} // namespace

TEST(ReportdBrowser, ViewerSeesAddressesMaskedAndNothingAfterSigningOut) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    std::string ref = upload(s, homeRun(), "carol", "at home, on 192.168.1.23\n");
    ASSERT_FALSE(ref.empty());
    ASSERT_FALSE(upload(s, reportgen::healthyRun(), "dave").empty());
    ASSERT_EQ(s.addUser("vera", "viewer", "vera's long password").status, 0);

    webdriver::Session b(profile(dir));
    // Without a session every page leads to the sign-in form.
    b.navigate(base(s) + "/reports/" + ref);
    EXPECT_EQ(b.title(), "Sign in");
    EXPECT_EQ(b.url(), base(s) + "/signin?next=%2Freports%2F" + ref);

    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "vera", "vera's long password"));
    EXPECT_EQ(b.url(), base(s) + "/");
    EXPECT_EQ(b.title(), "Problem reports");
    EXPECT_EQ(b.text(b.find("#who")), "vera (viewer)");
    EXPECT_EQ(b.text(b.find("p.count")), "2 reports");
    EXPECT_EQ(texts(b, "#reports tbody td:nth-child(2)"),
              (std::vector<std::string>{"dave", "carol"}));
    // A viewer is offered neither the audit log nor the accounts.
    EXPECT_TRUE(b.findAll("a[href='/audit']").empty());
    EXPECT_TRUE(b.findAll("a[href='/admin/accounts']").empty());

    b.clickToLoad(b.find("#reports a[href='/reports/" + ref + "']"));
    ASSERT_EQ(b.title(), ref);
    std::string raw = b.text(b.find("#raw"));
    EXPECT_TRUE(has(raw, "ether a4:83:xx:xx:xx:xx\n")) << raw;
    EXPECT_TRUE(has(raw, "inet 192.168.x.x netmask 0xffffff00 broadcast 192.168.x.x\n")) << raw;
    // The operator's servers stay readable: the verdicts are about them.
    EXPECT_TRUE(has(raw, "UDP src --10.000000 ms--> dst(192.0.2.7:10007)")) << raw;
    EXPECT_TRUE(has(raw, "TCP src --23.500000 ms--> dst(192.0.2.2:443)")) << raw;
    EXPECT_EQ(b.text(b.find("#why")), "at home, on 192.168.x.x");
    std::string page = b.source();
    for (const char *secret : {"192.168.1.23", "192.168.1.255", "e7:5b:21:9c"})
        EXPECT_FALSE(has(page, secret)) << secret;
    EXPECT_TRUE(has(page, "<dt>From</dt><dd>(masked)</dd>"));
    EXPECT_TRUE(b.findAll("#reveal").empty());
    EXPECT_TRUE(b.findAll("#delete").empty());
    keepScreenshot(b, "viewer-report");

    b.clickToLoad(b.find("#signout"));
    EXPECT_EQ(b.url(), base(s) + "/signin");
    EXPECT_EQ(b.title(), "Sign in");
    // Back to the report: the browser kept nothing of it, and the server
    // sends it to the sign-in form.
    b.back();
    EXPECT_EQ(b.title(), "Sign in");
    EXPECT_EQ(b.url(), base(s) + "/signin?next=%2Freports%2F" + ref);
    page = b.source();
    for (const char *shown :
         {"id=\"raw\"", "This program diagnoses", "192.168.x.x", "carol", "a4:83:", "Sign out"})
        EXPECT_FALSE(has(page, shown)) << shown << "\n" << page;
    keepScreenshot(b, "after-signout");
    stopsCleanly(b, s);
}

TEST(ReportdBrowser, AdminRevealsAndDeletesAndTheAuditLogHasEachStep) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    std::string ref = upload(s, homeRun(), "carol");
    std::string other = upload(s, reportgen::healthyRun(), "dave");
    ASSERT_FALSE(ref.empty());
    ASSERT_FALSE(other.empty());
    ASSERT_EQ(s.addUser("ada", "admin", "ada's long password").status, 0);

    webdriver::Session b(profile(dir));
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "ada", "ada's long password"));
    EXPECT_EQ(b.text(b.find("#who")), "ada (admin)");
    b.clickToLoad(b.find("#reports a[href='/reports/" + ref + "']"));
    ASSERT_EQ(b.title(), ref);
    // An admin too sees the masked text until asking for more.
    EXPECT_TRUE(has(b.text(b.find("#raw")), "inet 192.168.x.x netmask"));
    EXPECT_TRUE(b.findAll("#revealed").empty());

    b.clickToLoad(b.find("#reveal"));
    ASSERT_EQ(b.title(), ref);
    EXPECT_EQ(b.url(), base(s) + "/reports/" + ref + "/reveal");
    EXPECT_FALSE(b.findAll("#revealed").empty());
    std::string raw = b.text(b.find("#raw"));
    EXPECT_TRUE(has(raw, "ether a4:83:e7:5b:21:9c\n")) << raw;
    EXPECT_TRUE(has(raw, "inet 192.168.1.23 netmask 0xffffff00 broadcast 192.168.1.255\n")) << raw;
    EXPECT_TRUE(has(b.source(), "<dt>From</dt><dd>127.0.0.1</dd>"));
    keepScreenshot(b, "admin-revealed");

    // Asked first, on a page of its own.
    b.clickToLoad(b.find("#delete"));
    ASSERT_EQ(b.title(), "Are you sure?");
    EXPECT_EQ(b.text(b.find("#question")), "Delete the report " + ref + "? This cannot be undone.");
    b.clickToLoad(b.find("#confirm"));
    EXPECT_EQ(b.url(), base(s) + "/?deleted=" + ref);
    EXPECT_EQ(b.text(b.find("#message")), "Deleted the report " + ref + ".");
    EXPECT_EQ(b.text(b.find("p.count")), "1 report");
    EXPECT_TRUE(b.findAll("tr[data-reference='" + ref + "']").empty());
    EXPECT_FALSE(b.findAll("tr[data-reference='" + other + "']").empty());

    b.navigate(base(s) + "/reports/" + ref);
    EXPECT_EQ(pageStatus(b), 404);
    EXPECT_EQ(b.title(), "Not found");
    EXPECT_EQ(b.text(b.find("#message")), "No report " + ref + ".");
    EXPECT_EQ(s.api("/api/reports/" + ref).status, 404);

    b.clickToLoad(b.find("#signout"));
    EXPECT_EQ(b.title(), "Sign in");
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "ada", "ada's long password"));
    b.clickToLoad(b.find("a[href='/audit']"));
    ASSERT_EQ(b.title(), "Audit log");
    EXPECT_EQ(pageStatus(b), 200);
    // Newest first, each step with its account, address and report.
    std::vector<std::string> steps;
    for (const auto &row : b.findAll("#audit tbody tr")) {
        auto cells = b.findAll(row, "td");
        ASSERT_EQ(cells.size(), 6u);
        if (b.text(cells[1]) != "ada")
            continue;
        EXPECT_EQ(b.text(cells[2]), "127.0.0.1");
        steps.push_back(b.text(cells[3]) + " " + b.text(cells[4]));
    }
    EXPECT_EQ(steps, (std::vector<std::string>{"signin ", "signout ", "report.deleted " + ref,
                                               "report.revealed " + ref, "report.viewed " + ref,
                                               "signin "}));
    keepScreenshot(b, "audit");
    stopsCleanly(b, s);
}

TEST(ReportdBrowser, HostileTextShowsLiterallyAndSearchTakesMetacharactersAsText) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    const std::string script = "<script>document.title='pwned'</script>";
    const std::string img = "\"><img src=x onerror=\"document.title='pwned'\">";
    const std::string link = "<a href=\"javascript:document.title='pwned'\">javascript:help</a>";
    const std::string sql = "o'brien'; DROP TABLE reports; --";
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));

    auto run = reportgen::healthyRun();
    run.logs["kobvane_stdout.txt"] = script + "\n" + img + "\n" + link + "\n" + sql + "\n";
    // Failures whose text and evidence lines carry the same.
    run.tcp[3] = reportgen::tcpFail(61, script + img);
    run.intranet[2] = reportgen::tcpFail(65, link);
    std::string hostile =
        upload(s, run, script.c_str(), (img + "\n" + link + "\n" + sql + "\n").c_str());
    ASSERT_FALSE(hostile.empty());
    std::map<std::string, std::string> refs; // user name -> reference
    for (const std::string &user :
         {img, link, sql, std::string("100%"), std::string("1000"), std::string("a_b"),
          std::string("axb"), std::string("back\\slash"), std::string("backslash")}) {
        refs[user] = upload(s, reportgen::healthyRun(), user.c_str());
        ASSERT_FALSE(refs[user].empty()) << user;
    }
    ASSERT_EQ(s.addUser("vera", "viewer", "vera's long password").status, 0);

    webdriver::Session b(profile(dir));
    // Nothing the page holds may be script, an image or a javascript: link;
    // the title stays the server's.
    auto inert = [&b](const std::string &title) {
        EXPECT_EQ(b.title(), title);
        EXPECT_TRUE(b.findAll("script").empty());
        EXPECT_TRUE(b.findAll("img").empty());
        EXPECT_TRUE(b.findAll("[onerror]").empty());
        EXPECT_TRUE(b.findAll("a[href^='javascript' i]").empty());
        EXPECT_FALSE(has(b.source(), "pwned'\">"));
    };
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "vera", "vera's long password"));
    ASSERT_EQ(b.url(), base(s) + "/");
    inert("Problem reports");
    EXPECT_EQ(b.text(b.find("p.count")), "10 reports");
    EXPECT_EQ(b.text(b.find("tr[data-reference='" + hostile + "'] td:nth-child(2)")), script);
    EXPECT_EQ(b.text(b.find("tr[data-reference='" + refs[img] + "'] td:nth-child(2)")), img);
    EXPECT_EQ(b.text(b.find("tr[data-reference='" + refs[link] + "'] td:nth-child(2)")), link);
    EXPECT_EQ(b.text(b.find("tr[data-reference='" + refs[sql] + "'] td:nth-child(2)")), sql);
    keepScreenshot(b, "hostile-list");

    b.clickToLoad(b.find("#reports a[href='/reports/" + hostile + "']"));
    inert(hostile);
    EXPECT_EQ(b.text(b.find(kFormUser)), script);
    EXPECT_EQ(b.text(b.find("#why")), img + "\n" + link + "\n" + sql);
    // The verdict and the evidence folded under it, as text.
    std::string shown = b.source();
    EXPECT_TRUE(has(shown, "TCP 443 to KT IDC failed at once (61 &lt;script&gt;"));
    EXPECT_TRUE(
        has(shown, "| connect(2) fail: 61 &lt;script&gt;document.title='pwned'&lt;/script&gt;"))
        << shown;
    EXPECT_TRUE(has(shown, "| connect(2) fail: 65 &lt;a href=\"javascript:"));
    std::string raw = b.text(b.find("#raw"));
    EXPECT_TRUE(has(raw, "[STDOUT]\n" + script + "\n" + img + "\n" + link + "\n" + sql + "\n"))
        << raw;
    keepScreenshot(b, "hostile-report");
    for (const std::string &user : {img, link, sql}) {
        b.navigate(base(s) + "/reports/" + refs[user]);
        inert(refs[user]);
        EXPECT_EQ(b.text(b.find(kFormUser)), user);
    }

    // The search box, typed into: each metacharacter is only itself.
    struct Search {
        std::string query;
        std::string count;
        std::vector<std::string> users; // newest first
    };
    const std::vector<Search> searches = {
        {"%", "1 report matching \u201c%\u201d", {"100%"}},
        {"100%", "1 report matching \u201c100%\u201d", {"100%"}},
        {"_", "1 report matching \u201c_\u201d", {"a_b"}},
        {"a_b", "1 report matching \u201ca_b\u201d", {"a_b"}},
        {"\\", "1 report matching \u201c\\\u201d", {"back\\slash"}},
        {"k\\s", "1 report matching \u201ck\\s\u201d", {"back\\slash"}},
        {"'", "4 reports matching \u201c'\u201d", {sql, link, img, script}},
        // The hostile report's comment holds these words too.
        {"o'brien'; DROP", "2 reports matching \u201co'brien'; DROP\u201d", {sql, script}},
        {img, "2 reports matching \u201c" + img + "\u201d", {img, script}},
        {"slash", "2 reports matching \u201cslash\u201d", {"backslash", "back\\slash"}},
    };
    for (const auto &q : searches) {
        SCOPED_TRACE(q.query);
        b.navigate(base(s) + "/");
        b.sendKeys(b.find("header input[name='q']"), q.query);
        b.clickToLoad(b.find("header button[type='submit']"));
        inert("Problem reports");
        EXPECT_EQ(b.attribute(b.find("header input[name='q']"), "value"), q.query);
        EXPECT_EQ(b.text(b.find("p.count")), q.count);
        EXPECT_EQ(texts(b, "#reports tbody td:nth-child(2)"), q.users);
    }
    // Nothing was dropped on the way.
    b.navigate(base(s) + "/");
    EXPECT_EQ(b.text(b.find("p.count")), "10 reports");
    stopsCleanly(b, s);
}

TEST(ReportdBrowser, BehindNginxUnderAPrefixEveryStepStaysUnderIt) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    if (std::string why = nginx::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    nginx::Ports ports{reportd::freePort(), reportd::freePort(), reportd::freePort(),
                       reportd::freePort()};
    const std::string site = "https://127.0.0.1:" + std::to_string(ports.staff) + "/kob";
    nginx::Certificate cert = nginx::selfSigned(dir.path());
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"),
                      {"--listen", "127.0.0.1:" + std::to_string(ports.upstreamIntake),
                       "--staff-listen", "127.0.0.1:" + std::to_string(ports.upstreamStaff),
                       "--trusted-proxy", "127.0.0.1", "--public-url", site + "/"});
    nginx::Proxy proxy(dir.path(), KOBREPORTD_NGINX_SITE, ports, cert);
    // The user's upload reaches kobreportd through nginx's intake.
    auto r = reportd::uploadFrom("127.0.0.2", ports.intake, reportgen::report(homeRun()));
    ASSERT_EQ(r.status, 200) << r.raw;
    std::string ref = reportd::reference(r);
    std::string other = upload(s, reportgen::healthyRun(), "dave");
    ASSERT_FALSE(other.empty());
    ASSERT_EQ(s.addUser("ada", "admin", "ada's long password").status, 0);

    // The browser trusts the test's certificate and no other.
    webdriver::Session b(profile(dir),
                         {"--ignore-certificate-errors-spki-list=" + nginx::publicKeyHash(cert)});
    b.navigate(site + "/reports/" + ref);
    EXPECT_EQ(b.title(), "Sign in");
    EXPECT_EQ(b.url(), site + "/signin?next=%2Freports%2F" + ref);
    ASSERT_NO_FATAL_FAILURE(signIn(b, b.url(), "ada", "ada's long password"));
    EXPECT_EQ(b.url(), site + "/reports/" + ref);
    ASSERT_EQ(b.title(), ref);
    EXPECT_EQ(pageStatus(b), 200);
    // The stylesheet came through the prefix.
    EXPECT_EQ(b.execute("return getComputedStyle(document.querySelector('header'))"
                        ".backgroundColor;"),
              "rgb(29, 43, 69)");
    // The browser keeps the session for the prefix only, sent over TLS only.
    bool found = false;
    for (const auto &c : b.cookies())
        if (c.value("name", "") == "kob_session") {
            found = true;
            EXPECT_EQ(c.value("path", ""), "/kob/");
            EXPECT_TRUE(c.value("secure", false));
            EXPECT_TRUE(c.value("httpOnly", false));
        }
    EXPECT_TRUE(found);
    keepScreenshot(b, "behind-nginx");

    b.clickToLoad(b.find("#timeline"));
    EXPECT_EQ(b.url(), site + "/users/carol");
    EXPECT_EQ(b.title(), "carol");
    b.clickToLoad(b.find("header nav a"));
    EXPECT_EQ(b.url(), site + "/");
    EXPECT_EQ(b.text(b.find("p.count")), "2 reports");
    b.clickToLoad(b.find("#reports a[href='/kob/reports/" + ref + "']"));
    ASSERT_EQ(b.title(), ref);
    b.clickToLoad(b.find("#reveal"));
    EXPECT_EQ(b.url(), site + "/reports/" + ref + "/reveal");
    // The sender is the user's address, which nginx named.
    EXPECT_TRUE(has(b.source(), "<dt>From</dt><dd>127.0.0.2</dd>"));
    b.clickToLoad(b.find("#delete"));
    b.clickToLoad(b.find("#confirm"));
    EXPECT_EQ(b.url(), site + "/?deleted=" + ref);
    EXPECT_EQ(b.text(b.find("p.count")), "1 report");
    b.clickToLoad(b.find("a[href='/kob/audit']"));
    ASSERT_EQ(b.title(), "Audit log");
    for (const auto &row : b.findAll("#audit tbody tr")) {
        auto cells = b.findAll(row, "td");
        ASSERT_EQ(cells.size(), 6u);
        if (b.text(cells[1]) == "ada") {
            EXPECT_EQ(b.text(cells[2]), "127.0.0.1");
        }
    }
    // Every link and form of the page is under the prefix (but the one to
    // the page's own content).
    auto links = b.findAll("a[href]:not([href='#content']), link[href]"), forms = b.findAll("form");
    EXPECT_GE(links.size() + forms.size(), 10u);
    for (const auto &e : links)
        EXPECT_TRUE(b.attribute(e, "href").rfind("/kob/", 0) == 0) << b.attribute(e, "href");
    for (const auto &e : forms)
        EXPECT_TRUE(b.attribute(e, "action").rfind("/kob/", 0) == 0) << b.attribute(e, "action");

    b.clickToLoad(b.find("#signout"));
    EXPECT_EQ(b.url(), site + "/signin");
    EXPECT_EQ(b.title(), "Sign in");
    b.navigate(site + "/");
    EXPECT_EQ(b.title(), "Sign in");
    stopsCleanly(b, s);
}

// A 64 MiB report's page in the browser: whole, light, with its logs' ends;
// how long it took is printed (the figure is for reading, not a bound
// here).
TEST(ReportdBrowser, AHugeReportsPageLoadsWholeAndLight) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"),
                      {"--max-body", std::to_string(65u << 20)});
    std::string desc = reportgen::reportOfSize(64u << 20, 3);
    std::string ref = reportd::reference(reportd::upload(s.port(), desc, "huge"));
    ASSERT_FALSE(ref.empty());
    desc.clear();
    ASSERT_EQ(s.addUser("hana", "viewer", "hana's long password").status, 0);
    webdriver::Session b(profile(dir));
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "hana", "hana's long password"));
    b.navigate(base(s) + "/reports/" + ref);
    ASSERT_EQ(b.title(), ref);
    auto timing = b.execute("const t = performance.getEntriesByType('navigation')[0];"
                            "return [t.responseEnd - t.startTime, t.loadEventEnd - t.startTime,"
                            " document.documentElement.outerHTML.length];");
    std::printf("a 64 MiB report's page: answered in %.0f ms, loaded in %.0f ms, %.0f characters\n",
                timing[0].get<double>(), timing[1].get<double>(), timing[2].get<double>());
    EXPECT_LE(timing[2].get<double>(), 2.0 * (1 << 20));
    // The big log's two ends, with what lies between left out.
    EXPECT_GE(b.findAll("pre.log").size(), 2u);
    EXPECT_FALSE(b.findAll("p.cut").empty());
    EXPECT_EQ(b.text(b.find("#whole a")), "The whole report as it came");
    stopsCleanly(b, s);
}

namespace {

// axe-core's serious and critical findings on the page on show, one line
// each ("rule (impact): first element"); "" when there are none.
std::string seriousViolations(webdriver::Session &b) {
    static const std::string axe = kobtest::readFile(AXE_JS);
    b.execute(axe + "\nreturn true;");
    auto found =
        b.execute("return axe.run(document, {resultTypes: ['violations']}).then(r => r.violations"
                  ".filter(v => v.impact === 'serious' || v.impact === 'critical')"
                  ".map(v => v.id + ' (' + v.impact + '): ' + v.nodes.map(n => n.target.join(' '))"
                  ".slice(0, 3).join(', ')));");
    std::string out;
    for (const auto &line : found)
        out += line.get<std::string>() + "\n";
    return out;
}

// How much wider than the window the page on show is, in CSS pixels.
int sidewaysScroll(webdriver::Session &b) {
    return b
        .execute("return document.documentElement.scrollWidth - "
                 "document.documentElement.clientWidth;")
        .get<int>();
}

} // namespace

// Every kind of page passes axe-core without a serious or critical finding,
// starts with a link past the header to the content, names its landmarks,
// and fits a phone's width without scrolling sideways.
TEST(ReportdBrowser, EveryKindOfPageIsAccessibleAndFitsAPhone) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    ASSERT_TRUE(std::filesystem::exists(AXE_JS)) << AXE_JS << " is missing: run scripts/deps.sh";
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    auto failing = reportgen::healthyRun();
    failing.udp.assign(5, reportgen::udpTimeout());
    failing.username = "carol";
    std::string bad = upload(s, failing, "carol", "the tunnel drops every few minutes\n");
    std::string good = upload(s, homeRun(), "carol", "works again\n");
    ASSERT_FALSE(bad.empty());
    ASSERT_FALSE(good.empty());
    ASSERT_EQ(s.addUser("ada", "admin", "ada's long password").status, 0);

    webdriver::Session b(profile(dir));
    b.setWindowSize(1366, 900);
    b.navigate(base(s) + "/signin");
    ASSERT_EQ(b.title(), "Sign in");
    // The name field has the focus, so a person can type at once.
    EXPECT_EQ(b.execute("return document.activeElement.id;"), "name");
    EXPECT_EQ(seriousViolations(b), "") << "the sign-in page";
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "ada", "ada's long password"));

    const std::vector<std::pair<std::string, std::string>> kinds = {
        {"the list", "/"},
        {"a search", "/?q=carol"},
        {"a report", "/reports/" + bad},
        {"a comparison", "/compare?a=" + bad + "&b=" + good},
        {"a user's reports", "/users/carol"},
        {"the fleet", "/fleet"},
        {"the fleet's reports",
         "/fleet/reports?area=tcp&target=Testing%20TCP%20pass-through%20to%20port%20443"},
        {"the issues", "/issues"},
        {"an issue", "/issues/1"},
        {"the settings", "/settings"},
        {"the second factor", "/account/second-factor"},
        {"one's password", "/account/password"},
        {"the audit log", "/audit"},
        {"the accounts", "/admin/accounts"},
        {"a message", "/reports/KOB-20000101-000000"},
    };
    for (size_t i = 0; i < kinds.size(); ++i) {
        const auto &[what, path] = kinds[i];
        SCOPED_TRACE(what);
        b.setWindowSize(1366, 900);
        b.navigate(base(s) + path);
        EXPECT_EQ(seriousViolations(b), "") << path;
        // The first thing a keyboard reaches skips the header.
        EXPECT_EQ(b.execute("const a = document.querySelector('body a');"
                            "return a ? a.getAttribute('href') : '';"),
                  "#content")
            << path;
        EXPECT_EQ(b.findAll("main#content").size(), 1u) << path;
        for (const auto &nav : b.findAll("nav"))
            EXPECT_NE(b.attribute(nav, "aria-label"), "") << path;
        b.setWindowSize(390, 844);
        EXPECT_EQ(sidewaysScroll(b), 0) << path;
        // Kept for people to look at, as kobreportd-phone-N.png.
        b.screenshot(std::string(SCREENSHOT_DIR) + "/kobreportd-phone-" + std::to_string(i) +
                     ".png");
    }
    stopsCleanly(b, s);
}

// A page of the list reads at a glance: on a laptop's screen twenty
// reports and more show at once, each on one line with its worst verdict's
// level as a word and that verdict's title, long names cut short rather
// than wrapped; on a phone the list is no wider than the screen.
TEST(ReportdBrowser, TheListShowsTwentyReportsALineEachOnALaptopAndFitsAPhone) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    struct Kind {
        reportgen::Run run;
        std::string level, badge, title;
    };
    auto blocked = reportgen::healthyRun();
    blocked.udp.assign(5, reportgen::udpTimeout());
    auto partial = reportgen::healthyRun();
    partial.intranet[0] = reportgen::tcpTimeout();
    // UDP lost and TCP to the pass-through servers too: its title is the
    // longest of the rules'.
    auto serverDown = blocked;
    serverDown.tcp[4] = serverDown.tcp[5] = reportgen::tcpTimeout();
    auto lossy = reportgen::healthyRun();
    lossy.udp[2] = reportgen::udpTimeout();
    const std::vector<Kind> kinds = {
        {reportgen::healthyRun(), "ok", "OK", "no problem found"},
        {blocked, "fail", "FAIL", "UDP blocked"},
        {partial, "warn", "WARN", "Intranet partly reachable"},
        {serverDown, "fail", "FAIL", "Pass-through server unreachable"},
        {lossy, "warn", "WARN", "UDP lossy"},
    };
    std::map<std::string, const Kind *> kindOf;
    std::map<std::string, bool> longName;
    for (int i = 0; i < 26; i++) {
        const Kind &k = kinds[static_cast<size_t>(i) % kinds.size()];
        bool isLong = i % 3 == 0;
        std::string user = isLong
                               ? "Maximiliane Wolkenstein-Rodenegg of the regional support desk " +
                                     std::to_string(i)
                               : "user" + std::to_string(i);
        std::string ref = upload(s, k.run, user.c_str());
        ASSERT_FALSE(ref.empty());
        kindOf[ref] = &k;
        longName[ref] = isLong;
    }
    ASSERT_EQ(s.addUser("vera", "viewer", "vera's long password").status, 0);

    webdriver::Session b(profile(dir));
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "vera", "vera's long password"));
    b.setWindowSize(1366, 900);
    b.navigate(base(s) + "/");
    auto rows = b.findAll("tr.report");
    ASSERT_EQ(rows.size(), 26u);
    for (const auto &row : rows) {
        std::string ref = b.attribute(row, "data-reference");
        SCOPED_TRACE(ref);
        const Kind &k = *kindOf.at(ref);
        auto badge = b.findAll(row, "td.level span.badge");
        ASSERT_EQ(badge.size(), 1u);
        EXPECT_EQ(b.text(badge[0]), k.badge);
        EXPECT_EQ(b.attribute(badge[0], "class"), "badge " + k.level);
        EXPECT_EQ(b.text(b.findAll(row, "td.title")[0]), k.title);
    }
    auto shape = b.execute(R"js(
        const rows = [...document.querySelectorAll('tr.report')];
        const cell = rows[0].querySelector('td.title');
        return {
          inner: window.innerHeight,
          bottom20: rows[19].getBoundingClientRect().bottom,
          visible: rows.filter(r => r.getBoundingClientRect().bottom <= window.innerHeight).length,
          heights: rows.map(r => r.getBoundingClientRect().height),
          line: parseFloat(getComputedStyle(cell).lineHeight),
          refWrap: getComputedStyle(rows[0].querySelector('td.ref')).whiteSpace,
          refCut: rows.filter(r => r.querySelector('td.ref').scrollWidth >
                                   r.querySelector('td.ref').clientWidth).length,
          refHeight: Math.max(...rows.map(r => r.querySelector('td.ref a')
                                                .getBoundingClientRect().height)),
          cut: rows.filter(r => r.querySelector('td.user').scrollWidth >
                                r.querySelector('td.user').clientWidth)
                   .map(r => r.dataset.reference),
        };)js");
    EXPECT_LE(shape["bottom20"].get<double>(), shape["inner"].get<double>()) << shape.dump();
    EXPECT_GE(shape["visible"].get<int>(), 20) << shape.dump();
    // One line each: every row as high as the first, and less than two
    // lines of text.
    double first = shape["heights"][0].get<double>(), line = shape["line"].get<double>();
    for (const auto &h : shape["heights"])
        EXPECT_NEAR(h.get<double>(), first, 0.5) << shape.dump();
    EXPECT_LT(first, 2 * line) << shape.dump();
    EXPECT_EQ(shape["refWrap"], "nowrap");
    // The reference whole, on one line.
    EXPECT_EQ(shape["refCut"], 0) << shape.dump();
    EXPECT_LT(shape["refHeight"].get<double>(), 2 * line) << shape.dump();
    // The long names are the ones cut short.
    std::vector<std::string> cut = shape["cut"], expected;
    for (const auto &row : rows)
        if (std::string ref = b.attribute(row, "data-reference"); longName.at(ref))
            expected.push_back(ref);
    EXPECT_EQ(cut, expected);
    std::printf("list at 1366x900: window %s px high, row 20 ends at %s px, %d rows visible, "
                "rows %s px high\n",
                shape["inner"].dump().c_str(), shape["bottom20"].dump().c_str(),
                shape["visible"].get<int>(), shape["heights"][0].dump().c_str());
    b.screenshot(std::string(SCREENSHOT_DIR) + "/kobreportd-list-1366x900.png");

    b.setWindowSize(390, 844);
    b.navigate(base(s) + "/");
    auto widths = b.execute("return [document.documentElement.scrollWidth,"
                            " document.documentElement.clientWidth];");
    std::printf("list at 390 px: scrollWidth %d, clientWidth %d\n", widths[0].get<int>(),
                widths[1].get<int>());
    EXPECT_EQ(widths[0], widths[1]);
    // Each report still shows its level's word on the phone.
    EXPECT_EQ(b.execute("return [...document.querySelectorAll('tr.report span.badge')]"
                        ".filter(e => e.getBoundingClientRect().width > 0).length;"),
              26);
    b.screenshot(std::string(SCREENSHOT_DIR) + "/kobreportd-list-390.png");
    stopsCleanly(b, s);
}

// A person whose upload form and kobdiag -u give different names has one
// timeline under either name, and any two of its reports compare through
// the timeline's form, without script.
TEST(ReportdBrowser, BothNamesOfAUserLeadToOneTimelineWhereAnyTwoCompare) {
    if (std::string why = webdriver::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    reportd::Server s(KOBREPORTD_BIN, dir.file("reports.db"));
    auto run = reportgen::healthyRun();
    run.username = "cs";
    std::string both = upload(s, run, "carol"); // form "carol", -u "cs"
    std::string onlyU = upload(s, run, "");     // -u "cs" alone
    run.username.reset();
    std::string onlyForm = upload(s, run, "carol");                   // the form's name alone
    ASSERT_FALSE(upload(s, reportgen::healthyRun(), "dave").empty()); // someone else
    ASSERT_EQ(s.addUser("vera", "viewer", "vera's long password").status, 0);

    webdriver::Session b(profile(dir));
    ASSERT_NO_FATAL_FAILURE(signIn(b, base(s) + "/", "vera", "vera's long password"));
    const std::vector<std::string> all = {onlyForm, onlyU, both};
    for (const std::string name : {"carol", "cs"}) {
        b.navigate(base(s) + "/users/" + name);
        EXPECT_EQ(texts(b, "#timeline tbody td:nth-child(4)"), all) << name;
        EXPECT_EQ(b.text(b.find("#aliases")), std::string("Also named ") +
                                                  (name == std::string("carol") ? "cs" : "carol") +
                                                  " in the same reports.");
    }
    // The oldest as A, the newest as B.
    b.click(b.find("input[name='a'][value='" + both + "']"));
    b.click(b.find("input[name='b'][value='" + onlyForm + "']"));
    b.clickToLoad(b.find("#compare"));
    // (The form sends its fields in the page's order: the newest row first.)
    EXPECT_EQ(b.url(), base(s) + "/compare?b=" + onlyForm + "&a=" + both);
    EXPECT_EQ(b.title(), "Compare");
    stopsCleanly(b, s);
}
