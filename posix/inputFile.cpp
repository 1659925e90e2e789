// POSIX side of the input files.

#include "system/platform/inputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenInputFile(const std::string& path, InputFile& file, long long& size) noexcept {
    file = kNoInputFile;
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    if (S_ISDIR(info.st_mode)) {
        ::close(fd);
        return EISDIR;
    }
    size = S_ISREG(info.st_mode) ? static_cast<long long>(info.st_size) : -1;
    file = fd;
    return kSuccess;
}

NativeError ReadInputFile(InputFile file, char* buffer, std::size_t max,
                          std::size_t& count) noexcept {
    if (max > SSIZE_MAX) max = SSIZE_MAX;
    ssize_t n;
    do {
        n = ::read(static_cast<int>(file), buffer, max);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        count = 0;
        return errno;
    }
    count = static_cast<std::size_t>(n);
    return kSuccess;
}

void CloseInputFile(InputFile file) noexcept {
    ::close(static_cast<int>(file));
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
