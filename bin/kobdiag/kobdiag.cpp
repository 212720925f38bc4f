// kobdiag: start-up, options, the run sequence and the client log dumps.

#include "kobdiag.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#if __has_include(<malloc.h>)
#include <malloc.h>
#endif
#include <unistd.h>

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

constexpr const char *kPackageVersion = KOBDIAG_PACKAGE_VERSION;
constexpr int kPublicConnectSeconds = 15;
constexpr int kIntranetConnectSeconds = 1;
constexpr int kIntranetPort = 8081;
constexpr int kPassThroughPort = 10007;

// One client log in the report: the label says which stream the block came
// from, and a missing file is named rather than skipped.  The file is read
// straight into the result, which was made large enough for both.
void dia_appendLog(struct vsb *res, const char *name, FILE *log, const char *label) {
    if (log == nullptr) {
        (void)vsb_printf(res, "No %s exists\n", name);
        return;
    }
    (void)vsb_cat(res, label);
    size_t before = res->s_len;
    dia_readStream(res, log);
    (void)fclose(log);
    if (res->s_len == before)
        (void)vsb_cat(res, "Empty file.\n");
}

} // namespace

struct vsb *DIA_readLogs(const char *out, const char *err) {
    FILE *outLog = fopen(out, "r");
    FILE *errLog = fopen(err, "r");
    long long want = 64;
    for (FILE *fp : {outLog, errLog})
        if (fp != nullptr)
            want += dia_fileSize(fp);
    // Built where the report will hold it, so that printing it copies
    // nothing; the storage stays the report's.
    size_t room = 0;
    char *tail = dia_reportTail(static_cast<size_t>(want), &room);
    struct vsb *res =
        tail != nullptr ? vsb_new(nullptr, tail, static_cast<int>(room < INT_MAX ? room : INT_MAX),
                                  VSB_AUTOEXTEND)
                        : vsb_new(nullptr, nullptr, want < INT_MAX / 2 ? static_cast<int>(want) : 0,
                                  VSB_AUTOEXTEND);
    if (res == nullptr)
        res = vsb_newauto(); // too much at once: let it grow as far as it can
    DIA_ASSERT_AT(res != nullptr, "(res) != 0", 76);
    dia_appendLog(res, out, outLog, "[STDOUT]\n");
    dia_appendLog(res, err, errLog, "[STDERR]\n");
    vsb_finish(res);
    return res;
}

void dumpKobvaneLogFiles(void) {
    static const struct {
        const char *heading;
        const char *out;
        const char *err;
        int line;
    } programs[] = {
        {"==> Dumping KOBVANE log files\n", "kobvane_stdout.txt", "kobvane_stderr.txt", 108},
        {"==> Dumping KOBRUN log files\n", "kobrun_stdout.txt", "kobrun_stderr.txt", 114},
        {"==> Dumping KOBFLOW log files\n", "kobflow_stdout.txt", "kobflow_stderr.txt", 120},
    };
    for (const auto &p : programs) {
        DIA_printf("%s", p.heading);
        struct vsb *out = DIA_readLogs(p.out, p.err);
        DIA_ASSERT_AT(out != nullptr, "(out) != 0", p.line);
        // "%.*s" stops at a zero byte, so a log holding one is shown up to it.
        DIA_printf("%.*s", vsb_len(out), vsb_data(out));
        vsb_delete(out);
    }
}

void MTU_test(const char *addr) {
    (void)addr;
}

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

    // Test-log and assertion lines go to standard output; keep them whole
    // and in order even when the process ends by abort.
    setvbuf(stdout, nullptr, _IOLBF, 0);
#ifdef M_MMAP_MAX
    // The client logs are read into the report's own tail; a file that
    // cannot be (the -m message, a log that grew while it was read) passes
    // through a block of its own.  The allocator would map such a block
    // afresh and give it back when freed, so that every byte landed in new,
    // zeroed memory; from the heap, a freed block serves the next one and
    // the report grows in place at its top.
    (void)mallopt(M_MMAP_MAX, 0);
    (void)mallopt(M_TRIM_THRESHOLD, INT_MAX);
