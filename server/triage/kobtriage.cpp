// The report is read in three regions, because their contents differ in how
// far they can be trusted to keep to lines:
//   - the probes and captures, one heading line "==> ..." and the lines under
//     it, read line by line;
//   - the client logs, whose text is copied verbatim and may run into the
//     next label without a line feed, read by searching for the labels;
//   - the upload countdown at the very end.

#include "kobtriage.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <functional>
#include <cstdio>
#include <cstring>

#include "kobrules.h"
#include "kobrun.h"
#include "probes.h"
#include "scan.h"

namespace kobtriage {

namespace {

using namespace scan;

constexpr sv kHeading = "==> ";
constexpr sv kTailHeading =
    "==> All tests had done now and will send the report to KOBVANE\n    server after ";
constexpr sv kCountdownPrefix = "==> Press CTRL-c if you want aborting this operation within ";

struct LogProgram {
    sv heading;
    sv name;
};
constexpr std::array<LogProgram, 3> kLogPrograms = {{
    {"==> Dumping KOBVANE log files\n", "kobvane"},
    {"==> Dumping KOBRUN log files\n", "kobrun"},
    {"==> Dumping KOBFLOW log files\n", "kobflow"},
}};

// The run's probes, ports and limits come from the run's table.
using kobrun::Role;
using KnownTcp = kobrun::TcpProbe;
constexpr const auto &kKnownTcp = kobrun::kTcpProbes;
constexpr int kPublicLimit = kobrun::kPublicLimitSeconds;
constexpr int kIntranetLimit = kobrun::kIntranetLimitSeconds;
constexpr int kUdpAttempts = kobrun::kUdpAttempts;
constexpr int kIntranetProbes = kobrun::kIntranetProbes;
constexpr int kStatusCaptures = kobrun::kStatusCaptures;

enum class Kind {
    Unknown,
    Timestamp,
    Username,
    Version,
    Os,
    Capture,
    Udp,
    Tcp,
    TraceHeading,
    Mtu,
    Intranet
};

struct Heading {
    Kind kind = Kind::Unknown;
    sv value;       // header value, capture command, intranet address
    int number = 0; // UDP attempt, intranet port
    const KnownTcp *tcp = nullptr;
};

Heading classify(sv h) {
    Heading r;
    auto after = [&](sv p, sv &v) {
        if (!startsWith(h, p))
            return false;
        v = h.substr(p.size());
        return true;
    };
    sv v;
    if (after("Timestamp: ", v)) {
        r.kind = Kind::Timestamp;
        r.value = v;
    } else if (after("Username: ", v)) {
        r.kind = Kind::Username;
        r.value = v;
    } else if (after("Package Version: ", v)) {
        r.kind = Kind::Version;
        r.value = v;
    } else if (after("OS Version: ", v)) {
        r.kind = Kind::Os;
        r.value = v;
    } else if (after("Dumping the result of `", v) && endsWith(v, "'")) {
        r.kind = Kind::Capture;
        r.value = v.substr(0, v.size() - 1);
    } else if (after("Testing UDP pass-through (", v) && endsWith(v, " of 5)")) {
        auto n = toInt(v.substr(0, v.size() - 6));
        if (n) {
            r.kind = Kind::Udp;
            r.number = *n;
        }
    } else if (after("Testing traceroute to ", v)) {
        r.kind = Kind::TraceHeading;
    } else if (after("Testing MTU to ", v)) {
        r.kind = Kind::Mtu;
    } else if (after("Testing to the intranet ", v)) {
        auto colon = v.rfind(':');
        auto port = colon == sv::npos ? std::nullopt : toInt(v.substr(colon + 1));
        if (port) {
            r.kind = Kind::Intranet;
            r.value = v.substr(0, colon);
            r.number = *port;
        }
    } else {
        for (const auto &k : kKnownTcp) {
            if (h == k.heading) {
                r.kind = Kind::Tcp;
                r.tcp = &k;
            }
        }
        if (r.kind == Kind::Unknown && (startsWith(h, "Testing TCP pass-through to port ") ||
                                        startsWith(h, "Checks a connection to ")))
            r.kind = Kind::Tcp;
    }
    return r;
}

// Lines, split once more where a known heading follows text that had no
// line feed of its own (a capture whose last line was not terminated); both
// parts keep the number of the line they share.
std::vector<Line> splitLines(sv region) {
    std::vector<Line> out;
    out.reserve(countLineFeeds(region) + 1);
    std::size_t i = 0, number = 0;
    while (i < region.size()) {
        number++;
        auto nl = region.find('\n', i);
        sv line = region.substr(i, nl == sv::npos ? sv::npos : nl - i);
        bool newline = nl != sv::npos;
        i = newline ? nl + 1 : region.size();
        if (!startsWith(line, kHeading)) {
            std::size_t at = 0;
            while ((at = line.find(kHeading, at + 1)) != sv::npos) {
                if (classify(line.substr(at + kHeading.size())).kind != Kind::Unknown)
                    break;
            }
            if (at != sv::npos) {
                out.push_back({line.substr(0, at), false, number});
                line = line.substr(at);
            }
        }
        out.push_back({line, newline, number});
    }
    return out;
}

std::string joinLines(const std::vector<Line> &lines) {
    std::string s;
    for (const auto &l : lines) {
        s.append(l.text);
        if (l.newline)
            s.push_back('\n');
    }
    return s;
}

class Parser {
  public:
    explicit Parser(sv text) : text_(text), counter_(text) {}
    Report run();

