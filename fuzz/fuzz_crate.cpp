// Arbitrary bytes into the crate reader. Whatever it accepts must write and read back: the
// written bytes are a fixed point, and the document read from them survives another trip,
// compressed or not, unchanged.
#include <ostrevik/io.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace ostrevik;

namespace {

bool sameContent(const Document& a, const Document& b) {
    return a.elements() == b.elements() && a.connections() == b.connections() &&
           a.deletions() == b.deletions() && a.connectionDeletions() == b.connectionDeletions() &&
           a.reorders() == b.reorders() && a.globLinks() == b.globLinks();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto doc = deserializeBinary(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!doc) return 0;

    const std::string once = serializeBinary(*doc, false);
    auto again = deserializeBinary(once);
    if (!again) std::abort();
    if (serializeBinary(*again, false) != once) std::abort();

    auto packed = deserializeBinary(serializeBinary(*again, true));
    if (!packed || !sameContent(*again, *packed)) std::abort();
    return 0;
}
