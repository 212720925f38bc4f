// VSS_open cases that wait out a real connect limit.

#include "vss.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "vtim.h"

using kobtest::Fd;
using kobtest::Listener;
using kobtest::StalledListener;

namespace {

TEST(VssOpenSlow, TimedOutFirstAddressLeavesClassTwoAlthoughTheSecondConnects) {
    // No host name here resolves to two loopback addresses, but ":<port>"
    // gives the wildcard address of each family, and connecting to one
    // reaches that family's loopback.  The first family's listener has a
    // full accept queue, so that attempt uses up the whole limit.
    std::vector<int> fam;
    {
        vss_addr **va;
        int n = VSS_resolve(":9", nullptr, &va, nullptr);
        for (int i = 0; i < n; i++) {
            fam.push_back(va[i]->va_family);
            free(va[i]);
        }
        free(va);
    }
    if (fam.size() < 2)
        GTEST_SKIP() << "the wildcard lookup gives a single family here";
    for (int attempt = 0;; attempt++) {
        Listener second(fam[1]);
        std::unique_ptr<StalledListener> first;
        try {
            first = std::make_unique<StalledListener>(fam[0], second.port);
        } catch (const std::runtime_error &) {
            ASSERT_LT(attempt, 20) << "no port free in both families";
            continue;
        }
        int err = -7;
        int errnum = -7;
        double t0 = VTIM_mono();
        Fd fd(VSS_open((":" + std::to_string(second.port)).c_str(), &err, &errnum, 1.0));
        double waited = VTIM_mono() - t0;
        ASSERT_GE(fd.get(), 0);
        sockaddr_storage peer;
        socklen_t pl = sizeof peer;
        ASSERT_EQ(getpeername(fd.get(), reinterpret_cast<sockaddr *>(&peer), &pl), 0);
        EXPECT_EQ(peer.ss_family, fam[1]);
        EXPECT_EQ(err, 2);
        EXPECT_EQ(errnum, -7);
        EXPECT_GE(waited, 0.99);
        EXPECT_EQ(kobtest::sockTimeout(fd.get(), SO_RCVTIMEO).tv_sec, 1);
        break;
    }
}

} // namespace
