// POSIX back end of the file layer: plain system calls, errno returned.
// This file must contain only generic UNIX code.

#include "system/platform/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Tessera {
namespace System {
namespace Platform {

static_assert(static_cast<int>(NativeSeekOrigin::BEGIN) == 0 && SEEK_SET == 0 && SEEK_CUR == 1 &&
                  SEEK_END == 2 && static_cast<int>(NativeSeekOrigin::END) == 2,
              "seek origins must match the system's whence values");

NativeError OpenNativeFile(const std::string& path, NativeOpenMode mode, NativeFile& out) noexcept {
    int flags = O_CLOEXEC;
    switch (mode) {
        case NativeOpenMode::READ:
            flags |= O_RDONLY;
            break;
        case NativeOpenMode::WRITE:
            flags |= O_RDWR | O_CREAT;
            break;
        case NativeOpenMode::APPEND:
            flags |= O_WRONLY | O_CREAT | O_APPEND;
            break;
        case NativeOpenMode::UPDATE:
            flags |= O_RDWR;
            break;
        case NativeOpenMode::CREATE:
            flags |= O_RDWR | O_CREAT | O_EXCL;
            break;
    }
    int fd;
    do {
        fd = ::open(path.c_str(), flags, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    out = fd;
    return kSuccess;
}

NativeError ReadNativeFile(NativeFile file, void* buffer, std::size_t length,
                           std::size_t& done) noexcept {
    ssize_t n;
    do {
        n = ::read(static_cast<int>(file), buffer, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return errno;
    done = static_cast<std::size_t>(n);
    return kSuccess;
}

NativeError WriteNativeFile(NativeFile file, const void* data, std::size_t length) noexcept {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t n = ::write(static_cast<int>(file), p, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return kSuccess;
}

NativeError SeekNativeFile(NativeFile file, std::int64_t offset, NativeSeekOrigin origin,
                           std::int64_t& position) noexcept {
    const off_t at =
        ::lseek(static_cast<int>(file), static_cast<off_t>(offset), static_cast<int>(origin));
    if (at < 0) return errno;
    position = at;
    return kSuccess;
}

NativeError NativeFileSize(NativeFile file, std::int64_t& size) noexcept {
    struct stat st;
    if (::fstat(static_cast<int>(file), &st) != 0) return errno;
    size = st.st_size;
    return kSuccess;
}

NativeError TruncateNativeFile(NativeFile file, std::int64_t size) noexcept {
    int rc;
    do {
        rc = ::ftruncate(static_cast<int>(file), static_cast<off_t>(size));
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? kSuccess : errno;
}

NativeError SyncNativeFile(NativeFile file) noexcept {
    int rc;
    do {
#if defined(__APPLE__)
        rc = ::fcntl(static_cast<int>(file), F_FULLFSYNC);
#else
        rc = ::fdatasync(static_cast<int>(file));
#endif
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? kSuccess : errno;
}

NativeError CloseNativeFile(NativeFile file) noexcept {
    // Linux releases the descriptor even when close reports EINTR: never retry.
    return ::close(static_cast<int>(file)) == 0 || errno == EINTR ? kSuccess : errno;
}

NativeError RemoveNativeFile(const std::string& path) noexcept {
    return ::unlink(path.c_str()) == 0 ? kSuccess : errno;
}

NativeError RenameNativeFile(const std::string& from, const std::string& to) noexcept {
    return ::rename(from.c_str(), to.c_str()) == 0 ? kSuccess : errno;
}

NativeError MakeNativeDirectory(const std::string& path) noexcept {
    if (::mkdir(path.c_str(), 0755) == 0) return kSuccess;
    const int error = errno;
    struct stat st;
    if (error == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return kSuccess;
    return error;
}

NativeError RemoveNativeDirectory(const std::string& path) noexcept {
    return ::rmdir(path.c_str()) == 0 ? kSuccess : errno;
}

NativeError ListNativeDirectory(const std::string& path,
                                std::vector<NativeDirEntry>& out) noexcept {
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return errno;
    NativeError result = kSuccess;
    try {
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(dir);
            if (entry == nullptr) {
                result = errno;
                break;
            }
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            bool isDirectory = false;
#ifdef DT_DIR
            if (entry->d_type == DT_DIR) {
                isDirectory = true;
            } else if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
#else
            {
#endif
                struct stat st;
                const std::string full = path + "/" + name;
                isDirectory = ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            }
            out.push_back(NativeDirEntry{name, isDirectory});
        }
    } catch (...) {
        result = ENOMEM;
    }
    ::closedir(dir);
    return result;
}

NativeError StatNativePath(const std::string& path, bool& exists, bool& isDirectory) noexcept {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) return errno;
        exists = false;
        isDirectory = false;
        return kSuccess;
    }
    exists = true;
    isDirectory = S_ISDIR(st.st_mode);
    return kSuccess;
}

NativeError SyncNativeDirectory(const std::string& path) noexcept {
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    int rc;
    do {
        rc = ::fsync(fd);
    } while (rc != 0 && errno == EINTR);
    const int error = rc == 0 ? kSuccess : errno;
    ::close(fd);
    // Some file systems cannot sync a directory; their metadata is then as
    // durable as they make it.
    return error == EINVAL || error == EBADF ? kSuccess : error;
}

NativeError NativeTempDirectory(std::string& out) noexcept {
    try {
        const char* tmp = std::getenv("TMPDIR");
        out = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
        while (out.size() > 1 && out.back() == '/') out.pop_back();
    } catch (...) {
        return ENOMEM;
    }
    return kSuccess;
}

char NativePathSeparator() noexcept {
    return '/';
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
