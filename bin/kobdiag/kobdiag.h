// kobdiag: the network diagnostics tool.  Declarations shared by its units.

#ifndef KOBDIAG_H
#define KOBDIAG_H

#include <cstdarg>
#include <cstdint>
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

/* ---- start-up (kobdiag.cpp) ------------------------------------------------------- */

void dia_Init(void);

#endif
