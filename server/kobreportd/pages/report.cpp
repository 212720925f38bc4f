// One report: its facts, its verdicts with their evidence, its findings
// and its raw text.

#include "pages.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "kobrules.h"
#include "kobtriage.h"
#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

namespace {

// A report page stays light whatever the report's size: these bound what
// it shows of the report's own text, in bytes of page.
constexpr std::size_t kEvidenceLines = 20, kEvidenceLineBytes = 512;
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kLogEnds = 64 * kKiB;        // each log's start and end
constexpr std::size_t kCaptureBytes = 64 * kKiB;   // each capture's start
constexpr std::size_t kCapturesBytes = 512 * kKiB; // all captures
constexpr std::size_t kUnknownBytes = 256 * kKiB;  // all sections not understood

std::string ms(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", v);
    return buf;
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
        // A rule may rest on thousands of lines, and a line may be long:
        // the first ones, each cut short, and the raw text has the rest.
        b << "<pre>";
        for (std::size_t i = 0; i < lines.size() && i < kEvidenceLines; i++) {
            std::string_view shown = html::headWithin(lines[i].text, kEvidenceLineBytes);
            b << lines[i].number << "| " << text(shown);
            if (shown.size() < lines[i].text.size())
                b << " \u2026";
            b << "\n";
        }
        b << "</pre>";
        if (lines.size() > kEvidenceLines)
            b << "<p class=\"cut\">and " << lines.size() - kEvidenceLines
              << " more lines, in the raw text</p>";
    }
    b << "</details>";
    return b;
}

// Verdicts are shown worst first (fail, warn, info, ok), each level in rule
// order.
int severity(const std::string &level) {
    for (int i = 0; const char *l : {"fail", "warn", "info", "ok"}) {
        if (level == l)
            return i;
        i++;
    }
    return 4;
}

// What support staff tell the user about a verdict, from its rule.
Html advice(const std::string &rule) {
    Html b;
    if (const kobtriage::Rule *known = kobtriage::findRule(rule); known && !known->advice.empty())
        b << "<p class=\"advice\">Tell the user: " << text(known->advice) << "</p>";
    return b;
}

