// The counter table, made by its rule: five interface groups, six fields
// each; and the points of one counter chunk.

#include "vas.h"
#include "vsc.h"
#include "vsc_priv.h"

#define VSC_F_ROW(g, f, d, q, ld)                                                                  \
    {#g "_" #f, "uint64_t", 'c', "Interface " #d " " #q " for " #g "(4)",                          \
     "Count of " #ld " " #q " from the " #g "(4) interface"},

const struct VSC_desc VSC_desc_all[VSC_NCOUNTERS] = {VSC_ALL(VSC_F_ROW)};

static_assert(sizeof(VSC_C_main) == VSC_NCOUNTERS * sizeof(uint64_t));

void iter_main(struct vsc *vsc, const struct VSM_fantom *vf) {
    VAS_OBJ_NOTNULL(vsc, VSC_MAGIC);
    auto *counters = static_cast<const volatile uint64_t *>(vf->start);
    for (int i = 0; i < VSC_NCOUNTERS; i++)
        vsc_add_pt(vsc, vf->chunk->ident, &VSC_desc_all[i], counters + i, vf);
}
