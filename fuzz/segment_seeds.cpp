// Writes the seed corpora of the segment walks: small segment files of the
// shapes the daemons publish, made by the segment writer.
//
//   segment_seeds <corpus-dir>     (writes <dir>/vsm_walk, vsl_walk, vsc_walk)

#include <cstdio>
#include <string>
#include <sys/stat.h>

#include "segwriter.h"

using kobseg::LogRing;
using kobseg::Segment;

namespace {

std::string root;

std::string seed(const char *target, const char *name) {
    std::string dir = root + "/" + target;
    (void)mkdir(dir.c_str(), 0755);
    return dir + "/" + name;
}

// Head word 8 is the fuzz targets' reader options (bit 0: from the start).
void fromStart(Segment &s) {
    s.put64(8, 1);
}

void logSegment(const std::string &path, bool wrapped, bool start) {
    Segment s(path, 1200);
    s.addChunk("Stat", "", "", 240);
    uint64_t log = s.addChunk("Log", "", "", 512);
    LogRing ring(s, log, 7);
    ring.append(1, 10, kobseg::sideA, "hello");
    ring.append(2, 11, kobseg::sideB, "a longer payload\n");
    ring.append(60, 12, kobseg::sideA | kobseg::sideB, "");
    if (wrapped) {
        ring.wrap();
        ring.append(3, 13, 0, "after the wrap");
    }
    if (start)
        fromStart(s);
}

void counterSegment(const std::string &path, int blocks) {
    Segment s(path, 1024);
    for (int b = 0; b < blocks; b++) {
        uint64_t c = s.addChunk("Stat", "", b == 0 ? "" : "second", 240);
        for (unsigned i = 0; i < 30; i++)
            s.setCounter(c, i, 1000u * b + i);
    }
    s.addChunk("Stat", "other", "", 16);
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 2) {
        fprintf(stderr, "usage: segment_seeds <corpus-dir>\n");
        return 2;
    }
    root = argv[1];
    { Segment s(seed("vsm_walk", "head-only"), 64); }
    {
        Segment s(seed("vsm_walk", "chunks"), 768);
        s.addChunk("Log", "", "", 64);
        s.addChunk("Stat", "", "", 240);
        s.addChunk("Stat", "x", "ident", 8);
    }
    {
        Segment s(seed("vsm_walk", "rebuilding"), 256, 0);
        s.addChunk("Log", "", "", 32);
    }
    logSegment(seed("vsl_walk", "ring"), false, true);
    logSegment(seed("vsl_walk", "ring-wrapped"), true, true);
    logSegment(seed("vsl_walk", "ring-at-end"), false, false);
    counterSegment(seed("vsc_walk", "one-block"), 1);
    counterSegment(seed("vsc_walk", "two-blocks"), 2);
    return 0;
}
