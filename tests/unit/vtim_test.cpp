#include "vtim.h"

#include <cmath>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "kobtest.h"
#include "odr.h"

namespace {

TEST(Vtim, FirstMonoReadingIsCloseToZero) {
    auto r = kobtest::runChild([] {
        double first = VTIM_mono();
        double second = VTIM_mono();
        printf("%d %d\n", first >= 0.0 && first < 0.01, second >= first);
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "1 1\n");
}

TEST(Vtim, MonoGrows) {
    double a = VTIM_mono();
    struct timespec pause = {0, 2000000};
    nanosleep(&pause, nullptr);
    double b = VTIM_mono();
    EXPECT_GE(b - a, 0.002);
    EXPECT_LT(b - a, 1.0);
}

TEST(Vtim, RealAndNowAgree) {
    // Both read gettimeofday; take the closest of a few pairs.
    double best = 1.0;
    for (int i = 0; i < 100; i++) {
        double a = VTIM_real();
        double b = VTIM_now();
        best = std::min(best, std::fabs(b - a));
    }
    EXPECT_LE(best, 1e-6);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    EXPECT_NEAR(VTIM_real(), static_cast<double>(tv.tv_sec), 2.0);
    EXPECT_NEAR(ODR_real(), VTIM_real(), 0.01);
}

TEST(Vtim, ToTimevalTruncatesTowardZero) {
    struct Case {
        double t;
        long sec;
        long usec;
    } cases[] = {{1.5, 1, 500000}, {-1.5, -1, -500000}, {0.0, 0, 0}, {2.0000019, 2, 1}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.t);
        struct timeval tv = VTIM_toTimeval(c.t);
        EXPECT_EQ(tv.tv_sec, c.sec);
        EXPECT_EQ(tv.tv_usec, c.usec);
    }
}

TEST(OdrClock, UnknownIdentifiersAbort) {
    for (int id : {0, 8}) {
        SCOPED_TRACE(id);
        auto r = kobtest::runChild([id] {
            struct timespec ts;
            (void)ODR_clock_gettime(id, &ts);
        });
        EXPECT_TRUE(kobtest::vasAbort(r, "ODR_clock_gettime", "lib/libkob/odr.cpp", "0 == 1"));
    }
}

TEST(OdrClock, ThreeAndFiveAreMonotonic) {
    auto r = kobtest::runChild([] {
        struct timespec a, b, c;
        ODR_clock_gettime(ODR_CLOCK_MONOTONIC, &a); // starts the clock at 0
        ODR_clock_gettime(3, &b);
        ODR_clock_gettime(5, &c);
        printf("%d %d %d\n", a.tv_sec == 0, b.tv_sec == 0, c.tv_sec == 0);
        ODR_clock_gettime(4, &c);
        printf("%d\n", c.tv_sec == 0 && c.tv_nsec >= b.tv_nsec);
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "1 1 1\n1\n");
}

TEST(OdrClock, RealtimeHasMicrosecondResolution) {
    struct timespec ts;
    ASSERT_EQ(ODR_clock_gettime(ODR_CLOCK_REALTIME, &ts), 0);
    EXPECT_EQ(ts.tv_nsec % 1000, 0);
}

TEST(OdrGettimeofday, ZoneMustBeNull) {
    auto r = kobtest::runChild([] {
        struct timeval tv;
        int zone = 0;
        (void)ODR_gettimeofday(&tv, &zone);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_gettimeofday", "lib/libkob/odr.cpp", "tz == NULL"));
    struct timeval tv = {};
    EXPECT_EQ(ODR_gettimeofday(&tv, nullptr), 0);
    EXPECT_GT(tv.tv_sec, 0);
}

} // namespace
