// What the engineer on call gets from kobreportd, on both databases: alert
// deliveries that chat tools take, signed and tried again, and counted when
// they fail; Prometheus rules and a dashboard on the names /metrics answers;
// failures by the sender's network and country; incidents.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"
#include "store_fixture.h"
#include "upload_request.h"
#include "webhook_receiver.h"

#include <chrono>
#include <functional>
#include <ctime>
#include <gtest/gtest.h>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

class Oncall : public OnEitherStore {
  protected:
    void SetUp() override {
        OnEitherStore::SetUp();
        kobtest::writeFile(clockFile, "");
    }

    std::vector<std::string> clockEnv() const { return {"KOBREPORTD_TEST_CLOCK=" + clockFile}; }
    void setClock(std::time_t t) { kobtest::writeFile(clockFile, std::to_string(t) + "\n"); }

    // A week of healthy reports, then port 443 failing for five of six
    // users on networks of their own, the last at t0 + 300.
    void outage(std::time_t t0) {
        reportd::Server quiet(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 20; i >= 1; i--) {
            setClock(t0 - i * 6 * 3600);
            ASSERT_EQ(
                reportd::upload(quiet.port(), reportgen::report(reportgen::healthyRun())).status,
                200);
        }
        for (int i = 0; i < 6; i++) {
            setClock(t0 + 60 * i);
            ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(10 + i) + ".1", quiet.port(),
                                          i == 2 ? reportgen::report(reportgen::healthyRun())
                                                 : port443Down())
                          .status,
                      200);
        }
        EXPECT_EQ(quiet.stop(), 0);
    }

    static std::string port443Down() {
        auto run = reportgen::healthyRun();
        run.tcp[3] = reportgen::tcpTimeout();
        return reportgen::report(run);
    }

    std::string clockFile = dir.file("clock");
};

INSTANTIATE_TEST_SUITE_P(Stores, Oncall, ::testing::Values("sqlite", "postgres"),
                         [](const auto &info) { return info.param; });

const std::string k443 = "Testing TCP pass-through to port 443";

// What a receiver runs to check a delivery, as the README shows it: the
// body in body.json, the header's value in $SIG, the secret in secret.
const char *kVerify = "t=${SIG#t=}; t=${t%%,*}; v1=${SIG#*,v1=}\n"
                      "mac=$({ printf '%s.' \"$t\"; cat body.json; } |\n"
                      "      openssl dgst -sha256 -hmac \"$(cat secret)\" -r | cut -d' ' -f1)\n"
                      "[ \"$mac\" = \"$v1\" ]\n";

bool verifies(const kobtest::TempDir &dir, const std::string &body, const std::string &signature,
              const std::string &secret) {
    kobtest::writeFile(dir.file("body.json"), body);
    kobtest::writeFile(dir.file("secret"), secret);
    auto r = kobtest::runProgram({"/bin/sh", "-c", kVerify}, dir.path(), {"SIG=" + signature});
    return r.exited(0);
}

// The value of an unlabelled sample in a scrape, "<none>" without one.
std::string sample(const std::string &scrape, const std::string &name) {
    auto at = scrape.find("\n" + name + " ");
    if (at == std::string::npos)
        return "<none>";
    at += name.size() + 2;
    return scrape.substr(at, scrape.find('\n', at) - at);
}

