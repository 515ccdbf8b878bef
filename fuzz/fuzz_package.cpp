// Arbitrary bytes as a package; what reads must write and read back to the same assets, and a
// second write must give the bytes of the first.
#include <ostrevik/io.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto package = ostrevik::deserializePackage(bytes);
    if (!package) return 0;
    const std::string written = ostrevik::serializePackage(package->first, package->second, false);
    auto again = ostrevik::deserializePackage(written);
    if (!again || again->second != package->second) std::abort();
    if (ostrevik::serializePackage(again->first, again->second, false) != written) std::abort();
    return 0;
}
