// koblog and kobstat, run as built against segment files made by the writer.

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#if KOB_HAVE_JSON_PARSER
#include <nlohmann/json.hpp>
#endif

#include "kobtest.h"
#include "segwriter.h"

using kobseg::LogRing;
using kobseg::Segment;
using kobtest::runProgram;

namespace {

const char kName[] = ".kobvane.vsm";

const char kLogUsage[] = "usage: koblog [-n instance] [-d] [--json]\n"
                         "  -n instance  segment to read: .kobvane.vsm (default), .kobflow.vsm,\n"
                         "               .kobrun.vsm, in the current directory\n"
                         "  -d           print the ring from its start and exit at its end\n"
                         "  --json       print each record as one JSON object\n";
const char kStatUsage[] = "usage: kobstat [-n instance] [-1] [--prometheus]\n"
                          "  -n instance  segment to read: .kobvane.vsm (default), .kobflow.vsm,\n"
                          "               .kobrun.vsm, in the current directory\n"
                          "  -1           print the counters once and exit\n"
                          "  --prometheus print them once in Prometheus' text format and exit\n";

// A program left running with its standard output on a pipe.
class Running {
  public:
    Running(const std::vector<std::string> &argv, const std::string &cwd) {
        int p[2];
        if (pipe(p) != 0)
            throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(p[1], 1);
            close(p[0]);
            close(p[1]);
            if (chdir(cwd.c_str()) != 0)
                _exit(126);
            std::vector<char *> args;
            for (const auto &a : argv)
                args.push_back(const_cast<char *>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(p[1]);
        fd_ = p[0];
    }
    ~Running() {
        stop();
        close(fd_);
    }
    // Read until the output holds `want` lines; the limit only guards
    // against a hang, it is not what the test waits for.
    std::string readLines(size_t want) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (lines() < want && std::chrono::steady_clock::now() < deadline) {
            pollfd pfd = {fd_, POLLIN, 0};
            if (poll(&pfd, 1, 200) <= 0)
                continue;
            char buf[4096];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0)
                break;
            out_.append(buf, static_cast<size_t>(n));
        }
        return text();
    }
    // Make sure the program is reading: it starts at the ring's current
    // end at a moment we cannot see, so records go in, one at a time, until
    // the first of them comes out.  What it prints of them is dropped.
    void sync(const std::function<void()> &appendSync) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        size_t from = out_.size();
        while (out_.find(" sync\n", from) == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            appendSync();
            pollfd pfd = {fd_, POLLIN, 0};
            if (poll(&pfd, 1, 100) <= 0)
                continue;
            char buf[4096];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0)
                break;
            out_.append(buf, static_cast<size_t>(n));
        }
    }
    // Everything printed so far, without the lines of sync records.
    std::string text() const {
        std::string kept;
        std::istringstream in(out_);
        std::string line;
        while (std::getline(in, line))
            if (!line.ends_with(" sync"))
                kept += line + "\n";
        return kept;
    }
    int stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, &status_, 0);
            pid_ = -1;
        }
        return status_;
    }

  private:
    size_t lines() const {
        size_t n = 0;
        std::istringstream in(out_);
        std::string line;
        while (std::getline(in, line))
            n += !line.ends_with(" sync");
        return n;
    }
    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = 0;
    std::string out_;
};

