#include "vss.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <vector>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "kobtest.h"

using kobtest::captureFd;
using kobtest::ClosedPort;
using kobtest::Fd;
using kobtest::Listener;
using kobtest::runChild;
using kobtest::StalledListener;
using kobtest::vasAbort;

namespace {

const char kVtcp[] = "lib/libkob/vtcp.cpp";

std::string opt(const char *s) {
    return s == nullptr ? "<null>" : std::string(s);
}

// Owns what VSS_resolve hands back.
struct Resolved {
    vss_addr **va = nullptr;
    int n = 0;
    int err = -7;
    Resolved(const char *str, const char *defPort) { n = VSS_resolve(str, defPort, &va, &err); }
    ~Resolved() {
        for (int i = 0; i < n; i++)
            free(va[i]);
        free(va);
    }
    Resolved(const Resolved &) = delete;
    Resolved &operator=(const Resolved &) = delete;
};

int portOf(const vss_addr *va) {
    if (va->va_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in *>(&va->va_addr)->sin_port);
    return ntohs(reinterpret_cast<const sockaddr_in6 *>(&va->va_addr)->sin6_port);
}

std::string hostOf(const vss_addr *va) {
    char buf[INET6_ADDRSTRLEN];
    const void *a = va->va_family == AF_INET
                        ? static_cast<const void *>(
                              &reinterpret_cast<const sockaddr_in *>(&va->va_addr)->sin_addr)
                        : static_cast<const void *>(
                              &reinterpret_cast<const sockaddr_in6 *>(&va->va_addr)->sin6_addr);
    return inet_ntop(va->va_family, a, buf, sizeof buf);
}

// What the resolver itself gives for host and service with the same hints.
std::vector<std::vector<unsigned char>> resolverAnswer(const char *host, const char *serv,
                                                       int *ret) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res0 = nullptr;
    *ret = getaddrinfo(host, serv, &hints, &res0);
    std::vector<std::vector<unsigned char>> out;
    if (*ret != 0)
        return out;
    for (addrinfo *r = res0; r != nullptr; r = r->ai_next) {
        auto p = reinterpret_cast<unsigned char *>(r->ai_addr);
        out.emplace_back(p, p + r->ai_addrlen);
    }
    freeaddrinfo(res0);
    return out;
}

std::vector<std::vector<unsigned char>> bytesOf(const Resolved &r) {
    std::vector<std::vector<unsigned char>> out;
    for (int i = 0; i < r.n; i++) {
        auto p = reinterpret_cast<const unsigned char *>(&r.va[i]->va_addr);
        out.emplace_back(p, p + r.va[i]->va_addrlen);
    }
    return out;
}

bool isBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

vss_addr loopRecord(int family, int port, int type = SOCK_STREAM, int proto = 0) {
    vss_addr va{};
    kobtest::LoopAddr a(family, port);
    va.va_family = family;
    va.va_socktype = type;
    va.va_protocol = proto;
    va.va_addrlen = a.len;
    memcpy(&va.va_addr, &a.ss, a.len);
    return va;
}

// The families that ":<port>" resolves to, in the resolver's order.
std::vector<int> wildcardOrder() {
    Resolved r(":9", nullptr);
    std::vector<int> fam;
    for (int i = 0; i < r.n; i++)
        fam.push_back(r.va[i]->va_family);
    return fam;
}

// ---- VSS_parse --------------------------------------------------------------------

