// ostrevik document model: paths, values, time samples and the copy-on-write document.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ostrevik {

// Where a reader failed. Only the text parser fills line and column (from 1); others leave 0.
struct ParseError {
    unsigned line = 0;
    unsigned column = 0;
    std::string message;
};

// ---------------------------------------------------------------------------------------------
// Path: an element address `/a/b`, or with a property part, a slot `/a/b.c`.
class Path {
public:
    std::vector<std::string> segments;
    std::optional<std::string> property;

    Path() = default;  // the root
    explicit Path(std::string_view text);  // throws std::invalid_argument when malformed
    Path(std::vector<std::string> segments, std::optional<std::string> property);

    static std::optional<Path> parse(std::string_view text);
    static bool isAnonymousSegment(std::string_view segment);

    std::string str() const;
    std::optional<std::string> name() const;
    bool leafIsAnonymous() const;
    std::optional<Path> parent() const;
    Path child(std::string_view name) const;
    Path child(std::uint64_t index) const;  // the anonymous segment "[index]"
    Path appendingProperty(std::string_view property) const;
    Path elementPath() const;
    bool isAncestorOf(const Path& other) const;  // reflexive; properties ignored
    // This path with the leading `oldPrefix` segments replaced by `newPrefix`.
    Path reparented(const Path& oldPrefix, const Path& newPrefix) const;

    bool operator==(const Path& other) const = default;
    std::strong_ordering operator<=>(const Path& other) const;
};

// A glob over element paths: `*` within a segment, `**` for any number of segments.
class PathPattern {
public:
    std::vector<std::string> segments;

    static std::optional<PathPattern> parse(std::string_view text);
    std::string str() const;
    bool hasWildcard() const;
    bool matches(const Path& path) const;  // the path's property is ignored
    Path prefix() const;                   // leading segments before the first wildcard
};

}  // namespace ostrevik

template <>
struct std::hash<ostrevik::Path> {
    std::size_t operator()(const ostrevik::Path& p) const noexcept;
};
#if defined(__GLIBCXX__)
// The hash walks every byte of the path: have libstdc++'s hash tables store it in their nodes
// rather than recompute it on rehashing, extraction and bucket scans.
template <>
struct std::__is_fast_hash<std::hash<ostrevik::Path>> : std::false_type {};
#endif

namespace ostrevik {

// ---------------------------------------------------------------------------------------------
// Values

enum class DType : std::uint8_t {
    Bool = 0, Char = 1, Int8 = 2, Int16 = 3, Int32 = 4, Int64 = 5, UInt8 = 6, UInt16 = 7,
    UInt32 = 8, UInt64 = 9, Float32 = 10, Float64 = 11, Str = 12, Float16 = 13,
};

// The classification of a value by dtype and shape.
enum class Type : std::uint32_t {
    Float = 0, Int = 1, Bool = 2, Float2 = 3, Float3 = 4, Matrix = 5, Spectrum = 6,
    Float2Array = 7, IntArray = 8, FloatArray = 9, General = 10,
};

// Bytes per element of `dtype` in Value::data (0 for Str).
std::size_t dtypeWidth(DType dtype);

// One typed scalar or array of any rank. `Value()` is the float 0.
class Value {
public:
    DType dtype = DType::Float32;
    std::vector<std::uint32_t> shape;
    std::vector<std::uint8_t> data;
    std::vector<std::string> strings;

    Value();
    Value(float f);
    Value(std::int64_t i);
    Value(bool b);
    Value(std::string s);
    Value(const char* s);
    Value(const std::array<float, 2>& a);
    Value(const std::array<float, 3>& a);
    Value(const std::array<float, 6>& a);   // shape [2, 3]
    Value(const std::array<float, 32>& a);
    Value(const std::vector<std::array<float, 2>>& v);
    Value(const std::vector<std::int64_t>& v);
    Value(const std::vector<float>& v);

    Type type() const;
    // Product of the shape (1 for a scalar).
    std::size_t count() const;
    // The first element reduced to a float; 0 for strings and empty arrays.
    float asFloat() const;
    // Typed read of the storage by size, not dtype: check type() first. Never fails.
    template <class T>
    T as() const;
    // Element-wise interpolation; a copy of `a` unless both are floats of one dtype and shape.
    static Value lerp(const Value& a, const Value& b, double t);

