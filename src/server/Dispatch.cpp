// One JSON-RPC message in, at most one reply out; both travel as documents.
#include "Dispatch.h"

#include "Tools.h"

#include <ostrevik/codecs.h>

#include <cstring>

namespace zserver {

using ostrevik::Document;
using ostrevik::DType;
using ostrevik::Path;
using ostrevik::Property;
using ostrevik::Value;

namespace {

const char* const kProtocolVersion = "2024-11-05";
const char* const kInstructions =
    "This server edits Zelth documents \xE2\x80\x94 an ordered tree of typed elements (each "
    "element's PATH is its identity), their typed properties, and the connections between "
    "element slots. One document is open at a time, within a launch root directory.\n\n"
    "Typical flow: `search` to find .zeltha/.zelth files under the root, `load` one (this "
    "REPLACES the open document), inspect with `describe` (cheap whole-document overview) and "
    "`get_element`, mutate by path with `define_element` / `set_property` / `remove_element` / "
    "`rename_element` / `connect`, then `save` and `commit` (commit is the versioning + publish "
    "step).\n\n"
    "Conventions: paths are absolute from root, e.g. `/world/sphere`; a slot is "
    "`/element.property`. Element names use [A-Za-z0-9_] only \xE2\x80\x94 no hyphens or "
    "spaces. Every file path is confined to the launch root.";

const Path& rootPath() {
    static const Path path = P("/root");
    return path;
}
const Path& paramsPath() {
    static const Path path = P("/root/params");
    return path;
}
const Path& argumentsPath() {
    static const Path path = P("/root/params/arguments");
    return path;
}

Value number(double x) {
    Value v;
    v.dtype = DType::Float64;
    v.shape.clear();
    v.strings.clear();
    v.data.resize(sizeof x);
    std::memcpy(v.data.data(), &x, sizeof x);
    return v;
}

// JSON null as the codec spells it: a string array of shape [0].
Value nullForm() {
    Value v;
    v.dtype = DType::Str;
    v.shape = {0};
    v.data.clear();
    v.strings.clear();
    return v;
}

std::optional<std::string> errorReply(Builder& reply, bool hasId, double code,
                                      const std::string& message) {
    if (!hasId) return std::nullopt;
    Path error = reply.object(rootPath(), "error");
    reply.put(error, "code", number(code));
    reply.set(error, "message", message);
    return reply.toJson();
}

void initialize(Builder& reply, const Reader& request) {
    Log::instance().write("initialize");
    Path result = reply.object(rootPath(), "result");
    std::optional<std::string> version = request.str(paramsPath(), "protocolVersion");
    reply.set(result, "protocolVersion", version ? *version : std::string(kProtocolVersion));
    Path capabilities = reply.object(result, "capabilities");
    reply.object(capabilities, "tools");
    Path info = reply.object(result, "serverInfo");
    reply.set(info, "name", "ostrevik-server");
    reply.set(info, "version", "0.1.0");
    reply.set(result, "instructions", kInstructions);
}

void toolsCall(Session& session, Builder& reply, const Reader& request) {
    std::optional<std::string> name = request.str(paramsPath(), "name");
    Log::instance().write("tool/call  " + (name ? *name : std::string("(none)")));
    Path result = reply.object(rootPath(), "result");
    Path content = reply.array(result, "content");
    Path item = reply.doc.append(content.child(std::string_view("0")), "object").path;
    reply.set(item, "type", "text");
    if (!name) {
        reply.set(item, "text", "missing tool name");
        reply.put(result, "isError", Value(true));
        return;
    }
    ToolResult outcome = callTool(session, *name, request, argumentsPath());
    if (outcome.text.empty())
        reply.set(item, "text", outcome.ok ? "ok" : "error");
    else
        reply.set(item, "text", outcome.text);
    if (!outcome.ok) reply.put(result, "isError", Value(true));
    std::string firstLine = outcome.text.substr(0, outcome.text.find('\n'));
    Log::instance().write((outcome.ok ? "  ok   " : "  ERR  ") + firstLine);
}

}  // namespace

Path P(std::string_view text) { return Path(text); }

// ---------------------------------------------------------------------------------------------
// Builder

Builder::Builder() { doc.append(rootPath(), "object"); }

Path Builder::object(const Path& parent, const std::string& name) {
    return doc.append(parent.child(name), "object").path;
}

Path Builder::array(const Path& parent, const std::string& name) {
    return doc.append(parent.child(name), "array").path;
}

void Builder::set(const Path& path, const std::string& key, const char* text) {
    put(path, key, Value(std::string(text)));
}

void Builder::set(const Path& path, const std::string& key, const std::string& text) {
    put(path, key, Value(text));
}

void Builder::put(const Path& path, const std::string& key, const Value& value) {
    if (!doc.has(path)) return;  // the mutable lookup would clone for nothing
    ostrevik::Element* element = doc.element(path);
    if (!element) return;
    Property property;
    property.value = value;
    element->properties.insert_or_assign(key, std::move(property));
}

std::string Builder::toJson() const {
    ostrevik::codecs::JsonCodec codec;
    return codec.encode(doc).value_or("{}");
}

// ---------------------------------------------------------------------------------------------
// Reader

const Property* Reader::prop(const Path& path, const std::string& key) const {
    const ostrevik::Element* element = doc_.element(path);
    if (!element) return nullptr;
    auto it = element->properties.find(key);
    return it == element->properties.end() ? nullptr : &it->second;
}

std::optional<std::string> Reader::str(const Path& path, const std::string& key) const {
    const Property* property = prop(path, key);
    if (!property) return std::nullopt;
    const Value& value = property->value;
    if (value.dtype != DType::Str || !value.shape.empty() || value.strings.empty())
        return std::nullopt;
    return value.strings.front();
}

// ---------------------------------------------------------------------------------------------
// dispatch

std::optional<std::string> dispatch(Session& session, std::string_view text) {
    ostrevik::codecs::JsonCodec codec;
    std::optional<Document> decoded = codec.decodeMessage(text, nullptr);
    if (!decoded) {
        Builder reply;
        reply.set(rootPath(), "jsonrpc", "2.0");
        reply.put(rootPath(), "id", nullForm());
        Path error = reply.object(rootPath(), "error");
        reply.put(error, "code", number(-32700));
        reply.set(error, "message", "parse error");
        return reply.toJson();
    }

    Reader request(*decoded);
    std::optional<std::string> method = request.str(rootPath(), "method");
    const Property* id = request.prop(rootPath(), "id");
    const bool hasId = id != nullptr;

    Builder reply;
    reply.set(rootPath(), "jsonrpc", "2.0");
    if (hasId) reply.put(rootPath(), "id", id->value);

    if (!method) return errorReply(reply, hasId, -32600, "invalid request: no method");
    if (*method == "initialize") {
        initialize(reply, request);
    } else if (method->starts_with("notifications/")) {
        return std::nullopt;
    } else if (*method == "ping") {
        reply.object(rootPath(), "result");
    } else if (*method == "tools/list") {
        Path result = reply.object(rootPath(), "result");
        Path tools = reply.array(result, "tools");
        buildToolCatalog(reply, tools);
    } else if (*method == "tools/call") {
        toolsCall(session, reply, request);
    } else {
        return errorReply(reply, hasId, -32601, "method not found: " + *method);
    }
    if (!hasId) return std::nullopt;
    return reply.toJson();
}

}  // namespace zserver
