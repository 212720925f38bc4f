// What koblog and kobstat share: the instance names a person may give, the
// library's error texts made fit for one line, and opening the segment.

#ifndef KOB_SEGMENT_TOOL_H
#define KOB_SEGMENT_TOOL_H

#include <string>
#include <string_view>

struct VSM_data;

namespace segtool {

// True for the names the library resolves.  The library ends the process on
// an unknown name; a person gets a message instead.
bool knownInstance(std::string_view name);

// An error text without its trailing line feeds ("unknown error" for none).
std::string withoutNewline(const char *text);

// Which reader a segment is opened for: the log reader takes the instance
// name through its own argument call, which also prepares its state.
enum class Reader { Log, Counters };

// The named instance's segment, opened for the reader, or NULL after a line
// "<prog>: <why>" on standard error (an unknown name, no memory, or the
// library's reason the segment did not open).
struct VSM_data *openSegment(const char *prog, const char *instance, Reader reader);

} // namespace segtool

#endif
