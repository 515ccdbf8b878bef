// Placeholder until the tool catalog and the tools land.
#include "Tools.h"

namespace zserver {

void buildToolCatalog(Builder&, const ostrevik::Path&) {}

ToolResult callTool(Session&, const std::string& name, const Reader&, const ostrevik::Path&) {
    return {false, "unknown tool: " + name};
}

}  // namespace zserver
