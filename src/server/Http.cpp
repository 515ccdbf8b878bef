// The loopback HTTP transport: request reading and checking, the listener and its connection
// threads, and the start of HTTP serving with one lock around each dispatch.
#include "Http.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <unistd.h>

namespace zserver {

namespace {

constexpr int kBacklog = 16;
constexpr int kConnectionLimit = 64;
constexpr int kSocketTimeoutSeconds = 10;
constexpr auto kRequestDeadline = std::chrono::milliseconds(10000);
constexpr size_t kReadSize = 4096;
constexpr int kDrainTimeoutSeconds = 2;
constexpr int kStopPolls = 500;

struct StatusText {
    const char* line;
    const char* contentType;
    const char* body;
};

StatusText statusText(HttpStatus status) {
    switch (status) {
    case HttpStatus::Ok: return {"200 OK", "application/json", ""};
    case HttpStatus::Accepted: return {"202 Accepted", "application/json", ""};
    case HttpStatus::InvalidHost: return {"400 Bad Request", "text/plain", "invalid host header"};
    case HttpStatus::ConflictingLength:
        return {"400 Bad Request", "text/plain", "conflicting content-length"};
    case HttpStatus::BadLength: return {"400 Bad Request", "text/plain", "bad content-length"};
    case HttpStatus::Unauthorized:
        return {"401 Unauthorized", "application/json", "{\"error\":\"unauthorized\"}"};
    case HttpStatus::MethodNotAllowed:
        return {"405 Method Not Allowed", "text/plain", "method not allowed"};
    case HttpStatus::PayloadTooLarge:
        return {"413 Payload Too Large", "text/plain", "payload too large"};
    case HttpStatus::HeadersTooLarge:
        return {"431 Request Header Fields Too Large", "text/plain",
                "request header fields too large"};
    case HttpStatus::NotImplemented:
        return {"501 Not Implemented", "text/plain", "transfer-encoding not supported"};
    case HttpStatus::Busy: return {"503 Service Unavailable", "text/plain", "server busy"};
    }
    return {"500 Internal Server Error", "text/plain", ""};
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = lower(c);
    return out;
}

// The header lookup on a block and its lower-cased copy, so that a reader lowers only once.
std::string headerIn(std::string_view headers, std::string_view lower, std::string_view name) {
    std::string key;
    key.reserve(name.size() + 2);
    key += '\n';
    key += name;
    key += ':';
    size_t at = lower.find(key);
    if (at == std::string_view::npos) return {};
    size_t begin = at + key.size();
    size_t end = headers.find_first_of("\r\n", begin);
    if (end == std::string_view::npos) end = headers.size();
    while (begin < end && (headers[begin] == ' ' || headers[begin] == '\t')) ++begin;
    return std::string(headers.substr(begin, end - begin));
}

// Compares over the whole received value whatever its length, so that the time taken tells
// nothing about how much of the token was right.
bool sameSecret(std::string_view given, std::string_view expected) {
    unsigned char diff = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < given.size(); ++i) {
        unsigned char e = i < expected.size() ? static_cast<unsigned char>(expected[i]) : 0;
        diff |= static_cast<unsigned char>(static_cast<unsigned char>(given[i]) ^ e);
    }
    return diff == 0;
}

void setTimeout(int fd, int option, int seconds) {
    timeval tv{};
    tv.tv_sec = seconds;
    ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

void sleepFor(std::chrono::milliseconds duration) {
    timespec ts{};
    ts.tv_sec = time_t(duration.count() / 1000);
    ts.tv_nsec = long(duration.count() % 1000) * 1000000L;
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace

std::string httpResponse(HttpStatus status, std::string_view body) {
    StatusText text = statusText(status);
    std::string_view payload = status == HttpStatus::Ok ? body : std::string_view(text.body);
    std::string out;
    out.reserve(160 + payload.size());
    out += "HTTP/1.1 ";
    out += text.line;
    out += "\r\nContent-Type: ";
    out += text.contentType;
    out += "\r\nContent-Length: ";
    out += std::to_string(payload.size());
    out += "\r\nMcp-Session-Id: ostrevik-server\r\nConnection: close\r\n\r\n";
    out += payload;
    return out;
}

// ---- request reading ----

HttpRequestReader::Step HttpRequestReader::feed(std::string_view bytes) {
    if (inBody_) {
        body_.append(bytes);
        if (body_.size() > kBodyLimit) return respond(HttpStatus::PayloadTooLarge);
        return body_.size() >= length_ ? bodyComplete() : Step::NeedMore;
    }
    // Only the tail can complete a terminator that was not there before.
    size_t from = buffer_.size() < 3 ? 0 : buffer_.size() - 3;
    buffer_.append(bytes);
    size_t terminator = buffer_.find("\r\n\r\n", from);
    if (terminator != std::string::npos) return headerComplete(terminator);
    if (buffer_.size() > kHeaderLimit) return respond(HttpStatus::HeadersTooLarge);
    return Step::NeedMore;
}

HttpRequestReader::Step HttpRequestReader::finish() {
    return inBody_ ? bodyComplete() : Step::Drop;
}

HttpRequestReader::Step HttpRequestReader::respond(HttpStatus status) {
    status_ = status;
    return Step::Respond;
}

HttpRequestReader::Step HttpRequestReader::headerComplete(size_t terminator) {
    body_.assign(buffer_, terminator + 4);
    buffer_.resize(terminator);
    headers_ = std::move(buffer_);
    headers_ += '\n';
    buffer_.clear();
    lower_ = lowered(headers_);
    const std::string& lower = lower_;

    if (!HttpServer::hostAllowed(headerIn(headers_, lower, "host")))
        return respond(HttpStatus::InvalidHost);
    if (!headerIn(headers_, lower, "transfer-encoding").empty())
        return respond(HttpStatus::NotImplemented);

    size_t occurrences = 0;
    for (size_t at = lower.find("\ncontent-length:"); at != std::string::npos && occurrences < 2;
         at = lower.find("\ncontent-length:", at + 1))
        ++occurrences;
    if (occurrences >= 2) return respond(HttpStatus::ConflictingLength);
    if (occurrences == 1) {
        std::string value = headerIn(headers_, lower, "content-length");
        if (value.empty() || value.size() > 20) return respond(HttpStatus::BadLength);
        // Saturates instead of wrapping: any value past the limit is simply too large.
        unsigned long long length = 0;
        for (char c : value) {
            if (c < '0' || c > '9') return respond(HttpStatus::BadLength);
            if (length <= kBodyLimit) length = length * 10 + unsigned(c - '0');
        }
        if (length > kBodyLimit) return respond(HttpStatus::PayloadTooLarge);
        length_ = size_t(length);
    }

    inBody_ = true;
    return body_.size() >= length_ ? bodyComplete() : Step::NeedMore;
}

HttpRequestReader::Step HttpRequestReader::bodyComplete() {
    if (!sameSecret(headerIn(headers_, lower_, "authorization"), expectedAuth_))
        return respond(HttpStatus::Unauthorized);
    if (headers_.compare(0, 5, "POST ") != 0) return respond(HttpStatus::MethodNotAllowed);
    return Step::Ready;
}

// ---- the listener ----

std::string HttpServer::header(std::string_view headers, std::string_view name) {
    return headerIn(headers, lowered(headers), name);
}

bool HttpServer::hostAllowed(std::string host) {
    for (char& c : host) c = lower(c);
    if (host.empty()) return false;
    std::string_view name = host;
    if (name.front() == '[') {
        name.remove_prefix(1);
        name = name.substr(0, name.find(']'));
    } else {
        name = name.substr(0, name.find(':'));
    }
    return name == "127.0.0.1" || name == "localhost" || name == "::1";
}

bool HttpServer::start(int requestedPort, std::string token, Handler onRequest) {
    if (token.empty()) return false;
    expectedAuth = "Bearer " + token;
    handler = std::move(onRequest);

    // Not inherited by child processes (the commit tool runs git).
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd < 0) return false;
    int one = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(requestedPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd, kBacklog) != 0) {
        ::close(listenFd);
        listenFd = -1;
        return false;
    }
    socklen_t size = sizeof address;
    if (::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);

    running = true;
    try {
        acceptThread = std::thread([this] { acceptLoop(); });
    } catch (const std::system_error&) {
        running = false;
        ::close(listenFd);
        listenFd = -1;
        return false;
    }
    return true;
}

HttpServer::~HttpServer() {
    if (!running) return;
    running = false;
    // Shutting the socket down ends a blocking accept; it is closed only after the accept thread
    // is gone, so that the descriptor number cannot be reused under it.
    ::shutdown(listenFd, SHUT_RDWR);
    if (acceptThread.joinable()) acceptThread.join();
    ::close(listenFd);
    listenFd = -1;
    for (int i = 0; i < kStopPolls && active > 0; ++i) sleepFor(std::chrono::milliseconds(10));
}

void HttpServer::acceptLoop() {
    while (running) {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors or memory: pause instead of spinning until some are released.
            if (errno != EINTR && errno != ECONNABORTED) sleepFor(std::chrono::milliseconds(10));
            continue;
        }
        setTimeout(fd, SO_RCVTIMEO, kSocketTimeoutSeconds);
        setTimeout(fd, SO_SNDTIMEO, kSocketTimeoutSeconds);
        if (active > kConnectionLimit - 1) {
            send(fd, HttpStatus::Busy);
            gracefulClose(fd);
            continue;
        }
        ++active;
        try {
            std::thread([this, fd] {
                serve(fd);
                gracefulClose(fd);
                --active;
            }).detach();
        } catch (const std::system_error&) {
            // No thread to be had: refuse this one connection and keep listening.
            --active;
            send(fd, HttpStatus::Busy);
            gracefulClose(fd);
        }
    }
}

