// Feeds arbitrary bytes to the JSON parser and the JSON codec, and checks that what they
// accept writes back stably.
#include <ostrevik/codecs.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using ostrevik::codecs::Json;
    using ostrevik::codecs::JsonCodec;
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    if (auto json = Json::parse(text)) {
        // Written text must parse back to a tree that writes the same bytes.
        const std::string once = json->dump();
        auto again = Json::parse(once);
        if (!again || again->dump() != once) std::abort();
    }

    const JsonCodec codec;
    ostrevik::ParseError error;
    if (auto doc = codec.decode(text, &error)) {
        const std::optional<std::string> out = codec.encode(*doc);
        if (!out) std::abort();
        // Whatever came from JSON goes back through the codec unchanged.
        auto redecoded = codec.decode(*out, nullptr);
        if (!redecoded || codec.encode(*redecoded) != out) std::abort();
    } else if (error.message.empty()) {
        std::abort();
    }
    return 0;
}
