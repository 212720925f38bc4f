// The intake server: the upload endpoint kobdiag posts to, and the views for
// support staff, on one cpp-httplib server.

#ifndef KOBREPORTD_SERVER_H
#define KOBREPORTD_SERVER_H

#include <httplib.h>

#include <cstddef>
#include <string>

#include "store.h"

namespace kobreportd {

struct Limits {
    size_t max_body = 64u << 20;
    int read_timeout_s = 10;     // for any one read or write
    int request_timeout_s = 120; // for the whole request, head and body
    int threads = 64;
};

class IntakeServer : public httplib::Server {
  public:
    IntakeServer(Store &store, const Limits &limits);

    // After binding: a deeper accept queue than the library's five, so that
    // a burst of uploads (every user of a failing network at once) waits
    // for a worker instead of being turned away.
    void widenBacklog();

    // Runs one refused form through the library before any worker exists.
    // The library builds its form parser's patterns on first use, as
    // function-local statics; built here, every worker finds them complete
    // through thread creation alone, which also lets ThreadSanitizer see
    // that (it cannot see the library's own guard checks).
    void warmUp();

  private:
    // One request per connection, read under a deadline for the whole
    // request: a per-read timeout alone lets a client that trickles a byte
    // a second hold a worker for ever.
    bool process_and_close_socket(socket_t sock) override;

    void upload(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader &reader);
    Store &store_;
    Limits limits_;
};

// The browser view and /api/ (web.cpp).
void addViews(httplib::Server &svr, Store &store);

// A plain-text answer; every answer closes its connection.
void answer(httplib::Response &res, int status, const std::string &text);

} // namespace kobreportd

#endif
