// The report channel and the report's delivery.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kobdiag.h"
#include "kobdiag_assert.h"
#include "kobdiag_config.h"
#include "vpf.h"
#include "vsb.h"

struct vsb *dia_msg;
struct vtclog *dia_vl;

int DIA_printf(const char *fmt, ...) {
    va_list ap;
    va_list ap2;
    va_start(ap, fmt);
    va_copy(ap2, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    char *p = n < 0 ? nullptr : static_cast<char *>(malloc(static_cast<size_t>(n) + 1));
    if (p == nullptr) {
        va_end(ap2);
        return -1;
    }
    int m = vsnprintf(p, static_cast<size_t>(n) + 1, fmt, ap2);
    va_end(ap2);
    // The text is passed on with an explicit length, so a '%' in it is
    // shown and stored as it is.
    fprintf(stderr, "%.*s", m, p);
    (void)vsb_printf(dia_msg, "%.*s", m, p);
    free(p);
    return m;
}

const char *DIA_getOSVersion(void) {
    return "skipped";
}

/* ---- the PID file --------------------------------------------------------- */

struct vpf_fh *dia_pfh;

void DIA_writepid(void) {
    DIA_ASSERT_AT(dia_pfh == nullptr, "dia_pfh == NULL", 46);
    dia_pfh = VPF_Open(KOBDIAG_APP_DIR "kobdiag.pid", 0644, nullptr);
    DIA_ASSERT_AT(dia_pfh != nullptr, "dia_pfh != NULL", 48);
    // The handle is never closed: the lock holds until the process ends.
    (void)VPF_Write(dia_pfh);
}
