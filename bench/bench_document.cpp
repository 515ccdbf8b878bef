// Cost of the document core: building, lookups, the copy-on-write clone, and the edits that pay
// for a full reindex (remove, rename).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "gen.h"
#include "ostrevik/core.h"

namespace {

using ostrevik::Document;
using ostrevik::Path;

const Document& sharedDocument(std::size_t elements) {
    static std::size_t size = 0;
    static Document doc;
    if (size != elements) {
        doc = ostrevik::bench::generateDocument(elements, 42);
        size = elements;
    }
    return doc;
}

void BM_AppendFlat(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    std::vector<Path> parents;
    for (std::size_t g = 0; g < n / 100; ++g) parents.push_back(Path().child("group" + std::to_string(g)));
    for (auto _ : state) {
        Document doc;
        for (const auto& parent : parents) {
            doc.append(parent, "group");
            for (int c = 0; c < 99; ++c) doc.addChild(parent, "item");
        }
        benchmark::DoNotOptimize(doc);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_LookupEveryElement(benchmark::State& state) {
    const Document& doc = sharedDocument(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::size_t children = 0;
        for (const auto& e : doc.elements()) {
            benchmark::DoNotOptimize(doc.element(e.path));
            if (const auto* positions = doc.childPositions(e.path)) children += positions->size();
        }
        benchmark::DoNotOptimize(children);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_HashPath(benchmark::State& state) {
    const Document& doc = sharedDocument(static_cast<std::size_t>(state.range(0)));
    std::hash<Path> hash;
    for (auto _ : state) {
        std::size_t h = 0;
        for (const auto& e : doc.elements()) h ^= hash(e.path);
        benchmark::DoNotOptimize(h);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_CloneOnFirstEdit(benchmark::State& state) {
    const Document& base = sharedDocument(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        Document copy = base;
        benchmark::DoNotOptimize(copy.element(Path()));  // the mutable lookup passes the gate
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Removes a top-level group from the middle; the clone before it is not timed.
void BM_RemoveSubtree(benchmark::State& state) {
    const Document& base = sharedDocument(static_cast<std::size_t>(state.range(0)));
    const Path victim = base.children(Path())[base.children(Path()).size() / 2];
    for (auto _ : state) {
        state.PauseTiming();
        Document doc = base;
        doc.element(Path());
        state.ResumeTiming();
        doc.remove(victim);
        benchmark::DoNotOptimize(doc);
        state.PauseTiming();
        doc = Document();  // freeing the clone is not the edit's cost either
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_RenameSubtree(benchmark::State& state) {
    const Document& base = sharedDocument(static_cast<std::size_t>(state.range(0)));
    const auto top = base.children(Path());
    const Path from = top[top.size() / 2];
    const Path to = top.front().child("moved");
    for (auto _ : state) {
        state.PauseTiming();
        Document doc = base;
        doc.element(Path());
        state.ResumeTiming();
        benchmark::DoNotOptimize(doc.rename(from, to));
        state.PauseTiming();
        doc = Document();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_AppendFlat)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LookupEveryElement)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashPath)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CloneOnFirstEdit)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RemoveSubtree)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenameSubtree)->Arg(100000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
