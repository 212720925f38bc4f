// The JSON form of a triaged report, shared by kobreport --json and the
// intake server's /api/, so both always say the same.

#include "kobjson.h"
#include "kobtriage.h"

namespace kobtriage {

namespace {

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
void probe(kobjson::Writer &w, const ProbeResult &r) {
    if (r.address.empty())
        w.key("address").null();
    else
        w.key("address").value(r.address);
    w.key("address_inferred").value(r.address_inferred);
    if (r.port)
        w.key("port").value(r.port);
    else
        w.key("port").null();
    if (r.outcome == ProbeResult::Outcome::Answered) {
        w.key("rtt_ms").value(r.rtt_ms);
    } else {
        w.key("error").value(outcomeError(r.outcome));
        if (r.outcome == ProbeResult::Outcome::Error) {
            w.key("errno").value(r.err);
            w.key("message").value(r.error_text);
        }
    }
    if (!r.extra.empty()) {
        w.key("unparsed").beginArray();
        for (const auto &l : r.extra)
            w.value(l);
        w.endArray();
    }
}

} // namespace

std::string toJson(const Report &r, const StoredFacts *facts) {
    kobjson::Writer w;
    w.beginObject();
    if (facts) {
        w.key("reference").value(facts->reference);
        w.key("received_at").value(facts->received_at);
        w.key("form_username").value(facts->form_username);
        w.key("why").value(facts->why);
        w.key("size").value(facts->size);
    } else {
        w.key("reference").null();
    }
    w.key("recognised").value(r.recognised);
    w.key("complete").value(r.recognised && r.missing.empty());
    w.key("timestamp").value(r.timestamp);
    w.key("time").value(r.time_iso);
    w.key("username").value(r.username);
    w.key("version").value(r.version);
    w.key("os").value(r.os);

    w.key("udp").beginArray();
    for (const auto &a : r.udp) {
        w.beginObject().key("attempt").value(a.number);
        probe(w, a.result);
        w.endObject();
    }
    w.endArray();
    auto u = r.udpSummary();
    w.key("udp_summary").beginObject();
    w.key("attempts").value(u.attempts).key("answered").value(u.answered);
    w.key("timeouts").value(u.timeouts).key("errors").value(u.errors);
    w.key("loss_percent").value(u.loss_percent);
    w.key("min_ms").value(u.min_ms).key("avg_ms").value(u.avg_ms).key("max_ms").value(u.max_ms);
    w.endObject();

    w.key("tcp").beginArray();
    for (const auto &p : r.tcp) {
        w.beginObject().key("heading").value(p.heading).key("target").value(p.target);
        w.key("limit_s").value(p.limit_s);
        probe(w, p.result);
        w.endObject();
    }
    w.endArray();

    w.key("intranet").beginArray();
    for (const auto &p : r.intranet) {
        w.beginObject().key("limit_s").value(p.limit_s);
        probe(w, p.result);
        w.endObject();
    }
    w.endArray();

    if (r.traceroute) {
        const auto &t = *r.traceroute;
        w.key("traceroute").beginObject();
        w.key("command").value(t.command).key("destination").value(t.destination);
        w.key("reached").value(t.reached());
        const Hop *last = t.lastAnswered();
        if (last)
            w.key("last_hop").value(last->number).key("last_address").value(last->addresses.back());
        else
            w.key("last_hop").null().key("last_address").null();
        w.key("hops").beginArray();
        for (const auto &h : t.hops) {
            w.beginObject().key("hop").value(h.number);
            w.key("addresses").beginArray();
            for (const auto &a : h.addresses)
                w.value(a);
            w.endArray().key("rtt_ms").beginArray();
            for (double v : h.rtts_ms)
                w.value(v);
            w.endArray().key("lost").value(h.lost);
            w.key("notes").beginArray();
            for (const auto &n : h.notes)
                w.value(n);
            w.endArray().endObject();
        }
        w.endArray();
        w.key("other_lines").beginArray();
        for (const auto &l : t.other_lines)
            w.value(l);
        w.endArray().endObject();
    } else {
        w.key("traceroute").null();
    }

    w.key("captures").beginArray();
    for (const auto &c : r.captures)
        w.beginObject()
            .key("command")
            .value(c.command)
            .key("lines")
            .value(c.lines)
            .key("empty")
            .value(c.empty())
            .endObject();
    w.endArray();
    w.key("popen_errors").value(r.popen_errors);

    w.key("mtu").beginArray();
    for (const auto &m : r.mtu)
        w.value(m);
    w.endArray();

    w.key("logs").beginArray();
    for (const auto &l : r.logs)
        w.beginObject()
            .key("program")
            .value(l.program)
            .key("stream")
            .value(l.stream)
            .key("file")
            .value(l.file)
            .key("state")
            .value(stateName(l.state))
            .key("size")
            .value(l.size)
            .endObject();
    w.endArray();

    if (r.countdown_from)
        w.key("countdown")
            .beginObject()
            .key("from")
            .value(*r.countdown_from)
            .key("lines")
            .value(r.countdown_lines)
            .endObject();
    else
        w.key("countdown").null();

    w.key("unknown").beginArray();
    for (const auto &s : r.unknown)
        w.beginObject().key("heading").value(s.heading).key("text").value(s.text).endObject();
    w.endArray();

    w.key("missing").beginArray();
    for (const auto &m : r.missing)
        w.value(m);
    w.endArray();

    w.key("verdicts").beginArray();
    for (const auto &v : r.verdicts)
        w.value(v.text);
    w.endArray();
    w.key("verdict_levels").beginArray();
    for (const auto &v : r.verdicts)
        w.beginObject()
            .key("level")
            .value(levelName(v.level))
            .key("area")
            .value(v.area)
            .key("text")
            .value(v.text)
            .endObject();
    w.endArray();
    w.key("summary").value(r.summary());
    w.endObject();
    return w.str();
}

} // namespace kobtriage
