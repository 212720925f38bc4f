// The time kobreportd goes by: the system's, unless a test sets
// KOBREPORTD_TEST_CLOCK to a file holding the seconds since the epoch, so that
// it can move time on for sessions and retention without waiting.

#ifndef KOBREPORTD_CLOCK_H
#define KOBREPORTD_CLOCK_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kobreportd {

std::time_t now();

// True when the test clock is in use (the server says so at start).
bool testClock();

// The time in UTC, formatted by strftime's format (at most 63 bytes out).
// Every time kobreportd writes goes through here.
std::string utcTime(std::time_t t, const char *format);

// The time in a zone of the system's zone files ("Europe/Berlin"), by the
// date library's format (strftime's, with %Z the zone's abbreviation).
// An unknown zone is taken as UTC.
std::string zonedTime(std::time_t t, const std::string &zone, const char *format);
bool knownZone(const std::string &zone);
// The moment a zone's clocks showed `local` (seconds as if it were UTC);
// in a gap the clocks skipped, the moment after it, and in an hour they
// repeated, the first.  Nothing for an unknown zone.
std::optional<std::time_t> localToUtc(std::time_t local, const std::string &zone);
// Every zone name the system knows, sorted.
std::vector<std::string> zoneNames();

// "YYYY-MM-DDThh:mm:ssZ", UTC.
inline std::string isoTime(std::time_t t) {
    return utcTime(t, "%Y-%m-%dT%H:%M:%SZ");
}

} // namespace kobreportd

#endif
