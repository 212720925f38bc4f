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

TEST(Kobreport, EvidenceFollowsEachVerdictWithItsRuleAndNumberedLines) {
    kobtest::TempDir dir;
    auto run = reportgen::healthyRun();
    run.tcp[3] = reportgen::tcpTimeout();
    run.intranet[0] = reportgen::tcpTimeout();
    kobtest::writeFile(dir.file("r.txt"), reportgen::report(run));
    auto r = runProgram({KOBREPORT_BIN, "--evidence", dir.file("r.txt")});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.err, "");
    // Line numbers as in the report file (cat -n counts the same).
    EXPECT_EQ(r.out,
              "LEVEL  AREA        VERDICT\n"
              "ok     udp         UDP pass-through works (5/5 answered, avg 12.0 ms)\n"
              "       rule udp.works (rules version 1)\n"
              "          16| UDP src --10.000000 ms--> dst(192.0.2.7:10007)\n"
              "          18| UDP src --11.000000 ms--> dst(192.0.2.7:10007)\n"
              "          20| UDP src --12.000000 ms--> dst(192.0.2.7:10007)\n"
              "          22| UDP src --13.000000 ms--> dst(192.0.2.7:10007)\n"
              "          24| UDP src --14.000000 ms--> dst(192.0.2.7:10007)\n"
              "fail   tcp         TCP 443 to KT IDC unanswered within 15 s\n"
              "       rule tcp.unanswered (rules version 1)\n"
              "          31| ==> Testing TCP pass-through to port 443\n"
              "          32| TCP: select timeout\n"
              "ok     traceroute  traceroute reached 192.0.2.2 in 3 hops\n"
              "       rule traceroute.reached (rules version 1)\n"
              "          40| ==> Dumping the result of `/usr/sbin/traceroute -m 15 -n 192.0.2.2'\n"
              "          43|  3  192.0.2.2  9.870 ms  9.901 ms  9.850 ms\n"
              "warn   intranet    intranet partly reachable (3/4)\n"
              "       rule intranet.partial (rules version 1)\n"
              "          50| TCP: select timeout\n"
              "          52| TCP src --3.250000 ms--> dst(10.252.240.1:8081)\n"
              "          54| TCP src --3.250000 ms--> dst(10.243.144.1:8081)\n"
              "          56| TCP src --3.250000 ms--> dst(10.252.128.1:8081)\n");
    // The JSON carries the same, whatever the option.
    auto j = runProgram({KOBREPORT_BIN, "--json", "--evidence", dir.file("r.txt")});
    EXPECT_TRUE(j.exited(0));
    EXPECT_NE(
        j.out.find("\"rule\":\"tcp.unanswered\",\"rule_version\":1,\"evidence\":[{\"line\":31,"
                   "\"text\":\"==> Testing TCP pass-through to port 443\"},{\"line\":32,"
                   "\"text\":\"TCP: select timeout\"}]"),
        std::string::npos)
        << j.out;
    EXPECT_NE(j.out.find("\"rules_version\":1,"), std::string::npos);
}

TEST(Kobreport, RulesListsEveryRuleWithWhatItMeansAndWhatToTellTheUser) {
    auto r = runProgram({KOBREPORT_BIN, "--rules"});
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out.rfind("rules version 1\n\nreport.unrecognised (version 1, fail, report)\n"
                          "  reads the whole text\n  Nothing in the text is part of a kobdiag "
                          "report; it is kept as text.\n  tell the user: Ask the user to send the "
                          "report again from kobdiag itself, without editing the text or pasting "
                          "it elsewhere first.\n\nreport.incomplete ",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find("\nudp.blocked (version 1, fail, udp)\n  reads the UDP attempts\n  No UDP "
                         "echo came back: something on the way drops UDP. When TCP to the same "
                         "server fails too, see udp.server-down and net.none, which take this "
                         "verdict's place.\n  tell the user: Ask the user to switch the VPN "
                         "protocol to TCP in the client's settings: the network they are on "
                         "(often a company's or a hotel's) drops UDP.\n"),
              std::string::npos)
        << r.out;
    // Every rule says what to tell the user.
    size_t advice = 0;
    for (size_t at = 0; (at = r.out.find("\n  tell the user: ", at)) != std::string::npos; at++)
        advice++;
    EXPECT_EQ(advice, 24u);
    EXPECT_NE(r.out.find("\nnet.none (version 1, fail, net)\n  reads `netstat -rn', the UDP and "
                         "TCP probes\n  No public server answered"),
              std::string::npos);
    // One paragraph per rule.
    size_t rules = 0;
    for (size_t at = 0; (at = r.out.find("\n\n", at)) != std::string::npos; at++)
        rules++;
    EXPECT_EQ(rules, 24u);
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
    for (auto args :
         std::vector<std::vector<std::string>>{{KOBREPORT_BIN},
                                               {KOBREPORT_BIN, "-x", "f"},
                                               {KOBREPORT_BIN, "a", "b"},
                                               {KOBREPORT_BIN, "--evidence", "--evidence", "f"},
                                               {KOBREPORT_BIN, "--rules", "f"}}) {
        auto r = runProgram(args);
        EXPECT_TRUE(r.exited(1));
        EXPECT_EQ(r.err, "usage: kobreport [--json] [--evidence] FILE\n"
                         "       kobreport --rules\n");
    }
}
