// /api/issues and the workflow's API calls on issues and reports.

#include <nlohmann/json.hpp>

#include "clock.h"
#include "kobtriage.h"
#include "staff.h"

namespace kobreportd {

namespace {

using Json = nlohmann::ordered_json;

void json(Response &res, int status, const Json &body) {
    res.status = status;
    res.setContent(kobtriage::dumpJson(body), "application/json");
}

Json orNull(const std::optional<std::string> &s) {
    return s ? Json(*s) : Json(nullptr);
}

Json ticketJson(const std::optional<std::string> &ticket, const std::string &pattern) {
    if (!ticket)
        return nullptr;
    std::string link = ticketLink(pattern, *ticket);
    return Json{{"id", *ticket}, {"url", link.empty() ? Json(nullptr) : Json(link)}};
}

Json notesJson(const std::vector<Note> &notes) {
    Json out = Json::array();
    for (const auto &n : notes)
        out.push_back(Json{{"at", isoTime(n.at)}, {"account", n.account}, {"text", n.text}});
    return out;
}

Json issueJson(const Issue &is, std::time_t t, const std::string &ticketUrl) {
    Json signature = Json::array();
    for (size_t p = 0; p < is.signature.size();) {
        size_t nl = is.signature.find('\n', p), tab = is.signature.find('\t', p);
        signature.push_back(Json{{"rule", is.signature.substr(p, tab - p)},
                                 {"target", is.signature.substr(tab + 1, nl - tab - 1)}});
        p = nl + 1;
    }
    return Json{{"id", is.id},
                {"title", is.title},
                {"signature", std::move(signature)},
                {"status", is.status},
                {"owner", orNull(is.owner)},
                {"ticket", ticketJson(is.ticket, ticketUrl)},
                {"first_seen", isoTime(is.first_seen)},
                {"last_seen", isoTime(is.last_seen)},
                {"reports", is.reports},
                {"users", is.users},
                {"days_from", utcTime((t / 86400 - kSparkDays + 1) * 86400, "%Y-%m-%d")},
                {"days", is.days}};
}

} // namespace

void Staff::addIssueApi(RouteTable &table) {
    api(table, Method::Get, "/api/issues", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            std::string status = req.param("status");
            if (!status.empty() && !validStatus(status)) {
                json(res, 400, Json{{"error", "status is one of new, open, resolved, ignored"}});
                return;
            }
            std::time_t t = now();
            Json list = Json::array();
            for (const auto &is : issues_.list(status, t))
                list.push_back(issueJson(is, t, ticketUrl_));
            json(res, 200, Json{{"issues", std::move(list)}});
        });
    auto oneIssue = [this](Response &res, int64_t id) {
        std::time_t t = now();
        auto is = issues_.get(id, t);
        if (!is) {
            json(res, 404, Json{{"error", "not found"}});
            return;
        }
        Json j = issueJson(*is, t, ticketUrl_);
        auto f = issueReports(store_.db().dialect(), id);
        Json reports = Json::array();
        for (const auto &it : store_.list(f, 0, 200).items)
            reports.push_back(Json{{"reference", it.reference},
                                   {"received_at", isoTime(it.received_at)},
                                   {"form_username", orNull(it.form_username)},
                                   {"report_username", orNull(it.report_username)},
                                   {"summary", it.summary}});
        j["report_list"] = std::move(reports);
        j["notes"] = notesJson(issues_.notes("issue.noted", issueReference(id)));
        json(res, 200, j);
    };
    api(table, Method::Get, "/api/issues/{id}", Role::Viewer,
        [oneIssue](const Request &req, Response &res, const Principal &) {
            auto id = parseIssueId(req.matches[1]);
            if (!id) {
                json(res, 404, Json{{"error", "not found"}});
                return;
            }
            oneIssue(res, *id);
        });
    // The workflow is a support engineer's daily work: a viewer's token
    // may change it.
    api(table, Method::Post, "/api/issues/{id}", Role::Viewer,
        [this, oneIssue](const Request &req, Response &res, const Principal &who) {
            auto id = parseIssueId(req.matches[1]);
            if (!id) {
                json(res, 404, Json{{"error", "not found"}});
                return;
            }
            if (auto refused = issues_.changeIssue(*id, workflowChange(req), who.account,
                                                   req.client_address)) {
                json(res, refused->status, Json{{"error", refused->message}});
                return;
            }
            oneIssue(res, *id);
        });
    api(table, Method::Post, "/api/reports/{ref}", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string ref = req.matches[1];
            auto refused = plausibleReference(ref)
                               ? issues_.changeReport(ref, workflowChange(req), who.account,
                                                      req.client_address)
                               : std::optional<Issues::Refusal>(Issues::Refusal{404, "not found"});
            if (refused) {
                json(res, refused->status, Json{{"error", refused->message}});
                return;
            }
            auto w = issues_.reportWorkflow(ref);
            auto issue = issues_.reportIssue(ref);
            json(res, 200,
                 Json{{"reference", ref},
                      {"issue", issue ? Json(*issue) : Json(nullptr)},
                      {"status", w->status},
                      {"owner", orNull(w->owner)},
                      {"ticket", ticketJson(w->ticket, ticketUrl_)},
                      {"notes", notesJson(issues_.notes("report.noted", ref))}});
        });
}

} // namespace kobreportd
