// kobreportd behind Debian's nginx with the example site the package ships,
// on loopback: nginx ends TLS for the staff side under /kob/ and passes the
// intake on, naming each client in X-Forwarded-For, and kobreportd runs with
// --trusted-proxy 127.0.0.1 and --public-url.  Clients come from addresses
// of their own (127.0.0.2, 127.0.0.3), as users on other machines would.

#include "kobtest.h"
#include "nginx.h"
#include "reportd.h"
#include "reportgen.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <map>
#include <memory>
#include <thread>

namespace {

// A browser at the staff side through nginx, over TLS that checks the
// test's certificate, from a loopback address of its own.  It keeps the
// cookies it is given and the form token of the last page that had one.
class Browser {
  public:
    Browser(int port, const std::string &cert, const std::string &source)
        : client_("127.0.0.1", port), origin_("https://127.0.0.1:" + std::to_string(port)) {
        client_.set_ca_cert_path(cert.c_str());
        client_.enable_server_certificate_verification(true);
        client_.set_interface(source.c_str());
    }

    httplib::Result get(const std::string &path) {
        auto r = client_.Get(path.c_str(), headers(""));
        keep(r);
        return r;
    }

    // Posts a form with the last form token, from the public URL's origin
    // unless another is given.
    httplib::Result post(const std::string &path,
                         std::vector<std::pair<std::string, std::string>> fields,
                         const std::string &origin = "") {
        fields.emplace_back("csrf", csrf_);
        auto r = client_.Post(path.c_str(), headers(origin.empty() ? origin_ : origin),
                              reportd::formEncode(fields), "application/x-www-form-urlencoded");
        keep(r);
        return r;
    }

    std::string cookie(const std::string &name) const {
        auto it = cookies_.find(name);
        return it == cookies_.end() ? "" : it->second;
    }
    void setCookie(const std::string &name, const std::string &value) { cookies_[name] = value; }
    // A header line of the client's own on every request from now on.
    void addHeader(const std::string &name, const std::string &value) {
        extra_.emplace(name, value);
    }

  private:
    httplib::Headers headers(const std::string &origin) const {
        httplib::Headers h;
        std::string c;
        for (const auto &[k, v] : cookies_)
            c += (c.empty() ? "" : "; ") + k + "=" + v;
        if (!c.empty())
            h.emplace("Cookie", c);
        if (!origin.empty())
            h.emplace("Origin", origin);
        h.insert(extra_.begin(), extra_.end());
        return h;
    }

    void keep(const httplib::Result &r) {
        if (!r)
            return;
        for (size_t i = 0; i < r->get_header_value_count("Set-Cookie"); i++) {
            std::string v = r->get_header_value("Set-Cookie", i);
            auto eq = v.find('='), semi = v.find(';');
            std::string name = v.substr(0, eq), value = v.substr(eq + 1, semi - eq - 1);
            if (v.find("; Max-Age=0") != std::string::npos)
                cookies_.erase(name);
            else
                cookies_[name] = value;
        }
        const std::string field = "name=\"csrf\" value=\"";
        auto at = r->body.find(field);
        if (at != std::string::npos)
            csrf_ = r->body.substr(at + field.size(), 64);
    }

    httplib::SSLClient client_;
    std::string origin_;
    std::map<std::string, std::string> cookies_;
    httplib::Headers extra_;
    std::string csrf_;
};

// kobreportd and nginx in front of it, both on free loopback ports.
class BehindNginx : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string why = nginx::missing(); !why.empty())
            GTEST_SKIP() << why;
        ports.intake = reportd::freePort();
        ports.staff = reportd::freePort();
        ports.upstreamIntake = reportd::freePort();
        ports.upstreamStaff = reportd::freePort();
        publicUrl = "https://127.0.0.1:" + std::to_string(ports.staff) + "/kob/";
        certificate = nginx::selfSigned(dir.path());
        server = std::make_unique<reportd::Server>(
            KOBREPORTD_BIN, db,
            std::vector<std::string>{
                "--listen", "127.0.0.1:" + std::to_string(ports.upstreamIntake), "--staff-listen",
                "127.0.0.1:" + std::to_string(ports.upstreamStaff), "--trusted-proxy", "127.0.0.1",
                "--public-url", publicUrl});
        proxy =
            std::make_unique<nginx::Proxy>(dir.path(), KOBREPORTD_NGINX_SITE, ports, certificate);
    }

    // A browser on another machine, at the staff side's public URL.
    Browser from(const std::string &source) const {
        return Browser(ports.staff, certificate.cert, source);
    }

    kobtest::TempDir dir;
    std::string db = dir.file("reports.db");
    nginx::Ports ports;
    nginx::Certificate certificate;
    std::string publicUrl;
    std::unique_ptr<reportd::Server> server;
    std::unique_ptr<nginx::Proxy> proxy;
};

