// Durable file replacement: write a sibling ".tmp", fsync it, rename it over the target.
#include <ostrevik/io.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace ostrevik {

bool writeFileDurably(const std::string& path, std::string_view bytes) {
    namespace fs = std::filesystem;
    std::string tmp;
    tmp.reserve(path.size() + 4);
    tmp.append(path).append(".tmp");
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;

    std::error_code ec;
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
