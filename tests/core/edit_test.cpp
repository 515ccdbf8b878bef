#include <gtest/gtest.h>

#include "ostrevik/core.h"
#include "support/index_check.h"

using namespace ostrevik;
using ostrevik::testing::indexesConsistent;

namespace {

Document tree(std::initializer_list<const char*> paths) {
    Document d;
    for (const char* p : paths) d.append(Path(p), "object");
    return d;
}

std::vector<std::string> elementPaths(const Document& d) {
    std::vector<std::string> out;
    for (const auto& e : d.elements()) out.push_back(e.path.str());
    return out;
}

std::vector<std::string> wires(const Document& d) {
    std::vector<std::string> out;
    for (const auto& c : d.connections()) out.push_back(c.source.str() + ">" + c.target.str());
    return out;
}

}  // namespace

TEST(Edit, InsertTakesPathsAsTheyAre) {
    Document d;
    Element e;
    e.path = Path("/a");
    e.type = "first";
    d.insert(e);
    e.type = "second";
    d.insert(e);  // same path: stands beside the first, and the later one is found
    EXPECT_EQ(d.elements().size(), 2u);
    EXPECT_EQ(d.element(Path("/a"))->type, "second");
    EXPECT_TRUE(indexesConsistent(d));

    Element root;  // an element on the root path has no parent list
    d.insert(root);
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(d.children(Path()).size(), 2u);
}

TEST(Edit, InsertAllIndexesAsInsertWould) {
    // Enough elements to regrow the tables, into an empty document and onto one, then a
    // repeated path, which the later element wins.
    std::vector<Element> batch;
    for (int i = 0; i < 40; ++i) {
        std::string group = "/g";
        group += std::to_string(i % 5);
        std::string child = "c";
        child += std::to_string(i);
        Element e;
        e.path = Path(group).child(child);
        e.id = i == 7 ? 3 : 0;  // an id that an earlier element is handed
        batch.push_back(e);
    }
    Document fresh;
    EXPECT_TRUE(fresh.insertAll(batch));
    Document appended = tree({"/g1"});
    EXPECT_TRUE(appended.insertAll(batch));
    for (const Document* d : {&fresh, &appended}) {
        EXPECT_TRUE(indexesConsistent(*d));
        EXPECT_EQ(d->children(Path("/g2")).size(), 8u);
    }
    EXPECT_FALSE(fresh.has(Path("/g1")));
    EXPECT_EQ(appended.element(Path("/g1.x"))->path, Path("/g1"));

    batch.push_back(batch[3]);
    batch.back().type = "later";
    Document twice;
    EXPECT_FALSE(twice.insertAll(batch));
    EXPECT_EQ(twice.element(batch[3].path)->type, "later");
    EXPECT_TRUE(indexesConsistent(twice));
}

TEST(Edit, InsertAllFindsParentsInAnyOrder) {
    // Document order, then what breaks it: a child before its parent, a parent's children
    // split by a cousin's subtree, a depth skipped, a root element, a parent on its path twice.
    const char* order[] = {"/a", "/a/b", "/a/b/c", "/a/d", "/x/y/z", "/e/f", "/e", "/a/b/g", "/e/h",
                           "/",  "/k",   "/a",     "/a/m", "/a/b/c/q", "/a/b/c/r"};
    std::vector<Element> batch;
    for (const char* p : order) {
        Element e;
        e.path = Path(p);
        batch.push_back(e);
    }
    Document d;
    EXPECT_FALSE(d.insertAll(batch));  // "/a" twice
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(d.children(Path("/a")), (std::vector<Path>{Path("/a/b"), Path("/a/d"), Path("/a/m")}));
    EXPECT_EQ(d.children(Path("/a/b")), (std::vector<Path>{Path("/a/b/c"), Path("/a/b/g")}));
}

TEST(Edit, AddChildTakesTheNextFreeNumber) {
    Document d = tree({"/p"});
    EXPECT_EQ(d.addChild(Path("/p"), "item"), Path("/p/[0]"));
    EXPECT_EQ(d.addChild(Path("/p"), "item"), Path("/p/[1]"));
    EXPECT_EQ(d.element(Path("/p/[1]"))->type, "item");
    d.remove(Path("/p/[0]"));
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(d.addChild(Path("/p"), "item"), Path("/p/[2]"));
    EXPECT_EQ(d.addChild(Path(), "top"), Path("/[1]"));  // the root already lists /p
    EXPECT_TRUE(indexesConsistent(d));
}

