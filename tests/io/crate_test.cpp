// The binary crate: exact bytes, the reading rules, and round trips of every kind of content.
#include <ostrevik/io.h>
#include "support/example_text.h"
#include "support/value_util.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

using namespace ostrevik;
using testsupport::rawValue;

namespace {

// Little-endian byte builder for expected files and hand-made crates.
struct Bytes {
    std::string s;
    Bytes& u8(unsigned v) { s.push_back(static_cast<char>(v)); return *this; }
    Bytes& u16(unsigned v) { return u8(v & 0xFF).u8(v >> 8); }
    Bytes& u32(std::uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
    Bytes& f64(double d) {
        auto bits = std::bit_cast<std::uint64_t>(d);
        return u32(static_cast<std::uint32_t>(bits)).u32(static_cast<std::uint32_t>(bits >> 32));
    }
    Bytes& str(std::string_view t) { u32(static_cast<std::uint32_t>(t.size())); s.append(t); return *this; }
    Bytes& raw(std::string_view t) { s.append(t); return *this; }
};

Bytes header(unsigned version = 4, unsigned flags = 0) {
    Bytes b;
    b.s.append("ZLTHC\0", 6);
    return b.u16(version).u16(flags);
}

// An element record with no properties, metadata or unset names.
Bytes& bareElement(Bytes& b, std::uint32_t path, std::uint32_t type) {
    return b.u32(path).u32(type).u32(0).u32(0).u8(0).u32(0).u32(0);
}

// A crate of one element `/a` (strings "/a", "") carrying property "p" (string 2) with the
// given value bytes, and nothing else.
std::string crateWithValue(std::string_view valueBytes) {
    Bytes b = header();
    b.u32(3).str("/a").str("").str("p");
    b.u32(1).u32(0).u32(1).u32(1).u32(2).raw(valueBytes).u8(0).u32(0);
    b.u32(0).u8(0).u32(0).u32(0);
    b.u32(0).u32(0).u32(0);
    return b.s;
}

// A document with every value form, animation, metadata, unset names and layer records.
Document richDocument() {
    Document doc;
    Element a;
    a.path = Path("/a");
    a.type = "object";
    a.properties["f"].value = Value(1.5f);
    a.properties["i"].value = Value(std::int64_t{-7});
    a.properties["b"].value = Value(true);
    a.properties["s"].value = Value(std::string("text \n\0 with bytes", 18));
    a.properties["f3"] = Property{Value(std::array<float, 3>{1, 2, 3}), std::nullopt, "color3f"};
    a.properties["m"].value = Value(std::array<float, 6>{1, 2, 3, 4, 5, 6});
    a.properties["f2a"].value = Value(std::vector<std::array<float, 2>>{{1, 2}, {3, 4}});
    a.properties["ia"].value = Value(std::vector<std::int64_t>{1, -2, 3});
    a.properties["empty"].value = Value(std::vector<float>{});
    a.properties["d44"].value = rawValue(DType::Float64, {4, 4}, std::vector<std::uint8_t>(128, 0x3F));
    a.properties["h"].value = rawValue<std::uint16_t>(DType::Float16, {2}, {0x3C00, 0x7E01});
    a.properties["u16"].value = rawValue<std::uint16_t>(DType::UInt16, {}, {0xBEEF});
    a.properties["i8"].value = rawValue<std::int8_t>(DType::Int8, {}, {-3});
    a.properties["c"].value = rawValue<char>(DType::Char, {}, {'z'});
    a.properties["i16"].value = rawValue<std::int16_t>(DType::Int16, {}, {-300});
    a.properties["i32"].value = rawValue<std::int32_t>(DType::Int32, {}, {-70000});
    a.properties["u8"].value = rawValue<std::uint8_t>(DType::UInt8, {}, {200});
    a.properties["u32"].value = rawValue<std::uint32_t>(DType::UInt32, {}, {4000000000u});
    a.properties["u64"].value = rawValue<std::uint64_t>(DType::UInt64, {}, {std::uint64_t{1} << 63});
    a.properties["cube"].value = rawValue<std::int32_t>(DType::Int32, {2, 0, 3}, {});
    a.properties["strs"].value = testsupport::strValue({2, 2}, {"", "x", "/a", "yy"});

    TimeSamples ts;
    ts.set(0.0, Value(1.0f), Interp::Bezier);
    ts.set(2.5, Value(3.0f), Interp::Held);
    ts.set(-1.0, Value("mixed"), Interp::Linear);
    ts.setHandles(0.0, HandleType::Free, {{0.25, 1.0}}, {{0.5, -1.0}, {0.1, 0.2}});
    a.properties["f"].samples = ts;
    a.metadata = {{"doc", "hello"}, {"reference", "/a"}};
    a.unsetProperties = {"gone", "old"};
    a.unsetMetadata = {"note"};
    doc.insert(a);

    Element b;
    b.path = Path("/a/[0]");
    b.specifier = Specifier::Over;
    doc.insert(b);
    Element c;
    c.path = Path("/");
    c.type = "root";
    doc.insert(c);

    doc.connect(Path("/a.out"), Path("/b.in"));
    doc.connect(Path("/missing.x"), Path("/a.in"));
    doc.addDeletion(Path("/z"));
    doc.addDeletion(Path("/d"));
    doc.addConnectionDeletion(Path("/a.y"));
    doc.addReorder(Path("/a"), {Path("/a/[0]"), Path("/a/q")});
    doc.addReorder(Path("/"), {Path("/a")});
    doc.addGlobLink(Path("/a.out"), "/lights/*.intensity");
    doc.addGlobLink(Path("/a.out"), "/lights/*.intensity");
    doc.addGlobLink(Path("/"), "anything, not checked");
    return doc;
}

}  // namespace

TEST(CrateBytes, EmptyDocumentIsThirtyBytes) {
    Bytes want = header();
    for (int i = 0; i < 5; ++i) want.u32(0);
    EXPECT_EQ(serializeBinary(Document(), false), want.s);

    // Compressed: flag 1 and the payload through the compressor.
    EXPECT_EQ(serializeBinary(Document(), true),
              header(4, 1).s + compress(want.s.substr(10)));
}

TEST(CrateBytes, SmallDocumentsExactly) {
    Document doc;
    doc.append(Path("/a"), "");
    Bytes want = header();
    want.u32(2).str("/a").str("");
    bareElement(want.u32(1), 0, 1);
    want.u32(0).u32(0).u32(0);
    EXPECT_EQ(serializeBinary(doc, false), want.s);

    // One string for a path, a property name and a metadata value; connections sorted by
    // target and glob links by source, whatever the order of creation.
    Document d;
    Element e;
    e.path = Path("/n");
    e.type = "n";
    e.properties["n"].value = Value(2.0f);
    e.metadata["k"] = "/n";
    e.specifier = Specifier::Over;
    d.insert(e);
    d.connect(Path("/n.o"), Path("/n.z"));
    d.connect(Path("/n.o"), Path("/n.a"));
    d.addGlobLink(Path("/n.q"), "/*.x");
    d.addGlobLink(Path("/n.o"), "/*.y");
    d.addReorder(Path("/n"), {Path("/n")});
    Bytes w = header();
    w.u32(9).str("/n").str("n").str("k").str("/n.o").str("/n.a").str("/n.z").str("/*.y").str("/n.q").str("/*.x");
    w.u32(1).u32(0).u32(1).u32(1);
    w.u32(1).u8(10).u8(0).raw(std::string("\0\0\0\x40", 4)).u8(0).u32(0);  // n = 2.0f
    w.u32(1).u32(2).u32(0).u8(1).u32(0).u32(0);
    w.u32(2).u32(3).u32(4).u32(3).u32(5);  // connections
    w.u32(0).u32(0);
    w.u8(1).u32(1).u32(0).u32(1).u32(0);     // reorders
    w.u8(2).u32(2).u32(3).u32(6).u32(7).u32(8);  // glob links
    EXPECT_EQ(serializeBinary(d, false), w.s);
    auto back = deserializeBinary(w.s);
    ASSERT_TRUE(back);
    EXPECT_EQ(serializeBinary(*back, false), w.s);
    EXPECT_EQ(back->elements()[0].specifier, Specifier::Over);
}

TEST(CrateRead, HeaderRules) {
    Bytes empty = header();
    for (int i = 0; i < 5; ++i) empty.u32(0);
    EXPECT_TRUE(deserializeBinary(empty.s));
    EXPECT_FALSE(deserializeBinary(empty.s.substr(0, 9)));
    EXPECT_FALSE(deserializeBinary(empty.s.substr(0, 10)));  // no string count
    for (unsigned version : {3u, 5u, 0x104u}) {
        std::string s = empty.s;
        s[6] = static_cast<char>(version & 0xFF);
        s[7] = static_cast<char>(version >> 8);
        EXPECT_FALSE(deserializeBinary(s)) << version;
    }
    std::string badMagic = empty.s;
    badMagic[5] = 'x';
    EXPECT_FALSE(deserializeBinary(badMagic));

    // Only bit 0 means compression.
    std::string flags2 = empty.s;
    flags2[8] = 2;
    EXPECT_TRUE(deserializeBinary(flags2));
    std::string flags3 = empty.s;
    flags3[8] = 3;
    EXPECT_FALSE(deserializeBinary(flags3));
    EXPECT_TRUE(deserializeBinary(header(4, 3).s + compress(empty.s.substr(10))));
    EXPECT_FALSE(deserializeBinary(header(4, 1).s + compress(empty.s.substr(10)).substr(0, 12)));
}

TEST(CrateRead, CountsAreBoundedByTheBytesLeft) {
    // 2^32 - 1 elements declared in a 20-byte file fail at once, as do huge string counts.
    Bytes elements = header();
    elements.u32(0).u32(0xFFFFFFFF).u16(0);
    ASSERT_EQ(elements.s.size(), 20u);
    EXPECT_FALSE(deserializeBinary(elements.s));
    Bytes strings = header();
    strings.u32(0xFFFFFFFF).u32(0);
    EXPECT_FALSE(deserializeBinary(strings.s));
    Bytes length = header();
    length.u32(1).u32(0xFFFFFFF0);
    EXPECT_FALSE(deserializeBinary(length.s));

    // A value of a million Float64 with 8 bytes left; dimensions whose product overflows.
    EXPECT_FALSE(deserializeBinary(crateWithValue(Bytes().u8(11).u8(1).u32(1000000).u32(0).u32(0).s)));
    EXPECT_FALSE(deserializeBinary(
        crateWithValue(Bytes().u8(11).u8(3).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u32(0xFFFFFFFF).s)));
    EXPECT_FALSE(deserializeBinary(
        crateWithValue(Bytes().u8(12).u8(2).u32(0x10000).u32(0x10000).s)));

    // Every strict prefix of a crate without tagged sections fails.
    const Document rich = richDocument();
    Document noTags;
    for (const Element& e : rich.elements()) noTags.insert(e);
    const std::string plain = serializeBinary(noTags, false);
    ASSERT_TRUE(deserializeBinary(plain));
    for (std::size_t n = 0; n < plain.size(); ++n)
        ASSERT_FALSE(deserializeBinary(std::string_view(plain).substr(0, n))) << n;
}

TEST(CrateRead, ValueAndKeyframeRules) {
    auto scalarF32 = Bytes().u8(10).u8(0).u32(0).s;
    EXPECT_TRUE(deserializeBinary(crateWithValue(scalarF32)));
    EXPECT_FALSE(deserializeBinary(crateWithValue(Bytes().u8(14).u8(0).u8(0).s)));  // dtype 14

    for (unsigned rank : {16u, 17u}) {
        Bytes v;
        v.u8(0).u8(rank);
        for (unsigned i = 0; i < rank; ++i) v.u32(1);
        EXPECT_EQ(deserializeBinary(crateWithValue(v.u8(1).s)).has_value(), rank == 16) << rank;
    }

    // A property with one keyframe: the value record, then has-samples and the curve.
    auto keyed = [&](unsigned interp, unsigned handle) {
        std::string s = crateWithValue(scalarF32);
        Bytes k;
        k.u8(1).u32(1).f64(1.0).raw(scalarF32).u8(interp).u8(handle).u32(1).f64(0.5).f64(0.5).u32(0);
        const std::size_t at = s.find(scalarF32) + scalarF32.size();
        s.replace(at, 1, k.s);  // the has-samples byte 0 becomes the curve
        return s;
    };
    auto ok = deserializeBinary(keyed(2, 3));
    ASSERT_TRUE(ok);
    const auto& samples = ok->elements()[0].properties.at("p").samples;
    ASSERT_TRUE(samples);
    ASSERT_EQ(samples->keys.size(), 1u);
    EXPECT_EQ(samples->keys[0].interp, Interp::Bezier);
    EXPECT_EQ(samples->keys[0].handle, HandleType::Free);
    EXPECT_EQ(samples->keys[0].left, (std::vector<std::pair<double, double>>{{0.5, 0.5}}));
    EXPECT_FALSE(deserializeBinary(keyed(3, 0)));
    EXPECT_FALSE(deserializeBinary(keyed(0, 4)));

    // Keys out of order, repeated and non-finite end up as setting them one by one would leave
    // them.
    struct Key { double time; float value; unsigned interp, handle; double handleX; };
    const std::vector<Key> keys = {{2, 1, 1, 0, 0},  {1, 2, 2, 3, 0.5}, {-0.0, 3, 0, 0, 0},
                                   {2, 4, 0, 2, 1},  {std::nan(""), 5, 0, 0, 0}, {0.0, 6, 2, 1, 2}};
    Bytes curve;
    curve.u8(1).u32(static_cast<std::uint32_t>(keys.size()));
    TimeSamples want;
    for (const Key& k : keys) {
        curve.f64(k.time).u8(10).u8(0).raw(Bytes().u32(std::bit_cast<std::uint32_t>(k.value)).s);
        curve.u8(k.interp).u8(k.handle).u32(1).f64(k.handleX).f64(0).u32(0);
        want.set(k.time, Value(k.value), static_cast<Interp>(k.interp));
        want.setHandles(k.time, static_cast<HandleType>(k.handle), {{k.handleX, 0}}, {});
    }
    std::string messy = crateWithValue(scalarF32);
    messy.replace(messy.find(scalarF32) + scalarF32.size(), 1, curve.s);
    auto settled = deserializeBinary(messy);
    ASSERT_TRUE(settled);
    EXPECT_EQ(settled->elements()[0].properties.at("p").samples, want);
    EXPECT_TRUE(std::signbit(settled->elements()[0].properties.at("p").samples->keys[0].time));
}

TEST(CrateRead, ReferencesPathsAndSections) {
    // Strings: "/a", "", "/a.o", "/b.i", "bad path", "/c"
    auto crate = [](std::uint32_t typeRef, std::string_view connections, std::string_view tail) {
        Bytes b = header();
        b.u32(6).str("/a").str("").str("/a.o").str("/b.i").str("bad path").str("/c");
        bareElement(b.u32(1), 0, typeRef);
        b.raw(connections).u32(0).u32(0).raw(tail);
        return b.s;
    };
    const std::string none = Bytes().u32(0).s;
    EXPECT_TRUE(deserializeBinary(crate(5, none, "")));
    EXPECT_FALSE(deserializeBinary(crate(6, none, "")));  // reference equal to the string count

    // A wire between absent elements loads; one without properties is dropped; one whose text
    // doesn't parse fails the file.
    auto wired = deserializeBinary(crate(1, Bytes().u32(2).u32(2).u32(3).u32(0).u32(5).s, ""));
    ASSERT_TRUE(wired);
    EXPECT_EQ(wired->connections(), (std::vector<Connection>{{Path("/a.o"), Path("/b.i")}}));
    EXPECT_FALSE(deserializeBinary(crate(1, Bytes().u32(1).u32(2).u32(4).s, "")));

    // Tagged sections: any order, any number; a later reorder of a parent wins; others fail.
    const std::string reorder1 = Bytes().u8(1).u32(1).u32(0).u32(1).u32(5).s;
    const std::string reorder2 = Bytes().u8(1).u32(1).u32(2).u32(2).u32(0).u32(2).s;
    const std::string globs = Bytes().u8(2).u32(1).u32(2).u32(4).s;
    auto tagged = deserializeBinary(crate(1, none, reorder1 + globs + reorder2));
    ASSERT_TRUE(tagged);
    EXPECT_EQ(tagged->reorders(), (std::vector<Reorder>{{Path("/a"), {Path("/a"), Path("/a")}}}));
    EXPECT_EQ(tagged->globLinks(), (std::vector<GlobLink>{{Path("/a.o"), "bad path"}}));
    EXPECT_FALSE(deserializeBinary(crate(1, none, reorder1 + "\x03")));
    EXPECT_FALSE(deserializeBinary(crate(1, none, std::string(1, '\0'))));
    EXPECT_FALSE(deserializeBinary(crate(1, none, Bytes().u8(2).u32(1).u32(4).u32(2).s)));

    // Element paths: no repeat, no property part, nothing malformed.
    auto twoElements = [](std::uint32_t second) {
        Bytes b = header();
        b.u32(5).str("/a").str("").str("/a.x").str("a").str("/b");
        bareElement(bareElement(b.u32(2), 0, 1), second, 1);
        return b.u32(0).u32(0).u32(0).s;
    };
    EXPECT_TRUE(deserializeBinary(twoElements(4)));
    for (std::uint32_t bad : {0u, 1u, 2u, 3u}) EXPECT_FALSE(deserializeBinary(twoElements(bad))) << bad;
}

TEST(CrateRoundTrip, EveryValueFormAndRecord) {
    const Document doc = richDocument();
    for (bool compressed : {false, true}) {
        const std::string bytes = serializeBinary(doc, compressed);
        auto back = deserializeBinary(bytes);
        ASSERT_TRUE(back) << compressed;
        EXPECT_EQ(back->elements(), doc.elements());
        EXPECT_EQ(back->deletions(), doc.deletions());
        EXPECT_EQ(back->connectionDeletions(), doc.connectionDeletions());
        EXPECT_EQ(back->reorders(), doc.reorders());
        // Wires come back in their stored, sorted order.
        EXPECT_EQ(back->connections(), (std::vector<Connection>{{Path("/missing.x"), Path("/a.in")},
                                                                {Path("/a.out"), Path("/b.in")}}));
        EXPECT_EQ(back->globLinks().size(), 3u);
        EXPECT_EQ(back->globLinks()[0].source, Path("/"));
        EXPECT_EQ(serializeBinary(*back, compressed), bytes);
    }
}

TEST(CrateRoundTrip, WiresIntoSlotsNoPathCanSpell) {
    // Text wires the root and properties whose names hold dots, spaces or slashes; saved as a
    // crate, such a document must load again with the same wires.
    auto doc = parseZelthaText("#zeltha 4.0\nconnect x = </a.out>\ndef \"e\" {\n"
                               "    connect e.xposure = </a.out>\n    connect \"a b/c\" = </a.out>\n}\n",
                               nullptr);
    ASSERT_TRUE(doc);
    auto back = deserializeBinary(serializeBinary(*doc, true));
    ASSERT_TRUE(back);
    const Path source("/a.out");
    EXPECT_EQ(back->connections(), (std::vector<Connection>{{source, Path().appendingProperty("x")},
                                                            {source, Path("/e").appendingProperty("a b/c")},
                                                            {source, Path("/e").appendingProperty("e.xposure")}}));
}

TEST(CrateRoundTrip, NonFiniteNumbersBecomeZero) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    Document doc;
    Element e;
    e.path = Path("/n");
    e.properties["f"].value = Value(std::vector<float>{std::nanf(""), -inf, -0.0f, 1.0f});
    e.properties["d"].value = rawValue<double>(DType::Float64, {}, {-std::numeric_limits<double>::infinity()});
    e.properties["h"].value = rawValue<std::uint16_t>(DType::Float16, {}, {0x7E01});  // a half NaN survives
    TimeSamples ts;
    ts.keys.push_back(Keyframe{std::nan(""), Value(1.0f), Interp::Linear, HandleType::Auto,
                               {{std::nan(""), inf}}, {}});
    e.properties["f"].samples = ts;
    e.properties["g"].samples = TimeSamples{};  // an empty curve is no curve
    doc.insert(e);

