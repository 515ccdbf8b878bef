// The text parser: the header, every message with its position, the limits, the values it takes,
// and round trips through the writer.
#include <ostrevik/io.h>
#include "support/example_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace ostrevik;

namespace {

std::optional<Document> parse(const std::string& body, ParseError* error = nullptr) {
    return parseZelthaText("#zeltha 4.0\n" + body, error);
}

const Property* property(const Document& doc, const char* element, const char* name) {
    const Element* e = doc.element(Path(element));
    if (!e) return nullptr;
    auto it = e->properties.find(name);
    return it == e->properties.end() ? nullptr : &it->second;
}

// The value of /e.v after reading `statement` inside "def "e" { ... }".
std::optional<Value> valueOf(const std::string& statement) {
    auto doc = parse("def \"e\" {\n" + statement + "\n}\n");
    if (!doc) return std::nullopt;
    const Property* p = property(*doc, "/e", "v");
    if (!p) return std::nullopt;
    return p->value;
}

// Reading the text and writing it again gives the same bytes.
void expectFixedPoint(const std::string& body) {
    ParseError error;
    auto doc = parse(body, &error);
    ASSERT_TRUE(doc) << error.line << ":" << error.column << " " << error.message << "\n" << body;
    EXPECT_EQ(serialize(*doc, 4), "#zeltha 4.0\n" + body);
}

}  // namespace

TEST(TextParse, Header) {
    for (const char* text : {"", " \n\t\r ", "# comment\n#zeltha 4.0\n", "#zeltha 4.0x\n", "#zeltha 5.0\n",
                             "#zeltha 4\n", "#zeltha 4.00\n", "#zeltha", "#zeltha  \t", "#zelth 4.0\n"}) {
        ParseError error;
        EXPECT_FALSE(parseZelthaText(text, &error)) << text;
        EXPECT_EQ(error.message, "missing or unsupported '#zeltha <version>' header") << text;
        EXPECT_EQ(error.line, 1u);
        EXPECT_EQ(error.column, 1u);
    }
    for (const char* text : {"#zeltha 4.0", "#zeltha 2.0 anything at all\n", "#zeltha4.0\n", "#zeltha 1.0\t\n",
                             "#zeltha 3.0\r\n"}) {
        auto doc = parseZelthaText(text, nullptr);
        ASSERT_TRUE(doc) << text;
        EXPECT_TRUE(doc->elements().empty());
    }
    ParseError error;
    EXPECT_FALSE(parseZelthaText("\n\n  #zeltha 4.0\ndef {\n", &error));
    EXPECT_EQ(error.message, "syntax error");
    EXPECT_EQ(error.line, 4u);
    EXPECT_EQ(error.column, 6u);
    EXPECT_FALSE(parseZelthaText("#zeltha 4.0\n", nullptr) == std::nullopt);
}

