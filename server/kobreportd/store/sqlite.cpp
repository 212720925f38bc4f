// SQLite: one file in write-ahead-log mode.  Writers take turns on one
// connection under a mutex (SQLite writes one at a time anyway, and waiting
// on a mutex is fairer than its busy-retry sleeps); readers have a pool and
// never wait for a writer.

#include "sql.h"
#include "log.h"

#include "log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <mutex>
#include <pwd.h>
#include <span>
#include <sqlite3.h>
#include <sys/stat.h>
#include <thread>
#include <unordered_map>
#include <vector>
#include <unistd.h>

namespace kobreportd::sql {

namespace {

class Handle {
  public:
    explicit Handle(const std::string &path,
                    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
        int rc = sqlite3_open_v2(path.c_str(), &db_, flags | SQLITE_OPEN_NOMUTEX, nullptr);
        if (rc != SQLITE_OK) {
            std::string msg = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
            sqlite3_close(db_);
            throw StoreError("cannot open " + path + ": " + msg);
        }
        sqlite3_busy_timeout(db_, 30000);
        // An answered report must survive a crash of the machine, not only of
        // the process: every commit reaches the disk before its uploads are
        // answered.  NORMAL would leave the log unsynced until a checkpoint,
        // to save a few percent of the bytes written (the log's last page,
        // written again by the next commit after each sync).
        exec("PRAGMA synchronous=FULL");
        // Deleted reports are overwritten in the file, not only unlinked.
        exec("PRAGMA secure_delete=ON");
    }
    ~Handle() {
        forget();
        sqlite3_close(db_);
    }
    sqlite3 *raw() { return db_; }
    // A file stays usable: nothing to open again.
    bool ok() const { return true; }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    void exec(const char *sql) {
        char *err = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
            std::string msg = err ? err : "unknown error";
            sqlite3_free(err);
            throw StoreError(std::string(sql) + ": " + msg);
        }
    }

    Rows query(std::string_view text, const Param *params, size_t count) {
        sqlite3_stmt *st = statement(text);
        // Made ready for its next use however this one ends; its bindings
        // point into the caller's parameters, so they go too.
        struct Done {
            sqlite3_stmt *st;
            ~Done() {
                sqlite3_reset(st);
                sqlite3_clear_bindings(st);
            }
        } done{st};
        int i = 1;
        for (const Param &p : std::span<const Param>(params, count)) {
            int rc = SQLITE_OK;
            switch (p.kind) {
            case Param::Kind::Null:
                rc = sqlite3_bind_null(st, i);
                break;
            case Param::Kind::Int:
                rc = sqlite3_bind_int64(st, i, p.i);
                break;
            case Param::Kind::Text:
                rc = sqlite3_bind_text64(st, i, p.s.data(), p.s.size(), SQLITE_STATIC, SQLITE_UTF8);
                break;
            case Param::Kind::Blob:
                rc = sqlite3_bind_blob64(st, i, p.s.data(), p.s.size(), SQLITE_STATIC);
                break;
            }
            if (rc != SQLITE_OK)
                throw StoreError(std::string("bind: ") + sqlite3_errmsg(db_));
            i++;
        }
        Rows rows;
        for (bool first = true;; first = false) {
            int rc = sqlite3_step(st);
            // Named after the first step: a kept statement is prepared
            // again there if the tables changed, "*" and all.
            if (first) {
                int columns = sqlite3_column_count(st);
                std::vector<std::string> names;
                names.reserve(static_cast<size_t>(columns));
                for (int c = 0; c < columns; c++)
                    names.emplace_back(sqlite3_column_name(st, c));
                rows.setColumns(std::move(names));
            }
            if (rc == SQLITE_DONE)
                break;
            if (rc != SQLITE_ROW)
                throw StoreError(std::string("step: ") + sqlite3_errmsg(db_));
            auto &row = rows.addRow();
            int n = sqlite3_column_count(st);
            for (int c = 0; c < n; c++) {
                Cell cell;
                switch (sqlite3_column_type(st, c)) {
                case SQLITE_NULL:
                    break;
                case SQLITE_INTEGER:
                    cell.null = false;
                    cell.isInt = true;
                    cell.i = sqlite3_column_int64(st, c);
                    break;
                default: {
                    cell.null = false;
                    const void *b = sqlite3_column_blob(st, c);
                    int len = sqlite3_column_bytes(st, c);
                    if (b)
                        cell.s.assign(static_cast<const char *>(b), static_cast<size_t>(len));
                }
                }
                row.push_back(std::move(cell));
            }
        }
        return rows;
    }

