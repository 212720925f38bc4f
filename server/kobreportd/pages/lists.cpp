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

std::string filterQuery(const Filters &given) {
    std::string q;
    for (const auto &[name, value] : given)
        q += (q.empty() ? "" : "&") + name + "=" + html::percentEncode(value);
    return q;
}

namespace {

std::string given(const Filters &filters, const char *name) {
    for (const auto &[n, v] : filters)
        if (n == name)
            return v;
    return "";
}

// The filters as words: q “tunnel drops”, level “fail”.
Html described(const Filters &filters) {
    Html h;
    bool first = true;
    for (const auto &[name, value] : filters) {
        h << text(first ? "" : ", ");
        if (name != "q" || filters.size() > 1)
            h << text(name) << " ";
        h << "\u201c" << text(value) << "\u201d";
        first = false;
    }
    return h;
}

// The list's filters as one GET form, so that the URL carries them.
Html filterForm(const Filters &filters, const Links &links) {
    Html b;
    b << "<form class=\"filters\" id=\"filters\" method=\"get\" action=\"" << links.href("/")
      << "\">";
    auto field = [&](const char *name, const char *label, const char *type, const char *hint) {
        b << "<label>" << text(label) << " <input type=\"" << text(type) << "\" name=\""
          << text(name) << "\" value=\"" << text(given(filters, name)) << "\" placeholder=\""
          << text(hint) << "\"></label> ";
    };
    field("q", "Search", "search", "reference, user or comment words");
    field("rule", "Rule", "text", "udp.blocked");
    b << "<label>Level <select name=\"level\">";
    for (const char *l : {"", "fail", "warn", "ok"})
        b << "<option value=\"" << text(l) << "\""
          << text(given(filters, "level") == l ? " selected" : "") << ">" << text(*l ? l : "any")
          << "</option>";
    b << "</select></label> ";
    field("area", "Area", "text", "udp");
    field("from", "From", "text", "YYYY-MM-DD");
    field("to", "To", "text", "YYYY-MM-DD");
    field("version", "Version", "text", "kobdiag version");
    b << "<button type=\"submit\">Filter</button></form>\n";
    return b;
}

// The saved views as links, the viewer's own with a button to delete it,
// and a form to save the list as it is filtered now.
Html savedViews(const std::vector<SavedView> &views, const std::string &query, const Viewer &v) {
    const Links &links = v.links;
    Html b;
    b << "<section id=\"views\" aria-label=\"Saved views\"><h2>Saved views</h2>";
    if (views.empty())
        b << "<p>None yet.</p>";
    else
        b << "<ul>";
    for (const auto &view : views) {
        b << "<li><a href=\"" << links.href("/") << text(view.query.empty() ? "" : "?")
          << text(view.query) << "\">" << text(view.name) << "</a>";
        if (view.shared)
            b << " <span class=\"shared\">shared by " << text(view.account) << "</span>";
        if (v.who && (view.account == v.who->account || v.who->role == Role::Admin))
            b << " <form class=\"inline\" method=\"post\" action=\"" << links.href("/views/")
              << view.id << "/delete\">" << csrfField(v)
              << "<button type=\"submit\">Delete</button></form>";
        b << "</li>";
    }
    if (!views.empty())
        b << "</ul>";
    b << "<form method=\"post\" action=\"" << links.href("/views") << "\">" << csrfField(v)
      << "<input type=\"hidden\" name=\"query\" value=\"" << text(query)
      << "\"><label>Save this list as <input type=\"text\" name=\"name\" required"
         " maxlength=\"80\"></label> <label><input type=\"checkbox\" name=\"shared\""
         " value=\"1\"> shared with everyone</label> <button type=\"submit\">Save</button>"
         "</form></section>\n";
    return b;
}

} // namespace

