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

} // namespace kobreportd::html
