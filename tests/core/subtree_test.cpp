// Subtrees cut out and documents pasted in, with every index checked after each operation.
#include <ostrevik/core.h>
#include "support/index_check.h"

#include <gtest/gtest.h>

using namespace ostrevik;
using ostrevik::testing::indexesConsistent;

namespace {

std::string paths(const Document& d) {
    std::string out;
    for (const Element& e : d.elements()) out += e.path.str() + " ";
    for (const Connection& c : d.connections()) out += c.source.str() + ">" + c.target.str() + " ";
    return out;
}

Document sample() {
    Document d;
    for (const char* p : {"/a", "/a/b", "/a/b/c", "/d", "/l", "/l/a", "/l/b"}) d.append(Path(p), "x");
    d.connect(Path("/a/b/c.out"), Path("/a/b.in"));
    d.connect(Path("/d.out"), Path("/a/b/c.in"));
    d.connect(Path("/d.out"), Path("/l.in"));
    d.addGlobLink(Path("/d.out"), "/l/*.gain");
    d.addGlobLink(Path("/d.out"), "/l/[.x");  // unparsable: adds nothing
    return d;
}

}  // namespace

TEST(Subtree, ExtractTakesTheSubtreeAndItsDrivers) {
    const Document d = sample();
    const std::string before = paths(d);
    Document b = d.extract(Path("/a/b.in"));
    EXPECT_EQ(paths(b), "/b /b/c /d /b/c.out>/b.in /d.out>/b/c.in ");
    EXPECT_TRUE(indexesConsistent(b));
    EXPECT_EQ(b.elementId(Path("/b")), d.elementId(Path("/a/b")));  // ids come along
    EXPECT_EQ(paths(d.extract(Path("/a"))), "/a /a/b /a/b/c /d /a/b/c.out>/a/b.in /d.out>/a/b/c.in ");
    EXPECT_TRUE(d.extract(Path("/nothing")).elements().empty());
    b.append(Path("/b/new"), "x");
    EXPECT_EQ(paths(d), before);  // nothing shared
}

TEST(Subtree, InstantiatePastesFreshInstances) {
    Document other;
    other.append(Path("/x"), "x");
    other.append(Path("/x/y"), "y");
    other.append(Path("/z"), "z");
    other.connect(Path("/x/y.out"), Path("/z.in"));
    other.connect(Path("/gone.out"), Path("/z.in2"));  // an end without element: dropped
    Document d = sample();
    EXPECT_EQ(d.instantiate(other, Path("/p")), (std::vector<Path>{Path("/p/x"), Path("/p/z")}));
    EXPECT_EQ(d.instantiate(other, Path("/p")), (std::vector<Path>{Path("/p/x_1"), Path("/p/z_1")}));
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_TRUE(d.has(Path("/p/x_1/y")));
    EXPECT_EQ(d.findIncoming(Path("/p/z_1.in")), Path("/p/x_1/y.out"));
    EXPECT_EQ(d.findIncoming(Path("/p/z.in2")), std::nullopt);
    // Ids stay unique: the copies of one element get fresh ones.
    EXPECT_NE(d.elementId(Path("/p/x")), d.elementId(Path("/p/x_1")));
}

TEST(Subtree, LinkTargets) {
    const Document d = sample();
    EXPECT_EQ(d.resolveLinkTargets(Path("/d.out")),
              (std::vector<Path>{Path("/a/b/c.in"), Path("/l.in"), Path("/l/a.gain"), Path("/l/b.gain")}));
    EXPECT_TRUE(d.resolveLinkTargets(Path("/d.other")).empty());
}
