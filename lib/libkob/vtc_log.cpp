// Named, thread-safe test logs.

#include "vtc_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vas.h"
#include "vsb.h"
#include "vtim.h"

unsigned vtc_verbosity = 4;

namespace {

const char *const vtc_leads[NLEAD] = {"----", "#   ", "##  ", "### ", "####"};

// The start time, set by the first vtc_log call.  Two first calls racing
// may each set it; that only moves the origin by the gap between them.
std::atomic<double> vtc_t0{0.0};

void vtc_log_emit(const vtclog *vl, unsigned lvl) {
    if (vl->func != nullptr && vl->func(lvl, "%s", vsb_data(vl->vsb)) >= 0)
        return;
    fputs(vsb_data(vl->vsb), stdout);
}

} // namespace

extern "C" {

vtclog *vtc_logopen(const char *id, vtc_loghook *func) {
    auto vl = static_cast<vtclog *>(calloc(1, sizeof(vtclog)));
    VAS_NOTNULL(vl);
    vl->magic = VTCLOG_MAGIC;
    vl->id = id;
    vl->vsb = vsb_newauto();
    VAS_CHECK(ODR_pthread_mutex_init(&vl->mtx, nullptr) == 0,
              "(ODR_pthread_mutex_init(&vl->mtx, ((void *)0))) == 0");
    vl->func = func;
    return vl;
}

void vtc_logclose(vtclog *vl) {
    VAS_OBJ_NOTNULL(vl, VTCLOG_MAGIC);
    vsb_delete(vl->vsb);
    VAS_ZERO(ODR_pthread_mutex_destroy(&vl->mtx));
    vl->magic = 0;
    free(vl);
}

void vtc_log(vtclog *vl, unsigned lvl, const char *fmt, ...) {
    VAS_NOTNULL(vl);
    VAS_OBJ_NOTNULL(vl, VTCLOG_MAGIC);
    VAS_ASSERT(lvl < NLEAD);
    if (lvl > vtc_verbosity)
        return;
    if (vtc_t0.load(std::memory_order_relaxed) == 0.0)
        vtc_t0.store(VTIM_now(), std::memory_order_relaxed);
    double t = VTIM_now();
    VAS_ZERO(ODR_pthread_mutex_lock(&vl->mtx));
    vsb_clear(vl->vsb);
    (void)vsb_printf(vl->vsb, "%s %6.2f %-4s ", vtc_leads[lvl],
                     t - vtc_t0.load(std::memory_order_relaxed), vl->id);
    va_list ap;
    va_start(ap, fmt);
    (void)vsb_vprintf(vl->vsb, fmt, ap);
    va_end(ap);
    (void)vsb_putc(vl->vsb, '\n');
    vsb_finish(vl->vsb);
    VAS_ZERO(vsb_overflowed(vl->vsb));
    vtc_log_emit(vl, lvl);
    vsb_clear(vl->vsb);
    VAS_ZERO(ODR_pthread_mutex_unlock(&vl->mtx));
}

void vtc_dump(vtclog *vl, unsigned lvl, const char *pfx, const char *str, int len) {
    VAS_OBJ_NOTNULL(vl, VTCLOG_MAGIC);
    VAS_ASSERT(lvl < NLEAD);
    if (lvl > vtc_verbosity)
        return;
    VAS_ZERO(ODR_pthread_mutex_lock(&vl->mtx));
    vsb_clear(vl->vsb);
    if (pfx == nullptr)
        pfx = "";
    // The start time is deliberately not set here.
    double elapsed = VTIM_now() - vtc_t0.load(std::memory_order_relaxed);
    const char *lead = vtc_leads[lvl];
    if (str == nullptr) {
        (void)vsb_printf(vl->vsb, "%s %6.2f %-4s %s(null)\n", lead, elapsed, vl->id, pfx);
    } else {
        int olen = len;
        if (len < 0)
            len = static_cast<int>(strlen(str));
        bool nl = true;
        for (int l = 0; l < len; l++) {
            if (l > 512 && olen != -2) {
                (void)vsb_printf(vl->vsb, "...");
                break;
            }
            if (nl) {
                (void)vsb_printf(vl->vsb, "%s %6.2f %-4s %s| ", lead, elapsed, vl->id, pfx);
                nl = false;
            }
            signed char c = static_cast<signed char>(str[l]);
            if (c == '\r') {
                (void)vsb_printf(vl->vsb, "\\r");
            } else if (c == '\t') {
                (void)vsb_printf(vl->vsb, "\\t");
            } else if (c == '\n') {
                (void)vsb_printf(vl->vsb, "\\n\n");
                nl = true;
            } else if (c < 0x20 || c > 0x7e) {
                (void)vsb_printf(vl->vsb, "\\x%02x", static_cast<unsigned char>(c));
            } else {
                (void)vsb_printf(vl->vsb, "%c", c);
            }
        }
        if (!nl)
            (void)vsb_printf(vl->vsb, "\n");
    }
    vsb_finish(vl->vsb);
    VAS_ZERO(vsb_overflowed(vl->vsb));
    vtc_log_emit(vl, lvl);
    vsb_clear(vl->vsb);
    VAS_ZERO(ODR_pthread_mutex_unlock(&vl->mtx));
}

} // extern "C"
