#include "scan.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>

namespace kobtriage::scan {

namespace {

// The logs region runs to hundreds of megabytes.  Forward, the C library's
// memmem searches it several times faster than a skip table would, and it
// does not stop at every '=' or '[' as a search by first character does.
// Backward there is no such function: Boyer-Moore-Horspool skips up to a
// label's length at each step, and below that many bytes building its skip
// table costs more than it saves.
constexpr std::size_t kSkipSearchFrom = std::size_t{16} * 1024;

// Evidence shows a line's beginning; a capture or log may hold lines of
// megabytes.
constexpr std::size_t kEvidenceMax = 400;

} // namespace

std::size_t findIn(sv hay, sv needle, std::size_t from) {
    if (from > hay.size())
        return sv::npos;
    const void *p = memmem(hay.data() + from, hay.size() - from, needle.data(), needle.size());
    return p ? static_cast<std::size_t>(static_cast<const char *>(p) - hay.data()) : sv::npos;
}

// The same from the end: the countdown stands at the very end of an
// uploaded report, and a file report has none.
std::size_t rfindIn(sv hay, sv needle) {
    if (needle.size() > hay.size())
        return sv::npos;
    if (hay.size() < kSkipSearchFrom) {
        // Back from the end by the first character, not at every position.
        std::size_t end = hay.size() - needle.size() + 1;
        while (end > 0) {
            const void *p = memrchr(hay.data(), needle.front(), end);
            if (!p)
                break;
            auto at = static_cast<std::size_t>(static_cast<const char *>(p) - hay.data());
            if (hay.compare(at, needle.size(), needle) == 0)
                return at;
            end = at;
        }
        return sv::npos;
    }
    auto it = std::search(hay.rbegin(), hay.rend(),
                          std::boyer_moore_horspool_searcher(needle.rbegin(), needle.rend()));
    return it == hay.rend() ? sv::npos : static_cast<std::size_t>(hay.rend() - it) - needle.size();
}

// Line feeds counted in 16 one-byte lanes, which the compiler turns into
// vector compares; each lane is emptied into the total before it can wrap.
std::size_t countLineFeeds(sv s) {
    constexpr std::size_t kLanes = 16, kRounds = 255;
    std::size_t n = 0, i = 0;
    while (s.size() - i >= kLanes) {
        unsigned char lanes[kLanes] = {};
        std::size_t rounds = std::min(kRounds, (s.size() - i) / kLanes);
        for (std::size_t r = 0; r < rounds; r++, i += kLanes)
            for (std::size_t k = 0; k < kLanes; k++)
                lanes[k] += s[i + k] == '\n';
        for (unsigned char c : lanes)
            n += c;
    }
    for (; i < s.size(); i++)
        n += s[i] == '\n';
    return n;
}

SourceLine sourceLine(std::size_t number, sv text) {
    if (text.size() <= kEvidenceMax)
        return {number, std::string(text)};
    return {number, std::string(text.substr(0, kEvidenceMax)) + "[...]"};
}

std::vector<sv> words(sv line) {
    std::vector<sv> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            i++;
        std::size_t j = i;
        while (j < line.size() && line[j] != ' ' && line[j] != '\t')
            j++;
        if (j > i)
            out.push_back(line.substr(i, j - i));
        i = j;
    }
    return out;
}

bool isAddress(sv w) {
    if (w.empty())
        return false;
    bool digit = false, sep = false;
    for (char c : w) {
        if (c >= '0' && c <= '9')
            digit = true;
        else if (c == '.' || c == ':')
            sep = true;
        else if (!((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')))
            return false;
    }
    return digit && sep;
}

std::optional<std::string> ctimeToIso(sv t) {
    static constexpr std::array<sv, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::vector<sv> words;
    std::size_t i = 0;
    while (i < t.size()) {
        while (i < t.size() && t[i] == ' ')
            i++;
        std::size_t j = i;
        while (j < t.size() && t[j] != ' ')
            j++;
        if (j > i)
            words.push_back(t.substr(i, j - i));
        i = j;
    }
    if (words.size() != 5)
        return std::nullopt;
    auto m = std::find(months.begin(), months.end(), words[1]);
    auto day = toInt(words[2]);
    auto year = toInt(words[4]);
    sv hms = words[3];
    if (m == months.end() || !day || !year || hms.size() != 8 || hms[2] != ':' || hms[5] != ':')
        return std::nullopt;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%.*s", *year,
                  static_cast<int>(m - months.begin()) + 1, *day, 8, hms.data());
    return std::string(buf);
}

} // namespace kobtriage::scan
