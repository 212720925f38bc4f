#include "vin.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "kobtest.h"

using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kVin[] = "lib/libkob/vin.cpp";

TEST(Vin, KnownNamesAndTheirContinuationsYieldTheKnownName) {
    struct Case {
        const char *given;
        const char *file;
    } cases[] = {
        {".kobrun.vsm", ".kobrun.vsm"},    {".kobvane.vsm", ".kobvane.vsm"},
        {".kobflow.vsm", ".kobflow.vsm"},  {".kobvane.vsm.more", ".kobvane.vsm"},
        {".kobvane.vsmX", ".kobvane.vsm"}, {".kobflow.vsm/..", ".kobflow.vsm"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.given);
        char *out = nullptr;
        EXPECT_EQ(VIN_N_Arg(c.given, nullptr, nullptr, &out), 0);
        ASSERT_NE(out, nullptr);
        EXPECT_STREQ(out, c.file);
        EXPECT_NE(out, c.given);
        free(out);
    }
}

TEST(Vin, UnknownNamePrintsItAndEndsTheProcess) {
    for (const char *name : {"kobvane.vsm", "", ".kobrun", ".KOBRUN.VSM", "x.kobrun.vsm"}) {
        SCOPED_TRACE(name);
        auto r = runChild([&] {
            char *out = nullptr;
            VIN_N_Arg(name, nullptr, nullptr, &out);
        });
        EXPECT_EQ(r.err, std::string("n_arg ") + name + "\n");
        EXPECT_TRUE(vasAbort(r, "VIN_N_Arg", kVin, "0 == 1"));
    }
}

TEST(Vin, CallingRulesAreAssertions) {
    char *out = nullptr;
    char *other = nullptr;
    struct Case {
        const char *text;
        std::function<void()> call;
    } cases[] = {
        {"(name) == 0", [&] { VIN_N_Arg(".kobrun.vsm", &other, nullptr, &out); }},
        {"(dir) == 0", [&] { VIN_N_Arg(".kobrun.vsm", nullptr, &other, &out); }},
        {"(vsl) != 0", [&] { VIN_N_Arg(".kobrun.vsm", nullptr, nullptr, nullptr); }},
        {"(n_arg) != 0", [&] { VIN_N_Arg(nullptr, nullptr, nullptr, &out); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_TRUE(vasAbort(runChild(c.call), "VIN_N_Arg", kVin, c.text));
    }
}

} // namespace
