// In-process dispatch: exact reply bytes for every kind of message.
#include "Dispatch.h"

#include <ostrevik/codecs.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zserver::dispatch;

// Captures log lines, without their "[HH:MM:SS] " stamps, for the lifetime of the fixture.
class DispatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        zserver::Log::instance().sink = [this](const std::string& line) { log.push_back(line.substr(11)); };
    }
    void TearDown() override { zserver::Log::instance().sink = nullptr; }
    std::optional<std::string> run(std::string_view text) { return dispatch(session, text); }

    zserver::Session session;
    std::vector<std::string> log;
};

std::string error(const std::string& id, int code, const std::string& message) {
    return R"({"id":)" + id + R"(,"jsonrpc":"2.0","error":{"code":)" + std::to_string(code) + R"(,"message":")" +
           message + "\"}}";
}

TEST_F(DispatchTest, ParseErrorsReplyWithNullId) {
    // Malformed or too deep JSON fails also inside a member that would be skipped.
    for (const std::string& text : std::vector<std::string>{" ", "\t", "{", "{\"id\":1,", "nul", "[1,]", "{\"id\":1}x",
                                   R"({"id":1,"method":"ping","params":{"a/b":[1,]}})",
                                   R"({"id":1,"method":"ping","params":{"a/b":)" + std::string(202, '[') +
                                       std::string(202, ']') + "}}",
                                   std::string(202, '[') + std::string(202, ']')})
        EXPECT_EQ(run(text), error("null", -32700, "parse error")) << text;
    EXPECT_TRUE(log.empty());  // parse errors are not logged
}

// Clients put namespaced keys ("io.example/tasks") on objects no method reads: such members are
// skipped with everything inside, and the message is handled as if they were absent.
TEST_F(DispatchTest, ContainersUnderUnnameableKeysAreSkipped) {
    EXPECT_EQ(run(R"({"id":1,"method":"x","params":{"a-b":{}}})"), error("1", -32601, "method not found: x"));
    EXPECT_EQ(run(R"({"id":1,"method":"ping","params":{"":[],"_meta":{"io.x/related-task":{"taskId":"t"}}}})"),
              run(R"({"id":1,"method":"ping"})"));
    const std::string init =
        R"({"jsonrpc":"2.0","id":3,"method":"initialize","params":{"protocolVersion":"2024-11-05",)"
        R"("capabilities":{%s},"clientInfo":{"name":"c","version":"1"}}})";
    auto with = [&](const std::string& caps) {
        std::string text = init;
        return text.replace(text.find("%s"), 2, caps);
    };
    const auto plain = run(with(""));
    ASSERT_TRUE(plain && plain->find("\"result\"") != std::string::npos);
    EXPECT_EQ(run(with(R"("extensions":{"io.modelcontextprotocol/tasks":{},"io.modelcontextprotocol/skills":{}})")),
              plain);
}

TEST_F(DispatchTest, InvalidRequestsAndUnknownMethods) {
    for (const char* method : {"", "5", "null", "[\"ping\"]"})
        EXPECT_EQ(run(std::string(R"({"id":1)") + (*method ? ",\"method\":" : "") + method + "}"),
                  error("1", -32600, "invalid request: no method"))
            << method;
    for (const char* text : {"{}", "[1,2]", "42", "\"ping\"", "null", R"({"method":7})", R"({"method":"nope"})"})
        EXPECT_EQ(run(text), std::nullopt) << text;
    EXPECT_EQ(run(R"({"id":1,"method":""})"), error("1", -32601, "method not found: "));
    EXPECT_EQ(run(R"({"id":1,"method":"x","params":{"a-b":1}})"), error("1", -32601, "method not found: x"));
    EXPECT_EQ(run(R"({"id":2,"method":"Ping"})"), error("2", -32601, "method not found: Ping"));
    EXPECT_EQ(run(R"({"id":1,"method":"notifications"})"), error("1", -32601, "method not found: notifications"));
    // Notifications are dropped whether or not they carry an id.
    for (const char* text : {R"({"id":7,"method":"notifications/cancelled"})",
                             R"({"method":"notifications/initialized"})", R"({"id":1,"method":"notifications/"})"})
        EXPECT_EQ(run(text), std::nullopt) << text;
    EXPECT_TRUE(log.empty());
}

TEST_F(DispatchTest, PingAndIdForms) {
    const std::pair<const char*, const char*> cases[] = {
        {R"("jsonrpc":"2.0","id":3,)", "3"}, {R"("id":null,)", "null"}, {R"("id":"a\nb",)", R"("a\nb")"},
        {R"("id":1.5,)", "1.5"},             {R"("id":1.0,)", "1"},     {R"("id":true,)", "true"}};
    for (const auto& [id, shown] : cases)
        EXPECT_EQ(run(std::string("{") + id + R"("method":"ping"})"),
                  std::string(R"({"id":)") + shown + R"(,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(run("\r\n {\"method\" : \"ping\", \"id\" : 9}\r"), R"({"id":9,"jsonrpc":"2.0","result":{}})");
    // No id, or an id that is a container, draws no reply.
    for (const char* text : {R"({"method":"ping"})", R"({"id":{"a":1},"method":"ping"})", R"({"id":[1],"method":"ping"})"})
        EXPECT_EQ(run(text), std::nullopt) << text;
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
    EXPECT_EQ(log, std::vector<std::string>(4, "initialize"));
}

TEST_F(DispatchTest, ToolsListAndCallFrame) {
    auto list = run(R"({"id":4,"method":"tools/list"})");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->rfind(R"({"id":4,"jsonrpc":"2.0","result":{"tools":[)", 0), 0u) << *list;
    EXPECT_EQ(list->substr(list->size() - 3), "]}}");
    EXPECT_EQ(run(R"({"method":"tools/list"})"), std::nullopt);

    auto failed = [](int id, const std::string& text) {
        return R"({"id":)" + std::to_string(id) + R"(,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":")" +
               text + R"(","type":"text"}]}})";
    };
    EXPECT_EQ(run(R"({"id":1,"method":"tools/call"})"), failed(1, "missing tool name"));
    EXPECT_EQ(run(R"({"id":2,"method":"tools/call","params":{"name":3}})"), failed(2, "missing tool name"));
    EXPECT_EQ(run(R"({"id":3,"method":"tools/call","params":{"name":"nope","arguments":{}}})"),
              failed(3, "unknown tool: nope"));
    // Without an id the tool still runs and logs, but nothing is returned.
    EXPECT_EQ(run(R"({"method":"tools/call","params":{"name":"a\nb"}})"), std::nullopt);
    EXPECT_EQ(log, (std::vector<std::string>{"tool/call  (none)", "tool/call  (none)", "tool/call  nope",
                                             "  ERR  unknown tool: nope", "tool/call  a\nb", "  ERR  unknown tool: a"}));
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

    auto doc = ostrevik::codecs::JsonCodec().decode(R"({"s":"t","n":1,"z":null,"a":["x"]})", nullptr);
    ASSERT_TRUE(doc);
    zserver::Reader reader(*doc);
    EXPECT_EQ(reader.str(root, "s"), "t");
    for (const char* absent : {"n", "z", "missing"}) EXPECT_EQ(reader.str(root, absent), std::nullopt) << absent;
    EXPECT_NE(reader.prop(root, "z"), nullptr);
    EXPECT_EQ(reader.str(zserver::P("/root/a"), "0"), "x");
    EXPECT_EQ(reader.prop(zserver::P("/root/nothing"), "s"), nullptr);
}

}  // namespace
