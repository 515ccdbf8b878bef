// Document: the copy-on-write gate, the derived indexes and the read operations.
#include "ostrevik/core.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <span>

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

using Index = Document::Rep::Index;

constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ULL;
constexpr std::uint64_t kPathSeed = 0x6A09E667F3BCC909ULL;

inline std::uint64_t mix(std::uint64_t h, std::uint64_t word) {
    h = (h ^ word) * kMul;
    return h ^ (h >> 32);
}

// Folds one segment into a path hash, eight bytes at a time. The length goes first, so that
// segment boundaries count; a path's hash passes through its parent's on the way.
std::uint64_t hashSegment(std::uint64_t h, const std::string& s) {
    const char* p = s.data();
    std::size_t n = s.size();
    h = mix(h, n + 1);
    for (; n >= 8; p += 8, n -= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        h = mix(h, word);
    }
    if (n != 0) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, n);
        h = mix(h, word);
    }
    return h;
}

std::uint64_t hashSegments(const std::vector<std::string>& segments) {
    std::uint64_t h = kPathSeed;
    for (const auto& s : segments) h = hashSegment(h, s);
    return h;
}

// A property part is folded in after a marker no segment length can produce.
std::uint64_t hashProperty(std::uint64_t h, const std::optional<std::string>& property) {
    return property ? hashSegment(mix(h, ~std::uint64_t{0}), *property) : h;
}

std::size_t bucketOf(const Index& index, std::uint64_t hash) {
    return static_cast<std::size_t>((hash * kMul) >> index.shift);
}

// The slot's `at` (position + 1) of the entry with this hash that `same` accepts, or 0.
template <class Same>
std::size_t findIn(const Index& index, std::uint64_t hash, Same same) {
    if (index.size == 0) return 0;
    const std::size_t mask = index.slots.size() - 1;
    for (std::size_t b = bucketOf(index, hash);; b = (b + 1) & mask) {
        const Index::Slot& slot = index.slots[b];
        if (slot.at == 0) return 0;
        if (slot.hash == hash && same(slot.at - 1)) return slot.at;
    }
}

void place(Index& index, Index::Slot slot) {
    const std::size_t mask = index.slots.size() - 1;
    std::size_t b = bucketOf(index, slot.hash);
    while (index.slots[b].at != 0) b = (b + 1) & mask;
    index.slots[b] = slot;
}

// Room for `count` entries with the table at most half full.
void reserveIndex(Index& index, std::size_t count) {
    if (count <= index.slots.size() / 2) return;
    std::size_t capacity = 16;
    unsigned bits = 4;
    while (capacity / 2 < count) {
        capacity *= 2;
        ++bits;
    }
    std::vector<Index::Slot> old(capacity);
    old.swap(index.slots);
    index.shift = 64 - bits;
    for (const Index::Slot& slot : old)
        if (slot.at != 0) place(index, slot);
}

// Empties the table for `count` entries; one left far larger by a bigger past is let go, so
// that a rebuild costs what the document holds now.
void clearIndex(Index& index, std::size_t count) {
    if (index.slots.size() > 16 && index.slots.size() / 8 > count) {
        index.slots = std::vector<Index::Slot>();
        index.shift = 64;
    } else {
        std::fill(index.slots.begin(), index.slots.end(), Index::Slot{});
    }
    index.size = 0;
    reserveIndex(index, count);
}

// Adds an entry known to be new.
void insertNew(Index& index, std::uint64_t hash, std::size_t position) {
    reserveIndex(index, index.size + 1);
    place(index, Index::Slot{hash, position + 1});
    ++index.size;
}

// Points the entry that `same` accepts at `position`, or adds one; true when it was added.
template <class Same>
bool insertOrAssign(Index& index, std::uint64_t hash, std::size_t position, Same same) {
    reserveIndex(index, index.size + 1);
    const std::size_t mask = index.slots.size() - 1;
    for (std::size_t b = bucketOf(index, hash);; b = (b + 1) & mask) {
        Index::Slot& slot = index.slots[b];
        if (slot.at == 0) {
            slot = Index::Slot{hash, position + 1};
            ++index.size;
            return true;
        }
        if (slot.hash == hash && same(slot.at - 1)) {
            slot.at = position + 1;
            return false;
        }
    }
}

std::size_t findId(const Document::Rep& rep, std::uint64_t id) {
    return findIn(rep.byId, id, [&](std::size_t i) { return rep.elements[i].id == id; });
}

