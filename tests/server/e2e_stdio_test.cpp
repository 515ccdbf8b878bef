// The built server over real pipes: the stdio loop, the command line and the log.
#include "support/server_process.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

namespace {

using testsupport::ServerProcess;
using testsupport::TempDir;
using testsupport::toolCall;

const std::string kPong1 = R"({"id":1,"jsonrpc":"2.0","result":{}})";

// The log lines without their "[HH:MM:SS] " stamps; fails the test on an unstamped line.
std::vector<std::string> logMessages(const std::string& err) {
    std::vector<std::string> out;
    for (size_t start = 0, end; start < err.size(); start = end + 1) {
        end = std::min(err.find('\n', start), err.size());
        std::string line = err.substr(start, end - start);
        const std::string shape = "[00:00:00] ";  // '0' stands for any digit
        bool stamped = line.size() >= shape.size();
        for (size_t i = 0; stamped && i < shape.size(); ++i)
            stamped = shape[i] == '0' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
        if (stamped) out.push_back(line.substr(11));
        else ADD_FAILURE() << "unstamped log line: " << line;
    }
    return out;
}

std::string toolText(int id, const std::string& body, bool error = false) {
    return R"({"id":)" + std::to_string(id) + R"(,"jsonrpc":"2.0","result":{)" + (error ? R"("isError":true,)" : "") +
           R"("content":[{"text":")" + body + R"(","type":"text"}]}})";
}

TEST(StdioServer, ConversationAndLog) {
    TempDir root;
    ServerProcess server({"--root", root.str()});
    ASSERT_TRUE(server.started());
    EXPECT_EQ(server.request(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"x"}})")
                  .value_or("")
                  .rfind(R"({"id":1,"jsonrpc":"2.0","result":{"instructions":"This server edits)", 0),
              0u);
    // Lines without a reply must not shift the replies that follow.
    for (const char* silent : {R"({"jsonrpc":"2.0","method":"notifications/initialized"})", "", R"({"method":"ping"})", "[1,2]"})
        ASSERT_TRUE(server.send(silent));
    EXPECT_EQ(server.request(R"({"id":2,"method":"ping"})"), R"({"id":2,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.request("   "), R"({"id":null,"jsonrpc":"2.0","error":{"code":-32700,"message":"parse error"}})");
    EXPECT_EQ(server.request("{\"id\":3,\"method\":\"ping\"}\r"), R"({"id":3,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.request(R"({"id":4,"method":"bogus"})"),
              R"({"id":4,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: bogus"}})");
    EXPECT_EQ(server.request(toolCall("nope", "", 6)), toolText(6, "unknown tool: nope", true));
    // The last line has no newline and is answered all the same.
    ASSERT_TRUE(server.send(R"({"id":7,"method":"ping"})", false));
    server.closeStdin();
    EXPECT_EQ(server.readLine(), R"({"id":7,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(server.pendingStdout(), "");  // replies only, one per line
    EXPECT_EQ(logMessages(server.stderrText()),
              (std::vector<std::string>{"document: (new)  (0 elements)",
                                        "ostrevik-server 0.1.0 \xE2\x80\x94 listening on stdio (JSON-RPC; logs on stderr)",
                                        "initialize", "tool/call  nope", "  ERR  unknown tool: nope"}));
}

TEST(StdioServer, EditingSession) {
    TempDir root;
    ServerProcess server({"--root", root.str()});
    EXPECT_EQ(server.request(toolCall("define_element", R"({"path":"/world","type":"group"})", 1)),
              toolText(1, "defined /world [group]"));
    EXPECT_EQ(server.request(toolCall("define_element", R"({"path":"/world/a-b","type":"mesh"})", 2)),
              toolText(2, "missing or invalid 'path'", true));
    // No id: the edit happens and nothing is sent; the next reply is the ping's.
    ASSERT_TRUE(server.send(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"set_metadata","arguments":{"path":"/world","key":"note","value":"hi"}}})"));
    EXPECT_EQ(server.request(R"({"jsonrpc":"2.0","id":1,"method":"ping"})"), kPong1);
    EXPECT_EQ(server.request(toolCall("get_element", R"({"path":"/world"})", 3)),
              toolText(3, R"(path: /world\ntype: group\nproperties:\nmetadata:\n  note = hi\nchildren:\n)"));
    EXPECT_EQ(server.finish(), 0);
    auto log = logMessages(server.stderrText());
    log.erase(log.begin(), log.begin() + 2);
    EXPECT_EQ(log, (std::vector<std::string>{"tool/call  define_element", "  ok   defined /world [group]",
                                             "tool/call  define_element", "  ERR  missing or invalid 'path'",
                                             "tool/call  set_metadata", "  ok   set metadata note",
                                             "tool/call  get_element", "  ok   path: /world"}));  // cut at the first newline
}

TEST(StdioServer, NamedDocumentAndEndOfInput) {
    TempDir root;
    std::string doc = root.str() + "/fresh.zeltha";
    ServerProcess server({"--root", root.str(), doc, "ignored-second-document"});
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(logMessages(server.stderrText()).at(0), "document: " + doc + "  (0 elements)");
    EXPECT_EQ(server.pendingStdout(), "");

    // A document path alone is enough, and an option standing last without a value is one.
    ServerProcess bare({"--root"});
    EXPECT_EQ(bare.finish(), 0);
    EXPECT_EQ(logMessages(bare.stderrText()).at(0), "document: --root  (0 elements)");
}

TEST(StdioServer, UsageAndTokenFileErrors) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"--http", "8080"}, {"--root", ""}, {"--token", "t", "--http", "1"}, {""}}) {
        ServerProcess server(args);
        EXPECT_EQ(server.finish(), 2);
        EXPECT_EQ(server.stderrText(),
                  "usage: ostrevik-server [--root <dir>] [--http <port> (--token <tok> | --token-file <path>)] "
                  "[<document.zeltha|.zelth>]\n");
        EXPECT_EQ(server.pendingStdout(), "");
    }
    TempDir dir;
    for (const std::string& file : {dir.str() + "/missing", dir.str()}) {
        ServerProcess unreadable({"--root", dir.str(), "--token-file", file});
        EXPECT_EQ(unreadable.finish(), 2);
        EXPECT_EQ(unreadable.stderrText(), "ostrevik-server: cannot read token file " + file + "\n");
    }
    // A readable token file with a negative port still serves stdio.
    std::ofstream(dir.dir / "token") << "secret \t\r\n";
    ServerProcess readable({"--token-file", dir.str() + "/token", "--root", dir.str(), "--http", "-5"});
    EXPECT_EQ(readable.request(R"({"id":1,"method":"ping"})"), kPong1);
    EXPECT_EQ(readable.finish(), 0);
}

TEST(StdioServer, HugeLines) {
    TempDir root;
    ServerProcess server({"--root", root.str()});
    std::string big = R"({"id":1,"method":"ping","params":{"pad":")";
    big.append(50u << 20, 'x');
    std::string scalars = R"({"id":1,"method":"ping","params":{)", objects = scalars;
    for (int i = 0; i < 200000; ++i) {
        scalars += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":" + std::to_string(i);
        objects += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":{}";
    }
    for (const std::string& line : {big + "\"}}", scalars + "}}", objects + "}}"}) {
        ASSERT_TRUE(server.send(line));
        EXPECT_EQ(server.readLine(std::chrono::seconds(120)), kPong1);
    }
    EXPECT_EQ(server.finish(), 0);
}

}  // namespace
