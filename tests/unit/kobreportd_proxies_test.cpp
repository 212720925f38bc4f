// Who the client is: the operator's proxies are believed, no one else; the
// client is the rightmost address that is not one of them; PROXY prefaces
// of both versions, whole, cut short and malformed.

#include "proxies.h"

#include <gtest/gtest.h>

using kobreportd::parseProxyPreface;
using kobreportd::ProxyPreface;
using kobreportd::TrustedProxies;

namespace {

TrustedProxies ours() {
    TrustedProxies p;
    EXPECT_TRUE(p.add("127.0.0.1"));
    EXPECT_TRUE(p.add("10.1.0.0/16"));
    EXPECT_TRUE(p.add("2001:db8:aa::/48"));
    return p;
}

} // namespace

TEST(TrustedProxies, CidrsAndSingleAddressesAndNothingElse) {
    TrustedProxies p = ours();
    EXPECT_TRUE(p.trusts("127.0.0.1"));
    EXPECT_FALSE(p.trusts("127.0.0.2"));
    EXPECT_TRUE(p.trusts("10.1.255.3"));
    EXPECT_FALSE(p.trusts("10.2.0.1"));
    EXPECT_TRUE(p.trusts("2001:db8:aa:1::5"));
    EXPECT_FALSE(p.trusts("2001:db8:ab::5"));
    // IPv4 written as IPv6 is the same address.
    EXPECT_TRUE(p.trusts("::ffff:10.1.2.3"));
    EXPECT_FALSE(p.trusts("not an address"));
    TrustedProxies bad;
    for (const char *s :
         {"10.0.0.0/33", "10.0.0.0/", "10.0.0/8", "::/129", "x", "10.0.0.0/-1", "10.0.0.0/8x", ""})
        EXPECT_FALSE(bad.add(s)) << s;
    EXPECT_TRUE(bad.empty());
    EXPECT_TRUE(bad.add("0.0.0.0/0"));
    EXPECT_TRUE(bad.trusts("198.51.100.1"));
    EXPECT_FALSE(bad.trusts("2001:db8::1"));
}

TEST(TrustedProxies, TheClientIsTheRightmostAddressThatIsNotOurs) {
    TrustedProxies p = ours();
    EXPECT_EQ(p.client("127.0.0.1", {"198.51.100.7"}, {}), "198.51.100.7");
    // What the client itself wrote comes first and is not believed.
    EXPECT_EQ(p.client("127.0.0.1", {"203.0.113.9, 198.51.100.7, 10.1.0.4"}, {}), "198.51.100.7");
    // Several headers are one list, in order.
    EXPECT_EQ(p.client("127.0.0.1", {"203.0.113.9", "198.51.100.7,10.1.0.4"}, {}), "198.51.100.7");
    EXPECT_EQ(p.client("127.0.0.1", {" 2001:db8:5::17 "}, {}), "2001:db8:5::17");
    EXPECT_EQ(p.client("127.0.0.1", {"::ffff:198.51.100.7"}, {}), "198.51.100.7");
    // Only proxies of ours: the first of them.
    EXPECT_EQ(p.client("127.0.0.1", {"10.1.0.9, 10.1.0.4"}, {}), "10.1.0.9");
    // Anything that is not a list of addresses: the peer.
    EXPECT_EQ(p.client("127.0.0.1", {"198.51.100.7, unknown"}, {}), "127.0.0.1");
    EXPECT_EQ(p.client("127.0.0.1", {"198.51.100.7:4711"}, {}), "127.0.0.1");
    EXPECT_EQ(p.client("127.0.0.1", {""}, {}), "127.0.0.1");
    // No header: the peer.
    EXPECT_EQ(p.client("127.0.0.1", {}, {}), "127.0.0.1");
}

TEST(TrustedProxies, AStrangersHeadersAreIgnored) {
    TrustedProxies p = ours();
    EXPECT_EQ(p.client("198.51.100.7", {"203.0.113.1"}, {"for=203.0.113.1"}), "198.51.100.7");
    TrustedProxies none;
    EXPECT_EQ(none.client("127.0.0.1", {"203.0.113.1"}, {}), "127.0.0.1");
}

