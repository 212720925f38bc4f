// Helpers for connected sockets.

#include "vtcp.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "vas.h"

namespace {

constexpr char kMappedPrefix[] = "::ffff:";

} // namespace

extern "C" {

bool VTCP_Check(int j) {
    if (j == 0)
        return true;
    // The peer has already gone: nothing the caller did wrong.
    return errno == ECONNRESET || errno == ENOTCONN;
}

int VTCP_blocking(int fd) {
    int i = 0;
    int j = ioctl(fd, FIONBIO, &i);
    VAS_ASSERT(VTCP_Check(j));
    return j;
}

void VTCP_nonblocking(int fd) {
    int i = 1;
    int j = ioctl(fd, FIONBIO, &i);
    VAS_ASSERT(VTCP_Check(j));
}

void VTCP_setTimeout(int fd, int sec) {
    VAS_ASSERT(sec > 0);
    struct timeval timeout = {sec, 0};
    int ret = setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    VAS_ASSERT(ret == 0);
    ret = setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    VAS_ASSERT(ret == 0);
}

void VTCP_close(int *fd) {
    int i = close(*fd);
    VAS_ASSERT(i == 0);
    *fd = -1;
}

void VTCP_nameinfo(const void *addr, socklen_t addrlen, char *abuf, size_t alen, char *pbuf,
                   size_t plen) {
    int i = getnameinfo(static_cast<const sockaddr *>(addr), addrlen, abuf,
                        static_cast<socklen_t>(alen), pbuf, static_cast<socklen_t>(plen),
                        NI_NUMERICHOST | NI_NUMERICSERV);
    if (i != 0) {
        printf("getnameinfo = %d %s\n", i, gai_strerror(i));
        (void)snprintf(abuf, alen, "Conversion");
        (void)snprintf(pbuf, plen, "Failed");
        return;
    }
    // An IPv4 peer of a dual-stack socket reads better as plain IPv4.
    constexpr size_t n = sizeof kMappedPrefix - 1;
    if (strncmp(abuf, kMappedPrefix, n) == 0)
        memmove(abuf, abuf + n, strlen(abuf + n) + 1);
}

void VTCP_myname(int sock, char *abuf, size_t alen, char *pbuf, size_t plen) {
    struct sockaddr_storage addr_s;
    socklen_t l = sizeof addr_s;
    VAS_CHECK(getsockname(sock, reinterpret_cast<sockaddr *>(&addr_s), &l) == 0,
              "(getsockname(sock, (void *)&addr_s, &l)) == 0");
    VTCP_nameinfo(&addr_s, l, abuf, alen, pbuf, plen);
}

void VTCP_peername(int sock, char *abuf, size_t alen, char *pbuf, size_t plen) {
    struct sockaddr_storage addr_s;
    socklen_t l = sizeof addr_s;
    if (getpeername(sock, reinterpret_cast<sockaddr *>(&addr_s), &l) != 0) {
        (void)snprintf(abuf, alen, "<none>");
        (void)snprintf(pbuf, plen, "<none>");
        return;
    }
    VTCP_nameinfo(&addr_s, l, abuf, alen, pbuf, plen);
}

int VTCP_sockport(const struct sockaddr_storage *addr) {
    switch (addr->ss_family) {
    case AF_INET: {
        struct sockaddr_in sin;
        memcpy(&sin, addr, sizeof sin);
        return ntohs(sin.sin_port);
    }
    case AF_INET6: {
        struct sockaddr_in6 sin6;
        memcpy(&sin6, addr, sizeof sin6);
        return ntohs(sin6.sin6_port);
    }
    default:
        return -1;
    }
}

} // extern "C"
