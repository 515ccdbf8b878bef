// Runs the built server as a real child process talking over pipes, for end-to-end tests.
//
//   ServerProcess server({"--root", dir});          // starts OSTREVIK_SERVER_BIN, no shell
//   std::optional<std::string> reply = server.request(R"({"id":1,"method":"ping"})");
//   int code = server.finish();                      // closes stdin, waits, drains the output
//   server.stderrText();
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace testsupport {

class ServerProcess {
public:
    explicit ServerProcess(const std::vector<std::string>& args, const std::string& binary = OSTREVIK_SERVER_BIN) {
        // A write to a child that already exited must fail with EPIPE, not kill the test.
        std::signal(SIGPIPE, SIG_IGN);
        int in[2], out[2], err[2];
        if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return;
        std::vector<std::string> store{binary};
        store.insert(store.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : store) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
            execv(argv[0], argv.data());
            _exit(127);
        }
        for (int fd : {in[0], out[1], err[1]}) close(fd);
        fd_[0] = in[1];
        fd_[1] = out[0];
        fd_[2] = err[0];
        for (int i : {1, 2}) fcntl(fd_[i], F_SETFL, fcntl(fd_[i], F_GETFL) | O_NONBLOCK);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : fd_)
            if (fd >= 0) close(fd);
    }

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    // Writes `line` and a newline (unless `newline` is false), draining the child's output
    // meanwhile so that a large request cannot deadlock on full pipes.
    bool send(std::string_view line, bool newline = true) {
        std::string data(line);
        if (newline) data += '\n';
        for (size_t done = 0; done < data.size();) {
            int events = fd_[0] < 0 ? -1 : pump(30000, true);
            if (events < 0 || (events & (POLLERR | POLLHUP))) return false;
            if (!(events & POLLOUT)) continue;
            ssize_t n = ::write(fd_[0], data.data() + done, data.size() - done);
            if (n < 0 && errno != EINTR && errno != EAGAIN) return false;
            if (n > 0) done += size_t(n);
        }
        return true;
    }

    // The next line of standard output without its newline; nothing if none arrives in time
    // or the output ended.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        auto deadline = Clock::now() + timeout;
        for (;;) {
            size_t nl = out_.find('\n', outPos_);
            if (nl != std::string::npos) {
                std::string line = out_.substr(outPos_, nl - outPos_);
                outPos_ = nl + 1;
                if (outPos_ > (1u << 20)) {
                    out_.erase(0, outPos_);
                    outPos_ = 0;
                }
                return line;
            }
            int left = msLeft(deadline);
            if (eof_[1] || left <= 0 || pump(left) < 0) return std::nullopt;
        }
    }

    std::optional<std::string> request(std::string_view line) {
        if (!send(line)) return std::nullopt;
        return readLine();
    }

    // End of input for the stdio loop.
    void closeStdin() {
        if (fd_[0] >= 0) close(fd_[0]);
        fd_[0] = -1;
    }

    // Closes standard input, waits for the exit (killing the child after `timeout`) and reads
    // the rest of the output. Returns the exit code, or 128+signal, or -1.
    int finish(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        closeStdin();
        if (exited_) return code_;
        auto deadline = Clock::now() + timeout;
        while (!eof_[1] || !eof_[2]) {
            int left = msLeft(deadline);
            if (left <= 0) {
                kill(pid_, SIGKILL);
                break;
            }
            pump(left);
        }
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        exited_ = true;
        code_ = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
        return code_;
    }

    // Everything the child wrote to standard error so far.
    const std::string& stderrText() {
        drain(2);
        return err_;
    }
    // Standard output not yet returned by readLine.
    std::string pendingStdout() {
        drain(1);
        return out_.substr(outPos_);
    }

private:
    using Clock = std::chrono::steady_clock;

    static int msLeft(Clock::time_point deadline) {
        return int(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
    }

    // Waits up to `timeout` ms and drains whatever output is ready. Returns the events of
    // standard input (when `writing`), or -1 when nothing happened in time or poll failed.
    int pump(int timeout, bool writing = false) {
        pollfd fds[3] = {{writing ? fd_[0] : -1, POLLOUT, 0},
                         {eof_[1] ? -1 : fd_[1], POLLIN, 0},
                         {eof_[2] ? -1 : fd_[2], POLLIN, 0}};
        int r = poll(fds, 3, timeout);
        if (r <= 0) return r < 0 && errno == EINTR ? 0 : -1;
        for (int i : {1, 2})
            if (fds[i].revents) drain(i);
        return fds[0].revents;
    }

    void drain(int i) {
        std::string& into = i == 1 ? out_ : err_;
        if (fd_[i] < 0 || eof_[i]) return;
        char buf[65536];
        for (;;) {
            ssize_t n = ::read(fd_[i], buf, sizeof buf);
            if (n > 0) {
                into.append(buf, size_t(n));
                continue;
            }
            if (n == 0) eof_[i] = true;
            else if (errno == EINTR) continue;
            return;
        }
    }

    pid_t pid_ = -1;
    int fd_[3] = {-1, -1, -1};  // the child's stdin, stdout, stderr
    bool eof_[3] = {false, false, false};
    std::string out_, err_;
    size_t outPos_ = 0;
    bool exited_ = false;
    int code_ = -1;
};

}  // namespace testsupport
