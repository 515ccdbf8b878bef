// Helpers shared by the suites: scratch directories, whole files, and tools/call lines with
// their replies taken apart.
#pragma once

#include <ostrevik/codecs.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

namespace testsupport {

// A fresh directory under the system's temporary one, removed with its content at scope end.
struct TempDir {
    std::filesystem::path dir;
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ostrevik-test-XXXXXX").string();
        dir = std::filesystem::canonical(::mkdtemp(pattern.data()));
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    std::string str() const { return dir.string(); }
};

inline std::string readFile(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Writes `text`, creating the parent directories.
inline void writeFile(const std::filesystem::path& p, const std::string& text) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << text;
}

inline std::string jsonString(const std::string& s) {
    ostrevik::codecs::Json j;
    j.kind = ostrevik::codecs::Json::Kind::String;
    j.text = s;
    return j.dump();
}

// A tools/call request line; `args` is the JSON text of the arguments, empty for none at all.
inline std::string toolCall(const std::string& tool, const std::string& args = "", int id = 1) {
    std::string line = R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
                       R"(,"method":"tools/call","params":{"name":)" + jsonString(tool);
    if (!args.empty()) line += ",\"arguments\":" + args;
    return line + "}}";
}

struct ToolReply {
    bool ok = false;
    std::string text;
};

// The text of a tools/call reply; `ok` is false on isError and on anything but a result.
inline ToolReply parseToolReply(const std::optional<std::string>& line) {
    if (!line) return {false, "<no reply>"};
    auto json = ostrevik::codecs::Json::parse(*line);
    if (!json) return {false, "<bad reply> " + *line};
    ToolReply reply{false, "<no result> " + *line};
    for (const auto& [key, result] : json->members) {
        if (key != "result") continue;
        reply = {true, ""};
        for (const auto& [rk, rv] : result.members) {
            if (rk == "isError" && rv.flag) reply.ok = false;
            if (rk == "content" && !rv.items.empty())
                for (const auto& [ck, cv] : rv.items[0].members)
                    if (ck == "text") reply.text = cv.text;
        }
    }
    return reply;
}

}  // namespace testsupport
