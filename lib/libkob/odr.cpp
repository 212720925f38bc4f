// The operating-system layer: the portable part.  What differs between
// platforms (clocks, flag values) sits in the platform folder and is included
// before the code that uses it.

#include "odr.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vas.h"
#include "vsb.h"
#include "vtc_log.h"
#include "vtim.h"

#include <atomic>

// The platform's folder (linux/ or macosx/) is on the include path: CMake
// picks it.
#include "odr.inc"

namespace {

// The monotonic clock's scale and its tick count at first use (0: not yet).
// Two threads reading it for the first time together may both set the start;
// the later one wins, which only shifts the origin by the gap between them.
std::atomic<double> monoFactor{0.0};
std::atomic<uint64_t> monoStart{0};

} // namespace

extern "C" {

/* ---- start-up -------------------------------------------------------------------- */

struct vtclog *odr_vl;
const char *odr_appdir = KOB_DEFAULT_APP_DIR;

void ODR_libinit(int flags) {
    (void)flags;
    int r = chdir(odr_appdir);
    VAS_CHECK_LINE(r == 0, "r == 0", 585);
    odr_vl = vtc_logopen("odr", nullptr);
    VAS_CHECK_LINE(odr_vl != nullptr, "odr_vl != NULL", 588);
}

/* ---- the file handle ------------------------------------------------------- */

void ODR_CloseHandle(ODR_HANDLE *fd) {
    VAS_CHECK(fd->type == ODR_FILE_HANDLE, "fd->type == ODR_FILE_HANDLE");
    odr_file *tfp = fd->fp;
    VAS_CHECK(tfp->magic == ODR_HANDLE_MAGIC, "tfp->magic == ODR_HANDLE_MAGIC");
    if (tfp->fd != -1) {
        VAS_ZERO(close(tfp->fd));
        tfp->fd = -1;
    }
    free(tfp);
    free(fd);
}

/* ---- readers ------------------------------------------------------------------ */

int ODR_readline(int fd, char *buf, int buflen) {
    int off = 0;
    for (;;) {
        char c;
        ssize_t ret = ODR_read(fd, &c, 1);
        if (ret < 1) {
            fputs("ODR_read() error\n", stderr);
            return -1;
        }
        VAS_ASSERT(ret == 1);
        if (c == '\n') {
            buf[off++] = c;
            VAS_ASSERT(off < buflen);
            buf[off++] = '\0';
            // One spare byte after the terminator is demanded on purpose.
            VAS_ASSERT(off < buflen);
            return off;
        }
        buf[off++] = c;
        if (off == buflen) {
            errno = ENOBUFS;
            return -1;
        }
        VAS_ASSERT(off < buflen);
    }
}

vsb *ODR_readFile(const char *path, int maxlen) {
    FILE *fp = fopen(path, "r");
    if (fp == nullptr)
        return nullptr;
    vsb *vsb = vsb_newauto();
    VAS_NOTNULL(vsb);
    long long total = 0;
    while (!feof(fp)) {
        char chunk[1024];
        size_t n = fread(chunk, 1, sizeof chunk, fp);
        if (n == 0)
            break;
        if (maxlen != -1 && total + static_cast<long long>(n) >= maxlen) {
            (void)vsb_bcat(vsb, chunk, static_cast<size_t>(maxlen - total));
            break;
        }
        total += static_cast<long long>(n);
        (void)vsb_bcat(vsb, chunk, n);
    }
    vsb_finish(vsb);
    fclose(fp);
    return vsb;
}

/* ---- wrappers ---------------------------------------------------------------------- */

int ODR_getpagesize(void) {
    return static_cast<int>(sysconf(_SC_PAGESIZE));
}

char *ODR_strdup(const char *s) {
    return strdup(s);
}

int ODR_strcasecmp(const char *s1, const char *s2) {
    const unsigned char *a = reinterpret_cast<const unsigned char *>(s1);
    const unsigned char *b = reinterpret_cast<const unsigned char *>(s2);
    for (;; a++, b++) {
        int ca = tolower(*a);
        int cb = tolower(*b);
        if (ca != cb)
            return ca - cb;
        if (ca == '\0')
            return 0;
    }
}

int ODR_strncasecmp(const char *s1, const char *s2, size_t len) {
    const unsigned char *a = reinterpret_cast<const unsigned char *>(s1);
    const unsigned char *b = reinterpret_cast<const unsigned char *>(s2);
    for (; len > 0; len--, a++, b++) {
        int ca = tolower(*a);
        int cb = tolower(*b);
        if (ca != cb)
            return ca - cb;
        if (ca == '\0')
            return 0;
    }
    return 0;
}

void ODR_bcopy(const void *src, void *dst, size_t len) {
    memmove(dst, src, len);
}

void *ODR_memcpy(void *dst, const void *src, size_t len) {
    return memcpy(dst, src, len);
}

void ODR_bzero(void *buf, size_t len) {
    memset(buf, 0, len);
}

ssize_t ODR_read(int fd, void *buf, size_t len) {
    return read(fd, buf, len);
}

ssize_t ODR_write(int fd, const void *buf, size_t len) {
    return write(fd, buf, len);
}

ssize_t ODR_recv(int sock, void *buf, size_t len, int flags) {
    return recv(sock, buf, len, flags);
}

ssize_t ODR_send(int sock, const void *buf, size_t len) {
    return odrSendNoSignal(sock, buf, len);
}

char *ODR_strnstr(const char *s, const char *find, size_t slen) {
    char c = *find++;
    if (c == '\0')
        return const_cast<char *>(s);
    size_t len = strlen(find);
    for (;; s++, slen--) {
        // Step to the next byte equal to the pattern's first.
        for (;; s++, slen--) {
            if (slen < 1 || *s == '\0')
                return nullptr;
            if (*s == c)
                break;
        }
        if (len > slen - 1)
            return nullptr;
        if (strncmp(s + 1, find, len) == 0)
            return const_cast<char *>(s);
    }
}

double ODR_trunc(double x) {
    return trunc(x);
}

int ODR_isadmin(void *unused) {
    (void)unused;
    return geteuid() == 0 ? 1 : 0;
}

void ODR_sleep(unsigned int seconds) {
    sleep(seconds);
}

void ODR_msleep(unsigned int milliseconds) {
    usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

char *ODR_strsep(char **stringp, const char *delim) {
    char *s = *stringp;
    if (s == nullptr)
        return nullptr;
    char *end = s + strcspn(s, delim);
    if (*end == '\0') {
        *stringp = nullptr;
    } else {
        *end = '\0';
        *stringp = end + 1;
    }
    return s;
}

int ODR_strsplit(char **array, int n, char *text, const char *delim) {
    int i = 0;
    char **ap = array;
    // Every token lands in the next slot; only a non-empty one keeps it, so
    // the slot after the last token ends up NULL when there is room.
    while ((*ap = ODR_strsep(&text, delim)) != nullptr) {
        if (**ap != '\0' && ++ap >= array + n)
            break;
        i++;
    }
    return i;
}

char *ODR_strndup(const char *s, size_t max) {
    size_t len = strnlen(s, max);
    char *copy = static_cast<char *>(malloc(len + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, s, len);
    copy[len] = '\0';
    return copy;
}

time_t ODR_time(time_t *t) {
    return time(t);
}

char *ODR_ctime(const time_t *t) {
    return ctime(t);
}

int ODR_unlink(const char *path) {
    return unlink(path);
}

/* ---- error reporting and formatted output ----------------------------------------- */

void ODR_showLastErrorNum_debug(const char *what, int error, const char *func, int line) {
    char buf[1024];
    int l = snprintf(buf, sizeof buf, "Function: %s:%d\r\n%s failed with error %#x: %s", func, line,
                     what, error, strerror(error));
    // Compared unsigned: a formatting error fails as well as an overlong text.
    VAS_CHECK_LINE(static_cast<size_t>(l) < sizeof(buf), "l < sizeof(buf)", 158);
    fprintf(stderr, "%.*s\n", l, buf);
}

void ODR_showLastError_debug(const char *what, const char *func, int line) {
    ODR_showLastErrorNum_debug(what, errno, func, line);
}

void ODR_showWSALastError(void *unused) {
    (void)unused;
    printf("%s: TODO!\n", "ODR_showWSALastError");
    VAS_Fail(__func__, __FILE__, 611, "0 == 1", 0);
}

int ODR_vdprintf(int fd, const char *fmt, va_list ap) {
    return vdprintf(fd, fmt, ap);
}

int ODR_dprintf(int fd, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = ODR_vdprintf(fd, fmt, ap);
    va_end(ap);
    return r;
}

int ODR_snprintf(char *dst, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = vsnprintf(dst, size, fmt, ap);
    va_end(ap);
    return r;
}

/* ---- socket helpers ----------------------------------------------------------------- */

void ODR_nonblocking(int fd) {
    int i = 1;
    int j = ioctl(fd, FIONBIO, &i);
    VAS_ASSERT(j == 0);
}

int ODR_setsocktimeout(int fd, double sec) {
    struct timeval tv = VTIM_toTimeval(sec);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) != 0)
        return -1;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0)
        return -2;
    return 0;
}

