// The loopback HTTP transport: one JSON-RPC message per POST body, one request per connection.
#pragma once

#include "Dispatch.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace zserver {

// Every response the transport can send.
enum class HttpStatus {
    Ok,                 // 200, the handler's reply
    Accepted,           // 202, the handler had nothing to say
    InvalidHost,        // 400
    ConflictingLength,  // 400
    BadLength,          // 400
    Unauthorized,       // 401
    MethodNotAllowed,   // 405
    PayloadTooLarge,    // 413
    HeadersTooLarge,    // 431
    NotImplemented,     // 501, transfer encodings
    Busy,               // 503
};

// The whole response text for `status`; `body` is used for 200 only, the others carry their
// own fixed body.
std::string httpResponse(HttpStatus status, std::string_view body = {});

// Reads one request from the bytes of a connection and applies the checks in their fixed order:
// host, transfer-encoding, content-length, body, authorisation, method. It does no I/O, so the
// caller decides how bytes arrive and when time is up.
class HttpRequestReader {
public:
    static constexpr size_t kHeaderLimit = 16384;
    static constexpr size_t kBodyLimit = 16777216;

    enum class Step {
        NeedMore,  // feed the next bytes
        Respond,   // refuse with status()
        Ready,     // body() is to be handed to the handler
        Drop,      // close without any response
    };

    // `expectedAuth` is the whole expected Authorization value; it must outlive the reader.
    explicit HttpRequestReader(std::string_view expectedAuth) : expectedAuth_(expectedAuth) {}

    // The bytes of one receive. Only valid while the last step was NeedMore.
    Step feed(std::string_view bytes);
    // The peer stopped sending, or receiving failed: a cut header block is dropped, a short
    // body goes on as it is.
    Step finish();

    HttpStatus status() const { return status_; }
    std::string& body() { return body_; }

private:
    Step headerComplete(size_t terminator);
    Step bodyComplete();
    Step respond(HttpStatus status);

    std::string_view expectedAuth_;
    bool inBody_ = false;
    std::string buffer_;   // header bytes received so far
    std::string headers_;  // the head plus "\n", as the header lookups see it
    std::string lower_;    // headers_ in lower case, for finding names
    std::string body_;
    size_t length_ = 0;
    HttpStatus status_ = HttpStatus::Ok;
};

// A small HTTP/1.1 listener on 127.0.0.1 with a bearer token. It knows nothing of JSON: each
// accepted body goes to `handler`, whose reply is sent back (an empty reply means 202).
class HttpServer {
public:
    using Handler = std::function<std::string(const std::string&)>;

    HttpServer() = default;
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    ~HttpServer();

    // Binds 127.0.0.1:port (0 lets the system choose; `port` then holds the choice) and starts
    // accepting. False without a token or when the socket cannot be bound.
    bool start(int port, std::string token, Handler handler);

    // The value of header `name` (given in lower case) in `headers`, or empty when absent.
    static std::string header(std::string_view headers, std::string_view name);
    // True for the loopback names, with or without a port.
    static bool hostAllowed(std::string host);

    int listenFd = -1;
    int port = 0;
    std::atomic<bool> running{false};
    std::atomic<int> active{0};
    std::thread acceptThread;
    std::string expectedAuth;
    Handler handler;

private:
    void acceptLoop();
    void serve(int fd);
    static void send(int fd, HttpStatus status, std::string_view body = {});
    static void gracefulClose(int fd);
};

// Serves MCP over HTTP on 127.0.0.1:port with one lock around each dispatch, until the process
// is killed. Returns only when the server cannot start, with the exit code to use.
int serveHttp(Session& session, int port, const std::string& token);

}  // namespace zserver