std::vector<std::string> setCookies(const httplib::Result &r) {
    std::vector<std::string> out;
    for (size_t i = 0; i < r->get_header_value_count("Set-Cookie"); i++)
        out.push_back(r->get_header_value("Set-Cookie", i));
    return out;
}

void linksUnderPrefix(const std::string &html, size_t least) {
    auto found = reportd::linkTargets(html);
    EXPECT_GE(found.size(), least) << html;
    for (const auto &t : found)
        EXPECT_TRUE(t.rfind("/kob/", 0) == 0) << "not under /kob/: " << t;
}

// kobdiag's upload to nginx's intake port from source, with header lines
// added (each ending in CRLF).
reportd::Response uploadFrom(const std::string &source, int port, const std::string &desc,
                             const std::string &headers = "") {
    std::string body = reportgen::body(desc, std::string("carol"), std::nullopt);
    std::string head = reportgen::head("report.kobvane.example", body.size());
    head = head.substr(0, head.size() - 2) + headers + "\r\n";
    return reportd::exchangeAt("127.0.0.1", port, {head, body}, 30, source);
}

// The answer to a request head alone, sent from source.  Once the answer's
// head is in, the client says it sends no more, so that nginx need not wait
// for a body it will not read.
reportd::Response headOnly(const std::string &source, int port, const std::string &head) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in from {
    }, to{};
    from.sin_family = to.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &from.sin_addr);
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    to.sin_port = htons(static_cast<uint16_t>(port));
    struct timeval tv = {30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string raw;
    if (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) == 0 &&
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0 &&
        send(fd, head.data(), head.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(head.size())) {
        char buf[4096];
        ssize_t n;
        while (raw.find("\r\n\r\n") == std::string::npos && (n = recv(fd, buf, sizeof buf, 0)) > 0)
            raw.append(buf, static_cast<size_t>(n));
        shutdown(fd, SHUT_WR);
        raw += reportd::readAll(fd);
    }
    close(fd);
    return reportd::parse(raw);
}

} // namespace

TEST_F(BehindNginx, AnUploadThroughNginxIsStoredWithTheUsersAddress) {
    auto r = uploadFrom("127.0.0.2", ports.intake, "through nginx\n");
    ASSERT_EQ(r.status, 200) << r.raw << proxy->log();
    std::string ref = reportd::reference(r);
    ASSERT_FALSE(ref.empty()) << r.body;
    EXPECT_EQ(r.body, "Report received: " + ref);
    // What a client writes in X-Forwarded-For is replaced by its address.
    auto forged = uploadFrom("127.0.0.3", ports.intake, "forged\n",
                             "X-Forwarded-For: 192.0.2.99\r\nForwarded: for=192.0.2.98\r\n");
    ASSERT_EQ(forged.status, 200) << forged.raw;
    std::string forgedRef = reportd::reference(forged);
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT peer FROM reports WHERE reference = '" + ref + "'"),
              "127.0.0.2");
    EXPECT_EQ(
        reportd::sqliteValue(db, "SELECT peer FROM reports WHERE reference = '" + forgedRef + "'"),
        "127.0.0.3");
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT count(*) FROM reports"), "2");
    // The staff side shows the stored sender to an admin who reveals it.
    Browser b = from("127.0.0.2");
    ASSERT_EQ(server->addUser("ada", "admin", "password of ada").status, 0);
    b.get("/kob/signin");
    ASSERT_EQ(b.post("/kob/signin", {{"name", "ada"}, {"password", "password of ada"}})->status,
              303);
    b.get("/kob/reports/" + ref);
    auto revealed = b.post("/kob/reports/" + ref + "/reveal", {});
    ASSERT_TRUE(revealed);
    EXPECT_EQ(revealed->status, 200);
    EXPECT_NE(revealed->body.find("<dt>From</dt><dd>127.0.0.2</dd>"), std::string::npos)
        << revealed->body;
    // Bigger than nginx takes: refused there.
    auto huge = headOnly("127.0.0.2", ports.intake,
                         "POST /report/problem.php HTTP/1.1\r\nHost: report.kobvane.example\r\n"
                         "Content-Length: 67108865\r\n\r\n");
    EXPECT_EQ(huge.status, 413) << huge.raw;
    EXPECT_NE(huge.raw.find("Server: nginx"), std::string::npos) << huge.raw;
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT count(*) FROM reports"), "2");
}

