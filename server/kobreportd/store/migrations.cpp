#include "migrations.h"

#include <cstdlib>
#include <string>

#include "log.h"
#include "pack.h"
#include "text.h"

namespace kobreportd {

namespace {

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

// A database brought back to an older layout's number keeps the columns
// the newer one added: a step adds a column only where it is missing.
// Generated columns too (table_xinfo), which table_info leaves out.
bool hasColumn(sql::Dialect d, sql::Conn &c, const char *table, const char *column) {
    const char *q = d == sql::Dialect::Postgres
                        ? "SELECT count(*) AS n FROM information_schema.columns WHERE"
                          " table_schema = current_schema() AND table_name = $1 AND"
                          " column_name = $2"
                        : "SELECT count(*) AS n FROM pragma_table_xinfo($1) WHERE name = $2";
    return c.query(q, {sql::text(table), sql::text(column)}).integer(0, "n") > 0;
}

void addColumn(sql::Dialect d, sql::Conn &c, const char *table, const char *column,
               const char *type) {
    if (!hasColumn(d, c, table, column))
        c.query(ddl(d, std::string("ALTER TABLE ") + table + " ADD COLUMN " + column + " " + type));
}

// The reports as kobdiag sends them.  The first layout had no record of
// its own number: a database with this table and no kob_meta is at step 1.
void reports(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS reports ("
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
}

// Accounts, sessions, tokens, the append-only audit log, and expired raw
// text with the findings kept for it.
void staffAndRetention(sql::Dialect d, sql::Conn &c) {
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
}

// Each report's outcome per target, and the alerts on targets.  Reports
// stored before this layout have no outcomes: the fleet's numbers start
// with it.
void outcomesAndAlerts(sql::Dialect d, sql::Conn &c) {
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
void rulesVersion(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE reports ADD COLUMN rules {INT} NOT NULL DEFAULT 0"));
}

// Report texts written from now on are zstd frames; those already stored
// stay as they came (desc_zstd 0) and read as before.  PostgreSQL is told
// not to compress them a second time.
void compressedTexts(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE reports ADD COLUMN desc_zstd {INT} NOT NULL DEFAULT 0"));
    if (d == sql::Dialect::Postgres)
        c.query("ALTER TABLE reports ALTER COLUMN \"desc\" SET STORAGE EXTERNAL");
}

// The client network each report came from, so that a target is broken
// only when failures come from several (fleet.h).  Reports stored before
// count as one network of their own.
void senderNetworks(sql::Dialect, sql::Conn &c) {
    c.query("ALTER TABLE reports ADD COLUMN sender_net TEXT NOT NULL DEFAULT ''");
}

// Repeated failed or refused sign-ins from one address fold into one row a
// minute with a count, so that a flood of them cannot grow the log without
// bound.  The log stays append-only but for exactly that: a folded row's
// count going up by one, with the time of its latest sign-in.
// The audit log's rows may change in one way only: the count of a folded
// row of one of these actions goes up (Audit::fold).
void foldableActions(sql::Dialect d, sql::Conn &c, const std::string &actions) {
    std::string onlyACount =
        "old.action IN (" + actions +
        ") AND new.count = old.count + 1 AND"
        " new.id = old.id AND new.at = old.at AND new.account = old.account AND"
        " new.address = old.address AND new.action = old.action AND"
        " new.reference = old.reference AND new.detail = old.detail AND"
        " new.last_at >= coalesce(old.last_at, old.at)";
    if (d == sql::Dialect::Postgres) {
        c.query("CREATE OR REPLACE FUNCTION kob_audit_append_only() RETURNS trigger"
                " LANGUAGE plpgsql AS $body$BEGIN"
                " IF TG_OP = 'UPDATE' AND " +
                onlyACount +
                " THEN RETURN NEW; END IF;"
                " RAISE EXCEPTION 'the audit log is append-only'; END$body$");
    } else {
        c.query("DROP TRIGGER IF EXISTS audit_append_only_UPDATE");
        c.query("CREATE TRIGGER audit_append_only_UPDATE BEFORE UPDATE ON audit"
                " WHEN NOT (" +
                onlyACount + ") BEGIN SELECT RAISE(ABORT, 'the audit log is append-only'); END");
    }
}

void foldedSignIns(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE audit ADD COLUMN count {INT} NOT NULL DEFAULT 1"));
    c.query(ddl(d, "ALTER TABLE audit ADD COLUMN last_at {INT}"));
    foldableActions(d, c, "'signin.failed', 'signin.locked'");
}

// What an expired report keeps is kept as a zstd frame: plain, the findings
// took more room than the compressed text they replaced.
void packedFindings(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "ALTER TABLE reports ADD COLUMN findings_zstd {BLOB}"));
    for (;;) {
        auto rows = c.query("SELECT id, findings FROM reports WHERE findings <> '' LIMIT 100");
        if (rows.empty())
            break;
        for (size_t i = 0; i < rows.size(); i++)
            c.query(
                "UPDATE reports SET findings_zstd = $1, findings = '' WHERE id = $2",
                {sql::blob(pack(rows.str(i, "findings"))), sql::integer(rows.integer(i, "id"))});
    }
}

// The last reference number given on each day, so that a number carrying
// the time of day is never given twice (Store::nextNumber).  References
// given before it end in their report's id, six digits or more, and stay
// as they are.
void referenceDays(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS reference_days ("
                   " day TEXT PRIMARY KEY, issued {INT} NOT NULL)"));
}

// Accounts that are switched off rather than deleted, when people last
// signed in, and one-time links that set a new password.
void accountStates(sql::Dialect d, sql::Conn &c) {
    addColumn(d, c, "users", "disabled", "{INT} NOT NULL DEFAULT 0");
    addColumn(d, c, "users", "last_signin", "{INT}");
    addColumn(d, c, "tokens", "disabled", "{INT} NOT NULL DEFAULT 0");
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS password_resets ("
                   " id_hash TEXT PRIMARY KEY, account TEXT NOT NULL,"
                   " expires_at {INT} NOT NULL)"));
}

