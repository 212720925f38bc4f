// Re-judging stored reports with newer rules, a committed batch at a time.

#include "store.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>

#include "outcomes.h"
#include "pack.h"
#include "search.h"
#include "text.h"
#include "log.h"

namespace kobreportd {

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
    int64_t bytes = 0, last = heads.integer(0, "id");
    for (size_t i = 0;
         i < heads.size() && (i == 0 || bytes + heads.integer(i, "size") <= kBatchBytes); i++) {
        bytes += heads.integer(i, "size");
        last = heads.integer(i, "id");
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
            done.push_back(triage(unpack(rows.str(i, "desc"), rows.integer(i, "desc_zstd") != 0,
                                         rows.integer(i, "size"))));
        } catch (const StoreError &e) {
            // One damaged row must not stop the reports after it.
            log::error("retriage_skipped",
                       {{"report_id", rows.integer(i, "id")}, {"error", e.what()}});
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
        kept[old.integer(i, "report_id")].emplace_back(old.str(i, "area"), old.str(i, "target"),
                                                       old.integer(i, "failing") != 0);
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
            int64_t id = rows.integer(i, "id");
            std::optional<std::string> user;
            if (t.report_username)
                user = cleanText(*t.report_username);
            // A report deleted, expired or re-triaged by another instance
            // meanwhile is left as it now is.
            // Judged anew, a report may fall in another issue; none is
            // reopened by it.
            auto issue = issueFor(
                c, t.issue, static_cast<std::time_t>(rows.integer(i, "received_at")), false, "");
            auto changed = c.query(
                "UPDATE reports SET summary = $1, report_username = $2,"
                " rules = $3, findings_zstd = $5, level = $6, version = $7, issue_id = $8 WHERE"
                " id = $4 AND"
                " rules < $3 AND raw_expired = 0 RETURNING id",
                {sql::text(cleanText(t.summary)), sql::optText(user), sql::integer(t.rules),
                 sql::integer(id),
                 t.findings.empty() ? sql::optBlob(std::nullopt) : sql::blob(pack(t.findings)),
                 sql::text(t.level),
                 t.version ? sql::text(cleanText(*t.version)) : sql::optText(std::nullopt),
                 issue ? sql::integer(*issue) : sql::null()});
            if (changed.empty())
                continue;
            step.retriaged++;
            replaceVerdicts(c, id, t.verdicts);
            if (same(id, t.outcomes))
                continue;
            dropOutcomes(c, id);
            addOutcomes(c, id, static_cast<std::time_t>(rows.integer(i, "received_at")),
                        t.outcomes);
        }
    });
    step.last_id = last;
    return step;
}

} // namespace kobreportd
