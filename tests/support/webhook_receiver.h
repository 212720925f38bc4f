// A webhook receiver on loopback, for the alert tests: keeps each delivered
// post's body and signature header, and refuses the first `refuse` posts
// with 500 to make the sender try again.  Header-only: the tests that use it
// link the HTTP library already.

#ifndef KOBTEST_WEBHOOK_RECEIVER_H
#define KOBTEST_WEBHOOK_RECEIVER_H

#include <chrono>
#include <condition_variable>
#include <httplib.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kobtest {

class WebhookReceiver {
  public:
    explicit WebhookReceiver(int refuse) : refuse_(refuse) {
        svr_.Post("/hook", [this](const httplib::Request &req, httplib::Response &res) {
            std::lock_guard<std::mutex> lock(m_);
            attempts_++;
            if (refuse_ > 0) {
                refuse_--;
                res.status = 500;
                return;
            }
            bodies_.push_back(req.body);
            signatures_.push_back(req.get_header_value("X-Kob-Signature"));
            cv_.notify_all();
        });
        port_ = svr_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { svr_.listen_after_bind(); });
    }
    ~WebhookReceiver() {
        svr_.stop();
        thread_.join();
    }
    WebhookReceiver(const WebhookReceiver &) = delete;
    WebhookReceiver &operator=(const WebhookReceiver &) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/hook"; }
    // Waits for the n-th delivered post (from 1), up to a minute: its body,
    // "" when none came.
    std::string wait(size_t n) {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait_for(lock, std::chrono::seconds(60), [&] { return bodies_.size() >= n; });
        return bodies_.size() >= n ? bodies_[n - 1] : "";
    }
    // The n-th delivered post's X-Kob-Signature, "" when unsigned or none.
    std::string signature(size_t n) {
        std::lock_guard<std::mutex> lock(m_);
        return signatures_.size() >= n ? signatures_[n - 1] : "";
    }
    size_t delivered() {
        std::lock_guard<std::mutex> lock(m_);
        return bodies_.size();
    }
    int attempts() {
        std::lock_guard<std::mutex> lock(m_);
        return attempts_;
    }

  private:
    httplib::Server svr_;
    std::thread thread_;
    int port_ = 0, refuse_ = 0, attempts_ = 0;
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<std::string> bodies_, signatures_;
};

} // namespace kobtest

#endif
