// The list's views staff saved: a name and the list's query, the saver's
// own or shared with everyone.

#include "store.h"

#include "text.h"

namespace kobreportd {

std::vector<SavedView> Store::views(const std::string &account) {
    auto rows = db_.read("SELECT id, account, name, query, shared FROM saved_views WHERE"
                         " account = $1 OR shared = 1 ORDER BY name, id",
                         {sql::text(account)});
    std::vector<SavedView> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.integer(i, "id"), rows.str(i, "account"), rows.str(i, "name"),
                       rows.str(i, "query"), rows.integer(i, "shared") != 0});
    return out;
}

bool Store::saveView(const std::string &account, const std::string &name, const std::string &query,
                     bool shared, std::time_t at) {
    std::string n = cleanText(name);
    auto rows = db_.write("INSERT INTO saved_views (account, name, query, shared, created_at)"
                          " VALUES ($1, $2, $3, $4, $5) ON CONFLICT (account, name) DO NOTHING"
                          " RETURNING id",
                          {sql::text(account), sql::text(n), sql::text(query),
                           sql::integer(shared ? 1 : 0), sql::integer(at)});
    return !rows.empty();
}

std::optional<SavedView> Store::deleteView(int64_t id, const std::string &account, bool anyone) {
    auto rows = db_.write("DELETE FROM saved_views WHERE id = $1 AND (account = $2 OR $3 = 1)"
                          " RETURNING id, account, name, query, shared",
                          {sql::integer(id), sql::text(account), sql::integer(anyone ? 1 : 0)});
    if (rows.empty())
        return std::nullopt;
    return SavedView{rows.integer(0, "id"), rows.str(0, "account"), rows.str(0, "name"),
                     rows.str(0, "query"), rows.integer(0, "shared") != 0};
}

} // namespace kobreportd
