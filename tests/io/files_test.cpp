// Detection by content, the load door's messages, and durable replacement of files.
#include <ostrevik/io.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

using namespace ostrevik;
namespace fs = std::filesystem;

namespace {

std::string readAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct TempDir {
    fs::path dir;
    TempDir() {
        char tmpl[] = "/tmp/ostrevik-files-XXXXXX";
        dir = ::mkdtemp(tmpl);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

std::string message(std::string_view bytes) {
    ParseError e;
    e.line = 9;
    EXPECT_FALSE(deserialize(bytes, &e));
    EXPECT_EQ(e.line, 0u);
    return e.message;
}

}  // namespace

TEST(Detect, ByContentOnly) {
    using namespace std::string_literals;
    EXPECT_EQ(detect("#zeltha 4.0\n"), Format::Text);
    EXPECT_EQ(detect(" \t\r\n#zeltha"), Format::Text);
    EXPECT_EQ(detect("#zeltha"), Format::Text);
    EXPECT_EQ(detect("#zelth"), Format::Unknown);
    EXPECT_EQ(detect(""), Format::Unknown);
    EXPECT_EQ(detect("   "), Format::Unknown);
    EXPECT_EQ(detect("ZLTHC\0"s), Format::Binary);
    EXPECT_EQ(detect("ZLTHZ\0rest"s), Format::Package);
    EXPECT_EQ(detect("ZLTHC"), Format::Unknown);
    EXPECT_EQ(detect("ZLTHCx"), Format::Unknown);
    EXPECT_EQ(detect(" ZLTHC\0"s), Format::Unknown);
    EXPECT_EQ(detect("#ZELTHA"), Format::Unknown);
}

TEST(Deserialize, MessagesOfEachFormat) {
    using namespace std::string_literals;
    EXPECT_EQ(message("hello world"), "unrecognized format (no '#zeltha' / 'ZLTHC' / 'ZLTHZ' header)");
    EXPECT_EQ(message(""), "unrecognized format (no '#zeltha' / 'ZLTHC' / 'ZLTHZ' header)");
    EXPECT_EQ(message("ZLTHC\0"s), "malformed binary crate (.zelth)");
    EXPECT_EQ(message("ZLTHZ\0garbage"s), "malformed package (ZLTHZ)");
    EXPECT_FALSE(deserialize("nothing", nullptr));
}

TEST(Deserialize, TextAndCrateLoad) {
    auto doc = deserialize("#zeltha 4.0\n", nullptr);
    ASSERT_TRUE(doc);
    EXPECT_TRUE(doc->elements().empty());
    Document d;
    d.append(Path("/a"), "object");
    auto back = deserialize(serializeBinary(d, true), nullptr);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->elements().size(), 1u);
    EXPECT_EQ(back->elements()[0].path.str(), "/a");
}

TEST(WriteFileDurably, ReplacesAndLeavesNoTemporary) {
    TempDir t;
    fs::path f = t.dir / "doc.zeltha";
    ASSERT_TRUE(writeFileDurably(f.string(), "first"));
    EXPECT_EQ(readAll(f), "first");
    ASSERT_TRUE(writeFileDurably(f.string(), "second, longer"));
    EXPECT_EQ(readAll(f), "second, longer");
    ASSERT_TRUE(writeFileDurably(f.string(), ""));
    EXPECT_TRUE(fs::exists(f));
    EXPECT_EQ(fs::file_size(f), 0u);
    EXPECT_FALSE(fs::exists(t.dir / "doc.zeltha.tmp"));
}

TEST(WriteFileDurably, StaleTemporaryIsReused) {
    TempDir t;
    fs::path f = t.dir / "doc.zelth";
    std::ofstream(t.dir / "doc.zelth.tmp") << "stale junk from a crash that is longer";
    ASSERT_TRUE(writeFileDurably(f.string(), "new"));
    EXPECT_EQ(readAll(f), "new");
    EXPECT_FALSE(fs::exists(t.dir / "doc.zelth.tmp"));
}

TEST(WriteFileDurably, FailuresKeepTheOldContent) {
    TempDir t;
    // No such directory: the open fails and nothing appears.
    EXPECT_FALSE(writeFileDurably((t.dir / "missing" / "x.zeltha").string(), "data"));
    EXPECT_FALSE(fs::exists(t.dir / "missing"));

    // The target is a non-empty directory: the rename fails, the temporary goes away.
    fs::create_directories(t.dir / "occupied" / "inner");
    EXPECT_FALSE(writeFileDurably((t.dir / "occupied").string(), "data"));
    EXPECT_TRUE(fs::is_directory(t.dir / "occupied" / "inner"));
    EXPECT_FALSE(fs::exists(t.dir / "occupied.tmp"));

    // The temporary name is taken by a directory: the open fails, the old file stays.
    fs::path f = t.dir / "keep.zeltha";
    ASSERT_TRUE(writeFileDurably(f.string(), "old"));
    fs::create_directory(t.dir / "keep.zeltha.tmp");
    EXPECT_FALSE(writeFileDurably(f.string(), "new"));
    EXPECT_EQ(readAll(f), "old");
}

TEST(WriteFileDurably, RelativePathSyncsCurrentDirectory) {
    TempDir t;
    auto old = fs::current_path();
    fs::current_path(t.dir);
    EXPECT_TRUE(writeFileDurably("plain.txt", "x"));
    fs::current_path(old);
    EXPECT_EQ(readAll(t.dir / "plain.txt"), "x");
}
