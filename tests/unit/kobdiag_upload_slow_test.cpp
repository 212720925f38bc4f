// The upload against a server whose handshake never completes: the full
// 10-second connect limit.

#include <string>

#include <gtest/gtest.h>

#include "upload_support.h"
#include "vtim.h"

namespace {

TEST(DiaSendReportSlow, APeerThatNeverCompletesTheHandshakeIsOneVssOpenRecord) {
    kobtest::StalledListener stalled;
    double t0 = VTIM_mono();
    auto r = upload_test::sendReport(
        "127.0.0.1", stalled.port, [] { return upload_test::reportOf("x"); }, "u", nullptr);
    double elapsed = VTIM_mono() - t0;
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(kobtest::logRecords(r.out, "----", "dia"),
              std::vector<std::string>{"VSS_open(2) error: 2 0"});
    EXPECT_GE(elapsed, 9.9);
    EXPECT_LT(elapsed, 15.0);
}

} // namespace