    using Blob = std::unique_ptr<sqlite3_blob, int (*)(sqlite3_blob *)>;

    Blob openBlob(const char *table, const char *column, int64_t rowid, bool writing) {
        sqlite3_blob *b = nullptr;
        if (sqlite3_blob_open(db_, "main", table, column, rowid, writing ? 1 : 0, &b) !=
            SQLITE_OK) {
            std::string msg = sqlite3_errmsg(db_);
            sqlite3_blob_close(b);
            throw StoreError("blob open: " + msg);
        }
        return Blob(b, sqlite3_blob_close);
    }

    void fillBlob(const char *table, const char *column, int64_t rowid, std::string_view data) {
        Blob b = openBlob(table, column, rowid, true);
        for (size_t off = 0; off < data.size();) {
            size_t n = std::min(data.size() - off, kBlobPiece);
            if (sqlite3_blob_write(b.get(), data.data() + off, static_cast<int>(n),
                                   static_cast<int>(off)) != SQLITE_OK)
                throw StoreError(std::string("blob write: ") + sqlite3_errmsg(db_));
            off += n;
        }
    }

    // Up to max bytes of a blob from offset; "" past its end.
    std::string readBlob(const char *table, const char *column, int64_t rowid, int64_t offset,
                         int64_t max) {
        Blob b = openBlob(table, column, rowid, false);
        int64_t size = sqlite3_blob_bytes(b.get());
        if (offset >= size)
            return {};
        std::string out(static_cast<size_t>(std::min(max, size - offset)), '\0');
        if (sqlite3_blob_read(b.get(), out.data(), static_cast<int>(out.size()),
                              static_cast<int>(offset)) != SQLITE_OK)
            throw StoreError(std::string("blob read: ") + sqlite3_errmsg(db_));
        return out;
    }

  private:
    // A statement prepared once and kept by its text: an upload's commit
    // runs some thirty, the same ones each time, and preparing one cost
    // more than running it.  Texts made up for one search come and go, so
    // the kept ones are bounded; past the bound they are all let go and
    // the ones in use are soon prepared again.
    sqlite3_stmt *statement(std::string_view text) {
        auto it = statements_.find(text);
        if (it != statements_.end())
            return it->second;
        if (statements_.size() >= kKeptStatements)
            forget();
        // $n becomes ?n, SQLite's numbered parameter.
        std::string q(text);
        for (size_t i = 0; i + 1 < q.size(); i++)
            if (q[i] == '$' && std::isdigit(static_cast<unsigned char>(q[i + 1])))
                q[i] = '?';
        sqlite3_stmt *st = nullptr;
        if (sqlite3_prepare_v3(db_, q.c_str(), static_cast<int>(q.size()),
                               SQLITE_PREPARE_PERSISTENT, &st, nullptr) != SQLITE_OK) {
            sqlite3_finalize(st);
            throw StoreError(std::string("prepare: ") + sqlite3_errmsg(db_));
        }
        if (!st)
            throw StoreError("prepare: no statement in \"" + q + "\"");
        statements_.emplace(std::string(text), st);
        return st;
    }

    void forget() {
        for (auto &[text, st] : statements_)
            sqlite3_finalize(st);
        statements_.clear();
    }

    struct TextHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
    };

    static constexpr size_t kBlobPiece = size_t{1} << 20;
    static constexpr size_t kKeptStatements = 64;
    sqlite3 *db_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt *, TextHash, std::equal_to<>> statements_;
};

class HandleConn : public Conn {
  public:
    explicit HandleConn(Handle &h) : h_(h) {}

  protected:
    Rows run(std::string_view sql, const Param *params, size_t count) override {
        return h_.query(sql, params, count);
    }
    void fillBlob(const char *table, const char *column, int64_t rowid,
                  std::string_view data) override {
        h_.fillBlob(table, column, rowid, data);
    }

  private:
    Handle &h_;
};

