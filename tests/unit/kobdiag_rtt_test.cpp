#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobnet.h"
#include "rtt_support.h"
#include "vsb.h"

using kobtest::ClosedPort;
using kobtest::Listener;
using kobtest::runChild;
using kobtest::StalledListener;
using kobtest::UdpResponder;

namespace {

class Rtt : public ::testing::Test {
  protected:
    void SetUp() override { rtt_test::freshReport(); }
};

// ---- the two small helpers ----------------------------------------------------------

TEST(PinHtons, SwapsTheBytesOfTheLow16Bits) {
    struct Case {
        int port;
        unsigned char hi;
        unsigned char lo;
    } cases[] = {{0x1234, 0x12, 0x34}, {10007, 0x27, 0x17}, {0x12345, 0x23, 0x45},
                 {-1, 0xff, 0xff},     {0, 0, 0},           {80, 0, 80}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.port);
        uint16_t net = pin_htons(c.port);
        unsigned char bytes[2];
        memcpy(bytes, &net, 2);
        EXPECT_EQ(bytes[0], c.hi);
        EXPECT_EQ(bytes[1], c.lo);
        EXPECT_EQ(net, htons(static_cast<uint16_t>(c.port)));
    }
}

TEST(PinFdIsset, AgreesWithTheSystemSetForEveryDescriptor) {
    for (int member : {0, 1, 31, 32, 33, 63, 64, 100, 1023}) {
        SCOPED_TRACE(member);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(member, &set);
        for (int fd = 0; fd < FD_SETSIZE; fd++)
            ASSERT_EQ(pin_fd_isset(fd, &set) != 0, fd == member) << fd;
    }
}

// Every descriptor below FD_SETSIZE taken, so the probe's socket lands above
// what a descriptor set can hold.
void takeEveryLowDescriptor() {
    struct rlimit rl;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
    ASSERT_GT(rl.rlim_max, static_cast<rlim_t>(FD_SETSIZE + 8));
    rl.rlim_cur = FD_SETSIZE + 8;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    int null = open("/dev/null", O_RDONLY);
    ASSERT_GE(null, 0);
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        if (fcntl(fd, F_GETFD) == -1) {
            ASSERT_EQ(dup2(null, fd), fd);
        }
    }
}

TEST(PinFdSetsize, ProbesAssertTheirSocketFitsADescriptorSet) {
    auto udp = runChild([] {
        takeEveryLowDescriptor();
        (void)PIN_udp("127.0.0.1", 9);
    });
    EXPECT_TRUE(rtt_test::probeAssert(udp, "PIN_udp", "const char*, int", "fd < FD_SETSIZE"));
    ClosedPort closed;
    auto tcp = runChild([&] {
        takeEveryLowDescriptor();
        (void)PIN_tcp("127.0.0.1", closed.port, 1);
    });
    EXPECT_TRUE(rtt_test::probeAssert(tcp, "PIN_tcp", "const char*, int, int", "fd < FD_SETSIZE"));
}

// ---- PIN_udp ------------------------------------------------------------------------

TEST_F(Rtt, UdpOneByteAnswerOfAnyValuePrintsTheRoundTrip) {
    for (std::string reply : {std::string("P"), std::string(1, '\0'), std::string(1, '\xff')}) {
        SCOPED_TRACE(static_cast<int>(static_cast<unsigned char>(reply[0])));
        rtt_test::freshReport();
        UdpResponder server(reply);
        int ret = -2;
        std::string err = kobtest::captureFd(2, [&] { ret = PIN_udp("127.0.0.1", server.port()); });
        double ms = rtt_test::parseRttLine(err, "UDP", "127.0.0.1", server.port());
        ASSERT_GE(ms, 0.0);
        // Truncated, not rounded: under a millisecond gives 0, a success.
        EXPECT_EQ(ret, static_cast<int>(ms));
        EXPECT_EQ(rtt_test::reportText(), err);
    }
}

TEST_F(Rtt, UdpReturnIsTheRoundTripTruncatedToWholeMilliseconds) {
    UdpResponder server("P", true, std::chrono::microseconds(12345));
    int ret = -2;
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_udp("127.0.0.1", server.port()); });
    double ms = rtt_test::parseRttLine(err, "UDP", "127.0.0.1", server.port());
    EXPECT_GE(ms, 12.345);
    EXPECT_GE(ret, 12);
    EXPECT_EQ(ret, static_cast<int>(std::trunc(ms)));
}

TEST_F(Rtt, UdpAnswerOfOtherThanOneByteIsARecvfromError) {
    for (std::string reply : {std::string(), std::string("PP"), std::string(1500, 'x')}) {
        SCOPED_TRACE(reply.size());
        rtt_test::freshReport();
        UdpResponder server(reply);
        int ret = -2;
        std::string err = kobtest::captureFd(2, [&] {
            // Nothing in the probe's success path sets errno, so the line
            // shows whatever was there before.
            errno = EDOM;
            ret = PIN_udp("127.0.0.1", server.port());
        });
        EXPECT_EQ(ret, -1);
        EXPECT_EQ(err, "recvfrom error: " + std::to_string(EDOM) + " " + strerror(EDOM) + "\n");
        EXPECT_EQ(rtt_test::reportText(), err);
    }
}

TEST_F(Rtt, UdpPrintsAddressAndPortExactlyAsGiven) {
    UdpResponder server("P");
    // "127.1" is 127.0.0.1 to inet_addr; a port above 16 bits is sent to
    // its low 16 bits.
    int port = 65536 + server.port();
    std::string err = kobtest::captureFd(2, [&] { (void)PIN_udp("127.1", port); });
    EXPECT_GE(rtt_test::parseRttLine(err, "UDP", "127.1", port), 0.0);
}

