// In-process dispatch: exact reply bytes for every kind of message.
#include "Dispatch.h"

#include <ostrevik/codecs.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zserver::dispatch;
using zserver::Session;

// Captures log lines for the lifetime of the fixture.
class DispatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        zserver::Log::instance().sink = [this](const std::string& line) { lines.push_back(line); };
    }
    void TearDown() override { zserver::Log::instance().sink = nullptr; }

    std::optional<std::string> run(std::string_view text) { return dispatch(session, text); }

    // Log lines without their "[HH:MM:SS] " stamp.
    std::vector<std::string> messages() const {
        std::vector<std::string> out;
        for (const auto& line : lines) out.push_back(line.substr(11));
        return out;
    }

    Session session;
    std::vector<std::string> lines;
};

const char* const kParseError =
    R"({"id":null,"jsonrpc":"2.0","error":{"code":-32700,"message":"parse error"}})";

TEST_F(DispatchTest, ParseErrorsReplyWithNullId) {
    for (const char* text : {" ", "\t", "{", "{\"id\":1,", "nul", "[1,]", "{\"id\":1}x",
                             R"({"id":1,"method":"x","params":{"a-b":{}}})",
                             R"({"id":1,"method":"ping","params":{"":[]}})"}) {
        EXPECT_EQ(run(text), kParseError) << text;
    }
    EXPECT_EQ(run(std::string(202, '[') + std::string(202, ']')), kParseError);
    EXPECT_TRUE(lines.empty());  // parse errors are not logged
}

TEST_F(DispatchTest, InvalidRequestOnlyWithId) {
    const std::string invalid =
        R"({"id":1,"jsonrpc":"2.0","error":{"code":-32600,"message":"invalid request: no method"}})";
    EXPECT_EQ(run(R"({"id":1})"), invalid);
    EXPECT_EQ(run(R"({"id":1,"method":5})"), invalid);
    EXPECT_EQ(run(R"({"id":1,"method":null})"), invalid);
    EXPECT_EQ(run(R"({"id":1,"method":["ping"]})"), invalid);
    for (const char* text : {"{}", "[1,2]", "42", "\"ping\"", "null", R"({"method":7})"})
        EXPECT_EQ(run(text), std::nullopt) << text;
}

TEST_F(DispatchTest, UnknownMethod) {
    EXPECT_EQ(run(R"({"id":1,"method":""})"),
              R"({"id":1,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: "}})");
    EXPECT_EQ(run(R"({"id":1,"method":"x","params":{"a-b":1}})"),
              R"({"id":1,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: x"}})");
    EXPECT_EQ(run(R"({"id":2,"method":"Ping"})"),
              R"({"id":2,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: Ping"}})");
    EXPECT_EQ(run(R"({"method":"nope"})"), std::nullopt);
}

TEST_F(DispatchTest, PingAndIdForms) {
    EXPECT_EQ(run(R"({"jsonrpc":"2.0","id":3,"method":"ping"})"), R"({"id":3,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run(R"({"id":null,"method":"ping"})"), R"({"id":null,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run(R"({"id":"a\nb","method":"ping"})"), R"({"id":"a\nb","jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run(R"({"id":1.5,"method":"ping"})"), R"({"id":1.5,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run(R"({"id":1.0,"method":"ping"})"), R"({"id":1,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run(R"({"id":true,"method":"ping"})"), R"({"id":true,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run("\r\n {\"method\" : \"ping\", \"id\" : 9}\r"), R"({"id":9,"jsonrpc":"2.0","result":{}})");
    // No id, or an id that is a container, draws no reply.
    EXPECT_EQ(run(R"({"method":"ping"})"), std::nullopt);
    EXPECT_EQ(run(R"({"id":{"a":1},"method":"ping"})"), std::nullopt);
    EXPECT_EQ(run(R"({"id":[1],"method":"ping"})"), std::nullopt);
}

TEST_F(DispatchTest, NotificationsAreDropped) {
    EXPECT_EQ(run(R"({"id":7,"method":"notifications/cancelled"})"), std::nullopt);
    EXPECT_EQ(run(R"({"method":"notifications/initialized"})"), std::nullopt);
    EXPECT_EQ(run(R"({"id":1,"method":"notifications/"})"), std::nullopt);
    EXPECT_EQ(run(R"({"id":1,"method":"notifications"})"),
              R"({"id":1,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: notifications"}})");
    EXPECT_TRUE(lines.empty());
}

TEST_F(DispatchTest, Initialize) {
    const std::string instructions =
        "This server edits Zelth documents \xE2\x80\x94 an ordered tree of typed elements (each element's PATH is its "
        "identity), their typed properties, and the connections between element slots. One document is open at a "
        "time, within a launch root directory.\\n\\nTypical flow: `search` to find .zeltha/.zelth files under the "
        "root, `load` one (this REPLACES the open document), inspect with `describe` (cheap whole-document "
        "overview) and `get_element`, mutate by path with `define_element` / `set_property` / `remove_element` / "
        "`rename_element` / `connect`, then `save` and `commit` (commit is the versioning + publish "
        "step).\\n\\nConventions: paths are absolute from root, e.g. `/world/sphere`; a slot is "
        "`/element.property`. Element names use [A-Za-z0-9_] only \xE2\x80\x94 no hyphens or spaces. Every file "
        "path is confined to the launch root.";
    auto expected = [&](const std::string& id, const std::string& version) {
        return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":{"instructions":")" + instructions +
               R"(","protocolVersion":")" + version +
               R"(","capabilities":{"tools":{}},"serverInfo":{"name":"ostrevik-server","version":"0.1.0"}}})";
    };
    EXPECT_EQ(run(R"({"id":1,"method":"initialize"})"), expected("1", "2024-11-05"));
    EXPECT_EQ(run(R"({"id":"i","method":"initialize","params":{"protocolVersion":"1999-01-01"}})"),
              expected("\"i\"", "1999-01-01"));
    EXPECT_EQ(run(R"({"id":2,"method":"initialize","params":{"protocolVersion":20250101}})"),
              expected("2", "2024-11-05"));
    EXPECT_EQ(run(R"({"method":"initialize"})"), std::nullopt);
    EXPECT_EQ(messages(), (std::vector<std::string>{"initialize", "initialize", "initialize", "initialize"}));
    // "[HH:MM:SS] " in front of the message; '0' in the shape stands for any digit.
    const std::string shape = "[00:00:00] initialize";
    const std::string& first = lines.front();
    ASSERT_EQ(first.size(), shape.size());
    for (size_t i = 0; i < shape.size(); ++i)
        EXPECT_TRUE(shape[i] == '0' ? first[i] >= '0' && first[i] <= '9' : first[i] == shape[i]) << first;
}

