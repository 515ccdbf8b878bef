// JSON text <-> document: the tree mapping in both directions, key errors, arrays, number leaves.
#include <ostrevik/codecs.h>
#include "support/value_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using namespace ostrevik;
using ostrevik::codecs::JsonCodec;
using testsupport::rawValue;

namespace {

std::string roundTrip(std::string_view text) {
    JsonCodec codec;
    ParseError error;
    auto doc = codec.decode(text, &error);
    if (!doc) return "<fail: " + error.message + ">";
    return codec.encode(*doc).value_or("<no output>");
}

std::string encode(const Document& doc) { return JsonCodec().encode(doc).value_or("<no output>"); }

const char* kKeyMessage =
    "object/array key is not a representable element name (letters, digits, underscore)";

}  // namespace

TEST(JsonCodec, NameAndRoundTrips) {
    EXPECT_EQ(JsonCodec().name(), "json");
    const std::pair<const char*, const char*> cases[] = {
        {R"({"b":1,"a":2})", R"({"a":2,"b":1})"},
        {R"({"x":{},"a":1})", R"({"a":1,"x":{}})"},
        {R"({"z":{},"y":[]})", R"({"z":{},"y":[]})"},
        {R"([1,[2],"c",null])", R"([1,[2],"c",null])"},
        {"[]", "[]"}, {"{}", "{}"},
        {"null", "null"}, {"1", "1"}, {R"("s")", R"("s")"}, {"true", "true"},
        {R"({"a-b":1})", R"({"a-b":1})"},
        {R"({"":1})", R"({"":1})"},
        {R"({"p":[{"q":[true,{"r":"\n"}]},-2.5]})", R"({"p":[{"q":[true,{"r":"\n"}]},-2.5]})"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(roundTrip(in), out) << in;
}

TEST(JsonCodec, DecodedTree) {
    auto doc = JsonCodec().decode(R"({"s":"t","n":2,"b":false,"z":null,"o":[{"x":1}]})", nullptr);
    ASSERT_TRUE(doc);
    ASSERT_EQ(doc->elements().size(), 3u);
    EXPECT_EQ(doc->children(Path()), std::vector<Path>{Path("/root")});
    const Element* root = doc->element(Path("/root"));
    ASSERT_TRUE(root);
    EXPECT_EQ(root->type, "object");
    EXPECT_EQ(root->properties.at("s").value, Value("t"));
    EXPECT_EQ(root->properties.at("b").value, Value(false));
    EXPECT_EQ(root->properties.at("n").value, rawValue<double>(DType::Float64, {}, {2.0}));
    EXPECT_EQ(root->properties.at("z").value, testsupport::strValue({0}, {}));  // the null form
    EXPECT_EQ(doc->element(Path("/root/o"))->type, "array");
    const Element* item = doc->element(Path("/root/o/0"));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->type, "object");
    EXPECT_TRUE(item->properties.count("x"));

    auto scalar = JsonCodec().decode("\"s\"", nullptr);
    ASSERT_TRUE(scalar);
    EXPECT_EQ(scalar->element(Path("/root"))->type, "value");
    EXPECT_EQ(scalar->element(Path("/root"))->properties.at("value").value, Value("s"));
}

TEST(JsonCodec, DecodeErrors) {
    for (const char* text : {R"({"a-b":{}})", R"({"a-b":[]})", R"({"":[]})", R"({"ok":{"a b":[]}})",
                             R"([{"é":{}}])"}) {
        ParseError error{7, 7, ""};
        EXPECT_FALSE(JsonCodec().decode(text, &error)) << text;
        EXPECT_EQ(error.message, kKeyMessage) << text;
        EXPECT_EQ(error.line, 0u);
        EXPECT_EQ(error.column, 0u);
    }
    for (const char* text : {"", "{", "[1,]", "truex", "{\"a\":1}x"}) {
        ParseError error{7, 7, ""};
        EXPECT_FALSE(JsonCodec().decode(text, &error)) << text;
        EXPECT_EQ(error.message, "malformed JSON");
        EXPECT_EQ(error.line, 0u);
    }
    EXPECT_FALSE(JsonCodec().decode(std::string(201, '[') + std::string(201, ']') + "]", nullptr));
}

TEST(JsonCodec, EncodesForeignDocuments) {
    Document doc;
    EXPECT_EQ(encode(doc), "{}");
    doc.append(Path("/a"), "group").set("v", Value(std::int64_t{3}));
    EXPECT_EQ(encode(doc), R"({"a":{"v":3}})");
    doc.append(Path("/b"), "light");
    EXPECT_EQ(encode(doc), R"({"a":{"v":3},"b":{}})");

    // Anonymous children become keys that decoding refuses.
    Document anon;
    anon.append(Path("/p"), "group");
    anon.addChild(Path("/p"), "mesh");
    const std::string text = encode(anon);
    EXPECT_EQ(text, R"({"p":{"[0]":{}}})");
    ParseError error;
    EXPECT_FALSE(JsonCodec().decode(text, &error));
    EXPECT_EQ(error.message, kKeyMessage);

    // A child takes the place of a property of the same name; metadata and wiring vanish.
    Document clash;
    auto h = clash.append(Path("/root"), "object");
    h.set("a", Value(true));
    h.set("b", Value(1.5f));
    h.set("c", Value("c"));
    clash.element(Path("/root"))->metadata["note"] = "dropped";
    clash.append(Path("/root/b"), "array");
    clash.connect(Path("/root.a"), Path("/root.c"));
    EXPECT_EQ(encode(clash), R"({"a":true,"b":[],"c":"c"})");
}

TEST(JsonCodec, ManyChildrenCollidingWithProperties) {
    Document doc;
    auto h = doc.append(Path("/root"), "object");
    for (int i = 0; i < 40; ++i) h.set("k" + std::to_string(i), Value(std::int64_t{i}));
    for (int i = 30; i < 50; ++i) doc.append(Path("/root/k" + std::to_string(i)), "object");
    const std::string text = encode(doc);
    auto json = codecs::Json::parse(text);
    ASSERT_TRUE(json);
    ASSERT_EQ(json->members.size(), 50u);
    // Sorted property order first: k0, k1, k10, ..., with k30..k39 replaced in place.
    EXPECT_EQ(json->members[0].first, "k0");
    EXPECT_EQ(json->members[1].first, "k1");
    EXPECT_EQ(json->members[2].first, "k10");
    for (const auto& [key, value] : json->members) {
        const int i = std::stoi(key.substr(1));
        EXPECT_EQ(value.kind == codecs::Json::Kind::Object, i >= 30) << key;
    }
    EXPECT_EQ(json->members[40].first, "k40");
}

TEST(JsonCodec, DenseAndSparseArrays) {
    auto arrayWith = [](std::initializer_list<const char*> props, std::initializer_list<const char*> kids) {
        Document doc;
        auto h = doc.append(Path("/root"), "array");
        for (const char* p : props) h.set(p, Value(p));
        for (const char* k : kids) doc.append(Path("/root").child(k), "object");
        return encode(doc);
    };
    EXPECT_EQ(arrayWith({"5"}, {}), R"([null,null,null,null,null,"5"])");
    EXPECT_EQ(arrayWith({"9999"}, {}), R"(["9999"])");
    EXPECT_EQ(arrayWith({"4096"}, {}).size(), 4096u * 5 + 8);  // still dense: 4096 nulls
    EXPECT_EQ(arrayWith({"0", "x", "1234567890123456789"}, {"2"}), R"(["0",null,{}])");
    EXPECT_EQ(arrayWith({"007"}, {}), "[null,null,null,null,null,null,null,null]");
    EXPECT_EQ(arrayWith({"1", "100000"}, {"50000"}), R"(["1",{},"100000"])");
    EXPECT_EQ(arrayWith({"x"}, {"y"}), "[]");
    // A property and a child on the same index: the property wins.
    EXPECT_EQ(arrayWith({"0"}, {"0"}), R"(["0"])");
}

TEST(JsonCodec, ValueLeaves) {
    const std::pair<Value, const char*> cases[] = {
        {rawValue<std::int32_t>(DType::Int32, {2, 2}, {1, -2, 3, 4}), "[[1,-2],[3,4]]"},
        {rawValue<float>(DType::Float32, {0}, {}), "[]"},
        {rawValue<std::int32_t>(DType::Int32, {0, 3}, {}), "[]"},
        {rawValue<std::int32_t>(DType::Int32, {2, 0}, {}), "[[],[]]"},
        {Value(0.1f), "0.10000000149011612"},
        {Value(std::vector<std::int64_t>{1, -2}), "[1,-2]"},
        {testsupport::strValue({0}, {}), "null"},
        {testsupport::strValue({1}, {"x"}), R"(["x"])"},
        {testsupport::strValue({3}, {"x"}), R"(["x",null,null])"},  // leaves ran out
        {rawValue<char>(DType::Char, {2}, {'h', '"'}), R"(["h","\""])"},
        {rawValue<std::uint8_t>(DType::Bool, {2}, {0, 2}), "[false,true]"},
        {rawValue<std::uint64_t>(DType::UInt64, {}, {18446744073709551615ull}), "1.8446744073709552e+19"},
        {rawValue<std::int8_t>(DType::Int8, {}, {-128}), "-128"},
        {rawValue<double>(DType::Float64, {}, {std::nan("")}), "0"},
        // Half floats: normal, subnormal, infinity (written as 0), negative zero.
        {rawValue<std::uint16_t>(DType::Float16, {7}, {0x3C00, 0xC000, 0x3555, 0x0001, 0x7C00, 0x8000, 0x7BFF}),
         "[1,-2,0.333251953125,5.9604644775390625e-08,0,0,65504]"},
    };
    for (const auto& [value, json] : cases) {
        Document doc;
        doc.append(Path("/root"), "value").set("value", value);
        EXPECT_EQ(encode(doc), json);
    }
    // A value element without its property: null.
    Document empty;
    empty.append(Path("/root"), "value");
    EXPECT_EQ(encode(empty), "null");
}

TEST(JsonCodec, LargeDocumentsStayLinear) {
    std::string text = "{\"items\":[";
    for (int i = 0; i < 100000; ++i) text += (i ? ",{\"v\":" : "{\"v\":") + std::to_string(i) + "}";
    text += "],\"keys\":{";
    for (int i = 0; i < 200000; ++i) text += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":{}";
    text += "}}";
    auto doc = JsonCodec().decode(text, nullptr);
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->elements().size(), 300003u);
    EXPECT_EQ(JsonCodec().encode(*doc), text);
}
