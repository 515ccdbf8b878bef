// Path: parsing, printing, ordering, hashing and the structural operations on element addresses.
#include "ostrevik/core.h"

#include <algorithm>
#include <stdexcept>

namespace ostrevik {

namespace {

struct NameTable {
    bool name[256] = {};
    constexpr NameTable() {
        for (int c = 'A'; c <= 'Z'; ++c) name[c] = true;
        for (int c = 'a'; c <= 'z'; ++c) name[c] = true;
        for (int c = '0'; c <= '9'; ++c) name[c] = true;
        name[static_cast<unsigned char>('_')] = true;
    }
};
constexpr NameTable kNames;

bool isNameChar(unsigned char c) {
    return kNames.name[c];
}

bool isPlainName(std::string_view s) {
    if (s.empty()) return false;
    for (unsigned char c : s)
        if (!isNameChar(c)) return false;
    return true;
}

bool isValidSegment(std::string_view s) {
    return isPlainName(s) || Path::isAnonymousSegment(s);
}

// True when `prefix` holds the leading segments of `segments`.
bool segmentsStartWith(const std::vector<std::string>& segments, const std::vector<std::string>& prefix) {
    return prefix.size() <= segments.size() && std::equal(prefix.begin(), prefix.end(), segments.begin());
}

constexpr std::uint64_t kHashStart = 0x14650FB0739D0383ULL;
constexpr std::uint64_t kHashPrime = 0x100000001B3ULL;

inline std::uint64_t hashByte(std::uint64_t h, unsigned char c) {
    return (h ^ c) * kHashPrime;
}

inline std::uint64_t hashBytes(std::uint64_t h, std::string_view s) {
    for (unsigned char c : s) h = hashByte(h, c);
    return h;
}

}  // namespace

Path::Path(std::string_view text) {
    auto parsed = parse(text);
    if (!parsed)
        throw std::invalid_argument("ostrevik::Path: malformed path \"" + std::string(text) + "\"");
    *this = std::move(*parsed);
}

Path::Path(std::vector<std::string> segs, std::optional<std::string> prop)
    : segments(std::move(segs)), property(std::move(prop)) {}

bool Path::isAnonymousSegment(std::string_view s) {
    if (s.size() < 3 || s.front() != '[' || s.back() != ']') return false;
    for (std::size_t i = 1; i + 1 < s.size(); ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

// One walk over the text: a segment runs to the next slash or dot, and a dot may end the last
// one with a property name.
std::optional<Path> Path::parse(std::string_view text) {
    if (text.empty() || text.front() != '/') return std::nullopt;
    Path out;
    if (text.size() == 1) return out;
    const char* p = text.data() + 1;
    const char* const end = text.data() + text.size();
    out.segments.reserve(static_cast<std::size_t>(std::count(p, end, '/')) + 1);
    for (;;) {
        const char* const start = p;
        while (p < end && *p != '/' && *p != '.') ++p;
        const std::string_view piece(start, static_cast<std::size_t>(p - start));
        if (!isValidSegment(piece)) return std::nullopt;
        out.segments.emplace_back(piece);
        if (p == end) return out;
        if (*p == '.') {
            // isPlainName refuses a further dot or slash, so "/a.b.c" and "/a.b/c" fail here.
            const std::string_view property(p + 1, static_cast<std::size_t>(end - p - 1));
            if (!isPlainName(property)) return std::nullopt;
            out.property.emplace(property);
            return out;
        }
        ++p;
    }
}

std::string Path::str() const {
    std::size_t size = segments.empty() && !property ? 1 : 0;
    for (const auto& s : segments) size += 1 + s.size();
    if (property) size += 1 + property->size();

    std::string out;
    out.reserve(size);
    if (segments.empty() && !property) out.push_back('/');
    for (const auto& s : segments) {
        out.push_back('/');
        out += s;
    }
    if (property) {
        out.push_back('.');
        out += *property;
    }
    return out;
}

std::optional<std::string> Path::name() const {
    if (segments.empty()) return std::nullopt;
    return segments.back();
}

bool Path::leafIsAnonymous() const {
    return !segments.empty() && isAnonymousSegment(segments.back());
}

std::optional<Path> Path::parent() const {
    if (segments.empty()) return std::nullopt;
    Path p;
    p.segments.assign(segments.begin(), segments.end() - 1);
    return p;
}

Path Path::child(std::string_view name) const {
    Path p;
    p.segments.reserve(segments.size() + 1);
    p.segments = segments;
    p.segments.emplace_back(name);
    return p;
}

Path Path::child(std::uint64_t index) const {
    std::string segment(1, '[');
    segment += std::to_string(index);
    segment.push_back(']');
    return child(segment);
}

Path Path::appendingProperty(std::string_view prop) const {
    Path p;
    p.segments = segments;
    p.property.emplace(prop);
    return p;
}

Path Path::elementPath() const {
    Path p;
    p.segments = segments;
    return p;
}

bool Path::isAncestorOf(const Path& other) const {
    return segmentsStartWith(other.segments, segments);
}

Path Path::reparented(const Path& oldPrefix, const Path& newPrefix) const {
    if (!segmentsStartWith(segments, oldPrefix.segments)) return *this;
    Path p;
    p.segments.reserve(newPrefix.segments.size() + segments.size() - oldPrefix.segments.size());
    p.segments = newPrefix.segments;
    p.segments.insert(p.segments.end(), segments.begin() + oldPrefix.segments.size(), segments.end());
    p.property = property;
    return p;
}

std::strong_ordering Path::operator<=>(const Path& other) const {
    std::size_t n = std::min(segments.size(), other.segments.size());
    for (std::size_t i = 0; i < n; ++i) {
        // std::string compares its bytes as unsigned char.
        int c = segments[i].compare(other.segments[i]);
        if (c != 0) return c < 0 ? std::strong_ordering::less : std::strong_ordering::greater;
    }
    if (segments.size() != other.segments.size()) return segments.size() <=> other.segments.size();
    if (!property || !other.property) return property.has_value() <=> other.property.has_value();
    int c = property->compare(*other.property);
    return c < 0 ? std::strong_ordering::less : c > 0 ? std::strong_ordering::greater : std::strong_ordering::equal;
}

}  // namespace ostrevik

// Feeds exactly the bytes of str() without building it: paths are hashed on every index lookup.
std::size_t std::hash<ostrevik::Path>::operator()(const ostrevik::Path& p) const noexcept {
    using namespace ostrevik;
    std::uint64_t h = kHashStart;
    if (p.segments.empty() && !p.property) return static_cast<std::size_t>(hashByte(h, '/'));
    for (const auto& s : p.segments) h = hashBytes(hashByte(h, '/'), s);
    if (p.property) h = hashBytes(hashByte(h, '.'), *p.property);
    return static_cast<std::size_t>(h);
}
