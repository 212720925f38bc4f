// Retention's side of the store: the raw text of old reports goes, what
// the triage found in it stays.

#include "store.h"

#include <cstdio>

#include "kobtriage.h"
#include "mask.h"
#include "pack.h"

namespace kobreportd {

namespace {

// What stays of a report: what the triage found, from the text as a viewer
// sees it, without the sections it did not understand and without the
// captures' and logs' own text (the user's data again under another name),
// as a zstd frame.  A text that no longer decompresses keeps nothing.
std::optional<std::string> keptFindings(const sql::Rows &rows, size_t i) {
    try {
        auto report = kobtriage::parse(maskReport(unpack(
            rows.str(i, "desc"), rows.integer(i, "desc_zstd") != 0, rows.integer(i, "size"))));
        report.unknown.clear();
        for (auto &capture : report.captures)
            capture.text.clear();
        for (auto &log : report.logs)
            log.text.clear();
        return pack(kobtriage::toJson(report));
    } catch (const StoreError &e) {
        std::fprintf(stderr, "kobreportd: report %lld expired without findings: %s\n",
                     static_cast<long long>(rows.integer(i, "id")), e.what());
        return std::nullopt;
    }
}

// The columns an expired report keeps, as they were.
struct Kept {
    int64_t id, received_at, size, rules;
    std::string reference, summary;
    std::optional<std::string> form_username, report_username, findings;
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
        std::vector<std::optional<std::string>> findings;
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
                                 " report_username, summary, size, rules",
                                 {sql::integer(id)});
                if (k.empty())
                    continue; // deleted meanwhile
                kept.push_back({id, k.integer(0, "received_at"), k.integer(0, "size"),
                                k.integer(0, "rules"), k.str(0, "reference"), k.str(0, "summary"),
                                k.opt(0, "form_username"), k.opt(0, "report_username"),
                                std::move(findings[i])});
            }
            for (const Kept &k : kept)
                c.query("INSERT INTO reports (id, reference, received_at, form_username,"
                        " report_username, summary, peer, size, \"desc\", why, raw_expired,"
                        " findings, rules, desc_zstd, sender_net, findings_zstd) VALUES ($1, $2,"
                        " $3, $4, $5, $6, '', $7, $8, NULL, 1, '', $9, 0, '', $10)",
                        {sql::integer(k.id), sql::text(k.reference), sql::integer(k.received_at),
                         sql::optText(k.form_username), sql::optText(k.report_username),
                         sql::text(k.summary), sql::integer(k.size), sql::blob(""),
                         sql::integer(k.rules), sql::optBlob(k.findings)});
        });
        done += static_cast<int64_t>(rows.size());
    }
    if (done)
        db_.scrub();
    return done;
}

} // namespace kobreportd
