// kobstat: show a daemon's interface counters.
//
//   kobstat [-n instance] [-1]
//
// Prints the thirty counters with their names, values, rates per second and
// short descriptions, refreshing once a second (redrawing the screen on a
// terminal), or once with -1.  A rate needs two samples, so the first
// screen and -1 show "-" in its place.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "segment_tool.h"
#include "vsc.h"
#include "vsm.h"

namespace {

const char usageText[] = "usage: kobstat [-n instance] [-1]\n"
                         "  -n instance  segment to read: .kobvane.vsm (default), .kobflow.vsm,\n"
                         "               .kobrun.vsm, in the current directory\n"
                         "  -1           print the counters once and exit\n";

[[noreturn]] void usage() {
    fputs(usageText, stderr);
    exit(1);
}

struct Row {
    std::string name;
    uint64_t value;
    const char *sdesc;
};

int collect(void *priv, const VSC_point *pt) {
    auto *rows = static_cast<std::vector<Row> *>(priv);
    // A rebuilt list starts again from its first point.
    if (pt == nullptr) {
        rows->clear();
        return 0;
    }
    std::string name;
    size_t identLen = strnlen(pt->ident, 64);
    if (identLen > 0)
        name.assign(pt->ident, identLen).append(".");
    name += pt->desc->name;
    rows->push_back({name, *pt->ptr, pt->desc->sdesc});
    return 0;
}

double monoNow() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void printRows(const std::vector<Row> &rows, const std::map<std::string, uint64_t> &prev,
               double elapsed) {
    printf("%-24s %20s %12s  %s\n", "COUNTER", "VALUE", "PER SECOND", "DESCRIPTION");
    for (const Row &r : rows) {
        char rate[32] = "-";
        auto it = prev.find(r.name);
        // A counter that went down belongs to a restarted daemon: no rate.
        if (it != prev.end() && elapsed > 0 && r.value >= it->second)
            snprintf(rate, sizeof rate, "%.1f",
                     static_cast<double>(r.value - it->second) / elapsed);
        printf("%-24s %20" PRIu64 " %12s  %s\n", r.name.c_str(), r.value, rate, r.sdesc);
    }
}

} // namespace

int main(int argc, char **argv) {
    const char *instance = ".kobvane.vsm";
    bool once = false;
    int opt;
    while ((opt = getopt(argc, argv, "n:1")) != -1) {
        switch (opt) {
        case 'n':
            instance = optarg;
            break;
        case '1':
            once = true;
            break;
        default:
            usage();
        }
    }
    if (optind != argc)
        usage();
    VSM_data *vd = segtool::openSegment("kobstat", instance, segtool::Reader::Counters);
    if (vd == nullptr)
        return 1;
    if (VSC_Main(vd) == nullptr) {
        fprintf(stderr, "kobstat: no counters in %s\n", vd->fname);
        VSM_Delete(vd);
        return 1;
    }

    bool terminal = isatty(STDOUT_FILENO) != 0;
    std::vector<Row> rows;
    std::map<std::string, uint64_t> prev;
    double prevTime = 0;
    for (bool first = true;; first = false) {
        rows.clear();
        int i = VSC_Iter(vd, collect, &rows);
        double now = monoNow();
        if (terminal)
            fputs("\033[H\033[2J", stdout);
        else if (!first)
            fputs("\n", stdout);
        if (i != 0) {
            if (once) {
                fprintf(stderr, "kobstat: no counters in %s\n", vd->fname);
                VSM_Delete(vd);
                return 1;
            }
            printf("kobstat: waiting for the counters of %s\n", vd->fname);
            prev.clear();
        } else {
            printRows(rows, prev, first ? 0 : now - prevTime);
            prev.clear();
            for (const Row &r : rows)
                prev[r.name] = r.value;
        }
        prevTime = now;
        fflush(stdout);
        if (once)
            break;
        sleep(1);
    }
    VSM_Delete(vd);
    return 0;
}
