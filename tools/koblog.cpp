// koblog: print a daemon's log ring, one line per record.
//
//   koblog [-n instance] [-d] [--json]
//
// Without -d it prints only the records written after it started, as the
// daemon writes them, reopening the segment when it goes away or is
// rebuilt.  With -d it prints the ring from its start and exits at its end.
// With --json each record is one JSON object on a line of its own, for log
// shippers: the time it was read, the tag's number and name, the
// identifier, the side and the payload as text (invalid UTF-8 as U+FFFD).

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <ctime>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "segment_tool.h"
#include "vsl.h"
#include "vsm.h"

namespace {

const char usageText[] = "usage: koblog [-n instance] [-d] [--json]\n"
                         "  -n instance  segment to read: .kobvane.vsm (default), .kobflow.vsm,\n"
                         "               .kobrun.vsm, in the current directory\n"
                         "  -d           print the ring from its start and exit at its end\n"
                         "  --json       print each record as one JSON object\n";

[[noreturn]] void usage() {
    fputs(usageText, stderr);
    exit(1);
}

void printRecord(const uint32_t *p) {
    unsigned tag = VSL_TAG(p);
    char tagName[16];
    const char *name = VSL_tags[tag];
    if (name == nullptr) {
        snprintf(tagName, sizeof tagName, "Tag%u", tag);
        name = tagName;
    }
    unsigned side = VSL_SIDE(p);
    std::string line;
    char head[64];
    snprintf(head, sizeof head, "%-21s %10u %c%c ", name, VSL_ID(p), side & VSL_SIDE_A ? 'A' : '-',
             side & VSL_SIDE_B ? 'B' : '-');
    line = head;
    const char *data = VSL_DATA(p);
    for (unsigned i = 0; i < VSL_LEN(p); i++) {
        unsigned char c = static_cast<unsigned char>(data[i]);
        switch (c) {
        case '\\':
            line += "\\\\";
            break;
        case '\n':
            line += "\\n";
            break;
        case '\r':
            line += "\\r";
            break;
        case '\t':
            line += "\\t";
            break;
        default:
            if (c >= 0x20 && c < 0x7f) {
                line += static_cast<char>(c);
            } else {
                char esc[8];
                snprintf(esc, sizeof esc, "\\%03o", c);
                line += esc;
            }
        }
    }
    line += '\n';
    fwrite(line.data(), 1, line.size(), stdout);
}

// How many bytes the UTF-8 sequence at the start of s takes, and whether it
// is well formed (no overlong forms, no surrogates, nothing above U+10FFFF).
// An ill-formed one takes its longest well-formed beginning, at least one
// byte, which the writer shows as a single U+FFFD.
struct Utf8Step {
    size_t length;
    bool valid;
};

Utf8Step utf8Step(std::string_view s) {
    auto c = static_cast<unsigned char>(s[0]);
    size_t need = c >= 0xc2 && c <= 0xdf   ? 2
                  : c >= 0xe0 && c <= 0xef ? 3
                  : c >= 0xf0 && c <= 0xf4 ? 4
                                           : 0;
    if (need == 0)
        return {1, false};
    // The second byte's range rules out the overlong forms, the surrogates
    // and what lies beyond U+10FFFF.
    unsigned char lo = c == 0xe0 ? 0xa0 : c == 0xf0 ? 0x90 : 0x80;
    unsigned char hi = c == 0xed ? 0x9f : c == 0xf4 ? 0x8f : 0xbf;
    size_t k = 1;
    for (; k < need && k < s.size(); k++) {
        auto b = static_cast<unsigned char>(s[k]);
        if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xbf))
            break;
    }
    return {k, k == need};
}

// A JSON string: UTF-8 as it is, every byte of an invalid sequence taken
// as one U+FFFD, control characters escaped.  The readers link nothing but
// libkob, so this small writer stands in for a JSON library.
void jsonString(std::string &out, std::string_view s) {
    out += '"';
    size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (c < 0x20) {
                    char esc[8];
                    snprintf(esc, sizeof esc, "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
            }
            i++;
            continue;
        }
        Utf8Step step = utf8Step(s.substr(i));
        if (step.valid)
            out.append(s.substr(i, step.length));
        else
            out += "\xef\xbf\xbd";
        i += step.length;
    }
    out += '"';
}

