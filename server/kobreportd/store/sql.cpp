#include "sql.h"

#include <charconv>

namespace kobreportd::sql {

int64_t Rows::integer(size_t r, size_t c) const {
    const Cell &cell = rows_.at(r).at(c);
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

Rows Db::write(std::string_view sql, std::initializer_list<Param> params) {
    Rows rows;
    transaction([&](Conn &c) { rows = c.query(sql, params); });
    return rows;
}

} // namespace kobreportd::sql
