// Intake's side of the store: a report compressed, numbered and committed
// with the others that arrive while a commit is under way.

#include "store.h"

#include <algorithm>
#include <cstdio>
#include <thread>

#include "clock.h"
#include "outcomes.h"
#include "pack.h"
#include "text.h"

namespace kobreportd {

namespace {

// A commit takes the reports waiting for it up to about this many bytes as
// stored (compressed).
constexpr size_t kCommitBytes = size_t{8} << 20;

// Above this size SQLite is handed the report in pieces.
constexpr size_t kPieceWiseFrom = size_t{256} << 10;

} // namespace

std::string makeReference(std::time_t receivedAt, int64_t id) {
    char number[24];
    std::snprintf(number, sizeof number, "-%06lld", static_cast<long long>(id));
    return "KOB-" + utcTime(receivedAt, "%Y%m%d") + number;
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
    Pending mine{&r, &packed, {}, {}, {}, false};
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
    auto alone = [this](Pending *p) {
        try {
            db_.transaction([&](sql::Conn &c) { p->reference = insertOne(c, *p); });
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
    // The number is known before the row is written, so the row is
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
    std::string ref = makeReference(r.received_at, id);
    // A large report goes into SQLite in pieces, not through one record
    // holding a second copy of it.
    bool pieces = !pg && packed.size() > kPieceWiseFrom;
    c.query("INSERT INTO reports (id, reference, received_at, form_username, report_username,"
            " summary, peer, size, \"desc\", why, rules, desc_zstd, sender_net, findings_zstd)"
            " VALUES ($1, $2, $3, $4, $5, $6, $7, $8, " +
                std::string(pieces ? "zeroblob($9)" : "$9") + ", $10, $11, 1, $12, $13)",
            {sql::integer(id), sql::text(ref), sql::integer(r.received_at), sql::optText(formUser),
             sql::optText(reportUser), sql::text(summary), sql::text(peer),
             sql::integer(static_cast<int64_t>(r.desc.size())),
             pieces ? sql::integer(static_cast<int64_t>(packed.size())) : sql::blob(packed),
             sql::optBlob(r.why), sql::integer(r.rules), sql::text(senderNetwork(peer)),
             sql::optBlob(p.findings)});
    if (pieces)
        c.fillBlob("reports", "desc", id, packed);
    addOutcomes(c, id, r.received_at, r.outcomes);
    return ref;
}

} // namespace kobreportd
