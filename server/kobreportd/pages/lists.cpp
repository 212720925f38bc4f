// The list of reports and one user's reports.

#include "pages.h"

#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

namespace {

std::string displayUser(const std::optional<std::string> &form,
                        const std::optional<std::string> &report) {
    if (form && !form->empty())
        return *form;
    return report.value_or("");
}

} // namespace

Html list(const ListPage &list, const std::string &q, int64_t pg, int64_t pageSize,
          const Links &links) {
    Html b;
    b << "<p class=\"count\">" << list.total << text(list.total == 1 ? " report" : " reports");
    if (!q.empty())
        b << " matching \u201c" << text(q) << "\u201d";
    b << "</p>\n<table id=\"reports\"><thead><tr><th>Received (UTC)</th><th>User</th>"
         "<th>Reference</th><th>Verdicts</th></tr></thead><tbody>\n";
    for (const auto &it : list.items) {
        bool good = it.summary == "no problem found";
        b << "<tr class=\"report\" data-reference=\"" << text(it.reference) << "\"><td>"
          << text(shownTime(it.received_at)) << "</td><td>"
          << text(displayUser(it.form_username, it.report_username)) << "</td><td><a href=\""
          << links.href("/reports/") << uri(it.reference) << "\">" << text(it.reference)
          << "</a></td><td class=\"" << text(good ? "ok" : "fail") << "\">" << text(it.summary)
          << "</td></tr>\n";
    }
    b << "</tbody></table>\n" << pager(links.path("/"), q, pg, pageSize, list.total);
    return b;
}

Html user(const std::string &name, const std::vector<Store::UserReport> &reports,
          const Links &links) {
    Html b;
    b << "<h2>Reports of " << text(name)
      << "</h2>\n<table id=\"timeline\"><thead><tr>"
         "<th>Received (UTC)</th><th>Reference</th><th>Verdicts</th><th>Since the one before"
         "</th></tr></thead><tbody>\n";
    for (size_t i = 0; i < reports.size(); i++) {
        const auto &r = reports[i];
        b << "<tr><td>" << text(shownTime(r.item.received_at)) << "</td><td><a href=\""
          << links.href("/reports/") << uri(r.item.reference) << "\">" << text(r.item.reference)
          << "</a></td><td>" << text(r.item.summary) << "</td><td>";
        if (i + 1 < reports.size()) {
            Changes c = changes(reports[i + 1].outcomes, r.outcomes);
            for (const auto &t : c.failing)
                b << "<span class=\"fail\">now failing: " << text(t) << "</span><br>";
            for (const auto &t : c.recovered)
                b << "<span class=\"ok\">recovered: " << text(t) << "</span><br>";
            b << "<a href=\"" << links.href("/compare")
              << "?a=" << uri(reports[i + 1].item.reference) << "&amp;b=" << uri(r.item.reference)
              << "\">compare</a>";
        }
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

} // namespace kobreportd::pages
