// Packages carrying large assets: writing and reading a 10^5-element document with 100 assets of
// 200 MB in all, beside a plain memcpy of the same bytes and beside tar on the same files.
#include <ostrevik/io.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>

#include "gen.h"

using namespace ostrevik;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kAssets = 100, kAssetBytes = 2'000'000;

struct Fixture {
    Document doc = bench::generateDocument(100000, 7);
    AssetStore assets;
    std::string package;
    Fixture() {
        std::mt19937_64 rng(7);
        for (std::size_t i = 0; i < kAssets; ++i) {
            std::string bytes(kAssetBytes, '\0');
            for (std::size_t j = 0; j < bytes.size(); j += 8) {
                const std::uint64_t r = rng();
                std::memcpy(bytes.data() + j, &r, std::min<std::size_t>(8, bytes.size() - j));
            }
            assets.set(doc.elements()[i * 997].path, std::move(bytes), "application/octet-stream");
        }
        package = serializePackage(doc, assets, false);
    }
};

const Fixture& fixture() {
    static const Fixture f;
    return f;
}

void BM_PackageWrite(benchmark::State& state) {
    const Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(serializePackage(f.doc, f.assets, false));
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(f.package.size()));
}

void BM_PackageRead(benchmark::State& state) {
    const Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(deserializePackage(f.package));
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(f.package.size()));
}

// The floor: one copy of every byte the package holds.
void BM_Memcpy(benchmark::State& state) {
    const Fixture& f = fixture();
    std::string out(f.package.size(), '\0');
    for (auto _ : state) {
        std::memcpy(out.data(), f.package.data(), f.package.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(f.package.size()));
}

double seconds(const std::string& command) {
    const auto start = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0) return -1;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// tar cf and tar xf on the same files (the document as a crate, each asset a file), best of 3.
void tarPeer() {
    if (std::system("tar --version >/dev/null 2>&1") != 0) {
        std::printf("tar not found: peer skipped\n");
        return;
    }
    const Fixture& f = fixture();
    const fs::path dir = fs::temp_directory_path() / ("ostrevik-bench-pkg-" + std::to_string(::getpid()));
    fs::create_directories(dir / "in");
    fs::create_directories(dir / "out");
    std::ofstream(dir / "in" / "scene", std::ios::binary) << serializeBinary(f.doc, false);
    std::size_t i = 0;
    for (const auto& [path, asset] : f.assets.assets)
        std::ofstream(dir / "in" / ("asset" + std::to_string(i++)), std::ios::binary) << asset.bytes;
    double create = 1e9, extract = 1e9;
    for (int run = 0; run < 3; ++run) {
        create = std::min(create, seconds("tar cf '" + (dir / "p.tar").string() + "' -C '" + (dir / "in").string() + "' ."));
        extract = std::min(extract, seconds("tar xf '" + (dir / "p.tar").string() + "' -C '" + (dir / "out").string() + "'"));
    }
    const double mb = double(f.package.size()) / 1e6;
    std::printf("peer on the same %.1f MB: tar cf %.1f ms (%.0f MB/s), tar xf %.1f ms (%.0f MB/s)\n", mb,
                create * 1e3, mb / create, extract * 1e3, mb / extract);
    fs::remove_all(dir);
}

}  // namespace

BENCHMARK(BM_PackageWrite)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PackageRead)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->MinTime(1.0);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::keepFreedMemory();
    benchmark::RunSpecifiedBenchmarks();
    tarPeer();
    benchmark::Shutdown();
    return 0;
}
