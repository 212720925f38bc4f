#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobtest.h"
#include "report_buffer.h"
#include "vsb.h"

namespace {

using ReportChannel = kobtest::ReportBuffer;

TEST_F(ReportChannel, LongTextIsShownAndAppendedWhole) {
    std::string text(10000, 'z');
    int r = 0;
    std::string err = kobtest::captureFd(2, [&] { r = DIA_printf("%s", text.c_str()); });
    EXPECT_EQ(r, 10000);
    EXPECT_EQ(err, text);
    EXPECT_EQ(report(), text);
}

TEST_F(ReportChannel, EmptyFormatShowsAndAppendsNothing) {
    int r = -5;
    std::string err = kobtest::captureFd(2, [&] { r = DIA_printf("%s", ""); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(report(), "");
    const char *empty = ""; // through a variable: the compiler warns on a literal ""
    err = kobtest::captureFd(2, [&] { r = DIA_printf(empty); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(err, "");
}

TEST_F(ReportChannel, PercentInAnArgumentIsShownLiterally) {
    std::string err = kobtest::captureFd(
        2, [&] { DIA_printf("==> Dumping the result of `%s'\n", "printf '%d %s %%'"); });
    const std::string expected = "==> Dumping the result of `printf '%d %s %%''\n";
    EXPECT_EQ(err, expected);
    EXPECT_EQ(report(), expected);
}

TEST_F(ReportChannel, ReportEqualsWhatStandardErrorShowed) {
    std::string err = kobtest::captureFd(2, [&] {
        for (int i = 1; i <= 5; i++)
            DIA_printf("==> Testing UDP pass-through (%d of 5)\n", i);
        DIA_printf("%s", std::string(5000, 'x').c_str());
        DIA_printf("==> Package Version: %s\n", "4.4.1");
    });
    EXPECT_EQ(report(), err);
    EXPECT_GT(err.size(), 5000u);
}

TEST_F(ReportChannel, ZeroByteEndsTheShownText) {
    // What the channel passes on is cut at a zero byte by "%.*s".
    int r = 0;
    std::string err = kobtest::captureFd(2, [&] { r = DIA_printf("%.*s", 5, "ab\0cd"); });
    EXPECT_EQ(r, 2);
    EXPECT_EQ(err, "ab");
    EXPECT_EQ(report(), "ab");
}

TEST_F(ReportChannel, TextBuiltInTheTailIsCountedInPlace) {
    DIA_printf("head\n");
    size_t room = 0;
    char *tail = dia_reportTail(300000, &room);
    ASSERT_NE(tail, nullptr);
    EXPECT_GT(room, 300000u);
    EXPECT_EQ(tail, dia_msg->s_buf + dia_msg->s_len);
    EXPECT_EQ(report(), "head\n");
    std::string text(300000, 'q');
    text[0] = '[';
    memcpy(tail, text.data(), text.size());
    char *storage = dia_msg->s_buf;
    int r = 0;
    std::string err =
        kobtest::captureFd(2, [&] { r = DIA_printf("%.*s", static_cast<int>(text.size()), tail); });
    EXPECT_EQ(r, 300000);
    EXPECT_EQ(err, text);
    EXPECT_EQ(report(), "head\n" + text);
    EXPECT_EQ(dia_msg->s_buf, storage); // neither moved nor grown
}

TEST_F(ReportChannel, ZeroByteInTheTailEndsTheCountedText) {
    size_t room = 0;
    char *tail = dia_reportTail(5, &room);
    ASSERT_NE(tail, nullptr);
    memcpy(tail, "ab\0cd", 5);
    std::string err = kobtest::captureFd(2, [&] { DIA_printf("%.*s", 5, tail); });
    EXPECT_EQ(err, "ab");
    EXPECT_EQ(report(), "ab");
    DIA_printf("x");
    EXPECT_EQ(report(), "abx");
}

TEST_F(ReportChannel, NoTailInASealedReport) {
    vsb_finish(dia_msg);
    size_t room = 0;
    EXPECT_EQ(dia_reportTail(5, &room), nullptr);
    vsb_clear(dia_msg);
}

TEST(DiaGetOSVersion, IsAlwaysSkipped) {
    EXPECT_STREQ(DIA_getOSVersion(), "skipped");
}

} // namespace
