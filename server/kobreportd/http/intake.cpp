#include "intake.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <chrono>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "clock.h"
#include "kobtriage.h"

namespace kobreportd {

namespace {

using Clock = std::chrono::steady_clock;

// Set when the connection of this worker ran out of time, so the handler
// can answer 408 instead of 400 for a body that stopped arriving.
thread_local bool tl_timedOut = false;
// Set while this worker's upload counts against the in-flight limit.
thread_local bool tl_inflight = false;
// When this worker read the head of its upload, and the length it claims.
thread_local Clock::rep tl_uploadStart = 0;
thread_local size_t tl_uploadLength = 0;

class DeadlineStream : public httplib::Stream {
  public:
    DeadlineStream(int sock, Clock::time_point deadline, int ioTimeoutS)
        : sock_(sock), deadline_(deadline), ioTimeout_(std::chrono::seconds(ioTimeoutS)) {}

    bool is_readable() const override { return pos_ < len_ || wait(POLLIN); }
    bool is_writable() const override { return wait(POLLOUT); }

    ssize_t read(char *ptr, size_t size) override {
        // An interim answer ("100 Continue") must go out before we wait.
        if (!out_.empty() && !flush())
            return -1;
        if (pos_ < len_) {
            size_t n = std::min(size, len_ - pos_);
            std::memcpy(ptr, buf_ + pos_, n);
            pos_ += n;
            return static_cast<ssize_t>(n);
        }
        // The head is read a byte at a time and the body in small pieces;
        // fill a buffer so that is cheap.
        if (size < sizeof buf_) {
            ssize_t n = recvSome(buf_, sizeof buf_);
            if (n <= 0)
                return n;
            len_ = static_cast<size_t>(n);
            pos_ = 0;
            return read(ptr, size);
        }
        return recvSome(ptr, size);
    }

    // Writes are gathered and sent together, so that a short answer leaves
    // in one piece: kobdiag logs every piece it reads as a record of its own.
    ssize_t write(const char *ptr, size_t size) override {
        if (failed_)
            return -1;
        out_.append(ptr, size);
        if (out_.size() >= kGather && !flush())
            return -1;
        return static_cast<ssize_t>(size);
    }

    bool flush() {
        size_t off = 0;
        while (off < out_.size() && !failed_) {
            if (!wait(POLLOUT)) {
                failed_ = true;
                break;
            }
            ssize_t n = ::send(sock_, out_.data() + off, out_.size() - off, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                failed_ = true;
            else
                off += static_cast<size_t>(n);
        }
        out_.clear();
        return !failed_;
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override {
        address(getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override {
        address(getsockname, ip, port);
    }
    socket_t socket() const override { return sock_; }

  private:
    // What has arrived is taken at once; only an empty socket is waited
    // for, so a body streaming in costs one call per buffer, not two.
    ssize_t recvSome(char *p, size_t size) {
        for (;;) {
            if (Clock::now() >= deadline_) {
                tl_timedOut = true;
                return -1;
            }
            ssize_t n = ::recv(sock_, p, size, MSG_DONTWAIT);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (!wait(POLLIN))
                    return -1;
                continue;
            }
            return n;
        }
    }

    // Reading is bounded by the request's deadline; writing the answer only
    // by the time limit for one write, so a request that ran out of time
    // still hears why.
    bool wait(short events) const {
        for (;;) {
            auto now = Clock::now();
            auto left = ioTimeout_;
            if (events == POLLIN) {
                if (now >= deadline_) {
                    tl_timedOut = true;
                    return false;
                }
                left = std::min<Clock::duration>(deadline_ - now, ioTimeout_);
            }
            int ms = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(left).count() + 1);
            struct pollfd p = {sock_, events, 0};
            int r = ::poll(&p, 1, ms);
            if (r < 0 && errno == EINTR)
                continue;
            if (r == 0)
                tl_timedOut = true;
            return r > 0;
        }
    }

    template <typename F> void address(F f, std::string &ip, int &port) const {
        struct sockaddr_storage ss {};
        socklen_t len = sizeof ss;
        ip.clear();
        port = 0;
        if (f(sock_, reinterpret_cast<struct sockaddr *>(&ss), &len) != 0)
            return;
        char host[INET6_ADDRSTRLEN] = "";
        if (ss.ss_family == AF_INET) {
            auto *in = reinterpret_cast<struct sockaddr_in *>(&ss);
            inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
            port = ntohs(in->sin_port);
        } else if (ss.ss_family == AF_INET6) {
            auto *in6 = reinterpret_cast<struct sockaddr_in6 *>(&ss);
            inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
            port = ntohs(in6->sin6_port);
        }
        ip = host;
    }

    static constexpr size_t kGather = size_t{64} * 1024;
    int sock_;
    std::string out_;
    bool failed_ = false;
    Clock::time_point deadline_;
    Clock::duration ioTimeout_;
    char buf_[65536] = {};
    size_t pos_ = 0, len_ = 0;
};

// A request held in memory, for running the library without a connection.
class MemoryStream : public httplib::Stream {
  public:
    explicit MemoryStream(std::string in) : in_(std::move(in)) {}
    bool is_readable() const override { return pos_ < in_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *ptr, size_t size) override {
        size_t n = std::min(size, in_.size() - pos_);
        std::memcpy(ptr, in_.data() + pos_, n);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char *, size_t size) override { return static_cast<ssize_t>(size); }
    void get_remote_ip_and_port(std::string &ip, int &port) const override {
        ip.clear();
        port = 0;
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override {
        ip.clear();
        port = 0;
    }
    socket_t socket() const override { return -1; }

  private:
    std::string in_;
    size_t pos_ = 0;
};

bool strictLength(const std::string &s, size_t &out) {
    if (s.empty() || s.size() > 19)
        return false;
    size_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<size_t>(c - '0');
    }
    out = v;
    return true;
}

constexpr const char *kUploadPath = "/report/problem.php";

} // namespace

int threadsForThisMachine() {
    unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    return static_cast<int>(std::clamp(8 * cores, 16u, 64u));
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

void answer(httplib::Response &res, int status, const std::string &text) {
    res.status = status;
    res.set_content(text, "text/plain; charset=utf-8");
}

IntakeServer::IntakeServer(Store &store, const Limits &limits, Metrics &metrics)
    : store_(store), limits_(limits), metrics_(metrics), rate_(limits.rate_per_minute) {
    int threads = limits_.threads;
    new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
    set_payload_max_length(limits_.max_body);
    set_read_timeout(limits_.read_timeout_s, 0);
    set_write_timeout(limits_.read_timeout_s, 0);
    set_keep_alive_max_count(1);
    // Rebinding at once after a restart needs SO_REUSEADDR (connections of
    // the previous run may still sit in TIME_WAIT); the library's default,
    // SO_REUSEPORT, would instead let a second server share the port
    // unnoticed.
    set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });

    // Decided from the head alone, before any of the body is read: a body
    // that is not wanted is never taken into memory.
    set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        using HR = httplib::Server::HandlerResponse;
        bool chunked = req.has_header("Transfer-Encoding");
        size_t lengths = req.get_header_value_count("Content-Length");
        size_t length = 0;
        if (lengths > 1 ||
            (lengths == 1 && !strictLength(req.get_header_value("Content-Length"), length))) {
            answer(res, 400, "Bad request: Content-Length\n");
            return HR::Handled;
        }
        if (req.path == kUploadPath) {
            tl_uploadStart = Clock::now().time_since_epoch().count();
            tl_uploadLength = length;
            if (req.method != "POST") {
                answer(res, 405, "Method not allowed: the report is sent with POST\n");
                res.set_header("Allow", "POST");
                return HR::Handled;
            }
            if (chunked || lengths == 0) {
                answer(res, 400, "Bad request: the report needs a Content-Length\n");
                return HR::Handled;
            }
            if (length > limits_.max_body) {
                answer(res, 413,
                       "Report too large: at most " + std::to_string(limits_.max_body) +
                           " bytes\n");
                return HR::Handled;
            }
            if (int wait = rate_.take(req.remote_addr)) {
                answer(res, 429, "Too many reports from this address, please wait\n");
                res.set_header("Retry-After", std::to_string(wait));
                return HR::Handled;
            }
            if (inflight_.fetch_add(1) >= limits_.max_inflight) {
                inflight_.fetch_sub(1);
                answer(res, 503, "Too busy, please send the report again shortly\n");
                res.set_header("Retry-After", "10");
                return HR::Handled;
            }
            tl_inflight = true;
            return HR::Unhandled;
        }
        if (req.path == "/healthz" && req.method == "GET" && !chunked && length == 0) {
            answer(res, 200, "ok");
            return HR::Handled;
        }
        answer(res, 404, "Not found\n");
        return HR::Handled;
    });

    // Every upload that got an answer is counted, whatever the answer.
    set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        if (req.path != kUploadPath || warming_)
            return;
        metrics_.upload(res.status, tl_uploadLength,
                        std::chrono::duration<double>(Clock::now().time_since_epoch() -
                                                      Clock::duration(tl_uploadStart))
                            .count());
    });
    Post(kUploadPath, [this](const httplib::Request &req, httplib::Response &res,
                             const httplib::ContentReader &reader) { upload(req, res, reader); });
    set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty()) {
            std::string text = res.status == 404   ? "Not found\n"
                               : res.status == 413 ? "Report too large\n"
                                                   : "Error " + std::to_string(res.status) + "\n";
            answer(res, res.status, text);
        }
    });
    set_exception_handler([](const httplib::Request &, httplib::Response &res,
                             const std::exception_ptr &) { answer(res, 500, "Internal error\n"); });
}

