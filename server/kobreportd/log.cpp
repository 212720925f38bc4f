#include "log.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace kobreportd::log {

namespace {

std::atomic<int> threshold{static_cast<int>(Level::Info)};
std::mutex writing;

const char *levelName(Level level) {
    switch (level) {
    case Level::Debug:
        return "debug";
    case Level::Info:
        return "info";
    case Level::Warn:
        return "warn";
    case Level::Error:
        return "error";
    }
    return "error";
}

// The wall clock's time, never the test clock's: a log line says when it
// was written.  "2026-11-24T20:01:02.345Z".
std::string stamp() {
    using namespace std::chrono;
    auto t = system_clock::now();
    std::time_t secs = system_clock::to_time_t(t);
    auto millis = duration_cast<milliseconds>(t.time_since_epoch()).count() % 1000;
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(millis));
    return buf;
}

} // namespace

bool parseLevel(const std::string &name, Level &out) {
    for (Level l : {Level::Debug, Level::Info, Level::Warn, Level::Error})
        if (name == levelName(l)) {
            out = l;
            return true;
        }
    return false;
}

void setLevel(Level level) {
    threshold = static_cast<int>(level);
}

bool enabled(Level level) {
    return static_cast<int>(level) >= threshold;
}

void write(Level level, const char *event, const Fields &fields) {
    if (!enabled(level))
        return;
    Fields line = Fields::object();
    line["time"] = stamp();
    line["level"] = levelName(level);
    line["event"] = event;
    for (const auto &[key, value] : fields.items())
        line[key] = value;
    // Text that is not UTF-8 (a database's message in another encoding)
    // is written with replacement characters, never refused.
    std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    text += '\n';
    std::lock_guard<std::mutex> hold(writing);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace kobreportd::log