TEST_F(BehindNginx, WrongPasswordsFromOneClientDoNotLockOutAnother) {
    ASSERT_EQ(server->addUser("olga", "viewer", "password of olga").status, 0);
    Browser mallory = from("127.0.0.2");
    ASSERT_EQ(mallory.get("/kob/signin")->status, 200);
    // Other names each time, so that only the address's count grows.
    for (int i = 0; i < 5; i++) {
        auto r = mallory.post(
            "/kob/signin", {{"name", "guess" + std::to_string(i)}, {"password", "wrong password"}});
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 401) << i;
        EXPECT_NE(r->body.find("Wrong name or password."), std::string::npos);
    }
    auto locked = mallory.post("/kob/signin", {{"name", "olga"}, {"password", "password of olga"}});
    ASSERT_TRUE(locked);
    EXPECT_EQ(locked->status, 429);
    EXPECT_EQ(locked->get_header_value("Retry-After"), "300");
    EXPECT_EQ(mallory.cookie("kob_session"), "");

    Browser olga = from("127.0.0.3");
    ASSERT_EQ(olga.get("/kob/signin")->status, 200);
    auto in = olga.post("/kob/signin", {{"name", "olga"}, {"password", "password of olga"}});
    ASSERT_TRUE(in);
    EXPECT_EQ(in->status, 303) << in->body;
    EXPECT_EQ(in->get_header_value("Location"), "/kob/");
    EXPECT_EQ(olga.cookie("kob_session").size(), 64u);
    EXPECT_EQ(olga.get("/kob/")->status, 200);
    // The audit log has each client's own address.
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT address FROM audit WHERE action = 'signin'"),
              "127.0.0.3");
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT group_concat(DISTINCT address) FROM audit "
                                       "WHERE action LIKE 'signin.%'"),
              "127.0.0.2");
}

