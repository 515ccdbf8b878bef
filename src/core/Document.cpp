// Document: the copy-on-write gate, the derived indexes and the read operations.
#include "ostrevik/core.h"

#include <algorithm>
#include <limits>

namespace ostrevik {

namespace {

// A glob link's target spec is a pattern and a slot name: "/lights/*.intensity". Only a dot
// after the last slash separates them.
std::pair<std::string, std::string> splitTargetSpec(const std::string& spec) {
    std::size_t slash = spec.rfind('/');
    std::size_t dot = spec.find('.', slash == std::string::npos ? 0 : slash);
    if (dot == std::string::npos) return {spec, std::string()};
    return {spec.substr(0, dot), spec.substr(dot + 1)};
}

// Gives the element a usable id: a kept id stays unless an element indexed earlier holds it.
// nextId is raised past every id that enters, so a later handout never repeats a kept one.
std::uint64_t settleId(Document::Rep& rep, Element& e) {
    if (e.id == 0 || rep.byId.count(e.id) != 0) {
        while (rep.nextId == 0 || rep.byId.count(rep.nextId) != 0) ++rep.nextId;
        e.id = rep.nextId++;
    } else if (e.id >= rep.nextId && e.id != std::numeric_limits<std::uint64_t>::max()) {
        rep.nextId = e.id + 1;
    }
    return e.id;
}

// Empties a hash map but keeps its nodes: a rebuild refills them, reusing their keys' storage,
// instead of freeing and allocating a million of them again.
template <class Map>
std::vector<typename Map::node_type> takeNodes(Map& map) {
    std::vector<typename Map::node_type> nodes;
    nodes.reserve(map.size());
    while (!map.empty()) nodes.push_back(map.extract(map.begin()));
    return nodes;
}

// map[key] = value, on a spare node when there is one.
template <class Map>
void assignWithSpare(Map& map, std::vector<typename Map::node_type>& spare, const typename Map::key_type& key,
                     std::size_t value) {
    if (spare.empty()) {
        map.insert_or_assign(key, value);
        return;
    }
    typename Map::node_type node = std::move(spare.back());
    spare.pop_back();
    node.key() = key;
    node.mapped() = value;
    auto result = map.insert(std::move(node));
    if (!result.inserted) {
        result.position->second = value;
        spare.push_back(std::move(result.node));
    }
}

using ChildEntry = std::pair<const Path, std::vector<std::size_t>>;

// The entry of `path`'s parent in childIndex, made on a spare node when it is new.
ChildEntry& parentEntryWithSpare(Document::Rep& rep, std::vector<decltype(rep.childIndex)::node_type>& spare,
                                 const Path& path) {
    if (spare.empty()) return *rep.childIndex.try_emplace(*path.parent()).first;
    auto node = std::move(spare.back());
    spare.pop_back();
    node.key().segments.assign(path.segments.begin(), path.segments.end() - 1);
    node.key().property.reset();
    node.mapped().clear();
    auto result = rep.childIndex.insert(std::move(node));
    if (!result.inserted) spare.push_back(std::move(result.node));
    return *result.position;
}

// Sets the last segment and the property of a path aside for the life of the guard, so that the
// path itself can serve as its parent's key without copying it.
class LeafAside {
public:
    explicit LeafAside(Path& path)
        : path_(path), leaf_(std::move(path.segments.back())), property_(std::move(path.property)) {
        path_.segments.pop_back();
        path_.property.reset();
    }
    ~LeafAside() {
        path_.segments.push_back(std::move(leaf_));  // within capacity: cannot throw
        path_.property = std::move(property_);
    }
    LeafAside(const LeafAside&) = delete;
    LeafAside& operator=(const LeafAside&) = delete;

private:
    Path& path_;
    std::string leaf_;
    std::optional<std::string> property_;
};

// True when `path` lies directly under `parent` (one more segment, same leading ones).
bool isDirectChild(const Path& parent, const Path& path) {
    return path.segments.size() == parent.segments.size() + 1 &&
           std::equal(parent.segments.begin(), parent.segments.end(), path.segments.begin());
}

}  // namespace

Document::Document() : rep_(std::make_shared<Rep>()) {}

Document::Rep& Document::w() {
    if (rep_.use_count() != 1) {
        // Build the copy completely before replacing the handle, so a failed allocation
        // leaves this document as it was.
        auto copy = std::make_shared<Rep>(*rep_);
        rep_ = std::move(copy);
    }
    return *rep_;
}

void Document::reindex(Rep& rep) {
    const std::size_t n = rep.elements.size();
    auto pathNodes = takeNodes(rep.byPath);
    auto childNodes = takeNodes(rep.childIndex);
    auto idNodes = takeNodes(rep.byId);
    rep.byPath.reserve(n);
    rep.childIndex.reserve(n);
    rep.byId.reserve(n);

    // Children tend to follow their parent or their siblings, so the list last used at each
    // depth usually is the right one; this spares building and hashing a parent path per element.
    struct Slot {
        const Path* parent = nullptr;
        std::vector<std::size_t>* list = nullptr;
    };
    std::vector<Slot> lastAtDepth;

    for (std::size_t i = 0; i < n; ++i) {
        Element& e = rep.elements[i];
        assignWithSpare(rep.byPath, pathNodes, e.path, i);
        if (!e.path.segments.empty()) {
            std::size_t depth = e.path.segments.size() - 1;
            if (lastAtDepth.size() <= depth) lastAtDepth.resize(depth + 1);
            Slot& slot = lastAtDepth[depth];
            if (!slot.parent || !isDirectChild(*slot.parent, e.path)) {
                ChildEntry& entry = parentEntryWithSpare(rep, childNodes, e.path);
                slot.parent = &entry.first;  // map nodes stay put when the map rehashes
                slot.list = &entry.second;
            }
            slot.list->push_back(i);
        }
        assignWithSpare(rep.byId, idNodes, settleId(rep, e), i);
    }
}

void Document::indexLast(Rep& rep) {
    if (rep.elements.empty()) return;
    const std::size_t i = rep.elements.size() - 1;
    Element& e = rep.elements[i];
    rep.byPath.insert_or_assign(e.path, i);
    if (!e.path.segments.empty()) {
        LeafAside parent(e.path);
        rep.childIndex[e.path].push_back(i);
    }
    rep.byId[settleId(rep, e)] = i;
}

void Document::rebuildIncoming(Rep& rep) {
    rep.incoming.clear();
    rep.incoming.reserve(rep.connections.size());
    for (const auto& c : rep.connections) rep.incoming.insert_or_assign(c.target, c.source);
}

// ---------------------------------------------------------------------------------------------
// Reads

bool Document::has(const Path& path) const {
    return element(path) != nullptr;
}

const Element* Document::element(const Path& path) const {
    const auto& byPath = rep_->byPath;
    auto it = path.property ? byPath.find(path.elementPath()) : byPath.find(path);
    return it == byPath.end() ? nullptr : &rep_->elements[it->second];
}

Element* Document::element(const Path& path) {
    Rep& rep = w();
    auto it = path.property ? rep.byPath.find(path.elementPath()) : rep.byPath.find(path);
    return it == rep.byPath.end() ? nullptr : &rep.elements[it->second];
}

std::optional<std::uint64_t> Document::elementId(const Path& path) const {
    const Element* e = element(path);
    if (!e) return std::nullopt;
    return e->id;
}

const Element* Document::elementById(std::uint64_t id) const {
    auto it = rep_->byId.find(id);
    return it == rep_->byId.end() ? nullptr : &rep_->elements[it->second];
}

const std::vector<std::size_t>* Document::childPositions(const Path& path) const {
    auto it = rep_->childIndex.find(path);
    return it == rep_->childIndex.end() ? nullptr : &it->second;
}

std::vector<Path> Document::children(const Path& path) const {
    std::vector<Path> out;
    if (const auto* positions = childPositions(path)) {
        out.reserve(positions->size());
        for (std::size_t i : *positions) out.push_back(rep_->elements[i].path);
    }
    return out;
}

std::optional<Path> Document::child(const Path& path, std::size_t index) const {
    const auto* positions = childPositions(path);
    if (!positions || index >= positions->size()) return std::nullopt;
    return rep_->elements[(*positions)[index]].path;
}

std::set<std::string> Document::childNames(const Path& path, const Path* exclude) const {
    std::set<std::string> out;
    if (const auto* positions = childPositions(path)) {
        for (std::size_t i : *positions) {
            const Path& p = rep_->elements[i].path;
            if (exclude && p == *exclude) continue;
            out.insert(p.segments.back());
        }
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Adding

Path Document::uniqueChildPath(const Path& parent, std::string_view name, const Path* exclude) const {
    const std::string base = name.empty() ? std::string("element") : std::string(name);
    Path candidate = parent.child(base);
    for (std::uint64_t n = 1;; ++n) {
        if (exclude && candidate == *exclude) return candidate;
        if (rep_->byPath.count(candidate) == 0) return candidate;
        candidate.segments.back() = base + "_" + std::to_string(n);
    }
}

Path Document::add(Element element) {
    Rep& rep = w();
    Path& path = element.path;
    path.property.reset();
    if (path.segments.empty()) {
        path = uniqueChildPath(Path(), "element", nullptr);
    } else if (rep.byPath.count(path) != 0) {  // a free path is its own first candidate
        std::string name = std::move(path.segments.back());
        path.segments.pop_back();
        path = uniqueChildPath(path, name, nullptr);
    }
    rep.elements.push_back(std::move(element));
    indexLast(rep);
    return rep.elements.back().path;
}

ElementHandle Document::append(const Path& path, std::string_view type) {
    Element e;
    e.path = path;
    e.type = type;
    return ElementHandle{this, add(std::move(e))};
}

void ElementHandle::set(const std::string& name, const Value& value) const {
    if (!doc || !doc->has(path)) return;
    doc->element(path)->properties[name].value = value;
}

// ---------------------------------------------------------------------------------------------
// Patterns and wiring lookups

std::vector<const Element*> Document::find(const PathPattern& pattern) const {
    std::vector<const Element*> out;
    for (const auto& e : rep_->elements)
        if (pattern.matches(e.path)) out.push_back(&e);
    return out;
}

std::vector<const Element*> Document::find(std::string_view pattern) const {
    auto parsed = PathPattern::parse(pattern);
    if (!parsed) return {};
    return find(*parsed);
}

std::optional<Path> Document::findIncoming(const Path& target) const {
    auto it = rep_->incoming.find(target);
    if (it != rep_->incoming.end()) return it->second;
    if (!target.property) return std::nullopt;

    for (const auto& link : rep_->globLinks) {
        auto [pattern, slot] = splitTargetSpec(link.targetSpec);
        if (slot != *target.property) continue;
        auto parsed = PathPattern::parse(pattern);
        if (parsed && parsed->matches(target)) return link.source;  // matches ignores the property
    }
    return std::nullopt;
}

}  // namespace ostrevik
