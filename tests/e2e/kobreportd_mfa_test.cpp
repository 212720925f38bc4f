// kobreportd's second factor and its sign-in through an identity
// provider's proxy, on both databases: enrolment with a code computed here
// from the secret the page shows (with liboath, as an authenticator app
// computes it), codes good once, recovery codes, --require-2fa, an admin's
// reset, and the proxy's header believed only from a trusted address.

#include "kobtest.h"
#include "reportd.h"
#include "store_fixture.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <liboath/oath.h>
#include <sys/stat.h>

namespace {

// 2027-01-15 08:00:00 UTC, the start of a 30-second step.
constexpr std::time_t kMorning = 1800000000;

std::string between(const std::string &s, const std::string &from, const std::string &to) {
    auto a = s.find(from);
    if (a == std::string::npos)
        return "";
    a += from.size();
    return s.substr(a, s.find(to, a) - a);
}

size_t count(const std::string &s, const std::string &what) {
    size_t n = 0;
    for (auto p = s.find(what); p != std::string::npos; p = s.find(what, p + 1))
        n++;
    return n;
}

// The six digits an authenticator app shows at t for a base32 secret.
std::string totp(const std::string &base32, std::time_t t) {
    char *secret = nullptr;
    size_t len = 0;
    if (oath_init() != OATH_OK ||
        oath_base32_decode(base32.data(), base32.size(), &secret, &len) != OATH_OK)
        return "";
    char out[7] = {};
    int r = oath_totp_generate(secret, len, t, 30, 0, 6, out);
    std::free(secret);
    return r == OATH_OK ? out : "";
}

// Another code than the right one for t, and than those of the steps
// either side of it.
std::string wrongCode(const std::string &base32, std::time_t t) {
    for (int i = 0; i < 1000000; i++) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "%06d", (i * 7919 + 123457) % 1000000);
        std::string c = buf;
        if (c != totp(base32, t) && c != totp(base32, t - 30) && c != totp(base32, t + 30))
            return c;
    }
    return "";
}

class SecondFactor : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        setClock(kMorning);
    }

    void setClock(std::time_t t) { kobtest::writeFile(clockFile, std::to_string(t) + "\n"); }

    std::vector<std::string> options(std::vector<std::string> extra = {}) const {
        extra.insert(extra.end(), {"--second-factor-key", keyFile});
        return extra;
    }
    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }

    // Sets up a second factor for the browser's account at the clock's
    // time; its base32 secret, and its recovery codes in codes.
    std::string enrol(reportd::Browser &b, std::vector<std::string> *codes = nullptr) {
        auto page = b.post("/account/second-factor", {});
        EXPECT_EQ(page.status, 200) << page.raw.substr(0, 400);
        std::string secret = between(page.body, "<code class=\"token\" id=\"secret\">", "<");
        auto done = b.post("/account/second-factor/confirm", {{"code", totp(secret, now)}});
        EXPECT_EQ(done.status, 200) << done.raw.substr(0, 400);
        if (codes) {
            std::string list = between(done.body, "<ul id=\"recovery\">", "</ul>");
            for (size_t p = 0; (p = list.find("<code>", p)) != std::string::npos; p++)
                codes->push_back(between(list.substr(p), "<code>", "</code>"));
        }
        return secret;
    }

    // The first step of a sign-in: the password.
    reportd::Response password(reportd::Browser &b, const std::string &name) {
        b.get("/signin");
        auto r =
            b.post("/signin",
                   {{"name", name}, {"password", "password of " + name}, {"next", "/reports/x"}});
        if (r.status == 303)
            b.get(reportd::header(r, "Location"));
        return r;
    }

    std::string clockFile = dir.file("clock");
    std::string keyFile = dir.file("second-factor.key");
    std::time_t now = kMorning;
};