// Waits, up to a minute, for the scrape to show name at value.
bool scraped(const reportd::Server &s, const std::string &name, const std::string &value) {
    for (int i = 0; i < 3000; i++) {
        if (sample(s.api("/metrics").body, name) == value)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace

TEST_P(Oncall, AnIncidentIsPostedOnceWithAChatLineAndASignatureThatOnlyTheSecretVerifies) {
    if (access("/usr/bin/openssl", X_OK) != 0)
        GTEST_SKIP() << "openssl is not installed (Debian package openssl)";
    const std::time_t t0 = 1800000000;
    outage(t0);
    kobtest::WebhookReceiver hook(1);
    kobtest::writeFile(dir.file("hook.secret"), "correct horse battery staple\n");
    setClock(t0 + 600);
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--alert-webhook", hook.url(), "--alert-webhook-secret",
                       dir.file("hook.secret"), "--public-url", "https://staff.example.net/kob/",
                       "--alert-check", "1"},
                      true, clockEnv());
    std::string body = hook.wait(1), signature = hook.signature(1);
    ASSERT_FALSE(body.empty()) << "no alert within a minute";
    // One post for the incident, not one per target, whole but for the
    // sample references (made up at intake).
    const std::string link = "https://staff.example.net/kob/incidents#incident-1";
    const std::string head =
        "{\"event\":\"opened\",\"at\":\"2027-01-15T08:10:00Z\",\"text\":\"Incident 1 opened: " +
        k443 + ": 5 of 6 reports failing since 2027-01-15 08:00 UTC, 1 user; " + link +
        "\",\"incident\":1,\"status\":\"open\",\"started_at\":\"2027-01-15T08:00:00Z\","
        "\"targets\":[{\"area\":\"tcp\",\"target\":\"" +
        k443 + "\"}],\"reports\":6,\"failing\":5,\"users\":1,\"networks\":[],\"samples\":[";
    const std::string tail = "],\"link\":\"" + link + "\"}";
    ASSERT_EQ(body.rfind(head, 0), 0u) << body;
    ASSERT_GE(body.size(), head.size() + tail.size());
    EXPECT_EQ(body.substr(body.size() - tail.size()), tail) << body;
    std::string samples = body.substr(head.size(), body.size() - head.size() - tail.size());
    EXPECT_TRUE(std::regex_match(samples, std::regex("(\"KOB-20270115-[0-9]{9}\",){4}"
                                                     "\"KOB-20270115-[0-9]{9}\"")))
        << samples;
    EXPECT_EQ(signature.rfind("t=" + std::to_string(t0 + 600) + ",v1=", 0), 0u) << signature;
    EXPECT_EQ(signature.size(), std::string("t=1800000600,v1=").size() + 64) << signature;
    EXPECT_TRUE(verifies(dir, body, signature, "correct horse battery staple"));
    EXPECT_FALSE(verifies(dir, body, signature, "another secret"));
    // Nor with the body changed by a byte.
    EXPECT_FALSE(verifies(dir, body + " ", signature, "correct horse battery staple"));
    // The first post was refused: one failure, then one delivery.
    EXPECT_EQ(hook.attempts(), 2);
    EXPECT_TRUE(scraped(s, "kobreportd_webhook_deliveries_total", "1"));
    auto m = s.api("/metrics").body;
    EXPECT_EQ(sample(m, "kobreportd_webhook_failures_total"), "1");
    EXPECT_EQ(sample(m, "kobreportd_webhook_dropped_total"), "0");
    EXPECT_EQ(s.stop(), 0);
}

TEST_P(Oncall, ADeliveryIsTriedThreeTimesThenDroppedAndCounted) {
    const std::time_t t0 = 1800000000;
    outage(t0);
    kobtest::WebhookReceiver hook(1000);
    setClock(t0 + 600);
    reportd::Server s(KOBREPORTD_BIN, db, {"--alert-webhook", hook.url(), "--alert-check", "1"},
                      true, clockEnv());
    ASSERT_TRUE(scraped(s, "kobreportd_webhook_dropped_total", "1"));
    auto m = s.api("/metrics").body;
    EXPECT_EQ(sample(m, "kobreportd_webhook_failures_total"), "3");
    EXPECT_EQ(sample(m, "kobreportd_webhook_deliveries_total"), "0");
    EXPECT_EQ(hook.attempts(), 3);
    // Unsigned without a secret; the alert itself stays open.
    EXPECT_EQ(value("SELECT count(*) FROM alerts WHERE cleared_at IS NULL"), "1");
    EXPECT_EQ(s.stop(), 0);
    EXPECT_NE(s.errors().find("\"event\":\"alert_dropped\""), std::string::npos) << s.errors();
}

TEST(OncallOptions, AnUnreadableWebhookSecretStopsTheStart) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("empty"), "\n");
    for (const std::string &file : {dir.file("missing"), dir.file("empty")}) {
        auto r = reportd::command(KOBREPORTD_BIN,
                                  {"--listen", "127.0.0.1:0", "--db", dir.file("db.sqlite"),
                                   "--alert-webhook-secret", file});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "kobreportd: cannot read a secret from " + file + "\n");
    }
}

