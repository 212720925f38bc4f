#include "store.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <thread>
#include <tuple>

#include <zstd.h>

#include "kobtriage.h"
#include "mask.h"
#include "text.h"

namespace kobreportd {

namespace {

// The layout this version writes.  1: the reports alone; 2: accounts,
// sessions, tokens, the audit log, and expired raw text; 3: each report's
// outcome per probe target; 4: the version of the rules that judged it;
// 5: report texts compressed.
constexpr int kSchemaVersion = 5;

constexpr const char *kColumns =
    "id, reference, received_at, form_username, report_username, summary, peer, size,"
    " \"desc\", why, raw_expired, findings, desc_zstd";

std::string ddl(sql::Dialect d, std::string s) {
    auto put = [&s](const std::string &what, const char *with) {
        for (size_t p; (p = s.find(what)) != std::string::npos;)
            s.replace(p, what.size(), with);
    };
    bool pg = d == sql::Dialect::Postgres;
    put("{ID}", pg ? "BIGSERIAL PRIMARY KEY" : "INTEGER PRIMARY KEY AUTOINCREMENT");
    put("{INT}", pg ? "BIGINT" : "INTEGER");
    put("{BLOB}", pg ? "BYTEA" : "BLOB");
    return s;
}

// Each report's outcome per target, and the alerts on targets.  Reports
// stored before this layout have no outcomes: the fleet's numbers start
// with it.
void upgradeTo3(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS outcomes ("
                   " report_id {INT} NOT NULL, received_at {INT} NOT NULL, area TEXT NOT NULL,"
                   " target TEXT NOT NULL, failing {INT} NOT NULL)"));
    c.query("CREATE INDEX IF NOT EXISTS outcomes_by_time ON outcomes (received_at)");
    c.query("CREATE INDEX IF NOT EXISTS outcomes_by_report ON outcomes (report_id)");
    // The same per hour, kept up to date at intake, so that the fleet's
    // numbers over a month read a few thousand rows, not every outcome.
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS outcome_hours ("
                   " area TEXT NOT NULL, target TEXT NOT NULL, hour {INT} NOT NULL,"
                   " reports {INT} NOT NULL, failing {INT} NOT NULL,"
                   " PRIMARY KEY (hour, area, target))"));
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS alerts ("
                   " id {ID}, area TEXT NOT NULL, target TEXT NOT NULL, raised_at {INT} NOT NULL,"
                   " cleared_at {INT}, share TEXT NOT NULL, baseline TEXT NOT NULL)"));
    // One open alert per target, whichever instance raises it.
    c.query("CREATE UNIQUE INDEX IF NOT EXISTS alerts_open ON alerts (area, target)"
            " WHERE cleared_at IS NULL");
}

// The rule set's version behind each report's summary and outcomes.  Reports
// stored before it count as version 0, older than any rule set, so that
// retriage gives them outcomes too.
void upgradeTo4(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE reports ADD COLUMN rules {INT} NOT NULL DEFAULT 0"));
}

// Report texts written from now on are zstd frames; those already stored
// stay as they came (desc_zstd 0) and read as before.  PostgreSQL is told
// not to compress them a second time.
void upgradeTo5(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE reports ADD COLUMN desc_zstd {INT} NOT NULL DEFAULT 0"));
    if (d == sql::Dialect::Postgres)
        c.query("ALTER TABLE reports ALTER COLUMN \"desc\" SET STORAGE EXTERNAL");
}

void setLayout(sql::Conn &c) {
    c.query("DELETE FROM kob_meta WHERE key = 'schema'");
    c.query("INSERT INTO kob_meta (key, value) VALUES ('schema', $1)",
            {sql::text(std::to_string(kSchemaVersion))});
}

