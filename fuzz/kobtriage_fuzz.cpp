// Any bytes as a report: the triage must give verdicts and JSON for each
// without crashing, and the same verdicts every time.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kobtriage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    auto a = kobtriage::parse(text);
    auto json = kobtriage::toJson(a);
    auto table = kobtriage::verdictTable(a);
    if (a.verdicts.empty() || json.empty() || json.front() != '{' || json.back() != '}' ||
        table.empty())
        std::abort();
    auto b = kobtriage::parse(text);
    if (kobtriage::toJson(b) != json)
        std::abort();
    return 0;
}
