#include "alerts.h"

#include <chrono>
#include <curl/curl.h>

#include "clock.h"
#include "fleet.h"
#include "incidents.h"
#include <nlohmann/json.hpp>

#include "kobtriage.h"
#include "log.h"

namespace kobreportd {

namespace {

nlohmann::ordered_json payload(const IncidentChange &c, const Incident &i,
                               const std::vector<std::string> &samples, std::time_t t,
                               const WebhookOptions &hook) {
    std::string link = webhookLink(hook, "/incidents#incident-" + std::to_string(i.id));
    auto targets = nlohmann::ordered_json::array();
    for (const auto &[area, target] : i.targets)
        targets.push_back({{"area", area}, {"target", target}});
    auto networks = nlohmann::ordered_json::array();
    for (const auto &n : i.networks)
        networks.push_back(
            {{"asn", *n.asn}, {"name", n.name}, {"reports", n.reports}, {"failing", n.failing}});
    return {{"event", c.event},
            {"at", isoTime(t)},
            // The one line a chat tool shows: what became of which
            // incident, its numbers so far, and where to look.
            {"text",
             "Incident " + std::to_string(i.id) + " " + c.event + ": " + i.summary() + "; " + link},
            {"incident", i.id},
            {"status", i.status},
            {"started_at", isoTime(i.started_at)},
            {"targets", targets},
            {"reports", i.reports},
            {"failing", i.failing},
            {"users", i.users},
            {"networks", networks},
            {"samples", samples},
            {"link", link}};
}

} // namespace

AlertTask::AlertTask(sql::Db &db, Metrics &metrics, WebhookOptions webhook, int intervalSeconds)
    : db_(db), metrics_(metrics), hook_(std::move(webhook)), interval_(intervalSeconds) {
    // The library's global setup is not thread-safe: done here, before the
    // sender exists.
    if (!hook_.url.empty())
        curl_global_init(CURL_GLOBAL_DEFAULT);
    checker_ = std::thread([this] { run(); });
    if (!hook_.url.empty())
        sender_ = std::thread([this] { deliver(); });
}

AlertTask::~AlertTask() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    checker_.join();
    if (sender_.joinable())
        sender_.join();
}

int AlertTask::check() {
    std::time_t t = now();
    Fleet f = fleet(db_, "24h", t);
    int changed = 0;
    for (const auto &target : f.targets) {
        double share = target.hour_reports ? static_cast<double>(target.hour_failing) /
                                                 static_cast<double>(target.hour_reports)
                                           : 0;
        auto open = db_.read("SELECT id FROM alerts WHERE area = $1 AND target = $2 AND"
                             " cleared_at IS NULL",
                             {sql::text(target.area), sql::text(target.target)});
        if (open.empty() && target.broken) {
            try {
                // Only one instance gets the open alert in: the index allows
                // one per target.
                db_.write("INSERT INTO alerts (area, target, raised_at, share, baseline)"
                          " VALUES ($1, $2, $3, $4, $5)",
                          {sql::text(target.area), sql::text(target.target), sql::integer(t),
                           sql::text(std::to_string(share)),
                           sql::text(std::to_string(target.baseline))});
            } catch (const StoreError &) {
                continue;
            }
            changed++;
            metrics_.alertRaised();
        } else if (!open.empty() && share - target.baseline < kBrokenMinRise / 2) {
            auto done = db_.write("UPDATE alerts SET cleared_at = $1 WHERE id = $2 AND"
                                  " cleared_at IS NULL RETURNING id",
                                  {sql::integer(t), sql::integer(open.integer(0, "id"))});
            changed += static_cast<int>(done.size());
        }
    }
    // One post per incident that changed: targets failing together are one
    // message, not one each.
    Incidents incidents(db_);
    for (const auto &c : incidents.update(f, t)) {
        changed++;
        auto i = incidents.find(c.id, t);
        if (!i || hook_.url.empty())
            continue;
        std::string doc = kobtriage::dumpJson(payload(c, *i, incidents.samples(*i, 5), t, hook_));
        std::lock_guard<std::mutex> lock(mutex_);
        outbox_.push_back(std::move(doc));
        wake_.notify_all();
    }
    // For the scrape: what is open in the shared database, and when that
    // was last seen, so that a stale figure can be told from a fresh one.
    auto [open, acknowledged] = incidents.current();
    metrics_.checked(
        db_.read("SELECT count(*) AS n FROM alerts WHERE cleared_at IS NULL").integer(0, "n"), open,
        acknowledged, t);
    return changed;
}

void AlertTask::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::seconds(interval_), [this] { return stop_; })) {
        lock.unlock();
        try {
            check();
        } catch (const StoreError &e) {
            log::error("alert_check_failed", {{"error", e.what()}});
        }
        lock.lock();
    }
}

bool AlertTask::post(const std::string &body) {
    CURL *c = curl_easy_init();
    if (!c)
        return false;
    struct curl_slist *headers = curl_slist_append(nullptr, "Content-Type: application/json");
    // Signed at each try, so that the time it names is the time it is sent.
    if (!hook_.secret.empty())
        headers = curl_slist_append(
            headers, ("X-Kob-Signature: " + webhookSignature(hook_.secret, now(), body)).c_str());
    curl_easy_setopt(c, CURLOPT_URL, hook_.url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 5L);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    // The receiver's answer is not wanted, only its status.
    curl_easy_setopt(
        c, CURLOPT_WRITEFUNCTION, +[](char *, size_t size, size_t n, void *) { return size * n; });
    long status = 0;
    bool sent = curl_easy_perform(c) == CURLE_OK &&
                curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK &&
                status >= 200 && status < 300;
    curl_slist_free_all(headers);
    curl_easy_cleanup(c);
    return sent;
}

void AlertTask::deliver() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stop_ || !outbox_.empty(); });
        if (stop_)
            return;
        std::string body = outbox_.front();
        // A few tries, one second apart and doubling: a receiver that is
        // down for longer is told by the next change, and the scrape counts
        // what it missed.
        int wait = 1;
        bool sent = false;
        for (int attempt = 0; attempt < hook_.tries && !sent && !stop_; attempt++) {
            lock.unlock();
            sent = post(body);
            lock.lock();
            if (sent)
                break;
            metrics_.webhookFailed();
            if (attempt + 1 < hook_.tries)
                wake_.wait_for(lock, std::chrono::seconds(wait), [this] { return stop_; });
            wait *= 2;
        }
        if (sent)
            metrics_.webhookDelivered();
        else if (!stop_) {
            metrics_.webhookDropped();
            log::error("alert_dropped",
                       {{"reason", "the webhook did not accept it"}, {"tries", hook_.tries}});
        }
        outbox_.pop_front();
    }
}

} // namespace kobreportd
