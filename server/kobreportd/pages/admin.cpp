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
      << "<table id=\"audit\"><thead><tr><th>Time</th><th>Account</th><th>Address</th>"
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

namespace {

Html button(const Viewer &v, const std::string &action, const char *label, const char *cls) {
    Html b;
    b << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href(action) << "\">"
      << csrfField(v) << "<button class=\"" << text(cls) << "\" type=\"submit\">" << text(label)
      << "</button></form> ";
    return b;
}

} // namespace

Html accounts(const std::vector<AccountInfo> &users, const std::vector<AccountInfo> &tokens,
              const Viewer &v, const std::string &msg, const std::optional<std::string> &newToken,
              const std::optional<std::string> &resetLink) {
    Html b;
    if (!msg.empty())
        b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n";
    if (newToken)
        b << "<p class=\"notice\">The new token, shown this once:</p><p><code class=\"token\" "
             "id=\"token\">"
          << text(*newToken) << "</code></p>\n";
    if (resetLink)
        b << "<p class=\"notice\">The link, shown this once; it sets a new password once, within "
             "24 hours:</p><p><code class=\"token\" id=\"reset-link\">"
          << text(*resetLink) << "</code></p>\n";
    auto table = [&](const char *id, const char *what, const std::vector<AccountInfo> &list,
                     const std::string &path, bool people) {
        b << "<table id=\"" << text(id) << "\"><thead><tr><th>" << text(what)
          << "</th><th>Role</th><th>State</th><th>Created</th>";
        if (people)
            b << "<th>Last signed in</th>";
        b << "<th></th></tr></thead><tbody>\n";
        for (const auto &a : list) {
            std::string at = path + html::percentEncode(a.name);
            b << "<tr><td>" << text(a.name) << "</td><td>" << text(roleName(a.role)) << "</td><td>"
              << text(a.disabled ? "disabled" : "enabled") << "</td><td>"
              << text(shownTime(a.created_at)) << "</td>";
            if (people)
                b << "<td>" << text(a.last_signin ? shownTime(a.last_signin) : "never") << "</td>";
            b << "<td>";
            if (people) {
                const char *other = a.role == Role::Admin ? "viewer" : "admin";
                b << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href(at)
                  << "/role\">" << csrfField(v) << "<input type=\"hidden\" name=\"role\" value=\""
                  << text(other) << "\"><button class=\"plain\" type=\"submit\">Make "
                  << text(other) << "</button></form> "
                  << button(v, at + "/reset", "Reset link", "plain")
                  << button(v, at + "/second-factor/reset", "Reset second factor", "plain");
            }
            b << (a.disabled ? button(v, at + "/enable", "Enable", "plain")
                             : button(v, at + "/disable", "Disable", "plain"))
              << button(v, at + "/delete", people ? "Delete" : "Revoke", "danger")
              << "</td></tr>\n";
        }
        b << "</tbody></table>\n";
    };
    b << "<h2>People</h2>\n";
    table("users", "Name", users, "/admin/users/", true);
    b << "<form class=\"admin\" method=\"post\" action=\"" << v.links.href("/admin/users") << "\">"
      << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option></select> <input name=\"password\" type=\"password\" "
         "placeholder=\"password (12 to 1,024 bytes)\" aria-label=\"Password\" "
         "autocomplete=\"new-password\" required> "
         "<button class=\"plain\" type=\"submit\">Add</button></form>\n";
    b << "<h2>API tokens</h2>\n";
    table("tokens", "Name", tokens, "/admin/tokens/", false);
    b << "<form class=\"admin\" method=\"post\" action=\"" << v.links.href("/admin/tokens") << "\">"
      << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Token name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option><option>metrics</option></select> <button class=\"plain\" type=\"submit\">Make "
         "a token</button>"
         "</form>\n";
    return b;
}

Html done(const std::string &msg, const Links &links) {
    Html b;
    b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n<p><a href=\""
      << links.href("/") << "\">Back to the reports</a></p>\n";
    return b;
}

Html confirm(const std::string &question, const std::string &action, const std::string &button,
             const std::string &back, const Viewer &v,
             const std::vector<std::pair<std::string, std::string>> &fields) {
    Html b;
    b << "<p id=\"question\">" << text(question) << "</p>\n<form method=\"post\" action=\""
      << v.links.href(action) << "\">" << csrfField(v)
      << "<input type=\"hidden\" name=\"confirm\" value=\"yes\">";
    for (const auto &[name, value] : fields)
        b << "<input type=\"hidden\" name=\"" << text(name) << "\" value=\"" << text(value)
          << "\">";
    b << "<button class=\"danger\" type=\"submit\" id=\"confirm\">" << text(button)
      << "</button> <a href=\"" << v.links.href(back) << "\">Cancel</a></form>\n";
    return b;
}

Html passwordForm(const std::string &action, const std::string &csrf, bool own,
                  const std::string &msg, const Links &links) {
    Html b;
    if (!msg.empty())
        b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<form class=\"signin\" method=\"post\" action=\"" << links.href(action)
      << "\"><input type=\"hidden\" name=\"csrf\" value=\"" << text(csrf) << "\">";
    if (own)
        b << "<label>Current password <input name=\"current\" type=\"password\" "
             "autocomplete=\"current-password\" required></label>";
    b << "<label>New password (12 to 1,024 bytes) <input name=\"password\" type=\"password\" "
         "autocomplete=\"new-password\" required></label><label>Again <input name=\"again\" "
         "type=\"password\" autocomplete=\"new-password\" required></label><button "
         "type=\"submit\">Set the password</button></form>\n";
    return b;
}

} // namespace kobreportd::pages
