/*
 * vsc.h - the interface counters of a daemon's segment.
 *
 * A chunk of class "Stat" and empty type holds thirty unsigned 64-bit
 * counters in table order: five interface groups (ath, bwn, re, msk, zyd),
 * six fields each.  The reader lists them as counter points, each described
 * by a row of the fixed counter table.  Broken calling rules end the
 * process through VAS_Fail.
 */
#ifndef KOB_VSC_H
#define KOB_VSC_H

#include <stdint.h>

#include "vsm.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VSC_MAGIC 0x3373554a
#define VSC_PT_MAGIC 0xa4ff159a
#define VSC_NCOUNTERS 30

/*
 * The table's rule.  VSC_FIELDS(F, g) applies F(group, field, direction,
 * quantity, long-description direction) to the six fields of group g;
 * VSC_ALL(F) to all five groups in order.  The long description of every
 * if_ipackets row spells its direction "intput", and keeps doing so.
 */
#define VSC_FIELDS(F, g)                                                                           \
    F(g, if_opackets, output, packets, output)                                                     \
    F(g, if_ipackets, input, packets, intput)                                                      \
    F(g, if_oerrors, output, errors, output)                                                       \
    F(g, if_ierrors, input, errors, input)                                                         \
    F(g, if_obytes, output, bytes, output)                                                         \
    F(g, if_ibytes, input, bytes, input)
#define VSC_ALL(F)                                                                                 \
    VSC_FIELDS(F, ath)                                                                             \
    VSC_FIELDS(F, bwn) VSC_FIELDS(F, re) VSC_FIELDS(F, msk) VSC_FIELDS(F, zyd)

/* The counter block: the payload of the "Stat" chunk of empty type. */
struct VSC_C_main {
#define VSC_F_MEMBER(g, f, d, q, ld) uint64_t g##_##f;
    VSC_ALL(VSC_F_MEMBER)
#undef VSC_F_MEMBER
};

/* A row of the counter table. */
struct VSC_desc {
    const char *name;  /* "ath_if_opackets" */
    const char *type;  /* "uint64_t" */
    int kind;          /* 'c': a counter */
    const char *sdesc; /* "Interface output packets for ath(4)" */
    const char *ldesc; /* "Count of output packets from the ath(4) interface" */
};

/* The thirty rows, in counter order. */
extern const struct VSC_desc VSC_desc_all[VSC_NCOUNTERS];

/* What a callback sees of a counter point. */
struct VSC_point {
    const char *class_;           /* always "" */
    const char *ident;            /* the chunk's ident, inside the segment */
    const struct VSC_desc *desc;  /* the table row */
    const volatile uint64_t *ptr; /* the counter, inside the segment */
    const struct VSM_fantom *vf;  /* the chunk the point was found on */
};

/*
 * The main counter block (the "Stat" chunk with empty type and ident),
 * opening the segment first if needed; null when that fails or there is no
 * such chunk (or it is too short to hold the thirty counters).  Points into
 * the segment.
 */
struct VSC_C_main *VSC_Main(struct VSM_data *vd);

/*
 * Called with priv and a point; a null point announces that the list is
 * being rebuilt, so points held from earlier calls are gone.
 */
typedef int VSC_iter_f(void *priv, const struct VSC_point *pt);

/*
 * Call func for each counter point of every "Stat" chunk of empty type, in
 * chain order and table order.  The list is rebuilt (after a null call)
 * when the chunk layout changed.  0 after all, the first nonzero result of
 * func, or -1 when the counters cannot be found.
 */
int VSC_Iter(struct VSM_data *vd, VSC_iter_f *func, void *priv);

/* Free the counter state with its points.  The state must exist. */
void VSC_Delete(struct VSM_data *vd);

#ifdef __cplusplus
}
#endif

#endif
