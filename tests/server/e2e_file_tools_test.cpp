// save, load, search, compose and commit through the built server, confined to a launch root.
#include "support/server_process.h"
#include "support/test_util.h"

#include <ostrevik/io.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <thread>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

ToolReply tool(ServerProcess& s, const std::string& name, const std::string& args = "{}") {
    return parseToolReply(s.request(toolCall(name, args)));
}

std::string pathArg(const std::string& p) { return "{\"path\":" + jsonString(p) + "}"; }

int sh(const std::string& cmd) { return std::system(cmd.c_str()); }

}  // namespace

TEST(FileTools, SaveLoadRoundTripInBothFormats) {
    TempDir root;
    ServerProcess s({"--root", root.str()});
    EXPECT_EQ(tool(s, "save").text, "no path: pass 'path' or load a file first");
    tool(s, "define_element", R"({"path":"/scene","type":"group"})");
    tool(s, "set_property", R"({"path":"/scene","name":"size","value":2.5})");

    ToolReply saved = tool(s, "save", pathArg("a/../b.zeltha"));
    EXPECT_TRUE(saved.ok);
    const std::string text = readFile(root.dir / "b.zeltha");
    EXPECT_EQ(saved.text, "saved " + std::to_string(text.size()) + " bytes to " + root.str() + "/b.zeltha");
    EXPECT_EQ(text.rfind("#zeltha 4.0\n", 0), 0u);

    EXPECT_TRUE(tool(s, "save", pathArg("/c.zelth")).ok);
    EXPECT_EQ(readFile(root.dir / "c.zelth").rfind(std::string("ZLTHC\0", 6), 0), 0u);
    EXPECT_TRUE(tool(s, "save", pathArg("d.ZELTH")).ok);
    EXPECT_EQ(readFile(root.dir / "d.ZELTH").rfind("#zeltha", 0), 0u);

    // save without a path now writes to the last target, found again after the confinement.
    tool(s, "define_element", R"({"path":"/more","type":"x"})");
    EXPECT_TRUE(tool(s, "save").ok);
    ToolReply loaded = tool(s, "load", pathArg("d.ZELTH"));
    EXPECT_EQ(loaded.text, "loaded " + root.str() + "/d.ZELTH (2 elements)");
    loaded = tool(s, "load", pathArg("c.zelth"));
    EXPECT_EQ(loaded.text, "loaded " + root.str() + "/c.zelth (1 elements)");
    loaded = tool(s, "load", pathArg(root.str() + "/b.zeltha"));
    EXPECT_EQ(loaded.text, "loaded " + root.str() + "/b.zeltha (1 elements)");
    EXPECT_EQ(s.finish(), 0);
}

TEST(FileTools, LoadFailuresKeepTheDocument) {
    TempDir root;
    writeFile(root.dir / "junk.zeltha", "hello");
    writeFile(root.dir / "bad.zeltha", "#zeltha 9.0\n");
    ServerProcess s({"--root", root.str()});
    tool(s, "define_element", R"({"path":"/keep","type":"x"})");
    EXPECT_EQ(tool(s, "load").text, "missing 'path'");
    EXPECT_EQ(tool(s, "load", pathArg("x.zeltha")).text, "cannot read " + root.str() + "/x.zeltha");
    EXPECT_EQ(tool(s, "load", pathArg("junk.zeltha")).text,
              root.str() + "/junk.zeltha: unrecognized format (no '#zeltha' / 'ZLTHC' / 'ZLTHZ' header)");
    ToolReply bad = tool(s, "load", pathArg("bad.zeltha"));
    EXPECT_FALSE(bad.ok);
    EXPECT_EQ(bad.text.rfind(root.str() + "/bad.zeltha: ", 0), 0u);
    EXPECT_EQ(tool(s, "describe").text, "document: (unsaved)\n  /keep  [x]  0 props\n");
}

TEST(FileTools, EscapesAreRefused) {
    TempDir base;
    fs::path root = base.dir / "w";
    fs::create_directories(root / "sub");
    fs::create_directories(base.dir / "w2");
    fs::create_directories(base.dir / "outside");
    writeFile(base.dir / "outside" / "secret.zeltha", "#zeltha 4.0\ndef \"secret\" {\n}\n");
    writeFile(base.dir / "w2" / "x.zeltha", "#zeltha 4.0\n");
    fs::create_directory_symlink(base.dir / "outside", root / "link");
    fs::create_directory_symlink(root / "link", root / "sub" / "linkToLink");
    fs::create_symlink(base.dir / "outside" / "secret.zeltha", root / "file.zeltha");

    ServerProcess s({"--root", root.string()});
    for (const std::string p : {"../x", "a/../../x", "..", "sub/../../outside/secret.zeltha", "link/secret.zeltha",
                                "sub/linkToLink/secret.zeltha", "file.zeltha", "../w2/x.zeltha",
                                "./sub/../..//outside", "link"}) {
        ToolReply o = tool(s, "load", pathArg(p));
        EXPECT_FALSE(o.ok) << p;
        EXPECT_EQ(o.text, p + ": path escapes the document root");
        EXPECT_EQ(tool(s, "save", pathArg(p)).text, p + ": path escapes the document root");
    }
    // search and compose share the check; one escape each shows that they make it.
    EXPECT_EQ(tool(s, "search", R"({"dir":"../x"})").text, "../x: path escapes the document root");
    EXPECT_EQ(tool(s, "compose", pathArg("file.zeltha")).text, "file.zeltha: path escapes the document root");
    // An absolute path outside is taken relative to the root, so nothing outside is touched.
    ToolReply o = tool(s, "save", pathArg(base.dir.string() + "/outside/secret.zeltha"));
    EXPECT_EQ(o.text, "cannot write " + root.string() + base.dir.string() + "/outside/secret.zeltha");
    EXPECT_EQ(readFile(base.dir / "outside" / "secret.zeltha"), "#zeltha 4.0\ndef \"secret\" {\n}\n");
    EXPECT_FALSE(fs::exists(base.dir / "w2" / "x.zeltha.tmp"));
}

