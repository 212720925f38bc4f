// Level-tagged error messages.

#include "errorcode.h"

#include <cstdio>

#include "vas.h"

namespace {

const char *levelName(int level) {
    switch (level) {
    case KOBEC_LEVEL_FATAL:
        return "[FATAL]";
    case KOBEC_LEVEL_ERROR:
        return "[ERROR]";
    case KOBEC_LEVEL_WARN:
        return "[WARN]";
    case KOBEC_LEVEL_INFO:
        return "[INFO]";
    default:
        return "[UNKNOWN]";
    }
}

} // namespace

extern "C" {

void kobec_vshowMsg(int level, const char *code, const void *unused, const char *func, int line,
                    const char *msg) {
    (void)unused;
    char buf[1024] = "";
    int l = snprintf(buf, sizeof buf, "%s %s\n\nFunction: %s:%d\nError code: %s\n",
                     levelName(level), msg, func, line, code);
    // Only a result of exactly the buffer size trips; longer texts are cut.
    if (l == static_cast<int>(sizeof buf))
        VAS_Fail(__func__, __FILE__, 73, "0 == 1", 0);
    if (l > static_cast<int>(sizeof buf) - 1)
        l = static_cast<int>(sizeof buf) - 1;
    printf("%.*s", l, buf);
}

void KOBEC_showMsg_debug(int level, const char *code, const void *unused, const char *func,
                         int line, const char *fmt, ...) {
    char buf[1024] = "";
    va_list ap;
    va_start(ap, fmt);
    int l = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (l == static_cast<int>(sizeof buf))
        VAS_Fail(__func__, __FILE__, 91, "0 == 1", 0);
    kobec_vshowMsg(level, code, unused, func, line, buf);
}

} // extern "C"
