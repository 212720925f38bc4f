// Who the client is behind a reverse proxy: only the operator's own proxies
// (--trusted-proxy CIDR) are believed when they name the client, in
// X-Forwarded-For, Forwarded, or a PROXY protocol preface; from anyone else
// the socket's peer is the client.

#ifndef KOBREPORTD_PROXIES_H
#define KOBREPORTD_PROXIES_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kobreportd {

class TrustedProxies {
  public:
    // Adds "203.0.113.0/24", "2001:db8::/32" or one address; false when the
    // text is none of these.
    bool add(const std::string &cidr);
    bool empty() const { return nets_.empty(); }
    bool trusts(const std::string &address) const;

    // The client of a request from peer: when peer is trusted, the rightmost
    // address of the X-Forwarded-For values (all of its headers, in order)
    // that is not itself a trusted proxy, or else of Forwarded's "for="; the
    // peer otherwise, and whenever what the proxies wrote is not a list of
    // addresses.
    std::string client(const std::string &peer, const std::vector<std::string> &forwardedFor,
                       const std::vector<std::string> &forwarded) const;

  private:
    struct Net {
        std::array<unsigned char, 16> bytes; // IPv4 as IPv4-mapped IPv6
        int bits;
    };
    std::vector<Net> nets_;
};

// An address as this server writes it ("192.0.2.7", "2001:db8::1"; IPv4 in
// IPv6 as IPv4), or "" when the text is not one.
std::string canonicalAddress(std::string_view text);

// The PROXY protocol's preface, version 1 (text) or 2 (binary), at the
// start of what a connection sent.
struct ProxyPreface {
    enum class State { Incomplete, Bad, Done } state = State::Incomplete;
    size_t length = 0;  // bytes of the preface, when Done
    std::string source; // the client's address; "" for a LOCAL or UNKNOWN one
};
ProxyPreface parseProxyPreface(std::string_view bytes);

} // namespace kobreportd

#endif
