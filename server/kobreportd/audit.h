// The audit log: who did what to which report, and when.  Rows are only
// ever added; the database refuses to change or delete them, but for the
// count of a folded row (fold()).

#ifndef KOBREPORTD_AUDIT_H
#define KOBREPORTD_AUDIT_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "sql.h"

namespace kobreportd {

// The longest account name the log keeps; account names are at most 64
// characters of a small set, and anything longer was typed by a stranger.
constexpr size_t kAccountBytes = 64;

// An account name as the log keeps it: at most kAccountBytes, cut where a
// character begins.
std::string accountName(const std::string &account);

struct AuditEntry {
    int64_t id = 0;
    std::time_t at = 0;
    std::string account, address, action, reference, detail;
    int64_t count = 1;       // events folded into the row
    std::time_t last_at = 0; // the latest of them
};

class Audit {
  public:
    explicit Audit(sql::Db &db) : db_(db) {}
    void record(const std::string &account, const std::string &address, const std::string &action,
                const std::string &reference = "", const std::string &detail = "");
    // Events that a client can repeat as fast as it likes (failed and
    // refused sign-ins): one row per action, address, account and minute,
    // whose count goes up with each.
    void fold(const std::string &account, const std::string &address, const std::string &action);
    // Newest first.
    std::vector<AuditEntry> page(int64_t offset, int64_t limit, int64_t &total);
    // When the last of `count` entries of action for this account (or address)
    // within `window` seconds before now was made, if there are that many.
    // A folded row's entries count as made at its latest.
    std::time_t burstEnd(const std::string &action, const char *column, const std::string &who,
                         int count, std::time_t window, std::time_t now);

  private:
    sql::Db &db_;
};

} // namespace kobreportd

#endif