  private:
    void parseProbes(sv region);
    void finishSection(const Line &headingLine, const Heading &h, std::vector<Line> &body);
    void parseLogs(sv region);
    void parseTail(sv region);
    void keepUnknown(sv heading, std::string text);
    void inferAddresses();
    void findMissing();

    sv text_;
    LineCounter counter_;
    Report r_;
    // The first address seen for each server, by role; empty: none yet.
    std::array<std::string, static_cast<std::size_t>(Role::Jp) + 1> roleAddress_;
    std::vector<Role> tcpRoles_;
};

void Parser::keepUnknown(sv heading, std::string text) {
    if (heading.empty() && text.find_first_not_of('\n') == std::string::npos)
        return;
    r_.unknown.push_back({std::string(heading), std::move(text)});
}

void Parser::finishSection(const Line &headingSource, const Heading &h, std::vector<Line> &body) {
    sv headingLine = headingSource.text;
    const auto &lines = body;
    // Only the probes and captures keep their heading line.
    auto heading = [&] { return sourceLine(headingSource.number, headingLine); };
    auto unexpected = [&](bool allowEmpty) {
        std::string extra;
        for (const auto &l : body) {
            if (l.text == kPopenError) {
                r_.popen_lines.push_back(sourceLine(l.number, l.text));
                continue;
            }
            if (allowEmpty && l.text.empty())
                continue;
            extra.append(l.text);
            if (l.newline)
                extra.push_back('\n');
        }
        if (!extra.empty())
            keepUnknown(headingLine.substr(kHeading.size()), extra);
    };
    switch (h.kind) {
    case Kind::Unknown:
        if (headingLine.empty()) {
            // Before the first heading: the run's two-line introduction.
            std::string s = joinLines(body);
            constexpr sv intro = "This program diagnoses your network and system status and "
                                 "send the result to\nthe KOBVANE main server.\n";
            if (startsWith(s, intro)) {
                r_.recognised = true;
                s.erase(0, intro.size());
            }
            keepUnknown("", s);
        } else {
            keepUnknown(headingLine.substr(kHeading.size()), joinLines(body));
        }
        return;
    case Kind::Timestamp:
        r_.timestamp = std::string(h.value);
        r_.time_iso = ctimeToIso(h.value);
        unexpected(true);
        break;
    case Kind::Username:
        r_.username = std::string(h.value);
        unexpected(true);
        break;
    case Kind::Version:
        r_.version = std::string(h.value);
        unexpected(true);
        break;
    case Kind::Os:
        r_.os = std::string(h.value);
        unexpected(true);
        break;
    case Kind::Capture: {
        // A pipe that could not be opened prints its complaint where the
        // next capture would begin, so it ends the previous one.
        while (!body.empty() && body.back().text == kPopenError) {
            r_.popen_lines.push_back(sourceLine(body.back().number, body.back().text));
            body.pop_back();
        }
        Capture c;
        c.command = std::string(h.value);
        c.text = joinLines(body);
        c.lines = body.size();
        c.heading = heading();
        c.first_line = body.empty() ? 0 : body.front().number;
        if (h.value.find("traceroute") != sv::npos)
            r_.traceroute = parseTraceroute(h.value, body);
        r_.captures.push_back(std::move(c));
        break;
    }
    case Kind::Udp: {
        UdpAttempt a;
        a.number = h.number;
        a.result.heading = heading();
        takeProbeLines(lines, true, a.result, r_.popen_lines);
        r_.udp.push_back(std::move(a));
        break;
    }
    case Kind::Tcp: {
        TcpProbe p;
        p.heading = std::string(headingLine.substr(kHeading.size()));
        p.result.heading = heading();
        p.limit_s = kPublicLimit;
        Role role = Role::None;
        if (h.tcp) {
            p.target = std::string(h.tcp->target);
            p.result.port = h.tcp->port;
            role = h.tcp->role;
        } else {
            p.target = "unknown target";
            constexpr sv portPrefix = "Testing TCP pass-through to port ";
            if (startsWith(p.heading, portPrefix)) {
                sv rest = sv(p.heading).substr(portPrefix.size());
                auto n = toInt(rest.substr(0, rest.find(' ')));
                if (n)
                    p.result.port = *n;
            }
        }
        takeProbeLines(lines, false, p.result, r_.popen_lines);
        r_.tcp.push_back(std::move(p));
        tcpRoles_.push_back(role);
        break;
    }
    case Kind::TraceHeading:
        r_.traceroute_heading = true;
        unexpected(true);
        break;
    case Kind::Mtu:
        r_.mtu.emplace_back(headingLine.substr(kHeading.size()));
        unexpected(true);
        break;
    case Kind::Intranet: {
        IntranetProbe p;
        p.address = std::string(h.value);
        p.port = h.number;
        p.limit_s = kIntranetLimit;
        p.result.heading = heading();
        takeProbeLines(lines, false, p.result, r_.popen_lines);
        r_.intranet.push_back(std::move(p));
        break;
    }
    }
    r_.recognised = true;
}

void Parser::parseProbes(sv region) {
    auto lines = splitLines(region);
    Line headingLine{sv(), false, 0};
    Heading heading;
    std::vector<Line> body;
    for (const auto &l : lines) {
        if (startsWith(l.text, kHeading)) {
            finishSection(headingLine, heading, body);
            body.clear();
            headingLine = l;
            heading = classify(l.text.substr(kHeading.size()));
        } else {
            body.push_back(l);
        }
    }
    finishSection(headingLine, heading, body);
}

// The three program headings begin alike; a heading is found by its
// common beginning and then told apart.
constexpr sv kLogHeadingStart = "==> Dumping KOB";

// The first heading of a program from firstProgram on, at or after from,
// with its index; with atLineStart, only one that begins a line.
std::pair<std::size_t, std::size_t>
nextLogHeading(sv region, std::size_t from, std::size_t firstProgram, bool atLineStart = false) {
    for (std::size_t at = findIn(region, kLogHeadingStart, from); at != sv::npos;
         at = findIn(region, kLogHeadingStart, at + 1)) {
        if (atLineStart && at > 0 && region[at - 1] != '\n')
            continue;
        for (std::size_t k = firstProgram; k < kLogPrograms.size(); k++)
            if (startsWith(region.substr(at), kLogPrograms[k].heading))
                return {at, k};
    }
    return {sv::npos, kLogPrograms.size()};
}

void Parser::parseLogs(sv region) {
    std::size_t pos = 0;
    // The heading after each block is where the next block starts.
    auto next = nextLogHeading(region, 0, 0);
    while (pos < region.size()) {
        auto [at, which] = next;
        if (at == sv::npos) {
            keepUnknown("", std::string(region.substr(pos)));
            return;
        }
        if (at > pos)
            keepUnknown("", std::string(region.substr(pos, at - pos)));
        const auto &prog = kLogPrograms[which];
        std::size_t start = at + prog.heading.size();
        next = nextLogHeading(region, start, which + 1);
        std::size_t end = next.first == sv::npos ? region.size() : next.first;
        sv block = region.substr(start, end - start);
        pos = end;
        r_.recognised = true;

        std::string name(prog.name);
        std::string outFile = name + "_stdout.txt", errFile = name + "_stderr.txt";
        std::string outMissing = "No " + outFile + " exists\n";
        std::string errMissing = "No " + errFile + " exists\n";
        ClientLog out, err;
        out.program = err.program = name;
        out.stream = "stdout";
        err.stream = "stderr";
        out.file = outFile;
        err.file = errFile;

        // A label's line: its text up to the line feed, numbered in the report.
        auto label = [&](sv part) {
            auto at = static_cast<std::size_t>(part.data() - text_.data());
            return sourceLine(counter_.at(at), part.substr(0, part.find('\n')));
        };
        auto content = [this](ClientLog &log, sv text) {
            if (text == "Empty file.\n") {
                log.state = ClientLog::State::Empty;
            } else {
                log.state = ClientLog::State::Present;
                log.text = std::string(text.substr(0, kLogSampleMax));
                log.size = text.size();
                log.offset = static_cast<std::size_t>(text.data() - text_.data());
            }
        };
        // The stderr part starts at its label or at its "No ... exists" line.
        // Whichever comes first; the second is only looked for before the
        // first.
        std::size_t errAt = findIn(block, "[STDERR]\n");
        sv before = errAt == sv::npos ? block : block.substr(0, errAt + errMissing.size() - 1);
        errAt = std::min(errAt, findIn(before, errMissing));
        sv outPart = block.substr(0, errAt);
        sv errPart = errAt == sv::npos ? sv() : block.substr(errAt);
        if (startsWith(outPart, outMissing) || startsWith(outPart, "[STDOUT]\n"))
            out.label = label(outPart);
        if (startsWith(errPart, errMissing) || startsWith(errPart, "[STDERR]\n"))
            err.label = label(errPart);
        if (startsWith(outPart, outMissing)) {
            out.state = ClientLog::State::Missing;
            if (outPart.size() > outMissing.size())
                keepUnknown(prog.heading.substr(kHeading.size(), prog.heading.size() - 5),
                            std::string(outPart.substr(outMissing.size())));
        } else if (startsWith(outPart, "[STDOUT]\n")) {
            content(out, outPart.substr(9));
        } else if (!outPart.empty()) {
            keepUnknown(prog.heading.substr(kHeading.size(), prog.heading.size() - 5),
                        std::string(outPart));
        }
        if (startsWith(errPart, errMissing)) {
            err.state = ClientLog::State::Missing;
            if (errPart.size() > errMissing.size())
                keepUnknown(prog.heading.substr(kHeading.size(), prog.heading.size() - 5),
                            std::string(errPart.substr(errMissing.size())));
        } else if (startsWith(errPart, "[STDERR]\n")) {
            content(err, errPart.substr(9));
        }
        r_.logs.push_back(std::move(out));
        r_.logs.push_back(std::move(err));
    }
}

void Parser::parseTail(sv region) {
    // region starts with the tail heading.
    sv rest = region.substr(kTailHeading.size());
    auto nl = rest.find('\n');
    sv first = rest.substr(0, nl);
    if (endsWith(first, " seconds.")) {
        auto n = toInt(first.substr(0, first.size() - 9));
        if (n)
            r_.countdown_from = *n;
    }
    r_.recognised = true;
    std::string extra;
    if (nl == sv::npos)
        return;
    rest = rest.substr(nl + 1);
    std::size_t i = 0;
    while (i < rest.size()) {
        auto e = rest.find('\n', i);
        sv line = rest.substr(i, e == sv::npos ? sv::npos : e - i);
        i = e == sv::npos ? rest.size() : e + 1;
        if (startsWith(line, kCountdownPrefix) && endsWith(line, " secs") &&
            toInt(
                line.substr(kCountdownPrefix.size(), line.size() - kCountdownPrefix.size() - 5))) {
            r_.countdown_lines++;
            continue;
        }
        extra.append(line);
        if (e != sv::npos)
            extra.push_back('\n');
    }
    if (!extra.empty())
        keepUnknown("All tests had done now", extra);
}

void Parser::inferAddresses() {
    // The run prints a target's address only when it answers; the same
    // target answers other probes, or names itself in the traceroute.
    auto learn = [this](Role role, const std::string &address) {
        auto &known = roleAddress_[static_cast<std::size_t>(role)];
        if (known.empty())
            known = address;
    };
    for (const auto &a : r_.udp)
        if (a.result.outcome == ProbeResult::Outcome::Answered)
            learn(Role::PassThrough, a.result.address);
    for (std::size_t k = 0; k < r_.tcp.size(); k++)
        if (tcpRoles_[k] != Role::None &&
            r_.tcp[k].result.outcome == ProbeResult::Outcome::Answered)
            learn(tcpRoles_[k], r_.tcp[k].result.address);
    if (r_.traceroute && !r_.traceroute->destination.empty())
        learn(Role::KtIdc, r_.traceroute->destination);
    auto fill = [&](ProbeResult &res, Role role) {
        if (!res.address.empty() || role == Role::None)
            return;
        const auto &known = roleAddress_[static_cast<std::size_t>(role)];
        if (!known.empty()) {
            res.address = known;
            res.address_inferred = true;
        }
    };
    for (auto &a : r_.udp) {
        fill(a.result, Role::PassThrough);
        if (a.result.port == 0)
            a.result.port = kobrun::kUdpPort;
    }
    for (std::size_t k = 0; k < r_.tcp.size(); k++)
        fill(r_.tcp[k].result, tcpRoles_[k]);
    for (auto &p : r_.intranet) {
        p.result.address = p.address;
        p.result.port = p.port;
    }
}

void Parser::findMissing() {
    if (!r_.recognised)
        return;
    auto count = [](std::size_t have, int want, const char *what) {
        return std::string(what) + " (" + std::to_string(have) + " of " + std::to_string(want) +
               ")";
    };
    if (!r_.timestamp || !r_.version || !r_.os)
        r_.missing.emplace_back("header");
    std::size_t status = 0;
    for (const auto &c : r_.captures)
        if (c.command.find("traceroute") == std::string::npos)
            status++;
    if (status < static_cast<std::size_t>(kStatusCaptures))
        r_.missing.push_back(count(status, kStatusCaptures, "network status captures"));
    if (r_.udp.size() < static_cast<std::size_t>(kUdpAttempts))
        r_.missing.push_back(count(r_.udp.size(), kUdpAttempts, "UDP attempts"));
    if (r_.tcp.size() < kKnownTcp.size())
        r_.missing.push_back(count(r_.tcp.size(), kKnownTcp.size(), "TCP probes"));
    if (!r_.traceroute)
        r_.missing.emplace_back("traceroute");
    if (r_.mtu.size() < 5)
        r_.missing.push_back(count(r_.mtu.size(), 5, "MTU headings"));
    if (r_.intranet.size() < static_cast<std::size_t>(kIntranetProbes))
        r_.missing.push_back(count(r_.intranet.size(), kIntranetProbes, "intranet probes"));
    if (r_.logs.size() < 2 * kLogPrograms.size())
        r_.missing.push_back(count(r_.logs.size() / 2, kLogPrograms.size(), "client log dumps"));
}

Report Parser::run() {
    sv body = text_;
    // The countdown, when the report was uploaded, closes it; a blank line
    // printed before it ends whatever the last log left unterminated.
    auto tail = rfindIn(text_, kTailHeading);
    sv tailRegion;
    if (tail != sv::npos) {
        tailRegion = text_.substr(tail);
        std::size_t end = tail;
        if (end > 0 && text_[end - 1] == '\n')
            end--;
        body = text_.substr(0, end);
    }
    std::size_t logStart = nextLogHeading(body, 0, 0, true).first;
    parseProbes(body.substr(0, logStart));
    if (logStart != sv::npos)
        parseLogs(body.substr(logStart));
    if (!tailRegion.empty())
        parseTail(tailRegion);
    inferAddresses();
    findMissing();
    std::sort(r_.popen_lines.begin(), r_.popen_lines.end(),
              [](const SourceLine &a, const SourceLine &b) { return a.number < b.number; });
    r_.popen_errors = static_cast<int>(r_.popen_lines.size());
    applyRules(r_);
    return std::move(r_);
}

} // namespace

bool Traceroute::reached() const {
    for (const auto &h : hops)
        if (std::find(h.addresses.begin(), h.addresses.end(), destination) != h.addresses.end())
            return true;
    return false;
}

const Hop *Traceroute::lastAnswered() const {
    for (auto it = hops.rbegin(); it != hops.rend(); ++it)
        if (!it->addresses.empty())
            return &*it;
    return nullptr;
}

UdpSummary Report::udpSummary() const {
    UdpSummary s;
    double sum = 0;
    for (const auto &a : udp) {
        s.attempts++;
        switch (a.result.outcome) {
        case ProbeResult::Outcome::Answered: {
            double v = a.result.rtt_ms;
            s.answered++;
            sum += v;
            s.min_ms = s.min_ms ? std::min(*s.min_ms, v) : v;
            s.max_ms = s.max_ms ? std::max(*s.max_ms, v) : v;
            break;
        }
        case ProbeResult::Outcome::Timeout:
            s.timeouts++;
            break;
        case ProbeResult::Outcome::Error:
            s.errors++;
            break;
        case ProbeResult::Outcome::Missing:
            break;
        }
    }
    if (s.answered > 0)
        s.avg_ms = sum / s.answered;
    if (s.attempts > 0)
        s.loss_percent = 100.0 * (s.attempts - s.answered) / s.attempts;
    return s;
}

std::string Report::summary() const {
    std::string s;
    for (const auto &v : verdicts) {
        if (v.level != Verdict::Level::Fail && v.level != Verdict::Level::Warn)
            continue;
        if (!s.empty())
            s += "; ";
        s += v.text;
    }
    return s.empty() ? "no problem found" : s;
}

Report parse(std::string_view text) {
    return Parser(text).run();
}

const char *levelName(Verdict::Level level) {
    switch (level) {
    case Verdict::Level::Ok:
        return "ok";
    case Verdict::Level::Info:
        return "info";
    case Verdict::Level::Warn:
        return "warn";
    case Verdict::Level::Fail:
        return "fail";
    }
    return "info";
}

const char *stateName(ClientLog::State state) {
    switch (state) {
    case ClientLog::State::Present:
        return "present";
    case ClientLog::State::Empty:
        return "empty";
    case ClientLog::State::Missing:
        return "missing";
    case ClientLog::State::NotShown:
        return "not shown";
    }
    return "not shown";
}

std::string verdictTable(const Report &report, bool evidence) {
    std::string out = "LEVEL  AREA        VERDICT\n";
    for (const auto &v : report.verdicts) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%-6s %-11s ", levelName(v.level), v.area.c_str());
        out += buf;
        out += v.text;
        out += '\n';
        if (!evidence)
            continue;
        out += "       rule " + v.rule + " (rules version " + std::to_string(report.rules_version) +
               ")\n";
        for (const auto &l : v.evidence) {
            std::snprintf(buf, sizeof buf, "%12zu| ", l.number);
            out += buf;
            // A report's line may carry terminal controls; they are shown,
            // not obeyed.
            for (unsigned char c : l.text) {
                if ((c < 0x20 && c != '\t') || c == 0x7f) {
                    std::snprintf(buf, sizeof buf, "\\x%02x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
            }
            out += '\n';
        }
    }
    return out;
}

} // namespace kobtriage
