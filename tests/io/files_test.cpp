// Detection by content, the load door's messages, and durable replacement of files.
#include <ostrevik/io.h>
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace ostrevik;
namespace fs = std::filesystem;
using testsupport::TempDir;
using testsupport::readFile;

namespace {

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
    const std::pair<std::string, Format> cases[] = {
        {"#zeltha 4.0\n", Format::Text},   {" \t\r\n#zeltha", Format::Text},    {"#zeltha", Format::Text},
        {"#zelth", Format::Unknown},        {"", Format::Unknown},               {"   ", Format::Unknown},
        {"ZLTHC\0"s, Format::Binary},       {"ZLTHZ\0rest"s, Format::Package},   {"ZLTHC", Format::Unknown},
        {"ZLTHCx", Format::Unknown},        {" ZLTHC\0"s, Format::Unknown},      {"#ZELTHA", Format::Unknown}};
    for (const auto& [bytes, format] : cases) EXPECT_EQ(detect(bytes), format) << bytes;
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
    for (const char* content : {"first", "second, longer", ""}) {
        ASSERT_TRUE(writeFileDurably(f.string(), content));
        EXPECT_EQ(readFile(f), content);
    }
    EXPECT_TRUE(fs::exists(f));
    EXPECT_FALSE(fs::exists(t.dir / "doc.zeltha.tmp"));
    // A stale temporary from a crash is reused.
    std::ofstream(t.dir / "doc.zeltha.tmp") << "stale junk from a crash that is longer";
    ASSERT_TRUE(writeFileDurably(f.string(), "new"));
    EXPECT_EQ(readFile(f), "new");
    EXPECT_FALSE(fs::exists(t.dir / "doc.zeltha.tmp"));
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
    EXPECT_EQ(readFile(f), "old");
}

TEST(WriteFileDurably, RelativePathSyncsCurrentDirectory) {
    TempDir t;
    auto old = fs::current_path();
    fs::current_path(t.dir);
    EXPECT_TRUE(writeFileDurably("plain.txt", "x"));
    fs::current_path(old);
    EXPECT_EQ(readFile(t.dir / "plain.txt"), "x");
}