class SqliteDb : public Db {
  public:
    explicit SqliteDb(std::string path)
        : path_(std::move(path)), writer_(path_),
          readers_(16, [this] { return std::make_unique<Handle>(path_); }) {
        // Only a new, empty file takes it; a file made with other pages
        // keeps them (changing them means a VACUUM out of WAL mode, a
        // rewrite of the whole file, which is the operator's to choose).
        // Every commit writes each page it touches whole, into the log and
        // again into the file at the next checkpoint: a report of a few KB
        // touches a handful of pages (its row, the indexes, its outcomes),
        // so small pages keep what it costs the disk near its own size.  A
        // report of a megabyte is a chain of pages either way, a quarter
        // percent of each page's room lost to its link.
        writer_.exec(("PRAGMA page_size=" + std::to_string(kPageSize)).c_str());
        // Also only for a new file: pages freed by expiry and deletion are
        // given back to the file system by scrub(), not kept for reuse.
        writer_.exec("PRAGMA auto_vacuum=INCREMENTAL");
        writer_.exec("PRAGMA journal_mode=WAL");
        // After a checkpoint the log starts again from its beginning, but
        // the file keeps the size it grew to: cut back to this bound then.
        writer_.exec(("PRAGMA journal_size_limit=" + std::to_string(kWalFileLimit)).c_str());
        walPage_ = writer_.query("PRAGMA page_size", nullptr, 0).integer(0, "page_size");
        if (walPage_ > kPageSize)
            log::warn("database_large_pages",
                      {{"path", path_},
                       {"page_size", walPage_},
                       {"page_size_of_new_files", kPageSize},
                       {"why", "every commit writes each page it touches whole"},
                       {"remedy", "with the server stopped: PRAGMA journal_mode=DELETE; PRAGMA "
                                  "page_size=4096; VACUUM; PRAGMA journal_mode=WAL"}});
        // A batch of reports is committed whole: its pages stay in memory
        // until the commit instead of spilling into the log on the way.
        writer_.exec("PRAGMA cache_size=-16384");
        // An insert into a batch saves the pages it changes, in case it
        // fails alone; in memory that is a copy, in a temporary file it
        // was a third of what a batch wrote.
        writer_.exec("PRAGMA temp_store=MEMORY");
        // Folding the log back into the file (a checkpoint) copies every
        // page written since the last one.  A thread of its own does it, so
        // that a commit, which every waiting upload waits for, does not.
        sqlite3_wal_hook(writer_.raw(), &SqliteDb::walGrew, this);
        checkpointer_ = std::thread([this] { checkpoints(); });
    }

    ~SqliteDb() override {
        {
            std::lock_guard<std::mutex> lock(checkpointMutex_);
            stopping_ = true;
        }
        checkpointWanted_.notify_one();
        checkpointer_.join();
    }
    SqliteDb(const SqliteDb &) = delete;
    SqliteDb &operator=(const SqliteDb &) = delete;

    Dialect dialect() const override { return Dialect::Sqlite; }

    Rows readRows(std::string_view sql, const Param *params, size_t count) override {
        Pool<Handle>::Lease h(readers_);
        return h->query(sql, params, count);
    }

    // Straight from the blob's pages: substr() would read the whole value
    // for every piece.
    std::function<std::string()> pieces(const char *table, const char *column,
                                        int64_t id) override {
        return [this, table, column, id, at = int64_t{0}]() mutable {
            Pool<Handle>::Lease h(readers_);
            std::string piece = h->readBlob(table, column, id, at, kPiece);
            at += static_cast<int64_t>(piece.size());
            return piece;
        };
    }

    void runTransaction(const std::function<void(Conn &)> &body) override {
        std::lock_guard<std::mutex> lock(writeMutex_);
        writer_.exec("BEGIN IMMEDIATE");
        try {
            HandleConn c(writer_);
            body(c);
            writer_.exec("COMMIT");
        } catch (...) {
            try {
                writer_.exec("ROLLBACK");
            } catch (const StoreError &) {
                // A failed COMMIT may already have ended the transaction.
            }
            throw;
        }
    }

    void runScrub() override {
        std::lock_guard<std::mutex> lock(writeMutex_);
        // Readers may hold old pages of the log; only pages no reader needs
        // are folded back, so drop the idle readers first.
        readers_.clear();
        writer_.exec("PRAGMA incremental_vacuum");
        writer_.query("PRAGMA wal_checkpoint(TRUNCATE)", nullptr, 0);
    }

