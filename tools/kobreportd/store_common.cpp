#include "store.h"

#include <cstdio>

#include "kobjson.h"

namespace kobreportd {

std::string makeReference(std::time_t receivedAt, int64_t id) {
    std::tm tm{};
    gmtime_r(&receivedAt, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "KOB-%04d%02d%02d-%06lld", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, static_cast<long long>(id));
    return buf;
}

std::string cleanText(const std::string &s) {
    std::string v = kobjson::utf8(s);
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

std::string likeEscape(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '%' || c == '_' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

} // namespace kobreportd
