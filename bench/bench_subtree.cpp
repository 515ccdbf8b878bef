// Subtree operations at growing sizes: pasting a 10^3-element document N times under one parent,
// and extracting a subtree of N elements. Ten times the work should take about ten times as long.
#include <ostrevik/core.h>

#include <benchmark/benchmark.h>

#include "gen.h"

using namespace ostrevik;

namespace {

void BM_InstantiateRepeatedly(benchmark::State& state) {
    const Document& part = bench::cachedDocument(1000, 3);
    for (auto _ : state) {
        Document host;
        for (std::int64_t i = 0; i < state.range(0); ++i) host.instantiate(part, Path("/host"));
        benchmark::DoNotOptimize(host.elements().size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * 1000);
}

void BM_ExtractSubtree(benchmark::State& state) {
    // One subtree under /sub holding the whole generated document, beside an equal one outside.
    static Document doc;
    static std::int64_t built = 0;
    if (built != state.range(0)) {
        doc = Document();
        doc.instantiate(bench::cachedDocument(std::size_t(state.range(0)), 5), Path("/sub"));
        doc.instantiate(bench::cachedDocument(std::size_t(state.range(0)), 6), Path("/other"));
        built = state.range(0);
    }
    for (auto _ : state) benchmark::DoNotOptimize(doc.extract(Path("/sub")));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_InstantiateRepeatedly)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractSubtree)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
