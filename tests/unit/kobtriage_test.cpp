// Triage of report texts: findings and verdicts for whole, partial and
// broken reports, and the JSON form.

#include "kobtriage.h"
#include "reportgen.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using kobtriage::ClientLog;
using kobtriage::parse;
using kobtriage::ProbeResult;
using Outcome = ProbeResult::Outcome;

namespace {

std::vector<std::string> verdicts(const kobtriage::Report &r) {
    std::vector<std::string> v;
    for (const auto &x : r.verdicts)
        v.push_back(std::string(kobtriage::levelName(x.level)) + " " + x.area + ": " + x.text);
    return v;
}

} // namespace

TEST(Triage, HealthyRunHasEveryFindingAndOnlyGoodVerdicts) {
    auto r = parse(reportgen::report(reportgen::healthyRun()));
    EXPECT_TRUE(r.recognised);
    EXPECT_TRUE(r.missing.empty());
    EXPECT_EQ(r.timestamp, "Sat Nov 21 10:00:00 2026");
    EXPECT_EQ(r.time_iso, "2026-11-21T10:00:00");
    EXPECT_EQ(r.username, "alice");
    EXPECT_EQ(r.version, "4.4.1");
    EXPECT_EQ(r.os, "skipped");
    ASSERT_EQ(r.captures.size(), 4u);
    EXPECT_EQ(r.captures[0].command, "/sbin/ifconfig");
    EXPECT_EQ(r.captures[0].text, "lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384\n");
    EXPECT_EQ(r.captures[3].command, "/usr/sbin/traceroute -m 15 -n 192.0.2.2");
    ASSERT_EQ(r.udp.size(), 5u);
    for (int i = 0; i < 5; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(r.udp[i].number, i + 1);
        EXPECT_EQ(r.udp[i].result.outcome, Outcome::Answered);
        EXPECT_DOUBLE_EQ(r.udp[i].result.rtt_ms, 10.0 + i);
        EXPECT_EQ(r.udp[i].result.address, "192.0.2.7");
        EXPECT_EQ(r.udp[i].result.port, 10007);
    }
    auto u = r.udpSummary();
    EXPECT_EQ(u.answered, 5);
    EXPECT_DOUBLE_EQ(u.loss_percent, 0);
    EXPECT_DOUBLE_EQ(*u.min_ms, 10);
    EXPECT_DOUBLE_EQ(*u.avg_ms, 12);
    EXPECT_DOUBLE_EQ(*u.max_ms, 14);
    ASSERT_EQ(r.tcp.size(), 7u);
    EXPECT_EQ(r.tcp[3].heading, "Testing TCP pass-through to port 443");
    EXPECT_EQ(r.tcp[3].target, "KT IDC");
    EXPECT_EQ(r.tcp[3].limit_s, 15);
    EXPECT_EQ(r.tcp[3].result.port, 443);
    EXPECT_DOUBLE_EQ(r.tcp[3].result.rtt_ms, 23.5);
    EXPECT_EQ(r.tcp[6].target, "JP - Amazon");
    EXPECT_EQ(r.tcp[6].result.address, "198.51.100.3");
    ASSERT_TRUE(r.traceroute);
    EXPECT_EQ(r.traceroute->destination, "192.0.2.2");
    ASSERT_EQ(r.traceroute->hops.size(), 3u);
    EXPECT_EQ(r.traceroute->hops[1].addresses, std::vector<std::string>{"10.0.0.1"});
    EXPECT_EQ(r.traceroute->hops[1].rtts_ms, (std::vector<double>{5.310, 5.122, 5.200}));
    EXPECT_TRUE(r.traceroute->reached());
    EXPECT_EQ(r.mtu.size(), 5u);
    ASSERT_EQ(r.intranet.size(), 4u);
    EXPECT_EQ(r.intranet[2].address, "10.243.144.1");
    EXPECT_EQ(r.intranet[2].port, 8081);
    EXPECT_EQ(r.intranet[2].result.outcome, Outcome::Answered);
    ASSERT_EQ(r.logs.size(), 6u);
    EXPECT_EQ(r.logs[0].state, ClientLog::State::Present);
    EXPECT_EQ(r.logs[0].text, "vane started\n");
    EXPECT_EQ(r.logs[0].size, 13u);
    EXPECT_EQ(r.logs[1].state, ClientLog::State::Empty);
    EXPECT_EQ(r.logs[3].text, "run warning\n");
    EXPECT_EQ(r.logs[5].file, "kobflow_stderr.txt");
    EXPECT_EQ(r.logs[5].state, ClientLog::State::Empty);
    EXPECT_EQ(r.countdown_from, 10);
    EXPECT_EQ(r.countdown_lines, 10);
    EXPECT_TRUE(r.unknown.empty());
    EXPECT_EQ(verdicts(r), (std::vector<std::string>{
                               "ok udp: UDP pass-through works (5/5 answered, avg 12.0 ms)",
                               "ok tcp: TCP answered on all 7 probes (a refusal counts)",
                               "ok traceroute: traceroute reached 192.0.2.2 in 3 hops",
                               "ok intranet: intranet reachable (4/4)",
                           }));
    EXPECT_EQ(r.summary(), "no problem found");
}

