// The report server's side of the upload: koblab's test of whether the
// bytes read so far are a whole request, fed every prefix of a random
// request the way reads deliver it.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "koblab_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 16)
        return 0;
    std::string whole(reinterpret_cast<const char *>(data), size);
    // Reads arrive in pieces; a request found whole stays whole as more
    // bytes come, since the server stops reading at that point.
    std::string sofar;
    size_t step = size == 0 ? 1 : 1 + data[0] % 64;
    bool complete = false;
    for (size_t off = 0; off <= size; off += step) {
        sofar.assign(whole, 0, off);
        complete = koblab::requestComplete(sofar);
    }
    // Whole means at least a head and its blank line, and a body as long as
    // the head's first Content-Length says.
    size_t end = whole.find("\r\n\r\n");
    if (complete && end == std::string::npos)
        abort();
    if (complete) {
        std::string head = whole.substr(0, end);
        for (char &c : head)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        size_t at = head.find("\r\ncontent-length:");
        if (at != std::string::npos) {
            unsigned long long length = strtoull(head.c_str() + at + 17, nullptr, 10);
            if (length > size - (end + 4))
                abort();
        }
    }
    return 0;
}
