// koblab itself: what it serves on the lab's addresses, what it stores, and
// how it stops.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "lab_support.h"

namespace {

using namespace lab_test;

sockaddr_in at(const char *addr, int port) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, addr, &sin.sin_addr);
    return sin;
}

// How a non-blocking connect to addr:port ends within ms: 1 connected,
// -errno refused or failed, 0 still pending.
int tryConnect(const char *addr, int port, int ms) {
    kobtest::Fd c(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in sin = at(addr, port);
    if (connect(c.get(), reinterpret_cast<sockaddr *>(&sin), sizeof sin) == 0)
        return 1;
    if (errno != EINPROGRESS)
        return -errno;
    pollfd p = {c.get(), POLLOUT, 0};
    if (poll(&p, 1, ms) == 0)
        return 0;
    int err = 0;
    socklen_t l = sizeof err;
    getsockopt(c.get(), SOL_SOCKET, SO_ERROR, &err, &l);
    return err == 0 ? 1 : -err;
}

std::string exchange(const std::string &request, bool halfClose = false) {
    kobtest::Fd c(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sin = at(KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT);
    if (connect(c.get(), reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0)
        return "connect failed";
    // In two writes, as kobdiag sends it.
    size_t half = request.size() / 2;
    (void)!write(c.get(), request.data(), half);
    (void)!write(c.get(), request.data() + half, request.size() - half);
    if (halfClose)
        shutdown(c.get(), SHUT_WR);
    std::string answer;
    char buf[4096];
    ssize_t n;
    while ((n = read(c.get(), buf, sizeof buf)) > 0)
        answer.append(buf, static_cast<size_t>(n));
    return answer;
}

TEST(Koblab, ServesTheLabsNetwork) {
    kobtest::TempDir reports;
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path()});

    // The pass-through server echoes one byte.
    kobtest::Fd u(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in echo = at(KOBDIAG_PASSTHROUGH_ADDR, 10007);
    ASSERT_EQ(sendto(u.get(), "PQ", 2, 0, reinterpret_cast<sockaddr *>(&echo), sizeof echo), 2);
    char buf[16];
    pollfd p = {u.get(), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 3000), 1);
    EXPECT_EQ(recv(u.get(), buf, sizeof buf, 0), 1);
    EXPECT_EQ(buf[0], 'P');

    const std::pair<const char *, int> open[] = {
        {KOBDIAG_AUTH_ADDR, 80},           {KOBDIAG_KTIDC_ADDR, 10009},
        {KOBDIAG_KTIDC_ADDR, 80},          {KOBDIAG_KTIDC_ADDR, 443},
        {KOBDIAG_PASSTHROUGH_ADDR, 10007}, {KOBDIAG_PASSTHROUGH_ADDR, 10008},
        {KOBDIAG_JP_ADDR, 10008},          {KOBDIAG_INTRANET_ADDR_1, 8081}};
    for (const auto &[addr, port] : open)
        EXPECT_EQ(tryConnect(addr, port, 3000), 1) << addr << ":" << port;
    EXPECT_EQ(tryConnect(KOBDIAG_INTRANET_ADDR_2, 8081, 1000), 0);
    EXPECT_EQ(tryConnect(KOBDIAG_INTRANET_ADDR_3, 8081, 1000), -ECONNREFUSED);
    EXPECT_EQ(tryConnect(KOBDIAG_INTRANET_ADDR_4, 8081, 1000), -ECONNREFUSED);
}

TEST(Koblab, StoresEachReportAsReceivedAndAnswers200) {
    kobtest::TempDir reports;
    kobtest::Koblab lab(kKoblabBin, {"-d", reports.path()});
    std::string body = std::string(5000, 'b') + "\r\n\r\n" + std::string("\0z", 2);
    std::string request = kobtest::requestHead(body.size(), "x") + body;
    std::string answer = exchange(request);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
    std::string second = "POST / HTTP/1.1\r\ncontent-length: 2\r\n\r\nhi";
    EXPECT_EQ(exchange(second).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    // A request cut short is not stored.
    EXPECT_EQ(exchange("POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nshort", true), "");

    auto stored = storedReports(reports.path());
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(kobtest::readFile(stored[0]), request);
    EXPECT_EQ(kobtest::readFile(stored[1]), second);
    EXPECT_EQ(lab.stop(), 0); // exit status 0
    EXPECT_NE(lab.output().find("storing reports in " + reports.path() + "\n"), std::string::npos);
    EXPECT_NE(lab.output().find(stored[0]), std::string::npos);
    EXPECT_NE(lab.output().find("koblab: stopped after"), std::string::npos);
}

TEST(Koblab, OptionsMoveTheAddressesAndAnInterruptStopsIt) {
    kobtest::TempDir reports;
    kobtest::Koblab lab(kKoblabBin,
                        {"-d", reports.path(), "-r", "127.10.0.82:8080", "-p", "127.10.0.17", "-a",
                         "127.10.0.11", "-k", "127.10.0.12", "-j", "127.10.0.13", "-i",
                         "127.10.1.1,127.10.1.2,127.10.1.3,127.10.1.4"});
    EXPECT_EQ(tryConnect("127.10.0.12", 443, 3000), 1);
    EXPECT_EQ(tryConnect("127.10.1.1", 8081, 3000), 1);
    EXPECT_EQ(tryConnect(KOBDIAG_AUTH_ADDR, 80, 3000), -ECONNREFUSED);
    int status = lab.stop(SIGINT);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(lab.output().find("koblab: report server          127.10.0.82:8080"),
              std::string::npos)
        << lab.output();
    EXPECT_NE(lab.output().find("koblab: stopped after"), std::string::npos);
}

TEST(Koblab, BadOptionsPrintTheUsage) {
    auto r = kobtest::runProgram({kKoblabBin, "-i", "127.0.0.1"});
    EXPECT_TRUE(r.exited(2));
    EXPECT_EQ(r.err.rfind("usage: koblab", 0), 0u);
}

} // namespace
