#include "clock.h"

#include <algorithm>
#include <cstdio>
#include <date/tz.h>
#include <cstdlib>

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
    if (const date::time_zone *z = zoneOrNull(zone))
        return date::format(format, date::make_zoned(z, at));
    return date::format(format, date::make_zoned("UTC", at));
}

bool knownZone(const std::string &zone) {
    return zone == "UTC" || zoneOrNull(zone) != nullptr;
}

std::optional<std::time_t> localToUtc(std::time_t local, const std::string &zone) {
    if (zone.empty() || zone == "UTC")
        return local;
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
