// Packages: exact bytes, the reading rules against hostile files, and what deserialize takes.
#include <ostrevik/io.h>
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using namespace ostrevik;

namespace {

Document sample() {
    Document d;
    d.append(Path("/a"), "mesh").set("size", Value(2.5f));
    d.append(Path("/a/b"), "light");
    return d;
}

AssetStore sampleAssets() {
    AssetStore s;
    s.set(Path("/a"), std::string("\0png\xff", 5), "image/png");
    s.set(Path("/a/b.x"), "", "");  // an empty asset, stored under its element
    return s;
}

// Field positions of the package written from sample() and sampleAssets() as text: the entries
// are "/a", "/a/b", "scene" (names sort bytewise).
std::uint64_t u64(const std::string& b, std::size_t at) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(b[at + i]);
    return v;
}
void setU64(std::string& b, std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) b[at + i] = static_cast<char>(v >> (8 * i));
}
// Offset field of entry `i`: records are 25 bytes plus name and media type.
std::size_t offsetField(const std::string& b, int i) {
    std::size_t at = 14;
    for (;; --i) {
        std::uint32_t name = 0, media = 0;
        std::memcpy(&name, b.data() + at, 4);
        std::memcpy(&media, b.data() + at + 4 + name + 1, 4);
        if (i == 0) return at + 4 + name + 1 + 4 + media;
        at += 25 + name + media;
    }
}

}  // namespace

TEST(Package, ExactBytes) {
    // An empty document without assets: a 44-byte head, then the text.
    const std::string empty = serializePackage(Document(), AssetStore(), true);
    EXPECT_EQ(empty, std::string("ZLTHZ\0\4\0\0\0\1\0\0\0\5\0\0\0scene\0\0\0\0\0", 28) +
                         std::string("\x2c\0\0\0\0\0\0\0\x0c\0\0\0\0\0\0\0", 16) + "#zeltha 4.0\n");
    const std::string crate = serializePackage(Document(), AssetStore(), false);
    EXPECT_EQ(crate.substr(44, 5), "ZLTHC");
    EXPECT_EQ(crate.size(), 44u + serializeBinary(Document(), false).size());

    const std::string golden = testsupport::readFile(OSTREVIK_SOURCE_DIR "/tests/data/package/sample.zelthz");
    EXPECT_EQ(serializePackage(sample(), sampleAssets(), true), golden);
    auto back = deserializePackage(golden);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->first.elements(), sample().elements());
    EXPECT_EQ(back->second, sampleAssets());
    // The one door takes the document and drops the assets; a crate inside reads the same.
    auto viaDoor = deserialize(golden, nullptr);
    ASSERT_TRUE(viaDoor);
    EXPECT_EQ(viaDoor->elements(), sample().elements());
    auto fromCrate = deserializePackage(serializePackage(sample(), sampleAssets(), false));
    ASSERT_TRUE(fromCrate);
    EXPECT_EQ(fromCrate->second, sampleAssets());
}

TEST(Package, HostileFiles) {
    const std::string good = testsupport::readFile(OSTREVIK_SOURCE_DIR "/tests/data/package/sample.zelthz");
    ASSERT_TRUE(deserializePackage(good));
    const std::size_t tableEnd = u64(good, offsetField(good, 0));
    struct Case {
        const char* what;
        std::function<void(std::string&)> edit;
        bool loads;
    };
    const Case cases[] = {
        {"version 3", [](std::string& b) { b[6] = 3; }, false},
        {"flags are not read", [](std::string& b) { b[8] = 7; }, true},
        {"count beyond what the length holds", [](std::string& b) { b[10] = 0x7f; }, false},
        {"content inside the table", [&](std::string& b) { setU64(b, offsetField(b, 0), tableEnd - 1); }, false},
        {"offset past the end", [&](std::string& b) { setU64(b, offsetField(b, 0), b.size() + 1); }, false},
        {"size overflowing 64 bits", [](std::string& b) { setU64(b, offsetField(b, 2) + 8, ~0ull); }, false},
        {"overlapping contents", [](std::string& b) { setU64(b, offsetField(b, 1), u64(b, offsetField(b, 0))); }, false},
        {"no document", [](std::string& b) { b[offsetField(b, 2) - 5] = 2; }, false},
        {"two documents", [](std::string& b) { b[offsetField(b, 0) - 5 - 9] = 1; }, false},
        {"unknown kind skipped", [](std::string& b) { b[offsetField(b, 0) - 5 - 9] = 7; }, true},
        {"asset name no path", [](std::string& b) { b[18] = 'x'; }, false},
    };
    for (const Case& c : cases) {
        std::string bytes = good;
        c.edit(bytes);
        EXPECT_EQ(deserializePackage(bytes).has_value(), c.loads) << c.what;
    }
    // A package whose document is itself a package is refused, so nesting cannot go deep.
    const std::string inner = serializePackage(Document(), AssetStore(), true);
    std::string outer = inner.substr(0, 44) + inner;
    setU64(outer, 36, inner.size());
    EXPECT_TRUE(deserializePackage(inner));
    EXPECT_FALSE(deserializePackage(outer));
    for (std::size_t n = 0; n < good.size(); ++n) EXPECT_FALSE(deserializePackage(good.substr(0, n))) << n;
    ParseError error;
    EXPECT_FALSE(deserialize(std::string("ZLTHZ\0", 6), &error));
    EXPECT_EQ(error.message, "malformed package (ZLTHZ)");
}
