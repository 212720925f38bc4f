/*
 * vsb.h - growable byte-string buffer.
 *
 * Build a text by appending, seal it with vsb_finish, then read it with
 * vsb_data and vsb_len.  An auto-extending buffer starts at 2048 bytes,
 * doubles up to 1 MiB and then grows by 128 KiB steps.  Running out of room
 * is an ordinary condition (-1, and the buffer remembers it as "overflowed");
 * misuse (dead handle, write after finish, read before finish) is a broken
 * invariant and ends the process through VAS_Fail.
 */
#ifndef KOB_VSB_H
#define KOB_VSB_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vsb {
    uint32_t s_magic; /* 0x4a82dd8a while alive */
    char *s_buf;      /* storage, never null in a live record */
    size_t s_size;    /* bytes of storage */
    size_t s_len;     /* bytes of text; always < s_size (room for the NUL) */
    int s_flags;      /* user flags (low 16 bits) and state flags */
};

#define VSB_MAGIC 0x4a82dd8a

#define VSB_FIXEDLEN 0x00000000   /* never grows */
#define VSB_AUTOEXTEND 0x00000001 /* grows when full */
#define VSB_USRFLAGMSK 0x0000ffff /* flags a caller may pass to vsb_new */
#define VSB_DYNAMIC 0x00010000    /* s_buf belongs to the buffer */
#define VSB_FINISHED 0x00020000   /* sealed by vsb_finish */
#define VSB_OVERFLOWED 0x00040000 /* a write did not fit; later writes fail */
#define VSB_DYNSTRUCT 0x00080000  /* the record itself was allocated by vsb_new */

/*
 * Make a buffer.  s: a record to initialise, or NULL to allocate one.
 * buf: caller storage of `length` bytes, or NULL to allocate.  The caller's
 * storage stays the caller's until the buffer first grows.  length must be
 * >= 0 and flags within VSB_USRFLAGMSK (both asserted).  Returns the record,
 * or NULL when memory is short.  Release with vsb_delete.
 */
struct vsb *vsb_new(struct vsb *s, char *buf, int length, int flags);
#define vsb_newauto() vsb_new(NULL, NULL, 0, VSB_AUTOEXTEND)

/* Empty the buffer and reopen it for appends; also clears an overflow. */
void vsb_clear(struct vsb *s);
/* Cut the text to pos bytes; -1 (nothing changed) when pos is past the end. */
int vsb_setpos(struct vsb *s, int pos);
/* Append len bytes (no terminator written).  0, or -1 when not all fitted. */
int vsb_bcat(struct vsb *s, const void *buf, size_t len);
/* vsb_clear, then vsb_bcat. */
int vsb_bcpy(struct vsb *s, const void *buf, size_t len);
/* Append a NUL-terminated text.  0, or -1 when not all fitted. */
int vsb_cat(struct vsb *s, const char *str);
/* vsb_clear, then vsb_cat. */
int vsb_cpy(struct vsb *s, const char *str);
/*
 * Append formatted text.  0, or -1 when overflowed.  Trap: a fixed buffer
 * filled exactly to its last usable byte is marked overflowed although
 * nothing was lost; an auto-extending buffer whose growth failed keeps the
 * truncated text and is not marked.  Trap: a negative result of vsnprintf
 * (an encoding error) is added to the length as it is, which drops the last
 * byte, or on an empty buffer fails the assertion "s->s_len < s->s_size".
 */
int vsb_printf(struct vsb *s, const char *fmt, ...) __attribute__((__format__(__printf__, 2, 3)));
int vsb_vprintf(struct vsb *s, const char *fmt, va_list ap)
    __attribute__((__format__(__printf__, 2, 0)));
/* Append one byte; a zero character is accepted and not stored.  0 or -1. */
int vsb_putc(struct vsb *s, int c);
/*
 * Drop trailing white space.  0, or -1 when overflowed.  Bytes of 0x80 and
 * above never count as white space, whatever the locale says.
 */
int vsb_trim(struct vsb *s);
/* Non-zero between a failed write and vsb_finish/vsb_clear. */
int vsb_overflowed(const struct vsb *s);
/* Seal: terminate the text, clear the overflow mark, forbid appends. */
void vsb_finish(struct vsb *s);
/* The sealed text; asserts that the buffer is finished. */
char *vsb_data(const struct vsb *s);
/*
 * Text length, or -1 while overflowed.  Trap: vsb_finish clears the overflow
 * mark, so the length of a sealed buffer never reports an overflow.
 */
int vsb_len(const struct vsb *s);
/* Non-zero when sealed. */
int vsb_done(const struct vsb *s);
/* Free storage (if owned) and record (if allocated); zeroes the record. */
void vsb_delete(struct vsb *s);
/*
 * Append bytes, in double quotes with C-like escapes when any byte is not
 * graphic or is a double quote; otherwise unchanged.  len -1: up to the NUL.
 * Bytes of 0x80 and above are never graphic, whatever the locale says.
 * Octal escapes are not padded, so a control byte followed by a digit does
 * not read back unchanged.
 */
void vsb_quote(struct vsb *s, const char *p, int len, int how);
/*
 * Append a text with its backslash escapes undone.  len -1: up to the NUL.
 * Returns NULL, or a static error text; bytes appended before an error stay.
 * Trap: an octal escape takes every octal digit that follows, also past len,
 * so the text must go on to a byte that is not an octal digit (a NUL will
 * do); a text that ends in digits exactly at len is read beyond its end.
 */
const char *vsb_unquote(struct vsb *s, const char *p, int len, int how);

#ifdef __cplusplus
}
#endif

#endif