INSTANTIATE_TEST_SUITE_P(Stores, SecondFactor, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(SecondFactor, EnrolmentShowsAQRCodeAndIsConfirmedByACodeFromTheSecret) {
    reportd::Server s(KOBREPORTD_BIN, db, options(), true, clockEnv());
    std::string name;
    auto b = s.signedIn("viewer", &name);
    auto status = b.get("/account/second-factor");
    EXPECT_EQ(status.status, 200);
    EXPECT_NE(status.body.find("<p id=\"status\">Your account has no second factor.</p>"),
              std::string::npos);

    auto page = b.post("/account/second-factor", {});
    ASSERT_EQ(page.status, 200);
    // The QR code is drawn on the page: SVG, no image to fetch, no script.
    EXPECT_NE(page.body.find("<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"qr\" id=\"qr\""),
              std::string::npos);
    EXPECT_GT(count(page.body, "h1v1h-1z"), 200u);
    EXPECT_EQ(page.body.find("<script"), std::string::npos);
    EXPECT_EQ(page.body.find("<img"), std::string::npos);
    std::string secret = between(page.body, "<code class=\"token\" id=\"secret\">", "<");
    ASSERT_EQ(secret.size(), 32u); // 160 bits in base32
    EXPECT_EQ(totp(secret, now).size(), 6u);

    // Kept encrypted, under a key of its own made for the purpose.
    std::string stored = value("SELECT secret FROM second_factors WHERE account = '" + name + "'");
    EXPECT_EQ(stored.size(), 2u * (24 + 20 + 16));
    EXPECT_EQ(stored.find(secret), std::string::npos);
    EXPECT_EQ(value("SELECT confirmed FROM second_factors"), "0");
    struct stat st {};
    ASSERT_EQ(::stat(keyFile.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, 65);

    auto wrong = b.post("/account/second-factor/confirm", {{"code", wrongCode(secret, now)}});
    EXPECT_EQ(wrong.status, 400);
    EXPECT_NE(wrong.body.find("<p class=\"error\" id=\"message\">Wrong code: enter the six digits "
                              "the app shows now.</p>"),
              std::string::npos);
    EXPECT_EQ(between(wrong.body, "<code class=\"token\" id=\"secret\">", "<"), secret);
    EXPECT_EQ(value("SELECT confirmed FROM second_factors"), "0");

    auto done = b.post("/account/second-factor/confirm", {{"code", totp(secret, now)}});
    ASSERT_EQ(done.status, 200);
    std::string list = between(done.body, "<ul id=\"recovery\">", "</ul>");
    EXPECT_EQ(count(list, "<li><code>"), 10u);
    std::string first = between(list, "<li><code>", "</code>");
    EXPECT_EQ(first.size(), 23u); // four groups of five, dashes between
    EXPECT_EQ(value("SELECT confirmed FROM second_factors"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM recovery_codes WHERE used_at = 0"), "10");
    EXPECT_EQ(value("SELECT count(*) FROM recovery_codes WHERE code_hash LIKE '%" +
                    first.substr(0, 5) + "%'"),
              "0");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'second_factor.enrolled' AND "
                    "account = '" +
                    name + "'"),
              "1");
    // Shown once: the page says so now, and the codes are nowhere else.
    auto again = b.get("/account/second-factor");
    EXPECT_NE(again.body.find("Recovery codes left: 10."), std::string::npos);
    EXPECT_EQ(again.body.find(first), std::string::npos);
    EXPECT_EQ(b.post("/account/second-factor", {}).status, 409);
}

TEST_P(SecondFactor, TheSignInAsksForTheCodeBeforeAnySessionAndTakesEachCodeOnce) {
    reportd::Server s(KOBREPORTD_BIN, db, options(), true, clockEnv());
    std::string name;
    auto first = s.signedIn("viewer", &name);
    std::string secret = enrol(first);

    reportd::Browser b(s.staffPort());
    auto r = password(b, name);
    ASSERT_EQ(r.status, 303);
    EXPECT_EQ(reportd::header(r, "Location"), "/signin/code?next=%2Freports%2Fx");
    EXPECT_EQ(b.cookie("kob_session"), "");
    EXPECT_EQ(b.cookie("kob_pending").size(), 64u);
    EXPECT_EQ(value("SELECT count(*) FROM sessions WHERE account = '" + name + "'"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM pending_signins"), "1");
    // The pages stay shut meanwhile.
    EXPECT_EQ(b.get("/").status, 303);

    // The code the enrolment took is spent.
    auto reused = b.post("/signin/code", {{"code", totp(secret, now)}, {"next", "/"}});
    EXPECT_EQ(reused.status, 401);
    EXPECT_NE(reused.body.find("<p class=\"error\" id=\"message\">Wrong code.</p>"),
              std::string::npos);
    auto wrong = b.post("/signin/code", {{"code", wrongCode(secret, now + 30)}, {"next", "/"}});
    EXPECT_EQ(wrong.status, 401);
    EXPECT_EQ(value("SELECT count(*) FROM sessions WHERE account = '" + name + "'"), "1");

    setClock(now + 30);
    std::string code = totp(secret, now + 30);
    auto ok = b.post("/signin/code", {{"code", code}, {"next", "/fleet"}});
    ASSERT_EQ(ok.status, 303) << ok.raw;
    EXPECT_EQ(reportd::header(ok, "Location"), "/fleet");
    EXPECT_EQ(b.cookie("kob_session").size(), 64u);
    EXPECT_EQ(b.cookie("kob_pending"), "");
    auto home = b.get("/");
    EXPECT_EQ(home.status, 200);
    EXPECT_NE(home.body.find("title=\"Settings\">" + name + " (viewer)</a>"), std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM pending_signins"), "0");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'signin' AND account = '" + name +
                    "' ORDER BY id DESC LIMIT 1"),
              "with a code");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'signin.password'"), "1");
    EXPECT_EQ(value("SELECT sum(count) FROM audit WHERE action = 'signin.code_failed'"), "2");

    // The same code again, in the same step: refused.
    reportd::Browser other(s.staffPort());
    ASSERT_EQ(password(other, name).status, 303);
    EXPECT_EQ(other.post("/signin/code", {{"code", code}, {"next", "/"}}).status, 401);
    EXPECT_EQ(other.cookie("kob_session"), "");
    // Five minutes after the password, the sign-in has ended, right code or not.
    setClock(now + 30 + 300);
    auto late = other.post("/signin/code", {{"code", totp(secret, now + 330)}, {"next", "/"}});
    EXPECT_EQ(late.status, 401);
    EXPECT_NE(late.body.find("<p class=\"error\" id=\"message\">This sign-in has ended. Sign in "
                             "again.</p>"),
              std::string::npos);
    EXPECT_EQ(other.cookie("kob_pending"), "");
    EXPECT_EQ(other.cookie("kob_session"), "");
}

TEST_P(SecondFactor, ARecoveryCodeSignsInOnceAndWrongCodesShutTheDoor) {
    reportd::Server s(KOBREPORTD_BIN, db, options(), true, clockEnv());
    std::string name;
    auto first = s.signedIn("viewer", &name);
    std::vector<std::string> codes;
    std::string secret = enrol(first, &codes);
    ASSERT_EQ(codes.size(), 10u);

    reportd::Browser b(s.staffPort());
    ASSERT_EQ(password(b, name).status, 303);
    // As people type it: in capitals, without the dashes.
    std::string typed;
    for (char c : codes[3])
        if (c != '-')
            typed += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    auto ok = b.post("/signin/code", {{"code", typed}, {"next", "/"}});
    ASSERT_EQ(ok.status, 303) << ok.raw;
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'signin' AND account = '" + name +
                    "' ORDER BY id DESC LIMIT 1"),
              "with a recovery code");
    EXPECT_EQ(value("SELECT count(*) FROM recovery_codes WHERE used_at <> 0"), "1");
    EXPECT_NE(b.get("/account/second-factor").body.find("Recovery codes left: 9."),
              std::string::npos);

    reportd::Browser again(s.staffPort());
    ASSERT_EQ(password(again, name).status, 303);
    EXPECT_EQ(again.post("/signin/code", {{"code", codes[3]}, {"next", "/"}}).status, 401);
    // Five wrong codes: the sixth try is refused whatever it is, and the
    // sign-in waiting for it is gone.
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(again.post("/signin/code", {{"code", wrongCode(secret, now)}}).status, 401);
    auto locked = again.post("/signin/code", {{"code", codes[4]}, {"next", "/"}});
    EXPECT_EQ(locked.status, 429);
    EXPECT_EQ(reportd::header(locked, "Retry-After"), "300");
    EXPECT_NE(locked.body.find("Too many wrong codes. Try again in 5 minutes."), std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM pending_signins"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM recovery_codes WHERE used_at <> 0"), "1");
    EXPECT_EQ(again.cookie("kob_session"), "");
}

