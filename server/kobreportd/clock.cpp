#include "clock.h"

#include <cstdio>
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
