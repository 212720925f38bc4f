// Reading reports back: one by reference, a page of the list, one user's,
// and deleting one whole.

#include "store.h"

#include <algorithm>
#include <set>

#include "kobrules.h"
#include "migrations.h"
#include "outcomes.h"
#include "pack.h"
#include "search.h"
#include "text.h"

namespace kobreportd {

namespace {

// The columns of a list's row, and of a whole report.
constexpr const char *kListColumns =
    "id, reference, received_at, form_username, report_username, summary, size, raw_expired,"
    " level, version";

ListItem listItem(const sql::Rows &r, size_t i) {
    ListItem it;
    it.id = r.integer(i, "id");
    it.reference = r.str(i, "reference");
    it.received_at = static_cast<std::time_t>(r.integer(i, "received_at"));
    it.form_username = r.opt(i, "form_username");
    it.report_username = r.opt(i, "report_username");
    it.summary = r.str(i, "summary");
    it.size = r.integer(i, "size");
    it.raw_expired = r.integer(i, "raw_expired") != 0;
    it.level = r.str(i, "level");
    it.version = r.opt(i, "version");
    return it;
}

// A list's rows with, beside each, the rules of its worst failing or
// warning verdicts: looked up for the rows of the page alone, through the
// verdicts' index by report, however far into the list the page is.
std::string withWorstRules(sql::Dialect d, const std::string &rows) {
    const char *rules =
        d == sql::Dialect::Postgres ? "string_agg(v.rule, ' ')" : "group_concat(v.rule, ' ')";
    return std::string("SELECT p.*, (SELECT ") + rules +
           " FROM report_verdicts v WHERE v.report_id = p.id AND v.problem = 1 AND"
           " v.level = p.level) AS worst_rules FROM (" +
           rows + ") p ORDER BY p.id DESC";
}

// The verdicts' table keeps no order of its own: the rule table's order
// picks the one the report page lists first.
std::string firstInRuleOrder(const std::optional<std::string> &rules) {
    if (!rules || rules->empty())
        return "";
    std::set<std::string, std::less<>> named;
    for (size_t at = 0; at < rules->size();) {
        size_t end = std::min(rules->find(' ', at), rules->size());
        named.insert(rules->substr(at, end - at));
        at = end + 1;
    }
    for (const auto &rule : kobtriage::rules())
        if (named.count(rule.id))
            return std::string(rule.id);
    // A rule this version no longer has, until retriage judges it again.
    return *named.begin();
}

ListItem listed(const sql::Rows &r, size_t i) {
    ListItem it = listItem(r, i);
    it.worst_rule = firstInRuleOrder(r.opt(i, "worst_rules"));
    return it;
}

// A report is listed once it has its reference.  A filter only finds
// reports written whole with theirs (its verdicts, words, level and version
// come with it), so it needs no check that would read every row it finds.
std::string listWhere(const Conditions &w) {
    return w.empty() ? " WHERE reference IS NOT NULL" : " WHERE TRUE" + w.sql();
}

StoredReport storedReport(const sql::Rows &r, size_t i, bool unpackText) {
    StoredReport s;
    ListItem it = listItem(r, i);
    s.id = r.integer(i, "id");
    s.reference = std::move(it.reference);
    s.received_at = it.received_at;
    s.form_username = std::move(it.form_username);
    s.report_username = std::move(it.report_username);
    s.summary = std::move(it.summary);
    s.size = it.size;
    s.raw_expired = it.raw_expired;
    s.peer = r.str(i, "peer");
    s.why = r.opt(i, "why");
    auto packed = r.opt(i, "findings_zstd");
    s.findings = packed && !packed->empty() ? unpackFrame(*packed, uint64_t{256} << 20)
                                            : r.str(i, "findings");
    s.desc_packed = r.integer(i, "desc_zstd") != 0;
    s.desc = r.isNull(i, "desc") ? std::string() : r.str(i, "desc");
    if (unpackText && s.desc_packed) {
        s.desc = unpack(s.desc, true, s.size);
        s.desc_packed = false;
    }
    return s;
}

} // namespace

Store::Store(sql::Db &db) : db_(db) {
    kobreportd::migrate(db_);
}

std::optional<StoredReport> Store::get(const std::string &reference, bool unpackText) {
    return fetch(reference, "\"desc\"", unpackText);
}

std::optional<StoredReport> Store::head(const std::string &reference) {
    return fetch(reference, "NULL", false);
}

// One report by reference, with the text column given ("NULL" leaves it
// in the database).
std::optional<StoredReport> Store::fetch(const std::string &reference, const char *desc,
                                         bool unpackText) {
    if (!plausibleReference(reference))
        return std::nullopt;
    auto rows = db_.read(std::string("SELECT ") + kListColumns + ", peer, " + desc +
                             " AS \"desc\", why, findings, findings_zstd, desc_zstd FROM reports"
                             " WHERE reference = $1",
                         {sql::text(reference)});
    if (rows.empty())
        return std::nullopt;
    return storedReport(rows, 0, unpackText);
}

std::function<std::string()> Store::storedPieces(int64_t id) {
    return db_.pieces("reports", "desc", id);
}

ListPage Store::list(const ReportFilter &filter, int64_t offset, int64_t limit) {
    const Conditions &w = filter.where;
    std::string where = listWhere(w);
    auto params = w.params();
    ListPage page;
    page.total = db_.read(w.countSql(where), params).integer(0, "n");
    params.push_back(sql::integer(limit));
    params.push_back(sql::integer(offset));
    if (std::string newest = w.newestWhere(w.next(3)); !newest.empty()) {
        where = newest;
        params.push_back(sql::integer(limit + offset));
    }
    auto rows = db_.read(withWorstRules(db_.dialect(), std::string("SELECT ") + kListColumns +
                                                           " FROM reports" + where +
                                                           " ORDER BY id DESC LIMIT " + w.next(1) +
                                                           " OFFSET " + w.next(2)),
                         params);
    for (size_t i = 0; i < rows.size(); i++)
        page.items.push_back(listed(rows, i));
    return page;
}

std::vector<ListItem> Store::listBefore(const ReportFilter &filter, int64_t before, int64_t limit) {
    const Conditions &w = filter.where;
    auto params = w.params();
    params.push_back(sql::integer(before));
    params.push_back(sql::integer(limit));
    auto rows = db_.read(withWorstRules(db_.dialect(), std::string("SELECT ") + kListColumns +
                                                           " FROM reports" + listWhere(w) +
                                                           " AND id < " + w.next(1) +
                                                           " ORDER BY id DESC LIMIT " + w.next(2)),
                         params);
    std::vector<ListItem> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back(listed(rows, i));
    return out;
}

std::vector<Outcome> Store::outcomes(int64_t id) {
    auto rows = db_.read("SELECT area, target, failing FROM outcomes WHERE report_id = $1"
                         " ORDER BY area, target",
                         {sql::integer(id)});
    std::vector<Outcome> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back(
            {rows.str(i, "area"), rows.str(i, "target"), rows.integer(i, "failing") != 0});
    return out;
}

std::vector<std::string> Store::sameUser(const std::string &name) {
    std::string n = cleanText(name);
    std::vector<std::string> names{n};
    auto rows = db_.read("SELECT DISTINCT form_username, report_username FROM reports"
                         " WHERE reference IS NOT NULL AND (form_username = $1 OR"
                         " report_username = $1) LIMIT 64",
                         {sql::text(n)});
    for (size_t i = 0; i < rows.size() && names.size() < kSameUserNames; i++)
        for (const char *column : {"form_username", "report_username"}) {
            const std::string &other = rows.str(i, column);
            if (!other.empty() && names.size() < kSameUserNames &&
                std::find(names.begin(), names.end(), other) == names.end())
                names.push_back(other);
        }
    return names;
}

std::vector<Store::UserReport> Store::byUser(const std::string &name, int64_t limit) {
    // Always eight names, the first repeated where there are fewer.
    auto n = sameUser(name);
    static_assert(kSameUserNames == 8);
    n.resize(kSameUserNames, n[0]);
    auto rows = db_.read(
        withWorstRules(db_.dialect(), std::string("SELECT ") + kListColumns +
                                          " FROM reports WHERE reference IS NOT NULL AND"
                                          " (form_username IN ($1, $2, $3, $4, $5, $6, $7, $8) OR"
                                          " report_username IN ($1, $2, $3, $4, $5, $6, $7, $8))"
                                          " ORDER BY id DESC LIMIT $9"),
        {sql::text(n[0]), sql::text(n[1]), sql::text(n[2]), sql::text(n[3]), sql::text(n[4]),
         sql::text(n[5]), sql::text(n[6]), sql::text(n[7]), sql::integer(limit)});
    std::vector<UserReport> out;
    for (size_t i = 0; i < rows.size(); i++) {
        UserReport u;
        u.item = listed(rows, i);
        u.outcomes = outcomes(rows.integer(i, "id"));
        out.push_back(std::move(u));
    }
    return out;
}

std::string worstTitle(const ListItem &it) {
    if (it.level == "ok")
        return "no problem found";
    if (it.worst_rule.empty())
        return it.summary;
    const kobtriage::Rule *rule = kobtriage::findRule(it.worst_rule);
    return rule ? std::string(rule->title) : it.worst_rule;
}

bool Store::remove(const std::string &reference) {
    if (!plausibleReference(reference))
        return false;
    bool found = false;
    db_.transaction([&](sql::Conn &c) {
        auto rows = c.query("DELETE FROM reports WHERE reference = $1 RETURNING id,"
                            " form_username, report_username",
                            {sql::text(reference)});
        found = !rows.empty();
        if (!found)
            return;
        dropUserNames(c, rows.opt(0, "form_username"), rows.opt(0, "report_username"));
        dropOutcomes(c, rows.integer(0, "id"));
        c.query("DELETE FROM report_networks WHERE report_id = $1",
                {sql::integer(rows.integer(0, "id"))});
        dropSearchable(c, db_.dialect(), rows.integer(0, "id"));
        purgeDroppedWords(c, db_.dialect());
    });
    if (found)
        db_.scrub();
    return found;
}

Store::RulesCount Store::countByRules(int rules) {
    auto rows = db_.read("SELECT raw_expired, count(*) AS n FROM reports WHERE rules < $1"
                         " GROUP BY raw_expired",
                         {sql::integer(rules)});
    RulesCount n;
    for (size_t i = 0; i < rows.size(); i++)
        (rows.integer(i, "raw_expired") ? n.expired : n.older) += rows.integer(i, "n");
    return n;
}

} // namespace kobreportd
