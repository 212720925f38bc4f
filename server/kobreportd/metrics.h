// kobreportd's own numbers for Prometheus: uploads by answer, refusals by
// reason, bytes received, how long uploads and their triage took, reports stored, how long
// the database took and what it failed, and the process's own figures.  Counting is lock-free; the
// text is made at each scrape.

#ifndef KOBREPORTD_METRICS_H
#define KOBREPORTD_METRICS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace kobreportd {

class Histogram {
  public:
    // Upper bounds in seconds of an HTTP answer, ascending; +Inf is implied.
    static constexpr std::array<double, 12> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                       0.1,   0.25,   0.5,   1,    2.5,   10};
    // A database's answers are one to two decades quicker than a request's.
    static constexpr std::array<double, 12> kDatabaseBounds = {
        0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5};
    // Bounds: one of the arrays above, which outlive every histogram.
    explicit Histogram(const std::array<double, 12> &bounds = kBounds) : bounds_(bounds) {}
    void observe(double seconds);
    // The histogram's lines for name, with HELP and TYPE.
    std::string text(const char *name, const char *help) const;
    // Its lines alone, with labels ("listener=\"staff\"") beside le.
    std::string lines(const char *name, const std::string &labels) const;

  private:
    const std::array<double, 12> &bounds_;
    std::array<std::atomic<uint64_t>, kBounds.size() + 1> counts_{};
    std::atomic<uint64_t> micros_{0};
};

class Metrics {
  public:
    // What the server is: build_info's labels.
    void setBuild(std::string version, int layout);
    // The database's bytes on disk (with its log), read at each scrape;
    // nothing when it cannot tell.
    void setStoreSize(std::function<std::optional<uint64_t>()> size);
    // The write-ahead log's bytes on disk, read at each scrape; nothing for
    // a database that keeps no such file of ours (PostgreSQL).
    void setWalSize(std::function<std::optional<uint64_t>()> size);
    // The disk guard's figures, read at each scrape: the database's file
    // system as free and total bytes (nothing when it cannot tell, as for
    // PostgreSQL), the share kept free and the database's cap (0: none).
    using DiskSpace = std::optional<std::pair<uint64_t, uint64_t>>;
    void setDiskGuard(std::function<DiskSpace()> space, double minFree, uint64_t maxDbSize);
    // One read, transaction or clean-up the database ran, and whether the
    // database failed it.
    void databaseCall(double seconds, bool failed);
    // One request of either listener that got an answer (or none: code 0),
    // under its route's pattern ("" for no route).
    void request(const char *listener, const std::string &route, int code, double seconds);
    // Uploads between their admission and their answer.
    void inflight(int delta) { inflight_ += delta; }
    // A pass of retention that expired n reports.
    void retention(std::time_t at, int64_t n);
    // One upload that got an answer.
    void upload(int status, uint64_t bytes, double seconds);
    // One upload turned away before its body, for one of kRefusals.
    void refused(const char *reason);
    void triage(double seconds) { triage_.observe(seconds); }
    void stored() { stored_++; }
    void alertRaised() { alerts_++; }
    // One webhook post that was refused or not answered; one delivery
    // accepted; one given up after its last try.
    void webhookFailed() { webhookFailures_++; }
    void webhookDelivered() { webhookDelivered_++; }
    void webhookDropped() { webhookDropped_++; }
    // The alerts and incidents open in the database, as the check at `at`
    // found them.
    void checked(int64_t alerts, int64_t incidentsOpen, int64_t incidentsAcknowledged,
                 std::time_t at) {
        alertsOpen_ = alerts;
        incidentsOpen_ = incidentsOpen;
        incidentsAcknowledged_ = incidentsAcknowledged;
        alertsAt_ = at;
    }
    // The Prometheus text format, version 0.0.4.
    std::string text() const;

    // Why uploads are turned away from their head alone, in this order.
    static constexpr std::array<const char *, 6> kRefusals = {
        "too_large", "rate", "busy", "address_quota", "disk_free", "db_size"};

  private:
    // Answers that an upload can get, in this order.
    std::string serverText() const;
    static constexpr std::array<int, 9> kCodes = {200, 400, 404, 405, 408, 413, 429, 500, 503};
    std::array<std::atomic<uint64_t>, kCodes.size() + 1> uploads_{}; // the last: any other
    std::array<std::atomic<uint64_t>, kRefusals.size()> refusals_{};
    std::atomic<uint64_t> bytes_{0}, stored_{0}, alerts_{0}, expired_{0};
    std::atomic<uint64_t> webhookFailures_{0}, webhookDelivered_{0}, webhookDropped_{0};
    std::atomic<int64_t> inflight_{0}, retentionAt_{0}, alertsOpen_{0}, alertsAt_{0};
    std::atomic<int64_t> incidentsOpen_{0}, incidentsAcknowledged_{0};
    Histogram duration_, triage_, database_{Histogram::kDatabaseBounds};
    std::atomic<uint64_t> databaseErrors_{0};
    std::string version_ = "unknown";
    int layout_ = 0;
    std::function<std::optional<uint64_t>()> storeSize_, walSize_;
    std::function<DiskSpace()> diskSpace_;
    double minFree_ = 0;
    uint64_t maxDbSize_ = 0;
    // Requests by listener, route and code; the routes are the table's
    // patterns and the codes a handful, so this stays small.
    mutable std::mutex requestsMutex_;
    std::map<std::tuple<std::string, std::string, int>, uint64_t> requests_;
    std::map<std::string, Histogram> requestDurations_; // by listener
};

} // namespace kobreportd

#endif
