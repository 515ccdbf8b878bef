// The asset store: keys by element path, subtree removal and reparenting in path order.
#include <ostrevik/core.h>

#include <gtest/gtest.h>

using namespace ostrevik;

namespace {

std::string keys(const AssetStore& s) {
    std::string out;
    for (const auto& [path, asset] : s.assets) out += path.str() + "=" + asset.bytes + " ";
    return out;
}

}  // namespace

TEST(AssetStore, KeysAreElementPaths) {
    AssetStore s;
    EXPECT_EQ(s.get(Path("/a")), nullptr);
    s.set(Path("/a.x"), std::string("1\0", 2), "one");
    s.set(Path("/a"), std::string("2\0", 2), "two");
    ASSERT_NE(s.get(Path("/a.y")), nullptr);
    EXPECT_EQ(*s.get(Path("/a.y")), (Asset{"two", std::string("2\0", 2)}));
    s.erase(Path("/a.z"));
    EXPECT_TRUE(s.assets.empty());
}

TEST(AssetStore, SubtreesMoveAndGo) {
    AssetStore s;
    for (const char* p : {"/a", "/a/b", "/ab", "/d", "/z/b"}) s.set(Path(p), p + 1, "");
    s.removeSubtree(Path("/a/b"));
    EXPECT_EQ(keys(s), "/a=a /ab=ab /d=d /z/b=z/b ");
    s.set(Path("/a/b"), "a/b", "");
    s.reparent(Path("/a"), Path("/z"));  // /a/b lands on /z/b, which comes later and stays
    EXPECT_EQ(keys(s), "/ab=ab /d=d /z=a /z/b=z/b ");
    s.removeSubtree(Path());
    EXPECT_TRUE(s.assets.empty());
}
