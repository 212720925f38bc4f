// PostgreSQL: several kobreportd instances can share one database.  The
// report number comes from the table's sequence, so references stay unique
// across instances; each insert is its own committed transaction.

#include "store.h"

#include <cstring>
#include <endian.h>
#include <libpq-fe.h>
#include <mutex>

namespace kobreportd {

namespace {

struct Result {
    explicit Result(PGresult *r) : res(r) {}
    ~Result() { PQclear(res); }
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;
    PGresult *res;
    bool null(int row, int col) const { return PQgetisnull(res, row, col) != 0; }
    std::string str(int row, int col) const {
        return std::string(PQgetvalue(res, row, col),
                           static_cast<size_t>(PQgetlength(res, row, col)));
    }
    std::optional<std::string> opt(int row, int col) const {
        if (null(row, col))
            return std::nullopt;
        return str(row, col);
    }
    // Columns asked for in binary: an int8 arrives in network byte order.
    int64_t int8(int row, int col) const {
        uint64_t v = 0;
        if (PQgetlength(res, row, col) == 8)
            std::memcpy(&v, PQgetvalue(res, row, col), 8);
        return static_cast<int64_t>(be64toh(v));
    }
};

// Parameters, all sent in binary so bytes pass unchanged.
class Params {
  public:
    void add(const std::optional<std::string> &s) {
        if (s) {
            store_.push_back(*s);
            present_.push_back(true);
        } else {
            store_.emplace_back();
            present_.push_back(false);
        }
    }
    void add(int64_t v) {
        uint64_t be = htobe64(static_cast<uint64_t>(v));
        store_.emplace_back(reinterpret_cast<const char *>(&be), 8);
        present_.push_back(true);
    }
    int count() const { return static_cast<int>(store_.size()); }
    void finish() {
        values_.clear();
        lengths_.clear();
        formats_.assign(store_.size(), 1);
        for (size_t i = 0; i < store_.size(); i++) {
            values_.push_back(present_[i] ? store_[i].data() : nullptr);
            lengths_.push_back(static_cast<int>(store_[i].size()));
        }
    }
    const char *const *values() const { return values_.data(); }
    const int *lengths() const { return lengths_.data(); }
    const int *formats() const { return formats_.data(); }

  private:
    std::vector<std::string> store_;
    std::vector<bool> present_;
    std::vector<const char *> values_;
    std::vector<int> lengths_, formats_;
};

class Conn {
  public:
    explicit Conn(const std::string &url) : c_(PQconnectdb(url.c_str())) {
        if (PQstatus(c_) != CONNECTION_OK) {
            std::string msg = PQerrorMessage(c_);
            PQfinish(c_);
            c_ = nullptr;
            throw StoreError("cannot connect to PostgreSQL: " + msg);
        }
    }
    ~Conn() { PQfinish(c_); }
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;
    bool ok() const { return PQstatus(c_) == CONNECTION_OK; }

    std::unique_ptr<Result> run(const char *sql, Params &p, int resultFormat) {
        p.finish();
        auto r = std::make_unique<Result>(PQexecParams(c_, sql, p.count(), nullptr, p.values(),
                                                       p.lengths(), p.formats(), resultFormat));
        auto st = PQresultStatus(r->res);
        if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK)
            throw StoreError(std::string("PostgreSQL: ") + PQerrorMessage(c_));
        return r;
    }
    void exec(const char *sql) {
        Params none;
        run(sql, none, 0);
    }

  private:
    PGconn *c_;
};

class PgStore : public Store {
  public:
    explicit PgStore(std::string url) : url_(std::move(url)) {
        Lease c(*this);
        // Instances starting together must not race to create the table.
        c->exec("SELECT pg_advisory_lock(7246001)");
        try {
            c->exec("CREATE TABLE IF NOT EXISTS reports ("
                    " id BIGSERIAL PRIMARY KEY,"
                    " reference TEXT NOT NULL UNIQUE,"
                    " received_at BIGINT NOT NULL,"
                    " form_username TEXT,"
                    " report_username TEXT,"
                    " summary TEXT NOT NULL,"
                    " peer TEXT NOT NULL,"
                    " size BIGINT NOT NULL,"
                    " \"desc\" BYTEA NOT NULL,"
                    " why BYTEA)");
        } catch (...) {
            c->exec("SELECT pg_advisory_unlock(7246001)");
            throw;
        }
        c->exec("SELECT pg_advisory_unlock(7246001)");
    }

