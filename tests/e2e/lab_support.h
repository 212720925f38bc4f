// Running kobdiag-lab in its application directory inside the build tree,
// and what a lab run's report must hold.

#ifndef LAB_SUPPORT_H
#define LAB_SUPPORT_H

#include <cstdio>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "kobdiag_config.h"
#include "kobdiag_lines.h"
#include "kobreport.h"
#include "kobtest.h"

namespace lab_test {

const std::string kLabBin = KOBDIAG_LAB_BIN;
const std::string kKoblabBin = KOBLAB_BIN;
const std::string kLabDir = KOBDIAG_APP_DIR; // with its trailing slash

inline const std::vector<std::string> kLabFiles = {
    "kobvane_stdout.txt", "kobvane_stderr.txt", "kobrun_stdout.txt",
    "kobrun_stderr.txt",  "kobflow_stdout.txt", "kobflow_stderr.txt",
    "kobdiag_stdout.txt", "kobdiag.pid",        "why.txt"};

// The lab directory as a fresh install leaves it: no logs, no report file.
inline void clearLabDir() {
    mkdir(kLabDir.c_str(), 0755);
    for (const auto &f : kLabFiles) {
        std::string p = kLabDir + f;
        if (unlink(p.c_str()) != 0)
            rmdir(p.c_str());
    }
}

inline kobtest::ChildResult runLab(std::vector<std::string> args) {
    args.insert(args.begin(), kLabBin);
    return kobtest::runProgram(args);
}

using kobtest::dumpHeading;

inline std::string tracerouteCommand(const std::string &addr) {
    char buf[1024];
    snprintf(buf, sizeof buf, KOBDIAG_CMD_TRACEROUTE, addr.c_str());
    return buf;
}

inline std::string rttLine(const std::string &proto, const std::string &addr, int port) {
    return kobtest::rttLinePattern(proto, addr, port);
}

// The headings of a lab run in order, each with a pattern for the text
// that follows it up to the next heading ("" for none).  The client log
// dump is left out: its sections follow the logs' own contents.
// A body that is not examined (a command's output).
inline const std::string kAny = "\x01any";

struct Expected {
    std::string heading; // a pattern
    std::string body;    // a pattern
};

inline std::vector<Expected> expectedRun(const char *username) {
    std::vector<Expected> e;
    e.push_back({"==> Timestamp: (Mon|Tue|Wed|Thu|Fri|Sat|Sun) "
                 "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] "
                 "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}\n",
                 "\n"});
    if (username != nullptr)
        e.push_back({"==> Username: " + std::string(username) + "\n", ""});
    e.push_back({"==> Package Version: 4\\.4\\.1\n", ""});
    e.push_back({"==> OS Version: skipped\n", ""});
    auto lit = [](const std::string &s) {
        static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
        return std::regex_replace(s, special, R"(\$&)");
    };
    for (const char *cmd : {KOBDIAG_CMD_IFCONFIG, KOBDIAG_CMD_NETSTAT_AN, KOBDIAG_CMD_NETSTAT_RN})
        e.push_back({lit(dumpHeading(cmd)), kAny});
    for (int i = 1; i <= 5; i++)
        e.push_back({lit("==> Testing UDP pass-through (" + std::to_string(i) + " of 5)\n"),
                     rttLine("UDP", KOBDIAG_PASSTHROUGH_ADDR, 10007)});
    const struct {
        const char *heading;
        const char *addr;
        int port;
    } tcp[] = {
        {"==> Checks a connection to authentication server.\n", KOBDIAG_AUTH_ADDR, 80},
        {"==> Checks a connection to authentication server (old).\n", KOBDIAG_KTIDC_ADDR, 10009},
        {"==> Testing TCP pass-through to port 80\n", KOBDIAG_KTIDC_ADDR, 80},
        {"==> Testing TCP pass-through to port 443\n", KOBDIAG_KTIDC_ADDR, 443},
        {"==> Testing TCP pass-through to port 10007\n", KOBDIAG_PASSTHROUGH_ADDR, 10007},
        {"==> Testing TCP pass-through to port 10008 (KR - KT2)\n", KOBDIAG_PASSTHROUGH_ADDR,
         10008},
        {"==> Testing TCP pass-through to port 10008 (JP - Amazon)\n", KOBDIAG_JP_ADDR, 10008},
    };
    for (const auto &t : tcp)
        e.push_back({lit(t.heading), rttLine("TCP", t.addr, t.port)});
    e.push_back({lit("==> Testing traceroute to KOBVANE KT IDC node.\n"), ""});
    e.push_back({lit(dumpHeading(tracerouteCommand(KOBDIAG_KTIDC_ADDR))), kAny});
    // Each MTU heading is followed directly by the next heading.
    for (const char *h : {"==> Testing MTU to KOBVANE Asia (S. Korea - KT IDC)\n",
                          "==> Testing MTU to KOBVANE US West(N. California)\n",
                          "==> Testing MTU to KOBVANE Asia (Singapore)\n",
                          "==> Testing MTU to KOBVANE Asia (Tokyo)\n",
                          "==> Testing MTU to KOBVANE Asia (S. Korea - HCLC IDC)\n"})
        e.push_back({lit(h), ""});
    // koblab: the first gateway answers, the second never completes the
    // handshake, the last two refuse, and a refusal counts as an answer.
    const char *gw[] = {KOBDIAG_INTRANET_ADDR_1, KOBDIAG_INTRANET_ADDR_2, KOBDIAG_INTRANET_ADDR_3,
                        KOBDIAG_INTRANET_ADDR_4};
    for (int i = 0; i < 4; i++)
        e.push_back({lit("==> Testing to the intranet " + std::string(gw[i]) + ":8081\n"),
                     i == 1 ? "TCP: select timeout\n" : rttLine("TCP", gw[i], 8081)});
    return e;
}

inline const std::string kIntro =
    "This program diagnoses your network and system status and send the result to\n"
    "the KOBVANE main server.\n\n";

// The report up to the client log dump matches the expected run.
inline ::testing::AssertionResult matchesRun(const std::string &report, const char *username) {
    auto secs = kobtest::sections(report);
    auto exp = expectedRun(username);
    if (secs.empty() || secs[0].heading != "" || secs[0].body != kIntro)
        return ::testing::AssertionFailure() << "the report does not begin with the intro";
    for (size_t i = 0; i < exp.size(); i++) {
        if (i + 1 >= secs.size())
            return ::testing::AssertionFailure() << "the report ends before " << exp[i].heading;
        const auto &s = secs[i + 1];
        if (!std::regex_match(s.heading, std::regex(exp[i].heading)))
            return ::testing::AssertionFailure() << "heading " << i << " is [" << s.heading
                                                 << "], expected [" << exp[i].heading << "]";
        if (exp[i].body != kAny && !std::regex_match(s.body, std::regex(exp[i].body)))
            return ::testing::AssertionFailure()
                   << "after [" << s.heading << "] came [" << s.body << "]";
    }
    if (exp.size() + 1 >= secs.size() ||
        secs[exp.size() + 1].heading != "==> Dumping KOBVANE log files\n")
        return ::testing::AssertionFailure() << "the client log dump does not follow";
    return ::testing::AssertionSuccess();
}

// The text from the client log dump on.
inline std::string logDump(const std::string &report) {
    size_t at = report.find("==> Dumping KOBVANE log files\n");
    return at == std::string::npos ? "" : report.substr(at);
}

inline const std::string kNoLogs = "==> Dumping KOBVANE log files\n"
                                   "No kobvane_stdout.txt exists\n"
                                   "No kobvane_stderr.txt exists\n"
                                   "==> Dumping KOBRUN log files\n"
                                   "No kobrun_stdout.txt exists\n"
                                   "No kobrun_stderr.txt exists\n"
                                   "==> Dumping KOBFLOW log files\n"
                                   "No kobflow_stdout.txt exists\n"
                                   "No kobflow_stderr.txt exists\n";

inline std::string countdown() {
    std::string s = "\n==> All tests had done now and will send the report to KOBVANE\n"
                    "    server after 10 seconds.\n";
    for (int i = 10; i >= 1; i--)
        s += "==> Press CTRL-c if you want aborting this operation within " + std::to_string(i) +
             " secs\n";
    return s;
}

// The files koblab stored in dir, by name.
inline std::vector<std::string> storedReports(const std::string &dir) {
    std::vector<std::string> out;
    for (int i = 1; i < 100; i++) {
        char name[32];
        snprintf(name, sizeof name, "/report-%04d.http", i);
        if (kobtest::fileExists(dir + name))
            out.push_back(dir + name);
    }
    return out;
}

// The last line of a text.
inline std::string lastLine(const std::string &s) {
    if (s.empty())
        return s;
    size_t at = s.rfind('\n', s.size() - 2);
    return at == std::string::npos ? s : s.substr(at + 1);
}

} // namespace lab_test

#endif
