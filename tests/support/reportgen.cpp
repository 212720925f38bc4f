#include "reportgen.h"

#include <cstdarg>
#include <cstdio>

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

const char *const kTcpHeadings[] = {
    "==> Checks a connection to authentication server.\n",
    "==> Checks a connection to authentication server (old).\n",
    "==> Testing TCP pass-through to port 80\n",
    "==> Testing TCP pass-through to port 443\n",
    "==> Testing TCP pass-through to port 10007\n",
    "==> Testing TCP pass-through to port 10008 (KR - KT2)\n",
    "==> Testing TCP pass-through to port 10008 (JP - Amazon)\n",
};

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
    for (int i = 0; i < 5; i++)
        r.udp.push_back(udpRtt(10.0 + i, "192.0.2.7"));
    r.tcp = {tcpRtt(20.5, "192.0.2.1", 80),      tcpRtt(21.5, "192.0.2.2", 10009),
             tcpRtt(22.5, "192.0.2.2", 80),      tcpRtt(23.5, "192.0.2.2", 443),
             tcpRtt(24.5, "192.0.2.7", 10007),   tcpRtt(25.5, "192.0.2.7", 10008),
             tcpRtt(26.5, "198.51.100.3", 10008)};
    r.traceroute = " 1  192.168.1.1  1.123 ms  0.998 ms  1.004 ms\n"
                   " 2  10.0.0.1  5.310 ms  5.122 ms  5.200 ms\n"
                   " 3  192.0.2.2  9.870 ms  9.901 ms  9.850 ms\n";
    for (const char *a : kIntranet)
        r.intranet.push_back(tcpRtt(3.25, a, 8081));
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
        s += format("==> Testing UDP pass-through (%d of 5)\n", static_cast<int>(i) + 1) +
             run.udp[i];
    for (size_t i = 0; i < run.tcp.size() && i < 7; i++)
        s += std::string(kTcpHeadings[i]) + run.tcp[i];
    s += "==> Testing traceroute to KOBVANE KT IDC node.\n";
    s += format("==> Dumping the result of `/usr/sbin/traceroute -m 15 -n %s'\n",
                run.ktIdc.c_str()) +
         run.traceroute;
    s += "==> Testing MTU to KOBVANE Asia (S. Korea - KT IDC)\n";
    s += "==> Testing MTU to KOBVANE US West(N. California)\n";
    s += "==> Testing MTU to KOBVANE Asia (Singapore)\n";
    s += "==> Testing MTU to KOBVANE Asia (Tokyo)\n";
    s += "==> Testing MTU to KOBVANE Asia (S. Korea - HCLC IDC)\n";
    for (size_t i = 0; i < run.intranet.size() && i < 4; i++)
        s += format("==> Testing to the intranet %s:8081\n", kIntranet[i]) + run.intranet[i];
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