TEST(Triage, BlockedNetworkGivesTheFailures) {
    auto run = reportgen::healthyRun();
    run.username.reset();
    run.udp.assign(5, reportgen::udpTimeout());
    run.tcp[3] = reportgen::tcpTimeout();
    run.tcp[5] = reportgen::tcpFail(51, "Network is unreachable");
    run.intranet.assign(4, reportgen::tcpTimeout());
    run.traceroute = " 1  192.168.1.1  1.1 ms  1.0 ms  1.2 ms\n"
                     " 2  10.0.0.1  5.3 ms * 5.2 ms\n"
                     " 3  * * *\n";
    run.logs.erase("kobrun_stdout.txt");
    run.logs.erase("kobrun_stderr.txt");
    auto r = parse(reportgen::report(run));
    EXPECT_EQ(r.username, std::nullopt);
    EXPECT_EQ(r.tcp[3].result.outcome, Outcome::Timeout);
    // The address of a silent target is known from its other appearances.
    EXPECT_EQ(r.tcp[3].result.address, "192.0.2.2");
    EXPECT_TRUE(r.tcp[3].result.address_inferred);
    EXPECT_EQ(r.tcp[5].result.outcome, Outcome::Error);
    EXPECT_EQ(r.tcp[5].result.err, 51);
    EXPECT_EQ(r.tcp[5].result.error_text, "Network is unreachable");
    EXPECT_EQ(r.tcp[5].result.address, "192.0.2.7");
    EXPECT_EQ(r.traceroute->hops[1].lost, 1);
    EXPECT_EQ(r.traceroute->hops[2].lost, 3);
    EXPECT_EQ(r.logs[2].state, ClientLog::State::Missing);
    EXPECT_EQ(r.logs[3].state, ClientLog::State::Missing);
    EXPECT_EQ(verdicts(r),
              (std::vector<std::string>{
                  "info header: no username given",
                  "fail udp: UDP pass-through blocked (5/5 timeouts)",
                  "fail tcp: TCP 443 to KT IDC unanswered within 15 s",
                  "fail tcp: TCP 10008 to KR - KT2 failed at once (51 Network is unreachable)",
                  "warn traceroute: traceroute stopped at hop 2 (last reply from 10.0.0.1)",
                  "fail intranet: intranet unreachable (0/4)",
                  "info logs: client logs missing: kobrun_stdout.txt, kobrun_stderr.txt",
              }));
    EXPECT_EQ(r.summary(), "UDP pass-through blocked (5/5 timeouts); TCP 443 to KT IDC unanswered "
                           "within 15 s; TCP 10008 to KR - KT2 failed at once (51 Network is "
                           "unreachable); traceroute stopped at hop 2 (last reply from 10.0.0.1); "
                           "intranet unreachable (0/4)");
}

