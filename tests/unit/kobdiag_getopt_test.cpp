#include "kobdiag_getopt.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kobtest.h"

namespace {

struct Scan {
    std::vector<std::string> seen; // each result, as the letter or "?"/":"
    std::vector<std::string> args; // optarg for letters that take one
    int optind = 0;
    std::string err;
};

// Scan argv with a fresh scanner state, recording what each call returns.
Scan scan(std::vector<std::string> words, const char *optstring = "m:ou:") {
    std::vector<char *> argv;
    for (auto &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    Scan s;
    s.err = kobtest::captureFd(2, [&] {
        kobdiag::optind = 1;
        kobdiag::optreset = 1;
        kobdiag::opterr = 1;
        int c;
        while ((c = kobdiag::getopt(static_cast<int>(words.size()), argv.data(), optstring)) !=
               -1) {
            s.seen.push_back(std::string(1, static_cast<char>(c)));
            s.args.push_back(kobdiag::optarg != nullptr ? kobdiag::optarg : "(none)");
        }
    });
    s.optind = kobdiag::optind;
    return s;
}

using Strings = std::vector<std::string>;

TEST(Getopt, NoOptionsEndsAtOnce) {
    Scan s = scan({"kobdiag"});
    EXPECT_TRUE(s.seen.empty());
    EXPECT_EQ(s.optind, 1);
    EXPECT_EQ(s.err, "");
}

TEST(Getopt, RepeatedLettersAreEachReturned) {
    Scan s = scan({"kobdiag", "-o", "-o", "-o"});
    EXPECT_EQ(s.seen, (Strings{"o", "o", "o"}));
    EXPECT_EQ(s.optind, 4);
}

TEST(Getopt, ArgumentGluedOrInNextWord) {
    Scan glued = scan({"kobdiag", "-ufoo"});
    EXPECT_EQ(glued.seen, (Strings{"u"}));
    EXPECT_EQ(glued.args, (Strings{"foo"}));
    EXPECT_EQ(glued.optind, 2);

    Scan split = scan({"kobdiag", "-u", "foo"});
    EXPECT_EQ(split.seen, (Strings{"u"}));
    EXPECT_EQ(split.args, (Strings{"foo"}));
    EXPECT_EQ(split.optind, 3);
}

TEST(Getopt, ClusterSetsFlagAndArgument) {
    Scan s = scan({"kobdiag", "-oufoo"});
    EXPECT_EQ(s.seen, (Strings{"o", "u"}));
    EXPECT_EQ(s.args, (Strings{"(none)", "foo"}));
    EXPECT_EQ(s.optind, 2);
}

TEST(Getopt, MissingArgumentAsLastWord) {
    Scan s = scan({"kobdiag", "-u"});
    EXPECT_EQ(s.seen, (Strings{"?"}));
    EXPECT_EQ(s.err, "option requires an argument -- u\n");
}

TEST(Getopt, MissingArgumentWithLeadingColonIsSilent) {
    Scan s = scan({"kobdiag", "-u"}, ":m:ou:");
    EXPECT_EQ(s.seen, (Strings{":"}));
    EXPECT_EQ(s.err, "");
}

TEST(Getopt, UnknownLetter) {
    Scan s = scan({"kobdiag", "-x"});
    EXPECT_EQ(s.seen, (Strings{"?"}));
    EXPECT_EQ(s.err, "illegal option -- x\n");
    EXPECT_EQ(s.optind, 2);

    Scan quiet = scan({"kobdiag", "-x"}, ":m:ou:");
    EXPECT_EQ(quiet.seen, (Strings{"?"}));
    EXPECT_EQ(quiet.err, "");
}

TEST(Getopt, ColonIsNeverAnOption) {
    Scan s = scan({"kobdiag", "-:"});
    EXPECT_EQ(s.seen, (Strings{"?"}));
    EXPECT_EQ(s.err, "illegal option -- :\n");
}

TEST(Getopt, UnknownLetterInsideClusterKeepsScanning) {
    Scan s = scan({"kobdiag", "-xo"});
    EXPECT_EQ(s.seen, (Strings{"?", "o"}));
    EXPECT_EQ(s.optind, 2);
}

TEST(Getopt, DoubleDashEndsOptionsAndIsConsumed) {
    Scan s = scan({"kobdiag", "--", "-o"});
    EXPECT_TRUE(s.seen.empty());
    EXPECT_EQ(s.optind, 2);
}

TEST(Getopt, LoneDashEndsOptionsAndStays) {
    Scan s = scan({"kobdiag", "-", "-o"});
    EXPECT_TRUE(s.seen.empty());
    EXPECT_EQ(s.optind, 1);
}

TEST(Getopt, LoneDashIsAnOptionWhenListed) {
    Scan s = scan({"kobdiag", "-", "-o"}, "o-");
    EXPECT_EQ(s.seen, (Strings{"-", "o"}));
    EXPECT_EQ(s.optind, 3);
}

TEST(Getopt, OperandEndsOptions) {
    Scan s = scan({"kobdiag", "-o", "word", "-o"});
    EXPECT_EQ(s.seen, (Strings{"o"}));
    EXPECT_EQ(s.optind, 2);
}

TEST(Getopt, DashWordAfterOptionTakingArgumentIsItsArgument) {
    Scan s = scan({"kobdiag", "-m", "-o"});
    EXPECT_EQ(s.seen, (Strings{"m"}));
    EXPECT_EQ(s.args, (Strings{"-o"}));
    EXPECT_EQ(s.optind, 3);
}

TEST(Getopt, OpterrZeroSilencesMessages) {
    std::string words[] = {"kobdiag", "-x", "-u"};
    char *argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    std::string err = kobtest::captureFd(2, [&] {
        kobdiag::optind = 1;
        kobdiag::optreset = 1;
        kobdiag::opterr = 0;
        EXPECT_EQ(kobdiag::getopt(3, argv, "m:ou:"), '?');
        EXPECT_EQ(kobdiag::optopt, 'x');
        EXPECT_EQ(kobdiag::getopt(3, argv, "m:ou:"), '?');
        EXPECT_EQ(kobdiag::optopt, 'u');
        EXPECT_EQ(kobdiag::getopt(3, argv, "m:ou:"), -1);
        kobdiag::opterr = 1;
    });
    EXPECT_EQ(err, "");
}

} // namespace
