#include "clock.h"

#include <algorithm>
#include <cstdio>
#include <date/tz.h>
#include <cstdlib>
#include <mutex>

namespace kobreportd {

namespace {

const char *clockFile() {
    static const char *file = std::getenv("KOBREPORTD_TEST_CLOCK");
    return file && *file ? file : nullptr;
}

} // namespace

std::string utcTime(std::time_t t, const char *format) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    size_t n = std::strftime(buf, sizeof buf, format, &tm);
    return std::string(buf, n);
}

namespace {

// The date library finds a zone and reads its rules lazily, on first use,
// and two workers doing that at once race inside it. Every lookup and
// conversion takes this lock; the formatting, the costly part, does not.
std::mutex zoneLock;

const date::time_zone *zoneOrNull(const std::string &zone) {
    if (zone.empty() || zone == "UTC")
        return nullptr;
    try {
        return date::locate_zone(zone);
    } catch (const std::runtime_error &) {
        return nullptr;
    }
}

} // namespace

std::string zonedTime(std::time_t t, const std::string &zone, const char *format) {
    auto at = std::chrono::sys_seconds{std::chrono::seconds{t}};
    auto zoned = [&] {
        std::lock_guard<std::mutex> hold(zoneLock);
        if (const date::time_zone *z = zoneOrNull(zone))
            return date::make_zoned(z, at);
        return date::make_zoned("UTC", at);
    }();
    return date::format(format, zoned);
}

bool knownZone(const std::string &zone) {
    std::lock_guard<std::mutex> hold(zoneLock);
    return zone == "UTC" || zoneOrNull(zone) != nullptr;
}

std::optional<std::time_t> localToUtc(std::time_t local, const std::string &zone) {
    if (zone.empty() || zone == "UTC")
        return local;
    std::lock_guard<std::mutex> hold(zoneLock);
    const date::time_zone *z = zoneOrNull(zone);
    if (!z)
        return std::nullopt;
    auto at = date::local_seconds{std::chrono::seconds{local}};
    auto info = z->get_info(at);
    std::chrono::sys_seconds utc;
    if (info.result == date::local_info::nonexistent)
        utc = info.first.end;
    else
        utc = date::sys_seconds{at.time_since_epoch() - info.first.offset};
    return static_cast<std::time_t>(utc.time_since_epoch().count());
}

std::vector<std::string> zoneNames() {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> hold(zoneLock);
    for (const auto &z : date::get_tzdb().zones)
        out.emplace_back(z.name());
    std::sort(out.begin(), out.end());
    return out;
}

bool testClock() {
    return clockFile() != nullptr;
}

std::time_t now() {
    const char *file = clockFile();
    if (!file)
        return std::time(nullptr);
    char buf[32] = "";
    if (FILE *f = std::fopen(file, "r")) {
        if (!std::fgets(buf, sizeof buf, f))
            buf[0] = '\0';
        std::fclose(f);
    }
    char *end = nullptr;
    long long v = std::strtoll(buf, &end, 10);
    return end != buf && v > 0 ? static_cast<std::time_t>(v) : std::time(nullptr);
}

} // namespace kobreportd