// A report's outcomes in one statement, and its hourly totals in another:
// two round trips, whatever the number of targets.  A target named twice
// (a report can say anything) is one row of the totals.
void addOutcomes(sql::Conn &c, int64_t id, std::time_t receivedAt,
                 const std::vector<Outcome> &outcomes) {
    if (outcomes.empty())
        return;
    std::vector<std::string> targets;
    targets.reserve(outcomes.size());
    for (const Outcome &o : outcomes)
        targets.push_back(cleanText(o.target));
    std::string values, totals;
    std::vector<sql::Param> params, totalParams;
    std::map<std::pair<std::string_view, std::string_view>, std::pair<int64_t, int64_t>> sums;
    auto row = [](size_t n) {
        std::string s = "(";
        for (size_t k = 1; k <= 5; k++)
            s += (k > 1 ? ",$" : "$") + std::to_string(n + k);
        return s + ")";
    };
    for (size_t k = 0; k < outcomes.size(); k++) {
        const Outcome &o = outcomes[k];
        values += (k ? "," : "") + row(params.size());
        params.insert(params.end(), {sql::integer(id), sql::integer(receivedAt), sql::text(o.area),
                                     sql::text(targets[k]), sql::integer(o.failing ? 1 : 0)});
        auto &sum = sums[{o.area, targets[k]}];
        sum.first++;
        sum.second += o.failing ? 1 : 0;
    }
    for (const auto &[key, sum] : sums) {
        totals += (totalParams.empty() ? "" : ",") + row(totalParams.size());
        totalParams.insert(totalParams.end(), {sql::text(key.first), sql::text(key.second),
                                               sql::integer(receivedAt / 3600),
                                               sql::integer(sum.first), sql::integer(sum.second)});
    }
    c.query("INSERT INTO outcomes (report_id, received_at, area, target, failing) VALUES " + values,
            params);
    c.query("INSERT INTO outcome_hours (area, target, hour, reports, failing) VALUES " + totals +
                " ON CONFLICT (hour, area, target) DO UPDATE"
                " SET reports = outcome_hours.reports + excluded.reports,"
                " failing = outcome_hours.failing + excluded.failing",
            totalParams);
}

// Takes a report's outcomes out of the hourly totals, and away.
void dropOutcomes(sql::Conn &c, int64_t id) {
    c.query("UPDATE outcome_hours SET reports = outcome_hours.reports - o.n,"
            " failing = outcome_hours.failing - o.f"
            " FROM (SELECT area, target, received_at / 3600 AS hour, count(*) AS n,"
            " sum(failing) AS f FROM outcomes WHERE report_id = $1"
            " GROUP BY area, target, received_at / 3600) AS o"
            " WHERE outcome_hours.area = o.area AND outcome_hours.target = o.target AND"
            " outcome_hours.hour = o.hour",
            {sql::integer(id)});
    c.query("DELETE FROM outcomes WHERE report_id = $1", {sql::integer(id)});
}

bool tableExists(sql::Dialect d, sql::Conn &c, const char *name) {
    const char *q = d == sql::Dialect::Postgres
                        ? "SELECT count(*) FROM pg_catalog.pg_tables"
                          " WHERE schemaname = current_schema() AND tablename = $1"
                        : "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = $1";
    return c.query(q, {sql::text(name)}).integer(0, 0) > 0;
}

// Reports are kept as zstd frames: their logs shrink several times over,
// and with them the database, its log and every sync to disk before an
// answer.  Level 1 keeps up with the intake.
std::string pack(std::string_view text) {
    thread_local std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx *)> cctx(ZSTD_createCCtx(),
                                                                          ZSTD_freeCCtx);
    if (!cctx)
        throw StoreError("cannot compress the report: out of memory");
    // Left uninitialised: of a large report's bound only the compressed
    // part is ever touched.
    size_t bound = ZSTD_compressBound(text.size());
    std::unique_ptr<char[]> out(new char[bound]);
    size_t n = ZSTD_compressCCtx(cctx.get(), out.get(), bound, text.data(), text.size(), 1);
    if (ZSTD_isError(n))
        throw StoreError(std::string("cannot compress the report: ") + ZSTD_getErrorName(n));
    return std::string(out.get(), n);
}

// The text of a stored report; rows from before compression hold it as it
// came.  A frame that does not give back exactly the recorded size is
// refused rather than shown as something it is not.
std::string unpack(const std::string &stored, bool packed, int64_t size) {
    if (!packed)
        return stored;
    unsigned long long want = ZSTD_getFrameContentSize(stored.data(), stored.size());
    if (want == ZSTD_CONTENTSIZE_ERROR || want == ZSTD_CONTENTSIZE_UNKNOWN ||
        want != static_cast<unsigned long long>(size))
        throw StoreError("a stored report is damaged: its text does not decompress");
    std::string text(static_cast<size_t>(want), '\0');
    size_t n = ZSTD_decompress(text.data(), text.size(), stored.data(), stored.size());
    if (ZSTD_isError(n) || n != want)
        throw StoreError("a stored report is damaged: its text does not decompress");
    return text;
}