// Every kobreportd_ name the shipped rules and dashboard ask for is one the
// scrape answers, once the server has a database cap and has checked once.
TEST_P(Oncall, TheShippedRulesAndDashboardUseTheNamesTheScrapeAnswers) {
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--alert-check", "1", "--max-db-size", "123456789", "--min-free-disk", "7"});
    ASSERT_TRUE(scraped(s, "kobreportd_alerts_open", "0"));
    std::string scrape = s.api("/metrics").body;
    std::set<std::string> answered;
    const std::regex name("\n# TYPE (kobreportd_[a-z_]+) ([a-z]+)");
    for (std::sregex_iterator it(scrape.begin(), scrape.end(), name), end; it != end; ++it) {
        answered.insert((*it)[1]);
        if ((*it)[2] == "histogram")
            for (const char *part : {"_bucket", "_sum", "_count"})
                answered.insert((*it)[1].str() + part);
    }
    EXPECT_EQ(sample(scrape, "kobreportd_disk_min_free_ratio"), "0.07");
    EXPECT_EQ(sample(scrape, "kobreportd_database_max_size_bytes"), "123456789");
    // An SQLite file's file system is in sight, a PostgreSQL server's is not.
    EXPECT_EQ(answered.count("kobreportd_disk_free_bytes"), GetParam() == "sqlite" ? 1u : 0u);
    EXPECT_EQ(answered.count("kobreportd_disk_size_bytes"), GetParam() == "sqlite" ? 1u : 0u);
    for (const char *file :
         {"kobreportd-alerts.yml", "kobreportd-alerts.test.yml", "kobreportd-dashboard.json"}) {
        std::string text = kobtest::readFile(std::string(KOBREPORTD_EXAMPLES) + "/" + file);
        ASSERT_FALSE(text.empty()) << file;
        const std::regex used("kobreportd_[a-z_]+");
        size_t n = 0;
        for (std::sregex_iterator it(text.begin(), text.end(), used), end; it != end; ++it, ++n) {
            std::string metric = it->str();
            if (metric.rfind("kobreportd_disk_", 0) == 0 && GetParam() != "sqlite" &&
                metric != "kobreportd_disk_min_free_ratio")
                continue;
            EXPECT_EQ(answered.count(metric), 1u) << metric << " in " << file;
        }
        EXPECT_GT(n, 8u) << file;
    }
}

namespace {

// The test's MaxMind DB files (asn.mmdb, country.mmdb) in dir, made by the
// perl script beside this file; false when its module is missing.
bool makeNetworkFiles(const kobtest::TempDir &dir, std::string &why) {
    auto r =
        kobtest::runProgram({"/usr/bin/perl", KOB_SOURCE_E2E "/make_test_mmdb.pl", dir.path()});
    why = r.out + r.err;
    if (r.exited(77))
        return false;
    EXPECT_TRUE(r.exited(0)) << why;
    return r.exited(0);
}

// An upload from the proxy at 127.0.0.1 on behalf of client ("" for none).
reportd::Response viaProxy(int port, const std::string &client, const std::string &desc) {
    std::string body = reportgen::body(desc, std::nullopt, std::nullopt);
    std::string head = reportgen::head("report.kobvane.example", body.size());
    if (!client.empty())
        head = head.substr(0, head.size() - 2) + "X-Forwarded-For: " + client + "\r\n\r\n";
    return reportd::exchangeAt("127.0.0.1", port, {head, body}, 30, "127.0.0.1");
}

// The documentation networks' senders: AS64500 (JP) three, one of them
// healthy; AS64501 (JP) one; AS64502 (DE) two, both healthy; and one from
// the proxy itself, which no file names.
void sendFromNetworks(int port, const std::string &failing) {
    const std::string healthy = reportgen::report(reportgen::healthyRun());
    const std::pair<const char *, bool> senders[] = {{"192.0.2.10", true},
                                                     {"192.0.2.11", true},
                                                     {"192.0.2.12", false},
                                                     {"198.51.100.5", true},
                                                     {"203.0.113.7", false},
                                                     {"203.0.113.8", false},
                                                     {"", true}};
    for (const auto &[client, fails] : senders)
        ASSERT_EQ(viaProxy(port, client, fails ? failing : healthy).status, 200) << client;
}

} // namespace

