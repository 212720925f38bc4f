// The daemon's log ring, read record by record from the segment.

#include "vsl.h"

#include <cstdlib>
#include <cstring>

#include "vas.h"
#include "vsb.h"
#include "vsl_priv.h"

const char *VSL_tags[256] = {
    nullptr,
    "Debug",
    "VaneGet",
    "VaneGracefulHalting",
    "VaneInterface",
    "VaneInterfaceUP",
    "VaneInterfaceBind",
    "VaneMinidumpPath",
    "VanePacketDump",
    "VanePanicMsg",
    "VanePanicMsgBegin",
    "VanePanicMsgEnd",
    "VaneReady",
    "VaneSet",
    "VaneUserInfo",
    "FlowADNAdd",
    "FlowADNDel",
    "FlowFullVPNRefresh",
    "FlowGet",
    "FlowMinidumpPath",
    "FlowMTU",
    "FlowPanicMsg",
    "FlowPanicMsgBegin",
    "FlowPanicMsgEnd",
    "FlowPingStat",
    "FlowSet",
    "FlowSidAutoSelect",
    "FlowStaticNodeInfo",
    "FlowStaticNodeRefresh",
    "HostDefaultGateway",
    "NewMapIP",
    "NotifyMsgCrit",
    "NotifyMsgError",
    "NotifyMsgFatal",
    "NotifyMsgInfo",
    "NotifyMsgWarn",
    "RouteAdd",
    "RouteAddConfirm",
    "RouteDel",
    "RouteDelConfirm",
    "RouteDefault",
    "RTEnd",
    "RTEntry",
    "RTStart",
    "RTT_PacketLossRate",
    "RTT_toStatic",
    "RunGet",
    "RunSet",
    "SIFTR",
    "TrafficUsage",
};

