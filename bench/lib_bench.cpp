// Costs of the lock registry, the argument vector parser and the number
// parser.  The registry is set beside a bare platform mutex: its magic
// checks and the wrapper's indirections should keep an uncontended
// lock/unlock pair within twice the bare pair.

#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "lck.h"
#include "vav.h"
#include "vnum.h"

namespace {

// glibc takes a cheaper, non-atomic path for mutexes while a process has
// never had a second thread, and the mark stays once one was started.  A lock
// registry lives in threaded programs, so each lock benchmark runs twice:
// first in the still single-threaded process (threaded:0, registered first),
// then with one more thread parked for its duration (threaded:1).
class ParkedThread {
  public:
    explicit ParkedThread(bool wanted) {
        if (!wanted)
            return;
        if (pipe(fds_) != 0)
            abort();
        thread_ = std::thread([fd = fds_[0]] {
            char c;
            (void)!read(fd, &c, 1);
        });
    }
    ~ParkedThread() {
        if (!thread_.joinable())
            return;
        (void)!write(fds_[1], "x", 1);
        thread_.join();
        close(fds_[0]);
        close(fds_[1]);
    }
    ParkedThread(const ParkedThread &) = delete;
    ParkedThread &operator=(const ParkedThread &) = delete;

  private:
    int fds_[2] = {-1, -1};
    std::thread thread_;
};

void BM_PthreadMutexLockUnlock(benchmark::State &state) {
    ParkedThread parked(state.range(0) != 0);
    pthread_mutex_t mtx = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mtx);
        pthread_mutex_unlock(&mtx);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    pthread_mutex_destroy(&mtx);
}

void BM_OdrMutexLockUnlock(benchmark::State &state) {
    ParkedThread parked(state.range(0) != 0);
    ODR_pthread_mutex_t mtx;
    ODR_pthread_mutex_init(&mtx, nullptr);
    for (auto _ : state) {
        ODR_pthread_mutex_lock(&mtx);
        ODR_pthread_mutex_unlock(&mtx);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    ODR_pthread_mutex_destroy(&mtx);
}

void BM_LckLockUnlock(benchmark::State &state) {
    ParkedThread parked(state.range(0) != 0);
    static bool init = false;
    if (!init) {
        LCK_Init();
        init = true;
    }
    lck_diag_mask = 0;
    lck_stat st{};
    lock lck{};
    Lck_New(&lck, &st, "bench");
    for (auto _ : state) {
        Lck_Lock(&lck);
        Lck_Unlock(&lck);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    LCK_Delete(&lck);
}

BENCHMARK(BM_PthreadMutexLockUnlock)->ArgName("threaded")->Arg(0);
BENCHMARK(BM_OdrMutexLockUnlock)->ArgName("threaded")->Arg(0);
BENCHMARK(BM_LckLockUnlock)->ArgName("threaded")->Arg(0);
BENCHMARK(BM_PthreadMutexLockUnlock)->ArgName("threaded")->Arg(1);
BENCHMARK(BM_OdrMutexLockUnlock)->ArgName("threaded")->Arg(1);
BENCHMARK(BM_LckLockUnlock)->ArgName("threaded")->Arg(1);

// About 1 MiB of plain, quoted and escaped words.
std::string parseInput() {
    const std::string words = "plain \"quoted words\" esc\\x41ped \"tab\\there\" oct\\101al "
                              "\"say \\\"hi\\\"\" back\\\\slash line\\n ";
    std::string text;
    while (text.size() + words.size() <= 1 << 20)
        text += words;
    return text;
}

void BM_VavParse(benchmark::State &state) {
    const std::string text = parseInput();
    for (auto _ : state) {
        int argc;
        char **argv = VAV_Parse(text.c_str(), &argc, 0);
        benchmark::DoNotOptimize(argc);
        if (argv == nullptr || argv[0] != nullptr) {
            state.SkipWithError("parse failed");
            break;
        }
        VAV_FreeArgv(argv);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_VavParse)->Unit(benchmark::kMillisecond);

void BM_NumToBytes(benchmark::State &state) {
    const char *const inputs[] = {"512", "1.5m", "1 KB", "50%", "3gb", "0.9", "512x"};
    size_t i = 0;
    for (auto _ : state) {
        uint64_t v = 0;
        const char *e = NUM_toBytes(inputs[i], &v, 1000);
        benchmark::DoNotOptimize(e);
        benchmark::DoNotOptimize(v);
        if (++i == sizeof inputs / sizeof inputs[0])
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NumToBytes);

} // namespace

BENCHMARK_MAIN();
