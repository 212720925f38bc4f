// A triaged report written down and read back: the findings a server
// keeps with each report, so that showing it never means holding and
// parsing the whole text again.  JSON, for a format any tool can read when
// something looks wrong; its fields are the structures' own.

#include "kobtriage.h"

#include <nlohmann/json.hpp>

namespace kobtriage {

namespace {

using Json = nlohmann::json;

Json opt(const std::optional<std::string> &s) {
    return s ? Json(*s) : Json(nullptr);
}

std::optional<std::string> opt(const Json &j) {
    if (j.is_null())
        return std::nullopt;
    return j.get<std::string>();
}

Json line(const SourceLine &l, std::size_t max = std::string::npos) {
    return Json::array({l.number, l.text.substr(0, max)});
}

SourceLine line(const Json &j) {
    return SourceLine{j.at(0).get<std::size_t>(), j.at(1).get<std::string>()};
}

Json lines(const std::vector<SourceLine> &ls, std::size_t max = std::string::npos) {
    Json a = Json::array();
    for (const auto &l : ls)
        a.push_back(line(l, max));
    return a;
}

std::vector<SourceLine> lines(const Json &j) {
    std::vector<SourceLine> out;
    for (const auto &l : j)
        out.push_back(line(l));
    return out;
}

// The beginning of a text and, when that is not all of it, its size.
Json cut(const std::string &text, std::size_t whole, std::size_t max) {
    Json o{{"text", text.substr(0, max)}};
    if (text.size() > max || whole)
        o["size"] = whole ? whole : text.size();
    return o;
}

Json probe(const ProbeResult &r) {
    return Json{{"outcome", static_cast<int>(r.outcome)},
                {"rtt_ms", r.rtt_ms},
                {"address", r.address},
                {"inferred", r.address_inferred},
                {"port", r.port},
                {"errno", r.err},
                {"message", r.error_text},
                {"extra", r.extra},
                {"heading", line(r.heading)},
                {"line", line(r.line)}};
}

ProbeResult probe(const Json &j) {
    ProbeResult r;
    int outcome = j.at("outcome").get<int>();
    if (outcome < 0 || outcome > static_cast<int>(ProbeResult::Outcome::Error))
        throw std::out_of_range("outcome");
    r.outcome = static_cast<ProbeResult::Outcome>(outcome);
    r.rtt_ms = j.at("rtt_ms").get<double>();
    r.address = j.at("address").get<std::string>();
    r.address_inferred = j.at("inferred").get<bool>();
    r.port = j.at("port").get<int>();
    r.err = j.at("errno").get<int>();
    r.error_text = j.at("message").get<std::string>();
    r.extra = j.at("extra").get<std::vector<std::string>>();
    r.heading = line(j.at("heading"));
    r.line = line(j.at("line"));
    return r;
}

Json traceroute(const Traceroute &t) {
    Json hops = Json::array();
    for (const auto &h : t.hops)
        hops.push_back(Json{{"number", h.number},
                            {"addresses", h.addresses},
                            {"rtts_ms", h.rtts_ms},
                            {"lost", h.lost},
                            {"notes", h.notes},
                            {"line", line(h.line)}});
    return Json{{"command", t.command},
                {"destination", t.destination},
                {"hops", std::move(hops)},
                {"other_lines", t.other_lines},
                {"printed_nothing", t.printed_nothing}};
}

Traceroute traceroute(const Json &j) {
    Traceroute t;
    t.command = j.at("command").get<std::string>();
    t.destination = j.at("destination").get<std::string>();
    for (const auto &h : j.at("hops"))
        t.hops.push_back(Hop{h.at("number").get<int>(),
                             h.at("addresses").get<std::vector<std::string>>(),
                             h.at("rtts_ms").get<std::vector<double>>(), h.at("lost").get<int>(),
                             h.at("notes").get<std::vector<std::string>>(), line(h.at("line"))});
    t.other_lines = j.at("other_lines").get<std::vector<std::string>>();
    t.printed_nothing = j.at("printed_nothing").get<bool>();
    return t;
}

Json findings(const Report &r) {
    Json j{{"recognised", r.recognised},  {"timestamp", opt(r.timestamp)},
           {"time_iso", opt(r.time_iso)}, {"username", opt(r.username)},
           {"version", opt(r.version)},   {"os", opt(r.os)}};
    Json captures = Json::array();
    for (const auto &c : r.captures) {
        Json o = cut(c.text, c.whole_size, kStoredCaptureMax);
        o.update(Json{{"command", c.command},
                      {"lines", c.lines},
                      {"heading", line(c.heading)},
                      {"first_line", c.first_line}});
        captures.push_back(std::move(o));
    }
    j["captures"] = std::move(captures);
    j["popen_errors"] = r.popen_errors;
    j["popen_lines"] = lines(r.popen_lines);
    Json udp = Json::array(), tcp = Json::array(), intranet = Json::array();
    for (const auto &a : r.udp)
        udp.push_back(Json{{"number", a.number}, {"result", probe(a.result)}});
    for (const auto &p : r.tcp)
        tcp.push_back(Json{{"heading", p.heading},
                           {"target", p.target},
                           {"limit_s", p.limit_s},
                           {"result", probe(p.result)}});
    for (const auto &p : r.intranet)
        intranet.push_back(Json{{"address", p.address},
                                {"port", p.port},
                                {"limit_s", p.limit_s},
                                {"result", probe(p.result)}});
    j["udp"] = std::move(udp);
    j["tcp"] = std::move(tcp);
    j["intranet"] = std::move(intranet);
    j["traceroute_heading"] = r.traceroute_heading;
    j["traceroute"] = r.traceroute ? traceroute(*r.traceroute) : Json(nullptr);
    j["mtu"] = r.mtu;
    return j;
}

void rest(const Report &r, Json &j) {
    Json logs = Json::array();
    for (const auto &l : r.logs)
        logs.push_back(Json{{"program", l.program},
                            {"stream", l.stream},
                            {"file", l.file},
                            {"state", static_cast<int>(l.state)},
                            {"size", l.size},
                            {"offset", l.offset},
                            {"label", line(l.label)}});
    j["logs"] = std::move(logs);
    j["countdown_from"] = r.countdown_from ? Json(*r.countdown_from) : Json(nullptr);
    j["countdown_lines"] = r.countdown_lines;
    Json unknown = Json::array();
    for (const auto &s : r.unknown) {
        Json o = cut(s.text, s.whole_size, kStoredSectionMax);
        o["heading"] = s.heading;
        unknown.push_back(std::move(o));
    }
    j["unknown"] = std::move(unknown);
    j["missing"] = r.missing;
    Json verdicts = Json::array();
    for (const auto &v : r.verdicts)
        verdicts.push_back(Json{{"level", static_cast<int>(v.level)},
                                {"area", v.area},
                                {"text", v.text},
                                {"rule", v.rule},
                                {"evidence", lines(v.evidence, kStoredLineMax)}});
    j["verdicts"] = std::move(verdicts);
    j["rules_version"] = r.rules_version;
}

template <typename E> E enumIn(const Json &j, E last) {
    int v = j.get<int>();
    if (v < 0 || v > static_cast<int>(last))
        throw std::out_of_range("enum");
    return static_cast<E>(v);
}

Report read(const Json &j) {
    Report r;
    r.recognised = j.at("recognised").get<bool>();
    r.timestamp = opt(j.at("timestamp"));
    r.time_iso = opt(j.at("time_iso"));
    r.username = opt(j.at("username"));
    r.version = opt(j.at("version"));
    r.os = opt(j.at("os"));
    for (const auto &c : j.at("captures")) {
        Capture cap;
        cap.command = c.at("command").get<std::string>();
        cap.text = c.at("text").get<std::string>();
        cap.whole_size = c.value("size", std::size_t{0});
        cap.lines = c.at("lines").get<std::size_t>();
        cap.heading = line(c.at("heading"));
        cap.first_line = c.at("first_line").get<std::size_t>();
        r.captures.push_back(std::move(cap));
    }
    r.popen_errors = j.at("popen_errors").get<int>();
    r.popen_lines = lines(j.at("popen_lines"));
    for (const auto &a : j.at("udp"))
        r.udp.push_back(UdpAttempt{a.at("number").get<int>(), probe(a.at("result"))});
    for (const auto &p : j.at("tcp"))
        r.tcp.push_back(TcpProbe{p.at("heading").get<std::string>(),
                                 p.at("target").get<std::string>(), p.at("limit_s").get<int>(),
                                 probe(p.at("result"))});
    for (const auto &p : j.at("intranet"))
        r.intranet.push_back(IntranetProbe{p.at("address").get<std::string>(),
                                           p.at("port").get<int>(), p.at("limit_s").get<int>(),
                                           probe(p.at("result"))});
    r.traceroute_heading = j.at("traceroute_heading").get<bool>();
    if (!j.at("traceroute").is_null())
        r.traceroute = traceroute(j.at("traceroute"));
    r.mtu = j.at("mtu").get<std::vector<std::string>>();
    for (const auto &l : j.at("logs")) {
        ClientLog log;
        log.program = l.at("program").get<std::string>();
        log.stream = l.at("stream").get<std::string>();
        log.file = l.at("file").get<std::string>();
        log.state = enumIn(l.at("state"), ClientLog::State::NotShown);
        log.size = l.at("size").get<std::size_t>();
        log.offset = l.at("offset").get<std::size_t>();
        log.label = line(l.at("label"));
        r.logs.push_back(std::move(log));
    }
    if (!j.at("countdown_from").is_null())
        r.countdown_from = j.at("countdown_from").get<int>();
    r.countdown_lines = j.at("countdown_lines").get<int>();
    for (const auto &s : j.at("unknown"))
        r.unknown.push_back(Section{s.at("heading").get<std::string>(),
                                    s.at("text").get<std::string>(),
                                    s.value("size", std::size_t{0})});
    r.missing = j.at("missing").get<std::vector<std::string>>();
    for (const auto &v : j.at("verdicts"))
        r.verdicts.push_back(Verdict{enumIn(v.at("level"), Verdict::Level::Fail),
                                     v.at("area").get<std::string>(),
                                     v.at("text").get<std::string>(),
                                     v.at("rule").get<std::string>(), lines(v.at("evidence"))});
    r.rules_version = j.at("rules_version").get<int>();
    return r;
}

} // namespace

std::string toStored(const Report &r) {
    Json j = findings(r);
    rest(r, j);
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<Report> fromStored(std::string_view stored) {
    Json j = Json::parse(stored, nullptr, false);
    if (!j.is_object())
        return std::nullopt;
    try {
        return read(j);
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

} // namespace kobtriage
