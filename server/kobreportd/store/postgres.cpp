// PostgreSQL: several kobreportd instances can share one database.  Every
// parameter and result travels in binary, so bytes pass unchanged.

#include "sql.h"

#include <cctype>
#include <cstring>
#include <endian.h>
#include <libpq-fe.h>
#include <span>

namespace kobreportd::sql {

namespace {

// Type numbers of the built-in types we send and read.
constexpr Oid kBool = 16, kBytea = 17, kInt8 = 20, kInt2 = 21, kInt4 = 23, kText = 25;

class Connection {
  public:
    explicit Connection(const std::string &url) : c_(PQconnectdb(url.c_str())) {
        if (PQstatus(c_) != CONNECTION_OK) {
            std::string msg = PQerrorMessage(c_);
            PQfinish(c_);
            c_ = nullptr;
            throw StoreError("cannot connect to PostgreSQL: " + msg);
        }
        // Notices (an index that already exists, ...) are not for the log.
        PQsetNoticeProcessor(
            c_, [](void *, const char *) {}, nullptr);
    }
    ~Connection() { PQfinish(c_); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    bool ok() const { return PQstatus(c_) == CONNECTION_OK; }

    Rows query(std::string_view text, const Param *params, size_t count) {
        std::vector<Oid> types;
        std::vector<const char *> values;
        std::vector<int> lengths, formats;
        std::vector<uint64_t> ints(count);
        size_t k = 0;
        for (const Param &p : std::span<const Param>(params, count)) {
            formats.push_back(1);
            switch (p.kind) {
            case Param::Kind::Null:
                types.push_back(0);
                values.push_back(nullptr);
                lengths.push_back(0);
                break;
            case Param::Kind::Int:
                ints[k] = htobe64(static_cast<uint64_t>(p.i));
                types.push_back(kInt8);
                values.push_back(reinterpret_cast<const char *>(&ints[k]));
                lengths.push_back(8);
                break;
            case Param::Kind::Text:
            case Param::Kind::Blob:
                types.push_back(p.kind == Param::Kind::Text ? kText : kBytea);
                // An empty value must still be a value, not SQL NULL.
                values.push_back(p.s.data() ? p.s.data() : "");
                lengths.push_back(static_cast<int>(p.s.size()));
                break;
            }
            k++;
        }
        std::string q(text);
        std::unique_ptr<PGresult, void (*)(PGresult *)> res(
            PQexecParams(c_, q.c_str(), static_cast<int>(types.size()), types.data(), values.data(),
                         lengths.data(), formats.data(), 1),
            PQclear);
        auto st = PQresultStatus(res.get());
        if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK)
            throw StoreError(std::string("PostgreSQL: ") + PQerrorMessage(c_));
        Rows rows;
        int n = PQntuples(res.get()), cols = PQnfields(res.get());
        std::vector<std::string> names;
        names.reserve(static_cast<size_t>(cols));
        for (int c = 0; c < cols; c++)
            names.emplace_back(PQfname(res.get(), c));
        rows.setColumns(std::move(names));
        for (int r = 0; r < n; r++) {
            auto &row = rows.addRow();
            for (int c = 0; c < cols; c++) {
                Cell cell;
                if (!PQgetisnull(res.get(), r, c)) {
                    cell.null = false;
                    const char *v = PQgetvalue(res.get(), r, c);
                    int len = PQgetlength(res.get(), r, c);
                    Oid t = PQftype(res.get(), c);
                    if (t == kInt8 || t == kInt4 || t == kInt2 || t == kBool) {
                        cell.isInt = true;
                        int64_t x = 0;
                        for (int b = 0; b < len; b++)
                            x = (x << 8) | static_cast<unsigned char>(v[b]);
                        // Sign-extend the narrower types.
                        if (len > 0 && len < 8 && (static_cast<unsigned char>(v[0]) & 0x80))
                            x -= int64_t{1} << (8 * len);
                        cell.i = x;
                    } else {
                        cell.s.assign(v, static_cast<size_t>(len));
                    }
                }
                row.push_back(std::move(cell));
            }
        }
        return rows;
    }

  private:
    PGconn *c_;
};

class ConnectionConn : public Conn {
  public:
    explicit ConnectionConn(Connection &c) : c_(c) {}

  protected:
    Rows run(std::string_view sql, const Param *params, size_t count) override {
        return c_.query(sql, params, count);
    }

  private:
    Connection &c_;
};

class PgDb : public Db {
  public:
    explicit PgDb(const std::string &url)
        : pool_(32, [url] { return std::make_unique<Connection>(url); }) {
        Pool<Connection>::Lease check(pool_);
    }

    Dialect dialect() const override { return Dialect::Postgres; }

    Rows readRows(std::string_view sql, const Param *params, size_t count) override {
        Pool<Connection>::Lease c(pool_);
        return c->query(sql, params, count);
    }

    void runTransaction(const std::function<void(Conn &)> &body) override {
        Pool<Connection>::Lease c(pool_);
        c->query("BEGIN", nullptr, 0);
        try {
            ConnectionConn cc(*c);
            body(cc);
            c->query("COMMIT", nullptr, 0);
        } catch (...) {
            try {
                c->query("ROLLBACK", nullptr, 0);
            } catch (const StoreError &) {
                // The connection is gone; the server rolls back on its own.
            }
            throw;
        }
    }

    // Dead rows are the server's to reclaim; a vacuum makes their space
    // reusable at once.
    void runScrub() override {
        Pool<Connection>::Lease c(pool_);
        c->query("VACUUM reports", nullptr, 0);
    }

  private:
    Pool<Connection> pool_;
};

} // namespace

std::unique_ptr<Db> openPostgres(const std::string &url) {
    return std::make_unique<PgDb>(url);
}

} // namespace kobreportd::sql