Html verdictRows(const kobtriage::Report &r) {
    Html b;
    auto verdicts = r.verdicts;
    std::stable_sort(verdicts.begin(), verdicts.end(), [](const auto &x, const auto &y) {
        return severity(kobtriage::levelName(x.level)) < severity(kobtriage::levelName(y.level));
    });
    for (const auto &v : verdicts) {
        std::string lv = kobtriage::levelName(v.level);
        b << "<tr class=\"" << text(lv) << "\"><td class=\"level\">" << text(lv) << "</td><td>"
          << text(v.area) << "</td><td>" << text(v.text) << advice(v.rule)
          << evidence(v.rule, v.evidence) << "</td></tr>\n";
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

// Where a text was cut short, and how to see the rest.
Html leftOut(std::size_t bytes, const std::string &rawHref) {
    Html b;
    b << "<p class=\"cut\">" << bytes << " bytes not shown here; <a href=\"" << text(rawHref)
      << "\">the whole text</a> has them, its lines numbered.</p>\n";
    return b;
}

// The captures' own text, each from its start, within the page's budget.
Html captureTexts(const kobtriage::Report &r, const std::string &rawHref) {
    Html b;
    std::size_t left = kCapturesBytes;
    for (const auto &c : r.captures) {
        if (c.empty())
            continue;
        std::string_view shown = html::headWithin(c.text, std::min(kCaptureBytes, left));
        left -= std::min(left, html::escape(shown).size());
        b << "<h3>" << text(c.command) << "</h3><pre class=\"capture\">" << text(shown)
          << "</pre>\n";
        if (shown.size() < c.size())
            b << leftOut(c.size() - shown.size(), rawHref);
    }
    return b;
}

// Each client log's first and last 64 KiB of page, and how much lies
// between.
Html logExcerpts(const kobtriage::Report &r, const std::vector<std::optional<LogEnds>> &ends,
                 const std::string &rawHref) {
    Html b;
    for (std::size_t i = 0; i < r.logs.size() && i < ends.size(); i++) {
        if (!ends[i])
            continue;
        const auto &l = r.logs[i];
        const LogEnds &e = *ends[i];
        b << "<h3>" << text(l.file) << ", " << l.size << " bytes, from line " << l.label.number + 1
          << "</h3><pre class=\"log\">" << text(e.head) << "</pre>\n";
        if (e.left_out)
            b << leftOut(e.left_out, rawHref);
        if (!e.tail.empty())
            b << "<pre class=\"log\">" << text(e.tail) << "</pre>\n";
    }
    return b;
}

// A log's place in the text, when its text is there to show.
bool shown(const kobtriage::ClientLog &l, std::size_t textSize) {
    return l.state == kobtriage::ClientLog::State::Present && l.offset + l.size <= textSize;
}

// The ends of one log from what is at hand of it: the whole log, or (for a
// log longer than both ends with a byte to spare each) a window of its
// first and of its last kLogEnds + 1 bytes.  The spare byte keeps a line
// that the window cuts from being taken as if it were whole: the window
// then costs more than the bound, so only whole lines inside it are ever
// taken, as they would be from the whole log.
LogEnds ends(std::string_view first, std::string_view last, std::size_t size) {
    LogEnds e;
    std::string_view head = html::headWithin(first, kLogEnds);
    std::string_view tail = last.data() == first.data()
                                ? html::tailWithin(first.substr(head.size()), kLogEnds)
                                : html::tailWithin(last, kLogEnds);
    e.head = head;
    e.tail = tail;
    e.left_out = size - head.size() - tail.size();
    return e;
}

constexpr std::size_t kWindow = kLogEnds + 1;

Html unknownSections(const kobtriage::Report &r, const std::string &rawHref) {
    Html b;
    if (r.unknown.empty())
        return b;
    b << "<h2>Not understood</h2>\n";
    std::size_t left = kUnknownBytes;
    for (const auto &sct : r.unknown) {
        std::string_view shown = html::headWithin(sct.text, left);
        left -= std::min(left, html::escape(shown).size());
        b << "<h3>" << text(sct.heading.empty() ? "(outside any heading)" : sct.heading)
          << "</h3><pre>" << text(shown) << "</pre>\n";
        if (shown.size() < sct.size())
            b << leftOut(sct.size() - shown.size(), rawHref);
    }
    return b;
}

// The verdicts kept for a report whose raw text has expired.
Html keptVerdicts(const std::string &findings) {
    Html b;
    auto j = nlohmann::json::parse(findings, nullptr, false);
    if (j.is_discarded() || !j.contains("verdict_levels") || !j["verdict_levels"].is_array())
        return b;
    std::vector<nlohmann::json> kept;
    for (const auto &v : j["verdict_levels"])
        if (v.is_object())
            kept.push_back(v);
    auto level = [](const nlohmann::json &v) {
        return v.contains("level") && v["level"].is_string() ? v["level"].get<std::string>()
                                                             : std::string();
    };
    std::stable_sort(kept.begin(), kept.end(), [&](const auto &x, const auto &y) {
        return severity(level(x)) < severity(level(y));
    });
    for (const auto &v : kept) {
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

std::vector<std::optional<LogEnds>> logEnds(const kobtriage::Report &r, std::string_view raw) {
    std::vector<std::optional<LogEnds>> out;
    for (const auto &l : r.logs) {
        out.emplace_back();
        if (!shown(l, raw.size()))
            continue;
        std::string_view whole = raw.substr(l.offset, l.size);
        out.back() = ends(whole, whole, l.size);
    }
    return out;
}

std::vector<std::optional<LogEnds>> logEnds(const kobtriage::Report &r, TextReader &reader) {
    // The pieces wanted, by where they start in the text; each log wants
    // one (all of it) or two (its ends).
    struct Piece {
        std::size_t from, to;
        std::string bytes;
    };
    std::vector<std::vector<Piece>> wanted(r.logs.size());
    for (std::size_t i = 0; i < r.logs.size(); i++) {
        const auto &l = r.logs[i];
        if (l.state != kobtriage::ClientLog::State::Present)
            continue;
        if (l.size > 2 * kWindow)
            wanted[i] = {{l.offset, l.offset + kWindow, {}},
                         {l.offset + l.size - kWindow, l.offset + l.size, {}}};
        else
            wanted[i] = {{l.offset, l.offset + l.size, {}}};
    }
    std::vector<char> buf(64 * kKiB);
    std::size_t at = 0;
    for (std::size_t n; (n = reader.read(buf.data(), buf.size())) > 0; at += n)
        for (auto &pieces : wanted)
            for (auto &p : pieces) {
                std::size_t from = std::max(p.from, at), to = std::min(p.to, at + n);
                if (from < to)
                    p.bytes.append(buf.data() + (from - at), to - from);
            }
    std::vector<std::optional<LogEnds>> out(r.logs.size());
    for (std::size_t i = 0; i < r.logs.size(); i++) {
        const auto &pieces = wanted[i];
        if (pieces.empty() || !shown(r.logs[i], at))
            continue;
        std::string_view first = pieces.front().bytes;
        out[i] = ends(first, pieces.size() == 2 ? std::string_view(pieces.back().bytes) : first,
                      r.logs[i].size);
    }
    return out;
}

Html report(const StoredReport &s, const ReportBody &body, bool revealed, const Viewer &v,
            int retainDays) {
    bool admin = v.who && v.who->role == Role::Admin;
    Html b;
    b << "<h2 id=\"reference\">" << text(s.reference) << "</h2>\n";
    if (revealed)
        b << "<p class=\"notice\" id=\"revealed\">Unmasked: this view shows the user's own "
             "addresses. It is in the audit log.</p>\n";
    const kobtriage::Report *r = s.raw_expired ? nullptr : body.triaged;
    b << "<dl class=\"facts\">";
    fact(b, "Received", shownTime(s.received_at));
    fact(b, "User (form)", s.form_username.value_or(""));
    fact(b, "User (report)", r ? r->username.value_or("") : s.report_username.value_or(""));
    if (r) {
        fact(b, "Run started", runTime(r->timestamp.value_or("")));
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
    b << "<a href=\"" << v.links.href("/api/reports/") << uri(s.reference) << "\">JSON (API)</a>";
    std::string user = s.form_username && !s.form_username->empty()
                           ? *s.form_username
                           : s.report_username.value_or("");
    if (!user.empty())
        b << "<a href=\"" << v.links.href("/users/") << uri(user)
          << "\" id=\"timeline\">all reports of " << text(user) << "</a>";
    if (!s.raw_expired)
        b << "<a href=\"" << v.links.href("/reports/") << uri(s.reference) << "/raw\">raw text</a>";
    if (admin && !s.raw_expired && !revealed)
        b << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href("/reports/")
          << uri(s.reference) << "/reveal\">" << csrfField(v)
          << "<button class=\"plain\" type=\"submit\" id=\"reveal\">Reveal addresses</button>"
             "</form>";
    if (admin && revealed)
        b << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href("/reports/")
          << uri(s.reference) << "/raw\">" << csrfField(v)
          << "<button class=\"plain\" type=\"submit\">Download unmasked raw text</button></form>";
    if (admin)
        b << "<form class=\"inline\" method=\"post\" action=\"" << v.links.href("/reports/")
          << uri(s.reference) << "/delete\">" << csrfField(v)
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
    std::string rawHref = v.links.path("/reports/") + html::percentEncode(s.reference) + "/raw";
    b << unknownSections(*r, rawHref);
    // A report of ordinary size is shown whole; of a larger one, what its
    // captures printed and the two ends of each client log.
    if (body.raw && html::headWithin(*body.raw, kInlineRawBytes).size() == body.raw->size()) {
        b << "<h2>Raw report</h2><pre id=\"raw\">" << text(*body.raw) << "</pre>\n";
    } else {
        b << "<h2>Command output</h2>\n" << captureTexts(*r, rawHref);
        b << "<h2>Client log excerpts</h2>\n"
          << logExcerpts(*r, body.raw ? logEnds(*r, *body.raw) : body.ends, rawHref);
        b << "<h2>Raw report</h2>\n";
    }
    b << "<p id=\"whole\"><a href=\"" << text(rawHref) << "\">The whole report as it came</a>, "
      << static_cast<int64_t>(s.size)
      << " bytes, its lines numbered as the evidence gives them.</p>\n";
    return b;
}

} // namespace kobreportd::pages
