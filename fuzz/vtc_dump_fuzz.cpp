// vtc_dump of random bytes and lengths into a hook that keeps nothing.  The
// first byte picks the level and the length form (all of it, up to the
// zero byte, -2 for no limit, or a shorter length, or no text at all); the
// second the prefix length.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vtc_log.h"

namespace {

int discard(unsigned, const char *, ...) {
    return 0;
}

struct vtclog *log() {
    static struct vtclog *vl = vtc_logopen("fuzz", discard);
    return vl;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > 1 << 16)
        return 0;
    unsigned lvl = data[0] % NLEAD;
    unsigned form = (data[0] / NLEAD) % 5;
    size_t pfxLen = data[1] % 16;
    data += 2;
    size -= 2;
    if (pfxLen > size)
        pfxLen = size;
    std::string pfx(reinterpret_cast<const char *>(data), pfxLen);
    std::string str(reinterpret_cast<const char *>(data + pfxLen), size - pfxLen);

    int len = static_cast<int>(str.size());
    const char *p = str.c_str();
    switch (form) {
    case 1:
        len = -1;
        break;
    case 2:
        len = -2;
        break;
    case 3:
        len = str.empty() ? 0 : static_cast<int>(static_cast<unsigned char>(str[0]) % str.size());
        break;
    case 4:
        p = nullptr;
        break;
    }
    vtc_dump(log(), lvl, pfx.c_str(), p, len);
    return 0;
}
