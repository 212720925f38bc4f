#include "audit.h"

#include <string_view>

#include "clock.h"
#include "text.h"

namespace kobreportd {

std::string accountName(const std::string &account) {
    std::string a = cleanText(account);
    if (a.size() <= kAccountBytes)
        return a;
    size_t cut = kAccountBytes;
    while (cut > 0 && (static_cast<unsigned char>(a[cut]) & 0xc0) == 0x80)
        cut--;
    return a.substr(0, cut);
}

void Audit::record(const std::string &account, const std::string &address,
                   const std::string &action, const std::string &reference,
                   const std::string &detail) {
    std::string a = accountName(account), ad = cleanText(address), r = cleanText(reference),
                d = cleanText(detail);
    db_.write("INSERT INTO audit (at, account, address, action, reference, detail)"
              " VALUES ($1, $2, $3, $4, $5, $6)",
              {sql::integer(now()), sql::text(a), sql::text(ad), sql::text(action), sql::text(r),
               sql::text(d)});
}

void Audit::fold(const std::string &account, const std::string &address,
                 const std::string &action) {
    std::string a = accountName(account), ad = cleanText(address);
    std::time_t t = now();
    db_.transaction([&](sql::Conn &c) {
        auto folded = c.query("UPDATE audit SET count = count + 1, last_at = $1 WHERE id ="
                              " (SELECT max(id) FROM audit WHERE action = $2 AND address = $3 AND"
                              " account = $4 AND at >= $5 AND at <= $1) RETURNING id",
                              {sql::integer(t), sql::text(action), sql::text(ad), sql::text(a),
                               sql::integer(t - t % 60)});
        if (folded.empty())
            c.query("INSERT INTO audit (at, account, address, action, reference, detail, count,"
                    " last_at) VALUES ($1, $2, $3, $4, '', '', 1, $1)",
                    {sql::integer(t), sql::text(a), sql::text(ad), sql::text(action)});
    });
}

std::vector<AuditEntry> Audit::page(int64_t offset, int64_t limit, int64_t &total) {
    total = db_.read("SELECT count(*) AS n FROM audit").integer(0, "n");
    auto rows = db_.read("SELECT id, at, account, address, action, reference, detail, count,"
                         " coalesce(last_at, at) AS last_at FROM audit"
                         " ORDER BY id DESC LIMIT $1 OFFSET $2",
                         {sql::integer(limit), sql::integer(offset)});
    std::vector<AuditEntry> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.integer(i, "id"), static_cast<std::time_t>(rows.integer(i, "at")),
                       rows.str(i, "account"), rows.str(i, "address"), rows.str(i, "action"),
                       rows.str(i, "reference"), rows.str(i, "detail"), rows.integer(i, "count"),
                       static_cast<std::time_t>(rows.integer(i, "last_at"))});
    return out;
}

std::time_t Audit::burstEnd(const std::string &action, const char *column, const std::string &who,
                            int count, std::time_t window, std::time_t now) {
    std::string_view col = column;
    std::string sql = "SELECT coalesce(last_at, at) AS last_at, count FROM audit WHERE action = $1"
                      " AND ";
    sql += col == "address" ? "address" : "account";
    sql += " = $2 AND coalesce(last_at, at) > $3 ORDER BY coalesce(last_at, at) DESC, id DESC"
           " LIMIT $4";
    std::string w = col == "address" ? cleanText(who) : accountName(who);
    // The newest `count` failures, looked at over two windows: the burst
    // itself and the time it keeps the door shut.
    auto rows = db_.read(sql, {sql::text(action), sql::text(w), sql::integer(now - 2 * window),
                               sql::integer(count)});
    int64_t seen = 0;
    for (size_t i = 0; i < rows.size(); i++) {
        seen += rows.integer(i, "count");
        if (seen >= count) {
            std::time_t newest = rows.integer(0, "last_at"), oldest = rows.integer(i, "last_at");
            return newest - oldest <= window ? newest : 0;
        }
    }
    return 0;
}

} // namespace kobreportd
