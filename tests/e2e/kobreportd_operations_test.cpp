// kobreportd as its operator runs it: the log it writes, the health it
// reports, a metrics-only token, the certificate reloaded on SIGHUP, an
// orderly stop on SIGTERM, and a first command before any state directory.

#include "kobtest.h"
#include "nginx.h"
#include "reportd.h"
#include "reportgen.h"
#include "upload_request.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <httplib.h>
#include <memory>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::string bearer(const std::string &token) {
    return "Authorization: Bearer " + token + "\r\n";
}

std::string metricsToken(const std::string &db) {
    auto t = reportd::command(KOBREPORTD_BIN,
                              {"token", "add", "prometheus", "--role", "metrics", "--db", db});
    EXPECT_EQ(t.status, 0) << t.err;
    return t.out.substr(0, t.out.size() - 1);
}

// Whether something listens on the port: a refused connect says no.
bool listening(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

class Operations : public ::testing::Test {
  protected:
    kobtest::TempDir dir;
    std::string db = dir.path() + "/reports.db";
};

TEST_F(Operations, EveryLineIsAJsonEventAndTheAccessLogAloneNamesTheClient) {
    std::string secretPassword = "password of logged";
    std::unique_ptr<reportd::Server> s = std::make_unique<reportd::Server>(
        KOBREPORTD_BIN, db, std::vector<std::string>{"--access-log"});
    ASSERT_EQ(s->addUser("logged", "admin", secretPassword).status, 0);
    reportd::Browser staff = s->signedIn("admin");
    std::string ref = reportd::reference(reportd::upload(s->port(), "logged report\n"));
    ASSERT_FALSE(ref.empty());
    EXPECT_EQ(staff.get("/reports/" + ref + "?q=secret-query").status, 200);
    EXPECT_EQ(s->api("/api/reports/" + ref).status, 200);
    // A failing request: its error line names no client.
    reportd::databaseValue(db, "UPDATE reports SET \"desc\" = X'28b52ffd00ff'");
    EXPECT_EQ(s->api("/api/reports/" + ref + "/raw?reveal=1").status, 500);
    ASSERT_EQ(s->stop(), 0);
    std::string err = s->errors();

    auto lines = reportd::logLines(err);
    ASSERT_FALSE(lines.empty());
    std::istringstream raw(err);
    for (std::string line; std::getline(raw, line);) {
        SCOPED_TRACE(line);
        // time, level and event first, in that order.
        auto l = nlohmann::json::parse(line);
        std::string time = l["time"];
        EXPECT_EQ(line.rfind("{\"time\":\"" + time + "\",\"level\":\"" +
                                 l["level"].get<std::string>() + "\",\"event\":\"",
                             0),
                  0u);
        EXPECT_EQ(time.size(), std::string("2026-11-24T20:01:02.345Z").size());
        EXPECT_EQ(time.back(), 'Z');
        if (l["event"] != "request") {
            EXPECT_EQ(l.dump().find("127.0.0.1"), std::string::npos);
        }
    }
    // Every line of standard error is one of them.
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), static_cast<long>(lines.size())) << err;

    auto ready = reportd::logEvents(err, "ready");
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready[0]["version"], KOB_VERSION);
    EXPECT_EQ(ready[0]["intake"], s->port());
    EXPECT_EQ(ready[0]["staff"], s->staffPort());
    EXPECT_EQ(reportd::logEvents(err, "stopping").at(0)["signal"], "SIGTERM");
    EXPECT_EQ(reportd::logEvents(err, "stopped").at(0)["level"], "info");

    auto requests = reportd::logEvents(err, "request");
    bool sawUpload = false, sawPage = false;
    for (const auto &r : requests) {
        EXPECT_EQ(r["client"], "127.0.0.1");
        EXPECT_TRUE(r["duration_ms"].is_number());
        EXPECT_TRUE(r["bytes"].is_number_unsigned());
        // The route's pattern: no query, no reference.
        EXPECT_EQ(r.dump().find("secret-query"), std::string::npos);
        EXPECT_EQ(r.dump().find(ref), std::string::npos);
        if (r["route"] == "/report/problem.php" && r["method"] == "POST" && r["status"] == 200) {
            sawUpload = true;
            EXPECT_EQ(r["listener"], "intake");
            EXPECT_EQ(r["bytes"], ("Report received: " + ref).size());
        }
        if (r["route"] == "/reports/{ref}" && r["status"] == 200) {
            sawPage = true;
            EXPECT_EQ(r["listener"], "staff");
        }
    }
    EXPECT_TRUE(sawUpload) << err;
    EXPECT_TRUE(sawPage) << err;

    auto failed = reportd::logEvents(err, "request_failed");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0]["level"], "error");
    EXPECT_FALSE(failed[0].contains("client"));

    // No secret anywhere: the password, the admin's token, the session.
    EXPECT_EQ(err.find(secretPassword), std::string::npos);
    EXPECT_EQ(err.find(s->token()), std::string::npos);
    for (const auto &c : {std::string("kob_session"), std::string("csrf")})
        EXPECT_EQ(err.find(c), std::string::npos) << c;
}

