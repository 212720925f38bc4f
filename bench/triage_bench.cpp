// Triage throughput: a report the size the lab's run makes (about 6 KB) and
// one of 384 MiB, six client logs of 64 MiB each.  Bytes per second are the
// report's bytes.

#include <benchmark/benchmark.h>

#include <string>

#include "kobtriage.h"
#include "reportgen.h"

namespace {

std::string logOf(size_t size, unsigned seed) {
    std::string s;
    s.reserve(size + 128);
    for (unsigned n = seed; s.size() < size; n++)
        s += "2026-11-21 10:00:00.123 [info] tunnel keepalive seq=" + std::to_string(n) +
             " rtt=12.5ms peer=192.0.2.7:10007\n";
    s.resize(size);
    s.back() = '\n';
    return s;
}

std::string reportWithLogs(size_t eachLog) {
    auto run = reportgen::healthyRun();
    unsigned seed = 0;
    for (auto &[name, text] : run.logs)
        text = logOf(eachLog, seed += 1000);
    return reportgen::report(run);
}

void triage(benchmark::State &state, const std::string &text) {
    for (auto _ : state) {
        auto r = kobtriage::parse(text);
        benchmark::DoNotOptimize(r.verdicts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
    state.counters["report_bytes"] = static_cast<double>(text.size());
}

void BM_TriageLabSizedReport(benchmark::State &state) {
    static const std::string text = reportWithLogs(500);
    triage(state, text);
}
BENCHMARK(BM_TriageLabSizedReport)->Unit(benchmark::kMicrosecond);

void BM_TriageLabSizedReportToJson(benchmark::State &state) {
    static const std::string text = reportWithLogs(500);
    for (auto _ : state) {
        auto j = kobtriage::toJson(kobtriage::parse(text));
        benchmark::DoNotOptimize(j.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_TriageLabSizedReportToJson)->Unit(benchmark::kMicrosecond);

void BM_Triage384MiBReport(benchmark::State &state) {
    static const std::string text = reportWithLogs(size_t{64} << 20);
    triage(state, text);
}
BENCHMARK(BM_Triage384MiBReport)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