    std::string file() const override { return path_ == ":memory:" ? "" : path_; }

    void copyTo(const std::string &file, const std::function<void(Conn &)> &check) override {
        createPrivate(file);
        try {
            {
                // VACUUM INTO reads the database in one read transaction,
                // which in write-ahead-log mode never holds up the writer:
                // uploads go on while the copy is written.  The backup API
                // copying a few pages at a time would start over at every
                // commit of the server's, and so never end under a steady
                // stream of uploads.
                Pool<Handle>::Lease h(readers_);
                Param into = text(file);
                h->query("VACUUM INTO $1", &into, 1);
            }
            // SQLite does not sync what VACUUM INTO writes.
            syncToDisk(file);
            Handle copy(file, SQLITE_OPEN_READWRITE);
            Rows verdict = copy.query("PRAGMA integrity_check", nullptr, 0);
            if (verdict.size() != 1 || verdict.str(0, "integrity_check") != "ok")
                throw StoreError("the copy " + file + " failed its integrity check: " +
                                 (verdict.empty() ? "" : verdict.str(0, "integrity_check")));
            HandleConn c(copy);
            check(c);
        } catch (...) {
            for (const char *side : {"", "-wal", "-shm", "-journal"})
                ::unlink((file + side).c_str());
            throw;
        }
    }

  private:
    // The copy's file, made before SQLite writes into it, so that it is
    // never readable to others and an existing file is never overwritten.
    static void createPrivate(const std::string &file) {
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0600);
        if (fd < 0)
            throw StoreError("cannot write " + file + ": " +
                             (errno == EEXIST ? std::string("it exists already")
                                              : std::string(std::strerror(errno))));
        bool ok = ::fchmod(fd, 0600) == 0;
        int err = errno;
        ::close(fd);
        if (!ok) {
            ::unlink(file.c_str());
            throw StoreError("cannot make " + file + " private: " + std::strerror(err));
        }
    }

    // The file's bytes and its name in its directory.
    static void syncToDisk(const std::string &file) {
        std::string dir = file.find('/') == std::string::npos
                              ? std::string(".")
                              : file.substr(0, std::max<size_t>(1, file.rfind('/')));
        for (const std::string &p : {file, dir}) {
            int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
            bool ok = fd >= 0 && ::fsync(fd) == 0;
            int err = errno;
            if (fd >= 0)
                ::close(fd);
            if (!ok)
                throw StoreError("cannot sync " + p + " to disk: " + std::strerror(err));
        }
    }

    // After each commit, with the number of pages in the log.
    static int walGrew(void *self, sqlite3 *db, const char *, int pages) {
        auto *s = static_cast<SqliteDb *>(self);
        int64_t bytes = int64_t{pages} * s->walPage_;
        if (bytes >= kWalLimit) {
            // The thread has been kept waiting too long: the writer does it,
            // as SQLite would on its own.
            sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        } else if (bytes >= kWalCheckpoint) {
            std::lock_guard<std::mutex> lock(s->checkpointMutex_);
            s->walBytes_ = bytes;
            s->lastCommit_ = std::chrono::steady_clock::now();
            s->checkpointDue_ = true;
            s->checkpointWanted_.notify_one();
        }
        return SQLITE_OK;
    }

    // A checkpoint writes every page a second time, now into the database
    // file: during a burst of uploads it would halve the disk's speed for
    // the commits that answers wait for.  So it waits for a pause in the
    // commits, unless the log has grown large.
    void checkpoints() {
        std::unique_ptr<Handle> h;
        std::unique_lock<std::mutex> lock(checkpointMutex_);
        for (;;) {
            checkpointWanted_.wait(lock, [this] { return checkpointDue_ || stopping_; });
            while (!stopping_ && walBytes_ < kWalBusyLimit &&
                   std::chrono::steady_clock::now() - lastCommit_ < kQuiet)
                checkpointWanted_.wait_until(lock, lastCommit_ + kQuiet);
            if (stopping_)
                return;
            checkpointDue_ = false;
            lock.unlock();
            try {
                if (!h)
                    h = std::make_unique<Handle>(path_);
                // Passive: it copies what no reader still needs and never
                // waits for the writer or a reader.
                h->query("PRAGMA wal_checkpoint(PASSIVE)", nullptr, 0);
            } catch (const StoreError &e) {
                log::error("checkpoint_failed", {{"error", e.what()}});
            }
            lock.lock();
        }
    }

    // The log is folded back at the next pause once it holds this much,
    // without waiting for one from the next bound on, and by the writer
    // itself from the last; the file is cut back to kWalFileLimit.  The
    // bounds without a pause sit high: a checkpoint in the middle of a
    // burst of large uploads writes beside their commits (200 uploads of
    // 1 MiB took 0.69 s with the busy bound at 16 MiB, 0.59 s at 40).  A log
    // left to grow during a long burst was folded back only at the stop,
    // hundreds of MB later, and kept that size on disk.
    static constexpr int64_t kPageSize = 4096;
    static constexpr int64_t kWalCheckpoint = int64_t{4} << 20;
    static constexpr int64_t kWalBusyLimit = int64_t{40} << 20;
    static constexpr auto kQuiet = std::chrono::milliseconds(200);
    static constexpr int64_t kWalLimit = int64_t{56} << 20;
    static constexpr int64_t kWalFileLimit = int64_t{64} << 20;

    std::string path_;
    Handle writer_;
    std::mutex writeMutex_;
    Pool<Handle> readers_;
    int64_t walPage_ = 4096;
    std::mutex checkpointMutex_;
    std::condition_variable checkpointWanted_;
    bool checkpointDue_ = false, stopping_ = false;
    int64_t walBytes_ = 0;
    std::chrono::steady_clock::time_point lastCommit_;
    std::thread checkpointer_;
};

