#include "fleet.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <tuple>

#include "kobrun.h"
#include "kobreportd_targets.h"

namespace kobreportd {

std::vector<Outcome> outcomesOf(const kobtriage::Report &r) {
    using O = kobtriage::ProbeResult::Outcome;
    std::vector<Outcome> out;
    int udpResults = 0, udpAnswered = 0;
    for (const auto &a : r.udp) {
        if (a.result.outcome == O::Missing)
            continue;
        udpResults++;
        udpAnswered += a.result.outcome == O::Answered;
    }
    if (udpResults)
        out.push_back({"udp", "UDP pass-through", udpAnswered == 0});
    for (const auto &p : r.tcp)
        if (p.result.outcome != O::Missing)
            out.push_back({"tcp", p.heading, p.result.outcome != O::Answered});
    for (const auto &p : r.intranet)
        if (p.result.outcome != O::Missing)
            out.push_back({"intranet", p.address + ":" + std::to_string(p.port),
                           p.result.outcome != O::Answered});
    if (r.traceroute && !r.traceroute->printed_nothing)
        out.push_back(
            {"traceroute", "traceroute to " + r.traceroute->destination, !r.traceroute->reached()});
    return out;
}

namespace {

FleetPolicy &policy() {
    static FleetPolicy p = FleetPolicy::builtIn();
    return p;
}

} // namespace

FleetPolicy FleetPolicy::builtIn() {
    FleetPolicy p;
    p.targets.insert({"udp", "UDP pass-through"});
    for (const auto &t : kobrun::kTcpProbes)
        p.targets.insert({"tcp", std::string(t.heading)});
    for (const char *gateway : kIntranetGateways)
        p.targets.insert(
            {"intranet", std::string(gateway) + ":" + std::to_string(kobrun::kIntranetPort)});
    p.targets.insert({"traceroute", std::string("traceroute to ") + kTracerouteTarget});
    return p;
}

std::optional<FleetPolicy> FleetPolicy::fromFile(const std::string &path, std::string &error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return std::nullopt;
    }
    FleetPolicy p;
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        if (auto hash = line.find('#'); hash != std::string::npos)
            line.resize(hash);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
            line.pop_back();
        auto start = line.find_first_not_of(" \t");
        if (start == std::string::npos)
            continue;
        auto space = line.find_first_of(" \t", start);
        auto rest = space == std::string::npos ? space : line.find_first_not_of(" \t", space);
        std::string area = line.substr(start, space - start);
        if ((area != "udp" && area != "tcp" && area != "intranet" && area != "traceroute") ||
            rest == std::string::npos) {
            error = path + ":" + std::to_string(n) +
                    ": not \"AREA TARGET\" with AREA one of udp, tcp, intranet, traceroute";
            return std::nullopt;
        }
        p.targets.insert({area, line.substr(rest)});
    }
    return p;
}

void setFleetPolicy(FleetPolicy p) {
    policy() = std::move(p);
}

const FleetPolicy &fleetPolicy() {
    return policy();
}

std::string senderNetwork(const std::string &address) {
    unsigned char b[16];
    char out[INET6_ADDRSTRLEN + 4];
    if (inet_pton(AF_INET, address.c_str(), b) == 1) {
        std::snprintf(out, sizeof out, "%u.%u.%u.0/24", b[0], b[1], b[2]);
        return out;
    }
    if (inet_pton(AF_INET6, address.c_str(), b) == 1) {
        static const unsigned char mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
        if (std::equal(mapped, mapped + 12, b)) {
            std::snprintf(out, sizeof out, "%u.%u.%u.0/24", b[12], b[13], b[14]);
            return out;
        }
        std::fill(b + 6, b + 16, 0);
        inet_ntop(AF_INET6, b, out, sizeof out);
        return std::string(out) + "/48";
    }
    return address;
}

Triaged triage(std::string_view text) {
    auto report = kobtriage::parse(text);
    std::vector<Outcome> counted;
    bool noNetwork = std::any_of(report.verdicts.begin(), report.verdicts.end(),
                                 [](const kobtriage::Verdict &v) { return v.rule == "net.none"; });
    if (noNetwork)
        counted.push_back({kNoNetworkArea, kNoNetwork, true});
    else
        for (auto &o : outcomesOf(report))
            if (fleetPolicy().counts(o.area, o.target))
                counted.push_back(std::move(o));
    Triaged t{report.username,
              report.summary(),
              std::move(counted),
              report.rules_version,
              text.size() > kStoredFindingsFrom ? kobtriage::toStored(report) : std::string(),
              issueKey(report),
              "ok",
              report.version,
              {}};
    using L = kobtriage::Verdict::Level;
    for (const auto &v : report.verdicts) {
        t.verdicts.push_back({v.rule, v.area, kobtriage::levelName(v.level)});
        if (v.level == L::Fail)
            t.level = "fail";
        else if (v.level == L::Warn && t.level != "fail")
            t.level = "warn";
    }
    return t;
}