char *ODR_prefix2mask(int bits) {
    // Modulo 32, so 0 bits wraps round to a full mask just as 32 does.
    unsigned shift = static_cast<unsigned>(32 - bits) % 32;
    uint32_t mask = (0xffffffffu >> shift) << shift;
    struct in_addr in;
    in.s_addr = htonl(mask);
    return inet_ntoa(in);
}

int ODR_mask2prefix(const char *mask) {
    return __builtin_popcount(inet_addr(mask));
}

unsigned long ODR_strtoul(const char *str, char **end, int base) {
    return strtoul(str, end, base);
}

/* ---- clocks ----------------------------------------------------------------------- */

int ODR_clock_gettime(int clock, struct timespec *ts) {
    if ((clock & (ODR_CLOCK_MONOTONIC | 4)) != 0) {
        if (monoStart.load(std::memory_order_relaxed) == 0) {
            monoFactor.store(odrTickToNanoseconds(), std::memory_order_relaxed);
            monoStart.store(odrTicks(), std::memory_order_relaxed);
        }
        uint64_t elapsed = odrTicks() - monoStart.load(std::memory_order_relaxed);
        double ns = static_cast<double>(elapsed) * monoFactor.load(std::memory_order_relaxed);
        ts->tv_sec = static_cast<time_t>(static_cast<int64_t>(ns * 1e-9));
        ts->tv_nsec = static_cast<long>(static_cast<uint64_t>(
            ns - static_cast<double>(static_cast<int64_t>(ts->tv_sec) * 1000000000)));
        return 0;
    }
    if ((clock & ODR_CLOCK_REALTIME) != 0) {
        struct timeval tv;
        VAS_CHECK(gettimeofday(&tv, nullptr) == 0, "gettimeofday(&tv, NULL) == 0");
        ts->tv_sec = tv.tv_sec;
        ts->tv_nsec = tv.tv_usec * 1000;
        return 0;
    }
    VAS_WRONG();
}