TEST(TrustedProxies, ForwardedNamesTheClientInItsForParameter) {
    TrustedProxies p = ours();
    EXPECT_EQ(p.client("127.0.0.1", {}, {"for=198.51.100.7;proto=https;by=10.1.0.1"}),
              "198.51.100.7");
    EXPECT_EQ(p.client("127.0.0.1", {}, {"For=\"[2001:db8:cafe::17]:4711\""}), "2001:db8:cafe::17");
    EXPECT_EQ(p.client("127.0.0.1", {}, {"for=\"198.51.100.7:4711\", for=10.1.0.4"}),
              "198.51.100.7");
    EXPECT_EQ(p.client("127.0.0.1", {}, {"proto=http;for=198.51.100.8"}), "198.51.100.8");
    EXPECT_EQ(p.client("127.0.0.1", {}, {"for=unknown"}), "127.0.0.1");
    EXPECT_EQ(p.client("127.0.0.1", {}, {"for=_hidden, for=198.51.100.7"}), "127.0.0.1");
    // X-Forwarded-For wins when both are there.
    EXPECT_EQ(p.client("127.0.0.1", {"198.51.100.1"}, {"for=198.51.100.2"}), "198.51.100.1");
}

TEST(ProxyPreface, VersionOneWholeCutShortAndMalformed) {
    using S = ProxyPreface::State;
    auto p = parseProxyPreface("PROXY TCP4 198.51.100.7 10.1.0.1 51234 80\r\nPOST /");
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "198.51.100.7");
    EXPECT_EQ(p.length, 43u);
    p = parseProxyPreface("PROXY TCP6 2001:db8::7 2001:db8::1 51234 443\r\n");
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "2001:db8::7");
    p = parseProxyPreface("PROXY UNKNOWN\r\nGET");
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "");
    EXPECT_EQ(p.length, 15u);
    for (const char *cut : {"P", "PROX", "PROXY ", "PROXY TCP4 198.51.100.7 10.1"})
        EXPECT_EQ(parseProxyPreface(cut).state, S::Incomplete) << cut;
    for (const char *bad :
         {"GET / HTTP/1.1\r\n", "PROXY TCP4 198.51.100.7 10.1.0.1 51234\r\n",
          "PROXY TCP4 2001:db8::7 10.1.0.1 1 2\r\n", "PROXY TCP5 1.2.3.4 1.2.3.5 1 2\r\n",
          "PROXY TCP4 198.51.100.7 10.1.0.1 65536 80\r\n",
          "PROXY TCP4 198.51.100.7 10.1.0.1 051 80\r\n", "PROXY TCP4 1.2.3.4  1.2.3.5 1 2\r\n",
          "proxy TCP4 1.2.3.4 1.2.3.5 1 2\r\n"})
        EXPECT_EQ(parseProxyPreface(bad).state, S::Bad) << bad;
    // A line that never ends within the longest a preface may be.
    EXPECT_EQ(parseProxyPreface("PROXY TCP4 " + std::string(120, '1')).state, S::Bad);
}

TEST(ProxyPreface, VersionTwoWholeCutShortLocalAndMalformed) {
    using S = ProxyPreface::State;
    std::string sig("\r\n\r\n\0\r\nQUIT\n", 12);
    // PROXY, TCP over IPv4: source 198.51.100.7, destination 10.1.0.1, ports.
    std::string v4 = sig + std::string("\x21\x11\x00\x0c", 4) +
                     std::string("\xc6\x33\x64\x07\x0a\x01\x00\x01\xc8\x22\x00\x50", 12);
    auto p = parseProxyPreface(v4 + "POST /");
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "198.51.100.7");
    EXPECT_EQ(p.length, 28u);
    std::string v6 = sig + std::string("\x21\x21\x00\x24", 4) + std::string("\x20\x01\x0d\xb8", 4) +
                     std::string(11, '\0') + "\x07" + std::string(16, '\0') +
                     std::string("\x01\x02\x00\x50", 4);
    p = parseProxyPreface(v6);
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "2001:db8::7");
    // LOCAL: the proxy's own check, no client.
    p = parseProxyPreface(sig + std::string("\x20\x00\x00\x00", 4));
    EXPECT_EQ(p.state, S::Done);
    EXPECT_EQ(p.source, "");
    EXPECT_EQ(p.length, 16u);
    for (size_t n = 1; n < v4.size(); n++)
        EXPECT_EQ(parseProxyPreface(v4.substr(0, n)).state, S::Incomplete) << n;
    EXPECT_EQ(
        parseProxyPreface(sig + std::string("\x31\x11\x00\x0c", 4) + std::string(12, 'x')).state,
        S::Bad);
    EXPECT_EQ(parseProxyPreface(sig + std::string("\x21\x11\x00\x04", 4) + "abcd").state, S::Bad);
    EXPECT_EQ(parseProxyPreface("\r\n\r\n\r").state, S::Bad);
}
