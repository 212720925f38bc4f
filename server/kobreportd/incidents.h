// Incidents: targets that become broken together (fleet.h), within the same
// hour and over the same failing reports, are one incident rather than one
// alert each.  An incident is open until someone acknowledges it, and
// resolves itself after kIncidentQuiet without any of its targets failing
// far above its baseline; one of its targets failing again within
// kIncidentReopen of that reopens it.  Kept in the database, so that
// instances sharing one see the same incidents.

#ifndef KOBREPORTD_INCIDENTS_H
#define KOBREPORTD_INCIDENTS_H

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet.h"
#include "sql.h"

namespace kobreportd {

constexpr std::time_t kIncidentQuiet = 3600;
constexpr std::time_t kIncidentReopen = std::time_t{6} * 3600;

struct Incident {
    int64_t id = 0;
    std::time_t started_at = 0; // the first failing report's time
    std::string status;         // open, acknowledged, resolved
    std::optional<std::string> acknowledged_by;
    std::optional<std::time_t> acknowledged_at, resolved_at;
    int64_t reopened = 0;
    std::vector<std::pair<std::string, std::string>> targets; // (area, target)
    // Since its start (to its resolution): the reports of its targets, those
    // that found one failing, and the users behind those.
    int64_t reports = 0, failing = 0, users = 0;
    std::vector<FleetShare> networks; // where most failing reports came from, at most 3

    // "UDP pass-through, TCP 443: 35 of 40 reports failing since 14:00 UTC,
    // 12 users; most on AS64500 Example Telecom (30 of 31)", its start in
    // zone ("" for UTC).
    std::string summary(const std::string &zone = "") const;
};

// What one pass did to one incident: "opened", "widened" (targets joined
// it), "reopened" or "resolved".  Each is one post to the webhook.
struct IncidentChange {
    int64_t id = 0;
    std::string event;
};

class Incidents {
  public:
    explicit Incidents(sql::Db &db) : db_(db) {}
    // One pass over the fleet as it is at now: new incidents, targets added,
    // reopened and resolved ones, in that order.
    std::vector<IncidentChange> update(const Fleet &f, std::time_t now);
    // The newest first, their numbers as of now.
    std::vector<Incident> list(std::time_t now, bool currentOnly, int64_t limit);
    // One incident with its numbers as of now.
    std::optional<Incident> find(int64_t id, std::time_t now);
    // References of its failing reports since it started, newest first.
    std::vector<std::string> samples(const Incident &i, int64_t limit);
    // How many are open and how many acknowledged.
    std::pair<int64_t, int64_t> current();
    // False when there is no such incident open.
    bool acknowledge(int64_t id, const std::string &account, std::time_t now);

  private:
    std::vector<Incident> read(const std::string &where, const std::vector<sql::Param> &params,
                               std::time_t now);
    void fill(Incident &i, std::time_t now);
    sql::Db &db_;
};

} // namespace kobreportd

#endif