TEST(TextParse, MessagesAndPositions) {
    struct Case {
        const char* body;
        unsigned line;
        unsigned column;
        const char* message;
    };
    const Case cases[] = {
        {"foo", 2, 1, "expected 'def', 'over', or 'delete' at the top level"},
        {"def {\n}\n\n}", 3, 2, "expected 'def', 'over', or 'delete' at the top level"},
        {"def {\n}\n*", 3, 2, "malformed token"},
        {"def {", 2, 6, "syntax error"},
        {"def", 2, 4, "expected an element type, a quoted name, or '{'"},
        {"def \"abc", 2, 9, "expected an element type, a quoted name, or '{'"},
        {"def x 1 {", 2, 8, "expected a quoted element name or '{' after the element type"},
        {"def x \"y\" z {", 2, 12, "expected '{' to open the element body"},
        {"def \"a-b\" x {", 2, 12, "expected '{' to open the element body"},
        {"def t \"a b\" {}", 2, 14, "invalid element name"},
        {"def \"x\" {}\ndef \"x\" {}", 3, 10, "duplicate element path"},
        {"def {\n def \"a\" {}\n def \"a\" {}\n}", 4, 11, "duplicate element path"},
        // The repeated path comes before a later fault, and an unnamed block takes its place.
        {"def \"x\" {}\ndef \"x\" {\n def {\n}\nfoo", 3, 10, "duplicate element path"},
        {"def x \"[1]\" {}\ndef {}", 3, 6, "duplicate element path"},
        {"delete /a", 2, 8, "expected a quoted path after 'delete'"},
        {"delete \"a\"", 2, 11, "invalid path in 'delete'"},
        {"disconnect x", 2, 13, "expected a quoted target slot after 'disconnect'"},
        {"disconnect \"x\"", 2, 15, "invalid path in 'disconnect'"},
        {"reorder x", 2, 10, "expected a quoted parent path after 'reorder'"},
        {"reorder \"x\"", 2, 12, "invalid parent path in 'reorder'"},
        {"reorder \"/a\" [", 2, 15, "expected '=' after the reorder parent"},
        {"reorder \"/a\" = (", 2, 17, "expected '[' to open the reorder child list"},
        {"reorder \"/a\" = [ 1 ]", 2, 19, "expected a quoted child path in 'reorder'"},
        {"reorder \"/a\" = [ \"b\" ]", 2, 21, "invalid child path in 'reorder'"},
        {"connect 1 = </a.b>", 2, 10, "expected a slot name or <path> after 'connect'"},
        {"connect <a> = </b.c>", 2, 12, "invalid connect target path"},
        {"connect x </a.b>", 2, 17, "expected '=' in a connect directive"},
        {"connect x = \"a\"", 2, 16, "expected a <source> path in a connect directive"},
        {"connect x = <a.b>", 2, 18, "invalid connect source path"},
        {"def {\n unset 1\n}", 3, 9, "expected a name after 'unset'"},
        {"def {\n unset string }", 3, 16, "expected a name after 'unset'"},
        {"def {\n string 1 = \"x\"\n}", 3, 10, "expected a metadata key"},
        {"def {\n string k \"x\"\n}", 3, 14, "expected '=' after the property name"},
        {"def {\n string k = 1\n}", 3, 14, "syntax error"},
        {"def {\n float 1 = 2\n}", 3, 9, "expected a property name"},
        {"def {\n  foo = 1\n}", 3, 8, "unknown type or untyped property"},
        {"def {\n  foo bar = 1\n}", 3, 10, "expected '=' after the property name"},
        {"def {\n  float a.timeSamples.b = 1\n}", 3, 23, "expected '=' after the property name"},
        {"def {\n  color3f c = (1, 0, 0)\n}", 3, 16, "invalid value for its declared type"},
        {"def {\n  float x = 12eb\n}", 3, 16, "invalid value for its declared type"},
        {"def {\n  float x.timeSamples = { 0: 1 (interp = 2) }\n}", 3, 43, "syntax error"},
        {"def {\n  float x.timeSamples = { 0: 1 (interp 2) }\n}", 3, 41, "expected '=' after the property name"},
        {"def {\n  float x.timeSamples = { 0: true }\n}", 3, 34, "invalid value for its declared type"},
        {"def {\n  float x.timeSamples = 1\n}", 3, 26, "syntax error"},
        {"def {\n  float[2] x = [1, 2]\n}", 3, 10, "syntax error"},
        {"def {\n  bool[] b = [true]\n}", 3, 9, "syntax error"},
        {"def {\n  uint8[300000000] x = []\n}", 3, 18, "syntax error"},
        {"def {\n  1 = 2\n}", 2, 6, "syntax error"},
    };
    for (const Case& c : cases) {
        ParseError error;
        EXPECT_FALSE(parse(c.body, &error)) << c.body;
        EXPECT_EQ(error.message, c.message) << c.body;
        EXPECT_EQ(error.line, c.line) << c.body;
        EXPECT_EQ(error.column, c.column) << c.body;
    }
}

TEST(TextParse, DeepNestingReadsBackButShortTextCannotAskForQuadraticMemory) {
    auto nested = [](int levels) {
        std::string text;
        for (int i = 0; i < levels; ++i) text += "def {\n";
        for (int i = 0; i < levels; ++i) text += "}\n";
        return text;
    };
    // Far deeper than any stack would take by recursion; the writer's text reads back.
    auto doc = parse(nested(1000));
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->elements().size(), 1000u);
    EXPECT_EQ(doc->elements().back().path.segments.size(), 1000u);
    const std::string written = serialize(*doc, 4);
    auto again = parseZelthaText(written, nullptr);
    ASSERT_TRUE(again);
    EXPECT_EQ(serialize(*again, 4), written);

    ParseError error;
    EXPECT_FALSE(parse(nested(20000), &error));
    EXPECT_EQ(error.message, "element nesting too deep");
    EXPECT_GT(error.line, 1000u);
}

