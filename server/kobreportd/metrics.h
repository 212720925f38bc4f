// kobreportd's own numbers for Prometheus: uploads by answer, refusals by
// reason, bytes received, how long uploads and their triage took, reports stored, and the
// process's own figures.  Counting is lock-free; the text is made at each
// scrape.

#ifndef KOBREPORTD_METRICS_H
#define KOBREPORTD_METRICS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace kobreportd {

class Histogram {
  public:
    // Upper bounds in seconds, ascending; +Inf is implied.
    static constexpr std::array<double, 12> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                       0.1,   0.25,   0.5,   1,    2.5,   10};
    void observe(double seconds);
    // The histogram's lines for name, with HELP and TYPE.
    std::string text(const char *name, const char *help) const;

  private:
    std::array<std::atomic<uint64_t>, kBounds.size() + 1> counts_{};
    std::atomic<uint64_t> micros_{0};
};

class Metrics {
  public:
    // One upload that got an answer.
    void upload(int status, uint64_t bytes, double seconds);
    // One upload turned away before its body, for one of kRefusals.
    void refused(const char *reason);
    void triage(double seconds) { triage_.observe(seconds); }
    void stored() { stored_++; }
    void alertRaised() { alerts_++; }
    // The Prometheus text format, version 0.0.4.
    std::string text() const;

    // Why uploads are turned away from their head alone, in this order.
    static constexpr std::array<const char *, 6> kRefusals = {
        "too_large", "rate", "busy", "address_quota", "disk_free", "db_size"};

  private:
    // Answers that an upload can get, in this order.
    static constexpr std::array<int, 9> kCodes = {200, 400, 404, 405, 408, 413, 429, 500, 503};
    std::array<std::atomic<uint64_t>, kCodes.size() + 1> uploads_{}; // the last: any other
    std::array<std::atomic<uint64_t>, kRefusals.size()> refusals_{};
    std::atomic<uint64_t> bytes_{0}, stored_{0}, alerts_{0};
    Histogram duration_, triage_;
};

} // namespace kobreportd

#endif