TEST(Edit, RemoveTakesSubtreeAndWires) {
    Document d = tree({"/a", "/a/b", "/ab", "/c", "/a/b/d"});
    d.connect(Path("/a/b.out"), Path("/c.in"));
    d.connect(Path("/c.out"), Path("/a.in"));
    d.connect(Path("/ab.out"), Path("/c.x"));
    d.addGlobLink(Path("/a.out"), "/c.y");
    d.addGlobLink(Path("/c.out"), "/a/*.y");
    d.addDeletion(Path("/a"));
    const std::uint64_t cId = *d.elementId(Path("/c"));

    d.remove(Path("/a.some"));  // a slot removes its whole element
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(elementPaths(d), (std::vector<std::string>{"/ab", "/c"}));
    EXPECT_EQ(wires(d), (std::vector<std::string>{"/ab.out>/c.x"}));
    ASSERT_EQ(d.globLinks().size(), 1u);
    EXPECT_EQ(d.globLinks()[0].source, Path("/c.out"));
    EXPECT_FALSE(d.findIncoming(Path("/c.in")));
    EXPECT_EQ(d.elementId(Path("/c")), cId);
    EXPECT_EQ(d.deletions().size(), 1u);  // records are not touched

    d.remove(Path("/nothing"));
    EXPECT_EQ(elementPaths(d), (std::vector<std::string>{"/ab", "/c"}));
    EXPECT_TRUE(indexesConsistent(d));

    d.remove(Path());
    EXPECT_TRUE(d.elements().empty());
    EXPECT_TRUE(d.connections().empty());
    EXPECT_TRUE(d.globLinks().empty());
    EXPECT_TRUE(indexesConsistent(d));
    // Ids are not reused after removal.
    EXPECT_GT(*d.elementId(d.append(Path("/n"), "o").path), cId);
}

TEST(Edit, RenameMovesSubtreeInPlace) {
    Document d = tree({"/a", "/a/x", "/b", "/z"});
    d.connect(Path("/a/x.out"), Path("/b.in"));
    d.addGlobLink(Path("/a.out"), "/a/*.in");
    const auto idA = d.elementId(Path("/a"));

    EXPECT_EQ(d.rename(Path("/a"), Path("/b")), Path("/b_1"));  // clash uniquifies
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(elementPaths(d), (std::vector<std::string>{"/b_1", "/b_1/x", "/b", "/z"}));
    EXPECT_EQ(wires(d), (std::vector<std::string>{"/b_1/x.out>/b.in"}));
    EXPECT_EQ(d.globLinks()[0].source, Path("/b_1.out"));
    EXPECT_EQ(d.globLinks()[0].targetSpec, "/a/*.in");  // specs stay
    EXPECT_EQ(d.elementId(Path("/b_1")), idA);

    EXPECT_EQ(d.rename(Path("/b_1"), Path("/z/a.ignored")), Path("/z/a"));
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(elementPaths(d), (std::vector<std::string>{"/z/a", "/z/a/x", "/b", "/z"}));
    std::vector<Path> top = d.children(Path());
    EXPECT_EQ(top, (std::vector<Path>{Path("/b"), Path("/z")}));
    EXPECT_EQ(d.children(Path("/z")), (std::vector<Path>{Path("/z/a")}));
    EXPECT_EQ(d.findIncoming(Path("/b.in")), Path("/z/a/x.out"));

    // No-ops.
    EXPECT_EQ(d.rename(Path("/z/a.p"), Path("/z/a/b")), Path("/z/a.p"));
    EXPECT_EQ(d.rename(Path("/z/a"), Path("/z/a/b/c")), Path("/z/a"));
    EXPECT_EQ(d.rename(Path("/missing.p"), Path("/q")), Path("/missing.p"));
    EXPECT_EQ(d.rename(Path("/z/a.p"), Path("/z/a")), Path("/z/a"));
    EXPECT_EQ(elementPaths(d), (std::vector<std::string>{"/z/a", "/z/a/x", "/b", "/z"}));
    EXPECT_EQ(d.elementId(Path("/z/a")), idA);

    // A moved wire landing on a slot that a dangling wire drives: one source per target, the later.
    Document w = tree({"/m"});
    w.connect(Path("/m.out"), Path("/m.in"));
    w.connect(Path("/s.out"), Path("/n.in"));
    EXPECT_EQ(w.rename(Path("/m"), Path("/n")), Path("/n"));
    EXPECT_EQ(wires(w), (std::vector<std::string>{"/s.out>/n.in"}));
    EXPECT_TRUE(indexesConsistent(w));

    // Ancestry is by whole segments, and the root name is "element".
    Document e = tree({"/a"});
    EXPECT_EQ(e.rename(Path("/a"), Path("/ab")), Path("/ab"));
    EXPECT_EQ(e.rename(Path("/ab"), Path()), Path("/element"));
    EXPECT_TRUE(indexesConsistent(e));
}

