// The tool frame, the catalog and the ten element tools, driven in-process through dispatch.
#include "Dispatch.h"
#include "ValueText.h"
#include "support/test_util.h"
#include "support/value_util.h"

#include <ostrevik/codecs.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using ostrevik::codecs::Json;
using zserver::dispatch;

class Tools : public ::testing::Test {
protected:
    zserver::Session session;
    std::vector<std::string> log;

    void SetUp() override {
        zserver::Log::instance().sink = [this](const std::string& line) { log.push_back(line.substr(11)); };
    }
    void TearDown() override { zserver::Log::instance().sink = nullptr; }

    // Calls a tool with `args` as the JSON text of its arguments (empty: no arguments at all).
    testsupport::ToolReply call(const std::string& tool, const std::string& args = "") {
        return testsupport::parseToolReply(dispatch(session, testsupport::toolCall(tool, args)));
    }
    void expect(bool ok, const std::string& tool, const std::string& args, const std::string& text) {
        testsupport::ToolReply out = call(tool, args);
        EXPECT_EQ(out.ok, ok) << tool << " " << args << ": " << out.text;
        EXPECT_EQ(out.text, text) << tool << " " << args;
    }
    void expectOk(const std::string& tool, const std::string& args, const std::string& text) { expect(true, tool, args, text); }
    void expectError(const std::string& tool, const std::string& args, const std::string& text) { expect(false, tool, args, text); }
    void define(const std::string& path, const std::string& type = "object") {
        expectOk("define_element", R"({"path":")" + path + R"(","type":")" + type + "\"}",
                 "defined " + path + " [" + type + "]");
    }
    std::string props(const std::string& path) {
        std::string text = call("get_element", R"({"path":")" + path + "\"}").text;
        size_t from = text.find("properties:\n") + 12, to = text.find("metadata:\n");
        return text.substr(from, to - from);
    }
};

TEST_F(Tools, FrameNamesAndReplies) {
    // Names that differ from a tool's only by case or a blank are no tools.
    expectError("Describe", "", "unknown tool: Describe");
    EXPECT_EQ(log, (std::vector<std::string>{"tool/call  Describe", "  ERR  unknown tool: Describe"}));
    expectError("get_element ", "", "unknown tool: get_element ");
    expectError("", "", "unknown tool: ");
    // Without an id the tool still runs; success carries no isError at all.
    EXPECT_FALSE(dispatch(session, R"({"method":"tools/call","params":{"name":"define_element","arguments":{"path":"/a","type":"t"}}})"));
    EXPECT_EQ(*dispatch(session, R"({"id":"q","method":"tools/call","params":{"name":"describe"}})"),
              R"({"id":"q","jsonrpc":"2.0","result":{"content":[{"text":"document: (unsaved)\n  /a  [t]  0 props\n","type":"text"}]}})");
}

TEST_F(Tools, DescribeAndGetElement) {
    expectOk("describe", "", "document: (unsaved)\n(empty)\n");
    define("/w");
    define("/w/b", "light");
    define("/w/a");
    define("/w/a/deep");
    define("/v");
    expectOk("set_property", R"({"path":"/w","name":"z","value":"s"})", "set /w.z");
    expectOk("set_property", R"({"path":"/w","name":"a","value":true})", "set /w.a");
    expectOk("set_metadata", R"({"path":"/w","key":"k2","value":"two"})", "set metadata k2");
    expectOk("set_metadata", R"({"path":"/w","key":"k1","value":"one"})", "set metadata k1");
    session.path = "/docs/scene.zeltha";
    expectOk("describe", "",
             "document: /docs/scene.zeltha\n  /w  [object]  2 props\n  /w/b  [light]  0 props\n"
             "  /w/a  [object]  0 props\n  /w/a/deep  [object]  0 props\n  /v  [object]  0 props\n");
    const std::string body = "\ntype: object\nproperties:\n  a : bool = true\n  z : str = \"s\"\n"
                             "metadata:\n  k1 = one\n  k2 = two\nchildren:\n";
    expectOk("get_element", R"({"path":"/w"})", "path: /w" + body + "  /w/b\n  /w/a\n");
    EXPECT_EQ(log.back(), "  ok   path: /w");
    expectOk("get_element", R"({"path":"/w.x"})", "path: /w.x" + body);  // a slot lists no children
    expectError("get_element", R"({"path":"/nope"})", "no element at /nope");
    expectError("get_element", R"({"path":"/"})", "no element at /");
    for (const char* bad : {"", R"({"path":5})", R"({"path":["/w"]})", R"({"path":{"a":1}})", R"({"path":null})",
                            R"({"path":"w"})", R"({"path":"/w/"})", R"({"path":"/a-b"})", R"(["/w"])", R"("/w")"})
        expectError("get_element", bad, "missing or invalid 'path'");
}

