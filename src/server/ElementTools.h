// The ten tools that read and edit the open document in memory.
#pragma once

#include "Tools.h"

namespace zserver {

// Each takes the session, the request and the path of its arguments element (which may be
// absent) and words its own outcome.
ToolResult toolDescribe(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolGetElement(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolDefineElement(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolRemoveElement(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolRenameElement(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolSetProperty(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolRemoveProperty(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolSetMetadata(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolConnect(Session& session, const Reader& reader, const ostrevik::Path& args);
ToolResult toolDisconnect(Session& session, const Reader& reader, const ostrevik::Path& args);

}  // namespace zserver
