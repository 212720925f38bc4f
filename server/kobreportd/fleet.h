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
// ... and the failing reports of the last hour came from at least
// min_senders client networks (a /24 for IPv4, a /48 for IPv6), so that
// one sender cannot make a target look broken; and the target has a
// baseline: min_baseline reports over those seven days, or a first report
// at least a week old.
//
// Only the targets kobdiag probes count (FleetPolicy): a report may name
// any heading, which stays in the report but never becomes a fleet row.
//
// The charts and the baseline read hourly totals kept at intake
// (outcome_hours); only the last hour reads the outcomes themselves.

#ifndef KOBREPORTD_FLEET_H
#define KOBREPORTD_FLEET_H

#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "issues.h"
#include "kobtriage.h"
#include "sql.h"

namespace kobreportd {

struct Outcome {
    std::string area; // udp, tcp, intranet, traceroute
    std::string target;
    bool failing = false;
};

std::vector<Outcome> outcomesOf(const kobtriage::Report &report);

// A report that found no network at all (the rule net.none) fails every
// probe for a reason of the user's own: it counts once, as this row, and
// as no target's failure.
inline constexpr const char *kNoNetworkArea = "network";
inline constexpr const char *kNoNetwork = "no network at all";

// Which targets the fleet counts and how many client networks make a
// failure broken.  Set once at start-up, before any thread reads it.
struct FleetPolicy {
    std::set<std::pair<std::string, std::string>> targets; // (area, target)
    int min_senders = 5;
    // Reports over the seven days before that a target needs to be broken,
    // unless its first report is a week old: no baseline, no alert.
    int min_baseline = 20;

    bool counts(const std::string &area, const std::string &target) const {
        return targets.count({area, target}) != 0 ||
               (area == kNoNetworkArea && target == kNoNetwork);
    }
    // The targets of the kobdiag this tree builds: the pass-through, the
    // TCP probes by heading, the intranet gateways and the traceroute.
    static FleetPolicy builtIn();
    // The targets from a file of lines "AREA TARGET" (AREA one of udp, tcp,
    // intranet, traceroute; blank lines and lines from '#' on are skipped);
    // nothing, with the reason in error, when a line is not of that form.
    static std::optional<FleetPolicy> fromFile(const std::string &path, std::string &error);
};
void setFleetPolicy(FleetPolicy policy);
const FleetPolicy &fleetPolicy();

// The client network an address belongs to for counting senders:
// "a.b.c.0/24" or the /48 of an IPv6 address; the text itself when it is
// not an address.
std::string senderNetwork(const std::string &address);

// One verdict as the list's filters find it: the rule's id, its area and
// its level (kobtriage::levelName).
struct RuleVerdict {
    std::string rule, area, level;
};

// What the store keeps of a report's triage: the user the report names,
// the one-line summary, the outcomes of the targets the fleet counts, the
// version of the rules, and what the filters search by.
struct Triaged {
    std::optional<std::string> report_username;
    std::string summary;
    std::vector<Outcome> outcomes;
    int rules = 0;
    std::string findings;               // all it found, as kobtriage::toStored writes it, or ""
    IssueKey issue;                     // the issue it belongs to (issues.h)
    std::string level;                  // the worst verdict's: "fail", "warn" or "ok"
    std::optional<std::string> version; // kobdiag's, from the report's header
    std::vector<RuleVerdict> verdicts;
};
// Reports larger than this keep all the triage found beside their text, so
// that their page is made without the text; a smaller one's page reads its
// text again, which costs less than the bytes written to keep them (a
// fifth of all a small report writes to disk).
constexpr std::size_t kStoredFindingsFrom = std::size_t{1024} * 1024;
Triaged triage(std::string_view text);

constexpr int kBrokenMinReports = 5;
constexpr double kBrokenMinRise = 0.25;
constexpr double kBrokenZ = 3.0;

struct FleetBucket {
    std::time_t start = 0;
    int64_t reports = 0, failing = 0;
};

// One network's or country's part of a target's reports over the window.
struct FleetShare {
    std::optional<int64_t> asn; // by asn; nothing for reports of no known network
    std::string name;           // the AS's name, or the country's code; "" unknown
    int64_t reports = 0, failing = 0;
};

struct FleetTarget {
    std::string area, target;
    int64_t reports = 0, failing = 0; // in the whole window
    std::vector<FleetBucket> buckets; // every bucket of the window, oldest first
    // The last hour against the seven days before it.
    int64_t hour_reports = 0, hour_failing = 0;
    int64_t baseline_reports = 0, baseline_failing = 0;
    int64_t hour_failing_networks = 0; // client networks among hour_failing
    double baseline = 0;               // smoothed share
    bool broken = false;
    std::vector<FleetShare> shares; // with a breakdown: most failing first
};

struct Fleet {
    std::string window; // 6h, 24h, 7d or 30d
    std::time_t from = 0, to = 0, bucket_seconds = 0;
    std::vector<FleetTarget> targets; // by area, then target
};

// The windows there are; nothing for any other name.
std::optional<std::time_t> windowSeconds(const std::string &window);

Fleet fleet(sql::Db &db, const std::string &window, std::time_t now);

// Each target's reports over the window by the sender's network ("asn") or
// country ("country"), as report_networks has them (networks.h); reports
// without a row are one share of their own, unknown.  False for another by.
bool breakDown(sql::Db &db, Fleet &f, const std::string &by);

// References of the reports that found target failing since `since`,
// newest first.
std::vector<std::string> failingReports(sql::Db &db, const std::string &area,
                                        const std::string &target, std::time_t since,
                                        int64_t limit);

} // namespace kobreportd

#endif
