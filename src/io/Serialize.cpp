// Detection of the native formats by content, and the one door through which native bytes load.
#include <ostrevik/io.h>

#include <cstring>

namespace ostrevik {

namespace {

constexpr char kCrateMagic[6] = {'Z', 'L', 'T', 'H', 'C', '\0'};
constexpr char kPackageMagic[6] = {'Z', 'L', 'T', 'H', 'Z', '\0'};

void report(ParseError* error, const char* message) {
    if (!error) return;
    error->line = 0;
    error->column = 0;
    error->message = message;
}

}  // namespace

Format detect(std::string_view bytes) {
    if (bytes.size() >= 6) {
        if (std::memcmp(bytes.data(), kCrateMagic, 6) == 0) return Format::Binary;
        if (std::memcmp(bytes.data(), kPackageMagic, 6) == 0) return Format::Package;
    }
    std::size_t i = 0;
    while (i < bytes.size() &&
           (bytes[i] == '\t' || bytes[i] == '\n' || bytes[i] == '\r' || bytes[i] == ' '))
        ++i;
    if (bytes.size() - i < 7) return Format::Unknown;
    return bytes.substr(i, 7) == "#zeltha" ? Format::Text : Format::Unknown;
}

std::optional<Document> deserialize(std::string_view bytes, ParseError* error) {
    switch (detect(bytes)) {
    case Format::Text:
        return parseZelthaText(bytes, error);
    case Format::Binary: {
        auto doc = deserializeBinary(bytes);
        if (!doc) report(error, "malformed binary crate (.zelth)");
        return doc;
    }
    case Format::Package: {
        // Only the document leaves here; whoever needs the assets reads the package itself.
        auto package = deserializePackage(bytes);
        if (!package) {
            report(error, "malformed package (ZLTHZ)");
            return std::nullopt;
        }
        return std::move(package->first);
    }
    case Format::Unknown:
        break;
    }
    report(error, "unrecognized format (no '#zeltha' / 'ZLTHC' / 'ZLTHZ' header)");
    return std::nullopt;
}

}  // namespace ostrevik
