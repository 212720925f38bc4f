// The fleet's numbers: for each probe target, how many reports named it and
// how many of those found it failing, per hour or per day, and which
// targets fail now far more than they used to.
//
// Each report is reduced at intake to one outcome per target: each TCP
// probe by its heading, the UDP pass-through (failing when no attempt was
// answered), each intranet gateway, and whether the traceroute reached its
// destination.  A probe without a result is not counted.
//
// "Broken now": over the last hour a target has at least kBrokenMinReports
// reports, and its failing share s is above its baseline p by at least
// kBrokenMinRise and by at least kBrokenZ standard errors,
// (s - p) / sqrt(p (1 - p) / n) >= kBrokenZ, where p is the share over the
// seven days before the clock hour in which the last hour began, smoothed
// as (failing + 1) / (reports + 2) so that a target never seen failing
// still has a baseline above zero.
//
// The charts and the baseline read hourly totals kept at intake
// (outcome_hours); only the last hour reads the outcomes themselves.

#ifndef KOBREPORTD_FLEET_H
#define KOBREPORTD_FLEET_H

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kobtriage.h"
#include "sql.h"

namespace kobreportd {

struct Outcome {
    std::string area; // udp, tcp, intranet, traceroute
    std::string target;
    bool failing = false;
};

std::vector<Outcome> outcomesOf(const kobtriage::Report &report);

// What the store keeps of a report's triage: the user the report names,
// the one-line summary, the outcomes and the version of the rules.
struct Triaged {
    std::optional<std::string> report_username;
    std::string summary;
    std::vector<Outcome> outcomes;
    int rules = 0;
};
Triaged triage(std::string_view text);

constexpr int kBrokenMinReports = 5;
constexpr double kBrokenMinRise = 0.25;
constexpr double kBrokenZ = 3.0;

struct FleetBucket {
    std::time_t start = 0;
    int64_t reports = 0, failing = 0;
};

struct FleetTarget {
    std::string area, target;
    int64_t reports = 0, failing = 0; // in the whole window
    std::vector<FleetBucket> buckets; // every bucket of the window, oldest first
    // The last hour against the seven days before it.
    int64_t hour_reports = 0, hour_failing = 0;
    int64_t baseline_reports = 0, baseline_failing = 0;
    double baseline = 0; // smoothed share
    bool broken = false;
};

struct Fleet {
    std::string window; // 6h, 24h, 7d or 30d
    std::time_t from = 0, to = 0, bucket_seconds = 0;
    std::vector<FleetTarget> targets; // by area, then target
};

// The windows there are; nothing for any other name.
std::optional<std::time_t> windowSeconds(const std::string &window);

Fleet fleet(sql::Db &db, const std::string &window, std::time_t now);

// References of the reports that found target failing since `since`,
// newest first.
std::vector<std::string> failingReports(sql::Db &db, const std::string &area,
                                        const std::string &target, std::time_t since,
                                        int64_t limit);

} // namespace kobreportd

#endif