TEST_F(BehindNginx, TheStaffSideWorksUnderThePrefix) {
    std::string ref = reportd::reference(uploadFrom("127.0.0.2", ports.intake, "a report\n"));
    ASSERT_FALSE(ref.empty());
    std::string other = reportd::reference(uploadFrom("127.0.0.2", ports.intake, "another\n"));
    ASSERT_FALSE(other.empty());
    ASSERT_EQ(server->addUser("ada", "admin", "password of ada").status, 0);
    Browser b = from("127.0.0.3");

    auto away = b.get("/kob/reports/" + ref);
    ASSERT_TRUE(away) << httplib::to_string(away.error()) << proxy->log();
    EXPECT_EQ(away->status, 303);
    // The client library decodes header values: kobreportd sends
    // next=%2Freports%2F..., as kobreportd_prefix_test checks byte for byte.
    EXPECT_EQ(away->get_header_value("Location"), "/kob/signin?next=/reports/" + ref);
    auto form = b.get("/kob/signin?next=%2Freports%2F" + ref);
    ASSERT_TRUE(form);
    EXPECT_EQ(form->status, 200);
    EXPECT_EQ(form->get_header_value("Strict-Transport-Security"), "max-age=31536000");
    EXPECT_EQ(setCookies(form),
              (std::vector<std::string>{
                  "kob_signin=" + b.cookie("kob_signin") +
                  "; HttpOnly; SameSite=Strict; Path=/kob/; Secure; Max-Age=3600"}));
    linksUnderPrefix(form->body, 3);
    EXPECT_EQ(b.get("/kob/static/style.css")->get_header_value("Content-Type"),
              "text/css; charset=utf-8");

    auto in =
        b.post("/kob/signin",
               {{"name", "ada"}, {"password", "password of ada"}, {"next", "/reports/" + ref}});
    ASSERT_TRUE(in);
    EXPECT_EQ(in->status, 303) << in->body;
    EXPECT_EQ(in->get_header_value("Location"), "/kob/reports/" + ref);
    EXPECT_EQ(setCookies(in)[0], "kob_session=" + b.cookie("kob_session") +
                                     "; HttpOnly; SameSite=Strict; Path=/kob/; Secure");

    auto page = b.get("/kob/reports/" + ref);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->get_header_value("Strict-Transport-Security"), "max-age=31536000");
    linksUnderPrefix(page->body, 13);
    auto list = b.get("/kob/");
    EXPECT_EQ(list->status, 200);
    linksUnderPrefix(list->body, 10);
    EXPECT_NE(list->body.find("<a href=\"/kob/reports/" + other + "\">"), std::string::npos);

    // A form from another origin is refused; from the public URL's, taken.
    auto refused = b.post("/kob/reports/" + other + "/delete", {}, "https://evil.example");
    EXPECT_EQ(refused->status, 403);
    auto plain = b.post("/kob/reports/" + other + "/delete", {},
                        "http://127.0.0.1:" + std::to_string(ports.staff));
    EXPECT_EQ(plain->status, 403);
    EXPECT_EQ(server->api("/api/reports/" + other).status, 200);
    auto deleted = b.post("/kob/reports/" + other + "/delete", {{"confirm", "yes"}});
    EXPECT_EQ(deleted->status, 303);
    EXPECT_EQ(deleted->get_header_value("Location"), "/kob/?deleted=" + other);
    EXPECT_EQ(server->api("/api/reports/" + other).status, 404);

    auto out = b.post("/kob/signout", {});
    EXPECT_EQ(out->status, 303);
    EXPECT_EQ(out->get_header_value("Location"), "/kob/signin");
    EXPECT_EQ(setCookies(out), (std::vector<std::string>{
                                   "kob_session=; HttpOnly; SameSite=Strict; Path=/kob/; Secure; "
                                   "Max-Age=0"}));
    EXPECT_EQ(b.get("/kob/")->status, 303);
    // nginx serves nothing else on that port.
    EXPECT_EQ(b.get("/signin")->status, 404);
    // The audit log names the browser's address, not nginx's.
    EXPECT_EQ(reportd::sqliteValue(
                  db, "SELECT group_concat(DISTINCT address) FROM audit WHERE account = 'ada'"),
              "127.0.0.3");
}

