// Arbitrary bytes as one JSON-RPC message on a fresh session.
#include "Dispatch.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

// File tools may write; keep them inside a scratch root that is emptied after each input.
std::string scratchRoot;

void clearScratch() {
    std::error_code ec;
    std::filesystem::directory_iterator it(scratchRoot, ec);
    if (ec || it == std::filesystem::directory_iterator()) return;
    for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
        if (ec) break;
        std::filesystem::remove_all(it->path(), ec);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/ostrevik-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) std::abort();
    scratchRoot = pattern;
    std::atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(scratchRoot, ec);
    });
    zserver::Log::instance().sink = [](const std::string&) {};
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zserver::Session session;
    session.root = scratchRoot;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::optional<std::string> reply = zserver::dispatch(session, text);
    // A reply is one line: the stdio transport depends on it.
    if (reply && reply->find('\n') != std::string::npos) std::abort();
    clearScratch();
    return 0;
}
