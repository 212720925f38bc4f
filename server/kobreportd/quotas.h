// What anonymous uploads may take of the disk: a budget of bytes per client
// address per day (UTC), and a guard for the whole store (free space on the
// database's file system, and the database's size if the operator caps it).
// Refused uploads store nothing, and nothing already stored is touched.

#ifndef KOBREPORTD_QUOTAS_H
#define KOBREPORTD_QUOTAS_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "sql.h"

namespace kobreportd {

struct QuotaOptions {
    uint64_t per_address_per_day = uint64_t{256} << 20; // 0: no budget
    double min_free_disk = 0.05;                        // share of the file system
    uint64_t max_db_size = 0;                           // 0: no cap
};

// The store's disk as a probe sees it; a probe that cannot tell answers
// nothing for that part, and that part is not guarded.
struct DiskState {
    std::optional<uint64_t> free_bytes, total_bytes, db_bytes;
};

struct Refusal {
    int status = 0;      // 429 or 507
    const char *reason;  // for /metrics: "address_quota", "disk_free", "db_size"
    std::string text;    // the answer's body
    int retry_after = 0; // seconds, 0: none
};

class Quotas {
  public:
    Quotas(const QuotaOptions &options, std::function<DiskState()> probe);

    // Before a body is read: may `bytes` more from this address be taken
    // now?  Nothing when they may, and then they are held against the
    // address's budget until received() says how many came, so that
    // uploads at once cannot each pass on the same room.
    std::optional<Refusal> admit(const std::string &address, uint64_t bytes, std::time_t now);
    // After an admitted upload: the bytes that did arrive count against the
    // address's budget, whatever the request claimed.
    void received(const std::string &address, uint64_t claimed, uint64_t got, std::time_t now);

    // Whether the store's guard refuses every upload now (its reason and
    // text), whatever the address.
    std::optional<Refusal> full(std::time_t now);

  private:
    std::optional<Refusal> storeGuard(uint64_t bytes, std::time_t now);
    DiskState disk(std::time_t now);
    void newDay(std::time_t now);
    QuotaOptions options_;
    std::function<DiskState()> probe_;
    std::mutex mutex_;
    std::map<std::string, uint64_t> used_; // today's bytes per address
    std::time_t day_ = 0;
    DiskState disk_;
    std::time_t diskAt_ = -1;
};

// The probe of the database named on the command line (store/disk.cpp):
// an SQLite file's file system and size (with its log); a PostgreSQL
// database's size, its server's disk being out of sight.
std::function<DiskState()> diskProbe(sql::Db &db, const std::string &name);
// The bytes of the SQLite file's write-ahead log (0 while there is none);
// nothing at all on PostgreSQL, whose log is the server's own.
std::function<std::optional<uint64_t>()> walProbe(sql::Db &db, const std::string &name);

} // namespace kobreportd

#endif
