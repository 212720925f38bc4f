#include "audit.h"

#include <string_view>

#include "clock.h"
#include "text.h"

namespace kobreportd {

void Audit::record(const std::string &account, const std::string &address,
                   const std::string &action, const std::string &reference,
                   const std::string &detail) {
    std::string a = cleanText(account), ad = cleanText(address), r = cleanText(reference),
                d = cleanText(detail);
    db_.write("INSERT INTO audit (at, account, address, action, reference, detail)"
              " VALUES ($1, $2, $3, $4, $5, $6)",
              {sql::integer(now()), sql::text(a), sql::text(ad), sql::text(action), sql::text(r),
               sql::text(d)});
}

std::vector<AuditEntry> Audit::page(int64_t offset, int64_t limit, int64_t &total) {
    total = db_.read("SELECT count(*) AS n FROM audit").integer(0, "n");
    auto rows = db_.read("SELECT id, at, account, address, action, reference, detail FROM audit"
                         " ORDER BY id DESC LIMIT $1 OFFSET $2",
                         {sql::integer(limit), sql::integer(offset)});
    std::vector<AuditEntry> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.integer(i, "id"), static_cast<std::time_t>(rows.integer(i, "at")),
                       rows.str(i, "account"), rows.str(i, "address"), rows.str(i, "action"),
                       rows.str(i, "reference"), rows.str(i, "detail")});
    return out;
}

std::time_t Audit::burstEnd(const std::string &action, const char *column, const std::string &who,
                            int count, std::time_t window, std::time_t now) {
    std::string_view col = column;
    std::string sql = "SELECT at FROM audit WHERE action = $1 AND ";
    sql += col == "address" ? "address" : "account";
    sql += " = $2 AND at > $3 ORDER BY at DESC, id DESC LIMIT $4";
    std::string w = cleanText(who);
    // The newest `count` failures, looked at over two windows: the burst
    // itself and the time it keeps the door shut.
    auto rows = db_.read(sql, {sql::text(action), sql::text(w), sql::integer(now - 2 * window),
                               sql::integer(count)});
    if (static_cast<int>(rows.size()) < count)
        return 0;
    std::time_t newest = rows.integer(0, "at"), oldest = rows.integer(rows.size() - 1, "at");
    return newest - oldest <= window ? newest : 0;
}

} // namespace kobreportd
