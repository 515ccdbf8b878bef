// Saving and loading the binary crate against the text format, on generated documents and on
// documents made of many short distinct strings.
#include "gen.h"

#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <map>
#include <string>

using namespace ostrevik;

namespace {

constexpr std::uint64_t kSeed = 7;

const Document& generated(std::size_t n) {
    static std::map<std::size_t, Document> cache;
    auto it = cache.find(n);
    if (it == cache.end()) it = cache.emplace(n, bench::generateDocument(n, kSeed)).first;
    return it->second;
}

// Every element carries three distinct strings of a few bytes, so the string table is as
// large as the document.
const Document& shortStrings(std::size_t n) {
    static std::map<std::size_t, Document> cache;
    auto it = cache.find(n);
    if (it != cache.end()) return it->second;
    Document doc;
    for (std::size_t i = 0; i < n; ++i) {
        Element e;
        const std::string tag = std::to_string(i);
        e.path = Path({"e" + tag}, std::nullopt);
        e.type = "t";
        e.metadata["m" + tag] = "v" + tag;
        e.properties["x"].value = Value(static_cast<float>(i));
        doc.insert(std::move(e));
    }
    return cache.emplace(n, std::move(doc)).first->second;
}

template <const Document& (*Make)(std::size_t)>
void crateSave(benchmark::State& state, bool compressed) {
    const Document& doc = Make(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out = serializeBinary(doc, compressed);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["file_bytes"] = static_cast<double>(bytes);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <const Document& (*Make)(std::size_t)>
void crateLoad(benchmark::State& state, bool compressed) {
    const std::string bytes = serializeBinary(Make(state.range(0)), compressed);
    for (auto _ : state) {
        auto doc = deserializeBinary(bytes);
        if (!doc) state.SkipWithError("crate did not load");
        benchmark::DoNotOptimize(doc);
        state.PauseTiming();  // freeing the document is not part of loading it
        doc.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <const Document& (*Make)(std::size_t)>
void textSave(benchmark::State& state) {
    const Document& doc = Make(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out = serialize(doc, 4);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["file_bytes"] = static_cast<double>(bytes);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <const Document& (*Make)(std::size_t)>
void textLoad(benchmark::State& state) {
    const std::string text = serialize(Make(state.range(0)), 4);
    for (auto _ : state) {
        auto doc = parseZelthaText(text, nullptr);
        if (!doc) state.SkipWithError("text did not parse");
        benchmark::DoNotOptimize(doc);
        state.PauseTiming();  // freeing the document is not part of loading it
        doc.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_CrateSave(benchmark::State& s) { crateSave<generated>(s, true); }
void BM_CrateLoad(benchmark::State& s) { crateLoad<generated>(s, true); }
void BM_CrateSaveRaw(benchmark::State& s) { crateSave<generated>(s, false); }
void BM_CrateLoadRaw(benchmark::State& s) { crateLoad<generated>(s, false); }
void BM_TextSave(benchmark::State& s) { textSave<generated>(s); }
void BM_TextLoad(benchmark::State& s) { textLoad<generated>(s); }
void BM_ShortStringsCrateSave(benchmark::State& s) { crateSave<shortStrings>(s, true); }
void BM_ShortStringsCrateLoad(benchmark::State& s) { crateLoad<shortStrings>(s, true); }
void BM_ShortStringsTextSave(benchmark::State& s) { textSave<shortStrings>(s); }
void BM_ShortStringsTextLoad(benchmark::State& s) { textLoad<shortStrings>(s); }

}  // namespace

// 100000 elements is the reference size; ten times that shows whether the cost stays linear.
// Every small case runs before the first large document passes through the heap, which would
// otherwise leave the small cases working in a fragmented one.
#define CASES(size)                                                                        \
    BENCHMARK(BM_CrateSave)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);        \
    BENCHMARK(BM_CrateLoad)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);        \
    BENCHMARK(BM_CrateSaveRaw)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);     \
    BENCHMARK(BM_CrateLoadRaw)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);     \
    BENCHMARK(BM_TextSave)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);         \
    BENCHMARK(BM_TextLoad)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);         \
    BENCHMARK(BM_ShortStringsCrateSave)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0); \
    BENCHMARK(BM_ShortStringsCrateLoad)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0); \
    BENCHMARK(BM_ShortStringsTextSave)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0);  \
    BENCHMARK(BM_ShortStringsTextLoad)->Arg(size)->Unit(benchmark::kMillisecond)->MinTime(1.0)
CASES(100000);
CASES(1000000);

BENCHMARK_MAIN();
