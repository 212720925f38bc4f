// Named, thread-safe test logs.

#include "vtc_log.h"

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "vas.h"
#include "vsb.h"
#include "vtc_log_priv.h"
#include "vtim.h"

unsigned vtc_verbosity = 4;

namespace {

const char *const vtc_leads[NLEAD] = {"----", "#   ", "##  ", "### ", "####"};

// The start time, set by the first vtc_log call.  Two first calls racing
// may each set it; that only moves the origin by the gap between them.
std::atomic<double> vtc_t0{0.0};

// "<lead> <%6.2f> ": the start of every line, built without the general
// formatter, which would otherwise dominate the cost of a line.  buf holds
// at least kLeadMax bytes.
constexpr size_t kLeadMax = 4 + 1 + 352 + 1;
size_t formatLead(char *buf, const char *lead, double elapsed) {
    memcpy(buf, lead, 4);
    size_t n = 4;
    buf[n++] = ' ';
    n += kob::formatSeconds(buf + n, elapsed);
    buf[n++] = ' ';
    return n;
}

// ... then "<%-4s> ".
void appendPrefix(vsb *vsb, const char *lead, double elapsed, const char *id) {
    char buf[kLeadMax];
    (void)vsb_bcat(vsb, buf, formatLead(buf, lead, elapsed));
    size_t idlen = strlen(id);
    (void)vsb_bcat(vsb, id, idlen);
    (void)vsb_bcat(vsb, "     ", idlen < 4 ? 5 - idlen : 1);
}

// zeroFree: the line holds no zero byte, so its length is all fputs would
// look for.
void vtc_log_emit(const vtclog *vl, unsigned lvl, bool zeroFree = false) {
    if (vl->func != nullptr && vl->func(lvl, "%s", vsb_data(vl->vsb)) >= 0)
        return;
    if (zeroFree)
        (void)fwrite(vsb_data(vl->vsb), 1, static_cast<size_t>(vsb_len(vl->vsb)), stdout);
    else
        fputs(vsb_data(vl->vsb), stdout);
}

} // namespace

namespace kob {

size_t formatSeconds(char *buf, double v) {
    size_t n;
    // Away from a rounding tie, rounding the scaled value gives what printf
    // gives; near one (and outside the everyday range) ask for the exactly
    // rounded text.  In range the value is not negative, so truncating is
    // flooring, and the digits are written from the right by hand: this
    // runs for every line.
    if (v >= 0.0 && v < 1e7) {
        double hundredths = v * 100.0;
        auto whole = static_cast<unsigned long>(hundredths);
        double frac = hundredths - static_cast<double>(whole);
        if (std::fabs(frac - 0.5) > 1e-6) {
            unsigned long cents = whole + (frac > 0.5 ? 1 : 0);
            char digits[16];
            char *end = digits + sizeof digits;
            char *p = end;
            *--p = static_cast<char>('0' + cents % 10);
            *--p = static_cast<char>('0' + cents / 10 % 10);
            *--p = '.';
            unsigned long units = cents / 100;
            do {
                *--p = static_cast<char>('0' + units % 10);
                units /= 10;
            } while (units != 0);
            n = static_cast<size_t>(end - p);
            size_t pad = n < 6 ? 6 - n : 0;
            memset(buf, ' ', pad);
            memcpy(buf + pad, p, n);
            return pad + n;
        }
    }
    char digits[360];
    auto r = std::to_chars(digits, digits + sizeof digits, v, std::chars_format::fixed, 2);
    n = static_cast<size_t>(r.ptr - digits);
    size_t pad = n < 6 ? 6 - n : 0;
    memset(buf, ' ', pad);
    memcpy(buf + pad, digits, n);
    return pad + n;
}

} // namespace kob

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
    double elapsed = VTIM_now() - vtc_t0.load(std::memory_order_relaxed);
    // A message with nothing to format is the common line: put it together
    // here, before the lock, so that under it the line only goes out.
    std::string_view msg(fmt);
    size_t msglen = msg.size();
    size_t idlen = strlen(vl->id);
    size_t pad = idlen < 4 ? 5 - idlen : 1;
    char line[1024];
    size_t n = 0;
    bool whole = msg.find('%') == std::string_view::npos &&
                 kLeadMax + idlen + pad + msglen + 1 <= sizeof line;
    if (whole) {
        n = formatLead(line, vtc_leads[lvl], elapsed);
        memcpy(line + n, vl->id, idlen);
        n += idlen;
        memcpy(line + n, "     ", pad);
        n += pad;
        memcpy(line + n, msg.data(), msglen);
        n += msglen;
        line[n++] = '\n';
    }
    VAS_ZERO(ODR_pthread_mutex_lock(&vl->mtx));
    if (whole && vl->func == nullptr) {
        // Nobody to hand the line to: it goes out as built, in one write,
        // and the log's buffer stays empty as it is between calls.
        (void)fwrite(line, 1, n, stdout);
        VAS_ZERO(ODR_pthread_mutex_unlock(&vl->mtx));
        return;
    }
    vsb_clear(vl->vsb);
    if (whole) {
        (void)vsb_bcat(vl->vsb, line, n);
    } else {
        appendPrefix(vl->vsb, vtc_leads[lvl], elapsed, vl->id);
        va_list ap;
        va_start(ap, fmt);
        (void)vsb_vprintf(vl->vsb, fmt, ap);
        va_end(ap);
        (void)vsb_putc(vl->vsb, '\n');
    }
    vsb_finish(vl->vsb);
    VAS_ZERO(vsb_overflowed(vl->vsb));
    vtc_log_emit(vl, lvl, whole);
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
        appendPrefix(vl->vsb, lead, elapsed, vl->id);
        (void)vsb_cat(vl->vsb, pfx);
        (void)vsb_cat(vl->vsb, "(null)\n");
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
                appendPrefix(vl->vsb, lead, elapsed, vl->id);
                (void)vsb_cat(vl->vsb, pfx);
                (void)vsb_cat(vl->vsb, "| ");
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
