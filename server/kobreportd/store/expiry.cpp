// Retention's side of the store: the raw text of old reports goes, what
// the triage found in it stays.

#include "store.h"

#include <cstdio>

#include "kobtriage.h"
#include "mask.h"
#include "pack.h"

namespace kobreportd {

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
                    auto report = kobtriage::parse(
                        maskReport(unpack(rows.str(i, "desc"), rows.integer(i, "desc_zstd") != 0,
                                          rows.integer(i, "size"))));
                    report.unknown.clear();
                    findings = kobtriage::toJson(report);
                } catch (const StoreError &e) {
                    std::fprintf(stderr, "kobreportd: report %lld expired without findings: %s\n",
                                 static_cast<long long>(rows.integer(i, "id")), e.what());
                }
                c.query("UPDATE reports SET \"desc\" = $1, desc_zstd = 0, why = NULL, peer = '',"
                        " sender_net = '',"
                        " raw_expired = 1, findings = $2 WHERE id = $3",
                        {sql::blob(""), sql::text(findings), sql::integer(rows.integer(i, "id"))});
            }
        });
        done += static_cast<int64_t>(rows.size());
    }
    if (done)
        db_.scrub();
    return done;
}

} // namespace kobreportd
