// kobdiag's own option scanner.  It lives in its own namespace so that it
// never collides with the C library's scanner of the same names.

#ifndef KOBDIAG_GETOPT_H
#define KOBDIAG_GETOPT_H

namespace kobdiag {

extern int opterr;   // print diagnostics for bad options when non-zero
extern int optind;   // index of the next argument to scan
extern int optopt;   // the option character last looked at
extern int optreset; // when non-zero, the next call restarts at optind
extern char *optarg; // the argument of the option just returned

// Returns the next option letter, '?' for an unknown letter or a missing
// argument, ':' for a missing argument when optstring begins with ':', or -1
// at the end of the options.  Messages go to standard error without a program
// name in front.
int getopt(int argc, char *const argv[], const char *optstring);

} // namespace kobdiag

#endif
