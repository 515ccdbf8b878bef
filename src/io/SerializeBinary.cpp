// The binary crate: a one-pass stream of a string table followed by sections that refer to it.
#include "Serial.h"
#include "Prefetch.h"

#include <ostrevik/io.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ostrevik {

namespace serial {

bool Reader::getValue(Value& out) {
    std::uint8_t dtype, rank;
    if (!getU8(dtype) || !getU8(rank)) return false;
    if (dtype > static_cast<std::uint8_t>(DType::Float16) || rank > 16) return ok = false;
    out.dtype = static_cast<DType>(dtype);
    out.shape.resize(rank);
    std::uint64_t count = 1;
    for (auto& dim : out.shape) {
        if (!getU32(dim)) return false;
        if (__builtin_mul_overflow(count, std::uint64_t{dim}, &count)) return ok = false;
    }
    out.data.clear();
    out.strings.clear();
    if (out.dtype == DType::Str) {
        if (count > left() / 4) return ok = false;
        out.strings.resize(count);
        for (auto& s : out.strings)
            if (!getString(s)) return false;
        return true;
    }
    const std::size_t width = dtypeWidth(out.dtype);
    if (count > left() / width) return ok = false;
    out.data.resize(count * width);
    if (!getBytes(out.data.data(), out.data.size())) return false;
    if constexpr (std::endian::native == std::endian::big) {
        for (std::size_t i = 0; i < out.data.size(); i += width)
            std::reverse(out.data.begin() + i, out.data.begin() + i + width);
    }
    return true;
}

}  // namespace serial

namespace {

constexpr char kMagic[6] = {'Z', 'L', 'T', 'H', 'C', '\0'};
constexpr std::uint16_t kVersion = 4;
constexpr std::size_t kHeaderSize = 10;
constexpr std::uint8_t kTagReorders = 1;
constexpr std::uint8_t kTagGlobLinks = 2;

// ---------------------------------------------------------------------------------------------
// Writing

// A write cursor over one string, sized ahead from the gathered content. The size is exact for
// values that keep their invariant; should it fall short, the string grows.
class Out {
public:
    Out(std::string& s, std::size_t size) : s_(s) {
        const std::size_t start = s.size();
        s.resize(start + size);
        p_ = s.data() + start;
        end_ = s.data() + s.size();
    }
    // Trims the string to what was written.
    void finish() { s_.resize(static_cast<std::size_t>(p_ - s_.data())); }

    void u8(std::uint8_t v) {
        room(1);
        *p_++ = static_cast<char>(v);
    }
    void u32(std::uint32_t v) { le(v); }
    void count(std::size_t n) { le(static_cast<std::uint32_t>(n)); }
    // Non-finite numbers don't survive persistence: they are written as +0.0.
    void f64(double d) { le(std::isfinite(d) ? std::bit_cast<std::uint64_t>(d) : std::uint64_t{0}); }
    void bytes(const void* data, std::size_t n) {
        room(n);
        if (n) std::memcpy(p_, data, n);
        p_ += n;
    }
    void string(std::string_view s) {
        count(s.size());
        bytes(s.data(), s.size());
    }
    template <class T>
    void le(T v) {
        room(sizeof v);
        if constexpr (std::endian::native == std::endian::big) {
            for (std::size_t k = 0; k < sizeof v; ++k) *p_++ = static_cast<char>((v >> (8 * k)) & 0xFF);
        } else {
            std::memcpy(p_, &v, sizeof v);
            p_ += sizeof v;
        }
    }
    // Room for n bytes, handed out to be filled by the caller.
    char* take(std::size_t n) {
        room(n);
        char* at = p_;
        p_ += n;
        return at;
    }

private:
    void room(std::size_t n) {
        if (static_cast<std::size_t>(end_ - p_) < n) grow(n);
    }
    void grow(std::size_t n) {
        const std::size_t used = static_cast<std::size_t>(p_ - s_.data());
        s_.resize(std::max(2 * s_.size(), used + n));
        p_ = s_.data() + used;
        end_ = s_.data() + s_.size();
    }