TEST(Triage, LossyUdpGivesLossAndTimes) {
    auto run = reportgen::healthyRun();
    run.udp = {reportgen::udpRtt(12.345, "192.0.2.7"), reportgen::udpTimeout(),
               reportgen::udpRtt(30.0, "192.0.2.7"),
               reportgen::udpRecvError(35, "Resource temporarily unavailable"),
               reportgen::udpRtt(0.5, "192.0.2.7")};
    run.intranet[1] = reportgen::tcpTimeout();
    auto r = parse(reportgen::report(run));
    EXPECT_DOUBLE_EQ(r.udp[0].result.rtt_ms, 12.345);
    EXPECT_EQ(r.udp[1].result.outcome, Outcome::Timeout);
    EXPECT_EQ(r.udp[3].result.outcome, Outcome::Error);
    EXPECT_EQ(r.udp[3].result.err, 35);
    auto u = r.udpSummary();
    EXPECT_EQ(u.attempts, 5);
    EXPECT_EQ(u.answered, 3);
    EXPECT_EQ(u.timeouts, 1);
    EXPECT_EQ(u.errors, 1);
    EXPECT_DOUBLE_EQ(u.loss_percent, 40);
    EXPECT_DOUBLE_EQ(*u.min_ms, 0.5);
    EXPECT_DOUBLE_EQ(*u.max_ms, 30);
    EXPECT_DOUBLE_EQ(*u.avg_ms, (12.345 + 30 + 0.5) / 3);
    EXPECT_EQ(verdicts(r), (std::vector<std::string>{
                               "warn udp: UDP pass-through lossy (40.0% loss, 2/5 lost)",
                               "ok tcp: TCP answered on all 7 probes (a refusal counts)",
                               "ok traceroute: traceroute reached 192.0.2.2 in 3 hops",
                               "warn intranet: intranet partly reachable (3/4)",
                           }));
}

TEST(Triage, LoopbackTimesKeepTheirDigitsAndOneHopIsOneHop) {
    auto run = reportgen::healthyRun();
    run.udp.assign(5, reportgen::udpRtt(0.25, "192.0.2.7"));
    run.traceroute = " 1  192.0.2.2  0.050 ms  0.031 ms  0.029 ms\n";
    auto r = parse(reportgen::report(run));
    EXPECT_EQ(verdicts(r)[0], "ok udp: UDP pass-through works (5/5 answered, avg 0.250 ms)");
    EXPECT_EQ(verdicts(r)[2], "ok traceroute: traceroute reached 192.0.2.2 in 1 hop");
}

TEST(Triage, LogsAreCutAtTheirLabelsEvenWithoutLineFeeds) {
    auto run = reportgen::healthyRun();
    run.logs["kobvane_stdout.txt"] = "no line feed at the end";
    run.logs["kobvane_stderr.txt"] = "100% %d %s\nlast";
    run.logs["kobrun_stdout.txt"] = "==> Looks like a heading\n";
    run.logs.erase("kobrun_stderr.txt");
    run.logs["kobflow_stderr.txt"] = "flow tail without line feed";
    auto r = parse(reportgen::report(run));
    ASSERT_EQ(r.logs.size(), 6u);
    EXPECT_EQ(r.logs[0].text, "no line feed at the end");
    EXPECT_EQ(r.logs[0].size, 23u);
    EXPECT_EQ(r.logs[1].text, "100% %d %s\nlast");
    EXPECT_EQ(r.logs[2].text, "==> Looks like a heading\n");
    EXPECT_EQ(r.logs[3].state, ClientLog::State::Missing);
    // The blank line before the countdown belongs to the countdown.
    EXPECT_EQ(r.logs[5].text, "flow tail without line feed");
    EXPECT_TRUE(r.unknown.empty());
    EXPECT_EQ(r.countdown_lines, 10);
}