StoredReport fromRow(const sql::Rows &r, size_t i) {
    StoredReport s;
    s.id = r.integer(i, 0);
    s.reference = r.str(i, 1);
    s.received_at = static_cast<std::time_t>(r.integer(i, 2));
    s.form_username = r.opt(i, 3);
    s.report_username = r.opt(i, 4);
    s.summary = r.str(i, 5);
    s.peer = r.str(i, 6);
    s.size = r.integer(i, 7);
    s.why = r.opt(i, 9);
    s.raw_expired = r.integer(i, 10) != 0;
    s.findings = r.str(i, 11);
    s.desc = unpack(r.str(i, 8), r.integer(i, 12) != 0, s.size);
    return s;
}

// A commit takes the reports waiting for it up to about this many bytes as
// stored (compressed).
constexpr size_t kCommitBytes = size_t{8} << 20;

// Above this size SQLite is handed the report in pieces.
constexpr size_t kPieceWiseFrom = size_t{256} << 10;

} // namespace

std::unique_ptr<sql::Db> openDatabase(const std::string &name) {
    if (name.rfind("postgresql://", 0) == 0 || name.rfind("postgres://", 0) == 0)
        return sql::openPostgres(name);
    return sql::openSqlite(name);
}

Store::Store(sql::Db &db) : db_(db) {
    migrate();
}

void Store::migrate() {
    sql::Dialect d = db_.dialect();
    db_.transaction([&](sql::Conn &c) {
        // Instances starting together must not race to change the layout.
        if (d == sql::Dialect::Postgres)
            c.query("SELECT pg_advisory_xact_lock(7246001)");
        int version = 0;
        if (tableExists(d, c, "kob_meta")) {
            auto v = c.query("SELECT value FROM kob_meta WHERE key = 'schema'");
            version =
                v.empty() ? 0 : static_cast<int>(std::strtol(v.str(0, 0).c_str(), nullptr, 10));
        }
        if (version > kSchemaVersion)
            throw StoreError("the database was written by a newer kobreportd (layout " +
                             std::to_string(version) + ")");
        if (version == kSchemaVersion)
            return;
        if (version >= 2) {
            if (version < 3)
                upgradeTo3(d, c);
            if (version < 4)
                upgradeTo4(d, c);
            upgradeTo5(d, c);
            setLayout(c);
            return;
        }
        if (!tableExists(d, c, "reports"))
            c.query(ddl(d, "CREATE TABLE reports ("
                           " id {ID},"
                           " reference TEXT UNIQUE,"
                           " received_at {INT} NOT NULL,"
                           " form_username TEXT,"
                           " report_username TEXT,"
                           " summary TEXT NOT NULL,"
                           " peer TEXT NOT NULL,"
                           " size {INT} NOT NULL,"
                           " \"desc\" {BLOB} NOT NULL,"
                           " why {BLOB})"));
        // From the first layout: expired raw text and the findings kept for it.
        c.query(ddl(d, "ALTER TABLE reports ADD COLUMN raw_expired {INT} NOT NULL DEFAULT 0"));
        c.query("ALTER TABLE reports ADD COLUMN findings TEXT NOT NULL DEFAULT ''");
        c.query("CREATE INDEX IF NOT EXISTS reports_by_time ON reports (received_at)");
        c.query(ddl(d, "CREATE TABLE IF NOT EXISTS users ("
                       " name TEXT PRIMARY KEY, role TEXT NOT NULL, pw_hash TEXT NOT NULL,"
                       " created_at {INT} NOT NULL)"));
        c.query(ddl(d, "CREATE TABLE IF NOT EXISTS tokens ("
                       " name TEXT PRIMARY KEY, token_id TEXT NOT NULL UNIQUE,"
                       " role TEXT NOT NULL, hash TEXT NOT NULL, created_at {INT} NOT NULL)"));
        c.query(ddl(d, "CREATE TABLE IF NOT EXISTS sessions ("
                       " id_hash TEXT PRIMARY KEY, account TEXT NOT NULL,"
                       " created_at {INT} NOT NULL, last_seen {INT} NOT NULL)"));
        c.query(ddl(d, "CREATE TABLE IF NOT EXISTS audit ("
                       " id {ID}, at {INT} NOT NULL, account TEXT NOT NULL,"
                       " address TEXT NOT NULL, action TEXT NOT NULL, reference TEXT NOT NULL,"
                       " detail TEXT NOT NULL)"));
        c.query("CREATE INDEX IF NOT EXISTS audit_by_account ON audit (action, account, at)");
        c.query("CREATE INDEX IF NOT EXISTS audit_by_address ON audit (action, address, at)");
        if (d == sql::Dialect::Postgres) {
            c.query("CREATE OR REPLACE FUNCTION kob_audit_append_only() RETURNS trigger"
                    " LANGUAGE plpgsql AS"
                    " $body$BEGIN RAISE EXCEPTION 'the audit log is append-only'; END$body$");
            c.query("CREATE OR REPLACE TRIGGER audit_append_only BEFORE UPDATE OR DELETE ON"
                    " audit FOR EACH ROW EXECUTE FUNCTION kob_audit_append_only()");
            c.query("CREATE OR REPLACE TRIGGER audit_no_truncate BEFORE TRUNCATE ON audit"
                    " FOR EACH STATEMENT EXECUTE FUNCTION kob_audit_append_only()");
        } else {
            for (const char *op : {"UPDATE", "DELETE"})
                c.query(std::string("CREATE TRIGGER IF NOT EXISTS audit_append_only_") + op +
                        " BEFORE " + op +
                        " ON audit BEGIN SELECT RAISE(ABORT, 'the audit log is append-only');"
                        " END");
        }
        c.query("CREATE TABLE IF NOT EXISTS kob_meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)");
        upgradeTo3(d, c);
        upgradeTo4(d, c);
        upgradeTo5(d, c);
        setLayout(c);
    });
}