TEST(TextParse, ElementHeads) {
    auto doc = parse(
        "def {\n def \"x\" {}\n def {}\n}\n"
        "over t {}\n"
        "def \"a-b\" {}\n"
        "def \"name\" {}\n"
        "def \"my type\" \"n2\" {}\n"
        "def t \"[9]\" {}\n");
    ASSERT_TRUE(doc);
    const auto& es = doc->elements();
    ASSERT_EQ(es.size(), 8u);
    EXPECT_EQ(es[0].path.str(), "/[0]");
    EXPECT_EQ(es[1].path.str(), "/[0]/x");
    EXPECT_EQ(es[2].path.str(), "/[0]/[1]");  // numbered by its place among its siblings
    EXPECT_EQ(es[3].path.str(), "/[1]");
    EXPECT_EQ(es[3].type, "t");
    EXPECT_EQ(es[3].specifier, Specifier::Over);
    EXPECT_EQ(es[4].path.str(), "/[2]");
    EXPECT_EQ(es[4].type, "a-b");
    EXPECT_EQ(es[5].path.str(), "/name");
    EXPECT_EQ(es[5].type, "");
    EXPECT_EQ(es[6].path.str(), "/n2");
    EXPECT_EQ(es[6].type, "my type");
    EXPECT_EQ(es[7].path.str(), "/[9]");
}

TEST(TextParse, ValueForms) {
    EXPECT_EQ(valueOf("float v = 1e999"), Value(0.0f));
    EXPECT_EQ(valueOf("float v = +5."), Value(5.0f));
    EXPECT_EQ(valueOf("float v = -.5"), Value(-0.5f));
    EXPECT_EQ(valueOf("int v = 1.5"), Value(std::int64_t{1}));
    EXPECT_EQ(valueOf("int v = 1e3"), Value(std::int64_t{1}));
    EXPECT_EQ(valueOf("int v = 99999999999999999999"), Value(std::int64_t{9223372036854775807}));
    EXPECT_EQ(valueOf("uint8 v = 300")->data, std::vector<std::uint8_t>{44});
    EXPECT_EQ(valueOf("uint16 v = -1")->data, (std::vector<std::uint8_t>{0xFF, 0xFF}));
    EXPECT_EQ(valueOf("float16 v = 1")->data, (std::vector<std::uint8_t>{0x00, 0x3C}));
    EXPECT_EQ(valueOf("char v = '\\n'")->data, std::vector<std::uint8_t>{'\n'});
    EXPECT_EQ(valueOf("float2 v = (1, 2,)"), Value(std::array<float, 2>{1, 2}));
    EXPECT_EQ(valueOf("float[] v = [1, 2,]"), Value(std::vector<float>{1, 2}));
    EXPECT_FALSE(valueOf("float[] v = [1 2]"));
    EXPECT_EQ(valueOf("float32[] v = [1 2]"), Value(std::vector<float>{1, 2}));
    EXPECT_EQ(valueOf("float32 v = 1.5"), Value(1.5f));
    EXPECT_EQ(valueOf("int64 v = 3"), Value(std::int64_t{3}));
    EXPECT_EQ(valueOf("float2[] v = [(1, 2), (3, 4),]"), Value(std::vector<std::array<float, 2>>{{1, 2}, {3, 4}}));
    EXPECT_EQ(valueOf("int[] v = []"), Value(std::vector<std::int64_t>{}));
    EXPECT_FALSE(valueOf("matrix v = (1, 2, 3)"));

    auto m = valueOf("int32[2,2] v = [[1, 2], [3, 4],]");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->dtype, DType::Int32);
    EXPECT_EQ(m->shape, (std::vector<std::uint32_t>{2, 2}));
    EXPECT_EQ(m->data.size(), 16u);
    EXPECT_FALSE(valueOf("int32[2,2] v = [1, 2, 3, 4]"));
    auto b = valueOf("bool[2] v = [true, false]");
    ASSERT_TRUE(b);
    EXPECT_EQ(b->dtype, DType::Bool);
    EXPECT_EQ(b->data, (std::vector<std::uint8_t>{1, 0}));

    auto s = valueOf("str[] v = [\"a\" \"b\"]");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->shape, std::vector<std::uint32_t>{2});
    EXPECT_EQ(s->strings, (std::vector<std::string>{"a", "b"}));
    // A declared shape stands; the strings are fitted to it.
    EXPECT_EQ(valueOf("str[3] v = [\"a\"]")->strings, (std::vector<std::string>{"a", "", ""}));
    EXPECT_EQ(valueOf("str[1] v = [\"a\", \"b\"]")->strings, std::vector<std::string>{"a"});
    EXPECT_EQ(valueOf("str[2,2] v = [[\"a\", \"b\"], [\"c\", \"d\"]]")->strings,
              (std::vector<std::string>{"a", "b", "c", "d"}));
    // No elements after a zero dimension, however large the next one.
    EXPECT_EQ(valueOf("int32[0,4000000000] v = []")->shape, (std::vector<std::uint32_t>{0, 4000000000u}));

    auto doc = parse("def \"e\" {\n color3f c = [1, 0, 0]\n float3 p = (1, 0, 0)\n}\n");
    ASSERT_TRUE(doc);
    EXPECT_EQ(property(*doc, "/e", "c")->typeName, "color3f");
    EXPECT_EQ(property(*doc, "/e", "c")->value, property(*doc, "/e", "p")->value);
    EXPECT_EQ(property(*doc, "/e", "p")->typeName, "");
}