Html list(const ListPage &list, const Filters &filters, int64_t pg, int64_t pageSize,
          const std::vector<SavedView> &views, const Viewer &v) {
    const Links &links = v.links;
    Html b;
    std::string query = filterQuery(filters);
    b << filterForm(filters, links) << savedViews(views, query, v);
    b << "<div class=\"listhead\">";
    if (list.total == 0) {
        b << "<p class=\"count\" id=\"empty\">";
        if (filters.empty())
            b << "No reports are stored.";
        else
            b << "No report matches all of " << described(filters)
              << ". Each filter narrows the list: remove one to widen it.";
        b << "</p>\n";
    } else {
        b << "<p class=\"count\">" << list.total << text(list.total == 1 ? " report" : " reports");
        if (!filters.empty())
            b << " matching " << described(filters);
        b << "</p>\n";
    }
    std::string sep = query.empty() ? "?" : "?" + query + "&";
    b << "<p class=\"export\">Download this list: <a id=\"export-csv\" href=\"" << links.href("/")
      << text(sep) << "format=csv\">CSV</a> <a id=\"export-jsonl\" href=\"" << links.href("/")
      << text(sep) << "format=jsonl\">JSON lines</a></p></div>\n";
    if (list.total == 0)
        return b;
    b << reportsTable(list, links) << pager(links.path("/"), query, pg, pageSize, list.total);
    return b;
}

namespace {

// The worst verdict's level as a word, so that it does not rest on colour
// alone; nothing for a report judged before levels were kept.
Html levelBadge(const std::string &level) {
    struct Shown {
        const char *level, *word;
    };
    Html b;
    for (const Shown &s : {Shown{"fail", "FAIL"}, Shown{"warn", "WARN"}, Shown{"ok", "OK"}})
        if (level == s.level)
            b << "<span class=\"badge " << text(s.level) << "\">" << text(s.word) << "</span>";
    return b;
}

} // namespace

// One line a report, its worst verdict by the title of its rule: a page
// of them reads at a glance, and the report's own page has the rest.
Html reportsTable(const ListPage &list, const Links &links) {
    Html b;
    b << "<table id=\"reports\" class=\"reports\"><thead><tr><th>Received</th><th>User</th>"
         "<th>Reference</th><th>Level</th><th>Worst verdict</th></tr></thead><tbody>\n";
    for (const auto &it : list.items) {
        b << "<tr class=\"report\" data-reference=\"" << text(it.reference)
          << "\"><td class=\"time\">" << text(shownTime(it.received_at))
          << "</td><td class=\"user\">" << text(displayUser(it.form_username, it.report_username))
          << "</td><td class=\"ref\"><a href=\"" << links.href("/reports/") << uri(it.reference)
          << "\">" << text(it.reference) << "</a></td><td class=\"level\">" << levelBadge(it.level)
          << "</td><td class=\"title\">" << text(worstTitle(it)) << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
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
         "<th>A</th><th>B</th><th>Received</th><th>Reference</th><th>Level</th>"
         "<th>Worst verdict</th><th>Since the one before</th></tr></thead><tbody>\n";
    for (size_t i = 0; i < reports.size(); i++) {
        const auto &r = reports[i];
        const std::string &ref = r.item.reference;
        b << "<tr><td><input type=\"radio\" name=\"a\" value=\"" << text(ref) << "\" aria-label=\""
          << text(ref) << " as A\"" << text(i == 1 ? " checked" : "")
          << "></td><td><input type=\"radio\" name=\"b\" value=\"" << text(ref)
          << "\" aria-label=\"" << text(ref) << " as B\"" << text(i == 0 ? " checked" : "")
          << "></td><td class=\"time\">" << text(shownTime(r.item.received_at))
          << "</td><td class=\"ref\"><a href=\"" << links.href("/reports/") << uri(ref) << "\">"
          << text(ref) << "</a></td><td class=\"level\">" << levelBadge(r.item.level) << "</td><td>"
          << text(worstTitle(r.item)) << "</td><td>";
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
