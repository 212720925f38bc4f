// The staff side's /api/ and /metrics: JSON for scripts and dashboards,
// behind a bearer token, from the same views of a report as the pages.

#include <nlohmann/json.hpp>

#include "clock.h"
#include "fleet.h"
#include "incidents.h"
#include "kobtriage.h"
#include "staff.h"

namespace kobreportd {

namespace {

using Json = nlohmann::ordered_json;

void json(Response &res, int status, const std::string &body) {
    res.status = status;
    res.setContent(body, "application/json");
}

void json(Response &res, int status, const Json &body) {
    json(res, status, kobtriage::dumpJson(body));
}

void jsonError(Response &res, int status, const char *what) {
    json(res, status, Json{{"error", what}});
}

Json orNull(const std::optional<std::string> &s) {
    return s ? Json(*s) : Json(nullptr);
}

} // namespace

std::string Staff::reportJson(const StoredReport &s) {
    if (s.raw_expired) {
        Json findings = Json::parse(s.findings, nullptr, false);
        return kobtriage::dumpJson(
            Json{{"reference", s.reference},
                 {"received_at", isoTime(s.received_at)},
                 {"form_username", orNull(s.form_username)},
                 {"report_username", orNull(s.report_username)},
                 {"summary", s.summary},
                 {"raw_expired", true},
                 {"findings", findings.is_discarded() ? Json(nullptr) : findings}});
    }
    kobtriage::StoredFacts f;
    f.reference = s.reference;
    f.received_at = isoTime(s.received_at);
    f.form_username = s.form_username;
    f.why = s.why;
    f.size = static_cast<size_t>(s.size);
    return kobtriage::toJson(kobtriage::parse(s.desc), &f);
}

void Staff::addApiRoutes(RouteTable &table) {
    addReportApi(table);
    addFleetApi(table);
    addAccountApi(table);
    addSecondFactorApi(table);
    addIssueApi(table);
}

void Staff::addReportApi(RouteTable &table) {
    api(table, Method::Get, "/api/reports", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &who) {
            auto filter = filterOf(req, res, who, false);
            if (!filter || exported(req, res, who, *filter, false))
                return;
            int64_t pg = pageNumber(req);
            auto list = store_.list(*filter, (pg - 1) * kPageSize, kPageSize);
            Json reports = Json::array();
            for (const auto &it : list.items)
                reports.push_back(itemJson(it));
            json(res, 200,
                 Json{{"total", list.total},
                      {"page", pg},
                      {"page_size", kPageSize},
                      {"reports", std::move(reports)}});
        });
    // ?reveal=1 asks for the unmasked text, which only an admin gets.
    auto revealAsked = [](const Request &req, Response &res, const Principal &who) {
        if (req.param("reveal") != "1")
            return std::optional<bool>(false);
        if (who.role != Role::Admin) {
            jsonError(res, 403, "only an admin token may reveal");
            return std::optional<bool>();
        }
        return std::optional<bool>(true);
    };
    api(table, Method::Get, "/api/reports/{ref}", Role::Viewer,
        [this, revealAsked](const Request &req, Response &res, const Principal &who) {
            auto reveal = revealAsked(req, res, who);
            if (!reveal)
                return;
            auto loaded = load({req.matches[1]});
            auto &s = loaded.reports[0];
            if (!s) {
                jsonError(res, 404, "not found");
                return;
            }
            audit_.record(who.account, req.client_address,
                          *reveal ? "report.revealed" : "report.viewed", s->reference);
            json(res, 200, reportJson(*s));
            res.unmasked = *reveal;
            keepTargets(*s, res);
        });
    api(table, Method::Get, "/api/reports/{ref}/raw", Role::Viewer,
        [this, revealAsked](const Request &req, Response &res, const Principal &who) {
            auto reveal = revealAsked(req, res, who);
            if (reveal)
                rawText(req, res, who, *reveal);
        });
    api(table, Method::Delete, "/api/reports/{ref}", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string ref = req.matches[1];
            if (!store_.remove(ref)) {
                jsonError(res, 404, "not found");
                return;
            }
            audit_.record(who.account, req.client_address, "report.deleted", ref);
            json(res, 200, Json{{"deleted", ref}});
        });
    api(table, Method::Get, "/api/compare", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &who) {
            auto both = load({req.param("a"), req.param("b")});
            auto &a = both.reports[0], &b = both.reports[1];
            if (!a || !b) {
                jsonError(res, 404, "not found");
                return;
            }
            for (const auto *r : {&*a, &*b})
                audit_.record(who.account, req.client_address, "report.viewed", r->reference,
                              "compare");
            auto sa = side(*a), sb = side(*b);
            pages::Changes c = pages::changes(sa.outcomes, sb.outcomes);
            json(res, 200,
                 Json{{"a", a->reference},
                      {"b", b->reference},
                      {"now_failing", c.failing},
                      {"recovered", c.recovered}});
            keepTargets(*a, res);
            keepTargets(*b, res);
        });
    api(table, Method::Get, "/api/users/{name}", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            auto list = store_.byUser(req.matches[1], 200);
            Json reports = Json::array();
            for (size_t i = 0; i < list.size(); i++) {
                const auto &r = list[i];
                Json o{{"reference", r.item.reference},
                       {"received_at", isoTime(r.item.received_at)},
                       {"summary", r.item.summary}};
                if (i + 1 < list.size()) {
                    auto c = pages::changes(list[i + 1].outcomes, r.outcomes);
                    o["now_failing"] = c.failing;
                    o["recovered"] = c.recovered;
                }
                reports.push_back(std::move(o));
            }
            json(res, 200,
                 Json{{"username", std::string(req.matches[1])}, {"reports", std::move(reports)}});
        });
}