TEST_F(Tools, DefineElementChecksInOrder) {
    expectError("define_element", R"({"type":"t"})", "missing or invalid 'path'");
    expectError("define_element", R"({"path":"/a b","type":"t"})", "missing or invalid 'path'");
    expectError("define_element", R"({"path":"/a"})", "missing 'type'");
    expectError("define_element", R"({"path":"/a","type":7})", "missing 'type'");
    expectError("define_element", R"({"path":"/a/b","type":"t"})",
                "parent element of /a/b does not exist; create it first");
    define("/a", "");  // any string is a type, the empty one too
    expectError("define_element", R"({"path":"/a","type":"t"})", "an element already exists at /a");
    expectError("define_element", R"({"path":"/a.x","type":"t"})", "an element already exists at /a.x");
    expectError("define_element", R"({"path":"/b.x","type":"t"})",
                "'path' names a slot, not an element: /b.x (leave out the .x)");
    expectError("define_element", R"({"path":"/","type":"t"})", "cannot define an element at the root path /");
    define("/[3]");
    define("/a/0");
    EXPECT_EQ(session.doc.elements().size(), 3u);
    EXPECT_EQ(session.doc.elements()[0].type, "");
}

TEST_F(Tools, RemoveAndRename) {
    define("/a");
    define("/a/b");
    define("/a/b/c");
    define("/ab");
    define("/z");
    expectOk("set_property", R"({"path":"/ab","name":"in","value":1})", "set /ab.in");
    expectOk("connect", R"({"source":"/a/b.out","target":"/ab.in"})", "connected /a/b.out -> /ab.in");
    expectError("rename_element", R"({"from":"/a"})", "missing or invalid 'from'/'to'");
    expectError("rename_element", R"({"from":"/q","to":"/r"})", "no element at /q");
    expectError("rename_element", R"({"from":"/a","to":"/z"})", "an element already exists at /z");
    expectError("rename_element", R"({"from":"/a","to":"/y/a"})", "parent element of /y/a does not exist; create it first");
    expectError("rename_element", R"({"from":"/a","to":"/a/b/c/d"})",
                "rename rejected (cannot move /a under its own descendant)");
    expectOk("rename_element", R"({"from":"/a","to":"/z/m"})", "renamed to /z/m");
    EXPECT_EQ(session.doc.connections().at(0).source.str(), "/z/m/b.out");
    expectError("remove_element", R"({"path":"/a"})", "no element at /a");
    expectError("remove_element", R"({"path":"/z/m-"})", "missing or invalid 'path'");
    expectOk("remove_element", R"({"path":"/z"})", "removed 4 element(s) under /z");
    EXPECT_TRUE(session.doc.connections().empty());
    expectOk("describe", "", "document: (unsaved)\n  /ab  [object]  1 props\n");
}

TEST_F(Tools, SetPropertyScalarsAndCoercion) {
    expectError("set_property", R"({"name":"p","value":1})", "missing or invalid 'path'");
    expectError("set_property", R"({"path":"/e","value":1})", "missing 'name'");
    expectError("set_property", R"({"path":"/e","name":"p","value":1})", "no element at /e");
    define("/e");
    expectError("set_property", R"({"path":"/e","name":"p"})", "missing 'value' (a JSON scalar or a numeric array)");
    const std::pair<const char*, const char*> cases[] = {
        {R"("value":1)", "float64 = 1"},
        {R"("value":2.5,"dtype":"float")", "float32 = 2.5"},
        {R"("value":null)", "null"},
        {R"("value":"on","dtype":"bool")", "bool = false"},
        {R"("value":"true","dtype":"bool")", "bool = true"},
        {R"("value":2,"dtype":"bool")", "bool = true"},
        {R"("value":"12","dtype":"int32")", "int32 = 0"},
        {R"("value":-2.5,"dtype":"int8")", "int8 = -3"},
        {R"("value":300,"dtype":"uint8")", "uint8 = 44"},
        {R"("value":1e20,"dtype":"int64")", "int64 = 9223372036854775807"},
        {R"("value":7,"dtype":"str")", "str = \"\""},
        {R"("value":"x","dtype":"float3")", "str = \"x\""},
        {R"("value":false,"dtype":5)", "bool = false"},
    };
    for (const auto& [args, shown] : cases) {
        expectOk("set_property", std::string(R"({"path":"/e","name":"p",)") + args + "}", "set /e.p");
        EXPECT_EQ(props("/e"), std::string("  p : ") + shown + "\n") << args;
    }
    // Replacing a property drops its animation and alias name.
    ostrevik::Property& p = session.doc.element(ostrevik::Path("/e"))->properties["p"];
    p.samples.emplace();
    p.samples->set(1.0, ostrevik::Value(2.0f), ostrevik::Interp::Linear);
    p.typeName = "color3f";
    expectOk("set_property", R"({"path":"/e.q","name":"p","value":3})", "set /e.q.p");
    const ostrevik::Property& q = session.doc.elements()[0].properties.at("p");
    EXPECT_FALSE(q.samples);
    EXPECT_EQ(q.typeName, "");
    expectOk("set_property", R"({"path":"/e","name":"","value":"any name"})", "set /e.");
}

