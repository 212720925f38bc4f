/*
 * vnum.h - human-written sizes ("512", "1.5m", "1 KB", "50%") as byte counts.
 */
#ifndef KOB_VNUM_H
#define KOB_VNUM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The error texts of NUM_toBytes. */
#define NUM_ERR_MISSING "Missing number"
#define NUM_ERR_INVALID "Invalid number"
#define NUM_ERR_ABSOLUTE "Absolute number required"
#define NUM_ERR_SUFFIX "Invalid suffix"

/*
 * Parse text (may be NULL) as a number read by strtod, then either nothing,
 * a lone "%" of rel (0: no reference exists), or an optional single blank, a
 * binary unit letter k m g t p e (either case, 2^10 to 2^60) and an optional
 * "b" or "B".  On success stores the value, truncated, in *result and returns
 * NULL; otherwise returns one of the static texts above and leaves *result
 * alone.
 * Traps: "1e" is 2^60 (strtod takes no exponent without digits), while "1e3"
 * is 1000.  Negative values wrap: -1 gives 2^64 - 1.  Values of 2^64 and more
 * (and infinity) give 2^64 - 1; below -2^63 (and minus infinity) give 2^63;
 * not-a-number gives 0.
 */
const char *NUM_toBytes(const char *text, uint64_t *result, uint64_t rel);

#ifdef __cplusplus
}
#endif

#endif