namespace {

// The writer changes these words from another process while we read.
uint32_t loadWord(const uint32_t *p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

// Words a record takes: its two header words and the padded payload.
size_t recordWords(uint32_t first) {
    return 2 + ((first & 0xffffu) + 3) / 4;
}

// vbit_isset, inlined for the per-record filter test.
inline bool tagIn(const vbitmap *vb, unsigned tag) {
    return tag < vb->nbits && (vb->bits[tag / 32] & (1u << (tag % 32))) != 0;
}

void setError(VSM_data *vd, const char *text) {
    if (vd->diag == nullptr)
        vd->diag = vsb_newauto();
    VAS_CHECK(vd->diag != nullptr, "(vd->diag) != 0");
    vsb_clear(vd->diag);
    vsb_cat(vd->diag, text);
    vsb_finish(vd->diag);
}

int vsl_open(VSM_data *vd, vsl *vsl) {
    VAS_CHECK(vsl->r_fd < 0, "vsl->r_fd < 0");
    if (vd->head == nullptr) {
        int i = VSM_Open(vd);
        if (i != 0)
            return i;
    }
    if (!VSM_Get(vd, &vsl->vf, "Log", nullptr, nullptr)) {
        VSM_Close(vd);
        setError(vd, "No VSL chunk found  (child not started ?)\n");
        return -1;
    }
    // Whole words only: a ragged tail of the payload can hold no record.
    char *start = static_cast<char *>(vsl->vf.start);
    size_t words = static_cast<size_t>(static_cast<char *>(vsl->vf.end) - start) / 4;
    vsl->log_start = reinterpret_cast<uint32_t *>(start);
    vsl->log_end = vsl->log_start + words;
    vsl->ptr = vsl->log_start + 1;
    if (vsl->from_start || words < 1)
        return 0;
    // last_gen is left as it is: a reader that has not stood at the ring's
    // start under this generation finds the end marker newer than what it
    // saw and goes back to offset 4.  Only the end marker stops this walk;
    // a wrap marker is stepped over like a record.
    while (vsl->ptr < vsl->log_end) {
        uint32_t w = loadWord(vsl->ptr);
        if (w == VSL_ENDMARKER)
            break;
        size_t n = recordWords(w);
        if (n > static_cast<size_t>(vsl->log_end - vsl->ptr))
            break;
        vsl->ptr += n;
    }
    return 0;
}

void vsl_close(VSM_data *vd, vsl *vsl) {
    VAS_CHECK(vsl->r_fd < 0, "vsl->r_fd < 0");
    VSM_Close(vd);
    vsl_SegmentClosed(vsl);
}

// One step through the ring.  *wraps counts the wrap markers followed in
// this read, so that a ring without an end marker cannot keep one call
// going round for ever.
int vsl_nextslt(VSM_data *vd, vsl *vsl, uint32_t **pp, int *wraps) {
    VAS_CHECK(vsl->r_fd == -1, "0 == 1");
    if (vsl->ptr == nullptr && vsl_open(vd, vsl) != 0)
        return 0;
    uint32_t *first = vsl->log_start + 1;
    for (;;) {
        if (vsl->ptr < first || vsl->ptr >= vsl->log_end)
            return -3;
        uint32_t w = loadWord(vsl->ptr);
        if (w == VSL_WRAPMARKER) {
            if (vsl->ptr == first)
                return -1;
            if (++*wraps > 1)
                return 0;
            vsl->ptr = first;
            continue;
        }
        if (w == VSL_ENDMARKER) {
            if (vsl->ptr == first)
                return 0;
            if (vsl->last_gen == loadWord(vsl->log_start))
                return 0;
            // The writer restarted the ring: its records begin at the start.
            vsl->ptr = first;
            continue;
        }
        if (w == 0)
            return 0;
        size_t n = recordWords(w);
        // A record running past the chunk stands outside the ring.
        if (n > static_cast<size_t>(vsl->log_end - vsl->ptr))
            return -3;
        if (vsl->ptr == first)
            vsl->last_gen = loadWord(vsl->log_start);
        *pp = vsl->ptr;
        vsl->ptr += n;
        return 1;
    }
}

} // namespace

void vsl_SegmentClosed(struct vsl *vsl) {
    memset(&vsl->vf, 0, sizeof vsl->vf);
    vsl->log_start = nullptr;
    vsl->log_end = nullptr;
    vsl->ptr = nullptr;
}

struct vsl *vsl_Setup(struct VSM_data *vd) {
    VAS_OBJ_NOTNULL(vd, VSM_MAGIC);
    if (vd->vsl == nullptr) {
        vd->vsl = static_cast<vsl *>(calloc(1, sizeof(vsl)));
        VAS_NOTNULL(vd->vsl);
        vd->vsl->magic = VSL_MAGIC;
        vd->vsl->tags_selected = vbit_init(256);
        vd->vsl->tags_suppressed = vbit_init(256);
        vd->vsl->r_fd = -1;
    }
    VAS_OBJ_NOTNULL(vd->vsl, VSL_MAGIC);
    return vd->vsl;
}

extern "C" {

int VSL_NextLog(struct VSM_data *vd, uint32_t **pp, uint64_t *bits) {
    vsl *vsl = vsl_Setup(vd);
    if (bits != nullptr)
        *bits = 0;
    int wraps = 0;
    for (;;) {
        uint32_t *p;
        int i = vsl_nextslt(vd, vsl, &p, &wraps);
        if (i < 0)
            return i;
        if (i == 0) {
            // Gone or rebuilt: let the next call open the log afresh.
            if (!vsl->from_start && VSM_StillValid(vd, &vsl->vf) == 0)
                vsl_close(vd, vsl);
            return 0;
        }
        unsigned tag = VSL_TAG(p);
        if (!tagIn(vsl->tags_selected, tag)) {
            if (tagIn(vsl->tags_suppressed, tag))
                continue;
            if (vsl->only_b && (p[1] & VSL_SIDE_B_BIT) == 0)
                continue;
            if (vsl->only_a && (p[1] & VSL_SIDE_A_BIT) == 0)
                continue;
        }
        if (vsl->skip != 0) {
            vsl->skip--;
            continue;
        }
        // The count is spent on the record that brings it to 0: keep N
        // delivers N - 1 records.
        if (vsl->keep != 0 && --vsl->keep == 0)
            return -2;
        *pp = p;
        return 1;
    }
}

int VSL_Dispatch(struct VSM_data *vd, vsl_handler_f *func, void *priv) {
    (void)vsl_Setup(vd);
    for (;;) {
        uint32_t *p;
        uint64_t bits;
        int i = VSL_NextLog(vd, &p, &bits);
        if (i < 1)
            return i;
        i = func(priv, VSL_TAG(p), VSL_ID(p), VSL_LEN(p), VSL_SIDE(p), VSL_DATA(p), bits);
        if (i != 0)
            return i;
    }
}

void VSL_Delete(struct VSM_data *vd) {
    VAS_OBJ_NOTNULL(vd, VSM_MAGIC);
    vsl *vsl = vd->vsl;
    vd->vsl = nullptr;
    VAS_OBJ_NOTNULL(vsl, VSL_MAGIC);
    VAS_CHECK(vsl->r_fd < 0, "0 == 1");
    vbit_free(vsl->tags_selected);
    vbit_free(vsl->tags_suppressed);
    free(vsl->rbuf);
    vsl->magic = 0;
    free(vsl);
}

} // extern "C"