TEST_F(Tools, SetPropertyArrays) {
    define("/e");
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"[0,1,0]", "", "3 values)\n  p : float32[3] (3 elems)"},
        {"[1,2,3,4]", "", "4 values)\n  p : float32[4] (4 elems)"},
        {"[1,2]", "", "2 values)\n  p : float32[2] (2 elems)"},
        {"[1,2,3]", "int[]", "3 values)\n  p : int64[3] (3 elems)"},
        {"[1,2,3]", "int32", "3 values)\n  p : float32[3] (3 elems)"},
        {"[1,2,3,4,5]", "float2", "5 values)\n  p : float32[2] (2 elems)"},
        {"[1,\"a\",true,null,[2],5]", "", "4 values)\n  p : float32[4] (4 elems)"},
        {R"({"1":5,"0":4,"3":1})", "", "2 values)\n  p : float32[2] (2 elems)"},
    };
    for (const auto& [list, dtype, tail] : cases) {
        std::string args = std::string(R"({"path":"/e","name":"p","value":)") + list + R"(,"dtype":")" + dtype + "\"}";
        if (!*dtype) args = std::string(R"({"path":"/e","name":"p","value":)") + list + "}";
        testsupport::ToolReply out = call("set_property", args);
        EXPECT_EQ(out.text + "\n" + props("/e"), std::string("set /e.p (") + tail + "\n") << args;
    }
    std::vector<float> stored = session.doc.elements()[0].properties.at("p").value.as<std::vector<float>>();
    EXPECT_EQ(stored, (std::vector<float>{4, 5}));
    for (const char* empty : {"[]", "{}", "[[1,2]]", R"({"00":1})"})
        expectError("set_property", std::string(R"({"path":"/e","name":"p","value":)") + empty + "}",
                    "missing 'value' (a JSON scalar or a numeric array)");
    expectError("set_property", R"({"path":"/e","name":"p","value":[1],"dtype":"float2"})", "dtype float2 needs 2 values, got 1");
    expectError("set_property", R"({"path":"/e","name":"p","value":[1,2],"dtype":"float3"})", "dtype float3 needs 3 values, got 2");
    std::string big = R"({"path":"/e","name":"big","value":[)";
    for (int i = 0; i < 100000; ++i) big += std::to_string(i % 7) + ",";
    big.back() = ']';
    expectOk("set_property", big + R"(,"dtype":"int"})", "set /e.big (100000 values)");
    std::vector<std::int64_t> ints = session.doc.elements()[0].properties.at("big").value.as<std::vector<std::int64_t>>();
    ASSERT_EQ(ints.size(), 100000u);
    EXPECT_EQ(ints[99999], 99999 % 7);
}

TEST_F(Tools, PropertiesAndMetadata) {
    expectError("remove_property", R"({"path":"/e"})", "missing 'path'/'name'");
    expectError("remove_property", R"({"path":"/e","name":"x"})", "no element at /e");
    expectError("set_metadata", R"({"path":"/e","key":"k","value":1})", "missing 'path'/'key'/'value'");
    expectError("set_metadata", R"({"path":"/e","key":"k","value":"v"})", "no element at /e");
    define("/e");
    expectOk("remove_property", R"({"path":"/e","name":"x"})", "removed property x");
    expectOk("set_property", R"({"path":"/e","name":"x","value":1})", "set /e.x");
    expectOk("remove_property", R"({"path":"/e","name":"x"})", "removed property x");
    expectOk("set_metadata", R"({"path":"/e","key":"k","value":"v1"})", "set metadata k");
    expectOk("set_metadata", R"({"path":"/e","key":"k","value":"line\nbreak"})", "set metadata k");
    expectOk("get_element", R"({"path":"/e"})",
             "path: /e\ntype: object\nproperties:\nmetadata:\n  k = line\nbreak\nchildren:\n");
}

