// The tool catalog that tools/list writes, and the frame through which tools/call runs a tool.
#include "Tools.h"

#include "ElementTools.h"
#include "FileTools.h"

#include <string>
#include <vector>

namespace zserver {

using ostrevik::Path;

namespace {

struct Param {
    const char* name;
    const char* type;  // JSON Schema type word; empty leaves the parameter untyped
    const char* description;
    bool required;
};

using ToolFn = ToolResult (*)(Session&, const Reader&, const Path&);

struct ToolDef {
    const char* name;
    const char* description;
    std::vector<Param> params;
    ToolFn run;  // null while the tool is not built into this server
};

// Catalog order is also the order in which callTool matches names.
const std::vector<ToolDef>& tools() {
    static const std::vector<ToolDef> table = {
        {"describe",
         "List every element in the open document with its path, type, and property count \xE2\x80\x94 "
         "the cheap way to see the whole document before editing.",
         {},
         toolDescribe},
        {"get_element", "Show one element's type, properties (with values), metadata, and child paths.",
         {{"path", "string", "Element path, e.g. /world/sphere", true}},
         toolGetElement},
        {"define_element",
         "Create a new element of a given type at an exact path. The parent must already exist; the leaf "
         "name uses [A-Za-z0-9_] only (no hyphens or spaces) and is uniquified among siblings.",
         {{"path", "string", "Path for the new element, e.g. /world/sphere", true},
          {"type", "string", "Type token, e.g. object/group/light", true}},
         toolDefineElement},
        {"remove_element",
         "Remove an element and its whole subtree (and every connection touching it). No error if the "
         "path is already absent.",
         {{"path", "string", "Element path to remove", true}},
         toolRemoveElement},
        {"rename_element", "Rename/reparent an element (and its subtree) to a new path.",
         {{"from", "string", "Existing element path", true}, {"to", "string", "New element path", true}},
         toolRenameElement},
        {"set_property",
         "Set a typed property on an element. Value is a JSON scalar OR a numeric array; pass dtype to "
         "coerce/shape (e.g. float3, int[]).",
         {{"path", "string", "Element path", true},
          {"name", "string", "Property name", true},
          {"value", "", "Scalar (number/string/bool) or a numeric array, e.g. [0,1,0]", true},
          {"dtype", "string", "Optional: int32/float32/float64/bool/str/float2/float3/int[]/\xE2\x80\xA6", false}},
         toolSetProperty},
        {"remove_property", "Remove a property from an element.",
         {{"path", "string", "Element path", true}, {"name", "string", "Property name", true}},
         toolRemoveProperty},
        {"set_metadata", "Set a string metadata key on an element.",
         {{"path", "string", "Element path", true},
          {"key", "string", "Metadata key", true},
          {"value", "string", "Metadata value", true}},
         toolSetMetadata},
        {"connect",
         "Wire a source slot to a target slot (an output drives an input). One source per target \xE2\x80\x94 "
         "connecting again replaces the existing wire.",
         {{"source", "string", "Source slot path, e.g. /a.out", true},
          {"target", "string", "Target slot path, e.g. /b.in", true}},
         toolConnect},
        {"disconnect", "Remove the connection into a target slot.",
         {{"target", "string", "Target slot path", true}},
         toolDisconnect},
        {"save",
         "Write the open document to a file (.zeltha text or .zelth binary by extension); the JSON stays "
         "sorted and diff-clean.",
         {{"path", "string", "Optional path; defaults to the document's current file", false}},
         toolSave},
        {"load",
         "Open a .zeltha/.zelth file as the document to edit \xE2\x80\x94 REPLACES whatever is currently open.",
         {{"path", "string", "File to open", true}},
         toolLoad},
        {"search",
         "Find .zeltha/.zelth files under a directory (recursively); returns one matching path per line. "
         "Use this first to locate a document, then load it.",
         {{"dir", "string", "Directory to search (default: the launch root)", false},
          {"query", "string", "Optional substring to match in the path", false}},
         toolSearch},
        {"compose", "Resolve a document's references into one flattened document (USD-style composition).",
         {{"path", "string", "File to compose; defaults to the current document's file", false}},
         toolCompose},
        {"import", "Read a foreign file (json/markdown/html/svg/text/\xE2\x80\xA6) into the document via a codec.",
         {{"path", "string", "File to import", true},
          {"format", "string", "Optional format override; inferred from the extension", false}},
         nullptr},
        {"export", "Write the document out in a foreign format (json/markdown/html/svg/\xE2\x80\xA6) via a codec.",
         {{"path", "string", "File to write", true},
          {"format", "string", "Optional format override; inferred from the extension", false}},
         nullptr},
        {"commit",
         "Stage just this document's file and commit it to git (authored as the project owner), then "
         "optionally push. This is the document's versioning + publish step \xE2\x80\x94 save first.",
         {{"message", "string", "Commit message", false},
          {"push", "boolean", "Also push to the remote (default false)", false}},
         toolCommit},
    };
    return table;
}

void addTool(Builder& builder, const Path& toolsPath, std::size_t index, const char* name,
             const char* description, const std::vector<Param>& params) {
    Path tool = builder.doc.append(toolsPath.child(std::string_view(std::to_string(index))), "object").path;
    builder.set(tool, "name", name);
    builder.set(tool, "description", description);
    Path schema = builder.object(tool, "inputSchema");
    builder.set(schema, "type", "object");
    Path properties = builder.object(schema, "properties");
    Path required = builder.array(schema, "required");
    std::size_t requiredCount = 0;
    for (const Param& param : params) {
        Path entry = builder.object(properties, param.name);
        if (*param.type) builder.set(entry, "type", param.type);
        builder.set(entry, "description", param.description);
        if (param.required) builder.set(required, std::to_string(requiredCount++), param.name);
    }
}

}  // namespace

void buildToolCatalog(Builder& builder, const Path& toolsPath) {
    const std::vector<ToolDef>& table = tools();
    for (std::size_t i = 0; i < table.size(); ++i)
        addTool(builder, toolsPath, i, table[i].name, table[i].description, table[i].params);
}

ToolResult callTool(Session& session, const std::string& name, const Reader& reader, const Path& args) {
    for (const ToolDef& tool : tools()) {
        if (name != tool.name) continue;
        if (!tool.run) break;
        return tool.run(session, reader, args);
    }
    return {false, "unknown tool: " + name};
}

}  // namespace zserver
