// The public intake: the upload endpoint kobdiag posts to and a health
// check, nothing else.  Every other path is 404 here, the staff pages
// included; they live on a listener of their own (staff.h).

#ifndef KOBREPORTD_INTAKE_H
#define KOBREPORTD_INTAKE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "metrics.h"
#include "networks.h"
#include "quotas.h"
#include "routes.h"
#include "server.h"
#include "store.h"

namespace kobreportd {

// Workers for the uploads' triage and storing: eight per core, at least 16
// so that a group commit gathers enough reports, at most 64.  Receiving
// takes no worker: a slow sender costs memory only.
int threadsForThisMachine();

struct Limits {
    size_t max_body = 64u << 20;
    int read_timeout_s = 10;     // silence allowed within a request
    int request_timeout_s = 120; // for the whole request, head and body
    int threads = threadsForThisMachine();
    int rate_per_minute = 30; // uploads per source address; 0: no limit
    int max_inflight = 64;    // uploads between their head and their answer
    int max_conns_per_address = 8;
    int max_conns = 0; // 0: from the file limit
};

// What a sender is held to by the rate and the quota: its IPv4 address, or
// its IPv6 address's /64 (one machine is commonly given a whole /64).
std::string senderKey(const std::string &address);

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

constexpr const char *kUploadPath = "/report/problem.php";

// The intake's rows of the route table, and what its upload route needs
// from the listener.
class Intake {
  public:
    // quotas may be null: no budget and no disk guard; networks too: no
    // sender's network is kept.
    Intake(Store &store, const Limits &limits, Metrics &metrics, Quotas *quotas = nullptr,
           const Networks *networks = nullptr);
    void addRoutes(RouteTable &table);
    UploadHooks hooks();

  private:
    bool admit(const Request &req, Response &res);
    void upload(const Request &req, Response &res);
    Store &store_;
    Limits limits_;
    Metrics &metrics_;
    Quotas *quotas_;
    const Networks *networks_;
    RateLimiter rate_;
    std::atomic<int> inflight_{0};
};

} // namespace kobreportd

#endif
