#include "retention.h"

#include <chrono>
#include <cstdio>

#include "clock.h"
#include "log.h"

namespace kobreportd {

int64_t expireOldReports(Store &store, Audit &audit, int days, const char *who) {
    // Days 0 takes everything received until now.
    std::time_t cutoff = now() - static_cast<std::time_t>(days) * 86400 + (days == 0 ? 1 : 0);
    int64_t n = store.expireBefore(cutoff);
    if (n > 0)
        audit.record(who, "", "retention.expired", "",
                     std::to_string(n) + (n == 1 ? " report" : " reports") + " older than " +
                         std::to_string(days) + " days");
    return n;
}

RetentionTask::RetentionTask(Store &store, Audit &audit, int days, Metrics *metrics)
    : store_(store), audit_(audit), days_(days), metrics_(metrics) {
    if (days_ <= 0)
        return;
    // The first pass is done before the server takes requests, so that
    // nothing past its time is shown after a long stop.
    pass();
    thread_ = std::thread([this] { run(); });
}

void RetentionTask::pass() {
    int64_t n = expireOldReports(store_, audit_, days_, "kobreportd");
    if (metrics_)
        metrics_->retention(now(), n);
}

RetentionTask::~RetentionTask() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void RetentionTask::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::hours(1), [this] { return stop_; })) {
        lock.unlock();
        try {
            pass();
        } catch (const StoreError &e) {
            log::error("retention_failed", {{"error", e.what()}});
        }
        lock.lock();
    }
}

} // namespace kobreportd
