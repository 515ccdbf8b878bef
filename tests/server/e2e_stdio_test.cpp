// The built server over real pipes: the stdio loop, the command line and the log.
#include "support/server_process.h"

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using testsupport::ServerProcess;
namespace fs = std::filesystem;

const char* const kUsage =
    "usage: ostrevik-server [--root <dir>] [--http <port> (--token <tok> | --token-file <path>)] "
    "[<document.zeltha|.zelth>]\n";

// A fresh directory for one test, removed afterwards.
struct TempDir {
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "ostrevik-e2e-XXXXXX").string();
        path = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::string path;
};

// True when `line` starts with a "[HH:MM:SS] " stamp.
bool stamped(const std::string& line) {
    const char* shape = "[00:00:00] ";
    if (line.size() < 11) return false;
    for (int i = 0; i < 11; ++i) {
        bool ok = shape[i] == '0' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
        if (!ok) return false;
    }
    return true;
}

// The log lines without their stamps; fails the test on an unstamped line.
std::vector<std::string> logMessages(const std::string& err) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < err.size()) {
        size_t end = err.find('\n', start);
        if (end == std::string::npos) end = err.size();
        std::string line = err.substr(start, end - start);
        if (stamped(line))
            out.push_back(line.substr(11));
        else
            ADD_FAILURE() << "unstamped log line: " << line;
        start = end + 1;
    }
    return out;
}

TEST(StdioServer, ConversationAndLog) {
    TempDir root;
    ServerProcess server({"--root", root.path});
    ASSERT_TRUE(server.started());
    EXPECT_EQ(server.request(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"x"}})")
                  .value_or("")
                  .rfind(R"({"id":1,"jsonrpc":"2.0","result":{"instructions":"This server edits)", 0),
              0u);
    // Lines without a reply must not shift the replies that follow.
    ASSERT_TRUE(server.send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"));
    ASSERT_TRUE(server.send(""));
    ASSERT_TRUE(server.send(R"({"method":"ping"})"));
    ASSERT_TRUE(server.send("[1,2]"));
    EXPECT_EQ(server.request(R"({"id":2,"method":"ping"})"), R"({"id":2,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.request("   "), R"({"id":null,"jsonrpc":"2.0","error":{"code":-32700,"message":"parse error"}})");
    EXPECT_EQ(server.request("{\"id\":3,\"method\":\"ping\"}\r"), R"({"id":3,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.request(R"({"id":4,"method":"bogus"})"),
              R"({"id":4,"jsonrpc":"2.0","error":{"code":-32601,"message":"method not found: bogus"}})");
    EXPECT_EQ(server.request(R"({"id":5})"),
              R"({"id":5,"jsonrpc":"2.0","error":{"code":-32600,"message":"invalid request: no method"}})");
    EXPECT_EQ(server.request(R"({"id":6,"method":"tools/call","params":{"name":"nope"}})"),
              R"({"id":6,"jsonrpc":"2.0","result":{"isError":true,"content":[{"text":"unknown tool: nope","type":"text"}]}})");
    // The last line has no newline and is answered all the same.
    ASSERT_TRUE(server.send(R"({"id":7,"method":"ping"})", false));
    server.closeStdin();
    EXPECT_EQ(server.readLine(), R"({"id":7,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(server.pendingStdout(), "");  // replies only, one per line

    EXPECT_EQ(logMessages(server.stderrText()),
              (std::vector<std::string>{
                  "document: (new)  (0 elements)",
                  "ostrevik-server 0.1.0 \xE2\x80\x94 listening on stdio (JSON-RPC; logs on stderr)",
                  "initialize", "tool/call  nope", "  ERR  unknown tool: nope"}));
}

TEST(StdioServer, NamedDocumentAndEndOfInput) {
    TempDir root;
    std::string doc = root.path + "/fresh.zeltha";
    ServerProcess server({"--root", root.path, doc, "ignored-second-document"});
    EXPECT_EQ(server.finish(), 0);
    auto log = logMessages(server.stderrText());
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log[0], "document: " + doc + "  (0 elements)");
    EXPECT_EQ(server.pendingStdout(), "");

    // A document path alone is enough, and an option standing last without a value is one.
    ServerProcess bare({"--root"});
    EXPECT_EQ(bare.finish(), 0);
    EXPECT_EQ(logMessages(bare.stderrText()).at(0), "document: --root  (0 elements)");
}

TEST(StdioServer, UsageErrors) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"--http", "8080"}, {"--root", ""}, {"--token", "t", "--http", "1"}, {""}}) {
        ServerProcess server(args);
        EXPECT_EQ(server.finish(), 2);
        EXPECT_EQ(server.stderrText(), kUsage);
        EXPECT_EQ(server.pendingStdout(), "");
    }
}

TEST(StdioServer, TokenFile) {
    TempDir dir;
    std::string missing = dir.path + "/missing";
    ServerProcess unreadable({"--root", dir.path, "--token-file", missing});
    EXPECT_EQ(unreadable.finish(), 2);
    EXPECT_EQ(unreadable.stderrText(), "ostrevik-server: cannot read token file " + missing + "\n");

    ServerProcess directory({"--token-file", dir.path, "--root", dir.path});
    EXPECT_EQ(directory.finish(), 2);
    EXPECT_EQ(directory.stderrText(), "ostrevik-server: cannot read token file " + dir.path + "\n");

    // A readable token file with stdio still serves stdio.
    std::string tokenFile = dir.path + "/token";
    std::ofstream(tokenFile) << "secret \t\r\n";
    ServerProcess readable({"--token-file", tokenFile, "--root", dir.path, "--http", "-5"});
    EXPECT_EQ(readable.request(R"({"id":1,"method":"ping"})"), R"({"id":1,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(readable.finish(), 0);
}

TEST(StdioServer, HugeLines) {
    TempDir root;
    ServerProcess server({"--root", root.path});
    const auto patience = std::chrono::seconds(120);

    std::string big = R"({"id":1,"method":"ping","params":{"pad":")";
    big.append(50u << 20, 'x');
    big += "\"}}";
    ASSERT_TRUE(server.send(big));
    big.clear();
    big.shrink_to_fit();
    EXPECT_EQ(server.readLine(patience), R"({"id":1,"jsonrpc":"2.0","result":{}})");

    std::string scalars = R"({"id":2,"method":"ping","params":{)";
    for (int i = 0; i < 200000; ++i) scalars += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":" + std::to_string(i);
    scalars += "}}";
    ASSERT_TRUE(server.send(scalars));
    EXPECT_EQ(server.readLine(patience), R"({"id":2,"jsonrpc":"2.0","result":{}})");

    std::string objects = R"({"id":3,"method":"ping","params":{)";
    for (int i = 0; i < 200000; ++i) objects += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":{}";
    objects += "}}";
    ASSERT_TRUE(server.send(objects));
    EXPECT_EQ(server.readLine(patience), R"({"id":3,"jsonrpc":"2.0","result":{}})");

    EXPECT_EQ(server.finish(), 0);
}

}  // namespace