// Doubles read as the C library reads them, at the edges of the short forms and beyond them.
TEST(TextParse, DoublesMatchTheCLibrary) {
    const char* forms[] = {
        "0", "-0", "0.1", "-0.3", "1e22", "1e23", "1e-22", "1e-23", "9007199254740992",
        "9007199254740993", "123456789012345678", "1234567890123456789", "12345678901234567890",
        "0.000000000000000000001", "4.9406564584124654e-324", "1.7976931348623157e308",
        "2.2250738585072011e-308", "130.73442731584822", "-813.281006", "+5.", "-.5", "1E+5",
        "0.1e1", "100e-2", "3.14159265358979323846264338327950288", "1e0000000000000000000001",
    };
    for (const char* form : forms) {
        auto v = valueOf(std::string("float64 v = ") + form);
        ASSERT_TRUE(v) << form;
        double expected = std::strtod(form, nullptr);
        if (!std::isfinite(expected)) expected = 0;
        double got = 0;
        std::memcpy(&got, v->data.data(), sizeof got);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << form << " read as " << got;
    }

    // Random digit strings with a point and an exponent, all in one array.
    std::uint64_t state = 7;
    auto next = [&state] {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return state >> 33;
    };
    std::string list;
    std::vector<std::string> texts;
    for (int i = 0; i < 2000; ++i) {
        std::string t = next() % 2 ? "-" : "";
        const int digits = 1 + static_cast<int>(next() % 20);
        for (int d = 0; d < digits; ++d) t += static_cast<char>('0' + next() % 10);
        if (next() % 2) t.insert(t.end() - static_cast<std::ptrdiff_t>(next() % digits), '.');
        if (next() % 3 == 0) {
            t += 'e';
            t += std::to_string(static_cast<int>(next() % 60) - 30);
        }
        if (i) list += ", ";
        list += t;
        texts.push_back(t);
    }
    auto v = valueOf("float64[] v = [" + list + "]");
    ASSERT_TRUE(v);
    ASSERT_EQ(v->data.size(), texts.size() * sizeof(double));
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const double expected = std::strtod(texts[i].c_str(), nullptr);
        EXPECT_EQ(std::memcmp(v->data.data() + i * sizeof(double), &expected, sizeof expected), 0) << texts[i];
    }
}

