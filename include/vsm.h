/*
 * vsm.h - the read side of a daemon's shared-memory segment file.
 *
 * The file holds a 40-byte head and a chain of chunks, each a 104-byte
 * header and a payload.  A reader names the instance, opens (maps the whole
 * segment), walks or looks up chunks with an iterator, and later asks
 * whether what it found is still valid.  The reader takes no lock: the
 * daemon sets the head's allocation sequence to 0 while it reorganises and
 * changes it whenever the chunk layout changes.
 *
 * Whatever the file holds, the walk stays inside the mapping: a chunk that
 * lies outside the segment, is misaligned, runs past its end or does not
 * move the chain forward ends the walk like the end of the chain.
 *
 * Broken calling rules end the process through the platform's standard
 * assertion (message on standard error).
 */
#ifndef KOB_VSM_H
#define KOB_VSM_H

#include <stdint.h>

#include "odr.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VSM_MAGIC 0x6e3bd69b
#define VSM_HEAD_MARKER "VSMHEAD0"
#define VSM_CHUNK_MARKER "VSMCHUNK"

/* The head of the segment file, at offset 0. */
struct VSM_head {
    char marker[8];     /* "VSMHEAD0", no terminator */
    uint64_t unused;    /* the daemon's; never read */
    uint64_t seg_size;  /* bytes of the whole segment */
    uint64_t first;     /* offset of the first chunk; 0: none */
    uint32_t alloc_seq; /* 0 while the daemon rebuilds; changes with the layout */
    uint32_t pad;
};

/* A chunk header; the payload follows it.  The texts are NUL-terminated. */
struct VSM_chunk {
    char marker[8]; /* "VSMCHUNK" */
    uint64_t len;   /* payload bytes */
    uint64_t next;  /* offset of the next chunk; 0 ends the chain */
    char class_[8]; /* "Log", "Stat", ... */
    char type[8];
    char ident[64];
};

#define VSM_HEAD_SIZE 40
#define VSM_CHUNK_SIZE 104

/*
 * A chunk iterator, owned by the caller.  Valid only while the segment is
 * open and its allocation sequence equals priv.
 */
struct VSM_fantom {
    struct VSM_chunk *chunk; /* current chunk header; null before the first step */
    void *start;             /* first payload byte */
    void *end;               /* byte after the payload */
    uintptr_t priv;          /* alloc_seq when the chunk was reached; 0 before */
};

struct vsb;
struct vsc;
struct vsl;

/* The reader's handle. */
struct VSM_data {
    uint32_t magic;            /* VSM_MAGIC; 0 once freed */
    struct vsb *diag;          /* last error text; made on first error */
    char *n_opt;               /* instance name as given, owned */
    char *fname;               /* segment file name made from it, owned */
    ODR_HANDLE *vsm_fd;        /* the open file, or null */
    struct VSM_head *head;     /* the mapped head; null while closed */
    char *seg_start, *seg_end; /* the mapping */
    struct vsc *vsc;           /* counter reader state, or null */
    struct vsl *vsl;           /* log reader state, or null */
};

/* A zero-filled handle with its magic; null if memory is short.  Free with VSM_Delete. */
struct VSM_data *VSM_New(void);

/*
 * Set the instance name (copied; VSM_Name returns it as given) and the file
 * name made from it.  Returns 1, or -1 with an error text.  Trap: an unknown
 * name ends the process inside VIN_N_Arg.
 */
int VSM_n_Arg(struct VSM_data *vd, const char *opt);

/* The instance name as given to VSM_n_Arg (owned by the handle), or null. */
const char *VSM_Name(const struct VSM_data *vd);

/*
 * Open the segment file in the current directory and map it whole.
 * Returns 0, or -1 with an error text ("Cannot open ...", "Not a VSM file
 * ...": also for a segment being rebuilt or larger than its file).  The
 * segment must not be open.  Trap: without a name set first the process
 * ends (the empty name is unknown).
 */
int VSM_Open(struct VSM_data *vd);

/*
 * Is what vf found still there?  0: gone (or the segment is closed or
 * being rebuilt), 1: valid and unchanged, 2: found again at the same place
 * after a layout change (vf is brought up to date, so the next call says 1).
 */
int VSM_StillValid(const struct VSM_data *vd, struct VSM_fantom *vf);

/* Start an iteration: zero vf. */
void VSM__iter0(const struct VSM_data *vd, struct VSM_fantom *vf);

/* Step to the next chunk: 1 with vf on it, or 0 at the end of the walk. */
int VSM__itern(const struct VSM_data *vd, struct VSM_fantom *vf);

#define VSM_FOREACH(vf, vd) for (VSM__iter0((vd), (vf)); VSM__itern((vd), (vf));)

/*
 * Find the first chunk of class cls whose type and ident equal the given
 * ones (null: any).  1 with vf on it, or 0 with vf zeroed.
 */
int VSM_Get(const struct VSM_data *vd, struct VSM_fantom *vf, const char *cls, const char *type,
            const char *ident);

/* The head's allocation sequence; the segment must be open. */
unsigned VSM_Seq(const struct VSM_data *vd);

/* The last error text (owned by the handle), or null if there was none. */
const char *VSM_Error(const struct VSM_data *vd);

/* Unmap and release the file if open; the handle may be opened again. */
void VSM_Close(struct VSM_data *vd);

/* Close, free the names, the error text and the log and counter states, then the handle. */
void VSM_Delete(struct VSM_data *vd);

#ifdef __cplusplus
}
#endif

#endif
