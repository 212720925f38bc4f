#include "odr.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "kobtest.h"

using kobtest::Fd;
using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kOdr[] = "lib/libkob/odr.cpp";

// ---- socket helpers ----------------------------------------------------------------

TEST(OdrPrefix2mask, LeadingOnesWithZeroWrappingToAFullMask) {
    struct Case {
        int bits;
        const char *mask;
    } cases[] = {{24, "255.255.255.0"}, {0, "255.255.255.255"}, {32, "255.255.255.255"},
                 {1, "128.0.0.0"},      {8, "255.0.0.0"},       {31, "255.255.255.254"},
                 {17, "255.255.128.0"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        EXPECT_STREQ(ODR_prefix2mask(c.bits), c.mask);
    }
}

TEST(OdrPrefix2mask, NextCallOverwritesTheResult) {
    char *first = ODR_prefix2mask(8);
    char *second = ODR_prefix2mask(16);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "255.255.0.0");
}

TEST(OdrMask2prefix, CountsOneBitsContiguousOrNot) {
    struct Case {
        const char *mask;
        int bits;
    } cases[] = {{"255.255.255.0", 24}, {"0.0.0.0", 0}, {"255.255.255.255", 32},
                 {"255.0.255.0", 16},   {"0.0.0.1", 1}, {"128.0.0.0", 1}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mask);
        EXPECT_EQ(ODR_mask2prefix(c.mask), c.bits);
    }
    for (int bits = 1; bits <= 32; bits++) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(ODR_mask2prefix(ODR_prefix2mask(bits)), bits);
    }
}

TEST(OdrNonblocking, SetsNonblockingMode) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    ODR_nonblocking(fd.get());
    EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(OdrNonblocking, FailureIsFatalWhateverTheErrno) {
    auto r = runChild([] { ODR_nonblocking(-1); });
    EXPECT_TRUE(vasAbort(r, "ODR_nonblocking", kOdr, "j == 0"));
}

TEST(OdrSetsocktimeout, SetsBothLimitsFromFractionalSeconds) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(ODR_setsocktimeout(fd.get(), 1.5), 0);
    for (int o : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        timeval tv = kobtest::sockTimeout(fd.get(), o);
        EXPECT_EQ(tv.tv_sec, 1);
        EXPECT_EQ(tv.tv_usec, 500000);
    }
}

TEST(OdrSetsocktimeout, SendLimitFailureIsMinusOne) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    Fd r(p[0]);
    Fd w(p[1]);
    EXPECT_EQ(ODR_setsocktimeout(r.get(), 1.0), -1);
    EXPECT_EQ(ODR_setsocktimeout(-1, 1.0), -1);
}

TEST(OdrStrtoul, ParsesLikeStrtoul) {
    char *end;
    EXPECT_EQ(ODR_strtoul("0x1fz", &end, 0), 31ul);
    EXPECT_STREQ(end, "z");
    EXPECT_EQ(ODR_strtoul("777", nullptr, 8), 511ul);
}

} // namespace
