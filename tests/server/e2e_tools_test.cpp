// A short editing session against the built server over pipes: exact replies and log lines.
#include "support/server_process.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace {

using testsupport::ServerProcess;

std::string call(int id, const std::string& tool, const std::string& args) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" +
           tool + R"(","arguments":)" + args + "}}";
}

std::string text(int id, const std::string& body) {
    return R"({"id":)" + std::to_string(id) + R"(,"jsonrpc":"2.0","result":{"content":[{"text":")" + body +
           R"(","type":"text"}]}})";
}

std::string errorText(int id, const std::string& body) {
    return R"({"id":)" + std::to_string(id) + R"(,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":")" +
           body + R"(","type":"text"}]}})";
}

TEST(ElementToolsOverStdio, BuildAndInspect) {
    ServerProcess server({"--root", std::filesystem::temp_directory_path().string()});
    ASSERT_TRUE(server.started());
    EXPECT_EQ(server.request(call(1, "define_element", R"({"path":"/world","type":"group"})")),
              text(1, "defined /world [group]"));
    EXPECT_EQ(server.request(call(2, "define_element", R"({"path":"/world/sphere","type":"mesh"})")),
              text(2, "defined /world/sphere [mesh]"));
    EXPECT_EQ(server.request(call(3, "define_element", R"({"path":"/world/a-b","type":"mesh"})")),
              errorText(3, "missing or invalid 'path'"));
    EXPECT_EQ(server.request(call(4, "set_property", R"({"path":"/world/sphere","name":"radius","value":2})")),
              text(4, "set /world/sphere.radius"));
    EXPECT_EQ(server.request(call(5, "set_property",
                                  R"({"path":"/world/sphere","name":"color","value":[1,0,0],"dtype":"float3"})")),
              text(5, "set /world/sphere.color (3 values)"));
    // No id: the edit happens, nothing is sent; the next reply is the ping's.
    ASSERT_TRUE(server.send(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"set_metadata","arguments":{"path":"/world","key":"note","value":"hi"}}})"));
    EXPECT_EQ(server.request(R"({"jsonrpc":"2.0","id":6,"method":"ping"})"), R"({"id":6,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.request(call(7, "connect", R"({"source":"/world.out","target":"/world/sphere.in"})")),
              text(7, "connected /world.out -> /world/sphere.in"));
    EXPECT_EQ(server.request(call(8, "get_element", R"({"path":"/world"})")),
              text(8, R"(path: /world\ntype: group\nproperties:\nmetadata:\n  note = hi\nchildren:\n  /world/sphere\n)"));
    EXPECT_EQ(server.request(call(9, "get_element", R"({"path":"/world/sphere"})")),
              text(9, R"(path: /world/sphere\ntype: mesh\nproperties:\n  color : float32[3] (3 elems)\n  radius : float64 = 2\nmetadata:\nchildren:\n)"));
    EXPECT_EQ(server.request(call(10, "describe", "{}")),
              text(10, R"(document: (unsaved)\n  /world  [group]  0 props\n  /world/sphere  [mesh]  2 props\n)"));
    EXPECT_EQ(server.request(call(11, "remove_element", R"({"path":"/world"})")),
              text(11, "removed 2 element(s) under /world"));
    EXPECT_EQ(server.request(call(12, "disconnect", R"({"target":"/world/sphere.in"})")),
              errorText(12, "no connection into /world/sphere.in"));
    EXPECT_EQ(server.finish(), 0);
    const std::string& log = server.stderrText();
    EXPECT_NE(log.find("] tool/call  define_element\n"), std::string::npos) << log;
    EXPECT_NE(log.find("]   ERR  missing or invalid 'path'\n"), std::string::npos) << log;
    EXPECT_NE(log.find("]   ok   set metadata note\n"), std::string::npos) << log;
    EXPECT_NE(log.find("]   ok   path: /world\n"), std::string::npos) << log;  // cut at the first newline
}

}  // namespace