TEST_P(SecondFactor, RequiredForAdminsSendsAnAdminWithoutOneToEnrolmentAndNothingElse) {
    reportd::Server s(KOBREPORTD_BIN, db, options({"--require-2fa", "admin"}), true, clockEnv());
    auto viewer = s.signedIn("viewer");
    EXPECT_EQ(viewer.get("/").status, 200);

    auto admin = s.signedIn("admin");
    for (const char *path : {"/", "/admin/accounts", "/audit", "/fleet"}) {
        SCOPED_TRACE(path);
        auto r = admin.get(path);
        EXPECT_EQ(r.status, 303);
        EXPECT_EQ(reportd::header(r, "Location"), "/account/second-factor");
    }
    auto page = admin.get("/account/second-factor");
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("id=\"required\""), std::string::npos);
    // A form with the session's own token is refused too.
    auto add = admin.post("/admin/users",
                          {{"name", "sneaky"}, {"role", "admin"}, {"password", "a long password"}});
    EXPECT_EQ(add.status, 403);
    EXPECT_NE(add.body.find("Set up a second factor first: this server requires one for your "
                            "account."),
              std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'sneaky'"), "0");

    enrol(admin);
    EXPECT_EQ(admin.get("/admin/accounts").status, 200);
}

TEST_P(SecondFactor, RequiredForAllSendsViewersToEnrolmentToo) {
    reportd::Server s(KOBREPORTD_BIN, db, options({"--require-2fa", "all"}), true, clockEnv());
    auto viewer = s.signedIn("viewer");
    auto r = viewer.get("/");
    EXPECT_EQ(r.status, 303);
    EXPECT_EQ(reportd::header(r, "Location"), "/account/second-factor");
    EXPECT_EQ(viewer.get("/account/second-factor").status, 200);
    enrol(viewer);
    EXPECT_EQ(viewer.get("/").status, 200);
    // Signing out stays open to everyone.
    auto other = s.signedIn("viewer");
    EXPECT_EQ(other.get("/account/second-factor").status, 200);
    EXPECT_EQ(other.post("/signout", {}).status, 303);
}

