#include "html.h"

#include "kobtriage.h"

namespace kobreportd::html {

std::string escape(std::string_view s) {
    std::string v = kobtriage::validUtf8(s), out;
    out.reserve(v.size());
    for (char c : v) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        case '\0':
            out += "\xef\xbf\xbd";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string percentEncode(std::string_view s) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

namespace {

// What one byte can become at most once escaped: a byte of an ill-formed
// sequence becomes U+FFFD.
std::size_t mostEscaped(char c) {
    switch (c) {
    case '&':
    case '\'':
        return 5;
    case '<':
    case '>':
        return 4;
    case '"':
        return 6;
    default:
        return static_cast<unsigned char>(c) >= 0x80 || c == '\0' ? 3 : 1;
    }
}

bool continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

} // namespace

std::string_view headWithin(std::string_view s, std::size_t budget) {
    std::size_t used = 0, end = 0;
    while (end < s.size()) {
        std::size_t nl = s.find('\n', end);
        std::size_t next = nl == std::string_view::npos ? s.size() : nl + 1;
        std::size_t cost = escape(s.substr(end, next - end)).size();
        if (used + cost > budget)
            break;
        used += cost;
        end = next;
    }
    if (end > 0 || s.empty())
        return s.substr(0, end);
    // One line longer than the budget: as much of it as surely fits.
    std::size_t cut = 0;
    for (used = 0; cut < s.size() && used + mostEscaped(s[cut]) <= budget; cut++)
        used += mostEscaped(s[cut]);
    while (cut > 0 && cut < s.size() && continuation(s[cut]))
        cut--;
    return s.substr(0, cut);
}

std::string_view tailWithin(std::string_view s, std::size_t budget) {
    std::size_t used = 0, start = s.size();
    while (start > 0) {
        // The line that ends at start (its line feed included).
        std::size_t from = start >= 2 ? s.rfind('\n', start - 2) : std::string_view::npos;
        from = from == std::string_view::npos ? 0 : from + 1;
        std::size_t cost = escape(s.substr(from, start - from)).size();
        if (used + cost > budget)
            break;
        used += cost;
        start = from;
    }
    if (start < s.size() || s.empty())
        return s.substr(start);
    std::size_t cut = s.size();
    for (used = 0; cut > 0 && used + mostEscaped(s[cut - 1]) <= budget; cut--)
        used += mostEscaped(s[cut - 1]);
    while (cut < s.size() && continuation(s[cut]))
        cut++;
    return s.substr(cut);
}

} // namespace kobreportd::html
