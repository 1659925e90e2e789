// POSIX side of the log writers' file layer.

#include "system/platform/logFile.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenLogFile(const std::string& path, bool truncate, LogFile& file) noexcept {
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (truncate ? O_TRUNC : 0);
    int fd;
    do {
        fd = ::open(path.c_str(), flags, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    file = fd;
    return kSuccess;
}

NativeError WriteLogFile(LogFile file, const char* data, std::size_t length) noexcept {
    while (length > 0) {
        const ssize_t n = ::write(static_cast<int>(file), data, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return kSuccess;
}

void CloseLogFile(LogFile file) noexcept {
    if (file != kNoLogFile) ::close(static_cast<int>(file));
}

LogFile StandardStream(bool error) noexcept {
    return error ? STDERR_FILENO : STDOUT_FILENO;
}

bool DebuggerAttached() noexcept {
    // Linux names the tracing process in /proc/self/status; elsewhere the
    // file is absent and no debugger is assumed.
    std::FILE* status = std::fopen("/proc/self/status", "re");
    if (status == nullptr) return false;
    char line[256];
    long tracer = 0;
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        if (std::strncmp(line, "TracerPid:", 10) == 0) {
            tracer = std::strtol(line + 10, nullptr, 10);
            break;
        }
    }
    std::fclose(status);
    return tracer != 0;
}

void BreakIntoDebugger() noexcept {
    ::raise(SIGTRAP);
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