TEST(Edit, ConnectAndDisconnect) {
    Document d;
    EXPECT_FALSE(d.connect(Path("/a"), Path("/b.in")));
    EXPECT_FALSE(d.connect(Path("/a.out"), Path("/b")));
    EXPECT_TRUE(d.connect(Path("/a.out"), Path("/b.in")));  // ends needn't exist
    EXPECT_TRUE(d.connect(Path("/c.out"), Path("/d.in")));
    EXPECT_TRUE(d.connect(Path("/e.out"), Path("/b.in")));  // replaces, moving to the end
    EXPECT_EQ(wires(d), (std::vector<std::string>{"/c.out>/d.in", "/e.out>/b.in"}));
    EXPECT_TRUE(indexesConsistent(d));

    EXPECT_TRUE(d.disconnect(Path("/b.in")));
    EXPECT_FALSE(d.disconnect(Path("/b.in")));
    EXPECT_FALSE(d.findIncoming(Path("/b.in")));
    EXPECT_TRUE(indexesConsistent(d));

    d.addGlobLink(Path("/g.out"), "/*.in");
    EXPECT_FALSE(d.disconnect(Path("/x.in")));  // glob links are not consulted
    EXPECT_EQ(d.findIncoming(Path("/x.in")), Path("/g.out"));
}

TEST(Edit, PruneDanglingConnections) {
    Document d = tree({"/a", "/b"});
    d.connect(Path("/a.out"), Path("/b.in"));
    d.connect(Path("/gone.out"), Path("/b.x"));
    d.connect(Path("/a.out"), Path("/gone.in"));
    d.addGlobLink(Path("/gone.out"), "/*.y");
    d.addGlobLink(Path("/a.out"), "/*.z");
    EXPECT_EQ(d.pruneDanglingConnections(), 2u);
    EXPECT_EQ(wires(d), (std::vector<std::string>{"/a.out>/b.in"}));
    ASSERT_EQ(d.globLinks().size(), 1u);
    EXPECT_EQ(d.globLinks()[0].source, Path("/a.out"));
    EXPECT_FALSE(d.findIncoming(Path("/b.x")));
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(d.pruneDanglingConnections(), 0u);
}

TEST(Edit, UniqueName) {
    EXPECT_EQ(Document::uniqueName("x", {}), "x");
    EXPECT_EQ(Document::uniqueName("x", {"x", "x_1"}), "x_2");
    EXPECT_EQ(Document::uniqueName("", {"element"}), "element_1");
    EXPECT_EQ(Document::uniqueName("x_1", {"x_1"}), "x_1_1");
}

TEST(Edit, RecordsStaySortedAndUnique) {
    Document d;
    d.addDeletion(Path("/b"));
    d.addDeletion(Path("/a.x"));
    d.addDeletion(Path("/a"));
    d.addDeletion(Path("/a/c"));
    EXPECT_EQ(d.deletions(), (std::vector<Path>{Path("/a"), Path("/a/c"), Path("/b")}));

    d.addConnectionDeletion(Path("/b.in"));
    d.addConnectionDeletion(Path("/a.x"));
    d.addConnectionDeletion(Path("/a.x"));
    d.addConnectionDeletion(Path("/a"));
    EXPECT_EQ(d.connectionDeletions(), (std::vector<Path>{Path("/a"), Path("/a.x"), Path("/b.in")}));

    d.addReorder(Path("/p"), {Path("/p/b"), Path("/p/a")});
    d.addReorder(Path("/"), {Path("/p")});
    d.addReorder(Path("/p.x"), {Path("/p/a"), Path("/p/b")});
    ASSERT_EQ(d.reorders().size(), 2u);
    EXPECT_EQ(d.reorders()[0].parent, Path());
    EXPECT_EQ(d.reorders()[1].parent, Path("/p"));
    EXPECT_EQ(d.reorders()[1].order, (std::vector<Path>{Path("/p/a"), Path("/p/b")}));

    d.addGlobLink(Path("/s.o"), "/*.i");
    d.addGlobLink(Path("/s.o"), "/*.i");
    EXPECT_EQ(d.globLinks().size(), 2u);
    EXPECT_TRUE(d.elements().empty());
    EXPECT_TRUE(d.connections().empty());
}

TEST(Edit, LargeDocumentStaysConsistent) {
    // Mixed edits on a deeper tree; the brute-force check guards the cached reindex.
    Document d;
    for (int i = 0; i < 30; ++i) {
        std::string name = "g";
        name += std::to_string(i % 7);
        Path group = d.append(Path().child(name), "group").path;
        for (int j = 0; j < 4; ++j) {
            Path child = d.addChild(group, "item");
            d.append(child.child("leaf"), "leaf");
            std::string slot = "in";
            slot += std::to_string(j);
            d.connect(child.appendingProperty("out"), group.appendingProperty(slot));
        }
    }
    EXPECT_TRUE(indexesConsistent(d));
    d.remove(Path("/g3_1"));
    EXPECT_TRUE(indexesConsistent(d));
    d.rename(Path("/g2"), Path("/g5/inner"));
    EXPECT_TRUE(indexesConsistent(d));
    d.rename(Path("/g0_2/[1]"), Path("/g4"));
    EXPECT_TRUE(indexesConsistent(d));
    d.remove(Path("/g5"));
    EXPECT_TRUE(indexesConsistent(d));
    EXPECT_EQ(d.pruneDanglingConnections(), 0u);
}
