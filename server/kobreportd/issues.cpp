// What makes a report's issue, and the workflow's values.

#include "issues.h"

#include <algorithm>
#include <map>
#include <set>

#include "html.h"
#include "text.h"

namespace kobreportd {

namespace {

using O = kobtriage::ProbeResult::Outcome;

// A failing probe and the report lines that show it.
struct Failed {
    std::string target; // as the fleet names it (outcomesOf)
    std::string shown;  // as the title names it
    std::set<std::size_t> lines;
};

void addLine(std::set<std::size_t> &lines, const kobtriage::SourceLine &l) {
    if (l.number != 0)
        lines.insert(l.number);
}

std::vector<Failed> failedProbes(const kobtriage::Report &r) {
    std::vector<Failed> out;
    bool udpResult = false, udpAnswered = false;
    Failed udp{"UDP pass-through", "UDP pass-through", {}};
    for (const auto &a : r.udp) {
        if (a.result.outcome == O::Missing)
            continue;
        udpResult = true;
        udpAnswered |= a.result.outcome == O::Answered;
        addLine(udp.lines, a.result.heading);
        addLine(udp.lines, a.result.line);
    }
    if (udpResult && !udpAnswered)
        out.push_back(std::move(udp));
    for (const auto &p : r.tcp) {
        if (p.result.outcome == O::Missing || p.result.outcome == O::Answered)
            continue;
        Failed f{p.heading, p.target.empty() ? p.heading : p.target, {}};
        addLine(f.lines, p.result.heading);
        addLine(f.lines, p.result.line);
        out.push_back(std::move(f));
    }
    for (const auto &p : r.intranet) {
        if (p.result.outcome == O::Missing || p.result.outcome == O::Answered)
            continue;
        std::string t = p.address + ":" + std::to_string(p.port);
        Failed f{t, t, {}};
        addLine(f.lines, p.result.heading);
        addLine(f.lines, p.result.line);
        out.push_back(std::move(f));
    }
    if (r.traceroute && !r.traceroute->printed_nothing && !r.traceroute->reached()) {
        std::string t = "traceroute to " + r.traceroute->destination;
        Failed f{t, t, {}};
        for (const auto &h : r.traceroute->hops)
            addLine(f.lines, h.line);
        for (const auto &c : r.captures)
            if (c.command.find("traceroute") != std::string::npos)
                addLine(f.lines, c.heading);
        out.push_back(std::move(f));
    }
    for (auto &f : out) {
        f.target = cleanText(f.target);
        f.shown = cleanText(f.shown);
    }
    return out;
}

} // namespace

IssueKey issueKey(const kobtriage::Report &r) {
    auto failed = failedProbes(r);
    // rule -> the targets it names (target, as shown)
    std::map<std::string, std::map<std::string, std::string>> named;
    for (const auto &v : r.verdicts) {
        if (v.level != kobtriage::Verdict::Level::Fail)
            continue;
        auto &targets = named[cleanText(v.rule)];
        for (const auto &f : failed)
            if (std::any_of(v.evidence.begin(), v.evidence.end(),
                            [&f](const auto &l) { return f.lines.count(l.number) != 0; }))
                targets.emplace(f.target, f.shown);
    }
    IssueKey key;
    for (const auto &[rule, targets] : named) {
        if (targets.empty())
            key.signature += rule + "\t\n";
        for (const auto &t : targets)
            key.signature += rule + "\t" + t.first + "\n";
        std::string shown;
        for (const auto &t : targets)
            shown += (shown.empty() ? "" : ", ") + t.second;
        key.title += (key.title.empty() ? "" : "; ") + rule + (shown.empty() ? "" : ": " + shown);
    }
    return key;
}

bool validStatus(const std::string &s) {
    return s == "new" || s == "open" || s == "resolved" || s == "ignored";
}

bool validTicket(const std::string &t) {
    if (t.empty() || t.size() > 100)
        return false;
    return std::all_of(t.begin(), t.end(),
                       [](unsigned char c) { return c > 0x20 && c != 0x7f && c < 0x80; });
}

bool validNote(const std::string &n) {
    return !n.empty() && n.size() <= 4000;
}

bool validTicketPattern(const std::string &p) {
    return (p.rfind("https://", 0) == 0 || p.rfind("http://", 0) == 0) &&
           p.find("{ticket}") != std::string::npos;
}

std::string ticketLink(const std::string &pattern, const std::string &ticket) {
    if (pattern.empty())
        return "";
    std::string out = pattern;
    std::string enc = html::percentEncode(ticket);
    for (size_t p = 0; (p = out.find("{ticket}", p)) != std::string::npos; p += enc.size())
        out.replace(p, 8, enc);
    return out;
}

std::string issueReference(int64_t id) {
    return "issue:" + std::to_string(id);
}

std::optional<int64_t> parseIssueId(const std::string &s) {
    if (s.empty() || s.size() > 18)
        return std::nullopt;
    int64_t n = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return std::nullopt;
        n = n * 10 + (c - '0');
    }
    if (n < 1)
        return std::nullopt;
    return n;
}

} // namespace kobreportd
