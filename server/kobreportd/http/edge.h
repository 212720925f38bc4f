// Inside HttpServer: the state of each connection, shared by the accept
// loop, the library's threads and the watchdog, and the workers.  Only
// server.cpp and exchange.cpp include this.

#ifndef KOBREPORTD_EDGE_H
#define KOBREPORTD_EDGE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unordered_map>
#include <vector>

#include "server.h"

struct MHD_Daemon;
struct MHD_Connection;
struct MHD_PostProcessor;

namespace kobreportd {

namespace edge {

int64_t nowNs();
std::string addressText(const sockaddr_storage &ss);
// A whole answer written straight to a socket, for the moments the
// library is not (yet, or any more) the one answering.
std::string cannedAnswer(int status, const char *reason, const std::string &text,
                         const std::string &extra);

class WorkerPool {
  public:
    explicit WorkerPool(int n);
    ~WorkerPool();
    // False once the pool has stopped: the job was not taken.
    bool submit(std::function<void()> job);
    // Finishes the jobs taken in, then joins.
    void stop();

  private:
    void run();
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    bool stop_ = false;
};

// Where a connection is.  Pending: ours, waiting for its first byte.  Head,
// Body, Working (a worker has the request) and Answering: the library's.
// Lingering: the library is done; we read what the client still sends for
// a moment before closing, so that an answer is not lost to a reset.
enum Phase : int { Pending, Head, Body, Working, Answering, Lingering };

struct Conn {
    int fd = -1; // ours: a duplicate of the library's once it has the socket
    sockaddr_storage addr{};
    socklen_t addrLen = 0;
    std::string address;
    std::string peer;  // the socket's peer, whatever a PROXY preface says
    int64_t since = 0; // accepted
    int64_t until = 0; // Lingering: closed then
    size_t drained = 0;
    bool refused = false;  // turned away at the door
    bool counted = false;  // held to the per-address cap, under `address`
    bool prefaced = false; // its PROXY preface is read
    std::atomic<int> phase{Pending};
    std::atomic<int64_t> headDeadline{0}, requestDeadline{0}, lastActivity{0};
    std::atomic<uint64_t> bodyBytes{0}, windowBytes{0};
    std::atomic<int64_t> windowStart{0};
    std::atomic<bool> ended{false};   // shut by the watchdog
    std::atomic<int> cannedStatus{0}; // ... after telling it this
    size_t rawUriLength = 0;          // the library's threads only

    // A request begins (the first byte, or the next on a kept connection).
    void startRequest(int64_t now, const EdgeLimits &l) {
        int headS = std::min(l.head_timeout_s, l.request_timeout_s);
        headDeadline = now + int64_t{headS} * 1'000'000'000LL;
        requestDeadline = now + int64_t{l.request_timeout_s} * 1'000'000'000LL;
        lastActivity = now;
        bodyBytes = 0;
    }
};

// One request on its way through the library.
struct Exchange {
    HttpServer::Impl *server = nullptr;
    Conn *conn = nullptr;
    Request req;
    const Route *route = nullptr;
    Response res;
    int64_t start = 0;
    bool hasBody = false;
    size_t contentLength = 0;
    MHD_PostProcessor *pp = nullptr;
    std::string *field = nullptr;     // the upload field being received
    const char *mappedRoom = nullptr; // its room when `mapped` was counted
    size_t mapped = 0;                // how much of that room is mapped
    std::string currentName;
    bool fieldOpen = false;
    std::string problem;
    bool folded = false; // a header line was folded onto the one before
    bool admitted = false;
    bool refused = false; // res holds a refusal for the end of the body
    int status = 0;       // the answer queued
    size_t bodyBytes = 0; // the answer's body, when it is not streamed
    std::shared_ptr<std::atomic<size_t>> streamed;
    std::atomic<bool> ready{false};
    bool submitted = false;
};

} // namespace edge

struct HttpServer::Impl {
    Impl(const RouteTable &r, const Guard *g, ServerOptions o);
    ~Impl();
    bool bind(std::string &error);
    bool startLibrary(std::string &error);
    void stop();

    // The accept loop's thread.
    void acceptLoop();
    bool acceptAll();
    void firstByte(edge::Conn *c);
    bool preface(edge::Conn *c);
    // Under the lock: the reason to turn a connection from address away,
    // or null when it may come in (and is then counted).
    const char *admitFrom(edge::Conn *c, const std::string &address);
    void turnAway(edge::Conn *c, const char *reason);
    void drain(edge::Conn *c);
    void takeClosed();
    void expire(int64_t now);
    void release(edge::Conn *c);

    void watchdog();
    // Shuts the connection; an answer (408, 400) goes first when status
    // is one and the connection is plain HTTP.
    void end(edge::Conn *c, int status);

    const RouteTable &routes;
    const Guard *guard;
    ServerOptions opt;
    bool plain = true;
    int maxConns = 0;
    int listenFd = -1, epfd = -1, wakeFd = -1, port = 0;
    char listenTag = 0, wakeTag = 0;
    MHD_Daemon *daemon = nullptr;
    edge::WorkerPool workers;
    std::thread acceptThread, watchdogThread;
    std::atomic<bool> stopping{false}, stopped{false}, draining{false};
    std::atomic<int> exchanges{0}; // requests begun and not yet over

    std::mutex mutex; // guards what follows
    std::condition_variable watchdogWake;
    std::unordered_map<edge::Conn *, std::unique_ptr<edge::Conn>> conns;
    std::unordered_map<int, edge::Conn *> byLibraryFd; // handed over, not yet started
    std::unordered_map<std::string, int> perAddress;
    std::vector<edge::Conn *> closedByLibrary; // for the accept loop to linger over
    int refusedLingering = 0;
};

} // namespace kobreportd

#endif