std::string makeReference(std::time_t receivedAt, int64_t id) {
    std::tm tm{};
    gmtime_r(&receivedAt, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "KOB-%04d%02d%02d-%06lld", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, static_cast<long long>(id));
    return buf;
}

bool plausibleReference(const std::string &s) {
    if (s.size() < 19 || s.size() > 32 || s.compare(0, 4, "KOB-") != 0 || s[12] != '-')
        return false;
    for (size_t i = 4; i < s.size(); i++)
        if (i != 12 && (s[i] < '0' || s[i] > '9'))
            return false;
    return true;
}

std::string Store::insert(const NewReport &r) {
    // Compressed by the uploading thread, so that the reports of a batch
    // are compressed side by side before their commit, not one by one in it.
    std::string packed = pack(r.desc);
    Pending mine{&r, &packed, {}, {}, false};
    std::unique_lock<std::mutex> lock(groupMutex_);
    queue_.push_back(&mine);
    // SQLite writes one transaction at a time anyway; PostgreSQL's server
    // stores each on a process of its own, so one per core can run at once.
    const int most = db_.dialect() == sql::Dialect::Postgres
                         ? static_cast<int>(std::max(2u, std::thread::hardware_concurrency()))
                         : 1;
    while (!mine.done) {
        if (committers_ >= most || queue_.empty()) {
            groupDone_.wait(lock);
            continue;
        }
        // This thread commits what is queued, its own report among it
        // unless another committer has taken that already.
        committers_++;
        // A bounded batch: its reports wait for its whole commit.
        size_t take = 0, bytes = 0;
        while (take < queue_.size() && (take == 0 || bytes < kCommitBytes))
            bytes += queue_[take++]->packed->size();
        std::vector<Pending *> batch(queue_.begin(), queue_.begin() + static_cast<long>(take));
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<long>(take));
        lock.unlock();
        commit(batch);
        lock.lock();
        committers_--;
        for (Pending *p : batch)
            p->done = true;
        groupDone_.notify_all();
    }
    if (mine.error)
        throw StoreError(*mine.error);
    return mine.reference;
}