void Staff::addFleetApi(RouteTable &table) {
    api(table, Method::Get, "/api/fleet", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            std::string w = req.hasParam("window") ? req.param("window") : "24h";
            if (!windowSeconds(w)) {
                jsonError(res, 400, "window is one of 6h, 24h, 7d, 30d");
                return;
            }
            Fleet f = fleet(store_.db(), w, now());
            std::string by = req.param("by");
            if (req.hasParam("by") && !breakDown(store_.db(), f, by)) {
                jsonError(res, 400, "by is one of asn, country");
                return;
            }
            Json targets = Json::array();
            for (const auto &t : f.targets) {
                Json buckets = Json::array();
                for (const auto &b : t.buckets)
                    if (b.reports)
                        buckets.push_back(Json{{"start", isoTime(b.start)},
                                               {"reports", b.reports},
                                               {"failing", b.failing}});
                targets.push_back(Json{
                    {"area", t.area},
                    {"target", t.target},
                    {"reports", t.reports},
                    {"failing", t.failing},
                    {"broken", t.broken},
                    {"last_hour", Json{{"reports", t.hour_reports}, {"failing", t.hour_failing}}},
                    {"baseline", Json{{"reports", t.baseline_reports},
                                      {"failing", t.baseline_failing},
                                      {"share", t.baseline}}},
                    {"buckets", std::move(buckets)}});
                if (!req.hasParam("by"))
                    continue;
                Json shares = Json::array();
                for (const auto &n : t.shares)
                    shares.push_back(by == "asn"
                                         ? Json{{"asn", n.asn ? Json(*n.asn) : Json(nullptr)},
                                                {"name", n.name},
                                                {"reports", n.reports},
                                                {"failing", n.failing}}
                                         : Json{{"country", n.name},
                                                {"reports", n.reports},
                                                {"failing", n.failing}});
                targets.back()["by_" + by] = std::move(shares);
            }
            Json doc{{"window", f.window},
                     {"from", isoTime(f.from)},
                     {"to", isoTime(f.to)},
                     {"bucket_seconds", static_cast<int64_t>(f.bucket_seconds)}};
            if (req.hasParam("by"))
                doc["by"] = by;
            doc["targets"] = std::move(targets);
            json(res, 200, doc);
        });
    api(table, Method::Get, "/api/incidents", Role::Viewer,
        [this](const Request &, Response &res, const Principal &) {
            Json list = Json::array();
            for (const auto &i : Incidents(store_.db()).list(now(), false, 100)) {
                Json targets = Json::array(), networks = Json::array();
                for (const auto &[area, target] : i.targets)
                    targets.push_back(Json{{"area", area}, {"target", target}});
                for (const auto &n : i.networks)
                    networks.push_back(Json{{"asn", *n.asn},
                                            {"name", n.name},
                                            {"reports", n.reports},
                                            {"failing", n.failing}});
                list.push_back(Json{
                    {"id", i.id},
                    {"status", i.status},
                    {"started_at", isoTime(i.started_at)},
                    {"targets", std::move(targets)},
                    {"reports", i.reports},
                    {"failing", i.failing},
                    {"users", i.users},
                    {"networks", std::move(networks)},
                    {"reopened", i.reopened},
                    {"acknowledged_by", orNull(i.acknowledged_by)},
                    {"acknowledged_at",
                     i.acknowledged_at ? Json(isoTime(*i.acknowledged_at)) : Json(nullptr)},
                    {"resolved_at", i.resolved_at ? Json(isoTime(*i.resolved_at)) : Json(nullptr)},
                    {"summary", i.summary()}});
            }
            json(res, 200, Json{{"incidents", std::move(list)}});
        });
    // For Prometheus, with a metrics token (or any other API token).
    api(table, Method::Get, "/metrics", Role::Metrics,
        [this](const Request &, Response &res, const Principal &) {
            res.setContent(metrics_.text(), "text/plain; version=0.0.4; charset=utf-8");
            res.unmasked = true;
        });
    api(table, Method::Get, "/api/audit", Role::Admin,
        [this](const Request &req, Response &res, const Principal &) {
            int64_t pg = pageNumber(req), total = 0;
            auto entries = audit_.page((pg - 1) * kPageSize, kPageSize, total);
            Json list = Json::array();
            for (const auto &e : entries)
                list.push_back(Json{{"id", e.id},
                                    {"at", isoTime(e.at)},
                                    {"account", e.account},
                                    {"address", e.address},
                                    {"action", e.action},
                                    {"reference", e.reference},
                                    {"detail", e.detail}});
            json(res, 200,
                 Json{{"total", total},
                      {"page", pg},
                      {"page_size", kPageSize},
                      {"entries", std::move(list)}});
            res.unmasked = true; // staff's own addresses, for admins
        });
}

} // namespace kobreportd
