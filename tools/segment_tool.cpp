// What koblog and kobstat share.

#include "segment_tool.h"

#include <cstdio>
#include <cstdlib>


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
