// The HTTP transport: the request reader in-process, and the built server over raw loopback
// sockets.
#include "Http.h"
#include "support/server_process.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using zserver::HttpRequestReader;
using zserver::HttpServer;
using zserver::HttpStatus;
using Step = HttpRequestReader::Step;
using Clock = std::chrono::steady_clock;

const std::string kToken = "t0ken-\xC3\xA9";
const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
const std::string kPong = R"({"id":1,"jsonrpc":"2.0","result":{}})";

// ---- the reader, fed by hand ----

TEST(HttpRequestReader, HeaderLookupAndHosts) {
    std::string headers = "POST / HTTP/1.1\r\nHOST:\t Localhost:1 \r\nx-a: 1\r\nX-A: 2\r\nEmpty:  \r\n";
    EXPECT_EQ(HttpServer::header(headers, "host"), "Localhost:1 ");
    EXPECT_EQ(HttpServer::header(headers, "x-a"), "1");
    EXPECT_EQ(HttpServer::header(headers, "empty"), "");
    EXPECT_EQ(HttpServer::header(headers, "post / http/1.1"), "");
    EXPECT_EQ(HttpServer::header("a\nlast:v", "last"), "v");

    for (const char* ok : {"127.0.0.1", "localhost", "LOCALHOST", "localhost:8080", "[::1]:8080",
                           "[::1]", "[::1", "127.0.0.1:"})
        EXPECT_TRUE(HttpServer::hostAllowed(ok)) << ok;
    for (const char* bad : {"", "::1", "example.com", "localhost.", "127.0.0.2", " localhost",
                            "localhost ", "[localhost:1]", "0.0.0.0"})
        EXPECT_FALSE(HttpServer::hostAllowed(bad)) << bad;
}

TEST(HttpRequestReader, LimitsFollowTheReads) {
    const std::string auth = "Bearer x";
    const std::string start = "POST / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer x\r\n";
    {
        // The read that carries the block past the limit also brings its end: accepted.
        HttpRequestReader reader(auth);
        std::string head = start + "X: " + std::string(16384 - start.size() - 5, 'a');
        ASSERT_EQ(reader.feed(head), Step::NeedMore);
        EXPECT_EQ(reader.feed("a\r\n\r\n" + kPing), Step::Ready);
        EXPECT_EQ(reader.body(), kPing);
    }
    {
        HttpRequestReader reader(auth);
        ASSERT_EQ(reader.feed(start + "X: " + std::string(16384 - start.size() - 3, 'a')), Step::NeedMore);
        ASSERT_EQ(reader.feed("b"), Step::Respond);
        EXPECT_EQ(reader.status(), HttpStatus::HeadersTooLarge);
    }
    {
        // The terminator may be split across reads.
        HttpRequestReader reader(auth);
        std::string whole = start + "\r\n";
        for (size_t i = 0; i + 1 < whole.size(); ++i) ASSERT_EQ(reader.feed(whole.substr(i, 1)), Step::NeedMore);
        EXPECT_EQ(reader.feed("\n"), Step::Ready);
        EXPECT_EQ(reader.body(), "");
    }
    {
        // More body than announced is kept; a body that outgrows the limit is refused.
        HttpRequestReader reader(auth);
        EXPECT_EQ(reader.feed(start + "Content-Length: 2\r\n\r\nabcd"), Step::Ready);
        EXPECT_EQ(reader.body(), "abcd");
        HttpRequestReader big(auth);
        ASSERT_EQ(big.feed(start + "Content-Length: 16777216\r\n\r\n"), Step::NeedMore);
        ASSERT_EQ(big.feed(std::string(16777215, ' ')), Step::NeedMore);
        ASSERT_EQ(big.feed("  "), Step::Respond);
        EXPECT_EQ(big.status(), HttpStatus::PayloadTooLarge);
    }
    {
        // A cut header is dropped; a cut body goes on as it is, and only then is the token read.
        HttpRequestReader cutHead(auth);
        ASSERT_EQ(cutHead.feed(start), Step::NeedMore);
        EXPECT_EQ(cutHead.finish(), Step::Drop);
        HttpRequestReader cutBody(auth);
        ASSERT_EQ(cutBody.feed(start + "Content-Length: 10\r\n\r\nab"), Step::NeedMore);
        EXPECT_EQ(cutBody.finish(), Step::Ready);
        EXPECT_EQ(cutBody.body(), "ab");
        HttpRequestReader wrong("Bearer y");
        ASSERT_EQ(wrong.feed(start + "Content-Length: 10\r\n\r\n"), Step::NeedMore);
        EXPECT_EQ(wrong.finish(), Step::Respond);
        EXPECT_EQ(wrong.status(), HttpStatus::Unauthorized);
    }
}

