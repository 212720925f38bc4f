#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <microhttpd.h>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

#include "edge.h"

namespace kobreportd {

int maxConnsForFileLimit() {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY)
        return 32768;
    long usable = static_cast<long>(rl.rlim_cur) - 256;
    return static_cast<int>(std::clamp(usable / 2, 16L, 1L << 20));
}

namespace edge {

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

WorkerPool::WorkerPool(int n) {
    for (int i = 0; i < n; i++)
        threads_.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool() {
    stop();
}

bool WorkerPool::submit(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_)
            return false;
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

void WorkerPool::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    for (auto &t : threads_)
        if (t.joinable())
            t.join();
}

void WorkerPool::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
        // Work already taken in is finished before the pool stops: each job
        // holds a suspended connection that waits for it.
        if (jobs_.empty())
            return;
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

std::string addressText(const sockaddr_storage &ss) {
    char host[INET6_ADDRSTRLEN] = "";
    if (ss.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(&ss)->sin_addr, host,
                  sizeof host);
    else if (ss.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(&ss)->sin6_addr, host,
                  sizeof host);
    return host;
}

std::string cannedAnswer(int status, const char *reason, const std::string &text,
                         const std::string &extra) {
    return "HTTP/1.1 " + std::to_string(status) + " " + reason +
           "\r\nContent-Type: text/plain; charset=utf-8\r\n" + extra +
           "Content-Length: " + std::to_string(text.size()) + "\r\nConnection: close\r\n\r\n" +
           text;
}

} // namespace edge

using namespace edge;

HttpServer::HttpServer(const RouteTable &routes, const Guard *guard, ServerOptions options)
    : impl_(std::make_unique<Impl>(routes, guard, std::move(options))) {}

HttpServer::~HttpServer() {
    stop();
}

int HttpServer::port() const {
    return impl_->port;
}

void HttpServer::stop() {
    impl_->stop();
}

bool HttpServer::drain(std::chrono::steady_clock::time_point deadline) {
    Impl &s = *impl_;
    if (!s.draining.exchange(true) && s.listenFd >= 0) {
        // Out of the loop's sight, and no longer listening: new clients
        // are refused by the kernel, not left waiting in the queue.
        epoll_ctl(s.epfd, EPOLL_CTL_DEL, s.listenFd, nullptr);
        shutdown(s.listenFd, SHUT_RDWR);
    }
    while (s.exchanges.load() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return s.exchanges.load() == 0;
}

bool HttpServer::start(std::string &error) {
    Impl &s = *impl_;
    if (!s.bind(error))
        return false;
    if (!s.startLibrary(error))
        return false;
    s.epfd = epoll_create1(EPOLL_CLOEXEC);
    s.wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (s.epfd < 0 || s.wakeFd < 0) {
        error = std::string("cannot make an event queue: ") + std::strerror(errno);
        return false;
    }
    struct epoll_event ev {};
    ev.events = EPOLLIN;
    ev.data.ptr = &s.listenTag;
    epoll_ctl(s.epfd, EPOLL_CTL_ADD, s.listenFd, &ev);
    ev.data.ptr = &s.wakeTag;
    epoll_ctl(s.epfd, EPOLL_CTL_ADD, s.wakeFd, &ev);
    s.acceptThread = std::thread([&s] { s.acceptLoop(); });
    s.watchdogThread = std::thread([&s] { s.watchdog(); });
    return true;
}

HttpServer::Impl::Impl(const RouteTable &r, const Guard *g, ServerOptions o)
    : routes(r), guard(g), opt(std::move(o)), workers(std::max(1, opt.workers)) {
    maxConns = opt.limits.max_conns > 0 ? opt.limits.max_conns : maxConnsForFileLimit();
    plain = opt.certificates == nullptr;
}

HttpServer::Impl::~Impl() {
    stop();
}

bool HttpServer::Impl::bind(std::string &error) {
    struct addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    struct addrinfo *res = nullptr;
    std::string service = std::to_string(opt.port);
    int rc = getaddrinfo(opt.host.c_str(), service.c_str(), &hints, &res);
    if (rc != 0) {
        error = gai_strerror(rc);
        return false;
    }
    int saved = 0;
    for (auto *ai = res; ai && listenFd < 0; ai = ai->ai_next) {
        int fd =
            socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0)
            continue;
        // Rebinding at once after a restart needs SO_REUSEADDR (connections
        // of the previous run may sit in TIME_WAIT); SO_REUSEPORT would let
        // a second server share the port unnoticed.
        int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(fd, ai->ai_addr, ai->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0) {
            listenFd = fd;
            break;
        }
        saved = errno;
        close(fd);
    }
    freeaddrinfo(res);
    if (listenFd < 0) {
        error = std::strerror(saved ? saved : EADDRNOTAVAIL);
        return false;
    }
    struct sockaddr_storage ss {};
    socklen_t len = sizeof ss;
    getsockname(listenFd, reinterpret_cast<sockaddr *>(&ss), &len);
    port = ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                                          : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
    return true;
}