TEST(VssParse, SplitsHostAndPortOfEveryForm) {
    struct Case {
        const char *in;
        const char *addr;
        const char *port;
    } cases[] = {
        {"127.0.0.1:80", "127.0.0.1", "80"},
        {"127.0.0.1 80", "127.0.0.1", "80"},
        {"[::1]:80", "::1", "80"},
        {"[::1]", "::1", nullptr},
        {"[::1]:", "::1", ""},
        {":80", nullptr, "80"},
        {" 80", nullptr, "80"},
        {"localhost:", "localhost", ""},
        {"a b:c", "a", "b:c"},  // the blank is tried before the colon
        {"::1", nullptr, ":1"}, // only the first colon counts
        {"a:b:c", "a", "b:c"},
        {"localhost", "localhost", nullptr},
        {"", "", nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        char *addr = reinterpret_cast<char *>(1);
        char *port = reinterpret_cast<char *>(1);
        int err = -7;
        EXPECT_EQ(VSS_parse(c.in, &addr, &port, &err), 0);
        EXPECT_EQ(opt(addr), opt(c.addr));
        EXPECT_EQ(opt(port), opt(c.port));
        EXPECT_EQ(err, -7);
        free(addr);
        free(port);
    }
}

TEST(VssParse, MalformedBracketFormsAreClassOne) {
    for (const char *in : {"[::1", "[]:80", "[]", "[::1]x", "[::1]80", "[::1] 80"}) {
        SCOPED_TRACE(in);
        char *addr = reinterpret_cast<char *>(1);
        char *port = reinterpret_cast<char *>(1);
        int err = -7;
        EXPECT_EQ(VSS_parse(in, &addr, &port, &err), -1);
        EXPECT_EQ(err, 1);
        EXPECT_EQ(addr, nullptr);
        EXPECT_EQ(port, nullptr);
    }
}

TEST(VssParse, ErrorOutputMayBeNull) {
    char *addr;
    char *port;
    EXPECT_EQ(VSS_parse("[::1", &addr, &port, nullptr), -1);
}

// ---- VSS_resolve --------------------------------------------------------------------

TEST(VssResolve, NumericEndpointsGiveOneStreamRecord) {
    struct Case {
        const char *in;
        const char *defPort;
        int family;
        socklen_t len;
        const char *host;
        int port;
    } cases[] = {
        {"127.0.0.1:80", nullptr, AF_INET, sizeof(sockaddr_in), "127.0.0.1", 80},
        {"127.0.0.1 80", nullptr, AF_INET, sizeof(sockaddr_in), "127.0.0.1", 80},
        {"[::1]:8080", nullptr, AF_INET6, sizeof(sockaddr_in6), "::1", 8080},
        {"127.0.0.1", "8080", AF_INET, sizeof(sockaddr_in), "127.0.0.1", 8080},
        {"127.0.0.1:81", "8080", AF_INET, sizeof(sockaddr_in), "127.0.0.1", 81},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        Resolved r(c.in, c.defPort);
        ASSERT_EQ(r.n, 1);
        EXPECT_EQ(r.err, -7);
        EXPECT_EQ(r.va[0]->va_family, c.family);
        EXPECT_EQ(r.va[0]->va_socktype, SOCK_STREAM);
        EXPECT_EQ(r.va[0]->va_protocol, IPPROTO_TCP);
        EXPECT_EQ(r.va[0]->va_addrlen, c.len);
        EXPECT_EQ(hostOf(r.va[0]), c.host);
        EXPECT_EQ(portOf(r.va[0]), c.port);
    }
}

TEST(VssResolve, BracketedAddressWithoutPortIsLookedUpWithBracketsAndFails) {
    // VSS_parse takes the brackets off, but without a port the text goes to
    // the resolver as it stands, which does not accept brackets.
    Resolved r("[::1]", "80");
    EXPECT_EQ(r.n, 0);
    EXPECT_EQ(r.err, 5);
    EXPECT_EQ(r.va, nullptr);
}

TEST(VssResolve, MalformedTextIsClassOne) {
    for (const char *in : {"[::1", "[]:80", "[::1]x"}) {
        SCOPED_TRACE(in);
        Resolved r(in, nullptr);
        EXPECT_EQ(r.n, 0);
        EXPECT_EQ(r.err, 1);
        EXPECT_EQ(r.va, nullptr);
    }
}

TEST(VssResolve, FailedLookupIsClassFive) {
    Resolved r("127.0.0.1:no-such-service", nullptr);
    EXPECT_EQ(r.n, 0);
    EXPECT_EQ(r.err, 5);
    EXPECT_EQ(r.va, nullptr);
}

TEST(VssResolve, MissingHostGivesTheWildcardAddressesInResolverOrder) {
    Resolved r(":80", nullptr);
    int ret;
    auto want = resolverAnswer(nullptr, "80", &ret);
    ASSERT_EQ(ret, 0);
    ASSERT_GE(r.n, 1);
    EXPECT_EQ(bytesOf(r), want);
    for (int i = 0; i < r.n; i++) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(hostOf(r.va[i]) == "0.0.0.0" || hostOf(r.va[i]) == "::");
        EXPECT_EQ(portOf(r.va[i]), 80);
    }
}

