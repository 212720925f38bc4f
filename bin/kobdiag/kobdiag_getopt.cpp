// kobdiag's own option scanner.

#include "kobdiag_getopt.h"

#include <cstdio>
#include <cstring>

namespace kobdiag {

int opterr = 1;
int optind = 1;
int optopt = 0;
int optreset = 0;
char *optarg = nullptr;

namespace {

char emptyText[] = "";
char *place = emptyText; // position inside the current option cluster

} // namespace

int getopt(int argc, char *const argv[], const char *optstring) {
    if (optreset != 0 || *place == '\0') {
        optreset = 0;
        if (optind >= argc) {
            place = emptyText;
            return -1;
        }
        place = argv[optind];
        if (*place != '-') {
            place = emptyText;
            return -1;
        }
        place++;
        optopt = static_cast<unsigned char>(*place);
        if (*place != '\0')
            place++;
        if (optopt == '-' && *place == '\0') {
            // "--" ends the options and is consumed.
            ++optind;
            place = emptyText;
            return -1;
        }
        if (optopt == 0) {
            // A lone "-" is an operand unless '-' itself is an option.
            place = emptyText;
            if (strchr(optstring, '-') == nullptr)
                return -1;
            optopt = '-';
        }
    } else {
        optopt = static_cast<unsigned char>(*place++);
    }

    const char *oli = optopt == ':' ? nullptr : strchr(optstring, optopt);
    if (oli == nullptr) {
        if (*place == '\0')
            ++optind;
        if (opterr != 0 && *optstring != ':')
            fprintf(stderr, "illegal option -- %c\n", optopt);
        return '?';
    }
    if (oli[1] != ':') {
        optarg = nullptr;
        if (*place == '\0')
            ++optind;
        return optopt;
    }
    if (*place != '\0') {
        optarg = place; // the argument is glued on, as in -mtext
    } else if (argc > ++optind) {
        optarg = argv[optind];
    } else {
        place = emptyText;
        if (*optstring == ':')
            return ':';
        if (opterr != 0)
            fprintf(stderr, "option requires an argument -- %c\n", optopt);
        return '?';
    }
    place = emptyText;
    ++optind;
    return optopt;
}

} // namespace kobdiag
