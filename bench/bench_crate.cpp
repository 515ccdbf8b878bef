// Saving and loading the binary crate against the text format, on generated documents and on
// documents made of many short distinct strings.
#include "gen.h"

#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

using namespace ostrevik;

namespace {

constexpr std::uint64_t kSeed = 7;

const Document& generated(std::size_t n) { return bench::cachedDocument(n, kSeed); }

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

// Times writing the document of the case's size with `write`.
template <const Document& (*Make)(std::size_t), class Write>
void save(benchmark::State& state, Write write) {
    const Document& doc = Make(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out = write(doc);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["file_bytes"] = static_cast<double>(bytes);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Times reading back what `write` made of the document of the case's size with `read`.
template <const Document& (*Make)(std::size_t), class Write, class Read>
void load(benchmark::State& state, Write write, Read read) {
    const std::string bytes = write(Make(state.range(0)));
    for (auto _ : state) {
        auto doc = read(bytes);
        if (!doc) state.SkipWithError("the file did not load");
        benchmark::DoNotOptimize(doc);
        state.PauseTiming();  // freeing the document is not part of loading it
        doc.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

auto crate(bool compressed) {
    return [compressed](const Document& doc) { return serializeBinary(doc, compressed); };
}
std::string text(const Document& doc) { return serialize(doc, 4); }
std::optional<Document> readCrate(std::string_view bytes) { return deserializeBinary(bytes); }
std::optional<Document> readText(std::string_view bytes) { return parseZelthaText(bytes, nullptr); }

void BM_CrateSave(benchmark::State& s) { save<generated>(s, crate(true)); }
void BM_CrateLoad(benchmark::State& s) { load<generated>(s, crate(true), readCrate); }
void BM_CrateSaveRaw(benchmark::State& s) { save<generated>(s, crate(false)); }
void BM_CrateLoadRaw(benchmark::State& s) { load<generated>(s, crate(false), readCrate); }
void BM_TextSave(benchmark::State& s) { save<generated>(s, text); }
void BM_TextLoad(benchmark::State& s) { load<generated>(s, text, readText); }
void BM_ShortStringsCrateSave(benchmark::State& s) { save<shortStrings>(s, crate(true)); }
void BM_ShortStringsCrateLoad(benchmark::State& s) { load<shortStrings>(s, crate(true), readCrate); }
void BM_ShortStringsTextSave(benchmark::State& s) { save<shortStrings>(s, text); }
void BM_ShortStringsTextLoad(benchmark::State& s) { load<shortStrings>(s, text, readText); }

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
