// The frame every staff page shares (head, stylesheet, header bar), the
// sign-in form and the plain message page, and the parts other pages take.

#include "pages.h"

#include <algorithm>

#include "clock.h"
#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

const char *const kStyle = R"css(
body { font: 15px/1.45 system-ui, sans-serif; margin: 0; color: #1d2430; background: #f5f6f8; }
header { background: #1d2b45; color: #fff; padding: 12px 24px; display: flex; gap: 24px;
         align-items: center; flex-wrap: wrap; }
header h1 { font-size: 19px; margin: 0; }
header a { color: #fff; text-decoration: none; }
header form { margin-left: auto; display: flex; gap: 6px; }
header input { padding: 5px 8px; border: 0; border-radius: 4px; min-width: 260px; }
header button { padding: 5px 12px; border: 0; border-radius: 4px; background: #2f5fb3;
                color: #fff; cursor: pointer; }
main { padding: 16px 24px 40px; max-width: 1200px; }
h2 { font-size: 17px; margin: 28px 0 8px; }
table { border-collapse: collapse; background: #fff; width: 100%; margin-bottom: 8px; }
th, td { text-align: left; padding: 6px 10px; border-bottom: 1px solid #e3e6eb;
         vertical-align: top; }
th { background: #eceff4; font-weight: 600; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
.fail { color: #b3261e; font-weight: 600; }
.warn { color: #9a6700; }
.ok { color: #1a7f37; }
.info { color: #57606a; }
.level { text-transform: uppercase; font-size: 12px; letter-spacing: .04em; }
dl.facts { display: grid; grid-template-columns: max-content 1fr; gap: 4px 16px;
           background: #fff; padding: 12px 16px; margin: 0; }
dl.facts dt { color: #57606a; }
dl.facts dd { margin: 0; }
details.evidence { margin-top: 4px; font-size: 13px; color: #4a5568; }
p.advice { margin: 4px 0 0; font-size: 13px; color: #1f2937; }
svg.spark { vertical-align: middle; }
section#workflow form { display: flex; flex-wrap: wrap; gap: 8px; align-items: end; margin: 8px 0; }
ol#notes pre { margin: 2px 0 8px; white-space: pre-wrap; }
details.evidence summary { cursor: pointer; font-family: ui-monospace, monospace; }
details.evidence pre { margin: 4px 0; padding: 6px 10px; }
pre { background: #fff; padding: 12px 16px; overflow-x: auto; border: 1px solid #e3e6eb;
      font: 12.5px/1.4 ui-monospace, monospace; white-space: pre-wrap; word-break: break-all; }
nav.pages { display: flex; gap: 16px; margin-top: 12px; }
p.count, p.links { color: #57606a; }
header nav { display: flex; gap: 16px; align-items: center; }
header .who { color: #c9d4ea; }
form.inline { display: inline; margin: 0; }
form.signin { background: #fff; padding: 20px 24px; max-width: 360px; display: grid; gap: 10px; }
form.signin input, form.admin input, form.admin select { padding: 6px 8px; border: 1px solid #c4cad3;
  border-radius: 4px; }
button.danger { background: #b3261e; color: #fff; border: 0; border-radius: 4px; padding: 5px 12px; }
button.plain { background: #2f5fb3; color: #fff; border: 0; border-radius: 4px; padding: 5px 12px; }
p.notice { background: #fff8c5; border: 1px solid #d4a72c; padding: 8px 12px; }
p.error { background: #ffebe9; border: 1px solid #cf222e; padding: 8px 12px; }
code.token { background: #fff; padding: 4px 8px; border: 1px solid #e3e6eb; }
.actions { display: flex; gap: 12px; margin: 8px 0; }
nav.windows { display: flex; gap: 12px; margin: 8px 0 16px; }
nav.windows a.current { font-weight: 600; text-decoration: none; color: #1d2430; }
table.fleet svg { display: block; max-width: 100%; height: auto; }
ul.broken li { margin: 4px 0; }
a.skip { position: absolute; left: 8px; top: -40px; background: #fff; color: #1d2b45;
         padding: 6px 10px; border-radius: 4px; z-index: 1; }
a.skip:focus { top: 8px; }
td, dd { overflow-wrap: anywhere; }
/* The list of reports: its filters, saved views and count in a line each,
   then one line a report, cut short rather than wrapped, the worst
   verdict's title taking what the other columns leave. */
form.filters, section#views, div.listhead { display: flex; flex-wrap: wrap; align-items: center;
  gap: 4px 12px; margin: 0 0 6px; }
form.filters label { white-space: nowrap; }
form.filters input { width: 7em; padding: 2px 4px; }
form.filters input[name=q] { width: 14em; }
section#views h2 { font-size: 15px; margin: 0; }
section#views p, section#views ul, div.listhead p { margin: 0; }
section#views ul { display: flex; flex-wrap: wrap; gap: 4px 12px; padding: 0; list-style: none; }
table.reports { table-layout: fixed; font-size: 14px; }
table.reports th, table.reports td { padding: 3px 8px; line-height: 20px; white-space: nowrap;
  overflow: hidden; text-overflow: ellipsis; vertical-align: middle; }
table.reports th:nth-child(1) { width: 15em; }
table.reports th:nth-child(2) { width: 20%; }
table.reports th:nth-child(3) { width: 15em; }
table.reports th:nth-child(4) { width: 4.5em; }
.badge { display: inline-block; min-width: 3.2em; padding: 0 4px; border-radius: 3px;
         font-size: 11px; font-weight: 700; line-height: 16px; letter-spacing: .04em;
         text-align: center; vertical-align: middle; }
.badge.fail { color: #fff; background: #b3261e; }
.badge.warn { color: #3d2a00; background: #f5b301; }
.badge.ok { color: #fff; background: #1a7f37; }
/* A phone: the header stacks, and each table row becomes a block of its
   cells, so no page is wider than the screen. */
@media (max-width: 640px) {
  header { padding: 10px 12px; gap: 8px 16px; }
  header nav { flex-wrap: wrap; gap: 4px 14px; }
  header form { margin-left: 0; flex: 1 1 100%; }
  header input { min-width: 0; flex: 1; }
  main { padding: 12px 12px 32px; }
  table, tbody, tr, td { display: block; }
  thead { display: none; }
  tr { border-bottom: 1px solid #e3e6eb; padding: 4px 0; }
  td, th { border-bottom: 0; padding: 2px 10px; }
  dl.facts { grid-template-columns: 1fr; gap: 0 16px; }
  dl.facts dd { margin-bottom: 6px; }
  /* Two lines a report: its level and verdict, then its reference and
     whose; the time is on its page. */
  table.reports tr { display: grid; grid-template-columns: auto auto minmax(0, 1fr);
                     grid-template-areas: "level title title" "ref ref user"; gap: 0 8px;
                     padding: 4px 10px; }
  table.reports td { padding: 0; }
  table.reports td.time { display: none; }
  table.reports td.level { grid-area: level; }
  table.reports td.title { grid-area: title; font-weight: 600; }
  table.reports td.ref { grid-area: ref; }
  table.reports td.user { grid-area: user; }
}
)css";

Html csrfField(const Viewer &v) {
    Html h;
    h << "<input type=\"hidden\" name=\"csrf\" value=\"" << text(v.csrf) << "\">";
    return h;
}

Html pager(const std::string &base, const std::string &query, int64_t pageNumber, int64_t pageSize,
           int64_t total) {
    Html h;
    h << "<nav class=\"pages\" aria-label=\"Pages\">";
    auto link = [&](const char *rel, const char *label, int64_t n) {
        h << "<a rel=\"" << text(rel) << "\" href=\"" << text(base) << "?";
        if (!query.empty())
            h << text(query) << "&amp;";
        h << "page=" << n << "\">" << text(label) << "</a>";
    };
    if (pageNumber > 1)
        link("prev", "Newer", pageNumber - 1);
    if (pageNumber * pageSize < total)
        link("next", "Older", pageNumber + 1);
    h << "</nav>\n";
    return h;
}

namespace {

// Empty for UTC: a string made empty cannot throw.
thread_local std::string shownZone;

} // namespace

ShownZone::ShownZone(const std::string &zone) : before_(shownZone) {
    shownZone = zone;
}

ShownZone::~ShownZone() {
    shownZone = before_;
}

std::string shownTime(std::time_t t) {
    return shownTime(t, "%Y-%m-%d %H:%M:%S %Z");
}

std::string shownTime(std::time_t t, const char *format) {
    return zonedTime(t, shownZone, format);
}

std::string shownZoneName() {
    return shownZone.empty() ? "UTC" : shownZone;
}

std::string runTime(const std::string &stated) {
    // An offset or a zone's letters at the end say where the time is.
    auto end = stated.find_last_not_of(' ');
    if (stated.empty() || end == std::string::npos)
        return stated;
    size_t word = stated.rfind(' ', end);
    std::string last = stated.substr(word == std::string::npos ? 0 : word + 1, end - word);
    bool offset = last.size() >= 5 && (last[0] == '+' || last[0] == '-');
    bool letters =
        last.size() >= 3 && last.size() <= 5 &&
        std::all_of(last.begin(), last.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    return offset || letters ? stated : stated + " (the user's local time)";
}

std::string frame(const std::string &title, const Viewer &v, const std::string &query,
                  const Html &body) {
    Html h;
    h << "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">";
    if (v.refresh > 0)
        h << "<meta http-equiv=\"refresh\" content=\"" << v.refresh << "\">";
    h << "<title>" << text(title) << "</title><link rel=\"stylesheet\" href=\""
      << v.links.href("/static/style.css")
      << "\"></head>\n<body><a class=\"skip\" href=\"#content\">Skip to the content</a>"
         "<header><h1><a href=\""
      << v.links.href("/") << "\">Kobvane problem reports</a></h1>";
    if (v.who) {
        h << "<nav aria-label=\"Sections\"><a href=\"" << v.links.href("/")
          << "\">Reports</a><a href=\"" << v.links.href("/issues") << "\">Issues</a><a href=\""
          << v.links.href("/fleet") << "\">Fleet</a><a href=\""
          << v.links.href("/account/second-factor") << "\">Second factor</a>";
        if (v.who->role == Role::Admin)
            h << "<a href=\"" << v.links.href("/audit") << "\">Audit log</a><a href=\""
              << v.links.href("/admin/accounts") << "\">Accounts</a>";
        h << "</nav><form method=\"get\" action=\"" << v.links.href("/")
          << "\"><input type=\"search\" name=\"q\" value=\"" << text(query)
          << "\" placeholder=\"reference, user or comment words\" aria-label=\"Search\">"
             "<button type=\"submit\">Search</button></form>"
             "<a class=\"who\" id=\"who\" href=\""
          << v.links.href("/settings") << "\" title=\"Settings\">" << text(v.who->account) << " ("
          << text(roleName(v.who->role)) << ")</a><a href=\"" << v.links.href("/account/password")
          << "\" id=\"own-password\">Password</a><form class=\"inline\" method=\"post\" "
             "action=\""
          << v.links.href("/signout") << "\">" << csrfField(v)
          << "<button type=\"submit\" id=\"signout\">Sign out</button></form>";
    }
    h << "</header>\n<main id=\"content\">" << body << "</main></body></html>\n";
    return h.str();
}

Html signIn(const std::string &csrf, const std::string &next, const std::string &msg,
            const Links &links) {
    Html b;
    b << "<h2>Sign in</h2>\n";
    if (!msg.empty())
        b << "<p class=\"error\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<form class=\"signin\" method=\"post\" action=\"" << links.href("/signin")
      << "\"><input type=\"hidden\" name=\"csrf\" value=\"" << text(csrf)
      << "\"><input type=\"hidden\" name=\"next\" value=\"" << text(next)
      << "\"><label>Name <input name=\"name\" id=\"name\" autocomplete=\"username\" required "
         "autofocus>"
         "</label><label>Password <input name=\"password\" id=\"password\" type=\"password\" "
         "autocomplete=\"current-password\" required></label>"
         "<button class=\"plain\" type=\"submit\" id=\"signin\">Sign in</button></form>\n";
    return b;
}

Html message(const std::string &msg) {
    Html b;
    b << "<p id=\"message\">" << text(msg) << "</p>\n";
    return b;
}

} // namespace kobreportd::pages
