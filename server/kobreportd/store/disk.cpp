// How much room the store has: what the quotas' guard reads.

#include "quotas.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace kobreportd {

std::function<DiskState()> diskProbe(sql::Db &db, const std::string &name) {
    if (db.dialect() == sql::Dialect::Postgres)
        return [&db] {
            DiskState d;
            try {
                d.db_bytes = static_cast<uint64_t>(
                    db.read("SELECT pg_database_size(current_database()) AS n").integer(0, "n"));
            } catch (const StoreError &) {
                // Unknown this time: the cap is not applied, nothing is refused for it.
            }
            return d;
        };
    std::string dir =
        name.find('/') == std::string::npos ? "." : name.substr(0, name.rfind('/') + 1);
    return [name, dir] {
        DiskState d;
        struct statvfs fs {};
        if (::statvfs(dir.c_str(), &fs) == 0) {
            d.free_bytes = uint64_t{fs.f_bavail} * fs.f_frsize;
            d.total_bytes = uint64_t{fs.f_blocks} * fs.f_frsize;
        }
        uint64_t size = 0;
        for (const char *side : {"", "-wal"}) {
            struct stat st {};
            if (::stat((name + side).c_str(), &st) == 0)
                size += static_cast<uint64_t>(st.st_size);
        }
        d.db_bytes = size;
        return d;
    };
}

std::function<std::optional<uint64_t>()> walProbe(sql::Db &db, const std::string &name) {
    if (db.dialect() == sql::Dialect::Postgres)
        return [] { return std::nullopt; };
    return [wal = name + "-wal"]() -> std::optional<uint64_t> {
        struct stat st {};
        if (::stat(wal.c_str(), &st) == 0)
            return static_cast<uint64_t>(st.st_size);
        if (errno == ENOENT)
            return 0;
        return std::nullopt;
    };
}

} // namespace kobreportd