TEST(Triage, FileReportEndsWithTheLastLog) {
    auto run = reportgen::healthyRun();
    run.upload = false;
    run.logs["kobflow_stderr.txt"] = "ends here\n\n";
    auto r = parse(reportgen::report(run));
    EXPECT_EQ(r.countdown_from, std::nullopt);
    EXPECT_EQ(r.logs[5].text, "ends here\n\n");
    EXPECT_TRUE(r.missing.empty());
}

TEST(Triage, LogCutByAZeroByteLeavesItsStderrUnshown) {
    // "%.*s" stops at a zero byte, so the rest of that program's dump is lost.
    std::string text = reportgen::report(reportgen::healthyRun());
    auto at = text.find("vane started\n");
    auto next = text.find("==> Dumping KOBRUN log files\n");
    text.replace(at, next - at, "vane st");
    auto r = parse(text);
    EXPECT_EQ(r.logs[0].text, "vane st");
    EXPECT_EQ(r.logs[1].state, ClientLog::State::NotShown);
    EXPECT_EQ(verdicts(r).back(),
              "warn logs: client logs not shown (dump cut short): kobvane_stderr.txt");
}

TEST(Triage, ALargeLogIsCountedWholeAndKeptAsItsBeginning) {
    auto run = reportgen::healthyRun();
    std::string big(3 * kobtriage::kLogSampleMax + 7, 'x');
    big.back() = '\n';
    run.logs["kobrun_stderr.txt"] = big;
    auto r = parse(reportgen::report(run));
    ASSERT_EQ(r.logs.size(), 6u);
    EXPECT_EQ(r.logs[3].size, big.size());
    EXPECT_EQ(r.logs[3].text, big.substr(0, kobtriage::kLogSampleMax));
    EXPECT_EQ(r.logs[4].text, "flow up\n");
}

TEST(Triage, PartialReportSaysWhatIsMissing) {
    std::string text = reportgen::report(reportgen::healthyRun());
    text.resize(text.find("==> Testing UDP pass-through (4 of 5)"));
    auto r = parse(text);
    EXPECT_TRUE(r.recognised);
    EXPECT_EQ(r.udp.size(), 3u);
    EXPECT_EQ(r.missing,
              (std::vector<std::string>{"UDP attempts (3 of 5)", "TCP probes (0 of 7)",
                                        "traceroute", "MTU headings (0 of 5)",
                                        "intranet probes (0 of 4)", "client log dumps (0 of 3)"}));
    EXPECT_EQ(verdicts(r), (std::vector<std::string>{
                               "warn report: report incomplete: missing UDP attempts (3 of 5), "
                               "TCP probes (0 of 7), traceroute, MTU headings (0 of 5), intranet "
                               "probes (0 of 4), client log dumps (0 of 3)",
                               "ok udp: UDP pass-through works (3/3 answered, avg 11.0 ms)",
                           }));
}

TEST(Triage, ReportCutInsideAResultLine) {
    std::string text = reportgen::report(reportgen::healthyRun());
    text.resize(text.find("UDP src --11") + 8);
    auto r = parse(text);
    ASSERT_EQ(r.udp.size(), 2u);
    EXPECT_EQ(r.udp[1].result.outcome, Outcome::Missing);
    EXPECT_EQ(r.udp[1].result.extra, std::vector<std::string>{"UDP src "});
    EXPECT_EQ(verdicts(r)[1], "warn udp: UDP pass-through lossy (50.0% loss, 1/2 lost)");
}

TEST(Triage, GarbageIsKeptAsText) {
    static const char raw[] = "\x00\xff\xfe garbage\n==> \n\n\x80\n==> Something else\nline";
    std::string junk(raw, sizeof raw - 1);
    auto r = parse(junk);
    EXPECT_FALSE(r.recognised);
    EXPECT_EQ(verdicts(r),
              std::vector<std::string>{
                  "fail report: not a kobdiag report (nothing recognised; kept as text)"});
    ASSERT_EQ(r.unknown.size(), 3u);
    EXPECT_EQ(r.unknown[0].heading, "");
    EXPECT_EQ(r.unknown[0].text, std::string("\x00\xff\xfe garbage\n", 12));
    EXPECT_EQ(r.unknown[2].heading, "Something else");
    EXPECT_EQ(r.unknown[2].text, "line");
    EXPECT_EQ(parse("").verdicts.size(), 1u);
}

