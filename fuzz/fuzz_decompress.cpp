// Arbitrary bytes as a compressed stream, and as data that must survive a round trip and
// compress to exactly the bytes of the plain encoder.
#include <ostrevik/io.h>

#include "../tests/support/reference_compress.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    if (std::optional<std::string> out = ostrevik::decompress(bytes)) {
        // A stream that decodes gives exactly the size it declares.
        std::uint64_t declared = 0;
        for (int k = 7; k >= 0; --k) declared = (declared << 8) | data[k];
        if (out->size() != declared) std::abort();
        // Decoded streams are full of repeats: long matches and deep chains for the encoder.
        const std::string again = ostrevik::compress(*out);
        if (again != reference::compress(*out)) std::abort();
        if (ostrevik::decompress(again) != out) std::abort();
    }

    const std::string stream = ostrevik::compress(bytes);
    if (stream != reference::compress(bytes)) std::abort();
    if (stream.size() > 8 + size + (size + 7) / 8) std::abort();
    std::optional<std::string> back = ostrevik::decompress(stream);
    if (!back || *back != bytes) std::abort();
    if (ostrevik::compress(bytes) != stream) std::abort();
    return 0;
}
