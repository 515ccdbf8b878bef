// The file tools against the bare library calls they wrap: load and save of a ~16 MB document
// (text and crate), compose of many references, and search of a large tree.
#include "Dispatch.h"
#include "FileTools.h"
#include "gen.h"

#include <ostrevik/compose.h>
#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

std::string call(const std::string& tool, const std::string& args) {
    return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + tool +
           R"(","arguments":)" + args + "}}";
}

// One scratch root with the generated document saved in both formats, made once.
struct Fixture {
    fs::path root;
    ostrevik::Document doc;
    Fixture() {
        zserver::Log::instance().sink = [](const std::string&) {};
        char tmpl[] = "/tmp/ostrevik-bench-files-XXXXXX";
        root = fs::canonical(::mkdtemp(tmpl));
        doc = ostrevik::bench::generateDocument(100000, 7);
        ostrevik::writeFileDurably((root / "doc.zeltha").string(), ostrevik::serialize(doc, 4));
        ostrevik::writeFileDurably((root / "doc.zelth").string(), ostrevik::serializeBinary(doc, true));
    }
    ~Fixture() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

const char* fileName(int format) { return format == 0 ? "doc.zeltha" : "doc.zelth"; }

void BM_LoadTool(benchmark::State& state) {
    Fixture& f = fixture();
    zserver::Session session;
    session.root = f.root.string();
    const std::string line = call("load", std::string(R"({"path":")") + fileName(int(state.range(0))) + "\"}");
    for (auto _ : state) benchmark::DoNotOptimize(zserver::dispatch(session, line));
    if (session.doc.elements().size() != f.doc.elements().size()) state.SkipWithError("load failed");
}
BENCHMARK(BM_LoadTool)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_LoadLibrary(benchmark::State& state) {
    Fixture& f = fixture();
    const std::string path = (f.root / fileName(int(state.range(0)))).string();
    for (auto _ : state) {
        auto bytes = zserver::readFile(path);
        auto doc = ostrevik::deserialize(*bytes, nullptr);
        benchmark::DoNotOptimize(doc);
    }
}
BENCHMARK(BM_LoadLibrary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_SaveTool(benchmark::State& state) {
    Fixture& f = fixture();
    zserver::Session session;
    session.root = f.root.string();
    session.doc = f.doc;
    const std::string line =
        call("save", std::string(R"({"path":"out.)") + (state.range(0) == 0 ? "zeltha" : "zelth") + "\"}");
    for (auto _ : state) benchmark::DoNotOptimize(zserver::dispatch(session, line));
}
BENCHMARK(BM_SaveTool)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_SaveLibrary(benchmark::State& state) {
    Fixture& f = fixture();
    const bool text = state.range(0) == 0;
    const std::string path = (f.root / (text ? "lib.zeltha" : "lib.zelth")).string();
    for (auto _ : state) {
        std::string bytes = text ? ostrevik::serialize(f.doc, 4) : ostrevik::serializeBinary(f.doc, true);
        benchmark::DoNotOptimize(ostrevik::writeFileDurably(path, bytes));
    }
}
BENCHMARK(BM_SaveLibrary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// One file referenced by N hosts, and a chain of N files each referencing the next.
void BM_Compose(benchmark::State& state) {
    Fixture& f = fixture();
    const int n = int(state.range(0));
    const fs::path dir = f.root / ("compose" + std::to_string(n));
    fs::create_directories(dir);
    std::string many = "#zeltha 4.0\n";
    for (int i = 0; i < n; ++i) many += "def \"h" + std::to_string(i) + "\" {\n    reference \"leaf.zeltha\"\n}\n";
    std::ofstream(dir / "many.zeltha") << many;
    std::ofstream(dir / "leaf.zeltha") << "#zeltha 4.0\ndef \"leaf\" {\n    float v = 1\n    def \"a\" {\n    }\n}\n";
    for (int i = 0; i < n; ++i) {
        std::ofstream c(dir / ("c" + std::to_string(i) + ".zeltha"));
        c << "#zeltha 4.0\ndef \"n\" {\n";
        if (i + 1 < n) c << "    reference \"c" << i + 1 << ".zeltha\"\n";
        c << "    int i = " << i << "\n}\n";
    }
    for (auto _ : state) {
        auto a = ostrevik::composeFile((dir / "many.zeltha").string());
        auto b = ostrevik::composeFile((dir / "c0.zeltha").string());
        if (!a || !b) state.SkipWithError("compose failed");
        benchmark::DoNotOptimize(a);
    }
}
BENCHMARK(BM_Compose)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// search over a tree of 10^5 files, of which 1 in 10 is a document: the cap ends the listing.
void BM_Search(benchmark::State& state) {
    Fixture& f = fixture();
    const fs::path dir = f.root / "tree";
    for (int d = 0; d < 100; ++d) {
        fs::create_directories(dir / std::to_string(d));
        for (int i = 0; i < 1000; ++i)
            std::ofstream(dir / std::to_string(d) / (std::to_string(i) + (i % 10 ? ".txt" : ".zeltha")));
    }
    zserver::Session session;
    session.root = f.root.string();
    const std::string miss = call("search", R"({"dir":"tree","query":"no such name"})");
    const std::string hit = call("search", R"({"dir":"tree"})");
    for (auto _ : state) {
        benchmark::DoNotOptimize(zserver::dispatch(session, miss));
        benchmark::DoNotOptimize(zserver::dispatch(session, hit));
    }
}
BENCHMARK(BM_Search)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
