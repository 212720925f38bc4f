// Retention: the raw text of a report (the report, the comment and the
// sender's address) is kept for a number of days; after that only its
// reference, time, user names, summary and findings remain.

#ifndef KOBREPORTD_RETENTION_H
#define KOBREPORTD_RETENTION_H

#include <condition_variable>
#include <mutex>
#include <thread>

#include "audit.h"
#include "metrics.h"
#include "store.h"

namespace kobreportd {

// One pass: expires what is older than `days` days (0: all of it).
// Returns how many.
int64_t expireOldReports(Store &store, Audit &audit, int days, const char *who);

// A pass at once, then one an hour, until the object goes.  days 0 keeps
// everything.
class RetentionTask {
  public:
    // metrics, when given, hears of every pass.
    RetentionTask(Store &store, Audit &audit, int days, Metrics *metrics = nullptr);
    ~RetentionTask();
    RetentionTask(const RetentionTask &) = delete;
    RetentionTask &operator=(const RetentionTask &) = delete;

  private:
    void run();
    void pass();
    Store &store_;
    Audit &audit_;
    int days_;
    Metrics *metrics_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace kobreportd

#endif
