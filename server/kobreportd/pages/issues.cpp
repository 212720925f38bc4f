// The issues, one issue with its reports, and the workflow's forms that the
// issue and report pages share.

#include "pages.h"

#include <algorithm>

#include "clock.h"
#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

namespace {

constexpr const char *kStatuses[] = {"new", "open", "resolved", "ignored"};

std::string dayOf(std::time_t t) {
    return utcTime(t, "%Y-%m-%d");
}

} // namespace

// Reports per day as bars, with the numbers as its text alternative.
Html sparkline(const std::vector<int64_t> &days, std::time_t now) {
    constexpr int kBar = 6, kHeight = 20;
    int64_t most = 1;
    for (int64_t n : days)
        most = std::max(most, n);
    std::time_t first = (now / 86400 - static_cast<std::time_t>(days.size()) + 1) * 86400;
    std::string counts;
    for (int64_t n : days)
        counts += (counts.empty() ? "" : ", ") + std::to_string(n);
    std::string alt = "reports per day from " + dayOf(first) + " to " + dayOf(now) + ": " + counts;
    Html h;
    h << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"spark\" width=\""
      << kBar * static_cast<int>(days.size()) << "\" height=\"" << kHeight
      << "\" role=\"img\" aria-label=\"" << text(alt) << "\"><title>" << text(alt) << "</title>";
    for (size_t i = 0; i < days.size(); i++) {
        if (!days[i])
            continue;
        int64_t hgt = std::max<int64_t>(2, kHeight * days[i] / most);
        h << "<rect x=\"" << static_cast<int>(i) * kBar << "\" y=\"" << kHeight - hgt
          << "\" width=\"" << kBar - 1 << "\" height=\"" << hgt << "\" fill=\"#b3261e\"/>";
    }
    h << "</svg>";
    return h;
}

Html issues(const std::vector<Issue> &list, const std::string &status, std::time_t now,
            const Links &links) {
    Html b;
    b << "<nav class=\"filters\" aria-label=\"Issues by status\"><a href=\""
      << links.href("/issues") << "\">new and open</a>";
    for (const char *s : kStatuses)
        b << "<a href=\"" << links.href("/issues") << "?status=" << text(s) << "\">" << text(s)
          << "</a>";
    b << "</nav>\n<p class=\"count\">" << static_cast<int64_t>(list.size())
      << text(list.size() == 1 ? " issue" : " issues") << " "
      << text(status.empty() ? "new or open" : status)
      << "</p>\n<table id=\"issues\"><thead><tr><th>Issue</th><th>First seen</th>"
         "<th>Last seen</th><th>Reports</th><th>Users</th><th>Last 14 days</th>"
         "<th>Status</th><th>Owner</th></tr></thead><tbody>\n";
    for (const auto &is : list) {
        b << "<tr class=\"issue\" data-issue=\"" << is.id << "\"><td><a href=\""
          << links.href("/issues/") << is.id << "\">" << text(is.title) << "</a></td><td>"
          << text(shownTime(is.first_seen)) << "</td><td>" << text(shownTime(is.last_seen))
          << "</td><td>" << is.reports << "</td><td>" << is.users << "</td><td>"
          << sparkline(is.days, now) << "</td><td class=\"status\">" << text(is.status)
          << "</td><td class=\"owner\">" << text(is.owner.value_or("")) << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

Html workflow(const std::string &action, const Workflow &w, const std::vector<Note> &notes,
              const std::vector<AccountInfo> &staff, const std::string &ticketUrl,
              const Viewer &v) {
    Html b;
    b << "<section id=\"workflow\" aria-label=\"Workflow\"><h2>Workflow</h2>"
         "<form method=\"post\" class=\"workflow\" action=\""
      << text(action) << "\">" << csrfField(v) << "<label>Status <select name=\"status\">";
    for (const char *s : kStatuses)
        b << "<option" << (w.status == s ? Html() << " selected" : Html()) << ">" << text(s)
          << "</option>";
    b << "</select></label><label>Owner <select name=\"owner\"><option value=\"\">(none)</option>";
    for (const auto &a : staff)
        b << "<option" << (w.owner == a.name ? Html() << " selected" : Html()) << ">"
          << text(a.name) << "</option>";
    b << "</select></label><label>Ticket <input name=\"ticket\" value=\""
      << text(w.ticket.value_or("")) << "\" maxlength=\"100\"></label>"
      << "<button class=\"plain\" type=\"submit\" id=\"save-workflow\">Save</button></form>";
    if (w.ticket) {
        std::string link = ticketLink(ticketUrl, *w.ticket);
        b << "<p id=\"ticket\">Ticket ";
        if (link.empty())
            b << text(*w.ticket);
        else
            b << "<a href=\"" << text(link) << "\">" << text(*w.ticket) << "</a>";
        b << "</p>";
    }
    b << "<h3>Internal notes</h3><ol id=\"notes\">";
    for (const auto &n : notes)
        b << "<li><span class=\"note-head\">" << text(n.account) << ", " << text(shownTime(n.at))
          << "</span><pre>" << text(n.text) << "</pre></li>";
    b << "</ol><form method=\"post\" class=\"note\" action=\"" << text(action) << "\">"
      << csrfField(v)
      << "<label>Note <textarea name=\"note\" rows=\"3\" maxlength=\"4000\" required>"
         "</textarea></label><button class=\"plain\" type=\"submit\" id=\"add-note\">"
         "Add note</button></form></section>\n";
    return b;
}

Html issue(const Issue &is, const ListPage &reports, const Html &workflowForms, std::time_t now,
           const Links &links) {
    Html b;
    b << "<h2 id=\"title\">" << text(is.title)
      << "</h2>\n<dl class=\"facts\"><dt>Status</dt><dd "
         "id=\"status\">"
      << text(is.status) << "</dd><dt>Owner</dt><dd id=\"owner\">"
      << text(is.owner.value_or("(none)")) << "</dd><dt>First seen</dt><dd>"
      << text(shownTime(is.first_seen)) << "</dd><dt>Last seen</dt><dd>"
      << text(shownTime(is.last_seen)) << "</dd><dt>Reports</dt><dd>" << is.reports
      << "</dd><dt>Users</dt><dd>" << is.users << "</dd><dt>Last 14 days</dt><dd>"
      << sparkline(is.days, now) << "</dd></dl>\n"
      << workflowForms << "<h2>Reports</h2>\n<p><a href=\"" << links.href("/") << "?issue=" << is.id
      << "\">these reports in the list</a></p>\n"
      << reportsTable(reports, links);
    return b;
}

} // namespace kobreportd::pages
