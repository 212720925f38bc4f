// The report channel, file reading, command capture, the report's delivery
// and the PID file.

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "kobdiag.h"
#include "kobdiag_assert.h"
#include "kobdiag_config.h"
#include "odr.h"
#include "vpf.h"
#include "vsb.h"
#include "vss.h"
#include "vtc_log.h"

struct vsb *dia_msg;
struct vtclog *dia_vl;

namespace {

// Show the text and append the same bytes to the report.  The caller has
// cut it at its first zero byte, as "%.*s" would, so what is shown and what
// is kept never differ.
void dia_emit(const char *p, size_t n) {
    (void)fwrite(p, 1, n, stderr);
    // Text that was read straight into the report's free tail (see
    // dia_reportTail) is already in place: it only needs counting.
    struct vsb *s = dia_msg;
    if (s != nullptr && p == s->s_buf + s->s_len && n < s->s_size - s->s_len &&
        (s->s_flags & (VSB_FINISHED | VSB_OVERFLOWED)) == 0) {
        s->s_len += n;
        return;
    }
    (void)vsb_bcat(dia_msg, p, n);
}

// A format that is one string conversion and nothing else: the client logs
// come through it whole, and copying them beats formatting them twice.
// Returns -1 when the format is any other, or the string is out of the
// formatter's range, so that the general path handles it.
int dia_lonestring(const char *fmt, va_list ap) {
    const bool precision = strcmp(fmt, "%.*s") == 0;
    if (!precision && strcmp(fmt, "%s") != 0)
        return -1;
    va_list aq;
    va_copy(aq, ap);
    int prec = precision ? va_arg(aq, int) : -1;
    const char *str = va_arg(aq, const char *);
    va_end(aq);
    if (str == nullptr)
        return -1;
    size_t n = prec < 0 ? strlen(str) : strnlen(str, static_cast<size_t>(prec));
    if (n > static_cast<size_t>(INT_MAX))
        return -1;
    dia_emit(str, n);
    return static_cast<int>(n);
}

} // namespace

int DIA_printf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int m = dia_lonestring(fmt, ap);
    if (m >= 0) {
        va_end(ap);
        return m;
    }
    va_list ap2;
    va_copy(ap2, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    char *p = n < 0 ? nullptr : static_cast<char *>(malloc(static_cast<size_t>(n) + 1));
    if (p == nullptr) {
        va_end(ap2);
        return -1;
    }
    m = vsnprintf(p, static_cast<size_t>(n) + 1, fmt, ap2);
    va_end(ap2);
    // The text is passed on with an explicit length, so a '%' in it is
    // shown and stored as it is.
    dia_emit(p, strnlen(p, static_cast<size_t>(m)));
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

char *dia_reportTail(size_t n, size_t *room) {
    constexpr size_t kGrowthStep = 0x20000; // the buffer's own step beyond 1 MiB
    struct vsb *s = dia_msg;
    if (s == nullptr || (s->s_flags & (VSB_FINISHED | VSB_OVERFLOWED)) != 0 ||
        (s->s_flags & VSB_DYNAMIC) == 0 || (s->s_flags & VSB_AUTOEXTEND) == 0)
        return nullptr;
    if (n > static_cast<size_t>(INT_MAX) - 1 - s->s_len)
        return nullptr; // beyond what the buffer can count
    size_t need = s->s_len + n + 1;
    if (need > s->s_size) {
        size_t size = (need + kGrowthStep - 1) / kGrowthStep * kGrowthStep;
        if (size > static_cast<size_t>(INT_MAX))
            size = static_cast<size_t>(INT_MAX);
        auto *buf = static_cast<char *>(realloc(s->s_buf, size));
        if (buf == nullptr)
            return nullptr;
        s->s_buf = buf;
        s->s_size = size;
    }
    *room = s->s_size - s->s_len;
    return s->s_buf + s->s_len;
}

/* ---- reading files and capturing commands ------------------------------------- */

long long dia_fileSize(FILE *fp) {
    struct stat st;
    if (fstat(fileno(fp), &st) != 0 || !S_ISREG(st.st_mode))
        return 0;
    return st.st_size;
}

void dia_readStream(struct vsb *vsb, FILE *fp) {
    // Straight from the file into the buffer's storage while it has room:
    // an unbuffered stream reads into the destination itself, so the bytes
    // are copied once, as a plain read would copy them.
    (void)setvbuf(fp, nullptr, _IONBF, 0);
    while (vsb_overflowed(vsb) == 0) {
        size_t room = vsb->s_size - 1 - vsb->s_len;
        if (room == 0)
            break;
        size_t n = fread(vsb->s_buf + vsb->s_len, 1, room, fp);
        vsb->s_len += n;
        if (n < room)
            return; // the end, or a read error: what was read stays
    }
    // The file outgrew the room it was given: let the buffer grow.
    char buf[1 << 16];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, fp)) > 0)
        (void)vsb_bcat(vsb, buf, n);
}

struct vsb *DIA_readFile(const char *path) {
    FILE *fp = fopen(path, "r");
    if (fp == nullptr)
        return nullptr;
    // Made at the file's size, so that it need not grow on the way.
    long long size = dia_fileSize(fp);
    int hint = size > 0 && size < INT_MAX / 2 ? static_cast<int>(size) + 1 : 0;
    struct vsb *vsb = vsb_new(nullptr, nullptr, hint, VSB_AUTOEXTEND);
    DIA_ASSERT_AT(vsb != nullptr, "(vsb) != 0", 64);
    // Bytes go in unchanged: a log may hold anything, zero bytes included.
    dia_readStream(vsb, fp);
    vsb_finish(vsb);
    (void)fclose(fp);
    return vsb;
}

