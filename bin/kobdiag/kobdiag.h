// kobdiag: the network diagnostics tool.  Declarations shared by its units.

#ifndef KOBDIAG_H
#define KOBDIAG_H

#include <cstdarg>

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

/* ---- start-up (kobdiag.cpp) ------------------------------------------------------- */

void dia_Init(void);

#endif
