// The JSON value tree: what the parser accepts, what it builds, and the exact bytes written.
#include <ostrevik/codecs.h>

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using ostrevik::codecs::Json;
using Kind = Json::Kind;

namespace {

std::string roundTrip(std::string_view text) {
    auto j = Json::parse(text);
    return j ? j->dump() : std::string("<fail>");
}

std::string parsedText(std::string_view text) {
    auto j = Json::parse(text);
    EXPECT_TRUE(j && j->kind == Kind::String) << text;
    return j ? j->text : std::string();
}

std::string nested(int depth, std::string_view inner) {
    return std::string(depth, '[') + std::string(inner) + std::string(depth, ']');
}

}  // namespace

TEST(Json, AcceptsAndRefusesByTheGrammar) {
    for (const char* ok : {"01", "1.", "-.5", "0.", "-0", "1e5", "1E+5", "2e-3", " \t\r\n1 \n", "[ ]",
                           "{ }", "[1 , 2]", "{\"a\" : 1 , \"b\":[]}", "\"\\/\""})
        EXPECT_TRUE(Json::parse(ok)) << ok;
    for (const char* bad : {"", " ", "+1", ".5", "1e", "1e+", "-", "-.", "-e1", "tru", "nul", "truex",
                            "True", "[1,]", "{\"a\":1,}", "[1 2]", "{\"a\" 1}", "{a:1}", "{\"a\":}",
                            "\"abc", "\"\\x\"", "\"\\u12\"", "\"\\u12g4\"", "[", "{", "1 2", "\f1",
                            "\"\\"})
        EXPECT_FALSE(Json::parse(bad)) << bad;
    // NUL bytes are opaque inside strings and refused outside them.
    EXPECT_EQ(parsedText(std::string_view("\"a\0b\"", 5)), std::string("a\0b", 3));
    EXPECT_FALSE(Json::parse(std::string_view("1\0", 2)));
}

TEST(Json, DepthLimitIs200) {
    EXPECT_TRUE(Json::parse(nested(200, "1")));
    EXPECT_FALSE(Json::parse(nested(201, "1")));
    EXPECT_TRUE(Json::parse(nested(201, "")));
    EXPECT_FALSE(Json::parse(nested(202, "")));
    // Far past the limit is refused without exhausting the stack.
    EXPECT_FALSE(Json::parse(std::string(1000000, '[')));
    std::string objects;
    for (int i = 0; i < 201; ++i) objects += "{\"a\":";
    EXPECT_FALSE(Json::parse(objects + "1" + std::string(201, '}')));
}

TEST(Json, StringEscapesAndSurrogates) {
    // Lone or mismatched surrogates are kept as their three-byte forms.
    const std::pair<const char*, std::string> cases[] = {
        {R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"}, {R"("\u0041\u00e9\u20AC")", "A\xC3\xA9\xE2\x82\xAC"},
        {R"("\ud83d\ude00")", "\xF0\x9F\x98\x80"},    {R"("\ud83d")", "\xED\xA0\xBD"},
        {R"("\ud83d\u0041")", "\xED\xA0\xBD" "A"},     {R"("\ude00")", "\xED\xB8\x80"},
        {R"("\ud83dx")", "\xED\xA0\xBDx"},             {R"("\u0000")", std::string(1, '\0')},
        {"\"a\nb\x01\xff\xc3\"", "a\nb\x01\xff\xc3"}};  // raw control bytes and bad UTF-8 pass through
    for (const auto& [in, out] : cases) EXPECT_EQ(parsedText(in), out) << in;
}

TEST(Json, WritesCompactEscapedText) {
    EXPECT_EQ(roundTrip(R"( { "b" : [ 1 , true , false , null ] , "a" : "x" } )"),
              R"({"b":[1,true,false,null],"a":"x"})");
    Json s;
    s.kind = Kind::String;
    s.text = std::string("q\"b\\/\b\t\n\f\r\x01\x1f\x7f\xc3\xa9", 15);
    s.text += '\0';
    EXPECT_EQ(s.dump(), "\"q\\\"b\\\\/\\b\\t\\n\\f\\r\\u0001\\u001f\x7f\xc3\xa9\\u0000\"");
    EXPECT_EQ(Json().dump(), "null");
}

TEST(Json, NumberForms) {
    const std::pair<const char*, const char*> cases[] = {
        {"1e400", "0"}, {"-1e400", "0"}, {"1.0", "1"}, {"1.5", "1.5"}, {"-0.0", "0"},
        {"1e15", "1000000000000000"}, {"999999999999999", "999999999999999"},
        {"-999999999999999", "-999999999999999"}, {"1e20", "1e+20"}, {"0.1", "0.10000000000000001"},
        {"007", "7"}, {"-12", "-12"}, {"2.5e-3", "0.0025000000000000001"}};
    for (const auto& [in, out] : cases) EXPECT_EQ(roundTrip(in), out) << in;
    Json nan;
    nan.kind = Kind::Number;
    nan.number = std::nan("");
    EXPECT_EQ(nan.dump(), "0");
    // A very long digit run is still one number.
    EXPECT_EQ(roundTrip(std::string(100000, '1').insert(1, ".")), "1.1111111111111112");
}

TEST(Json, DuplicateKeysKeepFirstPositionAndLastValue) {
    EXPECT_EQ(roundTrip(R"({"a":1,"b":2,"a":3})"), R"({"a":3,"b":2})");
    // The same rule past the size where lookups switch to an index.
    std::string text = "{";
    for (int i = 0; i < 40; ++i) text += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    text += R"("k3":"x","k39":"y","new":0})";
    auto j = Json::parse(text);
    ASSERT_TRUE(j);
    ASSERT_EQ(j->members.size(), 41u);
    EXPECT_EQ(j->members[3].second.text, "x");
    EXPECT_EQ(j->members[39].second.text, "y");
    EXPECT_EQ(j->members[40].first, "new");

    Json o;
    o.kind = Kind::Object;
    o.set("x", Json());
    Json one;
    one.kind = Kind::Number;
    one.number = 1;
    o.set("y", one);
    o.set("x", one);
    EXPECT_EQ(o.dump(), R"({"x":1,"y":1})");
}

TEST(Json, LargeInputs) {
    std::string big = "\"" + std::string(50u << 20, 'a') + "\"";
    auto s = Json::parse(big);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->text.size(), 50u << 20);
    EXPECT_EQ(s->dump(), big);

    std::string text = "{";
    for (int i = 0; i < 200000; ++i) text += "\"" + std::to_string(i) + "\":0,";
    text += "\"0\":1}";
    auto o = Json::parse(text);
    ASSERT_TRUE(o);
    EXPECT_EQ(o->members.size(), 200000u);
    EXPECT_EQ(o->members[0].second.number, 1);
}