    std::string& s_;
    char* p_;
    char* end_;
};

// Elements of `dtype` in `data`, little-endian; float elements whose exponent bits are all set
// (infinities and NaNs) become +0.0. Only whole elements are written.
template <class Bits>
void putNumbers(Out& out, const std::vector<std::uint8_t>& data, bool floats) {
    constexpr Bits expMask = sizeof(Bits) == 4 ? Bits(0x7F800000u) : Bits(0x7FF0000000000000ull);
    const std::size_t n = data.size() / sizeof(Bits);
    char* dst = out.take(n * sizeof(Bits));
    if (!floats && std::endian::native == std::endian::little) {
        if (n) std::memcpy(dst, data.data(), n * sizeof(Bits));
        return;
    }
    for (std::size_t i = 0; i < n; ++i) {
        Bits bits;
        std::memcpy(&bits, data.data() + i * sizeof bits, sizeof bits);
        if (floats && (bits & expMask) == expMask) bits = 0;
        if constexpr (std::endian::native == std::endian::big) {
            for (std::size_t k = 0; k < sizeof bits; ++k)
                dst[i * sizeof bits + k] = static_cast<char>((bits >> (8 * k)) & 0xFF);
        } else {
            std::memcpy(dst + i * sizeof bits, &bits, sizeof bits);
        }
    }
}

std::size_t valueSize(const Value& v) {
    std::size_t n = 2 + 4 * v.shape.size();
    if (v.dtype == DType::Str) {
        for (const auto& s : v.strings) n += 4 + s.size();
        return n;
    }
    const std::size_t width = dtypeWidth(v.dtype);
    return n + v.data.size() / width * width;
}

void putValue(Out& out, const Value& v) {
    out.u8(static_cast<std::uint8_t>(v.dtype));
    out.u8(static_cast<std::uint8_t>(v.shape.size()));
    for (std::uint32_t dim : v.shape) out.u32(dim);
    switch (dtypeWidth(v.dtype)) {
    case 0:
        for (const auto& s : v.strings) out.string(s);
        break;
    case 1:
        out.bytes(v.data.data(), v.data.size());
        break;
    case 2:
        putNumbers<std::uint16_t>(out, v.data, false);
        break;
    case 4:
        putNumbers<std::uint32_t>(out, v.data, v.dtype == DType::Float32);
        break;
    default:
        putNumbers<std::uint64_t>(out, v.data, v.dtype == DType::Float64);
        break;
    }
}

bool hasSamples(const Property& p) { return p.samples && !p.samples->keys.empty(); }

// The bytes of a property record after its name reference.
std::size_t propertySize(const Property& p) {
    std::size_t n = valueSize(p.value) + 1 + 4 + p.typeName.size();
    if (hasSamples(p)) {
        n += 4;
        for (const Keyframe& k : p.samples->keys)
            n += 8 + valueSize(k.value) + 2 + 8 + 16 * (k.left.size() + k.right.size());
    }
    return n;
}

void putPairs(Out& out, const std::vector<std::pair<double, double>>& pairs) {
    out.count(pairs.size());
    for (const auto& [a, b] : pairs) {
        out.f64(a);
        out.f64(b);
    }
}

void putProperty(Out& out, const Property& p) {
    putValue(out, p.value);
    const bool animated = hasSamples(p);
    out.u8(animated ? 1 : 0);
    if (animated) {
        out.count(p.samples->keys.size());
        for (const Keyframe& k : p.samples->keys) {
            out.f64(k.time);
            putValue(out, k.value);
            out.u8(static_cast<std::uint8_t>(k.interp));
            out.u8(static_cast<std::uint8_t>(k.handle));
            putPairs(out, k.left);
            putPairs(out, k.right);
        }
    }
    out.string(p.typeName);
}

// What the first pass gathers for the second. Strings are numbered by first use in exactly the
// order in which the emit pass writes their references, so one flat list of references serves
// every section, and one flat list of properties spares the emit pass the map walks.
struct Gathered {
    explicit Gathered(const Document& doc) : table(2 * doc.elements().size() + doc.connections().size()) {}