TEST(Triage, UnknownHeadingIsKeptBesideTheFindings) {
    auto run = reportgen::healthyRun();
    run.netstatRn += "==> Testing IPv6 reachability\nIPv6 src --1 ms\n";
    auto r = parse(reportgen::report(run));
    ASSERT_EQ(r.unknown.size(), 1u);
    EXPECT_EQ(r.unknown[0].heading, "Testing IPv6 reachability");
    EXPECT_EQ(r.unknown[0].text, "IPv6 src --1 ms\n");
    EXPECT_EQ(r.udp.size(), 5u);
    EXPECT_EQ(verdicts(r).back(), "info report: 1 section(s) not understood (kept as text)");
}

TEST(Triage, CaptureWithoutFinalLineFeedRunsIntoTheNextHeading) {
    auto run = reportgen::healthyRun();
    run.netstatRn = "default 192.168.1.1 UGSc en0";
    auto r = parse(reportgen::report(run));
    EXPECT_EQ(r.captures[2].text, "default 192.168.1.1 UGSc en0");
    EXPECT_EQ(r.udp.size(), 5u);
    EXPECT_TRUE(r.missing.empty());
}

TEST(Triage, EmptyCapturesAndPopenErrors) {
    auto run = reportgen::healthyRun();
    run.ifconfig = "";
    run.traceroute = "";
    std::string text = reportgen::report(run);
    text.insert(text.find("==> Dumping the result of `/usr/sbin/netstat -an'"), "_popen() error\n");
    auto r = parse(text);
    EXPECT_EQ(r.popen_errors, 1);
    EXPECT_TRUE(r.captures[0].empty());
    EXPECT_EQ(verdicts(r), (std::vector<std::string>{
                               "ok udp: UDP pass-through works (5/5 answered, avg 12.0 ms)",
                               "ok tcp: TCP answered on all 7 probes (a refusal counts)",
                               "warn traceroute: traceroute printed nothing",
                               "warn captures: 1 command(s) could not be started (_popen() error)",
                               "info captures: capture of `/sbin/ifconfig' is empty",
                               "ok intranet: intranet reachable (4/4)",
                           }));
}

TEST(Triage, TracerouteWithNamesAndSeveralResponders) {
    auto run = reportgen::healthyRun();
    run.traceroute = "traceroute to 192.0.2.2 (192.0.2.2), 15 hops max, 52 byte packets\n"
                     " 1  gw (192.168.1.1)  1.0 ms  1.1 ms  1.2 ms\n"
                     " 2  10.0.0.1  5.0 ms 10.0.0.9  6.0 ms !H  7.0 ms\n"
                     "    10.0.0.10  8.0 ms\n";
    auto r = parse(reportgen::report(run));
    const auto &t = *r.traceroute;
    ASSERT_EQ(t.hops.size(), 2u);
    EXPECT_EQ(t.hops[0].addresses, std::vector<std::string>{"192.168.1.1"});
    EXPECT_EQ(t.hops[1].addresses, (std::vector<std::string>{"10.0.0.1", "10.0.0.9", "10.0.0.10"}));
    EXPECT_EQ(t.hops[1].notes, std::vector<std::string>{"!H"});
    EXPECT_EQ(t.other_lines.size(), 1u);
    EXPECT_FALSE(t.reached());
    EXPECT_EQ(t.lastAnswered()->number, 2);
}

