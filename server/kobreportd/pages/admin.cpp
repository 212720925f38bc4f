// The admin's pages: the audit log and the accounts.

#include "pages.h"

#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

Html audit(const std::vector<AuditEntry> &entries, int64_t total, int64_t pg, int64_t pageSize,
           const Links &links) {
    Html b;
    b << "<h2>Audit log</h2><p class=\"count\">" << total << " entries, newest first</p>\n"
      << "<table id=\"audit\"><thead><tr><th>Time (UTC)</th><th>Account</th><th>Address</th>"
         "<th>Action</th><th>Report</th><th>Detail</th></tr></thead><tbody>\n";
    for (const auto &e : entries) {
        b << "<tr><td>" << text(shownTime(e.at)) << "</td><td>" << text(e.account) << "</td><td>"
          << text(e.address) << "</td><td class=\"action\">" << text(e.action) << "</td><td>";
        if (!e.reference.empty())
            b << "<a href=\"" << links.href("/reports/") << uri(e.reference) << "\">"
              << text(e.reference) << "</a>";
        b << "</td><td>" << text(e.detail);
        // A folded row: how many times, and until when.
        if (e.count > 1)
            b << text(e.detail.empty() ? "" : "; ") << e.count << " times, the last at "
              << text(shownTime(e.last_at));
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n" << pager(links.path("/audit"), "", pg, pageSize, total);
    return b;
}

Html accounts(const std::vector<AccountInfo> &users, const std::vector<AccountInfo> &tokens,
              const Viewer &v, const std::string &msg, const std::optional<std::string> &newToken) {
    Html b;
    if (!msg.empty())
        b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n";
    if (newToken)
        b << "<p class=\"notice\">The new token, shown this once:</p><p><code class=\"token\" "
             "id=\"token\">"
          << text(*newToken) << "</code></p>\n";
    // People's second factors, which an admin removes when one is lost.
    auto secondFactorReset = [&](const char *path, const std::string &name) {
        Html f;
        if (std::string(path) == "/admin/users/")
            f << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href(path)
              << uri(name) << "/second-factor/reset\">" << csrfField(v)
              << "<button class=\"plain\" type=\"submit\">Reset second factor</button></form>";
        return f;
    };
    auto table = [&](const char *id, const char *what, const std::vector<AccountInfo> &list,
                     const char *path) {
        b << "<table id=\"" << text(id) << "\"><thead><tr><th>" << text(what)
          << "</th><th>Role</th><th>Created (UTC)</th><th></th></tr></thead><tbody>\n";
        for (const auto &a : list)
            b << "<tr><td>" << text(a.name) << "</td><td>" << text(roleName(a.role)) << "</td><td>"
              << text(shownTime(a.created_at)) << "</td><td><form class=\"inline\" method=\"post\" "
              << "action=\"" << v.links.href(path) << uri(a.name) << "/delete\">" << csrfField(v)
              << "<button class=\"danger\" type=\"submit\">Delete</button></form>"
              << secondFactorReset(path, a.name) << "</td></tr>\n";
        b << "</tbody></table>\n";
    };
    b << "<h2>People</h2>\n";
    table("users", "Name", users, "/admin/users/");
    b << "<form class=\"admin\" method=\"post\" action=\"" << v.links.href("/admin/users") << "\">"
      << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option></select> <input name=\"password\" type=\"password\" "
         "placeholder=\"password (12 or more characters)\" aria-label=\"Password\" "
         "autocomplete=\"new-password\" required> "
         "<button class=\"plain\" type=\"submit\">Add</button></form>\n";
    b << "<h2>API tokens</h2>\n";
    table("tokens", "Name", tokens, "/admin/tokens/");
    b << "<form class=\"admin\" method=\"post\" action=\"" << v.links.href("/admin/tokens") << "\">"
      << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Token name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option><option>metrics</option></select> <button class=\"plain\" type=\"submit\">Make "
         "a token</button>"
         "</form>\n";
    return b;
}

} // namespace kobreportd::pages