    serial::StringTable table;
    std::vector<std::uint32_t> refs;
    std::vector<const Property*> properties;     // of all elements, in order
    std::vector<const Connection*> connections;  // sorted by target, then source
    std::vector<const GlobLink*> globLinks;      // sorted by source, then targetSpec
    std::size_t payloadSize = 0;
};

// The text of `p` (as str() gives it) in a buffer reused from path to path.
std::string_view pathText(const Path& p, std::string& buffer) {
    buffer.clear();
    if (p.segments.empty() && !p.property) buffer.push_back('/');
    for (const auto& segment : p.segments) {
        buffer.push_back('/');
        buffer += segment;
    }
    if (p.property) {
        buffer.push_back('.');
        buffer += *p.property;
    }
    return buffer;
}

void gather(const Document& doc, Gathered& g) {
    auto& table = g.table;
    auto& refs = g.refs;
    std::string buffer;
    auto internPath = [&](const Path& p) { return table.internCopy(pathText(p, buffer)); };
    const std::size_t elementCount = doc.elements().size();
    refs.reserve(elementCount * 8 + doc.connections().size() * 2 + doc.deletions().size() +
                 doc.connectionDeletions().size() + doc.globLinks().size() * 2);
    g.properties.reserve(elementCount * 4);
    std::size_t size = 5 * 4;  // the five counts
    const auto& elements = doc.elements();
    for (std::size_t index = 0; index < elementCount; ++index) {
        prefetch::properties(elements, index);
        const Element& e = elements[index];
        refs.push_back(internPath(e.path));
        refs.push_back(table.intern(e.type));
        for (const auto& [name, p] : e.properties) {
            refs.push_back(table.intern(name));
            g.properties.push_back(&p);
            size += 4 + propertySize(p);
        }
        for (const auto& [key, value] : e.metadata) {
            refs.push_back(table.intern(key));
            refs.push_back(table.intern(value));
        }
        for (const auto& name : e.unsetProperties) refs.push_back(table.intern(name));
        for (const auto& key : e.unsetMetadata) refs.push_back(table.intern(key));
        size += 4 * 6 + 1 + 8 * e.metadata.size() + 4 * (e.unsetProperties.size() + e.unsetMetadata.size());
    }

    g.connections.reserve(doc.connections().size());
    for (const Connection& c : doc.connections()) g.connections.push_back(&c);
    std::sort(g.connections.begin(), g.connections.end(), [](const Connection* a, const Connection* b) {
        if (auto order = a->target <=> b->target; order != 0) return order < 0;
        return a->source < b->source;
    });
    for (const Connection* c : g.connections) {
        refs.push_back(internPath(c->source));
        refs.push_back(internPath(c->target));
    }
    size += 8 * g.connections.size();

    for (const Path& p : doc.deletions()) refs.push_back(internPath(p));
    for (const Path& p : doc.connectionDeletions()) refs.push_back(internPath(p));
    size += 4 * (doc.deletions().size() + doc.connectionDeletions().size());

    if (!doc.reorders().empty()) size += 1 + 4;
    for (const Reorder& r : doc.reorders()) {
        refs.push_back(internPath(r.parent));
        for (const Path& child : r.order) refs.push_back(internPath(child));
        size += 8 + 4 * r.order.size();
    }

    g.globLinks.reserve(doc.globLinks().size());
    for (const GlobLink& l : doc.globLinks()) g.globLinks.push_back(&l);
    std::sort(g.globLinks.begin(), g.globLinks.end(), [](const GlobLink* a, const GlobLink* b) {
        if (auto order = a->source <=> b->source; order != 0) return order < 0;
        return a->targetSpec < b->targetSpec;
    });
    for (const GlobLink* l : g.globLinks) {
        refs.push_back(internPath(l->source));
        refs.push_back(table.intern(l->targetSpec));
    }
    if (!g.globLinks.empty()) size += 1 + 4 + 8 * g.globLinks.size();

    for (std::string_view s : table.strings) size += 4 + s.size();
    g.payloadSize = size;
}

void emitPayload(const Document& doc, const Gathered& g, Out& out) {
    const std::uint32_t* ref = g.refs.data();
    auto putRefs = [&](std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) out.u32(*ref++);
    };

    out.count(g.table.strings.size());
    for (std::string_view s : g.table.strings) out.string(s);

    const Property* const* property = g.properties.data();
    const Property* const* const propertiesEnd = property + g.properties.size();
    out.count(doc.elements().size());
    for (const Element& e : doc.elements()) {
        putRefs(2);  // path, type
        out.count(e.properties.size());
        for (std::size_t i = 0; i < e.properties.size(); ++i) {
            // The values live apart from the flat list: ask for them a few properties ahead.
            if (propertiesEnd - property > static_cast<std::ptrdiff_t>(prefetch::kAhead)) {
                __builtin_prefetch(property[prefetch::kAhead]);
                __builtin_prefetch(property[prefetch::kAhead / 2]->value.data.data());
            }
            putRefs(1);
            putProperty(out, **property++);
        }
        out.count(e.metadata.size());
        putRefs(2 * e.metadata.size());
        out.u8(e.specifier == Specifier::Def ? 0 : 1);
        out.count(e.unsetProperties.size());
        putRefs(e.unsetProperties.size());
        out.count(e.unsetMetadata.size());
        putRefs(e.unsetMetadata.size());
    }

