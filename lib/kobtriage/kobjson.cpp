#include "kobjson.h"

#include <charconv>
#include <cmath>

namespace kobjson {

std::string utf8(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    const auto *p = reinterpret_cast<const unsigned char *>(s.data());
    std::size_t n = s.size(), i = 0;
    while (i < n) {
        unsigned char c = p[i];
        std::size_t len = 0;
        uint32_t cp = 0;
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            i++;
            continue;
        } else if ((c & 0xe0) == 0xc0) {
            len = 2;
            cp = c & 0x1f;
        } else if ((c & 0xf0) == 0xe0) {
            len = 3;
            cp = c & 0x0f;
        } else if ((c & 0xf8) == 0xf0) {
            len = 4;
            cp = c & 0x07;
        }
        bool ok = len > 0 && i + len <= n;
        for (std::size_t k = 1; ok && k < len; k++) {
            if ((p[i + k] & 0xc0) != 0x80)
                ok = false;
            else
                cp = (cp << 6) | (p[i + k] & 0x3f);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if (ok && ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) ||
                   (len == 4 && cp < 0x10000) || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)))
            ok = false;
        if (ok) {
            out.append(s.substr(i, len));
            i += len;
        } else {
            out.append("\xef\xbf\xbd");
            i++;
        }
    }
    return out;
}

std::string quote(std::string_view s) {
    std::string v = utf8(s);
    std::string out;
    out.reserve(v.size() + 2);
    out.push_back('"');
    for (char ch : v) {
        auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\r':
            out.append("\\r");
            break;
        case '\t':
            out.append("\\t");
            break;
        default:
            if (c < 0x20 || c == 0x7f) {
                static const char hex[] = "0123456789abcdef";
                out.append("\\u00");
                out.push_back(hex[c >> 4]);
                out.push_back(hex[c & 15]);
            } else {
                out.push_back(ch);
            }
        }
    }
    out.push_back('"');
    return out;
}

void Writer::separate() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back())
            out_.push_back(',');
        first_.back() = false;
    }
}

Writer &Writer::beginObject() {
    separate();
    out_.push_back('{');
    first_.push_back(true);
    return *this;
}

Writer &Writer::endObject() {
    out_.push_back('}');
    first_.pop_back();
    return *this;
}

Writer &Writer::beginArray() {
    separate();
    out_.push_back('[');
    first_.push_back(true);
    return *this;
}

Writer &Writer::endArray() {
    out_.push_back(']');
    first_.pop_back();
    return *this;
}

Writer &Writer::key(std::string_view k) {
    separate();
    out_.append(quote(k));
    out_.push_back(':');
    afterKey_ = true;
    return *this;
}

Writer &Writer::value(std::string_view s) {
    separate();
    out_.append(quote(s));
    return *this;
}

Writer &Writer::value(double d) {
    separate();
    if (!std::isfinite(d)) {
        out_.append("null");
        return *this;
    }
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    out_.append(buf, r.ptr);
    return *this;
}

Writer &Writer::value(int64_t i) {
    separate();
    out_.append(std::to_string(i));
    return *this;
}

Writer &Writer::value(bool b) {
    separate();
    out_.append(b ? "true" : "false");
    return *this;
}

Writer &Writer::null() {
    separate();
    out_.append("null");
    return *this;
}

Writer &Writer::raw(std::string_view json) {
    separate();
    out_.append(json);
    return *this;
}

} // namespace kobjson