// Gives the element a usable id: a kept id stays unless an element indexed earlier holds it.
// nextId is raised past every id that enters, so a later handout never repeats a kept one.
std::uint64_t settleId(Document::Rep& rep, Element& e) {
    if (e.id == 0 || findId(rep, e.id) != 0) {
        while (rep.nextId == 0 || findId(rep, rep.nextId) != 0) ++rep.nextId;
        e.id = rep.nextId++;
    } else if (e.id >= rep.nextId && e.id != std::numeric_limits<std::uint64_t>::max()) {
        rep.nextId = e.id + 1;
    }
    return e.id;
}

// Whether the children listed in `list` stand directly under the element with these segments:
// a list keeps no key of its own, so its first child's path tells.
bool listsChildrenOf(const Document::Rep& rep, std::size_t list, std::span<const std::string> parent) {
    const auto& child = rep.elements[rep.childLists[list].front()].path.segments;
    return child.size() == parent.size() + 1 && std::equal(parent.begin(), parent.end(), child.begin());
}

// The hashes that index a path: its parent's, under which it is listed as a child (unused for
// the root path), and its own.
struct PathHashes {
    std::uint64_t parent = kPathSeed;
    std::uint64_t own = kPathSeed;
};

PathHashes hashesOf(const Path& path) {
    PathHashes h;
    const std::vector<std::string>& segments = path.segments;
    if (!segments.empty()) {
        for (std::size_t k = 0; k + 1 < segments.size(); ++k) h.parent = hashSegment(h.parent, segments[k]);
        h.own = hashSegment(h.parent, segments.back());
    }
    h.own = hashProperty(h.own, path.property);
    return h;
}

// The child list of the element path `parent`, whose hash is `hash`, created if there is none.
std::size_t childListOf(Document::Rep& rep, std::span<const std::string> parent, std::uint64_t hash) {
    auto sameParent = [&](std::size_t list) { return listsChildrenOf(rep, list, parent); };
    if (std::size_t at = findIn(rep.childIndex, hash, sameParent)) return at - 1;
    std::vector<std::size_t>& list = rep.childLists.emplace_back();
    list.reserve(4);  // most parents have a few children: spares the first regrowths
    insertNew(rep.childIndex, hash, rep.childLists.size() - 1);
    return rep.childLists.size() - 1;
}

// Enters the element at `i`, whose path has the hashes `h` and whose child list is `list` (unused
// for the root path), into the three indexes.
void indexAt(Document::Rep& rep, std::size_t i, const PathHashes& h, std::size_t list) {
    Element& e = rep.elements[i];
    if (!e.path.segments.empty()) rep.childLists[list].push_back(i);
    insertOrAssign(rep.byPath, h.own, i, [&](std::size_t j) { return rep.elements[j].path == e.path; });
    insertNew(rep.byId, settleId(rep, e), i);
}

void indexAt(Document::Rep& rep, std::size_t i, const PathHashes& h) {
    const std::vector<std::string>& segments = rep.elements[i].path.segments;
    std::size_t list = 0;
    if (!segments.empty()) list = childListOf(rep, {segments.data(), segments.size() - 1}, h.parent);
    indexAt(rep, i, h, list);
}