void HttpServer::Impl::stop() {
    if (stopped.exchange(true))
        return;
    stopping = true;
    if (wakeFd >= 0) {
        uint64_t one = 1;
        (void)!write(wakeFd, &one, sizeof one);
    }
    watchdogWake.notify_all();
    if (acceptThread.joinable())
        acceptThread.join();
    if (watchdogThread.joinable())
        watchdogThread.join();
    if (listenFd >= 0)
        close(listenFd);
    listenFd = -1;
    // The jobs under way resume their connections; the library may only
    // stop once none is suspended.
    workers.stop();
    if (daemon)
        MHD_stop_daemon(daemon);
    daemon = nullptr;
    std::lock_guard<std::mutex> lock(mutex);
    for (auto &[c, owned] : conns)
        if (owned->fd >= 0)
            close(owned->fd);
    conns.clear();
    if (epfd >= 0)
        close(epfd);
    if (wakeFd >= 0)
        close(wakeFd);
    epfd = wakeFd = -1;
}

// --- our side of a connection: accepted, held until its first byte, and
// lingered over once the library is done with it.

void HttpServer::Impl::acceptLoop() {
    std::vector<struct epoll_event> events(256);
    int64_t acceptPausedUntil = 0;
    while (!stopping) {
        int n = epoll_wait(epfd, events.data(), static_cast<int>(events.size()), 200);
        int64_t now = nowNs();
        if (acceptPausedUntil && now >= acceptPausedUntil && !draining) {
            struct epoll_event ev {};
            ev.events = EPOLLIN;
            ev.data.ptr = &listenTag;
            epoll_ctl(epfd, EPOLL_CTL_ADD, listenFd, &ev);
            acceptPausedUntil = 0;
        }
        for (int i = 0; i < n; i++) {
            void *tag = events[i].data.ptr;
            if (tag == &listenTag) {
                if (!acceptAll()) {
                    // Out of descriptors: the queue waits a moment instead
                    // of waking this loop for nothing.
                    epoll_ctl(epfd, EPOLL_CTL_DEL, listenFd, nullptr);
                    acceptPausedUntil = now + 100'000'000;
                }
            } else if (tag == &wakeTag) {
                uint64_t v;
                (void)!read(wakeFd, &v, sizeof v);
                takeClosed();
            } else {
                auto *c = static_cast<Conn *>(tag);
                if (c->phase.load() == Pending)
                    firstByte(c);
                else
                    drain(c);
            }
        }
        expire(now);
    }
}

bool HttpServer::Impl::acceptAll() {
    for (int k = 0; k < 512; k++) {
        struct sockaddr_storage ss {};
        socklen_t len = sizeof ss;
        int fd = accept4(listenFd, reinterpret_cast<sockaddr *>(&ss), &len,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                return false;
            return true;
        }
        auto c = std::make_unique<Conn>();
        c->fd = fd;
        c->addr = ss;
        c->addrLen = len;
        c->address = addressText(ss);
        if (std::string plainForm = canonicalAddress(c->address); !plainForm.empty())
            c->address = plainForm; // IPv4 on a dual-stack socket, as IPv4
        c->peer = c->address;
        c->since = nowNs();
        Conn *raw = c.get();
        const char *refusal = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (static_cast<int>(conns.size()) - refusedLingering >= maxConns)
                refusal = "Too busy, please try again shortly\n";
            else if (!(opt.proxies && opt.proxies->trusts(c->address)))
                refusal = admitFrom(raw, c->address);
            if (refusal) {
                // A flood of refusals is not lingered over: past a few
                // hundred, the refused are closed at once.
                if (refusedLingering >= 256) {
                    close(fd);
                    continue;
                }
                refusedLingering++;
                c->refused = true;
            }
            conns.emplace(raw, std::move(c));
        }
        struct epoll_event ev {};
        ev.data.ptr = raw;
        ev.events = EPOLLIN | EPOLLRDHUP;
        if (refusal)
            turnAway(raw, refusal);
        else
            raw->phase = Pending;
        epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev);
    }
    return true;
}

