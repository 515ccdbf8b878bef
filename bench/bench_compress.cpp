// Compression speed and ratio on a large text document and on pathological inputs, then a
// side-by-side table against the lz4 command line tool on the same bytes.
//
// The text is a generated document written in the text format. OSTREVIK_BENCH_FILE names a
// file to use instead; without the generator the text is synthesized in the same style.
#if __has_include("gen.h")
#include "gen.h"
#define OSTREVIK_HAVE_GEN 1
#endif

#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <string>

namespace {

constexpr std::uint64_t kSeed = 7;
constexpr std::size_t kPathologicalSize = 16u << 20;

#ifndef OSTREVIK_HAVE_GEN
// Looks like the text format: nested blocks of typed properties with numbers and names.
std::string synthesizeText(std::size_t target) {
    static const char* types[] = {"group", "mesh", "light", "camera", "material", "xform"};
    static const char* props[] = {"opacity", "intensity", "radius", "exposure", "roughness", "width"};
    std::mt19937_64 rng(kSeed);
    std::string out = "#zeltha 4.0\n";
    char buf[256];
    for (std::size_t e = 0; out.size() < target; ++e) {
        std::snprintf(buf, sizeof buf, "def %s \"node%zu\" {\n", types[rng() % 6], e);
        out += buf;
        const int n = 2 + static_cast<int>(rng() % 5);
        for (int k = 0; k < n; ++k) {
            switch (rng() % 4) {
            case 0:
                std::snprintf(buf, sizeof buf, "    float %s = %.9g\n", props[rng() % 6], (rng() % 100000) / 997.0);
                break;
            case 1:
                std::snprintf(buf, sizeof buf, "    float3 color = (%.9g, %.9g, %d)\n", (rng() % 1000) / 999.0,
                              (rng() % 1000) / 999.0, static_cast<int>(rng() % 2));
                break;
            case 2:
                std::snprintf(buf, sizeof buf, "    int count = %d\n", static_cast<int>(rng() % 1000));
                break;
            default:
                std::snprintf(buf, sizeof buf, "    connect %s = </node%zu.out>\n", props[rng() % 6],
                              static_cast<std::size_t>(rng() % (e + 1)));
                break;
            }
            out += buf;
        }
        out += "    def \"child\" {\n        string note = \"generated\"\n    }\n}\n\n";
    }
    return out;
}
#endif

const std::string& documentText() {
    static const std::string text = [] {
        if (const char* file = std::getenv("OSTREVIK_BENCH_FILE")) {
            std::ifstream in(file, std::ios::binary);
            if (in) return std::string(std::istreambuf_iterator<char>(in), {});
            std::fprintf(stderr, "cannot read %s, synthesizing text\n", file);
        }
#ifdef OSTREVIK_HAVE_GEN
        using namespace ostrevik;
        return serialize(bench::generateDocument(100000, kSeed), 4);
#else
        return synthesizeText(16u << 20);
#endif
    }();
    return text;
}

#ifdef OSTREVIK_HAVE_GEN
// The same document as an uncompressed crate payload: what every compressed crate save compresses.
const std::string& cratePayload() {
    static const std::string payload = ostrevik::serializeBinary(ostrevik::bench::generateDocument(100000, kSeed), false);
    return payload;
}
#endif

const std::string& oneByte() {
    static const std::string s(kPathologicalSize, 'x');
    return s;
}

const std::string& fourBytePattern() {
    static const std::string s = [] {
        std::string r(kPathologicalSize, '\0');
        for (std::size_t i = 0; i < r.size(); ++i) r[i] = "abcd"[i % 4];
        return r;
    }();
    return s;
}

const std::string& randomBytes() {
    static const std::string s = [] {
        std::mt19937_64 rng(kSeed);
        std::string r(kPathologicalSize, '\0');
        for (auto& c : r) c = static_cast<char>(rng());
        return r;
    }();
    return s;
}

template <const std::string& (*Input)()>
void compressBench(benchmark::State& state) {
    const std::string& data = Input();
    std::size_t size = 0;
    for (auto _ : state) {
        std::string out = ostrevik::compress(data);
        size = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
    state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(data.size());
}

template <const std::string& (*Input)()>
void decompressBench(benchmark::State& state) {
    const std::string& data = Input();
    const std::string stream = ostrevik::compress(data);
    for (auto _ : state) {
        std::optional<std::string> out = ostrevik::decompress(stream);
        if (!out || out->size() != data.size()) state.SkipWithError("round trip failed");
        benchmark::DoNotOptimize(out->data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}

BENCHMARK(compressBench<documentText>)->Name("compress/text")->Unit(benchmark::kMillisecond);
BENCHMARK(decompressBench<documentText>)->Name("decompress/text")->Unit(benchmark::kMillisecond);
#ifdef OSTREVIK_HAVE_GEN
BENCHMARK(compressBench<cratePayload>)->Name("compress/crate_payload")->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(compressBench<oneByte>)->Name("compress/one_byte")->Unit(benchmark::kMillisecond);
BENCHMARK(decompressBench<oneByte>)->Name("decompress/one_byte")->Unit(benchmark::kMillisecond);
BENCHMARK(compressBench<fourBytePattern>)->Name("compress/four_byte_pattern")->Unit(benchmark::kMillisecond);
BENCHMARK(decompressBench<fourBytePattern>)->Name("decompress/four_byte_pattern")->Unit(benchmark::kMillisecond);
BENCHMARK(compressBench<randomBytes>)->Name("compress/random")->Unit(benchmark::kMillisecond);
BENCHMARK(decompressBench<randomBytes>)->Name("decompress/random")->Unit(benchmark::kMillisecond);

struct Figures {
    double ratio = 0;  // compressed size / original size
    double compressMBs = 0;
    double decompressMBs = 0;
};

double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Fastest of several runs, in MB of uncompressed data (10^6 bytes) per second, by the wall
// clock (as lz4 measures) and by this thread's CPU time (steadier on a shared machine).
struct Speed {
    double wall = 0;
    double cpu = 0;
};

template <typename F>
Speed bestMBs(std::size_t bytes, F&& run) {
    Speed best;
    const double mb = static_cast<double>(bytes) / 1e6;
    const auto start = std::chrono::steady_clock::now();
    for (int k = 0; k < 20; ++k) {
        const auto w0 = std::chrono::steady_clock::now();
        const double c0 = threadSeconds();
        run();
        const double cpu = threadSeconds() - c0;
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - w0;
        best.wall = std::max(best.wall, mb / wall.count());
        if (cpu > 0) best.cpu = std::max(best.cpu, mb / cpu);
        if (k >= 3 && std::chrono::steady_clock::now() - start > std::chrono::seconds(3)) break;
    }
    return best;
}

void ourFigures(const std::string& data, Figures& wall, Figures& cpu) {
    const std::string stream = ostrevik::compress(data);
    wall.ratio = cpu.ratio = static_cast<double>(stream.size()) / static_cast<double>(data.size());
    const Speed c = bestMBs(data.size(), [&] { benchmark::DoNotOptimize(ostrevik::compress(data).data()); });
    const Speed d = bestMBs(data.size(), [&] { benchmark::DoNotOptimize(ostrevik::decompress(stream)->data()); });
    wall.compressMBs = c.wall;
    wall.decompressMBs = d.wall;
    cpu.compressMBs = c.cpu;
    cpu.decompressMBs = d.cpu;
}

// Runs `lz4 -b<level> <file>` and reads its last result line:
// "... : <in> -> <out> (<factor>), <c> MB/s , <d> MB/s".
std::optional<Figures> lz4Figures(const std::string& file, int level) {
    const std::string command = "lz4 -b" + std::to_string(level) + " '" + file + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string output;
    char buf[4096];
    std::size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, pipe)) > 0) output.append(buf, got);
    if (pclose(pipe) != 0) return std::nullopt;
    static const std::regex line(R"((\d+)\s*->\s*(\d+)\s*\(([0-9.]+)\),\s*([0-9.]+)\s*MB/s\s*,\s*([0-9.]+)\s*MB/s)");
    std::optional<Figures> last;
    for (std::sregex_iterator it(output.begin(), output.end(), line), end; it != end; ++it) {
        Figures f;
        f.ratio = std::stod((*it)[2]) / std::stod((*it)[1]);
        f.compressMBs = std::stod((*it)[4]);
        f.decompressMBs = std::stod((*it)[5]);
        last = f;
    }
    return last;
}

void compareWithLz4() {
    const std::string& data = documentText();
    char path[] = "/tmp/ostrevik-bench-compress-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        std::fprintf(stderr, "cannot create a temporary file\n");
        return;
    }
    bool written = true;
    for (std::size_t off = 0; off < data.size();) {
        const ssize_t n = write(fd, data.data() + off, data.size() - off);
        if (n <= 0) {
            written = false;
            break;
        }
        off += static_cast<std::size_t>(n);
    }
    close(fd);

    Figures oursWall, oursCpu;
    ourFigures(data, oursWall, oursCpu);
    std::optional<Figures> fast, high;
    if (written) {
        fast = lz4Figures(path, 1);
        high = lz4Figures(path, 9);
    }
    std::remove(path);

    std::printf("\nDocument text: %zu bytes (MB = 10^6 bytes; ratio = compressed / original)\n", data.size());
    std::printf("%-14s %10s %16s %18s\n", "coder", "ratio", "compress MB/s", "decompress MB/s");
    auto row = [](const char* name, const std::optional<Figures>& f) {
        if (f)
            std::printf("%-14s %10.4f %16.1f %18.1f\n", name, f->ratio, f->compressMBs, f->decompressMBs);
        else
            std::printf("%-14s %10s %16s %18s\n", name, "n/a", "n/a", "n/a");
    };
    row("ostrevik", oursWall);
    row("ostrevik (cpu)", oursCpu);
    row("lz4 -b1", fast);
    row("lz4 -b9", high);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    compareWithLz4();
    return 0;
}
