// Writing and reading the text format on generated documents of 10^5 and 10^6 elements
// (about 16 MB and 160 MB of text), and the memory that reading one takes.
#include "gen.h"

#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <map>
#include <string>

using namespace ostrevik;

namespace {

constexpr std::uint64_t kSeed = 11;

// The text of the generated document. The document itself is dropped once written: a server
// that loads a file holds nothing like it, and reading in a heap crowded by it measures the heap.
const std::string& text(std::size_t n) {
    static std::map<std::size_t, std::string> cache;
    auto it = cache.find(n);
    if (it == cache.end()) it = cache.emplace(n, serialize(bench::generateDocument(n, kSeed), 4)).first;
    return it->second;
}

// A field of /proc/self/status in kB ("VmRSS", "VmHWM"), or -1.
long statusKb(const char* field) {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long kb = -1;
    const std::size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, field, n) == 0 && line[n] == ':') kb = std::atol(line + n + 1);
    std::fclose(f);
    return kb;
}

// Resets the peak resident size to the current one, so that VmHWM afterwards tells the peak of
// what ran in between.
bool resetPeak() {
    std::FILE* f = std::fopen("/proc/self/clear_refs", "w");
    if (!f) return false;
    const bool ok = std::fputs("5", f) >= 0;
    return std::fclose(f) == 0 && ok;
}

void textWrite(benchmark::State& state) {
    const Document& doc = bench::cachedDocument(static_cast<std::size_t>(state.range(0)), kSeed);
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out = serialize(doc, 4);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
    state.counters["text_MB"] = static_cast<double>(bytes) / 1e6;
}

void textParse(benchmark::State& state) {
    const std::string& in = text(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        auto doc = parseZelthaText(in, nullptr);
        if (!doc) state.SkipWithError("the generated text did not parse");
        benchmark::DoNotOptimize(doc);
        state.PauseTiming();  // freeing the document is not part of reading it
        doc.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(in.size()));
    state.counters["text_MB"] = static_cast<double>(in.size()) / 1e6;
}

// What reading one text costs in memory beyond the text itself, in MB: the peak of resident
// memory while reading, and the heap that the document holds afterwards.
void textParsePeakMemory(benchmark::State& state) {
    const std::string& in = text(static_cast<std::size_t>(state.range(0)));
    double peakMb = 0;
    double heldMb = 0;
    for (auto _ : state) {
        malloc_trim(0);  // memory freed earlier must not hide the growth
        if (!resetPeak()) {
            state.SkipWithError("cannot reset the peak resident size");
            break;
        }
        const long base = statusKb("VmRSS");
        const std::size_t heapBefore = mallinfo2().uordblks + mallinfo2().hblkhd;
        auto doc = parseZelthaText(in, nullptr);
        const long peak = statusKb("VmHWM");
        const std::size_t heapAfter = mallinfo2().uordblks + mallinfo2().hblkhd;
        benchmark::DoNotOptimize(doc);
        peakMb = static_cast<double>(peak - base) / 1024.0;
        heldMb = static_cast<double>(heapAfter - heapBefore) / (1024.0 * 1024.0);
    }
    state.counters["peak_MB"] = peakMb;
    state.counters["held_MB"] = heldMb;
    state.counters["text_MB"] = static_cast<double>(in.size()) / 1e6;
}

}  // namespace

// Reading first, before any generated document is kept for the writing cases; the small
// document before the large one, whose figures tell how the time grows.
BENCHMARK(textParsePeakMemory)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(textParse)->Arg(100000)->Unit(benchmark::kMillisecond)->MinWarmUpTime(0.5)->MinTime(2);
BENCHMARK(textParse)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinWarmUpTime(0.5)->MinTime(2);
BENCHMARK(textWrite)->Arg(100000)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(textWrite)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinTime(2);

// Before any case runs: see keepFreedMemory.
[[maybe_unused]] const bool kFreedMemoryKept = (ostrevik::bench::keepFreedMemory(), true);

BENCHMARK_MAIN();
