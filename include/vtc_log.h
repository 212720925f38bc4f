/*
 * vtc_log.h - named, thread-safe test logs.
 *
 * A line reads: level marker ("----", "#   " ... "####"), the seconds since
 * the first vtc_log call of the process ("%6.2f"), the log's name padded to
 * four columns, the message.  Lines go to an output hook, or to standard
 * output when there is none or it declines.  Each log's mutex covers a whole
 * line, so lines of one log never interleave.
 */
#ifndef KOB_VTC_LOG_H
#define KOB_VTC_LOG_H

#include <stdint.h>

#include "odr_pthread.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vsb;

#define VTCLOG_MAGIC 0x82731202
#define NLEAD 5 /* levels 0 to 4 */

/* An output hook; a negative result means the line was not handled. */
typedef int vtc_loghook(unsigned lvl, const char *fmt, ...);

struct vtclog {
    uint32_t magic;  /* VTCLOG_MAGIC while open */
    const char *id;  /* the log's name; not copied */
    struct vsb *vsb; /* the line under construction */
    ODR_pthread_mutex_t mtx;
    vtc_loghook *func; /* output hook or NULL */
};

/* Highest level written (4: all).  Nothing in the library changes it. */
extern unsigned vtc_verbosity;

/*
 * Open a log named id (kept by reference: the caller keeps it alive) with an
 * optional hook.  Never returns NULL; failures are assertions.  Trap: the
 * line buffer's allocation is not checked here; if it failed, the first write
 * fails the buffer's integrity check ("s != ((void *)0)").
 */
struct vtclog *vtc_logopen(const char *id, vtc_loghook *func);
/* Close and free a log. */
void vtc_logclose(struct vtclog *vl);
/* Write one line at level lvl (0-4; 5 and up fail "lvl < NLEAD"). */
void vtc_log(struct vtclog *vl, unsigned lvl, const char *fmt, ...)
    __attribute__((__format__(__printf__, 3, 4)));
/*
 * Write str (len bytes; negative: up to the NUL) escaped, one prefixed line
 * per line of the data.  At most 513 bytes are shown followed by "...",
 * unless len is -2.  A NULL str writes one line ending in "(null)".
 * Trap: unlike vtc_log this does not start the clock, so before the first
 * vtc_log the elapsed time shown is the raw wall-clock value.
 */
void vtc_dump(struct vtclog *vl, unsigned lvl, const char *pfx, const char *str, int len);

#ifdef __cplusplus
}
#endif

#endif
