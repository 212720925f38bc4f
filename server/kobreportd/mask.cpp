#include "mask.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <vector>

namespace kobreportd {

namespace {

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isWordChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    size_t start = 0;
    for (;;) {
        size_t p = s.find(sep, start);
        out.push_back(s.substr(start, p == std::string_view::npos ? p : p - start));
        if (p == std::string_view::npos)
            return out;
        start = p + 1;
    }
}

bool isIpv4(std::string_view s) {
    auto parts = split(s, '.');
    if (parts.size() != 4)
        return false;
    for (auto p : parts) {
        if (p.empty() || p.size() > 3)
            return false;
        int v = 0;
        for (char c : p) {
            if (c < '0' || c > '9')
                return false;
            v = v * 10 + (c - '0');
        }
        if (v > 255)
            return false;
    }
    return true;
}

bool hexGroups(std::string_view s, char sep, size_t groups, size_t minLen, size_t maxLen) {
    auto parts = split(s, sep);
    if (parts.size() != groups)
        return false;
    for (auto p : parts) {
        if (p.size() < minLen || p.size() > maxLen)
            return false;
        for (char c : p)
            if (!isHex(c))
                return false;
    }
    return true;
}

// "a4:83:e7:1:2:3" as ifconfig writes it, or "a483.e701.0203" as some
// switches and logs do.
bool isMac(std::string_view s) {
    return hexGroups(s, ':', 6, 1, 2);
}
bool isDottedMac(std::string_view s) {
    return hexGroups(s, '.', 3, 4, 4);
}

// No one's own: the machine itself, and no address at all.
bool isLoopbackOrUnspecified(const unsigned char b[16]) {
    static const unsigned char none[16] = {};
    static const unsigned char loop[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return std::equal(b, b + 16, none) || std::equal(b, b + 16, loop);
}
bool isLoopbackOrUnspecified4(std::string_view addr) {
    return addr.substr(0, 4) == "127." || addr == "0.0.0.0";
}

bool ipv6Bytes(std::string_view s, unsigned char out[16]) {
    if (s.size() >= INET6_ADDRSTRLEN || s.find(':') == std::string_view::npos)
        return false;
    std::string z(s);
    return inet_pton(AF_INET6, z.c_str(), out) == 1;
}

std::string canonicalIpv6(const unsigned char b[16]) {
    char buf[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, b, buf, sizeof buf);
    return buf;
}

bool kept(const AddressSet &keep, std::string_view addr) {
    return keep.find(addr) != keep.end();
}

// The masked form of one address token, or nothing when it is not one (or
// is one to keep).  `used` is how much of the token the address took.
bool maskToken(std::string_view tok, const AddressSet &keep, std::string &out, size_t &used) {
    if (isMac(tok)) {
        used = tok.size();
        if (kept(keep, tok))
            return false;
        auto parts = split(tok, ':');
        out = std::string(parts[0]) + ":" + std::string(parts[1]) + ":xx:xx:xx:xx";
        return true;
    }
    if (isDottedMac(tok)) {
        used = tok.size();
        out = std::string(tok.substr(0, 4)) + ".xxxx.xxxx";
        return true;
    }
    // A dotted quad, possibly followed by ".port" as some netstat lists
    // write it, or by ":port".
    std::string_view digits = tok.substr(0, tok.find_first_not_of("0123456789."));
    auto dots = split(digits, '.');
    if ((dots.size() == 4 || dots.size() == 5) &&
        (digits.size() == tok.size() || tok[digits.size()] == ':')) {
        size_t len = dots.size() == 4 ? digits.size() : digits.size() - dots.back().size() - 1;
        std::string_view addr = tok.substr(0, len);
        if (isIpv4(addr)) {
            used = len;
            if (kept(keep, addr) || isLoopbackOrUnspecified4(addr))
                return false;
            out = std::string(dots[0]) + "." + std::string(dots[1]) + ".x.x";
            return true;
        }
    }
    unsigned char b[16];
    std::string_view addr = tok;
    if (!ipv6Bytes(addr, b)) {
        auto dot = tok.rfind('.');
        if (dot == std::string_view::npos)
            return false;
        addr = tok.substr(0, dot);
        if (!ipv6Bytes(addr, b))
            return false;
    }
    used = addr.size();
    if (kept(keep, addr) || kept(keep, canonicalIpv6(b)) || isLoopbackOrUnspecified(b))
        return false;
    // An IPv4 address written as IPv6 is masked as IPv4 is.
    static const unsigned char mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::equal(mapped, mapped + 12, b)) {
        char v4[40];
        std::snprintf(v4, sizeof v4, "%u.%u.%u.%u", b[12], b[13], b[14], b[15]);
        if (kept(keep, v4) || isLoopbackOrUnspecified4(v4))
            return false;
        std::snprintf(v4, sizeof v4, "::ffff:%u.%u.x.x", b[12], b[13]);
        out = v4;
        return true;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%x:%x:x:x:x:x:x:x", (b[0] << 8) | b[1], (b[2] << 8) | b[3]);
    out = buf;
    return true;
}

} // namespace

AddressSet addressesIn(const std::vector<std::string> &texts) {
    AddressSet out;
    for (const std::string &t : texts) {
        for (std::string_view word : split(t, ' ')) {
            // A port after an IPv4 address goes; an IPv6 one keeps its colons.
            if (auto colon = word.rfind(':');
                colon != std::string_view::npos && isIpv4(word.substr(0, colon)))
                word = word.substr(0, colon);
            struct in6_addr a6 {};
            std::string w(word);
            if (isIpv4(word) || inet_pton(AF_INET6, w.c_str(), &a6) == 1)
                out.insert(w);
        }
    }
    return out;
}

AddressSet targetAddresses(const kobtriage::Report &report) {
    AddressSet keep;
    auto add = [&keep](const std::string &a) {
        if (!a.empty())
            keep.insert(a);
    };
    for (const auto &a : report.udp)
        add(a.result.address);
    for (const auto &p : report.tcp)
        add(p.result.address);
    for (const auto &p : report.intranet) {
        add(p.address);
        add(p.result.address);
    }
    if (report.traceroute)
        add(report.traceroute->destination);
    return keep;
}

namespace {

std::string maskNetworkAddresses(std::string_view text, const AddressSet &keep) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        // "a4-83-e7-01-02-03": a MAC address as some systems write it.
        if (isHex(c) && (i == 0 || (!isWordChar(text[i - 1]) && text[i - 1] != '-')) &&
            i + 17 <= text.size() && hexGroups(text.substr(i, 17), '-', 6, 2, 2) &&
            (i + 17 == text.size() || (!isWordChar(text[i + 17]) && text[i + 17] != '-'))) {
            out.append(text.substr(i, 5));
            out.append("-xx-xx-xx-xx");
            i += 17;
            continue;
        }
        if (!(isHex(c) || c == ':' || c == '.')) {
            out.push_back(c);
            i++;
            continue;
        }
        size_t end = i;
        while (end < text.size() && (isHex(text[end]) || text[end] == ':' || text[end] == '.'))
            end++;
        std::string_view run = text.substr(i, end - i);
        // A run glued to a word ("v1.2.3.4", "abcd:...x") is part of that
        // word, unless it starts with a separator ("addr:10.1.2.3").
        bool gluedBefore = i > 0 && isWordChar(text[i - 1]) && run[0] != ':' && run[0] != '.';
        bool gluedAfter = end < text.size() && isWordChar(text[end]);
        if (gluedBefore || gluedAfter) {
            out.append(run);
            i = end;
            continue;
        }
        // A network of three octets with its length, as route lists write
        // the user's own subnet: "10.51.135/24".
        if (end + 1 < text.size() && text[end] == '/' && text[end + 1] >= '0' &&
            text[end + 1] <= '9' && isIpv4(std::string(run) + ".0") &&
            split(run, '.').size() == 3) {
            auto parts = split(run, '.');
            out.append(std::string(parts[0]) + "." + std::string(parts[1]) + ".x");
            i = end;
            continue;
        }
        // Try the whole run, then without separators at its ends.
        size_t lead = 0;
        std::string masked;
        size_t used = 0;
        bool hit = maskToken(run, keep, masked, used);
        if (!hit && used == 0) {
            while (lead < run.size() && (run[lead] == ':' || run[lead] == '.'))
                lead++;
            size_t trail = run.size();
            while (trail > lead && (run[trail - 1] == ':' || run[trail - 1] == '.'))
                trail--;
            if (lead > 0 || trail < run.size()) {
                std::string_view inner = run.substr(lead, trail - lead);
                if (!inner.empty())
                    hit = maskToken(inner, keep, masked, used);
            }
        }
        if (hit) {
            out.append(run.substr(0, lead));
            out.append(masked);
            out.append(run.substr(lead + used));
        } else {
            out.append(run);
        }
        i = end;
    }
    return out;
}

