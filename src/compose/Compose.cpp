// Composition: every reference of a document is resolved, recursively, into one flat document.
#include <ostrevik/compose.h>
#include <ostrevik/io.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <unordered_set>

namespace ostrevik {

namespace {

namespace fs = std::filesystem;

using PathSet = std::unordered_set<Path>;

struct State {
    const Resolver& resolver;
    std::set<std::string> inProgress;
    std::map<std::string, Document> composedDocs;
};

std::optional<Document> composeInto(State& state, const Document& doc, const std::string& id);

// Element paths strictly below `host` in `out`: the local elements that hide referenced ones.
// A full walk, since elements may stand below `host` without their parents existing.
PathSet localsUnder(const Document& out, const Path& host) {
    PathSet locals;
    for (const Element& e : out.elements()) {
        if (e.path.segments.size() > host.segments.size() && host.isAncestorOf(e.path))
            locals.insert(e.path.elementPath());
    }
    return locals;
}

// True when `m` is one of `locals` or lies below one (only paths strictly below `host` count).
bool hiddenByLocal(const PathSet& locals, const Path& host, Path m) {
    if (locals.empty()) return false;
    while (m.segments.size() > host.segments.size()) {
        if (locals.count(m)) return true;
        m.segments.pop_back();
    }
    return false;
}

bool hasWire(const Document& out, const Path& target) {
    // `out` holds no glob links, so this is exactly a lookup of direct connections.
    return out.findIncoming(target).has_value();
}

void singleGraft(Document& out, const Document& r, const Path& root, const Path& host) {
    const PathSet locals = localsUnder(out, host);
    for (const Element& src : r.elements()) {
        if (!root.isAncestorOf(src.path)) continue;
        Path m = src.path.reparented(root, host);
        if (m == host) {
            Element* h = out.element(host);
            for (const auto& [name, prop] : src.properties) h->properties.try_emplace(name, prop);
            for (const auto& [key, value] : src.metadata) h->metadata.try_emplace(key, value);
            if (h->type.empty()) h->type = src.type;
            continue;
        }
        if (hiddenByLocal(locals, host, m)) continue;
        Element copy = src;
        copy.path = std::move(m);
        out.insert(std::move(copy));
    }
    for (const Connection& c : r.connections()) {
        if (!root.isAncestorOf(c.source) || !root.isAncestorOf(c.target)) continue;
        Path t = c.target.reparented(root, host);
        if (hasWire(out, t)) continue;
        out.connect(c.source.reparented(root, host), t);
    }
}

// Matched paths, and every ancestor of a matched path, for the "related to a match" test.
struct Matches {
    PathSet matched;
    PathSet ancestors;

