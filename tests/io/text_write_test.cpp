// The text writer: the exact bytes of each statement and value form, number forms at their
// bounds, and quoting.
#include "../../src/io/TextNumbers.h"

#include <ostrevik/io.h>
#include "support/example_text.h"
#include "support/value_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>

using namespace ostrevik;
using testsupport::rawValue;
using testsupport::strValue;

namespace {

Element element(const char* path, std::string type = {}) {
    Element e;
    e.path = Path(path);
    e.type = std::move(type);
    return e;
}

// The lines that one property of the element "/e" writes, at indent 0.
std::string propertyText(const std::string& name, const Property& p) {
    Document doc;
    Element e = element("/e");
    e.properties[name] = p;
    doc.insert(e);
    const std::string text = serialize(doc, 0);
    const std::string head = "#zeltha 4.0\ndef \"e\" {\n";
    EXPECT_EQ(text.substr(0, head.size()), head);
    return text.substr(head.size(), text.size() - head.size() - 2);
}

std::string valueText(const Value& v) {
    Property p;
    p.value = v;
    return propertyText("v", p);
}

std::string scalarText(double x) {
    char buf[kNumberTextMax];
    return std::string(buf, writeScalarText(buf, x));
}

std::string doubleText(double x) {
    char buf[kNumberTextMax];
    return std::string(buf, writeDoubleText(buf, x));
}

}  // namespace

TEST(TextWrite, WritesTheExampleDocument) {
    Document doc;
    Element scene = element("/scene", "group");
    scene.properties["color"].value = Value(std::array<float, 3>{1, 0.5f, 0});
    Property& opacity = scene.properties["opacity"];
    opacity.value = Value(1.0f);
    opacity.samples.emplace();
    opacity.samples->set(0, Value(0.0f), Interp::Held);
    opacity.samples->set(1.5, Value(1.0f), Interp::Linear);
    opacity.samples->set(2, Value(0.25f), Interp::Bezier);
    opacity.samples->setHandles(2, HandleType::Free, {{0.5, 0}}, {{0.25, 1}});
    scene.properties["tint"] = Property{Value(std::array<float, 3>{1, 1, 1}), std::nullopt, "color3f"};
    scene.properties["m"].value = rawValue<double>(DType::Float64, {2, 2}, {1, 0, 0, 1.5});
    scene.properties["names"].value = strValue({2}, {"a\"b", "c\nd"});
    scene.properties["small"].value = rawValue<std::uint8_t>(DType::UInt8, {}, {7});
    scene.properties["h"].value = rawValue<std::uint16_t>(DType::Float16, {}, {0x3800});
    scene.metadata["reference"] = "lib/part.zeltha";
    scene.metadata["referencePath"] = "/part";
    scene.metadata["note"] = "line one\nline two";
    scene.unsetProperties.insert("size");
    scene.unsetMetadata.insert("owner");
    doc.insert(scene);
    Element light = element("/scene/[0]", "light");
    light.specifier = Specifier::Over;
    light.properties["count"].value = Value(std::int64_t{3});
    light.properties["idx"].value = Value(std::vector<std::int64_t>{1, 2, 3});
    doc.insert(light);
    doc.insert(element("/scene/child"));
    doc.insert(element("/[1]"));
    doc.connect(Path("/mixer.out"), Path("/scene.gain"));
    doc.addDeletion(Path("/old"));
    doc.addConnectionDeletion(Path("/scene.x"));
    doc.addGlobLink(Path("/scene.opacity"), "/lights/*.intensity");
    doc.addReorder(Path("/scene"), {Path("/scene/child"), Path("/scene/[0]")});

    EXPECT_EQ(serialize(doc, 4), testsupport::kExampleText);
    const std::string flat = serialize(doc, 0);
    EXPECT_EQ(serialize(doc, -2), flat);
    EXPECT_NE(flat.find("\nfloat3 color = (1, 0.5, 0)\n"), std::string::npos);
}

