// The shipped build, proven: kobdiag with the shipped targets, report host
// and command lines (only its application directory moved into the build
// tree) runs inside a network namespace that this test makes, where every
// target address is assigned to the namespace's own loopback interface and
// served by koblab, and the report host resolves through the namespace's own
// hosts file.  The binary is only ever started inside that namespace; where
// no namespace can be made the test skips.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <regex>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "lab_support.h"

namespace {

using namespace lab_test;

const std::string kIp = KOBDIAG_IP_PROGRAM;
// The report server's address inside the namespace.
const std::string kReportAddr = "203.0.113.80";

// Exit codes of the child that sets the namespace up.
constexpr int kNoNamespace = 77;

[[noreturn]] void skipWith(const std::string &why) {
    kobtest::writeFile("skip-reason", why);
    _exit(kNoNamespace);
}

void sh(const std::string &cmd) {
    if (system(cmd.c_str()) != 0)
        skipWith("'" + cmd + "' failed");
}

// In the child: a private network and mount namespace with the operator's
// network on its loopback, then one run of the binary.  Results are left as
// files in the current directory for the test to read.
void runInNamespace(const std::string &reports) {
    if (geteuid() != 0)
        skipWith("needs root to make a network namespace");
    if (kIp.empty())
        skipWith("the ip program (iproute2) is not installed");
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        skipWith(std::string("unshare(CLONE_NEWNET | CLONE_NEWNS): ") + strerror(errno));
    // Nothing of the host's network may be visible from here.
    struct if_nameindex *ifs = if_nameindex();
    if (ifs == nullptr)
        skipWith("if_nameindex failed");
    for (auto *i = ifs; i->if_index != 0; i++)
        if (std::string(i->if_name) != "lo")
            skipWith(std::string("the new namespace has an interface ") + i->if_name);
    if_freenameindex(ifs);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        skipWith(std::string("cannot make the mounts private: ") + strerror(errno));
    std::string hosts = reports + "/hosts";
    kobtest::writeFile(hosts, "127.0.0.1 localhost\n" + kReportAddr + " " KOBDIAG_REPORT_HOST "\n");
    if (mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)
        skipWith(std::string("cannot bind a hosts file: ") + strerror(errno));

    sh(kIp + " link set lo up");
    for (const char *a : {KOBDIAG_PASSTHROUGH_ADDR, KOBDIAG_AUTH_ADDR, KOBDIAG_KTIDC_ADDR,
                          KOBDIAG_JP_ADDR, KOBDIAG_USWEST_ADDR, KOBDIAG_SG_ADDR, KOBDIAG_HCLC_ADDR,
                          KOBDIAG_INTRANET_ADDR_1, KOBDIAG_INTRANET_ADDR_2, KOBDIAG_INTRANET_ADDR_3,
                          KOBDIAG_INTRANET_ADDR_4, kReportAddr.c_str()})
        sh(kIp + " addr add " + a + "/32 dev lo 2>/dev/null || " + kIp +
           " addr show lo | grep -q " + "' " + a + "/'");

    kobtest::Koblab lab(kKoblabBin,
                        {"-d", reports, "-p", KOBDIAG_PASSTHROUGH_ADDR, "-a", KOBDIAG_AUTH_ADDR,
                         "-k", KOBDIAG_KTIDC_ADDR, "-j", KOBDIAG_JP_ADDR, "-i",
                         std::string(KOBDIAG_INTRANET_ADDR_1) + "," + KOBDIAG_INTRANET_ADDR_2 +
                             "," + KOBDIAG_INTRANET_ADDR_3 + "," + KOBDIAG_INTRANET_ADDR_4,
                         "-r", kReportAddr + ":" + std::to_string(KOBDIAG_REPORT_PORT)});
    auto r = runLab({"-u", "ns"});
    lab.stop();
    kobtest::writeFile("run.err", r.err);
    kobtest::writeFile("run.out", r.out);
    kobtest::writeFile("run.status", std::to_string(r.status));
    kobtest::writeFile("koblab.out", lab.output());
}

// The report as the channel wrote it: standard error less what the
// shell said about command lines that do not exist on this machine.  The
// shell says "sh: 1: " and "/usr/sbin/netstat: not found\n" in writes of
// their own, so the tool's own lines may come between the two: each piece
// is taken out where it stands.
std::string withoutShellComplaints(const std::string &err) {
    std::string joined = std::regex_replace(err, std::regex("sh: [0-9]+: "), "");
    std::string out;
    size_t pos = 0;
    while (pos < joined.size()) {
        size_t nl = joined.find('\n', pos);
        size_t end = nl == std::string::npos ? joined.size() : nl + 1;
        std::string line = joined.substr(pos, end - pos);
        if (!std::regex_match(line, std::regex("/[^ ]*: not found\n")))
            out += line;
        pos = end;
    }
    return out;
}

TEST(ShippedBuild, RunsAndUploadsInsideANetworkNamespace) {
    clearLabDir();
    kobtest::TempDir work;
    auto child = kobtest::runChild([&] {
        if (chdir(work.path().c_str()) != 0)
            _exit(3);
        runInNamespace(work.path());
    });
    if (child.exited(kNoNamespace))
        GTEST_SKIP() << kobtest::readFile(work.file("skip-reason"));
    ASSERT_TRUE(child.exited(0)) << child.out << child.err;
    clearLabDir();

    std::string err = kobtest::readFile(work.file("run.err"));
    std::string out = kobtest::readFile(work.file("run.out"));
    EXPECT_EQ(kobtest::readFile(work.file("run.status")), "0") << err;
    EXPECT_TRUE(matchesRun(err, "ns")) << err;
    // The shipped texts, to the letter.
    if (std::string(KOBDIAG_INTRANET_ADDR_1) == "10.243.160.1") {
        for (const char *h : {"==> Testing to the intranet 10.243.160.1:8081\n",
                              "==> Testing to the intranet 10.252.240.1:8081\n",
                              "==> Testing to the intranet 10.243.144.1:8081\n",
                              "==> Testing to the intranet 10.252.128.1:8081\n"})
            EXPECT_NE(err.find(h), std::string::npos) << h;
    }
    EXPECT_NE(err.find("==> Dumping the result of `" KOBDIAG_CMD_IFCONFIG "'\n"),
              std::string::npos);
    EXPECT_EQ(logDump(err), kNoLogs + countdown());

    auto stored = storedReports(work.path());
    ASSERT_EQ(stored.size(), 1u) << kobtest::readFile(work.file("koblab.out"));
    std::string body = kobtest::formPart("desc", withoutShellComplaints(err)) +
                       kobtest::formPart("username", "ns") + kobtest::formEnd();
    EXPECT_EQ(kobtest::readFile(stored[0]),
              kobtest::requestHead(body.size(), KOBDIAG_REPORT_HOST) + body);
    EXPECT_EQ(kobtest::logRecords(out, "#   ", "dia"),
              std::vector<std::string>{"Sending a user problem report."});
    auto answer = kobtest::logRecords(out, "----", "dia");
    ASSERT_EQ(answer.size(), 1u);
    EXPECT_EQ(answer[0].rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
}

} // namespace