    std::string insert(const NewReport &r) override {
        Lease c(*this);
        Params none;
        auto seq = c->run("SELECT nextval(pg_get_serial_sequence('reports', 'id'))", none, 1);
        int64_t id = seq->int8(0, 0);
        std::string ref = makeReference(r.received_at, id);
        Params p;
        p.add(id);
        p.add(ref);
        p.add(static_cast<int64_t>(r.received_at));
        p.add(r.form_username ? std::optional(cleanText(*r.form_username)) : std::nullopt);
        p.add(r.report_username ? std::optional(cleanText(*r.report_username)) : std::nullopt);
        p.add(cleanText(r.summary));
        p.add(cleanText(r.peer));
        p.add(static_cast<int64_t>(r.desc.size()));
        p.add(r.desc);
        p.add(r.why);
        c->run("INSERT INTO reports (id, reference, received_at, form_username, report_username,"
               " summary, peer, size, \"desc\", why) VALUES ($1::int8, $2::text, $3::int8,"
               " $4::text, $5::text, $6::text, $7::text, $8::int8, $9::bytea, $10::bytea)",
               p, 0);
        return ref;
    }

    std::optional<StoredReport> get(const std::string &reference) override {
        Lease c(*this);
        Params p;
        p.add(reference);
        auto r = c->run("SELECT id, reference, received_at, form_username, report_username,"
                        " summary, peer, \"desc\", why FROM reports WHERE reference = $1::text",
                        p, 1);
        if (PQntuples(r->res) == 0)
            return std::nullopt;
        StoredReport s;
        s.id = r->int8(0, 0);
        s.reference = r->str(0, 1);
        s.received_at = static_cast<std::time_t>(r->int8(0, 2));
        s.form_username = r->opt(0, 3);
        s.report_username = r->opt(0, 4);
        s.summary = r->str(0, 5);
        s.peer = r->str(0, 6);
        s.desc = r->str(0, 7);
        s.why = r->opt(0, 8);
        return s;
    }

    ListPage list(const std::string &query, int64_t offset, int64_t limit) override {
        Lease c(*this);
        const std::string where =
            " WHERE ($1::text = '' OR upper(reference) = upper($1::text) OR reference ILIKE"
            " $2::text OR form_username ILIKE $3::text OR report_username ILIKE $3::text)";
        std::string q = cleanText(query), esc = likeEscape(q);
        ListPage page;
        {
            Params p;
            p.add(q);
            p.add(esc + "%");
            p.add("%" + esc + "%");
            auto r = c->run(("SELECT count(*) FROM reports" + where).c_str(), p, 1);
            page.total = r->int8(0, 0);
        }
        Params p;
        p.add(q);
        p.add(esc + "%");
        p.add("%" + esc + "%");
        p.add(limit);
        p.add(offset);
        auto r = c->run(("SELECT reference, received_at, form_username, report_username, summary,"
                         " size FROM reports" +
                         where + " ORDER BY id DESC LIMIT $4::int8 OFFSET $5::int8")
                            .c_str(),
                        p, 1);
        for (int i = 0; i < PQntuples(r->res); i++) {
            ListItem it;
            it.reference = r->str(i, 0);
            it.received_at = static_cast<std::time_t>(r->int8(i, 1));
            it.form_username = r->opt(i, 2);
            it.report_username = r->opt(i, 3);
            it.summary = r->str(i, 4);
            it.size = r->int8(i, 5);
            page.items.push_back(std::move(it));
        }
        return page;
    }

  private:
    // A connection from the pool for one call; a broken one is not returned.
    struct Lease {
        explicit Lease(PgStore &s) : store(s) {
            {
                std::lock_guard<std::mutex> lock(s.mutex_);
                if (!s.pool_.empty()) {
                    conn = std::move(s.pool_.back());
                    s.pool_.pop_back();
                }
            }
            if (!conn || !conn->ok())
                conn = std::make_unique<Conn>(s.url_);
        }
        ~Lease() {
            if (!conn->ok())
                return;
            std::lock_guard<std::mutex> lock(store.mutex_);
            if (store.pool_.size() < 32)
                store.pool_.push_back(std::move(conn));
        }
        Conn *operator->() { return conn.get(); }
        PgStore &store;
        std::unique_ptr<Conn> conn;
    };

    std::string url_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Conn>> pool_;
};

} // namespace

std::unique_ptr<Store> openPostgres(const std::string &url) {
    return std::make_unique<PgStore>(url);
}

} // namespace kobreportd