TEST(TextParse, StatementsOfABody) {
    auto doc = parse(
        "def \"e\" {\n"
        "  float a.b.c = 1\n"
        "  float x = 1\n"
        "  float x = 2 # the last wins\n"
        "  string k = \"one\"\n"
        "  string \"k\" = \"two\"\n"
        "  reference \"lib.zeltha\"\n"
        "  float reference = 3\n"
        "  unset \"q r\"\n"
        "  unset string\n"
        "  unset string string\n"
        "  connect in = </later.out>\n"
        "  connect </e.other> = </later.out2>\n"
        "  delete \"/gone/x.y\"\n"
        "  disconnect \"/e.in2\"\n"
        "}\n"
        "def \"later\" {}\n"
        "connect top = </later.out>\n"
        "connect </a/*.in> = </later.out>\n"
        "reorder \"/e\" = [\"/e/b\" \"/e/a.x\"]\n");
    ASSERT_TRUE(doc);
    const Element* e = doc->element(Path("/e"));
    ASSERT_TRUE(e);
    EXPECT_TRUE(e->properties.count("a.b.c"));
    EXPECT_EQ(e->properties.at("x").value, Value(2.0f));
    EXPECT_EQ(e->properties.at("reference").value, Value(3.0f));
    EXPECT_EQ(e->metadata.at("k"), "two");
    EXPECT_EQ(e->metadata.at("reference"), "lib.zeltha");
    EXPECT_EQ(e->unsetProperties, (std::set<std::string>{"q r", "string"}));
    EXPECT_EQ(e->unsetMetadata, std::set<std::string>{"string"});
    ASSERT_EQ(doc->connections().size(), 3u);
    EXPECT_EQ(doc->connections()[0].target.str(), "/e.in");
    EXPECT_EQ(doc->connections()[1].target.str(), "/e.other");
    EXPECT_EQ(doc->connections()[2].target.str(), ".top");  // the root path with a property
    EXPECT_EQ(doc->deletions(), std::vector<Path>{Path("/gone/x")});
    EXPECT_EQ(doc->connectionDeletions(), std::vector<Path>{Path("/e.in2")});
    ASSERT_EQ(doc->globLinks().size(), 1u);
    EXPECT_EQ(doc->globLinks()[0].targetSpec, "/a/*.in");
    ASSERT_EQ(doc->reorders().size(), 1u);
    EXPECT_EQ(doc->reorders()[0].order, (std::vector<Path>{Path("/e/b"), Path("/e/a")}));
}

TEST(TextParse, Keyframes) {
    auto doc = parse(
        "def \"e\" {\n"
        "  float x.timeSamples = {\n"
        "    2: 20 (interp = bezier, handle = free, left = [1 2], left = [3, 4, 5], right = [])\n"
        "    1: 10 (interp = held)\n"
        "    2: 21\n"
        "    0.1000000000001: 1\n"
        "  }\n"
        "  float x = 5\n"
        "  float empty.timeSamples = {}\n"
        "}\n");
    ASSERT_TRUE(doc);
    const Property* x = property(*doc, "/e", "x");
    ASSERT_TRUE(x && x->samples);
    EXPECT_EQ(x->value, Value(5.0f));
    const auto& keys = x->samples->keys;
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0].time, 0.1);  // times keep the digits the writer keeps
    EXPECT_EQ(keys[1].time, 1);
    EXPECT_EQ(keys[1].interp, Interp::Held);
    EXPECT_EQ(keys[2].value, Value(21.0f));
    EXPECT_EQ(keys[2].interp, Interp::Linear);  // the later statement wins, its handles stay
    EXPECT_EQ(keys[2].handle, HandleType::Free);
    EXPECT_EQ(keys[2].left, (std::vector<std::pair<double, double>>{{1, 2}, {3, 4}}));
    EXPECT_TRUE(keys[2].right.empty());
    const Property* empty = property(*doc, "/e", "empty");
    ASSERT_TRUE(empty);
    EXPECT_FALSE(empty->samples);
    EXPECT_EQ(empty->value, Value(0.0f));

    auto general = parse("def \"e\" {\n  int32[] v.timeSamples = { 0: [1, 2], 1: [[1], [2]] }\n}\n");
    ASSERT_TRUE(general);
    const Property* v = property(*general, "/e", "v");
    EXPECT_EQ(v->value.shape, std::vector<std::uint32_t>{0});
    EXPECT_EQ(v->samples->keys[0].value.shape, std::vector<std::uint32_t>{2});
    EXPECT_EQ(v->samples->keys[1].value.shape, (std::vector<std::uint32_t>{2, 1}));
    EXPECT_FALSE(parse("def {\n  int32[] v.timeSamples = { 0: [[1], 2] }\n}\n"));
    EXPECT_FALSE(parse("def {\n  int32[] v.timeSamples = { 0: [[1], [2, 3]] }\n}\n"));
}

