// Test-log throughput beside a bare fputs of the same text under one mutex.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include "vtc_log.h"
#include "vtim.h"

namespace {

// Standard output to /dev/null while a benchmark runs.  Only the first thread
// switches it; the others wait at the loop's start barrier until it has.
struct QuietStdout {
    int saved = -1;
    explicit QuietStdout(const benchmark::State &state) {
        if (state.thread_index() != 0)
            return;
        fflush(stdout);
        saved = dup(1);
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        close(devnull);
    }
    ~QuietStdout() {
        if (saved < 0)
            return;
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
    }
};

vtclog *sharedLog() {
    static vtclog *vl = vtc_logopen("bench", nullptr);
    return vl;
}

std::mutex bareMutex;

void BM_VtcLog(benchmark::State &state) {
    QuietStdout quiet(state);
    vtclog *vl = sharedLog();
    for (auto _ : state)
        vtc_log(vl, 3, "Sending a user problem report.");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_VtcLog)->Threads(1)->Threads(8)->UseRealTime();

// The same 49 bytes the log writes for each line above, through the same
// stream to the same /dev/null.
void BM_BareFputsUnderMutex(benchmark::State &state) {
    QuietStdout quiet(state);
    for (auto _ : state) {
        std::lock_guard<std::mutex> lock(bareMutex);
        fputs("###    1.23 bench Sending a user problem report.\n", stdout);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareFputsUnderMutex)->Threads(1)->Threads(8)->UseRealTime();

// The floor under any test log: a line carries the seconds since the first
// one, so each costs at least one read of the wall clock besides the write.
void BM_BareFputsUnderMutexAndClock(benchmark::State &state) {
    QuietStdout quiet(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(VTIM_now());
        std::lock_guard<std::mutex> lock(bareMutex);
        fputs("###    1.23 bench Sending a user problem report.\n", stdout);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareFputsUnderMutexAndClock)->Threads(1)->Threads(8)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
