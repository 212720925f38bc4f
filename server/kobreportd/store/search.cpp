#include "search.h"

#include <cctype>
#include <cstring>

#include "clock.h"
#include "issues.h"
#include "text.h"

namespace kobreportd {

std::string Conditions::bind(std::string value) {
    values_.push_back({false, 0, std::move(value)});
    return "$" + std::to_string(values_.size());
}

std::string Conditions::bind(int64_t value) {
    values_.push_back({true, value, {}});
    return "$" + std::to_string(values_.size());
}

std::string Conditions::sql() const {
    std::string s;
    for (const auto &c : conditions_)
        s += " AND (" + c + ")";
    return s;
}

std::string Conditions::newestWhere(const std::string &n) const {
    if (conditions_.size() != 1 || newest_.empty())
        return "";
    std::string q = newest_;
    for (size_t at = q.find("{N}"); at != std::string::npos; at = q.find("{N}", at))
        q.replace(at, 3, n);
    return " WHERE id IN (SELECT id FROM (" + q + ") AS newest)";
}

std::string Conditions::countSql(const std::string &where) const {
    if (conditions_.size() == 1 && !ids_.empty())
        return "SELECT count(*) AS n FROM (" + ids_ + ") AS ids";
    return "SELECT count(*) AS n FROM reports" + where;
}

std::vector<sql::Param> Conditions::params() const {
    std::vector<sql::Param> p;
    p.reserve(values_.size());
    for (const Value &v : values_)
        p.push_back(v.isInt ? sql::integer(v.i) : sql::text(v.s));
    return p;
}

namespace {

// The words of a comment search: runs of letters and digits (any byte of
// a multi-byte character counts as a letter), as both full-text indexes
// split text.
std::vector<std::string> words(const std::string &q) {
    std::vector<std::string> out;
    std::string w;
    for (unsigned char c : q) {
        if (std::isalnum(c) || c >= 0x80) {
            w += static_cast<char>(c);
        } else if (!w.empty()) {
            out.push_back(std::move(w));
            w.clear();
        }
    }
    if (!w.empty())
        out.push_back(std::move(w));
    return out;
}

// q: a reference in any of its forms (spaces anywhere, with or without
// "KOB-" and the dash after the date, its beginning, or its last six
// digits), a part of a user name, or words of the user's comment, all of
// them.  A whole reference is also remembered, for the page to open.
std::optional<std::string> byQuery(const std::string &value, ReportFilter &f, const std::string &) {
    Conditions &w = f.where;
    bool pg = w.dialect() == sql::Dialect::Postgres;
    std::string q = cleanText(value);
    std::string compact;
    for (char c : q)
        if (!std::isspace(static_cast<unsigned char>(c)))
            compact += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string byReference;
    bool named = compact.rfind("KOB", 0) == 0;
    std::string rest = compact.substr(named ? (compact.rfind("KOB-", 0) == 0 ? 4 : 3) : 0);
    std::string digits;
    bool shaped = !rest.empty();
    for (size_t i = 0; i < rest.size() && shaped; i++) {
        if (rest[i] == '-')
            shaped = i == 8 && digits.size() == 8;
        else if (rest[i] >= '0' && rest[i] <= '9')
            digits += rest[i];
        else
            shaped = false;
    }
    if (shaped && digits.size() >= 14) {
        f.exact = "KOB-" + digits.substr(0, 8) + "-" + digits.substr(8);
        byReference = "SELECT id FROM reports WHERE reference = " + w.bind(f.exact);
    } else if (shaped && digits.size() == 6 && !named) {
        byReference = "SELECT id FROM reports WHERE ref_tail = " + w.bind(digits);
    } else if (shaped && (named || digits.size() >= 8)) {
        std::string prefix =
            "KOB-" + (digits.size() > 8 ? digits.substr(0, 8) + "-" + digits.substr(8) : digits);
        if (digits.size() == 8 && rest.size() == 9)
            prefix += "-";
        byReference = "SELECT id FROM reports WHERE reference LIKE " + w.bind(prefix + "%");
    }
    // A reference in one of its shapes is looked for as nothing else: no
    // user is named so, and the lookups stay on the references' indexes.
    if (!byReference.empty()) {
        w.addIds(byReference);
        return std::nullopt;
    }
    // The names first, each once, then their reports by index.
    std::string byName;
    if (!q.empty()) {
        std::string names = std::string("SELECT name FROM user_names WHERE name") +
                            (pg ? " ILIKE " : " LIKE ") + w.bind("%" + likeEscape(q) + "%") +
                            " ESCAPE '\\'";
        byName = "SELECT id FROM reports WHERE form_username IN (" + names +
                 ") UNION SELECT id FROM reports WHERE report_username IN (" + names + ")";
    }
    std::string byWords;
    auto ws = words(q);
    if (!ws.empty() && pg) {
        std::string all;
        for (const auto &x : ws)
            all += (all.empty() ? "" : " ") + x;
        byWords = "SELECT report_id AS id FROM report_words WHERE words @@"
                  " plainto_tsquery('simple', " +
                  w.bind(all) + "::text)";
    } else if (!ws.empty()) {
        // Each word a quoted string: FTS5's query syntax is not the user's.
        std::string match;
        for (const auto &x : ws)
            match += (match.empty() ? "\"" : " \"") + x + "\"";
        byWords = "SELECT rowid AS id FROM report_words WHERE report_words MATCH " + w.bind(match);
    }
    if (byName.empty() || byWords.empty()) {
        if (!byName.empty() || !byWords.empty())
            w.addIds(byName.empty() ? byWords : byName);
        return std::nullopt;
    }
    // A comment's word may be found in a quarter of all reports: counted
    // without sorting them together with the few of the names, and a page
    // taken from the newest of each set rather than from both merged whole.
    w.addIds("id IN (" + byName + " UNION " + byWords + ")",
             "SELECT id FROM (" + byName + ") AS n UNION ALL SELECT id FROM (" + byWords +
                 ") AS w WHERE id NOT IN (" + byName + ")");
    w.setNewest("SELECT id FROM (SELECT id FROM (" + byName +
                ") AS n ORDER BY id DESC LIMIT {N}) AS n UNION SELECT id FROM (SELECT id FROM (" +
                byWords + ") AS w ORDER BY id DESC LIMIT {N}) AS w");
    return std::nullopt;
}

std::optional<std::string> byRule(const std::string &value, ReportFilter &f, const std::string &) {
    f.where.addIds("SELECT DISTINCT report_id AS id FROM report_verdicts WHERE rule = " +
                   f.where.bind(value));
    return std::nullopt;
}

// A report's level is its worst verdict's.
std::optional<std::string> byLevel(const std::string &value, ReportFilter &f, const std::string &) {
    if (value != "fail" && value != "warn" && value != "ok")
        return "level is one of fail, warn, ok";
    f.where.add("level = " + f.where.bind(value));
    return std::nullopt;
}

// An area with a problem: a failing or warning verdict in it.
std::optional<std::string> byArea(const std::string &value, ReportFilter &f, const std::string &) {
    f.where.addIds("SELECT DISTINCT report_id AS id FROM report_verdicts WHERE area = " +
                   f.where.bind(value) + " AND problem = 1");
    return std::nullopt;
}

std::optional<std::string> byVersion(const std::string &value, ReportFilter &f,
                                     const std::string &) {
    f.where.add("version = " + f.where.bind(value));
    return std::nullopt;
}

// from: at or after the beginning of what it names; to: before the end of
// it, so that to=2026-11-20 takes the whole day.
std::optional<std::string> bySpan(const std::string &value, ReportFilter &f,
                                  const std::string &zone, bool from) {
    auto span = zonedSpan(value, zone);
    if (!span)
        return std::string(from ? "from" : "to") +
               " is a date (YYYY-MM-DD) or a date and time (YYYY-MM-DDThh:mm or"
               " YYYY-MM-DDThh:mm:ss)";
    if (from)
        f.where.add("received_at >= " + f.where.bind(static_cast<int64_t>(span->first)));
    else {
        // Ids grow with time: the bound on the id lets the newest-first walk
        // start at the last report before `to` instead of passing every
        // later one on its way there ("+ 0": the largest id is looked for
        // among the times, not by walking the ids down).
        std::string end = f.where.bind(static_cast<int64_t>(span->second));
        f.where.add("received_at < " + end +
                    " AND id <= (SELECT max(id + 0) FROM reports WHERE received_at < " + end + ")");
    }
    return std::nullopt;
}

std::optional<std::string> fromTime(const std::string &value, ReportFilter &f,
                                    const std::string &zone) {
    return bySpan(value, f, zone, true);
}

std::optional<std::string> toTime(const std::string &value, ReportFilter &f,
                                  const std::string &zone) {
    return bySpan(value, f, zone, false);
}

struct FilterParam {
    const char *name;
    // Adds the value's condition to the filter, or says why it cannot.
    std::optional<std::string> (*apply)(const std::string &value, ReportFilter &f,
                                        const std::string &zone);
};

// The workflow's: a report's status and owner, and its issue.
std::optional<std::string> byStatus(const std::string &value, ReportFilter &f,
                                    const std::string &) {
    if (!validStatus(value))
        return "status is one of new, open, resolved, ignored";
    f.where.add("status = " + f.where.bind(value));
    return std::nullopt;
}

std::optional<std::string> byOwner(const std::string &value, ReportFilter &f, const std::string &) {
    f.where.add("owner = " + f.where.bind(value));
    return std::nullopt;
}

std::optional<std::string> byIssue(const std::string &value, ReportFilter &f, const std::string &) {
    auto id = parseIssueId(value);
    if (!id)
        return "issue is an issue's number";
    f.where.add("issue_id = " + f.where.bind(*id));
    return std::nullopt;
}

// One row a parameter.
constexpr FilterParam kFilterParams[] = {
    {"q", byQuery},     {"rule", byRule},   {"level", byLevel},     {"area", byArea},
    {"from", fromTime}, {"to", toTime},     {"version", byVersion}, {"status", byStatus},
    {"owner", byOwner}, {"issue", byIssue},
};

} // namespace

ReportFilter issueReports(sql::Dialect d, int64_t issue) {
    ReportFilter f(d);
    f.where.add("issue_id = " + f.where.bind(issue));
    return f;
}

std::vector<std::string> filterNames() {
    std::vector<std::string> n;
    for (const auto &p : kFilterParams)
        n.emplace_back(p.name);
    return n;
}

std::variant<ReportFilter, std::string>
parseFilter(const std::multimap<std::string, std::string> &params, sql::Dialect d,
            const std::string &zone) {
    ReportFilter f(d);
    for (const auto &p : kFilterParams) {
        auto it = params.find(p.name);
        if (it == params.end())
            continue;
        std::string v = cleanText(it->second);
        size_t b = v.find_first_not_of(" \t"), e = v.find_last_not_of(" \t");
        v = b == std::string::npos ? "" : v.substr(b, e - b + 1);
        if (v.empty())
            continue; // an empty field of the form: no filter
        if (auto why = p.apply(v, f, zone))
            return *why;
        f.given.emplace_back(p.name, v);
    }
    return f;
}

std::optional<std::pair<std::time_t, std::time_t>> zonedSpan(const std::string &text,
                                                             const std::string &zone) {
    std::string t = text;
    bool utc = !t.empty() && (t.back() == 'Z' || t.back() == 'z');
    if (utc)
        t.pop_back();
    // YYYY-MM-DD, then Thh:mm, then :ss.
    const char *shape = "dddd-dd-ddTdd:dd:dd";
    if (t.size() != 10 && t.size() != 16 && t.size() != 19)
        return std::nullopt;
    for (size_t i = 0; i < t.size(); i++) {
        char c = t[i];
        bool fits = shape[i] == 'd'   ? std::isdigit(static_cast<unsigned char>(c)) != 0
                    : shape[i] == 'T' ? c == 'T' || c == ' '
                                      : c == shape[i];
        if (!fits)
            return std::nullopt;
    }
    auto num = [&t](size_t at, size_t n) { return std::stoi(t.substr(at, n)); };
    int y = num(0, 4), mo = num(5, 2), d = num(8, 2);
    int h = t.size() > 10 ? num(11, 2) : 0, mi = t.size() > 10 ? num(14, 2) : 0;
    int s = t.size() > 16 ? num(17, 2) : 0;
    std::time_t step = t.size() == 10 ? 86400 : t.size() == 16 ? 60 : 1;
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    std::time_t at = timegm(&tm);
    // timegm carries 2026-02-30 into March: such a date is refused.
    if (tm.tm_year != y - 1900 || tm.tm_mon != mo - 1 || tm.tm_mday != d || tm.tm_hour != h ||
        tm.tm_min != mi || tm.tm_sec != s)
        return std::nullopt;
    if (utc)
        return std::make_pair(at, at + step);
    // What the zone's clocks showed then: its start and its end each by the
    // zone's offset at that moment.
    auto start = localToUtc(at, zone), end = localToUtc(at + step, zone);
    if (!start || !end)
        return std::nullopt;
    return std::make_pair(*start, *end);
}

void addSearchable(sql::Conn &c, sql::Dialect d, int64_t id, const std::optional<std::string> &why,
                   const std::vector<RuleVerdict> &verdicts) {
    replaceVerdicts(c, id, verdicts);
    if (!why || why->empty())
        return;
    if (d == sql::Dialect::Postgres)
        c.query("INSERT INTO report_words (report_id, words) VALUES ($1,"
                " to_tsvector('simple', $2::text))",
                {sql::integer(id), sql::text(*why)});
    else
        c.query("INSERT INTO report_words (rowid, comment) VALUES ($1, $2)",
                {sql::integer(id), sql::text(*why)});
}

void addUserNames(sql::Conn &c, const std::optional<std::string> &form,
                  const std::optional<std::string> &report) {
    for (const auto *name : {&form, &report})
        if (*name && !(*name)->empty())
            c.query("INSERT INTO user_names (name) VALUES ($1) ON CONFLICT DO NOTHING",
                    {sql::text(**name)});
}

void dropUserNames(sql::Conn &c, const std::optional<std::string> &form,
                   const std::optional<std::string> &report) {
    for (const auto *name : {&form, &report})
        if (*name)
            c.query("DELETE FROM user_names WHERE name = $1 AND NOT EXISTS (SELECT 1 FROM"
                    " reports WHERE form_username = $1) AND NOT EXISTS (SELECT 1 FROM"
                    " reports WHERE report_username = $1)",
                    {sql::text(**name)});
}

void replaceVerdicts(sql::Conn &c, int64_t id, const std::vector<RuleVerdict> &verdicts) {
    c.query("DELETE FROM report_verdicts WHERE report_id = $1", {sql::integer(id)});
    if (verdicts.empty())
        return;
    std::string values;
    std::vector<sql::Param> params;
    for (const RuleVerdict &v : verdicts) {
        size_t n = params.size();
        values += std::string(values.empty() ? "" : ",") + "($" + std::to_string(n + 1) + ",$" +
                  std::to_string(n + 2) + ",$" + std::to_string(n + 3) + ",$" +
                  std::to_string(n + 4) + ",$" + std::to_string(n + 5) + ")";
        bool problem = v.level == "fail" || v.level == "warn";
        params.insert(params.end(), {sql::integer(id), sql::text(v.rule), sql::text(v.area),
                                     sql::text(v.level), sql::integer(problem ? 1 : 0)});
    }
    c.query("INSERT INTO report_verdicts (report_id, rule, area, level, problem) VALUES " + values,
            params);
}

void dropWords(sql::Conn &c, sql::Dialect d, int64_t id) {
    c.query(d == sql::Dialect::Sqlite ? "DELETE FROM report_words WHERE rowid = $1"
                                      : "DELETE FROM report_words WHERE report_id = $1",
            {sql::integer(id)});
}

void purgeDroppedWords(sql::Conn &c, sql::Dialect d) {
    if (d == sql::Dialect::Sqlite)
        c.query("INSERT INTO report_words (report_words) VALUES ('optimize')");
}

void dropSearchable(sql::Conn &c, sql::Dialect d, int64_t id) {
    dropWords(c, d, id);
    c.query("DELETE FROM report_verdicts WHERE report_id = $1", {sql::integer(id)});
}

} // namespace kobreportd
