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

Document generated(std::size_t n) { return bench::generateDocument(n, kSeed); }

// Every element carries three distinct strings of a few bytes, so the string table is as
// large as the document.
Document shortStrings(std::size_t n) {
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
    return doc;
}

// The document of a kind and size, made once and kept for the saving cases.
template <Document (*Make)(std::size_t)>
const Document& kept(std::size_t n) {
    static std::map<std::size_t, Document> cache;
    auto it = cache.find(n);
    if (it == cache.end()) it = cache.emplace(n, Make(n)).first;
    return it->second;
}

// The three files of a document of a kind and size. The document is dropped once written: a
// server that loads a file holds nothing like it, and reading in a heap crowded by it would
// measure the heap.
struct Files {
    std::string text;
    std::string crate;
    std::string crateRaw;
};

template <Document (*Make)(std::size_t)>
const Files& files(std::size_t n) {
    static std::map<std::size_t, Files> cache;
    auto it = cache.find(n);
    if (it == cache.end()) {
        const Document doc = Make(n);
        it = cache.emplace(n, Files{serialize(doc, 4), serializeBinary(doc, true), serializeBinary(doc, false)}).first;
    }
    return it->second;
}

// Times writing the kept document of the case's size with `write`.
template <Document (*Make)(std::size_t), class Write>
void save(benchmark::State& state, Write write) {
    const Document& doc = kept<Make>(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out = write(doc);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["file_bytes"] = static_cast<double>(bytes);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Times reading one of the files of the case's size with `read`.
template <Document (*Make)(std::size_t), class Read>
void load(benchmark::State& state, std::string Files::*file, Read read) {
    const std::string& bytes = files<Make>(state.range(0)).*file;
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
void BM_CrateLoad(benchmark::State& s) { load<generated>(s, &Files::crate, readCrate); }
void BM_CrateSaveRaw(benchmark::State& s) { save<generated>(s, crate(false)); }
void BM_CrateLoadRaw(benchmark::State& s) { load<generated>(s, &Files::crateRaw, readCrate); }
void BM_TextSave(benchmark::State& s) { save<generated>(s, text); }
void BM_TextLoad(benchmark::State& s) { load<generated>(s, &Files::text, readText); }
void BM_ShortStringsCrateSave(benchmark::State& s) { save<shortStrings>(s, crate(true)); }
void BM_ShortStringsCrateLoad(benchmark::State& s) { load<shortStrings>(s, &Files::crate, readCrate); }
void BM_ShortStringsTextSave(benchmark::State& s) { save<shortStrings>(s, text); }
void BM_ShortStringsTextLoad(benchmark::State& s) { load<shortStrings>(s, &Files::text, readText); }

}  // namespace

// 100000 elements is the reference size; ten times that shows whether the cost stays linear.
// Loading runs first, before any document is kept for the saving cases. A warm-up pass keeps the
// first touch of fresh memory out of the figures, which the large size would otherwise take in
// one of its two or three runs.
#define CASE(name, size) \
    BENCHMARK(name)->Arg(size)->Unit(benchmark::kMillisecond)->MinWarmUpTime(0.5)->MinTime(1.0)
#define LOADS(size)                                                                                 \
    CASE(BM_CrateLoad, size); CASE(BM_CrateLoadRaw, size); CASE(BM_TextLoad, size);                \
    CASE(BM_ShortStringsCrateLoad, size); CASE(BM_ShortStringsTextLoad, size)
#define SAVES(size)                                                                                 \
    CASE(BM_CrateSave, size); CASE(BM_CrateSaveRaw, size); CASE(BM_TextSave, size);                \
    CASE(BM_ShortStringsCrateSave, size); CASE(BM_ShortStringsTextSave, size)
LOADS(100000);
LOADS(1000000);
SAVES(100000);
SAVES(1000000);

// Before any case runs: see keepFreedMemory.
[[maybe_unused]] const bool kFreedMemoryKept = (ostrevik::bench::keepFreedMemory(), true);

BENCHMARK_MAIN();
