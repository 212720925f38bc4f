// VSS_parse over random endpoint texts: never an assertion, and a result
// that agrees with its error class.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vss.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    char *addr = nullptr;
    char *port = nullptr;
    int err = 0;
    int r = VSS_parse(text.c_str(), &addr, &port, &err);
    if (r == 0) {
        // Both parts come out of the text, so neither can be longer.
        size_t n = strlen(text.c_str());
        if ((addr != nullptr && strlen(addr) > n) || (port != nullptr && strlen(port) > n))
            abort();
    } else if (r != -1 || err != 1) {
        abort();
    }
    free(addr);
    free(port);
    return 0;
}
