// kobdiag: the network diagnostics tool.  Declarations shared by its units.

#ifndef KOBDIAG_H
#define KOBDIAG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sys/select.h>

struct vsb;
struct vtclog;
struct vpf_fh;

/* ---- report channel (kobdiag_report.cpp) --------------------------------- */

// The report buffer: every line shown to the user is also appended here.
extern struct vsb *dia_msg;
// The "dia" test log; the upload writes to it.
extern struct vtclog *dia_vl;

// Show the formatted text on standard error and append the same bytes to
// dia_msg.  Returns the characters produced, or -1 (nothing shown, nothing
// appended) when the temporary block cannot be had.
int DIA_printf(const char *fmt, ...) __attribute__((__format__(__printf__, 1, 2)));

// Always "skipped": no operating-system query is made.
const char *DIA_getOSVersion(void);

// The PID file handle, open (and locked) until the process ends.
extern struct vpf_fh *dia_pfh;

// Create, lock and fill the PID file in the application directory; a second
// running kobdiag makes this fail the assertion "dia_pfh != NULL".
void DIA_writepid(void);

/* ---- the "lva" log and the assertion module (kobdiag_larva.cpp) --------------- */

extern struct vtclog *lva_vl;
extern struct vsb *vas_vsb;
extern struct vtclog *vas_vl;

void LVA_Init(void);
// A stub that is never called: prints "LVA_sendReport: TODO" and aborts.
void LVA_sendReport(void *unused1, void *unused2) __attribute__((__noreturn__));

/* ---- probes (kobdiag_rtt.cpp) ------------------------------------------------------ */

// Send one byte "P" to the dotted IPv4 addr (not looked up), UDP port (low 16
// bits), and wait 3 s for a one-byte answer.  Returns the round trip in whole
// milliseconds (0 is a fast success), or -1 after "UDP: select timeout" or,
// for an answer that is not exactly one byte, "recvfrom error: <errno> <text>".
int PIN_udp(const char *addr, int port);

// Time a non-blocking TCP connect to addr:port, waiting up to timeout whole
// seconds.  Returns elapsed milliseconds or -1.  Trap: a refusal that comes
// after connect returned counts as an answer and is timed like a connection;
// timeout 0 reports a timeout unless the socket is writable at once.
int PIN_tcp(const char *addr, int port, int timeout);

// The low 16 bits of port in network byte order.
uint16_t pin_htons(int port);
// Whether fd is in set: bit fd % 32 of the set's 32-bit word fd / 32.
int pin_fd_isset(int fd, const fd_set *set);

/* ---- command capture (kobdiag_report.cpp, kobdiag_traceroute.cpp) --------------- */

// Run cmd through the shell and copy its standard output into the report
// under "==> Dumping the result of `cmd'", in pieces of at most 1,023 bytes
// as they are read.  Its standard error stays the program's own.  Prints
// "_popen() error" instead when no pipe can be made.
void DIA_dumpCommand(const char *cmd);

// Capture the interface list, the socket table and the routing table.
void DIA_dumpNetworkStatus(void);

// Capture a numeric traceroute of at most 15 hops to addr.  An address that
// does not fit the 1,024-byte command line fails "l < sizeof(buf)".
void TRE_traceroute(const char *addr);

// Takes the target and does nothing: the report keeps the MTU headings as
// placeholders for a test that is not carried out.
void MTU_test(const char *addr);

/* ---- client logs (kobdiag_report.cpp, kobdiag.cpp) ------------------------------- */

// The whole file, byte for byte, in a new finished buffer that the caller
// deletes; NULL when the file cannot be opened.  A read error ends the copy
// at what was read.
struct vsb *DIA_readFile(const char *path);

// The size of the regular file open on fp, or 0 when it has none to tell.
long long dia_fileSize(FILE *fp);

// Append what is left in fp to the open buffer, byte for byte, until the end
// of the file or a read error.  The stream is made unbuffered.
void dia_readStream(struct vsb *vsb, FILE *fp);

// Make room for n more bytes at the end of the open report buffer dia_msg
// and return where its free tail starts, with the tail's size (at least
// n + 1) in *room; NULL when the report cannot grow that far.  Text built
// there and then printed through DIA_printf is counted, not copied.  The
// tail holds only until the report is next appended to.
char *dia_reportTail(size_t n, size_t *room);

// Both files with their labels ("[STDOUT]", "[STDERR]", "Empty file.", or
// "No <name> exists" for a file that cannot be opened) in a new finished
// buffer that the caller deletes.  The buffer's text is built in the
// report's free tail when there is a report: print it, or copy it out,
// before anything else goes into the report.
struct vsb *DIA_readLogs(const char *out, const char *err);

// Print the stdout and stderr logs of kobvane, kobrun and kobflow from the
// working directory, each pair under its heading.
void dumpKobvaneLogFiles(void);

/* ---- delivery (kobdiag_report.cpp) ---------------------------------------------- */

// The problem-report server: host name (also the Host header) and port.
// Initialised from the build's settings; tests may point them elsewhere
// before calling DIA_sendReport.
extern const char *dia_report_host;
extern int dia_report_port;

// POST the report as a multipart form: "desc" (only when report is
// finished), "username" (when not NULL) and "why" (the contents of the file
// named by message, when it can be read).  The server's answer is copied to
// the "dia" log one record per read and never examined.  A connection that
// cannot be made within 10 s is one "VSS_open(2) error" record; a head or
// body not written whole fails "l == vsb_len(hdr)" or "l == vsb_len(vsb)".
void DIA_sendReport(struct vsb *report, const char *username, const char *message);

// Write the finished report to "kobdiag_stdout.txt" in the working
// directory, replacing any earlier one.  A file that cannot be opened fails
// "(fp) != 0"; write errors are not reported.
void DIA_writeFile(struct vsb *report);

/* ---- start-up (kobdiag.cpp) ------------------------------------------------------- */

void dia_Init(void);

#endif
