// Arbitrary bytes through the one load door: detection by content, then the chosen reader.
#include <ostrevik/io.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    ostrevik::ParseError error;
    auto doc = ostrevik::deserialize(bytes, &error);
    if (!doc && error.message.empty()) std::abort();  // every failure says why
    if (doc) {
        // What loads must save and load again in both formats. The crate stores wires as path
        // texts, so a wire into a dotted property name (which text can express) cannot go there.
        bool crateSafe = true;
        for (const auto& c : doc->connections())
            crateSafe = crateSafe && ostrevik::Path::parse(c.source.str()) && ostrevik::Path::parse(c.target.str());
        if (crateSafe && !ostrevik::deserialize(ostrevik::serializeBinary(*doc, true), nullptr)) std::abort();
        if (!ostrevik::deserialize(ostrevik::serialize(*doc, 4), nullptr)) std::abort();
    }
    return 0;
}
