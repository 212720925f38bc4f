/* The public headers as a C program sees them: everything through libkob.h,
 * and a few calls made from C. */

#include "libkob.h"

#include <string.h>

int kob_c_api_roundtrip(char *out, int outlen) {
    struct vsb *s = vsb_newauto();
    if (s == NULL)
        return -1;
    vsb_printf(s, "%s-%d", "from C", 42);
    vsb_finish(s);
    int len = vsb_len(s);
    if (len >= outlen) {
        vsb_delete(s);
        return -1;
    }
    memcpy(out, vsb_data(s), (size_t)len + 1);
    vsb_delete(s);
    return len;
}
