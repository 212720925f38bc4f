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
    b << "</p>\n<table id=\"reports\"><thead><tr><th>Received</th><th>User</th>"
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

Html user(const std::vector<std::string> &names, const std::vector<Store::UserReport> &reports,
          const Links &links) {
    Html b;
    b << "<h2>Reports of " << text(names[0]) << "</h2>\n";
    if (names.size() > 1) {
        b << "<p class=\"links\" id=\"aliases\">Also named";
        for (size_t i = 1; i < names.size(); i++) {
            b << (i == 1 ? text(" ") : text(", "));
            b << "<a href=\"" << links.href("/users/") << uri(names[i]) << "\">" << text(names[i])
              << "</a>";
        }
        b << " in the same reports.</p>\n";
    }
    // Any two reports side by side: pick one as A and one as B (the newest
    // two to begin with).
    b << "<form method=\"get\" action=\"" << links.href("/compare")
      << "\" id=\"pick\"><table id=\"timeline\"><thead><tr>"
         "<th>A</th><th>B</th><th>Received</th><th>Reference</th><th>Verdicts</th>"
         "<th>Since the one before</th></tr></thead><tbody>\n";
    for (size_t i = 0; i < reports.size(); i++) {
        const auto &r = reports[i];
        const std::string &ref = r.item.reference;
        b << "<tr><td><input type=\"radio\" name=\"a\" value=\"" << text(ref) << "\" aria-label=\""
          << text(ref) << " as A\"" << text(i == 1 ? " checked" : "")
          << "></td><td><input type=\"radio\" name=\"b\" value=\"" << text(ref)
          << "\" aria-label=\"" << text(ref) << " as B\"" << text(i == 0 ? " checked" : "")
          << "></td><td>" << text(shownTime(r.item.received_at)) << "</td><td><a href=\""
          << links.href("/reports/") << uri(ref) << "\">" << text(ref) << "</a></td><td>"
          << text(r.item.summary) << "</td><td>";
        if (i + 1 < reports.size()) {
            Changes c = changes(reports[i + 1].outcomes, r.outcomes);
            for (const auto &t : c.failing)
                b << "<span class=\"fail\">now failing: " << text(t) << "</span><br>";
            for (const auto &t : c.recovered)
                b << "<span class=\"ok\">recovered: " << text(t) << "</span><br>";
            b << "<a href=\"" << links.href("/compare")
              << "?a=" << uri(reports[i + 1].item.reference) << "&amp;b=" << uri(ref)
              << "\">compare</a>";
        }
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    if (reports.size() > 1)
        b << "<button class=\"plain\" type=\"submit\" id=\"compare\">Compare A with B</button>";
    b << "</form>\n";
    return b;
}

} // namespace kobreportd::pages
