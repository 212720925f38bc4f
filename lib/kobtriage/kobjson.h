// A small JSON writer.  Reports carry arbitrary bytes (client logs), and
// JSON must be UTF-8, so every string goes through a validator that turns
// broken sequences into U+FFFD instead of passing them on.

#ifndef KOBJSON_H
#define KOBJSON_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kobjson {

// Valid UTF-8 for any input: invalid sequences become U+FFFD.
std::string utf8(std::string_view s);

// A JSON string literal, quotes included.
std::string quote(std::string_view s);

// Writes one JSON value; commas and nesting are tracked for the caller.
class Writer {
  public:
    Writer &beginObject();
    Writer &endObject();
    Writer &beginArray();
    Writer &endArray();
    Writer &key(std::string_view k);
    Writer &value(std::string_view s);
    Writer &value(const char *s) { return value(std::string_view(s)); }
    Writer &value(const std::string &s) { return value(std::string_view(s)); }
    Writer &value(double d);
    Writer &value(int64_t i);
    Writer &value(int i) { return value(static_cast<int64_t>(i)); }
    Writer &value(std::size_t i) { return value(static_cast<int64_t>(i)); }
    Writer &value(bool b);
    Writer &null();
    Writer &value(const std::optional<std::string> &s) { return s ? value(*s) : null(); }
    Writer &value(const std::optional<double> &d) { return d ? value(*d) : null(); }
    // A value already written as JSON by someone else.
    Writer &raw(std::string_view json);
    const std::string &str() const { return out_; }

  private:
    void separate();
    std::string out_;
    std::vector<bool> first_; // per open container: nothing written yet
    bool afterKey_ = false;
};

} // namespace kobjson

#endif
