// Shared by the probe tests: a fresh report buffer and the probes' line.

#ifndef RTT_SUPPORT_H
#define RTT_SUPPORT_H

#include <cstdlib>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "kobdiag.h"
// kobtest.h has an unguarded second half: include it here only.
#include "kobtest.h"
#include "vsb.h"
#include "vtim.h"

namespace rtt_test {

inline void freshReport() {
    if (dia_msg == nullptr)
        dia_msg = vsb_newauto();
    vsb_clear(dia_msg);
}

inline std::string reportText() {
    return std::string(dia_msg->s_buf, dia_msg->s_len);
}

// The milliseconds of the one line "<proto> src --%f ms--> dst(addr:port)\n"
// that text must consist of, or -1 (with a test failure) when it does not.
inline double parseRttLine(const std::string &text, const std::string &proto,
                           const std::string &addr, int port) {
    std::smatch m;
    std::regex re(proto + " src --([0-9]+\\.[0-9]{6}) ms--> dst\\(" +
                  std::regex_replace(addr, std::regex("\\."), "\\.") + ":" + std::to_string(port) +
                  "\\)\n");
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