// ---- the built server over sockets ----

// The server started with --http 0; `port` is read from its listening line.
struct HttpChild {
    explicit HttpChild(std::vector<std::string> extra = {"--token", kToken}) : process(args(extra)) {
        auto until = Clock::now() + std::chrono::seconds(10);
        const std::string marker = "MCP over HTTP on 127.0.0.1:";
        while (port == 0 && Clock::now() < until) {
            const std::string& err = process.stderrText();
            size_t at = err.find(marker);
            if (at != std::string::npos && err.find(" (bearer token required)\n", at) != std::string::npos)
                port = std::atoi(err.c_str() + at + marker.size());
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    std::vector<std::string> args(std::vector<std::string> extra) {
        extra.insert(extra.begin(), {"--root", dir.str(), "--http", "0"});
        return extra;
    }
    bool alive() {
        int status = 0;
        return waitpid(process.pid(), &status, WNOHANG) == 0;
    }
    testsupport::TempDir dir;
    testsupport::ServerProcess process;
    int port = 0;
};

int connectTo(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n <= 0) return false;
        data.remove_prefix(size_t(n));
    }
    return true;
}

// Everything the server sends until it closes (or 30 s pass).
std::string readAll(int fd) {
    std::string out;
    char buffer[65536];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) out.append(buffer, size_t(n));
    return out;
}

std::string roundTrip(int port, std::string_view request, bool endRequest = false) {
    int fd = connectTo(port);
    if (fd < 0) return "(no connection)";
    sendAll(fd, request);
    if (endRequest) shutdown(fd, SHUT_WR);
    std::string response = readAll(fd);
    close(fd);
    return response;
}

std::string post(int port, const std::string& body, const std::string& extra = "") {
    return "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
           "\r\nAuthorization: Bearer " + kToken + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + extra + "\r\n" + body;
}

// The status line and body of a response, after checking the headers every response carries.
std::string summary(const std::string& response) {
    size_t end = response.find("\r\n\r\n");
    if (end == std::string::npos) return "(incomplete) " + response.substr(0, 200);
    std::string head = response.substr(0, end + 2), body = response.substr(end + 4);
    EXPECT_NE(head.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("\r\nMcp-Session-Id: ostrevik-server\r\nConnection: close\r\n"), std::string::npos) << head;
    return head.substr(9, head.find("\r\n") - 9) + " | " + body;
}

