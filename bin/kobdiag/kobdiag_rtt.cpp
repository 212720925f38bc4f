// The round-trip probes: a one-byte UDP echo and a timed TCP connect.
//
// Both time with the wall clock, from just before the first packet to just
// after the answer, so the wait in select is part of the figure.  Everything
// the user sees goes through the report channel.

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kobdiag.h"
#include "kobdiag_assert.h"
#include "odr.h"
#include "vtim.h"

namespace {

constexpr char kUdpPayload[] = "P";
constexpr time_t kUdpWaitSeconds = 3;

// The probes take the address text as given: no lookup, and a text that is
// not an address becomes all ones and is used anyway.
struct sockaddr_in ipv4Target(const char *addr, int port) {
    struct sockaddr_in dst;
    memset(&dst, 0, sizeof dst);
    dst.sin_family = AF_INET;
    dst.sin_port = pin_htons(port);
    dst.sin_addr.s_addr = inet_addr(addr);
    return dst;
}

} // namespace

uint16_t pin_htons(int port) {
    auto p = static_cast<uint16_t>(port);
    // Network order is big-endian; build it byte by byte so the result does
    // not depend on the host's order.
    const uint8_t bytes[2] = {static_cast<uint8_t>(p >> 8), static_cast<uint8_t>(p)};
    uint16_t net;
    memcpy(&net, bytes, sizeof net);
    return net;
}

int pin_fd_isset(int fd, const fd_set *set) {
    // The set's layout is the platform's: only its own macro reads it.
    return FD_ISSET(fd, set) ? 1 : 0;
}

int PIN_udp(const char *addr, int port) {
    int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    assert(fd >= 0);
    struct sockaddr_in dst = ipv4Target(addr, port);

    double t0 = VTIM_real();
    // An error (-1) turns into SIZE_MAX here and fails like a short send.
    size_t len = static_cast<size_t>(sendto(fd, kUdpPayload, sizeof(kUdpPayload) - 1, 0,
                                            reinterpret_cast<struct sockaddr *>(&dst), 16));
    assert(len == sizeof("P") - 1);

    // Each probe holds one socket, so the descriptor is low; a set cannot
    // hold one at FD_SETSIZE or above.
    assert(fd < FD_SETSIZE);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval timeout = {kUdpWaitSeconds, 0};
    int i = select((fd > 0 ? fd : 0) + 1, &set, nullptr, nullptr, &timeout);
    if (i < 0)
        assert(0 == 1); // NOLINT(cert-dcl03-c): a run-time path; the message is "0 == 1"
    if (i == 0) {
        DIA_printf("UDP: select timeout\n");
        (void)close(fd);
        return -1;
    }
    assert(i == 1);
    DIA_ASSERT_AT(pin_fd_isset(fd, &set), "FD_ISSET(fd, &set)", __LINE__);

    char buf[1024];
    struct sockaddr_in from;
    socklen_t fromlen = 16;
    ssize_t n =
        recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<struct sockaddr *>(&from), &fromlen);
    // An echo is one byte.  An empty or longer datagram lands here too, with
    // whatever errno an earlier call left behind.
    if (n != 1) {
        DIA_printf("recvfrom error: %d %s\n", errno, strerror(errno));
        (void)close(fd);
        return -1;
    }
    double t1 = VTIM_real();
    double rtt = (t1 - t0) * 1000.0;
    (void)close(fd);
    DIA_printf("UDP src --%f ms--> dst(%s:%d)\n", rtt, addr, port);
    return static_cast<int>(rtt);
}

int PIN_tcp(const char *addr, int port, int timeout) {
    int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    assert(fd >= 0);
    struct sockaddr_in dst = ipv4Target(addr, port);
    ODR_nonblocking(fd);

    double t0 = VTIM_real();
    int i = connect(fd, reinterpret_cast<struct sockaddr *>(&dst), 16);
    if (i == -1) {
        if (errno != EINPROGRESS) {
            DIA_printf("connect(2) fail: %d %s\n", errno, strerror(errno));
            (void)close(fd);
            return -1;
        }
        assert(fd < FD_SETSIZE);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        struct timeval tv = {timeout, 0};
        i = select(fd + 1, nullptr, &set, nullptr, &tv);
        assert(i != -1);
        if (i == 0) {
            DIA_printf("TCP: select timeout\n");
            (void)close(fd);
            return -1;
        }
        assert(i == 1);
        DIA_ASSERT_AT(pin_fd_isset(fd, &set), "FD_ISSET(fd, &set)", __LINE__);
        // No SO_ERROR on purpose: a refusal also makes the socket writable,
        // and any answer within the limit is what this probe reports.
    }
    double t1 = VTIM_real();
    double elapsed = (t1 - t0) * 1000.0;
    (void)close(fd);
    DIA_printf("TCP src --%f ms--> dst(%s:%d)\n", elapsed, addr, port);
    return static_cast<int>(elapsed);
}
