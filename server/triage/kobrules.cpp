// The rule table and the rules.  Each rule reads the parsed report and
// gives at most a few verdicts; the evidence is the lines the parser kept
// with each finding, so a support engineer can check a verdict against the
// report itself.

#include "kobrules.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "kobrun.h"

namespace kobtriage {

namespace {

using L = Verdict::Level;
using O = ProbeResult::Outcome;
using Lines = std::vector<SourceLine>;

// One decimal, or three below a millisecond, where loopback times live.
std::string fmt1(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, v < 1.0 && v > -1.0 ? "%.3f" : "%.1f", v);
    return buf;
}

// A route table of a few hundred lines is evidence enough in its first
// lines; the rest is on the report page.
constexpr std::size_t kCaptureEvidenceMax = 12;

void put(Lines &out, const SourceLine &l) {
    if (l.number != 0)
        out.push_back(l);
}

// What a probe's outcome rests on: its result line, or its heading when it
// printed none.
void putProbe(Lines &out, const ProbeResult &r) {
    put(out, r.line.number != 0 ? r.line : r.heading);
}

Lines sorted(Lines l) {
    std::stable_sort(l.begin(), l.end(),
                     [](const SourceLine &a, const SourceLine &b) { return a.number < b.number; });
    return l;
}

kobrun::Role roleOf(const TcpProbe &p) {
    for (const auto &k : kobrun::kTcpProbes)
        if (p.heading == k.heading)
            return k.role;
    return kobrun::Role::None;
}

bool answered(const ProbeResult &r) {
    return r.outcome == O::Answered;
}

bool udpAllLost(const Report &r) {
    return !r.udp.empty() &&
           std::none_of(r.udp.begin(), r.udp.end(), [](auto &a) { return answered(a.result); });
}

bool tcpAllLost(const Report &r) {
    return !r.tcp.empty() &&
           std::none_of(r.tcp.begin(), r.tcp.end(), [](auto &p) { return answered(p.result); });
}

bool intranetAllLost(const Report &r) {
    return !r.intranet.empty() && std::none_of(r.intranet.begin(), r.intranet.end(),
                                               [](auto &p) { return answered(p.result); });
}

// The capture's lines, numbered, each line without its line feed.
Lines captureLines(const Capture &c, std::size_t max) {
    Lines out;
    std::size_t i = 0, n = c.first_line;
    while (i < c.text.size() && out.size() < max) {
        auto nl = c.text.find('\n', i);
        std::string_view line(c.text.data() + i,
                              (nl == std::string::npos ? c.text.size() : nl) - i);
        out.push_back({n++, std::string(line.substr(0, 400))});
        i = nl == std::string::npos ? c.text.size() : nl + 1;
    }
    return out;
}

const Capture *routeTable(const Report &r) {
    for (const auto &c : r.captures)
        if (c.command.find("netstat -rn") != std::string::npos)
            return &c;
    return nullptr;
}

// A default route in either family, as netstat prints it on the platforms
// the client runs on: "default", "0.0.0.0" or "0/0", "::/0".
bool hasDefaultRoute(const Capture &c) {
    std::size_t i = 0;
    while (i < c.text.size()) {
        auto nl = c.text.find('\n', i);
        std::string_view line(c.text.data() + i,
                              (nl == std::string::npos ? c.text.size() : nl) - i);
        i = nl == std::string::npos ? c.text.size() : nl + 1;
        auto b = line.find_first_not_of(" \t");
        if (b == std::string_view::npos)
            continue;
        auto word = line.substr(b, line.find_first_of(" \t", b) - b);
        if (word == "default" || word == "0.0.0.0" || word == "0.0.0.0/0" || word == "0/0" ||
            word == "::/0")
            return true;
    }
    return false;
}

// --- the rules -----------------------------------------------------------

void reportUnrecognised(const Report &r, Judge &j) {
    if (r.recognised)
        return;
    j.add("not a kobdiag report (nothing recognised; kept as text)");
    j.stop();
}

void reportIncomplete(const Report &r, Judge &j) {
    if (r.missing.empty())
        return;
    std::string s = "report incomplete: missing ";
    for (std::size_t k = 0; k < r.missing.size(); k++)
        s += (k ? ", " : "") + r.missing[k];
    j.add(s);
}

void headerNoUsername(const Report &r, Judge &j) {
    if (r.timestamp && !r.username)
        j.add("no username given");
}

// A machine without a default route fails every public probe; listing
// each of them as its own failure hides the one cause.
void netNone(const Report &r, Judge &j) {
    const Capture *routes = routeTable(r);
    if (!routes || routes->empty() || hasDefaultRoute(*routes) || !udpAllLost(r) || !tcpAllLost(r))
        return;
    Lines ev;
    put(ev, routes->heading);
    for (auto &l : captureLines(*routes, kCaptureEvidenceMax))
        ev.push_back(std::move(l));
    for (const auto &a : r.udp)
        putProbe(ev, a.result);
    for (const auto &p : r.tcp)
        putProbe(ev, p.result);
    j.add("no network at all: no public target answered and `netstat -rn' shows no default route",
          sorted(std::move(ev)));
    j.claim("udp");
    j.claim("tcp");
    j.claim("traceroute");
    if (intranetAllLost(r))
        j.claim("intranet");
}

// UDP unanswered while the same server also refuses TCP, with the other
// servers answering, is that server or the path to it, not a UDP block.
void udpServerDown(const Report &r, Judge &j) {
    if (!udpAllLost(r))
        return;
    Lines ev;
    int own = 0, others = 0;
    for (const auto &p : r.tcp) {
        bool passThrough = roleOf(p) == kobrun::Role::PassThrough;
        if (passThrough && answered(p.result))
            return;
        if (passThrough) {
            own++;
            putProbe(ev, p.result);
        } else if (answered(p.result)) {
            others++;
        }
    }
    if (own == 0 || others == 0)
        return;
    for (const auto &a : r.udp)
        putProbe(ev, a.result);
    j.add("pass-through server unreachable: UDP unanswered and TCP to the same server failing "
          "while other servers answer (not a UDP block)",
          sorted(std::move(ev)));
    j.claim("udp");
}

Lines udpLines(const Report &r) {
    Lines ev;
    for (const auto &a : r.udp)
        putProbe(ev, a.result);
    return ev;
}

void udpWorks(const Report &r, Judge &j) {
    auto u = r.udpSummary();
    if (u.attempts == 0 || u.answered != u.attempts)
        return;
    std::string of = std::to_string(u.attempts);
    j.add("UDP pass-through works (" + of + "/" + of + " answered, avg " + fmt1(*u.avg_ms) + " ms)",
          udpLines(r));
}

void udpBlocked(const Report &r, Judge &j) {
    auto u = r.udpSummary();
    if (u.attempts == 0 || u.answered != 0)
        return;
    std::string of = std::to_string(u.attempts);
    if (u.errors == 0)
        j.add("UDP pass-through blocked (" + of + "/" + of + " timeouts)", udpLines(r));
    else
        j.add("UDP pass-through blocked (" + of + "/" + of +
                  " lost: " + std::to_string(u.timeouts) + " timeouts, " +
                  std::to_string(u.errors) + " errors, " +
                  std::to_string(u.attempts - u.timeouts - u.errors) + " without result)",
              udpLines(r));
}

void udpLossy(const Report &r, Judge &j) {
    auto u = r.udpSummary();
    if (u.answered == 0 || u.answered == u.attempts)
        return;
    j.add("UDP pass-through lossy (" + fmt1(u.loss_percent) + "% loss, " +
              std::to_string(u.attempts - u.answered) + "/" + std::to_string(u.attempts) + " lost)",
          udpLines(r));
}

std::string tcpWhat(const TcpProbe &p) {
    return "TCP " + (p.result.port ? std::to_string(p.result.port) : "?") + " to " + p.target;
}

Lines probeLines(const ProbeResult &r) {
    Lines ev;
    put(ev, r.heading);
    put(ev, r.line);
    return ev;
}

void tcpUnanswered(const Report &r, Judge &j) {
    for (const auto &p : r.tcp)
        if (p.result.outcome == O::Timeout)
            j.add(tcpWhat(p) + " unanswered within " + std::to_string(p.limit_s) + " s",
                  probeLines(p.result));
}

void tcpFailed(const Report &r, Judge &j) {
    for (const auto &p : r.tcp)
        if (p.result.outcome == O::Error)
            j.add(tcpWhat(p) + " failed at once (" + std::to_string(p.result.err) + " " +
                      p.result.error_text + ")",
                  probeLines(p.result));
}

void tcpNoResult(const Report &r, Judge &j) {
    for (const auto &p : r.tcp)
        if (p.result.outcome == O::Missing)
            j.add(tcpWhat(p) + ": no result printed", probeLines(p.result));
}

void tcpAllAnswered(const Report &r, Judge &j) {
    if (r.tcp.empty() ||
        !std::all_of(r.tcp.begin(), r.tcp.end(), [](auto &p) { return answered(p.result); }))
        return;
    Lines ev;
    for (const auto &p : r.tcp)
        put(ev, p.result.line);
    j.add("TCP answered on all " + std::to_string(r.tcp.size()) + " probes (a refusal counts)",
          std::move(ev));
}

Lines hopLines(const Traceroute &t, const Capture *c) {
    Lines ev;
    if (c)
        put(ev, c->heading);
    for (const auto &h : t.hops)
        put(ev, h.line);
    return ev;
}

const Capture *traceCapture(const Report &r) {
    for (const auto &c : r.captures)
        if (c.command.find("traceroute") != std::string::npos)
            return &c;
    return nullptr;
}

void tracerouteEmpty(const Report &r, Judge &j) {
    if (r.traceroute && r.traceroute->printed_nothing) {
        Lines ev;
        if (const Capture *c = traceCapture(r))
            put(ev, c->heading);
        j.add("traceroute printed nothing", std::move(ev));
    }
}

void tracerouteReached(const Report &r, Judge &j) {
    if (!r.traceroute || r.traceroute->printed_nothing || !r.traceroute->reached())
        return;
    const auto &t = *r.traceroute;
    Lines ev;
    if (const Capture *c = traceCapture(r))
        put(ev, c->heading);
    for (const auto &h : t.hops)
        if (std::find(h.addresses.begin(), h.addresses.end(), t.destination) != h.addresses.end())
            put(ev, h.line);
    j.add("traceroute reached " + t.destination + " in " + std::to_string(t.hops.back().number) +
              (t.hops.back().number == 1 ? " hop" : " hops"),
          std::move(ev));
}

void tracerouteNone(const Report &r, Judge &j) {
    if (!r.traceroute || r.traceroute->printed_nothing || r.traceroute->reached() ||
        r.traceroute->lastAnswered())
        return;
    j.add("traceroute: no hop answered", hopLines(*r.traceroute, traceCapture(r)));
}

void tracerouteStopped(const Report &r, Judge &j) {
    if (!r.traceroute || r.traceroute->printed_nothing || r.traceroute->reached())
        return;
    const auto &t = *r.traceroute;
    const Hop *last = t.lastAnswered();
    if (!last)
        return;
    // The last hop that answered and the silent ones after it.
    Lines ev;
    if (const Capture *c = traceCapture(r))
        put(ev, c->heading);
    for (const auto &h : t.hops)
        if (h.number >= last->number)
            put(ev, h.line);
    j.add("traceroute stopped at hop " + std::to_string(last->number) + " (last reply from " +
              last->addresses.back() + ")",
          std::move(ev));
}

void capturesPopen(const Report &r, Judge &j) {
    if (r.popen_errors > 0)
        j.add(std::to_string(r.popen_errors) + " command(s) could not be started (_popen() error)",
              r.popen_lines);
}

void capturesEmpty(const Report &r, Judge &j) {
    for (const auto &c : r.captures)
        if (c.empty() && c.command.find("traceroute") == std::string::npos)
            j.add("capture of `" + c.command + "' is empty", Lines{c.heading});
}

int intranetAnswered(const Report &r) {
    return static_cast<int>(std::count_if(r.intranet.begin(), r.intranet.end(),
                                          [](auto &p) { return answered(p.result); }));
}

Lines intranetLines(const Report &r) {
    Lines ev;
    for (const auto &p : r.intranet)
        putProbe(ev, p.result);
    return ev;
}

std::string intranetFraction(const Report &r) {
    return std::to_string(intranetAnswered(r)) + "/" + std::to_string(r.intranet.size()) + ")";
}

void intranetUnreachable(const Report &r, Judge &j) {
    if (!r.intranet.empty() && intranetAnswered(r) == 0)
        j.add("intranet unreachable (" + intranetFraction(r), intranetLines(r));
}

void intranetPartial(const Report &r, Judge &j) {
    int n = intranetAnswered(r);
    if (n > 0 && n < static_cast<int>(r.intranet.size()))
        j.add("intranet partly reachable (" + intranetFraction(r), intranetLines(r));
}

void intranetReachable(const Report &r, Judge &j) {
    if (!r.intranet.empty() && intranetAnswered(r) == static_cast<int>(r.intranet.size()))
        j.add("intranet reachable (" + intranetFraction(r), intranetLines(r));
}

void logsMissing(const Report &r, Judge &j) {
    std::string files;
    Lines ev;
    for (const auto &l : r.logs) {
        if (l.state != ClientLog::State::Missing)
            continue;
        files += (files.empty() ? "" : ", ") + l.file;
        put(ev, l.label);
    }
    if (!files.empty())
        j.add("client logs missing: " + files, std::move(ev));
}

void logsCut(const Report &r, Judge &j) {
    std::string files;
    Lines ev;
    for (const auto &l : r.logs) {
        if (l.state == ClientLog::State::NotShown)
            files += (files.empty() ? "" : ", ") + l.file;
        else
            put(ev, l.label); // where the dump was still whole
    }
    if (!files.empty())
        j.add("client logs not shown (dump cut short): " + files, std::move(ev));
}

void reportUnknownSections(const Report &r, Judge &j) {
    if (!r.unknown.empty())
        j.add(std::to_string(r.unknown.size()) + " section(s) not understood (kept as text)");
}

// The table.  Verdicts are listed in this order; a trap stands before the
// rules whose failures it explains.
constexpr std::array kRules = {
    Rule{"report.unrecognised", "Not a kobdiag report", 1, L::Fail, "report", "the whole text",
         "Nothing in the text is part of a kobdiag report; it is kept as text.",
         "Ask the user to send the report again from kobdiag itself, without editing the text or "
         "pasting it elsewhere first.",
         reportUnrecognised},
    Rule{"report.incomplete", "Report incomplete", 1, L::Warn, "report", "the run's sections",
         "Sections of a whole run are absent: the run was cut short or the report was edited.",
         "Ask the user to run kobdiag again and leave its window open until it says it has "
         "finished.",
         reportIncomplete},
    Rule{"header.no-username", "No user name", 1, L::Info, "header", "the header lines",
         "The user started kobdiag without -u, so the report names no account.",
         "Ask the user to run kobdiag again with -u and their account name, so that the report is "
         "linked to them.",
         headerNoUsername},
    Rule{"net.none", "No network at all", 1, L::Fail, "net",
         "`netstat -rn', the UDP and TCP probes",
         "No public server answered any probe and the route table has no default route: the "
         "machine had no network at all. The probes' own failures follow from this and are not "
         "listed again.",
         "Ask the user to check that the machine is connected (cable or Wi-Fi) and can open any "
         "web site, then run kobdiag again.",
         netNone},
    Rule{"udp.server-down", "Pass-through server unreachable", 1, L::Fail, "udp",
         "the UDP attempts, the TCP probes",
         "UDP got no answer, but TCP to the same pass-through server failed too while the other "
         "servers answered: the server or the path to it is down; UDP itself is not shown to be "
         "blocked.",
         "Nothing for the user to change: tell them the server is being looked at, and pass this "
         "report's reference to operations.",
         udpServerDown},
    Rule{"udp.works", "UDP works", 1, L::Ok, "udp", "the UDP attempts",
         "Every UDP echo came back: UDP passes to the pass-through server.",
         "Nothing to ask about UDP.", udpWorks},
    Rule{"udp.blocked", "UDP blocked", 1, L::Fail, "udp", "the UDP attempts",
         "No UDP echo came back: something on the way drops UDP. When TCP to the same server "
         "fails too, see udp.server-down and net.none, which take this verdict's place.",
         "Ask the user to switch the VPN protocol to TCP in the client's settings: the network "
         "they are on (often a company's or a hotel's) drops UDP.",
         udpBlocked},
    Rule{"udp.lossy", "UDP lossy", 1, L::Warn, "udp", "the UDP attempts",
         "Some UDP echoes were lost: the path passes UDP but loses packets.",
         "Ask the user whether they are on Wi-Fi or a mobile link; a cable, a stronger signal or "
         "the VPN protocol switched to TCP usually helps.",
         udpLossy},
    Rule{"tcp.unanswered", "TCP probe unanswered", 1, L::Fail, "tcp", "the TCP probes",
         "A TCP connect got no answer within its limit: the server or a filter on the way is "
         "silent.",
         "Ask the user whether a firewall, antivirus or company proxy filters outgoing "
         "connections, and to try once from another network, such as a phone's hotspot.",
         tcpUnanswered},
    Rule{"tcp.failed", "TCP connect failed", 1, L::Fail, "tcp", "the TCP probes",
         "A TCP connect failed at once with an error from the user's own system (for example no "
         "route).",
         "Ask the user to disconnect any other VPN and check their network settings: their own "
         "system refused the connection.",
         tcpFailed},
    Rule{"tcp.no-result", "TCP probe without result", 1, L::Warn, "tcp", "the TCP probes",
         "A TCP probe printed its heading but no result: the run was cut there.",
         "Ask the user to run kobdiag again and let it finish.", tcpNoResult},
    Rule{"tcp.all-answered", "TCP answered", 1, L::Ok, "tcp", "the TCP probes",
         "Every TCP probe was answered; a refused connection counts, as it proves the path.",
         "Nothing to ask about TCP.", tcpAllAnswered},
    Rule{"traceroute.empty", "Traceroute printed nothing", 1, L::Warn, "traceroute",
         "the traceroute capture", "traceroute printed nothing: it could not run or was stopped.",
         "Nothing to ask of the user; the other probes tell where the problem is.",
         tracerouteEmpty},
    Rule{"traceroute.reached", "Traceroute reached", 1, L::Ok, "traceroute",
         "the traceroute capture", "The traceroute reached its destination.",
         "Nothing to ask about the path.", tracerouteReached},
    Rule{"traceroute.none", "Traceroute: no hop answered", 1, L::Fail, "traceroute",
         "the traceroute capture", "Not even the first hop answered the traceroute.",
         "Ask the user to check that the machine is connected and that no firewall on it blocks "
         "outgoing traffic.",
         tracerouteNone},
    Rule{"traceroute.stopped", "Traceroute stopped short", 1, L::Warn, "traceroute",
         "the traceroute capture",
         "The traceroute ended before its destination; the last hop that answered is where to "
         "look.",
         "Nothing for the user to do; pass the last hop that answered to operations.",
         tracerouteStopped},
    Rule{"captures.popen", "Command could not start", 1, L::Warn, "captures",
         "the network status captures",
         "A command could not be started on the user's machine, so its capture is missing.",
         "Ask the user to run kobdiag again from an account with administrator rights.",
         capturesPopen},
    Rule{"captures.empty", "Empty capture", 1, L::Info, "captures", "the network status captures",
         "A command ran but printed nothing.", "Nothing to ask of the user.", capturesEmpty},
    Rule{"intranet.unreachable", "Intranet unreachable", 1, L::Fail, "intranet",
         "the intranet probes", "No intranet gateway answered: the tunnel is down or not routed.",
         "Ask the user whether the client shows itself connected; if it does, ask them to "
         "disconnect, connect again and run kobdiag while connected.",
         intranetUnreachable},
    Rule{"intranet.partial", "Intranet partly reachable", 1, L::Warn, "intranet",
         "the intranet probes", "Some intranet gateways answered and some did not.",
         "Tell the user which services may be out of reach; nothing for them to change. Pass the "
         "gateways that did not answer to operations.",
         intranetPartial},
    Rule{"intranet.reachable", "Intranet reachable", 1, L::Ok, "intranet", "the intranet probes",
         "Every intranet gateway answered.", "Nothing to ask about the intranet.",
         intranetReachable},
    Rule{"logs.missing", "Client logs missing", 1, L::Info, "logs", "the client log dumps",
         "A client program's log file does not exist on the user's machine.",
         "Ask the user whether the client has been installed and started on this machine: its logs "
         "exist once it has run.",
         logsMissing},
    Rule{"logs.cut", "Client logs cut short", 1, L::Warn, "logs", "the client log dumps",
         "The log dump ended early (a zero byte or a cut upload), so these logs are not shown.",
         "Ask the user to send the report again; if it is cut again, ask for the client's log "
         "files themselves.",
         logsCut},
    Rule{"report.unknown-sections", "Sections not understood", 1, L::Info, "report",
         "the whole text",
         "Parts of the text were not understood; they are kept as text on the report page.",
         "Nothing to ask of the user.", reportUnknownSections},
};

constexpr int maxVersion() {
    int v = 0;
    for (const auto &r : kRules)
        v = std::max(v, r.version);
    return v;
}

constexpr bool idsUnique() {
    for (std::size_t a = 0; a < kRules.size(); a++)
        for (std::size_t b = a + 1; b < kRules.size(); b++)
            if (kRules[a].id == kRules[b].id)
                return false;
    return true;
}
static_assert(idsUnique(), "two rules share an id");

} // namespace

void Judge::add(std::string text, std::vector<SourceLine> evidence) {
    const Rule &r = *rule_;
    bool problem = r.level == Verdict::Level::Fail || r.level == Verdict::Level::Warn;
    if (problem && std::find(claimed_.begin(), claimed_.end(), r.area) != claimed_.end())
        return;
    report_.verdicts.push_back(
        {r.level, std::string(r.area), std::move(text), std::string(r.id), std::move(evidence)});
}

std::span<const Rule> rules() {
    return kRules;
}

int rulesVersion() {
    return maxVersion();
}

const Rule *findRule(std::string_view id) {
    for (const auto &r : kRules)
        if (r.id == id)
            return &r;
    return nullptr;
}

void applyRules(Report &report) {
    report.verdicts.clear();
    report.rules_version = maxVersion();
    Judge judge(report);
    for (const auto &rule : kRules) {
        judge.begin(rule);
        rule.judge(report, judge);
        if (judge.stopped())
            break;
    }
}

} // namespace kobtriage
