// The segment walk over random segment files: open, walk every chunk,
// look chunks up by class, type and ident, and ask whether they are still
// valid.  Every chunk the walk hands out lies inside the mapping.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "segment_fuzz.h"
#include "vsm.h"

namespace {

void inside(const VSM_data *vd, const VSM_fantom *vf) {
    auto *chunk = reinterpret_cast<const char *>(vf->chunk);
    auto *start = static_cast<const char *>(vf->start);
    auto *end = static_cast<const char *>(vf->end);
    if (chunk < vd->seg_start || start < chunk || end < start || end > vd->seg_end)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    (void)segfuzz::writeSegment(data, size);
    VSM_data *vd = VSM_New();
    if (vd == nullptr || VSM_n_Arg(vd, segfuzz::instance) != 1)
        abort();
    if (VSM_Open(vd) == 0) {
        VSM_fantom vf;
        size_t chunks = 0;
        VSM_FOREACH(&vf, vd) {
            inside(vd, &vf);
            // The texts are read as C texts by callers; touch them the same way.
            (void)strnlen(vf.chunk->class_, sizeof vf.chunk->class_);
            if (VSM_StillValid(vd, &vf) != 1)
                abort();
            if (++chunks > size)
                abort(); // the chain must move forward
        }
        for (const char *cls : {"Log", "Stat", ""}) {
            if (VSM_Get(vd, &vf, cls, nullptr, nullptr) == 1) {
                inside(vd, &vf);
                (void)VSM_StillValid(vd, &vf);
            }
            (void)VSM_Get(vd, &vf, cls, "", "");
        }
        (void)VSM_Seq(vd);
        VSM_Close(vd);
    } else if (VSM_Error(vd) == nullptr) {
        abort();
    }
    VSM_Delete(vd);
    return 0;
}
