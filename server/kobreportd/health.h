// Whether this instance can do its work: /healthz says it is alive,
// /readyz that it is ready (the database answers within a second, the disk
// guard lets uploads in, and it is not shutting down).  A load balancer or
// Prometheus sends traffic and alerts by these, so readiness is measured,
// never assumed.

#ifndef KOBREPORTD_HEALTH_H
#define KOBREPORTD_HEALTH_H

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quotas.h"
#include "routes.h"
#include "sql.h"

namespace kobreportd {

class Health {
  public:
    Health(sql::Db &db, Quotas *quotas);
    ~Health();
    Health(const Health &) = delete;
    Health &operator=(const Health &) = delete;

    // /healthz and /readyz on both listeners.
    void addRoutes(RouteTable &table);

    // From now on /readyz answers 503: the instance is draining.
    void shuttingDown() { stopping_ = true; }

    // Nothing when ready; else why not, in a few words.
    std::optional<std::string> problem();

  private:
    std::optional<std::string> databaseProblem();

    sql::Db &db_;
    Quotas *quotas_;
    std::atomic<bool> stopping_{false};
    // The one database check under way, if any: a check that hangs is
    // not started again on every request that asks.
    struct Probe;
    std::mutex mutex_;
    std::shared_ptr<Probe> probe_;
    std::optional<std::string> lastProblem_;
};

} // namespace kobreportd

#endif
