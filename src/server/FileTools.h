// The tools that move documents between memory and files, and their small file helpers.
#pragma once

#include "Tools.h"

#include <optional>
#include <string>
#include <string_view>

namespace zserver {

// Holds `path` inside the launch root `root` (unchanged when `root` is empty); no value when
// it would lead out, and for any path holding a NUL byte. Returns the canonical text.
std::optional<std::string> confine(const std::string& root, const std::string& path);
// The whole file, or no value when it cannot be read or is no regular file.
std::optional<std::string> readFile(const std::string& path);
// The extension without the dot, lower-case; empty when there is none.
std::string lowerExt(std::string_view path);
bool endsWith(std::string_view text, std::string_view suffix);

// Opens the document named on the command line; returns false (after printing the reason)
// when the file exists but cannot be parsed.
bool openStartDocument(Session& session, const std::string& path);

ToolResult toolSave(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolLoad(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolSearch(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolCompose(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolCommit(Session& session, const Reader& reader, const ostrevik::Path& args);

}  // namespace zserver