TEST_P(Oncall, FailuresBreakDownByTheSendersNetworkAndCountryWithoutKeepingTheAddress) {
    std::string why;
    if (!makeNetworkFiles(dir, why))
        GTEST_SKIP() << why;
    reportd::Server s(KOBREPORTD_BIN, db,
                      {"--trusted-proxy", "127.0.0.1", "--asn-db", dir.file("asn.mmdb"),
                       "--country-db", dir.file("country.mmdb")});
    sendFromNetworks(s.port(), port443Down());

    auto j = s.api("/api/fleet?window=6h&by=asn");
    ASSERT_EQ(j.status, 200);
    EXPECT_NE(j.body.find(",\"bucket_seconds\":3600,\"by\":\"asn\",\"targets\":["),
              std::string::npos)
        << j.body.substr(0, 300);
    EXPECT_NE(j.body.find("{\"area\":\"tcp\",\"target\":\"" + k443 +
                          "\",\"reports\":7,"
                          "\"failing\":4,"),
              std::string::npos)
        << j.body;
    EXPECT_NE(j.body.find("\"by_asn\":[{\"asn\":64500,\"name\":\"Example Telecom\",\"reports\":3,"
                          "\"failing\":2},{\"asn\":64501,\"name\":\"Sample Broadband\","
                          "\"reports\":1,\"failing\":1},{\"asn\":null,\"name\":\"\",\"reports\":1,"
                          "\"failing\":1},{\"asn\":64502,\"name\":\"Demo Mobile\",\"reports\":2,"
                          "\"failing\":0}]}"),
              std::string::npos)
        << j.body;
    // A target nobody failed on: the same networks, none failing.
    EXPECT_NE(j.body.find("\"target\":\"UDP pass-through\",\"reports\":7,\"failing\":0,"),
              std::string::npos);
    auto c = s.api("/api/fleet?window=6h&by=country");
    EXPECT_NE(c.body.find("\"by_country\":[{\"country\":\"JP\",\"reports\":4,\"failing\":3},"
                          "{\"country\":\"\",\"reports\":1,\"failing\":1},{\"country\":\"DE\","
                          "\"reports\":2,\"failing\":0}]}"),
              std::string::npos)
        << c.body;
    auto bad = s.api("/api/fleet?by=address");
    EXPECT_EQ(bad.status, 400);
    EXPECT_EQ(bad.body, "{\"error\":\"by is one of asn, country\"}");
    // Without by, the answer is as it always was.
    EXPECT_EQ(s.api("/api/fleet?window=6h").body.find("\"by"), std::string::npos);

    auto page = s.signedIn("viewer").get("/fleet?window=6h&by=asn");
    ASSERT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("<h2>Failing by network, last 6h</h2>"), std::string::npos)
        << page.body;
    EXPECT_NE(page.body.find("<tr><td>" + k443 +
                             "</td><td>AS64500 Example Telecom</td><td class=\"num\">3</td>"
                             "<td class=\"num\">2</td><td class=\"num\">67%</td></tr>\n<tr><td>" +
                             k443 + "</td><td>AS64501 Sample Broadband</td>"),
              std::string::npos)
        << page.body;
    EXPECT_NE(
        page.body.find("</td><td>unknown</td><td class=\"num\">1</td><td class=\"num\">1</td>"),
        std::string::npos);

    // Stored: each known sender's network and country, and no address.
    EXPECT_EQ(value("SELECT count(*) FROM report_networks"), "6");
    EXPECT_EQ(value("SELECT count(*) FROM report_networks WHERE asn = 64500 AND"
                    " as_name = 'Example Telecom' AND country = 'JP'"),
              "3");
    EXPECT_EQ(value("SELECT count(*) FROM report_networks WHERE asn = 64502 AND"
                    " as_name = 'Demo Mobile' AND country = 'DE'"),
              "2");
    EXPECT_EQ(value("SELECT count(*) FROM report_networks WHERE"
                    " CAST(report_id AS TEXT) || CAST(received_at AS TEXT) ||"
                    " CAST(asn AS TEXT) || as_name || country LIKE '%.%'"),
              "0");
    for (const char *address : {"192.0.2.10", "198.51.100.5", "203.0.113.7"})
        EXPECT_EQ(value(std::string("SELECT count(*) FROM outcomes WHERE area || target LIKE '%") +
                        address + "%'"),
                  "0");
    // The breakdown's table holds exactly these columns.
    EXPECT_EQ(value(GetParam() == "sqlite"
                        ? "SELECT group_concat(name, ' ') FROM pragma_table_info('report_networks')"
                        : "SELECT string_agg(column_name, ' ' ORDER BY ordinal_position) FROM"
                          " information_schema.columns WHERE table_name = 'report_networks'"),
              "report_id received_at asn as_name country");

    // A deleted report takes its network with it: the second newest, the
    // newest being the proxy's own.
    auto refs = s.api("/api/reports");
    auto at = refs.body.find("\"reference\":\"", refs.body.find("\"reference\":\"") + 1);
    ASSERT_NE(at, std::string::npos);
    std::string ref = refs.body.substr(at + 13, refs.body.find('"', at + 13) - at - 13);
    EXPECT_EQ(s.api("/api/reports/" + ref, "DELETE").status, 200);
    EXPECT_EQ(value("SELECT count(*) FROM report_networks"), "5") << ref;
}

TEST_P(Oncall, WithoutTheFilesNoNetworkIsKept) {
    reportd::Server s(KOBREPORTD_BIN, db, {"--trusted-proxy", "127.0.0.1"});
    sendFromNetworks(s.port(), port443Down());
    EXPECT_EQ(value("SELECT count(*) FROM report_networks"), "0");
    auto j = s.api("/api/fleet?window=6h&by=asn");
    EXPECT_NE(j.body.find("\"by_asn\":[{\"asn\":null,\"name\":\"\",\"reports\":7,\"failing\":4}]"),
              std::string::npos)
        << j.body;
}