// "/Users/NAME" and "/home/NAME": the user's name, in the paths of logs.
std::string maskHomes(std::string_view text) {
    static constexpr std::string_view kHomes[] = {"/Users/", "/home/"};
    std::string out;
    out.reserve(text.size());
    // The next place of each, found again only once passed, so that a long
    // log is searched once for each.
    size_t next[2] = {text.find(kHomes[0]), text.find(kHomes[1])};
    size_t i = 0;
    while (i < text.size()) {
        for (size_t k = 0; k < 2; k++)
            if (next[k] != std::string_view::npos && next[k] < i)
                next[k] = text.find(kHomes[k], i);
        size_t which = next[0] <= next[1] ? 0 : 1;
        size_t at = next[which];
        if (at == std::string_view::npos) {
            out.append(text.substr(i));
            break;
        }
        size_t prefix = kHomes[which].size();
        size_t name = at + prefix, end = name;
        while (end < text.size() && text[end] != '/' && text[end] != '\n' && text[end] != ' ' &&
               text[end] != '\t' && text[end] != '"' && text[end] != '\'' && text[end] != ':')
            end++;
        out.append(text.substr(i, name - i));
        std::string_view who = text.substr(name, end - name);
        // The folder every account shares is no one's name.
        if (who.empty() || who == "Shared")
            out.append(who);
        else
            out.append("\u2026");
        i = end;
    }
    return out;
}

