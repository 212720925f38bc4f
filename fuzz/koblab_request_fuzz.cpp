// The report server's side of the upload: koblab's test of whether the
// bytes read so far are a whole request, fed every prefix of a random
// request the way reads deliver it.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "koblab_request.h"

namespace {

// Whole means at least a head and its blank line, and a body as long as the
// head's first Content-Length says.
void checkWhole(const std::string &req) {
    size_t end = req.find("\r\n\r\n");
    if (end == std::string::npos)
        abort();
    std::string head = req.substr(0, end);
    for (char &c : head)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    size_t at = head.find("\r\ncontent-length:");
    if (at == std::string::npos)
        return;
    unsigned long long length = strtoull(head.c_str() + at + 17, nullptr, 10);
    if (length > req.size() - (end + 4))
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 16)
        return 0;
    std::string whole(reinterpret_cast<const char *>(data), size);
    // Reads arrive in pieces, ending with the whole input.
    size_t step = size == 0 ? 1 : 1 + data[0] % 64;
    for (size_t off = 0;; off = off + step < size ? off + step : size) {
        std::string sofar(whole, 0, off);
        if (koblab::requestComplete(sofar))
            checkWhole(sofar);
        if (off == size)
            break;
    }
    return 0;
}
