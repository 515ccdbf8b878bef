// ostrevik persistence: the text format, the binary crate, compression, loading and durable writes.
#pragma once

#include <ostrevik/core.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

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

// A document and its assets in one file ("ZLTHZ"): an entry table, then the contents as they
// are. `text` stores the document as text, otherwise as an uncompressed crate.
std::string serializePackage(const Document& doc, const AssetStore& assets, bool text);
// The whole package, checked; empty on any violation, and nothing partly read survives. The
// document inside must be text or a crate: a package nested in a package is refused.
std::optional<std::pair<Document, AssetStore>> deserializePackage(std::string_view bytes);

// Which native format a buffer holds, judged by its first bytes only.
enum class Format : std::uint32_t { Unknown = 0, Text = 1, Binary = 2, Package = 3 };
Format detect(std::string_view bytes);

// The one door for native bytes: picks the reader by content. `error` may be null.
std::optional<Document> deserialize(std::string_view bytes, ParseError* error);

// The whole content of a regular file. No value when it is missing or unreadable, and for
// anything that is not a regular file (directory, FIFO, socket, device), which is never waited on.
std::optional<std::string> readRegularFile(const std::string& path);

// Replaces `path` atomically through `path + ".tmp"`; on failure the old content stays.
bool writeFileDurably(const std::string& path, std::string_view bytes);

}  // namespace ostrevik
