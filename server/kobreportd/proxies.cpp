#include "proxies.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace kobreportd {

namespace {

constexpr unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool toBytes(std::string_view text, std::array<unsigned char, 16> &out) {
    if (text.empty() || text.size() >= INET6_ADDRSTRLEN)
        return false;
    std::string s(text);
    unsigned char v4[4];
    if (inet_pton(AF_INET, s.c_str(), v4) == 1) {
        std::copy(kMapped, kMapped + 12, out.begin());
        std::copy(v4, v4 + 4, out.begin() + 12);
        return true;
    }
    return inet_pton(AF_INET6, s.c_str(), out.data()) == 1;
}

std::string fromBytes(const std::array<unsigned char, 16> &b) {
    char buf[INET6_ADDRSTRLEN];
    if (std::equal(kMapped, kMapped + 12, b.begin()))
        inet_ntop(AF_INET, b.data() + 12, buf, sizeof buf);
    else
        inet_ntop(AF_INET6, b.data(), buf, sizeof buf);
    return buf;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

// The comma-separated elements of every value, in order.
std::vector<std::string_view> elements(const std::vector<std::string> &values) {
    std::vector<std::string_view> out;
    for (const auto &v : values) {
        std::string_view s = v;
        for (;;) {
            auto comma = s.find(',');
            out.push_back(trim(s.substr(0, comma)));
            if (comma == std::string_view::npos)
                break;
            s.remove_prefix(comma + 1);
        }
    }
    return out;
}

// Forwarded's "for=" of one element: a bare IPv4 address, or a quoted
// "[IPv6]" or "IPv4:port"; "unknown" and obfuscated names are no address.
std::string forwardedClient(std::string_view element) {
    for (;;) {
        auto semi = element.find(';');
        std::string_view pair = trim(element.substr(0, semi));
        if (pair.size() > 4 && (pair[0] == 'f' || pair[0] == 'F') &&
            (pair[1] == 'o' || pair[1] == 'O') && (pair[2] == 'r' || pair[2] == 'R') &&
            pair[3] == '=') {
            std::string_view v = pair.substr(4);
            if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
                v = v.substr(1, v.size() - 2);
            if (!v.empty() && v.front() == '[') {
                auto close = v.find(']');
                return close == std::string_view::npos ? ""
                                                       : canonicalAddress(v.substr(1, close - 1));
            }
            auto colon = v.find(':');
            if (colon != std::string_view::npos && v.find(':', colon + 1) == std::string_view::npos)
                v = v.substr(0, colon);
            return canonicalAddress(v);
        }
        if (semi == std::string_view::npos)
            return "";
        element.remove_prefix(semi + 1);
    }
}

} // namespace

std::string canonicalAddress(std::string_view text) {
    std::array<unsigned char, 16> b{};
    return toBytes(text, b) ? fromBytes(b) : "";
}

bool TrustedProxies::add(const std::string &cidr) {
    auto slash = cidr.find('/');
    std::string_view addr = std::string_view(cidr).substr(0, slash);
    Net n{};
    if (!toBytes(addr, n.bytes))
        return false;
    bool v4 = std::equal(kMapped, kMapped + 12, n.bytes.begin()) &&
              addr.find(':') == std::string_view::npos;
    int most = v4 ? 32 : 128;
    int bits = most;
    if (slash != std::string::npos) {
        std::string_view len = std::string_view(cidr).substr(slash + 1);
        auto r = std::from_chars(len.data(), len.data() + len.size(), bits);
        if (len.empty() || r.ec != std::errc() || r.ptr != len.data() + len.size() || bits < 0 ||
            bits > most)
            return false;
    }
    n.bits = v4 ? bits + 96 : bits;
    nets_.push_back(n);
    return true;
}

bool TrustedProxies::trusts(const std::string &address) const {
    std::array<unsigned char, 16> b{};
    if (!toBytes(address, b))
        return false;
    for (const Net &n : nets_) {
        int full = n.bits / 8, rest = n.bits % 8;
        if (!std::equal(b.begin(), b.begin() + full, n.bytes.begin()))
            continue;
        if (rest == 0)
            return true;
        auto mask = static_cast<unsigned char>(0xff << (8 - rest));
        if ((b[static_cast<size_t>(full)] & mask) == (n.bytes[static_cast<size_t>(full)] & mask))
            return true;
    }
    return false;
}

std::string TrustedProxies::client(const std::string &peer,
                                   const std::vector<std::string> &forwardedFor,
                                   const std::vector<std::string> &forwarded) const {
    if (!trusts(peer))
        return peer;
    std::vector<std::string> chain;
    if (!forwardedFor.empty()) {
        for (auto e : elements(forwardedFor)) {
            std::string a = canonicalAddress(e);
            if (a.empty())
                return peer;
            chain.push_back(a);
        }
    } else {
        for (auto e : elements(forwarded)) {
            std::string a = forwardedClient(e);
            if (a.empty())
                return peer;
            chain.push_back(a);
        }
    }
    // From the right: the proxies ours added, then the first one that is
    // not ours, which is the client as our outermost proxy saw it.
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
        if (!trusts(*it))
            return *it;
    return chain.empty() ? peer : chain.front();
}

ProxyPreface parseProxyPreface(std::string_view b) {
    using S = ProxyPreface::State;
    ProxyPreface p;
    static constexpr std::string_view kV2 = std::string_view("\r\n\r\n\0\r\nQUIT\n", 12);
    static constexpr std::string_view kV1 = "PROXY ";
    if (b.empty())
        return p;
    if (b[0] == '\r') {
        if (b.size() < kV2.size()) {
            if (kV2.substr(0, b.size()) != b)
                p.state = S::Bad;
            return p;
        }
        if (b.substr(0, kV2.size()) != kV2 || b.size() < 16) {
            p.state = b.substr(0, kV2.size()) != kV2 ? S::Bad : S::Incomplete;
            return p;
        }
        auto ver = static_cast<unsigned char>(b[12]), fam = static_cast<unsigned char>(b[13]);
        size_t len = (static_cast<size_t>(static_cast<unsigned char>(b[14])) << 8) |
                     static_cast<unsigned char>(b[15]);
        if ((ver >> 4) != 2 || ((ver & 0x0f) != 0 && (ver & 0x0f) != 1)) {
            p.state = S::Bad;
            return p;
        }
        if (b.size() < 16 + len)
            return p;
        p.state = S::Done;
        p.length = 16 + len;
        if ((ver & 0x0f) == 0) // LOCAL: the proxy's own connection
            return p;
        std::string_view body = b.substr(16, len);
        char buf[INET6_ADDRSTRLEN];
        if ((fam >> 4) == 1 && body.size() >= 12) {
            inet_ntop(AF_INET, body.data(), buf, sizeof buf);
            p.source = buf;
        } else if ((fam >> 4) == 2 && body.size() >= 36) {
            std::array<unsigned char, 16> a{};
            std::memcpy(a.data(), body.data(), 16);
            p.source = fromBytes(a);
        } else if ((fam >> 4) != 0) {
            p.state = S::Bad;
        }
        return p;
    }
    if (b.size() < kV1.size() || b.substr(0, kV1.size()) != kV1) {
        if (b.size() >= kV1.size() || kV1.substr(0, b.size()) != b)
            p.state = S::Bad;
        return p;
    }
    // "PROXY TCP4 src dst sport dport\r\n", at most 107 bytes.
    auto end = b.find("\r\n");
    if (end == std::string_view::npos) {
        if (b.size() >= 107)
            p.state = S::Bad;
        return p;
    }
    if (end + 2 > 107) {
        p.state = S::Bad;
        return p;
    }
    std::vector<std::string_view> w;
    std::string_view line = b.substr(0, end);
    for (size_t i = 0; i <= line.size();) {
        auto sp = line.find(' ', i);
        w.push_back(line.substr(i, sp == std::string_view::npos ? sp : sp - i));
        if (sp == std::string_view::npos)
            break;
        i = sp + 1;
    }
    p.length = end + 2;
    if (w.size() >= 2 && w[1] == "UNKNOWN") {
        p.state = S::Done;
        return p;
    }
    if (w.size() != 6 || (w[1] != "TCP4" && w[1] != "TCP6")) {
        p.state = S::Bad;
        return p;
    }
    std::string src = canonicalAddress(w[2]), dst = canonicalAddress(w[3]);
    bool v6 = w[1] == "TCP6";
    if (src.empty() || dst.empty() || (w[2].find(':') != std::string_view::npos) != v6) {
        p.state = S::Bad;
        return p;
    }
    for (auto port : {w[4], w[5]}) {
        int n = 0;
        auto r = std::from_chars(port.data(), port.data() + port.size(), n);
        if (port.empty() || r.ec != std::errc() || r.ptr != port.data() + port.size() || n < 0 ||
            n > 65535 || (port.size() > 1 && port[0] == '0')) {
            p.state = S::Bad;
            return p;
        }
    }
    p.state = S::Done;
    p.source = src;
    return p;
}

} // namespace kobreportd
