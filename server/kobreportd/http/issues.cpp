// The issue pages, the workflow's forms on issues and reports, and the
// list's workflow filters.

#include "staff.h"

#include "clock.h"

namespace kobreportd {

WorkflowChange Staff::workflowChange(const Request &req) {
    WorkflowChange c;
    if (req.hasParam("status"))
        c.status = req.param("status");
    if (req.hasParam("owner"))
        c.owner = req.param("owner");
    if (req.hasParam("ticket"))
        c.ticket = req.param("ticket");
    if (req.hasParam("note"))
        c.note = req.param("note");
    return c;
}

html::Html Staff::reportWorkflow(const std::string &reference, const Principal &who) {
    html::Html b;
    auto w = issues_.reportWorkflow(reference);
    if (!w)
        return b;
    if (auto id = issues_.reportIssue(reference)) {
        if (auto is = issues_.get(*id, now()))
            b << "<p id=\"issue\">Issue <a href=\"" << links().href("/issues/") << *id << "\">"
              << html::text(is->title) << "</a> (" << html::text(is->status) << ")</p>\n";
    }
    b << pages::workflow(links().path("/reports/") + html::percentEncode(reference) + "/workflow",
                         *w, issues_.notes("report.noted", reference), accounts_.users(),
                         ticketUrl_, viewer(who));
    return b;
}

void Staff::addIssuePages(RouteTable &table) {
    page(table, Method::Get, "/issues", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string status = req.param("status");
             if (!status.empty() && !validStatus(status)) {
                 show(res, 400, "Issues", &who,
                      pages::message("status is one of new, open, resolved, ignored"));
                 return;
             }
             std::time_t t = now();
             show(res, 200, "Issues", &who,
                  pages::issues(issues_.list(status, t), status, t, links()));
         });
    auto issuePage = [this](Response &res, const Principal &who, int64_t id, int status,
                            const std::string &message) {
        std::time_t t = now();
        auto is = issues_.get(id, t);
        if (!is) {
            show(res, 404, "Not found", &who,
                 pages::message("No issue " + std::to_string(id) + "."));
            return;
        }
        auto f = issueReports(store_.db().dialect(), id);
        html::Html body;
        if (!message.empty())
            body << "<p class=\"error\" id=\"message\">" << html::text(message) << "</p>\n";
        body << pages::issue(*is, store_.list(f, 0, 200),
                             pages::workflow(links().path("/issues/") + std::to_string(id),
                                             Workflow{is->status, is->owner, is->ticket},
                                             issues_.notes("issue.noted", issueReference(id)),
                                             accounts_.users(), ticketUrl_, viewer(who)),
                             t, links());
        show(res, status, "Issue " + std::to_string(id), &who, body);
    };
    page(table, Method::Get, "/issues/{id}", Role::Viewer,
         [this, issuePage](const Request &req, Response &res, const Principal &who) {
             auto id = parseIssueId(req.matches[1]);
             if (!id) {
                 show(res, 404, "Not found", &who,
                      pages::message("No issue " + req.matches[1] + "."));
                 return;
             }
             issuePage(res, who, *id, 200, "");
         });
    // A support engineer works the queue: a viewer may change the workflow.
    page(table, Method::Post, "/issues/{id}", Role::Viewer,
         [this, issuePage](const Request &req, Response &res, const Principal &who) {
             auto id = parseIssueId(req.matches[1]);
             if (!id) {
                 show(res, 404, "Not found", &who,
                      pages::message("No issue " + req.matches[1] + "."));
                 return;
             }
             auto refused =
                 issues_.changeIssue(*id, workflowChange(req), who.account, req.client_address);
             if (refused) {
                 issuePage(res, who, *id, refused->status, refused->message);
                 return;
             }
             seeOther(res, links().path("/issues/") + std::to_string(*id));
         });
    page(table, Method::Post, "/reports/{ref}/workflow", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string ref = req.matches[1];
             auto refused = plausibleReference(ref)
                                ? issues_.changeReport(ref, workflowChange(req), who.account,
                                                       req.client_address)
                                : std::optional<Issues::Refusal>(Issues::Refusal{404, "not found"});
             if (refused && refused->status == 404) {
                 notFound(res, who, ref);
                 return;
             }
             if (refused) {
                 show(res, refused->status, ref, &who, pages::message(refused->message));
                 return;
             }
             seeOther(res, links().path("/reports/") + html::percentEncode(ref));
         });
}

} // namespace kobreportd
