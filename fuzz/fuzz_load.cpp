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
        // A crate holds some things that text cannot say, each refused on reading by design: a
        // property's type name that is no alias of the value's own dtype and shape (the writer
        // prints it as the type token), a property name with ".timeSamples" in it (it ends a bare
        // name), a glob spec without "*" (text reads it as a
        // plain wire), and a glob spec holding ">" or a wire whose source is no path (both are
        // written between angle brackets).
        bool textSafe = true;
        for (const auto& l : doc->globLinks())
            textSafe = textSafe && l.targetSpec.find('*') != std::string::npos && l.targetSpec.find('>') == std::string::npos;
        for (const auto& c : doc->connections()) textSafe = textSafe && ostrevik::Path::parse(c.source.str());
        for (const auto& e : doc->elements()) {
            for (const auto& [name, p] : e.properties) {
                textSafe = textSafe && name.find(".timeSamples") == std::string::npos;
                if (p.samples) {
                    // The text gives every key the property's declared type: a key of another
                    // dtype, or of another shape where that type fixes the shape, cannot be said.
                    const ostrevik::Type type = p.value.type();
                    const bool listed = type == ostrevik::Type::FloatArray || type == ostrevik::Type::IntArray ||
                                        type == ostrevik::Type::Float2Array || type == ostrevik::Type::General;
                    for (const auto& k : p.samples->keys)
                        textSafe = textSafe && k.value.dtype == p.value.dtype &&
                                   (listed ? k.value.shape.size() == p.value.shape.size() : k.value.shape == p.value.shape);
                }
                if (p.typeName.empty()) continue;
                const auto alias = ostrevik::aliasFromName(p.typeName);
                textSafe = textSafe && alias && alias->dtype == p.value.dtype && alias->shape == p.value.shape;
                if (p.samples)
                    for (const auto& k : p.samples->keys)
                        textSafe = textSafe && alias && alias->dtype == k.value.dtype;  // keys carry their shape
            }
        }
        if (textSafe && !ostrevik::deserialize(ostrevik::serialize(*doc, 4), nullptr)) std::abort();
    }
    return 0;
}
