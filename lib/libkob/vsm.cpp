// The read side of a daemon's shared-memory segment file.
//
// Unlike the rest of the library, this unit reports broken calling rules
// through the platform's standard assertion, so its messages go to standard
// error in the platform's wording.

#include "vsm.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "platform_assert.h"
#include "vin.h"
#include "vsb.h"
#include "vsc.h"
#include "vsl.h"
#include "vsl_priv.h"

#define VSM_CHECK(cond, text) KOB_PLATFORM_CHECK(cond, text)

#define VSM_CHECK_VD(vd)                                                                           \
    do {                                                                                           \
        VSM_CHECK((vd) != nullptr, "(vd) != NULL");                                                \
        VSM_CHECK((vd)->magic == VSM_MAGIC, "(vd)->magic == 0x6e3bd69b");                          \
    } while (0)

static_assert(sizeof(VSM_head) == VSM_HEAD_SIZE);
static_assert(sizeof(VSM_chunk) == VSM_CHUNK_SIZE);
static_assert(sizeof(VSM_fantom) == 4 * sizeof(void *));

namespace {

__attribute__((__format__(__printf__, 2, 3))) int vsm_diag(VSM_data *vd, const char *fmt, ...) {
    VSM_CHECK(fmt != nullptr, "(fmt) != 0");
    if (vd->diag == nullptr)
        vd->diag = vsb_newauto();
    VSM_CHECK(vd->diag != nullptr, "(vd->diag) != 0");
    vsb_clear(vd->diag);
    va_list ap;
    va_start(ap, fmt);
    vsb_vprintf(vd->diag, fmt, ap);
    va_end(ap);
    vsb_finish(vd->diag);
    return -1;
}

// The daemon rewrites the sequence from another process while we read.
uint32_t allocSeq(const VSM_data *vd) {
    return __atomic_load_n(&vd->head->alloc_seq, __ATOMIC_ACQUIRE);
}

uint64_t segSize(const VSM_data *vd) {
    return static_cast<uint64_t>(vd->seg_end - vd->seg_start);
}

// A chunk header we may read: aligned, and wholly inside the mapping.
bool chunkFits(const VSM_data *vd, uint64_t off) {
    uint64_t size = segSize(vd);
    return off % alignof(VSM_chunk) == 0 && size >= VSM_CHUNK_SIZE && off <= size - VSM_CHUNK_SIZE;
}

// The texts of a chunk header are meant to be terminated; one that is not
// never equals anything rather than leading the compare out of its field.
bool fieldIs(const char *field, size_t width, const char *want) {
    size_t n = strnlen(field, width);
    return n < width && strlen(want) == n && memcmp(field, want, n) == 0;
}

// munmap's length in the file mapping layer is 32 bits wide.
void unmapAll(char *p, uint64_t len) {
    constexpr uint64_t piece = 1u << 30;
    while (len > 0) {
        uint64_t n = len < piece ? len : piece;
        ODR_UnmapViewOfFile(p, static_cast<uint32_t>(n));
        p += n;
        len -= n;
    }
}

} // namespace

extern "C" {

struct VSM_data *VSM_New(void) {
    auto *vd = static_cast<VSM_data *>(calloc(1, sizeof(VSM_data)));
    if (vd == nullptr)
        return nullptr;
    vd->magic = VSM_MAGIC;
    return vd;
}

int VSM_n_Arg(struct VSM_data *vd, const char *opt) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(opt != nullptr, "(opt) != 0");
    free(vd->n_opt);
    vd->n_opt = strdup(opt);
    VSM_CHECK(vd->n_opt != nullptr, "((vd->n_opt)) != 0");
    free(vd->fname);
    vd->fname = nullptr;
    // Other name resolvers may fail with errno set; this one ends the
    // process instead, so the text below is kept for them.
    if (VIN_N_Arg(vd->n_opt, nullptr, nullptr, &vd->fname))
        return vsm_diag(vd, "Invalid instance name: %s\n", strerror(errno));
    return 1;
}

const char *VSM_Name(const struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    return vd->n_opt;
}

int VSM_Open(struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vd->head == nullptr, "(vd->head) == 0");
    if (vd->n_opt == nullptr)
        (void)VSM_n_Arg(vd, "");
    VSM_CHECK(vd->head == nullptr, "(vd->head) == 0");
    VSM_CHECK(vd->fname != nullptr, "(vd->fname) != 0");

    ODR_HANDLE *fd = ODR_OpenFileMapping(vd->fname);
    if (fd == nullptr)
        return vsm_diag(vd, "Cannot open %s: %s\n", vd->fname, strerror(errno));

    // Mapping past the end of the file would fault on the first touch, and
    // the mapping layer ends the process when mmap fails: so the file's
    // size is checked before each mapping.
    struct stat st;
    if (fstat(fd->fp->fd, &st) != 0) {
        int e = errno;
        ODR_CloseHandle(fd);
        return vsm_diag(vd, "Cannot open %s: %s\n", vd->fname, strerror(e));
    }
    uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    if (fileSize < VSM_HEAD_SIZE) {
        ODR_CloseHandle(fd);
        return vsm_diag(vd, "Not a VSM file %s\n", vd->fname);
    }

    VSM_head head;
    void *v = ODR_MapViewOfFile(fd, VSM_HEAD_SIZE);
    memcpy(&head, v, sizeof head);
    ODR_UnmapViewOfFile(v, VSM_HEAD_SIZE);

    // A segment being built (sequence 0) is refused like a foreign file, and
    // so is one that claims more than its file holds.
    if (memcmp(head.marker, VSM_HEAD_MARKER, sizeof head.marker) != 0 || head.alloc_seq == 0 ||
        head.seg_size < VSM_HEAD_SIZE || head.seg_size > fileSize) {
        ODR_CloseHandle(fd);
        return vsm_diag(vd, "Not a VSM file %s\n", vd->fname);
    }

    char *seg = static_cast<char *>(ODR_MapViewOfFile(fd, head.seg_size));
    // The mapping outlives the descriptor; closing it also drops the lock
    // that keeps a second opener out meanwhile.
    ODR_CloseViewOfFile(fd);
    vd->vsm_fd = fd;
    vd->head = reinterpret_cast<VSM_head *>(seg);
    vd->seg_start = seg;
    vd->seg_end = seg + head.seg_size;
    return 0;
}