// A second factor per account (its TOTP secret encrypted, and the last time
// step a code was taken at, so that a code is good once), its recovery
// codes as hashes, the sign-ins waiting for their code, and how a session
// was made and which people an identity provider's proxy made.
void secondFactorsAndProxySignIn(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS second_factors ("
                   " account TEXT PRIMARY KEY, secret TEXT NOT NULL,"
                   " confirmed {INT} NOT NULL DEFAULT 0, last_step {INT} NOT NULL DEFAULT 0,"
                   " created_at {INT} NOT NULL)"));
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS recovery_codes ("
                   " account TEXT NOT NULL, code_hash TEXT NOT NULL,"
                   " used_at {INT} NOT NULL DEFAULT 0, PRIMARY KEY (account, code_hash))"));
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS pending_signins ("
                   " id_hash TEXT PRIMARY KEY, account TEXT NOT NULL,"
                   " created_at {INT} NOT NULL)"));
    addColumn(d, c, "sessions", "via_proxy", "{INT} NOT NULL DEFAULT 0");
    addColumn(d, c, "users", "email", "TEXT NOT NULL DEFAULT ''");
    // Wrong codes and refused proxy sign-ins are folded as failed sign-ins are.
    foldableActions(d, c,
                    "'signin.failed', 'signin.locked', 'signin.code_failed', "
                    "'signin.proxy.refused'");
}

// Reports grouped into issues by what fails, and a workflow (status, owner,
// ticket) for issues and reports alike.  Notes are rows of the audit log,
// found again by their action and reference.  Reports stored before belong
// to no issue until retriage judges them again.
void issuesAndWorkflow(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS issues ("
                   " id {ID}, signature_hash TEXT NOT NULL UNIQUE, signature TEXT NOT NULL,"
                   " title TEXT NOT NULL, created_at {INT} NOT NULL,"
                   " status TEXT NOT NULL DEFAULT 'new', owner TEXT, ticket TEXT)"));
    addColumn(d, c, "reports", "issue_id", "{INT}");
    addColumn(d, c, "reports", "status", "TEXT NOT NULL DEFAULT 'new'");
    addColumn(d, c, "reports", "owner", "TEXT");
    addColumn(d, c, "reports", "ticket", "TEXT");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_issue ON reports (issue_id, received_at)");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_status ON reports (status, id)");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_owner ON reports (owner, id)");
    c.query("CREATE INDEX IF NOT EXISTS audit_by_reference ON audit (action, reference, id)");
}

