// The counter walk over random segment files: the main block, then every
// counter point of every counter chunk, read through its pointer.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "segment_fuzz.h"
#include "vsc.h"
#include "vsm.h"

namespace {

struct Walk {
    VSM_data *vd;
    size_t points = 0;
};

int onPoint(void *priv, const VSC_point *pt) {
    auto *w = static_cast<Walk *>(priv);
    if (pt == nullptr)
        return 0; // the list is being rebuilt
    auto *p = reinterpret_cast<const volatile char *>(pt->ptr);
    if (p < w->vd->seg_start || p + sizeof(uint64_t) > w->vd->seg_end || pt->desc == nullptr)
        abort();
    volatile uint64_t v = *pt->ptr;
    (void)v;
    (void)strlen(pt->desc->name);
    (void)strnlen(pt->ident, 64);
    w->points++;
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    (void)segfuzz::writeSegment(data, size);
    VSM_data *vd = VSM_New();
    if (vd == nullptr || VSM_n_Arg(vd, segfuzz::instance) != 1)
        abort();
    VSC_C_main *m = VSC_Main(vd);
    if (m != nullptr) {
        auto *p = reinterpret_cast<const char *>(m);
        if (p < vd->seg_start || p + sizeof *m > vd->seg_end)
            abort();
        volatile uint64_t v = m->zyd_if_ibytes;
        (void)v;
    }
    Walk w{vd};
    int r = VSC_Iter(vd, onPoint, &w);
    if (r != 0 && r != -1)
        abort();
    if (r == 0 && w.points % VSC_NCOUNTERS != 0)
        abort();
    // A second walk over the same layout reuses the list.
    (void)VSC_Iter(vd, onPoint, &w);
    VSM_Delete(vd);
    return 0;
}
