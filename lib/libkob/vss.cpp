// Endpoint texts, their resolution, and sockets opened from the results.

#include "vss.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <string_view>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "vas.h"
#include "vtcp.h"

static_assert(sizeof(vss_addr::va_addr) == 128, "an address record holds 128 address bytes");

namespace {

char *copyOf(std::string_view s) {
    return strndup(s.data(), s.size());
}

void setIf(int *p, int v) {
    if (p != nullptr)
        *p = v;
}

} // namespace

extern "C" {

int VSS_parse(const char *str, char **addr, char **port, int *err) {
    *addr = *port = nullptr;
    std::string_view s(str);

    if (s.starts_with('[')) {
        size_t close = s.find(']');
        if (close == std::string_view::npos || close == 1 ||
            (close + 1 < s.size() && s[close + 1] != ':')) {
            setIf(err, 1);
            return -1;
        }
        *addr = copyOf(s.substr(1, close - 1));
        VAS_NOTNULL(*addr);
        if (close + 1 < s.size()) {
            *port = copyOf(s.substr(close + 2));
            VAS_NOTNULL(*port);
        }
        return 0;
    }

    // A blank wins over a colon, so "host port" works with any port text.
    size_t sep = s.find(' ');
    if (sep == std::string_view::npos)
        sep = s.find(':');
    if (sep == std::string_view::npos) {
        *addr = copyOf(s);
        VAS_NOTNULL(*addr);
        return 0;
    }
    // Nothing before the separator means any address.
    if (sep > 0) {
        *addr = copyOf(s.substr(0, sep));
        VAS_NOTNULL(*addr);
    }
    *port = copyOf(s.substr(sep + 1));
    VAS_NOTNULL(*port);
    return 0;
}

int VSS_resolve(const char *str, const char *def_port, struct vss_addr ***vap, int *err) {
    *vap = nullptr;
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    // A missing host then means the wildcard addresses, as a listener wants.
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;

    char *h;
    char *p;
    if (VSS_parse(str, &h, &p, err) != 0)
        return 0;

    struct addrinfo *res0;
    int ret;
    if (p != nullptr)
        ret = getaddrinfo(h, p, &hints, &res0);
    else
        // The text as it stands: "[::1]" reaches the resolver with its
        // brackets and fails there.
        ret = getaddrinfo(str, def_port, &hints, &res0);
    free(h);
    free(p);
    if (ret != 0) {
        setIf(err, 5);
        return 0;
    }
    VAS_NOTNULL(res0);

    int n = 0;
    for (const addrinfo *res = res0; res != nullptr; res = res->ai_next)
        n++;
    if (n == 0) {
        setIf(err, 6);
        freeaddrinfo(res0);
        return 0;
    }

    // An array of record pointers, one per address.
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    auto va = static_cast<vss_addr **>(calloc(static_cast<size_t>(n), sizeof(vss_addr *)));
    VAS_NOTNULL(va);
    *vap = va;
    int i = 0;
    for (const addrinfo *res = res0; res != nullptr; res = res->ai_next, i++) {
        va[i] = static_cast<vss_addr *>(calloc(1, sizeof(vss_addr)));
        VAS_NOTNULL(va[i]);
        va[i]->va_family = res->ai_family;
        va[i]->va_socktype = res->ai_socktype;
        va[i]->va_protocol = res->ai_protocol;
        va[i]->va_addrlen = res->ai_addrlen;
        VAS_ASSERT(va[i]->va_addrlen <= sizeof va[i]->va_addr);
        memcpy(&va[i]->va_addr, res->ai_addr, va[i]->va_addrlen);
    }
    freeaddrinfo(res0);
    return n;
}

int VSS_bindAddr(const struct vss_addr *va) {
    int sd = socket(va->va_family, va->va_socktype, va->va_protocol);
    if (sd < 0) {
        perror("socket()");
        return -1;
    }
    int val = 1;
    if (setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &val, sizeof val) != 0) {
        perror("setsockopt(SO_REUSEADDR, 1)");
        (void)close(sd);
        return -1;
    }
    if (bind(sd, reinterpret_cast<const sockaddr *>(&va->va_addr), va->va_addrlen) != 0) {
        perror("bind()");
        (void)close(sd);
        return -1;
    }
    return sd;
}

int VSS_listenAddr(const struct vss_addr *va, int depth) {
    int sd = VSS_bindAddr(va);
    if (sd >= 0 && listen(sd, depth) != 0) {
        perror("listen()");
        (void)close(sd);
        return -1;
    }
    return sd;
}

int VSS_connectAddr(const struct vss_addr *va, int nonblock, int *err, int *errnum) {
    int sd = socket(va->va_family, va->va_socktype, va->va_protocol);
    if (sd < 0) {
        // A family the host lacks (no IPv6, say) is skipped without noise.
        if (errno != EPROTONOSUPPORT)
            perror("socket()");
        setIf(err, 3);
        setIf(errnum, errno);
        return -1;
    }
    if (nonblock)
        VTCP_nonblocking(sd);
    int i = connect(sd, reinterpret_cast<const sockaddr *>(&va->va_addr), va->va_addrlen);
    if (i != 0 && !(nonblock && errno == EINPROGRESS)) {
        setIf(err, 4);
        setIf(errnum, errno);
        (void)close(sd);
        return -1;
    }
    // Callers always get a blocking socket, even one still connecting.
    (void)VTCP_blocking(sd);
    return sd;
}

int VSS_open(const char *str, int *err, int *errnum, double tmo) {
    struct vss_addr **vaa;
    int n = VSS_resolve(str, nullptr, &vaa, err);
    int fd = -1;
    for (int i = 0; i < n; i++) {
        if (fd < 0) {
            fd = VSS_connectAddr(vaa[i], tmo != 0.0, err, errnum);
            if (fd >= 0 && tmo != 0.0) {
                fd_set set;
                FD_ZERO(&set);
                FD_SET(fd, &set);
                struct timeval tv = {static_cast<time_t>(tmo), 0};
                // Writable also after a refusal: that counts as connected,
                // and the caller's first write finds out.
                if (select(fd + 1, nullptr, &set, nullptr, &tv) <= 0) {
                    (void)close(fd);
                    setIf(err, 2);
                    fd = -1;
                }
            }
        }
        free(vaa[i]);
    }
    free(vaa);
    // Descriptor 0 is handed back as it is, without time limits.
    if (fd > 0 && tmo > 0)
        VTCP_setTimeout(fd, static_cast<int>(tmo));
    return fd;
}

} // extern "C"