TEST(FileTools, SearchFindsDocumentsAndCaps) {
    TempDir root;
    writeFile(root.dir / "A.ZELTHA", "#zeltha 4.0\n");
    writeFile(root.dir / "deep" / "er" / "b.zelth", "x");
    writeFile(root.dir / "a.zeltha.bak", "x");
    writeFile(root.dir / "notes.txt", "x");
    fs::create_directories(root.dir / "empty");
    ServerProcess s({"--root", root.str()});

    EXPECT_EQ(tool(s, "search", R"({"dir":"empty"})").text, "0 ostrevik file(s) under " + root.str() + "/empty:\n");
    EXPECT_EQ(tool(s, "search", R"({"dir":"A.ZELTHA"})").text, root.str() + "/A.ZELTHA: not a directory");
    ToolReply all = tool(s, "search");
    EXPECT_EQ(all.text.rfind("2 ostrevik file(s) under " + root.str() + ":\n", 0), 0u) << all.text;
    EXPECT_NE(all.text.find("  " + root.str() + "/A.ZELTHA\n"), std::string::npos);
    EXPECT_NE(all.text.find("  " + root.str() + "/deep/er/b.zelth\n"), std::string::npos);
    EXPECT_EQ(tool(s, "search", R"({"query":"er/b"})").text,
              "1 ostrevik file(s) under " + root.str() + " matching \"er/b\":\n  " + root.str() + "/deep/er/b.zelth\n");

    for (int i = 0; i < 501; ++i) writeFile(root.dir / "many" / (std::to_string(i) + ".zeltha"), "");
    ToolReply capped = tool(s, "search", R"({"dir":"many"})");
    EXPECT_EQ(capped.text.rfind("500 ostrevik file(s) under ", 0), 0u);
    EXPECT_TRUE(capped.text.size() > 20 &&
                capped.text.compare(capped.text.size() - 21, 21, "  …(capped at 500)\n") == 0);

    // A path printed by search loads, and a save without a path writes that same file.
    ToolReply loaded = tool(s, "load", pathArg(root.str() + "/A.ZELTHA"));
    EXPECT_TRUE(loaded.ok) << loaded.text;
    tool(s, "define_element", R"({"path":"/added","type":"t"})");
    EXPECT_TRUE(tool(s, "save").ok);
    EXPECT_NE(readFile(root.dir / "A.ZELTHA").find("\"added\""), std::string::npos);
}

TEST(FileTools, ComposeReplacesTheDocument) {
    TempDir root;
    writeFile(root.dir / "main.zeltha", "#zeltha 4.0\ndef \"host\" {\n    reference \"lib/part.zeltha\"\n}\n");
    writeFile(root.dir / "lib" / "part.zeltha", "#zeltha 4.0\ndef \"p\" {\n    def \"a\" {\n    }\n}\n");
    writeFile(root.dir / "cyc.zeltha", "#zeltha 4.0\ndef \"c\" {\n    reference \"cyc.zeltha\"\n}\n");
    ServerProcess s({"--root", root.str()});
    EXPECT_EQ(tool(s, "compose").text, "no path: pass 'path' or load a file first");
    EXPECT_EQ(tool(s, "compose", pathArg("cyc.zeltha")).text,
              "compose failed for " + root.str() + "/cyc.zeltha (cyclic or missing reference?)");
    EXPECT_EQ(tool(s, "compose", pathArg("main.zeltha")).text,
              "composed " + root.str() + "/main.zeltha → 2 elements");
    EXPECT_EQ(tool(s, "describe").text,
              "document: " + root.str() + "/main.zeltha\n  /host  []  0 props\n  /host/a  []  0 props\n");
}

