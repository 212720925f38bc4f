/*
 * odr.h - the operating-system layer.
 *
 * Portable code in libkob calls these instead of the platform: start-up,
 * the file handle and its readers, small string and memory wrappers, error
 * reporters, clocks, socket helpers and file mappings.  The thread wrappers
 * are in odr_pthread.h.  Nothing here exposes a platform type beyond POSIX.
 */
#ifndef KOB_ODR_H
#define KOB_ODR_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vsb;
struct vtclog;

/* ---- start-up ------------------------------------------------------------ */

/* The "odr" test log, opened by ODR_libinit and never closed. */
extern struct vtclog *odr_vl;

/*
 * The application directory that ODR_libinit enters, with its trailing
 * slash.  The library's default is the build's KOBDIAG_APP_DIR; a program
 * may point it elsewhere before calling ODR_libinit.
 */
extern const char *odr_appdir;

/*
 * Enter odr_appdir (a failure is the assertion "r == 0") and open the "odr"
 * test log.  flags is ignored.
 */
void ODR_libinit(int flags);

/* ---- the file handle ------------------------------------------------------ */

#define ODR_FILE_HANDLE 2
#define ODR_HANDLE_MAGIC 0xff332211

/* The file record behind a handle. */
struct odr_file {
    uint32_t magic; /* ODR_HANDLE_MAGIC */
    int fd;         /* -1 once closed */
};

/* A two-level handle: the outer record names its file record and kind. */
typedef struct odr_handle {
    struct odr_file *fp;
    int type; /* ODR_FILE_HANDLE */
} ODR_HANDLE;

/* Close the descriptor (unless already -1) and free both records. */
void ODR_CloseHandle(ODR_HANDLE *fd);

/* ---- readers --------------------------------------------------------------- */

/*
 * Read one line byte by byte into buf, newline and a NUL included.  Returns
 * the bytes stored counting both (a two-character line gives 4), or -1: at
 * end of file or on a read error (after "ODR_read() error\n" on standard
 * error; a begun line is lost), or with errno ENOBUFS when buflen bytes came
 * without a newline.  Trap: a line plus newline may take at most buflen - 2
 * bytes; one more fails the assertion "off < buflen".
 */
int ODR_readline(int fd, char *buf, int buflen);

/*
 * Read a whole file (at most maxlen bytes; -1 for no limit) into a new,
 * finished buffer that the caller deletes.  NULL when the file cannot be
 * opened.
 */
struct vsb *ODR_readFile(const char *path, int maxlen);

/* ---- wrappers ---------------------------------------------------------------- */

/* The system's memory page size: 4096 on x86-64 Linux, 16384 on Apple silicon. */
int ODR_getpagesize(void);
char *ODR_strdup(const char *s);
int ODR_strcasecmp(const char *s1, const char *s2);
int ODR_strncasecmp(const char *s1, const char *s2, size_t len);
/* Note the argument order: source first, unlike ODR_memcpy. */
void ODR_bcopy(const void *src, void *dst, size_t len);
void *ODR_memcpy(void *dst, const void *src, size_t len);
void ODR_bzero(void *buf, size_t len);
ssize_t ODR_read(int fd, void *buf, size_t len);
ssize_t ODR_write(int fd, const void *buf, size_t len);
ssize_t ODR_recv(int sock, void *buf, size_t len, int flags);
/*
 * send with no flags, except that a peer that has gone away gives -1 with
 * EPIPE instead of the broken-pipe signal.
 */
ssize_t ODR_send(int sock, const void *buf, size_t len);
/* First occurrence of find in at most slen bytes of s, or NULL. */
char *ODR_strnstr(const char *s, const char *find, size_t slen);
double ODR_trunc(double x);
/* 1 when running as root.  The argument is ignored. */
int ODR_isadmin(void *unused);

void ODR_sleep(unsigned int seconds);
void ODR_msleep(unsigned int milliseconds);
char *ODR_strsep(char **stringp, const char *delim);
/*
 * Split text (modified in place) at delim into at most n tokens; empty
 * tokens are skipped but counted.  Returns the tokens taken, not counting the
 * one that filled the array.
 */