TEST(VssResolve, SeveralAddressesGiveOneRecordEachInResolverOrder) {
    // Without a hosts entry naming two loopback addresses, the wildcard
    // lookup is the one that gives several records here (IPv4 and IPv6).
    Resolved r(":8080", nullptr);
    int ret;
    auto want = resolverAnswer(nullptr, "8080", &ret);
    ASSERT_EQ(ret, 0);
    EXPECT_EQ(r.n, static_cast<int>(want.size()));
    EXPECT_EQ(bytesOf(r), want);
}

TEST(VssResolve, HostWithBareColonPassesAnEmptyServiceText) {
    Resolved r("127.0.0.1:", "8080");
    int ret;
    auto want = resolverAnswer("127.0.0.1", "", &ret);
    ASSERT_EQ(ret, 0);
    EXPECT_EQ(bytesOf(r), want);
    ASSERT_EQ(r.n, 1);
    EXPECT_EQ(portOf(r.va[0]), 0); // not the default 8080
}

// ---- VSS_bindAddr, VSS_listenAddr ---------------------------------------------------

TEST(VssListen, ListensOnTheRecordWithReuseAddr) {
    vss_addr va = loopRecord(AF_INET, 0);
    Fd fd(VSS_listenAddr(&va, 5));
    ASSERT_GE(fd.get(), 0);
    int v = 0;
    socklen_t l = sizeof v;
    ASSERT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &v, &l), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_ACCEPTCONN, &v, &l), 0);
    EXPECT_EQ(v, 1);
    EXPECT_GT(kobtest::boundPort(fd.get()), 0);
}