    out.count(g.connections.size());
    putRefs(2 * g.connections.size());
    out.count(doc.deletions().size());
    putRefs(doc.deletions().size());
    out.count(doc.connectionDeletions().size());
    putRefs(doc.connectionDeletions().size());

    if (!doc.reorders().empty()) {
        out.u8(kTagReorders);
        out.count(doc.reorders().size());
        for (const Reorder& r : doc.reorders()) {
            putRefs(1);
            out.count(r.order.size());
            putRefs(r.order.size());
        }
    }
    if (!g.globLinks.empty()) {
        out.u8(kTagGlobLinks);
        out.count(g.globLinks.size());
        putRefs(2 * g.globLinks.size());
    }
}

void putHeader(Out& out, bool compressed) {
    out.bytes(kMagic, sizeof kMagic);
    out.le(kVersion);
    out.le(static_cast<std::uint16_t>(compressed ? 1 : 0));
}

// ---------------------------------------------------------------------------------------------
// Reading

class CrateReader {
public:
    explicit CrateReader(std::string_view payload) : in_(payload.data(), payload.size()) {}

    std::optional<Document> read() {
        if (!readStrings() || !readElements() || !readConnections() ||
            !readPaths(deletions_, false) || !readPaths(connectionDeletions_, true))
            return std::nullopt;
        while (!in_.atEnd()) {
            std::uint8_t tag;
            if (!in_.getU8(tag)) return std::nullopt;
            if (tag == kTagReorders) {
                if (!readReorders()) return std::nullopt;
            } else if (tag == kTagGlobLinks) {
                if (!readGlobLinks()) return std::nullopt;
            } else {
                return std::nullopt;
            }
        }
        applyRecords();
        return std::move(doc_);
    }

private:
    bool readStrings() {
        std::uint32_t n;
        if (!in_.getCount(n, 4)) return false;
        strings_.reserve(n);
        for (std::uint32_t i = 0; i < n; ++i) {
            std::uint32_t length;
            std::string_view s;
            if (!in_.getU32(length) || !in_.getView(s, length)) return false;
            strings_.push_back(s);
        }
        return true;
    }

    bool getRef(std::string_view& out) {
        std::uint32_t ref;
        if (!in_.getU32(ref)) return false;
        if (ref >= strings_.size()) return in_.ok = false;
        out = strings_[ref];
        return true;
    }

    bool getPath(std::optional<Path>& out) {
        std::string_view text;
        if (!getRef(text)) return false;
        out = Path::parse(text);
        return out || (in_.ok = false);
    }

    // A wire's end. The text format can wire a property whose name the path grammar can't
    // spell (one with dots or spaces, or one on the root), and the writer stores it as it is;
    // so that such a file loads again, a text that isn't a path still reads as a slot when the
    // part before its first dot is an element path, the rest being the property's name.
    bool getSlot(std::optional<Path>& out) {
        std::string_view text;
        if (!getRef(text)) return false;
        out = Path::parse(text);
        if (out) return true;
        const std::size_t dot = text.find('.');
        if (dot == std::string_view::npos || dot + 1 == text.size()) return in_.ok = false;
        std::optional<Path> element = dot == 0 ? Path() : Path::parse(text.substr(0, dot));
        if (!element) return in_.ok = false;
        out = element->appendingProperty(text.substr(dot + 1));
        return true;
    }

    bool readPairs(std::vector<std::pair<double, double>>& out) {
        std::uint32_t n;
        if (!in_.getCount(n, 16)) return false;
        out.resize(n);
        for (auto& [a, b] : out)
            if (!in_.getF64(a) || !in_.getF64(b)) return false;
        return true;
    }

