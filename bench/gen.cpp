// Deterministic generator of large documents; see gen.h for the shape of what it builds.
#include "gen.h"

#include <array>
#include <climits>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace ostrevik::bench {

namespace {

// splitmix64: tiny, fast and identical on every platform (unlike the std distributions).
class Rng {
public:
    explicit Rng(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n).
    std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }
    bool chance(std::size_t oneIn) { return below(oneIn) == 0; }
    // Quarter steps in [-8, 8]: short text forms, like hand-authored values.
    float nice() { return static_cast<float>(static_cast<int>(below(65)) - 32) / 4.0f; }
    // Thousandths in [-1000, 1000]: full-precision text forms, like computed values.
    float rough() { return static_cast<float>(static_cast<int>(below(2000001)) - 1000000) / 1000.0f; }
    float number() { return chance(2) ? nice() : rough(); }

    template <std::size_t N>
    std::string_view pick(const std::array<std::string_view, N>& names) {
        return names[below(N)];
    }

private:
    std::uint64_t state_;
};

constexpr std::array<std::string_view, 8> kTypes{"mesh", "xform", "light", "camera",
                                                 "material", "shader", "curve", "points"};
constexpr std::array<std::string_view, 6> kFloatNames{"opacity", "intensity", "radius",
                                                      "weight", "roughness", "exposure"};
constexpr std::array<std::string_view, 4> kIntNames{"count", "subdivisions", "priority", "seed"};
constexpr std::array<std::string_view, 4> kBoolNames{"visible", "castShadows", "doubleSided",
                                                     "enabled"};
constexpr std::array<std::string_view, 3> kFloat3Names{"translate", "scale", "rotate"};
constexpr std::array<std::string_view, 3> kColorNames{"displayColor", "tint", "albedo"};
constexpr std::array<std::string_view, 3> kWords{"alpha", "beta", "gamma"};

struct Builder {
    Document doc;
    Rng rng;
    std::vector<Path> made;  // every element path so far, for picking connection sources

    Builder(std::uint64_t seed) : rng(seed ^ 0x6F73747265766B21ull) {}

    std::string text() {
        static constexpr std::array<std::string_view, 8> plain{
            "default", "imported from scan", "needs review", "final", "temp", "lod0", "hero asset",
            "background"};
        std::string s(plain[rng.below(plain.size())]);
        switch (rng.below(8)) {
            case 0: s += " \"quoted\""; break;
            case 1: s += "\\path\\to\\file"; break;
            case 2: s += "\nsecond line\tcol"; break;
            default: break;
        }
        return s;
    }

    std::vector<float> floats(std::size_t n) {
        std::vector<float> v(n);
        for (float& f : v) f = rng.number();
        return v;
    }

    Value int32Vector(std::size_t n) {
        Value v;
        v.dtype = DType::Int32;
        v.shape = {static_cast<std::uint32_t>(n)};
        v.data.resize(n * sizeof(std::int32_t));
        for (std::size_t i = 0; i < n; ++i) {
            const std::int32_t x = static_cast<std::int32_t>(rng.below(2000)) - 1000;
            std::memcpy(v.data.data() + i * sizeof x, &x, sizeof x);
        }
        return v;
    }

    // A 4x4 transform: mostly identity with a translation, as authored matrices are.
    Value matrix4d() {
        std::array<double, 16> m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
        m[12] = rng.nice();
        m[13] = rng.nice();
        m[14] = rng.chance(2) ? static_cast<double>(rng.rough()) / 7.0 : rng.nice();
        if (rng.chance(4)) m[0] = m[5] = m[10] = 0.5;
        Value v;
        v.dtype = DType::Float64;
        v.shape = {4, 4};
        v.data.resize(sizeof m);
        std::memcpy(v.data.data(), m.data(), sizeof m);
        return v;
    }

    void setProperty(const Path& path, std::string_view name, Value value, std::string typeName = {}) {
        Property& p = doc.element(path)->properties[std::string(name)];
        p.value = std::move(value);
        p.typeName = std::move(typeName);
    }