TEST(StartDocument, LoadsOrFails) {
    TempDir root;
    writeFile(root.dir / "bad.zeltha", "garbage");
    ServerProcess bad({(root.dir / "bad.zeltha").string()});
    EXPECT_EQ(bad.finish(), 1);
    EXPECT_EQ(bad.stderrText(), "ostrevik-server: cannot open " + root.str() +
                                    "/bad.zeltha: unrecognized format (no '#zeltha' / 'ZLTHC' / 'ZLTHZ' header)\n");
    writeFile(root.dir / "ok.zeltha", "#zeltha 4.0\ndef \"a\" {\n}\n\ndef \"b\" {\n}\n");
    ServerProcess s({"--root", root.str(), (root.dir / "ok.zeltha").string()});
    EXPECT_EQ(tool(s, "describe").text, "document: " + root.str() + "/ok.zeltha\n  /a  []  0 props\n  /b  []  0 props\n");
    EXPECT_EQ(s.finish(), 0);
}

TEST(Commit, AgainstRealRepositories) {
    if (sh("git --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "git is not installed";
    TempDir t;
    const std::string repo = t.str() + "/repo", remote = t.str() + "/remote.git";
    ASSERT_EQ(sh("git init -q --bare " + remote + " && git init -q " + repo + " && git -C " + repo +
                 " remote add origin " + remote + " && git -C " + repo + " config push.default current"),
              0);
    ServerProcess s({"--root", repo});
    EXPECT_EQ(tool(s, "commit").text, "no document path to commit; save or load a file first");
    tool(s, "define_element", R"({"path":"/a","type":"t"})");
    ASSERT_TRUE(tool(s, "save", pathArg("doc.zeltha")).ok);

    ToolReply c = tool(s, "commit", R"({"message":"-first \"quoted\" message","push":"true"})");
    EXPECT_TRUE(c.ok);
    EXPECT_EQ(c.text, "committed doc.zeltha (\"-first \"quoted\" message\")");
    EXPECT_EQ(tool(s, "commit", R"({"push":true})").text, "nothing to commit (no changes since the last commit)");

    tool(s, "define_element", R"({"path":"/b","type":"t"})");
    ASSERT_TRUE(tool(s, "save").ok);
    c = tool(s, "commit", R"({"push":true})");
    EXPECT_TRUE(c.ok) << c.text;
    EXPECT_EQ(c.text, "committed doc.zeltha (\"update via ostrevik-server\"); pushed");

    // The identity is fixed whatever the user's configuration says.
    ASSERT_EQ(sh("git -C " + remote + " log --format='%an <%ae>|%cn <%ce>|%s' > " + t.str() + "/log"), 0);
    const std::string out = readFile(t.dir / "log");
    EXPECT_EQ(out,
              "Ostrevik Owner <owner@ostrevik.invalid>|Ostrevik Owner <owner@ostrevik.invalid>|update via ostrevik-server\n"
              "Ostrevik Owner <owner@ostrevik.invalid>|Ostrevik Owner <owner@ostrevik.invalid>|-first \"quoted\" message\n");

    // No remote: the commit stays local and the tool says so.
    ASSERT_EQ(sh("git -C " + repo + " remote remove origin"), 0);
    tool(s, "define_element", R"({"path":"/c","type":"t"})");
    ASSERT_TRUE(tool(s, "save").ok);
    c = tool(s, "commit", R"({"message":"third","push":true})");
    EXPECT_FALSE(c.ok);
    EXPECT_EQ(c.text, "committed doc.zeltha (\"third\"); push failed (no remote or auth?) — the commit is local; push it manually");

    // Outside any repository.
    fs::create_directories(t.dir / "plain");
    ServerProcess p({"--root", t.str() + "/plain"});
    ASSERT_TRUE(tool(p, "save", pathArg("x.zeltha")).ok);
    EXPECT_EQ(tool(p, "commit").text, "git add failed (is " + t.str() + "/plain a git repository?)");
}

// A crash during a save leaves the old file or the new one, never a torn one.
TEST(Durability, KilledDuringRepeatedSavesAlwaysLoads) {
    TempDir root;
    std::mt19937 rng(7);
    const int elements = 10000;
    int seen = 0;
    for (int round = 0; round < 6; ++round) {
        ServerProcess s({"--root", root.str()});
        for (int i = 0; i < elements; ++i)
            s.send(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"define_element","arguments":{"path":"/e)" +
                   std::to_string(i) + R"(","type":"node"}}})");
        const std::string target = round % 2 ? "doc.zelth" : "doc.zeltha";
        for (int i = 0; i < 100; ++i)
            s.send(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"save","arguments":{"path":")" + target +
                   R"("}}})");
        std::this_thread::sleep_for(std::chrono::milliseconds(50 + rng() % 400));
        ::kill(s.pid(), SIGKILL);
        s.finish();
        for (const char* name : {"doc.zeltha", "doc.zelth"}) {
            fs::path p = root.dir / name;
            if (!fs::exists(p)) continue;
            auto doc = ostrevik::deserialize(readFile(p), nullptr);
            ASSERT_TRUE(doc) << name << " is torn after round " << round;
            EXPECT_EQ(doc->elements().size(), std::size_t(elements));
            ++seen;
        }
    }
    EXPECT_GT(seen, 0);
}
