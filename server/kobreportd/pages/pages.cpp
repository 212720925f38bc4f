#include "pages.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "clock.h"
#include "kobrules.h"
#include "kobtriage.h"

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
header button { padding: 5px 12px; border: 0; border-radius: 4px; background: #4c7bd9;
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
button.plain { background: #4c7bd9; color: #fff; border: 0; border-radius: 4px; padding: 5px 12px; }
p.notice { background: #fff8c5; border: 1px solid #d4a72c; padding: 8px 12px; }
p.error { background: #ffebe9; border: 1px solid #cf222e; padding: 8px 12px; }
code.token { background: #fff; padding: 4px 8px; border: 1px solid #e3e6eb; }
.actions { display: flex; gap: 12px; margin: 8px 0; }
nav.windows { display: flex; gap: 12px; margin: 8px 0 16px; }
nav.windows a.current { font-weight: 600; text-decoration: none; color: #1d2430; }
table.fleet svg { display: block; }
ul.broken li { margin: 4px 0; }
)css";

namespace {

std::string ms(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", v);
    return buf;
}

std::string displayUser(const std::optional<std::string> &form,
                        const std::optional<std::string> &report) {
    if (form && !form->empty())
        return *form;
    return report.value_or("");
}

Html csrfField(const Viewer &v) {
    Html h;
    h << "<input type=\"hidden\" name=\"csrf\" value=\"" << text(v.csrf) << "\">";
    return h;
}

Html outcomeCell(const kobtriage::ProbeResult &r) {
    using O = kobtriage::ProbeResult::Outcome;
    Html h;
    switch (r.outcome) {
    case O::Answered:
        h << "<td class=\"num ok\">" << text(ms(r.rtt_ms)) << " ms</td>";
        break;
    case O::Timeout:
        h << "<td class=\"fail\">timeout</td>";
        break;
    case O::Error:
        h << "<td class=\"fail\">error " << r.err << " " << text(r.error_text) << "</td>";
        break;
    case O::Missing:
        h << "<td class=\"warn\">no result</td>";
        break;
    }
    return h;
}

Html address(const kobtriage::ProbeResult &r) {
    Html h;
    if (r.address.empty())
        return h;
    h << text(r.address);
    if (r.address_inferred)
        h << " <span class=\"info\">(inferred)</span>";
    return h;
}

Html pager(const std::string &base, const std::string &query, int64_t pageNumber, int64_t pageSize,
           int64_t total) {
    Html h;
    h << "<nav class=\"pages\">";
    auto link = [&](const char *rel, const char *label, int64_t n) {
        h << "<a rel=\"" << text(rel) << "\" href=\"" << text(base) << "?";
        if (!query.empty())
            h << "q=" << uri(query) << "&amp;";
        h << "page=" << n << "\">" << text(label) << "</a>";
    };
    if (pageNumber > 1)
        link("prev", "Newer", pageNumber - 1);
    if (pageNumber * pageSize < total)
        link("next", "Older", pageNumber + 1);
    h << "</nav>\n";
    return h;
}

void fact(Html &b, const char *k, const Html &v) {
    b << "<dt>" << text(k) << "</dt><dd>" << v << "</dd>";
}

void fact(Html &b, const char *k, const std::string &v) {
    Html h;
    h << text(v);
    fact(b, k, h);
}

// Under a verdict: its rule, what the rule means and the report's lines
// it rests on, folded so that the table stays short.
Html evidence(const std::string &rule, const std::vector<kobtriage::SourceLine> &lines) {
    Html b;
    const kobtriage::Rule *known = kobtriage::findRule(rule);
    b << "<details class=\"evidence\"><summary>rule " << text(rule.empty() ? "(none)" : rule);
    if (known)
        b << " (version " << known->version << ")";
    b << ", " << lines.size();
    if (lines.size() == 1)
        b << " line of the report";
    else
        b << " lines of the report";
    b << "</summary>";
    if (known)
        b << "<p>" << text(known->meaning) << "</p>";
    if (lines.empty()) {
        b << "<p>It rests on what the report lacks, not on a line of it.</p>";
    } else {
        b << "<pre>";
        for (const auto &l : lines)
            b << l.number << "| " << text(l.text) << "\n";
        b << "</pre>";
    }
    b << "</details>";
    return b;
}

Html verdictRows(const kobtriage::Report &r) {
    Html b;
    for (const auto &v : r.verdicts) {
        std::string lv = kobtriage::levelName(v.level);
        b << "<tr class=\"" << text(lv) << "\"><td class=\"level\">" << text(lv) << "</td><td>"
          << text(v.area) << "</td><td>" << text(v.text) << evidence(v.rule, v.evidence)
          << "</td></tr>\n";
    }
    return b;
}

Html findingsTables(const kobtriage::Report &r) {
    Html b;
    b << "<h2>UDP pass-through</h2><table id=\"udp\"><thead><tr><th>Attempt</th><th>Address</th>"
         "<th>Result</th></tr></thead><tbody>\n";
    for (const auto &a : r.udp)
        b << "<tr><td>" << a.number << "</td><td>" << address(a.result) << ":" << a.result.port
          << "</td>" << outcomeCell(a.result) << "</tr>\n";
    auto u = r.udpSummary();
    b << "</tbody></table><p class=\"count\">" << u.answered << "/" << u.attempts << " answered";
    if (u.avg_ms)
        b << ", min/avg/max " << text(ms(*u.min_ms)) << "/" << text(ms(*u.avg_ms)) << "/"
          << text(ms(*u.max_ms)) << " ms";
    b << "</p>\n";

    b << "<h2>TCP connects</h2><table id=\"tcp\"><thead><tr><th>Probe</th><th>Target</th>"
         "<th>Address</th><th>Port</th><th>Limit</th><th>Result</th></tr></thead><tbody>\n";
    for (const auto &p : r.tcp)
        b << "<tr><td>" << text(p.heading) << "</td><td>" << text(p.target) << "</td><td>"
          << address(p.result) << "</td><td class=\"num\">" << p.result.port
          << "</td><td class=\"num\">" << p.limit_s << " s</td>" << outcomeCell(p.result)
          << "</tr>\n";
    b << "</tbody></table>\n";

    b << "<h2>Intranet gateways</h2><table id=\"intranet\"><thead><tr><th>Gateway</th>"
         "<th>Result</th></tr></thead><tbody>\n";
    for (const auto &p : r.intranet)
        b << "<tr><td>" << text(p.address) << ":" << p.port << "</td>" << outcomeCell(p.result)
          << "</tr>\n";
    b << "</tbody></table>\n";

    if (r.traceroute) {
        const auto &t = *r.traceroute;
        b << "<h2>Traceroute to " << text(t.destination)
          << "</h2><table id=\"traceroute\"><thead><tr><th>Hop</th><th>Addresses</th>"
             "<th>Times (ms)</th><th>Lost</th></tr></thead><tbody>\n";
        for (const auto &h : t.hops) {
            std::string addrs, times;
            for (const auto &a : h.addresses)
                addrs += (addrs.empty() ? "" : ", ") + a;
            for (double v : h.rtts_ms)
                times += (times.empty() ? "" : " ") + ms(v);
            for (const auto &n : h.notes)
                times += " " + n;
            b << "<tr><td class=\"num\">" << h.number << "</td><td>" << text(addrs) << "</td><td>"
              << text(times) << "</td><td class=\"num\">" << h.lost << "</td></tr>\n";
        }
        b << "</tbody></table>\n";
    }

    b << "<h2>Command captures</h2><table id=\"captures\"><thead><tr><th>Command</th>"
         "<th>Lines</th></tr></thead><tbody>\n";
    for (const auto &c : r.captures) {
        b << "<tr><td>" << text(c.command) << "</td><td class=\"num\">";
        if (c.empty())
            b << "empty";
        else
            b << c.lines;
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n";

    b << "<h2>Client logs</h2><table id=\"logs\"><thead><tr><th>File</th><th>State</th>"
         "<th>Size</th></tr></thead><tbody>\n";
    for (const auto &l : r.logs)
        b << "<tr><td>" << text(l.file) << "</td><td>" << text(kobtriage::stateName(l.state))
          << "</td><td class=\"num\">" << l.size << "</td></tr>\n";
    b << "</tbody></table>\n";
    return b;
}

// The verdicts kept for a report whose raw text has expired.
Html keptVerdicts(const std::string &findings) {
    Html b;
    auto j = nlohmann::json::parse(findings, nullptr, false);
    if (j.is_discarded() || !j.contains("verdict_levels") || !j["verdict_levels"].is_array())
        return b;
    for (const auto &v : j["verdict_levels"]) {
        auto str = [&v](const char *k) {
            return v.contains(k) && v[k].is_string() ? v[k].get<std::string>() : std::string();
        };
        std::vector<kobtriage::SourceLine> lines;
        if (v.contains("evidence") && v["evidence"].is_array())
            for (const auto &l : v["evidence"])
                if (l.is_object() && l.contains("line") && l["line"].is_number_unsigned() &&
                    l.contains("text") && l["text"].is_string())
                    lines.push_back({l["line"].get<std::size_t>(), l["text"].get<std::string>()});
        b << "<tr class=\"" << text(str("level")) << "\"><td class=\"level\">" << text(str("level"))
          << "</td><td>" << text(str("area")) << "</td><td>" << text(str("text"));
        if (v.contains("rule"))
            b << evidence(str("rule"), lines);
        b << "</td></tr>\n";
    }
    return b;
}

} // namespace

std::string shownTime(std::time_t t) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

std::string frame(const std::string &title, const Viewer &v, const std::string &query,
                  const Html &body) {
    Html h;
    h << "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
         "<title>"
      << text(title)
      << "</title><link rel=\"stylesheet\" href=\"/static/style.css\"></head>\n<body>"
         "<header><h1><a href=\"/\">Kobvane problem reports</a></h1>";
    if (v.who) {
        h << "<nav><a href=\"/\">Reports</a><a href=\"/fleet\">Fleet</a>";
        if (v.who->role == Role::Admin)
            h << "<a href=\"/audit\">Audit log</a><a href=\"/admin/accounts\">Accounts</a>";
        h << "</nav><form method=\"get\" action=\"/\"><input type=\"search\" name=\"q\" value=\""
          << text(query)
          << "\" placeholder=\"user name or reference\" aria-label=\"Search\">"
             "<button type=\"submit\">Search</button></form>"
             "<span class=\"who\" id=\"who\">"
          << text(v.who->account) << " (" << text(roleName(v.who->role))
          << ")</span><form class=\"inline\" method=\"post\" action=\"/signout\">" << csrfField(v)
          << "<button type=\"submit\" id=\"signout\">Sign out</button></form>";
    }
    h << "</header>\n<main>" << body << "</main></body></html>\n";
    return h.str();
}

Html list(const ListPage &list, const std::string &q, int64_t pg, int64_t pageSize) {
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
          << text(displayUser(it.form_username, it.report_username))
          << "</td><td><a href=\"/reports/" << uri(it.reference) << "\">" << text(it.reference)
          << "</a></td><td class=\"" << text(good ? "ok" : "fail") << "\">" << text(it.summary)
          << "</td></tr>\n";
    }
    b << "</tbody></table>\n" << pager("/", q, pg, pageSize, list.total);
    return b;
}

Html report(const StoredReport &s, const std::string &raw, bool revealed, const Viewer &v,
            int retainDays) {
    bool admin = v.who && v.who->role == Role::Admin;
    Html b;
    b << "<h2 id=\"reference\">" << text(s.reference) << "</h2>\n";
    if (revealed)
        b << "<p class=\"notice\" id=\"revealed\">Unmasked: this view shows the user's own "
             "addresses. It is in the audit log.</p>\n";
    std::optional<kobtriage::Report> r;
    if (!s.raw_expired)
        r = kobtriage::parse(raw);
    b << "<dl class=\"facts\">";
    fact(b, "Received (UTC)", shownTime(s.received_at));
    fact(b, "User (form)", s.form_username.value_or(""));
    fact(b, "User (report)", r ? r->username.value_or("") : s.report_username.value_or(""));
    if (r) {
        fact(b, "Run started", r->timestamp.value_or(""));
        fact(b, "Version", r->version.value_or(""));
        fact(b, "OS", r->os.value_or(""));
        fact(b, "From", revealed ? s.peer : std::string("(masked)"));
    }
    fact(b, "Size", std::to_string(s.size) + " bytes");
    b << "</dl>\n";
    if (s.raw_expired) {
        b << "<p class=\"notice\" id=\"expired\">The raw text of this report has expired";
        if (retainDays > 0)
            b << " (reports keep it " << retainDays << " days)";
        b << "; its summary and findings remain.</p>\n";
    }
    b << "<div class=\"actions\">";
    b << "<a href=\"/api/reports/" << uri(s.reference) << "\">JSON (API)</a>";
    std::string user = s.form_username && !s.form_username->empty()
                           ? *s.form_username
                           : s.report_username.value_or("");
    if (!user.empty())
        b << "<a href=\"/users/" << uri(user) << "\" id=\"timeline\">all reports of " << text(user)
          << "</a>";
    if (!s.raw_expired)
        b << "<a href=\"/reports/" << uri(s.reference) << "/raw\">raw text</a>";
    if (admin && !s.raw_expired && !revealed)
        b << "<form class=\"inline\" method=\"post\" action=\"/reports/" << uri(s.reference)
          << "/reveal\">" << csrfField(v)
          << "<button class=\"plain\" type=\"submit\" id=\"reveal\">Reveal addresses</button>"
             "</form>";
    if (admin && revealed)
        b << "<form class=\"inline\" method=\"post\" action=\"/reports/" << uri(s.reference)
          << "/raw\">" << csrfField(v)
          << "<button class=\"plain\" type=\"submit\">Download unmasked raw text</button></form>";
    if (admin)
        b << "<form class=\"inline\" method=\"post\" action=\"/reports/" << uri(s.reference)
          << "/delete\">" << csrfField(v)
          << "<button class=\"danger\" type=\"submit\" id=\"delete\">Delete report</button>"
             "</form>";
    b << "</div>\n";
    if (!s.raw_expired && s.why)
        b << "<h2>User's comment</h2><pre id=\"why\">" << text(*s.why) << "</pre>\n";

    b << "<h2>Verdicts</h2><table id=\"verdicts\"><thead><tr><th>Level</th><th>Area</th>"
         "<th>Verdict</th></tr></thead><tbody>\n";
    b << (r ? verdictRows(*r) : keptVerdicts(s.findings)) << "</tbody></table>\n";
    if (!r) {
        b << "<h2>Summary</h2><p id=\"summary\">" << text(s.summary) << "</p>\n";
        return b;
    }
    b << findingsTables(*r);
    if (!r->unknown.empty()) {
        b << "<h2>Not understood</h2>\n";
        for (const auto &sct : r->unknown)
            b << "<h3>" << text(sct.heading.empty() ? "(outside any heading)" : sct.heading)
              << "</h3><pre>" << text(sct.text) << "</pre>\n";
    }
    b << "<h2>Raw report</h2><pre id=\"raw\">" << text(raw) << "</pre>\n";
    return b;
}

Html audit(const std::vector<AuditEntry> &entries, int64_t total, int64_t pg, int64_t pageSize) {
    Html b;
    b << "<h2>Audit log</h2><p class=\"count\">" << total << " entries, newest first</p>\n"
      << "<table id=\"audit\"><thead><tr><th>Time (UTC)</th><th>Account</th><th>Address</th>"
         "<th>Action</th><th>Report</th><th>Detail</th></tr></thead><tbody>\n";
    for (const auto &e : entries) {
        b << "<tr><td>" << text(shownTime(e.at)) << "</td><td>" << text(e.account) << "</td><td>"
          << text(e.address) << "</td><td class=\"action\">" << text(e.action) << "</td><td>";
        if (!e.reference.empty())
            b << "<a href=\"/reports/" << uri(e.reference) << "\">" << text(e.reference) << "</a>";
        b << "</td><td>" << text(e.detail) << "</td></tr>\n";
    }
    b << "</tbody></table>\n" << pager("/audit", "", pg, pageSize, total);
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
    auto table = [&](const char *id, const char *what, const std::vector<AccountInfo> &list,
                     const char *path) {
        b << "<table id=\"" << text(id) << "\"><thead><tr><th>" << text(what)
          << "</th><th>Role</th><th>Created (UTC)</th><th></th></tr></thead><tbody>\n";
        for (const auto &a : list)
            b << "<tr><td>" << text(a.name) << "</td><td>" << text(roleName(a.role)) << "</td><td>"
              << text(shownTime(a.created_at)) << "</td><td><form class=\"inline\" method=\"post\" "
              << "action=\"" << text(path) << uri(a.name) << "/delete\">" << csrfField(v)
              << "<button class=\"danger\" type=\"submit\">Delete</button></form></td></tr>\n";
        b << "</tbody></table>\n";
    };
    b << "<h2>People</h2>\n";
    table("users", "Name", users, "/admin/users/");
    b << "<form class=\"admin\" method=\"post\" action=\"/admin/users\">" << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option></select> <input name=\"password\" type=\"password\" "
         "placeholder=\"password (12 or more characters)\" aria-label=\"Password\" "
         "autocomplete=\"new-password\" required> "
         "<button class=\"plain\" type=\"submit\">Add</button></form>\n";
    b << "<h2>API tokens</h2>\n";
    table("tokens", "Name", tokens, "/admin/tokens/");
    b << "<form class=\"admin\" method=\"post\" action=\"/admin/tokens\">" << csrfField(v)
      << "<input name=\"name\" placeholder=\"name\" aria-label=\"Token name\" required> "
         "<select name=\"role\" aria-label=\"Role\"><option>viewer</option><option>admin"
         "</option></select> <button class=\"plain\" type=\"submit\">Make a token</button>"
         "</form>\n";
    return b;
}

Html signIn(const std::string &csrf, const std::string &next, const std::string &msg) {
    Html b;
    b << "<h2>Sign in</h2>\n";
    if (!msg.empty())
        b << "<p class=\"error\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<form class=\"signin\" method=\"post\" action=\"/signin\">"
         "<input type=\"hidden\" name=\"csrf\" value=\""
      << text(csrf) << "\"><input type=\"hidden\" name=\"next\" value=\"" << text(next)
      << "\"><label>Name <input name=\"name\" id=\"name\" autocomplete=\"username\" required>"
         "</label><label>Password <input name=\"password\" id=\"password\" type=\"password\" "
         "autocomplete=\"current-password\" required></label>"
         "<button class=\"plain\" type=\"submit\" id=\"signin\">Sign in</button></form>\n";
    return b;
}

namespace {

std::string percent(int64_t part, int64_t whole) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.0f%%",
                  whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0);
    return buf;
}

std::string bucketLabel(std::time_t t, std::time_t seconds) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, seconds < 86400 ? "%Y-%m-%d %H:00" : "%Y-%m-%d", &tm);
    return buf;
}

Html failingLink(const FleetTarget &t, const char *window) {
    Html h;
    h << "<a href=\"/fleet/reports?area=" << uri(t.area) << "&amp;target=" << uri(t.target)
      << "&amp;window=" << text(window) << "\">";
    return h;
}

// The failing share per bucket as bars: red height for the share, a grey
// mark for buckets with reports and no failure, nothing for empty ones.
// Plain SVG attributes only, so the page's policy forbids nothing it needs.
Html chart(const FleetTarget &t, std::time_t bucketSeconds) {
    constexpr int kWidth = 480, kHeight = 48;
    size_t n = t.buckets.size();
    int bar = n ? std::max(1, kWidth / static_cast<int>(n)) : kWidth;
    Html h;
    h << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << bar * static_cast<int>(n)
      << "\" height=\"" << kHeight + 2 << "\" role=\"img\" aria-label=\"failing share\">";
    h << "<line x1=\"0\" y1=\"" << kHeight << "\" x2=\"" << bar * static_cast<int>(n) << "\" y2=\""
      << kHeight << "\" stroke=\"#c4cad3\"/>";
    for (size_t i = 0; i < n; i++) {
        const auto &b = t.buckets[i];
        if (!b.reports)
            continue;
        int hgt = static_cast<int>(kHeight * b.failing / b.reports);
        if (hgt < 2)
            hgt = 2;
        h << "<rect x=\"" << static_cast<int>(i) * bar << "\" y=\"" << kHeight - hgt
          << "\" width=\"" << std::max(1, bar - 1) << "\" height=\"" << hgt << "\" fill=\""
          << text(b.failing ? "#b3261e" : "#c4cad3") << "\"><title>"
          << text(bucketLabel(b.start, bucketSeconds)) << ": " << b.failing << " of " << b.reports
          << " failing</title></rect>";
    }
    h << "</svg>";
    return h;
}

} // namespace

Html fleet(const Fleet &f) {
    Html b;
    b << "<h2>The fleet</h2><nav class=\"windows\">";
    for (const char *w : {"6h", "24h", "7d", "30d"}) {
        b << "<a href=\"/fleet?window=" << text(w) << "\"";
        if (f.window == w)
            b << " class=\"current\"";
        b << ">last " << text(w) << "</a>";
    }
    b << "</nav>\n<h2>What is broken now</h2>\n";
    Html broken;
    for (const auto &t : f.targets)
        if (t.broken)
            broken << "<li class=\"fail\">" << failingLink(t, "6h") << text(t.target) << "</a> ("
                   << text(t.area) << "): " << t.hour_failing << " of " << t.hour_reports
                   << " reports failing in the last hour ("
                   << text(percent(t.hour_failing, t.hour_reports)) << "), against "
                   << text(percent(t.baseline_failing, t.baseline_reports)) << " of "
                   << t.baseline_reports << " over the seven days before</li>\n";
    if (broken.empty())
        b << "<p class=\"ok\" id=\"broken\">Nothing: no target fails now far more often than "
             "it used to.</p>\n";
    else
        b << "<ul class=\"broken\" id=\"broken\">" << broken << "</ul>\n";
    b << "<h2>Every target, last " << text(f.window) << " (per "
      << text(f.bucket_seconds < 86400 ? "hour" : "day") << ", UTC)</h2>\n"
      << "<table class=\"fleet\" id=\"fleet\"><thead><tr><th>Area</th><th>Target</th>"
         "<th>Reports</th><th>Failing</th><th>Failing share</th></tr></thead><tbody>\n";
    for (const auto &t : f.targets) {
        if (!t.reports)
            continue;
        b << "<tr><td>" << text(t.area) << "</td><td>" << text(t.target)
          << "</td><td class=\"num\">" << t.reports << "</td><td class=\"num\">";
        if (t.failing)
            b << failingLink(t, f.window.c_str()) << t.failing << "</a>";
        else
            b << "0";
        b << "</td><td>" << chart(t, f.bucket_seconds) << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

Html failing(const std::string &area, const std::string &target,
             const std::vector<std::string> &references) {
    Html b;
    b << "<h2>Reports that found " << text(target) << " (" << text(area) << ") failing</h2>\n"
      << "<ul id=\"failing\">";
    for (const auto &r : references)
        b << "<li><a href=\"/reports/" << uri(r) << "\">" << text(r) << "</a></li>";
    b << "</ul>\n";
    return b;
}

Changes changes(const std::vector<Outcome> &older, const std::vector<Outcome> &newer) {
    Changes c;
    for (const auto &n : newer)
        for (const auto &o : older)
            if (o.area == n.area && o.target == n.target && o.failing != n.failing)
                (n.failing ? c.failing : c.recovered).push_back(n.target);
    return c;
}

namespace {

// Lines of one text missing from the other, in order.
std::vector<std::string> linesNotIn(const std::string &a, const std::string &b) {
    auto split = [](const std::string &t) {
        std::vector<std::string> out;
        size_t start = 0;
        while (start < t.size()) {
            size_t end = t.find('\n', start);
            if (end == std::string::npos)
                end = t.size();
            out.push_back(t.substr(start, end - start));
            start = end + 1;
        }
        return out;
    };
    auto la = split(a), lb = split(b);
    std::vector<std::string> out;
    for (const auto &l : la)
        if (std::find(lb.begin(), lb.end(), l) == lb.end())
            out.push_back(l);
    return out;
}

Html lineDiff(const char *id, const std::string &a, const std::string &b) {
    Html h;
    auto onlyA = linesNotIn(a, b), onlyB = linesNotIn(b, a);
    h << "<pre id=\"" << text(id) << "\">";
    if (onlyA.empty() && onlyB.empty())
        h << "(the same)";
    for (const auto &l : onlyA)
        h << "- " << text(l) << "\n";
    for (const auto &l : onlyB)
        h << "+ " << text(l) << "\n";
    h << "</pre>\n";
    return h;
}

} // namespace

Html compare(const CompareSide &a, const CompareSide &b) {
    Html h;
    h << "<h2>Comparing <a href=\"/reports/" << uri(a.report->reference) << "\">"
      << text(a.report->reference) << "</a> (A, " << text(shownTime(a.report->received_at))
      << ") with <a href=\"/reports/" << uri(b.report->reference) << "\">"
      << text(b.report->reference) << "</a> (B, " << text(shownTime(b.report->received_at))
      << ")</h2>\n<table id=\"compare\"><thead><tr><th>Area</th><th>Target</th><th>A</th>"
         "<th>B</th><th></th></tr></thead><tbody>\n";
    std::vector<std::pair<std::string, std::string>> keys;
    for (const auto *side : {&a, &b})
        for (const auto &o : side->outcomes)
            if (std::find(keys.begin(), keys.end(), std::make_pair(o.area, o.target)) == keys.end())
                keys.emplace_back(o.area, o.target);
    auto find = [](const CompareSide &s, const std::pair<std::string, std::string> &k) {
        for (const auto &o : s.outcomes)
            if (o.area == k.first && o.target == k.second)
                return std::optional<bool>(o.failing);
        return std::optional<bool>();
    };
    auto cell = [](std::optional<bool> f) {
        Html c;
        if (!f)
            c << "<td class=\"info\">no result</td>";
        else if (*f)
            c << "<td class=\"fail\">failing</td>";
        else
            c << "<td class=\"ok\">ok</td>";
        return c;
    };
    for (const auto &k : keys) {
        auto fa = find(a, k), fb = find(b, k);
        bool changed = fa != fb;
        h << "<tr" << (changed ? Html() << " class=\"changed\"" : Html()) << "><td>"
          << text(k.first) << "</td><td>" << text(k.second) << "</td>" << cell(fa) << cell(fb)
          << "<td>" << (changed ? Html() << "<strong>changed</strong>" : Html()) << "</td></tr>\n";
    }
    h << "</tbody></table>\n<h2>Interfaces (ifconfig): lines only in A (-) and only in B (+)"
         "</h2>\n"
      << lineDiff("interfaces", a.interfaces, b.interfaces)
      << "<h2>Routes (netstat -rn): lines only in A (-) and only in B (+)</h2>\n"
      << lineDiff("routes", a.routes, b.routes);
    return h;
}

Html user(const std::string &name, const std::vector<Store::UserReport> &reports) {
    Html b;
    b << "<h2>Reports of " << text(name)
      << "</h2>\n<table id=\"timeline\"><thead><tr>"
         "<th>Received (UTC)</th><th>Reference</th><th>Verdicts</th><th>Since the one before"
         "</th></tr></thead><tbody>\n";
    for (size_t i = 0; i < reports.size(); i++) {
        const auto &r = reports[i];
        b << "<tr><td>" << text(shownTime(r.item.received_at)) << "</td><td><a href=\"/reports/"
          << uri(r.item.reference) << "\">" << text(r.item.reference) << "</a></td><td>"
          << text(r.item.summary) << "</td><td>";
        if (i + 1 < reports.size()) {
            Changes c = changes(reports[i + 1].outcomes, r.outcomes);
            for (const auto &t : c.failing)
                b << "<span class=\"fail\">now failing: " << text(t) << "</span><br>";
            for (const auto &t : c.recovered)
                b << "<span class=\"ok\">recovered: " << text(t) << "</span><br>";
            b << "<a href=\"/compare?a=" << uri(reports[i + 1].item.reference)
              << "&amp;b=" << uri(r.item.reference) << "\">compare</a>";
        }
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

Html message(const std::string &msg) {
    Html b;
    b << "<p id=\"message\">" << text(msg) << "</p>\n";
    return b;
}

} // namespace kobreportd::pages