#endif

    odr_appdir = KOBDIAG_APP_DIR;
    ODR_libinit(0);
    dia_Init();
    LVA_Init();
    VAS_Init();
    DIA_writepid();

    // One fixed sequence: no result changes its course.
    DIA_printf("This program diagnoses your network and system status and send the result to\n"
               "the KOBVANE main server.\n");
    DIA_printf("\n");
    time_t now = time(nullptr);
    // ctime's text ends in its own line feed, so an empty line follows.
    DIA_printf("==> Timestamp: %s\n", ctime(&now));
    if (username != nullptr)
        DIA_printf("==> Username: %s\n", username);
    DIA_printf("==> Package Version: %s\n", kPackageVersion);
    DIA_printf("==> OS Version: %s\n", DIA_getOSVersion());

    DIA_dumpNetworkStatus();

    for (int i = 1; i <= 5; i++) {
        DIA_printf("==> Testing UDP pass-through (%d of 5)\n", i);
        (void)PIN_udp(KOBDIAG_PASSTHROUGH_ADDR, kPassThroughPort);
    }
    DIA_printf("==> Checks a connection to authentication server.\n");
    (void)PIN_tcp(KOBDIAG_AUTH_ADDR, 80, kPublicConnectSeconds);
    DIA_printf("==> Checks a connection to authentication server (old).\n");
    (void)PIN_tcp(KOBDIAG_KTIDC_ADDR, 10009, kPublicConnectSeconds);
    DIA_printf("==> Testing TCP pass-through to port 80\n");
    (void)PIN_tcp(KOBDIAG_KTIDC_ADDR, 80, kPublicConnectSeconds);
    DIA_printf("==> Testing TCP pass-through to port 443\n");
    (void)PIN_tcp(KOBDIAG_KTIDC_ADDR, 443, kPublicConnectSeconds);
    DIA_printf("==> Testing TCP pass-through to port 10007\n");
    (void)PIN_tcp(KOBDIAG_PASSTHROUGH_ADDR, 10007, kPublicConnectSeconds);
    DIA_printf("==> Testing TCP pass-through to port 10008 (KR - KT2)\n");
    (void)PIN_tcp(KOBDIAG_PASSTHROUGH_ADDR, 10008, kPublicConnectSeconds);
    DIA_printf("==> Testing TCP pass-through to port 10008 (JP - Amazon)\n");
    (void)PIN_tcp(KOBDIAG_JP_ADDR, 10008, kPublicConnectSeconds);

    DIA_printf("==> Testing traceroute to KOBVANE KT IDC node.\n");
    TRE_traceroute(KOBDIAG_KTIDC_ADDR);

    DIA_printf("==> Testing MTU to KOBVANE Asia (S. Korea - KT IDC)\n");
    MTU_test(KOBDIAG_KTIDC_ADDR);
    DIA_printf("==> Testing MTU to KOBVANE US West(N. California)\n");
    MTU_test(KOBDIAG_USWEST_ADDR);
    DIA_printf("==> Testing MTU to KOBVANE Asia (Singapore)\n");
    MTU_test(KOBDIAG_SG_ADDR);
    DIA_printf("==> Testing MTU to KOBVANE Asia (Tokyo)\n");
    MTU_test(KOBDIAG_JP_ADDR);
    DIA_printf("==> Testing MTU to KOBVANE Asia (S. Korea - HCLC IDC)\n");
    MTU_test(KOBDIAG_HCLC_ADDR);

    // The gateways answer at once or not at all, so a second is enough.
    for (const char *gw : {KOBDIAG_INTRANET_ADDR_1, KOBDIAG_INTRANET_ADDR_2,
                           KOBDIAG_INTRANET_ADDR_3, KOBDIAG_INTRANET_ADDR_4}) {
        DIA_printf("==> Testing to the intranet %s:%d\n", gw, kIntranetPort);
        (void)PIN_tcp(gw, kIntranetPort, kIntranetConnectSeconds);
    }

    dumpKobvaneLogFiles();

    if (outputToFile) {
        vsb_finish(dia_msg);
        DIA_writeFile(dia_msg);
        return 0;
    }

    int countdown = 10;
    DIA_printf("\n");
    DIA_printf("==> All tests had done now and will send the report to KOBVANE\n"
               "    server after %d seconds.\n",
               countdown);
    // CTRL-c during the wait ends the process by the default action, before
    // anything is sent; the lines are part of the report.
    while (countdown > 0) {
        DIA_printf("==> Press CTRL-c if you want aborting this operation within %d secs\n",
                   countdown);
        countdown--;
        sleep(1);
    }
    vsb_finish(dia_msg);
    DIA_sendReport(dia_msg, username, message);
    return 0;
}
