// Cost of building the shared benchmark documents, and the size of their text form.
#include <benchmark/benchmark.h>

#include "gen.h"
#include "ostrevik/io.h"

namespace {

void BM_GenerateDocument(benchmark::State& state) {
    const auto elements = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        ostrevik::Document doc = ostrevik::bench::generateDocument(elements, 42);
        benchmark::DoNotOptimize(doc);
    }
    const ostrevik::Document doc = ostrevik::bench::generateDocument(elements, 42);
    const std::string text = ostrevik::serialize(doc, 4);
    state.counters["connections"] = static_cast<double>(doc.connections().size());
    state.counters["text_bytes_per_element"] = static_cast<double>(text.size()) / static_cast<double>(elements);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_GenerateDocument)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
