// kobreportd's commands beside the server (user, token, purge, retriage,
// backup): one change to the database, or one copy of it, then exit; and
// the command line's shared helpers.

#ifndef KOBREPORTD_COMMANDS_H
#define KOBREPORTD_COMMANDS_H

#include <string>
#include <vector>

namespace kobreportd {

// Prints the usage text to standard error; returns the exit status 1.
int usage();
// Prints "kobreportd: what" to standard error; returns the exit status 1.
int fail(const std::string &what);
// A decimal number of at most max, and nothing else.
bool number(const char *s, unsigned long long max, unsigned long long &out);

// Runs the command the words name (argv without the program): user ...,
// token ..., purge ..., retriage, backup.  Returns the exit status.
int command(const std::vector<std::string> &args);

} // namespace kobreportd

#endif