void Store::commit(const std::vector<Pending *> &batch) {
    auto alone = [this](Pending *p) {
        try {
            db_.transaction(
                [&](sql::Conn &c) { p->reference = insertOne(c, *p->report, *p->packed); });
            p->error.reset();
        } catch (const std::exception &e) {
            p->error = e.what();
        }
    };
    if (batch.size() == 1) {
        alone(batch[0]);
        return;
    }
    try {
        db_.transaction([&](sql::Conn &c) {
            for (Pending *p : batch)
                p->reference = insertOne(c, *p->report, *p->packed);
        });
        return;
    } catch (const std::exception &) {
        // Rolled back whole; each again on its own, so that one report the
        // database refuses does not cost the others theirs.
    }
    for (Pending *p : batch)
        alone(p);
}

std::string Store::insertOne(sql::Conn &c, const NewReport &r, const std::string &packed) {
    std::optional<std::string> formUser, reportUser;
    if (r.form_username)
        formUser = cleanText(*r.form_username);
    if (r.report_username)
        reportUser = cleanText(*r.report_username);
    std::string summary = cleanText(r.summary), peer = cleanText(r.peer);
    bool pg = db_.dialect() == sql::Dialect::Postgres;
    // The number is known before the row is written, so the row is
    // written once, reference and all: rewriting it would write the
    // report a second time.  PostgreSQL takes it from the table's sequence,
    // unique across instances sharing the database; SQLite's writer holds
    // the database alone until its commit, so the next number is its own.
    int64_t id =
        pg ? c.query("SELECT nextval(pg_get_serial_sequence('reports', 'id'))").integer(0, 0)
           : c.query("SELECT max(coalesce((SELECT seq FROM sqlite_sequence WHERE name ="
                     " 'reports'), 0), coalesce((SELECT max(id) FROM reports), 0)) + 1")
                 .integer(0, 0);
    std::string ref = makeReference(r.received_at, id);
    // A large report goes into SQLite in pieces, not through one record
    // holding a second copy of it.
    bool pieces = !pg && packed.size() > kPieceWiseFrom;
    c.query("INSERT INTO reports (id, reference, received_at, form_username, report_username,"
            " summary, peer, size, \"desc\", why, rules, desc_zstd) VALUES ($1, $2, $3, $4, $5,"
            " $6, $7, $8, " +
                std::string(pieces ? "zeroblob($9)" : "$9") + ", $10, $11, 1)",
            {sql::integer(id), sql::text(ref), sql::integer(r.received_at), sql::optText(formUser),
             sql::optText(reportUser), sql::text(summary), sql::text(peer),
             sql::integer(static_cast<int64_t>(r.desc.size())),
             pieces ? sql::integer(static_cast<int64_t>(packed.size())) : sql::blob(packed),
             sql::optBlob(r.why), sql::integer(r.rules)});
    if (pieces)
        c.fillBlob("reports", "desc", id, packed);
    addOutcomes(c, id, r.received_at, r.outcomes);
    return ref;
}

std::optional<StoredReport> Store::get(const std::string &reference) {
    if (!plausibleReference(reference))
        return std::nullopt;
    auto rows = db_.read(std::string("SELECT ") + kColumns + " FROM reports WHERE reference = $1",
                         {sql::text(reference)});
    if (rows.empty())
        return std::nullopt;
    return fromRow(rows, 0);
}

ListPage Store::list(const std::string &query, int64_t offset, int64_t limit) {
    const char *like = db_.dialect() == sql::Dialect::Postgres ? "ILIKE" : "LIKE";
    std::string where = std::string(" WHERE reference IS NOT NULL AND ($1 = '' OR"
                                    " upper(reference) = upper($1) OR reference ") +
                        like + " $2 ESCAPE '\\' OR form_username " + like +
                        " $3 ESCAPE '\\' OR report_username " + like + " $3 ESCAPE '\\')";
    std::string q = cleanText(query), esc = likeEscape(q);
    std::string prefix = esc + "%", part = "%" + esc + "%";
    ListPage page;
    page.total = db_.read("SELECT count(*) FROM reports" + where,
                          {sql::text(q), sql::text(prefix), sql::text(part)})
                     .integer(0, 0);
    auto rows = db_.read("SELECT reference, received_at, form_username, report_username, summary,"
                         " size, raw_expired FROM reports" +
                             where + " ORDER BY id DESC LIMIT $4 OFFSET $5",
                         {sql::text(q), sql::text(prefix), sql::text(part), sql::integer(limit),
                          sql::integer(offset)});
    for (size_t i = 0; i < rows.size(); i++) {
        ListItem it;
        it.reference = rows.str(i, 0);
        it.received_at = static_cast<std::time_t>(rows.integer(i, 1));
        it.form_username = rows.opt(i, 2);
        it.report_username = rows.opt(i, 3);
        it.summary = rows.str(i, 4);
        it.size = rows.integer(i, 5);
        it.raw_expired = rows.integer(i, 6) != 0;
        page.items.push_back(std::move(it));
    }
    return page;
}

