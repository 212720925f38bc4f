// What the probes cost over the system calls they are made of.
//
// Each case makes 10,000 attempts against a loopback peer and times every
// attempt on its own; the median is reported as "median_us", and the end of
// the run prints each probe's median beside the bare loop's.  The bare loops
// make the same calls in the same order, without the probe's clock reads and
// report line.  The report line goes to /dev/null and the report buffer is
// cleared as it goes, so that memory stays flat.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "kobdiag.h"
#include "vsb.h"

namespace {

constexpr int kAttempts = 10000;
constexpr int kClearEvery = 1000;

std::map<std::string, double> medians;

sockaddr_in loopback(int port) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sin;
}

int portOf(int fd) {
    sockaddr_in sin{};
    socklen_t l = sizeof sin;
    getsockname(fd, reinterpret_cast<sockaddr *>(&sin), &l);
    return ntohs(sin.sin_port);
}

// Accepts and closes connections until stopped, so the queue never fills.
class Acceptor {
  public:
    Acceptor() {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sin = loopback(0);
        bind(fd_, reinterpret_cast<sockaddr *>(&sin), sizeof sin);
        listen(fd_, 4096);
        port_ = portOf(fd_);
        thread_ = std::thread([this] {
            for (;;) {
                int c = accept(fd_, nullptr, nullptr);
                if (stop_)
                    break;
                if (c >= 0)
                    close(c);
            }
        });
    }
    ~Acceptor() {
        stop_ = true;
        // One more connection wakes the blocked accept.
        int c = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sin = loopback(port_);
        connect(c, reinterpret_cast<sockaddr *>(&sin), sizeof sin);
        thread_.join();
        close(c);
        close(fd_);
    }
    int port() const { return port_; }

  private:
    int fd_;
    int port_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Echoes one byte back to every datagram until stopped.
class Echo {
  public:
    Echo() {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sin = loopback(0);
        bind(fd_, reinterpret_cast<sockaddr *>(&sin), sizeof sin);
        port_ = portOf(fd_);
        thread_ = std::thread([this] {
            char buf[64];
            for (;;) {
                sockaddr_storage from;
                socklen_t fl = sizeof from;
                ssize_t n =
                    recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
                if (stop_)
                    break;
                if (n >= 1)
                    sendto(fd_, buf, 1, 0, reinterpret_cast<sockaddr *>(&from), fl);
            }
        });
    }
    ~Echo() {
        stop_ = true;
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sin = loopback(port_);
        sendto(s, "", 0, 0, reinterpret_cast<sockaddr *>(&sin), sizeof sin);
        thread_.join();
        close(s);
        close(fd_);
    }
    int port() const { return port_; }

  private:
    int fd_;
    int port_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Sends standard error to /dev/null while alive.
class QuietStderr {
  public:
    QuietStderr() : saved_(dup(2)) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(null);
    }
    ~QuietStderr() {
        dup2(saved_, 2);
        close(saved_);
    }

  private:
    int saved_;
};

template <typename Fn> void timeEach(benchmark::State &state, const char *name, Fn attempt) {
    if (dia_msg == nullptr)
        dia_msg = vsb_newauto();
    std::vector<double> us;
    us.reserve(kAttempts);
    QuietStderr quiet;
    int n = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        attempt();
        auto t1 = std::chrono::steady_clock::now();
        us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        if (++n % kClearEvery == 0)
            vsb_clear(dia_msg);
    }
    vsb_clear(dia_msg);
    std::nth_element(us.begin(), us.begin() + us.size() / 2, us.end());
    double median = us[us.size() / 2];
    state.counters["median_us"] = median;
    medians[name] = median;
}

void BM_PinTcp(benchmark::State &state) {
    Acceptor peer;
    int port = peer.port();
    timeEach(state, "tcp probe",
             [port] { benchmark::DoNotOptimize(PIN_tcp("127.0.0.1", port, 5)); });
}

void BM_BareConnectClose(benchmark::State &state) {
    Acceptor peer;
    sockaddr_in sin = loopback(peer.port());
    timeEach(state, "tcp bare", [&sin] {
        int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        int on = 1;
        ioctl(fd, FIONBIO, &on);
        if (connect(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(fd, &set);
            timeval tv = {5, 0};
            benchmark::DoNotOptimize(select(fd + 1, nullptr, &set, nullptr, &tv));
        }
        close(fd);
    });
}

void BM_PinUdp(benchmark::State &state) {
    Echo peer;
    int port = peer.port();
    timeEach(state, "udp probe", [port] { benchmark::DoNotOptimize(PIN_udp("127.0.0.1", port)); });
}

void BM_BareSendtoRecvfrom(benchmark::State &state) {
    Echo peer;
    sockaddr_in sin = loopback(peer.port());
    timeEach(state, "udp bare", [&sin] {
        int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        sendto(fd, "P", 1, 0, reinterpret_cast<sockaddr *>(&sin), sizeof sin);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval tv = {3, 0};
        if (select(fd + 1, &set, nullptr, nullptr, &tv) == 1) {
            char buf[1024];
            sockaddr_in from;
            socklen_t fl = sizeof from;
            benchmark::DoNotOptimize(
                recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl));
        }
        close(fd);
    });
}

BENCHMARK(BM_BareConnectClose)->Iterations(kAttempts)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PinTcp)->Iterations(kAttempts)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareSendtoRecvfrom)->Iterations(kAttempts)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PinUdp)->Iterations(kAttempts)->Unit(benchmark::kMicrosecond);

void summary(const char *proto) {
    std::string p = std::string(proto) + " probe";
    std::string b = std::string(proto) + " bare";
    if (medians.count(p) == 0 || medians.count(b) == 0)
        return;
    printf("%s: probe median %.1f us, bare median %.1f us, overhead %+.1f%%\n", proto, medians[p],
           medians[b], (medians[p] / medians[b] - 1.0) * 100.0);
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    summary("tcp");
    summary("udp");
    return 0;
}