TEST(Triage, EveryCutOfAReportParses) {
    auto run = reportgen::healthyRun();
    run.logs["kobvane_stderr.txt"] = "x";
    std::string text = reportgen::report(run);
    for (size_t n = 0; n <= text.size(); n++) {
        auto r = parse(std::string_view(text).substr(0, n));
        ASSERT_FALSE(r.verdicts.empty()) << n;
        auto j = kobtriage::toJson(r);
        ASSERT_EQ(j.front(), '{');
        ASSERT_EQ(j.back(), '}');
    }
    // And every single byte changed to each of a few troublemakers.
    for (size_t n = 0; n < text.size(); n += 7) {
        for (char c : {'\n', '\0', '=', '\xff'}) {
            std::string t = text;
            t[n] = c;
            ASSERT_FALSE(parse(t).verdicts.empty());
        }
    }
}

TEST(TriageJson, CarriesTheFieldsSupportToolsRead) {
    auto run = reportgen::healthyRun();
    run.tcp[3] = reportgen::tcpTimeout();
    auto text = kobtriage::toJson(parse(reportgen::report(run)));
    EXPECT_EQ(text.rfind("{\"reference\":null,\"recognised\":true,\"complete\":true,", 0), 0u)
        << text;
    auto j = nlohmann::json::parse(text);
    EXPECT_EQ(j["username"], "alice");
    EXPECT_EQ(j["version"], "4.4.1");
    EXPECT_EQ(j["udp"][0], nlohmann::json::parse("{\"attempt\":1,\"address\":\"192.0.2.7\","
                                                 "\"address_inferred\":false,\"port\":10007,"
                                                 "\"rtt_ms\":10,\"line\":16}"));
    EXPECT_EQ(j["tcp"][3], nlohmann::json::parse(
                               "{\"heading\":\"Testing TCP pass-through to port 443\",\"target\":"
                               "\"KT IDC\",\"limit_s\":15,\"address\":\"192.0.2.2\","
                               "\"address_inferred\":true,\"port\":443,\"error\":\"timeout\","
                               "\"line\":32}"));
    EXPECT_EQ(j["intranet"][0]["address"], "10.243.160.1");
    EXPECT_EQ(j["intranet"][0]["rtt_ms"], 3.25);
    EXPECT_EQ(j["logs"][0], nlohmann::json::parse("{\"program\":\"kobvane\",\"stream\":\"stdout\","
                                                  "\"file\":\"kobvane_stdout.txt\",\"state\":"
                                                  "\"present\",\"size\":13,\"line\":58}"));
    EXPECT_EQ(j["verdicts"][0], "UDP pass-through works (5/5 answered, avg 12.0 ms)");
    EXPECT_EQ(j["verdicts"][1], "TCP 443 to KT IDC unanswered within 15 s");
    EXPECT_EQ(
        j["udp_summary"],
        nlohmann::json::parse("{\"attempts\":5,\"answered\":5,\"timeouts\":0,\"errors\":0,"
                              "\"loss_percent\":0,\"min_ms\":10,\"avg_ms\":12,\"max_ms\":14}"));
    EXPECT_EQ(j["summary"], "TCP 443 to KT IDC unanswered within 15 s");
}