void prefetchSlot(const Index& index, std::uint64_t hash) {
    if (!index.slots.empty()) __builtin_prefetch(&index.slots[bucketOf(index, hash)]);
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
    clearIndex(rep.byPath, n);
    clearIndex(rep.childIndex, n / 4);  // a guess: parents are fewer than their children
    clearIndex(rep.byId, n);
    rep.childLists.clear();
    // The tables are read at random, a cache miss per entry: the paths are hashed first, so that
    // the slots of an element some places ahead are on their way while one is entered. Fresh
    // ids are handed out in order, so the id slot to ask for is a guess that is usually right.
    constexpr std::size_t kAhead = 8;
    constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    std::vector<PathHashes> hashes(n);
    // Elements mostly stand in document order, a parent before its children: the latest element
    // at each depth is then the parent of the next one a level deeper. Telling so while the
    // paths are at hand for hashing spares most searches for a child list later. frames[d] is
    // the latest element with d segments and the hash of those segments; frames[0] stands for
    // the root path, element or not, at the position n.
    struct Frame {
        std::uint64_t hash;
        std::size_t position;
    };
    std::vector<Frame> frames{Frame{kPathSeed, n}};
    std::vector<std::size_t> parentOf(n, kNone);  // the position standing for the parent path
    for (std::size_t i = 0; i < n; ++i) {
        if (i + 2 * kAhead < n) __builtin_prefetch(rep.elements[i + 2 * kAhead].path.segments.data());
        const Path& path = rep.elements[i].path;
        hashes[i] = hashesOf(path);
        const std::size_t depth = path.segments.size();
        if (depth == 0) {
            frames.resize(1);
            continue;
        }
        if (depth == 1) {
            parentOf[i] = n;
        } else if (depth - 1 < frames.size()) {
            const Frame& up = frames[depth - 1];
            if (up.hash == hashes[i].parent &&
                std::equal(path.segments.begin(), path.segments.end() - 1, rep.elements[up.position].path.segments.begin()))
                parentOf[i] = up.position;
        }
        frames.resize(std::min(frames.size(), depth + 1));
        const Frame own{path.property ? hashSegments(path.segments) : hashes[i].own, i};
        if (depth < frames.size())
            frames[depth] = own;
        else if (depth == frames.size())
            frames.push_back(own);
    }
    frames = {};
    // The child list of each position found standing for a parent, once known.
    std::vector<std::size_t> listOf(n + 1, kNone);
    for (std::size_t i = 0; i < n; ++i) {
        if (i + kAhead < n) {
            if (parentOf[i + kAhead] == kNone) prefetchSlot(rep.childIndex, hashes[i + kAhead].parent);
            prefetchSlot(rep.byPath, hashes[i + kAhead].own);
            const std::uint64_t id = rep.elements[i + kAhead].id;
            prefetchSlot(rep.byId, id != 0 ? id : rep.nextId + kAhead);
        }
        const std::vector<std::string>& segments = rep.elements[i].path.segments;
        std::size_t list = 0;
        if (!segments.empty()) {
            const std::size_t up = parentOf[i];
            if (up != kNone && listOf[up] != kNone) {
                list = listOf[up];
            } else {
                list = childListOf(rep, {segments.data(), segments.size() - 1}, hashes[i].parent);
                if (up != kNone) listOf[up] = list;
            }
        }
        indexAt(rep, i, hashes[i], list);
    }
}

void Document::indexLast(Rep& rep) {
    if (!rep.elements.empty()) indexAt(rep, rep.elements.size() - 1, hashesOf(rep.elements.back().path));
}

std::size_t Document::lookup(const Rep& rep, const Path& path, bool elementOnly) {
    const bool withProperty = !elementOnly && path.property;
    std::uint64_t h = hashSegments(path.segments);
    if (withProperty) h = hashProperty(h, path.property);
    return findIn(rep.byPath, h, [&](std::size_t i) {
        const Path& p = rep.elements[i].path;
        return p.segments == path.segments && (withProperty ? p.property == path.property : !p.property);
    });
}

const std::vector<std::size_t>* Document::childList(const Rep& rep, const Path& parent) {
    if (parent.property) return nullptr;  // a parent is an element path
    const auto& segments = parent.segments;
    const std::size_t at = findIn(rep.childIndex, hashSegments(segments),
                                  [&](std::size_t list) { return listsChildrenOf(rep, list, segments); });
    return at == 0 ? nullptr : &rep.childLists[at - 1];
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
    const std::size_t at = lookup(*rep_, path, true);
    return at == 0 ? nullptr : &rep_->elements[at - 1];
}

Element* Document::element(const Path& path) {
    Rep& rep = w();
    const std::size_t at = lookup(rep, path, true);
    return at == 0 ? nullptr : &rep.elements[at - 1];
}

std::optional<std::uint64_t> Document::elementId(const Path& path) const {
    const Element* e = element(path);
    if (!e) return std::nullopt;
    return e->id;
}

const Element* Document::elementById(std::uint64_t id) const {
    const std::size_t at = findId(*rep_, id);
    return at == 0 ? nullptr : &rep_->elements[at - 1];
}

const std::vector<std::size_t>* Document::childPositions(const Path& path) const {
    return childList(*rep_, path);
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
        if (lookup(*rep_, candidate, false) == 0) return candidate;
        candidate.segments.back() = base + "_" + std::to_string(n);
    }
}

Path Document::add(Element element) {
    Rep& rep = w();
    Path& path = element.path;
    path.property.reset();
    if (path.segments.empty()) {
        path = uniqueChildPath(Path(), "element", nullptr);
    } else if (lookup(rep, path, false) != 0) {  // a free path is its own first candidate
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

std::vector<Path> Document::resolveLinkTargets(const Path& source) const {
    std::vector<Path> out;
    for (const Connection& c : rep_->connections)
        if (c.source == source) out.push_back(c.target);
    for (const GlobLink& link : rep_->globLinks) {
        if (link.source != source) continue;
        auto [pattern, slot] = splitTargetSpec(link.targetSpec);
        auto parsed = PathPattern::parse(pattern);
        if (!parsed) continue;
        for (const Element& e : rep_->elements)
            if (parsed->matches(e.path)) out.push_back(e.path.appendingProperty(slot));
    }
    return out;
}

}  // namespace ostrevik
