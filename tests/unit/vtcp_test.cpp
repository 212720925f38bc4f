#include "vtcp.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "kobtest.h"

using kobtest::captureFd;
using kobtest::Fd;
using kobtest::Listener;
using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kVtcp[] = "lib/libkob/vtcp.cpp";

bool isBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

sockaddr_in6 mapped(const char *v4, int port) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(static_cast<uint16_t>(port));
    std::string text = std::string("::ffff:") + v4;
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &sin6.sin6_addr), 1);
    return sin6;
}

TEST(VtcpCheck, ZeroOrAGonePeerIsFine) {
    struct Case {
        int j;
        int err;
        bool ok;
    } cases[] = {{0, EBADF, true},     {-1, ECONNRESET, true}, {-1, ENOTCONN, true},
                 {-1, EBADF, false},   {-1, EPIPE, false},     {-1, 0, false},
                 {1, ECONNRESET, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.j) + " " + std::to_string(c.err));
        errno = c.err;
        EXPECT_EQ(VTCP_Check(c.j), c.ok);
    }
}

TEST(VtcpMode, NonblockingAndBlockingToggleTheSocket) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    VTCP_nonblocking(fd.get());
    EXPECT_FALSE(isBlocking(fd.get()));
    EXPECT_EQ(VTCP_blocking(fd.get()), 0);
    EXPECT_TRUE(isBlocking(fd.get()));
}

TEST(VtcpMode, FailureOnABadDescriptorIsFatal) {
    auto r = runChild([] { (void)VTCP_blocking(-1); });
    EXPECT_TRUE(vasAbort(r, "VTCP_blocking", kVtcp, "VTCP_Check(j)"));
    r = runChild([] { VTCP_nonblocking(-1); });
    EXPECT_TRUE(vasAbort(r, "VTCP_nonblocking", kVtcp, "VTCP_Check(j)"));
}

TEST(VtcpSetTimeout, SetsReceiveAndSendLimits) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    VTCP_setTimeout(fd.get(), 3);
    for (int o : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval tv = kobtest::sockTimeout(fd.get(), o);
        EXPECT_EQ(tv.tv_sec, 3);
        EXPECT_EQ(tv.tv_usec, 0);
    }
}

TEST(VtcpSetTimeout, ZeroSecondsOrANonSocketIsFatal) {
    auto r = runChild([] {
        Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        VTCP_setTimeout(fd.get(), 0);
    });
    EXPECT_TRUE(vasAbort(r, "VTCP_setTimeout", kVtcp, "sec > 0"));
    r = runChild([] {
        int p[2];
        if (pipe(p) == 0)
            VTCP_setTimeout(p[0], 1);
    });
    EXPECT_TRUE(vasAbort(r, "VTCP_setTimeout", kVtcp, "ret == 0"));
}

TEST(VtcpClose, ClosesAndClearsTheDescriptor) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    int copy = fd;
    VTCP_close(&fd);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(copy, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(VtcpClose, ClosingTwiceIsFatal) {
    auto r = runChild([] {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        int copy = fd;
        VTCP_close(&fd);
        VTCP_close(&copy);
    });
    EXPECT_TRUE(vasAbort(r, "VTCP_close", kVtcp, "i == 0"));
}

TEST(VtcpNameinfo, GivesNumericTextsAndUnmapsIpv4) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(80);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(443);
    six.sin6_addr = in6addr_loopback;
    sockaddr_in6 map = mapped("127.0.0.1", 8080);
    struct Case {
        const char *name;
        const void *addr;
        socklen_t len;
        const char *host;
        const char *port;
    } cases[] = {{"v4", &sin, sizeof sin, "127.0.0.1", "80"},
                 {"v6", &six, sizeof six, "::1", "443"},
                 {"mapped", &map, sizeof map, "127.0.0.1", "8080"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        char abuf[64];
        char pbuf[16];
        std::string out = captureFd(
            1, [&] { VTCP_nameinfo(c.addr, c.len, abuf, sizeof abuf, pbuf, sizeof pbuf); });
        EXPECT_STREQ(abuf, c.host);
        EXPECT_STREQ(pbuf, c.port);
        EXPECT_EQ(out, "");
    }
}

TEST(VtcpNameinfo, LookupErrorPrintsAndStoresCutTexts) {
    // A family that getnameinfo handles neither on Linux nor on macOS.
    sockaddr_storage other{};
    other.ss_family = AF_APPLETALK;
    struct Case {
        size_t alen;
        size_t plen;
        const char *host;
        const char *port;
    } cases[] = {{64, 16, "Conversion", "Failed"}, {5, 3, "Conv", "Fa"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.alen);
        char abuf[64];
        char pbuf[16];
        std::string out = captureFd(
            1, [&] { VTCP_nameinfo(&other, sizeof(sockaddr_in), abuf, c.alen, pbuf, c.plen); });
        EXPECT_EQ(out, "getnameinfo = " + std::to_string(EAI_FAMILY) + " " +
                           gai_strerror(EAI_FAMILY) + "\n");
        EXPECT_STREQ(abuf, c.host);
        EXPECT_STREQ(pbuf, c.port);
    }
}

TEST(VtcpPeername, SocketWithoutPeerGivesNone) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    char abuf[64];
    char pbuf[16];
    VTCP_peername(fd.get(), abuf, sizeof abuf, pbuf, sizeof pbuf);
    EXPECT_STREQ(abuf, "<none>");
    EXPECT_STREQ(pbuf, "<none>");
    VTCP_peername(fd.get(), abuf, 4, pbuf, 2);
    EXPECT_STREQ(abuf, "<no");
    EXPECT_STREQ(pbuf, "<");
}

