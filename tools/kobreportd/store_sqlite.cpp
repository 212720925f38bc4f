// SQLite: one file in write-ahead-log mode.  Writers take turns on one
// connection under a mutex (SQLite writes one at a time anyway, and waiting
// on a mutex is fairer than its busy-retry sleeps); readers have a pool and
// never wait for a writer.

#include "store.h"

#include <condition_variable>
#include <mutex>
#include <sqlite3.h>

namespace kobreportd {

namespace {

class Db {
  public:
    explicit Db(const std::string &path) {
        int rc = sqlite3_open_v2(path.c_str(), &db_,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) {
            std::string msg = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
            sqlite3_close(db_);
            throw StoreError("cannot open " + path + ": " + msg);
        }
        sqlite3_busy_timeout(db_, 30000);
        // An answered report must survive a crash of the machine, not only of
        // the process: every commit reaches the disk.
        exec("PRAGMA synchronous=FULL");
    }
    ~Db() { sqlite3_close(db_); }
    Db(const Db &) = delete;
    Db &operator=(const Db &) = delete;

    void exec(const char *sql) {
        char *err = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
            std::string msg = err ? err : "unknown error";
            sqlite3_free(err);
            throw StoreError(std::string(sql) + ": " + msg);
        }
    }
    sqlite3 *get() { return db_; }

  private:
    sqlite3 *db_ = nullptr;
};

class Stmt {
  public:
    Stmt(Db &db, const char *sql) : db_(db) {
        if (sqlite3_prepare_v2(db.get(), sql, -1, &st_, nullptr) != SQLITE_OK)
            throw StoreError(std::string("prepare: ") + sqlite3_errmsg(db.get()));
    }
    ~Stmt() { sqlite3_finalize(st_); }
    Stmt(const Stmt &) = delete;
    Stmt &operator=(const Stmt &) = delete;

    void bind(int i, const std::optional<std::string> &s, bool blob = false) {
        int rc;
        if (!s)
            rc = sqlite3_bind_null(st_, i);
        else if (blob)
            rc = sqlite3_bind_blob64(st_, i, s->data(), s->size(), SQLITE_TRANSIENT);
        else
            rc = sqlite3_bind_text64(st_, i, s->data(), s->size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        check(rc);
    }
    void bind(int i, int64_t v) { check(sqlite3_bind_int64(st_, i, v)); }
    bool step() {
        int rc = sqlite3_step(st_);
        if (rc == SQLITE_ROW)
            return true;
        if (rc == SQLITE_DONE)
            return false;
        throw StoreError(std::string("step: ") + sqlite3_errmsg(db_.get()));
    }
    int64_t integer(int col) { return sqlite3_column_int64(st_, col); }
    std::optional<std::string> text(int col) {
        if (sqlite3_column_type(st_, col) == SQLITE_NULL)
            return std::nullopt;
        const void *p = sqlite3_column_blob(st_, col);
        int n = sqlite3_column_bytes(st_, col);
        return std::string(static_cast<const char *>(p), p ? static_cast<size_t>(n) : 0);
    }

  private:
    void check(int rc) {
        if (rc != SQLITE_OK)
            throw StoreError(std::string("bind: ") + sqlite3_errmsg(db_.get()));
    }
    Db &db_;
    sqlite3_stmt *st_ = nullptr;
};

class SqliteStore : public Store {
  public:
    explicit SqliteStore(std::string path) : path_(std::move(path)), writer_(path_) {
        writer_.exec("PRAGMA journal_mode=WAL");
        writer_.exec("CREATE TABLE IF NOT EXISTS reports ("
                     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
                     " reference TEXT UNIQUE,"
                     " received_at INTEGER NOT NULL,"
                     " form_username TEXT,"
                     " report_username TEXT,"
                     " summary TEXT NOT NULL,"
                     " peer TEXT NOT NULL,"
                     " size INTEGER NOT NULL,"
                     " desc BLOB NOT NULL,"
                     " why BLOB)");
    }

