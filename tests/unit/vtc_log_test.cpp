#include "vtc_log.h"

#include <cstdarg>
#include <cstdlib>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kobtest.h"

namespace {

const char kVtcLog[] = "lib/libkob/vtc_log.cpp";

// A loaded machine (or a sanitizer) may let whole hundredths of a second
// pass between two lines of one test. Where the text of the lines is what a
// test checks, every elapsed time under ten seconds reads as 0.00; the clock
// itself is checked by FirstLineOfTheProcess and
// ElapsedTimeCountsFromTheFirstLine.
std::string atTimeZero(const std::string &out) {
    static const std::regex time(R"(([-#]+ +)[0-9]\.[0-9][0-9] )");
    return std::regex_replace(out, time, "$010.00 ");
}

TEST(VtcLog, FirstLineOfTheProcess) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("dia", nullptr);
        vtc_log(vl, 0, "x");
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "----   0.00 dia  x\n");
}

TEST(VtcLog, NamesArePaddedToFourAndNeverCut) {
    auto r = kobtest::runChild([] {
        vtc_log(vtc_logopen("ab", nullptr), 1, "short");
        vtc_log(vtc_logopen("abcd", nullptr), 2, "four");
        vtc_log(vtc_logopen("longname", nullptr), 3, "long");
        vtc_log(vtc_logopen("", nullptr), 4, "empty");
    });
    EXPECT_EQ(atTimeZero(r.out), "#      0.00 ab   short\n"
                                 "##     0.00 abcd four\n"
                                 "###    0.00 longname long\n"
                                 "####   0.00      empty\n");
}

TEST(VtcLog, LevelFiveAborts) {
    auto r = kobtest::runChild([] { vtc_log(vtc_logopen("x", nullptr), 5, "no"); });
    EXPECT_TRUE(kobtest::vasAbort(r, "vtc_log", kVtcLog, "lvl < NLEAD"));
    auto d = kobtest::runChild([] { vtc_dump(vtc_logopen("x", nullptr), 5, nullptr, "no", -1); });
    EXPECT_TRUE(kobtest::vasAbort(d, "vtc_dump", kVtcLog, "lvl < NLEAD"));
}

TEST(VtcLog, EmbeddedNewlinesPassUnprefixed) {
    auto r = kobtest::runChild([] { vtc_log(vtc_logopen("dia", nullptr), 0, "a\nb%d", 5); });
    EXPECT_EQ(atTimeZero(r.out), "----   0.00 dia  a\nb5\n");
}

TEST(VtcLog, ElapsedTimeCountsFromTheFirstLine) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("t", nullptr);
        vtc_log(vl, 0, "first");
        struct timespec pause = {0, 30000000};
        nanosleep(&pause, nullptr);
        vtc_log(vl, 0, "second");
    });
    // At least the 30 ms slept; a loaded machine may add any amount.
    std::regex second(R"(----   0\.00 t    first\n---- +([0-9]+\.[0-9][0-9]) t    second\n)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(r.out, m, second)) << r.out;
    EXPECT_GE(std::stod(m[1]), 0.03);
    EXPECT_LT(std::stod(m[1]), 10.0);
}

TEST(VtcLog, VerbosityFiltersHigherLevels) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("v", nullptr);
        vtc_verbosity = 1;
        vtc_log(vl, 2, "hidden");
        vtc_log(vl, 1, "shown");
        vtc_dump(vl, 3, nullptr, "hidden", -1);
    });
    EXPECT_EQ(atTimeZero(r.out), "#      0.00 v    shown\n");
}

TEST(VtcLog, ObjectChecks) {
    auto nul = kobtest::runChild([] { vtc_log(nullptr, 0, "x"); });
    EXPECT_TRUE(kobtest::vasAbort(nul, "vtc_log", kVtcLog, "(vl) != 0"));
    auto closed = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("x", nullptr);
        vtclog copy = *vl;
        vtc_logclose(vl);
        copy.magic = 0;
        vtc_log(&copy, 0, "x");
    });
    EXPECT_TRUE(kobtest::vasAbort(closed, "vtc_log", kVtcLog, "(vl)->magic == 0x82731202"));
    auto dumpNull = kobtest::runChild([] { vtc_dump(nullptr, 0, nullptr, "x", -1); });
    EXPECT_TRUE(kobtest::vasAbort(dumpNull, "vtc_dump", kVtcLog, "(vl) != NULL"));
    auto closeNull = kobtest::runChild([] { vtc_logclose(nullptr); });
    EXPECT_TRUE(kobtest::vasAbort(closeNull, "vtc_logclose", kVtcLog, "(vl) != NULL"));
}

TEST(VtcLog, OpenAndClose) {
    vtclog *vl = vtc_logopen("oc", nullptr);
    ASSERT_NE(vl, nullptr);
    EXPECT_EQ(vl->magic, VTCLOG_MAGIC);
    EXPECT_STREQ(vl->id, "oc");
    EXPECT_NE(vl->vsb, nullptr);
    vtc_logclose(vl);
}

TEST(VtcDump, NullStringWritesNull) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("dia", nullptr);
        vtc_log(vl, 0, "start");
        vtc_dump(vl, 1, "pfx", nullptr, -1);
        vtc_dump(vl, 1, nullptr, nullptr, 0);
    });
    EXPECT_EQ(atTimeZero(r.out),
              "----   0.00 dia  start\n#      0.00 dia  pfx(null)\n#      0.00 dia  (null)\n");
}

TEST(VtcDump, NewlineEscapedThenBroken) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("dia", nullptr);
        vtc_log(vl, 0, "start");
        vtc_dump(vl, 0, nullptr, "A\n", -1);
    });
    EXPECT_EQ(atTimeZero(r.out), "----   0.00 dia  start\n----   0.00 dia  | A\\n\n");
}

