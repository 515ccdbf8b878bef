// The element tools through dispatch: bulk edits, describe of large documents, get_element
// round trips. `bench_tools --memory=N` instead prints the peak memory of describing a
// generated document of N elements.
#include "Dispatch.h"
#include "gen.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string toolCall(const std::string& tool, const std::string& args) {
    return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + tool +
           R"(","arguments":)" + args + "}}";
}

void silenceLog() { zserver::Log::instance().sink = [](const std::string&) {}; }

// 10^5 define_element and 10^5 set_property calls: 100 groups of 1000 elements each.
void BM_DefineAndSet(benchmark::State& state) {
    silenceLog();
    const int groups = 100, perGroup = 1000;
    std::vector<std::string> lines;
    lines.reserve(2 * groups * (perGroup + 1));
    for (int g = 0; g < groups; ++g) {
        const std::string group = "/g" + std::to_string(g);
        lines.push_back(toolCall("define_element", R"({"path":")" + group + R"(","type":"group"})"));
        for (int e = 0; e < perGroup; ++e) {
            const std::string path = group + "/e" + std::to_string(e);
            lines.push_back(toolCall("define_element", R"({"path":")" + path + R"(","type":"mesh"})"));
            lines.push_back(toolCall("set_property", R"({"path":")" + path + R"(","name":"radius","value":)" +
                                                         std::to_string(e) + "}"));
        }
    }
    for (auto _ : state) {
        zserver::Session session;
        for (const std::string& line : lines) benchmark::DoNotOptimize(zserver::dispatch(session, line));
        state.PauseTiming();
        if (session.doc.elements().size() != std::size_t(groups * (perGroup + 1))) state.SkipWithError("lost elements");
        session = zserver::Session();  // the teardown is not part of the measurement
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(lines.size()));
}
BENCHMARK(BM_DefineAndSet)->Unit(benchmark::kMillisecond);

// describe of a generated document, reply encoding included.
void BM_Describe(benchmark::State& state) {
    silenceLog();
    zserver::Session session;
    session.doc = ostrevik::bench::generateDocument(std::size_t(state.range(0)), 42);
    const std::string line = toolCall("describe", "{}");
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::optional<std::string> reply = zserver::dispatch(session, line);
        bytes = reply ? reply->size() : 0;
        benchmark::DoNotOptimize(reply);
    }
    state.counters["elements"] = double(session.doc.elements().size());
    state.counters["reply_bytes"] = double(bytes);
    state.SetItemsProcessed(state.iterations() * std::int64_t(session.doc.elements().size()));
}
BENCHMARK(BM_Describe)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// One get_element request and reply on a small document.
void BM_GetElementRoundTrip(benchmark::State& state) {
    silenceLog();
    zserver::Session session;
    session.doc = ostrevik::bench::generateDocument(50, 7);
    const ostrevik::Element& target = session.doc.elements()[session.doc.elements().size() / 2];
    const std::string line = toolCall("get_element", R"({"path":")" + target.path.str() + "\"}");
    for (auto _ : state) benchmark::DoNotOptimize(zserver::dispatch(session, line));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetElementRoundTrip);

long maxRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int memoryRun(std::size_t n) {
    silenceLog();
    const long before = maxRssKiB();
    zserver::Session session;
    session.doc = ostrevik::bench::generateDocument(n, 42);
    const long built = maxRssKiB();
    std::optional<std::string> reply = zserver::dispatch(session, toolCall("describe", "{}"));
    const long peak = maxRssKiB();
    std::printf("elements %zu\nreply bytes %zu\nbaseline %ld KiB\ndocument peak %ld KiB (%.1f bytes/element)\n"
                "describe peak %ld KiB (%.1f bytes/element over baseline)\n",
                session.doc.elements().size(), reply ? reply->size() : 0, before, built,
                double(built - before) * 1024.0 / double(n), peak, double(peak - before) * 1024.0 / double(n));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--memory=", 9) == 0) return memoryRun(std::strtoull(argv[i] + 9, nullptr, 10));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
