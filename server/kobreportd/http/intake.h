// The public intake: the upload endpoint kobdiag posts to and a health
// check, nothing else.  Every other path is 404 here, the staff pages
// included; they live on a listener of their own (staff.h).

#ifndef KOBREPORTD_INTAKE_H
#define KOBREPORTD_INTAKE_H

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "metrics.h"
#include "store.h"

namespace kobreportd {

// Intake workers for this machine: eight per core, at least 16 so that a few
// slow senders do not hold up everyone, at most 64.  More would only crowd
// the cores that receive, triage and commit the reports.
int threadsForThisMachine();

struct Limits {
    size_t max_body = 64u << 20;
    int read_timeout_s = 10;     // for any one read or write
    int request_timeout_s = 120; // for the whole request, head and body
    int threads = threadsForThisMachine();
    int rate_per_minute = 30; // uploads per source address; 0: no limit
    int max_inflight = 64;    // uploads being received at once
};

// Uploads allowed per source address: a bucket of `rate` tokens that
// refills at `rate` a minute.
class RateLimiter {
  public:
    explicit RateLimiter(int perMinute) : rate_(perMinute) {}
    // 0 when the upload may go ahead, else the seconds until it may.
    int take(const std::string &address);

  private:
    struct Bucket {
        double tokens;
        std::chrono::steady_clock::time_point at;
    };
    int rate_;
    std::mutex mutex_;
    std::map<std::string, Bucket> buckets_;
};

class IntakeServer : public httplib::Server {
  public:
    IntakeServer(Store &store, const Limits &limits, Metrics &metrics);

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
    Metrics &metrics_;
    RateLimiter rate_;
    std::atomic<int> inflight_{0};
    // The warm-up's request is not an upload to count; it runs before any
    // worker exists.
    bool warming_ = true;
};

// A plain-text answer; every answer closes its connection.
void answer(httplib::Response &res, int status, const std::string &text);

} // namespace kobreportd

#endif
