// kobstat: show a daemon's interface counters.
//
//   kobstat [-n instance] [-1] [--prometheus]
//
// Prints the thirty counters with their names, values, rates per second and
// short descriptions, refreshing once a second (redrawing the screen on a
// terminal), or once with -1.  A rate needs two samples, so the first
// screen and -1 show "-" in its place.  --prometheus prints them once in
// Prometheus' text format, for a node exporter's textfile collector or a
// scrape through a small wrapper.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <getopt.h>
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

const char usageText[] = "usage: kobstat [-n instance] [-1] [--prometheus]\n"
                         "  -n instance  segment to read: .kobvane.vsm (default), .kobflow.vsm,\n"
                         "               .kobrun.vsm, in the current directory\n"
                         "  -1           print the counters once and exit\n"
                         "  --prometheus print them once in Prometheus' text format and exit\n";

[[noreturn]] void usage() {
    fputs(usageText, stderr);
    exit(1);
}

struct Row {
    std::string name;
    uint64_t value;
    const char *sdesc;
    std::string counter, ident; // the table's name, and the chunk's ident
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
    rows->push_back(
        {name, *pt->ptr, pt->desc->sdesc, pt->desc->name, std::string(pt->ident, identLen)});
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

// A metric name: kob_, the counter's name with anything Prometheus does not
// allow in a name as '_', and _total, which a counter's name ends with.
std::string metricName(const std::string &counter) {
    std::string out = "kob_";
    for (char c : counter)
        out += (isalnum(static_cast<unsigned char>(c)) || c == '_') ? c : '_';
    return out + "_total";
}

// A label value or a help text, escaped as the text format wants.
std::string escaped(std::string_view s, bool quote) {
    std::string out;
    for (char c : s) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '"' && quote)
            out += "\\\"";
        else
            out += c;
    }
    return out;
}

// Each counter once, with HELP and TYPE, then its samples: the instance
// as a label, and the chunk's ident where it has one.
void printPrometheus(const std::vector<Row> &rows, const char *instance) {
    std::vector<std::string> order;
    std::map<std::string, std::vector<const Row *>> byName;
    for (const Row &r : rows) {
        auto &v = byName[r.counter];
        if (v.empty())
            order.push_back(r.counter);
        v.push_back(&r);
    }
    std::string out;
    for (const auto &counter : order) {
        std::string name = metricName(counter);
        const auto &samples = byName[counter];
        out += "# HELP " + name + " " + escaped(samples[0]->sdesc, false) + "\n";
        out += "# TYPE " + name + " counter\n";
        for (const Row *r : samples) {
            out += name + "{instance=\"" + escaped(instance, true) + "\"";
            if (!r->ident.empty())
                out += ",ident=\"" + escaped(r->ident, true) + "\"";
            out += "} " + std::to_string(r->value) + "\n";
        }
    }
    fwrite(out.data(), 1, out.size(), stdout);
}

} // namespace

int main(int argc, char **argv) {
    const char *instance = ".kobvane.vsm";
    bool once = false, prometheus = false;
    int opt;
    static const struct option longOptions[] = {{"prometheus", no_argument, nullptr, 'P'},
                                                {nullptr, 0, nullptr, 0}};
    while ((opt = getopt_long(argc, argv, "n:1", longOptions, nullptr)) != -1) {
        switch (opt) {
        case 'n':
            instance = optarg;
            break;
        case '1':
            once = true;
            break;
        case 'P':
            prometheus = once = true;
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
        if (prometheus) {
            if (i != 0) {
                fprintf(stderr, "kobstat: no counters in %s\n", vd->fname);
                VSM_Delete(vd);
                return 1;
            }
            printPrometheus(rows, instance);
            break;
        }
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