// The network and country each report was sent from, as the operator's
// MaxMind DB files name them; never the address.  Reports stored before,
// or without the files, have no row.  And incidents: broken targets that
// fail together, with their status (incidents.h).
void networksAndIncidents(sql::Dialect d, sql::Conn &c) {
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS report_networks ("
                   " report_id {INT} PRIMARY KEY, received_at {INT} NOT NULL, asn {INT},"
                   " as_name TEXT NOT NULL, country TEXT NOT NULL)"));
    c.query("CREATE INDEX IF NOT EXISTS report_networks_by_time ON report_networks"
            " (received_at)");
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS incidents ("
                   " id {ID}, started_at {INT} NOT NULL, last_active {INT} NOT NULL,"
                   " status TEXT NOT NULL, acknowledged_by TEXT, acknowledged_at {INT},"
                   " resolved_at {INT}, reopened {INT} NOT NULL)"));
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS incident_targets ("
                   " incident_id {INT} NOT NULL, area TEXT NOT NULL, target TEXT NOT NULL,"
                   " PRIMARY KEY (incident_id, area, target))"));
}

bool tableExists(sql::Dialect d, sql::Conn &c, const char *name);

// What the list's filters search by, each with an index so that any one
// filter stays quick on a million reports: the worst verdict's level and
// kobdiag's version on the report, every verdict's rule and area beside it,
// the user's comment in the database's own full-text index (an FTS5 table
// on SQLite, a tsvector column on PostgreSQL), references by their last
// six digits and by their beginning, and the views staff saved.  Reports
// stored before are marked for `kobreportd retriage`, which fills in their
// levels, versions and verdicts.
void searchFilters(sql::Dialect d, sql::Conn &c) {
    bool pg = d == sql::Dialect::Postgres;
    // Each part only once, should the step be run on a layout that has it.
    auto has = [&](const char *column) { return hasColumn(d, c, "reports", column); };
    if (!has("level"))
        c.query("ALTER TABLE reports ADD COLUMN level TEXT NOT NULL DEFAULT ''");
    if (!has("version"))
        c.query("ALTER TABLE reports ADD COLUMN version TEXT");
    // The list counts reports with a reference: the indexes hold it, so that a
    // count reads no row.
    c.query("CREATE INDEX IF NOT EXISTS reports_by_level ON reports (level, id, reference)");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_version ON reports (version, id, reference)");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_time_counted ON reports"
            " (received_at, reference)");
    // A column the database computes, not an index on the expression: SQLite
    // writes no blob in pieces into a table indexed on an expression.
    if (!has("ref_tail"))
        c.query(std::string("ALTER TABLE reports ADD COLUMN ref_tail TEXT GENERATED ALWAYS AS"
                            " (substr(reference, length(reference) - 5)) ") +
                (pg ? "STORED" : "VIRTUAL"));
    c.query("CREATE INDEX IF NOT EXISTS reports_by_tail ON reports (ref_tail)");
    // A reference's beginning is found with LIKE, which these indexes serve.
    c.query(pg ? "CREATE INDEX IF NOT EXISTS reports_by_prefix ON reports"
                 " (reference text_pattern_ops)"
               : "CREATE INDEX IF NOT EXISTS reports_by_prefix ON reports"
                 " (reference COLLATE NOCASE)");
    // A part of a user name is looked for in this, not in the whole rows;
    // PostgreSQL finds it through trigrams, where the database lets
    // pg_trgm be created (else it reads the names).
    c.query("CREATE INDEX IF NOT EXISTS reports_by_users ON reports"
            " (form_username, report_username, id)");
    if (pg) {
        c.query("SAVEPOINT trigrams");
        try {
            c.query("CREATE EXTENSION IF NOT EXISTS pg_trgm");
            c.query("CREATE INDEX IF NOT EXISTS reports_by_form_user_part ON reports USING gin"
                    " (form_username gin_trgm_ops)");
            c.query("CREATE INDEX IF NOT EXISTS reports_by_report_user_part ON reports USING gin"
                    " (report_username gin_trgm_ops)");
            c.query("RELEASE SAVEPOINT trigrams");
        } catch (const StoreError &e) {
            c.query("ROLLBACK TO SAVEPOINT trigrams");
            log::warn("no_trigram_index", {{"error", e.what()}});
        }
    }
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS saved_views ("
                   " id {ID}, account TEXT NOT NULL, name TEXT NOT NULL, query TEXT NOT NULL,"
                   " shared {INT} NOT NULL, created_at {INT} NOT NULL, UNIQUE (account, name))"));
    c.query(ddl(d, "CREATE TABLE IF NOT EXISTS report_verdicts ("
                   " report_id {INT} NOT NULL, rule TEXT NOT NULL, area TEXT NOT NULL,"
                   " level TEXT NOT NULL, problem {INT} NOT NULL)"));
    c.query("CREATE INDEX IF NOT EXISTS report_verdicts_by_rule ON report_verdicts"
            " (rule, report_id)");
    c.query("CREATE INDEX IF NOT EXISTS report_verdicts_by_area ON report_verdicts"
            " (area, problem, report_id)");
    c.query("CREATE INDEX IF NOT EXISTS report_verdicts_by_report ON report_verdicts"
            " (report_id)");
    if (pg ? has("words") : tableExists(d, c, "report_words"))
        return;
    if (pg) {
        c.query("ALTER TABLE reports ADD COLUMN words tsvector");
        c.query("CREATE INDEX IF NOT EXISTS reports_by_words ON reports USING gin (words)");
    } else {
        c.query("CREATE VIRTUAL TABLE IF NOT EXISTS report_words USING fts5(comment)");
    }
    auto comments = c.query("SELECT id, why FROM reports WHERE why IS NOT NULL AND"
                            " raw_expired = 0");
    for (size_t i = 0; i < comments.size(); i++) {
        std::string text = cleanText(comments.str(i, "why"));
        sql::Param id = sql::integer(comments.integer(i, "id"));
        if (pg)
            c.query("UPDATE reports SET words = to_tsvector('simple', $1::text) WHERE id = $2",
                    {sql::text(text), id});
        else
            c.query("INSERT INTO report_words (rowid, comment) VALUES ($2, $1)",
                    {sql::text(text), id});
    }
    c.query("UPDATE reports SET rules = 0 WHERE raw_expired = 0");
}

