// Intake's side of the store: a report compressed, numbered and committed
// with the others that arrive while a commit is under way.

#include "store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "clock.h"
#include "outcomes.h"
#include "pack.h"
#include "search.h"
#include "text.h"

namespace kobreportd {

namespace {

// A commit takes the reports waiting for it up to about this many bytes as
// stored (compressed).
constexpr size_t kCommitBytes = size_t{8} << 20;

// Above this size SQLite is handed the report in pieces.
constexpr size_t kPieceWiseFrom = size_t{256} << 10;

// A reference's number is a time of day in these steps (9 digits in a day).
constexpr int64_t kStepsPerSecond = 10000;
constexpr int64_t kStepsPerDay = 86400 * kStepsPerSecond;

int64_t stepsSinceEpoch() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() /
           (1000000 / kStepsPerSecond);
}

int64_t startOfDay(std::time_t t) {
    int64_t s = static_cast<int64_t>(t);
    return (s - ((s % 86400) + 86400) % 86400) * kStepsPerSecond;
}

// The day's numbers, shared by every instance on the database: $3 more,
// from one more than the day's last or the time of day ($2), whichever is
// larger.  Returns the last of them.
constexpr const char *kReserveNumbers =
    "INSERT INTO reference_days (day, issued) VALUES ($1, $2 + $3 - 1) ON CONFLICT (day) DO"
    " UPDATE SET issued = CASE WHEN reference_days.issued + $3 > excluded.issued"
    " THEN reference_days.issued + $3 ELSE excluded.issued END RETURNING issued";

} // namespace

std::string makeReference(std::time_t receivedAt, int64_t number) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "-%09lld", static_cast<long long>(number));
    return "KOB-" + utcTime(receivedAt, "%Y%m%d") + digits;
}

// A reference must never be given twice, even by a server started on a
// restored backup that knows nothing of the references given after the
// backup was taken.  So the day's number carries the time of day, in steps
// of 100 microseconds, and is given out only once the clock has reached it:
// every number the old server gave is below the time it stopped, and every
// number the restored server gives is at or above the time it started.
// Numbers asked for faster than the steps run ahead of the clock, and the
// answer waits for it to catch up, which bounds the intake at 10,000
// reports a second.  A clock set back cannot hold uploads for long: after a
// second the number goes out as it is, still unique in this database.
//
// A batch takes its numbers in one statement for each day it spans.
//
// Under the test clock the day is the test's and the number is the real
// time of day, given out at once.
void Store::number(sql::Conn &c, const std::vector<Pending *> &batch) {
    const bool waits = !testClock();
    std::map<std::string, std::vector<Pending *>> byDay;
    for (Pending *p : batch)
        byDay[utcTime(p->report->received_at, "%Y%m%d")].push_back(p);
    int64_t ahead = 0; // how far the last number runs ahead of the clock
    for (auto &[day, reports] : byDay) {
        std::time_t receivedAt = reports.front()->report->received_at;
        auto floor = [&] {
            int64_t now = stepsSinceEpoch();
            return waits ? std::max<int64_t>(0, now - startOfDay(receivedAt)) : now % kStepsPerDay;
        };
        auto n = static_cast<int64_t>(reports.size());
        int64_t last =
            c.query(kReserveNumbers, {sql::text(day), sql::integer(floor()), sql::integer(n)})
                .integer(0, "issued");
        for (int64_t i = 0; i < n; i++)
            reports[static_cast<size_t>(i)]->number = last - n + 1 + i;
        ahead = std::max(ahead, last - floor());
    }
    auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (waits && ahead > 0 && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(std::chrono::microseconds(ahead * (1000000 / kStepsPerSecond)));
        ahead = 0;
        for (auto &[day, reports] : byDay) {
            int64_t now = stepsSinceEpoch() - startOfDay(reports.front()->report->received_at);
            ahead = std::max(ahead, reports.back()->number - now);
        }
    }
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
    Pending mine{&r, &packed, {}, 0, {}, {}, false};
    if (!r.findings.empty())
        mine.findings = pack(r.findings);
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
    // PostgreSQL: the numbers are taken for the whole batch in a moment's
    // transaction of its own, so that the day's row is not locked while a
    // batch commits beside the others; it need not reach the disk by
    // itself, the reports' commit later in the same log takes it there.
    // SQLite: in the batch's transaction, its writer holding the database
    // alone; a batch rolled back gives its numbers back with it.
    const bool pg = db_.dialect() == sql::Dialect::Postgres;
    if (pg) {
        try {
            db_.transaction([&](sql::Conn &c) {
                c.query("SET LOCAL synchronous_commit TO OFF");
                number(c, batch);
            });
        } catch (const std::exception &e) {
            for (Pending *p : batch)
                p->error = e.what();
            return;
        }
    }
    auto alone = [this, pg](Pending *p) {
        try {
            db_.transaction([&](sql::Conn &c) {
                if (!pg)
                    number(c, {p});
                p->reference = insertOne(c, *p);
            });
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
            if (!pg)
                number(c, batch);
            for (Pending *p : batch)
                p->reference = insertOne(c, *p);
        });
        return;
    } catch (const std::exception &) {
        // Rolled back whole; each again on its own, so that one report the
        // database refuses does not cost the others theirs.
    }
    for (Pending *p : batch)
        alone(p);
}