void VSM__iter0(const struct VSM_data *vd, struct VSM_fantom *vf) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vf != nullptr, "(vf) != 0");
    memset(vf, 0, sizeof *vf);
}

int VSM__itern(const struct VSM_data *vd, struct VSM_fantom *vf) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vf != nullptr, "(vf) != 0");
    if (vd->head == nullptr)
        return 0;
    uint32_t seq = allocSeq(vd);
    if (seq == 0)
        return 0;

    uint64_t off;
    if (vf->priv != 0) {
        if (vf->priv != seq || vf->chunk->len == 0)
            return 0;
        uint64_t next = vf->chunk->next;
        if (next == 0)
            return 0;
        // The chain must move forward, so that no file can send the walk
        // round in a circle; a chunk naming itself or an earlier one is the
        // end of the chain, not a broken invariant.
        uint64_t here = static_cast<uint64_t>(reinterpret_cast<char *>(vf->chunk) - vd->seg_start);
        if (next <= here || !chunkFits(vd, next))
            return 0;
        off = next;
        VSM_CHECK(vd->seg_start + off != reinterpret_cast<char *>(vf->chunk), "p != vf->chunk");
    } else {
        off = vd->head->first;
        if (off == 0)
            return 0;
        VSM_CHECK(vf->chunk == nullptr, "(vf->chunk) == 0");
        if (!chunkFits(vd, off))
            return 0;
    }

    auto *p = reinterpret_cast<VSM_chunk *>(vd->seg_start + off);
    vf->chunk = p;
    if (memcmp(p->marker, VSM_CHUNK_MARKER, sizeof p->marker) != 0)
        return 0;
    vf->priv = seq;
    uint64_t len = p->len;
    // A payload running past the segment ends the walk like the chain's end.
    if (len > segSize(vd) - off - VSM_CHUNK_SIZE)
        return 0;
    vf->start = vd->seg_start + off + VSM_CHUNK_SIZE;
    vf->end = static_cast<char *>(vf->start) + len;
    // An empty payload ends the walk too, on purpose: nothing follows it.
    if (vf->priv == 0 || vf->start == vf->end)
        return 0;
    VSM_CHECK(vf->priv != 0, "(vf->priv) != 0");
    VSM_CHECK(vf->chunk != nullptr, "(vf->chunk) != 0");
    return 1;
}

int VSM_Get(const struct VSM_data *vd, struct VSM_fantom *vf, const char *cls, const char *type,
            const char *ident) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vf != nullptr, "(vf) != 0");
    VSM_FOREACH(vf, vd) {
        const VSM_chunk *c = vf->chunk;
        if (!fieldIs(c->class_, sizeof c->class_, cls))
            continue;
        if (type != nullptr && !fieldIs(c->type, sizeof c->type, type))
            continue;
        if (ident != nullptr && !fieldIs(c->ident, sizeof c->ident, ident))
            continue;
        return 1;
    }
    memset(vf, 0, sizeof *vf);
    return 0;
}

int VSM_StillValid(const struct VSM_data *vd, struct VSM_fantom *vf) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vf != nullptr, "(vf) != 0");
    if (vd->head == nullptr)
        return 0;
    uint32_t seq = allocSeq(vd);
    if (seq == 0)
        return 0;
    if (vf->priv == seq)
        return 1;
    VSM_fantom f;
    VSM_FOREACH(&f, vd) {
        if (f.chunk == vf->chunk && f.start == vf->start && f.end == vf->end) {
            vf->priv = seq;
            return 2;
        }
    }
    return 0;
}

unsigned VSM_Seq(const struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    VSM_CHECK(vd->head != nullptr, "(vd->head) != 0");
    return allocSeq(vd);
}

const char *VSM_Error(const struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    if (vd->diag == nullptr)
        return nullptr;
    return vsb_data(vd->diag);
}

void VSM_Close(struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    if (vd->head == nullptr)
        return;
    unmapAll(vd->seg_start, segSize(vd));
    vd->head = nullptr;
    vd->seg_start = nullptr;
    vd->seg_end = nullptr;
    ODR_CloseHandle(vd->vsm_fd);
    vd->vsm_fd = nullptr;
    if (vd->vsl != nullptr)
        vsl_SegmentClosed(vd->vsl);
}

void VSM_Delete(struct VSM_data *vd) {
    VSM_CHECK_VD(vd);
    VSM_Close(vd);
    free(vd->n_opt);
    free(vd->fname);
    if (vd->vsc != nullptr)
        VSC_Delete(vd);
    if (vd->vsl != nullptr)
        VSL_Delete(vd);
    if (vd->diag != nullptr)
        vsb_delete(vd->diag);
    vd->magic = 0;
    free(vd);
}

} // extern "C"