bool isEmailChar(char c) {
    return isWordChar(c) || c == '.' || c == '%' || c == '+' || c == '-';
}

// "name@example.com" shown as "…@example.com": the person stays hidden, the
// domain (often their company or provider) says what support may need.
std::string maskEmails(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    for (;;) {
        size_t at = text.find('@', i);
        if (at == std::string_view::npos) {
            out.append(text.substr(i));
            return out;
        }
        size_t start = at;
        while (start > i && isEmailChar(text[start - 1]))
            start--;
        size_t end = at + 1;
        while (end < text.size() && (isWordChar(text[end]) || text[end] == '.' || text[end] == '-'))
            end++;
        std::string_view domain = text.substr(at + 1, end - at - 1);
        while (!domain.empty() && (domain.back() == '.' || domain.back() == '-'))
            domain.remove_suffix(1);
        bool email = start < at && domain.find('.') != std::string_view::npos &&
                     domain.front() != '.' && domain.front() != '-';
        out.append(text.substr(i, start - i));
        if (email) {
            out.append("\u2026@");
            out.append(domain);
            i = at + 1 + domain.size();
        } else {
            out.append(text.substr(start, at + 1 - start));
            i = at + 1;
        }
    }
}

} // namespace

std::string maskAddresses(std::string_view text, const AddressSet &keep) {
    return maskNetworkAddresses(maskEmails(maskHomes(text)), keep);
}

std::string maskReport(std::string_view text) {
    return maskAddresses(text, targetAddresses(kobtriage::parse(text)));
}

} // namespace kobreportd
