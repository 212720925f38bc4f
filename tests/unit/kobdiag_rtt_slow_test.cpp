// Probe cases that wait out their real limits: 3 s for UDP, 1 s for TCP.

#include <string>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobnet.h"
#include "rtt_support.h"

namespace {

TEST(RttSlow, UdpWithoutAnswerTimesOutAfterThreeSeconds) {
    rtt_test::freshReport();
    kobtest::UdpResponder silent("", false);
    int ret = -2;
    double t0 = VTIM_mono();
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_udp("127.0.0.1", silent.port()); });
    double waited = VTIM_mono() - t0;
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(err, "UDP: select timeout\n");
    EXPECT_EQ(rtt_test::reportText(), err);
    EXPECT_GE(waited, 2.99);
    EXPECT_LT(waited, 6.0);
}

TEST(RttSlow, TcpUnansweredConnectTimesOutAfterTheLimit) {
    rtt_test::freshReport();
    kobtest::StalledListener stalled;
    int ret = -2;
    double t0 = VTIM_mono();
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_tcp("127.0.0.1", stalled.port, 1); });
    double waited = VTIM_mono() - t0;
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(err, "TCP: select timeout\n");
    EXPECT_EQ(rtt_test::reportText(), err);
    EXPECT_GE(waited, 0.99);
    EXPECT_LT(waited, 4.0);
}

} // namespace