TEST(OncallOptions, ANetworkFileThatIsNoMaxMindDBStopsTheStart) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("asn.mmdb"), "not a database\n");
    auto r =
        reportd::command(KOBREPORTD_BIN, {"--listen", "127.0.0.1:0", "--db", dir.file("db.sqlite"),
                                          "--asn-db", dir.file("asn.mmdb")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(
        r.err.rfind("kobreportd: cannot read " + dir.file("asn.mmdb") + " as a MaxMind DB: ", 0),
        0u)
        << r.err;
}

namespace {

// A run of user `user` that found port 443 and the UDP pass-through failing.
std::string bothDown(const std::string &user) {
    auto run = reportgen::healthyRun();
    run.username = user;
    run.tcp[3] = reportgen::tcpTimeout();
    run.udp.assign(5, reportgen::udpTimeout());
    return reportgen::report(run);
}

// The JSON of /api/incidents once pred holds for it, up to a minute.
std::string incidentsWhen(const reportd::Server &s,
                          const std::function<bool(const std::string &)> &pred) {
    std::string body;
    for (int i = 0; i < 3000; i++) {
        body = s.api("/api/incidents").body;
        if (pred(body))
            return body;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return body;
}

bool has(const std::string &text, const std::string &what) {
    return text.find(what) != std::string::npos;
}

} // namespace

// Two targets failing over the same reports within the hour are one
// incident; it is acknowledged (audited), resolves itself when quiet, and
// reopens when the failures come back.
TEST_P(Oncall, TargetsFailingTogetherAreOneIncidentThatResolvesAndReopens) {
    const std::time_t t0 = 1800000000;
    {
        reportd::Server quiet(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 20; i >= 1; i--) {
            setClock(t0 - i * 6 * 3600);
            ASSERT_EQ(
                reportd::upload(quiet.port(), reportgen::report(reportgen::healthyRun())).status,
                200);
        }
        for (int i = 0; i < 6; i++) {
            setClock(t0 + 60 * i);
            ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(10 + i) + ".1", quiet.port(),
                                          i == 2 ? reportgen::report(reportgen::healthyRun())
                                                 : bothDown("user" + std::to_string(i)))
                          .status,
                      200);
        }
        EXPECT_EQ(quiet.stop(), 0);
    }
    setClock(t0 + 600);
    kobtest::WebhookReceiver hook(0);
    reportd::Server s(KOBREPORTD_BIN, db, {"--alert-check", "1", "--alert-webhook", hook.url()},
                      true, clockEnv());
    const std::string summary = k443 + ", UDP pass-through: 5 of 6 reports failing since "
                                       "2027-01-15 08:00 UTC, 5 users";
    std::string j = incidentsWhen(s, [](const std::string &b) { return has(b, "\"id\":1,"); });
    EXPECT_EQ(j, "{\"incidents\":[{\"id\":1,\"status\":\"open\",\"started_at\":"
                 "\"2027-01-15T08:00:00Z\",\"targets\":[{\"area\":\"tcp\",\"target\":\"" +
                     k443 +
                     "\"},{\"area\":\"udp\",\"target\":\"UDP pass-through\"}],\"reports\":6,"
                     "\"failing\":5,\"users\":5,\"networks\":[],\"reopened\":0,"
                     "\"acknowledged_by\":null,\"acknowledged_at\":null,\"resolved_at\":null,"
                     "\"summary\":\"" +
                     summary + "\"}]}");
    EXPECT_EQ(value("SELECT count(*) FROM incidents"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM incident_targets WHERE incident_id = 1"), "2");
    // The alerts stay one per target, as before, but the webhook is told
    // once, of the incident.
    EXPECT_EQ(value("SELECT count(*) FROM alerts WHERE cleared_at IS NULL"), "2");
    std::string opened = hook.wait(1);
    EXPECT_EQ(opened.rfind("{\"event\":\"opened\",\"at\":\"2027-01-15T08:10:00Z\",\"text\":"
                           "\"Incident 1 opened: " +
                               summary + "; /incidents#incident-1\",\"incident\":1,",
                           0),
              0u)
        << opened;
    EXPECT_TRUE(scraped(s, "kobreportd_incidents{status=\"open\"}", "1"));
    EXPECT_EQ(sample(s.api("/metrics").body, "kobreportd_incidents{status=\"acknowledged\"}"), "0");

    // What is broken now is the incident, once, not a line per target.
    std::string name;
    reportd::Browser b = s.signedIn("viewer", &name);
    auto fleetPage = b.get("/fleet");
    EXPECT_NE(fleetPage.body.find("<ul class=\"broken\" id=\"broken\"><li class=\"fail\" "
                                  "id=\"incident-1\"><a href=\"/incidents\">" +
                                  summary + "</a> (open)</li>\n</ul>"),
              std::string::npos)
        << fleetPage.body;
    // In a viewer's own zone, the start is theirs.
    reportd::Browser east = s.signedIn("viewer");
    east.get("/settings");
    ASSERT_EQ(east.post("/settings/zone", {{"zone", "Asia/Tokyo"}}).status, 200);
    auto eastFleet = east.get("/fleet").body;
    EXPECT_NE(eastFleet.find(">" + k443 +
                             ", UDP pass-through: 5 of 6 reports failing since 2027-01-15 17:00 "
                             "JST, 5 users</a> (open)</li>"),
              std::string::npos)
        << eastFleet;
    auto page = b.get("/incidents");
    ASSERT_EQ(page.status, 200);
    EXPECT_NE(page.body.find(
                  "<tr id=\"incident-1\" class=\"fail\"><td>2027-01-15 08:00 UTC</td><td>" + k443 +
                  " (tcp)<br>UDP pass-through (udp)</td><td class=\"num\">5 of "
                  "6</td><td class=\"num\">5</td><td></td><td>open<form "
                  "method=\"post\" action=\"/incidents/1/acknowledge\">"),
              std::string::npos)
        << page.body;
    // Acknowledging is a form like any other: refused without its token.
    reportd::Browser stranger = s.signedIn("viewer");
    auto forged = reportd::request(s.staffPort(), "POST", "/incidents/1/acknowledge",
                                   "Cookie: kob_session=" + stranger.cookie("kob_session") +
                                       "\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                                   "csrf=wrong");
    EXPECT_EQ(forged.status, 403) << forged.raw;
    auto ack = b.post("/incidents/1/acknowledge", {});
    EXPECT_EQ(ack.status, 303) << ack.raw;
    EXPECT_EQ(b.post("/incidents/1/acknowledge", {}).status, 404);
    EXPECT_EQ(value("SELECT status FROM incidents WHERE id = 1"), "acknowledged");
    EXPECT_EQ(value("SELECT acknowledged_by FROM incidents WHERE id = 1"), name);
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'incident.acknowledged' AND"
                    " account = '" +
                    name + "' AND detail = 'incident 1'"),
              "1");
    EXPECT_EQ(value("SELECT count(*) FROM audit WHERE action = 'incident.acknowledged'"), "1");
    // Acknowledged, it no longer counts as open for the alert rule.
    EXPECT_TRUE(scraped(s, "kobreportd_incidents{status=\"acknowledged\"}", "1"));
    EXPECT_EQ(sample(s.api("/metrics").body, "kobreportd_incidents{status=\"open\"}"), "0");

    // Two hours on, healthy reports: quiet for an hour, so resolved.
    setClock(t0 + 2 * 3600);
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(10 + i) + ".1", s.port(),
                                      reportgen::report(reportgen::healthyRun()))
                      .status,
                  200);
    j = incidentsWhen(s, [](const std::string &b) { return has(b, "\"status\":\"resolved\""); });
    EXPECT_TRUE(has(j, "\"status\":\"resolved\",\"started_at\":\"2027-01-15T08:00:00Z\",")) << j;
    EXPECT_TRUE(has(j, "\"resolved_at\":\"2027-01-15T10:00:00Z\"")) << j;
    std::string resolved = hook.wait(2);
    EXPECT_EQ(resolved.rfind("{\"event\":\"resolved\",\"at\":\"2027-01-15T10:00:0", 0), 0u)
        << resolved;
    EXPECT_TRUE(has(resolved, "\"incident\":1,\"status\":\"resolved\",")) << resolved;
    EXPECT_TRUE(scraped(s, "kobreportd_incidents{status=\"acknowledged\"}", "0"));
    auto calm = s.signedIn("viewer").get("/fleet").body; // the first session timed out
    EXPECT_NE(calm.find("<p class=\"ok\" id=\"broken\">Nothing"), std::string::npos) << calm;

    // The same failures again two hours later: the incident reopens.
    setClock(t0 + 4 * 3600);
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(10 + i) + ".1", s.port(),
                                      i == 2 ? reportgen::report(reportgen::healthyRun())
                                             : bothDown("user" + std::to_string(i)))
                      .status,
                  200);
    j = incidentsWhen(s, [](const std::string &b) { return has(b, "\"reopened\":1"); });
    EXPECT_TRUE(has(j, "{\"incidents\":[{\"id\":1,\"status\":\"open\",")) << j;
    EXPECT_TRUE(has(j, "\"reopened\":1,\"acknowledged_by\":null,\"acknowledged_at\":null,"
                       "\"resolved_at\":null,"))
        << j;
    EXPECT_EQ(value("SELECT count(*) FROM incidents"), "1");
    std::string reopened = hook.wait(3);
    EXPECT_EQ(reopened.rfind("{\"event\":\"reopened\",", 0), 0u) << reopened;
    EXPECT_TRUE(has(reopened, "\"text\":\"Incident 1 reopened: " + k443 + ", UDP pass-through: "))
        << reopened;
    EXPECT_TRUE(scraped(s, "kobreportd_incidents{status=\"open\"}", "1"));
    EXPECT_EQ(s.stop(), 0);
    EXPECT_EQ(hook.delivered(), 3u);
}