int ODR_gettimeofday(struct timeval *tv, void *tz) {
    VAS_CHECK(tz == nullptr, "tz == NULL");
    struct timeval mytv;
    int r = gettimeofday(&mytv, nullptr);
    if (r != -1)
        *tv = mytv;
    return r;
}

double ODR_real(void) {
    struct timespec ts;
    VAS_CHECK(ODR_clock_gettime(ODR_CLOCK_REALTIME, &ts) == 0,
              "ODR_clock_gettime(ODR_CLOCK_REALTIME, &ts) == 0");
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}
/* ---- file mapping --------------------------------------------------------------- */

int ODR_lockedopen(const char *path, int flags, ...) {
    flags &= ~odrOpenExclusiveLock;
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    struct flock lock = {};
    lock.l_type = (flags & O_ACCMODE) != 0 ? F_WRLCK : F_RDLCK;
    lock.l_whence = SEEK_SET;
    int cmd = (flags & O_NONBLOCK) != 0 ? F_SETLK : F_SETLKW;
    // Truncating before the lock is held would wipe a running holder's data.
    bool truncate = (flags & O_TRUNC) != 0;
    flags &= ~O_TRUNC;
    for (;;) {
        int fd = open(path, flags, mode);
        if (fd < 0)
            return -1;
        if (fcntl(fd, cmd, &lock) == -1) {
            int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        struct stat byName;
        if (stat(path, &byName) != 0) {
            // Removed while we waited for the lock: start over.
            close(fd);
            continue;
        }
        struct stat byFd;
        if (fstat(fd, &byFd) != 0) {
            int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        if (byName.st_dev != byFd.st_dev || byName.st_ino != byFd.st_ino) {
            // Replaced between our open and our lock: lock the new one.
            close(fd);
            continue;
        }
        if (truncate && ftruncate(fd, 0) != 0) {
            int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        return fd;
    }
}

int ODR_zerofile(const char *path, uint64_t size) {
    (void)unlink(path);
    int fd =
        ODR_lockedopen(path, O_RDWR | O_NONBLOCK | O_CREAT | O_EXCL | odrOpenExclusiveLock, 0644);
    if (fd < 0) {
        fprintf(stderr, "%s: Could not create %s: %s\n", "ODR_zerofile", path, strerror(errno));
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    VAS_ASSERT(flags != -1);
    flags &= ~O_NONBLOCK;
    VAS_CHECK(fcntl(fd, F_SETFL, flags) == 0, "(fcntl(fd, 4, flags)) == 0");
    static const char zeros[65536] = {};
    for (uint64_t written = 0; written < size;) {
        ssize_t n = write(fd, zeros, sizeof zeros);
        if (n < 1) {
            fprintf(stderr, "Write error %s: %s\n", path, strerror(errno));
            return -1;
        }
        written += static_cast<uint64_t>(n);
    }
    // Whole blocks overshoot; cut back to the exact size.
    VAS_CHECK(ftruncate(fd, static_cast<off_t>(size)) == 0, "(ftruncate(fd, (off_t)size)) == 0");
    return fd;
}

namespace {

ODR_HANDLE *newFileHandle(int fd) {
    auto ofp = static_cast<ODR_HANDLE *>(calloc(1, sizeof(ODR_HANDLE)));
    VAS_CHECK(ofp != nullptr, "ofp != NULL");
    auto tfp = static_cast<odr_file *>(calloc(1, sizeof(odr_file)));
    VAS_CHECK(tfp != nullptr, "tfp != NULL");
    tfp->magic = ODR_HANDLE_MAGIC;
    tfp->fd = fd;
    ofp->fp = tfp;
    ofp->type = ODR_FILE_HANDLE;
    return ofp;
}

} // namespace

ODR_HANDLE *ODR_CreateFileMapping(const char *path, uint32_t size) {
    int fd = ODR_zerofile(path, size);
    if (fd < 0)
        exit(1);
    return newFileHandle(fd);
}

ODR_HANDLE *ODR_OpenFileMapping(const char *path, ...) {
    // A non-blocking write lock: fails at once while the creator holds it.
    int fd = ODR_lockedopen(path, O_RDWR | O_NONBLOCK | odrOpenExclusiveLock, 0644);
    if (fd < 0)
        return nullptr;
    return newFileHandle(fd);
}

void *ODR_MapViewOfFile(ODR_HANDLE *fd, uint64_t length) {
    VAS_CHECK(fd->type == ODR_FILE_HANDLE, "fd->type == ODR_FILE_HANDLE");
    odr_file *tfp = fd->fp;
    VAS_CHECK(tfp->magic == ODR_HANDLE_MAGIC, "tfp->magic == ODR_HANDLE_MAGIC");
    void *p =
        mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, odrMapFlags, tfp->fd, 0);
    if (p == MAP_FAILED) {
        fprintf(stderr, "Mmap error: %s\n", strerror(errno));
        exit(-1);
    }
    return p;
}

int ODR_FlushViewOfFile(void *p, uint32_t size) {
    VAS_CHECK(msync(p, size, MS_SYNC) == 0, "(msync(p, size, 0x0010)) == 0");
    return 1;
}

void ODR_UnmapViewOfFile(void *ptr, uint32_t size) {
    VAS_ZERO(munmap(ptr, size));
}

void ODR_CloseViewOfFile(ODR_HANDLE *fd) {
    VAS_CHECK(fd->type == ODR_FILE_HANDLE, "fd->type == ODR_FILE_HANDLE");
    odr_file *tfp = fd->fp;
    VAS_CHECK(tfp->magic == ODR_HANDLE_MAGIC, "tfp->magic == ODR_HANDLE_MAGIC");
    VAS_ZERO(close(tfp->fd));
    tfp->fd = -1;
}

} // extern "C"