const char *HttpServer::Impl::admitFrom(Conn *c, const std::string &address) {
    int &mine = perAddress[address];
    if (mine >= opt.limits.max_conns_per_address) {
        if (mine == 0)
            perAddress.erase(address);
        return "Too many connections from this address, please try again shortly\n";
    }
    mine++;
    c->counted = true;
    return nullptr;
}

// Said at once, never queued; the client's request is read and dropped for
// a moment so that the answer is not lost to a reset.
void HttpServer::Impl::turnAway(Conn *c, const char *reason) {
    if (plain) {
        std::string text = cannedAnswer(503, "Service Unavailable", reason, "Retry-After: 10\r\n");
        (void)!send(c->fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    shutdown(c->fd, SHUT_WR);
    c->phase = Lingering;
    c->until = nowNs() + 2'000'000'000LL;
}

// A PROXY preface, read whole before anything else: true once it is (the
// connection then belongs to the client it names, when its peer is one of
// our proxies), false while more of it is awaited or when the connection
// is gone or turned away.
bool HttpServer::Impl::preface(Conn *c) {
    // The longest a preface can be; the accept loop is one thread.
    thread_local std::vector<char> buf(16 + 65535);
    ssize_t n = recv(c->fd, buf.data(), buf.size(), MSG_PEEK);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    ProxyPreface p;
    if (n > 0)
        p = parseProxyPreface(std::string_view(buf.data(), static_cast<size_t>(n)));
    else
        p.state = ProxyPreface::State::Bad; // gone before its preface
    struct epoll_event ev {};
    ev.data.ptr = c;
    ev.events = EPOLLIN | EPOLLRDHUP;
    if (p.state == ProxyPreface::State::Incomplete) {
        // What came is still unread: woken by level, this loop would spin on
        // it; woken by edge, it waits for the rest.
        ev.events |= EPOLLET;
        epoll_ctl(epfd, EPOLL_CTL_MOD, c->fd, &ev);
        return false;
    }
    if (p.state == ProxyPreface::State::Bad ||
        recv(c->fd, buf.data(), p.length, 0) != static_cast<ssize_t>(p.length)) {
        epoll_ctl(epfd, EPOLL_CTL_DEL, c->fd, nullptr);
        release(c);
        return false;
    }
    c->prefaced = true;
    epoll_ctl(epfd, EPOLL_CTL_MOD, c->fd, &ev);
    if (!opt.proxies || !opt.proxies->trusts(c->address) || p.source.empty())
        return true;
    const char *refusal = nullptr;
    bool closeNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        c->address = p.source;
        refusal = admitFrom(c, c->address);
        closeNow = refusal && refusedLingering >= 256;
        if (refusal && !closeNow) {
            refusedLingering++;
            c->refused = true;
        }
    }
    if (closeNow) {
        epoll_ctl(epfd, EPOLL_CTL_DEL, c->fd, nullptr);
        release(c);
    } else if (refusal) {
        turnAway(c, refusal);
    }
    return !refusal;
}

void HttpServer::Impl::firstByte(Conn *c) {
    if (opt.proxy_protocol && !c->prefaced && !preface(c))
        return;
    char b;
    ssize_t n = recv(c->fd, &b, 1, MSG_PEEK);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    epoll_ctl(epfd, EPOLL_CTL_DEL, c->fd, nullptr);
    if (n <= 0) {
        release(c);
        return;
    }
    // The library closes its descriptor when it is done; ours stays open so
    // that the watchdog can always reach this connection, and so that we
    // linger over it afterwards.
    int mine = dup(c->fd);
    if (mine < 0) {
        release(c);
        return;
    }
    int theirs = c->fd;
    int64_t now = nowNs();
    c->startRequest(now, opt.limits);
    {
        std::lock_guard<std::mutex> lock(mutex);
        c->fd = mine;
        byLibraryFd[theirs] = c;
    }
    c->phase = Head;
    if (MHD_add_connection(daemon, theirs, reinterpret_cast<sockaddr *>(&c->addr), c->addrLen) !=
        MHD_YES) {
        // The library has closed its descriptor already.
        {
            std::lock_guard<std::mutex> lock(mutex);
            byLibraryFd.erase(theirs);
        }
        release(c);
    }
}

void HttpServer::Impl::drain(Conn *c) {
    char buf[16384];
    for (;;) {
        ssize_t n = recv(c->fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            c->drained += static_cast<size_t>(n);
            if (c->drained < (8u << 20))
                continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        epoll_ctl(epfd, EPOLL_CTL_DEL, c->fd, nullptr);
        release(c);
        return;
    }
}

void HttpServer::Impl::takeClosed() {
    std::vector<Conn *> taken;
    {
        std::lock_guard<std::mutex> lock(mutex);
        taken.swap(closedByLibrary);
    }
    int64_t now = nowNs();
    for (Conn *c : taken) {
        c->until = now + 2'000'000'000LL;
        struct epoll_event ev {};
        ev.events = EPOLLIN | EPOLLRDHUP;
        ev.data.ptr = c;
        if (epoll_ctl(epfd, EPOLL_CTL_ADD, c->fd, &ev) != 0)
            release(c);
    }
}

void HttpServer::Impl::expire(int64_t now) {
    std::vector<Conn *> done;
    {
        std::lock_guard<std::mutex> lock(mutex);
        int64_t idle = int64_t{opt.limits.read_timeout_s} * 1'000'000'000LL;
        for (auto &[c, owned] : conns) {
            int phase = c->phase.load();
            if ((phase == Pending && now - c->since >= idle) ||
                (phase == Lingering && c->until && now >= c->until))
                done.push_back(c);
        }
    }
    for (Conn *c : done) {
        epoll_ctl(epfd, EPOLL_CTL_DEL, c->fd, nullptr);
        release(c);
    }
}

void HttpServer::Impl::release(Conn *c) {
    std::lock_guard<std::mutex> lock(mutex);
    close(c->fd);
    if (c->refused)
        refusedLingering--;
    if (auto it = c->counted ? perAddress.find(c->address) : perAddress.end();
        it != perAddress.end() && --it->second <= 0)
        perAddress.erase(it);
    conns.erase(c);
}

// --- the watchdog: heads that come late, bodies that stop or crawl.

void HttpServer::Impl::watchdog() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        watchdogWake.wait_for(lock, std::chrono::milliseconds(100));
        int64_t now = nowNs();
        const EdgeLimits &l = opt.limits;
        int64_t idle = int64_t{l.read_timeout_s} * 1'000'000'000LL;
        int64_t window = int64_t{l.body_rate_window_s} * 1'000'000'000LL;
        for (auto &[c, owned] : conns) {
            int phase = c->phase.load();
            char b;
            if (phase == Head && (now >= c->headDeadline.load() ||
                                  (now - c->lastActivity.load() >= 300'000'000 &&
                                   recv(c->fd, &b, 1, MSG_PEEK | MSG_DONTWAIT) == 0))) {
                // Late, or the client shut its side before its head was
                // whole (the library may not look until its own time-out).
                end(c, 0);
            } else if (phase == Body) {
                bool late =
                    now >= c->requestDeadline.load() || now - c->lastActivity.load() >= idle;
                uint64_t bytes = c->bodyBytes.load();
                if (now - c->windowStart.load() >= window) {
                    if (bytes - c->windowBytes.load() <
                        l.min_body_rate * static_cast<uint64_t>(l.body_rate_window_s))
                        late = true;
                    c->windowStart = now;
                    c->windowBytes = bytes;
                }
                if (late)
                    end(c, 408);
                else if (now - c->lastActivity.load() >= 300'000'000 &&
                         recv(c->fd, &b, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
                    // The client shut its side with the body unfinished.
                    end(c, 400);
            }
        }
    }
}

void HttpServer::Impl::end(Conn *c, int status) {
    if (c->ended.exchange(true))
        return;
    // The library reads nothing more once both directions are shut; a body
    // that ran out of time hears why first (on plain HTTP, where we can).
    if (status && plain) {
        std::string text =
            status == 408
                ? cannedAnswer(408, "Request Timeout", "Request timeout\n", "")
                : cannedAnswer(400, "Bad Request", "Bad request: the body ended early\n", "");
        if (send(c->fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
            c->cannedStatus = status;
    }
    shutdown(c->fd, SHUT_RDWR);
}

} // namespace kobreportd
