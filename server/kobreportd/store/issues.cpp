// The issues and the workflow in the database.

#include "issues.h"

#include <map>
#include <sodium.h>

#include "audit.h"
#include "clock.h"
#include "text.h"

namespace kobreportd {

namespace {

// BLAKE2b-256 of the signature, in hex: the key of its issue.
std::string signatureHash(const std::string &signature) {
    unsigned char out[crypto_generichash_BYTES];
    crypto_generichash(out, sizeof out, reinterpret_cast<const unsigned char *>(signature.data()),
                       signature.size(), nullptr, 0);
    std::string h(sizeof out * 2 + 1, '\0');
    sodium_bin2hex(h.data(), h.size(), out, sizeof out);
    h.pop_back();
    return h;
}

void auditRow(sql::Conn &c, std::time_t at, const std::string &account, const std::string &address,
              const std::string &action, const std::string &reference, const std::string &detail) {
    std::string a = accountName(account), ad = cleanText(address), r = cleanText(reference),
                d = cleanText(detail);
    c.query("INSERT INTO audit (at, account, address, action, reference, detail)"
            " VALUES ($1, $2, $3, $4, $5, $6)",
            {sql::integer(at), sql::text(a), sql::text(ad), sql::text(action), sql::text(r),
             sql::text(d)});
}

std::string shown(const std::optional<std::string> &v) {
    return v ? *v : "(none)";
}

} // namespace

std::optional<int64_t> issueFor(sql::Conn &c, const IssueKey &key, std::time_t at, bool reopen,
                                const std::string &reference) {
    if (key.signature.empty())
        return std::nullopt;
    std::string hash = signatureHash(key.signature);
    // Instances taking reports together may make the same issue at once:
    // the one made first is everyone's.
    c.query("INSERT INTO issues (signature_hash, signature, title, created_at)"
            " VALUES ($1, $2, $3, $4) ON CONFLICT (signature_hash) DO NOTHING",
            {sql::text(hash), sql::text(key.signature), sql::text(key.title), sql::integer(at)});
    auto row =
        c.query("SELECT id, status FROM issues WHERE signature_hash = $1", {sql::text(hash)});
    int64_t id = row.integer(0, "id");
    if (reopen && row.str(0, "status") == "resolved" &&
        !c.query("UPDATE issues SET status = 'open' WHERE id = $1 AND status = 'resolved'"
                 " RETURNING id",
                 {sql::integer(id)})
             .empty())
        auditRow(c, at, kIntakeAccount, "", "issue.reopened", issueReference(id),
                 "resolved -> open: " + reference);
    return id;
}

std::vector<Issue> Issues::read(const std::string &where, std::initializer_list<sql::Param> params,
                                std::time_t now) {
    auto rows = db_.read("SELECT i.id AS id, i.title AS title, i.signature AS signature,"
                         " i.status AS status, i.owner AS owner, i.ticket AS ticket,"
                         " min(r.received_at) AS first_seen, max(r.received_at) AS last_seen,"
                         " count(*) AS n, count(DISTINCT coalesce(nullif(r.form_username, ''),"
                         " r.report_username)) AS users"
                         " FROM issues i JOIN reports r ON r.issue_id = i.id"
                         " WHERE r.reference IS NOT NULL AND " +
                             where +
                             " GROUP BY i.id, i.title, i.signature, i.status, i.owner, i.ticket"
                             " ORDER BY last_seen DESC, i.id DESC",
                         params);
    std::vector<Issue> out;
    std::map<int64_t, size_t> at;
    for (size_t i = 0; i < rows.size(); i++) {
        Issue is;
        is.id = rows.integer(i, "id");
        is.title = rows.str(i, "title");
        is.signature = rows.str(i, "signature");
        is.status = rows.str(i, "status");
        is.owner = rows.opt(i, "owner");
        is.ticket = rows.opt(i, "ticket");
        is.first_seen = static_cast<std::time_t>(rows.integer(i, "first_seen"));
        is.last_seen = static_cast<std::time_t>(rows.integer(i, "last_seen"));
        is.reports = rows.integer(i, "n");
        is.users = rows.integer(i, "users");
        is.days.assign(kSparkDays, 0);
        at[is.id] = out.size();
        out.push_back(std::move(is));
    }
    if (out.empty())
        return out;
    int64_t today = now / 86400, first = today - (kSparkDays - 1);
    auto days = db_.read("SELECT issue_id, received_at / 86400 AS d, count(*) AS n FROM reports"
                         " WHERE issue_id IS NOT NULL AND reference IS NOT NULL AND"
                         " received_at >= $1 GROUP BY issue_id, received_at / 86400",
                         {sql::integer(first * 86400)});
    for (size_t i = 0; i < days.size(); i++) {
        auto it = at.find(days.integer(i, "issue_id"));
        int64_t d = days.integer(i, "d");
        if (it != at.end() && d >= first && d <= today)
            out[it->second].days[static_cast<size_t>(d - first)] = days.integer(i, "n");
    }
    return out;
}

std::vector<Issue> Issues::list(const std::string &status, std::time_t now) {
    if (status.empty())
        return read("i.status IN ('new', 'open')", {}, now);
    return read("i.status = $1", {sql::text(status)}, now);
}

std::optional<Issue> Issues::get(int64_t id, std::time_t now) {
    auto found = read("i.id = $1", {sql::integer(id)}, now);
    if (found.empty())
        return std::nullopt;
    return found[0];
}

std::optional<Workflow> Issues::reportWorkflow(const std::string &reference) {
    auto rows = db_.read("SELECT status, owner, ticket FROM reports WHERE reference = $1",
                         {sql::text(reference)});
    if (rows.empty())
        return std::nullopt;
    return Workflow{rows.str(0, "status"), rows.opt(0, "owner"), rows.opt(0, "ticket")};
}

std::optional<int64_t> Issues::reportIssue(const std::string &reference) {
    auto rows =
        db_.read("SELECT issue_id FROM reports WHERE reference = $1", {sql::text(reference)});
    if (rows.empty() || rows.isNull(0, "issue_id"))
        return std::nullopt;
    return rows.integer(0, "issue_id");
}

std::vector<Note> Issues::notes(const std::string &action, const std::string &reference) {
    auto rows = db_.read("SELECT at, account, detail FROM audit WHERE action = $1 AND"
                         " reference = $2 ORDER BY id",
                         {sql::text(action), sql::text(reference)});
    std::vector<Note> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({static_cast<std::time_t>(rows.integer(i, "at")), rows.str(i, "account"),
                       rows.str(i, "detail")});
    return out;
}

std::optional<Issues::Refusal> Issues::changeIssue(int64_t id, const WorkflowChange &ch,
                                                   const std::string &account,
                                                   const std::string &address) {
    return change("issues", "id", sql::integer(id), issueReference(id), "issue", ch, account,
                  address);
}

std::optional<Issues::Refusal> Issues::changeReport(const std::string &reference,
                                                    const WorkflowChange &ch,
                                                    const std::string &account,
                                                    const std::string &address) {
    return change("reports", "reference", sql::text(reference), reference, "report", ch, account,
                  address);
}

std::optional<Issues::Refusal> Issues::change(const char *table, const char *keyColumn,
                                              sql::Param key, const std::string &auditReference,
                                              const char *what, const WorkflowChange &ch,
                                              const std::string &account,
                                              const std::string &address) {
    if (!ch.status && !ch.owner && !ch.ticket && !ch.note)
        return Refusal{400, "nothing to change: give status, owner, ticket or note"};
    if (ch.status && !validStatus(*ch.status))
        return Refusal{400, "status is one of new, open, resolved, ignored"};
    if (ch.ticket && !ch.ticket->empty() && !validTicket(*ch.ticket))
        return Refusal{400, "a ticket is 1 to 100 printable characters without spaces"};
    if (ch.note && !validNote(*ch.note))
        return Refusal{400, "a note is 1 to 4000 bytes"};
    std::optional<Refusal> refused;
    std::string where = std::string(" WHERE ") + keyColumn + " = $1";
    std::string prefix(what);
    db_.transaction([&](sql::Conn &c) {
        auto row =
            c.query(std::string("SELECT status, owner, ticket FROM ") + table + where, {key});
        if (row.empty()) {
            refused = Refusal{404, "not found"};
            return;
        }
        if (ch.owner && !ch.owner->empty() &&
            c.query("SELECT name FROM users WHERE name = $1", {sql::text(*ch.owner)}).empty()) {
            refused = Refusal{400, "the owner is a staff account's name"};
            return;
        }
        std::time_t at = now();
        auto set = [&](const char *column, const std::optional<std::string> &was,
                       const std::optional<std::string> &to) {
            if (was == to)
                return;
            c.query(std::string("UPDATE ") + table + " SET " + column + " = $2" + where,
                    {key, sql::optText(to)});
            auditRow(c, at, account, address, prefix + "." + column, auditReference,
                     shown(was) + " -> " + shown(to));
        };
        auto given = [](const std::optional<std::string> &v) {
            return v && !v->empty() ? v : std::nullopt;
        };
        if (ch.status)
            set("status", row.str(0, "status"), ch.status);
        if (ch.owner)
            set("owner", row.opt(0, "owner"), given(ch.owner));
        if (ch.ticket)
            set("ticket", row.opt(0, "ticket"), given(ch.ticket));
        if (ch.note)
            auditRow(c, at, account, address, prefix + ".noted", auditReference, *ch.note);
    });
    return refused;
}

} // namespace kobreportd
