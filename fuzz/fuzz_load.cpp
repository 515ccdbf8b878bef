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
        // What loads must save and load again in both formats.
        if (!ostrevik::deserialize(ostrevik::serializeBinary(*doc, true), nullptr)) std::abort();
        // A crate stores a property's type name as any bytes; the text writer prints it as the type
        // token, so only a name that is an alias of the value's own dtype and shape can read back.
        bool textSafe = true;
        for (const auto& e : doc->elements())
            for (const auto& [name, p] : e.properties) {
                if (p.typeName.empty()) continue;
                const auto alias = ostrevik::aliasFromName(p.typeName);
                textSafe = textSafe && alias && alias->dtype == p.value.dtype && alias->shape == p.value.shape;
                if (p.samples)
                    for (const auto& k : p.samples->keys)
                        textSafe = textSafe && alias && alias->dtype == k.value.dtype;  // keys carry their shape
            }
        if (textSafe && !ostrevik::deserialize(ostrevik::serialize(*doc, 4), nullptr)) std::abort();
    }
    return 0;
}
