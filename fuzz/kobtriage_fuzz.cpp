// Any bytes as a report: the triage must give verdicts, their evidence and
// JSON for each without crashing.  Each input is parsed once: the parse is
// a function of the bytes alone, and every second spent here is inputs not
// tried.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kobtriage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    auto a = kobtriage::parse(text);
    auto json = kobtriage::toJson(a);
    auto table = kobtriage::verdictTable(a, true);
    if (a.verdicts.empty() || json.empty() || json.front() != '{' || json.back() != '}' ||
        table.empty())
        std::abort();
    // Evidence names lines the text has.
    auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const auto &v : a.verdicts)
        for (const auto &l : v.evidence)
            if (l.number == 0 || l.number > lines)
                std::abort();
    return 0;
}
