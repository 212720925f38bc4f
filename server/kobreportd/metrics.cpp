#include "metrics.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>

namespace kobreportd {

namespace {

// The shortest decimal that reads back as v: "0.005", not
// "0.0050000000000000001", so that le="0.005" matches.
std::string number(double v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

// A bucket's bound in plain decimals: "0.0005", which the shortest form
// would write "5e-04", a label no one would type in a query.
std::string bound(double v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed);
    return std::string(buf, r.ptr);
}

// A label's value in the text format: backslash, quote and line feed
// escaped.
std::string labelValue(const std::string &v) {
    std::string out;
    for (char c : v) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

// When this process started, seconds since the epoch: the boot time plus
// the start's clock ticks after it, both fixed, so that every scrape says
// the same.
double processStart() {
    static const double start = [] {
        long ticks = sysconf(_SC_CLK_TCK);
        std::ifstream statFile("/proc/self/stat");
        std::string stat((std::istreambuf_iterator<char>(statFile)),
                         std::istreambuf_iterator<char>());
        auto close = stat.rfind(')');
        std::ifstream boot("/proc/stat");
        double btime = -1;
        for (std::string key; boot >> key;)
            if (key == "btime") {
                boot >> btime;
                break;
            }
        if (close == std::string::npos || ticks <= 0 || btime < 0)
            return static_cast<double>(std::time(nullptr));
        std::istringstream in(stat.substr(close + 2));
        std::string f[20];
        for (auto &x : f)
            in >> x;
        return btime + std::stod(f[19]) / static_cast<double>(ticks);
    }();
    return start;
}

void header(std::string &out, const char *name, const char *help, const char *type) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string &out, const char *name, double v) {
    out += std::string(name) + " " + number(v) + "\n";
}

// What the kernel says of this process: CPU time, memory, descriptors and
// start time, under the names Prometheus clients use for them.
std::string processText() {
    std::string out;
    long ticks = sysconf(_SC_CLK_TCK), page = sysconf(_SC_PAGESIZE);
    std::ifstream statFile("/proc/self/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
    // The fields after the command name, which is in parentheses and may
    // hold anything.
    auto close = stat.rfind(')');
    if (close != std::string::npos && ticks > 0) {
        std::istringstream in(stat.substr(close + 2));
        std::string f[24];
        for (auto &x : f)
            in >> x;
        // utime and stime are fields 14 and 15, starttime 22, vsize 23,
        // rss 24 of the whole line; here they count from field 3.
        double cpu = (std::stod(f[11]) + std::stod(f[12])) / static_cast<double>(ticks);
        header(out, "process_cpu_seconds_total", "Total user and system CPU time spent in seconds.",
               "counter");
        sample(out, "process_cpu_seconds_total", cpu);
        header(out, "process_virtual_memory_bytes", "Virtual memory size in bytes.", "gauge");
        sample(out, "process_virtual_memory_bytes", std::stod(f[20]));
        header(out, "process_resident_memory_bytes", "Resident memory size in bytes.", "gauge");
        sample(out, "process_resident_memory_bytes", std::stod(f[21]) * static_cast<double>(page));
        header(out, "process_start_time_seconds",
               "Start time of the process since unix epoch in seconds.", "gauge");
        sample(out, "process_start_time_seconds", processStart());
    }
    int fds = 0;
    std::error_code ec;
    for (std::filesystem::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end;
         it.increment(ec))
        fds++;
    fds -= 1; // the listing's own descriptor
    header(out, "process_open_fds", "Number of open file descriptors.", "gauge");
    sample(out, "process_open_fds", fds);
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        header(out, "process_max_fds", "Maximum number of open file descriptors.", "gauge");
        sample(out, "process_max_fds", static_cast<double>(rl.rlim_cur));
    }
    return out;
}

} // namespace

void Histogram::observe(double seconds) {
    size_t i = 0;
    while (i < bounds_.size() && seconds > bounds_[i])
        i++;
    counts_[i]++;
    micros_ += static_cast<uint64_t>(std::llround(seconds * 1e6));
}

std::string Histogram::text(const char *name, const char *help) const {
    std::string out;
    header(out, name, help, "histogram");
    return out + lines(name, "");
}

std::string Histogram::lines(const char *name, const std::string &labels) const {
    std::string out, braces = labels.empty() ? "" : "{" + labels + "}";
    std::string before = labels.empty() ? "" : labels + ",";
    uint64_t cumulative = 0;
    for (size_t i = 0; i <= bounds_.size(); i++) {
        cumulative += counts_[i];
        out += std::string(name) + "_bucket{" + before + "le=\"" +
               (i < bounds_.size() ? bound(bounds_[i]) : std::string("+Inf")) + "\"} " +
               std::to_string(cumulative) + "\n";
    }
    out += std::string(name) + "_sum" + braces + " " + number(static_cast<double>(micros_) / 1e6) +
           "\n";
    out += std::string(name) + "_count" + braces + " " + std::to_string(cumulative) + "\n";
    return out;
}

void Metrics::setBuild(std::string version, int layout) {
    version_ = std::move(version);
    layout_ = layout;
}

void Metrics::setStoreSize(std::function<std::optional<uint64_t>()> size) {
    storeSize_ = std::move(size);
}

void Metrics::setWalSize(std::function<std::optional<uint64_t>()> size) {
    walSize_ = std::move(size);
}

void Metrics::setDiskGuard(std::function<DiskSpace()> space, double minFree, uint64_t maxDbSize) {
    diskSpace_ = std::move(space);
    minFree_ = minFree;
    maxDbSize_ = maxDbSize;
}

void Metrics::databaseCall(double seconds, bool failed) {
    database_.observe(seconds);
    if (failed)
        databaseErrors_++;
}

void Metrics::request(const char *listener, const std::string &route, int code, double seconds) {
    std::lock_guard<std::mutex> lock(requestsMutex_);
    requests_[{listener, route, code}]++;
    requestDurations_[listener].observe(seconds);
}

void Metrics::retention(std::time_t at, int64_t n) {
    retentionAt_ = at;
    expired_ += static_cast<uint64_t>(n);
}

std::string Metrics::serverText() const {
    std::string out;
    header(out, "kobreportd_build_info", "The version of kobreportd and its database layout.",
           "gauge");
    out += "kobreportd_build_info{version=\"" + labelValue(version_) + "\",layout=\"" +
           std::to_string(layout_) + "\"} 1\n";
    header(out, "kobreportd_uploads_in_flight", "Uploads admitted and not yet answered.", "gauge");
    sample(out, "kobreportd_uploads_in_flight", static_cast<double>(inflight_));
    {
        std::lock_guard<std::mutex> lock(requestsMutex_);
        header(out, "kobreportd_http_requests_total",
               "Requests answered, by listener, route pattern and HTTP status (0: none).",
               "counter");
        for (const auto &[key, n] : requests_)
            out += "kobreportd_http_requests_total{listener=\"" + std::get<0>(key) + "\",route=\"" +
                   labelValue(std::get<1>(key)) + "\",code=\"" + std::to_string(std::get<2>(key)) +
                   "\"} " + std::to_string(n) + "\n";
        header(out, "kobreportd_http_request_duration_seconds",
               "Time from a request's head to its answer, by listener.", "histogram");
        for (const auto &[listener, h] : requestDurations_)
            out += h.lines("kobreportd_http_request_duration_seconds",
                           "listener=\"" + listener + "\"");
    }
    header(out, "kobreportd_retention_last_run_timestamp_seconds",
           "When retention last ran (0: not since the start).", "gauge");
    sample(out, "kobreportd_retention_last_run_timestamp_seconds",
           static_cast<double>(retentionAt_));
    header(out, "kobreportd_retention_expired_reports_total",
           "Reports whose raw text retention expired since the start.", "counter");
    sample(out, "kobreportd_retention_expired_reports_total", static_cast<double>(expired_));
    if (auto size = storeSize_ ? storeSize_() : std::nullopt) {
        header(out, "kobreportd_database_size_bytes",
               "The database's size on disk, with its write-ahead log.", "gauge");
        sample(out, "kobreportd_database_size_bytes", static_cast<double>(*size));
    }
    if (auto size = walSize_ ? walSize_() : std::nullopt) {
        header(out, "kobreportd_database_wal_bytes",
               "The size on disk of the database's write-ahead log.", "gauge");
        sample(out, "kobreportd_database_wal_bytes", static_cast<double>(*size));
    }
    if (auto space = diskSpace_ ? diskSpace_() : std::nullopt) {
        header(out, "kobreportd_disk_free_bytes",
               "Free bytes on the database's file system, as the disk guard sees them.", "gauge");
        sample(out, "kobreportd_disk_free_bytes", static_cast<double>(space->first));
        header(out, "kobreportd_disk_size_bytes", "The size of the database's file system.",
               "gauge");
        sample(out, "kobreportd_disk_size_bytes", static_cast<double>(space->second));
    }
    header(out, "kobreportd_disk_min_free_ratio",
           "The share of the file system the disk guard keeps free (--min-free-disk).", "gauge");
    sample(out, "kobreportd_disk_min_free_ratio", minFree_);
    if (maxDbSize_) {
        header(out, "kobreportd_database_max_size_bytes",
               "The database's cap, beyond which uploads are refused (--max-db-size).", "gauge");
        sample(out, "kobreportd_database_max_size_bytes", static_cast<double>(maxDbSize_));
    }
    out += database_.text("kobreportd_database_query_duration_seconds",
                          "Time one read or one write transaction (its commit included) took the "
                          "database, waiting for a connection or the writer's turn included.");
    header(out, "kobreportd_database_errors_total",
           "Reads and write transactions the database failed.", "counter");
    sample(out, "kobreportd_database_errors_total", static_cast<double>(databaseErrors_));
    return out;
}

void Metrics::upload(int status, uint64_t bytes, double seconds) {
    size_t i = 0;
    while (i < kCodes.size() && kCodes[i] != status)
        i++;
    uploads_[i]++;
    bytes_ += bytes;
    duration_.observe(seconds);
}

void Metrics::refused(const char *reason) {
    for (size_t i = 0; i < kRefusals.size(); i++)
        if (std::string_view(kRefusals[i]) == reason)
            refusals_[i]++;
}

std::string Metrics::text() const {
    std::string out;
    header(out, "kobreportd_uploads_total", "Uploads answered, by HTTP status.", "counter");
    for (size_t i = 0; i <= kCodes.size(); i++)
        out += "kobreportd_uploads_total{code=\"" +
               (i < kCodes.size() ? std::to_string(kCodes[i]) : std::string("other")) + "\"} " +
               std::to_string(uploads_[i]) + "\n";
    header(out, "kobreportd_uploads_refused_total",
           "Uploads turned away before their body, by reason.", "counter");
    for (size_t i = 0; i < kRefusals.size(); i++)
        out += std::string("kobreportd_uploads_refused_total{reason=\"") + kRefusals[i] + "\"} " +
               std::to_string(refusals_[i]) + "\n";
    header(out, "kobreportd_upload_received_bytes_total", "Bytes of upload bodies received.",
           "counter");
    sample(out, "kobreportd_upload_received_bytes_total", static_cast<double>(bytes_));
    out += duration_.text("kobreportd_upload_duration_seconds",
                          "Time from an upload's head to its answer.");
    header(out, "kobreportd_reports_stored_total", "Reports stored since the start.", "counter");
    sample(out, "kobreportd_reports_stored_total", static_cast<double>(stored_));
    out +=
        triage_.text("kobreportd_triage_duration_seconds", "Time the triage of one report took.");
    header(out, "kobreportd_alerts_raised_total", "Alerts raised by this instance since the start.",
           "counter");
    sample(out, "kobreportd_alerts_raised_total", static_cast<double>(alerts_));
    header(out, "kobreportd_webhook_deliveries_total",
           "Alert deliveries the webhook accepted since the start.", "counter");
    sample(out, "kobreportd_webhook_deliveries_total", static_cast<double>(webhookDelivered_));
    header(out, "kobreportd_webhook_failures_total",
           "Webhook posts refused or unanswered, each try counted.", "counter");
    sample(out, "kobreportd_webhook_failures_total", static_cast<double>(webhookFailures_));
    header(out, "kobreportd_webhook_dropped_total",
           "Alert deliveries given up after their last try.", "counter");
    sample(out, "kobreportd_webhook_dropped_total", static_cast<double>(webhookDropped_));
    // Left out until a check has run: no figure rather than a false zero.
    if (alertsAt_) {
        header(out, "kobreportd_alerts_open", "Alerts open in the database at the last check.",
               "gauge");
        sample(out, "kobreportd_alerts_open", static_cast<double>(alertsOpen_));
        header(out, "kobreportd_incidents",
               "Incidents in the database at the last check, open or acknowledged.", "gauge");
        out += "kobreportd_incidents{status=\"open\"} " +
               number(static_cast<double>(incidentsOpen_)) +
               "\nkobreportd_incidents{status=\"acknowledged\"} " +
               number(static_cast<double>(incidentsAcknowledged_)) + "\n";
        header(out, "kobreportd_alerts_checked_timestamp_seconds",
               "When the alerts were last checked, in seconds since the epoch.", "gauge");
        sample(out, "kobreportd_alerts_checked_timestamp_seconds", static_cast<double>(alertsAt_));
    }
    return out + serverText() + processText();
}

} // namespace kobreportd