    // `p` equals a match, lies below one, or lies above one.
    bool related(const Path& p) const {
        Path q = p.elementPath();  // a slot is related through its element
        if (ancestors.count(q)) return true;
        while (true) {
            if (matched.count(q)) return true;
            if (q.segments.empty()) return false;
            q.segments.pop_back();
        }
    }
};

void globGraft(Document& out, const Document& r, const PathPattern& pattern, const Path& host) {
    const Path prefix = pattern.prefix();
    Matches m;
    for (const Element* e : r.find(pattern)) {
        Path p = e->path.elementPath();
        Path a = p;
        while (!a.segments.empty()) {
            a.segments.pop_back();
            if (!m.ancestors.insert(a).second) break;
        }
        m.matched.insert(std::move(p));
    }
    if (m.matched.empty()) return;
    const PathSet locals = localsUnder(out, host);
    for (const Element& src : r.elements()) {
        const Path p = src.path.elementPath();
        if (!prefix.isAncestorOf(p) || p == prefix) continue;
        if (!m.related(p)) continue;
        Path mapped = p.reparented(prefix, host);
        if (hiddenByLocal(locals, host, mapped)) continue;
        Element copy = src;
        copy.path = std::move(mapped);
        out.insert(std::move(copy));
    }
    for (const Connection& c : r.connections()) {
        if (!m.related(c.source) || !m.related(c.target)) continue;
        Path t = c.target.reparented(prefix, host);
        if (hasWire(out, t)) continue;
        out.connect(c.source.reparented(prefix, host), t);
    }
}

// The composed form of the referenced document, parsed and composed once per call.
std::optional<Document> referenced(State& state, const ResolvedDoc& resolved) {
    if (state.inProgress.count(resolved.resolvedId)) return std::nullopt;  // a cycle
    auto cached = state.composedDocs.find(resolved.resolvedId);
    if (cached != state.composedDocs.end()) return cached->second;
    auto parsed = deserialize(resolved.bytes, nullptr);
    if (!parsed) return std::nullopt;
    auto composed = composeInto(state, *parsed, resolved.resolvedId);
    if (!composed) return std::nullopt;
    state.composedDocs.emplace(resolved.resolvedId, *composed);
    return composed;
}

std::optional<Document> composeBody(State& state, const Document& doc, const std::string& id) {
    Document out;
    for (const Element& e : doc.elements()) out.insert(e);
    for (const Connection& c : doc.connections()) out.connect(c.source, c.target);

    for (const Element& e : doc.elements()) {
        auto ref = e.metadata.find("reference");
        if (ref == e.metadata.end()) continue;
        auto resolved = state.resolver(ref->second, id);
        if (!resolved) return std::nullopt;
        auto r = referenced(state, *resolved);
        if (!r) return std::nullopt;

        const Path host = e.path.elementPath();
        auto refPath = e.metadata.find("referencePath");
        if (refPath == e.metadata.end()) {
            auto top = std::find_if(r->elements().begin(), r->elements().end(),
                                    [](const Element& x) { return x.path.segments.size() <= 1; });
            if (top == r->elements().end()) return std::nullopt;
            singleGraft(out, *r, top->path.elementPath(), host);
        } else if (refPath->second.find('*') == std::string::npos) {
            auto p = Path::parse(refPath->second);
            if (!p) return std::nullopt;
            const Element* root = r->element(*p);
            if (!root) return std::nullopt;
            singleGraft(out, *r, root->path.elementPath(), host);
        } else {
            auto pattern = PathPattern::parse(refPath->second);
            if (!pattern) return std::nullopt;
            globGraft(out, *r, *pattern, host);
        }
        if (Element* h = out.element(host)) {
            h->metadata.erase("reference");
            h->metadata.erase("referencePath");
        }
    }
    return out;
}

std::optional<Document> composeInto(State& state, const Document& doc, const std::string& id) {
    state.inProgress.insert(id);
    auto result = composeBody(state, doc, id);
    state.inProgress.erase(id);
    return result;
}

// `full` is `base` itself or lies below it; the byte test keeps "/r2" out of "/r".
bool inside(const std::string& full, const std::string& base) {
    return full == base || (full.size() > base.size() && full.compare(0, base.size(), base) == 0 &&
                            full[base.size()] == '/');
}

// References relative to the referencing file; with a non-empty `base` (canonical), only files
// inside it resolve.
Resolver fileResolver(std::string base) {
    return [base = std::move(base)](const std::string& reference,
                                    const std::string& referencingId) -> std::optional<ResolvedDoc> {
        std::error_code ec;
        fs::path joined = fs::path(referencingId).parent_path() / reference;
        fs::path canonical = fs::weakly_canonical(joined, ec);
        std::string resolved = ec ? joined.string() : canonical.string();
        if (!base.empty() && (ec || !inside(resolved, base))) return std::nullopt;
        auto bytes = readRegularFile(resolved);
        if (!bytes) return std::nullopt;
        return ResolvedDoc{std::move(resolved), std::move(*bytes)};
    };
}

}  // namespace

std::optional<Document> compose(const Document& doc, const std::string& id, const Resolver& resolver) {
    State state{resolver, {}, {}};
    return composeInto(state, doc, id);
}

std::optional<Document> composeFile(const std::string& path) { return composeFileWithin(path, {}); }

std::optional<Document> composeFileWithin(const std::string& path, const std::string& root) {
    std::error_code ec;
    std::string base;
    if (!root.empty()) {
        fs::path absRoot = fs::absolute(root, ec);
        if (!ec) base = fs::weakly_canonical(absRoot, ec).string();
        if (ec || base.empty()) return std::nullopt;
    }
    auto bytes = readRegularFile(path);
    if (!bytes) return std::nullopt;
    auto doc = deserialize(*bytes, nullptr);
    if (!doc) return std::nullopt;
    bytes.reset();
    fs::path absolute = fs::absolute(path, ec);
    if (ec) absolute = path;
    fs::path canonical = fs::weakly_canonical(absolute, ec);
    std::string id = ec ? absolute.string() : canonical.string();
    return compose(*doc, id, fileResolver(std::move(base)));
}

bool Document::loadComposed(const std::string& path) {
    auto composed = composeFile(path);
    if (!composed) return false;
    *this = std::move(*composed);
    return true;
}

}  // namespace ostrevik