bool tableExists(sql::Dialect d, sql::Conn &c, const char *name) {
    const char *q =
        d == sql::Dialect::Postgres
            ? "SELECT count(*) AS n FROM pg_catalog.pg_tables"
              " WHERE schemaname = current_schema() AND tablename = $1"
            : "SELECT count(*) AS n FROM sqlite_master WHERE type = 'table' AND name = $1";
    return c.query(q, {sql::text(name)}).integer(0, "n") > 0;
}

// The time zone each person reads times in.
void staffZones(sql::Dialect d, sql::Conn &c) {
    addColumn(d, c, "users", "zone", "TEXT NOT NULL DEFAULT 'UTC'");
}

// Every user name a report gives, once: a part of a name is looked for
// among these thousands, and the reports then found by index, rather than
// in every report's names.  On PostgreSQL the comments' words move out of
// the reports into a narrow table of their own, which a common word's
// search reads whole in a fraction of the time.
void namesAndWords(sql::Dialect d, sql::Conn &c) {
    bool pg = d == sql::Dialect::Postgres;
    c.query("CREATE TABLE IF NOT EXISTS user_names (name TEXT PRIMARY KEY)");
    c.query("INSERT INTO user_names (name) SELECT n FROM (SELECT form_username AS n FROM reports"
            " WHERE form_username IS NOT NULL UNION SELECT report_username FROM reports"
            " WHERE report_username IS NOT NULL) AS u"
            " WHERE n NOT IN (SELECT name FROM user_names)");
    c.query("CREATE INDEX IF NOT EXISTS reports_by_report_user ON reports (report_username, id)");
    if (!pg)
        return;
    // The trigram indexes that served the search before are of no more use.
    c.query("DROP INDEX IF EXISTS reports_by_form_user_part");
    c.query("DROP INDEX IF EXISTS reports_by_report_user_part");
    c.query("CREATE TABLE IF NOT EXISTS report_words ("
            " report_id BIGINT PRIMARY KEY, words tsvector NOT NULL)");
    if (!hasColumn(d, c, "reports", "words"))
        return;
    c.query("INSERT INTO report_words (report_id, words) SELECT id, words FROM reports"
            " WHERE words IS NOT NULL AND length(words) > 0 ON CONFLICT DO NOTHING");
    c.query("CREATE INDEX IF NOT EXISTS report_words_by_word ON report_words USING gin (words)");
    c.query("DROP INDEX IF EXISTS reports_by_words");
    c.query("ALTER TABLE reports DROP COLUMN words");
}

