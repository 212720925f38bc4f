// NUM_toBytes over random texts and reference values: the first eight
// bytes are the reference for "%", the rest is the text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vnum.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint64_t rel = 0;
    if (size >= sizeof rel) {
        memcpy(&rel, data, sizeof rel);
        data += sizeof rel;
        size -= sizeof rel;
    }
    std::string text(reinterpret_cast<const char *>(data), size);
    const uint64_t untouched = 0x5a5a5a5a5a5a5a5aull;
    uint64_t result = untouched;
    const char *err = NUM_toBytes(text.c_str(), &result, rel);
    if (err != nullptr) {
        if (result != untouched)
            abort();
        if (strcmp(err, NUM_ERR_MISSING) != 0 && strcmp(err, NUM_ERR_INVALID) != 0 &&
            strcmp(err, NUM_ERR_ABSOLUTE) != 0 && strcmp(err, NUM_ERR_SUFFIX) != 0)
            abort();
    }
    return 0;
}
