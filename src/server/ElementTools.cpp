// describe, get_element, define_element, remove_element, rename_element, set_property,
// remove_property, set_metadata, connect and disconnect.
#include "ElementTools.h"

#include "ValueText.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zserver {

using ostrevik::Document;
using ostrevik::Element;
using ostrevik::Path;
using ostrevik::Property;
using ostrevik::Value;

namespace {

ToolResult success(std::string text) { return {true, std::move(text)}; }
ToolResult failure(std::string text) { return {false, std::move(text)}; }

// A string argument: present only as a scalar string.
std::optional<std::string> argString(const Reader& reader, const Path& args, const char* key) {
    return reader.str(args, key);
}

// A path argument: a string argument that parses as a path; anything else counts as missing.
std::optional<Path> argPath(const Reader& reader, const Path& args, const char* key) {
    std::optional<std::string> text = reader.str(args, key);
    if (!text) return std::nullopt;
    return Path::parse(*text);
}

// Appends the text form of `path` without building a temporary string.
void appendPath(std::string& out, const Path& path) {
    if (path.segments.empty() && !path.property) {
        out += '/';
        return;
    }
    for (const std::string& segment : path.segments) {
        out += '/';
        out += segment;
    }
    if (path.property) {
        out += '.';
        out += *path.property;
    }
}

std::size_t pathLength(const Path& path) {
    std::size_t n = path.segments.empty() && !path.property ? 1 : 0;
    for (const std::string& segment : path.segments) n += 1 + segment.size();
    if (path.property) n += 1 + path.property->size();
    return n;
}

std::size_t digits(std::size_t n) {
    std::size_t d = 1;
    while (n >= 10) n /= 10, ++d;
    return d;
}

bool parentExists(const Document& doc, const Path& path) {
    std::optional<Path> parent = path.parent();
    return !parent || parent->segments.empty() || doc.has(*parent);
}

// The index spelled by `key` when it is the plain decimal form of a number below `limit`.
std::optional<std::size_t> decimalIndex(const std::string& key, std::size_t limit) {
    if (key.empty() || (key.size() > 1 && key[0] == '0')) return std::nullopt;
    std::size_t value = 0;
    for (char c : key) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + std::size_t(c - '0');
        if (value >= limit) return std::nullopt;
    }
    return value;
}

// The numbers of a list argument: items 0, 1, 2, ... up to the first index without a scalar.
// One pass over the properties, so a list of a million numbers costs no more than reading it.
std::vector<float> gatherNumbers(const Element& list) {
    const std::size_t n = list.properties.size();
    std::vector<float> numbers(n, 0.0f);
    std::vector<char> present(n, 0);
    for (const auto& [key, property] : list.properties) {
        if (std::optional<std::size_t> index = decimalIndex(key, n)) {
            numbers[*index] = property.value.asFloat();
            present[*index] = 1;
        }
    }
    std::size_t count = 0;
    while (count < n && present[count]) ++count;
    numbers.resize(count);
    return numbers;
}

void replaceProperty(Session& session, const Path& path, const std::string& name, Value value) {
    Property property;
    property.value = std::move(value);
    session.doc.element(path)->properties.insert_or_assign(name, std::move(property));
}

std::string noElementAt(const Path& path) { return "no element at " + path.str(); }

}  // namespace

ToolResult toolDescribe(Session& session, const Reader&, const Path&) {
    const Document& doc = session.doc;
    const std::vector<Element>& elements = doc.elements();
    const std::string& file = session.path.empty() ? std::string("(unsaved)") : session.path;
    if (elements.empty()) return success("document: " + file + "\n(empty)\n");

    // "  <path>  [<type>]  <n> props\n" per element; sized exactly so the text grows once.
    std::size_t size = 11 + file.size();
    for (const Element& element : elements)
        size += 2 + pathLength(element.path) + 3 + element.type.size() + 3 +
                digits(element.properties.size()) + 7;
    std::string text;
    text.reserve(size);
    text += "document: ";
    text += file;
    text += '\n';
    for (const Element& element : elements) {
        text += "  ";
        appendPath(text, element.path);
        text += "  [";
        text += element.type;
        text += "]  ";
        text += std::to_string(element.properties.size());
        text += " props\n";
    }
    return success(std::move(text));
}

ToolResult toolGetElement(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    if (!path) return failure("missing or invalid 'path'");
    const Document& doc = session.doc;
    const Element* element = doc.element(*path);
    if (!element) return failure(noElementAt(*path));

    std::string text = "path: " + path->str() + "\ntype: " + element->type + "\nproperties:\n";
    for (const auto& [name, property] : element->properties) {
        text += "  ";
        text += name;
        text += " : ";
        text += valueText(property.value);
        text += '\n';
    }
    text += "metadata:\n";
    for (const auto& [key, value] : element->metadata) {
        text += "  ";
        text += key;
        text += " = ";
        text += value;
        text += '\n';
    }
    text += "children:\n";
    // A slot names a property, and nothing has a property as its parent.
    const std::vector<std::size_t>* positions = path->property ? nullptr : doc.childPositions(*path);
    if (positions) {
        const std::vector<Element>& elements = doc.elements();
        for (std::size_t position : *positions) {
            text += "  ";
            appendPath(text, elements[position].path);
            text += '\n';
        }
    }
    return success(std::move(text));
}

