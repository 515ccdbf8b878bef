// Runs the built server as a real child process talking over pipes, for end-to-end tests.
//
//   ServerProcess server({"--root", dir});          // starts OSTREVIK_SERVER_BIN
//   server.send(R"({"jsonrpc":"2.0","id":1,"method":"ping"})");
//   std::optional<std::string> reply = server.readLine();   // nothing on timeout or EOF
//   int code = server.finish();                      // closes stdin, waits, drains stderr
//   server.stderrText();
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
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
    // Starts the server (or `binary`) with the given arguments; no shell is involved.
    explicit ServerProcess(const std::vector<std::string>& args,
                           const std::string& binary = OSTREVIK_SERVER_BIN) {
        // A write to a child that already exited must fail with EPIPE, not kill the test.
        std::signal(SIGPIPE, SIG_IGN);
        int in[2], out[2], err[2];
        if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return;
        std::vector<std::string> argvStore;
        argvStore.push_back(binary);
        argvStore.insert(argvStore.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : argvStore) argv.push_back(a.data());
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
        close(in[0]);
        close(out[1]);
        close(err[1]);
        stdin_ = in[1];
        stdout_ = out[0];
        stderr_ = err[0];
        fcntl(stdout_, F_SETFL, fcntl(stdout_, F_GETFL) | O_NONBLOCK);
        fcntl(stderr_, F_SETFL, fcntl(stderr_, F_GETFL) | O_NONBLOCK);
    }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    ~ServerProcess() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
        for (int fd : {stdin_, stdout_, stderr_})
            if (fd >= 0) close(fd);
    }

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    // Writes `line` and a newline (unless `newline` is false). While writing, the child's
    // output is drained so that a large request cannot deadlock on full pipes.
    bool send(std::string_view line, bool newline = true) {
        std::string data(line);
        if (newline) data += '\n';
        return writeAll(data);
    }

    // Writes raw bytes to the child's standard input.
    bool writeAll(std::string_view data) {
        if (stdin_ < 0) return false;
        size_t done = 0;
        while (done < data.size()) {
            pollfd fds[3] = {{stdin_, POLLOUT, 0}, {outEof_ ? -1 : stdout_, POLLIN, 0},
                             {errEof_ ? -1 : stderr_, POLLIN, 0}};
            if (poll(fds, 3, 30000) <= 0) return false;
            if (fds[1].revents) drain(stdout_, out_, outEof_);
            if (fds[2].revents) drain(stderr_, err_, errEof_);
            if (fds[0].revents & (POLLERR | POLLHUP)) return false;
            if (fds[0].revents & POLLOUT) {
                ssize_t n = ::write(stdin_, data.data() + done, data.size() - done);
                if (n < 0) {
                    if (errno == EINTR || errno == EAGAIN) continue;
                    return false;
                }
                done += size_t(n);
            }
        }
        return true;
    }

    // The next line of standard output without its newline; nothing if none arrives in time
    // or the output ended.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
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
            if (outEof_) return std::nullopt;
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd fds[2] = {{stdout_, POLLIN, 0}, {errEof_ ? -1 : stderr_, POLLIN, 0}};
            int r = poll(fds, 2, int(left.count()));
            if (r < 0 && errno != EINTR) return std::nullopt;
            if (fds[0].revents) drain(stdout_, out_, outEof_);
            if (fds[1].revents) drain(stderr_, err_, errEof_);
        }
    }

    // Sends a line and returns the reply line.
    std::optional<std::string> request(std::string_view line) {
        if (!send(line)) return std::nullopt;
        return readLine();
    }

    // Closes the child's standard input (end of input for the stdio loop).
    void closeStdin() {
        if (stdin_ >= 0) close(stdin_);
        stdin_ = -1;
    }

    // Closes standard input, waits for the exit (killing the child after `timeout`), reads the
    // rest of stdout and stderr. Returns the exit code, or 128+signal, or -1.
    int finish(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        closeStdin();
        if (exited_) return code_;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!outEof_ || !errEof_) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                kill(pid_, SIGKILL);
                break;
            }
            pollfd fds[2] = {{outEof_ ? -1 : stdout_, POLLIN, 0}, {errEof_ ? -1 : stderr_, POLLIN, 0}};
            int r = poll(fds, 2, int(left.count()));
            if (r < 0 && errno != EINTR) break;
            if (fds[0].revents) drain(stdout_, out_, outEof_);
            if (fds[1].revents) drain(stderr_, err_, errEof_);
        }
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        exited_ = true;
        if (WIFEXITED(status))
            code_ = WEXITSTATUS(status);
        else if (WIFSIGNALED(status))
            code_ = 128 + WTERMSIG(status);
        else
            code_ = -1;
        return code_;
    }

    // Everything the child wrote to standard error so far.
    const std::string& stderrText() {
        drain(stderr_, err_, errEof_);
        return err_;
    }
    // Standard output not yet returned by readLine.
    std::string pendingStdout() {
        drain(stdout_, out_, outEof_);
        return out_.substr(outPos_);
    }

private:
    static void drain(int fd, std::string& into, bool& eof) {
        if (fd < 0 || eof) return;
        char buf[65536];
        for (;;) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n > 0) {
                into.append(buf, size_t(n));
                continue;
            }
            if (n == 0) eof = true;
            else if (errno == EINTR) continue;
            return;
        }
    }

    pid_t pid_ = -1;
    int stdin_ = -1, stdout_ = -1, stderr_ = -1;
    std::string out_, err_;
    size_t outPos_ = 0;
    bool outEof_ = false, errEof_ = false;
    bool exited_ = false;
    int code_ = -1;
};

}  // namespace testsupport
