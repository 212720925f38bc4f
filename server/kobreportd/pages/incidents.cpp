// Incidents: each with its start, targets, numbers, the networks it is
// concentrated on, its status, and a form to acknowledge it while open.

#include "pages.h"
#include "parts.h"

#include "clock.h"

namespace kobreportd::pages {

using html::Html;
using html::text;

Html incidents(const std::vector<Incident> &list, const Viewer &v) {
    Html b;
    b << "<h2>Incidents</h2>\n";
    if (list.empty()) {
        b << "<p class=\"ok\" id=\"incidents\">None: no targets have failed together far above "
             "their baseline.</p>\n";
        return b;
    }
    b << "<table class=\"incidents\" id=\"incidents\"><thead><tr><th>Started</th>"
         "<th>Targets</th><th>Failing reports</th><th>Users</th><th>Most affected networks</th>"
         "<th>Status</th></tr></thead><tbody>\n";
    for (const auto &i : list) {
        b << "<tr id=\"incident-" << i.id << "\" class=\""
          << text(i.status == "resolved" ? "ok" : "fail") << "\"><td>"
          << text(shownTime(i.started_at, "%Y-%m-%d %H:%M %Z")) << "</td><td>";
        for (size_t k = 0; k < i.targets.size(); k++) {
            if (k)
                b << "<br>";
            b << text(i.targets[k].second) << " (" << text(i.targets[k].first) << ")";
        }
        b << "</td><td class=\"num\">" << i.failing << " of " << i.reports
          << "</td><td class=\"num\">" << i.users << "</td><td>";
        for (size_t k = 0; k < i.networks.size(); k++) {
            const auto &n = i.networks[k];
            if (k)
                b << "<br>";
            b << "AS" << *n.asn << text(n.name.empty() ? "" : " " + n.name) << ": " << n.failing
              << " of " << n.reports;
        }
        b << "</td><td>" << text(i.status);
        if (i.reopened)
            b << " (reopened " << i.reopened << text(i.reopened == 1 ? " time" : " times") << ")";
        if (i.acknowledged_by)
            b << " by " << text(*i.acknowledged_by);
        if (i.resolved_at)
            b << " at " << text(shownTime(*i.resolved_at, "%Y-%m-%d %H:%M %Z"));
        if (i.status == "open")
            b << "<form method=\"post\" action=\"" << v.links.href("/incidents/") << i.id
              << "/acknowledge\">" << csrfField(v)
              << "<button type=\"submit\">Acknowledge</button></form>";
        b << "</td></tr>\n";
    }
    b << "</tbody></table>\n";
    return b;
}

} // namespace kobreportd::pages
