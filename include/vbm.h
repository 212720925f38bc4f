/*
 * vbm.h - bit sets.
 *
 * A set holds a whole number of 1024-bit blocks and grows on request;
 * asking about a bit past its end answers "not set".
 */
#ifndef KOB_VBM_H
#define KOB_VBM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vbitmap {
    uint32_t *bits; /* nbits / 32 words */
    unsigned nbits; /* always a multiple of 1024 */
};

/* Grow to at least bit bits (rounded up to 1024); added bits are clear. */
void vbit_expand(struct vbitmap *vb, unsigned bit);

/* A new, empty set of at least initial bits (1024 when 0).  Free with vbit_free. */
struct vbitmap *vbit_init(unsigned initial);

/* Set a bit, growing the set as needed. */
void vbit_set(struct vbitmap *vb, unsigned bit);

/* Clear a bit; bits past the end are clear already. */
void vbit_clr(struct vbitmap *vb, unsigned bit);

/* 0 when clear or past the end, else the bit's mask within its 32-bit word. */
unsigned vbit_isset(const struct vbitmap *vb, unsigned bit);

/* Free the words and the set; a null set is ignored. */
void vbit_free(struct vbitmap *vb);

#ifdef __cplusplus
}
#endif

#endif
