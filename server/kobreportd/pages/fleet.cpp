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
    return shownTime(t, seconds < 86400 ? "%Y-%m-%d %H:%M %Z" : "%Y-%m-%d %Z");
}

Html failingLink(const FleetTarget &t, const char *window, const Links &links) {
    Html h;
    h << "<a href=\"" << links.href("/fleet/reports") << "?area=" << uri(t.area)
      << "&amp;target=" << uri(t.target) << "&amp;window=" << text(window) << "\">";
    return h;
}

// The failing share per bucket as bars, read without hovering: a share
// axis (0, 50, 100%), a time axis in the viewer's zone under it, each bar's failing count
// of its reports written above it where there is room, and a second row
// whose grey bars show each bucket's volume against the busiest one, so
// that 1 of 1 does not look like 12 of 14.  Plain SVG attributes only, so
// the page's policy forbids nothing it needs.
Html chart(const FleetTarget &t, std::time_t bucketSeconds) {
    constexpr int kLeft = 34, kWidth = 480, kShare = 48, kTop = 10, kGap = 4, kVolume = 16,
                  kAxis = 12;
    size_t n = t.buckets.size();
    int bar = n ? std::max(1, kWidth / static_cast<int>(n)) : kWidth;
    int plotWidth = bar * static_cast<int>(n);
    int base = kTop + kShare, volumeBase = base + kGap + kVolume;
    int64_t busiest = 1;
    for (const auto &b : t.buckets)
        busiest = std::max(busiest, b.reports);
    Html h;
    h << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kLeft + plotWidth + 4
      << "\" height=\"" << volumeBase + kAxis + 2 << "\" role=\"img\" aria-label=\""
      << text("failing share and reports per " +
              std::string(bucketSeconds < 86400 ? "hour" : "day") + ", " + shownZoneName())
      << "\" font-size=\"9\" font-family=\"sans-serif\">";
    // The share axis.
    for (int pct : {0, 50, 100}) {
        int y = base - kShare * pct / 100;
        h << "<text x=\"" << kLeft - 3 << "\" y=\"" << y + 3 << "\" text-anchor=\"end\">" << pct
          << "%</text><line x1=\"" << kLeft << "\" y1=\"" << y << "\" x2=\"" << kLeft + plotWidth
          << "\" y2=\"" << y << "\" stroke=\"" << text(pct ? "#eceff3" : "#c4cad3") << "\"/>";
    }
    h << "<text x=\"" << kLeft - 3 << "\" y=\"" << volumeBase << "\" text-anchor=\"end\">"
      << busiest << "</text>";
    for (size_t i = 0; i < n; i++) {
        const auto &b = t.buckets[i];
        int x = kLeft + static_cast<int>(i) * bar;
        if (!b.reports)
            continue;
        int hgt = static_cast<int>(kShare * b.failing / b.reports);
        if (hgt < 2)
            hgt = 2;
        h << "<rect x=\"" << x << "\" y=\"" << base - hgt << "\" width=\"" << std::max(1, bar - 1)
          << "\" height=\"" << hgt << "\" fill=\"" << text(b.failing ? "#b3261e" : "#c4cad3")
          << "\"><title>" << text(bucketLabel(b.start, bucketSeconds)) << ": " << b.failing
          << " of " << b.reports << " failing</title></rect>";
        if (bar >= 16)
            h << "<text x=\"" << x + bar / 2 << "\" y=\"" << base - hgt - 2
              << "\" text-anchor=\"middle\">" << b.failing << "/" << b.reports << "</text>";
        int vol = std::max<int>(1, static_cast<int>(kVolume * b.reports / busiest));
        h << "<rect x=\"" << x << "\" y=\"" << volumeBase - vol << "\" width=\""
          << std::max(1, bar - 1) << "\" height=\"" << vol << "\" fill=\"#8a94a3\"/>";
    }
    // The time axis: the first bucket, the middle one and the last.
    std::set<size_t> marks;
    if (n) {
        marks = {0, n / 2, n - 1};
    }
    for (size_t i : marks) {
        const char *anchor = i == 0 ? "start" : i == n - 1 ? "end" : "middle";
        int x = kLeft + static_cast<int>(i) * bar + (i == 0 ? 0 : i == n - 1 ? bar : bar / 2);
        h << "<text x=\"" << x << "\" y=\"" << volumeBase + kAxis << "\" text-anchor=\""
          << text(anchor) << "\">"
          << text(shownTime(t.buckets[i].start, bucketSeconds < 86400 ? "%m-%d %H:%M" : "%m-%d"))
          << "</text>";
    }
    h << "</svg>";
    return h;
}

// The chart's numbers as text, for whoever cannot see it.
Html numbers(const FleetTarget &t, std::time_t bucketSeconds) {
    Html h;
    h << "<details><summary>Numbers</summary><ul>";
    for (const auto &b : t.buckets)
        if (b.reports)
            h << "<li>" << text(bucketLabel(b.start, bucketSeconds)) << ": " << b.failing << " of "
              << b.reports << " failing (" << text(percent(b.failing, b.reports)) << ")</li>";
    h << "</ul></details>";
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
           const std::vector<Incident> &current, bool refreshing) {
    Html b;
    b << "<h2>The fleet</h2><nav class=\"windows\" aria-label=\"Time window\">";
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
    b << "</nav>\n<p class=\"refresh\" id=\"refresh\">";
    b << text(refreshing ? "This page reloads itself every minute. " : "") << "<a href=\""
      << links.href("/fleet") << "?window=" << text(f.window);
    if (!by.empty())
        b << "&amp;by=" << text(by);
    if (refreshing)
        b << "\">Stop reloading</a>";
    else
        b << "&amp;refresh=on\">Reload every minute</a>";
    b << "</p>\n<h2>What is broken now</h2>\n";
    Html broken;
    // The incidents first; then broken targets that no check has put in one
    // yet.
    std::set<std::pair<std::string, std::string>> inIncident;
    for (const auto &i : current) {
        broken << "<li class=\"fail\" id=\"incident-" << i.id << "\"><a href=\""
               << links.href("/incidents") << "\">" << text(i.summary(shownZoneName())) << "</a> ("
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
      << text(f.bucket_seconds < 86400 ? "hour" : "day") << ", " << text(shownZoneName())
      << ")</h2>\n"
      << "<table class=\"fleet\" id=\"fleet\"><thead><tr><th>Area</th><th>Target</th>"
         "<th>Reports</th><th>Failing</th><th>Failing share</th></tr></thead><tbody>\n";
    // Worst first: by failing share over the window, then by failures.
    std::vector<const FleetTarget *> rows;
    for (const auto &t : f.targets)
        if (t.reports)
            rows.push_back(&t);
    std::stable_sort(rows.begin(), rows.end(), [](const FleetTarget *a, const FleetTarget *b) {
        // a.failing / a.reports > b.failing / b.reports, without division.
        int64_t l = a->failing * b->reports, r = b->failing * a->reports;
        return l != r ? l > r : a->failing > b->failing;
    });
    for (const FleetTarget *row : rows) {
        const FleetTarget &t = *row;
        b << "<tr><td>" << text(t.area) << "</td><td>" << text(t.target)
          << "</td><td class=\"num\">" << t.reports << "</td><td class=\"num\">";
        if (t.failing)
            b << failingLink(t, f.window.c_str(), links) << t.failing << "</a>";
        else
            b << "0";
        b << "</td><td>" << chart(t, f.bucket_seconds) << numbers(t, f.bucket_seconds)
          << "</td></tr>\n";
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
