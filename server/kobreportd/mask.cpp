#include "mask.h"

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

bool isMac(std::string_view s) {
    auto parts = split(s, ':');
    if (parts.size() != 6)
        return false;
    for (auto p : parts) {
        if (p.empty() || p.size() > 2)
            return false;
        for (char c : p)
            if (!isHex(c))
                return false;
    }
    return true;
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
            if (kept(keep, addr))
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
    if (kept(keep, addr) || kept(keep, canonicalIpv6(b)))
        return false;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%x:%x:x:x:x:x:x:x", (b[0] << 8) | b[1], (b[2] << 8) | b[3]);
    out = buf;
    return true;
}

} // namespace

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

std::string maskAddresses(std::string_view text, const AddressSet &keep) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
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

std::string maskReport(std::string_view text) {
    return maskAddresses(text, targetAddresses(kobtriage::parse(text)));
}

} // namespace kobreportd
