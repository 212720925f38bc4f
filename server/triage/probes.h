// The run's result lines: a probe's answer, timeout or error, and the
// traceroute's hops.

#ifndef KOBTRIAGE_PROBES_H
#define KOBTRIAGE_PROBES_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "kobtriage.h"

namespace kobtriage::scan {

// One line of the probe region: its text, whether a line feed ended it, and
// its number in the report.
struct Line {
    std::string_view text;
    bool newline;
    std::size_t number;
};

constexpr std::string_view kPopenError = "_popen() error";

// The lines under a UDP or TCP heading: the first result line sets r's
// outcome, "_popen() error" lines go to popen, the rest to r.extra.
void takeProbeLines(const std::vector<Line> &lines, bool udp, ProbeResult &r,
                    std::vector<SourceLine> &popen);

// The traceroute run by command, from the lines it printed.
Traceroute parseTraceroute(std::string_view command, const std::vector<Line> &lines);

} // namespace kobtriage::scan

#endif
