// Round trips to the built server: over loopback HTTP (one connection per request), one client
// and eight at once, against the same messages over stdio.
//
// The server binary is $OSTREVIK_SERVER_BIN, or ostrevik-server in the parent directory of this
// program (the build tree's layout).
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kToken = "bench-token";
const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
const std::string kGet =
    R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"get_element","arguments":{"path":"/scene/item"}}})";
const std::vector<std::string> kSetup = {
    R"({"id":1,"method":"tools/call","params":{"name":"define_element","arguments":{"path":"/scene","type":"Xform"}}})",
    R"({"id":1,"method":"tools/call","params":{"name":"define_element","arguments":{"path":"/scene/item","type":"Mesh"}}})",
    R"({"id":1,"method":"tools/call","params":{"name":"set_property","arguments":{"path":"/scene/item","name":"points","value":[0,1,2,3,4,5,6,7,8]}}})",
    R"({"id":1,"method":"tools/call","params":{"name":"set_property","arguments":{"path":"/scene/item","name":"radius","value":2.5}}})",
    R"({"id":1,"method":"tools/call","params":{"name":"set_metadata","arguments":{"path":"/scene/item","key":"doc","value":"a benchmark element"}}})",
};

std::string serverBinary() {
    if (const char* env = std::getenv("OSTREVIK_SERVER_BIN")) return env;
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return (self.parent_path().parent_path() / "ostrevik-server").string();
}

// A server child with pipes on standard input and output and its log in `logFile` (a file, so
// that an unread log can never stall the server); killed at exit.
struct Child {
    pid_t pid = -1;
    int in = -1;
    FILE* out = nullptr;

    Child(std::vector<std::string> args, const std::string& logFile) {
        std::signal(SIGPIPE, SIG_IGN);
        std::string binary = serverBinary();
        args.insert(args.begin(), binary);
        int p0[2], p1[2];
        if (pipe(p0) || pipe(p1)) return;
        pid = fork();
        if (pid == 0) {
            dup2(p0[0], 0);
            dup2(p1[1], 1);
            if (!std::freopen(logFile.c_str(), "w", stderr)) _exit(127);
            for (int fd : {p0[0], p0[1], p1[0], p1[1]}) close(fd);
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(p0[0]);
        close(p1[1]);
        in = p0[1];
        out = fdopen(p1[0], "r");
    }
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (in >= 0) close(in);
        if (out) fclose(out);
    }
    std::string request(const std::string& message) {
        std::string data = message + "\n";
        if (::write(in, data.data(), data.size()) != ssize_t(data.size())) return {};
        std::string reply;
        for (int c; (c = std::fgetc(out)) != EOF && c != '\n';) reply += char(c);
        return reply;
    }
};

std::string httpRoundTrip(int port, const std::string& body) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        std::string request = "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + kToken +
                              "\r\nContent-Type: application/json\r\nContent-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body;
        for (size_t done = 0; done < request.size();) {
            ssize_t n = ::send(fd, request.data() + done, request.size() - done, MSG_NOSIGNAL);
            if (n <= 0) break;
            done += size_t(n);
        }
        char buffer[16384];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) response.append(buffer, size_t(n));
    }
    close(fd);
    return response;
}

// The HTTP server, started once, with the benchmark element defined.
int httpPort() {
    static Child* child = nullptr;
    static int port = 0;
    static std::once_flag once;
    std::call_once(once, [] {
        static std::string log = (std::filesystem::temp_directory_path() /
                                  ("ostrevik-bench-http-" + std::to_string(getpid()) + ".log")).string();
        child = new Child({"--root", "/tmp", "--http", "0", "--token", kToken}, log);
        std::atexit([] {
            delete child;
            std::remove(log.c_str());
        });
        const std::string marker = "MCP over HTTP on 127.0.0.1:";
        for (int i = 0; i < 1000 && port == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::string text;
            if (FILE* f = std::fopen(log.c_str(), "r")) {
                for (int c; (c = std::fgetc(f)) != EOF;) text += char(c);
                std::fclose(f);
            }
            size_t at = text.find(marker);
            if (at != std::string::npos && text.find('\n', at) != std::string::npos)
                port = std::atoi(text.c_str() + at + marker.size());
        }
        for (const auto& message : kSetup) httpRoundTrip(port, message);
    });
    return port;
}

Child& stdioServer() {
    static Child* child = nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        child = new Child({"--root", "/tmp"}, "/dev/null");
        std::atexit([] { delete child; });
        for (const auto& message : kSetup) child->request(message);
    });
    return *child;
}

void httpBench(benchmark::State& state, const std::string& message) {
    const int port = httpPort();
    if (port == 0) {
        state.SkipWithError("the HTTP server did not start");
        return;
    }
    for (auto _ : state) {
        std::string response = httpRoundTrip(port, message);
        if (response.compare(0, 12, "HTTP/1.1 200") != 0) {
            state.SkipWithError(("unexpected response: " + response.substr(0, 80)).c_str());
            break;
        }
        benchmark::DoNotOptimize(response);
    }
    state.SetItemsProcessed(state.iterations());
}

void stdioBench(benchmark::State& state, const std::string& message) {
    Child& child = stdioServer();
    for (auto _ : state) {
        std::string reply = child.request(message);
        if (reply.empty()) {
            state.SkipWithError("no reply on stdio");
            break;
        }
        benchmark::DoNotOptimize(reply);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_HttpPing(benchmark::State& state) { httpBench(state, kPing); }
void BM_HttpGetElement(benchmark::State& state) { httpBench(state, kGet); }
void BM_StdioPing(benchmark::State& state) { stdioBench(state, kPing); }
void BM_StdioGetElement(benchmark::State& state) { stdioBench(state, kGet); }

}  // namespace

BENCHMARK(BM_HttpPing)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(BM_HttpGetElement)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(BM_StdioPing)->UseRealTime();
BENCHMARK(BM_StdioGetElement)->UseRealTime();

BENCHMARK_MAIN();
