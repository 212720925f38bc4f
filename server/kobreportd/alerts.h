// Alerts: a target that becomes broken now (fleet.h) raises an alert once;
// it is cleared when the last hour's failing share has come back to within
// half the rise of its baseline (kBrokenMinRise / 2), so that a share
// hovering at the threshold does not raise and clear over and over.  Broken
// targets are gathered into incidents (incidents.h), and each incident that
// opens, widens, reopens or resolves is posted as JSON to a webhook
// (webhook.h), signed when a secret is set, tried a few times with
// back-off, by a thread of its own: the intake never waits for it.  Alerts
// and incidents live in the database, so instances sharing one raise and
// post each once.

#ifndef KOBREPORTD_ALERTS_H
#define KOBREPORTD_ALERTS_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "metrics.h"
#include "sql.h"
#include "webhook.h"

namespace kobreportd {

class AlertTask {
  public:
    // Checks the fleet every intervalSeconds and posts to the webhook (no
    // URL: the alerts are kept and shown, and posted nowhere).
    AlertTask(sql::Db &db, Metrics &metrics, WebhookOptions webhook, int intervalSeconds);
    ~AlertTask();
    AlertTask(const AlertTask &) = delete;
    AlertTask &operator=(const AlertTask &) = delete;

    // One check now; returns how many alerts it raised or cleared.
    int check();

  private:
    void run();
    void deliver();
    bool post(const std::string &body);

    sql::Db &db_;
    Metrics &metrics_;
    WebhookOptions hook_;
    int interval_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::string> outbox_;
    bool stop_ = false;
    std::thread checker_, sender_;
};

} // namespace kobreportd

#endif