struct Step {
    int layout;
    void (*apply)(sql::Dialect, sql::Conn &);
};

// Each step brings the layout before it to its own number.  A new layout
// is a new row at the end; rows are never changed once released.
// clang-format off
constexpr Step kSteps[] = {
    {1, reports},
    {2, staffAndRetention},
    {3, outcomesAndAlerts},
    {4, rulesVersion},
    {5, compressedTexts},
    {6, senderNetworks},
    {7, foldedSignIns},
    {8, packedFindings},
    {9, referenceDays},
    {10, accountStates},
    {11, secondFactorsAndProxySignIn},
    {12, staffZones},
    {13, issuesAndWorkflow},
    {14, networksAndIncidents},
    {15, searchFilters},
    {16, namesAndWords},
};
// clang-format on

int layoutOf(const std::string &value) {
    return static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
}

// A file about to change its layout is copied first, beside it, so that
// going back to the version before is a matter of putting the copy back.
// An older copy of the same name is not overwritten: it may be the only
// one left of a database an earlier upgrade started from.
void backUpBeforeMigrating(sql::Db &db, int from) {
    std::string file = db.file();
    if (file.empty())
        return;
    std::string copy = file + ".layout" + std::to_string(from) + "-backup";
    try {
        db.copyTo(copy, [](sql::Conn &) {});
    } catch (const StoreError &e) {
        throw StoreError("not migrating the database to layout " + std::to_string(currentLayout()) +
                         ": " + e.what());
    }
    log::info("migration_backup", {{"from", from}, {"to", currentLayout()}, {"path", copy}});
}

} // namespace

int currentLayout() {
    return std::end(kSteps)[-1].layout;
}

std::optional<int> newerLayout(sql::Db &db) {
    try {
        auto v = db.read("SELECT value FROM kob_meta WHERE key = 'schema'");
        int layout = v.empty() ? 0 : layoutOf(v.str(0, "value"));
        if (layout > currentLayout())
            return layout;
    } catch (const StoreError &) {
        // The database cannot be read now; the request finds that out itself.
    }
    return std::nullopt;
}

std::string newerLayoutMessage(int layout) {
    return "the database was written by a newer kobreportd (layout " + std::to_string(layout) +
           ", this one knows up to " + std::to_string(currentLayout()) + ")";
}

void migrate(sql::Db &db) {
    sql::Dialect d = db.dialect();
    db.transaction([&](sql::Conn &c) {
        // Instances starting together must not race to change the layout.
        if (d == sql::Dialect::Postgres)
            c.query("SELECT pg_advisory_xact_lock(7246001)");
        int layout = 0;
        if (tableExists(d, c, "kob_meta")) {
            auto v = c.query("SELECT value FROM kob_meta WHERE key = 'schema'");
            layout = v.empty() ? 0 : layoutOf(v.str(0, "value"));
        } else if (tableExists(d, c, "reports")) {
            layout = 1;
        }
        if (layout > currentLayout())
            throw StoreError(newerLayoutMessage(layout));
        if (layout == currentLayout())
            return;
        // Readers are not held up by the writer's transaction: the copy is
        // the database as it stands before the first step.
        if (layout > 0)
            backUpBeforeMigrating(db, layout);
        for (const Step &s : kSteps)
            if (s.layout > layout)
                s.apply(d, c);
        c.query("DELETE FROM kob_meta WHERE key = 'schema'");
        c.query("INSERT INTO kob_meta (key, value) VALUES ('schema', $1)",
                {sql::text(std::to_string(currentLayout()))});
    });
}

} // namespace kobreportd