std::optional<std::time_t> windowSeconds(const std::string &w) {
    if (w == "6h")
        return std::time_t{6} * 3600;
    if (w == "24h")
        return std::time_t{24} * 3600;
    if (w == "7d")
        return std::time_t{7} * 86400;
    if (w == "30d")
        return std::time_t{30} * 86400;
    return std::nullopt;
}

Fleet fleet(sql::Db &db, const std::string &window, std::time_t now) {
    Fleet f;
    f.window = window;
    std::time_t span = windowSeconds(window).value_or(std::time_t{24} * 3600);
    f.bucket_seconds = span <= std::time_t{24} * 3600 ? 3600 : 86400;
    // Whole buckets, the newest holding now.
    f.to = (now / f.bucket_seconds + 1) * f.bucket_seconds;
    f.from = f.to - span;
    size_t nb = static_cast<size_t>((f.to - f.from) / f.bucket_seconds);

    std::map<std::pair<std::string, std::string>, FleetTarget> byTarget;
    // Rows kept from before the targets were known, or of a target the
    // operator has since dropped, are passed over.
    const FleetPolicy &policy = fleetPolicy();
    auto target = [&](const std::string &area, const std::string &name) -> FleetTarget & {
        auto [it, fresh] = byTarget.try_emplace({area, name});
        if (fresh) {
            it->second.area = area;
            it->second.target = name;
            it->second.buckets.resize(nb);
            for (size_t i = 0; i < nb; i++)
                it->second.buckets[i].start =
                    f.from + static_cast<std::time_t>(i) * f.bucket_seconds;
        }
        return it->second;
    };
    // The row's target, made on first sight; nullptr for one not counted.
    auto counted = [&](const sql::Rows &rows, size_t i) -> FleetTarget * {
        const std::string &area = rows.str(i, "area"), &name = rows.str(i, "target");
        return policy.counts(area, name) ? &target(area, name) : nullptr;
    };
    auto rows = db.read("SELECT area, target, hour, reports, failing FROM outcome_hours"
                        " WHERE hour >= $1 AND hour < $2 AND reports > 0",
                        {sql::integer(f.from / 3600), sql::integer(f.to / 3600)});
    for (size_t i = 0; i < rows.size(); i++) {
        FleetTarget *counting = counted(rows, i);
        if (!counting)
            continue;
        FleetTarget &t = *counting;
        size_t k =
            static_cast<size_t>((rows.integer(i, "hour") * 3600 - f.from) / f.bucket_seconds);
        if (k >= nb)
            continue;
        t.buckets[k].reports += rows.integer(i, "reports");
        t.buckets[k].failing += rows.integer(i, "failing");
        t.reports += rows.integer(i, "reports");
        t.failing += rows.integer(i, "failing");
    }

    // The last hour from the outcomes themselves (a short range of their
    // index), the baseline from the hours before the one it began in.
    std::time_t hourAgo = now - 3600;
    auto recent =
        db.read("SELECT area, target, count(*) AS reports, CAST(sum(failing) AS BIGINT) AS failing"
                " FROM outcomes WHERE received_at >= $1 AND received_at <= $2"
                " GROUP BY area, target",
                {sql::integer(hourAgo), sql::integer(now)});
    for (size_t i = 0; i < recent.size(); i++)
        if (FleetTarget *t = counted(recent, i)) {
            t->hour_reports = recent.integer(i, "reports");
            t->hour_failing = recent.integer(i, "failing");
        }
    auto senders = db.read("SELECT o.area AS area, o.target AS target,"
                           " count(DISTINCT r.sender_net) AS networks FROM outcomes o"
                           " JOIN reports r ON r.id = o.report_id WHERE o.failing = 1 AND"
                           " o.received_at >= $1 AND o.received_at <= $2 GROUP BY o.area, o.target",
                           {sql::integer(hourAgo), sql::integer(now)});
    for (size_t i = 0; i < senders.size(); i++) {
        auto it = byTarget.find({senders.str(i, "area"), senders.str(i, "target")});
        if (it != byTarget.end())
            it->second.hour_failing_networks = senders.integer(i, "networks");
    }
    int64_t h0 = hourAgo / 3600;
    auto before = db.read("SELECT area, target, CAST(sum(reports) AS BIGINT) AS reports,"
                          " CAST(sum(failing) AS BIGINT) AS failing FROM outcome_hours"
                          " WHERE hour >= $1 AND hour < $2 GROUP BY area, target",
                          {sql::integer(h0 - int64_t{7} * 24), sql::integer(h0)});
    for (size_t i = 0; i < before.size(); i++)
        if (FleetTarget *t = counted(before, i)) {
            t->baseline_reports = before.integer(i, "reports");
            t->baseline_failing = before.integer(i, "failing");
        }
    // Targets seen for a week have a baseline whatever their volume.
    std::set<std::pair<std::string, std::string>> weekOld;
    auto first = db.read("SELECT area, target, min(hour) AS first FROM outcome_hours"
                         " WHERE reports > 0 GROUP BY area, target");
    for (size_t i = 0; i < first.size(); i++)
        if (first.integer(i, "first") * 3600 <= now - std::time_t{7} * 86400)
            weekOld.insert({first.str(i, "area"), first.str(i, "target")});
    for (auto &[key, t] : byTarget) {
        bool baselined = t.baseline_reports >= policy.min_baseline || weekOld.count(key) != 0;
        double p = (static_cast<double>(t.baseline_failing) + 1) /
                   (static_cast<double>(t.baseline_reports) + 2);
        t.baseline = p;
        if (t.hour_reports >= kBrokenMinReports) {
            double n = static_cast<double>(t.hour_reports);
            double s = static_cast<double>(t.hour_failing) / n;
            double z = (s - p) / std::sqrt(p * (1 - p) / n);
            t.broken = s - p >= kBrokenMinRise && z >= kBrokenZ &&
                       t.hour_failing_networks >= policy.min_senders && baselined;
        }
    }
    for (auto &[key, t] : byTarget)
        f.targets.push_back(std::move(t));
    return f;
}

