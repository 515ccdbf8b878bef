// ostrevik-server: the command line, the start document and the stdio loop.
#include "Dispatch.h"
#include "FileTools.h"
#include "Http.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

const char* const kUsage =
    "usage: ostrevik-server [--root <dir>] [--http <port> (--token <tok> | --token-file <path>)] "
    "[<document.zeltha|.zelth>]\n";

// The whole file, or nothing when it cannot be opened or read (a directory included).
std::optional<std::string> readWholeFile(const char* path) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string content;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            content.append(buffer, size_t(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            ::close(fd);
            return std::nullopt;
        }
    }
    ::close(fd);
    return content;
}

int serveStdio(zserver::Session& session) {
    zserver::Log::instance().write(
        "ostrevik-server 0.1.0 \xE2\x80\x94 listening on stdio (JSON-RPC; logs on stderr)");
    std::ios::sync_with_stdio(false);
    std::cin.tie(nullptr);
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.empty()) continue;
        std::optional<std::string> reply = zserver::dispatch(session, line);
        if (!reply) continue;
        std::cout.write(reply->data(), std::streamsize(reply->size()));
        std::cout.put('\n');
        std::cout.flush();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    zserver::Session session;

    std::string root, documentPath, token;
    int port = -1;
    bool haveDocument = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--root" && hasValue) {
            root = argv[++i];
        } else if (arg == "--http" && hasValue) {
            // Out-of-range values saturate rather than wrap, so a huge port never turns into
            // a negative one that would silently select stdio.
            long value = std::strtol(argv[++i], nullptr, 10);
            port = int(std::clamp<long>(value, INT_MIN, INT_MAX));
        } else if (arg == "--token" && hasValue) {
            token = argv[++i];
        } else if (arg == "--token-file" && hasValue) {
            const char* file = argv[++i];
            std::optional<std::string> content = readWholeFile(file);
            if (!content) {
                std::fprintf(stderr, "ostrevik-server: cannot read token file %s\n", file);
                return 2;
            }
            size_t end = content->find_last_not_of("\n\t\r ");
            content->erase(end == std::string::npos ? 0 : end + 1);
            token = std::move(*content);
        } else if (!haveDocument) {
            documentPath = std::string(arg);
            haveDocument = true;
        }
    }
    if (argc < 2 || (documentPath.empty() && root.empty())) {
        std::fputs(kUsage, stderr);
        return 2;
    }

    session.path = documentPath;
    session.root = root;
    if (!session.path.empty() && !zserver::openStartDocument(session, session.path)) return 1;
    zserver::Log::instance().write(
        "document: " + (session.path.empty() ? std::string("(new)") : session.path) + "  (" +
        std::to_string(session.doc.elements().size()) + " elements)");

    if (port < 0) return serveStdio(session);
    return zserver::serveHttp(session, port, token);
}