    auto back = deserializeBinary(serializeBinary(doc, true));
    ASSERT_TRUE(back);
    const Element& n = back->elements()[0];
    EXPECT_EQ(n.properties.at("f").value,
              Value(std::vector<float>{0.0f, 0.0f, -0.0f, 1.0f}));
    EXPECT_EQ(std::signbit(n.properties.at("f").value.as<std::vector<float>>()[2]), true);
    EXPECT_EQ(n.properties.at("d").value, rawValue<double>(DType::Float64, {}, {0.0}));
    EXPECT_EQ(n.properties.at("h").value, e.properties["h"].value);
    ASSERT_TRUE(n.properties.at("f").samples);
    EXPECT_EQ(n.properties.at("f").samples->keys[0].time, 0.0);
    EXPECT_EQ(n.properties.at("f").samples->keys[0].left,
              (std::vector<std::pair<double, double>>{{0.0, 0.0}}));
    EXPECT_FALSE(n.properties.at("g").samples);
}

TEST(CrateText, TextCrateTextIsLossless) {
    const std::string text = testsupport::kExampleText;
    auto parsed = parseZelthaText(text, nullptr);
    ASSERT_TRUE(parsed);

    for (bool compressed : {false, true}) {
        const std::string crate = serializeBinary(*parsed, compressed);
        auto fromCrate = deserializeBinary(crate);
        ASSERT_TRUE(fromCrate);
        EXPECT_EQ(serialize(*fromCrate, 4), text);

        // And the other way: the crate of the text of the crate's document is the same crate.
        auto again = parseZelthaText(serialize(*fromCrate, 4), nullptr);
        ASSERT_TRUE(again);
        EXPECT_EQ(serializeBinary(*again, compressed), crate);
    }
}