void HttpServer::serve(int fd) {
    const auto deadline = std::chrono::steady_clock::now() + kRequestDeadline;
    HttpRequestReader reader(expectedAuth);
    char buffer[kReadSize];
    HttpRequestReader::Step step = HttpRequestReader::Step::NeedMore;
    while (step == HttpRequestReader::Step::NeedMore) {
        if (std::chrono::steady_clock::now() >= deadline) return;
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        step = n > 0 ? reader.feed(std::string_view(buffer, size_t(n))) : reader.finish();
    }
    if (step == HttpRequestReader::Step::Drop) return;
    if (step == HttpRequestReader::Step::Respond) {
        send(fd, reader.status());
        return;
    }
    std::string reply = handler(reader.body());
    send(fd, reply.empty() ? HttpStatus::Accepted : HttpStatus::Ok, reply);
}

void HttpServer::send(int fd, HttpStatus status, std::string_view body) {
    const std::string response = httpResponse(status, body);
    // Completes short writes; a peer that has gone yields an error here, never a signal.
    size_t done = 0;
    while (done < response.size()) {
        ssize_t n = ::send(fd, response.data() + done, response.size() - done, MSG_NOSIGNAL);
        if (n > 0)
            done += size_t(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return;
    }
}

void HttpServer::gracefulClose(int fd) {
    ::shutdown(fd, SHUT_WR);
    setTimeout(fd, SO_RCVTIMEO, kDrainTimeoutSeconds);
    // A peer that never stops sending must not hold the thread: the drain has a total bound too.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kDrainTimeoutSeconds);
    char buffer[kReadSize];
    for (;;) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || std::chrono::steady_clock::now() >= until) break;
    }
    ::close(fd);
}

// ---- serving the session ----

int serveHttp(Session& session, int port, const std::string& token) {
    std::mutex mutex;
    HttpServer server;
    bool started = server.start(port, token, [&session, &mutex](const std::string& body) {
        std::lock_guard<std::mutex> lock(mutex);
        std::optional<std::string> reply = dispatch(session, body);
        return reply ? std::move(*reply) : std::string();
    });
    if (!started) {
        std::fprintf(stderr,
                     "ostrevik-server: cannot serve HTTP on 127.0.0.1:%d (need --token, or port in "
                     "use)\n",
                     port);
        return 1;
    }
    Log::instance().write("ostrevik-server 0.1.0 \xE2\x80\x94 MCP over HTTP on 127.0.0.1:" +
                          std::to_string(server.port) + " (bearer token required)");
    for (;;) sleepFor(std::chrono::hours(1));
}

}  // namespace zserver