void IntakeServer::widenBacklog() {
    // listen() again on a listening socket only changes its queue length.
    ::listen(svr_sock_, SOMAXCONN);
}

void IntakeServer::warmUp() {
    const std::string boundary = "warm-up";
    // A field the form does not have: refused before anything is stored.
    std::string body = "--" + boundary +
                       "\r\nContent-Disposition: form-data; name=\"warm-up\"\r\n\r\nx\r\n--" +
                       boundary + "--\r\n";
    MemoryStream strm("POST " + std::string(kUploadPath) +
                      " HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=" + boundary +
                      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    bool closed = false;
    process_request(strm, true, closed, nullptr);
    if (tl_inflight) {
        tl_inflight = false;
        inflight_.fetch_sub(1);
    }
    warming_ = false;
}

void IntakeServer::upload(const httplib::Request &req, httplib::Response &res,
                          const httplib::ContentReader &reader) {
    tl_timedOut = false;
    if (!req.is_multipart_form_data()) {
        answer(res, 400, "Bad request: expected multipart/form-data\n");
        return;
    }
    // Exactly kobdiag's form: "desc", "username" and "why", each at most once.
    std::map<std::string, std::string> fields;
    std::string *current = nullptr;
    std::string problem;
    bool read = reader(
        [&](const httplib::MultipartFormData &part) {
            if (part.name != "desc" && part.name != "username" && part.name != "why") {
                problem = "unknown field in the form";
                return false;
            }
            if (fields.count(part.name)) {
                problem = "field \"" + part.name + "\" given twice";
                return false;
            }
            current = &fields[part.name];
            // The report is nearly the whole body: one block of its final
            // size, instead of a string that doubles its way there.
            if (part.name == "desc")
                current->reserve(std::min(tl_uploadLength, size_t{256} << 20));
            return true;
        },
        [&](const char *data, size_t len) {
            if (!current)
                return false;
            current->append(data, len);
            return true;
        });
    if (!read) {
        if (tl_timedOut)
            answer(res, 408, "Request timeout\n");
        else
            answer(res, 400,
                   "Bad request: " + (problem.empty() ? "malformed multipart body" : problem) +
                       "\n");
        return;
    }
    auto desc = fields.find("desc");
    if (desc == fields.end()) {
        answer(res, 400, "Bad request: the form has no report (\"desc\")\n");
        return;
    }
    NewReport nr;
    nr.received_at = now();
    nr.desc = std::move(desc->second);
    if (auto u = fields.find("username"); u != fields.end())
        nr.form_username = u->second;
    if (auto w = fields.find("why"); w != fields.end())
        nr.why = w->second;
    {
        // The findings hold copies of the logs; they go before the report
        // is written.
        auto triageStart = Clock::now();
        Triaged t = triage(nr.desc);
        metrics_.triage(std::chrono::duration<double>(Clock::now() - triageStart).count());
        nr.report_username = std::move(t.report_username);
        nr.summary = std::move(t.summary);
        nr.outcomes = std::move(t.outcomes);
        nr.rules = t.rules;
    }
    nr.peer = req.remote_addr;
    try {
        std::string ref = store_.insert(nr);
        metrics_.stored();
        answer(res, 200, "Report received: " + ref);
    } catch (const StoreError &e) {
        std::fprintf(stderr, "kobreportd: report from %s not stored: %s\n", nr.peer.c_str(),
                     e.what());
        answer(res, 503, "Report not stored, please send it again later\n");
    }
}

bool IntakeServer::process_and_close_socket(socket_t sock) {
    auto deadline = Clock::now() + std::chrono::seconds(limits_.request_timeout_s);
    bool ret;
    {
        DeadlineStream strm(sock, deadline, limits_.read_timeout_s);
        bool closed = false;
        ret = process_request(strm, true, closed, nullptr);
        ret = strm.flush() && ret;
        if (tl_inflight) {
            tl_inflight = false;
            inflight_.fetch_sub(1);
        }
    }
    // Stop sending, then take what the client still sends for a moment, so
    // that an answer given before the whole body arrived (413, 400) is not
    // destroyed by a reset when the socket closes on unread data.
    ::shutdown(sock, SHUT_WR);
    auto lingerEnd = Clock::now() + std::chrono::seconds(2);
    size_t drained = 0;
    char buf[16384];
    while (drained < (8u << 20)) {
        auto now = Clock::now();
        if (now >= lingerEnd)
            break;
        struct pollfd p = {sock, POLLIN, 0};
        int ms = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(lingerEnd - now).count() + 1);
        int r = ::poll(&p, 1, ms);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        ssize_t n = ::recv(sock, buf, sizeof buf, 0);
        if (n <= 0)
            break;
        drained += static_cast<size_t>(n);
    }
    ::close(sock);
    return ret;
}

} // namespace kobreportd