// A ping's summary once service resumes after the threads have let go (or the last failure).
std::string awaitService(int port) {
    std::string answer;
    for (int i = 0; i < 100 && answer.rfind("200 ", 0) != 0; ++i) {
        if (i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        answer = summary(roundTrip(port, post(port, kPing)));
    }
    return answer;
}

TEST(HttpServer, StartAndRefusals) {
    HttpChild server;
    ASSERT_GT(server.port, 0) << server.process.stderrText();
    EXPECT_NE(server.process.stderrText().find("] ostrevik-server 0.1.0 \xE2\x80\x94 MCP over HTTP on 127.0.0.1:" +
                                               std::to_string(server.port) + " (bearer token required)\n"),
              std::string::npos);

    // The port is taken now, and a server without a token never starts.
    testsupport::ServerProcess taken({"--root", "/", "--http", std::to_string(server.port), "--token", "x"});
    EXPECT_EQ(taken.finish(), 1);
    EXPECT_NE(taken.stderrText().find("ostrevik-server: cannot serve HTTP on 127.0.0.1:" +
                                      std::to_string(server.port) + " (need --token, or port in use)\n"),
              std::string::npos);
    testsupport::ServerProcess tokenless({"--root", "/", "--http", "0"});
    EXPECT_EQ(tokenless.finish(), 1);

    // A token file loses its trailing blanks.
    testsupport::TempDir dir;
    const std::string file = dir.str() + "/token";
    testsupport::writeFile(file, "filetoken \t\r\n");
    HttpChild fromFile({"--token-file", file});
    ASSERT_GT(fromFile.port, 0);
    std::string good = "POST / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer filetoken\r\n"
                       "Content-Length: " + std::to_string(kPing.size()) + "\r\n\r\n" + kPing;
    EXPECT_EQ(summary(roundTrip(fromFile.port, good)), "200 OK | " + kPong);
}

TEST(HttpServer, EveryStatus) {
    HttpChild server;
    ASSERT_GT(server.port, 0);
    const int port = server.port;
    const std::string auth = "Authorization: Bearer " + kToken + "\r\n";

    EXPECT_EQ(roundTrip(port, post(port, kPing)),
              "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 36\r\n"
              "Mcp-Session-Id: ostrevik-server\r\nConnection: close\r\n\r\n" + kPong);
    EXPECT_EQ(roundTrip(port, "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
              "HTTP/1.1 401 Unauthorized\r\nContent-Type: application/json\r\nContent-Length: 24\r\n"
              "Mcp-Session-Id: ostrevik-server\r\nConnection: close\r\n\r\n{\"error\":\"unauthorized\"}");

    struct Case {
        std::string request, expected;
    };
    const std::string pad = std::string(16777216 - kPing.size(), ' ');
    std::vector<Case> cases = {
        {post(port, R"({"jsonrpc":"2.0","method":"notifications/initialized"})"), "202 Accepted | "},
        {post(port, ""), R"(200 OK | {"id":null,"jsonrpc":"2.0","error":{"code":-32700,"message":"parse error"}})"},
        {post(port, kPing + pad), "200 OK | " + kPong},
        {"POST / HTTP/1.1\r\nHost: evil.example\r\n" + auth + "\r\n", "400 Bad Request | invalid host header"},
        {"POST / HTTP/1.1\r\n" + auth + "\r\n", "400 Bad Request | invalid host header"},
        {"POST / HTTP/1.1\r\nHost: ::1\r\n" + auth + "\r\n", "400 Bad Request | invalid host header"},
        {"POST / HTTP/1.1\r\nHost: [::1]:9\r\n" + auth + "Content-Length: 0\r\n\r\n",
         R"(200 OK | {"id":null,"jsonrpc":"2.0","error":{"code":-32700,"message":"parse error"}})"},
        {"POST / HTTP/1.1\r\nHost: LOCALHOST\r\nTransfer-Encoding: chunked\r\n\r\n",
         "501 Not Implemented | transfer-encoding not supported"},
        {post(port, kPing, "content-LENGTH: 40\r\n"), "400 Bad Request | conflicting content-length"},
        {post(port, "", "Content-Length: 0\r\n"), "400 Bad Request | conflicting content-length"},
        {"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 16777217\r\n\r\n", "413 Payload Too Large | payload too large"},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(20000, 'x'),
         "431 Request Header Fields Too Large | request header fields too large"},
        {"GET /mcp HTTP/1.1\r\nHost: localhost\r\n" + auth + "\r\n", "405 Method Not Allowed | method not allowed"},
        {"DELETE /mcp HTTP/1.1\r\nHost: localhost\r\n" + auth + "\r\n", "405 Method Not Allowed | method not allowed"},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nAuthorization: bearer " + kToken + "\r\n\r\n",
         "401 Unauthorized | {\"error\":\"unauthorized\"}"},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + kToken + " \r\n\r\n",
         "401 Unauthorized | {\"error\":\"unauthorized\"}"},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + kToken.substr(1) + "\r\n\r\n",
         "401 Unauthorized | {\"error\":\"unauthorized\"}"},
        // Requests the checks decide on although they are not HTTP at all.
        {"\r\n\r\n", "400 Bad Request | invalid host header"},
        {"POST\r\nHost: localhost\r\n" + auth + "\r\n", "405 Method Not Allowed | method not allowed"},
        {"post / HTTP/1.1\r\nHost: localhost\r\n" + auth + "\r\n", "405 Method Not Allowed | method not allowed"},
        {"POST \r\nHost : localhost\r\n" + auth + "\r\n", "400 Bad Request | invalid host header"},
        {std::string(1, '\0') + "\xff POST\r\nHost:localhost\r\n" + auth + "\r\n", "405 Method Not Allowed | method not allowed"},
        {"POST  \x01\r\nno colon here\r\nHost:localhost\r\n" + auth + "Content-Length: 36\r\n\r\n" + kPong,
         R"(200 OK | {"id":1,"jsonrpc":"2.0","error":{"code":-32600,"message":"invalid request: no method"}})"},
    };
    for (const char* length : {"12x", "-1", "", "123456789012345678901", "12 ", "+5", "0x10"})
        cases.push_back({"POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::string(length) + "\r\n\r\n",
                         "400 Bad Request | bad content-length"});
    for (const Case& c : cases) EXPECT_EQ(summary(roundTrip(port, c.request)), c.expected) << c.request.substr(0, 120);

    // Extra blanks before a length are fine; a body that stops early is served as it is.
    EXPECT_EQ(summary(roundTrip(port, "POST / HTTP/1.1\r\nHost: localhost\r\n" + auth + "Content-Length:   100\r\n\r\n" + kPing,
                               true)),
              "200 OK | " + kPong);
    // A peer that stops inside the header block gets nothing.
    EXPECT_EQ(roundTrip(port, "POST / HTTP/1.1\r\nHost: localhost\r\n", true), "");
    EXPECT_TRUE(server.alive());
}

