// kobreport as a whole program: its table, its JSON and its exit status.

#include "kobtest.h"
#include "reportgen.h"

#include <gtest/gtest.h>

using kobtest::runProgram;

TEST(Kobreport, PrintsTheVerdictTable) {
    kobtest::TempDir dir;
    auto run = reportgen::healthyRun();
    run.udp.assign(5, reportgen::udpTimeout());
    run.tcp[3] = reportgen::tcpTimeout();
    kobtest::writeFile(dir.file("kobdiag_stdout.txt"), reportgen::report(run));
    auto r = runProgram({KOBREPORT_BIN, dir.file("kobdiag_stdout.txt")});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "LEVEL  AREA        VERDICT\n"
                     "fail   udp         UDP pass-through blocked (5/5 timeouts)\n"
                     "fail   tcp         TCP 443 to KT IDC unanswered within 15 s\n"
                     "ok     traceroute  traceroute reached 192.0.2.2 in 3 hops\n"
                     "ok     intranet    intranet reachable (4/4)\n");
}

TEST(Kobreport, PrintsJsonWithANullReference) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("r.txt"), reportgen::report(reportgen::healthyRun()));
    auto r = runProgram({KOBREPORT_BIN, "--json", dir.file("r.txt")});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out.rfind("{\"reference\":null,", 0), 0u);
    EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n");
    EXPECT_NE(r.out.find("\"verdicts\":[\"UDP pass-through works"), std::string::npos);
}

TEST(Kobreport, GarbageStillParses) {
    kobtest::TempDir dir;
    kobtest::writeFile(dir.file("junk"), std::string("\x7f"
                                                     "ELF\0\0\x01\n==> what\n",
                                                     16));
    auto r = runProgram({KOBREPORT_BIN, dir.file("junk")});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out,
              "LEVEL  AREA        VERDICT\n"
              "fail   report      not a kobdiag report (nothing recognised; kept as text)\n");
}

TEST(Kobreport, UnreadableFileExitsOne) {
    kobtest::TempDir dir;
    auto r = runProgram({KOBREPORT_BIN, dir.file("absent")});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "kobreport: " + dir.file("absent") + ": No such file or directory\n");
    r = runProgram({KOBREPORT_BIN, dir.path()});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "kobreport: " + dir.path() + ": Is a directory\n");
}

TEST(Kobreport, BadCommandLineExitsOneWithUsage) {
    for (auto args : std::vector<std::vector<std::string>>{
             {KOBREPORT_BIN}, {KOBREPORT_BIN, "-x", "f"}, {KOBREPORT_BIN, "a", "b"}}) {
        auto r = runProgram(args);
        EXPECT_TRUE(r.exited(1));
        EXPECT_EQ(r.err, "usage: kobreport [--json] [--evidence] FILE\n");
    }
}
