// Composition through an in-memory resolver and through files on disk.
#include <ostrevik/compose.h>
#include <ostrevik/io.h>
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

using namespace ostrevik;
namespace fs = std::filesystem;

namespace {

// Documents by name; the resolver ignores the referencing id and counts its calls.
struct Library {
    std::map<std::string, std::string> files;
    int calls = 0;
    Resolver resolver() {
        return [this](const std::string& ref, const std::string&) -> std::optional<ResolvedDoc> {
            ++calls;
            auto it = files.find(ref);
            if (it == files.end()) return std::nullopt;
            return ResolvedDoc{it->first, it->second};
        };
    }
};

Document parse(const std::string& text) {
    ParseError e;
    auto d = parseZelthaText(text, &e);
    EXPECT_TRUE(d) << e.line << ":" << e.column << " " << e.message;
    return d ? *d : Document();
}

std::vector<std::string> paths(const Document& d) {
    std::vector<std::string> out;
    for (const auto& e : d.elements()) out.push_back(e.path.str());
    return out;
}

const char* kPart =
    "#zeltha 4.0\n"
    "def part \"root\" {\n"
    "    float x = 2\n"
    "    float y = 3\n"
    "    string kind = \"lib\"\n"
    "    def \"a\" {\n"
    "        def \"b\" {\n"
    "        }\n"
    "    }\n"
    "    def \"c\" {\n"
    "        float in = 0\n"
    "        connect in = </root/a.out>\n"
    "    }\n"
    "}\n"
    "\n"
    "def \"outside\" {\n"
    "    float v = 1\n"
    "}\n";

}  // namespace

TEST(Compose, WithoutReferencesDropsLayerRecords) {
    Library lib;
    Document d = parse(
        "#zeltha 4.0\ndef \"a\" {\n    float out = 1\n}\n\ndef \"b\" {\n    connect in = </a.out>\n}\n"
        "delete \"/gone\"\ndisconnect \"/a.x\"\nconnect </a/*.y> = </a.out>\nreorder \"/a\" = []\n");
    auto c = compose(d, "self", lib.resolver());
    ASSERT_TRUE(c);
    EXPECT_EQ(paths(*c), (std::vector<std::string>{"/a", "/b"}));
    ASSERT_EQ(c->connections().size(), 1u);
    EXPECT_TRUE(c->deletions().empty());
    EXPECT_TRUE(c->connectionDeletions().empty());
    EXPECT_TRUE(c->globLinks().empty());
    EXPECT_TRUE(c->reorders().empty());
}

TEST(Compose, SingleGraftMergesHidesAndWires) {
    Library lib;
    lib.files["part"] = kPart;
    Document d = parse(
        "#zeltha 4.0\n"
        "def \"host\" {\n"
        "    float x = 9\n"
        "    reference \"part\"\n"
        "    def \"a\" {\n"
        "    }\n"
        "}\n");
    auto c = compose(d, "main", lib.resolver());
    ASSERT_TRUE(c);
    // The local /host/a hides the referenced a and its subtree; c comes in after local children.
    EXPECT_EQ(paths(*c), (std::vector<std::string>{"/host", "/host/a", "/host/c"}));
    const Element* host = c->element(Path("/host"));
    ASSERT_TRUE(host);
    EXPECT_EQ(host->type, "part");  // empty type takes the referenced root's
    EXPECT_FLOAT_EQ(host->properties.at("x").value.asFloat(), 9.f);  // local opinion stands
    EXPECT_FLOAT_EQ(host->properties.at("y").value.asFloat(), 3.f);  // filled in
    EXPECT_EQ(host->metadata.at("kind"), "lib");
    EXPECT_EQ(host->metadata.count("reference"), 0u);
    ASSERT_EQ(c->connections().size(), 1u);
    EXPECT_EQ(c->connections()[0].source.str(), "/host/a.out");
    EXPECT_EQ(c->connections()[0].target.str(), "/host/c.in");
}

TEST(Compose, ReferencePathAndLocalWireWins) {
    Library lib;
    lib.files["part"] = kPart;
    Document d = parse(
        "#zeltha 4.0\n"
        "def typed \"host\" {\n"
        "    reference \"part\" \"/root\"\n"
        "    def \"c\" {\n"
        "        connect in = </other.out>\n"
        "    }\n"
        "}\n");
    auto c = compose(d, "main", lib.resolver());
    ASSERT_TRUE(c);
    EXPECT_EQ(c->element(Path("/host"))->type, "typed");
    EXPECT_EQ(paths(*c), (std::vector<std::string>{"/host", "/host/c", "/host/a", "/host/a/b"}));
    ASSERT_EQ(c->connections().size(), 1u);
    EXPECT_EQ(c->connections()[0].source.str(), "/other.out");

    Document missing = parse("#zeltha 4.0\ndef \"h\" {\n    reference \"part\" \"/nope\"\n}\n");
    EXPECT_FALSE(compose(missing, "main", lib.resolver()));
    Document bad = parse("#zeltha 4.0\ndef \"h\" {\n    reference \"part\" \"nope\"\n}\n");
    EXPECT_FALSE(compose(bad, "main", lib.resolver()));
}

