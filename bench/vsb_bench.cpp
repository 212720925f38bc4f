// String buffer and report channel throughput.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <fcntl.h>

#include "kobdiag.h"
#include "vsb.h"

namespace {

// 1 GiB appended in 100-byte pieces to one auto-extending buffer.
void BM_VsbBcat1GiB(benchmark::State &state) {
    const std::string piece(100, 'x');
    const size_t total = size_t{1} << 30;
    for (auto _ : state) {
        vsb *s = vsb_newauto();
        for (size_t n = 0; n + piece.size() <= total; n += piece.size())
            vsb_bcat(s, piece.data(), piece.size());
        vsb_finish(s);
        benchmark::DoNotOptimize(vsb_data(s));
        vsb_delete(s);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(total / piece.size() * piece.size()));
}
BENCHMARK(BM_VsbBcat1GiB)->Unit(benchmark::kMillisecond)->Iterations(3);

// Short formatted lines, as the test log and the report build them.
void BM_VsbPrintfShortLines(benchmark::State &state) {
    vsb *s = vsb_newauto();
    int64_t lines = 0;
    for (auto _ : state) {
        if (s->s_len > (size_t{1} << 24))
            vsb_clear(s);
        vsb_printf(s, "==> Testing UDP pass-through (%d of 5)\n", static_cast<int>(lines % 5) + 1);
        lines++;
    }
    state.SetItemsProcessed(lines);
    vsb_delete(s);
}
BENCHMARK(BM_VsbPrintfShortLines);

// One 64 MiB text through the report channel, standard error to /dev/null.
void BM_DiaPrintf64MiB(benchmark::State &state) {
    const std::string text(size_t{64} << 20, 'r');
    int saved = dup(2);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 2);
    close(devnull);
    for (auto _ : state) {
        dia_msg = vsb_newauto();
        DIA_printf("%s", text.c_str());
        benchmark::DoNotOptimize(dia_msg->s_len);
        vsb_delete(dia_msg);
    }
    dup2(saved, 2);
    close(saved);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_DiaPrintf64MiB)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

BENCHMARK_MAIN();
