// What the counter reader shares with its table.

#ifndef KOB_VSC_PRIV_H
#define KOB_VSC_PRIV_H

#include <sys/queue.h>

#include "vsc.h"

#define VSC_SF_MAGIC 0x5f4c7a1e

// A counter point: the public part handed to callbacks, and the chunk it
// was found on (the public part's vf points at this copy).
struct vsc_pt {
    uint32_t magic; // VSC_PT_MAGIC
    TAILQ_ENTRY(vsc_pt) list;
    struct VSM_fantom vf;
    struct VSC_point point;
};

// Bits of a filter's flags.
#define VSC_SF_EXCL 1         // drop matches instead of keeping them
#define VSC_SF_CLASS_PREFIX 2 // the patterns are prefixes
#define VSC_SF_IDENT_PREFIX 4
#define VSC_SF_NAME_PREFIX 8

struct vsc_sf {
    uint32_t magic; // VSC_SF_MAGIC
    TAILQ_ENTRY(vsc_sf) list;
    int flags;
    char *class_; // owned patterns; null matches anything
    char *ident;
    char *name;
};

TAILQ_HEAD(vsc_pt_head, vsc_pt);
TAILQ_HEAD(vsc_sf_head, vsc_sf);

struct vsc {
    uint32_t magic; // VSC_MAGIC
    struct vsc_pt_head pt_list;
    struct vsc_sf_head sf_list; // nothing in the library adds filters
    struct VSM_fantom main_vf;  // VSC_Main's
    struct VSM_fantom iter_vf;  // VSC_Iter's
};

// Append a point for the counter at ptr, described by desc, found on vf.
void vsc_add_pt(struct vsc *vsc, const char *ident, const struct VSC_desc *desc,
                const volatile uint64_t *ptr, const struct VSM_fantom *vf);

// Add the thirty points of one counter chunk, in table order.
void iter_main(struct vsc *vsc, const struct VSM_fantom *vf);

#endif
