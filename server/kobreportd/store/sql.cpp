#include "sql.h"

#include <charconv>
#include <chrono>
#include <type_traits>

namespace kobreportd::sql {

const Cell &Rows::cell(size_t r, std::string_view column) const {
    for (size_t c = 0; c < columns_.size(); c++)
        if (columns_[c] == column)
            return rows_.at(r).at(c);
    throw StoreError("no column " + std::string(column) + " in the rows");
}

int64_t Rows::integer(size_t r, std::string_view column) const {
    const Cell &cell = this->cell(r, column);
    if (cell.null)
        return 0;
    if (cell.isInt)
        return cell.i;
    int64_t v = 0;
    std::from_chars(cell.s.data(), cell.s.data() + cell.s.size(), v);
    return v;
}

void Conn::fillBlob(const char *, const char *, int64_t, std::string_view) {
    throw StoreError("incremental blob writes are SQLite's");
}

void Db::copyTo(const std::string &, const std::function<void(Conn &)> &) {
    throw StoreError("a copy of the database is made by SQLite alone");
}

std::function<std::string()> Db::pieces(const char *table, const char *column, int64_t id) {
    std::string query = std::string("SELECT substr(\"") + column +
                        "\", CAST($2 AS INTEGER), CAST($3 AS INTEGER)) AS piece FROM " + table +
                        " WHERE id = $1";
    return [this, query, id, at = int64_t{0}]() mutable {
        // substr counts a bytea's bytes from 1.
        auto rows = read(query, {integer(id), integer(at + 1), integer(kPiece)});
        if (rows.empty() || rows.isNull(0, "piece"))
            return std::string();
        std::string piece = rows.str(0, "piece");
        at += static_cast<int64_t>(piece.size());
        return piece;
    };
}

template <typename F> decltype(auto) Db::observed(F &&call) {
    if (!observer_)
        return call();
    auto start = std::chrono::steady_clock::now();
    auto seconds = [start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    try {
        if constexpr (std::is_void_v<decltype(call())>) {
            call();
            observer_(seconds(), false);
        } else {
            auto result = call();
            observer_(seconds(), false);
            return result;
        }
    } catch (const StoreError &) {
        observer_(seconds(), true);
        throw;
    } catch (...) {
        observer_(seconds(), false);
        throw;
    }
}

Rows Db::read(std::string_view sql, std::initializer_list<Param> params) {
    return observed([&] { return readRows(sql, params.begin(), params.size()); });
}

Rows Db::read(std::string_view sql, const std::vector<Param> &params) {
    return observed([&] { return readRows(sql, params.data(), params.size()); });
}

void Db::transaction(const std::function<void(Conn &)> &body) {
    observed([&] { runTransaction(body); });
}

void Db::scrub() {
    observed([&] { runScrub(); });
}

Rows Db::write(std::string_view sql, std::initializer_list<Param> params) {
    Rows rows;
    transaction([&](Conn &c) { rows = c.query(sql, params); });
    return rows;
}

} // namespace kobreportd::sql

namespace kobreportd {

bool isDatabaseUrl(const std::string &name) {
    return name.rfind("postgresql://", 0) == 0 || name.rfind("postgres://", 0) == 0;
}

std::unique_ptr<sql::Db> openDatabase(const std::string &name) {
    if (isDatabaseUrl(name))
        return sql::openPostgres(name);
    return sql::openSqlite(name);
}

} // namespace kobreportd
