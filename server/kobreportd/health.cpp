#include "health.h"

#include <condition_variable>
#include <thread>

#include "clock.h"
#include "log.h"
#include "store.h"

namespace kobreportd {

namespace {
constexpr auto kDatabaseWait = std::chrono::seconds(1);
}

struct Health::Probe {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::string error; // empty: the database answered
};

Health::Health(sql::Db &db, Quotas *quotas) : db_(db), quotas_(quotas) {}

void Health::addRoutes(RouteTable &table) {
    for (Listener l : {Listener::Intake, Listener::Staff}) {
        table.add(
            {Method::Get, "/healthz", l, Access::Open, Role::Viewer,
             [](const Request &, Response &res, const Principal *) { answer(res, 200, "ok"); }});
        table.add({Method::Get, "/readyz", l, Access::Open, Role::Viewer,
                   [this](const Request &, Response &res, const Principal *) {
                       auto why = problem();
                       answer(res, why ? 503 : 200, why ? "not ready: " + *why + "\n" : "ready\n");
                       res.setHeader("Cache-Control", "no-store");
                   }});
    }
}

std::optional<std::string> Health::problem() {
    std::optional<std::string> why;
    if (stopping_)
        why = "shutting down";
    else if (auto db = databaseProblem())
        why = db;
    else if (auto refusal = quotas_ ? quotas_->full(now()) : std::nullopt)
        why = refusal->reason == std::string("disk_free") ? "free disk below the guard"
                                                          : "the database is at its size cap";
    // Said once when it changes, not at every probe.
    std::lock_guard<std::mutex> lock(mutex_);
    if (why != lastProblem_) {
        if (why)
            log::warn("not_ready", {{"reason", *why}});
        else
            log::info("ready_again");
        lastProblem_ = why;
    }
    return why;
}

std::optional<std::string> Health::databaseProblem() {
    std::shared_ptr<Probe> p;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (probe_) {
            std::lock_guard<std::mutex> hold(probe_->mutex);
            if (!probe_->finished)
                return std::string("the database did not answer within 1 s");
        }
        p = probe_ = std::make_shared<Probe>();
    }
    // On a thread of its own, so that a database that does not answer
    // costs this request one second, not the time the driver takes to
    // give up.
    std::thread([p, &db = db_] {
        std::string error;
        try {
            db.read("SELECT 1 AS one");
        } catch (const StoreError &e) {
            error = e.what();
        }
        std::lock_guard<std::mutex> hold(p->mutex);
        p->error = error;
        p->finished = true;
        p->done.notify_all();
    }).detach();
    std::unique_lock<std::mutex> hold(p->mutex);
    if (!p->done.wait_for(hold, kDatabaseWait, [&] { return p->finished; }))
        return std::string("the database did not answer within 1 s");
    if (!p->error.empty()) {
        // The reason goes to the log; the answer, which anyone on the
        // intake may read, does not say where the database is.
        log::debug("database_check_failed", {{"error", p->error}});
        return std::string("the database failed");
    }
    return std::nullopt;
}

Health::~Health() {
    std::shared_ptr<Probe> p;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        p = probe_;
    }
    if (!p)
        return;
    // The check's thread uses the database, which goes after this.
    std::unique_lock<std::mutex> hold(p->mutex);
    p->done.wait_for(hold, std::chrono::seconds(3), [&] { return p->finished; });
}

} // namespace kobreportd
