// ostrevik persistence: the text format, the binary crate, compression, loading and durable writes.
#pragma once

#include <ostrevik/core.h>

#include <optional>
#include <string>
#include <string_view>

namespace ostrevik {

// The whole document as text ("#zeltha 4.0"); `indent` spaces per level, negative counts as 0.
std::string serialize(const Document& doc, int indent);

// Reads the text format. `error` may be null; on failure nothing partly read survives.
std::optional<Document> parseZelthaText(std::string_view text, ParseError* error);

// The byte-oriented compression stream used by the crate.
std::string compress(std::string_view data);
std::optional<std::string> decompress(std::string_view stream);

// The binary crate ("ZLTHC"); `compressed` compresses the payload.
std::string serializeBinary(const Document& doc, bool compressed);
std::optional<Document> deserializeBinary(std::string_view bytes);

}  // namespace ostrevik