TEST(PinUdp, SocketFailureIsThePlatformAssertion) {
    auto r = runChild([] {
        rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        (void)PIN_udp("127.0.0.1", 9);
    });
    EXPECT_TRUE(rtt_test::probeAssert(r, "PIN_udp", "const char*, int", "fd >= 0"));
}

TEST(PinUdp, FailedSendIsThePlatformAssertion) {
    // The loopback net's broadcast address needs SO_BROADCAST: the send
    // fails locally and nothing leaves the host.
    auto r = runChild([] { (void)PIN_udp("127.255.255.255", 9); });
    EXPECT_TRUE(
        rtt_test::probeAssert(r, "PIN_udp", "const char*, int", "len == sizeof(\"P\") - 1"));
}

// ---- PIN_tcp ------------------------------------------------------------------------

TEST_F(Rtt, TcpListenerPrintsTheElapsedTime) {
    Listener l;
    int ret = -2;
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_tcp("127.0.0.1", l.port, 5); });
    double ms = rtt_test::parseRttLine(err, "TCP", "127.0.0.1", l.port);
    ASSERT_GE(ms, 0.0);
    EXPECT_EQ(ret, static_cast<int>(ms));
    EXPECT_EQ(rtt_test::reportText(), err);
}

TEST_F(Rtt, TcpRefusedConnectCountsAsAnAnswer) {
    ClosedPort closed;
    int ret = -2;
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_tcp("127.0.0.1", closed.port, 5); });
    double ms = rtt_test::parseRttLine(err, "TCP", "127.0.0.1", closed.port);
    ASSERT_GE(ms, 0.0);
    EXPECT_LT(ms, 5000.0);
    EXPECT_EQ(ret, static_cast<int>(ms));
}

TEST_F(Rtt, TcpImmediateConnectFailurePrintsTheErrno) {
    // The loopback net's broadcast address is refused by the routing
    // decision inside connect itself: nothing is sent.
    int ret = -2;
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_tcp("127.255.255.255", 80, 5); });
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(err, "connect(2) fail: " + std::to_string(ENETUNREACH) + " " + strerror(ENETUNREACH) +
                       "\n");
    EXPECT_EQ(rtt_test::reportText(), err);
}

TEST_F(Rtt, TcpZeroTimeoutTimesOutAtOnceUnlessConnected) {
    StalledListener stalled;
    int ret = -2;
    double t0 = VTIM_mono();
    std::string err = kobtest::captureFd(2, [&] { ret = PIN_tcp("127.0.0.1", stalled.port, 0); });
    EXPECT_LT(VTIM_mono() - t0, 0.5);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(err, "TCP: select timeout\n");
}

TEST_F(Rtt, TcpPrintsAddressAndPortExactlyAsGiven) {
    Listener l;
    int port = 3 * 65536 + l.port;
    std::string err = kobtest::captureFd(2, [&] { (void)PIN_tcp("127.0.0.001", port, 5); });
    EXPECT_GE(rtt_test::parseRttLine(err, "TCP", "127.0.0.001", port), 0.0);
}

TEST(PinTcp, SocketFailureIsThePlatformAssertion) {
    auto r = runChild([] {
        rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        (void)PIN_tcp("127.0.0.1", 9, 1);
    });
    EXPECT_TRUE(rtt_test::probeAssert(r, "PIN_tcp", "const char*, int, int", "fd >= 0"));
}

TEST(PinTcp, FailedSelectIsThePlatformAssertion) {
    // A negative limit makes select fail once the connect is under way.
    StalledListener stalled;
    int port = stalled.port;
    auto r = runChild([port] { (void)PIN_tcp("127.0.0.1", port, -1); });
    EXPECT_TRUE(rtt_test::probeAssert(r, "PIN_tcp", "const char*, int, int", "i != -1"));
}

// ---- the line format ------------------------------------------------------------------

// The probe's own line: "%f" of the round trip in milliseconds, which lies
// between the answer's delay and the time the whole call took.
void expectRoundTripLine(const std::string &proto, int port, double delayMs,
                         const std::function<int()> &probe) {
    rtt_test::freshReport();
    int ret = -2;
    double t0 = VTIM_real();
    std::string err = kobtest::captureFd(2, [&] { ret = probe(); });
    double callMs = (VTIM_real() - t0) * 1000.0;
    double ms = rtt_test::parseRttLine(err, proto, "127.0.0.1", port);
    EXPECT_GE(ms, delayMs);
    EXPECT_LE(ms, callMs);
    char want[128];
    snprintf(want, sizeof want, "%s src --%f ms--> dst(127.0.0.1:%d)\n", proto.c_str(), ms, port);
    EXPECT_EQ(err, want);
    EXPECT_EQ(ret, static_cast<int>(ms));
    EXPECT_EQ(rtt_test::reportText(), err);
}

TEST_F(Rtt, RoundTripIsPrintedInMillisecondsWithSixDecimals) {
    {
        SCOPED_TRACE("UDP");
        UdpResponder server("P", true, std::chrono::microseconds(12345));
        expectRoundTripLine("UDP", server.port(), 12.345,
                            [&] { return PIN_udp("127.0.0.1", server.port()); });
    }
    {
        SCOPED_TRACE("TCP");
        Listener l;
        expectRoundTripLine("TCP", l.port, 0.0, [&] { return PIN_tcp("127.0.0.1", l.port, 5); });
    }
}

} // namespace