std::string Store::insertOne(sql::Conn &c, const Pending &p) {
    const NewReport &r = *p.report;
    const std::string &packed = *p.packed;
    std::optional<std::string> formUser, reportUser;
    if (r.form_username)
        formUser = cleanText(*r.form_username);
    if (r.report_username)
        reportUser = cleanText(*r.report_username);
    std::string summary = cleanText(r.summary), peer = cleanText(r.peer);
    bool pg = db_.dialect() == sql::Dialect::Postgres;
    // The row's id is known before the row is written, so the row is
    // written once, reference and all: rewriting it would write the
    // report a second time.  PostgreSQL takes it from the table's sequence,
    // unique across instances sharing the database; SQLite's writer holds
    // the database alone until its commit, so the next number is its own.
    int64_t id =
        pg ? c.query("SELECT nextval(pg_get_serial_sequence('reports', 'id')) AS id")
                 .integer(0, "id")
           : c.query("SELECT max(coalesce((SELECT seq FROM sqlite_sequence WHERE name ="
                     " 'reports'), 0), coalesce((SELECT max(id) FROM reports), 0)) + 1 AS id")
                 .integer(0, "id");
    std::string ref = makeReference(r.received_at, p.number);
    // A large report goes into SQLite in pieces, not through one record
    // holding a second copy of it.
    bool pieces = !pg && packed.size() > kPieceWiseFrom;
    std::optional<std::string> comment, version;
    if (r.why)
        comment = cleanText(*r.why);
    if (r.version)
        version = cleanText(*r.version);
    // The comment's words go into the full-text table (addSearchable).
    std::string net = senderNetwork(peer);
    auto issue = issueFor(c, r.issue, r.received_at, true, ref);
    std::vector<sql::Param> params = {sql::integer(id),
                                      sql::text(ref),
                                      sql::integer(r.received_at),
                                      sql::optText(formUser),
                                      sql::optText(reportUser),
                                      sql::text(summary),
                                      sql::text(peer),
                                      sql::integer(static_cast<int64_t>(r.desc.size())),
                                      pieces ? sql::integer(static_cast<int64_t>(packed.size()))
                                             : sql::blob(packed),
                                      sql::optBlob(r.why),
                                      sql::integer(r.rules),
                                      sql::text(net),
                                      sql::optBlob(p.findings),
                                      sql::text(r.level),
                                      sql::optText(version),
                                      issue ? sql::integer(*issue) : sql::null()};
    c.query("INSERT INTO reports (id, reference, received_at, form_username, report_username,"
            " summary, peer, size, \"desc\", why, rules, desc_zstd, sender_net, findings_zstd,"
            " level, version, issue_id) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, " +
                std::string(pieces ? "zeroblob($9)" : "$9") +
                ", $10, $11, 1, $12, $13, $14, $15, $16)",
            params);
    if (pieces)
        c.fillBlob("reports", "desc", id, packed);
    addOutcomes(c, id, r.received_at, r.outcomes);
    addSearchable(c, db_.dialect(), id, comment, r.verdicts);
    addUserNames(c, formUser, reportUser);
    // The sender's network in a table of its own, which never holds the
    // address: it outlives the raw text's expiry.
    if (r.network.known())
        c.query("INSERT INTO report_networks (report_id, received_at, asn, as_name, country)"
                " VALUES ($1, $2, $3, $4, $5)",
                {sql::integer(id), sql::integer(r.received_at),
                 r.network.asn ? sql::integer(*r.network.asn) : sql::null(),
                 sql::text(cleanText(r.network.as_name.substr(0, 200))),
                 sql::text(cleanText(r.network.country.substr(0, 8)))});
    return ref;
}

} // namespace kobreportd
