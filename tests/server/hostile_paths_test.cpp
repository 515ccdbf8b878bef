// What a client on the same machine may plant or name to break out of the launch root, through
// the built server: nothing is read or written outside, and nothing crashes or hangs.
#include "support/server_process.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

std::string listing(const fs::path& dir) {
    std::string out;
    for (const auto& e : fs::recursive_directory_iterator(dir)) out += e.path().string() + "\n";
    return out;
}

}  // namespace

TEST(HostilePaths, NothingOutsideTheRootIsReadOrWritten) {
    TempDir t;
    const fs::path root = t.dir / "root", outside = t.dir / "outside";
    writeFile(outside / "secret.zeltha", "#zeltha 4.0\ndef x \"secret\" {\n}\n");
    writeFile(root / "doc.zeltha", "#zeltha 4.0\ndef x \"a\" {\n}\n");
    writeFile(root / "refdev.zeltha", "#zeltha 4.0\ndef x \"h\" {\n    reference \"/dev/zero\"\n}\n");
    writeFile(root / "refout.zeltha",
              "#zeltha 4.0\ndef x \"h\" {\n    reference \"../outside/secret.zeltha\"\n}\n");
    writeFile(root / "refin.zeltha", "#zeltha 4.0\ndef x \"h\" {\n    reference \"doc.zeltha\"\n}\n");
    fs::create_directory(root / "sub");
    ASSERT_EQ(::mkfifo((root / "pipe.zeltha").c_str(), 0644), 0);
    fs::create_symlink("../outside/victim", root / "doc.zeltha.tmp");
    const std::string before = listing(outside);
    const std::string r = root.string();

    ServerProcess s({"--root", r});
    auto call = [&](const std::string& name, const std::string& path) {
        return parseToolReply(s.request(toolCall(name, "{\"path\":" + jsonString(path) + "}")));
    };
    struct Case {
        const char* tool;
        std::string path;
        std::string text;
    };
    const std::string nul("nul\0.zeltha", 11);
    const Case cases[] = {
        {"load", ".", "cannot read " + r},
        {"load", "sub", "cannot read " + r + "/sub"},
        {"load", "pipe.zeltha", "cannot read " + r + "/pipe.zeltha"},
        {"load", "/dev/zero", "cannot read " + r + "/dev/zero"},
        {"load", nul, nul + ": path escapes the document root"},
        {"save", nul, nul + ": path escapes the document root"},
        {"compose", ".", "compose failed for " + r + " (cyclic or missing reference?)"},
        {"compose", "pipe.zeltha", "compose failed for " + r + "/pipe.zeltha (cyclic or missing reference?)"},
        {"compose", "refdev.zeltha", "compose failed for " + r + "/refdev.zeltha (cyclic or missing reference?)"},
        {"compose", "refout.zeltha", "compose failed for " + r + "/refout.zeltha (cyclic or missing reference?)"},
    };
    for (const Case& c : cases) {
        ToolReply reply = call(c.tool, c.path);
        EXPECT_FALSE(reply.ok) << c.tool << " " << c.path;
        EXPECT_EQ(reply.text, c.text);
    }
    // A reference inside the root still composes.
    EXPECT_TRUE(call("compose", "refin.zeltha").ok);

    // The planted temporary link is replaced, never written through.
    ToolReply saved = call("save", "doc.zeltha");
    EXPECT_TRUE(saved.ok) << saved.text;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(root / "doc.zeltha")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(root / "doc.zeltha.tmp")));
    EXPECT_FALSE(fs::exists(root / "nul"));

    s.closeStdin();
    EXPECT_EQ(s.finish(), 0);
    EXPECT_EQ(listing(outside), before);
    EXPECT_EQ(readFile(outside / "secret.zeltha"), "#zeltha 4.0\ndef x \"secret\" {\n}\n");
}

TEST(HostilePaths, DirectoryAsStartDocumentStartsEmpty) {
    TempDir t;
    ServerProcess s({"--root", t.str(), t.str()});
    ToolReply reply = parseToolReply(s.request(toolCall("describe")));
    EXPECT_TRUE(reply.ok) << reply.text;
    s.closeStdin();
    EXPECT_EQ(s.finish(), 0);
}

// Whatever the server holds survives save and load in both formats, however deep.
TEST(HostilePaths, DeepDocumentSurvivesSaveAndLoad) {
    TempDir t;
    ServerProcess s({"--root", t.str()});
    auto call = [&](const std::string& name, const std::string& args) {
        return parseToolReply(s.request(toolCall(name, args)));
    };
    std::string path;
    for (int i = 0; i < 300; ++i) {
        path += "/n";
        ASSERT_TRUE(call("define_element", "{\"path\":\"" + path + "\",\"type\":\"x\"}").ok);
    }
    for (const char* file : {"deep.zeltha", "deep.zelth"}) {
        ASSERT_TRUE(call("save", std::string("{\"path\":\"") + file + "\"}").ok) << file;
        ToolReply loaded = call("load", std::string("{\"path\":\"") + file + "\"}");
        EXPECT_EQ(loaded.text, "loaded " + t.str() + "/" + file + " (300 elements)");
    }
}
