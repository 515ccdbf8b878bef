#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <tuple>

#include "ostrevik/core.h"

using namespace ostrevik;

namespace {

std::uint64_t fnvReference(const std::string& s) {
    std::uint64_t h = 0x14650FB0739D0383ULL;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001B3ULL;
    return h;
}

}  // namespace

TEST(Path, GrammarRefusesMalformedTexts) {
    for (const char* text : {"", "a", "a/b", "/a/", "//", "/a//b", "/.x", "/a.", "/a.b.c", "/a.b/c", "/a-b",
                             "/a b", "/[]", "/[x]", "/[1]x", "/a.[0]", "/a\xC3\xA9", "/[1", "/1]", "/a/.x"}) {
        EXPECT_FALSE(Path::parse(text)) << text;
    }
    try {
        Path bad("/a-b");
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "ostrevik::Path: malformed path \"/a-b\"");
    }
}

TEST(Path, GrammarAcceptsAndPrints) {
    for (const char* text : {"/", "/a", "/0", "/_", "/a/b.c", "/[0]", "/[007]/b", "/[12].x", "/world/sphere",
                             "/[0]/[12].x", "/a.B_9"}) {
        auto p = Path::parse(text);
        ASSERT_TRUE(p) << text;
        EXPECT_EQ(p->str(), text);
    }
    Path p("/a/b.c");
    EXPECT_EQ(p.segments, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(p.property, "c");
    EXPECT_EQ(p.parent(), Path("/a"));
    EXPECT_EQ(p.elementPath(), Path("/a/b"));
    EXPECT_EQ(p.name(), "b");
    EXPECT_EQ(p.child("d"), Path("/a/b/d"));
    EXPECT_EQ(p.appendingProperty("z").str(), "/a/b.z");
    EXPECT_TRUE(Path("/x/[3]").leafIsAnonymous());
    EXPECT_FALSE(Path("/[3]/x").leafIsAnonymous());

    Path root("/");
    EXPECT_EQ(root, Path());
    EXPECT_FALSE(root.name());
    EXPECT_FALSE(root.parent());
    EXPECT_FALSE(root.leafIsAnonymous());
    EXPECT_EQ(root.str(), "/");
    EXPECT_EQ(root.appendingProperty("x").str(), ".x");  // exists in memory only
    EXPECT_EQ(Path("/a").parent(), Path());
    // An empty property is not an absent one.
    EXPECT_NE(Path({"a"}, std::string()), Path({"a"}, std::nullopt));
    EXPECT_EQ(Path({"a"}, std::string()).str(), "/a.");

    EXPECT_TRUE(Path::isAnonymousSegment("[0]"));
    EXPECT_FALSE(Path::isAnonymousSegment("[]"));
    EXPECT_FALSE(Path::isAnonymousSegment("[a]"));
}

TEST(Path, AncestryIsByWholeSegments) {
    const std::tuple<Path, Path, bool> cases[] = {
        {Path("/a"), Path("/a"), true},      {Path("/a"), Path("/a/b.x"), true},  {Path("/a.y"), Path("/a/b"), true},
        {Path(), Path("/q"), true},          {Path("/a/b"), Path("/a"), false},   {Path("/ab"), Path("/ab2"), false},
        {Path("/a"), Path("/ab"), false}};
    for (const auto& [a, b, is] : cases) EXPECT_EQ(a.isAncestorOf(b), is) << a.str() << " " << b.str();
}

TEST(Path, OrderIsSegmentwiseThenProperty) {
    std::vector<Path> v{Path("/a/b"), Path("/a.x"), Path("/a"), Path("/Z"), Path("/a.w"), Path("/a/b/c"), Path()};
    std::sort(v.begin(), v.end());
    std::vector<std::string> s;
    for (const auto& p : v) s.push_back(p.str());
    EXPECT_EQ(s, (std::vector<std::string>{"/", "/Z", "/a", "/a.w", "/a.x", "/a/b", "/a/b/c"}));
    // Segments compare whole, not as joined text, where '/' would sort after the byte 1.
    EXPECT_LT(Path({"a", "z"}, std::nullopt), Path({"a\x01"}, std::nullopt));
    EXPECT_LT(Path("/ab"), Path("/ab/c"));
    // Bytes compare unsigned.
    EXPECT_LT(Path({"z"}, std::nullopt), Path({"\xC3"}, std::nullopt));
    EXPECT_EQ(Path("/a.x") <=> Path("/a.x"), std::strong_ordering::equal);
}

TEST(Path, HashIsSeededFnvOverText) {
    std::hash<Path> h;
    for (const char* text : {"/", "/a", "/a/b.c", "/[0]/[12].x", "/world/sphere"})
        EXPECT_EQ(h(Path(text)), fnvReference(text)) << text;
    EXPECT_EQ(h(Path().appendingProperty("x")), fnvReference(".x"));
    EXPECT_EQ(h(Path({"a"}, std::string())), fnvReference("/a."));
}

TEST(Path, ChildByIndexAndReparenting) {
    EXPECT_EQ(Path("/p").child(std::uint64_t{3}).str(), "/p/[3]");
    EXPECT_EQ(Path().child(std::uint64_t{3}).str(), "/[3]");
    EXPECT_EQ(Path("/p.x").child(std::uint64_t{18446744073709551615ULL}).str(), "/p/[18446744073709551615]");

    const std::tuple<const char*, const char*, Path, const char*> moves[] = {
        {"/a/b.x", "/a", Path("/c/d"), "/c/d/b.x"}, {"/ab", "/a", Path("/c"), "/ab"},  {"/a", "/a", Path("/b"), "/b"},
        {"/a/b", "/", Path("/x"), "/x/a/b"},       {"/a/b", "/a", Path(), "/b"},      {"/a/b", "/a.p", Path("/c.q"), "/c/b"}};
    for (const auto& [path, from, to, moved] : moves) EXPECT_EQ(Path(path).reparented(Path(from), to).str(), moved) << path;
}

TEST(PathPattern, ParseAndPrint) {
    for (const char* text : {"a/b", "", "//", "/a//b", "/a.b", "/a-b", "/a//", "x"})
        EXPECT_FALSE(PathPattern::parse(text)) << text;
    EXPECT_EQ(PathPattern::parse("/a/")->str(), "/a");
    EXPECT_EQ(PathPattern::parse("/")->segments.size(), 0u);
    EXPECT_EQ(PathPattern::parse("/")->str(), "/");
    EXPECT_EQ(PathPattern::parse("/x/[*]/**/a*b")->str(), "/x/[*]/**/a*b");
    EXPECT_TRUE(PathPattern::parse("/[")) << "brackets need no partner";

    EXPECT_EQ(PathPattern::parse("/a/b/*/c")->prefix(), Path("/a/b"));
    EXPECT_EQ(PathPattern::parse("/**")->prefix(), Path());
    EXPECT_EQ(PathPattern::parse("/a/b")->prefix(), Path("/a/b"));
    EXPECT_FALSE(PathPattern::parse("/a/[0]")->hasWildcard());
    EXPECT_TRUE(PathPattern::parse("/a/x*")->hasWildcard());
}

TEST(PathPattern, Matching) {
    // "a**" is two stars inside one segment, not a double star.
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"/", "/", true},          {"/", "/a", false},              {"/*", "/a", true},
        {"/*", "/a/b", false},     {"/*", "/", false},              {"/**", "/", true},
        {"/a/**", "/a", true},     {"/a/**", "/a/b/c", true},       {"/a/**", "/ab", false},
        {"/a/**/c", "/a/c", true}, {"/a/**/c", "/a/x/y/c", true},   {"/a/**/c", "/a/x/y/c/d", false},
        {"/**/c/**/c", "/c/c/c/c", true}, {"/**/c/**/d", "/c/c/c/c", false},
        {"/a*c", "/abc", true},    {"/a*c", "/abd", false},         {"/*b*", "/abc", true},
        {"/a*b*c", "/aXbYbZc", true}, {"/a**", "/a/b", false},      {"/a**", "/abc", true},
        {"/[*]", "/[0]", true},    {"/[*]", "/a", false},           {"/a/b", "/a/b.x", true},
        {"/A", "/a", false}};
    for (const auto& [pattern, path, matches] : cases)
        EXPECT_EQ(PathPattern::parse(pattern)->matches(Path(path)), matches) << pattern << " " << path;
}

TEST(PathPattern, ManyDoubleStarsStayFast) {
    // A backtracking matcher would take exponential time here; the answer must still be right.
    std::string pattern;
    for (int i = 0; i < 200; ++i) pattern += "/**/a";
    pattern += "/b";
    std::vector<std::string> segs(400, "a");
    EXPECT_FALSE(PathPattern::parse(pattern)->matches(Path(segs, std::nullopt)));
    segs.push_back("b");
    EXPECT_TRUE(PathPattern::parse(pattern)->matches(Path(segs, std::nullopt)));
}
