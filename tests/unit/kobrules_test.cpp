// The verdict rules one by one: every rule in the table has a report that
// triggers it and one that does not, and the evidence it gives is the
// report's own lines, numbered as an editor numbers them.

#include "kobrules.h"
#include "kobtriage.h"
#include "reportgen.h"

#include <algorithm>
#include <functional>
#include <map>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kobtriage {
void PrintTo(const SourceLine &l, std::ostream *os) {
    *os << l.number << "|" << l.text;
}
} // namespace kobtriage

using kobtriage::parse;
using kobtriage::Report;
using kobtriage::SourceLine;
using RunSpec = reportgen::Run;

namespace {

// The number of the line on which needle begins, counted in the text
// itself, without the parser.
std::size_t lineOf(const std::string &text, const std::string &needle) {
    auto at = text.find(needle);
    EXPECT_NE(at, std::string::npos) << needle;
    if (at == std::string::npos)
        return 0;
    return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + at, '\n'));
}

SourceLine lineAt(const std::string &text, const std::string &line) {
    return {lineOf(text, line + "\n"), line};
}

const kobtriage::Verdict *find(const Report &r, const std::string &id) {
    for (const auto &v : r.verdicts)
        if (v.rule == id)
            return &v;
    return nullptr;
}

std::string text(const RunSpec &run) {
    return reportgen::report(run);
}

RunSpec healthy() {
    return reportgen::healthyRun();
}

RunSpec withDefaultRoute(RunSpec run) {
    run.netstatRn = "Routing tables\n\nInternet:\nDestination        Gateway            Flags   "
                    "Netif\ndefault            192.168.1.1        UGScg   en0\n";
    return run;
}

// No answer from anywhere: every public probe fails.
RunSpec offline() {
    RunSpec run = healthy();
    run.udp.assign(5, reportgen::udpTimeout());
    run.tcp.assign(7, reportgen::tcpFail(51, "Network is unreachable"));
    run.intranet.assign(4, reportgen::tcpFail(51, "Network is unreachable"));
    run.traceroute = "";
    return run;
}

struct Fixture {
    std::function<std::string()> triggers, doesNot;
};

std::string cutLogs() {
    std::string t = text(healthy());
    auto at = t.find("vane started\n");
    t.replace(at, t.find("==> Dumping KOBRUN log files\n") - at, "vane st");
    return t;
}

std::string withPopenError() {
    std::string t = text(healthy());
    t.insert(t.find("==> Dumping the result of `/usr/sbin/netstat -an'"), "_popen() error\n");
    return t;
}