std::vector<Outcome> Store::outcomes(int64_t id) {
    auto rows = db_.read("SELECT area, target, failing FROM outcomes WHERE report_id = $1"
                         " ORDER BY area, target",
                         {sql::integer(id)});
    std::vector<Outcome> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.str(i, 0), rows.str(i, 1), rows.integer(i, 2) != 0});
    return out;
}

std::vector<Store::UserReport> Store::byUser(const std::string &name, int64_t limit) {
    std::string n = cleanText(name);
    auto rows = db_.read("SELECT id, reference, received_at, form_username, report_username,"
                         " summary, size, raw_expired FROM reports WHERE reference IS NOT NULL AND"
                         " (form_username = $1 OR report_username = $1) ORDER BY id DESC LIMIT $2",
                         {sql::text(n), sql::integer(limit)});
    std::vector<UserReport> out;
    for (size_t i = 0; i < rows.size(); i++) {
        UserReport u;
        u.item.reference = rows.str(i, 1);
        u.item.received_at = static_cast<std::time_t>(rows.integer(i, 2));
        u.item.form_username = rows.opt(i, 3);
        u.item.report_username = rows.opt(i, 4);
        u.item.summary = rows.str(i, 5);
        u.item.size = rows.integer(i, 6);
        u.item.raw_expired = rows.integer(i, 7) != 0;
        u.outcomes = outcomes(rows.integer(i, 0));
        out.push_back(std::move(u));
    }
    return out;
}

bool Store::remove(const std::string &reference) {
    if (!plausibleReference(reference))
        return false;
    bool found = false;
    db_.transaction([&](sql::Conn &c) {
        auto rows = c.query("DELETE FROM reports WHERE reference = $1 RETURNING id",
                            {sql::text(reference)});
        found = !rows.empty();
        if (!found)
            return;
        dropOutcomes(c, rows.integer(0, 0));
    });
    if (found)
        db_.scrub();
    return found;
}

int64_t Store::expireBefore(std::time_t cutoff) {
    int64_t done = 0;
    for (;;) {
        // In batches, each its own transaction: intake never waits long.
        auto rows = db_.read("SELECT id, \"desc\", desc_zstd, size FROM reports WHERE"
                             " received_at < $1 AND raw_expired = 0 ORDER BY id LIMIT 50",
                             {sql::integer(cutoff)});
        if (rows.empty())
            break;
        db_.transaction([&](sql::Conn &c) {
            for (size_t i = 0; i < rows.size(); i++) {
                // What stays is what the triage found, from the text as a
                // viewer sees it, without the sections it did not understand.
                // A text that no longer decompresses expires with no findings.
                std::string findings;
                try {
                    auto report = kobtriage::parse(maskReport(
                        unpack(rows.str(i, 1), rows.integer(i, 2) != 0, rows.integer(i, 3))));
                    report.unknown.clear();
                    findings = kobtriage::toJson(report);
                } catch (const StoreError &e) {
                    std::fprintf(stderr, "kobreportd: report %lld expired without findings: %s\n",
                                 static_cast<long long>(rows.integer(i, 0)), e.what());
                }
                c.query("UPDATE reports SET \"desc\" = $1, desc_zstd = 0, why = NULL, peer = '',"
                        " raw_expired = 1, findings = $2 WHERE id = $3",
                        {sql::blob(""), sql::text(findings), sql::integer(rows.integer(i, 0))});
            }
        });
        done += static_cast<int64_t>(rows.size());
    }
    if (done)
        db_.scrub();
    return done;
}