TEST(VtcDump, EscapesAndLines) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("dia", nullptr);
        vtc_log(vl, 0, "start");
        vtc_dump(vl, 2, "p ", "a\tb\rc\x01\x7f\x80~\nsecond", -1);
        vtc_dump(vl, 2, nullptr, "nul\0byte", 8);
    });
    EXPECT_EQ(atTimeZero(r.out), "----   0.00 dia  start\n"
                                 "##     0.00 dia  p | a\\tb\\rc\\x01\\x7f\\x80~\\n\n"
                                 "##     0.00 dia  p | second\n"
                                 "##     0.00 dia  | nul\\x00byte\n");
}

TEST(VtcDump, LongTextIsCutAfter513BytesUnlessMinusTwo) {
    auto r = kobtest::runChild([] {
        vtclog *vl = vtc_logopen("dia", nullptr);
        vtc_log(vl, 0, "start");
        std::string text(600, 'a');
        vtc_dump(vl, 0, nullptr, text.c_str(), -1);
        vtc_dump(vl, 0, nullptr, text.c_str(), -2);
        vtc_dump(vl, 0, nullptr, text.c_str(), 600);
    });
    std::string prefix = "----   0.00 dia  | ";
    EXPECT_EQ(atTimeZero(r.out), "----   0.00 dia  start\n" + prefix + std::string(513, 'a') +
                                     "...\n" + prefix + std::string(600, 'a') + "\n" + prefix +
                                     std::string(513, 'a') + "...\n");
}

TEST(VtcDump, BeforeAnyLogTheTimeIsRawWallClock) {
    auto r = kobtest::runChild([] { vtc_dump(vtc_logopen("dia", nullptr), 0, nullptr, "x", -1); });
    std::regex raw(R"(---- [0-9]{10,}\.[0-9][0-9] dia  \| x\n)");
    EXPECT_TRUE(std::regex_match(r.out, raw)) << r.out;
}

std::string hooked;
int hookResult = 0;

int hook(unsigned lvl, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char buf[256];
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    hooked += std::to_string(lvl) + ":" + buf;
    return hookResult;
}

TEST(VtcLog, HookTakesTheLine) {
    auto r = kobtest::runChild([] {
        hookResult = 0;
        vtc_log(vtc_logopen("h", hook), 3, "%s", "hooked");
        printf("[%s]", hooked.c_str());
    });
    EXPECT_EQ(atTimeZero(r.out), "[3:###    0.00 h    hooked\n]");
}

TEST(VtcLog, HookDecliningSendsTheLineToStandardOutputToo) {
    auto r = kobtest::runChild([] {
        hookResult = -1;
        vtclog *vl = vtc_logopen("h", hook);
        vtc_log(vl, 1, "both");
        vtc_dump(vl, 1, nullptr, "dump", -1);
        printf("[%s]", hooked.c_str());
    });
    EXPECT_EQ(atTimeZero(r.out), "#      0.00 h    both\n#      0.00 h    | dump\n"
                                 "[1:#      0.00 h    both\n1:#      0.00 h    | dump\n]");
}

TEST(VtcLog, ThreadsNeverMixLines) {
    constexpr int kThreads = 8;
    constexpr int kLines = 10000;
    vtclog *vl = vtc_logopen("mt", nullptr);
    std::string out = kobtest::captureFd(1, [&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; t++)
            threads.emplace_back([vl, t] {
                for (int i = 0; i < kLines; i++)
                    vtc_log(vl, 2, "thread %d line %d %s", t, i, "payload-payload-payload");
            });
        for (auto &th : threads)
            th.join();
    });
    vtc_logclose(vl);
    std::istringstream in(out);
    std::string line;
    std::vector<int> next(kThreads, 0);
    std::regex form(
        R"(##  +[0-9]+\.[0-9][0-9] mt   thread ([0-7]) line ([0-9]+) payload-payload-payload)");
    int count = 0;
    while (std::getline(in, line)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, form)) << line;
        int t = std::stoi(m[1]);
        ASSERT_EQ(std::stoi(m[2]), next[t]) << "thread " << t; // in order, none lost
        next[t]++;
        count++;
    }
    EXPECT_EQ(count, kThreads * kLines);
}

} // namespace

#include "vtc_log_priv.h"

namespace {

TEST(VtcLogSeconds, FormatsAsPrintfWould) {
    std::vector<double> values = {
        0.0,           0.001, 0.004999,    0.005,  0.015,  0.125,   0.135,      0.145,
        1.005,         2.675, 9.995,       99.995, 999.99, 999.995, 1e6,        1234567.891,
        9999999.995,   1e7,   1e7 + 0.005, -0.001, -0.005, -1.5,    -12345.678, 1.8e9,
        1.8e9 + 0.125, 1e300, 5e-324,      0.07,   0.29,   0.57,    1.15,       4.35};
    unsigned seed = 12345;
    for (int i = 0; i < 200000; i++) {
        seed = seed * 1103515245u + 12345u;
        values.push_back(static_cast<double>(seed % 100000000) / 1000.0);
        values.push_back(static_cast<double>(seed % 100000) / 1e4 + 0.005);
    }
    values.push_back(std::numeric_limits<double>::infinity());
    values.push_back(std::numeric_limits<double>::quiet_NaN());
    for (double v : values) {
        char want[400];
        snprintf(want, sizeof want, "%6.2f", v);
        char got[400];
        size_t n = kob::formatSeconds(got, v);
        ASSERT_EQ(std::string(got, n), want) << "value " << v;
    }
}

} // namespace
