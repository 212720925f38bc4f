// One listener of kobreportd at the edge: our own accept loop (the
// connection caps decided there, a connection held until its first byte),
// an event-driven HTTP library (libmicrohttpd) parsing the requests, a
// watchdog for heads that come late and bodies that crawl, and workers for
// whatever waits (the database, the group commit) while the connection is
// suspended.  An idle or slow connection costs memory, never a thread.

#ifndef KOBREPORTD_SERVER_H
#define KOBREPORTD_SERVER_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "certificates.h"
#include "proxies.h"
#include "routes.h"

namespace kobreportd {

// The bounds every request and connection of a listener lives within.
struct EdgeLimits {
    size_t max_head = 16384; // request line and header fields, in bytes
    int max_head_lines = 100;
    size_t max_uri = 8192;
    int head_timeout_s = 10;     // from the connection's first byte
    int read_timeout_s = 10;     // silence allowed, before the first byte too
    int request_timeout_s = 120; // the whole request, head and body
    size_t min_body_rate = 1024; // bytes a second, averaged over the window
    int body_rate_window_s = 10;
    int max_conns_per_address = 8;
    int max_conns = 0; // 0: from the file limit (maxConnsForFileLimit)
    size_t max_body = 64u << 20;
};

// The connections the file limit allows: each costs two descriptors while
// the library has it (ours and the library's), and some are kept for the
// databases and logs.
int maxConnsForFileLimit();

// What an Upload route needs beside its handler, all called on the I/O
// threads and so quick.
struct UploadHooks {
    // Decides from the head alone: false with res holding the refusal.
    std::function<bool(const Request &, Response &)> admit;
    // A field of the form begins: false with problem set refuses the form;
    // reserve may give the size the field will likely reach.
    std::function<bool(const std::string &name, const Request &, std::string &problem,
                       size_t &reserve)>
        field;
    // Every upload once it is over: status 0 when it got no answer (the
    // client went away); admitted when admit let it in.
    std::function<void(const Request &, int status, bool admitted, double seconds)> finished;
};

struct ServerOptions {
    Listener listener = Listener::Intake;
    std::string host; // to bind to
    int port = 0;     // 0: any free port
    EdgeLimits limits;
    int workers = 16;
    int io_threads = 2;
    // Answers close their connection (the intake), or it is kept for the
    // next request (the staff side).
    bool close_each = true;
    // TLS with the certificate and key these hold (null: plain HTTP).
    Certificates *certificates = nullptr;
    std::vector<std::pair<std::string, std::string>> default_headers;
    std::string not_allowed_text = "Method not allowed\n"; // 405
    // The operator's reverse proxies, or null: only their connections may
    // name the client, and they are not held to the per-address cap.
    const TrustedProxies *proxies = nullptr;
    // Every connection begins with a PROXY protocol preface (v1 or v2).
    bool proxy_protocol = false;
    // Every request once it is over, with its route (null: none), its
    // answer's status (0: none) and body bytes; called on the library's
    // threads.
    std::function<void(const Request &, const Route *, int status, size_t bytes, double seconds)>
        observed;
    UploadHooks upload;
    // Asked on a worker before every request's handler: a text means the
    // listener cannot serve now, and the request is answered 503 with it.
    std::function<std::optional<std::string>()> unavailable;
};

class HttpServer {
  public:
    HttpServer(const RouteTable &routes, const Guard *guard, ServerOptions options);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    // Binds, listens and starts serving; false with error set when it
    // cannot.  port() is the bound port afterwards.
    bool start(std::string &error);
    int port() const;
    // Stops accepting connections and waits until the requests under way
    // have been answered, or the deadline passes; true when none is left.
    // A connection that has not yet sent a whole head is not waited for.
    bool drain(std::chrono::steady_clock::time_point deadline);
    // Stops accepting, lets the work under way finish, closes everything.
    void stop();

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace kobreportd

#endif
