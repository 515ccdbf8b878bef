// The process-wide log: one stamped line per message on standard error.
#include "Dispatch.h"

#include <cstdio>
#include <ctime>

namespace zserver {

Log& Log::instance() {
    static Log log;
    return log;
}

void Log::write(const std::string& message) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[16];
    if (std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local) == 0) stamp[0] = '\0';

    std::string line;
    line.reserve(message.size() + 12);
    line += '[';
    line += stamp;
    line += "] ";
    line += message;

    std::lock_guard<std::mutex> lock(mutex);
    if (sink) {
        sink(line);
        return;
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

}  // namespace zserver
