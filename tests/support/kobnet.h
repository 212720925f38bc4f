// Loopback peers for the socket tests: listeners, a listener that never
// completes another handshake, and a UDP responder.  Everything binds
// 127.0.0.1 or ::1 only.

#ifndef KOBNET_H
#define KOBNET_H

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kobtest {

// An owned descriptor.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Fd &operator=(Fd &&o) noexcept {
        reset(std::exchange(o.fd_, -1));
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// A loopback socket address of the family, "127.0.0.1" or "::1".
struct LoopAddr {
    sockaddr_storage ss{};
    socklen_t len = 0;
    LoopAddr(int family, int port) {
        if (family == AF_INET) {
            auto *sin = reinterpret_cast<sockaddr_in *>(&ss);
            sin->sin_family = AF_INET;
            sin->sin_port = htons(static_cast<uint16_t>(port));
            sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            len = sizeof(sockaddr_in);
        } else {
            auto *sin6 = reinterpret_cast<sockaddr_in6 *>(&ss);
            sin6->sin6_family = AF_INET6;
            sin6->sin6_port = htons(static_cast<uint16_t>(port));
            sin6->sin6_addr = in6addr_loopback;
            len = sizeof(sockaddr_in6);
        }
    }
    const sockaddr *sa() const { return reinterpret_cast<const sockaddr *>(&ss); }
};

inline int boundPort(int fd) {
    sockaddr_storage ss{};
    socklen_t l = sizeof ss;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &l) != 0)
        throw std::runtime_error("getsockname failed");
    return ss.ss_family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port)
                                   : ntohs(reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
}

// A socket of type bound to the family's loopback address (port 0: any).
// Returns an empty Fd when the port is taken.
inline Fd bindLoopback(int family, int type, int port = 0) {
    Fd fd(socket(family, type, 0));
    if (fd.get() < 0)
        throw std::runtime_error("socket failed");
    if (family == AF_INET6) {
        int one = 1;
        setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    }
    LoopAddr a(family, port);
    if (bind(fd.get(), a.sa(), a.len) != 0) {
        if (errno == EADDRINUSE)
            return Fd();
        throw std::runtime_error(std::string("bind failed: ") + strerror(errno));
    }
    return fd;
}

// A TCP listener on the family's loopback address.
struct Listener {
    Fd fd;
    int port = 0;
    explicit Listener(int family = AF_INET, int backlog = 16, int wantPort = 0) {
        fd = bindLoopback(family, SOCK_STREAM, wantPort);
        if (fd.get() < 0)
            throw std::runtime_error("port taken");
        if (listen(fd.get(), backlog) != 0)
            throw std::runtime_error("listen failed");
        port = boundPort(fd.get());
    }
};

// A port on 127.0.0.1 that nobody listens on: bound, so nobody else takes
// it while the test runs, but not listening, so a connect is refused.
struct ClosedPort {
    Fd fd = bindLoopback(AF_INET, SOCK_STREAM);
    int port = boundPort(fd.get());
};

// A listener whose accept queue is full and is never drained, so a further
// connect stays half-open: its SYN is dropped and retried by the client
// until the client gives up.  A backlog of 0 still admits one connection;
// the fill stops at the first attempt that does not complete within a
// generous wait, which shows that the queue has no room left.
struct StalledListener {
    Listener listener;
    std::vector<Fd> fillers;
    int port;
    explicit StalledListener(int family = AF_INET, int wantPort = 0)
        : listener(family, 0, wantPort), port(listener.port) {
        LoopAddr a(family, port);
        for (int i = 0; i < 16; i++) {
            // fcntl rather than SOCK_NONBLOCK, which macOS does not have.
            Fd c(socket(family, SOCK_STREAM, 0));
            if (fcntl(c.get(), F_SETFL, fcntl(c.get(), F_GETFL) | O_NONBLOCK) != 0)
                throw std::runtime_error("filler fcntl failed");
            int r = connect(c.get(), a.sa(), a.len);
            if (r != 0 && errno != EINPROGRESS)
                throw std::runtime_error("filler connect failed");
            pollfd p = {c.get(), POLLOUT, 0};
            int n = poll(&p, 1, 500);
            fillers.push_back(std::move(c));
            if (n == 0)
                return;
        }
        throw std::runtime_error("the accept queue never filled");
    }
};

// A UDP socket on 127.0.0.1 that answers the first datagram it gets with
// `reply`, after `delay`.  With answer false it reads nothing and answers
// nothing.
class UdpResponder {
  public:
    explicit UdpResponder(std::string reply, bool answer = true,
                          std::chrono::microseconds delay = {})
        : fd_(bindLoopback(AF_INET, SOCK_DGRAM)), port_(boundPort(fd_.get())) {
        if (answer)
            thread_ = std::thread([this, reply, delay] { serve(reply, delay); });
    }
    ~UdpResponder() {
        if (thread_.joinable()) {
            // Wake a responder that never got its datagram.
            Fd s(socket(AF_INET, SOCK_DGRAM, 0));
            LoopAddr a(AF_INET, port_);
            if (!got_)
                (void)sendto(s.get(), "", 0, 0, a.sa(), a.len);
            thread_.join();
        }
    }
    int port() const { return port_; }

  private:
    void serve(const std::string &reply, std::chrono::microseconds delay) {
        char buf[2048];
        sockaddr_storage from{};
        socklen_t fl = sizeof from;
        ssize_t n =
            recvfrom(fd_.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
        got_ = true;
        if (n < 0)
            return;
        if (delay.count() > 0)
            std::this_thread::sleep_for(delay);
        (void)sendto(fd_.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from),
                     fl);
    }

    Fd fd_;
    int port_;
    std::atomic<bool> got_{false};
    std::thread thread_;
};

// A socket's SO_RCVTIMEO or SO_SNDTIMEO.
inline timeval sockTimeout(int fd, int opt) {
    timeval tv{};
    socklen_t l = sizeof tv;
    if (getsockopt(fd, SOL_SOCKET, opt, &tv, &l) != 0)
        throw std::runtime_error("getsockopt failed");
    return tv;
}

} // namespace kobtest

#endif