void DIA_dumpCommand(const char *cmd) {
    // The captures are shell command lines compiled into the program.
    FILE *fp = popen(cmd, "r"); // NOLINT(cert-env33-c)
    if (fp == nullptr) {
        DIA_printf("_popen() error\n");
        return;
    }
    DIA_printf("==> Dumping the result of `%s'\n", cmd);
    char buf[1024];
    while (!feof(fp)) {
        if (fgets(buf, sizeof buf, fp) == nullptr) {
            // A failing pipe never reaches its end; stop rather than spin.
            if (ferror(fp))
                break;
            continue;
        }
        // A line longer than the buffer arrives in consecutive pieces, and
        // each is shown as it comes, so the report holds it whole.
        DIA_printf("%s", buf);
    }
    (void)pclose(fp);
}

void DIA_dumpNetworkStatus(void) {
    DIA_dumpCommand(KOBDIAG_CMD_IFCONFIG);
    DIA_dumpCommand(KOBDIAG_CMD_NETSTAT_AN);
    DIA_dumpCommand(KOBDIAG_CMD_NETSTAT_RN);
}

/* ---- delivery ---------------------------------------------------------------- */

const char *dia_report_host = KOBDIAG_REPORT_HOST;
int dia_report_port = KOBDIAG_REPORT_PORT;

namespace {

#define DIA_BOUNDARY "------kobvaneFormBoundaryj2U6RdY2ckKXjaso"
#define DIA_DELIMITER "--" DIA_BOUNDARY

constexpr double kReportConnectSeconds = 10.0;

// One write of the whole block.  A server that has gone away must end the
// process at the caller's assertion, not by a broken-pipe signal.
ssize_t dia_write(int fd, const char *p, int len) {
    return ODR_send(fd, p, static_cast<size_t>(len));
}

} // namespace

void DIA_sendReport(struct vsb *report, const char *username, const char *message) {
    vtc_log(dia_vl, 1, "Sending a user problem report.");

    char endpoint[1024];
    (void)snprintf(endpoint, sizeof endpoint, "%s:%d", dia_report_host, dia_report_port);
    // Only a socket or connect failure sets the error number.
    int err = 0;
    int errnum = 0;
    int fd = VSS_open(endpoint, &err, &errnum, kReportConnectSeconds);
    if (fd == -1) {
        vtc_log(dia_vl, 0, "VSS_open(2) error: %d %d", err, errnum);
        return;
    }

    struct vsb *vsb = vsb_newauto();
    DIA_ASSERT_AT(vsb != nullptr, "(vsb) != 0", __LINE__);
    // Contents go through "%.*s", which stops at a zero byte: the part is cut
    // there, and Content-Length, measured on the body as built, follows.
    if (vsb_done(report))
        (void)vsb_printf(vsb,
                         DIA_DELIMITER "\r\nContent-Disposition: form-data; name=\"desc\"\r\n\r\n"
                                       "%.*s\r\n",
                         vsb_len(report), vsb_data(report));
    if (username != nullptr)
        (void)vsb_printf(vsb,
                         DIA_DELIMITER "\r\nContent-Disposition: form-data; name=\"username\"\r\n"
                                       "\r\n%s\r\n",
                         username);
    if (message != nullptr) {
        // The comment is the contents of the file that -m names; the buffer
        // stays allocated until the process ends.
        struct vsb *why = DIA_readFile(message);
        if (why != nullptr)
            (void)vsb_printf(vsb,
                             DIA_DELIMITER "\r\nContent-Disposition: form-data; name=\"why\"\r\n"
                                           "\r\n%.*s\r\n",
                             vsb_len(why), vsb_data(why));
    }
    (void)vsb_cat(vsb, DIA_DELIMITER "--\r\n");
    vsb_finish(vsb);

    struct vsb *hdr = vsb_newauto();
    DIA_ASSERT_AT(hdr != nullptr, "(hdr) != 0", __LINE__);
    (void)vsb_printf(hdr,
                     "POST /report/problem.php HTTP/1.1\r\n"
                     "Connection: close\r\n"
                     "Content-Length: %zd\r\n"
                     "Content-Type: multipart/form-data; boundary=" DIA_BOUNDARY "\r\n"
                     "Host: %s\r\n"
                     "\r\n",
                     static_cast<ssize_t>(vsb_len(vsb)), dia_report_host);
    vsb_finish(hdr);

    // A refused connection still comes back from VSS_open as made; the
    // refusal shows here, as a failed write of the head.
    ssize_t l = dia_write(fd, vsb_data(hdr), vsb_len(hdr));
    DIA_ASSERT_AT(l == vsb_len(hdr), "l == vsb_len(hdr)", __LINE__);
    l = dia_write(fd, vsb_data(vsb), vsb_len(vsb));
    DIA_ASSERT_AT(l == vsb_len(vsb), "l == vsb_len(vsb)", __LINE__);

    // The answer is logged as it comes and not parsed: a failure answer
    // looks like success to the program.
    char buf[1024];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        vtc_log(dia_vl, 0, "%.*s", static_cast<int>(n), buf);

    vsb_delete(hdr);
    vsb_delete(vsb);
    // The connection closes with the process, moments later.
}

void DIA_writeFile(struct vsb *report) {
    FILE *fp = fopen("kobdiag_stdout.txt", "w+");
    DIA_ASSERT_AT(fp != nullptr, "(fp) != 0", 214);
    // The file is exactly the text shown on standard error: no header, no
    // trailing line, and no complaint when the disk is full.
    (void)fwrite(vsb_data(report), static_cast<size_t>(vsb_len(report)), 1, fp);
    (void)fflush(fp);
    (void)fclose(fp);
}