TEST(HttpServer, DeadlineAndConnectionLimit) {
    HttpChild server;
    ASSERT_GT(server.port, 0);
    const int port = server.port;

    // The first of 64 held connections trickles its header one byte at a time; the deadline,
    // not the read time-out, must end it.
    const std::string trickle = "POST / HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(200, 'x');
    int slow = connectTo(port);
    ASSERT_GE(slow, 0);
    std::string slowResponse = "(still open)";
    double slowSeconds = 0;
    std::thread trickler([&] {
        auto begin = Clock::now();
        for (size_t i = 0; i < trickle.size(); ++i) {
            pollfd p{slow, POLLIN, 0};
            if (poll(&p, 1, 250) > 0) {
                slowResponse = readAll(slow);
                break;
            }
            if (!sendAll(slow, trickle.substr(i, 1))) {
                slowResponse = readAll(slow);
                break;
            }
        }
        slowSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
    });

    std::vector<int> held;
    for (int i = 0; i < 63; ++i) {
        held.push_back(connectTo(port));
        ASSERT_GE(held.back(), 0);
        // Paced so the listen backlog never overflows, which would let a later connection
        // overtake an earlier one.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(summary(roundTrip(port, post(port, kPing))), "503 Service Unavailable | server busy");

    // The silent ones are closed without a word once their reads time out.
    for (int fd : held) {
        EXPECT_EQ(readAll(fd), "");
        close(fd);
    }
    trickler.join();
    close(slow);
    EXPECT_EQ(slowResponse, "");
    EXPECT_GE(slowSeconds, 9.0);
    EXPECT_LT(slowSeconds, 30.0);

    EXPECT_EQ(awaitService(port), "200 OK | " + kPong);
}

TEST(HttpServer, PeersThatVanish) {
    HttpChild server;
    ASSERT_GT(server.port, 0);
    const std::string request = post(server.port, R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})");
    for (int i = 0; i < 1000; ++i) {
        int fd = connectTo(server.port);
        ASSERT_GE(fd, 0);
        sendAll(fd, request);
        if (i % 2) {
            // Reset instead of an orderly close, so the reply meets a dead socket.
            linger abort{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        }
        close(fd);
        // A short pause keeps the flood within the listen backlog; past it the kernel would
        // delay new connections by a second each.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(awaitService(server.port), "200 OK | " + kPong);
    EXPECT_TRUE(server.alive());
}

TEST(HttpServer, ConcurrentClientsShareTheDocument) {
    HttpChild server;
    ASSERT_GT(server.port, 0);
    const int port = server.port, clients = 8, each = 25;
    std::atomic<int> defined{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&, c] {
            for (int i = 0; i < each; ++i) {
                std::string path = "/c" + std::to_string(c) + "_" + std::to_string(i);
                std::string reply = roundTrip(port, post(port, R"({"id":1,"method":"tools/call","params":{"name":)"
                                                                R"("define_element","arguments":{"path":")" + path +
                                                                R"(","type":"T"}}})"));
                if (reply.find("\"text\":\"defined " + path + " [T]\"") != std::string::npos) ++defined;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(defined.load(), clients * each);

    std::string listing = roundTrip(port, post(port, R"({"id":2,"method":"tools/call","params":{"name":"describe"}})"));
    for (int c = 0; c < clients; ++c)
        for (int i = 0; i < each; ++i)
            EXPECT_NE(listing.find("  /c" + std::to_string(c) + "_" + std::to_string(i) + "  [T]  0 props\\n"),
                      std::string::npos);
}

}  // namespace