    bool operator==(const Value& other) const = default;
};

template <> float Value::as<float>() const;
template <> std::int64_t Value::as<std::int64_t>() const;
template <> bool Value::as<bool>() const;
template <> std::array<float, 2> Value::as<std::array<float, 2>>() const;
template <> std::array<float, 3> Value::as<std::array<float, 3>>() const;
template <> std::array<float, 6> Value::as<std::array<float, 6>>() const;
template <> std::array<float, 32> Value::as<std::array<float, 32>>() const;
template <> std::vector<std::array<float, 2>> Value::as<std::vector<std::array<float, 2>>>() const;
template <> std::vector<std::int64_t> Value::as<std::vector<std::int64_t>>() const;
template <> std::vector<float> Value::as<std::vector<float>>() const;
template <> std::string Value::as<std::string>() const;

// Exact IEEE 754 conversions between binary16 bits and float.
float halfToFloat(std::uint16_t bits);
std::uint16_t floatToHalf(float f);

// A named value type such as "color3f": a dtype and a shape.
struct TypeAlias {
    DType dtype = DType::Float32;
    std::vector<std::uint32_t> shape;
};
std::optional<TypeAlias> aliasFromName(std::string_view name);
const std::vector<std::string_view>& aliasNames();

// ---------------------------------------------------------------------------------------------
// Time samples

enum class Interp : std::uint32_t { Held = 0, Linear = 1, Bezier = 2 };
enum class HandleType : std::uint32_t { Auto = 0, Vector = 1, Aligned = 2, Free = 3 };

struct Keyframe {
    double time = 0.0;
    Value value;
    Interp interp = Interp::Linear;
    HandleType handle = HandleType::Auto;
    std::vector<std::pair<double, double>> left;   // per channel: (time offset, value offset)
    std::vector<std::pair<double, double>> right;

    bool operator==(const Keyframe& other) const = default;
};

// A keyframe curve, sorted strictly by time.
class TimeSamples {
public:
    std::vector<Keyframe> keys;

    void set(double time, Value value, Interp interp);
    void setHandles(double time, HandleType handle, std::vector<std::pair<double, double>> left,
                    std::vector<std::pair<double, double>> right);
    void remove(double time);
    Value resolve(double time) const;

    bool operator==(const TimeSamples& other) const = default;
};

// ---------------------------------------------------------------------------------------------
// Records

struct Property {
    Value value;
    std::optional<TimeSamples> samples;
    std::string typeName;  // alias name it was declared with, e.g. "color3f"

    bool operator==(const Property& other) const = default;
};

enum class Specifier : std::uint32_t { Def = 0, Over = 1 };

struct Element {
    Path path;
    std::string type;
    Specifier specifier = Specifier::Def;
    std::map<std::string, Property> properties;
    std::map<std::string, std::string> metadata;
    std::set<std::string> unsetProperties;
    std::set<std::string> unsetMetadata;
    std::uint64_t id = 0;

    bool operator==(const Element& other) const = default;
};

struct Connection {
    Path source;
    Path target;
    bool operator==(const Connection& other) const = default;
};

struct GlobLink {
    Path source;
    std::string targetSpec;  // pattern and slot name, e.g. "/lights/*.intensity"
    bool operator==(const GlobLink& other) const = default;
};

struct Reorder {
    Path parent;
    std::vector<Path> order;
    bool operator==(const Reorder& other) const = default;
};

class Document;

// Returned by Document::append: the final path and a way to set properties on it.
struct ElementHandle {
    Document* doc = nullptr;
    Path path;
    void set(const std::string& name, const Value& value) const;
};

// ---------------------------------------------------------------------------------------------
// Document: a cheap-to-copy handle on a shared representation; the first edit of a shared
// representation clones it.
class Document {
public:
    struct Rep {
        std::vector<Element> elements;
        std::vector<Connection> connections;
        std::vector<Path> deletions;
        std::vector<Path> connectionDeletions;
        std::vector<Reorder> reorders;
        std::vector<GlobLink> globLinks;
        // An open-addressing hash table of positions. It stores no keys: a slot's key is read
        // from what its position points at, so indexing an element copies nothing of it.
        struct Index {
            struct Slot {
                std::uint64_t hash = 0;
                std::size_t at = 0;  // position + 1; 0 marks an empty slot
            };
            std::vector<Slot> slots;  // a power of two in size, at most half full
            std::size_t size = 0;
            unsigned shift = 64;
        };
        Index byPath;                      // element path to the position in elements
        std::unordered_map<Path, Path> incoming;
        Index childIndex;                  // parent path to a place in childLists
        std::vector<std::vector<std::size_t>> childLists;  // children's positions, ascending
        Index byId;                        // id to the position in elements
        std::uint64_t nextId = 1;
    };

