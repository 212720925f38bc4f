// The JSON form of a triaged report, shared by kobreport --json and the
// intake server's /api/, so both always say the same.  Members keep the
// order they are written in; a report's bytes that are not UTF-8 become
// U+FFFD when the document is written.

#include "kobtriage.h"
#include "kobrules.h"

#include <nlohmann/json.hpp>

namespace kobtriage {

namespace {

using Json = nlohmann::ordered_json;

Json orNull(const std::optional<std::string> &s) {
    return s ? Json(*s) : Json(nullptr);
}

Json orNull(const std::optional<double> &d) {
    return d ? Json(*d) : Json(nullptr);
}

const char *outcomeError(ProbeResult::Outcome o) {
    switch (o) {
    case ProbeResult::Outcome::Timeout:
        return "timeout";
    case ProbeResult::Outcome::Error:
        return "error";
    case ProbeResult::Outcome::Missing:
        return "no result";
    case ProbeResult::Outcome::Answered:
        break;
    }
    return nullptr;
}

// The members every probe has: rtt_ms when it answered, else error.
void probe(Json &o, const ProbeResult &r) {
    o["address"] = r.address.empty() ? Json(nullptr) : Json(r.address);
    o["address_inferred"] = r.address_inferred;
    o["port"] = r.port ? Json(r.port) : Json(nullptr);
    if (r.outcome == ProbeResult::Outcome::Answered) {
        o["rtt_ms"] = r.rtt_ms;
    } else {
        o["error"] = outcomeError(r.outcome);
        if (r.outcome == ProbeResult::Outcome::Error) {
            o["errno"] = r.err;
            o["message"] = r.error_text;
        }
    }
    if (!r.extra.empty())
        o["unparsed"] = r.extra;
    o["line"] = r.line.number ? Json(r.line.number) : Json(nullptr);
}

Json lines(const std::vector<SourceLine> &ls) {
    Json a = Json::array();
    for (const auto &l : ls)
        a.push_back(Json{{"line", l.number}, {"text", l.text}});
    return a;
}

// One verdict as the documents carry it: level, area, text, rule, the
// rule's version and the evidence lines.
Json verdictJson(const Verdict &v) {
    const Rule *rule = findRule(v.rule);
    return Json{{"level", levelName(v.level)},
                {"area", v.area},
                {"text", v.text},
                {"rule", v.rule},
                {"rule_version", rule ? Json(rule->version) : Json(nullptr)},
                {"evidence", lines(v.evidence)}};
}

} // namespace

std::string dumpJson(const nlohmann::ordered_json &j) {
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string validUtf8(std::string_view s) {
    // Written as JSON with the broken sequences replaced, then read back.
    return nlohmann::json::parse(dumpJson(Json(std::string(s)))).get<std::string>();
}

std::string toJson(const Report &r, const StoredFacts *facts) {
    Json w = Json::object();
    if (facts) {
        w["reference"] = facts->reference;
        w["received_at"] = facts->received_at;
        w["form_username"] = orNull(facts->form_username);
        w["why"] = orNull(facts->why);
        w["size"] = facts->size;
    } else {
        w["reference"] = nullptr;
    }
    w["recognised"] = r.recognised;
    w["complete"] = r.recognised && r.missing.empty();
    w["timestamp"] = orNull(r.timestamp);
    w["time"] = orNull(r.time_iso);
    w["username"] = orNull(r.username);
    w["version"] = orNull(r.version);
    w["os"] = orNull(r.os);

    Json udp = Json::array();
    for (const auto &a : r.udp) {
        Json o{{"attempt", a.number}};
        probe(o, a.result);
        udp.push_back(std::move(o));
    }
    w["udp"] = std::move(udp);
    auto u = r.udpSummary();
    w["udp_summary"] = Json{{"attempts", u.attempts},         {"answered", u.answered},
                            {"timeouts", u.timeouts},         {"errors", u.errors},
                            {"loss_percent", u.loss_percent}, {"min_ms", orNull(u.min_ms)},
                            {"avg_ms", orNull(u.avg_ms)},     {"max_ms", orNull(u.max_ms)}};

    Json tcp = Json::array();
    for (const auto &p : r.tcp) {
        Json o{{"heading", p.heading}, {"target", p.target}, {"limit_s", p.limit_s}};
        probe(o, p.result);
        tcp.push_back(std::move(o));
    }
    w["tcp"] = std::move(tcp);

    Json intranet = Json::array();
    for (const auto &p : r.intranet) {
        Json o{{"limit_s", p.limit_s}};
        probe(o, p.result);
        intranet.push_back(std::move(o));
    }
    w["intranet"] = std::move(intranet);

    if (r.traceroute) {
        const auto &t = *r.traceroute;
        Json o{{"command", t.command}, {"destination", t.destination}, {"reached", t.reached()}};
        const Hop *last = t.lastAnswered();
        o["last_hop"] = last ? Json(last->number) : Json(nullptr);
        o["last_address"] = last ? Json(last->addresses.back()) : Json(nullptr);
        Json hops = Json::array();
        for (const auto &h : t.hops)
            hops.push_back(Json{{"hop", h.number},
                                {"addresses", h.addresses},
                                {"rtt_ms", h.rtts_ms},
                                {"lost", h.lost},
                                {"notes", h.notes},
                                {"line", h.line.number}});
        o["hops"] = std::move(hops);
        o["other_lines"] = t.other_lines;
        w["traceroute"] = std::move(o);
    } else {
        w["traceroute"] = nullptr;
    }

    Json captures = Json::array();
    for (const auto &c : r.captures)
        captures.push_back(Json{{"command", c.command},
                                {"lines", c.lines},
                                {"empty", c.empty()},
                                {"line", c.heading.number}});
    w["captures"] = std::move(captures);
    w["popen_errors"] = r.popen_errors;
    w["mtu"] = r.mtu;

    Json logs = Json::array();
    for (const auto &l : r.logs)
        logs.push_back(Json{{"program", l.program},
                            {"stream", l.stream},
                            {"file", l.file},
                            {"state", stateName(l.state)},
                            {"size", l.size},
                            {"line", l.label.number ? Json(l.label.number) : Json(nullptr)}});
    w["logs"] = std::move(logs);

    if (r.countdown_from)
        w["countdown"] = Json{{"from", *r.countdown_from}, {"lines", r.countdown_lines}};
    else
        w["countdown"] = nullptr;

    Json unknown = Json::array();
    for (const auto &s : r.unknown)
        unknown.push_back(Json{{"heading", s.heading}, {"text", s.text}});
    w["unknown"] = std::move(unknown);
    w["missing"] = r.missing;

    Json texts = Json::array(), levels = Json::array();
    for (const auto &v : r.verdicts) {
        texts.push_back(v.text);
        levels.push_back(verdictJson(v));
    }
    w["verdicts"] = std::move(texts);
    w["verdict_levels"] = std::move(levels);
    w["rules_version"] = r.rules_version;
    w["summary"] = r.summary();
    return dumpJson(w);
}

} // namespace kobtriage