TEST_F(Operations, TheLogLevelLeavesOutWhatIsBelowIt) {
    auto s = std::make_unique<reportd::Server>(
        KOBREPORTD_BIN, db, std::vector<std::string>{"--log-level", "warn", "--access-log"});
    ASSERT_FALSE(reportd::reference(reportd::upload(s->port(), "quiet\n")).empty());
    ASSERT_EQ(s->stop(), 0);
    EXPECT_EQ(s->errors(), "");
    auto bad = kobtest::runProgram(
        {KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db", db, "--log-level", "verbose"});
    EXPECT_TRUE(bad.exited(1));
    EXPECT_EQ(bad.err.rfind("usage: kobreportd", 0), 0u);
}

TEST_F(Operations, ReadinessFollowsTheDatabaseAndMetricsAnswerWithoutIt) {
    auto pg = std::make_unique<reportd::Postgres>();
    if (!pg->available())
        GTEST_SKIP() << pg->reason();
    pg->psql("CREATE DATABASE ops");
    std::string url = pg->url("ops");
    std::string token = metricsToken(url);
    reportd::Server s(KOBREPORTD_BIN, url);
    for (int port : {s.port(), s.staffPort()}) {
        auto ready = reportd::get(port, "/readyz");
        EXPECT_EQ(ready.status, 200);
        EXPECT_EQ(ready.body, "ready\n");
    }
    // Read once while the database answers: the token is known.
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/metrics", bearer(token)).status, 200);
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/api/reports", bearer(token)).status, 403);

    pg.reset(); // the database server stops
    for (int port : {s.port(), s.staffPort()}) {
        auto ready = reportd::get(port, "/readyz");
        EXPECT_EQ(ready.status, 503);
        EXPECT_EQ(ready.body, "not ready: the database failed\n");
        EXPECT_EQ(reportd::get(port, "/healthz").status, 200);
    }
    auto metrics = reportd::request(s.staffPort(), "GET", "/metrics", bearer(token));
    EXPECT_EQ(metrics.status, 200);
    EXPECT_NE(metrics.body.find("kobreportd_build_info{"), std::string::npos);
    // Not the admin's token, which the database must vouch for.
    EXPECT_EQ(s.api("/metrics").status, 500);
    s.kill();
    auto warned = reportd::logEvents(s.errors(), "not_ready");
    ASSERT_FALSE(warned.empty()) << s.errors();
    EXPECT_EQ(warned[0]["reason"], "the database failed");
}

// A small file system of its own, nearly full: the disk guard trips.
TEST_F(Operations, ReadinessFollowsTheDiskGuard) {
    std::string mnt = dir.path() + "/small";
    std::filesystem::create_directory(mnt);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=16m") != 0)
        GTEST_SKIP() << "no tmpfs can be mounted here: " << std::strerror(errno);
    struct Unmount {
        std::string at;
        ~Unmount() { umount2(at.c_str(), MNT_DETACH); }
    } unmount{mnt};
    std::string small = mnt + "/reports.db";
    std::string token = metricsToken(small);
    {
        reportd::Server s(KOBREPORTD_BIN, small, {"--min-free-disk", "50"});
        EXPECT_EQ(reportd::get(s.port(), "/readyz").body, "ready\n");
        ASSERT_EQ(s.stop(), 0);
    }
    // Filled until 30% is left, against the 50% kept free.
    struct statvfs fs {};
    ASSERT_EQ(statvfs(mnt.c_str(), &fs), 0);
    uint64_t free = uint64_t{fs.f_bavail} * fs.f_frsize,
             total = uint64_t{fs.f_blocks} * fs.f_frsize;
    ASSERT_GT(free, total * 3 / 10);
    kobtest::writeFile(mnt + "/filler", std::string(free - total * 3 / 10, 'x'));
    reportd::Server s(KOBREPORTD_BIN, small, {"--min-free-disk", "50"});
    for (int port : {s.port(), s.staffPort()}) {
        auto ready = reportd::get(port, "/readyz");
        EXPECT_EQ(ready.status, 503);
        EXPECT_EQ(ready.body, "not ready: free disk below the guard\n");
        EXPECT_EQ(reportd::header(ready, "Cache-Control"), "no-store");
    }
    EXPECT_EQ(reportd::request(s.staffPort(), "GET", "/metrics", bearer(token)).status, 200);
    ASSERT_EQ(s.stop(), 0);
}

TEST_F(Operations, SighupPresentsTheRenewedCertificateFromTheNextHandshake) {
    std::filesystem::create_directories(dir.path() + "/old");
    std::filesystem::create_directories(dir.path() + "/new");
    auto old = nginx::selfSigned(dir.path() + "/old");
    auto renewed = nginx::selfSigned(dir.path() + "/new");
    std::string cert = dir.path() + "/staff.pem", key = dir.path() + "/staff.key";
    std::filesystem::copy_file(old.cert, cert);
    std::filesystem::copy_file(old.key, key);
    reportd::Server s(KOBREPORTD_BIN, db, {"--tls-cert", cert, "--tls-key", key});
    // Trusting one certificate alone: the handshake says which one is shown.
    auto shows = [&](const std::string &trusted) {
        httplib::SSLClient c("127.0.0.1", s.staffPort());
        c.set_ca_cert_path(trusted.c_str());
        c.enable_server_certificate_verification(true);
        auto r = c.Get("/healthz");
        return r && r->status == 200;
    };
    EXPECT_TRUE(shows(old.cert));
    EXPECT_FALSE(shows(renewed.cert));

    // A key that does not match: said, and the old pair stays in use.
    std::filesystem::copy_file(renewed.cert, cert,
                               std::filesystem::copy_options::overwrite_existing);
    ASSERT_EQ(kill(s.pid(), SIGHUP), 0);
    // The server says when it has read the files again.
    auto said = [&](const char *event) {
        for (int i = 0; i < 500 && reportd::logEvents(s.errors(), event).empty(); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return !reportd::logEvents(s.errors(), event).empty();
    };
    ASSERT_TRUE(said("reload_failed")) << s.errors();
    EXPECT_TRUE(shows(old.cert));

    std::filesystem::copy_file(renewed.key, key, std::filesystem::copy_options::overwrite_existing);
    ASSERT_EQ(kill(s.pid(), SIGHUP), 0);
    ASSERT_TRUE(said("reload")) << s.errors();
    EXPECT_TRUE(shows(renewed.cert));
    EXPECT_FALSE(shows(old.cert));
    ASSERT_EQ(s.stop(), 0);
    EXPECT_EQ(reportd::logEvents(s.errors(), "reload")[0]["certificate"], cert);
}

TEST_F(Operations, SigtermFinishesTheUploadUnderWayAndExitsZero) {
    reportd::Server s(KOBREPORTD_BIN, db);
    std::string desc = reportgen::report(reportgen::healthyRun());
    std::string body = kobtest::formPart("desc", desc) + kobtest::formEnd();
    int fd = reportd::connectFrom("127.0.0.1", s.port());
    ASSERT_GE(fd, 0);
    std::string head = kobtest::requestHead(body.size(), "127.0.0.1");
    std::string first = head + body.substr(0, body.size() / 2);
    ASSERT_EQ(send(fd, first.data(), first.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(first.size()));
    // The head is in: the request is under way when the signal comes.
    auto under = [&] { return !reportd::get(s.port(), "/healthz").raw.empty(); };
    ASSERT_TRUE(under());
    ASSERT_EQ(kill(s.pid(), SIGTERM), 0);
    // Draining: the listener is closed to newcomers.
    for (int i = 0; i < 500 && listening(s.port()); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(listening(s.port()));
    std::string rest = body.substr(body.size() / 2);
    ASSERT_EQ(send(fd, rest.data(), rest.size(), MSG_NOSIGNAL), static_cast<ssize_t>(rest.size()));
    std::string answer = reportd::readAll(fd);
    close(fd);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer;
    EXPECT_NE(answer.find("Report received: KOB-"), std::string::npos) << answer;
    EXPECT_EQ(s.stop(), 0);
    EXPECT_EQ(reportd::sqliteValue(db, "SELECT count(*) FROM reports"), "1");
    EXPECT_EQ(reportd::logEvents(s.errors(), "stopped").at(0)["level"], "info");
}

TEST_F(Operations, AFirstCommandMakesTheMissingStateDirectoryOrSaysHow) {
    std::string state = dir.path() + "/state";
    auto made = reportd::command(
        KOBREPORTD_BIN, {"user", "add", "first", "--role", "admin", "--db", state + "/reports.db"},
        "password of first\npassword of first\n");
    EXPECT_EQ(made.status, 0) << made.err;
    auto said = reportd::logEvents(made.err, "state_directory_made");
    ASSERT_EQ(said.size(), 1u) << made.err;
    EXPECT_EQ(said[0]["directory"], state);
    struct stat st {};
    ASSERT_EQ(stat(state.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(st.st_uid, geteuid());

    std::string deep = dir.path() + "/no/such/reports.db";
    auto refused = reportd::command(KOBREPORTD_BIN, {"user", "list", "--db", deep});
    EXPECT_EQ(refused.status, 1);
    std::string who = kobtest::runProgram({"/usr/bin/id", "-un"}).out;
    std::string group = kobtest::runProgram({"/usr/bin/id", "-gn"}).out;
    who.pop_back();
    group.pop_back();
    EXPECT_EQ(refused.err, "kobreportd: cannot open " + deep + ": the directory " + dir.path() +
                               "/no/such does not exist and cannot be made (No such file or "
                               "directory); make it as root with: install -d -m 0700 -o " +
                               who + " -g " + group + " " + dir.path() + "/no/such\n");
}

} // namespace