TEST(VssListen, FailuresArePerroredAndGiveMinusOne) {
    Listener busy;
    struct Case {
        const char *name;
        vss_addr va;
        bool listen;
        std::string text;
    } cases[] = {
        {"bind", loopRecord(AF_INET, busy.port), false,
         std::string("bind(): ") + strerror(EADDRINUSE) + "\n"},
        {"socket", loopRecord(AF_INET, 0, SOCK_STREAM, IPPROTO_UDP), false,
         std::string("socket(): ") + strerror(EPROTONOSUPPORT) + "\n"},
        {"listen", loopRecord(AF_INET, 0, SOCK_DGRAM), true,
         std::string("listen(): ") + strerror(EOPNOTSUPP) + "\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        int fd = 0;
        std::string err =
            captureFd(2, [&] { fd = c.listen ? VSS_listenAddr(&c.va, 5) : VSS_bindAddr(&c.va); });
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(err, c.text);
    }
}

// ---- VSS_connectAddr ---------------------------------------------------------------------

TEST(VssConnectAddr, ConnectsAndReturnsABlockingSocket) {
    Listener l;
    for (int nonblock : {0, 1}) {
        SCOPED_TRACE(nonblock);
        vss_addr va = loopRecord(AF_INET, l.port);
        int err = -7;
        int errnum = -7;
        Fd fd(VSS_connectAddr(&va, nonblock, &err, &errnum));
        ASSERT_GE(fd.get(), 0);
        EXPECT_TRUE(isBlocking(fd.get()));
        EXPECT_EQ(err, -7);
        EXPECT_EQ(errnum, -7);
    }
}

TEST(VssConnectAddr, BlockingRefusalIsClassFourWithErrno) {
    ClosedPort closed;
    vss_addr va = loopRecord(AF_INET, closed.port);
    int err = -7;
    int errnum = -7;
    int fd = 0;
    std::string out = captureFd(2, [&] { fd = VSS_connectAddr(&va, 0, &err, &errnum); });
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(err, 4);
    EXPECT_EQ(errnum, ECONNREFUSED);
    EXPECT_EQ(out, "");
}

TEST(VssConnectAddr, NonblockingConnectStillUnderWayIsReturnedBlocking) {
    StalledListener stalled;
    vss_addr va = loopRecord(AF_INET, stalled.port);
    int err = -7;
    Fd fd(VSS_connectAddr(&va, 1, &err, nullptr));
    ASSERT_GE(fd.get(), 0);
    EXPECT_TRUE(isBlocking(fd.get()));
    EXPECT_EQ(err, -7);
    sockaddr_storage ss;
    socklen_t l = sizeof ss;
    EXPECT_NE(getpeername(fd.get(), reinterpret_cast<sockaddr *>(&ss), &l), 0);
}

TEST(VssConnectAddr, UnsupportedProtocolIsClassThreeWithoutMessage) {
    vss_addr va = loopRecord(AF_INET, 9, SOCK_STREAM, IPPROTO_UDP);
    int err = -7;
    int errnum = -7;
    int fd = 0;
    std::string out = captureFd(2, [&] { fd = VSS_connectAddr(&va, 0, &err, &errnum); });
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(err, 3);
    EXPECT_EQ(errnum, EPROTONOSUPPORT);
    EXPECT_EQ(out, "");
}

TEST(VssConnectAddr, OtherSocketFailureIsPerroredClassThree) {
    auto r = runChild([] {
        vss_addr va = loopRecord(AF_INET, 9);
        rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        int err = -7;
        int errnum = -7;
        int fd = VSS_connectAddr(&va, 0, &err, &errnum);
        printf("%d %d %d", fd, err, errnum);
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "-1 3 " + std::to_string(EMFILE));
    EXPECT_EQ(r.err, std::string("socket(): ") + strerror(EMFILE) + "\n");
}

TEST(VssConnectAddr, OutputsMayBeNull) {
    ClosedPort closed;
    vss_addr va = loopRecord(AF_INET, closed.port);
    EXPECT_EQ(VSS_connectAddr(&va, 0, nullptr, nullptr), -1);
}

// ---- VSS_open ------------------------------------------------------------------------------

TEST(VssOpen, WithoutLimitConnectsBlockingAndSetsNoTimeouts) {
    Listener l;
    int err = -7;
    int errnum = -7;
    Fd fd(VSS_open(("127.0.0.1:" + std::to_string(l.port)).c_str(), &err, &errnum, 0));
    ASSERT_GE(fd.get(), 0);
    EXPECT_TRUE(isBlocking(fd.get()));
    EXPECT_EQ(kobtest::sockTimeout(fd.get(), SO_RCVTIMEO).tv_sec, 0);
    EXPECT_EQ(kobtest::sockTimeout(fd.get(), SO_SNDTIMEO).tv_sec, 0);
    EXPECT_EQ(err, -7);
    EXPECT_EQ(errnum, -7);
}

TEST(VssOpen, WithLimitSetsTheSameSendAndReceiveTimeouts) {
    Listener l;
    int err = -7;
    Fd fd(VSS_open(("127.0.0.1:" + std::to_string(l.port)).c_str(), &err, nullptr, 2.9));
    ASSERT_GE(fd.get(), 0);
    EXPECT_TRUE(isBlocking(fd.get()));
    for (int o : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval tv = kobtest::sockTimeout(fd.get(), o);
        EXPECT_EQ(tv.tv_sec, 2);
        EXPECT_EQ(tv.tv_usec, 0);
    }
    EXPECT_EQ(err, -7);
}

TEST(VssOpen, RefusalWithLimitCountsAsConnectedAndTheFirstWriteFails) {
    ClosedPort closed;
    int err = -7;
    Fd fd(VSS_open(("127.0.0.1:" + std::to_string(closed.port)).c_str(), &err, nullptr, 2));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(err, -7);
    errno = 0;
    EXPECT_EQ(send(fd.get(), "x", 1, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(VssOpen, RefusalWithoutLimitIsClassFour) {
    ClosedPort closed;
    int err = -7;
    int errnum = -7;
    EXPECT_EQ(VSS_open(("127.0.0.1:" + std::to_string(closed.port)).c_str(), &err, &errnum, 0), -1);
    EXPECT_EQ(err, 4);
    EXPECT_EQ(errnum, ECONNREFUSED);
}

TEST(VssOpen, ResolveFailuresPassTheirClassOn) {
    struct Case {
        const char *in;
        int err;
    } cases[] = {{"[::1", 1}, {"[::1]x", 1}, {"127.0.0.1:no-such-service", 5}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        int err = -7;
        int errnum = -7;
        EXPECT_EQ(VSS_open(c.in, &err, &errnum, 1), -1);
        EXPECT_EQ(err, c.err);
        EXPECT_EQ(errnum, -7);
    }
}

TEST(VssOpen, SubSecondLimitWaitsZeroSecondsAndTimesOut) {
    StalledListener stalled;
    int err = -7;
    int errnum = -7;
    EXPECT_EQ(VSS_open(("127.0.0.1:" + std::to_string(stalled.port)).c_str(), &err, &errnum, 0.5),
              -1);
    EXPECT_EQ(err, 2);
    EXPECT_EQ(errnum, -7);
}

TEST(VssOpen, SubSecondLimitOnAnAnsweredConnectFailsSecAboveZero) {
    // The refusal is already in when select looks, so the zero-second wait
    // sees a writable socket and the limit of 0 whole seconds is applied.
    ClosedPort closed;
    std::string ep = "127.0.0.1:" + std::to_string(closed.port);
    auto r = runChild([&] { (void)VSS_open(ep.c_str(), nullptr, nullptr, 0.5); });
    EXPECT_TRUE(vasAbort(r, "VTCP_setTimeout", kVtcp, "sec > 0"));
}

TEST(VssOpen, DescriptorZeroIsReturnedWithoutTimeouts) {
    Listener l;
    std::string ep = "127.0.0.1:" + std::to_string(l.port);
    auto r = runChild([&] {
        close(0);
        int fd = VSS_open(ep.c_str(), nullptr, nullptr, 2);
        printf("%d %ld %ld", fd, static_cast<long>(kobtest::sockTimeout(fd, SO_RCVTIMEO).tv_sec),
               static_cast<long>(kobtest::sockTimeout(fd, SO_SNDTIMEO).tv_sec));
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, "0 0 0");
}

TEST(VssOpen, RefusedFirstAddressLeavesClassFourAlthoughTheSecondConnects) {
    // ":<port>" resolves to the wildcard address of each family; connecting
    // to one reaches that family's loopback.  Only the second listens.
    std::vector<int> fam = wildcardOrder();
    if (fam.size() < 2)
        GTEST_SKIP() << "the wildcard lookup gives a single family here";
    for (int attempt = 0;; attempt++) {
        Listener second(fam[1]);
        Fd first = kobtest::bindLoopback(fam[0], SOCK_STREAM, second.port);
        if (first.get() < 0) {
            ASSERT_LT(attempt, 20);
            continue;
        }
        int err = -7;
        int errnum = -7;
        Fd fd(VSS_open((":" + std::to_string(second.port)).c_str(), &err, &errnum, 0));
        ASSERT_GE(fd.get(), 0);
        sockaddr_storage peer;
        socklen_t pl = sizeof peer;
        ASSERT_EQ(getpeername(fd.get(), reinterpret_cast<sockaddr *>(&peer), &pl), 0);
        EXPECT_EQ(peer.ss_family, fam[1]);
        EXPECT_EQ(err, 4);
        EXPECT_EQ(errnum, ECONNREFUSED);
        break;
    }
}

TEST(VssResolve, RecordKeepsFieldOrderAndA128ByteAddressStore) {
    EXPECT_EQ(offsetof(vss_addr, va_family), 0u);
    EXPECT_EQ(offsetof(vss_addr, va_socktype), sizeof(int));
    EXPECT_EQ(offsetof(vss_addr, va_protocol), 2 * sizeof(int));
    EXPECT_EQ(offsetof(vss_addr, va_addrlen), 3 * sizeof(int));
    EXPECT_EQ(sizeof(vss_addr{}.va_addr), 128u);
}

} // namespace
