#include "probes.h"

#include <algorithm>

#include "scan.h"

namespace kobtriage::scan {

namespace {

// "UDP src --%f ms--> dst(%s:%d)" and its TCP twin.
bool parseRttLine(sv line, sv proto, ProbeResult &r) {
    constexpr sv srcArrow = " src --";
    if (!startsWith(line, proto) || !startsWith(line.substr(proto.size()), srcArrow) ||
        !endsWith(line, ")"))
        return false;
    sv rest = line.substr(proto.size() + srcArrow.size());
    auto mid = rest.find(" ms--> dst(");
    if (mid == sv::npos)
        return false;
    auto ms = toDouble(rest.substr(0, mid));
    sv dst = rest.substr(mid + 11);
    dst.remove_suffix(1);
    auto colon = dst.rfind(':');
    if (!ms || colon == sv::npos)
        return false;
    auto port = toInt(dst.substr(colon + 1));
    if (!port)
        return false;
    r.outcome = ProbeResult::Outcome::Answered;
    r.rtt_ms = *ms;
    r.address = std::string(dst.substr(0, colon));
    r.port = *port;
    return true;
}

// "recvfrom error: %d %s" or "connect(2) fail: %d %s".
bool parseErrorLine(sv line, sv prefix, ProbeResult &r) {
    if (!startsWith(line, prefix))
        return false;
    sv rest = line.substr(prefix.size());
    auto sp = rest.find(' ');
    auto num = toInt(rest.substr(0, sp));
    if (!num)
        return false;
    r.outcome = ProbeResult::Outcome::Error;
    r.err = *num;
    r.error_text = sp == sv::npos ? std::string() : std::string(rest.substr(sp + 1));
    return true;
}

void takeHopWords(Hop &hop, const std::vector<sv> &w, std::size_t from) {
    for (std::size_t k = from; k < w.size(); k++) {
        sv t = w[k];
        if (t == "*") {
            hop.lost++;
        } else if (k + 1 < w.size() && w[k + 1] == "ms" && toDouble(t)) {
            hop.rtts_ms.push_back(*toDouble(t));
            k++;
        } else if (startsWith(t, "!")) {
            hop.notes.emplace_back(t);
        } else {
            // Without -n a name comes first and the address follows in parentheses.
            if (t.size() > 2 && t.front() == '(' && t.back() == ')')
                t = t.substr(1, t.size() - 2);
            if (isAddress(t) &&
                std::find(hop.addresses.begin(), hop.addresses.end(), t) == hop.addresses.end())
                hop.addresses.emplace_back(t);
        }
    }
}

} // namespace

void takeProbeLines(const std::vector<Line> &lines, bool udp, ProbeResult &r,
                    std::vector<SourceLine> &popen) {
    for (const auto &l : lines) {
        sv line = l.text;
        if (line.empty())
            continue;
        if (line == kPopenError) {
            popen.push_back(sourceLine(l.number, line));
            continue;
        }
        if (r.outcome == ProbeResult::Outcome::Missing) {
            bool taken = false;
            if (udp) {
                taken = parseRttLine(line, "UDP", r) || parseErrorLine(line, "recvfrom error: ", r);
                if (!taken && line == "UDP: select timeout") {
                    r.outcome = ProbeResult::Outcome::Timeout;
                    taken = true;
                }
            } else {
                taken =
                    parseRttLine(line, "TCP", r) || parseErrorLine(line, "connect(2) fail: ", r);
                if (!taken && line == "TCP: select timeout") {
                    r.outcome = ProbeResult::Outcome::Timeout;
                    taken = true;
                }
            }
            if (taken) {
                r.line = sourceLine(l.number, line);
                continue;
            }
        }
        r.extra.emplace_back(line);
    }
}

Traceroute parseTraceroute(sv command, const std::vector<Line> &lines) {
    Traceroute tr;
    tr.command = std::string(command);
    auto cw = words(command);
    if (!cw.empty())
        tr.destination = std::string(cw.back());
    bool any = false;
    for (const auto &l : lines) {
        sv line = l.text;
        if (line.empty())
            continue;
        any = true;
        auto w = words(line);
        auto num = w.empty() ? std::nullopt : toInt(w[0]);
        if (num && *num > 0) {
            Hop hop;
            hop.number = *num;
            hop.line = sourceLine(l.number, line);
            takeHopWords(hop, w, 1);
            tr.hops.push_back(std::move(hop));
        } else if (!tr.hops.empty() && !w.empty() && (line[0] == ' ' || line[0] == '\t') &&
                   (isAddress(w[0]) || w[0] == "*")) {
            // A further responder of the same hop on a line of its own.
            takeHopWords(tr.hops.back(), w, 0);
        } else {
            tr.other_lines.emplace_back(line);
        }
    }
    tr.printed_nothing = !any;
    return tr;
}

} // namespace kobtriage::scan