class Tools : public ::testing::Test {
  protected:
    std::string path(const char *name = kName) const { return dir_.file(name); }
    kobtest::ChildResult koblog(const std::vector<std::string> &args) {
        std::vector<std::string> argv{KOBLOG_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProgram(argv, dir_.path());
    }
    kobtest::ChildResult kobstat(const std::vector<std::string> &args) {
        std::vector<std::string> argv{KOBSTAT_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProgram(argv, dir_.path());
    }
    kobtest::TempDir dir_;
};

TEST_F(Tools, KoblogDumpPrintsEveryRecordAndExits) {
    Segment seg(path(), 1 << 16);
    seg.addChunk("Stat", "", "", 240);
    LogRing ring(seg, seg.addChunk("Log", "", "", 4096), 1);
    ring.append(12, 1, 0, "ready");
    ring.append(2, 42, kobseg::sideA, "get mtu");
    ring.append(29, 7, kobseg::sideB, std::string("gw 10.0.0.1\n\t\\\x01\x7f\xff\0", 18));
    ring.append(21, 1073741823, kobseg::sideA | kobseg::sideB, "");
    ring.append(200, 3, 0, "unnamed");
    auto r = koblog({"-d"});
    EXPECT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              "VaneReady                      1 -- ready\n"
              "VaneGet                       42 A- get mtu\n"
              "HostDefaultGateway             7 -B gw 10.0.0.1\\n\\t\\\\\\001\\177\\377\\000\n"
              "FlowPanicMsg          1073741823 AB \n"
              "Tag200                         3 -- unnamed\n");
}

TEST_F(Tools, KoblogDumpOfAnEmptyRingPrintsNothing) {
    Segment seg(path(), 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", 4096), 1);
    auto r = koblog({"-d"});
    EXPECT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST_F(Tools, KoblogReadsTheNamedInstance) {
    Segment vane(path(), 1 << 16);
    LogRing a(vane, vane.addChunk("Log", "", "", 4096), 1);
    a.append(1, 1, 0, "vane");
    Segment flow(path(".kobflow.vsm"), 1 << 16);
    LogRing b(flow, flow.addChunk("Log", "", "", 4096), 1);
    b.append(1, 2, 0, "flow");
    auto r = koblog({"-d", "-n", ".kobflow.vsm"});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "Debug                          2 -- flow\n");
}

TEST_F(Tools, KoblogDumpStopsAtAnInconsistentRing) {
    Segment seg(path(), 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", 1024), 1);
    ring.append(1, 1, 0, "x");
    ring.putWord(ring.pos(), kobseg::recordWord0(1, 5000));
    auto r = koblog({"-d"});
    EXPECT_TRUE(r.exited(1)) << r.status;
    EXPECT_EQ(r.out, "Debug                          1 -- x\n");
    EXPECT_EQ(r.err, "koblog: the log ring is inconsistent (-3)\n");
}

TEST_F(Tools, KoblogRefusesWhatItCannotOpen) {
    struct Case {
        const char *what;
        std::function<void()> make;
        std::vector<std::string> args;
        const char *err;
    } cases[] = {
        {"no file", [] {}, {}, "koblog: Cannot open .kobvane.vsm: No such file or directory\n"},
        {"no such instance file",
         [] {},
         {"-d", "-n", ".kobrun.vsm"},
         "koblog: Cannot open .kobrun.vsm: No such file or directory\n"},
        {"being built",
         [&] {
             Segment seg(path(), 4096, 0);
             seg.addChunk("Log", "", "", 64);
         },
         {"-d"},
         "koblog: Not a VSM file .kobvane.vsm\n"},
        {"larger than its file",
         [&] {
             Segment seg(path(), 4096);
             seg.put64(kobseg::headSegSizeAt, 8192);
         },
         {},
         "koblog: Not a VSM file .kobvane.vsm\n"},
        {"no log",
         [&] {
             Segment seg(path(), 4096);
             seg.addChunk("Stat", "", "", 240);
         },
         {"-d"},
         "koblog: no log in .kobvane.vsm\n"},
        {"unknown instance",
         [] {},
         {"-n", "kobvane.vsm"},
         "koblog: unknown instance kobvane.vsm\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        unlink(path().c_str());
        c.make();
        auto r = koblog(c.args);
        EXPECT_TRUE(r.exited(1)) << r.status;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, c.err);
    }
}

TEST_F(Tools, BadOptionsPrintTheUsage) {
    for (const auto &args : std::vector<std::vector<std::string>>{{"-x"}, {"extra"}, {"-n"}}) {
        SCOPED_TRACE(args[0]);
        auto r = koblog(args);
        EXPECT_TRUE(r.exited(1));
        EXPECT_TRUE(r.err.ends_with(kLogUsage)) << r.err;
        EXPECT_EQ(r.out, "");
        r = kobstat(args);
        EXPECT_TRUE(r.exited(1));
        EXPECT_TRUE(r.err.ends_with(kStatUsage)) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(Tools, KoblogFollowingPrintsNoRecordPresentWhenItStarted) {
    // A later generation: the reader itself would deliver these from the
    // ring's start.
    Segment seg(path(), 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", 4096), 5);
    ring.append(1, 1, 0, "present at start");
    ring.append(2, 2, kobseg::sideB, "also present");
    Running log({KOBLOG_BIN}, dir_.path());
    log.sync([&] { ring.append(1, 0, 0, "sync"); });
    ring.append(12, 3, 0, "written later");
    EXPECT_EQ(log.readLines(1), "VaneReady                      3 -- written later\n");
}

TEST_F(Tools, KoblogFollowsNewRecordsRestartsAndANewSegment) {
    auto seg = std::make_unique<Segment>(path(), 1 << 16);
    auto ring = std::make_unique<LogRing>(*seg, seg->addChunk("Log", "", "", 4096), 1);
    ring->append(1, 1, 0, "before start");
    Running log({KOBLOG_BIN}, dir_.path());
    log.sync([&] { ring->append(1, 0, 0, "sync"); });
    ring->append(12, 2, 0, "one");
    ring->append(13, 3, kobseg::sideA, "two");
    EXPECT_EQ(log.readLines(2), "VaneReady                      2 -- one\n"
                                "VaneSet                        3 A- two\n");
    // The daemon restarts its ring.
    ring->restart(2);
    ring->append(14, 4, 0, "three");
    EXPECT_EQ(log.readLines(3), "VaneReady                      2 -- one\n"
                                "VaneSet                        3 A- two\n"
                                "VaneUserInfo                   4 -- three\n");
    // The daemon goes away and comes back with a new segment file.
    seg->remove();
    ring.reset();
    seg = std::make_unique<Segment>(path(), 1 << 16);
    ring = std::make_unique<LogRing>(*seg, seg->addChunk("Log", "", "", 4096), 1);
    log.sync([&] { ring->append(1, 0, 0, "sync"); });
    ring->append(15, 5, 0, "four");
    EXPECT_EQ(log.readLines(4), "VaneReady                      2 -- one\n"
                                "VaneSet                        3 A- two\n"
                                "VaneUserInfo                   4 -- three\n"
                                "FlowADNAdd                     5 -- four\n");
    int status = log.stop();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

std::string statLine(const std::string &name, uint64_t value, const char *rate, const char *sdesc) {
    char buf[256];
    snprintf(buf, sizeof buf, "%-24s %20" PRIu64 " %12s  %s\n", name.c_str(), value, rate, sdesc);
    return buf;
}

TEST_F(Tools, KobstatOncePrintsTheThirtyCounters) {
    Segment seg(path(".kobrun.vsm"), 4096);
    uint64_t main = seg.addChunk("Stat", "", "", 240);
    for (unsigned i = 0; i < 30; i++)
        seg.setCounter(main, i, i * 1000 + (i == 29 ? 18446744073709551615u - 29000 : 0));
    auto r = kobstat({"-1", "-n", ".kobrun.vsm"});
    EXPECT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.err, "");
    const char *groups[] = {"ath", "bwn", "re", "msk", "zyd"};
    const char *fields[] = {"if_opackets", "if_ipackets", "if_oerrors",
                            "if_ierrors",  "if_obytes",   "if_ibytes"};
    const char *dirs[] = {"output", "input", "output", "input", "output", "input"};
    const char *qtys[] = {"packets", "packets", "errors", "errors", "bytes", "bytes"};
    std::string want = "COUNTER                                 VALUE   PER SECOND  DESCRIPTION\n";
    for (unsigned i = 0; i < 30; i++) {
        std::string g = groups[i / 6];
        std::string sdesc =
            std::string("Interface ") + dirs[i % 6] + " " + qtys[i % 6] + " for " + g + "(4)";
        want += statLine(g + "_" + fields[i % 6], i == 29 ? 18446744073709551615u : i * 1000, "-",
                         sdesc.c_str());
    }
    EXPECT_EQ(r.out, want);
}

TEST_F(Tools, KobstatRefusesWhatItCannotOpen) {
    auto r = kobstat({"-1"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "kobstat: Cannot open .kobvane.vsm: No such file or directory\n");
    {
        Segment seg(path(), 4096);
        seg.addChunk("Stat", "typed", "", 240);
    }
    r = kobstat({"-1"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "kobstat: no counters in .kobvane.vsm\n");
    r = kobstat({"-1", "-n", ".kobX"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "kobstat: unknown instance .kobX\n");
}

// Slow: the second screen comes a second after the first.
TEST_F(Tools, KobstatRefreshShowsRatesFromTheSecondScreen) {
    Segment seg(path(), 4096);
    uint64_t main = seg.addChunk("Stat", "", "", 240);
    seg.setCounter(main, 0, 100);
    Running stat({KOBSTAT_BIN}, dir_.path());
    std::string first = stat.readLines(31);
    ASSERT_EQ(first.find("\n\n"), std::string::npos);
    EXPECT_NE(
        first.find(statLine("ath_if_opackets", 100, "-", "Interface output packets for ath(4)")),
        std::string::npos)
        << first;
    seg.setCounter(main, 0, 1000100);
    std::string both = stat.readLines(63);
    stat.stop();
    std::string second = both.substr(first.size());
    ASSERT_TRUE(second.starts_with("\nCOUNTER")) << first << "----" << second;
    std::istringstream in(second.substr(second.find("ath_if_opackets")));
    std::string name, rate;
    uint64_t value;
    in >> name >> value >> rate;
    EXPECT_EQ(value, 1000100u);
    double perSecond = std::stod(rate);
    // One million in about a second.
    EXPECT_GT(perSecond, 300000.0);
    EXPECT_LT(perSecond, 1100000.0);
    EXPECT_NE(
        second.find(statLine("ath_if_ipackets", 0, "0.0", "Interface input packets for ath(4)")),
        std::string::npos);
}

} // namespace

// Each line as written, from the member after the time (which is the
// moment of reading) to the end.
TEST_F(Tools, KoblogJsonEscapesControlsAndReplacesEachIllFormedSequenceOnce) {
    Segment seg(path(), 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", 4096), 1);
    ring.append(12, 1, 0, "ready");
    ring.append(29, 7, kobseg::sideB, "q\"b\\\n\r\t\b\f\x01\x1f\x7f/");
    ring.append(2, 42, kobseg::sideA, "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    // A cut sequence, a stray byte, a surrogate, beyond U+10FFFF, overlong.
    ring.append(21, 1073741823, kobseg::sideA | kobseg::sideB,
                "\xe2\x82"
                "A\xff\xed\xa0\x80\xf4\x90\x80\x80\xc0\xaf");
    ring.append(200, 3, 0, "");
    auto r = koblog({"-d", "--json"});
    ASSERT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.err, "");
    const std::string fffd = "\xef\xbf\xbd";
    const std::string want[] = {
        R"(,"tag":12,"tag_name":"VaneReady","id":1,"side":"","payload":"ready"})",
        R"(,"tag":29,"tag_name":"HostDefaultGateway","id":7,"side":"B",)"
        R"("payload":"q\"b\\\n\r\t\b\f\u0001\u001f)"
        "\x7f"
        R"(/"})",
        R"(,"tag":2,"tag_name":"VaneGet","id":42,"side":"A","payload":")"
        "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"}",
        R"(,"tag":21,"tag_name":"FlowPanicMsg","id":1073741823,"side":"AB","payload":")" + fffd +
            "A" + fffd + fffd + fffd + fffd + fffd + fffd + fffd + fffd + fffd + fffd + "\"}",
        R"(,"tag":200,"tag_name":null,"id":3,"side":"","payload":""})",
    };
    std::istringstream in(r.out);
    std::string line;
    size_t i = 0;
    while (std::getline(in, line)) {
        SCOPED_TRACE(line);
        ASSERT_LT(i, std::size(want));
        ASSERT_EQ(line.rfind("{\"time\":\"", 0), 0u);
        ASSERT_GE(line.size(), 34u);
        EXPECT_EQ(line.substr(34), want[i]);
        i++;
    }
    EXPECT_EQ(i, std::size(want));
}

#if KOB_HAVE_JSON_PARSER
TEST_F(Tools, KoblogJsonPrintsOneObjectPerRecordThatAJsonParserReads) {
    Segment seg(path(), 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", 4096), 1);
    ring.append(12, 1, 0, "ready");
    ring.append(2, 42, kobseg::sideA, "get \"mtu\"");
    ring.append(29, 7, kobseg::sideB, std::string("gw 10.0.0.1\n\t\\\x01\x7f\xff\0", 18));
    ring.append(21, 1073741823, kobseg::sideA | kobseg::sideB, "");
    ring.append(200, 3, 0, "unnamed");
    auto r = koblog({"-d", "--json"});
    ASSERT_TRUE(r.exited(0)) << r.status;
    EXPECT_EQ(r.err, "");
    std::vector<nlohmann::json> lines;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        ASSERT_FALSE(j.is_discarded()) << line;
        lines.push_back(j);
    }
    ASSERT_EQ(lines.size(), 5u) << r.out;
    struct Want {
        unsigned tag;
        nlohmann::json name;
        unsigned id;
        const char *side;
        std::string payload;
    } want[] = {
        {12, "VaneReady", 1, "", "ready"},
        {2, "VaneGet", 42, "A", "get \"mtu\""},
        {29, "HostDefaultGateway", 7, "B",
         std::string("gw 10.0.0.1\n\t\\\x01\x7f\xef\xbf\xbd\0", 20)},
        {21, "FlowPanicMsg", 1073741823, "AB", ""},
        {200, nullptr, 3, "", "unnamed"},
    };
    for (size_t i = 0; i < 5; i++) {
        SCOPED_TRACE(i);
        const auto &j = lines[i];
        EXPECT_EQ(j.size(), 6u);
        EXPECT_EQ(j["tag"], want[i].tag);
        EXPECT_EQ(j["tag_name"], want[i].name);
        EXPECT_EQ(j["id"], want[i].id);
        EXPECT_EQ(j["side"], want[i].side);
        EXPECT_EQ(j["payload"], want[i].payload);
        std::string t = j["time"];
        ASSERT_EQ(t.size(), 24u) << t;
        EXPECT_EQ(t[10], 'T');
        EXPECT_EQ(t.substr(19, 1) + t.substr(23), ".Z");
    }
}

#endif

TEST_F(Tools, KobstatPrometheusPrintsEveryCounterForPromtool) {
    Segment seg(path(".kobrun.vsm"), 1 << 14);
    uint64_t main = seg.addChunk("Stat", "", "", 240);
    uint64_t second = seg.addChunk("Stat", "", "wlan\"0", 240);
    for (unsigned i = 0; i < 30; i++) {
        seg.setCounter(main, i, i * 1000 + (i == 29 ? 18446744073709551615u - 29000 : 0));
        seg.setCounter(second, i, i);
    }
    auto r = kobstat({"--prometheus", "-n", ".kobrun.vsm"});
    ASSERT_TRUE(r.exited(0)) << r.status << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(
        r.out.rfind("# HELP kob_ath_if_opackets_total Interface output packets for ath(4)\n"
                    "# TYPE kob_ath_if_opackets_total counter\n"
                    "kob_ath_if_opackets_total{instance=\".kobrun.vsm\"} 0\n"
                    "kob_ath_if_opackets_total{instance=\".kobrun.vsm\",ident=\"wlan\\\"0\"} 0\n"
                    "# HELP kob_ath_if_ipackets_total Interface input packets for ath(4)\n",
                    0),
        0u)
        << r.out;
    EXPECT_NE(
        r.out.find("kob_zyd_if_ibytes_total{instance=\".kobrun.vsm\"} 18446744073709551615\n"),
        std::string::npos);
    size_t helps = 0;
    for (size_t at = 0; (at = r.out.find("# HELP ", at)) != std::string::npos; at++)
        helps++;
    EXPECT_EQ(helps, 30u);
    if (access("/usr/bin/promtool", X_OK) != 0)
        GTEST_SKIP() << "promtool is not installed (Debian package prometheus)";
    kobtest::writeFile(dir_.file("metrics.txt"), r.out);
    auto check = runProgram(
        {"/bin/sh", "-c", "/usr/bin/promtool check metrics < " + dir_.file("metrics.txt")});
    EXPECT_TRUE(check.exited(0)) << check.out << check.err;
    EXPECT_EQ(check.out + check.err, "");
}