// A target that starts failing over an open incident's reports joins it,
// and the webhook is told of the wider incident, not of a new one.
TEST_P(Oncall, ATargetJoiningAnOpenIncidentIsPostedAsItsWidening) {
    const std::time_t t0 = 1800000000;
    outage(t0);
    setClock(t0 + 400);
    kobtest::WebhookReceiver hook(0);
    const std::vector<std::string> checking = {"--alert-check", "1", "--alert-webhook", hook.url()};
    {
        reportd::Server s(KOBREPORTD_BIN, db, checking, true, clockEnv());
        std::string opened = hook.wait(1);
        EXPECT_EQ(opened.rfind("{\"event\":\"opened\",", 0), 0u) << opened;
        EXPECT_TRUE(has(opened, "\"targets\":[{\"area\":\"tcp\",\"target\":\"" + k443 + "\"}],"))
            << opened;
        EXPECT_EQ(s.stop(), 0);
    }
    // The new failures all arrive before the next check sees any of them.
    setClock(t0 + 500);
    {
        reportd::Server quiet(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 0; i < 5; i++)
            ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(20 + i) + ".1", quiet.port(),
                                          bothDown("user" + std::to_string(i)))
                          .status,
                      200);
        EXPECT_EQ(quiet.stop(), 0);
    }
    reportd::Server s(KOBREPORTD_BIN, db, checking, true, clockEnv());
    std::string widened = hook.wait(2);
    EXPECT_EQ(widened.rfind("{\"event\":\"widened\",\"at\":\"2027-01-15T08:08:20Z\",\"text\":"
                            "\"Incident 1 widened: " +
                                k443 +
                                ", UDP pass-through: 10 of 11 reports failing since "
                                "2027-01-15 08:00 UTC, 6 users; /incidents#incident-1\","
                                "\"incident\":1,\"status\":\"open\",",
                            0),
              0u)
        << widened;
    EXPECT_TRUE(has(widened, "\"targets\":[{\"area\":\"tcp\",\"target\":\"" + k443 +
                                 "\"},{\"area\":\"udp\",\"target\":\"UDP pass-through\"}],"))
        << widened;
    EXPECT_EQ(value("SELECT count(*) FROM incidents"), "1");
    EXPECT_EQ(s.stop(), 0);
    EXPECT_EQ(hook.delivered(), 2u);
}

