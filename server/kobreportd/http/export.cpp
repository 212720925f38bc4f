// A filtered list as a file: CSV or JSON lines, read from the store a batch
// at a time as the client takes it, so that a list of a million reports is
// never whole in memory.  Masked on its way out like every staff answer.

#include <memory>
#include <string_view>
#include <nlohmann/json.hpp>

#include "clock.h"
#include "kobtriage.h"
#include "staff.h"

namespace kobreportd {

namespace {

using Json = nlohmann::ordered_json;

// A field as RFC 4180 writes it: in quotes, with its quotes doubled, when
// it holds a comma, a quote or a line break.  A user's name or words that
// begin like a formula ("=HYPERLINK(...)") get a leading apostrophe, so
// that a spreadsheet opening the file shows them as text instead of
// running them.
std::string csvField(const std::string &field) {
    std::string s = field;
    if (!s.empty() && std::string_view("=+-@\t\r").find(s.front()) != std::string_view::npos)
        s.insert(0, 1, '\'');
    if (s.find_first_of(",\"\r\n") == std::string::npos)
        return s;
    std::string out = "\"";
    for (char c : s) {
        if (c == '"')
            out += '"';
        out += c;
    }
    return out + "\"";
}

constexpr const char *kCsvHeader = "reference,received_at,username,form_username,report_username,"
                                   "level,version,summary,size,raw_expired\r\n";

std::string csvLine(const ListItem &it) {
    std::string user = Staff::shownUser(it);
    std::string line;
    for (const std::string &f :
         {it.reference, isoTime(it.received_at), user, it.form_username.value_or(""),
          it.report_username.value_or(""), it.level, it.version.value_or(""), it.summary})
        line += csvField(f) + ",";
    return line + std::to_string(it.size) + "," + (it.raw_expired ? "true" : "false") + "\r\n";
}

constexpr int64_t kExportBatch = 500;

} // namespace

std::string Staff::shownUser(const ListItem &it) {
    return it.form_username && !it.form_username->empty() ? *it.form_username
                                                          : it.report_username.value_or("");
}

nlohmann::ordered_json Staff::itemJson(const ListItem &it) {
    auto orNull = [](const std::optional<std::string> &s) { return s ? Json(*s) : Json(nullptr); };
    return Json{{"reference", it.reference},     {"received_at", isoTime(it.received_at)},
                {"username", shownUser(it)},     {"form_username", orNull(it.form_username)},
                {"summary", it.summary},         {"size", it.size},
                {"raw_expired", it.raw_expired}, {"level", it.level},
                {"title", worstTitle(it)},       {"version", orNull(it.version)}};
}

bool Staff::exportList(const Request &req, Response &res, const Principal &who,
                       const ReportFilter &filter) {
    std::string format = req.param("format");
    bool csv = format == "csv";
    if (!csv && format != "jsonl")
        return false;
    std::string detail = format;
    for (const auto &[name, value] : filter.given)
        detail.append(" ").append(name).append("=").append(value);
    audit_.record(who.account, req.client_address, "reports.exported", "", detail);
    struct State {
        Store *store;
        ReportFilter filter;
        bool csv;
        int64_t before = INT64_MAX;
        bool started = false, done = false;
        std::string out;
        size_t given = 0;
    };
    auto st = std::make_shared<State>(State{&store_, filter, csv, INT64_MAX, false, false, {}, 0});
    res.stream = [st](char *buf, std::size_t max) -> std::size_t {
        while (st->given == st->out.size() && !st->done) {
            st->out.clear();
            st->given = 0;
            if (!st->started && st->csv)
                st->out = kCsvHeader;
            st->started = true;
            auto items = st->store->listBefore(st->filter, st->before, kExportBatch);
            st->done = static_cast<int64_t>(items.size()) < kExportBatch;
            for (const auto &it : items)
                st->out += st->csv ? csvLine(it) : kobtriage::dumpJson(itemJson(it)) + "\n";
            if (!items.empty())
                st->before = items.back().id;
        }
        std::size_t n = std::min(max, st->out.size() - st->given);
        std::copy_n(st->out.data() + st->given, n, buf);
        st->given += n;
        return n;
    };
    res.setHeader("Content-Type",
                  csv ? "text/csv; charset=utf-8; header=present" : "application/x-ndjson");
    res.setHeader("Content-Disposition",
                  std::string("attachment; filename=\"reports.") + (csv ? "csv" : "jsonl") + "\"");
    return true;
}

} // namespace kobreportd
