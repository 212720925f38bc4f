// Two reports side by side, and what changed between them.

#include "pages.h"

#include <algorithm>

namespace kobreportd::pages {

using html::Html;
using html::text;
using html::uri;

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

Html compare(const CompareSide &a, const CompareSide &b, const Links &links) {
    Html h;
    h << "<h2>Comparing <a href=\"" << links.href("/reports/") << uri(a.report->reference) << "\">"
      << text(a.report->reference) << "</a> (A, " << text(shownTime(a.report->received_at))
      << ") with <a href=\"" << links.href("/reports/") << uri(b.report->reference) << "\">"
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

} // namespace kobreportd::pages