// A target without a baseline (a new deployment) never alerts, however it
// fails, unless the operator lowers --alert-min-baseline.
TEST_P(Oncall, NoBaselineNoIncident) {
    const std::time_t t0 = 1800000000;
    {
        reportd::Server quiet(KOBREPORTD_BIN, db, {}, true, clockEnv());
        for (int i = 0; i < 25; i++) {
            setClock(t0 + 60 * i);
            ASSERT_EQ(reportd::uploadFrom("127.0." + std::to_string(10 + i) + ".1", quiet.port(),
                                          bothDown("user" + std::to_string(i)))
                          .status,
                      200);
        }
        EXPECT_EQ(quiet.stop(), 0);
    }
    setClock(t0 + 25 * 60);
    {
        reportd::Server s(KOBREPORTD_BIN, db, {"--alert-check", "1"}, true, clockEnv());
        ASSERT_TRUE(scraped(s, "kobreportd_alerts_checked_timestamp_seconds",
                            std::to_string(t0 + 25 * 60)));
        EXPECT_EQ(s.api("/api/incidents").body, "{\"incidents\":[]}");
        auto f = s.api("/api/fleet");
        EXPECT_TRUE(has(f.body, "\"target\":\"" + k443 +
                                    "\",\"reports\":25,\"failing\":25,"
                                    "\"broken\":false,"))
            << f.body;
        EXPECT_EQ(s.stop(), 0);
    }
    EXPECT_EQ(value("SELECT count(*) FROM alerts"), "0");
    reportd::Server s(KOBREPORTD_BIN, db, {"--alert-check", "1", "--alert-min-baseline", "0"}, true,
                      clockEnv());
    std::string j = incidentsWhen(s, [](const std::string &b) { return has(b, "\"id\":"); });
    EXPECT_TRUE(has(j, "\"targets\":[{\"area\":\"tcp\",\"target\":\"" + k443 +
                           "\"},{\"area\":\"udp\",\"target\":\"UDP pass-through\"}],\"reports\":25,"
                           "\"failing\":25,\"users\":25,"))
        << j;
}

