#include <gtest/gtest.h>

#include <utility>

#include "ostrevik/core.h"
#include "support/index_check.h"

using namespace ostrevik;
using ostrevik::testing::indexesConsistent;

namespace {

Element makeElement(const char* path, std::uint64_t id = 0) {
    Element e;
    e.path = Path(path);
    e.type = "object";
    e.id = id;
    return e;
}

std::vector<std::string> strs(const std::vector<Path>& paths) {
    std::vector<std::string> out;
    for (const auto& p : paths) out.push_back(p.str());
    return out;
}

std::vector<std::string> strs(const std::vector<const Element*>& elements) {
    std::vector<std::string> out;
    for (const auto* e : elements) out.push_back(e->path.str());
    return out;
}

}  // namespace

TEST(Document, CopiesShareUntilTheFirstEdit) {
    Document a;
    a.append(Path("/a"), "object").set("x", Value(1.0f));
    const Element* inA = a.element(Path("/a"));  // non-const handle: a is sole owner, no clone
    Document b = a;
    EXPECT_EQ(&std::as_const(b).elements(), &std::as_const(a).elements());

    Element* inB = b.element(Path("/a"));
    ASSERT_NE(inB, nullptr);
    EXPECT_NE(inB, inA);
    inB->properties["x"].value = Value(2.0f);
    b.append(Path("/c"), "object");

    EXPECT_EQ(std::as_const(a).element(Path("/a")), inA);
    EXPECT_EQ(inA->properties.at("x").value, Value(1.0f));
    EXPECT_EQ(a.elements().size(), 1u);
    EXPECT_EQ(b.elements().size(), 2u);
    EXPECT_TRUE(indexesConsistent(a));
    EXPECT_TRUE(indexesConsistent(b));

    // Even an absent path clones a shared representation through the mutable lookup.
    Document c = a;
    EXPECT_EQ(c.element(Path("/nothing")), nullptr);
    EXPECT_NE(&c.elements(), &a.elements());
}

TEST(Document, Reads) {
    Document d;
    d.append(Path("/a"), "group");
    d.append(Path("/a/b"), "object");
    d.append(Path("/z"), "object");
    d.append(Path("/a/c"), "object");
    EXPECT_TRUE(indexesConsistent(d));

    EXPECT_TRUE(d.has(Path("/a.x")));  // a slot is there when its element is
    EXPECT_FALSE(d.has(Path("/q.x")));
    EXPECT_EQ(std::as_const(d).element(Path("/a/b.in"))->path, Path("/a/b"));
    EXPECT_EQ(d.elementId(Path("/z")), 3u);
    EXPECT_FALSE(d.elementId(Path("/q")));
    EXPECT_EQ(d.elementById(4)->path, Path("/a/c"));
    EXPECT_EQ(d.elementById(99), nullptr);

    EXPECT_EQ(strs(d.children(Path())), (std::vector<std::string>{"/a", "/z"}));
    EXPECT_EQ(strs(d.children(Path("/a"))), (std::vector<std::string>{"/a/b", "/a/c"}));
    EXPECT_TRUE(d.children(Path("/a.x")).empty());  // a slot has no children
    EXPECT_TRUE(d.children(Path("/q")).empty());
    EXPECT_EQ(d.childPositions(Path("/q")), nullptr);
    EXPECT_EQ(*d.childPositions(Path("/a")), (std::vector<std::size_t>{1, 3}));
    EXPECT_EQ(d.child(Path("/a"), 1), Path("/a/c"));
    EXPECT_FALSE(d.child(Path("/a"), 2));
    Path exclude("/a/b");
    EXPECT_EQ(d.childNames(Path("/a"), &exclude), (std::set<std::string>{"c"}));
    EXPECT_EQ(d.childNames(Path("/a"), nullptr), (std::set<std::string>{"b", "c"}));
}

TEST(Document, AddUniquifiesAmongSiblings) {
    Document d;
    EXPECT_EQ(d.append(Path("/a/b"), "object").path, Path("/a/b"));
    EXPECT_EQ(d.append(Path("/a/b"), "object").path, Path("/a/b_1"));
    EXPECT_EQ(d.append(Path("/a/b.prop"), "object").path, Path("/a/b_2"));  // property part lost
    EXPECT_EQ(d.add(makeElement("/")), Path("/element"));
    EXPECT_EQ(d.add(makeElement("/")), Path("/element_1"));
    EXPECT_TRUE(indexesConsistent(d));
    // The parent needn't exist.
    EXPECT_FALSE(d.has(Path("/a")));
    EXPECT_EQ(strs(d.children(Path("/a"))), (std::vector<std::string>{"/a/b", "/a/b_1", "/a/b_2"}));

    d.append(Path("/x"), "o");
    d.append(Path("/x_1"), "o");
    EXPECT_EQ(d.uniqueChildPath(Path(), "x", nullptr), Path("/x_2"));
    d.append(Path("/y_1"), "o");
    EXPECT_EQ(d.uniqueChildPath(Path(), "y_1", nullptr), Path("/y_1_1"));
    Path self("/x");
    EXPECT_EQ(d.uniqueChildPath(Path(), "x", &self), Path("/x"));
    EXPECT_EQ(d.uniqueChildPath(Path("/p.q"), "", nullptr), Path("/p/element"));
}

