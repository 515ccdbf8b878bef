// Document editing: insertion, removal and moves of subtrees, wiring and the layer records.
#include "ostrevik/core.h"

#include <algorithm>
#include <unordered_set>

namespace ostrevik {

namespace {

// Rewrites `path` in place when it lies at or under `from`; the property part is kept.
void moveUnder(Path& path, const Path& from, const Path& to) {
    if (from.isAncestorOf(path)) path = path.reparented(from, to);
}

// Keeps one wire per target, the latest, as connecting again would. Needed after a move that
// lands wires on slots that dangling wires already drive.
void dropShadowedConnections(std::vector<Connection>& connections) {
    struct Hash {
        std::size_t operator()(const Path* p) const { return std::hash<Path>()(*p); }
    };
    struct Equal {
        bool operator()(const Path* a, const Path* b) const { return *a == *b; }
    };
    std::unordered_set<const Path*, Hash, Equal> seen;
    seen.reserve(connections.size());
    std::vector<char> shadowed(connections.size(), 0);
    bool any = false;
    for (std::size_t i = connections.size(); i-- > 0;) {
        if (!seen.insert(&connections[i].target).second) {
            shadowed[i] = 1;
            any = true;
        }
    }
    if (!any) return;
    std::size_t out = 0;
    for (std::size_t i = 0; i < connections.size(); ++i)
        if (!shadowed[i]) connections[out++] = std::move(connections[i]);
    connections.resize(out);
}

// Sorted insertion without duplicates.
void insertSorted(std::vector<Path>& records, Path path) {
    auto it = std::lower_bound(records.begin(), records.end(), path);
    if (it != records.end() && *it == path) return;
    records.insert(it, std::move(path));
}

}  // namespace

void Document::insert(Element element) {
    Rep& rep = w();
    rep.elements.push_back(std::move(element));
    indexLast(rep);
}

bool Document::insertAll(std::vector<Element> elements) {
    Rep& rep = w();
    const std::size_t distinctBefore = rep.byPath.size;
    const std::size_t count = elements.size();
    if (rep.elements.empty()) {
        // Indexing everything afresh gives what inserting one by one would, without growing
        // the tables step by step.
        rep.elements = std::move(elements);
        reindex(rep);
    } else {
        rep.elements.reserve(rep.elements.size() + count);
        for (Element& e : elements) {
            rep.elements.push_back(std::move(e));
            indexLast(rep);
        }
    }
    return rep.byPath.size == distinctBefore + count;
}

Path Document::addChild(const Path& parent, std::string_view type) {
    Rep& rep = w();
    std::uint64_t n = 0;
    if (const auto* children = childList(rep, parent)) n = children->size();
    Path path = parent.child(n);
    while (lookup(rep, path, false) != 0) path = parent.child(++n);

    Element e;
    e.path = path;
    e.type = type;
    rep.elements.push_back(std::move(e));
    indexLast(rep);
    return path;
}

void Document::remove(const Path& path) {
    Rep& rep = w();
    const Path p = path.elementPath();

    auto& elements = rep.elements;
    const std::size_t elementCount = elements.size();
    elements.erase(std::remove_if(elements.begin(), elements.end(),
                                  [&](const Element& e) { return p.isAncestorOf(e.path); }),
                   elements.end());

    auto& connections = rep.connections;
    const std::size_t connectionCount = connections.size();
    connections.erase(std::remove_if(connections.begin(), connections.end(),
                                     [&](const Connection& c) {
                                         return p.isAncestorOf(c.source) || p.isAncestorOf(c.target);
                                     }),
                      connections.end());

    auto& links = rep.globLinks;
    links.erase(std::remove_if(links.begin(), links.end(),
                               [&](const GlobLink& l) { return p.isAncestorOf(l.source); }),
                links.end());

    // The indexes are already exact when nothing went, so only a real change pays for a rebuild.
    if (elements.size() != elementCount) reindex(rep);
    if (connections.size() != connectionCount) rebuildIncoming(rep);
}

Path Document::rename(const Path& from, const Path& to) {
    Rep& rep = w();
    const Path src = from.elementPath();
    if (lookup(rep, src, false) == 0) return from;

    std::optional<Path> parent = to.parent();
    const Path dstParent = parent ? std::move(*parent) : Path();
    if (src.isAncestorOf(dstParent)) return from;

    std::optional<std::string> name = to.name();
    const Path dst = uniqueChildPath(dstParent, name ? *name : std::string("element"), &src);
    if (dst == src) return src;

    for (auto& e : rep.elements) moveUnder(e.path, src, dst);
    bool targetMoved = false;
    for (auto& c : rep.connections) {
        moveUnder(c.source, src, dst);
        if (src.isAncestorOf(c.target)) {
            c.target = c.target.reparented(src, dst);
            targetMoved = true;
        }
    }
    for (auto& l : rep.globLinks) moveUnder(l.source, src, dst);
    if (targetMoved) dropShadowedConnections(rep.connections);

    reindex(rep);
    rebuildIncoming(rep);
    return dst;
}

bool Document::connect(const Path& source, const Path& target) {
    if (!source.property || !target.property) return false;
    Rep& rep = w();
    auto& connections = rep.connections;
    // Every wired target is in `incoming`, so a new target needs no scan for an old wire.
    if (!rep.incoming.insert_or_assign(target, source).second) {
        connections.erase(std::remove_if(connections.begin(), connections.end(),
                                         [&](const Connection& c) { return c.target == target; }),
                          connections.end());
    }
    connections.push_back(Connection{source, target});
    return true;
}

bool Document::disconnect(const Path& target) {
    Rep& rep = w();
    rep.incoming.erase(target);
    auto& connections = rep.connections;
    const std::size_t before = connections.size();
    connections.erase(std::remove_if(connections.begin(), connections.end(),
                                     [&](const Connection& c) { return c.target == target; }),
                      connections.end());
    return connections.size() != before;
}

std::size_t Document::pruneDanglingConnections() {
    Rep& rep = w();
    // Is the element part of `slot` (its segments, property ignored) an indexed element?
    auto hasElementOf = [&](const Path& slot) { return lookup(rep, slot, true) != 0; };
    auto& connections = rep.connections;
    const std::size_t before = connections.size();
    connections.erase(std::remove_if(connections.begin(), connections.end(),
                                     [&](const Connection& c) {
                                         return !hasElementOf(c.source) || !hasElementOf(c.target);
                                     }),
                      connections.end());
    auto& links = rep.globLinks;
    links.erase(std::remove_if(links.begin(), links.end(),
                               [&](const GlobLink& l) { return !hasElementOf(l.source); }),
                links.end());

    const std::size_t removed = before - connections.size();
    if (removed != 0) rebuildIncoming(rep);
    return removed;
}

std::string Document::uniqueName(const std::string& name, const std::set<std::string>& taken) {
    const std::string base = name.empty() ? std::string("element") : name;
    if (taken.count(base) == 0) return base;
    for (std::uint64_t n = 1;; ++n) {
        std::string candidate = base + "_" + std::to_string(n);
        if (taken.count(candidate) == 0) return candidate;
    }
}

void Document::addDeletion(const Path& path) {
    insertSorted(w().deletions, path.elementPath());
}

void Document::addConnectionDeletion(const Path& target) {
    insertSorted(w().connectionDeletions, target);
}

void Document::addGlobLink(const Path& source, const std::string& targetSpec) {
    w().globLinks.push_back(GlobLink{source, targetSpec});
}

void Document::addReorder(const Path& parent, std::vector<Path> order) {
    auto& reorders = w().reorders;
    Path p = parent.elementPath();
    auto it = std::lower_bound(reorders.begin(), reorders.end(), p,
                               [](const Reorder& r, const Path& key) { return r.parent < key; });
    if (it != reorders.end() && it->parent == p) {
        it->order = std::move(order);
        return;
    }
    reorders.insert(it, Reorder{std::move(p), std::move(order)});
}

}  // namespace ostrevik
