// Files in and out: whole regular files read, durable replacement through a sibling ".tmp".
#include <ostrevik/io.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <filesystem>
#include <system_error>

namespace ostrevik {

std::optional<std::string> readRegularFile(const std::string& path) {
    if (path.find('\0') != std::string::npos) return std::nullopt;
    // Non-blocking, so that opening a FIFO nobody writes to returns at once; the type check
    // below then refuses it like every other file that is not a regular one.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    std::string bytes;
    // The size is a hint: a file that grows meanwhile is read to its end all the same.
    bytes.resize(st.st_size > 0 ? static_cast<std::size_t>(st.st_size) : 4096);
    std::size_t done = 0;
    for (;;) {
        if (done == bytes.size()) bytes.resize(bytes.size() * 2);
        ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    bytes.resize(done);
    return bytes;
}

bool writeFileDurably(const std::string& path, std::string_view bytes) {
    namespace fs = std::filesystem;
    std::string tmp;
    tmp.reserve(path.size() + 4);
    tmp.append(path).append(".tmp");
    if (path.find('\0') != std::string::npos) return false;
    // The temporary file must be a new one of this process: a stale one, or a link planted in
    // its place, is unlinked first (the link itself, never what it points at; a directory
    // stays), and the exclusive creation fails rather than follow anything put there meanwhile.
    ::unlink(tmp.c_str());
    std::error_code ec;
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return false;

    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            ::close(fd);
            fs::remove(tmp, ec);
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    ::fsync(fd);
    if (::close(fd) != 0) {
        fs::remove(tmp, ec);
        return false;
    }
    fs::rename(tmp, path, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove(tmp, ignored);
        return false;
    }

    // Make the rename itself durable; the file is in place whatever this says.
    std::string dir = fs::path(path).parent_path().string();
    if (dir.empty()) dir.push_back('.');
    int dfd = ::open(dir.c_str(), O_RDONLY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

}  // namespace ostrevik
