// Any bytes as the start of a connection to a listener that takes PROXY
// prefaces, and as the forwarding headers a trusted proxy passes on: the
// preface is whole only within what was sent, names an address or none,
// and the client is always either the peer or an address some header named.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "proxies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    auto p = kobreportd::parseProxyPreface(bytes);
    if (p.state == kobreportd::ProxyPreface::State::Done &&
        (p.length == 0 || p.length > size ||
         (!p.source.empty() && kobreportd::canonicalAddress(p.source) != p.source)))
        std::abort();
    static const kobreportd::TrustedProxies proxies = [] {
        kobreportd::TrustedProxies t;
        t.add("127.0.0.0/8");
        t.add("::1");
        return t;
    }();
    std::string text(bytes);
    auto half = text.size() / 2;
    std::string client = proxies.client("127.0.0.1", {text.substr(0, half)}, {text.substr(half)});
    std::string alone = proxies.client("127.0.0.1", {}, {text});
    for (const std::string &c : {client, alone})
        if (c != "127.0.0.1" && kobreportd::canonicalAddress(c) != c)
            std::abort();
    return 0;
}
