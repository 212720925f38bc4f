#include "public_url.h"

#include <arpa/inet.h>
#include <cctype>

namespace kobreportd {

namespace {

bool startsCaseless(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); i++)
        if (std::tolower(static_cast<unsigned char>(s[i])) != prefix[i])
            return false;
    return true;
}

// The host as a browser writes it in Origin: a name in lower case, an IPv6
// address in its shortest form.
std::string shownHost(std::string_view host) {
    if (host.front() == '[') {
        std::string inside(host.substr(1, host.size() - 2));
        unsigned char bytes[16];
        char text[INET6_ADDRSTRLEN];
        if (inet_pton(AF_INET6, inside.c_str(), bytes) == 1 &&
            inet_ntop(AF_INET6, bytes, text, sizeof text))
            return "[" + std::string(text) + "]";
    }
    std::string out(host);
    for (char &c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// A name or an IPv4 address ("staff.example.net"), or an IPv6 address in
// brackets.
bool validHost(std::string_view host) {
    if (host.empty())
        return false;
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']')
            return false;
        std::string inside(host.substr(1, host.size() - 2));
        unsigned char bytes[16];
        return inet_pton(AF_INET6, inside.c_str(), bytes) == 1;
    }
    for (char c : host)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_')
            return false;
    return true;
}

bool validPort(std::string_view port) {
    if (port.empty() || port.size() > 5)
        return false;
    unsigned long n = 0;
    for (char c : port) {
        if (c < '0' || c > '9')
            return false;
        n = n * 10 + static_cast<unsigned long>(c - '0');
    }
    return n >= 1 && n <= 65535;
}

// Segments of letters, digits and what a path may hold unencoded, or %XX;
// no empty segment but the last (a browser would read a path beginning
// "//" as another host), and no "." or "..", which browsers resolve away.
bool validPath(std::string_view path) {
    static constexpr std::string_view kAllowed = "-._~!$&'()*+,;=:@";
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos)
            end = path.size();
        std::string_view seg = path.substr(start, end - start);
        if ((seg.empty() && end != path.size()) || seg == "." || seg == "..")
            return false;
        for (size_t i = 0; i < seg.size(); i++) {
            unsigned char c = static_cast<unsigned char>(seg[i]);
            if (c == '%') {
                if (i + 2 >= seg.size() || !std::isxdigit(static_cast<unsigned char>(seg[i + 1])) ||
                    !std::isxdigit(static_cast<unsigned char>(seg[i + 2])))
                    return false;
                i += 2;
            } else if (!std::isalnum(c) && kAllowed.find(static_cast<char>(c)) == kAllowed.npos) {
                return false;
            }
        }
        start = end + 1;
    }
    return true;
}

} // namespace

std::optional<PublicUrl> parsePublicUrl(std::string_view text, std::string &error) {
    auto refuse = [&](const std::string &why) {
        error = "--public-url " + why + ": " + std::string(text);
        return std::nullopt;
    };
    PublicUrl u;
    size_t at = 0;
    if (startsCaseless(text, "https://")) {
        u.https = true;
        at = 8;
    } else if (startsCaseless(text, "http://")) {
        at = 7;
    } else {
        return refuse("must be an absolute http:// or https:// URL");
    }
    if (text.find_first_of("?#") != std::string_view::npos)
        return refuse("may not have a query or a fragment");
    size_t slash = text.find('/', at);
    std::string_view authority =
        text.substr(at, slash == std::string_view::npos ? slash : slash - at);
    std::string path(slash == std::string_view::npos ? "/" : text.substr(slash));
    if (authority.find('@') != std::string_view::npos)
        return refuse("may not name a user");
    // The port follows the last colon outside an IPv6 address's brackets.
    size_t colon = authority.rfind(':');
    if (colon != std::string_view::npos && authority.find(']', colon) != std::string_view::npos)
        colon = std::string_view::npos;
    std::string_view host = authority.substr(0, colon);
    if (!validHost(host))
        return refuse("has no valid host");
    std::string port;
    if (colon != std::string_view::npos) {
        if (!validPort(authority.substr(colon + 1)))
            return refuse("has a bad port");
        port = std::to_string(std::stoul(std::string(authority.substr(colon + 1))));
    }
    if (port == (u.https ? "443" : "80"))
        port.clear();
    if (path.back() != '/')
        path += '/';
    if (!validPath(path))
        return refuse("has a path that cannot serve as a prefix");
    u.origin = std::string(u.https ? "https://" : "http://") + shownHost(host) +
               (port.empty() ? "" : ":" + port);
    u.prefix = path;
    u.url = u.origin + u.prefix;
    return u;
}

std::string Links::path(std::string_view route) const {
    return prefix_ + std::string(route.empty() ? route : route.substr(1));
}

html::Html Links::href(std::string_view route) const {
    html::Html h;
    h << html::text(path(route));
    return h;
}

} // namespace kobreportd