    bool readSamples(std::optional<TimeSamples>& out) {
        std::uint32_t n;
        if (!in_.getCount(n, 10)) return false;
        std::vector<Keyframe> keys;
        bool ascending = true;
        for (std::uint32_t i = 0; i < n; ++i) {
            Keyframe k;
            std::uint8_t interp, handle;
            if (!in_.getF64(k.time) || !in_.getValue(k.value) || !in_.getU8(interp)) return false;
            if (interp > static_cast<std::uint8_t>(Interp::Bezier)) return in_.ok = false;
            if (!in_.getU8(handle)) return false;
            if (handle > static_cast<std::uint8_t>(HandleType::Free)) return in_.ok = false;
            if (!readPairs(k.left) || !readPairs(k.right)) return false;
            if (!std::isfinite(k.time)) continue;  // a curve has no key there
            k.interp = static_cast<Interp>(interp);
            k.handle = static_cast<HandleType>(handle);
            if (!keys.empty() && !(keys.back().time < k.time)) ascending = false;
            keys.push_back(std::move(k));
        }
        if (!ascending) settle(keys);
        // Keys in ascending order go in at the end of the curve, each in constant time.
        TimeSamples samples;
        for (Keyframe& k : keys) {
            samples.set(k.time, std::move(k.value), k.interp);
            samples.setHandles(k.time, k.handle, std::move(k.left), std::move(k.right));
        }
        // A curve whose every key had a non-finite time is no curve: the writer couldn't tell it
        // from one that was never there.
        if (!samples.keys.empty()) out = std::move(samples);
        return true;
    }