    std::string insert(const NewReport &r) override {
        std::lock_guard<std::mutex> lock(writeMutex_);
        writer_.exec("BEGIN IMMEDIATE");
        try {
            Stmt st(writer_, "INSERT INTO reports (received_at, form_username, report_username,"
                             " summary, peer, size, desc, why) VALUES (?,?,?,?,?,?,?,?)");
            st.bind(1, static_cast<int64_t>(r.received_at));
            st.bind(2, r.form_username ? std::optional(cleanText(*r.form_username)) : std::nullopt);
            st.bind(3, r.report_username ? std::optional(cleanText(*r.report_username))
                                         : std::nullopt);
            st.bind(4, cleanText(r.summary));
            st.bind(5, r.peer);
            st.bind(6, static_cast<int64_t>(r.desc.size()));
            st.bind(7, r.desc, true);
            st.bind(8, r.why, true);
            st.step();
            int64_t id = sqlite3_last_insert_rowid(writer_.get());
            std::string ref = makeReference(r.received_at, id);
            Stmt up(writer_, "UPDATE reports SET reference = ? WHERE id = ?");
            up.bind(1, ref);
            up.bind(2, id);
            up.step();
            writer_.exec("COMMIT");
            return ref;
        } catch (...) {
            sqlite3_exec(writer_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
            throw;
        }
    }

    std::optional<StoredReport> get(const std::string &reference) override {
        Reader rd(*this);
        Stmt st(*rd.db, "SELECT id, reference, received_at, form_username, report_username,"
                        " summary, peer, desc, why FROM reports WHERE reference = ?");
        st.bind(1, reference);
        if (!st.step())
            return std::nullopt;
        StoredReport s;
        s.id = st.integer(0);
        s.reference = st.text(1).value_or("");
        s.received_at = static_cast<std::time_t>(st.integer(2));
        s.form_username = st.text(3);
        s.report_username = st.text(4);
        s.summary = st.text(5).value_or("");
        s.peer = st.text(6).value_or("");
        s.desc = st.text(7).value_or("");
        s.why = st.text(8);
        return s;
    }

    ListPage list(const std::string &query, int64_t offset, int64_t limit) override {
        Reader rd(*this);
        const char *where = " WHERE reference IS NOT NULL AND (?1 = '' OR reference = ?1 COLLATE"
                            " NOCASE OR reference LIKE ?2 ESCAPE '\\' OR form_username LIKE ?3"
                            " ESCAPE '\\' OR report_username LIKE ?3 ESCAPE '\\')";
        std::string esc = likeEscape(query);
        ListPage page;
        {
            Stmt st(*rd.db, (std::string("SELECT count(*) FROM reports") + where).c_str());
            st.bind(1, query);
            st.bind(2, esc + "%");
            st.bind(3, "%" + esc + "%");
            if (st.step())
                page.total = st.integer(0);
        }
        Stmt st(*rd.db, (std::string("SELECT reference, received_at, form_username,"
                                     " report_username, summary, size FROM reports") +
                         where + " ORDER BY id DESC LIMIT ?4 OFFSET ?5")
                            .c_str());
        st.bind(1, query);
        st.bind(2, esc + "%");
        st.bind(3, "%" + esc + "%");
        st.bind(4, limit);
        st.bind(5, offset);
        while (st.step()) {
            ListItem it;
            it.reference = st.text(0).value_or("");
            it.received_at = static_cast<std::time_t>(st.integer(1));
            it.form_username = st.text(2);
            it.report_username = st.text(3);
            it.summary = st.text(4).value_or("");
            it.size = st.integer(5);
            page.items.push_back(std::move(it));
        }
        return page;
    }

  private:
    // A reader connection from the pool for the time of one query.
    struct Reader {
        explicit Reader(SqliteStore &s) : store(s) {
            std::lock_guard<std::mutex> lock(s.poolMutex_);
            if (!s.pool_.empty()) {
                db = std::move(s.pool_.back());
                s.pool_.pop_back();
            }
            if (!db)
                db = std::make_unique<Db>(s.path_);
        }
        ~Reader() {
            std::lock_guard<std::mutex> lock(store.poolMutex_);
            if (store.pool_.size() < 16)
                store.pool_.push_back(std::move(db));
        }
        SqliteStore &store;
        std::unique_ptr<Db> db;
    };

    std::string path_;
    Db writer_;
    std::mutex writeMutex_;
    std::mutex poolMutex_;
    std::vector<std::unique_ptr<Db>> pool_;
};

} // namespace

std::unique_ptr<Store> openSqlite(const std::string &path) {
    return std::make_unique<SqliteStore>(path);
}

} // namespace kobreportd