    Document();

    const std::vector<Element>& elements() const { return rep_->elements; }
    const std::vector<Connection>& connections() const { return rep_->connections; }
    const std::vector<Path>& deletions() const { return rep_->deletions; }
    const std::vector<Path>& connectionDeletions() const { return rep_->connectionDeletions; }
    const std::vector<Reorder>& reorders() const { return rep_->reorders; }
    const std::vector<GlobLink>& globLinks() const { return rep_->globLinks; }

    bool has(const Path& path) const;
    const Element* element(const Path& path) const;
    Element* element(const Path& path);  // passes the gate; do not change path or id
    std::optional<std::uint64_t> elementId(const Path& path) const;
    const Element* elementById(std::uint64_t id) const;
    std::vector<Path> children(const Path& path) const;
    std::optional<Path> child(const Path& path, std::size_t index) const;
    std::set<std::string> childNames(const Path& path, const Path* exclude) const;
    // Positions in elements() of the children of `path`, in document order (may be null).
    const std::vector<std::size_t>* childPositions(const Path& path) const;

    Path add(Element element);
    Path uniqueChildPath(const Path& parent, std::string_view name, const Path* exclude) const;
    ElementHandle append(const Path& path, std::string_view type);

    // Patterns and wiring lookups.
    std::vector<const Element*> find(const PathPattern& pattern) const;
    std::vector<const Element*> find(std::string_view pattern) const;
    std::optional<Path> findIncoming(const Path& target) const;

    // Editing.
    void insert(Element element);
    // Appends the elements as `insert` would one at a time, indexing them in one pass. False
    // when one of them landed on a path already taken (byPath then names the later one).
    bool insertAll(std::vector<Element> elements);
    Path addChild(const Path& parent, std::string_view type);
    void remove(const Path& path);
    Path rename(const Path& from, const Path& to);
    bool connect(const Path& source, const Path& target);
    bool disconnect(const Path& target);
    std::size_t pruneDanglingConnections();
    static std::string uniqueName(const std::string& name, const std::set<std::string>& taken);
    void addDeletion(const Path& path);
    void addConnectionDeletion(const Path& target);
    void addGlobLink(const Path& source, const std::string& targetSpec);
    void addReorder(const Path& parent, std::vector<Path> order);

    // Subtrees and wiring as a graph.
    // A new document holding the subtree at `path` as a top-level element under its own name,
    // with the elements that directly drive it and the wires among them. This stays unchanged.
    Document extract(const Path& path) const;
    // Copies `other`'s elements and wires under `parent` as a fresh instance (top-level names
    // made unique among parent's children); the new paths of `other`'s top-level elements.
    std::vector<Path> instantiate(const Document& other, const Path& parent);
    // Every slot that the slot `source` drives, through connections and then glob links.
    std::vector<Path> resolveLinkTargets(const Path& source) const;

    // Loads the file and resolves its references (see compose.h); false leaves this unchanged.
    bool loadComposed(const std::string& path);

private:
    Rep& w();
    static void reindex(Rep& rep);
    static void indexLast(Rep& rep);
    static void rebuildIncoming(Rep& rep);
    // Position + 1 of the element standing on `path`, 0 when none; with `elementOnly` the
    // property part of `path` is ignored.
    static std::size_t lookup(const Rep& rep, const Path& path, bool elementOnly);
    static const std::vector<std::size_t>* childList(const Rep& rep, const Path& parent);

    std::shared_ptr<Rep> rep_;
};

// ---------------------------------------------------------------------------------------------
// Assets: binary blobs that belong to elements, kept apart from the document and keyed by the
// element path. A plain value: nothing keeps it in step with a document by itself.

struct Asset {
    std::string mediaType;  // a label carried through, never interpreted
    std::string bytes;

    bool operator==(const Asset& other) const = default;
};

class AssetStore {
public:
    std::map<Path, Asset> assets;  // element paths, in Path order

    // Every operation keys by `path.elementPath()`.
    void set(const Path& path, std::string bytes, std::string mediaType);  // replaces
    const Asset* get(const Path& path) const;  // null when unset; valid until the next change
    void erase(const Path& path);
    void removeSubtree(const Path& path);  // the entry at `path` and every one below it
    // Moves every entry below `from` (itself included) below `to`; where two keys meet, the one
    // later in key order wins.
    void reparent(const Path& from, const Path& to);

    bool operator==(const AssetStore& other) const = default;
};

}  // namespace ostrevik