void printJson(const uint32_t *p) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    gmtime_r(&ts.tv_sec, &tm);
    char when[40];
    size_t n = strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &tm);
    snprintf(when + n, sizeof when - n, ".%03ldZ", ts.tv_nsec / 1000000);
    unsigned tag = VSL_TAG(p), side = VSL_SIDE(p);
    std::string line = "{\"time\":\"";
    line += when;
    line += "\",\"tag\":" + std::to_string(tag) + ",\"tag_name\":";
    if (VSL_tags[tag])
        jsonString(line, VSL_tags[tag]);
    else
        line += "null";
    line += ",\"id\":" + std::to_string(VSL_ID(p)) + ",\"side\":\"";
    line += std::string(side & VSL_SIDE_A ? "A" : "") + (side & VSL_SIDE_B ? "B" : "");
    line += "\",\"payload\":";
    jsonString(line, std::string_view(VSL_DATA(p), VSL_LEN(p)));
    line += "}\n";
    fwrite(line.data(), 1, line.size(), stdout);
}

// The identity of the file a reader has open, to notice a new one.
bool fileId(const char *path, dev_t *dev, ino_t *ino) {
    struct stat st;
    if (stat(path, &st) != 0)
        return false;
    *dev = st.st_dev;
    *ino = st.st_ino;
    return true;
}

double monoNow() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

} // namespace

int main(int argc, char **argv) {
    const char *instance = ".kobvane.vsm";
    bool dump = false, json = false;
    int opt;
    static const struct option longOptions[] = {{"json", no_argument, nullptr, 'J'},
                                                {nullptr, 0, nullptr, 0}};
    while ((opt = getopt_long(argc, argv, "n:d", longOptions, nullptr)) != -1) {
        switch (opt) {
        case 'n':
            instance = optarg;
            break;
        case 'd':
            dump = true;
            break;
        case 'J':
            json = true;
            break;
        default:
            usage();
        }
    }
    if (optind != argc)
        usage();
    VSM_data *vd = segtool::openSegment("koblog", instance, segtool::Reader::Log);
    if (vd == nullptr)
        return 1;
    VSM_fantom vf;
    if (!VSM_Get(vd, &vf, "Log", nullptr, nullptr)) {
        fprintf(stderr, "koblog: no log in %s\n", vd->fname);
        VSM_Delete(vd);
        return 1;
    }
    dev_t dev = 0;
    ino_t ino = 0;
    (void)fileId(vd->fname, &dev, &ino);
    vd->vsl->from_start = dump ? 1 : 0;

    const uint32_t *last = nullptr;
    // A fresh reader delivers the records of a ring it has not seen from
    // the start, so following begins with reading up to the ring's end and
    // printing none of it: only records written after that are new.
    bool catchingUp = !dump;
    double lastCheck = monoNow();
    for (;;) {
        uint32_t *p;
        bool wasOpen = vd->head != nullptr;
        int i = VSL_NextLog(vd, &p, nullptr);
        if (!wasOpen && vd->head != nullptr)
            (void)fileId(vd->fname, &dev, &ino);
        if (i == 1 && catchingUp)
            continue;
        if (i == 1) {
            // From the start, the ring ends before it comes round again.
            if (dump && last != nullptr && p <= last)
                break;
            last = p;
            if (json)
                printJson(p);
            else
                printRecord(p);
            continue;
        }
        if (dump) {
            if (i < 0) {
                fflush(stdout);
                fprintf(stderr, "koblog: the log ring is inconsistent (%d)\n", i);
                VSM_Delete(vd);
                return 1;
            }
            break;
        }
        if (i == 0)
            catchingUp = false;
        fflush(stdout);
        if (i < 0) {
            // The writer has lapped us or the ring is damaged: start again
            // from its current end.
            fprintf(stderr, "koblog: the log ring is inconsistent (%d), starting again\n", i);
            VSM_Close(vd);
            VSL_Delete(vd);
            (void)VSL_Arg(vd, 'n', instance);
            catchingUp = true;
        }
        // A daemon that died without marking its segment leaves the old file
        // mapped and still: look for a new file now and then.
        double now = monoNow();
        if (now - lastCheck >= 1.0) {
            lastCheck = now;
            dev_t d;
            ino_t n;
            if (vd->head != nullptr && (!fileId(vd->fname, &d, &n) || d != dev || n != ino)) {
                VSM_Close(vd);
                VSL_Delete(vd);
                (void)VSL_Arg(vd, 'n', instance);
                catchingUp = true;
            }
        }
        struct timespec pause = {0, 20L * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    fflush(stdout);
    VSM_Delete(vd);
    return 0;
}