// A first command run before the service ever started finds no state
// directory: it is made, for whoever runs the command and closed to others,
// when its parent exists and may be written; else the message says how.
void makeDirectory(const std::string &path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return;
    std::string dir = path.substr(0, slash);
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0 || errno != ENOENT)
        return;
    if (::mkdir(dir.c_str(), 0700) == 0) {
        log::info("state_directory_made", {{"directory", dir}});
        return;
    }
    int err = errno;
    // The reentrant forms: other threads may be looking names up too.
    std::vector<char> buf(16384);
    struct passwd pwd {};
    struct passwd *pw = nullptr;
    struct group grp {};
    struct group *gr = nullptr;
    std::string owner = ::getpwuid_r(::geteuid(), &pwd, buf.data(), buf.size(), &pw) == 0 && pw
                            ? pw->pw_name
                            : std::to_string(::geteuid());
    std::string group = ::getgrgid_r(::getegid(), &grp, buf.data(), buf.size(), &gr) == 0 && gr
                            ? gr->gr_name
                            : std::to_string(::getegid());
    throw StoreError("cannot open " + path + ": the directory " + dir +
                     " does not exist and cannot be made (" + std::strerror(err) +
                     "); make it as root with: install -d -m 0700 -o " + owner + " -g " + group +
                     " " + dir);
}

// The reports hold users' addresses and logs: the file is the service's
// alone whatever the umask, and SQLite gives its log and shared-memory files
// the file's own mode.  A file that an earlier version left readable to
// others is closed to them, and so are its side files.
void keepPrivate(const std::string &path) {
    makeDirectory(path);
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0)
        throw StoreError("cannot open " + path + ": " + std::strerror(errno));
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && ((st.st_mode & 0077) == 0 || ::fchmod(fd, 0600) == 0);
    int err = errno;
    ::close(fd);
    if (!ok)
        throw StoreError("cannot make " + path + " private: " + std::strerror(err));
    for (const char *side : {"-wal", "-shm", "-journal"}) {
        std::string p = path + side;
        if (::stat(p.c_str(), &st) == 0 && (st.st_mode & 0077) != 0 &&
            ::chmod(p.c_str(), 0600) != 0)
            throw StoreError("cannot make " + p + " private: " + std::strerror(errno));
    }
}

} // namespace

std::unique_ptr<Db> openSqlite(const std::string &path) {
    // A database in memory has no file to keep private (and must not get
    // one named after it).
    if (path != ":memory:" && path.rfind("file:", 0) != 0)
        keepPrivate(path);
    return std::make_unique<SqliteDb>(path);
}

} // namespace kobreportd::sql
