#include "incidents.h"

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "clock.h"

namespace kobreportd {

namespace {

using Key = std::pair<std::string, std::string>;

// The reports that found target failing in the hour up to now.
std::set<int64_t> failingIds(sql::Conn &c, const Key &t, std::time_t now) {
    auto rows = c.query(
        "SELECT report_id FROM outcomes WHERE area = $1 AND target = $2 AND"
        " failing = 1 AND received_at >= $3 AND received_at <= $4",
        {sql::text(t.first), sql::text(t.second), sql::integer(now - 3600), sql::integer(now)});
    std::set<int64_t> ids;
    for (size_t i = 0; i < rows.size(); i++)
        ids.insert(rows.integer(i, "report_id"));
    return ids;
}

// Failing together: at least half of the smaller set's reports are the same.
bool together(const std::set<int64_t> &a, const std::set<int64_t> &b) {
    size_t common = 0;
    for (int64_t id : a)
        common += b.count(id);
    size_t smaller = std::min(a.size(), b.size());
    return smaller > 0 && common * 2 >= smaller;
}

// Still failing far above its baseline: the alerts' clearing rule.
bool stillFailing(const FleetTarget &t) {
    if (t.broken)
        return true;
    if (!t.hour_reports)
        return false;
    double share = static_cast<double>(t.hour_failing) / static_cast<double>(t.hour_reports);
    return share - t.baseline >= kBrokenMinRise / 2;
}

void addTarget(sql::Conn &c, int64_t incident, const Key &t) {
    c.query("INSERT INTO incident_targets (incident_id, area, target) VALUES ($1, $2, $3)",
            {sql::integer(incident), sql::text(t.first), sql::text(t.second)});
}

} // namespace

std::vector<IncidentChange> Incidents::update(const Fleet &f, std::time_t now) {
    std::vector<IncidentChange> changes;
    db_.transaction([&](sql::Conn &c) {
        // Instances sharing the database take turns.
        if (db_.dialect() == sql::Dialect::Postgres)
            c.query("SELECT pg_advisory_xact_lock(7246002)");
        std::map<Key, const FleetTarget *> byKey;
        for (const auto &t : f.targets)
            byKey[{t.area, t.target}] = &t;
        // Each target's latest incident.
        auto rows = c.query("SELECT i.id AS id, i.status AS status, i.started_at AS started_at,"
                            " i.resolved_at AS resolved_at, i.last_active AS last_active,"
                            " t.area AS area, t.target AS target FROM incidents i"
                            " JOIN incident_targets t ON t.incident_id = i.id ORDER BY i.id");
        struct Seen {
            int64_t id;
            std::string status;
            std::time_t started, last_active;
            std::optional<std::time_t> resolved;
        };
        std::map<Key, Seen> latest;
        std::map<int64_t, Seen> byId;
        std::map<int64_t, std::vector<Key>> members;
        for (size_t i = 0; i < rows.size(); i++) {
            Key k{rows.str(i, "area"), rows.str(i, "target")};
            Seen s{rows.integer(i, "id"), rows.str(i, "status"), rows.integer(i, "started_at"),
                   rows.integer(i, "last_active"), std::nullopt};
            if (!rows.isNull(i, "resolved_at"))
                s.resolved = rows.integer(i, "resolved_at");
            latest[k] = s;
            byId[s.id] = s;
            members[s.id].push_back(k);
        }
        std::set<int64_t> active, reopen;
        std::vector<Key> fresh;
        for (const auto &[k, t] : byKey) {
            auto it = latest.find(k);
            bool current = it != latest.end() && it->second.status != "resolved";
            if (current && stillFailing(*t))
                active.insert(it->second.id);
            if (!t->broken || current)
                continue;
            if (it != latest.end() && it->second.resolved &&
                now - *it->second.resolved <= kIncidentReopen)
                reopen.insert(it->second.id);
            else
                fresh.push_back(k);
        }
        for (int64_t id : reopen) {
            c.query("UPDATE incidents SET status = 'open', resolved_at = NULL,"
                    " acknowledged_by = NULL, acknowledged_at = NULL, last_active = $1,"
                    " reopened = reopened + 1 WHERE id = $2",
                    {sql::integer(now), sql::integer(id)});
            active.insert(id);
        }
        // New broken targets join an incident of the same hour that fails
        // over the same reports, or one another, or start one of their own.
        std::map<Key, std::set<int64_t>> ids;
        for (const auto &k : fresh)
            ids[k] = failingIds(c, k, now);
        std::vector<std::pair<int64_t, std::set<int64_t>>> recent;
        for (const auto &[id, keys] : members) {
            const Seen &s = byId[id];
            if (s.status == "resolved" || s.started < now - 3600)
                continue;
            std::set<int64_t> all;
            for (const auto &k : keys) {
                auto more = failingIds(c, k, now);
                all.insert(more.begin(), more.end());
            }
            recent.push_back({id, std::move(all)});
        }
        std::vector<std::pair<std::vector<Key>, std::set<int64_t>>> groups;
        std::set<int64_t> widened;
        for (const auto &k : fresh) {
            bool placed = false;
            for (auto &[id, all] : recent)
                if (together(ids[k], all)) {
                    addTarget(c, id, k);
                    all.insert(ids[k].begin(), ids[k].end());
                    active.insert(id);
                    widened.insert(id);
                    placed = true;
                    break;
                }
            for (auto it = groups.begin(); !placed && it != groups.end(); ++it)
                if (together(ids[k], it->second)) {
                    it->first.push_back(k);
                    it->second.insert(ids[k].begin(), ids[k].end());
                    placed = true;
                }
            if (!placed)
                groups.push_back({{k}, ids[k]});
        }
        for (const auto &[keys, all] : groups) {
            // It started with its first failing report.
            std::time_t start = now;
            for (const auto &k : keys) {
                auto r = c.query("SELECT min(received_at) AS first FROM outcomes WHERE"
                                 " area = $1 AND target = $2 AND failing = 1 AND"
                                 " received_at >= $3 AND received_at <= $4",
                                 {sql::text(k.first), sql::text(k.second), sql::integer(now - 3600),
                                  sql::integer(now)});
                if (!r.isNull(0, "first"))
                    start = std::min<std::time_t>(start, r.integer(0, "first"));
            }
            int64_t id = c.query("INSERT INTO incidents (started_at, last_active, status,"
                                 " reopened) VALUES ($1, $2, 'open', 0) RETURNING id",
                                 {sql::integer(start), sql::integer(now)})
                             .integer(0, "id");
            for (const auto &k : keys)
                addTarget(c, id, k);
            changes.push_back({id, "opened"});
        }
        // A reopened incident's joining targets are told with its reopening.
        for (int64_t id : widened)
            if (!reopen.count(id))
                changes.push_back({id, "widened"});
        for (int64_t id : reopen)
            changes.push_back({id, "reopened"});
        for (int64_t id : active)
            c.query("UPDATE incidents SET last_active = $1 WHERE id = $2",
                    {sql::integer(now), sql::integer(id)});
        auto done = c.query("UPDATE incidents SET status = 'resolved', resolved_at = $1 WHERE"
                            " status <> 'resolved' AND last_active <= $2 RETURNING id",
                            {sql::integer(now), sql::integer(now - kIncidentQuiet)});
        for (size_t r = 0; r < done.size(); r++)
            changes.push_back({done.integer(r, "id"), "resolved"});
    });
    return changes;
}

void Incidents::fill(Incident &i, std::time_t now) {
    std::time_t to = i.resolved_at.value_or(now);
    const std::string from = " FROM outcomes o JOIN incident_targets t ON t.area = o.area AND"
                             " t.target = o.target";
    const std::string where = " WHERE t.incident_id = $1 AND o.received_at >= $2 AND"
                              " o.received_at <= $3";
    auto n = db_.read("SELECT count(DISTINCT o.report_id) AS reports,"
                      " count(DISTINCT CASE WHEN o.failing = 1 THEN o.report_id END) AS failing" +
                          from + where,
                      {sql::integer(i.id), sql::integer(i.started_at), sql::integer(to)});
    i.reports = n.integer(0, "reports");
    i.failing = n.integer(0, "failing");
    // A user is the name the report gives, else the form's, else its network.
    i.users =
        db_.read("SELECT count(DISTINCT coalesce(r.report_username, r.form_username,"
                 " r.sender_net)) AS n" +
                     from + " JOIN reports r ON r.id = o.report_id" + where + " AND o.failing = 1",
                 {sql::integer(i.id), sql::integer(i.started_at), sql::integer(to)})
            .integer(0, "n");
    auto nets =
        db_.read("SELECT n.asn AS asn, max(n.as_name) AS name,"
                 " count(DISTINCT o.report_id) AS reports,"
                 " count(DISTINCT CASE WHEN o.failing = 1 THEN o.report_id END) AS failing" +
                     from + " JOIN report_networks n ON n.report_id = o.report_id" + where +
                     " AND n.asn IS NOT NULL GROUP BY n.asn"
                     " ORDER BY failing DESC, reports DESC, asn LIMIT 3",
                 {sql::integer(i.id), sql::integer(i.started_at), sql::integer(to)});
    for (size_t k = 0; k < nets.size(); k++)
        if (nets.integer(k, "failing") > 0) {
            FleetShare n;
            n.asn = nets.integer(k, "asn");
            n.name = nets.str(k, "name");
            n.reports = nets.integer(k, "reports");
            n.failing = nets.integer(k, "failing");
            i.networks.push_back(std::move(n));
        }
}

std::vector<Incident> Incidents::read(const std::string &where,
                                      const std::vector<sql::Param> &params, std::time_t now) {
    auto rows = db_.read("SELECT id, started_at, status, acknowledged_by, acknowledged_at,"
                         " resolved_at, reopened FROM incidents" +
                             where,
                         params);
    std::vector<Incident> out;
    for (size_t r = 0; r < rows.size(); r++) {
        Incident i;
        i.id = rows.integer(r, "id");
        i.started_at = rows.integer(r, "started_at");
        i.status = rows.str(r, "status");
        i.acknowledged_by = rows.opt(r, "acknowledged_by");
        if (!rows.isNull(r, "acknowledged_at"))
            i.acknowledged_at = rows.integer(r, "acknowledged_at");
        if (!rows.isNull(r, "resolved_at"))
            i.resolved_at = rows.integer(r, "resolved_at");
        i.reopened = rows.integer(r, "reopened");
        auto t = db_.read("SELECT area, target FROM incident_targets WHERE incident_id = $1"
                          " ORDER BY area, target",
                          {sql::integer(i.id)});
        for (size_t k = 0; k < t.size(); k++)
            i.targets.push_back({t.str(k, "area"), t.str(k, "target")});
        fill(i, now);
        out.push_back(std::move(i));
    }
    return out;
}

std::vector<Incident> Incidents::list(std::time_t now, bool currentOnly, int64_t limit) {
    return read(std::string(currentOnly ? " WHERE status <> 'resolved'" : "") +
                    " ORDER BY id DESC LIMIT $1",
                {sql::integer(limit)}, now);
}

std::optional<Incident> Incidents::find(int64_t id, std::time_t now) {
    auto found = read(" WHERE id = $1", {sql::integer(id)}, now);
    if (found.empty())
        return std::nullopt;
    return std::move(found.front());
}

std::vector<std::string> Incidents::samples(const Incident &i, int64_t limit) {
    auto rows = db_.read("SELECT r.reference AS reference, max(o.received_at) AS at FROM outcomes o"
                         " JOIN incident_targets t ON t.area = o.area AND t.target = o.target"
                         " JOIN reports r ON r.id = o.report_id WHERE t.incident_id = $1 AND"
                         " o.failing = 1 AND o.received_at >= $2 AND o.received_at <= $3"
                         " GROUP BY r.id, r.reference ORDER BY at DESC, r.id DESC LIMIT $4",
                         {sql::integer(i.id), sql::integer(i.started_at),
                          sql::integer(i.resolved_at.value_or(std::numeric_limits<int64_t>::max())),
                          sql::integer(limit)});
    std::vector<std::string> out;
    for (size_t r = 0; r < rows.size(); r++)
        out.push_back(rows.str(r, "reference"));
    return out;
}

std::pair<int64_t, int64_t> Incidents::current() {
    auto n = db_.read("SELECT count(CASE WHEN status = 'open' THEN 1 END) AS open_n,"
                      " count(CASE WHEN status = 'acknowledged' THEN 1 END) AS acknowledged_n"
                      " FROM incidents");
    return {n.integer(0, "open_n"), n.integer(0, "acknowledged_n")};
}

bool Incidents::acknowledge(int64_t id, const std::string &account, std::time_t now) {
    return !db_.write("UPDATE incidents SET status = 'acknowledged', acknowledged_by = $1,"
                      " acknowledged_at = $2 WHERE id = $3 AND status = 'open' RETURNING id",
                      {sql::text(account), sql::integer(now), sql::integer(id)})
                .empty();
}

std::string Incident::summary(const std::string &zone) const {
    std::string names;
    for (const auto &[area, target] : targets)
        names += (names.empty() ? "" : ", ") + target;
    std::string s = names + ": " + std::to_string(failing) + " of " + std::to_string(reports) +
                    " reports failing since " + zonedTime(started_at, zone, "%Y-%m-%d %H:%M %Z") +
                    ", " + std::to_string(users) + (users == 1 ? " user" : " users");
    if (!networks.empty()) {
        const FleetShare &n = networks.front();
        s += "; most on AS" + std::to_string(*n.asn) + (n.name.empty() ? "" : " " + n.name) + " (" +
             std::to_string(n.failing) + " of " + std::to_string(n.reports) + ")";
    }
    return s;
}

} // namespace kobreportd
