#include "errorcode.h"

#include <string>

#include <gtest/gtest.h>

#include "kobtest.h"

namespace {

const char kErrorcode[] = "lib/libkobec/errorcode.cpp";

TEST(Errorcode, LevelNames) {
    struct Case {
        int level;
        const char *name;
    } cases[] = {{1, "[FATAL]"},   {2, "[ERROR]"},   {3, "[WARN]"},     {4, "[INFO]"},
                 {0, "[UNKNOWN]"}, {7, "[UNKNOWN]"}, {-1, "[UNKNOWN]"}, {5, "[UNKNOWN]"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.level);
        std::string out = kobtest::captureFd(
            1, [&] { kobec_vshowMsg(c.level, "E42", nullptr, "caller", 17, "disk full"); });
        EXPECT_EQ(out,
                  std::string(c.name) + " disk full\n\nFunction: caller:17\nError code: E42\n");
    }
}

TEST(Errorcode, FatalReturns) {
    std::string out = kobtest::captureFd(1, [] {
        KOBEC_showMsg_debug(KOBEC_LEVEL_FATAL, "C1", nullptr, "f", 3, "x=%d", 5);
        printf("after\n");
    });
    EXPECT_EQ(out, "[FATAL] x=5\n\nFunction: f:3\nError code: C1\nafter\n");
}

TEST(Errorcode, LongMessageIsCutTo1023) {
    std::string msg(2000, 'm');
    std::string out = kobtest::captureFd(
        1, [&] { KOBEC_showMsg_debug(KOBEC_LEVEL_INFO, "C", nullptr, "f", 1, "%s", msg.c_str()); });
    // The message is cut to 1023 characters, and so is the whole output.
    EXPECT_EQ(out.size(), 1023u);
    EXPECT_EQ(out, "[INFO] " + msg.substr(0, 1023 - 7));
}

TEST(Errorcode, MessageOfExactly1024Aborts) {
    auto r = kobtest::runChild([] {
        std::string msg(1024, 'm');
        KOBEC_showMsg_debug(KOBEC_LEVEL_INFO, "C", nullptr, "f", 1, "%s", msg.c_str());
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "KOBEC_showMsg_debug", kErrorcode, "0 == 1", 91));
}

TEST(Errorcode, ShownLineOfExactly1024Aborts) {
    // "[INFO] " + msg + "\n\nFunction: f:1\nError code: C\n" is 7 + n + 30 bytes.
    auto r = kobtest::runChild([] {
        std::string msg(1024 - 7 - 30, 'm');
        kobec_vshowMsg(KOBEC_LEVEL_INFO, "C", nullptr, "f", 1, msg.c_str());
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "kobec_vshowMsg", kErrorcode, "0 == 1", 73));
    auto ok = kobtest::runChild([] {
        std::string msg(1024 - 7 - 30 - 1, 'm');
        kobec_vshowMsg(KOBEC_LEVEL_INFO, "C", nullptr, "f", 1, msg.c_str());
    });
    EXPECT_TRUE(ok.exited(0));
    EXPECT_EQ(ok.out.size(), 1023u);
}

} // namespace
