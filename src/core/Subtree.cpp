// Subtrees as documents of their own: cut one out with what drives it, paste a document in.
#include <ostrevik/core.h>

#include <unordered_map>
#include <unordered_set>

namespace ostrevik {

namespace {

// The slot on the mapped element, or the slot itself where its element isn't mapped.
Path remapSlot(const Path& slot, const std::unordered_map<Path, Path>& mapping) {
    auto it = mapping.find(slot.elementPath());
    if (it == mapping.end()) return slot;
    return slot.property ? it->second.appendingProperty(*slot.property) : it->second;
}

}  // namespace

Document Document::extract(const Path& path) const {
    const Path root = path.elementPath();
    const Path base = root.parent().value_or(Path());
    std::unordered_set<Path> keep;
    for (const Element& e : rep_->elements)
        if (root.isAncestorOf(e.path)) keep.insert(e.path.elementPath());
    // One pass: the drivers of the subtree come along, not their drivers nor their subtrees.
    std::vector<Path> drivers;
    for (const Connection& c : rep_->connections)
        if (keep.count(c.target.elementPath())) drivers.push_back(c.source.elementPath());
    for (Path& d : drivers) keep.insert(std::move(d));

    Document out;
    std::vector<Element> copies;
    for (const Element& e : rep_->elements) {
        if (!keep.count(e.path.elementPath())) continue;
        Element& copy = copies.emplace_back(e);
        copy.path = e.path.reparented(base, Path());
    }
    out.insertAll(std::move(copies));
    for (const Connection& c : rep_->connections)
        if (keep.count(c.source.elementPath()) && keep.count(c.target.elementPath()))
            out.connect(c.source.reparented(base, Path()), c.target.reparented(base, Path()));
    return out;
}

std::vector<Path> Document::instantiate(const Document& other, const Path& parent) {
    Rep& rep = w();
    // A name is taken by a child of `parent` or by a name given out here. The children are asked
    // of the index rather than gathered, so that a parent with many children costs nothing here.
    std::unordered_set<std::string> given;
    auto unique = [&](const std::string& name) {
        const std::string base = name.empty() ? std::string("element") : name;
        std::string candidate = base;
        for (std::uint64_t n = 1; given.count(candidate) || lookup(rep, parent.child(candidate), false); ++n)
            candidate = base + "_" + std::to_string(n);
        return candidate;
    };
    std::unordered_map<Path, Path> mapping;
    std::vector<Path> top;
    for (const Element& e : other.elements()) {
        const Path p = e.path.elementPath();
        if (p.segments.size() > 1) continue;
        std::string name = unique(p.name().value_or("element"));
        Path mapped = parent.child(name);
        given.insert(std::move(name));
        top.push_back(mapped);
        mapping.insert_or_assign(p, std::move(mapped));
    }
    for (const Element& e : other.elements()) {
        const Path p = e.path.elementPath();
        if (p.segments.empty() || mapping.count(p)) continue;
        auto at = mapping.find(Path({p.segments.front()}, std::nullopt));
        if (at != mapping.end()) mapping.emplace(p, p.reparented(at->first, at->second));
    }
    // Only the new elements are indexed, each as it lands (a copy whose id is taken gets a fresh
    // one), so pasting many instances costs what they hold, not the whole document each time.
    for (const Element& e : other.elements()) {
        auto it = mapping.find(e.path.elementPath());
        if (it == mapping.end()) continue;
        Element copy = e;
        copy.path = it->second;
        rep.elements.push_back(std::move(copy));
        indexLast(rep);
    }
    for (const Connection& c : other.connections()) {
        if (!mapping.count(c.source.elementPath()) || !mapping.count(c.target.elementPath())) continue;
        Connection& added = rep.connections.emplace_back(Connection{remapSlot(c.source, mapping), remapSlot(c.target, mapping)});
        rep.incoming.insert_or_assign(added.target, added.source);
    }
    return top;
}

}  // namespace ostrevik
