// One small interface over the two databases kobreportd can keep its data
// in, so that every query is written once.  Statements name their
// parameters $1, $2, ...; values are always bound, never pasted into SQL.

#ifndef KOBREPORTD_SQL_H
#define KOBREPORTD_SQL_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kobreportd {

struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

namespace sql {

// A bound value.  Text and blobs are views: the caller keeps them alive for
// the call.
struct Param {
    enum class Kind { Null, Int, Text, Blob };
    Kind kind = Kind::Null;
    int64_t i = 0;
    std::string_view s;
};

inline Param null() {
    return {};
}
inline Param integer(int64_t v) {
    return {Param::Kind::Int, v, {}};
}
inline Param text(std::string_view v) {
    return {Param::Kind::Text, 0, v};
}
inline Param blob(std::string_view v) {
    return {Param::Kind::Blob, 0, v};
}
inline Param optText(const std::optional<std::string> &v) {
    return v ? text(*v) : null();
}
inline Param optBlob(const std::optional<std::string> &v) {
    return v ? blob(*v) : null();
}

struct Cell {
    bool null = true;
    bool isInt = false;
    int64_t i = 0;
    std::string s;
};

// The rows a statement gave, read by the names of their columns (an
// expression's column needs an AS name).
class Rows {
  public:
    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    bool isNull(size_t r, std::string_view column) const { return cell(r, column).null; }
    int64_t integer(size_t r, std::string_view column) const;
    const std::string &str(size_t r, std::string_view column) const { return cell(r, column).s; }
    std::optional<std::string> opt(size_t r, std::string_view column) const {
        if (isNull(r, column))
            return std::nullopt;
        return str(r, column);
    }

    // For the stores filling it: the names first, then the rows.
    void setColumns(std::vector<std::string> names) { columns_ = std::move(names); }
    std::vector<Cell> &addRow() { return rows_.emplace_back(); }

  private:
    // Throws StoreError for a name the statement did not select.
    const Cell &cell(size_t r, std::string_view column) const;
    std::vector<std::string> columns_;
    std::vector<std::vector<Cell>> rows_;
};

// Idle connections kept for the next call.  A lease takes one, or opens a
// new one, for one call and gives it back afterwards, unless it broke or
// enough are idle already.  C needs a `bool ok() const`.
template <typename C> class Pool {
  public:
    Pool(size_t keep, std::function<std::unique_ptr<C>()> open)
        : keep_(keep), open_(std::move(open)) {}

    class Lease {
      public:
        explicit Lease(Pool &p) : pool_(p) {
            {
                std::lock_guard<std::mutex> lock(p.mutex_);
                if (!p.idle_.empty()) {
                    c_ = std::move(p.idle_.back());
                    p.idle_.pop_back();
                }
            }
            if (!c_ || !c_->ok())
                c_ = p.open_();
        }
        ~Lease() {
            if (!c_->ok())
                return;
            std::lock_guard<std::mutex> lock(pool_.mutex_);
            if (pool_.idle_.size() < pool_.keep_)
                pool_.idle_.push_back(std::move(c_));
        }
        Lease(const Lease &) = delete;
        Lease &operator=(const Lease &) = delete;
        C *operator->() { return c_.get(); }
        C &operator*() { return *c_; }

      private:
        Pool &pool_;
        std::unique_ptr<C> c_;
    };

    // Closes the idle connections.
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        idle_.clear();
    }

  private:
    size_t keep_;
    std::function<std::unique_ptr<C>()> open_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<C>> idle_;
};

enum class Dialect { Sqlite, Postgres };

// One connection, held for a transaction.
class Conn {
  public:
    virtual ~Conn() = default;
    Rows query(std::string_view sql, std::initializer_list<Param> params = {}) {
        return run(sql, params.begin(), params.size());
    }
    // For statements whose parameters are counted at run time (rows of one
    // INSERT).
    Rows query(std::string_view sql, const std::vector<Param> &params) {
        return run(sql, params.data(), params.size());
    }
    // SQLite only: writes data into a blob column of one row that was
    // inserted with zeroblob() of the same length, a piece at a time, so
    // that a large value is not first copied whole into a record.
    virtual void fillBlob(const char *table, const char *column, int64_t rowid,
                          std::string_view data);

  protected:
    virtual Rows run(std::string_view sql, const Param *params, size_t count) = 0;
};

class Db {
  public:
    virtual ~Db() = default;
    virtual Dialect dialect() const = 0;
    // A read on a connection of its own; never waits for a writer.
    Rows read(std::string_view sql, std::initializer_list<Param> params = {});
    // For statements whose parameters are counted at run time.
    Rows read(std::string_view sql, const std::vector<Param> &params);
    // Runs body in one transaction that is committed when body returns and
    // rolled back when it throws.  Writers take turns.
    void transaction(const std::function<void(Conn &)> &body);
    // One statement in a transaction of its own.
    Rows write(std::string_view sql, std::initializer_list<Param> params = {});
    // After deleting text that must not stay on disk: make the database file
    // itself hold no copy of it (SQLite's log is folded back and emptied).
    void scrub();
    // The file the database lives in; empty for PostgreSQL and a database
    // in memory.
    virtual std::string file() const { return {}; }
    // SQLite only: writes a consistent copy of the database as it is now
    // into file, which must not exist yet; it is made 0600 and synced to
    // disk, and its integrity checked, before check runs on it (read only).
    // Writers go on meanwhile.  Throws StoreError, leaving no file behind.
    virtual void copyTo(const std::string &file, const std::function<void(Conn &)> &check);
    // A blob (bytea) column's value in the row of that id, a megabyte at a
    // time, and "" after the last: a large value is never fetched whole.
    virtual std::function<std::string()> pieces(const char *table, const char *column, int64_t id);
    static constexpr int64_t kPiece = int64_t{1} << 20;

    // Told of every read, transaction and scrub once it is over: how long
    // it took and whether the database failed it (a StoreError; anything
    // else a body throws is the caller's own failure).  Set before the
    // first call from more than one thread.
    using Observer = std::function<void(double seconds, bool failed)>;
    void observe(Observer observer) { observer_ = std::move(observer); }

  protected:
    virtual Rows readRows(std::string_view sql, const Param *params, size_t count) = 0;
    virtual void runTransaction(const std::function<void(Conn &)> &body) = 0;
    virtual void runScrub() = 0;

  private:
    template <typename F> decltype(auto) observed(F &&call);
    Observer observer_;
};

std::unique_ptr<Db> openSqlite(const std::string &path);
std::unique_ptr<Db> openPostgres(const std::string &url);

} // namespace sql

// Opens the database named on the command line: a postgresql:// URL or a
// file.
std::unique_ptr<sql::Db> openDatabase(const std::string &name);
// A postgresql:// (or postgres://) URL rather than a file.
bool isDatabaseUrl(const std::string &name);

} // namespace kobreportd

#endif
