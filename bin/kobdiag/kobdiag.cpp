// kobdiag: start-up, options, the run sequence and the client log dumps.

#include "kobdiag.h"

#include <cstdio>
#include <cstdlib>

#include "kobdiag_assert.h"
#include "kobdiag_config.h"
#include "kobdiag_getopt.h"
#include "odr.h"
#include "vas.h"
#include "vsb.h"
#include "vtc_log.h"

namespace {

[[noreturn]] void usage(void) {
    fprintf(stderr, "usage: kobdiag [options]\n");
    fprintf(stderr, "    %-28s # %s\n", "-m \"msg\"", "Adds some comments");
    fprintf(stderr, "    %-28s # %s\n", "-o", "Outputs to the file");
    fprintf(stderr, "    %-28s # %s\n", "-u username", "Sets the KOBVANE username");
    exit(1);
}

} // namespace

void dia_Init(void) {
    dia_msg = vsb_newauto();
    DIA_ASSERT_AT(dia_msg != nullptr, "(dia_msg) != 0", 132);
    dia_vl = vtc_logopen("dia", nullptr);
    DIA_ASSERT_AT(dia_vl != nullptr, "(dia_vl) != 0", 135);
}

int main(int argc, char *argv[]) {
    const char *message = nullptr;
    const char *username = nullptr;
    int outputToFile = 0;

    int ch;
    while ((ch = kobdiag::getopt(argc, argv, "m:ou:")) != -1) {
        switch (ch) {
        case 'm':
            // Used as the name of a file whose contents are sent.
            message = kobdiag::optarg;
            break;
        case 'o':
            // A toggle: -o twice uploads again.
            outputToFile = 1 - outputToFile;
            break;
        case 'u':
            username = kobdiag::optarg;
            break;
        default:
            usage();
        }
    }
    // Operands after the options are never read.
    argc -= kobdiag::optind;
    argv += kobdiag::optind;
    (void)argc;
    (void)argv;
    (void)message;
    (void)username;
    (void)outputToFile;

    // Test-log and assertion lines go to standard output; keep them whole
    // and in order even when the process ends by abort.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    odr_appdir = KOBDIAG_APP_DIR;
    ODR_libinit(0);
    dia_Init();
    LVA_Init();
    VAS_Init();
    DIA_writepid();
    return 0;
}
