// The view for support staff: a list of reports and a page per report, as
// plain HTML with one stylesheet, and the same data as JSON under /api/.

#include <cstdio>
#include <ctime>

#include "kobjson.h"
#include "kobtriage.h"
#include "server.h"

namespace kobreportd {

namespace {

constexpr int64_t kPageSize = 50;

const char *kStyle = R"css(
body { font: 15px/1.45 system-ui, sans-serif; margin: 0; color: #1d2430; background: #f5f6f8; }
header { background: #1d2b45; color: #fff; padding: 12px 24px; display: flex; gap: 24px;
         align-items: center; flex-wrap: wrap; }
header h1 { font-size: 19px; margin: 0; }
header a { color: #fff; text-decoration: none; }
header form { margin-left: auto; display: flex; gap: 6px; }
header input { padding: 5px 8px; border: 0; border-radius: 4px; min-width: 260px; }
header button { padding: 5px 12px; border: 0; border-radius: 4px; background: #4c7bd9;
                color: #fff; cursor: pointer; }
main { padding: 16px 24px 40px; max-width: 1200px; }
h2 { font-size: 17px; margin: 28px 0 8px; }
table { border-collapse: collapse; background: #fff; width: 100%; margin-bottom: 8px; }
th, td { text-align: left; padding: 6px 10px; border-bottom: 1px solid #e3e6eb;
         vertical-align: top; }
th { background: #eceff4; font-weight: 600; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
.fail { color: #b3261e; font-weight: 600; }
.warn { color: #9a6700; }
.ok { color: #1a7f37; }
.info { color: #57606a; }
.level { text-transform: uppercase; font-size: 12px; letter-spacing: .04em; }
dl.facts { display: grid; grid-template-columns: max-content 1fr; gap: 4px 16px;
           background: #fff; padding: 12px 16px; margin: 0; }
dl.facts dt { color: #57606a; }
dl.facts dd { margin: 0; }
pre { background: #fff; padding: 12px 16px; overflow-x: auto; border: 1px solid #e3e6eb;
      font: 12.5px/1.4 ui-monospace, monospace; white-space: pre-wrap; word-break: break-all; }
nav.pages { display: flex; gap: 16px; margin-top: 12px; }
p.count, p.links { color: #57606a; }
)css";

std::string esc(const std::string &s) {
    std::string v = kobjson::utf8(s), out;
    out.reserve(v.size());
    for (char c : v) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        case '\0':
            out += "\xef\xbf\xbd";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string urlEncode(const std::string &s) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string isoTime(std::time_t t) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

std::string shownTime(std::time_t t) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

std::string ms(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", v);
    return buf;
}

std::string displayUser(const std::optional<std::string> &form,
                        const std::optional<std::string> &report) {
    if (form && !form->empty())
        return *form;
    return report.value_or("");
}

std::string page(const std::string &title, const std::string &query, const std::string &body) {
    return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
           "<title>" +
           esc(title) +
           "</title><link rel=\"stylesheet\" href=\"/static/style.css\"></head>\n<body>"
           "<header><h1><a href=\"/\">Kobvane problem reports</a></h1>"
           "<form method=\"get\" action=\"/\"><input type=\"search\" name=\"q\" value=\"" +
           esc(query) +
           "\" placeholder=\"user name or reference\" aria-label=\"Search\">"
           "<button type=\"submit\">Search</button></form></header>\n<main>" +
           body + "</main></body></html>\n";
}

int64_t pageNumber(const httplib::Request &req) {
    if (!req.has_param("page"))
        return 1;
    std::string p = req.get_param_value("page");
    int64_t n = 0;
    if (p.empty() || p.size() > 9)
        return 1;
    for (char c : p) {
        if (c < '0' || c > '9')
            return 1;
        n = n * 10 + (c - '0');
    }
    return n < 1 ? 1 : n;
}

std::string outcomeCell(const kobtriage::ProbeResult &r) {
    using O = kobtriage::ProbeResult::Outcome;
    switch (r.outcome) {
    case O::Answered:
        return "<td class=\"num ok\">" + ms(r.rtt_ms) + " ms</td>";
    case O::Timeout:
        return "<td class=\"fail\">timeout</td>";
    case O::Error:
        return "<td class=\"fail\">error " + std::to_string(r.err) + " " + esc(r.error_text) +
               "</td>";
    case O::Missing:
        return "<td class=\"warn\">no result</td>";
    }
    return "<td></td>";
}

std::string address(const kobtriage::ProbeResult &r) {
    if (r.address.empty())
        return "";
    return esc(r.address) + (r.address_inferred ? " <span class=\"info\">(inferred)</span>" : "");
}

void listView(Store &store, const httplib::Request &req, httplib::Response &res) {
    std::string q = req.has_param("q") ? req.get_param_value("q") : "";
    int64_t pg = pageNumber(req);
    auto list = store.list(q, (pg - 1) * kPageSize, kPageSize);
    std::string b = "<p class=\"count\">" + std::to_string(list.total) +
                    (list.total == 1 ? " report" : " reports") +
                    (q.empty() ? "" : " matching \u201c" + esc(q) + "\u201d") + "</p>\n";
    b += "<table id=\"reports\"><thead><tr><th>Received (UTC)</th><th>User</th>"
         "<th>Reference</th><th>Verdicts</th></tr></thead><tbody>\n";
    for (const auto &it : list.items) {
        bool good = it.summary == "no problem found";
        b += "<tr class=\"report\" data-reference=\"" + esc(it.reference) + "\"><td>" +
             shownTime(it.received_at) + "</td><td>" +
             esc(displayUser(it.form_username, it.report_username)) +
             "</td><td><a href=\"/reports/" + urlEncode(it.reference) + "\">" + esc(it.reference) +
             "</a></td><td class=\"" + (good ? "ok" : "fail") + "\">" + esc(it.summary) +
             "</td></tr>\n";
    }
    b += "</tbody></table>\n<nav class=\"pages\">";
    std::string qs = q.empty() ? "" : "q=" + urlEncode(q) + "&";
    if (pg > 1)
        b += "<a rel=\"prev\" href=\"/?" + qs + "page=" + std::to_string(pg - 1) + "\">Newer</a>";
    if (pg * kPageSize < list.total)
        b += "<a rel=\"next\" href=\"/?" + qs + "page=" + std::to_string(pg + 1) + "\">Older</a>";
    b += "</nav>\n";
    res.set_content(page("Problem reports", q, b), "text/html; charset=utf-8");
}

void reportView(const StoredReport &s, httplib::Response &res) {
    auto r = kobtriage::parse(s.desc);
    std::string b = "<h2 id=\"reference\">" + esc(s.reference) + "</h2>\n<dl class=\"facts\">";
    auto fact = [&](const char *k, const std::string &v) {
        b += "<dt>" + std::string(k) + "</dt><dd>" + v + "</dd>";
    };
    fact("Received (UTC)", shownTime(s.received_at));
    fact("User (form)", esc(s.form_username.value_or("")));
    fact("User (report)", esc(r.username.value_or("")));
    fact("Run started", esc(r.timestamp.value_or("")));
    fact("Version", esc(r.version.value_or("")));
    fact("OS", esc(r.os.value_or("")));
    fact("From", esc(s.peer));
    fact("Size", std::to_string(s.desc.size()) + " bytes");
    b += "</dl>\n<p class=\"links\"><a href=\"/api/reports/" + urlEncode(s.reference) +
         "\">JSON</a> \u00b7 <a href=\"/api/reports/" + urlEncode(s.reference) +
         "/raw\">raw text</a></p>\n";
    if (s.why) {
        b += "<h2>User's comment</h2><pre id=\"why\">" + esc(*s.why) + "</pre>\n";
    }

    b += "<h2>Verdicts</h2><table id=\"verdicts\"><thead><tr><th>Level</th><th>Area</th>"
         "<th>Verdict</th></tr></thead><tbody>\n";
    for (const auto &v : r.verdicts) {
        std::string lv = kobtriage::levelName(v.level);
        b += "<tr class=\"";
        b += lv;
        b += "\"><td class=\"level\">";
        b += lv;
        b += "</td><td>";
        b += esc(v.area);
        b += "</td><td>";
        b += esc(v.text);
        b += "</td></tr>\n";
    }
    b += "</tbody></table>\n";

    b += "<h2>UDP pass-through</h2><table id=\"udp\"><thead><tr><th>Attempt</th><th>Address</th>"
         "<th>Result</th></tr></thead><tbody>\n";
    for (const auto &a : r.udp)
        b += "<tr><td>" + std::to_string(a.number) + "</td><td>" + address(a.result) + ":" +
             std::to_string(a.result.port) + "</td>" + outcomeCell(a.result) + "</tr>\n";
    auto u = r.udpSummary();
    b += "</tbody></table><p class=\"count\">" + std::to_string(u.answered) + "/" +
         std::to_string(u.attempts) + " answered";
    if (u.avg_ms)
        b += ", min/avg/max " + ms(*u.min_ms) + "/" + ms(*u.avg_ms) + "/" + ms(*u.max_ms) + " ms";
    b += "</p>\n";

    b += "<h2>TCP connects</h2><table id=\"tcp\"><thead><tr><th>Probe</th><th>Target</th>"
         "<th>Address</th><th>Port</th><th>Limit</th><th>Result</th></tr></thead><tbody>\n";
    for (const auto &p : r.tcp)
        b += "<tr><td>" + esc(p.heading) + "</td><td>" + esc(p.target) + "</td><td>" +
             address(p.result) + "</td><td class=\"num\">" + std::to_string(p.result.port) +
             "</td><td class=\"num\">" + std::to_string(p.limit_s) + " s</td>" +
             outcomeCell(p.result) + "</tr>\n";
    b += "</tbody></table>\n";

    b += "<h2>Intranet gateways</h2><table id=\"intranet\"><thead><tr><th>Gateway</th>"
         "<th>Result</th></tr></thead><tbody>\n";
    for (const auto &p : r.intranet)
        b += "<tr><td>" + esc(p.address) + ":" + std::to_string(p.port) + "</td>" +
             outcomeCell(p.result) + "</tr>\n";
    b += "</tbody></table>\n";

    if (r.traceroute) {
        const auto &t = *r.traceroute;
        b += "<h2>Traceroute to " + esc(t.destination) +
             "</h2><table id=\"traceroute\"><thead><tr><th>Hop</th><th>Addresses</th>"
             "<th>Times (ms)</th><th>Lost</th></tr></thead><tbody>\n";
        for (const auto &h : t.hops) {
            std::string addrs, times;
            for (const auto &a : h.addresses)
                addrs += (addrs.empty() ? "" : ", ") + esc(a);
            for (double v : h.rtts_ms)
                times += (times.empty() ? "" : " ") + ms(v);
            for (const auto &n : h.notes)
                times += " " + esc(n);
            b += "<tr><td class=\"num\">";
            b += std::to_string(h.number);
            b += "</td><td>";
            b += addrs;
            b += "</td><td>";
            b += times;
            b += "</td><td class=\"num\">";
            b += std::to_string(h.lost);
            b += "</td></tr>\n";
        }
        b += "</tbody></table>\n";
    }

    b += "<h2>Command captures</h2><table id=\"captures\"><thead><tr><th>Command</th>"
         "<th>Lines</th></tr></thead><tbody>\n";
    for (const auto &c : r.captures)
        b += "<tr><td>" + esc(c.command) + "</td><td class=\"num\">" +
             (c.empty() ? std::string("empty") : std::to_string(c.lines)) + "</td></tr>\n";
    b += "</tbody></table>\n";

    b += "<h2>Client logs</h2><table id=\"logs\"><thead><tr><th>File</th><th>State</th>"
         "<th>Size</th></tr></thead><tbody>\n";
    for (const auto &l : r.logs)
        b += "<tr><td>" + esc(l.file) + "</td><td>" + kobtriage::stateName(l.state) +
             "</td><td class=\"num\">" + std::to_string(l.size) + "</td></tr>\n";
    b += "</tbody></table>\n";

    if (!r.unknown.empty()) {
        b += "<h2>Not understood</h2>\n";
        for (const auto &sct : r.unknown)
            b += "<h3>" + esc(sct.heading.empty() ? "(outside any heading)" : sct.heading) +
                 "</h3><pre>" + esc(sct.text) + "</pre>\n";
    }
    b += "<h2>Raw report</h2><pre id=\"raw\">" + esc(s.desc) + "</pre>\n";
    res.set_content(page(s.reference, "", b), "text/html; charset=utf-8");
}

std::string reportJson(const StoredReport &s) {
    kobtriage::StoredFacts f;
    f.reference = s.reference;
    f.received_at = isoTime(s.received_at);
    f.form_username = s.form_username;
    f.why = s.why;
    f.size = s.desc.size();
    return kobtriage::toJson(kobtriage::parse(s.desc), &f);
}

} // namespace

void addViews(httplib::Server &svr, Store &store) {
    svr.Get("/static/style.css", [](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "max-age=3600");
        res.set_content(kStyle, "text/css; charset=utf-8");
    });
    svr.Get("/favicon.ico",
            [](const httplib::Request &, httplib::Response &res) { res.status = 204; });
    svr.Get("/", [&store](const httplib::Request &req, httplib::Response &res) {
        listView(store, req, res);
    });
    svr.Get(R"(/reports/([^/]+))", [&store](const httplib::Request &req, httplib::Response &res) {
        auto s = store.get(req.matches[1]);
        if (!s) {
            res.status = 404;
            res.set_content(page("Not found", "", "<p>No report " + esc(req.matches[1]) + ".</p>"),
                            "text/html; charset=utf-8");
            return;
        }
        reportView(*s, res);
    });
    svr.Get("/api/reports", [&store](const httplib::Request &req, httplib::Response &res) {
        std::string q = req.has_param("q") ? req.get_param_value("q") : "";
        int64_t pg = pageNumber(req);
        auto list = store.list(q, (pg - 1) * kPageSize, kPageSize);
        kobjson::Writer w;
        w.beginObject().key("total").value(list.total).key("page").value(pg);
        w.key("page_size").value(kPageSize).key("reports").beginArray();
        for (const auto &it : list.items) {
            w.beginObject().key("reference").value(it.reference);
            w.key("received_at").value(isoTime(it.received_at));
            w.key("username").value(displayUser(it.form_username, it.report_username));
            w.key("form_username").value(it.form_username);
            w.key("summary").value(it.summary).key("size").value(it.size).endObject();
        }
        w.endArray().endObject();
        res.set_content(w.str(), "application/json");
    });
    svr.Get(R"(/api/reports/([^/]+))",
            [&store](const httplib::Request &req, httplib::Response &res) {
                auto s = store.get(req.matches[1]);
                if (!s) {
                    res.status = 404;
                    res.set_content("{\"error\":\"not found\"}", "application/json");
                    return;
                }
                res.set_content(reportJson(*s), "application/json");
            });
    svr.Get(R"(/api/reports/([^/]+)/raw)",
            [&store](const httplib::Request &req, httplib::Response &res) {
                auto s = store.get(req.matches[1]);
                if (!s) {
                    answer(res, 404, "Not found\n");
                    return;
                }
                res.set_content(s->desc, "text/plain; charset=utf-8");
            });
}

} // namespace kobreportd
