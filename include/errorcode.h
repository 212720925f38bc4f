/*
 * errorcode.h - level-tagged error messages (libkobec).
 *
 * Messages are formatted into fixed 1024-byte buffers and printed on standard
 * output.  No level stops the program, "[FATAL]" included.
 */
#ifndef KOB_ERRORCODE_H
#define KOB_ERRORCODE_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KOBEC_LEVEL_FATAL 1
#define KOBEC_LEVEL_ERROR 2
#define KOBEC_LEVEL_WARN 3
#define KOBEC_LEVEL_INFO 4

/*
 * Format fmt into a 1024-byte buffer and show it with kobec_vshowMsg.
 * Trap: a message of exactly 1024 characters fails "0 == 1"; longer ones are
 * cut to 1023 without notice.  `unused` is never read.
 */
void KOBEC_showMsg_debug(int level, const char *code, const void *unused, const char *func,
                         int line, const char *fmt, ...)
    __attribute__((__format__(__printf__, 6, 7)));

/*
 * Print "<[LEVEL]> <msg>\n\nFunction: <func>:<line>\nError code: <code>\n".
 * Unknown levels show "[UNKNOWN]".  Same 1024-byte rule as above.
 */
void kobec_vshowMsg(int level, const char *code, const void *unused, const char *func, int line,
                    const char *msg);

#ifdef __cplusplus
}
#endif

#endif
