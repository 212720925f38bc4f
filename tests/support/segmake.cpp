// segmake: leaves daemon-like segment files in a directory, for running the
// readers (koblog, kobstat) as whole programs outside the test framework,
// for example under valgrind.
//
//   segmake <dir>
//
// .kobvane.vsm gets counters and a log ring that has come round once;
// .kobflow.vsm gets two counter blocks and a ring with a record of every
// named tag.

#include <cstdio>
#include <string>

#include "segwriter.h"

using kobseg::LogRing;
using kobseg::Segment;

namespace {

void counters(Segment &s, const char *ident, uint64_t base) {
    uint64_t c = s.addChunk("Stat", "", ident, 30 * 8);
    for (unsigned i = 0; i < 30; i++)
        s.setCounter(c, i, base + 1000u * i);
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 2) {
        fprintf(stderr, "usage: segmake <dir>\n");
        return 2;
    }
    std::string dir = argv[1];

    Segment vane(dir + "/.kobvane.vsm", 1 << 16);
    counters(vane, "", 1);
    LogRing ring(vane, vane.addChunk("Log", "", "", 4096), 3);
    for (unsigned i = 0; i < 200; i++)
        ring.append(1 + i % 49, 100 + i, i % 3 == 0 ? kobseg::sideA : kobseg::sideB,
                    "record " + std::to_string(i) + (i % 7 == 0 ? "\twith\nescapes\\\x01" : ""));

    Segment flow(dir + "/.kobflow.vsm", 1 << 16);
    counters(flow, "", 7);
    counters(flow, "second", 9);
    LogRing flowRing(flow, flow.addChunk("Log", "", "", 8192), 1);
    for (unsigned tag = 0; tag < 256; tag += 5)
        flowRing.append(tag, tag, kobseg::sideA | kobseg::sideB, "tag " + std::to_string(tag));
    return 0;
}