ToolResult toolDefineElement(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    if (!path) return failure("missing or invalid 'path'");
    std::optional<std::string> type = argString(reader, args, "type");
    if (!type) return failure("missing 'type'");
    if (session.doc.has(*path)) return failure("an element already exists at " + path->str());
    if (!parentExists(session.doc, *path))
        return failure("parent element of " + path->str() + " does not exist; create it first");
    // An element never stands on a slot or on the root itself; say so rather than guess.
    if (path->property)
        return failure("'path' names a slot, not an element: " + path->str() +
                       " (leave out the ." + *path->property + ")");
    if (path->segments.empty()) return failure("cannot define an element at the root path /");

    Element element;
    element.path = *path;
    element.type = *type;
    session.doc.insert(std::move(element));
    return success("defined " + path->str() + " [" + *type + "]");
}

ToolResult toolRemoveElement(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    if (!path) return failure("missing or invalid 'path'");
    if (!session.doc.has(*path)) return failure(noElementAt(*path));
    std::size_t count = 0;
    for (const Element& element : session.doc.elements())
        if (path->isAncestorOf(element.path)) ++count;
    // Removing the top takes its whole subtree with it: one pass instead of one per element.
    session.doc.remove(path->elementPath());
    return success("removed " + std::to_string(count) + " element(s) under " + path->str());
}

ToolResult toolRenameElement(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> from = argPath(reader, args, "from");
    std::optional<Path> to = argPath(reader, args, "to");
    if (!from || !to) return failure("missing or invalid 'from'/'to'");
    if (!session.doc.has(*from)) return failure(noElementAt(*from));
    if (session.doc.has(*to)) return failure("an element already exists at " + to->str());
    if (!parentExists(session.doc, *to))
        return failure("parent element of " + to->str() + " does not exist; create it first");
    Path moved = session.doc.rename(*from, *to);
    if (moved.elementPath() == from->elementPath() && from->elementPath() != to->elementPath())
        return failure("rename rejected (cannot move " + from->str() + " under its own descendant)");
    return success("renamed to " + moved.str());
}

ToolResult toolSetProperty(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    if (!path) return failure("missing or invalid 'path'");
    std::optional<std::string> name = argString(reader, args, "name");
    if (!name) return failure("missing 'name'");
    if (!session.doc.has(*path)) return failure(noElementAt(*path));
    std::optional<std::string> dtype = argString(reader, args, "dtype");

    if (const Property* scalar = reader.prop(args, "value")) {
        replaceProperty(session, *path, *name, dtype ? coerce(scalar->value, *dtype) : scalar->value);
        return success("set " + path->str() + "." + *name);
    }

    std::vector<float> numbers;
    if (const Element* list = reader.doc().element(args.child(std::string_view("value"))))
        numbers = gatherNumbers(*list);
    if (numbers.empty()) return failure("missing 'value' (a JSON scalar or a numeric array)");
    const std::string kind = dtype.value_or(std::string());
    const std::size_t needed = kind == "float2" ? 2 : kind == "float3" ? 3 : 0;
    if (numbers.size() < needed)
        return failure("dtype " + kind + " needs " + std::to_string(needed) + " values, got " +
                       std::to_string(numbers.size()));
    replaceProperty(session, *path, *name, buildArrayValue(numbers, kind));
    return success("set " + path->str() + "." + *name + " (" + std::to_string(numbers.size()) +
                   " values)");
}

ToolResult toolRemoveProperty(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    std::optional<std::string> name = argString(reader, args, "name");
    if (!path || !name) return failure("missing 'path'/'name'");
    if (!session.doc.has(*path)) return failure(noElementAt(*path));
    const Element* element = std::as_const(session.doc).element(*path);
    if (element->properties.count(*name)) session.doc.element(*path)->properties.erase(*name);
    return success("removed property " + *name);
}

ToolResult toolSetMetadata(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> path = argPath(reader, args, "path");
    std::optional<std::string> key = argString(reader, args, "key");
    std::optional<std::string> value = argString(reader, args, "value");
    if (!path || !key || !value) return failure("missing 'path'/'key'/'value'");
    if (!session.doc.has(*path)) return failure(noElementAt(*path));
    session.doc.element(*path)->metadata.insert_or_assign(*key, std::move(*value));
    return success("set metadata " + *key);
}

ToolResult toolConnect(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> source = argPath(reader, args, "source");
    std::optional<Path> target = argPath(reader, args, "target");
    if (!source || !target) return failure("missing or invalid 'source'/'target'");
    if (!session.doc.has(*source)) return failure(noElementAt(source->elementPath()) + " (source)");
    if (!session.doc.has(*target)) return failure(noElementAt(target->elementPath()) + " (target)");
    // A wire runs between properties; an element path would leave nothing connected.
    if (!source->property)
        return failure("not a slot: " + source->str() + " (source); name a property, e.g. " +
                       source->appendingProperty("out").str());
    if (!target->property)
        return failure("not a slot: " + target->str() + " (target); name a property, e.g. " +
                       target->appendingProperty("in").str());
    if (!session.doc.connect(*source, *target)) return failure("connection refused");
    return success("connected " + source->str() + " -> " + target->str());
}

ToolResult toolDisconnect(Session& session, const Reader& reader, const Path& args) {
    std::optional<Path> target = argPath(reader, args, "target");
    if (!target) return failure("missing or invalid 'target'");
    std::optional<Path> source = session.doc.findIncoming(*target);
    if (!source) return failure("no connection into " + target->str());
    // findIncoming also sees glob links, which this tool cannot take back: say so instead of
    // reporting a disconnection that leaves the slot driven.
    bool wired = false;
    for (const ostrevik::Connection& connection : session.doc.connections())
        if (connection.target == *target) wired = true;
    if (!wired)
        return failure("no direct connection into " + target->str() + "; it is driven by a glob link from " +
                       source->str() + ", which disconnect does not remove");
    session.doc.disconnect(*target);
    return success("disconnected " + target->str());
}

}  // namespace zserver