TEST(TextWrite, SimpleValueForms) {
    EXPECT_EQ(valueText(Value(0.5f)), "float v = 0.5\n");
    EXPECT_EQ(valueText(Value(std::int64_t{-3})), "int v = -3\n");
    EXPECT_EQ(valueText(Value(true)), "bool v = true\n");
    EXPECT_EQ(valueText(Value(std::array<float, 2>{1, 2})), "float2 v = (1, 2)\n");
    EXPECT_EQ(valueText(Value(std::array<float, 6>{1, 0, 0, 1, 0, 0})), "matrix v = (1, 0, 0, 1, 0, 0)\n");
    std::array<float, 32> spectrum{};
    spectrum[31] = 7;
    EXPECT_EQ(valueText(Value(spectrum)),
              "spectrum v = [0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, "
              "0, 0, 0, 7]\n");
    EXPECT_EQ(valueText(Value(std::vector<float>{1, 2, 3, 4})), "float[] v = [1, 2, 3, 4]\n");
    EXPECT_EQ(valueText(Value(std::vector<std::array<float, 2>>{{1, 2}, {3, 4}})), "float2[] v = [(1, 2), (3, 4)]\n");
    EXPECT_EQ(valueText(Value(std::vector<float>{})), "float[] v = []\n");
    EXPECT_EQ(valueText(Value(std::vector<std::int64_t>{})), "int[] v = []\n");
    EXPECT_EQ(valueText(Value(std::vector<std::array<float, 2>>{})), "float2[] v = []\n");
}

TEST(TextWrite, GeneralValueForms) {
    EXPECT_EQ(valueText(rawValue<float>(DType::Float32, {3, 3}, {1, 0, 0, 0, 1, 0, 0, 0, 1})),
              "float32[3,3] v = [[1, 0, 0], [0, 1, 0], [0, 0, 1]]\n");
    EXPECT_EQ(valueText(rawValue<std::int8_t>(DType::Int8, {2}, {-5, 127})), "int8[2] v = [-5, 127]\n");
    EXPECT_EQ(valueText(rawValue<std::uint64_t>(DType::UInt64, {}, {~std::uint64_t{0}})), "uint64 v = 18446744073709551615\n");
    EXPECT_EQ(valueText(rawValue<std::int32_t>(DType::Int32, {}, {-2147483647 - 1})), "int32 v = -2147483648\n");
    EXPECT_EQ(valueText(rawValue<std::uint8_t>(DType::Bool, {2}, {1, 0})), "bool[2] v = [true, false]\n");
    EXPECT_EQ(valueText(rawValue<std::uint16_t>(DType::Float16, {2}, {0x3C00, 0xC100})), "float16[2] v = [1, -2.5]\n");
    EXPECT_EQ(valueText(rawValue<char>(DType::Char, {6}, {'a', '\'', '\\', '\n', '\t', '"'})),
              "char[6] v = ['a', '\\'', '\\\\', '\\n', '\\t', '\"']\n");
    EXPECT_EQ(valueText(rawValue<std::int32_t>(DType::Int32, {2, 0}, {})), "int32[2,0] v = [[], []]\n");
    EXPECT_EQ(valueText(rawValue<std::int32_t>(DType::Int32, {0, 2}, {})), "int32[0,2] v = []\n");
    EXPECT_EQ(valueText(rawValue<std::int16_t>(DType::Int16, {3}, {1})), "int16[3] v = [1, 0, 0]\n");  // leaves ran out
    EXPECT_EQ(valueText(Value("text")), "str v = \"text\"\n");
    EXPECT_EQ(valueText(strValue({2, 2}, {"a", "b", "c", "d"})), "str[2,2] v = [[\"a\", \"b\"], [\"c\", \"d\"]]\n");
    EXPECT_EQ(valueText(strValue({0}, {})), "str[0] v = []\n");

    // An alias keeps its token and takes the general form, brackets included, in two dimensions too.
    EXPECT_EQ(propertyText("m", Property{rawValue<double>(DType::Float64, {2, 2}, {1, 2, 3, 4}), std::nullopt, "matrix2d"}),
              "matrix2d m = [[1, 2], [3, 4]]\n");
}

