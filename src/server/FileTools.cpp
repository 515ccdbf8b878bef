// save, load, search and compose: file paths confined to the launch root.
#include "FileTools.h"

#include <ostrevik/compose.h>
#include <ostrevik/io.h>

#include <cctype>
#include <cstdio>
#include <filesystem>

namespace zserver {

using ostrevik::Path;
namespace fs = std::filesystem;

namespace {

const char* const kEscapes = ": path escapes the document root";

// `full` is `base` itself or lies below it; the byte test keeps "/r2" out of "/r".
bool inside(const std::string& full, const std::string& base) {
    if (full == base) return true;
    return full.size() > base.size() && full.compare(0, base.size(), base) == 0 &&
           full[base.size()] == '/';
}

std::string elementCount(const ostrevik::Document& doc) { return std::to_string(doc.elements().size()); }

}  // namespace

std::optional<std::string> confine(const std::string& root, const std::string& path) {
    // The system calls would end the path at a NUL byte and reach another file than the one
    // checked here.
    if (path.find('\0') != std::string::npos) return std::nullopt;
    if (root.empty()) return path;
    std::error_code ec;
    fs::path absRoot = fs::absolute(root, ec);
    if (ec) return std::nullopt;
    const std::string base = fs::weakly_canonical(absRoot, ec).string();
    if (ec) return std::nullopt;

    fs::path p(path);
    if (p.has_root_directory()) {
        // A path that is already inside the root (as load, save and search hand them out)
        // names that very file; any other absolute path is taken relative to the root.
        std::string direct = fs::weakly_canonical(p, ec).string();
        if (!ec && inside(direct, base)) return direct;
        p = p.relative_path();
    }
    const std::string full = fs::weakly_canonical(fs::path(base) / p, ec).string();
    if (ec) return std::nullopt;
    if (!inside(full, base)) return std::nullopt;
    return full;
}

std::optional<std::string> readFile(const std::string& path) { return ostrevik::readRegularFile(path); }

std::string lowerExt(std::string_view path) {
    auto dot = path.rfind('.');
    auto sep = path.find_last_of("/\\");
    if (dot == std::string_view::npos || (sep != std::string_view::npos && dot < sep)) return {};
    std::string ext(path.substr(dot + 1));
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool openStartDocument(Session& session, const std::string& path) {
    auto bytes = readFile(path);
    if (!bytes) return true;  // a new document that save will write there
    ostrevik::ParseError error;
    auto doc = ostrevik::deserialize(*bytes, &error);
    if (!doc) {
        std::fprintf(stderr, "ostrevik-server: cannot open %s: %s\n", path.c_str(), error.message.c_str());
        return false;
    }
    session.doc = std::move(*doc);
    return true;
}

ToolResult toolSave(Session& session, const Reader& reader, const Path& args) {
    auto given = reader.str(args, "path");
    std::string target = given ? *given : session.path;
    if (target.empty()) return {false, "no path: pass 'path' or load a file first"};
    auto confined = confine(session.root, target);
    if (!confined) return {false, target + kEscapes};
    target = std::move(*confined);
    const std::string bytes = endsWith(target, ".zelth") ? ostrevik::serializeBinary(session.doc, true)
                                                         : ostrevik::serialize(session.doc, 4);
    if (!ostrevik::writeFileDurably(target, bytes)) return {false, "cannot write " + target};
    std::string text = "saved " + std::to_string(bytes.size()) + " bytes to " + target;
    if (given) session.path = std::move(target);
    return {true, std::move(text)};
}

ToolResult toolLoad(Session& session, const Reader& reader, const Path& args) {
    auto given = reader.str(args, "path");
    if (!given) return {false, "missing 'path'"};
    auto confined = confine(session.root, *given);
    if (!confined) return {false, *given + kEscapes};
    auto bytes = readFile(*confined);
    if (!bytes) return {false, "cannot read " + *confined};
    ostrevik::ParseError error;
    auto doc = ostrevik::deserialize(*bytes, &error);
    bytes.reset();
    if (!doc) {
        return {false, *confined + ": " + (error.message.empty() ? "not a ostrevik document" : error.message)};
    }
    session.doc = std::move(*doc);
    session.path = *confined;
    return {true, "loaded " + *confined + " (" + elementCount(session.doc) + " elements)"};
}

ToolResult toolSearch(Session& session, const Reader& reader, const Path& args) {
    std::string dir = reader.str(args, "dir").value_or(".");
    const auto queryArg = reader.str(args, "query");
    const std::string query = queryArg.value_or("");
    auto confined = confine(session.root, dir);
    if (!confined) return {false, dir + kEscapes};
    dir = std::move(*confined);
    std::error_code ec;
    if (!fs::is_directory(fs::status(dir, ec))) return {false, dir + ": not a directory"};

    std::string lines;
    std::size_t count = 0;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
    for (const fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
        std::error_code sec;
        if (!fs::is_regular_file(it->status(sec))) continue;
        const std::string ext = lowerExt(it->path().filename().string());
        if (ext != "zeltha" && ext != "zelth") continue;
        const std::string text = it->path().string();
        if (!query.empty() && text.find(query) == std::string::npos) continue;
        lines += "  ";
        lines += text;
        lines += '\n';
        if (++count == 500) {
            lines += "  …(capped at 500)\n";
            break;
        }
    }
    std::string out = std::to_string(count) + " ostrevik file(s) under " + dir;
    if (queryArg) out += " matching \"" + query + "\"";
    out += ":\n";
    out += lines;
    return {true, std::move(out)};
}

ToolResult toolCompose(Session& session, const Reader& reader, const Path& args) {
    std::string target = reader.str(args, "path").value_or(session.path);
    if (target.empty()) return {false, "no path: pass 'path' or load a file first"};
    auto confined = confine(session.root, target);
    if (!confined) return {false, target + kEscapes};
    target = std::move(*confined);
    // Under a launch root, references are followed only to files inside it.
    auto doc = ostrevik::composeFileWithin(target, session.root);
    if (!doc) return {false, "compose failed for " + target + " (cyclic or missing reference?)"};
    session.doc = std::move(*doc);
    session.path = target;
    return {true, "composed " + target + " → " + elementCount(session.doc) + " elements"};
}

}  // namespace zserver