const std::map<std::string, Fixture> &fixtures() {
    static const std::map<std::string, Fixture> f = {
        {"report.unrecognised",
         {[] { return std::string("hello\n"); }, [] { return text(healthy()); }}},
        {"report.incomplete",
         {[] {
              std::string t = text(healthy());
              return t.substr(0, t.find("==> Testing to the intranet"));
          },
          [] { return text(healthy()); }}},
        {"header.no-username",
         {[] {
              RunSpec r = healthy();
              r.username.reset();
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"net.none",
         {[] { return text(offline()); }, [] { return text(withDefaultRoute(offline())); }}},
        {"udp.server-down",
         {[] {
              RunSpec r = healthy();
              r.udp.assign(5, reportgen::udpTimeout());
              r.tcp[4] = r.tcp[5] = reportgen::tcpTimeout();
              return text(r);
          },
          [] {
              RunSpec r = healthy();
              r.udp.assign(5, reportgen::udpTimeout());
              return text(r);
          }}},
        {"udp.works",
         {[] { return text(healthy()); },
          [] {
              RunSpec r = healthy();
              r.udp[2] = reportgen::udpTimeout();
              return text(r);
          }}},
        {"udp.blocked",
         {[] {
              RunSpec r = healthy();
              r.udp.assign(5, reportgen::udpTimeout());
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"udp.lossy",
         {[] {
              RunSpec r = healthy();
              r.udp[2] = reportgen::udpTimeout();
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"tcp.unanswered",
         {[] {
              RunSpec r = healthy();
              r.tcp[3] = reportgen::tcpTimeout();
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"tcp.failed",
         {[] {
              RunSpec r = healthy();
              r.tcp[5] = reportgen::tcpFail(61, "Connection refused");
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"tcp.no-result",
         {[] {
              RunSpec r = healthy();
              r.tcp[1] = "";
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"tcp.all-answered",
         {[] { return text(healthy()); },
          [] {
              RunSpec r = healthy();
              r.tcp[0] = reportgen::tcpTimeout();
              return text(r);
          }}},
        {"traceroute.empty",
         {[] {
              RunSpec r = healthy();
              r.traceroute = "";
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"traceroute.reached",
         {[] { return text(healthy()); },
          [] {
              RunSpec r = healthy();
              r.traceroute = " 1  192.168.1.1  1.1 ms  1.0 ms  1.2 ms\n 2  * * *\n";
              return text(r);
          }}},
        {"traceroute.none",
         {[] {
              RunSpec r = healthy();
              r.traceroute = " 1  * * *\n 2  * * *\n";
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"traceroute.stopped",
         {[] {
              RunSpec r = healthy();
              r.traceroute = " 1  192.168.1.1  1.1 ms  1.0 ms  1.2 ms\n 2  * * *\n";
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"captures.popen", {withPopenError, [] { return text(healthy()); }}},
        {"captures.empty",
         {[] {
              RunSpec r = healthy();
              r.ifconfig = "";
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"intranet.unreachable",
         {[] {
              RunSpec r = healthy();
              r.intranet.assign(4, reportgen::tcpTimeout());
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"intranet.partial",
         {[] {
              RunSpec r = healthy();
              r.intranet[1] = reportgen::tcpTimeout();
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"intranet.reachable",
         {[] { return text(healthy()); },
          [] {
              RunSpec r = healthy();
              r.intranet[1] = reportgen::tcpTimeout();
              return text(r);
          }}},
        {"logs.missing",
         {[] {
              RunSpec r = healthy();
              r.logs.erase("kobflow_stderr.txt");
              return text(r);
          },
          [] { return text(healthy()); }}},
        {"logs.cut", {cutLogs, [] { return text(healthy()); }}},
        {"report.unknown-sections",
         {[] {
              RunSpec r = healthy();
              r.netstatRn += "==> Testing IPv6 reachability\nIPv6 src --1 ms\n";
              return text(r);
          },
          [] { return text(healthy()); }}},
    };
    return f;
}

} // namespace

TEST(Rules, EveryRuleHasAReportThatTriggersItAndOneThatDoesNot) {
    std::size_t checked = 0;
    for (const auto &rule : kobtriage::rules()) {
        SCOPED_TRACE(std::string(rule.id));
        auto it = fixtures().find(std::string(rule.id));
        ASSERT_NE(it, fixtures().end()) << "a rule without fixtures";
        Report yes = parse(it->second.triggers());
        const auto *v = find(yes, std::string(rule.id));
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(v->level, rule.level);
        EXPECT_EQ(v->area, rule.area);
        EXPECT_EQ(find(parse(it->second.doesNot()), std::string(rule.id)), nullptr);
        checked++;
    }
    EXPECT_EQ(checked, fixtures().size()) << "fixtures for a rule that is not in the table";
}

TEST(Rules, IdsAreStableAndTheSetVersionIsTheHighestRuleVersion) {
    int highest = 0;
    for (const auto &rule : kobtriage::rules()) {
        EXPECT_GE(rule.version, 1);
        highest = std::max(highest, rule.version);
        EXPECT_EQ(kobtriage::findRule(rule.id), &rule);
        EXPECT_FALSE(rule.meaning.empty());
        EXPECT_FALSE(rule.reads.empty());
        // What support staff tell the user: a sentence of its own.
        EXPECT_FALSE(rule.advice.empty());
        EXPECT_EQ(rule.advice.back(), '.') << rule.id;
        EXPECT_LE(rule.advice.size(), 200u) << rule.id;
        // The list's one line: a few words, not a sentence.
        EXPECT_FALSE(rule.title.empty()) << rule.id;
        EXPECT_LE(rule.title.size(), 32u) << rule.id;
        EXPECT_NE(rule.title.back(), '.') << rule.id;
    }
    EXPECT_EQ(kobtriage::rulesVersion(), highest);
    EXPECT_EQ(kobtriage::rulesVersion(), 1);
    EXPECT_EQ(kobtriage::findRule("udp.nonsense"), nullptr);
    EXPECT_EQ(parse(text(healthy())).rules_version, 1);
}

TEST(Rules, NoNetworkAtAllIsOneVerdictInsteadOfEveryProbesFailure) {
    std::string t = text(offline());
    Report r = parse(t);
    std::vector<std::string> ids;
    for (const auto &v : r.verdicts)
        ids.push_back(v.rule);
    // The traceroute that printed nothing and the gateways follow from it too.
    EXPECT_EQ(ids, std::vector<std::string>{"net.none"}) << r.summary();
    const auto *v = find(r, "net.none");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->text,
              "no network at all: no public target answered and `netstat -rn' shows no default "
              "route");
    // The route table first, then each probe's result line, in report order.
    ASSERT_EQ(v->evidence.size(), 2u + 5u + 7u);
    EXPECT_EQ(v->evidence[0], lineAt(t, "==> Dumping the result of `/usr/sbin/netstat -rn'"));
    EXPECT_EQ(v->evidence[1], lineAt(t, "Routing tables"));
    EXPECT_EQ(v->evidence[2].number, lineOf(t, "UDP: select timeout\n"));
    EXPECT_EQ(v->evidence[2].text, "UDP: select timeout");
    EXPECT_EQ(v->evidence[13].text, "connect(2) fail: 51 Network is unreachable");
    EXPECT_EQ(v->evidence[13].number,
              lineOf(t, "==> Testing TCP pass-through to port 10008 (JP - Amazon)\n") + 1);

    // With a default route the same failures are listed one by one.
    Report routed = parse(text(withDefaultRoute(offline())));
    EXPECT_EQ(find(routed, "net.none"), nullptr);
    EXPECT_NE(find(routed, "udp.blocked"), nullptr);
    EXPECT_NE(find(routed, "tcp.failed"), nullptr);
    EXPECT_NE(find(routed, "intranet.unreachable"), nullptr);
}

TEST(Rules, UdpUnansweredWithItsServerDownIsNotCalledBlocked) {
    RunSpec run = healthy();
    run.udp.assign(5, reportgen::udpTimeout());
    run.tcp[4] = run.tcp[5] = reportgen::tcpTimeout();
    std::string t = text(run);
    Report r = parse(t);
    EXPECT_EQ(find(r, "udp.blocked"), nullptr);
    const auto *v = find(r, "udp.server-down");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->level, kobtriage::Verdict::Level::Fail);
    // The two TCP probes of the pass-through server are still failures of
    // their own.
    int tcpFailures = 0;
    for (const auto &x : r.verdicts)
        tcpFailures += x.rule == "tcp.unanswered";
    EXPECT_EQ(tcpFailures, 2);
    ASSERT_EQ(v->evidence.size(), 7u);
    EXPECT_EQ(v->evidence.front().number, lineOf(t, "==> Testing UDP pass-through (1 of 5)\n") + 1);
    EXPECT_EQ(v->evidence.back().number,
              lineOf(t, "==> Testing TCP pass-through to port 10008 (KR - KT2)\n") + 1);
    EXPECT_EQ(v->evidence.back().text, "TCP: select timeout");
}

TEST(Rules, EvidenceOfAProbeIsItsHeadingAndItsResultLine) {
    RunSpec run = healthy();
    run.tcp[3] = reportgen::tcpTimeout();
    std::string t = text(run);
    Report r = parse(t);
    const auto *v = find(r, "tcp.unanswered");
    ASSERT_NE(v, nullptr);
    std::size_t heading = lineOf(t, "==> Testing TCP pass-through to port 443\n");
    EXPECT_EQ(v->evidence, (std::vector<SourceLine>{
                               {heading, "==> Testing TCP pass-through to port 443"},
                               {heading + 1, "TCP: select timeout"},
                           }));
    const auto *udp = find(r, "udp.works");
    ASSERT_NE(udp, nullptr);
    ASSERT_EQ(udp->evidence.size(), 5u);
    EXPECT_EQ(udp->evidence[4], lineAt(t, "UDP src --14.000000 ms--> dst(192.0.2.7:10007)"));
    const auto *trace = find(r, "traceroute.reached");
    ASSERT_NE(trace, nullptr);
    EXPECT_EQ(trace->evidence.back(), lineAt(t, " 3  192.0.2.2  9.870 ms  9.901 ms  9.850 ms"));
}

TEST(Rules, EvidenceInTheLogsIsNumberedAfterMegabytesOfLog) {
    RunSpec run = healthy();
    std::string big;
    for (int i = 0; i < 100000; i++)
        big += "log line " + std::to_string(i) + "\n";
    run.logs["kobvane_stdout.txt"] = big;
    run.logs.erase("kobflow_stdout.txt");
    std::string t = text(run);
    Report r = parse(t);
    const auto *v = find(r, "logs.missing");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->evidence, std::vector<SourceLine>{lineAt(t, "No kobflow_stdout.txt exists")});
    EXPECT_GT(v->evidence[0].number, 100000u);
}

TEST(Rules, PopenErrorsAreTheirOwnEvidence) {
    std::string t = withPopenError();
    Report r = parse(t);
    const auto *v = find(r, "captures.popen");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->evidence, std::vector<SourceLine>{lineAt(t, "_popen() error")});
}

TEST(Rules, AHeadingThatRunsOnFromACaptureKeepsTheCapturesLineNumber) {
    RunSpec run = healthy();
    run.netstatRn = "default 192.168.1.1 UGSc en0";
    run.udp[0] = reportgen::udpTimeout();
    std::string t = text(run);
    Report r = parse(t);
    const auto *v = find(r, "udp.lossy");
    ASSERT_NE(v, nullptr);
    // "==> Testing UDP pass-through (1 of 5)" stands on the capture's line.
    std::size_t shared = lineOf(t, "default 192.168.1.1 UGSc en0");
    EXPECT_EQ(v->evidence[0], (SourceLine{shared + 1, "UDP: select timeout"}));
}

TEST(Rules, LongLinesAreCutInTheEvidence) {
    RunSpec run = healthy();
    run.tcp[3] = reportgen::tcpFail(60, std::string(5000, 'x'));
    Report r = parse(text(run));
    const auto *v = find(r, "tcp.failed");
    ASSERT_NE(v, nullptr);
    ASSERT_EQ(v->evidence.size(), 2u);
    EXPECT_EQ(v->evidence[1].text.size(), 400u + 5u);
    EXPECT_EQ(v->evidence[1].text.substr(400), "[...]");
}

TEST(Rules, TheTableShowsTheEvidenceWithControlsDefused) {
    RunSpec run = healthy();
    run.tcp[3] = reportgen::tcpFail(60, "bad\x1b[2Jname");
    run.udp.assign(5, reportgen::udpRtt(1.5, "192.0.2.7"));
    std::string t = text(run);
    std::size_t h = lineOf(t, "==> Testing TCP pass-through to port 443\n");
    std::string table = kobtriage::verdictTable(parse(t), true);
    std::string expect = "fail   tcp         TCP 443 to KT IDC failed at once (60 bad\x1b[2Jname)\n"
                         "       rule tcp.failed (rules version 1)\n" +
                         std::string(10 - std::to_string(h).size(), ' ') + "  " +
                         std::to_string(h) + "| ==> Testing TCP pass-through to port 443\n";
    EXPECT_NE(table.find(expect), std::string::npos) << table;
    EXPECT_NE(table.find("| connect(2) fail: 60 bad\\x1b[2Jname\n"), std::string::npos) << table;
    // Without evidence the table is as it always was.
    EXPECT_EQ(kobtriage::verdictTable(parse(t)).find("rule "), std::string::npos);
}

TEST(Rules, TheJsonCarriesRuleVersionAndEvidence) {
    RunSpec run = healthy();
    run.tcp[3] = reportgen::tcpTimeout();
    std::string t = text(run);
    auto j = nlohmann::json::parse(kobtriage::toJson(parse(t)));
    EXPECT_EQ(j["rules_version"], 1);
    const nlohmann::json *tcp = nullptr;
    for (const auto &v : j["verdict_levels"])
        if (v["rule"] == "tcp.unanswered")
            tcp = &v;
    ASSERT_NE(tcp, nullptr) << j.dump();
    EXPECT_EQ((*tcp)["rule_version"], 1);
    EXPECT_EQ((*tcp)["level"], "fail");
    std::size_t heading = lineOf(t, "==> Testing TCP pass-through to port 443\n");
    EXPECT_EQ((*tcp)["evidence"],
              nlohmann::json::parse("[{\"line\":" + std::to_string(heading) +
                                    ",\"text\":\"==> Testing TCP pass-through to port 443\"},"
                                    "{\"line\":" +
                                    std::to_string(heading + 1) +
                                    ",\"text\":\"TCP: select timeout\"}]"));
    EXPECT_EQ(j["tcp"][3]["line"], heading + 1);
}
