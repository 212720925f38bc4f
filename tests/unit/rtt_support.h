// Shared by the probe tests: a fresh report buffer and the probes' line.

#ifndef RTT_SUPPORT_H
#define RTT_SUPPORT_H

#include <cstdlib>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "kobdiag_lines.h"
// kobtest.h has an unguarded second half: include it here only.
#include "kobtest.h"
#include "report_buffer.h"
#include "vsb.h"
#include "vtim.h"

namespace rtt_test {

using kobtest::freshReport;
using kobtest::reportText;

// The milliseconds of the one line "<proto> src --%f ms--> dst(addr:port)\n"
// that text must consist of, or -1 (with a test failure) when it does not.
inline double parseRttLine(const std::string &text, const std::string &proto,
                           const std::string &addr, int port) {
    std::smatch m;
    std::regex re(kobtest::rttLinePattern(proto, addr, port));
    if (!std::regex_match(text, m, re)) {
        ADD_FAILURE() << "not a " << proto << " round-trip line: [" << text << "]";
        return -1;
    }
    return std::strtod(m[1].str().c_str(), nullptr);
}

// A probe that ended in the platform's assertion.  In C++ the platform's
// assert names the function by its full signature, which GCC and Clang
// space differently ("const char*" and "const char *"); `params` is given
// in GCC's form.
inline ::testing::AssertionResult probeAssert(const kobtest::ChildResult &r,
                                              const std::string &name, const std::string &params,
                                              const std::string &cond) {
    std::string clangParams = std::regex_replace(params, std::regex("\\*"), " *");
    auto gcc = kobtest::platformAssert(r, "int " + name + "(" + params + ")",
                                       "bin/kobdiag/kobdiag_rtt.cpp", cond);
    if (gcc)
        return gcc;
    return kobtest::platformAssert(r, "int " + name + "(" + clangParams + ")",
                                   "bin/kobdiag/kobdiag_rtt.cpp", cond);
}

} // namespace rtt_test

#endif
