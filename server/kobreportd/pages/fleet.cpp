// The fleet: every target's failing share over time, what is broken now,
// and the reports behind a bar.

#include "pages.h"

#include <cstdio>
#include <set>

#include "clock.h"

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

namespace {

std::string percent(int64_t part, int64_t whole) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.0f%%",
                  whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0);
    return buf;
}

std::string bucketLabel(std::time_t t, std::time_t seconds) {
    return utcTime(t, seconds < 86400 ? "%Y-%m-%d %H:00" : "%Y-%m-%d");
}

Html failingLink(const FleetTarget &t, const char *window, const Links &links) {
    Html h;
    h << "<a href=\"" << links.href("/fleet/reports") << "?area=" << uri(t.area)
      << "&amp;target=" << uri(t.target) << "&amp;window=" << text(window) << "\">";
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

// A share's network as staff read it: "AS64500 Example Telecom", a country
// code, or "unknown" for reports of no known network.
std::string shareName(const FleetShare &n, const std::string &by) {
    if (by == "asn")
        return n.asn ? "AS" + std::to_string(*n.asn) + (n.name.empty() ? "" : " " + n.name)
                     : "unknown";
    return n.name.empty() ? "unknown" : n.name;
}

// Each failing target's reports by network or country, most failing first.
Html breakdown(const Fleet &f, const std::string &by) {
    Html b;
    b << "<h2>Failing by " << text(by == "asn" ? "network" : "country") << ", last "
      << text(f.window) << "</h2>\n<table class=\"fleet\" id=\"by\"><thead><tr><th>Target</th>"
      << "<th>" << text(by == "asn" ? "Network" : "Country")
      << "</th><th>Reports</th><th>Failing</th><th>Failing share</th></tr></thead><tbody>\n";
    for (const auto &t : f.targets) {
        if (!t.failing)
            continue;
        for (const auto &n : t.shares)
            b << "<tr><td>" << text(t.target) << "</td><td>" << text(shareName(n, by))
              << "</td><td class=\"num\">" << n.reports << "</td><td class=\"num\">" << n.failing
              << "</td><td class=\"num\">" << text(percent(n.failing, n.reports)) << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

} // namespace

Html fleet(const Fleet &f, const Links &links, const std::string &by,
           const std::vector<Incident> &current) {
    Html b;
    b << "<h2>The fleet</h2><nav class=\"windows\">";
    for (const char *w : {"6h", "24h", "7d", "30d"}) {
        b << "<a href=\"" << links.href("/fleet") << "?window=" << text(w) << "\"";
        if (f.window == w)
            b << " class=\"current\"";
        b << ">last " << text(w) << "</a>";
    }
    for (const char *k : {"asn", "country"}) {
        b << "<a href=\"" << links.href("/fleet") << "?window=" << text(f.window)
          << "&amp;by=" << text(k) << "\"";
        if (by == k)
            b << " class=\"current\"";
        b << ">by " << text(std::string(k) == "asn" ? "network" : "country") << "</a>";
    }
    b << "</nav>\n<h2>What is broken now</h2>\n";
    Html broken;
    // The incidents first; then broken targets that no check has put in one
    // yet.
    std::set<std::pair<std::string, std::string>> inIncident;
    for (const auto &i : current) {
        broken << "<li class=\"fail\" id=\"incident-" << i.id << "\"><a href=\""
               << links.href("/incidents") << "\">" << text(i.summary()) << "</a> ("
               << text(i.status) << ")</li>\n";
        inIncident.insert(i.targets.begin(), i.targets.end());
    }
    for (const auto &t : f.targets)
        if (t.broken && !inIncident.count({t.area, t.target}))
            broken << "<li class=\"fail\">" << failingLink(t, "6h", links) << text(t.target)
                   << "</a> (" << text(t.area) << "): " << t.hour_failing << " of "
                   << t.hour_reports << " reports failing in the last hour ("
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
            b << failingLink(t, f.window.c_str(), links) << t.failing << "</a>";
        else
            b << "0";
        b << "</td><td>" << chart(t, f.bucket_seconds) << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    if (!by.empty())
        b << breakdown(f, by);
    return b;
}

Html failing(const std::string &area, const std::string &target,
             const std::vector<std::string> &references, const Links &links) {
    Html b;
    b << "<h2>Reports that found " << text(target) << " (" << text(area) << ") failing</h2>\n"
      << "<ul id=\"failing\">";
    for (const auto &r : references)
        b << "<li><a href=\"" << links.href("/reports/") << uri(r) << "\">" << text(r)
          << "</a></li>";
    b << "</ul>\n";
    return b;
}

} // namespace kobreportd::pages
