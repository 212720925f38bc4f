// Lines of kobdiag's report that more than one test looks for, written out
// independently of the tool's code.

#ifndef KOBDIAG_LINES_H
#define KOBDIAG_LINES_H

#include <regex>
#include <string>

namespace kobtest {

// A pattern for the probes' round-trip line
// "<proto> src --%f ms--> dst(addr:port)\n"; its one group is the figure.
inline std::string rttLinePattern(const std::string &proto, const std::string &addr, int port) {
    return proto + " src --([0-9]+\\.[0-9]{6}) ms--> dst\\(" +
           std::regex_replace(addr, std::regex("\\."), "\\.") + ":" + std::to_string(port) +
           "\\)\n";
}

// The heading printed before a command's captured output.
inline std::string dumpHeading(const std::string &cmd) {
    return "==> Dumping the result of `" + cmd + "'\n";
}

} // namespace kobtest

#endif
