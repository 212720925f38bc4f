// The list's filters: each URL parameter of the list (`/` and
// /api/reports) is one row of a table that turns its value into a
// condition on the reports, with its values bound; the conditions of the
// parameters given are ANDed.  Also what intake, retriage, expiry and
// deletion keep for the filters beside a report.

#ifndef KOBREPORTD_SEARCH_H
#define KOBREPORTD_SEARCH_H

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "fleet.h"
#include "sql.h"

namespace kobreportd {

// Conditions on the reports table with their bound values.  Values are
// numbered $1, $2, ... in the order they were bound; a statement adds its
// own after them (next()).
class Conditions {
  public:
    explicit Conditions(sql::Dialect d) : dialect_(d) {}
    sql::Dialect dialect() const { return dialect_; }
    // The placeholder of a value bound now.
    std::string bind(std::string value);
    std::string bind(int64_t value);
    void add(std::string condition) { conditions_.push_back(std::move(condition)); }
    // A condition that names the reports' ids by a query of its own, each id
    // once.
    void addIds(const std::string &ids) { addIds("id IN (" + ids + ")", ids); }
    // A condition on the ids, and a query of the same ids, each once, for
    // counting them.
    void addIds(std::string condition, const std::string &ids) {
        add(std::move(condition));
        ids_ = conditions_.size() == 1 ? ids : "";
    }
    // For the condition just added: a query of the ids of at least the
    // newest {N} reports it takes, cheaper than all of them.
    void setNewest(std::string ids) { newest_ = std::move(ids); }
    // A WHERE clause for the newest n (a placeholder) reports the one
    // condition takes, "" when there is no cheaper one than the condition.
    std::string newestWhere(const std::string &n) const;
    // A statement counting the reports the conditions take: when the one
    // condition is a query of ids, that query's rows, without a look at
    // every report it names.
    std::string countSql(const std::string &where) const;
    // " AND (c1) AND (c2) ...", or "" when there are none.
    std::string sql() const;
    bool empty() const { return conditions_.empty(); }
    // The values as bound, for as long as this lives unchanged.
    std::vector<sql::Param> params() const;
    // The placeholder of the statement's own n-th value (n from 1).
    std::string next(size_t n) const { return "$" + std::to_string(values_.size() + n); }

  private:
    sql::Dialect dialect_;
    std::vector<std::string> conditions_;
    std::string ids_; // the query of ids of the first condition, when it is one
    std::string newest_;
    struct Value {
        bool isInt = false;
        int64_t i = 0;
        std::string s;
    };
    std::deque<Value> values_; // a deque: bound views stay valid as it grows
};

struct ReportFilter {
    explicit ReportFilter(sql::Dialect d) : where(d) {}
    // The parameters in effect (non-empty ones), in the table's order, as
    // given: for links to the same list and for saying what found nothing.
    std::vector<std::pair<std::string, std::string>> given;
    // q named one whole reference: the list page opens that report.
    std::string exact;
    Conditions where;
};

// The list's filter from the request's parameters; the viewer's zone name
// interprets from and to.  A value that cannot be read gives a message
// saying why, for a 400.
std::variant<ReportFilter, std::string>
parseFilter(const std::multimap<std::string, std::string> &params, sql::Dialect d,
            const std::string &zone);

// The reports of one issue.
ReportFilter issueReports(sql::Dialect d, int64_t issue);

// The names of the filter parameters, in the table's order.
std::vector<std::string> filterNames();

// A date (YYYY-MM-DD) or date-time (YYYY-MM-DDThh:mm[:ss], a space for the
// T, a trailing Z meaning UTC) in the named zone, as the span of time it
// names: [first, end).  Nothing for a date that does not exist, or an
// unknown zone.
std::optional<std::pair<std::time_t, std::time_t>> zonedSpan(const std::string &text,
                                                             const std::string &zone);

// The user names a report gives, kept once each for the search by a part
// of a name; and after a report is deleted, its names unless another
// report gives them too.
void addUserNames(sql::Conn &c, const std::optional<std::string> &form,
                  const std::optional<std::string> &report);
void dropUserNames(sql::Conn &c, const std::optional<std::string> &form,
                   const std::optional<std::string> &report);

// Writes what the filters find a report by beside it: its verdicts, and
// its comment's words (why, already cleaned) in the full-text index.
void addSearchable(sql::Conn &c, sql::Dialect d, int64_t id, const std::optional<std::string> &why,
                   const std::vector<RuleVerdict> &verdicts);
// Replaces a report's verdicts (retriage).
void replaceVerdicts(sql::Conn &c, int64_t id, const std::vector<RuleVerdict> &verdicts);
// Takes the comment's words out of the full-text index (expiry, deletion).
void dropWords(sql::Conn &c, sql::Dialect d, int64_t id);
// FTS5 keeps a deleted row's words in its older segments until they are
// merged: this merges them, so that no deleted comment stays in the file.
void purgeDroppedWords(sql::Conn &c, sql::Dialect d);
// Takes the verdicts away too (deletion).
void dropSearchable(sql::Conn &c, sql::Dialect d, int64_t id);

} // namespace kobreportd

#endif