Store::RetriageStep Store::retriage(int64_t after, int rules,
                                    const std::function<Triaged(const std::string &)> &triage) {
    RetriageStep step;
    step.last_id = after;
    // A batch is a few hundred reports, or fewer when they are large, so
    // that memory stays bounded whatever the reports hold.
    constexpr int64_t kBatchReports = 500, kBatchBytes = 32 << 20;
    auto heads = db_.read("SELECT id, size FROM reports WHERE id > $1 AND rules < $2 AND"
                          " raw_expired = 0 ORDER BY id LIMIT $3",
                          {sql::integer(after), sql::integer(rules), sql::integer(kBatchReports)});
    if (heads.empty())
        return step;
    step.more = true;
    int64_t bytes = 0, last = heads.integer(0, 0);
    for (size_t i = 0; i < heads.size() && (i == 0 || bytes + heads.integer(i, 1) <= kBatchBytes);
         i++) {
        bytes += heads.integer(i, 1);
        last = heads.integer(i, 0);
    }
    auto rows = db_.read("SELECT id, received_at, \"desc\", desc_zstd, size FROM reports WHERE"
                         " id > $1 AND id <= $2 AND rules < $3 AND raw_expired = 0 ORDER BY id",
                         {sql::integer(after), sql::integer(last), sql::integer(rules)});
    // The rules run outside the transaction; intake waits only for the
    // writes.
    std::vector<std::optional<Triaged>> done;
    done.reserve(rows.size());
    for (size_t i = 0; i < rows.size(); i++) {
        try {
            done.push_back(
                triage(unpack(rows.str(i, 2), rows.integer(i, 3) != 0, rows.integer(i, 4))));
        } catch (const StoreError &e) {
            // One damaged row must not stop the reports after it.
            std::fprintf(stderr, "kobreportd: report %lld left as it was: %s\n",
                         static_cast<long long>(rows.integer(i, 0)), e.what());
            done.emplace_back();
        }
    }
    // New rules seldom change what a report found, only what is said of it:
    // outcomes that stay the same are not written again.
    auto old = db_.read("SELECT report_id, area, target, failing FROM outcomes WHERE"
                        " report_id > $1 AND report_id <= $2",
                        {sql::integer(after), sql::integer(last)});
    using Key = std::tuple<std::string, std::string, bool>;
    std::map<int64_t, std::vector<Key>> kept;
    for (size_t i = 0; i < old.size(); i++)
        kept[old.integer(i, 0)].emplace_back(old.str(i, 1), old.str(i, 2), old.integer(i, 3) != 0);
    auto same = [&kept](int64_t id, const std::vector<Outcome> &now) {
        std::vector<Key> next;
        next.reserve(now.size());
        for (const Outcome &o : now)
            next.emplace_back(o.area, cleanText(o.target), o.failing);
        auto &was = kept[id];
        std::sort(was.begin(), was.end());
        std::sort(next.begin(), next.end());
        return was == next;
    };
    db_.transaction([&](sql::Conn &c) {
        for (size_t i = 0; i < rows.size(); i++) {
            if (!done[i])
                continue;
            const Triaged &t = *done[i];
            int64_t id = rows.integer(i, 0);
            std::optional<std::string> user;
            if (t.report_username)
                user = cleanText(*t.report_username);
            // A report deleted, expired or re-triaged by another instance
            // meanwhile is left as it now is.
            auto changed = c.query("UPDATE reports SET summary = $1, report_username = $2,"
                                   " rules = $3 WHERE id = $4 AND rules < $3 AND raw_expired = 0"
                                   " RETURNING id",
                                   {sql::text(cleanText(t.summary)), sql::optText(user),
                                    sql::integer(t.rules), sql::integer(id)});
            if (changed.empty())
                continue;
            step.retriaged++;
            if (same(id, t.outcomes))
                continue;
            dropOutcomes(c, id);
            addOutcomes(c, id, static_cast<std::time_t>(rows.integer(i, 1)), t.outcomes);
        }
    });
    step.last_id = last;
    return step;
}

Store::RulesCount Store::countByRules(int rules) {
    auto rows = db_.read("SELECT raw_expired, count(*) FROM reports WHERE rules < $1"
                         " GROUP BY raw_expired",
                         {sql::integer(rules)});
    RulesCount n;
    for (size_t i = 0; i < rows.size(); i++)
        (rows.integer(i, 0) ? n.expired : n.older) += rows.integer(i, 1);
    return n;
}

} // namespace kobreportd