TEST(TriageJson, StringsAreValidUtf8AndEscaped) {
    EXPECT_EQ(kobtriage::dumpJson(std::string("a\"b\\c\n\x01\xc3\xa9\xff\xc0\xaf", 12)),
              "\"a\\\"b\\\\c\\n\\u0001\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"");
    EXPECT_EQ(kobtriage::validUtf8("\xed\xa0\x80"), "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(kobtriage::validUtf8("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
    // A cut sequence is one broken character, not one per byte.
    EXPECT_EQ(kobtriage::validUtf8("a\xf0\x9f\x98z"), "a\xef\xbf\xbdz");
}

namespace {

// What a page shows of a report and its JSON say, compared whole.
void expectSameFindings(const kobtriage::Report &a, const kobtriage::Report &b) {
    EXPECT_EQ(kobtriage::toJson(a), kobtriage::toJson(b));
    ASSERT_EQ(a.captures.size(), b.captures.size());
    for (size_t i = 0; i < a.captures.size(); i++) {
        EXPECT_EQ(a.captures[i].text, b.captures[i].text);
        EXPECT_EQ(a.captures[i].heading, b.captures[i].heading);
        EXPECT_EQ(a.captures[i].first_line, b.captures[i].first_line);
    }
    ASSERT_EQ(a.logs.size(), b.logs.size());
    for (size_t i = 0; i < a.logs.size(); i++) {
        EXPECT_EQ(a.logs[i].offset, b.logs[i].offset);
        EXPECT_EQ(a.logs[i].label, b.logs[i].label);
    }
    EXPECT_EQ(a.popen_lines, b.popen_lines);
}

} // namespace

TEST(TriageStored, ReadsBackWhatTheTriageFoundForEveryKindOfRun) {
    std::vector<std::string> texts;
    auto healthy = reportgen::healthyRun();
    texts.push_back(reportgen::report(healthy));
    auto blocked = healthy;
    blocked.udp.assign(5, reportgen::udpTimeout());
    blocked.tcp[3] = reportgen::tcpTimeout();
    blocked.traceroute = " 1  192.168.1.1  1.123 ms  * 1.004 ms !H\n 2  * * *\n";
    texts.push_back(reportgen::report(blocked));
    texts.push_back("garbage before\n==> Something new\nwith text\n");
    texts.push_back(reportgen::report(healthy).substr(0, 900));
    for (const auto &text : texts) {
        SCOPED_TRACE(text.substr(0, 60));
        auto r = parse(text);
        auto back = kobtriage::fromStored(kobtriage::toStored(r));
        ASSERT_TRUE(back);
        expectSameFindings(r, *back);
        // Written again, the same document.
        EXPECT_EQ(kobtriage::toStored(*back), kobtriage::toStored(r));
    }
}

TEST(TriageStored, LongTextsKeepTheirBeginningAndWholeSize) {
    auto run = reportgen::healthyRun();
    run.ifconfig = std::string(100000, 'i') + "\n";
    run.logs["kobvane_stdout.txt"] = std::string(300000, 'l') + "\n";
    auto r = parse(reportgen::report(run));
    r.unknown.push_back({"odd", std::string(400000, 'u'), 0});
    r.verdicts[0].evidence.push_back({7, std::string(5000, 'e')});
    auto back = kobtriage::fromStored(kobtriage::toStored(r));
    ASSERT_TRUE(back);
    const auto &cap = back->captures[0];
    EXPECT_EQ(cap.text, std::string(kobtriage::kStoredCaptureMax, 'i'));
    EXPECT_EQ(cap.size(), 100001u);
    EXPECT_EQ(back->unknown.back().text, std::string(kobtriage::kStoredSectionMax, 'u'));
    EXPECT_EQ(back->unknown.back().size(), 400000u);
    EXPECT_EQ(back->verdicts[0].evidence.back().text, std::string(kobtriage::kStoredLineMax, 'e'));
    // The logs are counted and placed, not copied.
    for (const auto &l : back->logs)
        EXPECT_TRUE(l.text.empty());
    // Cut again, the sizes stay the whole ones.
    auto again = kobtriage::fromStored(kobtriage::toStored(*back));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->captures[0].size(), 100001u);
}

TEST(TriageStored, ADocumentItCannotReadGivesNothing) {
    std::string good = kobtriage::toStored(parse(reportgen::report(reportgen::healthyRun())));
    EXPECT_FALSE(kobtriage::fromStored(""));
    EXPECT_FALSE(kobtriage::fromStored("[]"));
    EXPECT_FALSE(kobtriage::fromStored(good.substr(0, good.size() / 2)));
    auto j = nlohmann::json::parse(good);
    j["verdicts"][0]["level"] = 9;
    EXPECT_FALSE(kobtriage::fromStored(j.dump()));
    j = nlohmann::json::parse(good);
    j.erase("udp");
    EXPECT_FALSE(kobtriage::fromStored(j.dump()));
    j = nlohmann::json::parse(good);
    j["logs"][0]["size"] = "big";
    EXPECT_FALSE(kobtriage::fromStored(j.dump()));
}
