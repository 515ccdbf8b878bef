// Arbitrary bytes into the text parser: it either gives a document or a message with a position
// inside the text, and never crashes, hangs or recurses without bound.
#include <ostrevik/io.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace ostrevik;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ParseError error;
    auto doc = parseZelthaText(text, &error);
    if (doc) {
        if (!error.message.empty()) std::abort();
        return 0;
    }
    if (error.message.empty() || error.line == 0 || error.column == 0) std::abort();
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    if (error.line > lines + 1 || error.column > size + 1) std::abort();
    // Without a record to fill the parser must come to the same verdict.
    if (parseZelthaText(text, nullptr)) std::abort();
    return 0;
}
