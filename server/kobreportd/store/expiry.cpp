// Retention's side of the store: the raw text of old reports goes, what
// the triage found in it stays.

#include "store.h"

#include <cstdio>

#include "kobtriage.h"
#include "mask.h"
#include "pack.h"
#include "search.h"
#include "log.h"

namespace kobreportd {

namespace {

// What stays of a report: what the triage found in its text, without the
// sections it did not understand and without the captures' and logs' own
// text (the user's data again under another name), with the user's
// addresses masked as a viewer sees them (the verdicts were made on the
// text as it came, and do not change), as a zstd frame; and the run's
// targets, which the summary keeps readable.  A text that no longer
// decompresses keeps no findings.
struct Findings {
    std::optional<std::string> packed;
    AddressSet targets;
};

Findings keptFindings(const sql::Rows &rows, size_t i) {
    Findings f;
    try {
        auto report = kobtriage::parse(unpack(
            rows.str(i, "desc"), rows.integer(i, "desc_zstd") != 0, rows.integer(i, "size")));
        f.targets = targetAddresses(report);
        report.unknown.clear();
        for (auto &capture : report.captures)
            capture.text.clear();
        for (auto &log : report.logs)
            log.text.clear();
        f.packed = pack(maskAddresses(kobtriage::toJson(report), f.targets));
    } catch (const StoreError &e) {
        log::error("expired_without_findings",
                   {{"report_id", rows.integer(i, "id")}, {"error", e.what()}});
    }
    return f;
}

// The columns an expired report keeps, as they were.
struct Kept {
    int64_t id, received_at, size, rules;
    std::string reference, summary;
    std::optional<std::string> form_username, report_username, findings;
    std::string level; // the filters' fields outlive the text
    std::optional<std::string> version;
};

} // namespace

int64_t Store::expireBefore(std::time_t cutoff) {
    int64_t done = 0;
    for (;;) {
        // In batches, each its own transaction: intake never waits long.
        auto rows = db_.read("SELECT id, \"desc\", desc_zstd, size FROM reports WHERE"
                             " received_at < $1 AND raw_expired = 0 ORDER BY id LIMIT 50",
                             {sql::integer(cutoff)});
        if (rows.empty())
            break;
        std::vector<Findings> findings;
        for (size_t i = 0; i < rows.size(); i++)
            findings.push_back(keptFindings(rows, i));
        db_.transaction([&](sql::Conn &c) {
            // The batch's rows are taken out, and then written anew: rows
            // that shrank in place would leave their pages as large as they
            // were, while neighbours taken out together free whole pages,
            // which the rows written back fill densely.
            std::vector<Kept> kept;
            for (size_t i = 0; i < rows.size(); i++) {
                int64_t id = rows.integer(i, "id");
                auto k = c.query("DELETE FROM reports WHERE id = $1 AND raw_expired = 0"
                                 " RETURNING reference, received_at, form_username,"
                                 " report_username, summary, size, rules, level, version",
                                 {sql::integer(id)});
                if (k.empty())
                    continue; // deleted meanwhile
                kept.push_back(
                    {id, k.integer(0, "received_at"), k.integer(0, "size"), k.integer(0, "rules"),
                     k.str(0, "reference"), maskAddresses(k.str(0, "summary"), findings[i].targets),
                     k.opt(0, "form_username"), k.opt(0, "report_username"),
                     std::move(findings[i].packed), k.str(0, "level"), k.opt(0, "version")});
                dropWords(c, db_.dialect(), id);
            }
            for (const Kept &k : kept)
                c.query("INSERT INTO reports (id, reference, received_at, form_username,"
                        " report_username, summary, peer, size, \"desc\", why, raw_expired,"
                        " findings, rules, desc_zstd, sender_net, findings_zstd, level, version)"
                        " VALUES ($1, $2, $3, $4, $5, $6, '', $7, $8, NULL, 1, '', $9, 0, '', $10,"
                        " $11, $12)",
                        {sql::integer(k.id), sql::text(k.reference), sql::integer(k.received_at),
                         sql::optText(k.form_username), sql::optText(k.report_username),
                         sql::text(k.summary), sql::integer(k.size), sql::blob(""),
                         sql::integer(k.rules), sql::optBlob(k.findings), sql::text(k.level),
                         sql::optText(k.version)});
        });
        done += static_cast<int64_t>(rows.size());
    }
    if (done) {
        db_.transaction([this](sql::Conn &c) { purgeDroppedWords(c, db_.dialect()); });
        db_.scrub();
    }
    return done;
}

} // namespace kobreportd
