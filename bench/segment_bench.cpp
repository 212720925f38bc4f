// Reading a daemon's log ring and counters: records per second through
// VSL_NextLog, without and with a tag filter, beside a bare loop that walks
// the same ring (the memory-scan limit); counter points per second through
// VSC_Iter.

#include <benchmark/benchmark.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

#include "segwriter.h"
#include "vsc.h"
#include "vsl.h"
#include "vsm.h"

namespace {

constexpr uint64_t ringBytes = 64ull << 20;
constexpr size_t payloadBytes = 64 - 8;

// One 64 MiB ring of 64-byte records (tags 1 to 4 in turn) and a counter
// block, in a segment file of a private directory that the readers open.
struct Fixture {
    Fixture() {
        char tmpl[] = "/tmp/segment_bench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            abort();
        dir = tmpl;
        if (chdir(dir.c_str()) != 0)
            abort();
        seg = std::make_unique<kobseg::Segment>(".kobvane.vsm", ringBytes + 4096);
        seg->setCounter(seg->addChunk("Stat", "", "", 240), 0, 1);
        kobseg::LogRing ring(*seg, seg->addChunk("Log", "", "", ringBytes), 1);
        std::string payload(payloadBytes, 'r');
        // Fill up to the last record that fits without wrapping.
        while (ring.pos() + 16 + 1 <= ring.words()) {
            ring.append(1 + records % 4, static_cast<uint32_t>(records), 0, payload);
            records++;
        }
    }
    ~Fixture() {
        seg->remove();
        if (chdir("/") == 0)
            rmdir(dir.c_str());
    }
    std::string dir;
    std::unique_ptr<kobseg::Segment> seg;
    uint64_t records = 0;
};

Fixture &fixture() {
    static Fixture f;
    return f;
}

VSM_data *openLog(bool suppressTag2) {
    VSM_data *vd = VSM_New();
    VSL_Arg(vd, 'n', ".kobvane.vsm");
    vd->vsl->from_start = 1;
    if (suppressTag2)
        vbit_set(vd->vsl->tags_suppressed, 2);
    return vd;
}

void readRing(benchmark::State &state, bool filter) {
    Fixture &f = fixture();
    VSM_data *vd = openLog(filter);
    uint64_t delivered = 0;
    for (auto _ : state) {
        uint32_t *p;
        while (VSL_NextLog(vd, &p, nullptr) == 1) {
            benchmark::DoNotOptimize(p[1]);
            delivered++;
        }
        // Back to the ring's start for the next pass.
        vd->vsl->ptr = vd->vsl->log_start + 1;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * f.records));
    state.counters["delivered"] =
        benchmark::Counter(static_cast<double>(delivered), benchmark::Counter::kIsRate);
    VSM_Delete(vd);
}

void BM_VslNextLog(benchmark::State &state) {
    readRing(state, false);
}

void BM_VslNextLogTagFilter(benchmark::State &state) {
    readRing(state, true);
}

// The same walk without the reader: marker test, record step, one word read.
void BM_BareRingWalk(benchmark::State &state) {
    Fixture &f = fixture();
    VSM_data *vd = openLog(false);
    uint32_t *p;
    VSL_NextLog(vd, &p, nullptr);
    const uint32_t *start = vd->vsl->log_start + 1, *end = vd->vsl->log_end;
    for (auto _ : state) {
        const uint32_t *q = start;
        while (q < end && *q != VSL_ENDMARKER) {
            benchmark::DoNotOptimize(q[1]);
            q += 2 + ((*q & 0xffffu) + 3) / 4;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * f.records));
    VSM_Delete(vd);
}

int sumPoint(void *priv, const VSC_point *pt) {
    if (pt != nullptr)
        *static_cast<uint64_t *>(priv) += *pt->ptr;
    return 0;
}

void BM_VscIter(benchmark::State &state) {
    fixture();
    VSM_data *vd = VSM_New();
    VSM_n_Arg(vd, ".kobvane.vsm");
    uint64_t sum = 0;
    for (auto _ : state)
        VSC_Iter(vd, sumPoint, &sum);
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * VSC_NCOUNTERS));
    VSM_Delete(vd);
}

} // namespace

BENCHMARK(BM_BareRingWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VslNextLog)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VslNextLogTagFilter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VscIter);

BENCHMARK_MAIN();