TEST_P(SecondFactor, AnAdminResetsAnothersSecondFactorThroughTheFormAndTheApiAudited) {
    reportd::Server s(KOBREPORTD_BIN, db, options(), true, clockEnv());
    std::string name, adminName;
    auto viewer = s.signedIn("viewer", &name);
    enrol(viewer);
    auto admin = s.signedIn("admin", &adminName);
    EXPECT_NE(
        admin.get("/admin/accounts").body.find("/admin/users/" + name + "/second-factor/reset\""),
        std::string::npos);

    // Without the form token: refused, nothing removed.
    auto forged =
        reportd::request(s.staffPort(), "POST", "/admin/users/" + name + "/second-factor/reset",
                         "Cookie: kob_session=" + admin.cookie("kob_session") +
                             "\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                         "");
    EXPECT_EQ(forged.status, 403);
    EXPECT_EQ(value("SELECT count(*) FROM second_factors"), "1");

    auto reset = admin.post("/admin/users/" + name + "/second-factor/reset", {});
    EXPECT_EQ(reset.status, 200);
    EXPECT_NE(reset.body.find("<p class=\"notice\" id=\"message\">Removed the second factor of " +
                              name + ".</p>"),
              std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM second_factors"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM recovery_codes"), "0");
    EXPECT_EQ(value("SELECT account || ' ' || detail FROM audit WHERE action = "
                    "'second_factor.reset'"),
              adminName + " " + name);
    EXPECT_EQ(admin.post("/admin/users/" + name + "/second-factor/reset", {}).status, 404);
    // The password alone signs in again.
    reportd::Browser b(s.staffPort());
    auto r = password(b, name);
    EXPECT_EQ(r.status, 303);
    EXPECT_EQ(reportd::header(r, "Location"), "/reports/x");

    enrol(viewer);
    auto api = s.api("/api/accounts/" + name + "/second-factor", "DELETE");
    EXPECT_EQ(api.status, 200);
    EXPECT_EQ(api.body, "{\"account\":\"" + name + "\",\"second_factor\":false}");
    EXPECT_EQ(value("SELECT count(*) FROM second_factors"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'second_factor.reset' AND "
                    "account LIKE 'token:%'"),
              "1");
    auto none = s.api("/api/accounts/" + name + "/second-factor", "DELETE");
    EXPECT_EQ(none.status, 404);
    EXPECT_EQ(none.body, "{\"error\":\"this account has no second factor\"}");
    auto nobody = s.api("/api/accounts/nobody/second-factor", "DELETE");
    EXPECT_EQ(nobody.status, 404);
    EXPECT_EQ(nobody.body, "{\"error\":\"no such account\"}");
}