    void addRandomProperty(const Path& path) {
        switch (rng.below(20)) {
            case 0:
            case 1:
            case 2: setProperty(path, rng.pick(kFloatNames), Value(rng.number())); break;
            case 3:
            case 4: setProperty(path, rng.pick(kIntNames), Value(static_cast<std::int64_t>(rng.below(1000)))); break;
            case 5:
            case 6: setProperty(path, rng.pick(kBoolNames), Value(rng.chance(2))); break;
            case 7: setProperty(path, "size", Value(std::array<float, 2>{rng.nice(), rng.nice()})); break;
            case 8:
            case 9:
                setProperty(path, rng.pick(kFloat3Names),
                            Value(std::array<float, 3>{rng.number(), rng.number(), rng.number()}));
                break;
            case 10:
                setProperty(path, rng.pick(kColorNames),
                            Value(std::array<float, 3>{rng.nice() / 8, rng.nice() / 8, 1.0f}), "color3f");
                break;
            case 11:
                setProperty(path, "uvTransform",
                            Value(std::array<float, 6>{1, 0, rng.nice(), 0, 1, rng.nice()}));
                break;
            case 12: setProperty(path, "widths", Value(floats(1 + rng.below(8)))); break;
            case 13: {
                std::vector<std::int64_t> v(rng.below(10));
                for (auto& x : v) x = static_cast<std::int64_t>(rng.below(5000));
                setProperty(path, "indices", Value(v));
                break;
            }
            case 14: {
                std::vector<std::array<float, 2>> v(1 + rng.below(4));
                for (auto& p : v) p = {rng.nice() / 8, rng.nice() / 8};
                setProperty(path, "uvs", Value(v));
                break;
            }
            case 15:
            case 16: setProperty(path, rng.chance(2) ? "label" : "comment", Value(text())); break;
            case 17: {
                const std::size_t n = 2 + rng.below(5);
                setProperty(path, "extent", int32Vector(n), n == 3 && rng.chance(2) ? "vec3i" : "");
                break;
            }
            case 18: setProperty(path, "xformOp", matrix4d(), "matrix4d"); break;
            case 19:
                if (rng.chance(10)) {
                    std::array<float, 32> s{};
                    for (float& f : s) f = static_cast<float>(rng.below(1000)) / 1000.0f;
                    setProperty(path, "emission", Value(s));
                } else {
                    setProperty(path, "tags", Value(std::string(rng.pick(kWords))));
                }
                break;
        }
    }

    void animate(const Path& path) {
        const bool vector = rng.chance(3);
        const std::string name = vector ? "translate" : std::string(rng.pick(kFloatNames));
        auto sample = [&]() {
            return vector ? Value(std::array<float, 3>{rng.nice(), rng.nice(), rng.nice()})
                          : Value(rng.number());
        };
        Property& p = doc.element(path)->properties[name];
        p.value = sample();
        p.typeName.clear();
        TimeSamples ts;
        const std::size_t keys = 2 + rng.below(4);
        for (std::size_t k = 0; k < keys; ++k) {
            const double time = static_cast<double>(k * 12 + rng.below(6));
            const Interp interp = static_cast<Interp>(rng.below(3));
            ts.set(time, sample(), interp);
            if (interp == Interp::Bezier && rng.chance(2)) {
                ts.setHandles(time, HandleType::Free, {{-2.0, rng.nice()}}, {{2.0, rng.nice()}});
            }
        }
        p.samples = std::move(ts);
    }

    void decorate(const Path& path, bool top) {
        const std::size_t props = top ? 1 : 1 + rng.below(3);
        for (std::size_t i = 0; i < props; ++i) addRandomProperty(path);
        if (rng.chance(16)) animate(path);
        if (top || rng.chance(6)) {
            Element* e = doc.element(path);
            e->metadata["note"] = text();
            if (rng.chance(3)) e->metadata["author"] = std::string(rng.pick(kWords));
        }
        // Wire a slot of an earlier element into this one, about once per 10 elements.
        if (!made.empty() && rng.chance(10)) {
            const Path& source = made[rng.below(made.size())];
            doc.connect(source.appendingProperty(rng.chance(2) ? "out" : "result"),
                        path.appendingProperty(rng.chance(2) ? "in" : "driver"));
        }
        made.push_back(path);
    }

    Path addElement(const Path& parent, bool anonymous) {
        const std::string_view type = rng.pick(kTypes);
        if (anonymous) return doc.addChild(parent, type);
        return doc.append(parent.child(type), type).path;
    }
};

}  // namespace

Document generateDocument(std::size_t elements, std::uint64_t seed) {
    Builder b(seed);
    b.made.reserve(elements);
    std::size_t groups = 0;
    while (b.made.size() < elements) {
        const Path group = b.doc.append(Path().child("group" + std::to_string(groups++)), "group").path;
        b.decorate(group, true);
        const std::size_t children = 3 + b.rng.below(8);
        for (std::size_t c = 0; c < children && b.made.size() < elements; ++c) {
            const Path child = b.addElement(group, false);
            b.decorate(child, false);
            const std::size_t grandchildren = b.rng.below(5);
            for (std::size_t g = 0; g < grandchildren && b.made.size() < elements; ++g) {
                const Path grandchild = b.addElement(child, b.rng.chance(40));
                b.decorate(grandchild, false);
            }
        }
    }
    return std::move(b.doc);
}

const Document& cachedDocument(std::size_t elements, std::uint64_t seed) {
    static std::map<std::pair<std::size_t, std::uint64_t>, Document> cache;
    const auto key = std::make_pair(elements, seed);
    auto it = cache.find(key);
    if (it == cache.end()) it = cache.emplace(key, generateDocument(elements, seed)).first;
    return it->second;
}

void keepFreedMemory() {
#if defined(__GLIBC__)
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    mallopt(M_MMAP_THRESHOLD, INT_MAX);
#endif
}

}  // namespace ostrevik::bench