TEST(VtcpPeername, Ipv4PeerOfADualStackListenerIsPlainIpv4) {
    // A dual-stack listener on the IPv4-mapped loopback address sees an IPv4
    // client as ::ffff:127.0.0.1.
    Fd l(socket(AF_INET6, SOCK_STREAM, 0));
    int off = 0;
    ASSERT_EQ(setsockopt(l.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off), 0);
    sockaddr_in6 at = mapped("127.0.0.1", 0);
    ASSERT_EQ(bind(l.get(), reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    ASSERT_EQ(listen(l.get(), 1), 0);
    kobtest::LoopAddr to(AF_INET, kobtest::boundPort(l.get()));
    Fd c(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(c.get(), to.sa(), to.len), 0);
    Fd a(accept(l.get(), nullptr, nullptr));
    ASSERT_GE(a.get(), 0);
    char abuf[64];
    char pbuf[16];
    VTCP_peername(a.get(), abuf, sizeof abuf, pbuf, sizeof pbuf);
    EXPECT_STREQ(abuf, "127.0.0.1");
    EXPECT_EQ(std::string(pbuf), std::to_string(kobtest::boundPort(c.get())));
    VTCP_myname(a.get(), abuf, sizeof abuf, pbuf, sizeof pbuf);
    EXPECT_STREQ(abuf, "127.0.0.1");
    EXPECT_EQ(std::string(pbuf), std::to_string(kobtest::boundPort(l.get())));
}

TEST(VtcpMyname, GivesTheLocalAddress) {
    Listener l(AF_INET6);
    char abuf[64];
    char pbuf[16];
    VTCP_myname(l.fd.get(), abuf, sizeof abuf, pbuf, sizeof pbuf);
    EXPECT_STREQ(abuf, "::1");
    EXPECT_EQ(std::string(pbuf), std::to_string(l.port));
}

TEST(VtcpMyname, BadDescriptorIsFatal) {
    auto r = runChild([] {
        char abuf[64];
        char pbuf[16];
        VTCP_myname(-1, abuf, sizeof abuf, pbuf, sizeof pbuf);
    });
    EXPECT_TRUE(vasAbort(r, "VTCP_myname", kVtcp, "(getsockname(sock, (void *)&addr_s, &l)) == 0"));
}

TEST(VtcpSockport, PortInHostOrderForInetFamiliesOnly) {
    sockaddr_storage ss{};
    auto *sin = reinterpret_cast<sockaddr_in *>(&ss);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(10007);
    EXPECT_EQ(VTCP_sockport(&ss), 10007);
    ss = {};
    auto *sin6 = reinterpret_cast<sockaddr_in6 *>(&ss);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(65535);
    EXPECT_EQ(VTCP_sockport(&ss), 65535);
    ss = {};
    ss.ss_family = AF_UNIX;
    EXPECT_EQ(VTCP_sockport(&ss), -1);
}

} // namespace
