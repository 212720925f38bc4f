// What koblog and kobstat share, and the assertion handler that each program
// linking libkob must supply.

#include "segment_tool.h"

#include <cstdio>
#include <cstdlib>

#include "vas.h"

extern "C" void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind) {
    printf("assert fail! %s %s:%d %s %d\n", func, file, line, cond, kind);
    abort();
}

namespace segtool {

bool knownInstance(std::string_view name) {
    for (std::string_view known : {".kobvane.vsm", ".kobflow.vsm", ".kobrun.vsm"})
        if (name.starts_with(known))
            return true;
    return false;
}

std::string withoutNewline(const char *text) {
    std::string s = text == nullptr ? "unknown error" : text;
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

} // namespace segtool
