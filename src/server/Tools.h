// The tool catalog and the tool frame that tools/list and tools/call use.
#pragma once

#include "Dispatch.h"

#include <string>

namespace zserver {

struct ToolResult {
    bool ok = false;
    std::string text;
};

// Writes the seventeen tool descriptions as items of the array element at `toolsPath`.
void buildToolCatalog(Builder& builder, const ostrevik::Path& toolsPath);

// Runs the named tool; `args` is /root/params/arguments, which may not exist.
ToolResult callTool(Session& session, const std::string& name, const Reader& reader,
                    const ostrevik::Path& args);

}  // namespace zserver
