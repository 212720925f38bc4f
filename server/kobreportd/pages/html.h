// The one way text reaches a page.  Markup is written as string literals;
// anything else (a user name, a log line, a reference) goes in through
// text() or uri(), which escape it.  A std::string cannot be appended as
// it is: that does not compile, so a new page cannot forget to escape.

#ifndef KOBREPORTD_HTML_H
#define KOBREPORTD_HTML_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kobreportd::html {

struct Text {
    std::string_view s;
};
struct Uri {
    std::string_view s;
};

// Text for an element or an attribute value: valid UTF-8, with & < > " '
// and zero bytes replaced.
inline Text text(std::string_view s) {
    return {s};
}
// One path segment or query value, percent-encoded.
inline Uri uri(std::string_view s) {
    return {s};
}

std::string escape(std::string_view s);

// The start of s that makes at most `budget` bytes of page once escaped,
// ending after a line where one ends within it, else at a character's edge.
std::string_view headWithin(std::string_view s, std::size_t budget);
// The end of s likewise, starting at a line's start where it can.
std::string_view tailWithin(std::string_view s, std::size_t budget);
std::string percentEncode(std::string_view s);

class Html {
  public:
    template <size_t N> Html &operator<<(const char (&markup)[N]) {
        out_.append(markup, N - 1);
        return *this;
    }
    Html &operator<<(Text t) {
        out_ += escape(t.s);
        return *this;
    }
    Html &operator<<(Uri u) {
        out_ += percentEncode(u.s);
        return *this;
    }
    Html &operator<<(const Html &h) {
        out_ += h.out_;
        return *this;
    }
    Html &operator<<(int64_t n) {
        out_ += std::to_string(n);
        return *this;
    }
    Html &operator<<(int n) { return *this << static_cast<int64_t>(n); }
    Html &operator<<(size_t n) { return *this << static_cast<int64_t>(n); }
    const std::string &str() const { return out_; }
    bool empty() const { return out_.empty(); }

  private:
    std::string out_;
};

} // namespace kobreportd::html

#endif