int ODR_strsplit(char **array, int n, char *text, const char *delim);
/* A new copy of at most max characters, or NULL. */
char *ODR_strndup(const char *s, size_t max);
time_t ODR_time(time_t *t);
char *ODR_ctime(const time_t *t);
int ODR_unlink(const char *path);

/* ---- error reporting and formatted output ---------------------------------- */

/* "Function: f:l\r\n<what> failed with error 0x..: <strerror>\n" on stderr. */
void ODR_showLastErrorNum_debug(const char *what, int error, const char *func, int line);
/* The same with the current errno. */
void ODR_showLastError_debug(const char *what, const char *func, int line);
/* Not needed on this platform: calling it is a programming error. */
void ODR_showWSALastError(void *unused) __attribute__((__noreturn__));
int ODR_vdprintf(int fd, const char *fmt, va_list ap) __attribute__((__format__(__printf__, 2, 0)));
int ODR_dprintf(int fd, const char *fmt, ...) __attribute__((__format__(__printf__, 2, 3)));
int ODR_snprintf(char *dst, size_t size, const char *fmt, ...)
    __attribute__((__format__(__printf__, 3, 4)));

/* ---- clocks ------------------------------------------------------------------- */

#define ODR_CLOCK_MONOTONIC 1
#define ODR_CLOCK_REALTIME 2

/*
 * Read a clock: bit 1 or 4 the monotonic clock (zero at its first use in the
 * process), else bit 2 the wall clock (microsecond resolution).  Any other
 * identifier fails "0 == 1".  Returns 0.
 */
int ODR_clock_gettime(int clock, struct timespec *ts);
/* gettimeofday; tz must be NULL. */
int ODR_gettimeofday(struct timeval *tv, void *tz);
/* Wall-clock seconds, as VTIM_real. */
double ODR_real(void);

/* ---- socket helpers -------------------------------------------------------------- */

/* FIONBIO on; a failure is the assertion "j == 0". */
void ODR_nonblocking(int fd);
/* SO_SNDTIMEO then SO_RCVTIMEO; 0, -1 (send failed) or -2 (receive failed). */
int ODR_setsocktimeout(int fd, double sec);
/*
 * Dotted netmask with `bits` leading ones, in a static buffer overwritten by
 * the next call.  Trap: 0 bits gives 255.255.255.255, like 32.
 */
char *ODR_prefix2mask(int bits);
/* Count of one bits of the mask, contiguous or not. */
int ODR_mask2prefix(const char *mask);
unsigned long ODR_strtoul(const char *str, char **end, int base);

/* ---- file mapping ------------------------------------------------------------------ */

/*
 * Open path and take a whole-file record lock (write lock when opened for
 * writing).  With O_NONBLOCK a lock held elsewhere fails at once (EAGAIN),
 * else it waits.  A path replaced between open and lock is opened again;
 * O_TRUNC is applied only once the lock is held.  Descriptor or -1/errno.
 */
int ODR_lockedopen(const char *path, int flags, ...);
/*
 * Create path afresh with size zero bytes; the locked descriptor or -1.
 * Trap: after a write error the descriptor is left open (and locked), and
 * nobody can close it, since -1 is all the caller gets.
 */
int ODR_zerofile(const char *path, uint64_t size);
/* ODR_zerofile into a new handle; exits with status 1 on failure. */
ODR_HANDLE *ODR_CreateFileMapping(const char *path, uint32_t size);
/* A handle for an existing file, or NULL (also while another holds it). */
ODR_HANDLE *ODR_OpenFileMapping(const char *path, ...);
/* A shared read-write view from offset 0; exits with status 255 on failure. */
void *ODR_MapViewOfFile(ODR_HANDLE *fd, uint64_t length);
/* msync synchronously; returns 1. */
int ODR_FlushViewOfFile(void *p, uint32_t size);
void ODR_UnmapViewOfFile(void *ptr, uint32_t size);
/* Close the handle's descriptor; free the records later with ODR_CloseHandle. */
void ODR_CloseViewOfFile(ODR_HANDLE *fd);

#ifdef __cplusplus
}
#endif

#endif