    // Sorts keys that came out of order and merges those on one time into what setting them one
    // after the other would leave: the time of the first, everything else of the last.
    static void settle(std::vector<Keyframe>& keys) {
        std::stable_sort(keys.begin(), keys.end(),
                         [](const Keyframe& a, const Keyframe& b) { return a.time < b.time; });
        std::size_t kept = 0;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (kept > 0 && keys[kept - 1].time == keys[i].time) {
                const double first = keys[kept - 1].time;
                keys[kept - 1] = std::move(keys[i]);
                keys[kept - 1].time = first;
            } else {
                if (kept != i) keys[kept] = std::move(keys[i]);
                ++kept;
            }
        }
        keys.resize(kept);
    }

    bool readProperties(Element& e) {
        std::uint32_t n;
        if (!in_.getCount(n, 7)) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::string_view name, typeName;
            std::optional<TimeSamples> samples;
            std::uint8_t hasSamples;
            // The value is read into the spare one: a default Property would allocate a float.
            if (!getRef(name) || !in_.getValue(spare_) || !in_.getU8(hasSamples)) return false;
            if (hasSamples && !readSamples(samples)) return false;
            std::uint32_t length;
            if (!in_.getU32(length) || !in_.getView(typeName, length)) return false;
            e.properties.insert_or_assign(e.properties.end(), std::string(name),
                                          Property{std::move(spare_), std::move(samples), std::string(typeName)});
        }
        return true;
    }

    bool readNameSet(std::set<std::string>& out) {
        std::uint32_t n;
        if (!in_.getCount(n, 4)) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::string_view name;
            if (!getRef(name)) return false;
            out.emplace_hint(out.end(), name);
        }
        return true;
    }

    bool readElements() {
        std::uint32_t n;
        if (!in_.getCount(n, 16)) return false;
        std::vector<Element> elements;
        elements.reserve(n);  // bounded by the bytes left, checked above
        for (std::uint32_t i = 0; i < n; ++i) {
            std::string_view pathText, type;
            if (!getRef(pathText) || !getRef(type)) return false;
            auto path = Path::parse(pathText);
            // An element stands on an element path, and on each one only once (checked below).
            if (!path || path->property) return in_.ok = false;
            Element& e = elements.emplace_back();
            e.path = std::move(*path);
            e.type.assign(type);
            if (!readProperties(e)) return false;
            std::uint32_t metaCount;
            if (!in_.getCount(metaCount, 8)) return false;
            for (std::uint32_t k = 0; k < metaCount; ++k) {
                std::string_view key, value;
                if (!getRef(key) || !getRef(value)) return false;
                e.metadata.insert_or_assign(e.metadata.end(), std::string(key), std::string(value));
            }
            std::uint8_t over;
            if (!in_.getU8(over)) return false;
            e.specifier = over ? Specifier::Over : Specifier::Def;
            if (!readNameSet(e.unsetProperties) || !readNameSet(e.unsetMetadata)) return false;
        }
        return doc_.insertAll(std::move(elements)) || (in_.ok = false);
    }

    bool readConnections() {
        std::uint32_t n;
        if (!in_.getCount(n, 8)) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::optional<Path> source, target;
            if (!getSlot(source) || !getSlot(target)) return false;
            doc_.connect(*source, *target);  // a pair without properties is dropped
        }
        return true;
    }

    // Deletions and connection deletions are sorted sets. They are gathered here and recorded in
    // sorted order at the end, so that hostile input in reverse order can't make recording
    // them quadratic.
    bool readPaths(std::vector<Path>& out, bool keepProperty) {
        std::uint32_t n;
        if (!in_.getCount(n, 4)) return false;
        out.reserve(n);
        for (std::uint32_t i = 0; i < n; ++i) {
            std::optional<Path> p;
            if (!getPath(p)) return false;
            out.push_back(keepProperty ? std::move(*p) : p->elementPath());
        }
        return true;
    }

    bool readReorders() {
        std::uint32_t n;
        if (!in_.getCount(n, 8)) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::optional<Path> parent;
            std::uint32_t childCount;
            if (!getPath(parent) || !in_.getCount(childCount, 4)) return false;
            std::vector<Path> order;
            order.reserve(childCount);
            for (std::uint32_t k = 0; k < childCount; ++k) {
                std::optional<Path> child;
                if (!getPath(child)) return false;
                order.push_back(child->elementPath());
            }
            reorders_.push_back({parent->elementPath(), std::move(order)});
        }
        return true;
    }

    bool readGlobLinks() {
        std::uint32_t n;
        if (!in_.getCount(n, 8)) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::optional<Path> source;
            std::string_view spec;
            if (!getPath(source) || !getRef(spec)) return false;
            doc_.addGlobLink(*source, std::string(spec));
        }
        return true;
    }

    // Records the layer statements in sorted order, which gives the document the same records as
    // recording them as they came: duplicates collapse, and of two reorders for one parent the
    // later wins.
    void applyRecords() {
        std::sort(deletions_.begin(), deletions_.end());
        for (const Path& p : deletions_) doc_.addDeletion(p);
        std::sort(connectionDeletions_.begin(), connectionDeletions_.end());
        for (const Path& p : connectionDeletions_) doc_.addConnectionDeletion(p);
        std::stable_sort(reorders_.begin(), reorders_.end(),
                         [](const Reorder& a, const Reorder& b) { return a.parent < b.parent; });
        for (std::size_t i = 0; i < reorders_.size(); ++i)
            if (i + 1 == reorders_.size() || reorders_[i + 1].parent != reorders_[i].parent)
                doc_.addReorder(reorders_[i].parent, std::move(reorders_[i].order));
    }

    serial::Reader in_;
    std::vector<std::string_view> strings_;
    Value spare_;  // scratch for property values; moved out after each use
    Document doc_;
    std::vector<Path> deletions_;
    std::vector<Path> connectionDeletions_;
    std::vector<Reorder> reorders_;
};

}  // namespace

std::string serializeBinary(const Document& doc, bool compressed) {
    Gathered g(doc);
    gather(doc, g);

    std::string file;
    if (!compressed) {
        Out out(file, kHeaderSize + g.payloadSize);
        putHeader(out, false);
        emitPayload(doc, g, out);
        out.finish();
        return file;
    }
    std::string payload;
    Out out(payload, g.payloadSize);
    emitPayload(doc, g, out);
    out.finish();
    const std::string stream = compress(payload);
    Out whole(file, kHeaderSize + stream.size());
    putHeader(whole, true);
    whole.bytes(stream.data(), stream.size());
    whole.finish();
    return file;
}

std::optional<Document> deserializeBinary(std::string_view bytes) {
    if (bytes.size() < kHeaderSize || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0)
        return std::nullopt;
    serial::Reader header(bytes.data() + sizeof kMagic, 4);
    std::uint16_t version, flags;
    header.getU16(version);
    header.getU16(flags);
    if (version != kVersion) return std::nullopt;

    std::string_view payload = bytes.substr(kHeaderSize);
    std::optional<std::string> inflated;
    if (flags & 1) {
        inflated = decompress(payload);
        if (!inflated) return std::nullopt;
        payload = *inflated;
    }
    return CrateReader(payload).read();
}

}  // namespace ostrevik