TEST(TextParse, WrittenTextIsAFixedPoint) {
    // Times and handles are written with nine digits; what is read takes that written value at
    // once, so one read and write settles the text.
    auto doc = parse("def \"e\" {\n    float v.timeSamples = {\n        33333333333331.03: 1 (interp = bezier, "
                     "handle = free, left = [33333333333331.03, 0], right = [1, 0]),\n    }\n}\n");
    ASSERT_TRUE(doc);
    const std::string once = serialize(*doc, 4);
    EXPECT_NE(once.find("33333333300000: 1"), std::string::npos) << once;
    EXPECT_NE(once.find("left = [33333333300000, 0]"), std::string::npos) << once;
    EXPECT_EQ(serialize(*parseZelthaText(once, nullptr), 4), once);

    auto example = parseZelthaText(testsupport::kExampleText, nullptr);
    ASSERT_TRUE(example);
    EXPECT_EQ(serialize(*example, 4), testsupport::kExampleText);

    // Forms the writer produces for names and shapes outside everyday use.
    expectFixedPoint(
        "def \"e\" {\n"
        "    float \"a b\" = 1\n"
        "    float \"a b\".timeSamples = {\n"
        "        0: 2,\n"
        "    }\n"
        "    float a. = 0\n"
        "    float a..b = 0\n"
        "    float a.1 = 0\n"
        "    float a.12eb = 0\n"
        "    float[] arr = [1, 2, 3, 4]\n"
        "    float[] arr.timeSamples = {\n"
        "        0: (1, 2),\n"
        "        1: (1, 2, 3),\n"
        "        2: [1, 2, 3, 4, 5],\n"
        "    }\n"
        "    str[2,2] grid = [[\"a\", \"b\"], [\"c\", \"d\"]]\n"
        "    int32[1] n = [5]\n"
        "    int32[1] n.timeSamples = {\n"
        "        0: [1, 2],\n"
        "        1: [],\n"
        "    }\n"
        "    unset string\n"
        "    unset zed\n"
        "    connect \"\" = </a.out>\n"
        "    connect \"x y\" = </a.out>\n"
        "    connect in.x = </a.out>\n"
        "}\n");
}

TEST(TextParse, ReadsBackDocumentsWrittenFromTheModel) {
    Document doc;
    Element e;
    e.path = Path("/e");
    e.type = "mesh";
    e.properties["q\"uote\\d"].value = Value("multi\nline\ttext \"quoted\" \\ \r");
    e.properties["h"].value.dtype = DType::Float16;
    e.properties["h"].value.data = {0x00, 0x7C};  // +infinity: written as 0
    e.metadata["key with space"] = "v";
    e.unsetMetadata.insert("string");
    doc.insert(e);
    Element child;
    child.path = Path("/e/[3]");
    doc.insert(child);
    doc.connect(Path("/e/[3].out"), Path("/e.in"));

    const std::string text = serialize(doc, 4);
    ParseError error;
    auto back = parseZelthaText(text, &error);
    ASSERT_TRUE(back) << error.message << "\n" << text;
    EXPECT_EQ(serialize(*back, 4), text);
    const Element* read = back->element(Path("/e"));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->properties.at("q\"uote\\d").value, Value("multi\nline\ttext \"quoted\" \\ \r"));
    EXPECT_EQ(read->metadata, e.metadata);
    EXPECT_EQ(read->unsetMetadata, e.unsetMetadata);
    EXPECT_TRUE(back->has(Path("/e/[0]")));  // anonymous numbers are given anew
}
