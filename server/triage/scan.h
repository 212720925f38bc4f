// Searching, splitting and reading numbers in a report's text: what the
// parser is made of.  Small enough to inline where it is hot, the rest in
// scan.cpp.

#ifndef KOBTRIAGE_SCAN_H
#define KOBTRIAGE_SCAN_H

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kobtriage.h"

namespace kobtriage::scan {

using sv = std::string_view;

inline bool startsWith(sv s, sv p) {
    return s.substr(0, p.size()) == p;
}
inline bool endsWith(sv s, sv p) {
    return s.size() >= p.size() && s.substr(s.size() - p.size()) == p;
}

// The whole of s as a number of type T, or nothing.
template <typename T> inline std::optional<T> toNumber(sv s) {
    T v{};
    if (s.empty())
        return std::nullopt;
    auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size())
        return std::nullopt;
    return v;
}
inline std::optional<int> toInt(sv s) {
    return toNumber<int>(s);
}
inline std::optional<double> toDouble(sv s) {
    return toNumber<double>(s);
}

// The first place of needle in hay at or after from, or npos.
std::size_t findIn(sv hay, sv needle, std::size_t from = 0);
// The last place of needle in hay, or npos.
std::size_t rfindIn(sv hay, sv needle);

std::size_t countLineFeeds(sv s);

// Line numbers of offsets into the text, counted forward from the last
// offset asked for, so that a pass over the logs counts each byte once.
class LineCounter {
  public:
    explicit LineCounter(sv text) : text_(text) {}
    std::size_t at(std::size_t offset) {
        if (offset < offset_) {
            offset_ = 0;
            line_ = 1;
        }
        line_ += countLineFeeds(text_.substr(offset_, offset - offset_));
        offset_ = offset;
        return line_;
    }

  private:
    sv text_;
    std::size_t offset_ = 0, line_ = 1;
};

// A line as evidence, cut to its beginning when it is long.
SourceLine sourceLine(std::size_t number, sv text);

// The words of a line, split at spaces and tabs.
std::vector<sv> words(sv line);

// Digits with dots or colons (and hex digits): an IPv4 or IPv6 address.
bool isAddress(sv w);

// "Tue Nov 24 13:11:02 2026", as ctime writes it, as "2026-11-24T13:11:02".
std::optional<std::string> ctimeToIso(sv t);

} // namespace kobtriage::scan

#endif