namespace {

// The sign-in service in front of the staff side, as an OpenID Connect
// proxy answers nginx's auth_request: 202 naming the person its own cookie
// says is signed in, 401 to anyone else, and its sign-in page.
class IdentityProvider {
  public:
    IdentityProvider() {
        server_.Get("/oauth2/auth", [](const httplib::Request &req, httplib::Response &res) {
            if (req.get_header_value("Cookie").find("idp=alice") == std::string::npos) {
                res.status = 401;
                return;
            }
            res.status = 202;
            res.set_header("X-Auth-Request-User", "alice");
            res.set_header("X-Auth-Request-Email", "alice@example.net");
        });
        server_.Get("/oauth2/start", [](const httplib::Request &, httplib::Response &res) {
            res.set_content("the identity provider's sign-in\n", "text/plain");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        // Bound and listening already: a request waits in the backlog until
        // the thread takes it.
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~IdentityProvider() {
        server_.stop();
        thread_.join();
    }
    int port() const { return port_; }

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

} // namespace

// The example site that signs staff in through the identity provider:
// nginx asks it, names the person in X-Forwarded-User, and a client's own
// header of that name never reaches kobreportd.
TEST(BehindNginxSignIn, TheIdentityProvidersPersonIsSignedInAndAClientsOwnHeaderIsNot) {
    if (std::string why = nginx::missing(); !why.empty())
        GTEST_SKIP() << why;
    kobtest::TempDir dir;
    IdentityProvider idp;
    nginx::Ports ports;
    ports.intake = reportd::freePort();
    ports.staff = reportd::freePort();
    ports.upstreamIntake = reportd::freePort();
    ports.upstreamStaff = reportd::freePort();
    std::string site = kobtest::readFile(KOBREPORTD_NGINX_SSO_SITE);
    ASSERT_NE(site.find("127.0.0.1:4180"), std::string::npos);
    for (size_t at; (at = site.find("127.0.0.1:4180")) != std::string::npos;)
        site.replace(at, 14, "127.0.0.1:" + std::to_string(idp.port()));
    kobtest::writeFile(dir.file("sso.conf"), site);
    std::string db = dir.file("reports.db");
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--listen", "127.0.0.1:" + std::to_string(ports.upstreamIntake),
                       "--staff-listen", "127.0.0.1:" + std::to_string(ports.upstreamStaff),
                       "--trusted-proxy", "127.0.0.1", "--public-url",
                       "https://127.0.0.1:" + std::to_string(ports.staff) + "/kob/",
                       "--auth-proxy-header", "X-Forwarded-User", "--auth-proxy-email-header",
                       "X-Forwarded-Email", "--auth-proxy-autocreate"});
    auto certificate = nginx::selfSigned(dir.path());
    nginx::Proxy proxy(dir.path(), dir.file("sso.conf"), ports, certificate);

    // Not signed in at the identity provider: its sign-in page, whatever
    // the client claims.
    Browser stranger(ports.staff, certificate.cert, "127.0.0.2");
    stranger.addHeader("X-Forwarded-User", "alice");
    auto away = stranger.get("/kob/");
    ASSERT_TRUE(away) << httplib::to_string(away.error()) << proxy.log();
    EXPECT_EQ(away->status, 200);
    EXPECT_EQ(away->body, "the identity provider's sign-in\n");

    Browser alice(ports.staff, certificate.cert, "127.0.0.2");
    alice.setCookie("idp", "alice");
    auto home = alice.get("/kob/");
    ASSERT_TRUE(home) << proxy.log();
    EXPECT_EQ(home->status, 200);
    EXPECT_NE(home->body.find("title=\"Settings\">alice (viewer)</a>"), std::string::npos);
    EXPECT_EQ(alice.cookie("kob_session").size(), 64u);
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT role || ' ' || email FROM users WHERE name = "
                                       "'alice'"),
              "viewer alice@example.net");
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT address || ' ' || detail FROM audit WHERE action = "
                                       "'signin.proxy'"),
              "127.0.0.2 X-Forwarded-User from 127.0.0.1");

    // Someone signed in as alice who names another person in the header:
    // nginx sets the header itself, so alice it stays.
    Browser mallory(ports.staff, certificate.cert, "127.0.0.3");
    mallory.setCookie("idp", "alice");
    mallory.addHeader("X-Forwarded-User", "admin");
    auto claimed = mallory.get("/kob/");
    ASSERT_TRUE(claimed);
    EXPECT_NE(claimed->body.find("title=\"Settings\">alice (viewer)</a>"), std::string::npos);
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT count(*) FROM users"), "1");
    // And straight to kobreportd, from no trusted proxy, the header is no one.
    auto direct = reportd::exchangeAt(
        "127.0.0.1", ports.upstreamStaff,
        {"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nX-Forwarded-User: alice\r\n\r\n"}, 30,
        "127.0.0.3");
    EXPECT_EQ(reportd::parse(direct.raw).status, 303);
}