TEST(Document, AddKeepsBroughtIdsAndHandsOutFreshOnes) {
    Document d;
    d.add(makeElement("/a"));             // 1
    d.add(makeElement("/b", 10));         // keeps 10
    d.add(makeElement("/c"));             // fresh, and never 10
    d.add(makeElement("/dup", 10));       // 10 is taken: fresh
    EXPECT_EQ(d.elementId(Path("/a")), 1u);
    EXPECT_EQ(d.elementId(Path("/b")), 10u);
    EXPECT_NE(d.elementId(Path("/c")), 10u);
    EXPECT_NE(d.elementId(Path("/dup")), 10u);
    EXPECT_TRUE(indexesConsistent(d));
}

TEST(Document, HandleSet) {
    Document d;
    ElementHandle h = d.append(Path("/a"), "object");
    h.set("x", Value(std::int64_t{5}));
    d.element(Path("/a"))->properties["x"].typeName = "int";
    h.set("x", Value(std::int64_t{6}));
    const Property& p = d.element(Path("/a"))->properties.at("x");
    EXPECT_EQ(p.value, Value(std::int64_t{6}));
    EXPECT_EQ(p.typeName, "int");  // the rest of an existing property stays

    Document copy = d;
    ElementHandle gone{&d, Path("/gone")};
    gone.set("x", Value(1.0f));  // no element: nothing happens, not even a clone
    EXPECT_EQ(&copy.elements(), &d.elements());
    ElementHandle{nullptr, Path("/a")}.set("x", Value(1.0f));
}

TEST(Document, FindByPattern) {
    Document d;
    for (const char* p : {"/a", "/a/b", "/a/b/c", "/ab", "/list/[0]", "/list/[1]"}) d.append(Path(p), "o");
    EXPECT_EQ(strs(d.find("/a/**")), (std::vector<std::string>{"/a", "/a/b", "/a/b/c"}));
    EXPECT_TRUE(d.find("/").empty());
    EXPECT_TRUE(d.find("not a pattern").empty());
    EXPECT_EQ(d.find(*PathPattern::parse("/**")).size(), 6u);
}

TEST(Document, FindIncomingPrefersConnectionsThenFirstGlob) {
    Document d;
    d.append(Path("/x"), "o");
    d.addGlobLink(Path("/g1.out"), "/*.in");
    d.addGlobLink(Path("/g2.out"), "/x.in");
    EXPECT_EQ(d.findIncoming(Path("/x.in")), Path("/g1.out"));
    EXPECT_FALSE(d.findIncoming(Path("/x.other")));
    EXPECT_FALSE(d.findIncoming(Path("/x")));  // an element path has no source
    EXPECT_FALSE(d.findIncoming(Path("/x/y.in")));

    ASSERT_TRUE(d.connect(Path("/c.out"), Path("/x.in")));
    EXPECT_EQ(d.findIncoming(Path("/x.in")), Path("/c.out"));
    EXPECT_TRUE(indexesConsistent(d));

    // Target specs are split at the first dot after the last slash.
    Document s;
    s.addGlobLink(Path("/s.o"), "/a.b/c");  // no slot name: matches nothing
    s.addGlobLink(Path("/t.o"), "/a/*");    // no slot name either
    s.addGlobLink(Path("/u.o"), "/a/*.x.y");  // slot "x.y" is no property name
    s.addGlobLink(Path("/v.o"), "/a/[*].x");
    EXPECT_EQ(s.findIncoming(Path("/a/[3].x")), Path("/v.o"));
    EXPECT_FALSE(s.findIncoming(Path("/a/b.c")));
    s.addGlobLink(Path("/w.o"), "bad-pattern.x");
    s.addGlobLink(Path("/w2.o"), "/**.x");
    EXPECT_EQ(s.findIncoming(Path("/q.x")), Path("/w2.o"));
}