TEST(TextWrite, NumberFormsAtTheirBounds) {
    EXPECT_EQ(scalarText(0.0), "0");
    EXPECT_EQ(scalarText(-0.0), "0");
    EXPECT_EQ(scalarText(std::nan("")), "0");
    EXPECT_EQ(scalarText(-std::numeric_limits<double>::infinity()), "0");
    EXPECT_EQ(scalarText(2.5), "2.5");
    EXPECT_EQ(scalarText(0.1f), "0.100000001");
    EXPECT_EQ(scalarText(1e16f), "1.00000003e+16");
    EXPECT_EQ(scalarText(9999999999999998.0), "9999999999999998");
    EXPECT_EQ(scalarText(1e16), "1e+16");
    EXPECT_EQ(scalarText(-123456789012.0), "-123456789012");
    EXPECT_EQ(scalarText(1234567.125), "1234567.12");  // a tie rounds to even, as printf does
    EXPECT_EQ(scalarText(0.0001), "0.0001");
    EXPECT_EQ(scalarText(0.00001), "1e-05");
    EXPECT_EQ(scalarText(1e-45), "1e-45");

    EXPECT_EQ(doubleText(1e15), "1000000000000000");
    EXPECT_EQ(doubleText(999999999999999.0), "999999999999999");
    EXPECT_EQ(doubleText(2.5), "2.5");
    EXPECT_EQ(doubleText(0.1), "0.10000000000000001");
    EXPECT_EQ(doubleText(-0.0), "0");
    EXPECT_EQ(doubleText(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
    EXPECT_EQ(doubleText(std::numeric_limits<double>::denorm_min()), "4.9406564584124654e-324");

    EXPECT_EQ(valueText(rawValue<double>(DType::Float64, {}, {1e15})), "float64 v = 1000000000000000\n");
    EXPECT_EQ(valueText(Value(1e16f)), "float v = 1.00000003e+16\n");
}

// The digits are computed without printf; they must be printf's all the same.
TEST(TextWrite, NumberFormsAgreeWithPrintf) {
    std::mt19937_64 rng(20240611);
    char expected[64];
    for (int i = 0; i < 200000; ++i) {
        const std::uint64_t bits = rng();
        float f;
        const auto low = static_cast<std::uint32_t>(bits);
        std::memcpy(&f, &low, sizeof f);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        // Values of everyday magnitude too, where the fast path runs.
        const double everyday = std::ldexp(static_cast<double>(bits >> 11), static_cast<int>(bits % 80) - 93);
        for (double x : {static_cast<double>(f), d, everyday}) {
            if (!std::isfinite(x) || x == 0 || x == std::trunc(x)) continue;
            std::snprintf(expected, sizeof expected, "%.9g", x);
            ASSERT_EQ(scalarText(x), expected) << "bits " << bits;
            std::snprintf(expected, sizeof expected, "%.17g", x);
            ASSERT_EQ(doubleText(x), expected) << "bits " << bits;
        }
    }
}

TEST(TextWrite, QuotesWhatIsNotABareName) {
    Property p;
    EXPECT_EQ(propertyText("shader.diffuse", p), "float shader.diffuse = 0\n");
    EXPECT_EQ(propertyText("_a.1", p), "float _a.1 = 0\n");
    EXPECT_EQ(propertyText("two words", p), "float \"two words\" = 0\n");
    EXPECT_EQ(propertyText("1st", p), "float \"1st\" = 0\n");
    EXPECT_EQ(propertyText("", p), "float \"\" = 0\n");
    EXPECT_EQ(propertyText("q\"b\\n\nt\tc\r", p), "float \"q\\\"b\\\\n\\nt\\tc\r\" = 0\n");

    Document doc;
    Element e = element("/e", "3d");
    e.metadata["plain_key"] = "tab\there";
    e.metadata["dotted.key"] = "";
    e.unsetProperties = {"a.b", "string"};
    e.unsetMetadata = {"x y"};
    doc.insert(e);
    doc.insert(element("/e/[4]", "my-type"));
    doc.connect(Path("/a.out"), Path(std::vector<std::string>{"e"}, std::string("in.x")));
    EXPECT_EQ(serialize(doc, 1),
              "#zeltha 4.0\n"
              "def \"3d\" \"e\" {\n"
              " string \"dotted.key\" = \"\"\n"
              " string plain_key = \"tab\\there\"\n"
              " unset \"a.b\"\n"
              " unset string\n"
              " unset string \"x y\"\n"
              " connect in.x = </a.out>\n"
              " def \"my-type\" {\n"
              " }\n"
              "}\n");
}

TEST(TextWrite, KeyframeParentheses) {
    Property p;
    p.value = Value(1.0f);
    p.samples.emplace();
    EXPECT_EQ(propertyText("x", p), "float x = 1\n");  // samples without keys: no block
    p.samples->set(0, Value(1.0f), Interp::Linear);
    p.samples->set(1, Value(2.0f), Interp::Linear);
    p.samples->setHandles(1, HandleType::Free, {}, {});
    p.samples->set(2, Value(3.0f), Interp::Held);
    p.samples->set(3, Value(4.0f), Interp::Linear);
    p.samples->setHandles(3, HandleType::Auto, {}, {{1, 2}, {3, 4}});
    EXPECT_EQ(propertyText("x", p),
              "float x = 1\n"
              "float x.timeSamples = {\n"
              "0: 1,\n"
              "1: 2 (interp = linear, handle = free),\n"
              "2: 3 (interp = held),\n"
              "3: 4 (interp = linear, handle = auto, right = [1, 2, 3, 4]),\n"
              "}\n");

    // A keyframe is written in its own form; with a type name, in the general one.
    Property alias{Value(std::array<float, 3>{0, 0, 0}), TimeSamples{}, "color3f"};
    alias.samples->set(0.5, Value(std::array<float, 3>{1, 0.5f, 0}), Interp::Linear);
    EXPECT_EQ(propertyText("c", alias), "color3f c = [0, 0, 0]\ncolor3f c.timeSamples = {\n0.5: [1, 0.5, 0],\n}\n");
}

TEST(TextWrite, HeaderRecordsAndWhatNoWalkReaches) {
    EXPECT_EQ(serialize(Document(), 4), "#zeltha 4.0\n");
    // Record lines follow the header directly, sorted.
    Document records;
    records.addDeletion(Path("/b"));
    records.addDeletion(Path("/a/x"));
    records.addReorder(Path("/p"), {});
    EXPECT_EQ(serialize(records, 4), "#zeltha 4.0\ndelete \"/a/x\"\ndelete \"/b\"\nreorder \"/p\" = []\n");
    // Orphans and connections into missing elements are skipped.
    Document doc;
    doc.insert(element("/a"));
    doc.insert(element("/missing/child"));
    doc.connect(Path("/a.out"), Path("/gone.in"));
    EXPECT_EQ(serialize(doc, 4), "#zeltha 4.0\ndef \"a\" {\n}\n");
}

TEST(TextWrite, ConnectionsStayInTheirTargetElementInCreationOrder) {
    Document doc;
    doc.insert(element("/a"));
    doc.insert(element("/b"));
    doc.connect(Path("/x.o"), Path("/b.z"));
    doc.connect(Path("/x.o"), Path("/a.y"));
    doc.connect(Path("/x.p"), Path("/b.c"));
    EXPECT_EQ(serialize(doc, 2),
              "#zeltha 4.0\n"
              "def \"a\" {\n"
              "  connect y = </x.o>\n"
              "}\n"
              "\n"
              "def \"b\" {\n"
              "  connect z = </x.o>\n"
              "  connect c = </x.p>\n"
              "}\n");
}

TEST(TextWrite, ChildrenStoredBeforeTheirParentStillNest) {
    Document doc;
    doc.insert(element("/a/b/c"));
    doc.insert(element("/a/b"));
    doc.insert(element("/z"));
    doc.insert(element("/a"));
    doc.connect(Path("/z.o"), Path("/a/b/c.i"));
    EXPECT_EQ(serialize(doc, 1),
              "#zeltha 4.0\n"
              "def \"z\" {\n"
              "}\n"
              "\n"
              "def \"a\" {\n"
              " def \"b\" {\n"
              "  def \"c\" {\n"
              "   connect i = </z.o>\n"
              "  }\n"
              " }\n"
              "}\n");
}
