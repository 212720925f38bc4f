#include "metrics.h"

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

std::string number(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
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
        std::ifstream up("/proc/uptime");
        double uptime = 0;
        up >> uptime;
        double started = static_cast<double>(std::time(nullptr)) - uptime +
                         std::stod(f[19]) / static_cast<double>(ticks);
        header(out, "process_start_time_seconds",
               "Start time of the process since unix epoch in seconds.", "gauge");
        sample(out, "process_start_time_seconds", started);
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
    while (i < kBounds.size() && seconds > kBounds[i])
        i++;
    counts_[i]++;
    micros_ += static_cast<uint64_t>(std::llround(seconds * 1e6));
}

std::string Histogram::text(const char *name, const char *help) const {
    std::string out;
    header(out, name, help, "histogram");
    uint64_t cumulative = 0;
    for (size_t i = 0; i <= kBounds.size(); i++) {
        cumulative += counts_[i];
        out += std::string(name) + "_bucket{le=\"" +
               (i < kBounds.size() ? number(kBounds[i]) : std::string("+Inf")) + "\"} " +
               std::to_string(cumulative) + "\n";
    }
    out += std::string(name) + "_sum " + number(static_cast<double>(micros_) / 1e6) + "\n";
    out += std::string(name) + "_count " + std::to_string(cumulative) + "\n";
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
    return out + processText();
}

} // namespace kobreportd