TEST(Compose, GlobGraftTakesMatchesWithSubtrees) {
    Library lib;
    lib.files["lights"] =
        "#zeltha 4.0\n"
        "def \"lights\" {\n"
        "    float all = 1\n"
        "    def \"key\" {\n"
        "        def \"bulb\" {\n"
        "            float out = 1\n"
        "        }\n"
        "    }\n"
        "    def \"fill\" {\n"
        "        connect in = </lights/key/bulb.out>\n"
        "        connect gain = </lights.out>\n"
        "    }\n"
        "}\n"
        "\n"
        "def \"other\" {\n"
        "}\n";
    Document d = parse("#zeltha 4.0\ndef \"rig\" {\n    reference \"lights\" \"/lights/*\"\n}\n");
    auto c = compose(d, "main", lib.resolver());
    ASSERT_TRUE(c);
    EXPECT_EQ(paths(*c), (std::vector<std::string>{"/rig", "/rig/key", "/rig/key/bulb", "/rig/fill"}));
    EXPECT_TRUE(c->element(Path("/rig"))->properties.empty());
    // A wire from the pattern's prefix element itself comes in mapped onto the host.
    ASSERT_EQ(c->connections().size(), 2u);
    EXPECT_EQ(c->connections()[0].target.str(), "/rig/fill.in");
    EXPECT_EQ(c->connections()[0].source.str(), "/rig/key/bulb.out");
    EXPECT_EQ(c->connections()[1].target.str(), "/rig/fill.gain");
    EXPECT_EQ(c->connections()[1].source.str(), "/rig.out");

    Document none = parse("#zeltha 4.0\ndef \"rig\" {\n    reference \"lights\" \"/nothing/*\"\n}\n");
    auto n = compose(none, "main", lib.resolver());
    ASSERT_TRUE(n);
    EXPECT_EQ(paths(*n), (std::vector<std::string>{"/rig"}));
    EXPECT_TRUE(n->element(Path("/rig"))->metadata.empty());
}

TEST(Compose, CyclesAndFailuresGiveNothing) {
    Library lib;
    lib.files["self"] = "#zeltha 4.0\ndef \"a\" {\n    reference \"self\"\n}\n";
    lib.files["x"] = "#zeltha 4.0\ndef \"a\" {\n    reference \"y\"\n}\n";
    lib.files["y"] = "#zeltha 4.0\ndef \"b\" {\n    reference \"x\"\n}\n";
    lib.files["empty"] = "#zeltha 4.0\n";
    lib.files["junk"] = "not a document";
    EXPECT_FALSE(compose(parse(lib.files["self"]), "self", lib.resolver()));
    EXPECT_FALSE(compose(parse(lib.files["x"]), "x", lib.resolver()));
    for (const char* ref : {"missing", "empty", "junk"}) {
        Document d;
        d.append(Path("/h"), "object");
        d.element(Path("/h"))->metadata["reference"] = ref;
        EXPECT_FALSE(compose(d, "main", lib.resolver())) << ref;
    }
}

TEST(Compose, SharedFileIsParsedOncePerCall) {
    Library lib;
    lib.files["leaf"] = "#zeltha 4.0\ndef \"leaf\" {\n    float v = 1\n}\n";
    Document d;
    for (int i = 0; i < 1000; ++i) {
        Path h = d.append(Path("/h" + std::to_string(i)), "").path;
        d.element(h)->metadata["reference"] = "leaf";
    }
    auto c = compose(d, "main", lib.resolver());
    ASSERT_TRUE(c);
    EXPECT_EQ(lib.calls, 1000);
    EXPECT_EQ(c->elements().size(), 1000u);
    EXPECT_EQ(c->element(Path("/h999"))->type, "");
    EXPECT_EQ(c->element(Path("/h999"))->properties.count("v"), 1u);
}

TEST(ComposeFile, RelativeReferencesAndLongChains) {
    testsupport::TempDir t;
    const fs::path& dir = t.dir;
    testsupport::writeFile(dir / "main.zeltha", "#zeltha 4.0\ndef \"top\" {\n    reference \"sub/mid.zeltha\"\n}\n");
    testsupport::writeFile(dir / "sub" / "mid.zeltha", "#zeltha 4.0\ndef \"mid\" {\n    reference \"deeper/leaf.zeltha\"\n}\n");
    testsupport::writeFile(dir / "sub" / "deeper" / "leaf.zeltha", "#zeltha 4.0\ndef \"leaf\" {\n    int depth = 2\n}\n");
    auto c = composeFile((dir / "main.zeltha").string());
    ASSERT_TRUE(c);
    EXPECT_EQ(c->element(Path("/top"))->properties.count("depth"), 1u);

    Document loaded;
    EXPECT_TRUE(loaded.loadComposed((dir / "main.zeltha").string()));
    EXPECT_EQ(loaded.elements().size(), 1u);
    EXPECT_FALSE(loaded.loadComposed((dir / "absent.zeltha").string()));
    EXPECT_EQ(loaded.elements().size(), 1u);

    // A chain of 1000 files, each referencing the next, and then a cycle at its end.
    for (int i = 0; i < 1000; ++i)
        testsupport::writeFile(dir / ("c" + std::to_string(i) + ".zeltha"),
                               "#zeltha 4.0\ndef \"n" + std::to_string(i) + "\" {\n" +
                                   (i < 999 ? "    reference \"c" + std::to_string(i + 1) + ".zeltha\"\n" : "") +
                                   "    int i = " + std::to_string(i) + "\n}\n");
    auto chain = composeFile((dir / "c0.zeltha").string());
    ASSERT_TRUE(chain);
    EXPECT_EQ(chain->elements().size(), 1u);
    testsupport::writeFile(dir / "c999.zeltha", "#zeltha 4.0\ndef \"n\" {\n    reference \"c0.zeltha\"\n}\n");
    EXPECT_FALSE(composeFile((dir / "c0.zeltha").string()));
}
