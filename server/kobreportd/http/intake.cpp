#include "intake.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "clock.h"
#include "kobtriage.h"
#include "log.h"

namespace kobreportd {

int threadsForThisMachine() {
    unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    return static_cast<int>(std::clamp(8 * cores, 16u, 64u));
}

std::string senderKey(const std::string &address) {
    if (address.find(':') == std::string::npos)
        return address;
    struct in6_addr a {};
    if (inet_pton(AF_INET6, address.c_str(), &a) != 1)
        return address;
    std::memset(a.s6_addr + 8, 0, 8);
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &a, text, sizeof text);
    return std::string(text) + "/64";
}

int RateLimiter::take(const std::string &address) {
    if (rate_ <= 0)
        return 0;
    auto t = std::chrono::steady_clock::now();
    double perSecond = rate_ / 60.0;
    std::lock_guard<std::mutex> lock(mutex_);
    // Full buckets carry no state worth keeping; drop them now and then so
    // that many one-time senders do not grow the map without bound.
    if (buckets_.size() > 100000) {
        for (auto it = buckets_.begin(); it != buckets_.end();) {
            double age = std::chrono::duration<double>(t - it->second.at).count();
            if (it->second.tokens + age * perSecond >= rate_)
                it = buckets_.erase(it);
            else
                ++it;
        }
    }
    auto [it, fresh] = buckets_.try_emplace(address, Bucket{static_cast<double>(rate_), t});
    Bucket &b = it->second;
    if (!fresh) {
        double age = std::chrono::duration<double>(t - b.at).count();
        b.tokens = std::min(static_cast<double>(rate_), b.tokens + age * perSecond);
        b.at = t;
    }
    if (b.tokens >= 1) {
        b.tokens -= 1;
        return 0;
    }
    return static_cast<int>(std::ceil((1 - b.tokens) / perSecond));
}

Intake::Intake(Store &store, const Limits &limits, Metrics &metrics, Quotas *quotas,
               const Networks *networks)
    : store_(store), limits_(limits), metrics_(metrics), quotas_(quotas), networks_(networks),
      rate_(limits.rate_per_minute) {}

void Intake::addRoutes(RouteTable &table) {
    table.add({Method::Post, kUploadPath, Listener::Intake, Access::Upload, Role::Viewer,
               [this](const Request &req, Response &res, const Principal *) { upload(req, res); }});
}

namespace {

// The listener let through only one Content-Length, of digits alone.
size_t claimedLength(const Request &req) {
    size_t length = 0;
    for (char c : req.header("Content-Length"))
        length = length * 10 + static_cast<size_t>(c - '0');
    return length;
}

} // namespace

UploadHooks Intake::hooks() {
    UploadHooks h;
    h.admit = [this](const Request &req, Response &res) { return admit(req, res); };
    // Exactly kobdiag's form: "desc", "username" and "why", each at most once.
    h.field = [](const std::string &name, const Request &req, std::string &problem,
                 size_t &reserve) {
        if (name != "desc" && name != "username" && name != "why") {
            problem = "unknown field in the form";
            return false;
        }
        if (req.form.count(name)) {
            problem = "field \"" + name + "\" given twice";
            return false;
        }
        // The report is nearly the whole body: one block of its final size,
        // instead of a string that doubles its way there.
        if (name == "desc")
            reserve = std::min(claimedLength(req), size_t{256} << 20);
        return true;
    };
    // Every upload that got an answer is counted, whatever the answer, with
    // the bytes that came, not those the head claimed.
    h.finished = [this](const Request &req, int status, bool admitted, double seconds) {
        if (admitted) {
            inflight_.fetch_sub(1);
            metrics_.inflight(-1);
            if (quotas_)
                quotas_->received(senderKey(req.client_address), claimedLength(req), req.body_bytes,
                                  now());
        }
        if (status)
            metrics_.upload(status, req.body_bytes, seconds);
    };
    return h;
}

// Decided from the head alone, before any of the body is read: a body that
// is not wanted is never taken into memory.
bool Intake::admit(const Request &req, Response &res) {
    if (req.hasHeader("Transfer-Encoding") || !req.hasHeader("Content-Length")) {
        answer(res, 400, "Bad request: the report needs a Content-Length\n");
        return false;
    }
    size_t length = claimedLength(req);
    if (length > limits_.max_body) {
        answer(res, 413,
               "Report too large: at most " + std::to_string(limits_.max_body) + " bytes\n");
        metrics_.refused("too_large");
        return false;
    }
    std::string sender = senderKey(req.client_address);
    if (int wait = rate_.take(sender)) {
        answer(res, 429, "Too many reports from this address, please wait\n");
        res.setHeader("Retry-After", std::to_string(wait));
        metrics_.refused("rate");
        return false;
    }
    if (inflight_.fetch_add(1) >= limits_.max_inflight) {
        inflight_.fetch_sub(1);
        answer(res, 503, "Too busy, please send the report again shortly\n");
        res.setHeader("Retry-After", "10");
        metrics_.refused("busy");
        return false;
    }
    // Last, so that only an upload that goes ahead holds room in the budget.
    if (quotas_) {
        if (auto no = quotas_->admit(sender, length, now())) {
            inflight_.fetch_sub(1);
            answer(res, no->status, no->text);
            if (no->retry_after)
                res.setHeader("Retry-After", std::to_string(no->retry_after));
            metrics_.refused(no->reason);
            return false;
        }
    }
    metrics_.inflight(1);
    return true;
}

void Intake::upload(const Request &req, Response &res) {
    auto desc = req.form.find("desc");
    if (desc == req.form.end()) {
        answer(res, 400, "Bad request: the form has no report (\"desc\")\n");
        return;
    }
    NewReport nr;
    nr.received_at = now();
    nr.desc = std::move(desc->second);
    if (auto u = req.form.find("username"); u != req.form.end())
        nr.form_username = std::move(u->second);
    if (auto w = req.form.find("why"); w != req.form.end())
        nr.why = std::move(w->second);
    {
        // The findings hold copies of the logs; they go before the report
        // is written.
        auto triageStart = std::chrono::steady_clock::now();
        Triaged t = triage(nr.desc);
        metrics_.triage(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - triageStart).count());
        nr.report_username = std::move(t.report_username);
        nr.summary = std::move(t.summary);
        nr.outcomes = std::move(t.outcomes);
        nr.rules = t.rules;
        nr.findings = std::move(t.findings);
        nr.issue = std::move(t.issue);
        nr.level = std::move(t.level);
        nr.version = std::move(t.version);
        nr.verdicts = std::move(t.verdicts);
    }
    nr.peer = req.client_address;
    if (networks_ && networks_->any())
        nr.network = networks_->lookup(req.client_address);
    try {
        std::string ref = store_.insert(nr);
        metrics_.stored();
        answer(res, 200, "Report received: " + ref);
    } catch (const StoreError &e) {
        // The sender's address is the user's: it is not written here.
        log::error("report_not_stored", {{"error", e.what()}});
        answer(res, 503, "Report not stored, please send it again later\n");
    }
}

} // namespace kobreportd
