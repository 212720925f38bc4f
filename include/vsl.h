/*
 * vsl.h - the daemon's log ring, read from the "Log" chunk of its segment.
 *
 * The payload starts with a generation word that the writer changes when
 * it restarts the ring; records follow, each two words and a payload padded
 * to 4 bytes, closed by a marker word.  A reader starts at the current end
 * of the ring (or at its start, with from_start) and returns records one by
 * one, after the tag filters, the skip count and the keep count.
 *
 * A ring that contradicts itself is a result, never a crash: -3 for a
 * position (or a record) outside the ring, -1 for a wrap marker at the
 * ring's start.  Broken calling rules end the process through VAS_Fail.
 */
#ifndef KOB_VSL_H
#define KOB_VSL_H

#include <stdint.h>

#include "vbm.h"
#include "vsm.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VSL_MAGIC 0x7a31db38

/* Marker words in the place of a record's first word. */
#define VSL_ENDMARKER 0xff454545u  /* end of the written part */
#define VSL_WRAPMARKER 0xff575757u /* continue at the ring's start */

/* Side flags in a record's second word, and the side values handed to callbacks. */
#define VSL_SIDE_A_BIT (1u << 30)
#define VSL_SIDE_B_BIT (1u << 31)
#define VSL_SIDE_A 1
#define VSL_SIDE_B 2

/* Taking a record (pointer to its first word) apart. */
#define VSL_TAG(p) ((unsigned)((p)[0] >> 24))
#define VSL_LEN(p) ((unsigned)((p)[0] & 0xffffu))
#define VSL_ID(p) ((unsigned)((p)[1] & 0x3fffffffu))
#define VSL_SIDE(p) ((unsigned)((p)[1] >> 30))
#define VSL_DATA(p) ((const char *)((p) + 2))
#define VSL_NEXT(p) ((p) + 2 + ((VSL_LEN(p) + 3) / 4))

/*
 * The reader's state, hung on the segment handle by the first log call.
 * Nothing in the library sets the filters or counts apart from their
 * defaults; a program may set them here before reading.
 */
struct vsl {
    uint32_t magic;       /* VSL_MAGIC */
    struct VSM_fantom vf; /* on the "Log" chunk */
    uint32_t *log_start;  /* the payload: generation word, then records */
    uint32_t *log_end;
    uint32_t *ptr;     /* next record; null while the log is not open */
    uint32_t last_gen; /* generation seen when the reader last stood at the start */
    int32_t r_fd;      /* always -1: reading a log from a file is not supported */
    unsigned char *rbuf;
    int only_b;                      /* keep only records with side flag B */
    int only_a;                      /* ... with side flag A */
    int from_start;                  /* start at the ring's start instead of its current end */
    struct vbitmap *tags_selected;   /* always delivered */
    struct vbitmap *tags_suppressed; /* dropped unless selected */
    uint64_t skip;                   /* records to drop after the filters */
    uint64_t keep;                   /* nonzero: -2 once it counts down to 0 */
};

/* The tag names by number; null for tags without a name (0, 50 to 255). */
extern const char *VSL_tags[256];

/*
 * Make the reader state if needed and take one option: only 'n' (instance
 * name, through VSM_n_Arg, whose result is returned); any other letter ends
 * the process with "0 == 1".
 */
int VSL_Arg(struct VSM_data *vd, int arg, const char *opt);

/*
 * The next wanted record.  1 with *pp on its first word (inside the
 * segment, valid until the writer comes round again), 0 when none is ready
 * (also when the segment or its "Log" chunk cannot be opened: see
 * VSM_Error), -2 when the keep count runs out, -3 or -1 for an inconsistent
 * ring.  bits, if given, is set to 0.  Opens the segment and the log on
 * demand and closes them when the chunk goes away, so a later call reopens.
 */
int VSL_NextLog(struct VSM_data *vd, uint32_t **pp, uint64_t *bits);

/*
 * Called for each record with priv, tag, identifier, payload length, side
 * value (1 A, 2 B, 3 both), payload and the bits value; nonzero stops.
 */
typedef int vsl_handler_f(void *priv, unsigned tag, unsigned id, unsigned len, unsigned side,
                          const char *ptr, uint64_t bits);

/*
 * Hand records to func until it returns nonzero (returned) or VSL_NextLog
 * returns less than 1 (returned).
 */
int VSL_Dispatch(struct VSM_data *vd, vsl_handler_f *func, void *priv);

/* Free the reader state (the segment stays as it is).  The state must exist. */
void VSL_Delete(struct VSM_data *vd);

#ifdef __cplusplus
}
#endif

#endif
