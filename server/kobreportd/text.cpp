#include "text.h"

#include "kobtriage.h"

namespace kobreportd {

std::string cleanText(std::string_view s) {
    std::string v = kobtriage::validUtf8(s);
    std::string out;
    out.reserve(v.size());
    for (char c : v) {
        if (c == '\0')
            out.append("\xef\xbf\xbd");
        else
            out.push_back(c);
    }
    return out;
}

std::string likeEscape(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c == '%' || c == '_' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

} // namespace kobreportd