TEST_F(Tools, ConnectAndDisconnect) {
    expectError("connect", R"({"source":"/a.out"})", "missing or invalid 'source'/'target'");
    expectError("connect", R"({"source":"/a.out","target":"/b.in"})", "no element at /a (source)");
    define("/a");
    expectError("connect", R"({"source":"/a.out","target":"/b.in"})", "no element at /b (target)");
    define("/b");
    define("/c");
    expectError("connect", R"({"source":"/a","target":"/b.in"})",
                "not a slot: /a (source); name a property, e.g. /a.out");
    expectError("connect", R"({"source":"/a.out","target":"/b"})",
                "not a slot: /b (target); name a property, e.g. /b.in");
    EXPECT_TRUE(session.doc.connections().empty());
    expectOk("connect", R"({"source":"/a.out","target":"/b.in"})", "connected /a.out -> /b.in");
    expectOk("connect", R"({"source":"/c.out","target":"/b.in"})", "connected /c.out -> /b.in");
    ASSERT_EQ(session.doc.connections().size(), 1u);
    EXPECT_EQ(session.doc.connections()[0].source.str(), "/c.out");
    expectError("disconnect", "{}", "missing or invalid 'target'");
    expectError("disconnect", R"({"target":"/a.in"})", "no connection into /a.in");
    expectError("disconnect", R"({"target":"/b"})", "no connection into /b");
    expectOk("disconnect", R"({"target":"/b.in"})", "disconnected /b.in");
    session.doc.addGlobLink(ostrevik::Path("/a.out"), "/*.in");
    expectError("disconnect", R"({"target":"/c.in"})",
                "no direct connection into /c.in; it is driven by a glob link from /a.out, which disconnect does not remove");
    EXPECT_EQ(session.doc.globLinks().size(), 1u);
}

TEST_F(Tools, CatalogOnTheWire) {
    std::string reply = *dispatch(session, R"j({"id":1,"method":"tools/list"})j");
    define("/a");
    EXPECT_EQ(*dispatch(session, R"j({"id":1,"method":"tools/list"})j"), reply);  // fixed, whatever the document
    const std::optional<Json> json = Json::parse(reply);
    const Json& tools = json->members.at(2).second.members.at(0).second;
    std::string names;
    for (const Json& t : tools.items) names += t.members.at(1).second.text + " ";
    EXPECT_EQ(names, "describe get_element define_element remove_element rename_element set_property remove_property "
                     "set_metadata connect disconnect save load search compose import export commit ");
    // One entry in full; the others differ only in their texts.
    EXPECT_EQ(tools.items[5].dump(),
              R"j({"description":"Set a typed property on an element. Value is a JSON scalar OR a numeric array; pass dtype to coerce/shape (e.g. float3, int[]).","name":"set_property","inputSchema":{"type":"object","properties":{"path":{"description":"Element path","type":"string"},"name":{"description":"Property name","type":"string"},"value":{"description":"Scalar (number/string/bool) or a numeric array, e.g. [0,1,0]"},"dtype":{"description":"Optional: int32/float32/float64/bool/str/float2/float3/int[]/)j"
              "\xE2\x80\xA6"
              R"j(","type":"string"}},"required":["path","name","value"]}})j");
    const std::string describe = tools.items[0].dump(), commit = tools.items[16].dump();
    EXPECT_EQ(describe.substr(describe.find(",\"name\"")),
              R"(,"name":"describe","inputSchema":{"type":"object","properties":{},"required":[]}})");
    EXPECT_NE(commit.find(R"j("push":{"description":"Also push to the remote (default false)","type":"boolean"}},"required":[]})j"),
              std::string::npos);
}

TEST(ValueText, Forms) {
    using ostrevik::DType;
    using ostrevik::Value;
    using testsupport::rawValue;
    const std::pair<Value, const char*> cases[] = {
        {rawValue<char>(DType::Char, {}, {'q'}), "char = 'q'"},
        {rawValue<std::int16_t>(DType::Int16, {}, {-2}), "int16 = -2"},
        {rawValue<std::uint16_t>(DType::Float16, {}, {0x3E00}), "float16 = 2"},  // 1.5 rounds away
        {Value(std::int64_t(16777217)), "int64 = 16777216"},
        {Value(0.1f), "float32 = 0.1"},
        {rawValue<std::int32_t>(DType::Int32, {2, 3}, std::vector<std::int32_t>(6)), "int32[2,3] (6 elems)"},
        {rawValue<float>(DType::Float32, {0}, {}), "float32[0] (0 elems)"},
        {testsupport::strValue({2}, {"a", "b"}), "str[2] (2 elems)"},
        {testsupport::strValue({0}, {}), "null"},
        {Value("q\""), "str = \"q\"\""},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(zserver::valueText(value), text);
}

}  // namespace
