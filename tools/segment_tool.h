// What koblog and kobstat share: the instance names a person may give, and
// the library's error texts made fit for one line.

#ifndef KOB_SEGMENT_TOOL_H
#define KOB_SEGMENT_TOOL_H

#include <string>
#include <string_view>

namespace segtool {

// True for the names the library resolves.  The library ends the process on
// an unknown name; a person gets a message instead.
bool knownInstance(std::string_view name);

// An error text without its trailing line feeds ("unknown error" for none).
std::string withoutNewline(const char *text);

} // namespace segtool

#endif
