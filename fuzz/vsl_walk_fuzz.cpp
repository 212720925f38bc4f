// The log ring walk over random segment files.  The head's unused word
// sets the reader up: bit 0 starts at the ring's start, bits 1 and 2 keep
// only side A or B records, bits 8-15 a skip count, bits 16-23 a keep count.
// Every record handed out lies inside the ring.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "segment_fuzz.h"
#include "vsl.h"
#include "vsm.h"

namespace {

struct Walk {
    VSM_data *vd;
    size_t records = 0;
};

int onRecord(void *priv, unsigned tag, unsigned, unsigned len, unsigned side, const char *ptr,
             uint64_t) {
    auto *w = static_cast<Walk *>(priv);
    const vsl *s = w->vd->vsl;
    if (tag > 255 || side > 3 || ptr < reinterpret_cast<const char *>(s->log_start) ||
        ptr + len > reinterpret_cast<const char *>(s->log_end))
        abort();
    // Read the payload as a printer would.
    volatile unsigned sum = 0;
    for (unsigned i = 0; i < len; i++)
        sum = sum + static_cast<unsigned char>(ptr[i]);
    return ++w->records > 4096;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint64_t options = segfuzz::writeSegment(data, size);
    VSM_data *vd = VSM_New();
    if (vd == nullptr || VSL_Arg(vd, 'n', segfuzz::instance) != 1)
        abort();
    vd->vsl->from_start = (options & 1) != 0;
    vd->vsl->only_a = (options & 2) != 0;
    vd->vsl->only_b = (options & 4) != 0;
    vd->vsl->skip = (options >> 8) & 0xff;
    vd->vsl->keep = (options >> 16) & 0xff;

    Walk w{vd};
    int r = VSL_Dispatch(vd, onRecord, &w);
    if (r < -3 || r > 1)
        abort();
    // And once more by single steps after the segment was closed under the
    // log, which the next read must notice and open afresh.
    VSM_Close(vd);
    for (int i = 0; i < 4096; i++) {
        uint32_t *p = nullptr;
        uint64_t bits = 1;
        r = VSL_NextLog(vd, &p, &bits);
        if (r != 1)
            break;
        if (bits != 0 || p == nullptr ||
            onRecord(&w, VSL_TAG(p), VSL_ID(p), VSL_LEN(p), VSL_SIDE(p), VSL_DATA(p), bits))
            break;
    }
    VSM_Delete(vd);
    return 0;
}
