#include "reportgen.h"

#include <cstdarg>
#include <cstdio>

#include "kobrun.h"

namespace reportgen {

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *fmt, ...) {
    va_list ap, aq;
    va_start(ap, fmt);
    va_copy(aq, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string s(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(s.data(), s.size(), fmt, aq);
    va_end(aq);
    s.resize(static_cast<size_t>(n));
    return s;
}

// The shipped build's address of each role.
const char *roleAddress(kobrun::Role role) {
    switch (role) {
    case kobrun::Role::Auth:
        return "192.0.2.1";
    case kobrun::Role::KtIdc:
        return "192.0.2.2";
    case kobrun::Role::Jp:
        return "198.51.100.3";
    case kobrun::Role::PassThrough:
    case kobrun::Role::None:
        break;
    }
    return "192.0.2.7";
}

const char *const kIntranet[] = {"10.243.160.1", "10.252.240.1", "10.243.144.1", "10.252.128.1"};

std::string readLogs(const Run &run, const std::string &program) {
    std::string res;
    for (const char *stream : {"stdout", "stderr"}) {
        std::string name = program + "_" + stream + ".txt";
        auto it = run.logs.find(name);
        if (it == run.logs.end()) {
            res += format("No %s exists\n", name.c_str());
            continue;
        }
        res += std::string(stream) == "stdout" ? "[STDOUT]\n" : "[STDERR]\n";
        res += it->second.empty() ? "Empty file.\n" : it->second;
    }
    return res;
}

} // namespace

std::string udpRtt(double ms, const std::string &addr, int port) {
    return format("UDP src --%f ms--> dst(%s:%d)\n", ms, addr.c_str(), port);
}
std::string udpTimeout() {
    return "UDP: select timeout\n";
}
std::string udpRecvError(int err, const std::string &text) {
    return format("recvfrom error: %d %s\n", err, text.c_str());
}
std::string tcpRtt(double ms, const std::string &addr, int port) {
    return format("TCP src --%f ms--> dst(%s:%d)\n", ms, addr.c_str(), port);
}
std::string tcpTimeout() {
    return "TCP: select timeout\n";
}
std::string tcpFail(int err, const std::string &text) {
    return format("connect(2) fail: %d %s\n", err, text.c_str());
}

Run healthyRun() {
    Run r;
    for (int i = 0; i < kobrun::kUdpAttempts; i++)
        r.udp.push_back(udpRtt(10.0 + i, roleAddress(kobrun::Role::PassThrough)));
    double ms = 20.5;
    for (const auto &probe : kobrun::kTcpProbes)
        r.tcp.push_back(tcpRtt(ms++, roleAddress(probe.role), probe.port));
    r.traceroute = " 1  192.168.1.1  1.123 ms  0.998 ms  1.004 ms\n"
                   " 2  10.0.0.1  5.310 ms  5.122 ms  5.200 ms\n"
                   " 3  192.0.2.2  9.870 ms  9.901 ms  9.850 ms\n";
    for (const char *a : kIntranet)
        r.intranet.push_back(tcpRtt(3.25, a, kobrun::kIntranetPort));
    r.logs = {{"kobvane_stdout.txt", "vane started\n"}, {"kobvane_stderr.txt", ""},
              {"kobrun_stdout.txt", "run ok\n"},        {"kobrun_stderr.txt", "run warning\n"},
              {"kobflow_stdout.txt", "flow up\n"},      {"kobflow_stderr.txt", ""}};
    return r;
}

std::string report(const Run &run) {
    std::string s = "This program diagnoses your network and system status and send the result "
                    "to\nthe KOBVANE main server.\n";
    s += "\n";
    s += format("==> Timestamp: %s\n", (run.timestamp + "\n").c_str());
    if (run.username)
        s += format("==> Username: %s\n", run.username->c_str());
    s += format("==> Package Version: %s\n", "4.4.1");
    s += format("==> OS Version: %s\n", "skipped");
    s += "==> Dumping the result of `/sbin/ifconfig'\n" + run.ifconfig;
    s += "==> Dumping the result of `/usr/sbin/netstat -an'\n" + run.netstatAn;
    s += "==> Dumping the result of `/usr/sbin/netstat -rn'\n" + run.netstatRn;
    for (size_t i = 0; i < run.udp.size(); i++)
        s += format("==> Testing UDP pass-through (%d of %d)\n", static_cast<int>(i) + 1,
                    kobrun::kUdpAttempts) +
             run.udp[i];
    for (size_t i = 0; i < run.tcp.size() && i < kobrun::kTcpProbes.size(); i++)
        s += "==> " + std::string(kobrun::kTcpProbes[i].heading) + "\n" + run.tcp[i];
    s += "==> Testing traceroute to KOBVANE KT IDC node.\n";
    s += format("==> Dumping the result of `/usr/sbin/traceroute -m 15 -n %s'\n",
                run.ktIdc.c_str()) +
         run.traceroute;
    for (auto heading : kobrun::kMtuHeadings)
        s += "==> " + std::string(heading) + "\n";
    for (size_t i = 0; i < run.intranet.size() && i < static_cast<size_t>(kobrun::kIntranetProbes);
         i++)
        s += format("==> Testing to the intranet %s:%d\n", kIntranet[i], kobrun::kIntranetPort) +
             run.intranet[i];
    s += "==> Dumping KOBVANE log files\n" + readLogs(run, "kobvane");
    s += "==> Dumping KOBRUN log files\n" + readLogs(run, "kobrun");
    s += "==> Dumping KOBFLOW log files\n" + readLogs(run, "kobflow");
    if (run.upload) {
        s += "\n";
        s += format("==> All tests had done now and will send the report to KOBVANE\n    server "
                    "after %d seconds.\n",
                    10);
        for (int i = 10; i > 0; i--)
            s += format("==> Press CTRL-c if you want aborting this operation within %d secs\n", i);
    }
    return s;
}

std::string body(const std::optional<std::string> &desc, const std::optional<std::string> &username,
                 const std::optional<std::string> &why) {
    std::string b;
    if (desc)
        b += kobtest::formPart("desc", *desc);
    if (username)
        b += kobtest::formPart("username", *username);
    if (why)
        b += kobtest::formPart("why", *why);
    return b + kobtest::formEnd();
}

std::string head(const std::string &host, size_t bodyLength) {
    return kobtest::requestHead(bodyLength, host);
}

std::string reportOfSize(size_t size, int seed) {
    Run r = healthyRun();
    r.username = "load" + std::to_string(seed);
    std::string base = report(r);
    std::string log;
    unsigned x = static_cast<unsigned>(seed) * 2654435761u + 1;
    while (base.size() + log.size() < size) {
        x = x * 1103515245u + 12345u;
        log += format("%08x vane: tunnel keepalive seq=%u\n", x, x % 100000);
    }
    r.logs["kobvane_stdout.txt"] = log;
    return report(r);
}

} // namespace reportgen
