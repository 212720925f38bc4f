// A problem-report server of the test's own on an ephemeral loopback port,
// and DIA_sendReport run against it in a child process.

#ifndef UPLOAD_SUPPORT_H
#define UPLOAD_SUPPORT_H

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobnet.h"
#include "kobreport.h"
#include "kobtest.h"
#include "vsb.h"
#include "vtc_log.h"

namespace upload_test {

// Takes one connection, reads the request whole (head and Content-Length
// body), then writes the answer in the given pieces, `gap` apart, and
// closes.
class ReportServer {
  public:
    explicit ReportServer(std::vector<std::string> answer = {"HTTP/1.1 200 OK\r\n\r\n"},
                          std::chrono::milliseconds gap = {})
        : answer_(std::move(answer)), gap_(gap) {
        thread_ = std::thread([this] { serve(); });
    }
    ~ReportServer() { join(); }
    int port() const { return listener_.port; }
    // What the client sent, once the exchange is over.
    const std::string &received() {
        join();
        return received_;
    }

  private:
    void join() {
        if (thread_.joinable()) {
            // Wake an accept that never got its client.
            if (!accepted_) {
                kobtest::Fd c(socket(AF_INET, SOCK_STREAM, 0));
                kobtest::LoopAddr a(AF_INET, port());
                (void)connect(c.get(), a.sa(), a.len);
                thread_.join();
            } else {
                thread_.join();
            }
        }
    }

    void serve() {
        kobtest::Fd c(accept(listener_.fd.get(), nullptr, nullptr));
        accepted_ = true;
        if (c.get() < 0)
            return;
        char buf[65536];
        for (;;) {
            size_t end = received_.find("\r\n\r\n");
            if (end != std::string::npos) {
                size_t cl = received_.find("Content-Length: ");
                size_t len = cl < end ? std::stoul(received_.substr(cl + 16)) : 0;
                if (received_.size() >= end + 4 + len)
                    break;
            }
            ssize_t n = read(c.get(), buf, sizeof buf);
            if (n <= 0)
                return;
            received_.append(buf, static_cast<size_t>(n));
        }
        for (size_t i = 0; i < answer_.size(); i++) {
            if (i > 0 && gap_.count() > 0)
                std::this_thread::sleep_for(gap_);
            (void)!write(c.get(), answer_[i].data(), answer_[i].size());
        }
    }

    kobtest::Listener listener_;
    std::vector<std::string> answer_;
    std::chrono::milliseconds gap_;
    std::atomic<bool> accepted_{false};
    std::string received_;
    std::thread thread_;
};

// A report buffer holding text; finished unless told otherwise.
inline struct vsb *reportOf(const std::string &text, bool finish = true) {
    struct vsb *v = vsb_newauto();
    (void)vsb_bcat(v, text.data(), text.size());
    if (finish)
        vsb_finish(v);
    return v;
}

// DIA_sendReport in a child, against host:port, with a fresh "dia" log.
inline kobtest::ChildResult sendReport(const std::string &host, int port,
                                       const std::function<struct vsb *()> &report,
                                       const char *username, const char *message) {
    return kobtest::runChild([&] {
        dia_vl = vtc_logopen("dia", nullptr);
        dia_report_host = host.c_str();
        dia_report_port = port;
        DIA_sendReport(report(), username, message);
    });
}

} // namespace upload_test

#endif