bool breakDown(sql::Db &db, Fleet &f, const std::string &by) {
    if (by != "asn" && by != "country")
        return false;
    // An AS may change its name over the window: the latest is shown.
    std::string q =
        by == "asn"
            ? "SELECT o.area AS area, o.target AS target, n.asn AS asn, max(n.as_name) AS name,"
              " count(*) AS reports, CAST(sum(o.failing) AS BIGINT) AS failing FROM outcomes o"
              " LEFT JOIN report_networks n ON n.report_id = o.report_id"
              " WHERE o.received_at >= $1 AND o.received_at < $2 GROUP BY o.area, o.target, n.asn"
            : "SELECT o.area AS area, o.target AS target, coalesce(n.country, '') AS name,"
              " count(*) AS reports, CAST(sum(o.failing) AS BIGINT) AS failing FROM outcomes o"
              " LEFT JOIN report_networks n ON n.report_id = o.report_id"
              " WHERE o.received_at >= $1 AND o.received_at < $2"
              " GROUP BY o.area, o.target, coalesce(n.country, '')";
    auto rows = db.read(q, {sql::integer(f.from), sql::integer(f.to)});
    std::map<std::pair<std::string, std::string>, FleetTarget *> byTarget;
    for (auto &t : f.targets)
        byTarget[{t.area, t.target}] = &t;
    for (size_t i = 0; i < rows.size(); i++) {
        auto it = byTarget.find({rows.str(i, "area"), rows.str(i, "target")});
        if (it == byTarget.end())
            continue;
        FleetShare share;
        if (by == "asn" && !rows.isNull(i, "asn"))
            share.asn = rows.integer(i, "asn");
        if (!rows.isNull(i, "name"))
            share.name = rows.str(i, "name");
        share.reports = rows.integer(i, "reports");
        share.failing = rows.integer(i, "failing");
        it->second->shares.push_back(std::move(share));
    }
    for (auto &t : f.targets)
        std::sort(t.shares.begin(), t.shares.end(), [](const FleetShare &a, const FleetShare &b) {
            if (a.failing != b.failing)
                return a.failing > b.failing;
            if (a.reports != b.reports)
                return a.reports > b.reports;
            // Unknown networks after known ones at a tie.
            bool au = !a.asn && a.name.empty(), bu = !b.asn && b.name.empty();
            return std::tie(au, a.asn, a.name) < std::tie(bu, b.asn, b.name);
        });
    return true;
}

std::vector<std::string> failingReports(sql::Db &db, const std::string &area,
                                        const std::string &target, std::time_t since,
                                        int64_t limit) {
    auto rows =
        db.read("SELECT r.reference FROM outcomes o JOIN reports r ON r.id = o.report_id"
                " WHERE o.area = $1 AND o.target = $2 AND o.failing = 1 AND"
                " o.received_at >= $3 ORDER BY o.received_at DESC, r.id DESC LIMIT $4",
                {sql::text(area), sql::text(target), sql::integer(since), sql::integer(limit)});
    std::vector<std::string> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back(rows.str(i, "reference"));
    return out;
}

} // namespace kobreportd