TEST_F(DispatchTest, ToolsListWrapsTheCatalog) {
    auto reply = run(R"({"id":4,"method":"tools/list"})");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->rfind(R"({"id":4,"jsonrpc":"2.0","result":{"tools":[)", 0), 0u) << *reply;
    EXPECT_EQ(reply->substr(reply->size() - 3), "]}}");
    EXPECT_EQ(run(R"({"method":"tools/list"})"), std::nullopt);
}

TEST_F(DispatchTest, ToolsCallFrame) {
    EXPECT_EQ(run(R"({"id":1,"method":"tools/call"})"),
              R"({"id":1,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":"missing tool name","type":"text"}]}})");
    EXPECT_EQ(run(R"({"id":2,"method":"tools/call","params":{"name":3}})"),
              R"({"id":2,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":"missing tool name","type":"text"}]}})");
    EXPECT_EQ(run(R"({"id":3,"method":"tools/call","params":{"name":"nope","arguments":{}}})"),
              R"({"id":3,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":"unknown tool: nope","type":"text"}]}})");
    // Without an id the tool still runs and logs, but nothing is returned.
    EXPECT_EQ(run(R"({"method":"tools/call","params":{"name":"a\nb"}})"), std::nullopt);
    EXPECT_EQ(messages(), (std::vector<std::string>{"tool/call  (none)", "tool/call  (none)", "tool/call  nope",
                                                    "  ERR  unknown tool: nope", "tool/call  a\nb",
                                                    "  ERR  unknown tool: a"}));
}

TEST(BuilderReader, BuildAndRead) {
    zserver::Builder builder;
    auto root = zserver::P("/root");
    auto list = builder.array(root, "list");
    builder.doc.append(list.child(std::string_view("0")), "object");
    builder.set(list.child(std::string_view("0")), "s", "x");
    builder.put(root, "n", ostrevik::Value(true));
    builder.put(root, "n", ostrevik::Value(std::string("replaced")));
    builder.put(zserver::P("/root/absent"), "k", ostrevik::Value(true));  // silently ignored
    builder.set(builder.object(root, "o"), "k", std::string("v"));
    EXPECT_EQ(builder.toJson(), R"({"n":"replaced","list":[{"s":"x"}],"o":{"k":"v"}})");

    ostrevik::codecs::JsonCodec codec;
    auto doc = codec.decode(R"({"s":"t","n":1,"z":null,"a":["x"]})", nullptr);
    ASSERT_TRUE(doc);
    zserver::Reader reader(*doc);
    EXPECT_EQ(reader.str(root, "s"), "t");
    EXPECT_EQ(reader.str(root, "n"), std::nullopt);
    EXPECT_EQ(reader.str(root, "z"), std::nullopt);
    EXPECT_NE(reader.prop(root, "z"), nullptr);
    EXPECT_EQ(reader.str(root, "missing"), std::nullopt);
    EXPECT_EQ(reader.str(zserver::P("/root/a"), "0"), "x");
    EXPECT_EQ(reader.prop(zserver::P("/root/nothing"), "s"), nullptr);
}

}  // namespace