// The fleet's charts read without hovering: axes, counts, volume and the
// numbers as text; rows worst first; a report without any network counted
// once as a row of its own and as no target's failure; the page reloads
// itself unless told not to.
TEST_P(Oncall, ChartsCarryAxesCountsAndTextAndNoNetworkIsItsOwnRow) {
    const std::time_t t0 = 1800000000; // 2027-01-15 08:00 UTC
    reportd::Server s(KOBREPORTD_BIN, db, {}, true, clockEnv());
    setClock(t0 - 2 * 3600 + 100);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(reportd::upload(s.port(), i < 2 ? port443Down()
                                                  : reportgen::report(reportgen::healthyRun()))
                      .status,
                  200);
    setClock(t0 - 3600 + 100);
    ASSERT_EQ(reportd::upload(s.port(), port443Down()).status, 200);
    auto offline = reportgen::healthyRun();
    offline.udp.assign(5, reportgen::udpTimeout());
    offline.tcp.assign(7, reportgen::tcpFail(51, "Network is unreachable"));
    ASSERT_EQ(reportd::upload(s.port(), reportgen::report(offline)).status, 200);
    setClock(t0 + 600);

    auto j = s.api("/api/fleet?window=6h");
    EXPECT_TRUE(has(j.body, "{\"area\":\"network\",\"target\":\"no network at all\",\"reports\":1,"
                            "\"failing\":1,"))
        << j.body;
    EXPECT_TRUE(
        has(j.body, "{\"area\":\"tcp\",\"target\":\"" + k443 + "\",\"reports\":4,\"failing\":3,"))
        << j.body;
    EXPECT_TRUE(has(j.body, "{\"area\":\"udp\",\"target\":\"UDP pass-through\",\"reports\":4,"
                            "\"failing\":0,"))
        << j.body;
    EXPECT_EQ(value("SELECT count(*) FROM outcomes WHERE failing = 1"), "4");

    reportd::Browser b = s.signedIn("viewer");
    auto page = b.get("/fleet?window=6h");
    ASSERT_EQ(page.status, 200);
    // Worst first: no network (1 of 1), then port 443 (3 of 4), then the rest.
    auto rows = page.body.find("<tbody>\n<tr><td>network</td><td>no network at all</td>");
    ASSERT_NE(rows, std::string::npos) << page.body;
    auto second = page.body.find("<tr><td>", rows + 10);
    const std::string worstTarget = "<tr><td>tcp</td><td>" + k443 + "</td>";
    EXPECT_EQ(page.body.compare(second, worstTarget.size(), worstTarget), 0)
        << page.body.substr(second, 100);
    auto svg = page.body.find("<svg", page.body.find("<td>" + k443 + "</td>"));
    std::string chart = page.body.substr(svg, page.body.find("</svg>", svg) - svg);
    for (const std::string &part :
         {std::string(" aria-label=\"failing share and reports per hour, UTC\""),
          std::string(" text-anchor=\"end\">0%</text>"),
          std::string(" text-anchor=\"end\">50%</text>"),
          std::string(" text-anchor=\"end\">100%</text>"),
          // Each bar's count, and the busiest bucket's volume on its row.
          std::string(" text-anchor=\"middle\">2/3</text>"),
          std::string(" text-anchor=\"middle\">1/1</text>"),
          std::string(" text-anchor=\"end\">3</text>"),
          // The time axis: the window's first, middle and last hours.
          std::string(" text-anchor=\"start\">01-15 03:00</text>"),
          std::string(" text-anchor=\"middle\">01-15 06:00</text>"),
          std::string(" text-anchor=\"end\">01-15 08:00</text>"),
          std::string("<title>2027-01-15 06:00 UTC: 2 of 3 failing</title>")})
        EXPECT_TRUE(has(chart, part)) << part << "\n" << chart;
    EXPECT_TRUE(has(page.body, "</svg><details><summary>Numbers</summary><ul><li>2027-01-15 "
                               "06:00 UTC: 2 of 3 failing (67%)</li><li>2027-01-15 07:00 UTC: 1 "
                               "of 1 failing (100%)</li></ul></details>"))
        << page.body;
    EXPECT_FALSE(has(page.body, "<script"));
    // It reloads itself every minute when asked to, and a link stops that.
    EXPECT_FALSE(has(page.body, "http-equiv=\"refresh\""));
    EXPECT_TRUE(has(page.body, "<a href=\"/fleet?window=6h&amp;refresh=on\">Reload every "
                               "minute</a>"))
        << page.body;
    auto reloading = b.get("/fleet?window=6h&refresh=on");
    EXPECT_TRUE(has(reloading.body, "<meta http-equiv=\"refresh\" content=\"60\">"));
    EXPECT_TRUE(has(reloading.body, "This page reloads itself every minute. <a "
                                    "href=\"/fleet?window=6h\">Stop reloading</a>"))
        << reloading.body;
    // Other pages do not reload.
    EXPECT_FALSE(has(b.get("/incidents").body, "http-equiv=\"refresh\""));
}
