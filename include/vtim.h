/*
 * vtim.h - time as a double number of seconds.
 */
#ifndef KOB_VTIM_H
#define KOB_VTIM_H

#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Wall clock through gettimeofday. */
double VTIM_now(void);
/* Wall clock through ODR_clock_gettime (microsecond resolution). */
double VTIM_real(void);
/* Monotonic clock, 0.0 at its first use in the process. */
double VTIM_mono(void);
/* Split seconds into seconds and microseconds, both truncated toward zero. */
struct timeval VTIM_toTimeval(double t);

#ifdef __cplusplus
}
#endif

#endif