// A GET of the staff side from a loopback source address, with header lines.
reportd::Response getFrom(const std::string &source, int port, const std::string &path,
                          const std::string &headers) {
    return reportd::parse(
        reportd::exchangeAt("127.0.0.1", port,
                            {"GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                             std::to_string(port) + "\r\nConnection: close\r\n" + headers + "\r\n"},
                            30, source)
            .raw);
}

std::string sessionCookie(const reportd::Response &r) {
    return between(r.raw, "Set-Cookie: kob_session=", ";");
}

using AuthProxy = SecondFactor;

INSTANTIATE_TEST_SUITE_P(Stores, AuthProxy, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(AuthProxy, TheHeaderFromTheTrustedProxySignsInAndFromAnyoneElseIsIgnored) {
    reportd::Server s(KOBREPORTD_BIN, db,
                      options({"--trusted-proxy", "127.0.0.2", "--auth-proxy-header",
                               "X-Forwarded-User", "--require-2fa", "all"}),
                      true, clockEnv());
    ASSERT_EQ(s.addUser("alice", "viewer", "password of alice").status, 0);

    auto in = getFrom("127.0.0.2", s.staffPort(), "/", "X-Forwarded-User: alice\r\n");
    ASSERT_EQ(in.status, 200) << in.raw.substr(0, 400);
    // Not sent to enrolment: the identity provider asked for its own factor.
    EXPECT_NE(in.body.find("title=\"Settings\">alice (viewer)</a>"), std::string::npos);
    std::string cookie = sessionCookie(in);
    ASSERT_EQ(cookie.size(), 64u);
    EXPECT_EQ(value("SELECT via_proxy FROM sessions WHERE account = 'alice'"), "1");
    EXPECT_EQ(value("SELECT address || ' ' || detail FROM audit WHERE action = 'signin.proxy'"),
              "127.0.0.2 X-Forwarded-User from 127.0.0.2");
    // The session goes on; no second one is made for the next page.
    auto next = getFrom("127.0.0.2", s.staffPort(), "/fleet",
                        "X-Forwarded-User: alice\r\nCookie: kob_session=" + cookie + "\r\n");
    EXPECT_EQ(next.status, 200);
    EXPECT_EQ(sessionCookie(next), "");
    EXPECT_EQ(value("SELECT count(*) FROM sessions"), "1");

    // From an address that is no trusted proxy, the header is not read.
    for (const char *source : {"127.0.0.1", "127.0.0.3"}) {
        SCOPED_TRACE(source);
        auto elsewhere = getFrom(source, s.staffPort(), "/", "X-Forwarded-User: alice\r\n");
        EXPECT_EQ(elsewhere.status, 303);
        EXPECT_EQ(reportd::header(elsewhere, "Location"), "/signin?next=%2F");
        EXPECT_EQ(sessionCookie(elsewhere), "");
    }
    // A name with no account, without --auth-proxy-autocreate: refused.
    auto bob = getFrom("127.0.0.2", s.staffPort(), "/", "X-Forwarded-User: bob\r\n");
    EXPECT_EQ(bob.status, 403);
    EXPECT_NE(bob.body.find("<p id=\"message\">There is no account bob here. An admin can add "
                            "it.</p>"),
              std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'bob'"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM sessions"), "1");
    // Folded, as failed sign-ins are.
    EXPECT_EQ(getFrom("127.0.0.2", s.staffPort(), "/", "X-Forwarded-User: bob\r\n").status, 403);
    EXPECT_EQ(value("SELECT account || ' ' || count FROM audit WHERE action = "
                    "'signin.proxy.refused'"),
              "(no such account) 2");
    // A different person behind the same browser: the old session ends.
    ASSERT_EQ(s.addUser("carol", "viewer", "password of carol").status, 0);
    auto carol = getFrom("127.0.0.2", s.staffPort(), "/",
                         "X-Forwarded-User: carol\r\nCookie: kob_session=" + cookie + "\r\n");
    EXPECT_NE(carol.body.find("title=\"Settings\">carol (viewer)</a>"), std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM sessions WHERE account = 'alice'"), "0");
}

TEST_P(AuthProxy, WithTheOptionOffTheHeaderIsIgnoredEvenFromATrustedProxy) {
    reportd::Server s(KOBREPORTD_BIN, db, options({"--trusted-proxy", "127.0.0.2"}), true,
                      clockEnv());
    ASSERT_EQ(s.addUser("alice", "admin", "password of alice").status, 0);
    auto r = getFrom("127.0.0.2", s.staffPort(), "/", "X-Forwarded-User: alice\r\n");
    EXPECT_EQ(r.status, 303);
    EXPECT_EQ(reportd::header(r, "Location"), "/signin?next=%2F");
    EXPECT_EQ(value("SELECT count(*) FROM sessions"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action LIKE 'signin%'"), "0");
}

TEST_P(AuthProxy, AutocreateMakesAViewerAndTheRoleHeaderCountsOnlyWhenAnAccountIsMade) {
    reportd::Server s(
        KOBREPORTD_BIN, db,
        options({"--trusted-proxy", "127.0.0.2", "--auth-proxy-header", "X-Forwarded-User",
                 "--auth-proxy-email-header", "X-Forwarded-Email", "--auth-proxy-role-header",
                 "X-Forwarded-Role", "--auth-proxy-autocreate"}),
        true, clockEnv());
    ASSERT_EQ(s.addUser("alice", "viewer", "password of alice").status, 0);
    auto dave = getFrom("127.0.0.2", s.staffPort(), "/",
                        "X-Forwarded-User: dave\r\nX-Forwarded-Email: dave@example.net\r\n");
    EXPECT_EQ(dave.status, 200);
    EXPECT_NE(dave.body.find("title=\"Settings\">dave (viewer)</a>"), std::string::npos);
    EXPECT_EQ(value("SELECT role || ' ' || email || ' ' || pw_hash FROM users WHERE name = 'dave'"),
              "viewer dave@example.net !");
    EXPECT_EQ(value("SELECT detail FROM audit WHERE action = 'user.added' AND account = 'dave'"),
              "dave (viewer), made by the sign-in proxy");
    // Such an account has no password to sign in with.
    reportd::Browser b(s.staffPort());
    b.get("/signin");
    EXPECT_EQ(b.post("/signin", {{"name", "dave"}, {"password", "!"}}).status, 401);

    auto erin = getFrom("127.0.0.2", s.staffPort(), "/admin/accounts",
                        "X-Forwarded-User: erin\r\nX-Forwarded-Role: admin\r\n");
    EXPECT_EQ(erin.status, 200);
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'erin'"), "admin");
    auto fay = getFrom("127.0.0.2", s.staffPort(), "/",
                       "X-Forwarded-User: fay\r\nX-Forwarded-Role: root\r\n");
    EXPECT_EQ(fay.status, 200);
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'fay'"), "viewer");
    // An existing account's role is never the header's.
    auto alice = getFrom("127.0.0.2", s.staffPort(), "/admin/accounts",
                         "X-Forwarded-User: alice\r\nX-Forwarded-Role: admin\r\n");
    EXPECT_EQ(alice.status, 403);
    EXPECT_EQ(value("SELECT role FROM users WHERE name = 'alice'"), "viewer");
    // Nobody is made from an untrusted address.
    auto mallory = getFrom("127.0.0.1", s.staffPort(), "/",
                           "X-Forwarded-User: mallory\r\nX-Forwarded-Role: admin\r\n");
    EXPECT_EQ(mallory.status, 303);
    EXPECT_EQ(value("SELECT count(*) FROM users WHERE name = 'mallory'"), "0");
}

TEST(AuthProxyOptions, TheHeaderNeedsATrustedProxy) {
    kobtest::TempDir dir;
    auto r = reportd::command(KOBREPORTD_BIN,
                              {"--listen", "127.0.0.1:0", "--staff-listen", "127.0.0.1:0", "--db",
                               dir.file("r.db"), "--auth-proxy-header", "X-Forwarded-User"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kobreportd: --auth-proxy-header needs --staff-listen and --trusted-proxy: "
                     "the header is believed only from the proxies named there\n");
    // The header's companions mean nothing without it.
    auto alone =
        reportd::command(KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--staff-listen",
                                          "127.0.0.1:0", "--trusted-proxy", "127.0.0.1", "--db",
                                          dir.file("r.db"), "--auth-proxy-autocreate"});
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(alone.err.rfind("usage: kobreportd", 0), 0u);
    auto bad = reportd::command(KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db",
                                                 dir.file("r.db"), "--require-2fa", "some"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err.rfind("usage: kobreportd", 0), 0u);
}

} // namespace
